// Link settings of ports outside the interface table.
#include "chmgr/chmgr_phy.h"

#include "tests/unit/chmgr_env.h"

namespace
{

constexpr uint32_t UNSET = UINT32_MAX;
constexpr uint32_t ALL = 0xffffffff & ~0x400U; // every mode, no fibre

class ChmgrPhy : public chmgr_env
{
protected:
    ChmgrPhy() { chassis().link.supported = ALL; }
    using effects_t = std::vector<std::string>;
};

TEST_F(ChmgrPhy, what_is_advertised_follows_from_speed_and_duplex)
{
    struct row_t {
        uint32_t autoneg, speed, duplex, mask;
    };
    for (const row_t &row : std::initializer_list<row_t>{
             { 0, 10, 0, 0x1 },
             { 0, 10, 1, 0x2 },
             { 0, 100, 0, 0x4 },
             { 0, 100, 1, 0x8 },
             { 0, 1000, 0, 0x10 },
             { 0, 1000, 1, 0x20 },
             { 0, 2500, 1, 0x20 },
             { 0, 100, 2, 0x4 },
             { 0, UNSET, 1, 42 },
             { 0, UNSET, 0, 21 },
             { 0, 10, 255, 3 },
             { 0, 100, 255, 12 },
             { 0, 1000, 255, 48 },
             { 0, UNSET, 255, 0 },
         })
        EXPECT_EQ(chmgr_phy_advertised(0x107f, row.autoneg, row.speed, row.duplex), 0x1000 | row.mask)
            << row.speed << " " << row.duplex;
    EXPECT_EQ(chmgr_phy_advertised(0x1000, 1, 10, 0), 127U);
}

TEST_F(ChmgrPhy, settings_reach_the_port_inside_its_vpn)
{
    EXPECT_EQ(chmgr_kernel_phy_set(5, "ge0_1", 0, 100, 0), 0);
    EXPECT_EQ(chassis().effects, (effects_t{ "enter 5", "get ge0_1", "set ge0_1", "leave 5" }));
    EXPECT_EQ(chassis().link.advertising, 0x4U);
    EXPECT_EQ(ethtool_cmd_speed(&chassis().link), 100U);
    EXPECT_EQ(chassis().link.duplex, 0);
    EXPECT_EQ(chassis().link.autoneg, 0);
}

TEST_F(ChmgrPhy, what_is_not_set_is_sent_as_full_gigabit)
{
    EXPECT_EQ(chmgr_kernel_phy_set(0, "ge0_1", 1, UNSET, 255), 0);
    EXPECT_EQ(ethtool_cmd_speed(&chassis().link), 1000U);
    EXPECT_EQ(chassis().link.duplex, 1);
    EXPECT_EQ(chassis().link.autoneg, 1);
}

TEST_F(ChmgrPhy, optical_port_is_left_alone)
{
    chassis().link.supported = 0x420;
    EXPECT_EQ(chmgr_kernel_phy_set(5, "ge0_1", 1, UNSET, 255), 0);
    EXPECT_EQ(chassis().effects, (effects_t{ "enter 5", "get ge0_1", "leave 5" }));
    EXPECT_TRUE(
        log_has("Error: Speed/Duplex/Autoneg changes not supported on this transceiver ge0_1. Ignoring settings"));
}

TEST_F(ChmgrPhy, what_the_port_cannot_do_is_refused)
{
    chassis().link.supported = 0x3f;
    EXPECT_EQ(chmgr_kernel_phy_set(5, "ge0_1", 0, UNSET, 255), 17);
    chassis().link.supported = 0x20;
    EXPECT_EQ(chmgr_kernel_phy_set(5, "ge0_1", 0, 10, 255), 17);
    chassis().link.supported = 0;
    EXPECT_EQ(chmgr_kernel_phy_set(5, "ge0_1", 1, 1000, 1), 17);
    EXPECT_EQ(std::count(chassis().effects.begin(), chassis().effects.end(), "set ge0_1"), 0);
}

TEST_F(ChmgrPhy, failures_are_told_and_the_vpn_is_left)
{
    chassis().is_set_failing = true;
    EXPECT_EQ(chmgr_kernel_phy_set(5, "ge0_1", 1, 1000, 1), 17);
    EXPECT_TRUE(log_has("5:ge0_1 Failed to set new phy settings (errno:95)"));
    chassis().is_get_failing = true;
    EXPECT_EQ(chmgr_kernel_phy_set(7, "ge0_1", 1, 1000, 1), 17);
    EXPECT_TRUE(log_has("7:ge0_1 Failed to get current phy settings, errno: 95"));
    EXPECT_EQ(chassis().effects.back(), "leave 7");
}

} // namespace
