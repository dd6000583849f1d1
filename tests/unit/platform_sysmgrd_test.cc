// The parts of the system manager that need no processes.
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
