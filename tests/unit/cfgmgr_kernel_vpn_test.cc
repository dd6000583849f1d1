// Namespaces and taps when something fails, and the link of the management VPN; the normal order is tested with the VPN
// table.
#include "cfgmgr/network/cfgmgr_kernel_vpn.h"
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_kernel_env.h"

namespace
{

const effects_t TAP_MADE = {
    "ip link add link loop0 name loop0.1 type vlan id 1",
    "ifconfig loop0.1 mtu 2000",
    "/sbin/ip link set loop0.1 netns 5",
};
const effects_t TAP_SET_UP = {
    "ip netns exec 5 ip addr add 127.1.0.1/24 dev loop0.1",
    "ip netns exec 5 ip addr add FCFF::01/120 dev loop0.1",
    "ip netns exec 5 ip link set dev loop0.1 address 02:00:00:00:00:01",
    "ip netns exec 5 ip link set loop0.1 up",
    "ip netns exec 5 ip neighbor add 127.1.0.2 lladdr 00:00:01:02:03:04 nud permanent dev loop0.1",
    "ip netns exec 5 ip -6 neighbor add FCFF::02 lladdr 00:00:01:02:03:04 nud permanent dev loop0.1",
    "ip netns exec 5 route add default gw 127.1.0.2",
    "ip netns exec 5 route -6 add default gw FCFF::02",
};
const std::string TAP_DELETE = "ip netns exec 5 ip link delete loop0.1 type vlan";
const std::string FP_TAP_DELETE = "ip netns exec 5 ip link delete loop0.2001 type vlan";

effects_t until(const effects_t &effects, size_t last, const effects_t &then = {})
{
    effects_t seen(effects.begin(), effects.begin() + static_cast<ptrdiff_t>(last) + 1);
    seen.insert(seen.end(), then.begin(), then.end());
    return seen;
}

class kernel_vpn : public cfgmgr_kernel_env
{
protected:
    // Makes the management VPN of a device and gives what ran up to the message to the system manager and behind it.
    effects_t effects_behind_tell(uint32_t personality)
    {
        daemon.personality = personality;
        EXPECT_EQ(cfgmgr_vpn_find_or_create(&daemon, 512, 0), 0);
        effects_t effects = device().take_effects();
        auto tell = std::find(effects.begin(), effects.end(), "tell 5 512");
        EXPECT_NE(tell, effects.end());
        return tell != effects.end() ? effects_t(tell + 1, effects.end()) : effects_t{};
    }
};

TEST_F(kernel_vpn, a_service_tap_that_cannot_be_made_is_left)
{
    for (size_t failing = 0; failing < TAP_MADE.size(); failing++) {
        device().statuses = { { TAP_MADE[failing], EXIT_1 } };
        EXPECT_EQ(cfgmgr_vpn_create_tap(vpn(5)), 17);
        bool is_moved = failing == 2;
        EXPECT_EQ(device().take_effects(), until(TAP_MADE, failing, is_moved ? effects_t{ TAP_DELETE } : effects_t{}));
        EXPECT_TRUE(log_has("Command Failed: " + TAP_MADE[failing]));
    }
}

TEST_F(kernel_vpn, a_service_tap_that_cannot_be_set_up_is_deleted_without_a_word)
{
    for (size_t failing = 0; failing < TAP_SET_UP.size(); failing++) {
        device().statuses = { { TAP_SET_UP[failing], EXIT_1 } };
        EXPECT_EQ(cfgmgr_vpn_create_tap(vpn(5)), 17);
        effects_t expected = TAP_MADE;
        effects_t rest = until(TAP_SET_UP, failing, { TAP_DELETE });
        expected.insert(expected.end(), rest.begin(), rest.end());
        EXPECT_EQ(device().take_effects(), expected);
        EXPECT_FALSE(log_has("ailed"));
    }
}

TEST_F(kernel_vpn, without_a_forwarding_plane_there_are_no_taps)
{
    device().kernel.errors = { { "get mac loop0", ENODEV } };
    EXPECT_EQ(cfgmgr_vpn_create_tap(vpn(5)), 7);
    EXPECT_EQ(device().take_effects(), effects_t{ TAP_DELETE });
    EXPECT_EQ(cfgmgr_vpn_create_fp_tap_interface(vpn(5)), 7);
    EXPECT_TRUE(device().effects.empty());
}

TEST_F(kernel_vpn, the_transport_vpn_has_a_forwarding_tap_only)
{
    EXPECT_EQ(cfgmgr_vpn_create_tap(vpn(0)), 0);
    EXPECT_TRUE(device().effects.empty());
    EXPECT_EQ(cfgmgr_vpn_create_fp_tap_interface(vpn(0)), 0);
    EXPECT_EQ(device().take_effects(),
              (effects_t{ "ip link add link loop0 name loop0.2000 type vlan id 2000", "ifconfig loop0.2000 mtu 2000",
                          "ip link set dev loop0.2000 address 02:00:00:00:00:01", "ip link set loop0.2000 up" }));
}

TEST_F(kernel_vpn, a_forwarding_tap_that_fails_is_told_and_deleted)
{
    const effects_t effects = { "ip link add link loop0 name loop0.2001 type vlan id 2001",
                                "ifconfig loop0.2001 mtu 2000", "/sbin/ip link set loop0.2001 netns 5",
                                "ip netns exec 5 ip link set dev loop0.2001 address 02:00:00:00:00:01",
                                "ip netns exec 5 ip link set loop0.2001 up" };
    EXPECT_EQ(cfgmgr_vpn_create_fp_tap_interface(vpn(5)), 0);
    EXPECT_EQ(device().take_effects(), effects);
    struct {
        const char *log;
        bool is_deleted;
    } static constexpr cases[] = {
        { "Command Failed: ip link add", false },
        { "Command Failed: ifconfig", false },
        { "Command Failed: /sbin/ip link set loop0.2001 netns 5, errno: 2", true },
        { "Failed to set interface mac address for interface loop0.2001 err 2\n", true },
        { "Failed to bringup interface loop0.2001 err 2\n", true },
    };
    for (size_t failing = 0; failing < effects.size(); failing++) {
        device().statuses = { { effects[failing], EXIT_1 } };
        EXPECT_EQ(cfgmgr_vpn_create_fp_tap_interface(vpn(5)), 17);
        EXPECT_TRUE(log_has(cases[failing].log));
        EXPECT_EQ(device().take_effects(),
                  until(effects, failing, cases[failing].is_deleted ? effects_t{ FP_TAP_DELETE } : effects_t{}));
    }
}

TEST_F(kernel_vpn, taps_that_are_gone_already_are_told)
{
    device().statuses = { { TAP_DELETE, EXIT_1 } };
    cfgmgr_vpn_delete_taps(vpn(5));
    EXPECT_EQ(device().take_effects(), (effects_t{ TAP_DELETE, FP_TAP_DELETE }));
    EXPECT_TRUE(log_has("Command Failed: " + TAP_DELETE));
}

TEST_F(kernel_vpn, a_management_system_has_a_link_to_its_management_vpn)
{
    const effects_t link = { "ip link add veth0512 type veth peer name veth1512",
                             "ip link set veth1512 netns 512",
                             "ifconfig veth0512 169.254.0.254/30 up",
                             "ip netns exec 512 ifconfig veth1512 169.254.0.253/30 up",
                             "ip route add default via 169.254.0.253 dev veth0512 table 512",
                             "ip rule add from 169.254.0.254 table 512" };
    effects_t effects = effects_behind_tell(PERSONALITY_QUORVIX);
    ASSERT_GT(effects.size(), link.size());
    EXPECT_EQ(effects_t(effects.begin(), effects.begin() + 6), link);
    EXPECT_EQ(effects[6], "daemon start 29 512");
    EXPECT_EQ(effects[7], "enter 512") << "and no other routing daemon";
    cfgmgr_vpn_delete_by_id(&daemon, 512);
    for (const std::string &failing : link) {
        device().statuses = { { failing, EXIT_1 } };
        log_clear();
        EXPECT_EQ(cfgmgr_vpn_find_or_create(&daemon, 512, 0), 15);
        EXPECT_TRUE(log_has("Command Failed: " + failing));
        EXPECT_EQ(vpn(512), nullptr);
    }
}

TEST_F(kernel_vpn, other_devices_and_vpns_have_no_such_link)
{
    EXPECT_EQ(effects_behind_tell(PERSONALITY_KREST)[0], "daemon start 29 512");
    daemon.personality = PERSONALITY_QUORVIX;
    EXPECT_EQ(cfgmgr_vpn_find_or_create(&daemon, 7, 0), 0);
    for (const std::string &effect : device().effects)
        EXPECT_EQ(effect.find("veth"), std::string::npos) << effect;
}

TEST_F(kernel_vpn, files_of_a_namespace_that_stay_are_told)
{
    device().statuses = { { "rm -rf /etc/netns/5", EXIT_1 } };
    EXPECT_EQ(cfgmgr_vpn_namespace_delete(&daemon, vpn(5)), 15);
    EXPECT_EQ(device().take_effects(), (effects_t{ "tell 6 5", "daemon stop 29 5", "daemon stop 30 5",
                                                   "daemon stop 31 5", "rm -rf /etc/netns/5" }));
    EXPECT_EQ(cfgmgr_vpn_namespace_delete(&daemon, vpn(0)), 0);
    EXPECT_EQ(device().take_effects(),
              (effects_t{ "tell 6 0", "daemon stop 29 0", "daemon stop 30 0", "daemon stop 31 0" }));
}

} // namespace
