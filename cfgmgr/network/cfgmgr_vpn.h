// The VPN table: one record per VPN, which is one network namespace, one set of routing daemons, one tree of interfaces,
// one label and one VRF index.
//
// cfgmgr_vpn.cc holds creation and deletion, cfgmgr_vpn_if.cc the membership of interfaces, cfgmgr_vpn_routing.cc what
// VPNs tell their routing daemons, cfgmgr_vpn_dump.cc the operator's dump.
//
// Records are made and freed here only. Main thread.
#ifndef CFGMGR_NETWORK_CFGMGR_VPN_H
#define CFGMGR_NETWORK_CFGMGR_VPN_H

#include "cfgmgr/daemon/cfgmgr_context.h"
#include "cfgmgr/network/cfgmgr_label.h"
#include "common/daemon_names.h"
#include "common/ip_util.h"
#include "common/vpn_id.h"

inline constexpr uint32_t VPN_MAX = 80; // VRF indexes; the management and internal VPN count too

struct cfgmgr_if_t;
struct cfgmgr_vpn_t;
struct msgq_t;

// One routing daemon of a VPN; made and freed with its connections (cfgmgr/routing/cfgmgr_quagga_daemon.h).
struct q_daemon_t {
    uint32_t daemon_id;    // peer id
    msgq_t *mgmt_handle;   // requests and their answers, a blocking client
    msgq_t *notify_handle; // what the daemon tells by itself; null for one without a notification socket
    cfgmgr_vpn_t *vpn_p;
    int32_t pid;            // 0 in VPN 0, where it is not started for the VPN
    int64_t send_msg_delay; // ms; the longest exchange so far
};

// Switches of the BGP trace, for the dump.
struct cfgmgr_vpn_bgp_debug_t {
    uint8_t events;
    uint8_t ipc;
    uint8_t fsm;
    uint8_t packets;
    uint32_t direction; // 1 in, 2 out, other both
    uint8_t keepalive;
    uint8_t update;
};

// Packet directions of the BGP trace.
enum cfgmgr_bgp_debug_direction_t {
    BGP_DEBUG_IN = 1,
    BGP_DEBUG_OUT = 2,
};

struct cfgmgr_vpn_t {
    avl_node_t node;       // of vpn_table
    uint64_t vpn_id;       // the key
    uint16_t vrf_id;       // 0 to VPN_MAX - 1; VPN 0 has 0
    ip_addr_t dns_primary; // resolvers; family 0 means none
    ip_addr_t dns_secondary;
    cfgmgrd_t *cfgmgr_p;
    uint32_t label;      // CFGMGR_LABEL_NONE for none
    int32_t kernel_sock; // datagram socket inside the namespace, for interface ioctls; -1 for none
    char description[128];
    avl_tree_t if_db; // cfgmgr_if_t by name; the records are the interface table's
    cfgmgr_vpn_bgp_debug_t bgp_debug;
    uint32_t bgp_as; // 0: no BGP
    uint8_t ospf_configured;
    q_daemon_t *q_daemon_p[DAEMON_ID_MAX + 1]; // by peer id; null when the VPN has none. Owned
    uint8_t policy_synced : 1;                 // its routing daemons have all policies
    msgq_t *rtm_handle_p;                      // interface events of zebra; null in a VPN half made. Owned
};

// Results beside 0.
enum cfgmgr_vpn_result_t {
    CFGMGR_VPN_FAILED = 1, // no memory, or no VRF index left
};

// Services of a VPN; the values of the model's enumeration.
enum cfgmgr_vpn_service_t {
    VPN_SERVICE_FW = 1,
    VPN_SERVICE_IDS = 2,
    VPN_SERVICE_IDP = 3,
    VPN_SERVICE_NETSVC1 = 4,
    VPN_SERVICE_NETSVC2 = 5,
    VPN_SERVICE_NETSVC3 = 6,
    VPN_SERVICE_NETSVC4 = 7,
    VPN_SERVICE_TE = 8,
};
// As it stands in paths; null for a number that is no service.
[[nodiscard]] const char *cfgmgr_vpn_service_name(uint32_t service);

// Makes the table and the fixed VPNs. 0, or an error with everything released again.
[[nodiscard]] int cfgmgr_vpn_init(cfgmgrd_t *cfgmgrd_p);
// Deletes all VPNs, VPN 0 last. Nothing when init has not run.
void cfgmgr_vpn_deinit(cfgmgrd_t *cfgmgrd_p);

// The VPNs that every device has: 0, the internal one where the chassis needs it, the management one.
[[nodiscard]] int cfgmgr_vpn_default_init(cfgmgrd_t *cfgmgrd_p);
// Deletes the management VPN, where the personality has it, and VPN 0.
void cfgmgr_vpn_default_deinit(cfgmgrd_t *cfgmgrd_p);

// Makes a VPN. One that exists is left as it is, its label too. 0, CFGMGR_VPN_FAILED, or the kernel layer's error, with
// no VPN left behind.
[[nodiscard]] int cfgmgr_vpn_find_or_create(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, uint32_t label);
// where, unless null, is the place for a new record (avl_find).
[[nodiscard]] cfgmgr_vpn_t *cfgmgr_vpn_find(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, avl_index_t *where);
// One that has to be there: without it, fatal.
[[nodiscard]] cfgmgr_vpn_t *cfgmgr_vpn_get(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);
[[nodiscard]] cfgmgr_vpn_t *cfgmgr_vpn_find_next_after(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);
[[nodiscard]] cfgmgr_vpn_t *cfgmgr_vpn_first(cfgmgrd_t *cfgmgrd_p);
// The walk without the management VPN, for what goes to routing daemons.
[[nodiscard]] cfgmgr_vpn_t *cfgmgr_vpn_first_routing(cfgmgrd_t *cfgmgrd_p);
[[nodiscard]] cfgmgr_vpn_t *cfgmgr_vpn_next_routing(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);
// Calls the function on each VPN in order of number; the last result. A null function gives 0.
int cfgmgr_vpn_foreach(cfgmgrd_t *cfgmgrd_p, avl_visit_t visit, void *word1, void *word2);

// Takes a VPN down and frees its record; null is ignored.
void cfgmgr_vpn_delete(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p, bool remove_from_tree);
void cfgmgr_vpn_delete_by_id(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);

// ---- interfaces

// Places an interface into a VPN, in the table and in the kernel. Nothing without the VPN or when it is there already.
void cfgmgr_vpn_if_add(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, cfgmgr_if_t *if_p);
// The reverse; nothing for an interface without a VPN.
void cfgmgr_vpn_if_del(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p, bool remove_from_tree);

// ---- what goes to the routing daemons. All give 0; an unknown VPN is fatal.

// null or an empty prefix clears the router id. Nothing for the internal VPN.
int cfgmgr_vpn_update_routerid(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, const ip_prefix_t *prefix);
// Nothing in a VPN without BGP. site_id 0 clears it.
int cfgmgr_vpn_update_siteid(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, uint32_t site_id);
void cfgmgr_vpn_update_siteid_all(cfgmgrd_t *cfgmgrd_p, bool clear);
// What depends on whether the overlay is up, for every VPN.
void cfgmgr_vpn_update_routing_flags_all(cfgmgrd_t *cfgmgrd_p);

struct cfgmgr_printer_t;
// Prints the table.
void cfgmgr_dump_vpn_table(cfgmgrd_t *cfgmgrd_p, const cfgmgr_printer_t &out);

#endif
