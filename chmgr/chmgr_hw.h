// Operations on the chassis' hardware. There are two tables of them: one works on the attributes that the drivers of a
// hardware chassis show under /sys, one answers for a chassis without hardware. Which one serves is told by the chassis
// type of the block, and by whether this machine has the board's logic at all: a hardware chassis that is only simulated
// gets the virtual table.
//
// chmgr_hw_sysfs.cc holds the attributes and the first table, chmgr_hw_virtual.cc the second.
#ifndef CHMGR_CHMGR_HW_H
#define CHMGR_CHMGR_HW_H

#include "chmgr/chmgr_layout.h"

#include <cstddef>
#include <cstdint>

// Numbers of the operations: the place in either table.
enum chmgr_hw_operation_t : uint8_t {
    CHMGR_HW_PORT_PAUSE = 0, // port; value and number: chmgr_hw_pause_t. In the virtual table only
    CHMGR_HW_CHASSIS_INIT = 1,
    CHMGR_HW_SFP_PRESENCE = 2, // slot, unit: port; sfp.present
    CHMGR_HW_SFP_STATE = 3,    // slot, unit: port; sfp
    CHMGR_HW_PIM_STATE = 4,    // slot and unit: module; pim
    CHMGR_HW_PORT_STATE = 5,   // port; set only: chmgr_admin_state_t
    CHMGR_HW_POE = 6,          // number
    CHMGR_HW_SFP_TX_DISABLE = 7,
    CHMGR_HW_SFP_DIAGNOSTICS = 8, // bus, address; diagnostics
    CHMGR_HW_PORT_LED = 9,        // slot, unit: port; set only
    CHMGR_HW_SFP_LED = 10,
    CHMGR_HW_POWER_LED = 11,
    CHMGR_HW_WLAN0_LED = 12,
    CHMGR_HW_WLAN1_LED = 13,
    CHMGR_HW_SYSTEM_LED = 14,     // of the board's logic
    CHMGR_HW_SYSTEM_LED_SPI = 15, // of the front panel
    CHMGR_HW_STATUS_LED = 16,
    CHMGR_HW_AUX_LED = 17,
    CHMGR_HW_FLASH = 18,
    CHMGR_HW_DISK = 19, // storage.size
    CHMGR_HW_EMMC = 20,
    CHMGR_HW_USB = 21,       // unit: 1 or 2
    CHMGR_HW_FAN_SPEED = 22, // unit; device unless the board's logic drives the fans; number
    CHMGR_HW_FAN_DUTY = 23,
    CHMGR_HW_TEMPERATURE = 24,        // unit, device; temperature.now
    CHMGR_HW_TEMPERATURE_LIMITS = 25, // unit, device
    CHMGR_HW_POWER_SUPPLY = 26,       // unit, device; supply. Set: its LED
    CHMGR_HW_BOARD = 27,
    CHMGR_HW_PROCESSOR_POWER = 28,
    CHMGR_HW_PIM_POWER = 29, // unit: module
    CHMGR_HW_PORT_RESET = 30,
    CHMGR_HW_OPERATIONS = 31,
};

enum chmgr_hw_pause_t {
    CHMGR_PAUSE_RX = 1,
    CHMGR_PAUSE_TX = 2,
};

// What an operation acts on; members that mean nothing to it are 0.
struct chmgr_hw_request_t {
    chmgr_hw_operation_t operation;
    uint32_t slot = 0;
    uint32_t unit = 0;
    uint32_t bus = 0;             // I2C
    uint32_t address = 0;         // on the bus
    const char *device = nullptr; // folder of a sensor chip under /sys, "class/hwmon/hwmon1"
    chmgr_port_t *port = nullptr;
    long value = 0; // to set
};

inline constexpr size_t CHMGR_HW_TEXT_SIZE = 64;
inline constexpr size_t CHMGR_HW_DIAGNOSTICS_SIZE = 256;

struct chmgr_hw_sfp_t { // flags
    long present;
    long tx_disabled;
    long tx_fault;
    long rx_lost;
};
struct chmgr_hw_pim_t {
    long present;     // flag
    long power_ok;    // flag
    long power_fault; // flag
    long was_present; // flag: marked under /var/run
    long revision;
    long board; // what the module is: chmgr_hw_pim_board_t
};
enum chmgr_hw_pim_board_t {
    CHMGR_PIM_NONE = 0,
    CHMGR_PIM_2X10GE = 150,
    CHMGR_PIM_8X1GE = 159,
};
struct chmgr_hw_diagnostics_t {
    size_t length;
    uint8_t bytes[CHMGR_HW_DIAGNOSTICS_SIZE];
};
struct chmgr_hw_storage_t {
    long size; // bytes for flash, else blocks of 512 bytes
    long hardware_revision;
    char type[CHMGR_HW_TEXT_SIZE]; // of a USB stick the manufacturer
    char name[CHMGR_HW_TEXT_SIZE]; // of a USB stick the product
    char serial[CHMGR_HW_TEXT_SIZE];
};
struct chmgr_hw_temperature_t { // thousandths of a degree Celsius
    long now;
    long critical;
    long max;
};
struct chmgr_hw_supply_t {
    long present; // flags
    long input_ok;
    long output_ok;
    long fault;
    long is_off;
    long current_ma;
    long voltage_mv;
    long power_uw;
    long fan_rpm;
};
struct chmgr_hw_board_t {
    long board_revision;
    long revision;
    long device;
    long bars[2];
};

// What an operation tells, in the member of its kind.
union chmgr_hw_result_t {
    long number;
    chmgr_hw_sfp_t sfp;
    chmgr_hw_pim_t pim;
    chmgr_hw_diagnostics_t diagnostics;
    chmgr_hw_storage_t storage;
    chmgr_hw_temperature_t temperature;
    chmgr_hw_supply_t supply;
    chmgr_hw_board_t board;
};

// Reads. *result is zeroed first; an attribute that cannot be read leaves its member zero and makes the result -1, as
// does an operation that the table does not have, or a missing block. 0 otherwise.
int chmgr_hw_get(const chmgr_hw_request_t &request, chmgr_hw_result_t *result);
// Sets request.value. 0, or -1 when it could not be set.
int chmgr_hw_set(const chmgr_hw_request_t &request);

// What a file of /etc/default says to sit in a slot of a chassis that is only simulated: whether there is one for a slot
// that takes modules, and chmgr_hw_pim_board_t.
[[nodiscard]] bool chmgr_virtual_pim_has_file(uint32_t chassis_type, uint32_t slot);
[[nodiscard]] long chmgr_virtual_pim_board(uint32_t chassis_type, uint32_t slot);

#endif
