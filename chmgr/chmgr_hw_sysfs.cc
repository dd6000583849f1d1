// The operations of a hardware chassis: rows of attributes, and what is common to all of them: finding the file, reading
// it within bounds, writing it without making it.
#include "chmgr/chmgr_api.h"
#include "chmgr/chmgr_hw_table.h"
#include "chmgr/chmgr_tables.h"
#include "common/tip_file.h"
#include "common/tip_handle.h"
#include "common/tip_root.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>

namespace
{

constexpr char CPLD[] = "bus/platform/devices/1e000000.cpld";
constexpr char SPI_1[] = "bus/spi/devices/spi0.1";
constexpr char SPI_0[] = "bus/spi/devices/spi0.0";
constexpr char FRONT_PANEL[] = "bus/spi/devices/spi0.28";
constexpr char I2C_DEVICE[] = "/sys/bus/platform/devices/1e000000.cpld/i2c.0/i2c-0/i2c-%d/%d-00%x/%s";

#define AT(member) offsetof(chmgr_hw_result_t, member)

constexpr chmgr_hw_attribute_t attributes[] = {
    { CHMGR_HW_SFP_PRESENCE, CHMGR_HW_MODULE, "sfp_pres", CHMGR_HW_PORT_BIT, CHMGR_HW_R, AT(sfp.present) },

    { CHMGR_HW_SFP_STATE, CHMGR_HW_MODULE, "sfp_pres", CHMGR_HW_PORT_BIT, CHMGR_HW_R, AT(sfp.present) },
    { CHMGR_HW_SFP_STATE, CHMGR_HW_MODULE, "sfp_tx_dis", CHMGR_HW_PORT_BIT, CHMGR_HW_R, AT(sfp.tx_disabled) },
    { CHMGR_HW_SFP_STATE, CHMGR_HW_MODULE, "sfp_tx_flt", CHMGR_HW_PORT_BIT, CHMGR_HW_R, AT(sfp.tx_fault) },
    { CHMGR_HW_SFP_STATE, CHMGR_HW_MODULE, "sfp_rx_los", CHMGR_HW_PORT_BIT, CHMGR_HW_R, AT(sfp.rx_lost) },

    { CHMGR_HW_PIM_STATE, CHMGR_HW_CPLD, "pim%d_pres_n", CHMGR_HW_NOT, CHMGR_HW_R, AT(pim.present) },
    { CHMGR_HW_PIM_STATE, CHMGR_HW_CPLD, "pim%d_pwr_ok", CHMGR_HW_FLAG, CHMGR_HW_R, AT(pim.power_ok) },
    { CHMGR_HW_PIM_STATE, CHMGR_HW_CPLD, "pim%d_pwr_flt", CHMGR_HW_FLAG, CHMGR_HW_R, AT(pim.power_fault) },
    { CHMGR_HW_PIM_STATE, CHMGR_HW_ROOT, "var/run/pim%d_present", CHMGR_HW_EXISTS, CHMGR_HW_R, AT(pim.was_present) },
    { CHMGR_HW_PIM_STATE, CHMGR_HW_MODULE, "rev", CHMGR_HW_HEX, CHMGR_HW_R, AT(pim.revision) },
    { CHMGR_HW_PIM_STATE, CHMGR_HW_MODULE, "board_rev", CHMGR_HW_HEX, CHMGR_HW_R, AT(pim.board) },

    { CHMGR_HW_POE, CHMGR_HW_CPLD, "poe", CHMGR_HW_NUMBER, CHMGR_HW_RW, AT(number) },
    { CHMGR_HW_SFP_TX_DISABLE, CHMGR_HW_MODULE, "sfp_tx_dis", CHMGR_HW_PORT_BIT, CHMGR_HW_RW, AT(number) },
    { CHMGR_HW_SFP_DIAGNOSTICS, CHMGR_HW_I2C, "sfp_diag", CHMGR_HW_BYTES, CHMGR_HW_R, AT(diagnostics) },

    { CHMGR_HW_PORT_LED, CHMGR_HW_MODULE, "led_sfp%d", CHMGR_HW_NUMBER, CHMGR_HW_RW, AT(number) },
    { CHMGR_HW_PORT_LED, CHMGR_HW_MODULE, "led_phy_cfg", CHMGR_HW_NUMBER, CHMGR_HW_RW, AT(number) },
    { CHMGR_HW_SFP_LED, CHMGR_HW_MODULE, "led_sfp0", CHMGR_HW_NUMBER, CHMGR_HW_RW, AT(number) },
    { CHMGR_HW_POWER_LED, CHMGR_HW_MODULE, "led_pwr0", CHMGR_HW_NUMBER, CHMGR_HW_RW, AT(number) },
    { CHMGR_HW_WLAN0_LED, CHMGR_HW_CPLD, "led_wlan0", CHMGR_HW_NUMBER, CHMGR_HW_RW, AT(number) },
    { CHMGR_HW_WLAN1_LED, CHMGR_HW_CPLD, "led_wlan1", CHMGR_HW_NUMBER, CHMGR_HW_RW, AT(number) },
    { CHMGR_HW_SYSTEM_LED, CHMGR_HW_CPLD, "led_sys", CHMGR_HW_NUMBER, CHMGR_HW_RW, AT(number) },
    { CHMGR_HW_SYSTEM_LED_SPI, CHMGR_HW_PANEL, "led_sys", CHMGR_HW_NUMBER, CHMGR_HW_RW, AT(number) },
    { CHMGR_HW_STATUS_LED, CHMGR_HW_CPLD, "stat_led_ctl", CHMGR_HW_NUMBER, CHMGR_HW_RW, AT(number) },
    { CHMGR_HW_STATUS_LED, CHMGR_HW_CPLD, "led_sys", CHMGR_HW_NUMBER, CHMGR_HW_RW, AT(number) },
    { CHMGR_HW_AUX_LED, CHMGR_HW_PANEL, "led_aux", CHMGR_HW_NUMBER, CHMGR_HW_RW, AT(number) },

    { CHMGR_HW_FLASH, CHMGR_HW_SYS, "class/mtd/mtd0/type", CHMGR_HW_TEXT, CHMGR_HW_R, AT(storage.type) },
    { CHMGR_HW_FLASH, CHMGR_HW_SYS, "class/mtd/mtd0/size", CHMGR_HW_NUMBER, CHMGR_HW_R, AT(storage.size) },
    { CHMGR_HW_DISK, CHMGR_HW_SYS, "block/sda/size", CHMGR_HW_NUMBER, CHMGR_HW_R, AT(storage.size) },
    { CHMGR_HW_EMMC, CHMGR_HW_SYS, "block/mmcblk0/size", CHMGR_HW_NUMBER, CHMGR_HW_R, AT(storage.size) },
    { CHMGR_HW_EMMC, CHMGR_HW_SYS, "block/mmcblk0/device/type", CHMGR_HW_TEXT, CHMGR_HW_R, AT(storage.type) },
    { CHMGR_HW_EMMC, CHMGR_HW_SYS, "block/mmcblk0/device/serial", CHMGR_HW_TEXT, CHMGR_HW_R, AT(storage.serial) },
    { CHMGR_HW_EMMC, CHMGR_HW_SYS, "block/mmcblk0/device/hwrev", CHMGR_HW_HEX, CHMGR_HW_R,
      AT(storage.hardware_revision) },
    { CHMGR_HW_EMMC, CHMGR_HW_SYS, "block/mmcblk0/device/name", CHMGR_HW_TEXT, CHMGR_HW_R, AT(storage.name) },
    { CHMGR_HW_USB, CHMGR_HW_SYS, "bus/usb/devices/usb3/3-%d/manufacturer", CHMGR_HW_TEXT, CHMGR_HW_R,
      AT(storage.type) },
    { CHMGR_HW_USB, CHMGR_HW_SYS, "bus/usb/devices/usb3/3-%d/product", CHMGR_HW_TEXT, CHMGR_HW_R, AT(storage.name) },
    { CHMGR_HW_USB, CHMGR_HW_SYS, "bus/usb/devices/usb3/3-%d/serial", CHMGR_HW_TEXT, CHMGR_HW_R, AT(storage.serial) },
    { CHMGR_HW_USB, CHMGR_HW_SYS, "class/block/sdb/size", CHMGR_HW_NUMBER, CHMGR_HW_R, AT(storage.size), 1 },
    { CHMGR_HW_USB, CHMGR_HW_SYS, "class/block/sdc/size", CHMGR_HW_NUMBER, CHMGR_HW_R, AT(storage.size), 2 },

    { CHMGR_HW_FAN_SPEED, CHMGR_HW_CPLD, "fan%d_speed", CHMGR_HW_NUMBER, CHMGR_HW_R, AT(number) },
    { CHMGR_HW_FAN_SPEED, CHMGR_HW_SENSOR, "fan%d_input", CHMGR_HW_NUMBER, CHMGR_HW_R, AT(number) },
    { CHMGR_HW_FAN_DUTY, CHMGR_HW_CPLD, "fan_dc", CHMGR_HW_NUMBER, CHMGR_HW_RW, AT(number) },
    { CHMGR_HW_FAN_DUTY, CHMGR_HW_SENSOR, "pwm%d", CHMGR_HW_NUMBER, CHMGR_HW_RW, AT(number) },
    { CHMGR_HW_TEMPERATURE, CHMGR_HW_SENSOR, "temp%d_input", CHMGR_HW_NUMBER, CHMGR_HW_R, AT(temperature.now) },
    { CHMGR_HW_TEMPERATURE_LIMITS, CHMGR_HW_SENSOR, "temp%d_crit", CHMGR_HW_NUMBER, CHMGR_HW_R,
      AT(temperature.critical) },
    { CHMGR_HW_TEMPERATURE_LIMITS, CHMGR_HW_SENSOR, "temp1_max", CHMGR_HW_NUMBER, CHMGR_HW_R, AT(temperature.max) },

    { CHMGR_HW_POWER_SUPPLY, CHMGR_HW_CPLD, "ps%d_pres", CHMGR_HW_FLAG, CHMGR_HW_R, AT(supply.present) },
    { CHMGR_HW_POWER_SUPPLY, CHMGR_HW_CPLD, "ps%d_ok", CHMGR_HW_FLAG, CHMGR_HW_R, AT(supply.input_ok) },
    { CHMGR_HW_POWER_SUPPLY, CHMGR_HW_CPLD, "pwr%d_ok", CHMGR_HW_FLAG, CHMGR_HW_R, AT(supply.output_ok) },
    { CHMGR_HW_POWER_SUPPLY, CHMGR_HW_CPLD, "pwr%d_flt", CHMGR_HW_FLAG, CHMGR_HW_R, AT(supply.fault) },
    { CHMGR_HW_POWER_SUPPLY, CHMGR_HW_CPLD, "ps%d_pwr_off", CHMGR_HW_FLAG, CHMGR_HW_R, AT(supply.is_off) },
    { CHMGR_HW_POWER_SUPPLY, CHMGR_HW_SENSOR, "curr1_input", CHMGR_HW_NUMBER, CHMGR_HW_R, AT(supply.current_ma) },
    { CHMGR_HW_POWER_SUPPLY, CHMGR_HW_SENSOR, "in1_input", CHMGR_HW_NUMBER, CHMGR_HW_R, AT(supply.voltage_mv) },
    { CHMGR_HW_POWER_SUPPLY, CHMGR_HW_SENSOR, "power1_input", CHMGR_HW_NUMBER, CHMGR_HW_R, AT(supply.power_uw) },
    { CHMGR_HW_POWER_SUPPLY, CHMGR_HW_SENSOR, "fan1_input", CHMGR_HW_NUMBER, CHMGR_HW_R, AT(supply.fan_rpm) },
    { CHMGR_HW_POWER_SUPPLY, CHMGR_HW_CPLD, "led_pwr%d", CHMGR_HW_NUMBER, CHMGR_HW_W, AT(number) },
    { CHMGR_HW_POWER_SUPPLY, CHMGR_HW_CPLD, "pwr_led_ctl", CHMGR_HW_NUMBER, CHMGR_HW_W, AT(number) },

    { CHMGR_HW_BOARD, CHMGR_HW_CPLD, "board_rev", CHMGR_HW_HEX, CHMGR_HW_R, AT(board.board_revision) },
    { CHMGR_HW_BOARD, CHMGR_HW_CPLD, "rev", CHMGR_HW_HEX, CHMGR_HW_R, AT(board.revision) },
    { CHMGR_HW_BOARD, CHMGR_HW_CPLD, "devid", CHMGR_HW_HEX, CHMGR_HW_R, AT(board.device) },
    { CHMGR_HW_BOARD, CHMGR_HW_CPLD, "bar0", CHMGR_HW_HEX, CHMGR_HW_R, AT(board.bars[0]) },
    { CHMGR_HW_BOARD, CHMGR_HW_CPLD, "bar1", CHMGR_HW_HEX, CHMGR_HW_R, AT(board.bars[1]) },

    { CHMGR_HW_PROCESSOR_POWER, CHMGR_HW_SYS, "niagara/misc/pwr_en", CHMGR_HW_NUMBER, CHMGR_HW_RW, AT(number) },
    { CHMGR_HW_PIM_POWER, CHMGR_HW_CPLD, "pim%d_pwr_en", CHMGR_HW_NUMBER, CHMGR_HW_RW, AT(number) },
};

#undef AT

// Where the logic of a slot's module is found. Only krest-L1 has modules with logic of their own.
const char *module_folder(uint32_t slot)
{
    static constexpr const char *l1_folders[MAX_SLOTS] = { SPI_1, SPI_0, CPLD };
    return chmgr_chassis_type() == CHMGR_CHASSIS_L1 && slot < MAX_SLOTS ? l1_folders[slot] : CPLD;
}

std::string with_unit(const char *name, uint32_t unit)
{
    std::string text = name;
    size_t place = text.find("%d");
    return place == std::string::npos ? text : text.replace(place, 2, std::to_string(unit));
}

// Empty when the request does not tell enough.
tip_path_t attribute_path(const chmgr_hw_attribute_t &row, const chmgr_hw_request_t &request)
{
    std::string name = with_unit(row.name, request.unit);
    switch (row.base) {
    case CHMGR_HW_ROOT:
        return tip_path("/%s", name.c_str());
    case CHMGR_HW_SYS:
        return tip_path("/sys/%s", name.c_str());
    case CHMGR_HW_CPLD:
        return tip_path("/sys/%s/%s", CPLD, name.c_str());
    case CHMGR_HW_PANEL:
        return tip_path("/sys/%s/%s", FRONT_PANEL, name.c_str());
    case CHMGR_HW_MODULE:
        return tip_path("/sys/%s/%s", module_folder(request.slot), name.c_str());
    case CHMGR_HW_I2C:
        return tip_path(I2C_DEVICE, request.bus, request.bus, request.address, name.c_str());
    case CHMGR_HW_SENSOR:
        return request.device != nullptr ? tip_path("/sys/%s/%s", request.device, name.c_str()) : tip_path_t{};
    }
    return {};
}

bool bytes_read(const char *path, chmgr_hw_diagnostics_t *out)
{
    unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    ssize_t length = fd.is_open() ? read(fd.get(), out->bytes, sizeof out->bytes) : -1;
    out->length = length > 0 ? static_cast<size_t>(length) : 0;
    return length >= 0;
}

bool text_read(const char *path, char *out)
{
    char line[CHMGR_HW_TEXT_SIZE];
    if (file_read_line(path, line, sizeof line) != 0)
        return false;
    (void)memcpy(out, line, sizeof line);
    return true;
}

bool bit_of(long mask, uint32_t port)
{
    return port < 8 * sizeof mask && (mask >> port & 1) != 0;
}

bool number_read(const char *path, chmgr_hw_kind_t kind, uint32_t unit, long *out)
{
    long number = 0;
    if (kind == CHMGR_HW_EXISTS) {
        *out = access(path, F_OK) == 0 ? 1 : 0;
        return true;
    }
    bool is_hex = kind == CHMGR_HW_HEX || kind == CHMGR_HW_PORT_BIT;
    if (file_read_number(path, is_hex ? 16 : 10, &number) != 0)
        return false;
    if (kind == CHMGR_HW_PORT_BIT)
        number = bit_of(number, unit) ? 1 : 0;
    else if (kind == CHMGR_HW_FLAG || kind == CHMGR_HW_NOT)
        number = (number != 0) == (kind == CHMGR_HW_FLAG) ? 1 : 0;
    *out = number;
    return true;
}

bool attribute_read(const chmgr_hw_attribute_t &row, const chmgr_hw_request_t &request, chmgr_hw_result_t *result)
{
    tip_path_t path = attribute_path(row, request);
    char *member = reinterpret_cast<char *>(result) + row.member;
    if (row.kind == CHMGR_HW_TEXT)
        return text_read(path.text, member);
    if (row.kind == CHMGR_HW_BYTES)
        return bytes_read(path.text, reinterpret_cast<chmgr_hw_diagnostics_t *>(member));
    return number_read(path.text, row.kind, request.unit, reinterpret_cast<long *>(member));
}

bool attribute_write(const chmgr_hw_attribute_t &row, const chmgr_hw_request_t &request)
{
    tip_path_t path = attribute_path(row, request);
    std::string text = std::to_string(request.value) + "\n";
    if (row.kind == CHMGR_HW_PORT_BIT) { // the other ports stay as they are
        long mask = 0;
        if (request.unit >= MAX_PORTS_PER_SLOT || file_read_number(path.text, 16, &mask) != 0)
            return false;
        mask = request.value != 0 ? mask | 1L << request.unit : mask & ~(1L << request.unit);
        char number[32];
        (void)snprintf(number, sizeof number, "0x%lx\n", static_cast<unsigned long>(mask));
        text = number;
    }
    unique_fd fd(open(path.text, O_WRONLY | O_TRUNC | O_CLOEXEC));
    return fd.is_open() && write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool is_meant(const chmgr_hw_attribute_t &row, const chmgr_hw_request_t &request, chmgr_hw_access_t access)
{
    return (row.access & access) != 0 && (row.unit == 0 || row.unit == request.unit);
}

// Of rows that are alternatives the first that can be done counts; each member must come from somewhere. An operation
// without attributes succeeds, one that has none for this direction fails.
int attributes_run(const chmgr_hw_request_t &request, chmgr_hw_result_t *result)
{
    const chmgr_hw_access_t access = result != nullptr ? CHMGR_HW_R : CHMGR_HW_W;
    const chmgr_hw_attribute_t *last = nullptr;
    bool has_rows = false, is_done = false, all_done = true;
    for (const chmgr_hw_attribute_t &row : attributes) {
        if (row.operation != request.operation)
            continue;
        has_rows = true;
        if (!is_meant(row, request, access))
            continue;
        bool is_alternative = last != nullptr && last->member == row.member;
        all_done = all_done && (last == nullptr || is_alternative || is_done);
        if (!is_alternative || !is_done)
            is_done = result != nullptr ? attribute_read(row, request, result) : attribute_write(row, request);
        last = &row;
    }
    return !has_rows || (is_done && all_done) ? 0 : -1;
}

constexpr chmgr_hw_table_t make_table()
{
    chmgr_hw_table_t table;
    table.fill(attributes_run);
    table[CHMGR_HW_PORT_PAUSE] = nullptr; // pause settings of hardware ports are their drivers'
    table[CHMGR_HW_PORT_STATE] = chmgr_hw_port_state;
    return table;
}

} // namespace

constinit const chmgr_hw_table_t chmgr_hw_sysfs_table = make_table();

std::span<const chmgr_hw_attribute_t> chmgr_hw_attributes()
{
    return attributes;
}
