// The records of the shared block "chassis_info". The chassis manager fills them, every daemon of the device maps them:
// the offsets are a format between programs, and are checked here.
//
// Only what is read or written by a program of this tree has a name; all other bytes belong to parts of the hardware
// that it leaves alone, and are zero. Numbers are in host byte order. There is no lock: each member has one writer.
#ifndef CHMGR_CHMGR_LAYOUT_H
#define CHMGR_CHMGR_LAYOUT_H

#include "common/ip_util.h"

#include <cstddef>
#include <cstdint>

inline constexpr size_t CHMGR_BLOCK_SIZE = 21632;
inline constexpr uint32_t MAX_SLOTS = 3;
inline constexpr uint32_t MAX_PORTS_PER_SLOT = 8;
inline constexpr uint32_t MAX_HW_INTERFACES = 10;
inline constexpr uint32_t MAX_PORTS_PER_HW_INTERFACE = 8;
inline constexpr uint32_t MAX_FANS = 4;
inline constexpr uint32_t MAX_TEMPERATURES = 4;
inline constexpr uint32_t MAX_POWER_SUPPLIES = 2;
inline constexpr uint32_t MAX_USB_STORAGE = 2;
inline constexpr size_t CHMGR_PORT_NAME_SIZE = 32;
inline constexpr size_t CHMGR_HOST_NAME_SIZE = 33;

// Names a port of the device in 32 bits.
struct chmgr_port_id_t {
    uint8_t zero;
    uint8_t slot;
    uint16_t port; // index in the slot
};
static_assert(sizeof(chmgr_port_id_t) == 4);

enum chmgr_admin_state_t : uint32_t {
    CHMGR_ADMIN_UP = 0,
    CHMGR_ADMIN_DOWN = 1,
};

struct chmgr_port_t {
    chmgr_port_id_t id;
    uint8_t pad1[20];
    char cli_name[CHMGR_PORT_NAME_SIZE];    // "ge0/0", "10ge0/0"
    char kernel_name[CHMGR_PORT_NAME_SIZE]; // "ge0_0"
    uint8_t pad2[8];
    uint16_t hw_interface_id; // below MAX_HW_INTERFACES
    uint16_t hw_port_index;   // below MAX_PORTS_PER_HW_INTERFACE
    uint8_t pad3[4];
    uint64_t mac; // the six bytes as a number, the first one highest; 0 when the port has none
    uint8_t pad4[92];
    uint32_t admin_state; // chmgr_admin_state_t
    uint8_t pad5[4];
    uint32_t pause_rx;
    uint8_t pad6[4];
    uint32_t pause_tx;
    uint8_t pad7[40];
};
static_assert(sizeof(chmgr_port_t) == 264);
static_assert(offsetof(chmgr_port_t, cli_name) == 24 && offsetof(chmgr_port_t, kernel_name) == 56);
static_assert(offsetof(chmgr_port_t, hw_interface_id) == 96 && offsetof(chmgr_port_t, mac) == 104);
static_assert(offsetof(chmgr_port_t, admin_state) == 204);
static_assert(offsetof(chmgr_port_t, pause_rx) == 212 && offsetof(chmgr_port_t, pause_tx) == 220);

struct chmgr_slot_t {
    uint8_t pad1[154];
    uint16_t num_ports;
    uint8_t pad2[140];
    chmgr_port_t ports[MAX_PORTS_PER_SLOT];
};
static_assert(sizeof(chmgr_slot_t) == 2408);
static_assert(offsetof(chmgr_slot_t, num_ports) == 154 && offsetof(chmgr_slot_t, ports) == 296);

// What the chassis manager tells of the rest of the hardware. Programs of this tree pass these over: only their place
// and size are settled here.
struct chmgr_fan_t {
    uint8_t opaque[816];
};
struct chmgr_temperature_t {
    uint8_t opaque[1412];
};
struct chmgr_power_supply_t {
    uint8_t opaque[704];
};
struct chmgr_usb_storage_t {
    uint8_t opaque[468];
};

struct chmgr_block_t {
    uint8_t pad1[12];
    uint32_t chassis_type; // row of the chassis table; written last
    uint32_t num_slots;
    uint8_t pad2[4];
    chmgr_slot_t slots[MAX_SLOTS];
    uint32_t hw_port_map[MAX_HW_INTERFACES * MAX_PORTS_PER_HW_INTERFACE]; // port ids, by hardware interface and index
    uint32_t num_fan_groups;
    uint32_t num_fans_per_group;
    uint32_t num_sensor_groups;
    uint32_t num_sensors_per_group;
    uint32_t num_power_supplies;
    uint8_t pad3[5];
    uint8_t has_mgmt_port; // 1: the device has a management port
    uint8_t eth0_is_ge0_0; // 1 on chassis type 4: "eth0" stands for port "ge0_0"
    uint8_t pad4[5];
    chmgr_fan_t fans[MAX_FANS];
    chmgr_temperature_t temperatures[MAX_TEMPERATURES];
    chmgr_power_supply_t power_supplies[MAX_POWER_SUPPLIES];
    uint8_t flash[296];
    uint8_t disk[264];
    uint8_t emmc[336];
    chmgr_usb_storage_t usb_storage[MAX_USB_STORAGE];
    uint8_t pad6[1600];
    uint8_t board[20];
    char host_name[CHMGR_HOST_NAME_SIZE];
    uint8_t pad7[3];
    ip_addr_t system_ip;
    ip_addr_t quorvix_system_ip; // of the management system
    uint8_t pad8[128];
    uint32_t run_state;
    uint8_t pad9[44];
};
static_assert(sizeof(chmgr_block_t) == CHMGR_BLOCK_SIZE);
static_assert(offsetof(chmgr_block_t, chassis_type) == 12 && offsetof(chmgr_block_t, num_slots) == 16);
static_assert(offsetof(chmgr_block_t, slots) == 24 && offsetof(chmgr_block_t, hw_port_map) == 7248);
static_assert(offsetof(chmgr_block_t, num_fan_groups) == 7568 && offsetof(chmgr_block_t, num_power_supplies) == 7584);
static_assert(offsetof(chmgr_block_t, has_mgmt_port) == 7593 && offsetof(chmgr_block_t, eth0_is_ge0_0) == 7594);
static_assert(offsetof(chmgr_block_t, fans) == 7600 && offsetof(chmgr_block_t, temperatures) == 10864);
static_assert(offsetof(chmgr_block_t, power_supplies) == 16512 && offsetof(chmgr_block_t, flash) == 17920);
static_assert(offsetof(chmgr_block_t, disk) == 18216 && offsetof(chmgr_block_t, emmc) == 18480);
static_assert(offsetof(chmgr_block_t, usb_storage) == 18816 && offsetof(chmgr_block_t, board) == 21352);
static_assert(offsetof(chmgr_block_t, host_name) == 21372 && offsetof(chmgr_block_t, system_ip) == 21408);
static_assert(offsetof(chmgr_block_t, quorvix_system_ip) == 21432 && offsetof(chmgr_block_t, run_state) == 21584);

#endif
