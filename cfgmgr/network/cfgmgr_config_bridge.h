// Handlers of the configuration of bridges and their members.
#ifndef CFGMGR_NETWORK_CFGMGR_CONFIG_BRIDGE_H
#define CFGMGR_NETWORK_CFGMGR_CONFIG_BRIDGE_H

#include "tconfd/tconfd_api.h"

// "bridge/bridge-instance", keyed by the bridge's number.
int32_t cfgmgr_config_bridge(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                             confd_tag_value_t *tv);
// "bridge/bridge-instance/interface", keyed by the bridge's number and the port's name as the operator writes it. 1
// when the bridge is not there or the port cannot serve the untagged VLAN.
int32_t cfgmgr_config_bridge_if(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                                confd_tag_value_t *tv);

#endif
