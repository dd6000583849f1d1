// Lists of addresses and routes below an interface.
//
// The address list has a routing table named after the interface: the network of the list is connected in it, and the
// interface's static routes go there. The table is filled while the interface is not shut down; one that is gets it
// filled by cfgmgr_if_enable.

#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_config_vpn_if.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "common/tip_log.h"

namespace
{

constexpr int32_t NO_INTERFACE = 1;

// The interface that a row's addresses and routes go to; null for an address pool and without a record.
cfgmgr_if_t *routed_interface(const vpn_if_key_t &key)
{
    if (cfgmgr_config_if_is_pool_name(key.name))
        return nullptr;
    return cfgmgr_config_if_find(key, nullptr);
}

ip_prefix_t network_of(const ip_prefix_t &prefix)
{
    ip_prefix_t network = prefix;
    ip_prefix_mask_apply(prefix, &network, 0);
    return network;
}

bool is_same(const ip_prefix_t &a, const ip_prefix_t &b)
{
    return a.len == b.len && a.ip.family == b.ip.family && ip_addr_compare(a.ip, b.ip) == 0;
}

// The table's connected network becomes the new one. With the first address of the list come the static routes.
void move_table(const vpn_if_key_t &key, cfgmgr_if_t *if_p, const ip_prefix_t &network)
{
    cfgmgr_set_ns(key.cfgmgrd_p, key.vpn_id);
    if (!ip_addr_is_zero(if_p->route_prefix.ip))
        (void)cfgmgr_kernel_update_rtable(if_p, if_p->route_prefix, nullptr, false);
    (void)cfgmgr_kernel_update_rtable(if_p, network, nullptr, true);
    if (if_p->addr_list_count == 0) {
        for (const cfgmgr_if_route_t &route : avl_range<cfgmgr_if_route_t>(&if_p->routes))
            (void)cfgmgr_kernel_update_rtable(if_p, route.prefix, &route.next_hop, true);
    }
    cfgmgr_reset_ns(key.cfgmgrd_p, key.vpn_id);
}

void add_list_address(const vpn_if_key_t &key, cfgmgr_if_t *if_p, const ip_prefix_t &address)
{
    ip_prefix_t network = network_of(address);
    (void)cfgmgr_kernel_ifaddr_set(if_p, address, false);
    if (!is_same(network, if_p->route_prefix) && if_p->shutdown == 0)
        move_table(key, if_p, network);
    if_p->route_prefix = network;
    if_p->addr_list_count++;
}

void del_list_address(cfgmgr_if_t *if_p, const ip_prefix_t &address)
{
    if (if_p->addr_list_count > 0)
        if_p->addr_list_count--;
    if (if_p->addr_list_count == 0) {
        if_p->route_prefix = {};
        ip_addr_clear(&if_p->route_prefix.ip, AF_INET);
    }
    (void)cfgmgr_kernel_ifaddr_set(if_p, address, true);
}

} // namespace

int32_t cfgmgr_config_if_addr_list(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t,
                                   confd_tag_value_t *)
{
    cfgmgr_timer_keepalive();
    vpn_if_key_t key = cfgmgr_config_if_key(*row, keys);
    cfgmgr_if_t *if_p = routed_interface(key);
    if (if_p == nullptr)
        return 0;
    ip_prefix_t address = cfgmgr_config_prefix(keys[2]);
    if (op == MOP_CREATED)
        add_list_address(key, if_p, address);
    else if (op == MOP_DELETED)
        del_list_address(if_p, address);
    return 0;
}

int32_t cfgmgr_config_if_sec_address(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t,
                                     confd_tag_value_t *)
{
    cfgmgr_timer_keepalive();
    vpn_if_key_t key = cfgmgr_config_if_key(*row, keys);
    int error = CFGMGR_IF_OK;
    cfgmgr_if_t *if_p = cfgmgr_config_if_find(key, &error);
    if (error == CFGMGR_IF_NOT_PROVISIONED) {
        tip_log("Interface %s not provisioned", key.name); // its own handler has ignored it in the same way
        return 0;
    }
    if (if_p == nullptr) {
        tip_log("Cannot find interface %s", key.name);
        return NO_INTERFACE;
    }
    if (op == MOP_CREATED || op == MOP_DELETED)
        (void)cfgmgr_kernel_ifaddr_set(if_p, cfgmgr_config_prefix(keys[2]), op == MOP_DELETED);
    return 0;
}

int32_t cfgmgr_config_if_route(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t, confd_tag_value_t *)
{
    cfgmgr_timer_keepalive();
    cfgmgr_if_t *if_p = routed_interface(cfgmgr_config_if_key(*row, keys));
    if (if_p != nullptr && op == MOP_DELETED) // its next hops are not told of one by one then
        cfgmgr_if_route_del_prefix(if_p, cfgmgr_config_prefix(keys[2]));
    return 0;
}

int32_t cfgmgr_config_if_route_addr(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t,
                                    confd_tag_value_t *)
{
    cfgmgr_timer_keepalive();
    cfgmgr_if_t *if_p = routed_interface(cfgmgr_config_if_key(*row, keys));
    if (if_p == nullptr)
        return 0;
    ip_prefix_t prefix = cfgmgr_config_prefix(keys[2]);
    ip_addr_t next_hop = cfgmgr_config_address(keys[3]);
    if (op == MOP_CREATED)
        cfgmgr_if_route_add(if_p, prefix, next_hop);
    else if (op == MOP_DELETED)
        cfgmgr_if_route_del(if_p, prefix, next_hop);
    return 0;
}
