// The configuration of interfaces in VPNs: what each leaf does to the record and to the kernel, and in which order.
#include "tests/unit/cfgmgr_config_if_env.h"

#include "cfgmgr/network/cfgmgr_gre.h"
#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_oper_vpn_if.h"
#include "tests/harness/death.h"

namespace
{

std::string text_of(const ip_prefix_t &prefix)
{
    char text[IP_PREFIX_TEXT];
    return ip_addr_is_zero(prefix.ip) ? "-" : ip_prefix_to_str(prefix, text, sizeof text);
}
std::string text_of(const ip_addr_t &ip)
{
    char text[IP_ADDR_TEXT];
    return ip_addr_is_zero(ip) ? "-" : ip_addr_to_str(ip, text, sizeof text);
}
std::string text_of(uint32_t a, uint32_t b, uint32_t c)
{
    return std::to_string(a) + "," + std::to_string(b) + "," + std::to_string(c);
}

using state_t = std::map<std::string, std::string>;

state_t state_of(const cfgmgr_if_t &interface)
{
    const cfgmgr_if_phy_t &phy = interface.phy;
    return { { "addr", text_of(interface.ipv4_addr) },
             { "addr6", text_of(interface.ipv6_addr) },
             { "autoneg", std::to_string(phy.autoneg) },
             { "description", interface.description },
             { "dhcp", interface.flags & IF_DHCP4 ? "1" : "0" },
             { "dhcp6", interface.flags & IF_DHCP6 ? "1" : "0" },
             { "duplex", std::to_string(phy.duplex) },
             { "list", std::to_string(interface.addr_list_count) },
             { "mtu", std::to_string(interface.mtu) },
             { "nat", interface.flags & IF_NAT ? "1" : "0" },
             { "pause", text_of(phy.pause_autoneg, phy.pause_rx, phy.pause_tx) },
             { "shutdown", std::to_string(interface.shutdown) },
             { "speed", std::to_string(phy.speed) },
             { "tunnel", std::to_string(interface.tunnel_interface) },
             { "tunnel_dst", text_of(interface.tunnel_dst) },
             { "tunnel_kind", std::to_string(interface.tunnel_src_kind) },
             { "tunnel_src", text_of(interface.tunnel_src) },
             { "tunnel_src_if", interface.tunnel_src_if } };
}

// "NAME=VALUE ..." of what differs.
std::string difference(const state_t &before, const state_t &after)
{
    std::string text;
    for (const auto &[name, value] : after) {
        if (before.at(name) != value)
            text += (text.empty() ? "" : " ") + name + "=" + value;
    }
    return text;
}

const changes_t raised = { set(vpn_shutdown, boolean(false)) };

changes_t in_ip(const changes_t &changes)
{
    return inside(vpn_ip, changes);
}
changes_t in_ipv6(const changes_t &changes)
{
    return inside(vpn_ipv6, changes);
}

// ---- one leaf at a time

struct leaf_case_t {
    const char *name;
    changes_t before; // configured already
    changes_t change;
    const char *record; // what becomes different in it
    effects_t effects;
};

void PrintTo(const leaf_case_t &row, std::ostream *out)
{
    *out << row.name;
}

const char ADD_10[] = "in 5: ip addr add 10.1.5.1/24 dev ge0_1 broadcast 10.1.5.255";
const char DEL_10[] = "in 5: ip addr del 10.1.5.1/24 dev ge0_1 broadcast 10.1.5.255";
const char ADD_DB8[] = "in 5: ip addr add 2001:db8::1/64 dev ge0_1 broadcast 2001:db8::ffff:ffff:ffff:ffff";
const changes_t address_10 = in_ip({ set(vpn_address, buf("10.1.5.1/24")) });
const changes_t dhcp_on = { set(vpn_dhcp_client, boolean(true)) };

const leaf_case_t leaf_cases[] = {
    { "mtu", {}, { set(vpn_mtu, number16(1400)) }, "mtu=1400", { "mtu ge0_1 1400" } },
    { "mtu_that_it_has", { set(vpn_mtu, number16(1400)) }, { set(vpn_mtu, number16(1400)) }, "", {} },
    { "mtu_deleted", { set(vpn_mtu, number16(1400)) }, { gone(vpn_mtu) }, "mtu=1500", { "mtu ge0_1 1500" } },
    { "description", {}, { set(vpn_description, buf("to the lab")) }, "description=to the lab", {} },
    { "description_that_fills_its_place",
      {},
      { set(vpn_description, buf("12345678901234567890123456789012")) },
      "description=12345678901234567890123456789012",
      {} },
    { "description_deleted", { set(vpn_description, buf("x")) }, { gone(vpn_description) }, "description=", {} },
    { "shutdown_of_one_that_is_down", {}, { set(vpn_shutdown, boolean(true)) }, "", { "flags ge0_1" } },
    { "no_shutdown_comes_by_the_timer", {}, raised, "shutdown=0", {} },
    { "shutdown_deleted", raised, { gone(vpn_shutdown) }, "shutdown=1", { "flags ge0_1" } },
    { "speed",
      {},
      { set(vpn_speed, signed32(100)) },
      "speed=100",
      { "link ge0_1 speed 100 duplex 1 autoneg 1 advertising 0x7f" } },
    { "speed_deleted",
      { set(vpn_speed, signed32(100)) },
      { gone(vpn_speed) },
      "speed=-1",
      { "link ge0_1 speed 1000 duplex 1 autoneg 1 advertising 0x7f" } },
    { "half_duplex",
      {},
      { set(vpn_duplex, choice(vpn_duplex_half)) },
      "duplex=0",
      { "link ge0_1 speed 1000 duplex 0 autoneg 1 advertising 0x7f" } },
    { "full_duplex",
      {},
      { set(vpn_duplex, choice(vpn_duplex_full)) },
      "duplex=1",
      { "link ge0_1 speed 1000 duplex 1 autoneg 1 advertising 0x7f" } },
    { "duplex_deleted",
      { set(vpn_duplex, choice(vpn_duplex_half)) },
      { gone(vpn_duplex) },
      "duplex=255",
      { "link ge0_1 speed 1000 duplex 1 autoneg 1 advertising 0x7f" } },
    { "no_autonegotiation",
      { set(vpn_speed, signed32(100)), set(vpn_duplex, choice(vpn_duplex_full)) },
      { set(vpn_autonegotiate, boolean(false)) },
      "autoneg=0",
      { "link ge0_1 speed 100 duplex 1 autoneg 0 advertising 0x8" } },
    { "autonegotiation_deleted",
      { set(vpn_autonegotiate, boolean(false)) },
      { gone(vpn_autonegotiate) },
      "autoneg=1",
      { "link ge0_1 speed 1000 duplex 1 autoneg 1 advertising 0x7f" } },
    { "pause_ingress", {}, { set(vpn_flow_control, choice(0)) }, "pause=0,1,0", { "pause ge0_1 autoneg 0 rx 1 tx 0" } },
    { "pause_egress", {}, { set(vpn_flow_control, choice(1)) }, "pause=0,0,1", { "pause ge0_1 autoneg 0 rx 0 tx 1" } },
    { "pause_autoneg", {}, { set(vpn_flow_control, choice(2)) }, "", {} },
    { "pause_both", {}, { set(vpn_flow_control, choice(3)) }, "pause=0,1,1", { "pause ge0_1 autoneg 0 rx 1 tx 1" } },
    { "pause_none", {}, { set(vpn_flow_control, choice(4)) }, "pause=0,0,0", { "pause ge0_1 autoneg 0 rx 0 tx 0" } },
    { "pause_deleted",
      { set(vpn_flow_control, choice(4)) },
      { gone(vpn_flow_control) },
      "pause=1,1,1",
      { "pause ge0_1 autoneg 1 rx 1 tx 1" } },
    { "nat", {}, inside(vpn_nat, {}), "nat=1", {} },
    { "nat_deleted", inside(vpn_nat, {}), { gone(vpn_nat) }, "nat=0", {} },
    { "tunnel_interface", {}, inside(vpn_tunnel_interface, {}), "tunnel=1", {} },
    { "tunnel_interface_deleted", inside(vpn_tunnel_interface, {}), { gone(vpn_tunnel_interface) }, "tunnel=0", {} },
    { "address", {}, address_10, "addr=10.1.5.1/24", { ADD_10 } },
    { "another_address",
      address_10,
      in_ip({ set(vpn_address, buf("10.2.0.1/16")) }),
      "addr=10.2.0.1/16",
      { DEL_10, "in 5: ip addr add 10.2.0.1/16 dev ge0_1 broadcast 10.2.255.255" } },
    { "address_deleted", address_10, in_ip({ gone(vpn_address) }), "addr=-", { DEL_10 } },
    { "dhcp", {}, in_ip(dhcp_on), "dhcp=1", {} },
    { "dhcp_of_ipv6", {}, in_ipv6(dhcp_on), "dhcp6=1", {} },
    { "no_dhcp", in_ip(dhcp_on), in_ip({ set(vpn_dhcp_client, boolean(false)) }), "dhcp=0", {} },
    { "dhcp_deleted", in_ip(dhcp_on) + in_ipv6(dhcp_on), in_ipv6({ gone(vpn_dhcp_client) }), "dhcp6=0", {} },
    { "address_instead_of_dhcp", in_ip(dhcp_on), address_10, "addr=10.1.5.1/24 dhcp=0", { ADD_10 } },
    { "dhcp_stays_with_a_deleted_address",
      address_10 + in_ip(dhcp_on),
      in_ip({ gone(vpn_address) }),
      "addr=-",
      { DEL_10 } },
    { "what_belongs_to_lists_below",
      {},
      in_ip(inside(vpn_address_list, { set(vpn_address, buf("10.9.0.1/24")) }) +
            inside(vpn_secondary_address, { set(vpn_address, buf("10.9.0.2/24")) }, C_XMLBEGINDEL)) +
          inside(vpn_arp, { set(vpn_address, ipv4("10.9.0.3")) }) +
          inside(vpn_tunnel_interface, { set(vpn_mtu, number16(999)) }),
      "tunnel=1",
      {} },
    { "an_address_outside_of_a_family", {}, { set(vpn_address, buf("10.1.5.1/24")) }, "", {} },
    { "what_has_no_action", {}, { set(vpn_label, u32(7)) }, "", {} },
};

class leaf : public config_if_env, public testing::WithParamInterface<leaf_case_t>
{
};
INSTANTIATE_TEST_SUITE_P(of_an_interface, leaf, testing::ValuesIn(leaf_cases),
                         [](const auto &info) { return info.param.name; });

TEST_P(leaf, changes_the_record_and_the_kernel)
{
    const leaf_case_t &row = GetParam();
    cfgmgr_if_t *if_p = make("ge0/1", "ge0_1", row.before);
    ASSERT_NE(if_p, nullptr);
    state_t before = state_of(*if_p);
    EXPECT_EQ(change("ge0/1", row.change), row.effects);
    EXPECT_EQ(difference(before, state_of(*if_p)), row.record);
}

// ---- the life of an interface

using config_vpn_if = config_if_env;

TEST_F(config_vpn_if, a_port_is_moved_prepared_configured_and_raised_in_this_order)
{
    device().kernel.add(0, "sim0_1");
    changes_t changes = changes_t{ set(vpn_mtu, number16(1400)) } + address_10 + raised;
    EXPECT_EQ(configure(MOP_CREATED, "ge0/1", changes), 0);
    EXPECT_EQ(effects(),
              (effects_t{ "flags ge0_1", "/sbin/ip link set ge0_1 netns 5", "in 5: ethtool -K ge0_1 gso off gro off",
                          "in 5: echo 0 > /proc/sys/net/ipv4/conf/ge0_1/accept_source_route",
                          "in 5: echo 1 > /proc/sys/net/ipv4/conf/ge0_1/arp_announce", "mtu ge0_1 1400", ADD_10,
                          "mtu sim0_1 1400" }));
    EXPECT_EQ(device().kernel.interface(5, "ge0_1").mtu, 1400u);
    EXPECT_EQ(device().kernel.interface(0, "sim0_1").mtu, 1400u);
    cfgmgr_if_t *if_p = find("ge0_1");
    EXPECT_EQ(if_p->vpn_p->vpn_id, 5u);
    EXPECT_EQ(if_p->shutdown, 0u);
    EXPECT_TRUE(timer_is_running(if_p->delay_up_timer));
    EXPECT_TRUE(log_has("vpn: 5, if: ge0_1, no shut"));
}

TEST_F(config_vpn_if, a_new_one_gets_its_mtu_even_when_it_is_the_default)
{
    EXPECT_EQ(configure(MOP_CREATED, "ge0/1", { set(vpn_mtu, number16(1500)) }), 0);
    effects_t seen = effects();
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "mtu ge0_1 1500"), 1);
}

TEST_F(config_vpn_if, a_deleted_port_goes_back_and_another_interface_is_forgotten)
{
    make("ge0/1", "ge0_1");
    make("loopback1", "loopback1");
    EXPECT_EQ(configure(MOP_DELETED, "ge0/1"), 0);
    EXPECT_EQ(configure(MOP_DELETED, "loopback1"), 0);
    ASSERT_NE(find("ge0_1"), nullptr);
    EXPECT_EQ(find("ge0_1")->vpn_p->vpn_id, 0u);
    EXPECT_EQ(find("loopback1"), nullptr);
}

TEST_F(config_vpn_if, a_deletion_in_another_vpn_or_without_a_record_does_nothing)
{
    EXPECT_EQ(cfgmgr_vpn_find_or_create(&daemon, 7, 2), 0);
    cfgmgr_if_t *if_p = make("ge0/1", "ge0_1");
    EXPECT_EQ(configure(MOP_DELETED, "ge0/1", {}, 7), 0);
    EXPECT_EQ(configure(MOP_DELETED, "loopback1"), 0);
    EXPECT_EQ(if_p->vpn_p->vpn_id, 5u);
    EXPECT_EQ(effects(), effects_t{});
}

TEST_F(config_vpn_if, a_port_that_also_was_a_bridge_member_leaves_its_bridge_first)
{
    EXPECT_EQ(cfgmgr_bridge_find_or_create(&daemon, 4), 0);
    cfgmgr_if_t *if_p = nullptr;
    EXPECT_EQ(cfgmgr_if_find_or_create(&daemon, 4, "ge0_1", &if_p, IF_TYPE_BRIDGE_PORT), 0);
    ASSERT_NE(if_p->bridge_p, nullptr);
    forget();
    EXPECT_EQ(configure(MOP_DELETED, "ge0/1", {}, 0), 0);
    EXPECT_EQ(if_p->bridge_p, nullptr);
    EXPECT_EQ(if_p->type, IF_TYPE_PLAIN);
    EXPECT_EQ(effects().front(), "ifconfig ge0_1 -promisc");
}

TEST_F(config_vpn_if, a_sub_interface_of_what_has_no_record_is_ignored)
{
    EXPECT_EQ(configure(MOP_CREATED, "vap5.3", { set(vpn_mtu, number16(1400)) }), 0);
    EXPECT_EQ(find("vap5.3"), nullptr);
    EXPECT_TRUE(log_has("Interface vap5.3 not provisioned"));
    make("vap5", "vap5");
    EXPECT_NE(make("vap5.3", "vap5.3"), nullptr);
}

TEST_F(config_vpn_if, names_that_the_device_has_no_interface_for_are_ignored_in_all_operations)
{
    for (const char *name : { "ge0/8", "ge5/0", "irb64", "ge0/1.05", "irb" }) {
        forget();
        for (int op : { MOP_CREATED, MOP_MODIFIED, MOP_DELETED })
            EXPECT_EQ(configure(op, name, { set(vpn_mtu, number16(1400)) }), 0) << name;
        EXPECT_EQ(effects(), effects_t{}) << name;
        EXPECT_EQ(log_count("Interface " + std::string(name) + " not provisioned"), 1);
    }
}

TEST_F(config_vpn_if, the_interface_of_a_bridge_has_its_own_type_and_no_twin)
{
    make("irb5", "irb.5");
    EXPECT_EQ(find("irb.5")->type, IF_TYPE_IRB);
    device().kernel.add(0, "simb.5");
    EXPECT_EQ(change("irb5", { set(vpn_mtu, number16(1400)) }), effects_t{ "mtu irb.5 1400" });
}

TEST_F(config_vpn_if, a_record_that_cannot_be_made_ends_the_process)
{
    auto create = [&] {
        log_echo(true);
        daemon.timer_mgr_p = timer_mgr_create(TIMER_RES_10MS, nullptr, nullptr, nullptr, TIMER_MASK_HIGH);
        (void)configure(MOP_CREATED, "loopback1");
    };
    expect_assertion(create, "Failed to create interface - vpn: 5, if: loopback1");
}

TEST_F(config_vpn_if, keys_of_other_types_end_the_process)
{
    confd_value_t keys[] = { u32(5), buf("ge0/1") };
    expect_assertion([&] { cfgmgr_config_vpn_if(&row, MOP_CREATED, 2, keys, 0, nullptr); },
                     "failed assertion `(key_p)->type == C_UINT64'");
}

// ---- the order of effects

TEST_F(config_vpn_if, link_settings_are_set_once_and_a_port_that_is_up_is_bounced)
{
    make("ge0/1", "ge0_1", raised);
    EXPECT_EQ(change("ge0/1", { set(vpn_speed, signed32(100)), set(vpn_duplex, choice(vpn_duplex_half)),
                                set(vpn_flow_control, choice(4)) }),
              (effects_t{ "link ge0_1 speed 100 duplex 0 autoneg 1 advertising 0x7f", "pause ge0_1 autoneg 0 rx 0 tx 0",
                          "flags ge0_1" }));
    EXPECT_TRUE(timer_is_running(find("ge0_1")->delay_up_timer));
    EXPECT_EQ(change("ge0/1", { set(vpn_flow_control, choice(3)) }), effects_t{ "pause ge0_1 autoneg 0 rx 1 tx 1" })
        << "pause frames alone need no bounce";
}

TEST_F(config_vpn_if, leaves_take_effect_in_the_order_of_the_list)
{
    make("ge0/1", "ge0_1");
    EXPECT_EQ(change("ge0/1", raised + address_10 + changes_t{ set(vpn_mtu, number16(1400)) }),
              (effects_t{ ADD_10, "mtu ge0_1 1400" }));
    EXPECT_EQ(change("ge0/1", changes_t{ gone(vpn_mtu), gone(vpn_shutdown) } + in_ip({ gone(vpn_address) })),
              (effects_t{ "mtu ge0_1 1500", "flags ge0_1", DEL_10 }));
}

TEST_F(config_vpn_if, what_comes_back_on_the_way_up_comes_inside_the_vpn_whatever_went_before)
{
    cfgmgr_if_t *if_p = make("ge0/1", "ge0_1");
    tconfd_handler_t add = cfgmgr_config_if_addr_list;
    EXPECT_EQ(configure(add, MOP_CREATED, 5, "ge0/1", { buf("10.3.0.1/24") }), 0);
    cfgmgr_if_route_add(if_p, ip_prefix_t{ if_p->route_prefix.ip, 8 }, if_p->route_prefix.ip);
    forget();
    // An IPv6 address before it, which leaves the namespace, and again one on the way up.
    EXPECT_EQ(change("ge0/1", in_ipv6({ set(vpn_address, buf("2001:db8::1/64")) }) + raised),
              (effects_t{ ADD_DB8, ADD_DB8, "in 5: ip route add 10.3.0.0/24 dev ge0_1 table ge0_1",
                          "in 5: ip route add 10.3.0.0/8 via 10.3.0.0 dev ge0_1 table ge0_1" }));
}

TEST_F(config_vpn_if, a_change_of_a_port_is_repeated_on_its_twin_mac_first)
{
    make("ge0/1", "ge0_1");
    device().kernel.add(0, "sim0_1");
    changes_t both = { set(vpn_mtu, number16(1400)), set(vpn_mac_address, buf("00:11:22:33:44:55")) };
    EXPECT_EQ(change("ge0/1", both), (effects_t{ "mtu ge0_1 1400", "flags ge0_1", "mac ge0_1 00:11:22:33:44:55",
                                                 "mac sim0_1 00:11:22:33:44:55", "mtu sim0_1 1400" }));
    EXPECT_EQ(device().kernel.interface(5, "ge0_1").mac, 0x001122334455u);
    EXPECT_EQ(device().kernel.interface(0, "sim0_1").mac, 0x001122334455u);
    EXPECT_EQ(change("ge0/1", { set(vpn_description, buf("x")) }), effects_t{});
}

TEST_F(config_vpn_if, without_a_twin_only_the_port_is_changed)
{
    make("ge0/1", "ge0_1");
    make("loopback1", "loopback1");
    EXPECT_EQ(change("ge0/1", { set(vpn_mtu, number16(1400)) }), effects_t{ "mtu ge0_1 1400" });
    device().kernel.add(0, "simopback1");
    effects_t seen = change("loopback1", { set(vpn_mtu, number16(1400)) });
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "mtu simopback1 1400"), 0);
}

// ---- MAC addresses

TEST_F(config_vpn_if, a_mac_is_set_with_the_link_down_and_the_own_address_follows)
{
    cfgmgr_if_t *if_p = make("ge0/1", "ge0_1", address_10 + raised);
    EXPECT_EQ(change("ge0/1", { set(vpn_mac_address, buf("00:11:22:33:44:55")) }),
              (effects_t{ "flags ge0_1", "mac ge0_1 00:11:22:33:44:55" }));
    EXPECT_TRUE(timer_is_running(if_p->delay_up_timer)) << "and raised again";
    EXPECT_TRUE(log_has("Adding static mac 0x1122334455 for addr 0xa010501"));
}

TEST_F(config_vpn_if, a_deleted_mac_gives_way_to_that_of_the_chassis_or_the_record)
{
    make("ge0/1", "ge0_1");
    chmgr_port_t *port = nullptr;
    char name[IF_NAME_SIZE];
    ASSERT_NE(cfgmgr_if_cli_to_kernel_name("ge0/1", name, sizeof name, &port), nullptr);
    uint8_t mac[6];
    cfgmgr_chassis_port_mac(port, mac);
    uint64_t number = 0;
    for (uint8_t byte : mac)
        number = number << 8 | byte;
    ASSERT_NE(number, 0u);
    change("ge0/1", { gone(vpn_mac_address) });
    EXPECT_EQ(device().kernel.interface(5, "ge0_1").mac, number);

    cfgmgr_if_t *irb_p = make("irb5", "irb.5");
    irb_p->default_mac = 0x02aabbccddee;
    change("irb5", { gone(vpn_mac_address) });
    EXPECT_EQ(device().kernel.interface(5, "irb.5").mac, 0x02aabbccddeeu);
    for (uint64_t unknown : { uint64_t{ 0 }, IF_MAC_UNREADABLE }) {
        forget();
        irb_p->default_mac = unknown;
        EXPECT_EQ(change("irb5", { gone(vpn_mac_address) }), effects_t{});
        EXPECT_TRUE(log_has("irb.5: Failed to get default macaddr"));
    }
}

// ---- other kinds

TEST_F(config_vpn_if, a_loopback_gets_its_flags_after_its_leaves)
{
    make("loopback1", "loopback1");
    EXPECT_EQ(
        change("loopback1", in_ip({ set(vpn_address, buf("10.8.0.1/32")) }) + raised),
        (effects_t{ "in 5: ip addr add 10.8.0.1/32 dev loopback1", "flags loopback1 +0x241", "flags loopback1" }));
}

TEST_F(config_vpn_if, a_pool_takes_no_address)
{
    cfgmgr_if_t *if_p = make("natpool1", "natpool1");
    effects_t seen = change("natpool1", address_10);
    EXPECT_EQ(if_p->ipv4_addr.ip.family, 0u);
    for (const std::string &effect : seen)
        EXPECT_EQ(effect.find("ip addr"), std::string::npos) << effect;
}

TEST_F(config_vpn_if, the_arp_timeout_is_a_setting_of_the_device_but_not_of_a_bridge_port)
{
    const std::string stale = "proc/sys/net/ipv4/neigh/ge0_1/gc_stale_time";
    root.write(stale, "");
    cfgmgr_if_t *if_p = make("ge0/1", "ge0_1");
    change("ge0/1", { set(vpn_arp_timeout, u32(300)) });
    EXPECT_EQ(root.read(stale), "300");
    change("ge0/1", { gone(vpn_arp_timeout) });
    EXPECT_EQ(root.read(stale), "1200");
    if_p->type = IF_TYPE_BRIDGE_PORT;
    change("ge0/1", { set(vpn_arp_timeout, u32(300)) });
    EXPECT_EQ(root.read(stale), "1200");
    if_p->type = IF_TYPE_PLAIN;
}

TEST_F(config_vpn_if, an_interface_of_a_vpn_serves_no_native_vlan_any_more)
{
    cfgmgr_if_t *if_p = make("ge0/1", "ge0_1");
    if_p->native_vlan = 1;
    change("ge0/1", { set(vpn_description, buf("x")) });
    EXPECT_EQ(if_p->native_vlan, 0u);
}

TEST_F(config_vpn_if, an_address_set_over_dhcp_takes_the_learnt_one_away)
{
    make("ge0/1", "ge0_1", in_ip(dhcp_on));
    EXPECT_EQ(configure(cfgmgr_oper_vpn_if, MOP_MODIFIED, 5, "ge0/1", {},
                        in_ip({ set(vpn_dhcp_oper_addr, buf("10.7.0.9/24")) })),
              0);
    forget();
    EXPECT_EQ(change("ge0/1", address_10),
              (effects_t{ "in 5: ip addr del 10.7.0.9/24 dev ge0_1 broadcast 10.7.0.255", ADD_10 }));
    EXPECT_EQ(find("ge0_1")->flags & IF_DHCP4, 0u);
}

// ---- tunnels

class config_gre : public config_if_env
{
protected:
    cfgmgr_if_t *make_gre(const changes_t &changes) { return make("gre1", "gre1", changes); }
    static effects_t added(const char *source, const char *destination = "192.0.2.9")
    {
        return { "in 5: ip netns exec 5 ip tunnel add gre1 mode gre remote " + std::string(destination) + " local " +
                 source + " ttl 255" };
    }
    static std::string source_state(const cfgmgr_if_t &gre)
    {
        return std::to_string(gre.tunnel_src_kind) + " " + gre.tunnel_src_if + " " + text_of(gre.tunnel_src) +
               (gre.gre_unbound != 0 ? " waits" : "");
    }
    const changes_t to_9 = { set(vpn_tunnel_destination, ipv4("192.0.2.9")) };
    const changes_t from_1 = { set(vpn_tunnel_source, ipv4("192.0.2.1")) };
    const changes_t from_port = { set(vpn_tunnel_source_interface, buf("ge0/1")) };
    const changes_t from_loopback = { set(vpn_tunnel_source_interface, buf("loopback7")) };
};

// The delete command as the thread happens to stand when it is given; it names its VPN by itself.
bool is_delete(const std::string &effect)
{
    return effect.ends_with("ip netns exec 5 ip tunnel delete gre1");
}

TEST_F(config_gre, a_tunnel_is_made_with_its_second_end)
{
    make_gre({});
    EXPECT_EQ(change("gre1", to_9), effects_t{});
    EXPECT_EQ(change("gre1", from_1), added("192.0.2.1"));
    effects_t seen = change("gre1", { set(vpn_tunnel_source, ipv4("192.0.2.2")) });
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_TRUE(is_delete(seen[0])) << seen[0];
    EXPECT_EQ(effects_t{ seen[1] }, added("192.0.2.2"));
}

TEST_F(config_gre, a_deleted_end_is_only_forgotten)
{
    cfgmgr_if_t *gre_p = make_gre(from_1 + to_9);
    EXPECT_EQ(change("gre1", { gone(vpn_tunnel_source) }), effects_t{});
    EXPECT_EQ(source_state(*gre_p), "3  -");
    EXPECT_EQ(change("gre1", { gone(vpn_tunnel_destination) }), effects_t{});
    EXPECT_TRUE(ip_addr_is_zero(gre_p->tunnel_dst));
}

TEST_F(config_gre, a_source_interface_gives_its_address_and_keeps_giving_it)
{
    make("ge0/1", "ge0_1", address_10);
    cfgmgr_if_t *gre_p = make_gre(to_9);
    EXPECT_EQ(change("gre1", from_port), added("10.1.5.1"));
    EXPECT_EQ(source_state(*gre_p), "2 ge0_1 10.1.5.1");
    effects_t seen = change("ge0/1", in_ip({ set(vpn_address, buf("10.1.5.2/24")) }));
    EXPECT_EQ(effects_t{ seen.back() }, added("10.1.5.2"));
    EXPECT_EQ(source_state(*gre_p), "2 ge0_1 10.1.5.2");
}

TEST_F(config_gre, a_source_interface_that_comes_later_is_waited_for)
{
    cfgmgr_if_t *gre_p = make_gre(to_9 + from_loopback);
    EXPECT_EQ(source_state(*gre_p), "2 loopback7 - waits");
    make("loopback7", "loopback7", in_ip({ set(vpn_address, buf("10.8.0.1/32")) }));
    EXPECT_EQ(source_state(*gre_p), "2 loopback7 10.8.0.1");
}

TEST_F(config_gre, deleting_the_source_interface_of_one_that_waits_leaves_it_waiting_for_nothing)
{
    cfgmgr_if_t *gre_p = make_gre(to_9 + from_loopback);
    EXPECT_EQ(change("gre1", { gone(vpn_tunnel_source_interface) }), effects_t{});
    EXPECT_EQ(source_state(*gre_p), "3  - waits");
    change("gre1", from_loopback);
    EXPECT_EQ(source_state(*gre_p), "2 loopback7 - waits") << "also when it was waiting before";
}

TEST_F(config_gre, a_bound_one_is_released_when_its_source_becomes_another)
{
    cfgmgr_if_t *port_p = make("ge0/1", "ge0_1", address_10);
    cfgmgr_if_t *gre_p = make_gre(to_9 + from_port);
    EXPECT_EQ(avl_numnodes(&port_p->gre_bound), 1u);
    change("gre1", from_1);
    EXPECT_EQ(avl_numnodes(&port_p->gre_bound), 0u);
    EXPECT_EQ(source_state(*gre_p), "1  192.0.2.1");
    change("gre1", { gone(vpn_tunnel_source_interface) });
    EXPECT_EQ(source_state(*gre_p), "1  192.0.2.1") << "a source of the other kind stays";
    change("gre1", from_port);
    change("gre1", { gone(vpn_tunnel_source) });
    EXPECT_EQ(source_state(*gre_p).substr(0, 7), "2 ge0_1") << "and the other way round";
}

TEST_F(config_gre, a_source_interface_that_the_device_cannot_have_is_waited_for_as_configured)
{
    cfgmgr_if_t *gre_p = make_gre({ set(vpn_tunnel_source_interface, buf("ge0/8")) });
    EXPECT_EQ(source_state(*gre_p), "2 ge0/8 - waits");
}

// ---- results of DHCP

class oper_vpn_if : public config_if_env
{
protected:
    effects_t learn(const char *name, const changes_t &changes)
    {
        EXPECT_EQ(configure(cfgmgr_oper_vpn_if, MOP_MODIFIED, 5, name, {}, changes), 0);
        return effects();
    }
};

TEST_F(oper_vpn_if, a_learnt_address_goes_to_the_record_the_arp_table_and_tunnels_over_it)
{
    cfgmgr_if_t *if_p = make("ge0/1", "ge0_1", in_ip(dhcp_on));
    make("gre1", "gre1",
         { set(vpn_tunnel_destination, ipv4("192.0.2.9")), set(vpn_tunnel_source_interface, buf("ge0/1")) });
    effects_t seen = learn("ge0/1", in_ip({ set(vpn_dhcp_oper_addr, buf("10.7.0.9/24")) }));
    EXPECT_EQ(text_of(if_p->dhcp_addr), "10.7.0.9/24");
    EXPECT_TRUE(log_has("IP Oper Callback vpn: 5, if: ge0_1"));
    EXPECT_TRUE(log_has("Adding static mac 0x20000000001 for addr 0xa070009"));
    EXPECT_TRUE(log_has("DHCP oper config vpn: 5, if: ge0_1, ip: 10.7.0.9/24"));
    ASSERT_FALSE(seen.empty());
    EXPECT_TRUE(seen.back().ends_with("tunnel add gre1 mode gre remote 192.0.2.9 local 10.7.0.9 ttl 255"));
}

TEST_F(oper_vpn_if, a_lost_address_is_forgotten_in_either_form)
{
    cfgmgr_if_t *if_p = make("ge0/1", "ge0_1", in_ip(dhcp_on) + in_ipv6(dhcp_on));
    for (const confd_tag_value_t &lost :
         { gone(vpn_dhcp_oper_addr), set(vpn_dhcp_oper_addr, buf("0.0.0.0/0")), set(vpn_dhcp_oper_addr, buf("")) }) {
        learn("ge0/1", in_ip({ set(vpn_dhcp_oper_addr, buf("10.7.0.9/24")) }) +
                           in_ipv6({ set(vpn_dhcp_oper_addr, buf("2001:db8::9/64")) }));
        EXPECT_EQ(text_of(if_p->dhcp6_addr), "2001:db8::9/64");
        learn("ge0/1", in_ip({ lost }));
        EXPECT_EQ(text_of(if_p->dhcp_addr), "-");
        EXPECT_EQ(if_p->dhcp_addr.ip.family, uint32_t{ AF_INET });
        EXPECT_EQ(text_of(if_p->dhcp6_addr), "2001:db8::9/64") << "the other family keeps its own";
        learn("ge0/1", in_ipv6({ gone(vpn_dhcp_oper_addr) }));
        EXPECT_EQ(text_of(if_p->dhcp6_addr), "-");
    }
    EXPECT_TRUE(log_has("DHCP V6 oper config vpn: 5, if: ge0_1, ip: 2001:db8::9/64"));
}

TEST_F(oper_vpn_if, pools_and_interfaces_without_a_record_learn_nothing)
{
    cfgmgr_if_t *pool_p = make("natpool1", "natpool1");
    for (const char *name : { "natpool1", "loopback9", "ge0/8" })
        EXPECT_EQ(learn(name, in_ip({ set(vpn_dhcp_oper_addr, buf("10.7.0.9/24")) })), effects_t{});
    EXPECT_TRUE(ip_addr_is_zero(pool_p->dhcp_addr.ip));
    EXPECT_FALSE(log_has("vpn: 5, if: natpool1"));
}

} // namespace
