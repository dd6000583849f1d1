// The handlers of "ovc", the overlay's control protocol: whether the device has a controller, and the AS number that
// stands for the overlay.
#ifndef CFGMGR_NETWORK_CFGMGR_CONFIG_OVC_H
#define CFGMGR_NETWORK_CFGMGR_CONFIG_OVC_H

#include "tconfd/tconfd_api.h"

// Operational data, written by the protocol's daemon. No keys. 1 when there is no value: the daemon that tells of
// controllers never takes its word back, so a delivery without one is a fault of the datastore, and a restart reads all
// anew.
int32_t cfgmgr_config_ovc_lodest_peers(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys,
                                       uint16_t num_tv, confd_tag_value_t *tv);

// No keys. Always 0.
int32_t cfgmgr_config_ovc_overlay_as(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys,
                                     uint16_t num_tv, confd_tag_value_t *tv);

#endif
