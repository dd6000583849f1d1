// Interfaces come, move and go: what is done to the kernel, in order, and what becomes of the records.
#include "cfgmgr/network/cfgmgr_gre.h"
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_if_env.h"

#include <unistd.h>

namespace
{

std::string moved_back(uint64_t vpn_id, const std::string &name)
{
    return "/sbin/ip netns exec " + std::to_string(vpn_id) + " ip link set " + name + " netns " +
           std::to_string(getpid());
}

// The end of every creation: what is set in the namespace, marked as effects are.
if_effects_t settled(const std::string &mark, const std::string &name)
{
    return { mark + "ethtool -K " + name + " gso off gro off",
             mark + "echo 0 > /proc/sys/net/ipv4/conf/" + name + "/accept_source_route",
             mark + "echo 1 > /proc/sys/net/ipv4/conf/" + name + "/arp_announce" };
}

if_effects_t operator+(if_effects_t one, const if_effects_t &other)
{
    one.insert(one.end(), other.begin(), other.end());
    return one;
}

class if_life : public if_env
{
protected:
    if_life() { start_with_vpns(); }
    void remove(cfgmgr_if_t *if_p) { cfgmgr_if_delete(&daemon, if_p); }
};

// ---- creation

TEST_F(if_life, a_new_interface_has_the_defaults)
{
    cfgmgr_if_t *if_p = create("loopback1");
    EXPECT_STREQ(if_p->name, "loopback1");
    EXPECT_STREQ(if_p->cli_name, "loopback1");
    EXPECT_EQ(if_p->type, IF_TYPE_PLAIN);
    EXPECT_EQ(if_p->shutdown, 1u);
    EXPECT_EQ(if_p->mtu, 1500u);
    EXPECT_EQ(if_p->phy.pause_autoneg, 1u);
    EXPECT_EQ(if_p->phy.speed, -1);
    EXPECT_EQ(if_p->phy.duplex, 255u);
    EXPECT_EQ(if_p->phy.autoneg, 1u);
    EXPECT_EQ(if_p->dhcp_addr.ip.family, static_cast<uint32_t>(AF_INET));
    EXPECT_EQ(if_p->dhcp6_addr.ip.family, static_cast<uint32_t>(AF_INET6));
    EXPECT_EQ(if_p->tunnel_dst.family, static_cast<uint32_t>(AF_INET));
    EXPECT_EQ(if_p->ipv4_addr.ip.family, 0u);
    EXPECT_STREQ(if_p->delay_up_timer->name, "delay-if-up");
    EXPECT_EQ(timer_interval_ms(if_p->delay_up_timer), 1000);
    EXPECT_EQ(names_in(5), if_effects_t{ "loopback1" });
    EXPECT_TRUE(log_has("Created Interface loopback1 (vpn 5) if type 0, macaddr 00:00:00:00:00:00"));
}

TEST_F(if_life, each_kind_is_made_in_its_own_way)
{
    struct {
        const char *name;
        if_effects_t expected;
    } rows[] = {
        { "loopback1", { "tun loopback1 0x8001" } },
        { "ge0_1.7", { "ip link add link ge0_1 name ge0_1.7 type vlan id 7", "/sbin/ip link set ge0_1.7 netns 5" } },
        { "irb.3",
          { "ip link add link loop1 name irb.3 type vlan id 3", "ifconfig irb.3 mtu 2000", "ip link set irb.3 down",
            "/sbin/ip link set irb.3 netns 5", "flags irb.3", "mac irb.3 02:00:00:00:00:01", "flags irb.3 +0x241",
            "flags irb.3 -0x41" } },
        { "cellular0",
          { "5# ip link add link loop2 name cellular0 address 02:00:00:00:00:01 type vlan id 20", "flags cellular0",
            "mac cellular0 02:00:00:00:00:01", "flags cellular0" } },
        { "gre1", {} },
        { "ppp1", {} },
    };
    for (const auto &row : rows) {
        create(row.name);
        EXPECT_EQ(effects(), row.expected + settled("5# ", row.name)) << row.name;
    }
    EXPECT_EQ(find("cellular0")->mtu, 1428u);
    EXPECT_EQ(find("irb.3")->vlan_id, 3u);
    EXPECT_STREQ(find("irb.3")->cli_name, "irb3");
    EXPECT_STREQ(find("ge0_1.7")->cli_name, "ge0/1.7");
}

TEST_F(if_life, what_a_device_does_not_have_gets_no_record)
{
    cfgmgr_if_t *if_p = nullptr;
    for (const char *name : { "eth1", "" }) {
        EXPECT_EQ(cfgmgr_if_find_or_create(&daemon, 5, name, &if_p, IF_TYPE_PLAIN), 19);
        EXPECT_EQ(if_p, nullptr);
        EXPECT_EQ(find(name), nullptr);
    }
    EXPECT_EQ(effects(), if_effects_t{});
}

TEST_F(if_life, a_sub_interface_without_its_port_is_fatal)
{
    expect_assertion([this] { create("ge7_1.7"); }, "`parent_if_p != ((void *)0)'");
}

TEST_F(if_life, a_port_moves_from_vpn_to_vpn_through_the_first_one)
{
    cfgmgr_if_t *port_p = find("ge0_1");
    EXPECT_EQ(create("ge0_1", 5), port_p);
    EXPECT_EQ(effects(), if_effects_t({ "flags ge0_1", "/sbin/ip link set ge0_1 netns 5" }) + settled("5# ", "ge0_1"));
    EXPECT_TRUE(log_has("Updated existing Interface ge0_1 if type 0"));
    EXPECT_EQ(create("ge0_1", 6), port_p);
    EXPECT_EQ(effects(), if_effects_t({ "flags ge0_1", moved_back(5, "ge0_1"), "/sbin/ip link set ge0_1 netns 6" }) +
                             settled("6# ", "ge0_1"));
    EXPECT_EQ(names_in(5), if_effects_t{});
    EXPECT_EQ(names_in(6), if_effects_t{ "ge0_1" });
    EXPECT_EQ(create("ge0_1", 6), port_p);
    EXPECT_EQ(effects().size(), 2u) << "it is there: only its sysctls are set again";
}

TEST_F(if_life, a_plain_interface_takes_the_type_that_it_is_wanted_for)
{
    cfgmgr_if_t *if_p = create("irb.3", 5);
    EXPECT_EQ(create("irb.3", 5, IF_TYPE_IRB), if_p);
    EXPECT_EQ(if_p->type, IF_TYPE_IRB);
    create("irb.3", 5, IF_TYPE_PLAIN);
    EXPECT_EQ(if_p->type, IF_TYPE_IRB) << "and keeps it";
}

// ---- bridges

TEST_F(if_life, a_port_becomes_a_member_of_a_bridge_and_of_another)
{
    ASSERT_EQ(cfgmgr_bridge_find_or_create(&daemon, 7), 0);
    ASSERT_EQ(cfgmgr_bridge_find_or_create(&daemon, 8), 0);
    forget();
    cfgmgr_if_t *if_p = create("ge0_1", 7, IF_TYPE_BRIDGE_PORT);
    EXPECT_EQ(if_p->type, IF_TYPE_BRIDGE_PORT);
    EXPECT_EQ(effects().back(), "ifconfig ge0_1 promisc");
    create("ge0_1", 8, IF_TYPE_BRIDGE_PORT);
    if_effects_t done = effects();
    EXPECT_EQ(done.front(), "ifconfig ge0_1 -promisc");
    EXPECT_EQ(done.back(), "ifconfig ge0_1 promisc");
    ASSERT_NE(if_p->bridge_p, nullptr);
    EXPECT_EQ(if_p->bridge_p->bridge_id, 8u);
    EXPECT_EQ(if_p->type, IF_TYPE_BRIDGE_PORT);
    cfgmgr_if_delete_by_name(&daemon, 7, "ge0_1");
    cfgmgr_if_delete_by_name(&daemon, 0, "ge0_1");
    EXPECT_EQ(effects(), if_effects_t{}) << "for a bridge port the number is the bridge's";
}

TEST_F(if_life, a_member_that_goes_away_leaves_its_bridge)
{
    ASSERT_EQ(cfgmgr_bridge_find_or_create(&daemon, 7), 0);
    cfgmgr_if_t *if_p = make("ge0_1.7", 7, IF_TYPE_BRIDGE_PORT);
    cfgmgr_bridge_t *bridge_p = if_p->bridge_p;
    ASSERT_NE(bridge_p, nullptr);
    cfgmgr_if_delete_by_name(&daemon, 7, "ge0_1.7");
    EXPECT_TRUE(avl_is_empty(&bridge_p->if_db));
    EXPECT_EQ(find("ge0_1.7"), nullptr);
}

TEST_F(if_life, an_access_point_is_known_as_one)
{
    cfgmgr_if_t *if_p = create("vap0");
    if_p->flags &= ~IF_VAP;
    create("vap0");
    EXPECT_NE(if_p->flags & IF_VAP, 0u);
}

// ---- deletion

TEST_F(if_life, a_port_is_put_back_as_it_was)
{
    cfgmgr_if_t *if_p = make("ge0_1");
    if_p->shutdown = 0;
    if_p->phy.speed = 100;
    EXPECT_EQ(cfgmgr_if_addr_update(&daemon, "ge0_1", prefix_of("10.1.5.1", 24), false), 0);
    cfgmgr_if_route_add(if_p, prefix_of("10.7.0.0", 16), address_of("10.1.5.254"));
    forget();
    remove(if_p);
    EXPECT_EQ(effects(), (if_effects_t{ "5# ip addr del 10.1.5.1/24 dev ge0_1 broadcast 10.1.5.255",
                                        "5# ip route delete 10.7.0.0/16 via 10.1.5.254 dev ge0_1 table ge0_1",
                                        "link ge0_1 speed 1000 duplex 1 autoneg 1 advertising 0x7f", "flags ge0_1",
                                        moved_back(5, "ge0_1"), "ethtool -K ge0_1 gso off gro off" }));
    EXPECT_EQ(find("ge0_1"), if_p);
    EXPECT_EQ(if_p->vpn_p->vpn_id, 0u);
    EXPECT_EQ(if_p->shutdown, 1u);
    EXPECT_EQ(if_p->phy.speed, -1);
    EXPECT_TRUE(avl_is_empty(&if_p->routes));
    EXPECT_EQ(create("ge0_1"), if_p) << "and can be configured again";
}

TEST_F(if_life, a_port_forgets_what_only_its_configuration_has_set)
{
    cfgmgr_if_t *port = make("ge0_1");
    port->flags |= IF_DHCP4 | IF_DHCP6 | IF_NAT;
    port->addr_list_count = 2;
    EXPECT_EQ(ip_addr_parse("10.1.5.0", &port->route_prefix.ip), 1);
    port->route_prefix.len = 24;
    port->tunnel_interface = 1;
    strcpy(port->description, "uplink");
    remove(port);
    EXPECT_EQ(port->flags & (IF_DHCP4 | IF_DHCP6 | IF_NAT), 0u);
    EXPECT_EQ(port->addr_list_count, 0u);
    EXPECT_TRUE(ip_addr_is_zero(port->route_prefix.ip));
    EXPECT_EQ(port->route_prefix.len, 0);
    EXPECT_EQ(port->tunnel_interface, 0u);
    EXPECT_STREQ(port->description, "");
    forget();
    EXPECT_EQ(cfgmgr_if_enable(port, true), 0);
    for (const std::string &effect : effects())
        EXPECT_EQ(effect.find("ip route"), std::string::npos) << effect;
}

TEST_F(if_life, a_modem_stays_too)
{
    cfgmgr_if_t *if_p = make("cellular0");
    remove(if_p);
    EXPECT_EQ(effects(),
              (if_effects_t{ "5# ip link delete cellular0 type vlan",
                             "ip link add link loop2 name cellular0 address 02:00:00:00:00:01 type vlan id 20",
                             "flags cellular0", "mac cellular0 02:00:00:00:00:01", "flags cellular0",
                             "ethtool -K cellular0 gso off gro off" }));
    EXPECT_EQ(find("cellular0"), if_p);
    EXPECT_EQ(if_p->vpn_p->vpn_id, 0u);
}

TEST_F(if_life, others_go_with_their_device)
{
    struct {
        const char *name;
        if_effects_t expected;
    } rows[] = {
        { "loopback1", {} },
        { "irb.3", { "ip netns exec 5 ip link delete irb.3 type vlan" } },
        { "ge0_1.7", { "ip netns exec 5 ip link delete ge0_1.7 type vlan" } },
        { "gre1", {} },
    };
    for (const auto &row : rows) {
        remove(make(row.name));
        EXPECT_EQ(effects().size(), row.expected.size()) << row.name;
        EXPECT_EQ(find(row.name), nullptr);
    }
    EXPECT_EQ(names_in(5), if_effects_t{});
    EXPECT_EQ(cfgmgr_if_first_child(find("ge0_1")), nullptr);
}

TEST_F(if_life, children_go_with_their_port)
{
    cfgmgr_if_t *port_p = make("ge0_1");
    for (const char *name : { "ge0_1.9", "ge0_1.7", "ge0_1.8" })
        make(name);
    cfgmgr_if_t *child_p = cfgmgr_if_first_child(port_p);
    EXPECT_STREQ(child_p->name, "ge0_1.9") << "in order of creation";
    EXPECT_EQ(child_p->parent_p, port_p);
    EXPECT_STREQ(cfgmgr_if_next_child(child_p)->name, "ge0_1.7");
    remove(cfgmgr_if_next_child(child_p));
    EXPECT_STREQ(cfgmgr_if_next_child(child_p)->name, "ge0_1.8");
    remove(port_p);
    EXPECT_EQ(cfgmgr_if_first_child(port_p), nullptr);
    EXPECT_EQ(port_p->children.count, 0);
    for (const char *name : { "ge0_1.7", "ge0_1.8", "ge0_1.9" })
        EXPECT_EQ(find(name), nullptr);
}

TEST_F(if_life, deletion_by_name_asks_for_the_right_vpn)
{
    make("loopback1", 5);
    cfgmgr_if_delete_by_name(&daemon, 6, "loopback1");
    cfgmgr_if_delete_by_name(&daemon, 5, "loopback2");
    EXPECT_NE(find("loopback1"), nullptr);
    cfgmgr_if_delete_by_name(&daemon, 5, "loopback1");
    EXPECT_EQ(find("loopback1"), nullptr);
}

TEST_F(if_life, a_vpn_takes_its_interfaces_with_it)
{
    cfgmgr_if_t *port_p = make("ge0_1");
    for (const char *name : { "ge0_1.7", "ge0_1.8", "loopback1", "irb.5" })
        make(name);
    cfgmgr_vpn_delete_by_id(&daemon, 5);
    EXPECT_EQ(port_p->vpn_p->vpn_id, 0u);
    for (const char *name : { "ge0_1.7", "ge0_1.8", "loopback1", "irb.5" })
        EXPECT_EQ(find(name), nullptr) << name;
}

// ---- the end of the process

TEST_F(if_life, at_the_end_ports_keep_their_record_and_their_place)
{
    cfgmgr_if_t *port_p = find("ge0_1");
    EXPECT_EQ(cfgmgr_if_addr_update(&daemon, "ge0_1", prefix_of("10.1.5.1", 24), false), 0);
    make("ge0_1.7", 0);
    cfgmgr_if_t *loop_p = make("loopback1", 0);
    cfgmgr_if_delete_at_exit(&daemon, port_p);
    EXPECT_EQ(effects(), (if_effects_t{ "ip addr del 10.1.5.1/24 dev ge0_1 broadcast 10.1.5.255", "flags ge0_1",
                                        "ip link delete ge0_1.7 type vlan" }));
    EXPECT_EQ(find("ge0_1"), port_p);
    EXPECT_EQ(port_p->vpn_p, nullptr);
    EXPECT_EQ(find("ge0_1.7"), nullptr);
    cfgmgr_if_delete_at_exit(&daemon, loop_p);
    EXPECT_EQ(find("loopback1"), nullptr);
}

TEST_F(if_life, the_table_ends_with_all_that_is_in_it)
{
    make("ge0_1");
    make("ge0_1.7");
    cfgmgr_if_t *gre_p = make("gre1");
    gre_p->tunnel_src_kind = TUNNEL_SRC_INTERFACE;
    strcpy(gre_p->tunnel_src_if, "loopback9");
    EXPECT_EQ(cfgmgr_find_and_bind_gre_if(&daemon, 5, gre_p), 0);
    cfgmgr_vpn_deinit(&daemon);
    cfgmgr_if_deinit(&daemon);
    EXPECT_EQ(avl_numnodes(&daemon.if_table), 0u);
    cfgmgr_if_deinit(&daemon); // nothing more
}

} // namespace
