// The start of the interface table by personality, and the interfaces that a device has for its own sake.
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_if_env.h"

namespace
{

using names_t = std::vector<std::string>;
const names_t PORTS = { "ge0_0", "ge0_1", "ge0_2", "ge0_3", "ge0_4", "ge0_5", "ge0_6", "ge0_7" };

// ---- start

struct start_case_t {
    uint32_t personality;
    uint8_t mgmt_vpn;
    bool has_ports;
    int eth0_vpn; // -1: none
};

class if_start : public if_env, public testing::WithParamInterface<start_case_t>
{
};

TEST_P(if_start, makes_the_ports_that_the_device_has)
{
    daemon.personality = GetParam().personality;
    daemon.mgmt_vpn = GetParam().mgmt_vpn;
    EXPECT_EQ(start(), 0);
    names_t expected = GetParam().has_ports ? PORTS : names_t{};
    if (GetParam().eth0_vpn == 0)
        expected.insert(expected.begin(), "eth0");
    EXPECT_EQ(names_in(0), expected);
    if (GetParam().eth0_vpn == 512) {
        EXPECT_EQ(names_in(512), names_t{ "eth0" });
    }
    if_effects_t done = effects();
    bool is_up = std::find(done.begin(), done.end(), "flags eth0 +0x241") != done.end();
    EXPECT_EQ(is_up, GetParam().eth0_vpn >= 0);
    for (const cfgmgr_if_t &port : avl_range<cfgmgr_if_t>(&daemon.if_table))
        EXPECT_EQ(port.shutdown, 1u) << port.name;
}

INSTANTIATE_TEST_SUITE_P(
    personalities, if_start,
    testing::Values(start_case_t{ PERSONALITY_KREST, 1, true, 512 }, start_case_t{ PERSONALITY_KREST, 0, true, -1 },
                    start_case_t{ PERSONALITY_TARN, 1, true, 512 }, start_case_t{ PERSONALITY_TARN, 0, true, -1 },
                    start_case_t{ PERSONALITY_LODEST, 1, false, 0 }, start_case_t{ PERSONALITY_ORBEL, 1, false, -1 },
                    start_case_t{ PERSONALITY_QUORVIX, 0, false, 0 }, start_case_t{ PERSONALITY_PENDRY, 1, false, 0 }),
    [](const auto &at) { return "row" + std::to_string(at.index); });

class if_system : public if_env
{
protected:
    // Chassis types with a modem slot have the internal VPN.
    void start_with_modem(int chassis_type)
    {
        device().chassis_type = chassis_type;
        root.write("var/run/qcqmi0", "");
        EXPECT_EQ(start(), 0);
    }
};

// ---- radios

TEST_F(if_system, a_radio_gets_the_mac_that_the_chassis_has_for_it)
{
    root.make_dir("proc/sys/net/ipv4/conf/wifi0");
    root.make_dir("proc/sys/net/ipv4/conf/wifi1");
    chmgr_port_t &port = device().chassis->slots[0].ports[7];
    strcpy(port.kernel_name, "wifi1");
    port.mac = 0x02aabbccdd01;
    EXPECT_EQ(start(), 0);
    if_effects_t done = effects();
    ASSERT_GE(done.size(), 2u);
    EXPECT_EQ(done[done.size() - 2], "ip link set wifi1 down");
    EXPECT_EQ(done.back(), "ip link set wifi1 address 02:aa:bb:cc:dd:01");
    EXPECT_EQ(log_count("Failed to set new MAC address on WLAN radio"), 1) << "the chassis knows nothing of wifi0";
}

// ---- the modem

TEST_F(if_system, a_modem_gets_its_bridge_and_its_legs)
{
    start_with_modem(6);
    EXPECT_EQ(names_in(VPN_ID_INTERNAL), (names_t{ "loop2.10", "wwan0" }));
    cfgmgr_bridge_t *bridge_p = cfgmgr_bridge_find(&daemon, BRIDGE_INTERNAL, nullptr);
    ASSERT_NE(bridge_p, nullptr);
    EXPECT_STREQ(bridge_p->name, "511");
    EXPECT_EQ(avl_numnodes(&bridge_p->if_db), 2u);
    EXPECT_EQ(find("wwan0")->flags & IF_INTERNAL, static_cast<uint32_t>(IF_INTERNAL));
    EXPECT_EQ(find("wwan0")->delay_up_timer, nullptr);
    EXPECT_EQ(find("loop2.10")->vlan_id, 10u);
    EXPECT_EQ(find("loop2.10")->type, IF_TYPE_INTERNAL);
    EXPECT_EQ(find("cellular0")->vlan_id, 20u);
    EXPECT_EQ(find("cellular0")->vpn_p->vpn_id, 0u);
    EXPECT_TRUE(log_has("Created Interfaces: cellular0(20), loop2.10(10), wwan0 Bridge 511"));
    if_effects_t done = effects();
    auto at = [&](const std::string &effect) {
        return std::find(done.begin(), done.end(), effect) - done.begin();
    };
    EXPECT_LT(at("65530# brctl addbr 511"), at("flags 511 +0x241"));
    EXPECT_LT(at("flags 511 +0x241"), at("65530# brctl addif 511 wwan0"));
    EXPECT_LT(at("65530# brctl addif 511 wwan0"), at("65530# brctl addif 511 loop2.10"));
    EXPECT_LT(at("65530# brctl addif 511 loop2.10"), at("flags loop2.10 +0x241"));
    EXPECT_EQ(done.back(), "flags loop2.10 +0x241");
}

TEST_F(if_system, without_a_modem_there_are_no_legs)
{
    start_with_modem(2);
    EXPECT_EQ(names_in(VPN_ID_INTERNAL), names_t{}) << "this chassis has no slot for one";
    EXPECT_EQ(find("cellular0"), nullptr);
}

TEST_F(if_system, a_bridge_that_cannot_be_made_for_the_modem_is_fatal)
{
    device().statuses["brctl addbr 511"] = EXIT_1;
    expect_assertion([this] { start_with_modem(6); }, "`result == 0'");
}

// ---- system addresses

TEST_F(if_system, the_system_address_is_on_an_interface_of_the_transport_vpn)
{
    start_with_vpns();
    daemon.system_ip = prefix_of("192.0.2.1", 32);
    cfgmgr_if_system_update_all(&daemon, false, true);
    if_effects_t done = effects();
    ASSERT_EQ(done.size(), 9u);
    EXPECT_EQ(done[0], "tun system 0x8001");
    EXPECT_EQ(done[4], "ip addr add 192.0.2.1/32 dev system");
    EXPECT_EQ(done[5], "flags system +0x9");
    EXPECT_EQ(done[6], "message 29 1 0");
    EXPECT_EQ(done[7], "message 29 1 5");
    EXPECT_EQ(done[8], "message 29 1 6");
    EXPECT_EQ(find("system")->shutdown, 0u);
    EXPECT_EQ(ip_addr_compare(device().chassis->system_ip, address_of("192.0.2.1")), 0) << "other daemons see it";
    cfgmgr_if_system_update_all(&daemon, true, true);
    done = effects();
    ASSERT_GE(done.size(), 4u);
    EXPECT_EQ(done[0], "ip addr del 192.0.2.1/32 dev system");
    EXPECT_EQ(done.back(), "message 29 1 6");
    EXPECT_EQ(find("system"), nullptr);
}

TEST_F(if_system, the_management_system_has_an_address_of_its_own)
{
    start_with_vpns();
    daemon.quorvix_system_ip = prefix_of("192.0.2.9", 32);
    cfgmgr_if_system_update_all(&daemon, false, false);
    ASSERT_NE(find("quorvix_system"), nullptr);
    EXPECT_EQ(find("system"), nullptr);
    EXPECT_EQ(ip_addr_compare(device().chassis->quorvix_system_ip, address_of("192.0.2.9")), 0);
    EXPECT_EQ(device().chassis->system_ip.family, 0u);
    cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_find(&daemon, 0, nullptr);
    forget();
    cfgmgr_if_system_vpn_del(&daemon, vpn_p, daemon.quorvix_system_ip, "quorvix_system", false);
    EXPECT_EQ(effects(), (if_effects_t{ "ip addr del 192.0.2.9/32 dev quorvix_system", "message 29 1 0" }));
    EXPECT_NE(find("quorvix_system"), nullptr) << "only its address was to go";
}

TEST_F(if_system, simulated_interfaces_come_and_go)
{
    start_with_vpns();
    struct {
        void (*add)(cfgmgrd_t *, const ip_prefix_t &, int);
        void (*del)(cfgmgrd_t *, const ip_prefix_t &, int);
        const char *name;
    } rows[] = {
        { cfgmgr_if_simulated_system_add, cfgmgr_if_simulated_system_del, "system_3" },
        { cfgmgr_if_simulated_wan_add, cfgmgr_if_simulated_wan_del, "loopback_wan_3" },
    };
    for (const auto &row : rows) {
        std::string name = row.name;
        row.add(&daemon, prefix_of("192.0.2.3", 32), 3);
        if_effects_t done = effects();
        ASSERT_EQ(done.size(), 6u);
        EXPECT_EQ(done[4], "ip addr add 192.0.2.3/32 dev " + name);
        EXPECT_EQ(done[5], "flags " + name + " +0x9");
        EXPECT_EQ(find(row.name)->shutdown, 0u);
        row.del(&daemon, prefix_of("192.0.2.3", 32), 4);
        EXPECT_NE(find(row.name), nullptr);
        row.del(&daemon, prefix_of("192.0.2.3", 32), 3);
        EXPECT_EQ(effects(), if_effects_t{ "ip addr del 192.0.2.3/32 dev " + name });
        EXPECT_EQ(find(row.name), nullptr);
    }
}

} // namespace
