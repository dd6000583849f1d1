// System-wide interface indexes: every interface that the kernel of any VPN has, under one small number.
//
// A record lives in two trees, by VPN and kernel index and by the allocated number. Numbers are handed out upwards
// through the whole space, so that a freed one is not used again at once.
#ifndef CFGMGR_NETWORK_CFGMGR_IF_IDX_H
#define CFGMGR_NETWORK_CFGMGR_IF_IDX_H

#include "cfgmgr/daemon/cfgmgr_context.h"
#include "common/ip_util.h"

inline constexpr size_t IF_IDX_NAME_SIZE = 64;

struct bitmap_if_idx_t {
    avl_node_t vpn_node;    // of if_idx_by_vpn
    avl_node_t bitmap_node; // of if_idx_by_bitmap
    uint32_t rtm_idx;       // the kernel's index, as the routing daemon reports it
    uint32_t bitmap_if_idx; // 1 to 32767
    char name[IF_IDX_NAME_SIZE];
    uint64_t vpn_id;
    ip_addr_t addr; // the IPv4 address reported last
};

// Which record a lookup gives.
enum cfgmgr_if_idx_mode_t {
    IF_IDX_FIRST = 1, // the first of the tree
    IF_IDX_EXACT = 2,
    IF_IDX_NEXT = 3, // the first behind the key
};

// Maps and trees. 0, or 1 without memory.
[[nodiscard]] int cfgmgr_if_idx_init(cfgmgrd_t *cfgmgrd_p);
// Removes all records and releases everything. Nothing when init has not run.
void cfgmgr_if_idx_deinit(cfgmgrd_t *cfgmgrd_p);

// A free number, or 0 when there is none.
[[nodiscard]] uint32_t cfgmgr_if_idx_alloc(cfgmgrd_t *cfgmgrd_p);
// Gives a number back; one out of range is fatal.
void cfgmgr_if_idx_free(cfgmgrd_t *cfgmgrd_p, uint32_t bitmap_if_idx);

// The record of an interface, made when it is new (the name is not updated later). Null, logged, when there is no
// memory or no number left.
[[nodiscard]] bitmap_if_idx_t *cfgmgr_if_idx_find_or_create(cfgmgrd_t *cfgmgrd_p, uint32_t rtm_idx, const char *name,
                                                            uint64_t vpn_id);
// Null for an unknown mode too.
[[nodiscard]] bitmap_if_idx_t *cfgmgr_if_idx_lookup_by_vpn(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, uint32_t rtm_idx,
                                                           int mode);
[[nodiscard]] bitmap_if_idx_t *cfgmgr_if_idx_lookup_by_bitmap(cfgmgrd_t *cfgmgrd_p, uint32_t bitmap_if_idx, int mode);

// Keeps the interface's IPv4 address, or clears it; other families are ignored. On a management system a change in the
// management VPN also moves the port redirections of that address.
void cfgmgr_if_idx_addr_update(cfgmgrd_t *cfgmgrd_p, uint32_t rtm_idx, uint64_t vpn_id, const ip_addr_t &addr,
                               bool is_delete);
// The redirections alone: a failing command is logged and the next one run all the same.
void cfgmgr_if_idx_iptables_update(uint64_t vpn_id, const ip_addr_t &addr, bool is_delete);

// Nothing happens when there is no such record.
void cfgmgr_if_idx_remove(cfgmgrd_t *cfgmgrd_p, uint32_t rtm_idx, uint64_t vpn_id);
void cfgmgr_if_idx_remove_by_bitmap(cfgmgrd_t *cfgmgrd_p, uint32_t bitmap_if_idx);
void cfgmgr_if_idx_remove_vpn(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);
void cfgmgr_if_idx_remove_all(cfgmgrd_t *cfgmgrd_p);

#endif
