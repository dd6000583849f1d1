// What chassis and modules there are. Constant tables: the row number is the number that the shared block holds.
#ifndef CHMGR_CHMGR_TABLES_H
#define CHMGR_CHMGR_TABLES_H

#include "chmgr/chmgr_layout.h"

#include <span>

enum chmgr_port_type_t : uint32_t {
    CHMGR_PORT_NONE = 0,
    CHMGR_PORT_GE = 1,
    CHMGR_PORT_10GE = 2,
    CHMGR_PORT_WWAN = 3,
    CHMGR_PORT_WLAN = 4,
};

struct chmgr_module_row_t {
    char name[64];
    char description[128];
    uint32_t num_ports;
    chmgr_port_type_t port_type;
};

enum chmgr_chassis_type_t : uint32_t {
    CHMGR_CHASSIS_UNKNOWN = 0,
    CHMGR_CHASSIS_M1 = 1,
    CHMGR_CHASSIS_L1 = 2,
    CHMGR_CHASSIS_S1 = 3,
    CHMGR_CHASSIS_S2 = 4,
    CHMGR_CHASSIS_S3 = 5,
    CHMGR_CHASSIS_V1 = 6,
};

struct chmgr_chassis_row_t {
    char name[64];
    char model[64];
    uint32_t num_slots;
    // Bit n: module row n may sit in the slot. On a chassis of one slot the second mask is that of its extension.
    uint32_t allowed_modules[MAX_SLOTS];
};

enum chmgr_transceiver_t : uint32_t {
    CHMGR_TRANSCEIVER_1G_CX = 0,
    CHMGR_TRANSCEIVER_1G_LX = 1,
    CHMGR_TRANSCEIVER_1G_SX = 2,
    CHMGR_TRANSCEIVER_1G_COPPER = 3,
    CHMGR_TRANSCEIVER_10G_ER = 4,
    CHMGR_TRANSCEIVER_10G_LRM = 5,
    CHMGR_TRANSCEIVER_10G_LR = 6,
    CHMGR_TRANSCEIVER_10G_SR = 7,
    CHMGR_TRANSCEIVER_NONE = 8,
};

[[nodiscard]] std::span<const chmgr_module_row_t> chmgr_modules();
[[nodiscard]] std::span<const chmgr_chassis_row_t> chmgr_chassis();
// As printed; "NA" for a kind that there is not.
[[nodiscard]] const char *chmgr_transceiver_name(uint32_t kind);

#endif
