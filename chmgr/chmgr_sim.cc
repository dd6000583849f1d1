#include "chmgr/chmgr_sim.h"

#include "common/tip_log.h"
#include "common/tip_system.h"

#include <cstdarg>
#include <cstdio>

namespace
{

// The whole of what a twin is set up with, in this order; the first %s is the twin.
constexpr char MULTICAST[] = "ifconfig %s multicast";
constexpr char MADDR[] = "ip maddr %s %s dev %s"; // add or del, address, twin
constexpr char MADDR_ADD_OSPF_ALL[] = "ip maddr add 01:00:5e:00:00:05 dev %s";
constexpr char MADDR_ADD_OSPF_DESIGNATED[] = "ip maddr add 01:00:5e:00:00:06 dev %s";
constexpr char MADDR_ADD_VRRP[] = "ip maddr add 01:00:5e:00:00:12 dev %s";
constexpr char MADDR_ADD_PIM[] = "ip maddr add 01:00:5e:00:00:0d dev %s";
constexpr char FORWARDING_OFF[] = "echo 0 > /proc/sys/net/ipv4/conf/%s/forwarding";
constexpr char RP_FILTER_ON[] = "echo 1 > /proc/sys/net/ipv4/conf/%s/rp_filter";
constexpr char OFFLOAD_OFF[] = "ethtool -K %s gso off gro off";
constexpr char SOURCE_ROUTE_OFF[] = "echo 0 > /proc/sys/net/ipv4/conf/%s/accept_source_route";
constexpr char IPV6_OFF[] = "echo 1 > /proc/sys/net/ipv6/conf/%s/disable_ipv6";
constexpr char IPV6_FORWARDING_OFF[] = "echo 0 > /proc/sys/net/ipv6/conf/%s/forwarding";

constexpr size_t COMMAND_SIZE = 256;
constexpr uint32_t AUTO_RP_GROUPS[] = { 0xe0000127, 0xe0000128 }; // 224.0.1.39, 224.0.1.40

struct step_t {
    void (*print)(char *command, const char *name);
    chmgr_sim_result_t failure;
};

template <const char *format> void print(char *command, const char *name)
{
    (void)snprintf(command, COMMAND_SIZE, format, name);
}

constexpr step_t steps[] = {
    { print<MADDR_ADD_OSPF_ALL>, CHMGR_SIM_MADDR_FAILED },
    { print<MADDR_ADD_OSPF_DESIGNATED>, CHMGR_SIM_MADDR_FAILED },
    { print<MADDR_ADD_VRRP>, CHMGR_SIM_MADDR_FAILED },
    { print<MADDR_ADD_PIM>, CHMGR_SIM_MADDR_FAILED },
    { print<FORWARDING_OFF>, CHMGR_SIM_FORWARDING_FAILED },
    { print<RP_FILTER_ON>, CHMGR_SIM_RP_FILTER_FAILED },
    { print<OFFLOAD_OFF>, CHMGR_SIM_OFFLOAD_FAILED },
    { print<SOURCE_ROUTE_OFF>, CHMGR_SIM_SOURCE_ROUTE_FAILED },
    { print<IPV6_OFF>, CHMGR_SIM_IPV6_FAILED },
    { print<IPV6_FORWARDING_OFF>, CHMGR_SIM_IPV6_FAILED },
};

bool command_run(const char *command)
{
    if (tip_system_ok(tip_system(command)))
        return true;
    tip_log("Error: command '%s' failed", command);
    return false;
}

// RFC 1112: the low 23 bits. RFC 2464: the low 32 bits.
void link_group(const ip_addr_t &address, char *text, size_t size)
{
    uint32_t v4 = address.addr.v4;
    const uint8_t *low = address.addr.v6 + 12;
    if (ip_addr_is_v6(address))
        (void)snprintf(text, size, "33:33:%2.2x:%2.2x:%2.2x:%2.2x", low[0], low[1], low[2], low[3]);
    else
        (void)snprintf(text, size, "01:00:5e:%2.2x:%2.2x:%2.2x", v4 >> 16 & 0x7f, v4 >> 8 & 0xff, v4 & 0xff);
}

bool auto_rp_join(const char *name)
{
    for (uint32_t group : AUTO_RP_GROUPS) {
        ip_addr_t address;
        ip_addr_set_v4(&address, group);
        if (chmgr_sim_if_maddr_add(name, address, false) != CHMGR_SIM_OK)
            return false;
    }
    return true;
}

} // namespace

int chmgr_sim_if_init(const char *name)
{
    char command[COMMAND_SIZE];
    print<MULTICAST>(command, name);
    if (!command_run(command) || !auto_rp_join(name))
        return CHMGR_SIM_MADDR_FAILED;
    for (const step_t &step : steps) {
        step.print(command, name);
        if (!command_run(command))
            return step.failure;
    }
    return CHMGR_SIM_OK;
}

int chmgr_sim_if_maddr_add(const char *name, const ip_addr_t &address, bool is_delete)
{
    char group[32];
    link_group(address, group, sizeof group);
    char command[COMMAND_SIZE];
    (void)snprintf(command, sizeof command, MADDR, is_delete ? "del" : "add", group, name);
    return command_run(command) ? CHMGR_SIM_OK : CHMGR_SIM_MADDR_FAILED;
}
