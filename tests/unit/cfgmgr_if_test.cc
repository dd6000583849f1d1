// Interfaces that are there: lookups, addresses, coming up and going down.
#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_kernel_phy.h"
#include "chmgr/chmgr_api.h"
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_if_env.h"

#include <chrono>
#include <csignal>

namespace
{

#define V6_BROADCAST " broadcast 2001:db8::ffff:ffff:ffff:ffff"

class if_table : public if_env
{
protected:
    if_table() { start_with_vpns(); }

    int update(const char *name, const ip_prefix_t &prefix, bool is_delete = false)
    {
        return cfgmgr_if_addr_update(&daemon, name, prefix, is_delete);
    }
    chmgr_port_t *port_of(const char *kernel_name)
    {
        for (chmgr_port_t &port : device().chassis->slots[0].ports) {
            if (strcmp(port.kernel_name, kernel_name) == 0)
                return &port;
        }
        return nullptr;
    }
};

// ---- lookups

TEST_F(if_table, a_lookup_tells_why_it_found_nothing)
{
    struct {
        const char *name;
        int error;
    } rows[] = {
        { "ge0_1", 0 }, { nullptr, 7 }, { "", 7 }, { "irb.5", 7 }, { "ge0_1.100", 7 }, { "irb", 19 }, { "eth1", 19 },
    };
    for (const auto &row : rows) {
        int error = -1;
        cfgmgr_if_t *if_p = cfgmgr_if_find(&daemon, row.name, nullptr, &error);
        EXPECT_EQ(error, row.error) << (row.name != nullptr ? row.name : "null");
        EXPECT_EQ(if_p != nullptr, row.error == 0);
    }
}

TEST_F(if_table, a_port_that_left_the_first_namespace_is_still_found)
{
    device().kernel.add(0, "eth1");
    cfgmgr_if_t *if_p = make("eth1");
    device().kernel.interface(0, "eth1").exists = false;
    ASSERT_FALSE(cfgmgr_if_is_provisioned("eth1", daemon.personality, nullptr));
    int error = -1;
    EXPECT_EQ(cfgmgr_if_find(&daemon, "eth1", nullptr, &error), if_p);
    EXPECT_EQ(error, 0);
}

TEST_F(if_table, walks_meet_the_interfaces_of_one_vpn)
{
    for (const char *name : { "ge0_2", "loopback1", "ge0_7" })
        make(name, 5);
    make("loopback2", 6);
    std::vector<std::string> names;
    for (cfgmgr_if_t *p = cfgmgr_if_first_in_vpn(&daemon, 5); p != nullptr; p = cfgmgr_if_next_in_vpn(&daemon, p))
        names.push_back(p->name);
    EXPECT_EQ(names, (if_effects_t{ "ge0_2", "ge0_7", "loopback1" }));
    EXPECT_EQ(cfgmgr_if_first_in_vpn(&daemon, 7), nullptr);
}

TEST_F(if_table, the_ppp_walk_is_over_the_transport_vpn)
{
    for (const char *name : { "ppp1", "ppp3" })
        make(name, 0);
    make("ppp2", 5);
    cfgmgr_if_t *first = cfgmgr_if_first_ppp(&daemon);
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(first->name, "ppp1");
    cfgmgr_if_t *second = cfgmgr_if_next_ppp(&daemon, first);
    ASSERT_NE(second, nullptr);
    EXPECT_STREQ(second->name, "ppp3");
    EXPECT_EQ(cfgmgr_if_next_ppp(&daemon, second), nullptr);
}

// ---- addresses

TEST_F(if_table, an_address_replaces_the_one_before_after_a_pause)
{
    cfgmgr_if_t *if_p = make("ge0_1");
    EXPECT_EQ(update("ge0_1", prefix_of("10.1.5.1", 24)), 0);
    EXPECT_EQ(effects(), (if_effects_t{ "5# ip addr add 10.1.5.1/24 dev ge0_1 broadcast 10.1.5.255" }));
    auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(update("ge0_1", prefix_of("10.1.6.1", 16)), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(50));
    EXPECT_EQ(effects(), (if_effects_t{ "5# ip addr del 10.1.5.1/24 dev ge0_1 broadcast 10.1.5.255",
                                        "5# ip addr add 10.1.6.1/16 dev ge0_1 broadcast 10.1.255.255" }));
    EXPECT_EQ(ip_addr_compare(if_p->ipv4_addr.ip, address_of("10.1.6.1")), 0);
    EXPECT_EQ(if_p->ipv4_addr.len, 16);
}

TEST_F(if_table, the_families_have_an_address_each)
{
    cfgmgr_if_t *if_p = make("ge0_1");
    update("ge0_1", prefix_of("10.1.5.1", 24));
    update("ge0_1", prefix_of("2001:db8::1", 64));
    if_p->ipv6_linklocal = prefix_of("fe80::1", 64);
    forget();
    EXPECT_EQ(update("ge0_1", if_p->ipv6_addr, true), 0);
    EXPECT_EQ(effects(), (if_effects_t{ "5# ip addr del 2001:db8::1/64 dev ge0_1" V6_BROADCAST }));
    EXPECT_EQ(if_p->ipv6_addr.ip.family, 0u);
    EXPECT_EQ(if_p->ipv6_addr.len, 0);
    EXPECT_TRUE(ip_addr_is_zero(if_p->ipv6_linklocal.ip));
    EXPECT_EQ(ip_addr_compare(if_p->ipv4_addr.ip, address_of("10.1.5.1")), 0);
}

TEST_F(if_table, a_configured_address_takes_the_place_of_that_from_dhcp)
{
    cfgmgr_if_t *if_p = make("ge0_1");
    if_p->flags |= IF_DHCP4 | IF_DHCP6;
    if_p->dhcp_addr = prefix_of("192.0.2.7", 24);
    if_p->dhcp6_addr = prefix_of("2001:db8::7", 64);
    update("ge0_1", prefix_of("10.1.5.1", 24));
    EXPECT_EQ(effects(), (if_effects_t{ "5# ip addr del 192.0.2.7/24 dev ge0_1 broadcast 192.0.2.255",
                                        "5# ip addr add 10.1.5.1/24 dev ge0_1 broadcast 10.1.5.255" }));
    update("ge0_1", prefix_of("2001:db8::1", 64));
    EXPECT_EQ(effects(), (if_effects_t{ "5# ip addr del 2001:db8::7/64 dev ge0_1" V6_BROADCAST,
                                        "5# ip addr add 2001:db8::1/64 dev ge0_1" V6_BROADCAST }));
}

TEST_F(if_table, clearing_takes_all_addresses)
{
    cfgmgr_if_t *if_p = make("ge0_1");
    update("ge0_1", prefix_of("2001:db8::1", 64));
    if_p->flags |= IF_DHCP4;
    if_p->dhcp_addr = prefix_of("192.0.2.7", 24);
    forget();
    cfgmgr_if_addr_clear(&daemon, if_p);
    EXPECT_EQ(effects(), (if_effects_t{ "5# ip addr del 192.0.2.7/24 dev ge0_1 broadcast 192.0.2.255",
                                        "5# ip addr del 2001:db8::1/64 dev ge0_1" V6_BROADCAST }));
    if_p->ipv4_addr = prefix_of("10.1.5.1", 24);
    if_p->type = IF_TYPE_BRIDGE_PORT;
    cfgmgr_if_addr_clear(&daemon, if_p);
    EXPECT_EQ(effects(), if_effects_t{}) << "a bridge port has none";
    if_p->type = IF_TYPE_PLAIN;
}

TEST_F(if_table, a_tunnel_without_its_ends_keeps_its_address_for_later)
{
    cfgmgr_if_t *if_p = make("gre1");
    EXPECT_EQ(update("gre1", prefix_of("10.9.0.1", 30)), 0);
    EXPECT_EQ(effects(), if_effects_t{});
    EXPECT_EQ(if_p->ipv4_addr.len, 30);
    EXPECT_EQ(update("gre1", if_p->ipv4_addr, true), 0);
    EXPECT_EQ(effects(), if_effects_t{});
    EXPECT_EQ(if_p->ipv4_addr.ip.family, 0u);
}

TEST_F(if_table, an_address_of_an_unknown_interface_is_refused)
{
    EXPECT_EQ(update("irb.9", prefix_of("10.9.0.1", 30)), 7);
    EXPECT_EQ(update("eth7", prefix_of("10.9.0.1", 30)), 19);
    EXPECT_EQ(effects(), if_effects_t{});
}

// ---- up and down

TEST_F(if_table, a_port_comes_up_two_seconds_later)
{
    cfgmgr_if_t *if_p = make("ge0_1");
    EXPECT_EQ(cfgmgr_if_enable(if_p, true), 0);
    if_p->shutdown = 0;
    EXPECT_EQ(effects(), if_effects_t{});
    EXPECT_EQ(port_of("ge0_1")->admin_state, CHMGR_ADMIN_UP);
    pass_seconds(1);
    EXPECT_EQ(effects(), if_effects_t{});
    pass_seconds(2);
    EXPECT_EQ(effects(),
              (if_effects_t{ "flags ge0_1 +0x241", "link ge0_1 speed 1000 duplex 1 autoneg 1 advertising 0x7f" }))
        << "the link settings are forced";
    pass_seconds(60);
    EXPECT_EQ(effects(), if_effects_t{}) << "once";
}

TEST_F(if_table, a_port_that_is_disabled_meanwhile_stays_down)
{
    cfgmgr_if_t *if_p = make("ge0_1");
    (void)cfgmgr_if_enable(if_p, true);
    EXPECT_EQ(cfgmgr_if_enable(if_p, false), 0);
    EXPECT_EQ(effects(), if_effects_t{ "flags ge0_1" });
    EXPECT_EQ(port_of("ge0_1")->admin_state, CHMGR_ADMIN_DOWN);
    if_p->shutdown = 0;
    pass_seconds(10);
    EXPECT_EQ(effects(), if_effects_t{});
    (void)cfgmgr_if_enable(if_p, true);
    if_p->shutdown = 1;
    pass_seconds(10);
    EXPECT_EQ(effects(), if_effects_t{}) << "the timer looks at what is configured";
}

TEST_F(if_table, the_delay_starts_anew_with_each_enabling)
{
    cfgmgr_if_t *if_p = make("ge0_1");
    if_p->shutdown = 0;
    (void)cfgmgr_if_enable(if_p, true);
    pass_seconds(1);
    (void)cfgmgr_if_enable(if_p, true);
    pass_seconds(1);
    EXPECT_EQ(effects(), if_effects_t{});
    pass_seconds(2);
    EXPECT_EQ(effects().size(), 2u);
}

TEST_F(if_table, sub_interfaces_that_are_shut_down_go_down_again_with_their_port)
{
    cfgmgr_if_t *port_p = make("ge0_1");
    make("ge0_1.7")->shutdown = 0;
    make("ge0_1.8");
    make("ge0_1.9");
    port_p->shutdown = 0;
    (void)cfgmgr_if_enable(port_p, true);
    pass_seconds(3);
    if_effects_t done = effects();
    ASSERT_EQ(done.size(), 4u);
    EXPECT_EQ(done[2], "flags ge0_1.8");
    EXPECT_EQ(done[3], "flags ge0_1.9");
}

TEST_F(if_table, what_is_no_port_changes_at_once)
{
    for (const char *name : { "ge0_1.7", "loopback1", "irb.5", "eth0" }) {
        cfgmgr_if_t *if_p = make(name, 5);
        device().kernel.interface(5, name).flags = 0;
        EXPECT_EQ(cfgmgr_if_enable(if_p, true), 0);
        EXPECT_EQ(effects(), if_effects_t{ std::string("flags ") + name + " +0x241" });
        EXPECT_EQ(cfgmgr_if_enable(if_p, false), 0);
        EXPECT_EQ(effects(), if_effects_t{ std::string("flags ") + name + " -0x41" });
    }
}

TEST_F(if_table, some_kinds_are_not_brought_up_from_here)
{
    struct {
        const char *name;
        size_t on;
        size_t off;
    } rows[] = { { "gre1", 0, 0 }, { "vap0", 0, 0 }, { "cellular0", 0, 1 } };
    for (const auto &row : rows) {
        cfgmgr_if_t *if_p = make(row.name);
        (void)cfgmgr_if_enable(if_p, true);
        EXPECT_EQ(effects().size(), row.on) << row.name;
        (void)cfgmgr_if_enable(if_p, false);
        EXPECT_EQ(effects().size(), row.off) << row.name;
    }
}

TEST_F(if_table, enabling_brings_back_what_the_kernel_drops)
{
    cfgmgr_if_t *if_p = make("ge0_1");
    update("ge0_1", prefix_of("2001:db8::1", 64));
    if_p->route_prefix = prefix_of("10.1.5.0", 24);
    cfgmgr_if_route_add(if_p, prefix_of("10.7.0.0", 16), address_of("10.1.5.254"));
    cfgmgr_if_route_add(if_p, prefix_of("10.6.0.0", 16), address_of("10.1.5.254"));
    forget();
    (void)cfgmgr_if_enable(if_p, false);
    (void)effects();
    (void)cfgmgr_if_enable(if_p, true);
    EXPECT_EQ(effects(), (if_effects_t{ "5# ip addr add 2001:db8::1/64 dev ge0_1" V6_BROADCAST,
                                        "5# ip route add 10.1.5.0/24 dev ge0_1 table ge0_1",
                                        "5# ip route add 10.6.0.0/16 via 10.1.5.254 dev ge0_1 table ge0_1",
                                        "5# ip route add 10.7.0.0/16 via 10.1.5.254 dev ge0_1 table ge0_1" }));
}

TEST_F(if_table, a_caller_inside_the_namespace_is_left_there)
{
    cfgmgr_if_t *if_p = make("ge0_1");
    update("ge0_1", prefix_of("2001:db8::1", 64));
    if_p->route_prefix = prefix_of("10.1.5.0", 24);
    cfgmgr_set_ns(&daemon, 5);
    (void)cfgmgr_if_enable(if_p, true);
    EXPECT_EQ(daemon.last_ns, 5u);
    EXPECT_EQ(device().kernel.current_ns, 5u);
    cfgmgr_reset_ns(&daemon, 5);
    EXPECT_EQ(device().effects.back(), "leave 5");
}

// ---- MAC address

TEST_F(if_table, the_default_mac_of_an_irb_is_read_once_its_device_exists)
{
    device().kernel.errors["get mac irb.5"] = ENODEV;
    cfgmgr_if_t *if_p = make("irb.5", 5, IF_TYPE_IRB);
    EXPECT_EQ(if_p->default_mac, IF_MAC_UNREADABLE);
    device().kernel.errors.clear();
    device().kernel.interface(5, "irb.5").mac = 0x02aabbccdd01;
    cfgmgr_update_default_if_mac(if_p, 5);
    EXPECT_EQ(if_p->default_mac, 0x02aabbccdd01u);
    EXPECT_TRUE(log_has("irb.5: Updating default macaddr"));
    EXPECT_EQ(effects(),
              (if_effects_t{ "flags irb.5", "mac irb.5 02:aa:bb:cc:dd:01", "flags irb.5 +0x41", "flags irb.5 -0x41" }));
    log_clear();
    if_p->shutdown = 0;
    cfgmgr_update_default_if_mac(if_p, 5);
    EXPECT_FALSE(log_has("Updating default macaddr")) << "it is known";
    EXPECT_EQ(effects(), (if_effects_t{ "flags irb.5", "mac irb.5 02:aa:bb:cc:dd:01", "flags irb.5 +0x41" }));
}

// ---- the end of the process

TEST_F(if_table, the_management_port_is_left_alone_by_a_stop)
{
    cfgmgr_if_t *if_p = make("eth0", 0);
    update("eth0", prefix_of("192.0.2.1", 24));
    forget();
    child_result_t child = run_in_child([&] {
        (void)cfgmgr_init_abort_signals();
        cfgmgr_context_publish(nullptr);
        raise(SIGUSR2);
        cfgmgr_context_publish(&daemon);
        cfgmgr_if_addr_clear(&daemon, if_p);
        (void)cfgmgr_if_enable(if_p, false);
        for (const std::string &effect : device().effects)
            printf("effect %s\n", effect.c_str());
        if (log_has("Skip mgmt interface - eth0 operation: 0 because of term signal"))
            printf("skipped\n");
    });
    EXPECT_EQ(child.output.find("effect"), std::string::npos) << child.output;
    EXPECT_NE(child.output.find("skipped"), std::string::npos) << child.output;
    cfgmgr_if_addr_clear(&daemon, if_p);
    (void)cfgmgr_if_enable(if_p, false);
    EXPECT_EQ(effects(), (if_effects_t{ "ip addr del 192.0.2.1/24 dev eth0 broadcast 192.0.2.255", "flags eth0" }));
}

} // namespace
