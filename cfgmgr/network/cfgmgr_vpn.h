// The VPN table: one record per VPN, which is one network namespace, one label and one VRF index.
//
// Records are made and freed here only. Main thread.
#ifndef CFGMGR_NETWORK_CFGMGR_VPN_H
#define CFGMGR_NETWORK_CFGMGR_VPN_H

#include "cfgmgr/daemon/cfgmgr_context.h"
#include "cfgmgr/network/cfgmgr_label.h"
#include "common/ip_util.h"
#include "common/vpn_id.h"

inline constexpr uint32_t VPN_MAX = 80; // VRF indexes; the management and internal VPN count too

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
    uint8_t policy_synced : 1; // its routing daemons have all policies
};

// Results beside 0.
enum cfgmgr_vpn_result_t {
    CFGMGR_VPN_FAILED = 1, // no memory, or no VRF index left
};

// Makes the table and the fixed VPNs. 0, or an error with everything released again.
[[nodiscard]] int cfgmgr_vpn_init(cfgmgrd_t *cfgmgrd_p);
// Deletes all VPNs, VPN 0 last. Nothing when init has not run.
void cfgmgr_vpn_deinit(cfgmgrd_t *cfgmgrd_p);

// The VPNs that every device has: 0, the internal one where the chassis needs it, the management one.
[[nodiscard]] int cfgmgr_vpn_default_init(cfgmgrd_t *cfgmgrd_p);

// Makes a VPN. One that exists is left as it is, its label too. 0, CFGMGR_VPN_FAILED, or the kernel layer's error, with
// no VPN left behind.
[[nodiscard]] int cfgmgr_vpn_find_or_create(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, uint32_t label);
// where, unless null, is the place for a new record (avl_find).
[[nodiscard]] cfgmgr_vpn_t *cfgmgr_vpn_find(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, avl_index_t *where);
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

#endif
