// Shape of the tables of hardware operations, for the files that make them.
#ifndef CHMGR_CHMGR_HW_TABLE_H
#define CHMGR_CHMGR_HW_TABLE_H

#include "chmgr/chmgr_hw.h"

#include <array>
#include <span>

// result is null for a set.
using chmgr_hw_function_t = int (*)(const chmgr_hw_request_t &request, chmgr_hw_result_t *result);
using chmgr_hw_table_t = std::array<chmgr_hw_function_t, CHMGR_HW_OPERATIONS>; // null: no such operation

extern const chmgr_hw_table_t chmgr_hw_sysfs_table;
extern const chmgr_hw_table_t chmgr_hw_virtual_table;

enum chmgr_hw_base_t : uint8_t {
    CHMGR_HW_ROOT,   // /
    CHMGR_HW_SYS,    // /sys
    CHMGR_HW_CPLD,   // the board's logic
    CHMGR_HW_PANEL,  // the front panel's
    CHMGR_HW_MODULE, // that of the module in the request's slot
    CHMGR_HW_I2C,    // the device at the request's bus and address
    CHMGR_HW_SENSOR, // the request's device
};

enum chmgr_hw_kind_t : uint8_t {
    CHMGR_HW_NUMBER,   // decimal
    CHMGR_HW_HEX,      // with or without "0x"
    CHMGR_HW_FLAG,     // 0 or not
    CHMGR_HW_NOT,      // the reverse: 0 is true
    CHMGR_HW_PORT_BIT, // hexadecimal mask: bit n stands for port n
    CHMGR_HW_EXISTS,   // that there is such a file
    CHMGR_HW_TEXT,     // its first line
    CHMGR_HW_BYTES,
};

enum chmgr_hw_access_t : uint8_t {
    CHMGR_HW_R = 1,
    CHMGR_HW_W = 2,
    CHMGR_HW_RW = 3,
};

// Rows of one operation stand together. Rows of one member that follow each other are alternatives: what stands at that
// place differs between boards, and the first one that is there counts.
struct chmgr_hw_attribute_t {
    chmgr_hw_operation_t operation;
    chmgr_hw_base_t base;
    const char *name; // "%d" stands for the request's unit
    chmgr_hw_kind_t kind;
    chmgr_hw_access_t access;
    size_t member;     // place in the result
    uint32_t unit = 0; // the only unit that has it; 0: all
};

[[nodiscard]] std::span<const chmgr_hw_attribute_t> chmgr_hw_attributes();

// The port's own state lives in its record whatever the chassis is.
int chmgr_hw_port_state(const chmgr_hw_request_t &request, chmgr_hw_result_t *result);

#endif
