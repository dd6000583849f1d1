// What an operator can ask of the interface table: its dump, and the bounce of an interface.

#include "cfgmgr/daemon/cfgmgr_print.h"
#include "cfgmgr/network/cfgmgr_bridge.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_if_idx.h"
#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_kernel_files.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/tip_log.h"

#include <charconv>
#include <cstring>

namespace
{

// ---- dump

struct flag_row_t {
    uint32_t flag;
    const char *name;
};

constexpr flag_row_t flag_rows[] = {
    { IF_SUBIF, "subif" },       { IF_LOOPBACK, "loopback" }, { IF_PRESENT, "present" }, { IF_SYSTEM, "system" },
    { IF_OSPF, "ospf" },         { IF_MGMT, "mgmt" },         { IF_DHCP4, "dhcp" },      { IF_IRB, "irb" },
    { IF_CELLULAR, "cellular" }, { IF_INTERNAL, "internal" }, { IF_VAP, "vap" },         { IF_GRE, "gre" },
    { IF_PPP, "ppp" },           { IF_DHCP6, "dhcpv6" },      { IF_NAT, "nat" },
};

void dump_heading(const cfgmgr_printer_t &out, const char *heading)
{
    out.print("\n   ================================");
    out.print("\n   %s", heading);
    out.print("\n   ================================\n");
}

void dump_flags(const cfgmgr_printer_t &out, uint32_t flags)
{
    out.print("  Flags: %#x", flags);
    for (const flag_row_t &row : flag_rows) {
        if ((flags & row.flag) != 0)
            out.print(" %s", row.name);
    }
    out.print("\n");
}

void dump_prefix(const cfgmgr_printer_t &out, const char *label, const ip_prefix_t &prefix)
{
    if (ip_addr_is_zero(prefix.ip))
        return;
    char text[IP_PREFIX_TEXT];
    out.print("  %s: %s\n", label, ip_prefix_to_str(prefix, text, sizeof text));
}

struct prefix_row_t {
    const char *label;
    ip_prefix_t cfgmgr_if_t::*prefix;
};

constexpr prefix_row_t prefix_rows[] = {
    { "Address", &cfgmgr_if_t::ipv4_addr },
    { "IPv6 address", &cfgmgr_if_t::ipv6_addr },
    { "IPv6 link-local", &cfgmgr_if_t::ipv6_linklocal },
    { "DHCP address", &cfgmgr_if_t::dhcp_addr },
    { "DHCPv6 address", &cfgmgr_if_t::dhcp6_addr },
    { "Route prefix", &cfgmgr_if_t::route_prefix },
};

void dump_resolvers(const cfgmgr_printer_t &out, const cfgmgr_if_t &interface)
{
    char text[IP_ADDR_TEXT];
    for (uint32_t i = 0; i < interface.dhcp_dns_count && i < IF_DHCP_DNS_MAX; i++)
        out.print("  DHCP resolver: %s\n", ip_v4_to_str(interface.dhcp_dns[i], text, sizeof text));
    for (uint32_t i = 0; i < interface.dhcp6_dns_count && i < IF_DHCP_DNS_MAX; i++)
        out.print("  DHCPv6 resolver: %s\n", ip_addr_to_str(interface.dhcp6_dns[i], text, sizeof text));
}

void dump_routes(const cfgmgr_printer_t &out, const cfgmgr_if_t &interface)
{
    char prefix[IP_PREFIX_TEXT];
    char next_hop[IP_ADDR_TEXT];
    for (const cfgmgr_if_route_t &route : avl_range<cfgmgr_if_route_t>(&interface.routes))
        out.print("  Route: %s via %s\n", ip_prefix_to_str(route.prefix, prefix, sizeof prefix),
                  ip_addr_to_str(route.next_hop, next_hop, sizeof next_hop));
}

void dump_tunnel(const cfgmgr_printer_t &out, const cfgmgr_if_t &interface)
{
    char source[IP_ADDR_TEXT];
    char destination[IP_ADDR_TEXT];
    if ((interface.flags & IF_GRE) != 0)
        out.print("  Tunnel source: %s (kind %u, interface %s), destination: %s, %s\n",
                  ip_addr_to_str(interface.tunnel_src, source, sizeof source), interface.tunnel_src_kind,
                  interface.tunnel_src_if, ip_addr_to_str(interface.tunnel_dst, destination, sizeof destination),
                  interface.gre_unbound != 0 ? "unbound" : "bound");
    for (const cfgmgr_if_t &gre : avl_range<cfgmgr_if_t>(&interface.gre_bound))
        out.print("  Bound tunnel: %s\n", gre.name);
}

void dump_relations(const cfgmgr_printer_t &out, const cfgmgr_if_t &interface)
{
    if (interface.bridge_p != nullptr)
        out.print("  Bridge: %u, Native vlan: %u\n", interface.bridge_p->bridge_id, interface.native_vlan);
    if (interface.parent_p != nullptr)
        out.print("  Parent: %s\n", interface.parent_p->name);
    const cfgmgr_if_t *child_p = cfgmgr_if_first_child(&interface);
    for (; child_p != nullptr; child_p = cfgmgr_if_next_child(child_p))
        out.print("  Child: %s\n", child_p->name);
    dump_tunnel(out, interface);
}

void dump_interface(const cfgmgr_printer_t &out, cfgmgr_if_t &interface)
{
    cfgmgr_vpn_t *vpn_p = interface.vpn_p;
    out.print("\ninterface: %s (%p) ", interface.name, static_cast<void *>(&interface));
    if (vpn_p != nullptr)
        out.print("vpn-id: %lu (%p)\n", vpn_p->vpn_id, static_cast<void *>(vpn_p));
    else
        out.print("vpn-id: none\n");
    out.print("  CLI name: %s, Description: %s\n", interface.cli_name, interface.description);
    out.print("  Type: %u, Vlan: %u, Shutdown: %s, Mtu: %u, Mac: %#lx, Tun socket: %d\n", interface.type,
              interface.vlan_id, interface.shutdown != 0 ? "True" : "False", interface.mtu, interface.default_mac,
              interface.tun_sock);
    dump_flags(out, interface.flags);
    const cfgmgr_if_phy_t &phy = interface.phy;
    out.print("  Phy: autoneg %u speed %d duplex %u, pause autoneg %u rx %u tx %u\n", phy.autoneg, phy.speed,
              phy.duplex, phy.pause_autoneg, phy.pause_rx, phy.pause_tx);
    for (const prefix_row_t &row : prefix_rows)
        dump_prefix(out, row.label, interface.*row.prefix);
    dump_resolvers(out, interface);
    dump_routes(out, interface);
    dump_relations(out, interface);
}

void dump_index_table(cfgmgrd_t *cfgmgrd_p, const cfgmgr_printer_t &out)
{
    dump_heading(out, "   CFGMGR Interface Index Database");
    for (bitmap_if_idx_t &index : avl_range<bitmap_if_idx_t>(&cfgmgrd_p->if_idx_by_vpn))
        out.print("interface: %s(%p) vpn-id: %lu rtm-idx: %u bitmap-idx: %u\n", index.name, static_cast<void *>(&index),
                  index.vpn_id, index.rtm_idx, index.bitmap_if_idx);
}

// ---- bounce

// What the operator named; interface is null, with the reason, when it cannot be bounced.
struct bounce_target_t {
    cfgmgr_if_t *if_p;
    const char *reason;
};

bounce_target_t find_target(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, const char *cli_name)
{
    if (cfgmgrd_p == nullptr)
        return { nullptr, "invalid daemon" };
    char name[IF_KERNEL_NAME_SIZE];
    if (cfgmgr_if_cli_to_kernel_name(cli_name, name, sizeof name, nullptr) == nullptr)
        return { nullptr, "invalid interface name" };
    cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_find(cfgmgrd_p, vpn_id, nullptr);
    if (vpn_p == nullptr)
        return { nullptr, "invalid vpn" };
    cfgmgr_if_t *if_p = cfgmgr_if_find(cfgmgrd_p, name, nullptr, nullptr);
    if (if_p == nullptr || if_p->vpn_p != vpn_p)
        return { nullptr, "invalid interface" };
    return { if_p, nullptr };
}

void set_shutdown(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p, bool is_shutdown)
{
    (void)cfgmgr_if_enable(if_p, !is_shutdown); // gives 0
    if_p->shutdown = is_shutdown ? 1 : 0;
    (void)cfgmgr_kernel_update_dns(cfgmgrd_p); // its resolvers count while it is up; logged
}

// As atoi(3) reads it, but a number that no VPN can have stays one.
uint64_t vpn_id_from_text(const char *text)
{
    uint64_t vpn_id = 0;
    (void)std::from_chars(text, text + strlen(text), vpn_id);
    return vpn_id;
}

} // namespace

void cfgmgr_dump_if_table(cfgmgrd_t *cfgmgrd_p, const cfgmgr_printer_t &out)
{
    dump_heading(out, "   CFGMGR Interface Database   ");
    for (cfgmgr_if_t &interface : avl_range<cfgmgr_if_t>(&cfgmgrd_p->if_table))
        dump_interface(out, interface);
    dump_index_table(cfgmgrd_p, out);
}

int cfgmgr_if_reset(confd_user_info *, char *, int argc, char **argv)
{
    uint64_t vpn_id = vpn_id_from_text(argc > 1 ? argv[1] : "");
    const char *cli_name = argc > 2 ? argv[2] : "";
    cfgmgrd_t *cfgmgrd_p = cfgmgr_context();
    bounce_target_t target = find_target(cfgmgrd_p, vpn_id, cli_name);
    if (target.if_p == nullptr) {
        tip_log("Unable to bounce interface %s in vpn: %lu - %s", cli_name, vpn_id, target.reason);
        return 0;
    }
    cfgmgr_set_ns(cfgmgrd_p, vpn_id);
    set_shutdown(cfgmgrd_p, target.if_p, true);
    set_shutdown(cfgmgrd_p, target.if_p, false);
    cfgmgr_reset_ns(cfgmgrd_p, vpn_id);
    return 0;
}
