// Bridges of VPN 0 and their members. A bridge may carry one VLAN: then its members are sub-interfaces of the ports.
//
// cfgmgr_bridge.cc holds the table and membership, cfgmgr_bridge_kernel.cc the commands.
//
// A physical member is not put into the kernel's bridge: its frames are switched by the forwarding plane, and the daemon
// asks for promiscuous mode only. Main thread.
#ifndef CFGMGR_NETWORK_CFGMGR_BRIDGE_H
#define CFGMGR_NETWORK_CFGMGR_BRIDGE_H

#include "cfgmgr/daemon/cfgmgr_context.h"
#include "cfgmgr/network/cfgmgr_if.h"

inline constexpr uint16_t BRIDGE_VLAN_DELETED = 65535;
inline constexpr uint32_t BRIDGE_INTERNAL = 511;
inline constexpr int CFGMGR_BRIDGE_NO_MEMORY = 1;

struct cfgmgr_bridge_t {
    avl_node_t node;    // of bridge_table
    uint32_t bridge_id; // 0 to 63 configured, BRIDGE_INTERNAL
    uint16_t vlan;      // tag; 0 until set, BRIDGE_VLAN_DELETED
    char name[33];      // kernel device, where the daemon brings it up: of BRIDGE_INTERNAL only
    avl_tree_t if_db;   // members, by name
};

[[nodiscard]] int cfgmgr_bridge_init(cfgmgrd_t *cfgmgrd_p);
// Nothing before init.
void cfgmgr_bridge_deinit(cfgmgrd_t *cfgmgrd_p);
[[nodiscard]] cfgmgr_bridge_t *cfgmgr_bridge_find(cfgmgrd_t *cfgmgrd_p, uint32_t bridge_id, avl_index_t *where);
[[nodiscard]] cfgmgr_bridge_t *cfgmgr_bridge_first(cfgmgrd_t *cfgmgrd_p);
[[nodiscard]] cfgmgr_bridge_t *cfgmgr_bridge_next(cfgmgrd_t *cfgmgrd_p, const cfgmgr_bridge_t *bridge_p);
// 0; CFGMGR_BRIDGE_NO_MEMORY; the kernel layer's error with the record in the tree.
[[nodiscard]] int cfgmgr_bridge_find_or_create(cfgmgrd_t *cfgmgrd_p, uint32_t bridge_id);
void cfgmgr_bridge_delete(cfgmgrd_t *cfgmgrd_p, cfgmgr_bridge_t *bridge_p);
void cfgmgr_bridge_delete_by_id(cfgmgrd_t *cfgmgrd_p, uint32_t bridge_id);

// Makes an interface a member; nothing without the bridge. One that is a member already is fatal.
void cfgmgr_bridge_if_bind(cfgmgrd_t *cfgmgrd_p, uint32_t bridge_id, cfgmgr_if_t *if_p);
// Nothing for an interface without a bridge.
void cfgmgr_bridge_if_remove(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p);

// The kernel's side; 0 or a cfgmgr_kernel_result_t, logged.
int cfgmgr_bridge_add(cfgmgr_bridge_t *bridge_p);
int cfgmgr_bridge_del(cfgmgr_bridge_t *bridge_p);
int cfgmgr_bridge_if_add(uint32_t bridge_id, cfgmgr_if_t *if_p);
int cfgmgr_bridge_if_del(uint32_t bridge_id, cfgmgr_if_t *if_p);
int cfgmgr_bridge_enable(cfgmgrd_t *cfgmgrd_p, cfgmgr_bridge_t *bridge_p, uint64_t vpn_id, bool is_up);

#endif
