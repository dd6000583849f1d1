#include "chmgr/chmgr_tables.h"

namespace
{

constexpr chmgr_module_row_t module_rows[] = {
    { "Unknown Module-Type", "Unknown Module-Type", 0, CHMGR_PORT_NONE },
    { "ge-fixed-5", "5x 1GE Fixed Module", 5, CHMGR_PORT_GE },
    { "ge-fixed-5", "5x 1GE Fixed Module", 5, CHMGR_PORT_GE },
    { "ge-fixed-4", "4x 1GE Fixed Module", 4, CHMGR_PORT_GE },
    { "ge-fixed-8", "8x 1GE Fixed Module", 8, CHMGR_PORT_GE },
    { "ge-4", "4x 1GE Pluggable Module", 4, CHMGR_PORT_GE },
    { "ge-8", "8x 1GE Pluggable Module (RevA)", 8, CHMGR_PORT_GE },
    { "ge-8", "8x 1GE Pluggable Module (RevA)", 4, CHMGR_PORT_GE },
    { "ge-8", "8x 1GE Pluggable Module (RevB)", 8, CHMGR_PORT_GE },
    { "ge-8", "8x 1GE Pluggable Module (RevB)", 4, CHMGR_PORT_GE },
    { "10ge-2", "2x 10GE Pluggable Module", 2, CHMGR_PORT_10GE },
    { "Wireless WAN", "Wireless WAN Module", 1, CHMGR_PORT_WWAN },
    { "Wireless LAN", "Wireless LAN Module", 1, CHMGR_PORT_WLAN },
    { "ge-8", "Max 8 x 1GE VM ports", 8, CHMGR_PORT_GE },
};

constexpr uint32_t allowed(auto... rows)
{
    return (0U | ... | (1U << rows));
}

constexpr uint32_t L1_PLUGGABLE = allowed(6, 8, 10);

constexpr chmgr_chassis_row_t chassis_rows[] = {
    { "Unknown Chassis-Type", "Unknown Chassis-Type", 0, {} },
    { "krest-M1", "krest-M1", 1, { allowed(4), allowed(11) } },
    { "krest-L1", "krest-L1", 3, { L1_PLUGGABLE, L1_PLUGGABLE, allowed(3) } },
    { "krest-S1", "krest-S1", 1, { allowed(1), allowed(11, 12) } },
    { "krest-S2", "krest-S2", 1, { allowed(2), allowed(11, 12) } },
    { "krest-S3", "krest-S3", 1, { allowed(2), allowed(11, 12) } },
    { "krest-V1", "krest-V1", 1, { allowed(13) } },
};
static_assert(std::size(module_rows) == 14 && std::size(chassis_rows) == CHMGR_CHASSIS_V1 + 1);
static_assert(chassis_rows[CHMGR_CHASSIS_M1].allowed_modules[1] == 0x800);
static_assert(chassis_rows[CHMGR_CHASSIS_S1].allowed_modules[1] == 0x1800);

constexpr const char *transceiver_names[] = {
    "1G Fiber CX",   "1G Fiber LX",  "1G Fiber SX",  "1G Copper", "10G Fiber ER",
    "10G Fiber LRM", "10G Fiber LR", "10G Fiber SR", "NA",
};
static_assert(std::size(transceiver_names) == CHMGR_TRANSCEIVER_NONE + 1);

} // namespace

std::span<const chmgr_module_row_t> chmgr_modules()
{
    return module_rows;
}

std::span<const chmgr_chassis_row_t> chmgr_chassis()
{
    return chassis_rows;
}

const char *chmgr_transceiver_name(uint32_t kind)
{
    return transceiver_names[kind < std::size(transceiver_names) ? kind : CHMGR_TRANSCEIVER_NONE];
}
