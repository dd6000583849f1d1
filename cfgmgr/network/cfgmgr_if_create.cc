// Creation and deletion of interfaces.

#include "cfgmgr/network/cfgmgr_bridge.h"
#include "cfgmgr/network/cfgmgr_gre.h"
#include "cfgmgr/network/cfgmgr_if_kind.h"
#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_kernel_phy.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "common/tip_text.h"

#include <cstddef>
#include <cstdlib>

namespace
{

// Where an interface is wanted; the number that callers give is a VPN's or a bridge's.
struct place_t {
    uint64_t vpn_id;
    uint32_t bridge_id; // 0 when in none
};

place_t place_of(uint32_t id, cfgmgr_if_type_t type)
{
    switch (type) {
    case IF_TYPE_BRIDGE_PORT:
        return { VPN_ID_TRANSPORT, id };
    case IF_TYPE_INTERNAL:
        return { VPN_ID_INTERNAL, id };
    default:
        return { id, 0 };
    }
}

// ---- creation

const char *mac_text(uint64_t mac, char *buffer)
{
    uint8_t bytes[MAC_BYTES];
    for (size_t i = 0; i < MAC_BYTES; i++)
        bytes[i] = static_cast<uint8_t>(mac >> (8 * (MAC_BYTES - 1 - i)));
    return mac_to_text(bytes, buffer);
}

void set_defaults(cfgmgr_if_t *if_p, cfgmgr_if_type_t type)
{
    if_p->type = type;
    if_p->phy = PHY_DEFAULT;
    if_p->mtu = IF_MTU_DEFAULT;
    if_p->shutdown = 1;
    if_p->route_prefix.ip.family = AF_INET;
    if_p->dhcp_addr.ip.family = AF_INET;
    if_p->dhcp6_addr.ip.family = AF_INET6;
    if_p->tunnel_dst.family = AF_INET;
    (void)cfgmgr_if_kernel_to_cli_name(if_p->name, if_p->cli_name, sizeof if_p->cli_name, nullptr);
}

void classify(cfgmgr_if_t *if_p, cfgmgr_if_type_t type)
{
    if (type == IF_TYPE_INTERNAL) {
        if_p->flags = IF_INTERNAL;
        if_p->vlan_id = cfgmgr_if_internal_tag(if_p->name);
    }
    cfgmgr_if_kind_t kind = cfgmgr_if_kind_of(if_p->name);
    if_p->flags |= kind.flags;
    if (kind.vlan_id != 0)
        if_p->vlan_id = kind.vlan_id;
}

void set_default_mac(cfgmgr_if_t *if_p)
{
    if ((if_p->flags & IF_IRB) != 0)
        if_p->default_mac = cfgmgr_chassis_irb_mac(if_p->vlan_id);
    if ((if_p->flags & IF_CELLULAR) != 0) {
        if_p->default_mac = cfgmgr_chassis_cellular_mac(if_p->vlan_id - IF_CELLULAR_TAG_FIRST);
        if_p->mtu = IF_MTU_CELLULAR;
    }
    bool is_made_here = (if_p->flags & (IF_IRB | IF_CELLULAR | IF_INTERNAL | IF_VAP)) != 0;
    if (if_p->default_mac == 0 && is_made_here)
        if_p->default_mac = cfgmgr_get_port_macaddr(if_p->name);
}

// Null without memory.
cfgmgr_if_t *alloc_record(cfgmgrd_t *cfgmgrd_p, const char *name, cfgmgr_if_type_t type)
{
    auto *if_p = static_cast<cfgmgr_if_t *>(calloc(1, sizeof(cfgmgr_if_t)));
    if (if_p == nullptr)
        return nullptr;
    strlcpy(if_p->name, name, sizeof if_p->name);
    avl_create(&if_p->gre_bound, cfgmgr_if_compare, sizeof(cfgmgr_if_t), offsetof(cfgmgr_if_t, gre_node));
    cfgmgr_if_routes_init(if_p);
    if (type == IF_TYPE_INTERNAL)
        return if_p;
    if_p->delay_up_timer = cfgmgr_if_delay_timer_create(cfgmgrd_p, if_p);
    if (if_p->delay_up_timer != nullptr)
        return if_p;
    cfgmgr_if_free(if_p);
    return nullptr;
}

void link_to_parent(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p)
{
    char parent_name[IF_NAME_SIZE];
    (void)cfgmgr_if_base_name(if_p->name, parent_name, sizeof parent_name); // no longer than the name
    cfgmgr_if_t *parent_if_p = cfgmgr_if_find(cfgmgrd_p, parent_name, nullptr, nullptr);
    tip_assert_text(parent_if_p != nullptr, "parent_if_p != ((void *)0)");
    if_p->parent_p = parent_if_p;
    dll_add_tail(&parent_if_p->children, &if_p->sibling_node);
}

int create(cfgmgrd_t *cfgmgrd_p, const char *name, cfgmgr_if_type_t type, const place_t &place, avl_index_t where,
           cfgmgr_if_t **out)
{
    cfgmgr_if_t *if_p = alloc_record(cfgmgrd_p, name, type);
    if (if_p == nullptr)
        return CFGMGR_IF_FAILED;
    avl_insert(&cfgmgrd_p->if_table, if_p, where);
    classify(if_p, type);
    if ((if_p->flags & IF_SUBIF) != 0)
        link_to_parent(cfgmgrd_p, if_p);
    set_defaults(if_p, type);
    set_default_mac(if_p);
    cfgmgr_vpn_if_add(cfgmgrd_p, place.vpn_id, if_p);
    (void)cfgmgr_kernel_if_sysctl_init(if_p); // logged
    char text[MAC_TEXT_SIZE];
    tip_log("Created Interface %s (vpn %lu) if type %d, macaddr %s", if_p->name, place.vpn_id, type,
            mac_text(if_p->default_mac, text));
    if (type == IF_TYPE_BRIDGE_PORT || type == IF_TYPE_INTERNAL)
        cfgmgr_bridge_if_bind(cfgmgrd_p, place.bridge_id, if_p);
    cfgmgr_find_and_bind_gre_if_all(cfgmgrd_p, if_p);
    *out = if_p;
    return CFGMGR_IF_OK;
}

// ---- an interface that is there already

// Gives whether the interface is now to be bound to its bridge.
bool adopt_type(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p, cfgmgr_if_type_t type)
{
    bool must_bind = if_p->type == IF_TYPE_BRIDGE_PORT && type == IF_TYPE_BRIDGE_PORT;
    if (must_bind)
        cfgmgr_bridge_if_remove(cfgmgrd_p, if_p); // makes it a plain one
    if (if_p->type == IF_TYPE_PLAIN) {
        if_p->type = type;
        must_bind = type == IF_TYPE_BRIDGE_PORT;
    }
    return must_bind;
}

void update(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p, cfgmgr_if_type_t type, const place_t &place)
{
    bool must_bind = adopt_type(cfgmgrd_p, if_p, type);
    if_p->flags |= cfgmgr_if_kind_of(if_p->name).flags & IF_VAP;
    if (if_p->vpn_p != nullptr && if_p->vpn_p->vpn_id != place.vpn_id)
        cfgmgr_vpn_if_del(cfgmgrd_p, if_p, true);
    cfgmgr_vpn_if_add(cfgmgrd_p, place.vpn_id, if_p);
    (void)cfgmgr_kernel_if_sysctl_init(if_p); // logged
    tip_log("Updated existing Interface %s if type %d", if_p->name, type);
    if (must_bind)
        cfgmgr_bridge_if_bind(cfgmgrd_p, place.bridge_id, if_p);
    // A port's record outlives its configuration, so tunnels may wait for it as for a new one.
    cfgmgr_find_and_bind_gre_if_all(cfgmgrd_p, if_p);
}

// ---- deletion

void reset_link(cfgmgr_if_t *if_p)
{
    (void)cfgmgr_kernel_phy_set(if_p, PHY_DEFAULT, false); // logged
    if_p->shutdown = 1;
}

void unlink_from_parent(cfgmgr_if_t *if_p)
{
    if (if_p->parent_p != nullptr)
        dll_remove(&if_p->parent_p->children, &if_p->sibling_node);
    if_p->parent_p = nullptr;
}

// Each child takes itself out of the list.
void delete_children(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p, void (*delete_one)(cfgmgrd_t *, cfgmgr_if_t *))
{
    while (cfgmgr_if_t *child_p = cfgmgr_if_first_child(if_p))
        delete_one(cfgmgrd_p, child_p);
}

// Out of its own tunnel's source, and its tunnels out of it.
void release_gre(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p)
{
    (void)cfgmgr_find_and_unbind_gre_if(cfgmgrd_p, if_p, true); // nothing for one that is not bound
    cfgmgr_gre_release_bound(cfgmgrd_p, if_p);
}

// Of an interface that stays. The end of its configuration is told of as a whole, not leaf by leaf and not list by list.
void forget_configuration(cfgmgr_if_t *if_p)
{
    if_p->flags &= ~uint32_t{ IF_DHCP4 | IF_DHCP6 | IF_NAT };
    if_p->addr_list_count = 0;
    if_p->route_prefix = {};
    if_p->route_prefix.ip.family = AF_INET;
    if_p->tunnel_interface = 0;
    if_p->native_vlan = 0;
    if_p->description[0] = '\0';
}

// Secondary addresses and those of the list go without a word when their interface does. The kernel drops them when a
// port changes its namespace, so only one that stays in the transport VPN has to be cleared.
void drop_other_addresses(cfgmgr_if_t *if_p)
{
    bool stays = cfgmgr_if_is_physical(*if_p) && if_p->vpn_p != nullptr && if_p->vpn_p->vpn_id == VPN_ID_TRANSPORT;
    if (!stays || if_p->type == IF_TYPE_BRIDGE_PORT)
        return;
    ip_prefix_t all_ipv4{};
    all_ipv4.ip.family = AF_INET;
    (void)cfgmgr_kernel_ifaddr_set(if_p, all_ipv4, true); // logged
}

bool outlives_deletion(const cfgmgr_if_t &interface)
{
    return cfgmgr_if_is_physical(interface) || (interface.flags & IF_CELLULAR) != 0;
}

// A record that goes away must not stay in a bridge.
void leave_places(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p, bool goes_away)
{
    if (goes_away)
        cfgmgr_bridge_if_remove(cfgmgrd_p, if_p);
    cfgmgr_vpn_if_del(cfgmgrd_p, if_p, true);
    unlink_from_parent(if_p);
}

void destroy(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p)
{
    avl_remove(&cfgmgrd_p->if_table, if_p);
    cfgmgr_gre_stop_waiting(cfgmgrd_p, if_p);
    cfgmgr_if_free(if_p);
}

bool is_in_place(const cfgmgr_if_t &interface, uint64_t id)
{
    switch (interface.type) {
    case IF_TYPE_BRIDGE_PORT:
        return interface.bridge_p != nullptr && interface.bridge_p->bridge_id == id;
    case IF_TYPE_PLAIN:
    case IF_TYPE_IRB:
        return interface.vpn_p != nullptr && interface.vpn_p->vpn_id == id;
    default:
        return false;
    }
}

} // namespace

void cfgmgr_if_free(cfgmgr_if_t *if_p)
{
    cfgmgr_if_routes_free(if_p);
    if (if_p->delay_up_timer != nullptr)
        timer_util_delete(if_p->delay_up_timer);
    free(if_p);
}

int cfgmgr_if_find_or_create(cfgmgrd_t *cfgmgrd_p, uint32_t id, const char *name, cfgmgr_if_t **out,
                             cfgmgr_if_type_t type)
{
    place_t place = place_of(id, type);
    int error;
    avl_index_t where;
    cfgmgr_if_t *if_p = cfgmgr_if_find(cfgmgrd_p, name, &where, &error);
    if (if_p != nullptr) {
        update(cfgmgrd_p, if_p, type, place);
        *out = if_p;
        return CFGMGR_IF_OK;
    }
    // No device has an interface without a name; the lookup has found no place for it either.
    if (error == CFGMGR_IF_NOT_PROVISIONED || name == nullptr || *name == '\0')
        return CFGMGR_IF_NOT_PROVISIONED;
    return create(cfgmgrd_p, name, type, place, where, out);
}

void cfgmgr_if_delete(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p)
{
    bool goes_away = !outlives_deletion(*if_p);
    cfgmgr_if_addr_clear(cfgmgrd_p, if_p);
    drop_other_addresses(if_p);
    release_gre(cfgmgrd_p, if_p);
    cfgmgr_if_routes_flush(if_p);
    reset_link(if_p);
    leave_places(cfgmgrd_p, if_p, goes_away);
    delete_children(cfgmgrd_p, if_p, cfgmgr_if_delete);
    if (goes_away) {
        destroy(cfgmgrd_p, if_p);
        return;
    }
    forget_configuration(if_p);
    cfgmgr_vpn_if_add(cfgmgrd_p, VPN_ID_TRANSPORT, if_p);
}

void cfgmgr_if_delete_by_name(cfgmgrd_t *cfgmgrd_p, uint64_t id, const char *name)
{
    cfgmgr_if_t *if_p = cfgmgr_if_find(cfgmgrd_p, name, nullptr, nullptr);
    if (if_p != nullptr && is_in_place(*if_p, id))
        cfgmgr_if_delete(cfgmgrd_p, if_p);
}

void cfgmgr_if_delete_at_exit(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p)
{
    bool goes_away = !cfgmgr_if_is_physical(*if_p);
    cfgmgr_if_addr_clear(cfgmgrd_p, if_p);
    leave_places(cfgmgrd_p, if_p, goes_away);
    delete_children(cfgmgrd_p, if_p, cfgmgr_if_delete_at_exit);
    if (!goes_away)
        return;
    release_gre(cfgmgrd_p, if_p);
    destroy(cfgmgrd_p, if_p);
}
