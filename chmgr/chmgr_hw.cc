#include "chmgr/chmgr_api.h"
#include "chmgr/chmgr_hw_table.h"
#include "chmgr/chmgr_tables.h"
#include "common/tip_root.h"

#include <cstring>
#include <unistd.h>

namespace
{

constexpr char BOARD_LOGIC[] = "/sys/bus/platform/devices/1e000000.cpld";

// Asked each time: a block may be mapped before the chassis manager has said what chassis it describes.
const chmgr_hw_table_t &table()
{
    int type = chmgr_chassis_type();
    bool is_hardware = type != CHMGR_CHASSIS_UNKNOWN && type != CHMGR_CHASSIS_V1;
    bool has_logic = is_hardware && access(tip_path("%s", BOARD_LOGIC).text, F_OK) == 0;
    return has_logic ? chmgr_hw_sysfs_table : chmgr_hw_virtual_table;
}

int run(const chmgr_hw_request_t &request, chmgr_hw_result_t *result)
{
    if (chmgr_block() == nullptr || request.operation >= CHMGR_HW_OPERATIONS)
        return -1;
    chmgr_hw_function_t function = table()[request.operation];
    return function != nullptr ? function(request, result) : -1;
}

} // namespace

int chmgr_hw_get(const chmgr_hw_request_t &request, chmgr_hw_result_t *result)
{
    memset(result, 0, sizeof *result);
    return run(request, result);
}

int chmgr_hw_set(const chmgr_hw_request_t &request)
{
    return run(request, nullptr);
}

int chmgr_hw_port_state(const chmgr_hw_request_t &request, chmgr_hw_result_t *result)
{
    if (request.port == nullptr || result != nullptr)
        return -1;
    request.port->admin_state = request.value == CHMGR_ADMIN_UP ? CHMGR_ADMIN_UP : CHMGR_ADMIN_DOWN;
    return 0;
}
