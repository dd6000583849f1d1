// What devices need when they enter and leave a VPN, by kind; the twins of sub-interfaces.
#include "tests/unit/cfgmgr_kernel_env.h"

namespace
{

struct attach_case_t {
    const char *name;
    uint32_t flags;
    uint32_t vlan_id;
    effects_t attached;
    effects_t detached;
};

void PrintTo(const attach_case_t &row, std::ostream *out)
{
    *out << row.name;
}

const effects_t offload_off(const std::string &name)
{
    return { "enter 5", "ethtool -K " + name + " gso off gro off", "leave 5" };
}

effects_t operator+(effects_t first, const effects_t &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

const attach_case_t attach_cases[] = {
    { "loopback1",
      IF_LOOPBACK,
      0,
      effects_t{ "enter 5", "tun loopback1 0x8001", "leave 5" } + offload_off("loopback1"),
      {} },
    { "irb.7",
      IF_IRB,
      7,
      effects_t{ "ip link add link loop1 name irb.7 type vlan id 7", "ifconfig irb.7 mtu 2000",
                 "ip link set irb.7 down", "/sbin/ip link set irb.7 netns 5", "enter 5", "flags irb.7",
                 "mac irb.7 02:00:00:00:00:01", "flags irb.7 +0x241", "leave 5" } +
          offload_off("irb.7"),
      { "ip netns exec 5 ip link delete irb.7 type vlan" } },
    { "gre1",
      IF_GRE,
      0,
      effects_t{ "enter 5", "ip netns exec 5 ip tunnel add gre1 mode gre remote 10.0.0.2 local 10.0.0.1 ttl 255",
                 "leave 5" } +
          offload_off("gre1"),
      { "ip netns exec 5 ip tunnel delete gre1" } },
    { "loop2.10",
      IF_INTERNAL,
      10,
      effects_t{ "ip link add link loop2 name loop2.10 type vlan id 10", "ifconfig loop2.10 mtu 2000",
                 "/sbin/ip link set loop2.10 netns 5", "enter 5", "ip link set dev loop2.10 address 0:0:0:0:10:1",
                 "leave 5" } +
          offload_off("loop2.10"),
      { "enter 5", "ip link delete loop2.10 type vlan", "leave 5" } },
    { "cellular0",
      IF_CELLULAR,
      20,
      effects_t{ "enter 5", "ip link add link loop2 name cellular0 address 02:00:00:00:00:01 type vlan id 20",
                 "leave 5", "enter 5", "flags cellular0", "mac cellular0 02:00:00:00:00:01", "leave 5" } +
          offload_off("cellular0"),
      { "enter 5", "ip link delete cellular0 type vlan", "leave 5" } },
    { "ge0_1.100",
      IF_SUBIF,
      100,
      effects_t{ "ip link add link ge0_1 name ge0_1.100 type vlan id 100", "/sbin/ip link set ge0_1.100 netns 5" } +
          offload_off("ge0_1.100"),
      { "ip netns exec 5 ip link delete ge0_1.100 type vlan" } },
    { "ge0_1",
      0,
      0,
      effects_t{ "/sbin/ip link set ge0_1 netns 5" } + offload_off("ge0_1"),
      { "flags ge0_1", "/sbin/ip netns exec 5 ip link set ge0_1 netns " + std::to_string(getpid()) } },
    { "ppp0", IF_PPP, 0, offload_off("ppp0"), {} },
    { "vap1", IF_VAP, 0, {}, {} },
};

class kernel_attach : public cfgmgr_kernel_env, public testing::WithParamInterface<attach_case_t>
{
protected:
    cfgmgr_if_t make_if_of_row()
    {
        cfgmgr_if_t interface = make_if(GetParam().name, GetParam().flags, 5, GetParam().vlan_id);
        interface.default_mac = 0x020000000001;
        interface.tunnel_src = prefix_of("10.0.0.1", 0).ip;
        interface.tunnel_dst = prefix_of("10.0.0.2", 0).ip;
        return interface;
    }
};
INSTANTIATE_TEST_SUITE_P(kinds, kernel_attach, testing::ValuesIn(attach_cases), [](const auto &info) {
    std::string title = info.param.name;
    std::replace(title.begin(), title.end(), '.', '_');
    return title;
});

TEST_P(kernel_attach, enters_and_leaves_a_vpn_as_its_kind_needs)
{
    cfgmgr_if_t interface = make_if_of_row();
    EXPECT_EQ(cfgmgr_kernel_if_vpn_add(&daemon, 5, &interface), 0);
    EXPECT_EQ(device().take_effects(), GetParam().attached);
    EXPECT_EQ(cfgmgr_kernel_if_vpn_del(&daemon, 5, &interface), 0);
    EXPECT_EQ(device().take_effects(), GetParam().detached);
    EXPECT_EQ(interface.flags, GetParam().flags);
    EXPECT_FALSE(log_has("ailed"));
}

// Sooner or later each step fails; tunnels and modems only say so.
TEST_P(kernel_attach, without_its_device_offload_is_left_alone)
{
    const effects_t &effects = GetParam().attached;
    for (const std::string &failing : effects) {
        if (!is_command(failing) || failing.starts_with("ethtool") || (GetParam().flags & IF_CELLULAR) != 0)
            continue;
        SCOPED_TRACE(failing);
        device().statuses = { { failing, EXIT_1 } };
        cfgmgr_if_t interface = make_if_of_row();
        EXPECT_EQ(cfgmgr_kernel_if_vpn_add(&daemon, 5, &interface), 17);
        effects_t seen = device().take_effects();
        EXPECT_EQ(std::count_if(seen.begin(), seen.end(),
                                [](const auto &effect) { return effect[0] == 'e' && effect[1] == 't'; }),
                  0);
    }
}

class kernel_leaving : public cfgmgr_kernel_env
{
};

TEST_F(kernel_leaving, an_irb_that_cannot_be_set_down_is_deleted_again)
{
    cfgmgr_if_t irb = make_if("irb.7", IF_IRB, 5, 7);
    device().statuses = { { "ip link set irb.7 down", EXIT_1 } };
    EXPECT_EQ(cfgmgr_kernel_if_vpn_add(&daemon, 5, &irb), 17);
    EXPECT_EQ(device().take_effects(),
              (effects_t{ "ip link add link loop1 name irb.7 type vlan id 7", "ifconfig irb.7 mtu 2000",
                          "ip link set irb.7 down", "ip link delete irb.7 type vlan" }));
    EXPECT_EQ(irb.flags, uint32_t{ IF_IRB });
}

TEST_F(kernel_leaving, in_the_transport_vpn_a_port_does_not_move)
{
    cfgmgr_if_t port = make_if("ge0_1", 0, 0);
    EXPECT_EQ(cfgmgr_kernel_if_vpn_add(&daemon, 0, &port), 0);
    EXPECT_EQ(cfgmgr_kernel_if_vpn_del(&daemon, 0, &port), 0);
    EXPECT_EQ(device().take_effects(),
              (effects_t{ "enter 0", "ethtool -K ge0_1 gso off gro off", "leave 0", "flags ge0_1" }));
}

TEST_F(kernel_leaving, what_dhcp_gave_is_forgotten_and_its_resolvers_go)
{
    root.make_dir("etc/netns/5");
    cfgmgr_if_t port = make_if("ge0_1", IF_DHCP4 | IF_DHCP6);
    port.dhcp_addr = prefix_of("10.0.0.9", 24);
    port.dhcp_dns_count = 2;
    port.dhcp_dns[0] = port.dhcp_dns[1] = 0x0a000001;
    port.dhcp6_addr = prefix_of("2001:db8::9", 64);
    port.dhcp6_dns_count = 1;
    port.dhcp6_dns[0] = prefix_of("2001:db8::1", 0).ip;
    EXPECT_EQ(cfgmgr_kernel_if_vpn_del(&daemon, 5, &port), 0);
    EXPECT_EQ(port.dhcp_addr.ip.family, uint32_t{ AF_INET });
    EXPECT_TRUE(ip_addr_is_zero(port.dhcp_addr.ip));
    EXPECT_EQ(port.dhcp_addr.len, 0);
    EXPECT_EQ(port.dhcp_dns_count + port.dhcp_dns[0] + port.dhcp_dns[1], 0u);
    EXPECT_EQ(port.dhcp6_addr.ip.family, uint32_t{ AF_INET6 });
    EXPECT_TRUE(ip_addr_is_zero(port.dhcp6_addr.ip));
    EXPECT_EQ(port.dhcp6_dns_count + port.dhcp6_dns[0].family, 0u);
    EXPECT_TRUE(root.has("etc/resolv.conf"));
    EXPECT_TRUE(root.has("etc/netns/5/resolv.conf"));
}

TEST_F(kernel_leaving, addresses_of_a_family_without_dhcp_stay)
{
    cfgmgr_if_t port = make_if("ge0_1", IF_DHCP6);
    port.dhcp_addr = prefix_of("10.0.0.9", 24);
    EXPECT_EQ(cfgmgr_kernel_if_vpn_del(&daemon, 5, &port), 0);
    EXPECT_FALSE(ip_addr_is_zero(port.dhcp_addr.ip));
}

// ---- twins

using kernel_twins = cfgmgr_kernel_env;

TEST_F(kernel_twins, follow_their_sub_interface_in_the_transport_vpn)
{
    device().kernel.add(0, "sim0_1");
    cfgmgr_if_t subif = make_if("ge0_1.100", IF_SUBIF, 5, 100);
    cfgmgr_subif_add_sim(&subif);
    effects_t effects = device().take_effects();
    ASSERT_GT(effects.size(), 2u);
    EXPECT_EQ(effects.front(), "ip link add link sim0_1 name sim0_1.100 type vlan id 100");
    EXPECT_EQ(effects[1], "ifconfig sim0_1.100 multicast");
    EXPECT_EQ(effects.back(), "flags sim0_1.100 +0x241");
    EXPECT_EQ(device().kernel.interface(0, "sim0_1.100").flags, 0x241u);
    device().kernel.add(0, "sim0_1.100");
    cfgmgr_subif_add_sim(&subif);
    EXPECT_TRUE(device().effects.empty()) << "asked for by the VPN and by the bridge, made once";
    cfgmgr_subif_del_sim(&subif);
    EXPECT_EQ(device().take_effects(), effects_t{ "ip link delete sim0_1.100 type vlan" });
    device().kernel.interface(0, "sim0_1.100").exists = false;
    cfgmgr_subif_del_sim(&subif);
    EXPECT_TRUE(device().effects.empty());
}

TEST_F(kernel_twins, that_cannot_be_made_are_not_set_up)
{
    device().kernel.add(0, "sim0_1");
    std::string add = "ip link add link sim0_1 name sim0_1.100 type vlan id 100";
    device().statuses = { { add, EXIT_1 } };
    cfgmgr_if_t subif = make_if("ge0_1.100", IF_SUBIF, 5, 100);
    cfgmgr_subif_add_sim(&subif);
    EXPECT_EQ(device().take_effects(), effects_t{ add });
    EXPECT_TRUE(log_has("Command Failed: " + add));
}

TEST_F(kernel_twins, are_only_there_where_the_port_has_one)
{
    device().kernel.add(5, "sim0_1");
    device().kernel.add(0, "loop2");
    for (const char *name : { "ge0_1.100", "loop2.10", "cellular0" }) {
        cfgmgr_if_t interface = make_if(name, IF_SUBIF, 5, 10);
        cfgmgr_subif_add_sim(&interface);
        cfgmgr_subif_del_sim(&interface);
    }
    EXPECT_TRUE(device().effects.empty());
}

} // namespace
