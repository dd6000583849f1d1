// The text before a login, which programs that ask for a name take from a file.
#ifndef CFGMGR_NETWORK_CFGMGR_CONFIG_BANNER_H
#define CFGMGR_NETWORK_CFGMGR_CONFIG_BANNER_H

#include "tconfd/tconfd_api.h"

// The handler of "banner". No keys. Always 0.
int32_t cfgmgr_config_banner(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                             confd_tag_value_t *tv);

// Writes the file anew. text is a format without values, so that "%%" is a percent sign; null leaves the file with an
// empty line. A failure is logged and leaves the old file, or none.
void cfgmgr_config_banner_login(const char *text);

#endif
