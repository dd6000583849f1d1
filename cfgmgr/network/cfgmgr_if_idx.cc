// System-wide interface indexes.

#include "cfgmgr/network/cfgmgr_if_idx.h"

#include "common/bitmap.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "common/tip_system.h"
#include "common/tip_text.h"
#include "common/vpn_id.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

namespace
{

// Ports of the management system's services, redirected to the host end of its link to the management VPN.
constexpr uint16_t redirected_ports[] = { 80, 8080, 443, 8443, 9080, 9443 };
constexpr char REDIRECT_TEMPLATE[] = "ip netns exec %lu iptables -t nat -%c PREROUTING -p tcp -d %s --dport %u -j DNAT "
                                     "--to-destination 169.254.0.254:%u";

template <typename T> int compare(T a, T b)
{
    return a < b ? -1 : a > b ? 1 : 0;
}

int compare_by_vpn(const void *key, const void *record)
{
    const auto *a = static_cast<const bitmap_if_idx_t *>(key);
    const auto *b = static_cast<const bitmap_if_idx_t *>(record);
    int by_vpn = compare(a->vpn_id, b->vpn_id);
    return by_vpn != 0 ? by_vpn : compare(a->rtm_idx, b->rtm_idx);
}

int compare_by_bitmap(const void *key, const void *record)
{
    return compare(static_cast<const bitmap_if_idx_t *>(key)->bitmap_if_idx,
                   static_cast<const bitmap_if_idx_t *>(record)->bitmap_if_idx);
}

bitmap_if_idx_t make_key(uint64_t vpn_id, uint32_t rtm_idx)
{
    bitmap_if_idx_t key{};
    key.vpn_id = vpn_id;
    key.rtm_idx = rtm_idx;
    return key;
}

bitmap_if_idx_t *lookup(const avl_tree_t *tree, const bitmap_if_idx_t &key, int mode)
{
    switch (mode) {
    case IF_IDX_FIRST:
        return static_cast<bitmap_if_idx_t *>(avl_first(tree));
    case IF_IDX_EXACT:
        return static_cast<bitmap_if_idx_t *>(avl_find(tree, &key, nullptr));
    case IF_IDX_NEXT:
        return static_cast<bitmap_if_idx_t *>(avl_find_next(tree, &key));
    default:
        return nullptr;
    }
}

void remove_record(cfgmgrd_t *cfgmgrd_p, bitmap_if_idx_t *record)
{
    cfgmgr_if_idx_free(cfgmgrd_p, record->bitmap_if_idx);
    avl_remove(&cfgmgrd_p->if_idx_by_vpn, record);
    avl_remove(&cfgmgrd_p->if_idx_by_bitmap, record);
    free(record);
}

bitmap_if_idx_t *create_record(cfgmgrd_t *cfgmgrd_p, uint32_t rtm_idx, const char *name, uint64_t vpn_id)
{
    auto *record = static_cast<bitmap_if_idx_t *>(calloc(1, sizeof(bitmap_if_idx_t)));
    if (record == nullptr) {
        tip_log("Could not allocate memory for idx bitmap");
        return nullptr;
    }
    strlcpy(record->name, name, sizeof record->name);
    record->rtm_idx = rtm_idx;
    record->vpn_id = vpn_id;
    record->bitmap_if_idx = cfgmgr_if_idx_alloc(cfgmgrd_p);
    if (record->bitmap_if_idx == 0) {
        free(record);
        tip_log("Failed to get bitmap for idx: %u vpn:%lu", rtm_idx, vpn_id);
        return nullptr;
    }
    return record;
}

} // namespace

int cfgmgr_if_idx_init(cfgmgrd_t *cfgmgrd_p)
{
    cfgmgrd_p->if_idx_bitmap_p = cfgmgr_bitmap_alloc();
    if (cfgmgrd_p->if_idx_bitmap_p == nullptr)
        return 1;
    cfgmgrd_p->if_idx_hint = 0;
    avl_create(&cfgmgrd_p->if_idx_by_vpn, compare_by_vpn, sizeof(bitmap_if_idx_t), offsetof(bitmap_if_idx_t, vpn_node));
    avl_create(&cfgmgrd_p->if_idx_by_bitmap, compare_by_bitmap, sizeof(bitmap_if_idx_t),
               offsetof(bitmap_if_idx_t, bitmap_node));
    return 0;
}

void cfgmgr_if_idx_deinit(cfgmgrd_t *cfgmgrd_p)
{
    if (cfgmgrd_p->if_idx_bitmap_p == nullptr)
        return;
    cfgmgr_if_idx_remove_all(cfgmgrd_p);
    free(cfgmgrd_p->if_idx_bitmap_p);
    cfgmgrd_p->if_idx_bitmap_p = nullptr;
    avl_destroy(&cfgmgrd_p->if_idx_by_vpn);
    avl_destroy(&cfgmgrd_p->if_idx_by_bitmap);
}

uint32_t cfgmgr_if_idx_alloc(cfgmgrd_t *cfgmgrd_p)
{
    if (cfgmgrd_p->if_idx_hint >= CFGMGR_BITMAP_BITS)
        cfgmgrd_p->if_idx_hint = 0;
    int32_t index = bitmap_find_bit(cfgmgrd_p->if_idx_bitmap_p, CFGMGR_BITMAP_BITS, cfgmgrd_p->if_idx_hint, 0);
    if (index < 0)
        return 0;
    bitmap_set_bit(cfgmgrd_p->if_idx_bitmap_p, static_cast<uint32_t>(index));
    // The bit just set is stepped over by the next search.
    cfgmgrd_p->if_idx_hint = static_cast<uint32_t>(index);
    return static_cast<uint32_t>(index);
}

void cfgmgr_if_idx_free(cfgmgrd_t *cfgmgrd_p, uint32_t bitmap_if_idx)
{
    tip_assert_text_at("cfgmgr_daemon", __LINE__, bitmap_if_idx > 0 && bitmap_if_idx < CFGMGR_BITMAP_BITS,
                       "(bitmap_if_idx > 0) && (bitmap_if_idx < (32 * 1024))");
    bitmap_clear_bit(cfgmgrd_p->if_idx_bitmap_p, bitmap_if_idx);
}

bitmap_if_idx_t *cfgmgr_if_idx_find_or_create(cfgmgrd_t *cfgmgrd_p, uint32_t rtm_idx, const char *name, uint64_t vpn_id)
{
    bitmap_if_idx_t key = make_key(vpn_id, rtm_idx);
    avl_index_t where;
    auto *found = static_cast<bitmap_if_idx_t *>(avl_find(&cfgmgrd_p->if_idx_by_vpn, &key, &where));
    if (found != nullptr)
        return found;
    bitmap_if_idx_t *record = create_record(cfgmgrd_p, rtm_idx, name, vpn_id);
    if (record == nullptr)
        return nullptr;
    avl_insert(&cfgmgrd_p->if_idx_by_vpn, record, where);
    if (avl_find(&cfgmgrd_p->if_idx_by_bitmap, record, &where) == nullptr)
        avl_insert(&cfgmgrd_p->if_idx_by_bitmap, record, where);
    return record;
}

bitmap_if_idx_t *cfgmgr_if_idx_lookup_by_vpn(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, uint32_t rtm_idx, int mode)
{
    return lookup(&cfgmgrd_p->if_idx_by_vpn, make_key(vpn_id, rtm_idx), mode);
}

bitmap_if_idx_t *cfgmgr_if_idx_lookup_by_bitmap(cfgmgrd_t *cfgmgrd_p, uint32_t bitmap_if_idx, int mode)
{
    bitmap_if_idx_t key{};
    key.bitmap_if_idx = bitmap_if_idx;
    return lookup(&cfgmgrd_p->if_idx_by_bitmap, key, mode);
}

void cfgmgr_if_idx_addr_update(cfgmgrd_t *cfgmgrd_p, uint32_t rtm_idx, uint64_t vpn_id, const ip_addr_t &addr,
                               bool is_delete)
{
    bitmap_if_idx_t *record = cfgmgr_if_idx_lookup_by_vpn(cfgmgrd_p, vpn_id, rtm_idx, IF_IDX_EXACT);
    if (record == nullptr) {
        tip_log("Cannot find interface index %d in vpn %lu", static_cast<int>(rtm_idx), vpn_id);
        return;
    }
    if (!ip_addr_is_v4(addr))
        return;
    if (is_delete)
        ip_addr_clear(&record->addr, AF_INET);
    else
        ip_addr_copy(&record->addr, addr);
    if (cfgmgrd_p->personality == PERSONALITY_QUORVIX && vpn_id == VPN_ID_MANAGEMENT)
        cfgmgr_if_idx_iptables_update(vpn_id, addr, is_delete);
}

void cfgmgr_if_idx_iptables_update(uint64_t vpn_id, const ip_addr_t &addr, bool is_delete)
{
    char text[64];
    ip_addr_to_str(addr, text, sizeof text);
    for (unsigned port : redirected_ports) {
        char command[256];
        (void)snprintf(command, sizeof command, REDIRECT_TEMPLATE, vpn_id, is_delete ? 'D' : 'A', text, port, port);
        if (!tip_system_ok(tip_system(command)))
            tip_log("Command Failed: %s (%d)", command, errno);
    }
}

void cfgmgr_if_idx_remove(cfgmgrd_t *cfgmgrd_p, uint32_t rtm_idx, uint64_t vpn_id)
{
    bitmap_if_idx_t *record = cfgmgr_if_idx_lookup_by_vpn(cfgmgrd_p, vpn_id, rtm_idx, IF_IDX_EXACT);
    if (record != nullptr)
        remove_record(cfgmgrd_p, record);
}

void cfgmgr_if_idx_remove_by_bitmap(cfgmgrd_t *cfgmgrd_p, uint32_t bitmap_if_idx)
{
    bitmap_if_idx_t *record = cfgmgr_if_idx_lookup_by_bitmap(cfgmgrd_p, bitmap_if_idx, IF_IDX_EXACT);
    if (record != nullptr)
        remove_record(cfgmgrd_p, record);
}

void cfgmgr_if_idx_remove_vpn(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    for (;;) {
        bitmap_if_idx_t *record = cfgmgr_if_idx_lookup_by_vpn(cfgmgrd_p, vpn_id, 0, IF_IDX_NEXT);
        if (record == nullptr || record->vpn_id != vpn_id)
            return;
        remove_record(cfgmgrd_p, record);
    }
}

void cfgmgr_if_idx_remove_all(cfgmgrd_t *cfgmgrd_p)
{
    while (bitmap_if_idx_t *record = cfgmgr_if_idx_lookup_by_vpn(cfgmgrd_p, 0, 0, IF_IDX_FIRST))
        remove_record(cfgmgrd_p, record);
}
