// The handler of "system": who the device is, who may log in, what is logged, and the archive of the configuration. One
// walk over the changed leaves sets the context; what depends on more than one leaf is applied behind the walk.
#ifndef CFGMGR_NETWORK_CFGMGR_CONFIG_SYSTEM_H
#define CFGMGR_NETWORK_CFGMGR_CONFIG_SYSTEM_H

#include "cfgmgr/daemon/cfgmgr_context.h"
#include "tconfd/tconfd_api.h"

// The context as it is without a configuration: values that are only the model's defaults are never delivered.
void cfgmgr_config_system_init(cfgmgrd_t *cfgmgrd_p);

// No keys. Always 0.
int32_t cfgmgr_config_system(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                             confd_tag_value_t *tv);

// The interfaces of simulated devices: their system addresses, counted up from the device's own, and their addresses
// towards the transport network, counted up from the configured one. Deletes those of old_count devices when is_delete
// or when that is another number than the context's, and makes the context's number unless is_delete.
void cfgmgr_config_simulated_sysip(cfgmgrd_t *cfgmgrd_p, uint32_t old_count, bool is_delete);
void cfgmgr_config_simulated_wan_ip(cfgmgrd_t *cfgmgrd_p, uint32_t old_count, bool is_delete);

#endif
