// Handlers of the configuration of interfaces in VPNs. All give 0, but for a secondary address of an interface that
// should have a record and has none.
//
// cfgmgr_config_vpn_if.cc walks the changes of an interface, cfgmgr_config_vpn_if_leaf.cc holds what each leaf does,
// cfgmgr_config_vpn_if_addr.cc the lists of addresses and routes below it.
#ifndef CFGMGR_NETWORK_CFGMGR_CONFIG_VPN_IF_H
#define CFGMGR_NETWORK_CFGMGR_CONFIG_VPN_IF_H

#include "cfgmgr/network/cfgmgr_if.h"
#include "chmgr/chmgr_layout.h"
#include "tconfd/tconfd_api.h"

// What the first two keys of a row at or below an interface say.
struct vpn_if_key_t {
    cfgmgrd_t *cfgmgrd_p;
    uint64_t vpn_id;
    char name[IF_KERNEL_NAME_SIZE]; // kernel form; as configured when is_convertible is false
    chmgr_port_t *port_p;           // null for other interfaces than ports
    bool is_convertible;            // false: the device cannot have such an interface
};
[[nodiscard]] vpn_if_key_t cfgmgr_config_if_key(const tconfd_sub &row, const confd_value_t *keys);
// The record, or null; error as in cfgmgr_if_find.
[[nodiscard]] cfgmgr_if_t *cfgmgr_config_if_find(const vpn_if_key_t &key, int *error);
// Address pools have a device for their name only: addresses and routes are not theirs.
[[nodiscard]] bool cfgmgr_config_if_is_pool_name(const char *name);

// "vpn/vpn-instance/interface", keyed by VPN and name.
int32_t cfgmgr_config_vpn_if(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                             confd_tag_value_t *tv);
// "ip/address-list" below it: addresses with a routing table of their own; third key the address with its length.
int32_t cfgmgr_config_if_addr_list(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                                   confd_tag_value_t *tv);
// "ip/secondary-address"; third key the address with its length. 1 without a record.
int32_t cfgmgr_config_if_sec_address(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys,
                                     uint16_t num_tv, confd_tag_value_t *tv);
// "ip/static-route"; third key the prefix.
int32_t cfgmgr_config_if_route(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                               confd_tag_value_t *tv);
// "ip/static-route/next-hop"; third key the prefix, fourth the address.
int32_t cfgmgr_config_if_route_addr(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                                    confd_tag_value_t *tv);

#endif
