// A chassis without hardware: what a port is set to is kept in its record, and everything else is absent.
#include "chmgr/chmgr_api.h"
#include "chmgr/chmgr_hw_table.h"
#include "chmgr/chmgr_tables.h"
#include "common/tip_file.h"
#include "common/tip_root.h"
#include "common/tip_text.h"

#include <unistd.h>

namespace
{

constexpr char PIM_FILE[] = "/etc/default/pim%d";
constexpr char NONE[] = "None";
constexpr uint32_t FIXED_SLOT = 2; // of krest-L1, whose other slots take modules

struct pim_row_t {
    const char *text;
    long board;
};
constexpr pim_row_t pim_rows[] = {
    { "8x1GE", CHMGR_PIM_8X1GE },
    { "2x10GE", CHMGR_PIM_2X10GE },
};

// Numbers are 0 already; texts are "None"; what is set is lost.
int constant_answer(const chmgr_hw_request_t &request, chmgr_hw_result_t *result)
{
    for (const chmgr_hw_attribute_t &row : chmgr_hw_attributes()) {
        if (result != nullptr && row.operation == request.operation && row.kind == CHMGR_HW_TEXT)
            (void)strlcpy(reinterpret_cast<char *>(result) + row.member, NONE, CHMGR_HW_TEXT_SIZE);
    }
    return 0;
}

int pim_state(const chmgr_hw_request_t &request, chmgr_hw_result_t *result)
{
    if (result == nullptr)
        return -1;
    result->pim.board = chmgr_virtual_pim_board(static_cast<uint32_t>(chmgr_chassis_type()), request.slot);
    return 0;
}

int port_pause(const chmgr_hw_request_t &request, chmgr_hw_result_t *result)
{
    chmgr_port_t *port = request.port;
    if (port == nullptr)
        return -1;
    if (result != nullptr) {
        result->number = (port->pause_rx != 0 ? CHMGR_PAUSE_RX : 0) | (port->pause_tx != 0 ? CHMGR_PAUSE_TX : 0);
        return 0;
    }
    port->pause_rx = (request.value & CHMGR_PAUSE_RX) != 0 ? 1 : 0;
    port->pause_tx = (request.value & CHMGR_PAUSE_TX) != 0 ? 1 : 0;
    return 0;
}

constexpr chmgr_hw_table_t make_table()
{
    chmgr_hw_table_t table;
    table.fill(constant_answer);
    table[CHMGR_HW_PORT_STATE] = chmgr_hw_port_state;
    table[CHMGR_HW_PORT_PAUSE] = port_pause;
    table[CHMGR_HW_PIM_STATE] = pim_state;
    return table;
}

} // namespace

constinit const chmgr_hw_table_t chmgr_hw_virtual_table = make_table();
static_assert(std::tuple_size_v<chmgr_hw_table_t> == 31);

bool chmgr_virtual_pim_has_file(uint32_t chassis_type, uint32_t slot)
{
    return chassis_type == CHMGR_CHASSIS_L1 && slot != FIXED_SLOT && access(tip_path(PIM_FILE, slot).text, F_OK) == 0;
}

long chmgr_virtual_pim_board(uint32_t chassis_type, uint32_t slot)
{
    char line[CHMGR_HW_TEXT_SIZE];
    if (!chmgr_virtual_pim_has_file(chassis_type, slot) ||
        file_read_line(tip_path(PIM_FILE, slot).text, line, sizeof line) != 0)
        return CHMGR_PIM_NONE;
    for (const pim_row_t &row : pim_rows) {
        if (strcmp(line, row.text) == 0)
            return row.board;
    }
    return CHMGR_PIM_NONE;
}
