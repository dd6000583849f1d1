// Addresses of interfaces and what follows them, routes of an interface's own table, sysctls.
#include "tests/unit/cfgmgr_kernel_env.h"

namespace
{

struct address_case_t {
    const char *title;
    uint32_t flags;
    const char *address;
    uint8_t len;
    bool is_delete;
    const char *command;
};

void PrintTo(const address_case_t &row, std::ostream *out)
{
    *out << row.title;
}

const address_case_t address_cases[] = {
    { "add", 0, "10.1.5.1", 24, false, "ip addr add 10.1.5.1/24 dev ge0_1 broadcast 10.1.5.255" },
    { "delete", 0, "10.1.5.1", 24, true, "ip addr del 10.1.5.1/24 dev ge0_1 broadcast 10.1.5.255" },
    { "loopback_has_no_broadcast", IF_LOOPBACK, "10.1.5.1", 32, false, "ip addr add 10.1.5.1/32 dev ge0_1" },
    { "tunnel_has_no_broadcast", IF_GRE, "10.1.5.1", 30, true, "ip addr del 10.1.5.1/30 dev ge0_1" },
    { "delete_of_none_flushes", 0, "0.0.0.0", 0, true, "ip -4 addr flush dev ge0_1" },
    { "delete_of_none_flushes_ipv6", IF_LOOPBACK, "::", 0, true, "ip -6 addr flush dev ge0_1" },
    { "ipv6_on_a_loopback", IF_LOOPBACK, "2001:db8::1", 64, false, "ip addr add 2001:db8::1/64 dev ge0_1" },
};

class kernel_address : public cfgmgr_kernel_env, public testing::WithParamInterface<address_case_t>
{
};
INSTANTIATE_TEST_SUITE_P(rows, kernel_address, testing::ValuesIn(address_cases),
                         [](const auto &info) { return info.param.title; });

TEST_P(kernel_address, is_changed_inside_the_vpn)
{
    const address_case_t &row = GetParam();
    cfgmgr_if_t port = make_if("ge0_1", row.flags);
    ip_prefix_t prefix = prefix_of(row.address, row.len);
    EXPECT_EQ(cfgmgr_kernel_ifaddr_set(&port, prefix, row.is_delete), 0);
    EXPECT_EQ(device().take_effects(), (effects_t{ "enter 5", row.command, "leave 5" }));
    device().statuses = { { row.command, EXIT_1 } };
    EXPECT_EQ(cfgmgr_kernel_ifaddr_set(&port, prefix, row.is_delete), 17);
    EXPECT_TRUE(log_has(std::string("Failed to ") + (row.is_delete ? "delete" : "add") + " address " + row.address +
                        (row.is_delete ? " from" : " to") + " interface ge0_1"));
    EXPECT_EQ(device().take_effects(), (effects_t{ "enter 5", row.command, "leave 5" }));
}

class kernel_addresses : public cfgmgr_kernel_env
{
protected:
    kernel_addresses() { device_chassis_set("krest-V1"); }

    cfgmgr_if_t port = make_if("ge0_1");
    ip_prefix_t ipv6 = prefix_of("2001:db8::12:3456", 64);
};

TEST_F(kernel_addresses, none_to_add_is_an_error)
{
    EXPECT_EQ(cfgmgr_kernel_ifaddr_set(&port, prefix_of("0.0.0.0", 0), false), 17);
    EXPECT_EQ(device().take_effects(), (effects_t{ "enter 5", "leave 5" }));
}

TEST_F(kernel_addresses, the_twin_of_a_port_hears_neighbour_solicitations_in_the_transport_vpn)
{
    device().kernel.add(0, "sim0_1");
    EXPECT_EQ(cfgmgr_kernel_ifaddr_set(&port, ipv6, false), 0);
    EXPECT_TRUE(log_has("Adding address 2001:db8::12:3456 for sim if for name: sim0_1"));
    EXPECT_EQ(cfgmgr_kernel_ifaddr_set(&port, ipv6, true), 0);
    effects_t effects = device().take_effects();
    ASSERT_EQ(effects.size(), 8u);
    EXPECT_EQ(effects[2], "leave 5");
    EXPECT_EQ(effects[3], "ip maddr add 33:33:ff:12:34:56 dev sim0_1");
    EXPECT_EQ(effects[7], "ip maddr del 33:33:ff:12:34:56 dev sim0_1");
    device().statuses = { { effects[3], EXIT_1 } };
    EXPECT_EQ(cfgmgr_kernel_ifaddr_set(&port, ipv6, false), 17);
    EXPECT_TRUE(log_has("Failed to add address 2001:db8::12:3456 to sim if name: sim0_1"));
    EXPECT_EQ(log_count("Adding static mac"), 1) << "the failed change ends there";
}

TEST_F(kernel_addresses, nothing_follows_without_a_twin_or_a_port)
{
    EXPECT_EQ(cfgmgr_kernel_ifaddr_set(&port, ipv6, false), 0);
    device().kernel.add(0, "sim0_1");
    EXPECT_EQ(cfgmgr_kernel_ifaddr_set(&port, prefix_of("10.0.0.1", 24), false), 0) << "IPv4";
    device().kernel.add(0, "sim7_7");
    cfgmgr_if_t no_port = make_if("ge7_7");
    EXPECT_EQ(cfgmgr_kernel_ifaddr_set(&no_port, ipv6, false), 0) << "not of this chassis";
    for (const std::string &effect : device().effects)
        EXPECT_EQ(effect.find("maddr"), std::string::npos) << effect;
}

TEST_F(kernel_addresses, the_own_address_is_known_by_its_mac)
{
    device().kernel.interface(5, "ge0_1").mac = 0x0200000000aa;
    EXPECT_EQ(cfgmgr_if_arp_update(&port, prefix_of("10.0.0.1", 24), false), 0);
    EXPECT_TRUE(log_has("Adding static mac 0x200000000aa for addr 0xa000001"));
    log_clear();
    EXPECT_EQ(cfgmgr_if_arp_update(&port, prefix_of("10.0.0.1", 24), true), 0);
    device().kernel.interface(5, "ge0_1").mac = 0;
    EXPECT_EQ(cfgmgr_if_arp_update(&port, prefix_of("10.0.0.1", 24), false), 0);
    EXPECT_FALSE(log_has("static mac"));
    EXPECT_EQ(cfgmgr_if_arp_update(&port, ip_prefix_t{}, false), 15);
    EXPECT_EQ(cfgmgr_if_arp_update(&port, ip_prefix_t{}, true), 15);
}

// ---- routes

TEST_F(kernel_addresses, routes_lie_in_the_interfaces_own_table)
{
    ip_prefix_t network = prefix_of("10.2.0.0", 16);
    ip_addr_t gateway = prefix_of("10.1.5.2", 0).ip;
    EXPECT_EQ(cfgmgr_kernel_update_rtable(&port, network, &gateway, true), 0);
    EXPECT_EQ(cfgmgr_kernel_update_rtable(&port, network, nullptr, false), 0);
    effects_t expected = { "ip route add 10.2.0.0/16 via 10.1.5.2 dev ge0_1 table ge0_1",
                           "ip route delete 10.2.0.0/16 dev ge0_1 table ge0_1" };
    EXPECT_EQ(device().take_effects(), expected);
    device().statuses = { { expected[1], EXIT_1 } };
    EXPECT_EQ(cfgmgr_kernel_update_rtable(&port, network, nullptr, false), 17);
    EXPECT_TRUE(log_has("Command Failed: " + expected[1]));
}

// ---- sysctls

TEST_F(kernel_addresses, sysctls_of_a_new_interface_end_with_the_first_failure)
{
    const effects_t expected = { "enter 5", "echo 0 > /proc/sys/net/ipv4/conf/ge0_1/accept_source_route",
                                 "echo 1 > /proc/sys/net/ipv4/conf/ge0_1/arp_announce", "leave 5" };
    EXPECT_EQ(cfgmgr_kernel_if_sysctl_init(&port), 0);
    EXPECT_EQ(device().take_effects(), expected);
    for (size_t failing : { 1u, 2u }) {
        device().statuses = { { expected[failing], EXIT_1 } };
        EXPECT_EQ(cfgmgr_kernel_if_sysctl_init(&port), -1);
        EXPECT_EQ(device().take_effects(), effects_until(expected, failing));
    }
}

struct sysctl_case_t {
    void (*write)(const char *name);
    const char *leaf;
    const char *value;
};

TEST_F(kernel_addresses, ipv6_sysctls_are_one_character)
{
    static constexpr sysctl_case_t cases[] = {
        { cfgmgr_kernel_enable_accept_ra, "accept_ra", "2" },
        { cfgmgr_kernel_disable_accept_ra, "accept_ra", "1" },
        { cfgmgr_kernel_enable_ipv6, "forwarding", "1" },
        { cfgmgr_kernel_disable_ipv6, "forwarding", "0" },
    };
    root.make_dir("proc/sys/net/ipv6/conf/ge0_1.100");
    for (const sysctl_case_t &row : cases) {
        row.write("ge0_1.100");
        EXPECT_EQ(root.read(std::string("proc/sys/net/ipv6/conf/ge0_1.100/") + row.leaf), row.value);
        log_clear();
        row.write("ge0_2");
        EXPECT_EQ(log_count("Error: Unable to"), 1);
    }
    EXPECT_TRUE(device().effects.empty());
}

TEST_F(kernel_addresses, the_arp_timeout_is_written_inside_the_vpn)
{
    root.make_dir("proc/sys/net/ipv4/neigh/ge0_1");
    cfgmgr_kernel_arp_timeout_set(5, "ge0_1", 1200);
    EXPECT_EQ(root.read("proc/sys/net/ipv4/neigh/ge0_1/gc_stale_time"), "1200");
    EXPECT_EQ(device().take_effects(), (effects_t{ "enter 5", "leave 5" }));
    cfgmgr_kernel_arp_timeout_set(5, "ge0_2", 1200);
    EXPECT_TRUE(log_has("Error: Unable to write 1200 to "));
}

} // namespace
