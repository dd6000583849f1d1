// Commands of the twins of ports.
#include "chmgr/chmgr_sim.h"

#include "tests/unit/chmgr_env.h"

namespace
{

using ChmgrSim = chmgr_env;

struct step_row_t {
    const char *command;
    int failure;
};
const step_row_t steps[] = {
    { "ifconfig sim0_1 multicast", -3 },
    { "ip maddr add 01:00:5e:00:01:27 dev sim0_1", -3 },
    { "ip maddr add 01:00:5e:00:01:28 dev sim0_1", -3 },
    { "ip maddr add 01:00:5e:00:00:05 dev sim0_1", -3 },
    { "ip maddr add 01:00:5e:00:00:06 dev sim0_1", -3 },
    { "ip maddr add 01:00:5e:00:00:12 dev sim0_1", -3 },
    { "ip maddr add 01:00:5e:00:00:0d dev sim0_1", -3 },
    { "echo 0 > /proc/sys/net/ipv4/conf/sim0_1/forwarding", -4 },
    { "echo 1 > /proc/sys/net/ipv4/conf/sim0_1/rp_filter", -5 },
    { "ethtool -K sim0_1 gso off gro off", -6 },
    { "echo 0 > /proc/sys/net/ipv4/conf/sim0_1/accept_source_route", -7 },
    { "echo 1 > /proc/sys/net/ipv6/conf/sim0_1/disable_ipv6", -8 },
    { "echo 0 > /proc/sys/net/ipv6/conf/sim0_1/forwarding", -8 },
};

TEST_F(ChmgrSim, twin_is_set_up_in_a_fixed_order)
{
    EXPECT_EQ(chmgr_sim_if_init("sim0_1"), 0);
    ASSERT_EQ(chassis().effects.size(), std::size(steps));
    for (size_t i = 0; i < std::size(steps); i++)
        EXPECT_EQ(chassis().effects[i], steps[i].command);
}

TEST_F(ChmgrSim, first_failure_ends_the_set_up_and_tells_its_step)
{
    for (size_t i = 0; i < std::size(steps); i++) {
        chassis() = {};
        log_clear();
        chassis().failing_command = static_cast<int>(i);
        EXPECT_EQ(chmgr_sim_if_init("sim0_1"), steps[i].failure) << steps[i].command;
        EXPECT_EQ(chassis().effects.size(), i + 1);
        EXPECT_EQ(log_count(std::string("Error: command '") + steps[i].command + "' failed"), 1);
    }
}

TEST_F(ChmgrSim, link_group_of_an_address_is_joined_and_left)
{
    struct row_t {
        const char *address;
        bool is_delete;
        const char *command;
    };
    for (const row_t &row : std::initializer_list<row_t>{
             { "239.255.254.253", false, "ip maddr add 01:00:5e:7f:fe:fd dev sim2_3.7" },
             { "224.0.1.40", true, "ip maddr del 01:00:5e:00:01:28 dev sim2_3.7" },
             { "ff02::1:ff12:3456", false, "ip maddr add 33:33:ff:12:34:56 dev sim2_3.7" },
             { "ff02::1:ff00:1", true, "ip maddr del 33:33:ff:00:00:01 dev sim2_3.7" },
         }) {
        chassis() = {};
        ip_addr_t address;
        ASSERT_EQ(ip_addr_parse(row.address, &address), 1);
        EXPECT_EQ(chmgr_sim_if_maddr_add("sim2_3.7", address, row.is_delete), 0);
        EXPECT_EQ(chassis().effects, std::vector<std::string>{ row.command });
        chassis().failing_command = 1;
        EXPECT_EQ(chmgr_sim_if_maddr_add("sim2_3.7", address, row.is_delete), -3);
    }
}

} // namespace
