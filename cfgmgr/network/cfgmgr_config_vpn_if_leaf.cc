// The table of leaves at the end of the file says which there are and where they stand; above it, by subject, what each
// does. Kernel steps that fail are logged where they happen, and the record states what is configured all the same.

#include "cfgmgr/network/cfgmgr_config_vpn_if_leaf.h"

#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_config_vpn_if.h"
#include "cfgmgr/network/cfgmgr_gre.h"
#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_kernel_files.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/tip_log.h"
#include "common/tip_text.h"
#include "yang/corvane-vpn.h"

#include <iterator>

namespace
{

constexpr uint32_t ARP_TIMEOUT_DEFAULT = 1200; // seconds

// ---- link settings: collected, and set once after the walk

// Which side may ask the other to pause, by the number of the enumeration; the last one is that of unknown numbers.
struct pause_words_t {
    uint32_t autoneg, rx, tx;
};
constexpr pause_words_t pause_words[] = { { 0, 1, 0 }, { 0, 0, 1 }, { 1, 1, 1 }, { 0, 1, 1 }, { 0, 0, 0 } };
constexpr int64_t PAUSE_NONE = std::size(pause_words) - 1;

void apply_flow_control(vpn_if_change_t &change, const confd_value_t &value)
{
    pause_words_t words = { PHY_DEFAULT.pause_autoneg, PHY_DEFAULT.pause_rx, PHY_DEFAULT.pause_tx };
    if (!cfgmgr_config_is_deleted(value)) {
        int64_t number = cfgmgr_config_number(value);
        words = pause_words[number >= 0 && number < PAUSE_NONE ? number : PAUSE_NONE];
    }
    change.phy.pause_autoneg = words.autoneg;
    change.phy.pause_rx = words.rx;
    change.phy.pause_tx = words.tx;
    change.pause_changed = true;
}

void apply_autonegotiate(vpn_if_change_t &change, const confd_value_t &value)
{
    change.phy.autoneg = cfgmgr_config_is_deleted(value) || cfgmgr_config_bool(value) ? 1 : 0;
    change.link_changed = true;
}

void apply_duplex(vpn_if_change_t &change, const confd_value_t &value)
{
    if (cfgmgr_config_is_deleted(value))
        change.phy.duplex = PHY_DUPLEX_UNSET;
    else
        change.phy.duplex = cfgmgr_config_number(value) == vpn_duplex_full ? 1 : 0;
    change.link_changed = true;
}

void apply_speed(vpn_if_change_t &change, const confd_value_t &value)
{
    bool is_deleted = cfgmgr_config_is_deleted(value);
    change.phy.speed = is_deleted ? PHY_SPEED_UNSET : static_cast<int32_t>(cfgmgr_config_number(value));
    change.link_changed = true;
}

// ---- the device

void apply_description(vpn_if_change_t &change, const confd_value_t &value)
{
    if (cfgmgr_config_is_deleted(value))
        change.if_p->description[0] = '\0';
    else
        cfgmgr_config_text(value, change.if_p->description, sizeof change.if_p->description);
}

void apply_shutdown(vpn_if_change_t &change, const confd_value_t &value)
{
    bool is_shut = cfgmgr_config_is_deleted(value) || cfgmgr_config_bool(value); // down is the model's default
    tip_log("vpn: %lu, if: %s, %sshut", change.vpn_id, change.if_p->name, is_shut ? "" : "no ");
    (void)cfgmgr_if_enable(change.if_p, !is_shut);
    change.if_p->shutdown = is_shut ? 1 : 0;
    (void)cfgmgr_kernel_update_dns(change.cfgmgrd_p); // resolvers learnt by DHCP count on interfaces that are up
}

void apply_mtu(vpn_if_change_t &change, const confd_value_t &value)
{
    uint32_t mtu =
        cfgmgr_config_is_deleted(value) ? IF_MTU_DEFAULT : static_cast<uint32_t>(cfgmgr_config_number(value));
    if (mtu == change.if_p->mtu && change.op != MOP_CREATED)
        return;
    (void)cfgmgr_kernel_if_set_mtu(change.if_p->vpn_p->kernel_sock, change.vpn_id, change.if_p->name, mtu);
    change.if_p->mtu = mtu;
    change.mtu_changed = true;
}

void apply_arp_timeout(vpn_if_change_t &change, const confd_value_t &value)
{
    if (change.if_p->type == IF_TYPE_BRIDGE_PORT)
        return; // resolves no addresses
    uint32_t seconds =
        cfgmgr_config_is_deleted(value) ? ARP_TIMEOUT_DEFAULT : static_cast<uint32_t>(cfgmgr_config_number(value));
    cfgmgr_kernel_arp_timeout_set(change.vpn_id, change.if_p->name, seconds);
}

uint64_t mac_number(const uint8_t *mac)
{
    uint64_t number = 0;
    for (size_t i = 0; i < MAC_BYTES; i++)
        number = number << 8 | mac[i];
    return number;
}

// The chassis knows the address of a port, the record that of others; 0 when neither does.
uint64_t default_mac(const vpn_if_change_t &change)
{
    uint8_t mac[MAC_BYTES] = {};
    if (change.port_p != nullptr)
        cfgmgr_chassis_port_mac(change.port_p, mac);
    uint64_t number = mac_number(mac);
    if (number != 0)
        return number;
    return change.if_p->default_mac != IF_MAC_UNREADABLE ? change.if_p->default_mac : 0;
}

uint64_t configured_mac(const confd_value_t &value)
{
    char text[MAC_TEXT_SIZE];
    uint8_t mac[MAC_BYTES] = {};
    cfgmgr_config_text(value, text, sizeof text);
    (void)mac_from_str(text, mac); // the model takes no other form
    return mac_number(mac);
}

// A link that is up may refuse another address: it is taken down around the change.
void apply_mac_address(vpn_if_change_t &change, const confd_value_t &value)
{
    cfgmgr_if_t *if_p = change.if_p;
    uint64_t mac = cfgmgr_config_is_deleted(value) ? default_mac(change) : configured_mac(value);
    if (mac == 0) {
        tip_log("%s: Failed to get default macaddr", if_p->name);
        return;
    }
    (void)cfgmgr_if_enable(if_p, false);
    (void)cfgmgr_kernel_if_set_mac(if_p->vpn_p->kernel_sock, change.vpn_id, if_p->name, mac);
    if (!ip_addr_is_zero(if_p->ipv4_addr.ip))
        (void)cfgmgr_if_arp_update(if_p, if_p->ipv4_addr, false);
    change.mac = mac;
    change.mac_changed = true;
    if (if_p->shutdown == 0)
        (void)cfgmgr_if_enable(if_p, true);
}

// ---- containers

void apply_nat(vpn_if_change_t &change, const confd_value_t &value)
{
    if (value.type == C_XMLBEGIN)
        change.if_p->flags |= IF_NAT;
    else if (cfgmgr_config_is_deleted(value))
        change.if_p->flags &= ~uint32_t{ IF_NAT };
}

void apply_tunnel_interface(vpn_if_change_t &change, const confd_value_t &value)
{
    if (value.type == C_XMLBEGIN)
        change.if_p->tunnel_interface = 1;
    else if (cfgmgr_config_is_deleted(value))
        change.if_p->tunnel_interface = 0;
}

void apply_ip(vpn_if_change_t &change, const confd_value_t &value)
{
    change.family = value.type == C_XMLBEGIN ? AF_INET : 0;
}

void apply_ipv6(vpn_if_change_t &change, const confd_value_t &value)
{
    change.family = value.type == C_XMLBEGIN ? AF_INET6 : 0;
}

// ---- addresses

uint32_t dhcp_flag(const vpn_if_change_t &change)
{
    return change.family == AF_INET6 ? IF_DHCP6 : IF_DHCP4;
}

void apply_dhcp_client(vpn_if_change_t &change, const confd_value_t &value)
{
    change.clear_address = cfgmgr_config_is_deleted(value) || !cfgmgr_config_bool(value);
    if (change.clear_address)
        change.if_p->flags &= ~dhcp_flag(change);
    else
        change.if_p->flags |= dhcp_flag(change);
    change.if_p->addr_list_count = 0;
}

// The address learnt by DHCP goes while the flag is still set; the deletion of an address leaves the flag alone.
void apply_address(vpn_if_change_t &change, const confd_value_t &value)
{
    if (cfgmgr_config_if_is_pool_name(change.if_p->name))
        return;
    bool is_delete = cfgmgr_config_is_deleted(value);
    change.address = {};
    if (is_delete)
        ip_addr_clear(&change.address.ip, change.family);
    else
        change.address = cfgmgr_config_prefix(value);
    change.clear_address = !is_delete;
    change.if_p->addr_list_count = 0;
    (void)cfgmgr_if_addr_update(change.cfgmgrd_p, change.if_p->name, change.address, is_delete);
    if (change.clear_address)
        change.if_p->flags &= ~dhcp_flag(change);
    cfgmgr_if_gre_update_bound(change.cfgmgrd_p, change.if_p);
}

// ---- ends of a tunnel

void empty_tunnel_src(cfgmgr_if_t *if_p)
{
    ip_addr_clear(&if_p->tunnel_src, AF_INET);
}

// Without the source of its kind the tunnel has none; a source of the other kind stays.
void drop_tunnel_src(cfgmgr_if_t *if_p, cfgmgr_tunnel_src_t kind)
{
    if (if_p->tunnel_src_kind != kind)
        return;
    if_p->tunnel_src_kind = TUNNEL_SRC_NONE;
    empty_tunnel_src(if_p);
}

void apply_tunnel_source_interface(vpn_if_change_t &change, const confd_value_t &value)
{
    cfgmgr_if_t *if_p = change.if_p;
    (void)cfgmgr_find_and_unbind_gre_if(change.cfgmgrd_p, if_p, false);
    if (cfgmgr_config_is_deleted(value)) {
        if_p->tunnel_src_if[0] = '\0';
        drop_tunnel_src(if_p, TUNNEL_SRC_INTERFACE);
        return;
    }
    char cli_name[IF_NAME_SIZE];
    cfgmgr_config_text(value, cli_name, sizeof cli_name);
    // A name that the device cannot have stays as configured and is waited for in vain.
    (void)cfgmgr_if_cli_to_kernel_name(cli_name, if_p->tunnel_src_if, sizeof if_p->tunnel_src_if, nullptr);
    if_p->tunnel_src_kind = TUNNEL_SRC_INTERFACE;
    empty_tunnel_src(if_p);
    if (cfgmgr_find_and_bind_gre_if(change.cfgmgrd_p, change.vpn_id, if_p) == 1)
        cfgmgr_if_gre_reprogram(change.cfgmgrd_p, change.vpn_id, if_p);
}

void apply_tunnel_source(vpn_if_change_t &change, const confd_value_t &value)
{
    cfgmgr_if_t *if_p = change.if_p;
    (void)cfgmgr_find_and_unbind_gre_if(change.cfgmgrd_p, if_p, false);
    if (cfgmgr_config_is_deleted(value)) {
        drop_tunnel_src(if_p, TUNNEL_SRC_ADDRESS);
        return;
    }
    if_p->tunnel_src_if[0] = '\0';
    if_p->tunnel_src = cfgmgr_config_address(value);
    if_p->tunnel_src_kind = TUNNEL_SRC_ADDRESS;
    cfgmgr_if_gre_reprogram(change.cfgmgrd_p, change.vpn_id, if_p);
}

void apply_tunnel_destination(vpn_if_change_t &change, const confd_value_t &value)
{
    if (cfgmgr_config_is_deleted(value)) {
        ip_addr_clear(&change.if_p->tunnel_dst, AF_INET);
        return;
    }
    change.if_p->tunnel_dst = cfgmgr_config_address(value);
    cfgmgr_if_gre_reprogram(change.cfgmgrd_p, change.vpn_id, change.if_p);
}

// ---- the table

struct leaf_action_t {
    uint32_t tag;
    vpn_if_place_t place;
    void (*apply)(vpn_if_change_t &change, const confd_value_t &value);
};

constexpr leaf_action_t leaf_actions[] = {
    { vpn_flow_control, VPN_IF_TOP, apply_flow_control },
    { vpn_nat, VPN_IF_TOP, apply_nat },
    { vpn_description, VPN_IF_TOP, apply_description },
    { vpn_shutdown, VPN_IF_TOP, apply_shutdown },
    { vpn_autonegotiate, VPN_IF_TOP, apply_autonegotiate },
    { vpn_tunnel_source_interface, VPN_IF_TOP, apply_tunnel_source_interface },
    { vpn_duplex, VPN_IF_TOP, apply_duplex },
    { vpn_ipv6, VPN_IF_TOP, apply_ipv6 },
    { vpn_ip, VPN_IF_TOP, apply_ip },
    { vpn_dhcp_client, VPN_IF_FAMILY, apply_dhcp_client },
    { vpn_address, VPN_IF_FAMILY, apply_address },
    { vpn_speed, VPN_IF_TOP, apply_speed },
    { vpn_tunnel_interface, VPN_IF_TOP, apply_tunnel_interface },
    { vpn_tunnel_destination, VPN_IF_TOP, apply_tunnel_destination },
    { vpn_tunnel_source, VPN_IF_TOP, apply_tunnel_source },
    { vpn_mtu, VPN_IF_TOP, apply_mtu },
    { vpn_arp_timeout, VPN_IF_TOP, apply_arp_timeout },
    { vpn_mac_address, VPN_IF_TOP, apply_mac_address },
};

} // namespace

void cfgmgr_config_vpn_if_leaf(vpn_if_change_t &change, vpn_if_place_t place, const confd_tag_value_t &entry)
{
    for (const leaf_action_t &action : leaf_actions) {
        if (action.tag == CONFD_GET_TAG_TAG(&entry) && action.place == place) {
            action.apply(change, *CONFD_GET_TAG_VALUE(&entry));
            return;
        }
    }
}
