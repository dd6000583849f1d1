// The interface table: lookups, addresses, enabling.

#include "cfgmgr/network/cfgmgr_if.h"

#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_kernel_phy.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "cfgmgr/routing/cfgmgr_config_vpn_ospf.h"
#include "chmgr/chmgr_api.h"
#include "common/tip_log.h"
#include "common/tip_text.h"

#include <cstddef>
#include <unistd.h>

namespace
{

constexpr useconds_t ADDRESS_SETTLE_US = 50 * 1000; // from the removal of an address to the next change
constexpr uint32_t DELAY_UP_INITIAL_MS = 1000;
constexpr uint32_t DELAY_UP_MS = 2000;

cfgmgr_if_t *find_from(cfgmgrd_t *cfgmgrd_p, void *record, bool (*matches)(const cfgmgr_if_t &, uint64_t vpn_id),
                       uint64_t vpn_id)
{
    auto *if_p = static_cast<cfgmgr_if_t *>(record);
    while (if_p != nullptr && !matches(*if_p, vpn_id))
        if_p = static_cast<cfgmgr_if_t *>(avl_walk(&cfgmgrd_p->if_table, if_p, AVL_AFTER));
    return if_p;
}

bool is_in_vpn(const cfgmgr_if_t &interface, uint64_t vpn_id)
{
    return interface.vpn_p != nullptr && interface.vpn_p->vpn_id == vpn_id;
}

bool is_ppp_in_vpn(const cfgmgr_if_t &interface, uint64_t vpn_id)
{
    return is_in_vpn(interface, vpn_id) && strstr(interface.name, "ppp") != nullptr;
}

// ---- addresses

// A tunnel without both of its ends has no device yet that could take an address.
bool can_have_address(const cfgmgr_if_t &interface)
{
    return (interface.flags & IF_GRE) == 0 || (interface.flags & IF_PRESENT) != 0;
}

void remove_address(cfgmgr_if_t *if_p, const ip_prefix_t &prefix)
{
    (void)cfgmgr_kernel_ifaddr_set(if_p, prefix, true); // logged
    usleep(ADDRESS_SETTLE_US);
}

// A configured address replaces the one that the DHCP client has set.
void remove_dhcp_address(cfgmgr_if_t *if_p, const ip_prefix_t &prefix)
{
    bool is_v6 = ip_addr_is_v6(prefix.ip);
    bool is_v4 = ip_addr_is_v4(prefix.ip);
    if (is_v4 && (if_p->flags & IF_DHCP4) != 0 && !ip_addr_is_zero(if_p->dhcp_addr.ip))
        remove_address(if_p, if_p->dhcp_addr);
    if (is_v6 && (if_p->flags & IF_DHCP6) != 0 && !ip_addr_is_zero(if_p->dhcp6_addr.ip))
        remove_address(if_p, if_p->dhcp6_addr);
}

void forget_address(cfgmgr_if_t *if_p, ip_prefix_t *slot)
{
    if (slot == &if_p->ipv6_addr)
        if_p->ipv6_linklocal = {};
    *slot = {};
}

// ---- enabling

// The kernel drops IPv6 addresses and routes of a link that goes down. Setting an address leaves the thread in the
// first namespace, while a caller may be at work in the interface's own.
void restore_after_down(cfgmgr_if_t *if_p)
{
    cfgmgrd_t *cfgmgrd_p = if_p->vpn_p->cfgmgr_p;
    uint64_t ns_before = cfgmgrd_p->last_ns;
    if (!ip_addr_is_zero(if_p->ipv6_addr.ip))
        (void)cfgmgr_kernel_ifaddr_set(if_p, if_p->ipv6_addr, false); // logged
    if (cfgmgrd_p->last_ns != ns_before)
        cfgmgr_set_ns(cfgmgrd_p, ns_before);
    if (!ip_addr_is_zero(if_p->route_prefix.ip))
        cfgmgr_if_routes_restore(if_p);
}

void enable_port(cfgmgr_if_t *if_p, chmgr_port_t *port, bool is_up)
{
    if (is_up) {
        (void)chmgr_port_state_set(port, true); // the port is of the block, so that there is one
        timer_restart(if_p->delay_up_timer, DELAY_UP_MS);
        return;
    }
    timer_disable(if_p->delay_up_timer);
    (void)cfgmgr_kernel_ifflags_set(if_p, false); // logged
    (void)chmgr_port_state_set(port, false);
}

void set_link_state(cfgmgr_if_t *if_p, bool is_up)
{
    char name[IF_NAME_SIZE];
    chmgr_port_t *port = nullptr;
    (void)cfgmgr_if_cli_to_kernel_name(if_p->cli_name, name, sizeof name, &port); // only the port counts
    if (port != nullptr && !cfgmgr_if_is_tagged(if_p->cli_name))
        enable_port(if_p, port, is_up);
    else
        (void)cfgmgr_kernel_ifflags_set(if_p, is_up); // logged
}

// Whether this change of state is made in the kernel at all.
bool can_enable(const cfgmgr_if_t &interface, bool is_up)
{
    if ((interface.flags & (IF_GRE | IF_VAP)) != 0)
        return false;
    return (interface.flags & IF_CELLULAR) == 0 || !is_up; // a modem comes up by itself
}

void delay_up_cb(timer_util_t *, void *arg1, void *, void *, void *)
{
    auto *if_p = static_cast<cfgmgr_if_t *>(arg1);
    if (if_p->shutdown != 0 || if_p->vpn_p == nullptr)
        return;
    (void)cfgmgr_kernel_ifflags_set(if_p, true); // logged
    const cfgmgr_if_phy_t own = if_p->phy;
    (void)cfgmgr_kernel_phy_set(if_p, own, true); // logged
    // A port that comes up takes its sub-interfaces with it.
    for (cfgmgr_if_t *child = cfgmgr_if_first_child(if_p); child != nullptr; child = cfgmgr_if_next_child(child)) {
        if (child->shutdown != 0)
            (void)cfgmgr_if_enable(child, false); // gives 0
    }
}

} // namespace

int cfgmgr_if_compare(const void *key, const void *record)
{
    int order = strncmp(static_cast<const cfgmgr_if_t *>(key)->name, static_cast<const cfgmgr_if_t *>(record)->name,
                        IF_NAME_SIZE);
    return order < 0 ? -1 : order > 0 ? 1 : 0;
}

// The tree is asked first: a port whose device is in another namespace, or has vanished, still has its record, and
// what is configured on it must be found to be taken away.
cfgmgr_if_t *cfgmgr_if_find(cfgmgrd_t *cfgmgrd_p, const char *name, avl_index_t *where, int *error)
{
    int result = CFGMGR_IF_NOT_FOUND;
    cfgmgr_if_t *if_p = nullptr;
    if (name != nullptr && *name != '\0') {
        cfgmgr_if_t key{};
        strlcpy(key.name, name, sizeof key.name);
        if_p = static_cast<cfgmgr_if_t *>(avl_find(&cfgmgrd_p->if_table, &key, where));
        if (if_p != nullptr)
            result = CFGMGR_IF_OK;
        else if (error != nullptr && !cfgmgr_if_is_provisioned(key.name, cfgmgrd_p->personality, nullptr))
            result = CFGMGR_IF_NOT_PROVISIONED;
    }
    if (error != nullptr)
        *error = result;
    return if_p;
}

cfgmgr_if_t *cfgmgr_if_first_in_vpn(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    return find_from(cfgmgrd_p, avl_first(&cfgmgrd_p->if_table), is_in_vpn, vpn_id);
}

cfgmgr_if_t *cfgmgr_if_next_in_vpn(cfgmgrd_t *cfgmgrd_p, const cfgmgr_if_t *if_p)
{
    if (if_p->vpn_p == nullptr)
        return nullptr;
    return find_from(cfgmgrd_p, avl_walk(&cfgmgrd_p->if_table, if_p, AVL_AFTER), is_in_vpn, if_p->vpn_p->vpn_id);
}

cfgmgr_if_t *cfgmgr_if_first_ppp(cfgmgrd_t *cfgmgrd_p)
{
    return find_from(cfgmgrd_p, avl_first(&cfgmgrd_p->if_table), is_ppp_in_vpn, VPN_ID_TRANSPORT);
}

cfgmgr_if_t *cfgmgr_if_next_ppp(cfgmgrd_t *cfgmgrd_p, const cfgmgr_if_t *if_p)
{
    return find_from(cfgmgrd_p, avl_walk(&cfgmgrd_p->if_table, if_p, AVL_AFTER), is_ppp_in_vpn, VPN_ID_TRANSPORT);
}

static cfgmgr_if_t *record_of_sibling(dll_node_t *node)
{
    if (node == nullptr)
        return nullptr;
    return reinterpret_cast<cfgmgr_if_t *>(reinterpret_cast<char *>(node) - offsetof(cfgmgr_if_t, sibling_node));
}

cfgmgr_if_t *cfgmgr_if_first_child(const cfgmgr_if_t *if_p)
{
    return record_of_sibling(if_p->children.p_head);
}

cfgmgr_if_t *cfgmgr_if_next_child(const cfgmgr_if_t *child_p)
{
    return record_of_sibling(child_p->sibling_node.p_next);
}

timer_util_t *cfgmgr_if_delay_timer_create(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p)
{
    return timer_util_create(cfgmgrd_p->timer_mgr_p, TIMER_PRIO_NORMAL, TIMER_ONE_SHOT, DELAY_UP_INITIAL_MS,
                             delay_up_cb, if_p, nullptr, nullptr, nullptr, "delay-if-up");
}

int cfgmgr_if_addr_update(cfgmgrd_t *cfgmgrd_p, const char *name, const ip_prefix_t &prefix, bool is_delete)
{
    int result;
    cfgmgr_if_t *if_p = cfgmgr_if_find(cfgmgrd_p, name, nullptr, &result);
    if (if_p == nullptr)
        return result;
    const ip_prefix_t wanted = prefix; // which may be the record's own
    cfgmgr_ospf_if_addr_update(*if_p, wanted, is_delete);
    ip_prefix_t *slot = ip_addr_is_v6(wanted.ip) ? &if_p->ipv6_addr : &if_p->ipv4_addr;
    if (slot->ip.family != 0 && can_have_address(*if_p))
        remove_address(if_p, *slot);
    remove_dhcp_address(if_p, wanted);
    if (is_delete) {
        forget_address(if_p, slot);
        return CFGMGR_IF_OK;
    }
    if (can_have_address(*if_p))
        (void)cfgmgr_kernel_ifaddr_set(if_p, wanted, false); // logged
    *slot = wanted;
    return CFGMGR_IF_OK;
}

void cfgmgr_if_addr_clear(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p)
{
    if (if_p->type == IF_TYPE_BRIDGE_PORT || ((if_p->flags & IF_MGMT) != 0 && cfgmgr_is_terminating()))
        return;
    // With the family even where none is configured, so that an address of the DHCP client goes too.
    ip_prefix_t ipv4 = if_p->ipv4_addr;
    ip_prefix_t ipv6 = if_p->ipv6_addr;
    ipv4.ip.family = AF_INET;
    ipv6.ip.family = AF_INET6;
    (void)cfgmgr_if_addr_update(cfgmgrd_p, if_p->name, ipv4, true); // the record is there
    (void)cfgmgr_if_addr_update(cfgmgrd_p, if_p->name, ipv6, true);
}

int cfgmgr_if_enable(cfgmgr_if_t *if_p, bool is_up)
{
    if ((if_p->flags & IF_MGMT) != 0 && cfgmgr_is_terminating()) {
        tip_log("Skip mgmt interface - %s operation: %d because of term signal", if_p->name, is_up);
        return 0;
    }
    if (if_p->vpn_p == nullptr || !can_enable(*if_p, is_up))
        return 0;
    set_link_state(if_p, is_up);
    if (is_up)
        restore_after_down(if_p);
    return 0;
}

void cfgmgr_update_default_if_mac(cfgmgr_if_t *if_p, uint64_t vpn_id)
{
    cfgmgrd_t *cfgmgrd_p = if_p->vpn_p->cfgmgr_p;
    cfgmgr_set_ns(cfgmgrd_p, vpn_id);
    (void)cfgmgr_if_enable(if_p, false); // gives 0, as below
    if ((if_p->flags & IF_IRB) != 0 && if_p->default_mac == IF_MAC_UNREADABLE) {
        // The device did not exist when the record was made.
        tip_log("%s: Updating default macaddr", if_p->name);
        if_p->default_mac = cfgmgr_get_port_macaddr(if_p->name);
    }
    (void)cfgmgr_kernel_if_set_mac(if_p->vpn_p->kernel_sock, vpn_id, if_p->name, if_p->default_mac); // logged
    (void)cfgmgr_if_enable(if_p, true);
    if (if_p->shutdown != 0)
        (void)cfgmgr_if_enable(if_p, false);
    cfgmgr_reset_ns(cfgmgrd_p, vpn_id);
}
