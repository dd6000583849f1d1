// Static routes of an interface. The record keeps them all; the kernel has them while the interface is not shut down.

#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/tip_log.h"

#include <cstddef>
#include <cstdlib>

namespace
{

int compare_prefix(const ip_prefix_t &a, const ip_prefix_t &b)
{
    int by_address = ip_addr_compare(a.ip, b.ip);
    if (by_address != 0)
        return by_address;
    return a.len < b.len ? -1 : a.len > b.len ? 1 : 0;
}

int compare_route(const void *key, const void *record)
{
    const auto *a = static_cast<const cfgmgr_if_route_t *>(key);
    const auto *b = static_cast<const cfgmgr_if_route_t *>(record);
    int by_prefix = compare_prefix(a->prefix, b->prefix);
    return by_prefix != 0 ? by_prefix : ip_addr_compare(a->next_hop, b->next_hop);
}

// In the namespace of the interface, in which callers may be already; the thread is left where it was.
class in_vpn_of
{
public:
    explicit in_vpn_of(const cfgmgr_if_t &interface)
        : cfgmgrd_p(interface.vpn_p->cfgmgr_p), vpn_id(interface.vpn_p->vpn_id), before(cfgmgrd_p->last_ns)
    {
        if (before != vpn_id)
            cfgmgr_set_ns(cfgmgrd_p, vpn_id);
    }
    ~in_vpn_of()
    {
        if (before == vpn_id)
            return;
        cfgmgr_reset_ns(cfgmgrd_p, vpn_id);
        if (before != VPN_ID_TRANSPORT)
            cfgmgr_set_ns(cfgmgrd_p, before);
    }
    in_vpn_of(const in_vpn_of &) = delete;
    in_vpn_of &operator=(const in_vpn_of &) = delete;

private:
    cfgmgrd_t *cfgmgrd_p;
    uint64_t vpn_id;
    uint64_t before;
};

bool is_installed(const cfgmgr_if_t &interface)
{
    return interface.shutdown == 0 && interface.vpn_p != nullptr;
}

void update_kernel(const cfgmgr_if_t &interface, const cfgmgr_if_route_t &route, bool is_add)
{
    in_vpn_of vpn(interface);
    (void)cfgmgr_kernel_update_rtable(&interface, route.prefix, &route.next_hop, is_add); // logged
}

void delete_route(cfgmgr_if_t *if_p, cfgmgr_if_route_t *route)
{
    if (is_installed(*if_p))
        update_kernel(*if_p, *route, false);
    avl_remove(&if_p->routes, route);
    free(route);
}

cfgmgr_if_route_t *find_route(cfgmgr_if_t *if_p, const ip_prefix_t &prefix, const ip_addr_t &next_hop,
                              avl_index_t *where)
{
    cfgmgr_if_route_t key{};
    key.prefix = prefix;
    key.next_hop = next_hop;
    return static_cast<cfgmgr_if_route_t *>(avl_find(&if_p->routes, &key, where));
}

} // namespace

void cfgmgr_if_routes_init(cfgmgr_if_t *if_p)
{
    avl_create(&if_p->routes, compare_route, sizeof(cfgmgr_if_route_t), offsetof(cfgmgr_if_route_t, node));
}

void cfgmgr_if_routes_free(cfgmgr_if_t *if_p)
{
    uintptr_t cookie = 0;
    while (void *route = avl_destroy_nodes(&if_p->routes, &cookie))
        free(route);
}

void cfgmgr_if_route_add(cfgmgr_if_t *if_p, const ip_prefix_t &prefix, const ip_addr_t &next_hop)
{
    avl_index_t where;
    if (find_route(if_p, prefix, next_hop, &where) != nullptr)
        return;
    auto *route = static_cast<cfgmgr_if_route_t *>(calloc(1, sizeof(cfgmgr_if_route_t)));
    if (route == nullptr) {
        tip_log("No memory for a static route of interface %s", if_p->name);
        return;
    }
    route->prefix = prefix;
    route->next_hop = next_hop;
    avl_insert(&if_p->routes, route, where);
    if (is_installed(*if_p))
        update_kernel(*if_p, *route, true);
}

void cfgmgr_if_route_del(cfgmgr_if_t *if_p, const ip_prefix_t &prefix, const ip_addr_t &next_hop)
{
    if (cfgmgr_if_route_t *route = find_route(if_p, prefix, next_hop, nullptr))
        delete_route(if_p, route);
}

void cfgmgr_if_route_del_prefix(cfgmgr_if_t *if_p, const ip_prefix_t &prefix)
{
    for (cfgmgr_if_route_t &route : avl_range<cfgmgr_if_route_t>(&if_p->routes)) {
        if (compare_prefix(route.prefix, prefix) == 0)
            delete_route(if_p, &route);
    }
}

void cfgmgr_if_routes_flush(cfgmgr_if_t *if_p)
{
    for (cfgmgr_if_route_t &route : avl_range<cfgmgr_if_route_t>(&if_p->routes))
        delete_route(if_p, &route);
}

void cfgmgr_if_routes_install(cfgmgr_if_t *if_p)
{
    if (if_p->vpn_p == nullptr)
        return;
    in_vpn_of vpn(*if_p);
    for (cfgmgr_if_route_t &route : avl_range<cfgmgr_if_route_t>(&if_p->routes))
        (void)cfgmgr_kernel_update_rtable(if_p, route.prefix, &route.next_hop, true); // logged
}

void cfgmgr_if_routes_restore(cfgmgr_if_t *if_p)
{
    if (if_p->vpn_p == nullptr)
        return;
    in_vpn_of vpn(*if_p);
    (void)cfgmgr_kernel_update_rtable(if_p, if_p->route_prefix, nullptr, true); // logged
    cfgmgr_if_routes_install(if_p);
}
