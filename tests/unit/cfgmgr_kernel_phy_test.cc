// Link settings: which modes are advertised, what is sent to the device and when.
#include "cfgmgr/network/cfgmgr_kernel_phy.h"
#include "tests/unit/cfgmgr_kernel_env.h"

#include <linux/ethtool.h>

namespace
{

constexpr uint32_t UNSET = PHY_DUPLEX_UNSET;

cfgmgr_if_phy_t link_of(int32_t speed, uint32_t duplex, uint32_t autoneg = 0)
{
    cfgmgr_if_phy_t phy = PHY_DEFAULT;
    phy.speed = speed;
    phy.duplex = duplex;
    phy.autoneg = autoneg;
    return phy;
}

struct modes_case_t {
    int32_t speed;
    uint32_t duplex;
    uint32_t modes;
};

TEST(phy_modes, follow_from_speed_and_duplex)
{
    static constexpr modes_case_t cases[] = {
        { 10, 0, 0x1 },     { 10, 1, 0x2 },    { 10, UNSET, 3 },  { 100, 0, 0x4 },     { 100, 1, 0x8 },
        { 100, UNSET, 12 }, { 1000, 0, 0x10 }, { 1000, 1, 0x20 }, { 1000, UNSET, 48 }, { 10000, 1, 0x20 },
        { -1, 1, 42 },      { -1, 0, 21 },     { -1, UNSET, 0 },
    };
    for (const modes_case_t &row : cases) {
        SCOPED_TRACE(std::to_string(row.speed) + " " + std::to_string(row.duplex));
        EXPECT_EQ(cfgmgr_phy_advertising(0, link_of(row.speed, row.duplex)), row.modes);
        EXPECT_EQ(cfgmgr_phy_advertising(0x207f, link_of(row.speed, row.duplex)), 0x2000 | row.modes)
            << "what is above the low seven bits stays";
        EXPECT_EQ(cfgmgr_phy_advertising(0x207f, link_of(row.speed, row.duplex, 1)), 127u);
    }
}

class kernel_phy : public cfgmgr_kernel_env
{
protected:
    kernel_phy() { port.phy = PHY_DEFAULT; }
    int set(const cfgmgr_if_phy_t &wanted, bool force = false) { return cfgmgr_kernel_phy_set(&port, wanted, force); }
    fake_if_t &kernel() { return device().kernel.interface(5, "ge0_1"); }

    cfgmgr_if_t port = make_if("ge0_1");
};

TEST_F(kernel_phy, settings_that_are_in_force_are_not_sent_again_unless_forced)
{
    EXPECT_EQ(set(PHY_DEFAULT), 0);
    EXPECT_TRUE(device().effects.empty());
    EXPECT_EQ(set(PHY_DEFAULT, true), 0);
    EXPECT_EQ(device().take_effects(), effects_t{ "link ge0_1 speed 1000 duplex 1 autoneg 1 advertising 0x7f" });
    EXPECT_EQ(cfgmgr_kernel_phy_set(&port, port.phy, true), 0) << "with the record's own settings";
    EXPECT_EQ(device().take_effects().size(), 1u);
}

TEST_F(kernel_phy, what_is_not_set_is_sent_as_a_gigabit_in_both_directions)
{
    kernel().advertising = 0x2000;
    EXPECT_EQ(set(link_of(100, 0)), 0);
    EXPECT_EQ(set(link_of(100, UNSET)), 0);
    EXPECT_EQ(set(link_of(-1, 0)), 0);
    EXPECT_EQ(device().take_effects(), (effects_t{ "link ge0_1 speed 100 duplex 0 autoneg 0 advertising 0x2004",
                                                   "link ge0_1 speed 100 duplex 1 autoneg 0 advertising 0x200c",
                                                   "link ge0_1 speed 1000 duplex 0 autoneg 0 advertising 0x2015" }));
    EXPECT_EQ(port.phy.speed, -1);
    EXPECT_EQ(port.phy.duplex, 0u);
    EXPECT_EQ(port.phy.autoneg, 0u);
}

TEST_F(kernel_phy, modes_that_the_port_does_not_have_are_not_sent)
{
    for (uint32_t supported : { 0x20u, 0u }) {
        port.phy = PHY_DEFAULT;
        kernel().supported = supported;
        EXPECT_EQ(set(link_of(100, 1)), 17);
        EXPECT_EQ(port.phy.speed, 100) << "the record says what is configured";
    }
    EXPECT_TRUE(device().effects.empty());
}

TEST_F(kernel_phy, pause_frames_are_set_when_they_change)
{
    cfgmgr_if_phy_t wanted = PHY_DEFAULT;
    wanted.pause_autoneg = 0;
    wanted.pause_rx = 0;
    EXPECT_EQ(set(wanted), 0);
    EXPECT_EQ(set(wanted, false), 0);
    EXPECT_EQ(device().take_effects(), effects_t{ "pause ge0_1 autoneg 0 rx 0 tx 1" });
    wanted.pause_autoneg = 1;
    wanted.pause_tx = 0;
    EXPECT_EQ(set(wanted), 0);
    EXPECT_EQ(device().take_effects(), effects_t{ "pause ge0_1 autoneg 1 rx 1 tx 1" }) << "both are offered";
    EXPECT_EQ(port.phy.pause_rx, 0u);
    EXPECT_EQ(port.phy.pause_tx, 0u);
}

TEST_F(kernel_phy, an_access_point_has_no_link)
{
    cfgmgr_if_t vap = make_if("vap1", IF_VAP);
    device().kernel.errors = { { "get link", EOPNOTSUPP } };
    EXPECT_EQ(cfgmgr_kernel_phy_set(&vap, link_of(100, 1), true), 0);
}

TEST_F(kernel_phy, failures_are_told_and_end_the_change)
{
    cfgmgr_if_phy_t wanted = link_of(100, 1);
    wanted.pause_rx = 0;
    struct {
        const char *what;
        const char *log;
        size_t effects;
    } static constexpr cases[] = {
        { "get link", "5:ge0_1 Failed to get current phy settings, errno: 95\n", 0 },
        { "link", "5:ge0_1 Failed to set new phy settings (errno:95)\n", 0 },
        { "get pause", "5:ge0_1 Failed to get pause settings (errno:95)\n", 1 },
        { "pause", "5:ge0_1 Failed to set pause settings (errno:95)\n", 1 },
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.what);
        port.phy = PHY_DEFAULT;
        device().kernel.errors = { { row.what, EOPNOTSUPP } };
        EXPECT_EQ(set(wanted), 17);
        EXPECT_TRUE(log_has(row.log));
        EXPECT_EQ(device().take_effects().size(), row.effects);
    }
}

TEST_F(kernel_phy, a_device_without_pause_frames_is_fine_while_they_are_not_changed)
{
    device().kernel.errors = { { "get pause", EOPNOTSUPP } };
    EXPECT_EQ(set(link_of(100, 1)), 0);
    EXPECT_FALSE(log_has("ailed"));
}

TEST_F(kernel_phy, is_read_inside_the_vpn)
{
    kernel().speed = 100;
    kernel().mtu = 1400;
    kernel().pause.rx_pause = 1;
    ethtool_cmd link;
    ethtool_pauseparam pause;
    uint32_t mtu = 0;
    EXPECT_EQ(cfgmgr_kernel_phy_get(&port, &link, &pause, &mtu), PHY_GET_OK);
    EXPECT_EQ(device().take_effects(), (effects_t{ "enter 5", "leave 5" }));
    EXPECT_EQ(ethtool_cmd_speed(&link), 100u);
    EXPECT_EQ(pause.rx_pause, 1u);
    EXPECT_EQ(mtu, 1400u);
    struct {
        const char *what;
        int result;
    } static constexpr cases[] = { { "get link", -5 }, { "get pause", -3 }, { "get mtu", -4 } };
    for (const auto &row : cases) {
        device().kernel.errors = { { row.what, EOPNOTSUPP } };
        EXPECT_EQ(cfgmgr_kernel_phy_get(&port, &link, &pause, &mtu), row.result);
        EXPECT_TRUE(log_has("ge0_1: phy-get failed " + std::to_string(row.result) + " errno 95"));
    }
    EXPECT_EQ(cfgmgr_kernel_phy_get(&port, nullptr, &pause, &mtu), -1);
    EXPECT_EQ(cfgmgr_kernel_phy_get(nullptr, &link, &pause, &mtu), -1);
}

} // namespace
