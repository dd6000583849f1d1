// Handlers of the configuration of a VPN itself.
#ifndef CFGMGR_NETWORK_CFGMGR_CONFIG_VPN_H
#define CFGMGR_NETWORK_CFGMGR_CONFIG_VPN_H

#include "tconfd/tconfd_api.h"

// "vpn/vpn-instance", keyed by the VPN's number. 0, or an error when the VPN could not be made.
int32_t cfgmgr_config_vpn(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                          confd_tag_value_t *tv);

#endif
