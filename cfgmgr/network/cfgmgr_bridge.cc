// The table of bridges: creation, deletion, and what it takes for an interface to become a member and to leave.

#include "cfgmgr/network/cfgmgr_bridge.h"

#include "cfgmgr/network/cfgmgr_kernel_command.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>

namespace
{

int compare_bridge(const void *key, const void *record)
{
    uint32_t a = static_cast<const cfgmgr_bridge_t *>(key)->bridge_id;
    uint32_t b = static_cast<const cfgmgr_bridge_t *>(record)->bridge_id;
    return a < b ? -1 : a > b ? 1 : 0;
}

cfgmgr_bridge_t *alloc_record(uint32_t bridge_id)
{
    auto *bridge_p = static_cast<cfgmgr_bridge_t *>(calloc(1, sizeof(cfgmgr_bridge_t)));
    if (bridge_p == nullptr)
        return nullptr;
    bridge_p->bridge_id = bridge_id;
    if (bridge_id == BRIDGE_INTERNAL)
        snprintf(bridge_p->name, sizeof bridge_p->name, "%u", bridge_id);
    avl_create(&bridge_p->if_db, cfgmgr_if_compare, sizeof(cfgmgr_if_t), offsetof(cfgmgr_if_t, bridge_node));
    return bridge_p;
}

// A tagged member exists for its bridge alone; a port goes on living without it.
void drop_member(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p)
{
    cfgmgr_bridge_if_remove(cfgmgrd_p, if_p);
    if ((if_p->flags & IF_SUBIF) != 0)
        cfgmgr_if_delete(cfgmgrd_p, if_p);
}

} // namespace

int cfgmgr_bridge_init(cfgmgrd_t *cfgmgrd_p)
{
    avl_create(&cfgmgrd_p->bridge_table, compare_bridge, sizeof(cfgmgr_bridge_t), offsetof(cfgmgr_bridge_t, node));
    return 0;
}

void cfgmgr_bridge_deinit(cfgmgrd_t *cfgmgrd_p)
{
    if (cfgmgrd_p->bridge_table.compar == nullptr)
        return;
    while (cfgmgr_bridge_t *bridge_p = cfgmgr_bridge_first(cfgmgrd_p))
        cfgmgr_bridge_delete(cfgmgrd_p, bridge_p);
}

cfgmgr_bridge_t *cfgmgr_bridge_find(cfgmgrd_t *cfgmgrd_p, uint32_t bridge_id, avl_index_t *where)
{
    cfgmgr_bridge_t key{};
    key.bridge_id = bridge_id;
    return static_cast<cfgmgr_bridge_t *>(avl_find(&cfgmgrd_p->bridge_table, &key, where));
}

cfgmgr_bridge_t *cfgmgr_bridge_first(cfgmgrd_t *cfgmgrd_p)
{
    return static_cast<cfgmgr_bridge_t *>(avl_first(&cfgmgrd_p->bridge_table));
}

cfgmgr_bridge_t *cfgmgr_bridge_next(cfgmgrd_t *cfgmgrd_p, const cfgmgr_bridge_t *bridge_p)
{
    return static_cast<cfgmgr_bridge_t *>(avl_walk(&cfgmgrd_p->bridge_table, bridge_p, AVL_AFTER));
}

int cfgmgr_bridge_find_or_create(cfgmgrd_t *cfgmgrd_p, uint32_t bridge_id)
{
    avl_index_t where;
    if (cfgmgr_bridge_find(cfgmgrd_p, bridge_id, &where) != nullptr)
        return 0;
    tip_log("Creating bridge: bridge-id=%d", bridge_id);
    cfgmgr_bridge_t *bridge_p = alloc_record(bridge_id);
    if (bridge_p == nullptr)
        return CFGMGR_BRIDGE_NO_MEMORY;
    avl_insert(&cfgmgrd_p->bridge_table, bridge_p, where);
    int result = cfgmgr_bridge_add(bridge_p);
    if (result != 0) {
        (void)cfgmgr_bridge_del(bridge_p); // has logged its failure
        tip_log("Bridge creation failed: bridge-id=%d", bridge_id);
    }
    return result;
}

// The kernel's bridge goes first: no frame is switched between members while they are taken out one by one.
void cfgmgr_bridge_delete(cfgmgrd_t *cfgmgrd_p, cfgmgr_bridge_t *bridge_p)
{
    (void)cfgmgr_bridge_del(bridge_p); // has logged its failure
    // Not a walk: deleting one member may take others along.
    while (auto *if_p = static_cast<cfgmgr_if_t *>(avl_first(&bridge_p->if_db)))
        drop_member(cfgmgrd_p, if_p);
    avl_destroy(&bridge_p->if_db);
    avl_remove(&cfgmgrd_p->bridge_table, bridge_p);
    free(bridge_p);
}

void cfgmgr_bridge_delete_by_id(cfgmgrd_t *cfgmgrd_p, uint32_t bridge_id)
{
    cfgmgr_bridge_t *bridge_p = cfgmgr_bridge_find(cfgmgrd_p, bridge_id, nullptr);
    if (bridge_p != nullptr)
        cfgmgr_bridge_delete(cfgmgrd_p, bridge_p);
}

void cfgmgr_bridge_if_bind(cfgmgrd_t *cfgmgrd_p, uint32_t bridge_id, cfgmgr_if_t *if_p)
{
    cfgmgr_bridge_t *bridge_p = cfgmgr_bridge_find(cfgmgrd_p, bridge_id, nullptr);
    if (bridge_p == nullptr)
        return;
    avl_index_t where;
    void *found_if_p = avl_find(&bridge_p->if_db, if_p, &where);
    tip_assert_text(found_if_p == nullptr, "found_if_p == ((void *)0)");
    avl_insert(&bridge_p->if_db, if_p, where);
    if_p->bridge_p = bridge_p;
    if ((if_p->flags & IF_SUBIF) != 0)
        cfgmgr_subif_add_sim(if_p);
    uint64_t vpn_id = cfgmgr_kernel_vpn_of(*if_p);
    cfgmgr_set_ns(cfgmgrd_p, vpn_id);
    (void)cfgmgr_bridge_if_add(bridge_id, if_p); // logged; the record states what is configured
    cfgmgr_reset_ns(cfgmgrd_p, vpn_id);
}

void cfgmgr_bridge_if_remove(cfgmgrd_t *, cfgmgr_if_t *if_p)
{
    cfgmgr_bridge_t *bridge_p = if_p->bridge_p;
    if (bridge_p == nullptr)
        return;
    if ((if_p->flags & IF_SUBIF) != 0)
        cfgmgr_subif_del_sim(if_p);
    avl_remove(&bridge_p->if_db, if_p);
    (void)cfgmgr_bridge_if_del(bridge_p->bridge_id, if_p); // logged
    if_p->bridge_p = nullptr;
    if_p->type = IF_TYPE_PLAIN;
}
