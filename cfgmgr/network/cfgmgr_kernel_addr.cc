// Addresses of interfaces with what follows them (the twin's multicast group, the own ARP entry), routes of an
// interface's own table, and sysctls.

#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_kernel_command.h"
#include "chmgr/chmgr_sim.h"
#include "common/tip_handle.h"
#include "common/tip_ifaddr.h"
#include "common/tip_log.h"
#include "common/tip_root.h"
#include "common/vpn_id.h"

#include <cerrno>
#include <cstring>

namespace
{

constexpr char ROUTE[] = "ip route %s %s dev %s table %s";
constexpr char ROUTE_VIA[] = "ip route %s %s via %s dev %s table %s";
constexpr char REFUSE_SOURCE_ROUTE[] = "echo 0 > /proc/sys/net/ipv4/conf/%s/accept_source_route";
constexpr char ANNOUNCE_BEST_ADDRESS[] = "echo 1 > /proc/sys/net/ipv4/conf/%s/arp_announce";

constexpr char IPV6_CONF_DIR[] = "/proc/sys/net/ipv6/conf";
constexpr char NEIGH_DIR[] = "/proc/sys/net/ipv4/neigh";

const char *verb_of(bool is_delete)
{
    return is_delete ? "delete" : "add";
}

const char *preposition_of(bool is_delete)
{
    return is_delete ? "from" : "to";
}

// The address that neighbours ask for a host's link-layer address (RFC 4291, 2.7.1).
ip_addr_t solicited_node_group(const ip_addr_t &address)
{
    static constexpr uint8_t prefix[] = { 0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0xff };
    ip_addr_t group = address;
    memcpy(group.addr.v6, prefix, sizeof prefix);
    return group;
}

bool change_address(const cfgmgr_if_t &interface, const ip_prefix_t &prefix, bool is_delete)
{
    bool with_broadcast = (interface.flags & (IF_LOOPBACK | IF_GRE)) == 0;
    if (tip_util_ifaddr_set(interface.name, prefix, with_broadcast, is_delete) == 0)
        return true;
    char text[IP_ADDR_TEXT];
    tip_log("Failed to %s address %s %s interface %s", verb_of(is_delete), ip_addr_to_str(prefix.ip, text, sizeof text),
            preposition_of(is_delete), interface.name);
    return false;
}

// The twin of a hardware port hears what neighbours ask the port. A port without a twin has nothing to follow.
int change_twin(cfgmgrd_t *cfgmgrd_p, const cfgmgr_if_t &interface, const ip_prefix_t &prefix, bool is_delete)
{
    char cli_name[IF_NAME_SIZE];
    char twin[IF_NAME_SIZE];
    chmgr_port_t *port = nullptr;
    (void)cfgmgr_if_kernel_to_cli_name(interface.name, cli_name, sizeof cli_name, &port); // the port tells
    if (!ip_addr_is_v6(prefix.ip) || port == nullptr ||
        cfgmgr_if_sim_name(interface.name, twin, sizeof twin) == nullptr ||
        !cfgmgr_kernel_if_exists(cfgmgrd_p, VPN_ID_TRANSPORT, twin))
        return CFGMGR_KERNEL_OK;
    char text[IP_ADDR_TEXT];
    ip_addr_to_str(prefix.ip, text, sizeof text);
    tip_log("%s address %s for sim if for name: %s", is_delete ? "Deleting" : "Adding", text, twin);
    if (chmgr_sim_if_maddr_add(twin, solicited_node_group(prefix.ip), is_delete) == CHMGR_SIM_OK)
        return CFGMGR_KERNEL_OK;
    tip_log("Failed to %s address %s %s sim if name: %s", verb_of(is_delete), text, preposition_of(is_delete), twin);
    return CFGMGR_KERNEL_IF_FAILED;
}

struct sysctl_t {
    const char *leaf;
    char value;
};
constexpr sysctl_t ACCEPT_RA = { "accept_ra", '2' }; // also where the interface forwards
constexpr sysctl_t REFUSE_RA = { "accept_ra", '1' }; // the kernel's default
constexpr sysctl_t FORWARD_IPV6 = { "forwarding", '1' };
constexpr sysctl_t KEEP_IPV6 = { "forwarding", '0' };

void write_ipv6_sysctl(const char *name, const sysctl_t &sysctl)
{
    tip_path_t path = tip_path("%s/%s/%s", IPV6_CONF_DIR, name, sysctl.leaf);
    file_ptr file(fopen(path.text, "we"));
    bool done = file != nullptr && fputc(sysctl.value, file.get()) != EOF && fflush(file.get()) == 0;
    if (!done)
        tip_log("Error: Unable to write %c to %s: %s", sysctl.value, path.text, strerror(errno));
}

} // namespace

// ---- addresses

// The twin lives in VPN 0, so its turn comes when the namespace has been left; what is run and its order are the same.
int cfgmgr_kernel_ifaddr_set(cfgmgr_if_t *if_p, const ip_prefix_t &prefix, bool is_delete)
{
    cfgmgrd_t *cfgmgrd_p = cfgmgr_context();
    uint64_t vpn_id = cfgmgr_kernel_vpn_of(*if_p);
    cfgmgr_set_ns(cfgmgrd_p, vpn_id);
    bool done = change_address(*if_p, prefix, is_delete);
    cfgmgr_reset_ns(cfgmgrd_p, vpn_id);
    if (!done)
        return CFGMGR_KERNEL_IF_FAILED;
    int result = change_twin(cfgmgrd_p, *if_p, prefix, is_delete);
    return result == CFGMGR_KERNEL_OK ? cfgmgr_if_arp_update(if_p, prefix, is_delete) : result;
}

int cfgmgr_if_arp_update(cfgmgr_if_t *if_p, const ip_prefix_t &prefix, bool is_delete)
{
    if (!ip_addr_is_v4(prefix.ip) && !ip_addr_is_v6(prefix.ip))
        return CFGMGR_KERNEL_COMMAND_FAILED;
    if (is_delete)
        return CFGMGR_KERNEL_OK;
    uint64_t mac = cfgmgr_kernel_if_get_mac(cfgmgr_kernel_sock_of(*if_p), cfgmgr_kernel_vpn_of(*if_p), if_p->name);
    if (mac != 0)
        tip_log("Adding static mac %#lx for addr %#x", mac, prefix.ip.addr.v4); // of IPv6 the first four bytes
    return CFGMGR_KERNEL_OK;
}

// ---- routes

int cfgmgr_kernel_update_rtable(const cfgmgr_if_t *if_p, const ip_prefix_t &prefix, const ip_addr_t *next_hop,
                                bool is_add)
{
    char network[IP_PREFIX_TEXT];
    char gateway[IP_ADDR_TEXT];
    const char *verb = is_add ? "add" : "delete";
    ip_prefix_to_str(prefix, network, sizeof network);
    kernel_command_t command =
        next_hop == nullptr
            ? cfgmgr_kernel_format(ROUTE, verb, network, if_p->name, if_p->name)
            : cfgmgr_kernel_format(ROUTE_VIA, verb, network, ip_addr_to_str(*next_hop, gateway, sizeof gateway),
                                   if_p->name, if_p->name);
    return cfgmgr_kernel_run(command) ? CFGMGR_KERNEL_OK : CFGMGR_KERNEL_IF_FAILED;
}

// ---- sysctls

int cfgmgr_kernel_if_sysctl_init(cfgmgr_if_t *if_p)
{
    kernel_ns_t inside(cfgmgr_kernel_vpn_of(*if_p));
    bool done = cfgmgr_kernel_run(cfgmgr_kernel_format(REFUSE_SOURCE_ROUTE, if_p->name)) &&
                cfgmgr_kernel_run(cfgmgr_kernel_format(ANNOUNCE_BEST_ADDRESS, if_p->name));
    return done ? 0 : -1;
}

void cfgmgr_kernel_arp_timeout_set(uint64_t vpn_id, const char *name, uint32_t seconds)
{
    kernel_ns_t inside(vpn_id);
    tip_path_t path = tip_path("%s/%s/gc_stale_time", NEIGH_DIR, name);
    file_ptr file(fopen(path.text, "we"));
    bool done = file != nullptr && fprintf(file.get(), "%u", seconds) > 0 && fflush(file.get()) == 0;
    if (!done)
        tip_log("Error: Unable to write %u to %s: %s", seconds, path.text, strerror(errno));
}

void cfgmgr_kernel_enable_accept_ra(const char *name)
{
    write_ipv6_sysctl(name, ACCEPT_RA);
}

void cfgmgr_kernel_disable_accept_ra(const char *name)
{
    write_ipv6_sysctl(name, REFUSE_RA);
}

void cfgmgr_kernel_enable_ipv6(const char *name)
{
    write_ipv6_sysctl(name, FORWARD_IPV6);
}

void cfgmgr_kernel_disable_ipv6(const char *name)
{
    write_ipv6_sysctl(name, KEEP_IPV6);
}
