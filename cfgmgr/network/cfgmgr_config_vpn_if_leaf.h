// What the leaves of an interface do, one by one, to its record and to the kernel.
//
// A change list is walked in its order. Leaves take effect as they are met, but for link settings, which are collected
// in the state of the call and taken to the device once, after the walk.
#ifndef CFGMGR_NETWORK_CFGMGR_CONFIG_VPN_IF_LEAF_H
#define CFGMGR_NETWORK_CFGMGR_CONFIG_VPN_IF_LEAF_H

#include "cfgmgr/network/cfgmgr_if.h"
#include "chmgr/chmgr_layout.h"

#include <confd_lib.h>

// State of one call of the interface handler.
struct vpn_if_change_t {
    cfgmgrd_t *cfgmgrd_p;
    uint64_t vpn_id;
    int32_t op;
    cfgmgr_if_t *if_p;
    const chmgr_port_t *port_p; // null for other interfaces than ports
    cfgmgr_if_phy_t phy;        // wanted link settings; the record's until the walk is over
    uint32_t family;            // AF_INET inside the container "ip", AF_INET6 inside "ipv6", else 0
    bool pause_changed;
    bool link_changed;
    bool mtu_changed;
    bool mac_changed;
    ip_prefix_t address; // the one met last
    bool clear_address;  // the family of the address met last does not use DHCP any more
    uint64_t mac;        // the one set last
};

// Where an entry of a change list stands. What stands elsewhere belongs to a row of its own.
enum vpn_if_place_t : uint8_t {
    VPN_IF_TOP,    // directly in the interface, the marks of its containers included
    VPN_IF_FAMILY, // directly in "ip" or "ipv6"
};

// Does what the entry asks for; nothing for one without an action.
void cfgmgr_config_vpn_if_leaf(vpn_if_change_t &change, vpn_if_place_t place, const confd_tag_value_t &entry);

#endif
