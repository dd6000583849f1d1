// The parts of the system manager that need no processes.
#include "platform/routing_daemons.h"
#include "platform/supervisor.h"
#include "platform/sysmgrd_memory.h"

#include <gtest/gtest.h>

namespace
{

TEST(Supervisor, delay_grows_with_quick_deaths_and_stays_bounded)
{
    EXPECT_EQ(restart_delay_ms(0), 200u);
    for (uint32_t deaths = 1; deaths < 8; deaths++)
        EXPECT_GT(restart_delay_ms(deaths), restart_delay_ms(deaths - 1));
    EXPECT_EQ(restart_delay_ms(9), 30000u);
    EXPECT_EQ(restart_delay_ms(UINT32_MAX), 30000u);
}

TEST(Supervisor, only_a_late_tick_is_a_pause_of_its_own)
{
    EXPECT_EQ(own_pause_ms(1000, 2000, 1000), 0);
    EXPECT_EQ(own_pause_ms(1000, 2300, 1000), 0);
    EXPECT_EQ(own_pause_ms(1000, 32000, 1000), 30000);
}

TEST(RoutingDaemons, follow_personality_and_vpn)
{
    struct {
        const char *personality;
        uint64_t vpn_id;
        bool is_zebra_alone;
    } const rows[] = {
        { "krest", 0, false },  { "krest", 65530, false }, { "krest", 512, true },  { "tarn", 5, false },
        { "orbel", 5, false },  { "orbel", 512, true },    { "lodest", 0, true },   { "lodest", 5, true },
        { "quorvix", 5, true }, { "pendry", 5, true },     { "pendry", 512, true },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.personality) + " " + std::to_string(row.vpn_id));
        EXPECT_TRUE(routing_daemon_exists(row.personality, row.vpn_id, ROUTING_ZEBRA));
        EXPECT_EQ(routing_daemon_exists(row.personality, row.vpn_id, ROUTING_OSPFD), !row.is_zebra_alone);
        EXPECT_EQ(routing_daemon_exists(row.personality, row.vpn_id, ROUTING_BGPD), !row.is_zebra_alone);
    }
    EXPECT_STREQ(routing_daemon_name(ROUTING_ZEBRA), "zebra");
    EXPECT_STREQ(routing_daemon_name(ROUTING_OSPFD), "ospfd");
    EXPECT_STREQ(routing_daemon_name(ROUTING_BGPD), "bgpd");
}

TEST(Memory, comes_back_as_it_was)
{
    sysmgrd_memory_t memory{ .ready_pid = 4711, .read_bits = 5, .vpns = { 0, 512, UINT64_MAX } };
    sysmgrd_memory_t again = memory_parse(memory_text(memory));
    EXPECT_EQ(again.ready_pid, memory.ready_pid);
    EXPECT_EQ(again.read_bits, memory.read_bits);
    EXPECT_EQ(again.vpns, memory.vpns);
}

TEST(Memory, damaged_lines_are_left_out)
{
    sysmgrd_memory_t memory =
        memory_parse("ready-pid 99999999999\nread-bits -1\nvpn\nvpn 7x\nvpn 8 \n \n\nvpn 9\nother 3\nvpn 1");
    EXPECT_EQ(memory.ready_pid, 0);
    EXPECT_EQ(memory.read_bits, 0u);
    EXPECT_EQ(memory.vpns, std::set<uint64_t>{ 9 });
}

} // namespace
