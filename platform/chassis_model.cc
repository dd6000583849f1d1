#include "platform/chassis_model.h"

#include "chmgr/chmgr_hw.h"
#include "chmgr/chmgr_tables.h"
#include "common/tip_assert.h"
#include "common/tip_text.h"

#include <atomic>
#include <cstdio>
#include <cstring>

namespace
{

constexpr uint32_t ANY_WIRELESS = CHASSIS_MODEM | CHASSIS_WLAN;

constexpr chassis_model_t models[] = {
    { "krest-M1", CHMGR_CHASSIS_M1, { 4 }, true, 0, CHASSIS_MODEM },
    { "krest-L1", CHMGR_CHASSIS_L1, { 6, 10, 3 }, true, 0, 0 },
    { "krest-S1", CHMGR_CHASSIS_S1, { 1 }, false, 0, ANY_WIRELESS },
    { "krest-S2", CHMGR_CHASSIS_S2, { 2 }, false, 0, ANY_WIRELESS },
    { "krest-S3", CHMGR_CHASSIS_S3, { 2 }, false, 0, ANY_WIRELESS },
    // A virtual machine has what its host hands to it.
    { "krest-V1", CHMGR_CHASSIS_V1, { 13 }, true, 0, ANY_WIRELESS },
    // Controllers and management systems: a host, whose ports are of no module.
    { "software", CHMGR_CHASSIS_UNKNOWN, {}, true, 2, 0 },
};

struct board_row_t {
    long board; // chmgr_hw_pim_board_t
    uint32_t module;
};
constexpr board_row_t board_rows[] = {
    { CHMGR_PIM_8X1GE, 6 },
    { CHMGR_PIM_2X10GE, 10 },
    { CHMGR_PIM_NONE, 0 },
};

struct extension_row_t {
    chassis_extension_t extension;
    const char *device;
    uint64_t slot; // in the MAC address
    uint64_t port;
};
constexpr extension_row_t extension_rows[] = {
    { CHASSIS_MODEM, "wwan0", 0xfe, 0 }, { CHASSIS_WLAN, "wifi0", 0xfd, 0x10 }, { CHASSIS_WLAN, "vap0", 0xfd, 0 },
    { CHASSIS_WLAN, "vap1", 0xfd, 1 },   { CHASSIS_WLAN, "vap2", 0xfd, 2 },     { CHASSIS_WLAN, "vap3", 0xfd, 3 },
};

constexpr uint64_t MAC_PREFIX = 0x0243ULL << 32;
constexpr uint64_t MGMT_PORT_SLOT = 0xff; // in the place of a slot's number

constexpr uint64_t make_mac(uint16_t device, uint64_t slot, uint64_t port)
{
    return MAC_PREFIX | static_cast<uint64_t>(device) << 16 | slot << 8 | port;
}

uint32_t id_as_number(const chmgr_port_id_t &id)
{
    uint32_t number;
    memcpy(&number, &id, sizeof number);
    return number;
}

void fill_port(const chmgr_module_row_t &module, uint16_t device, uint8_t slot, uint16_t port, chmgr_block_t *block)
{
    chmgr_port_t &record = block->slots[slot].ports[port];
    const char *speed = module.port_type == CHMGR_PORT_10GE ? "10" : "";
    record.id = { .zero = 0, .slot = slot, .port = port };
    (void)snprintf(record.cli_name, sizeof record.cli_name, "%sge%u/%u", speed, slot, port);
    (void)snprintf(record.kernel_name, sizeof record.kernel_name, "ge%u_%u", slot, port);
    record.hw_interface_id = slot; // each slot is one interface of the forwarding hardware
    record.hw_port_index = port;
    record.mac = make_mac(device, slot, port);
    record.admin_state = CHMGR_ADMIN_DOWN;
    block->hw_port_map[slot * MAX_PORTS_PER_HW_INTERFACE + port] = id_as_number(record.id);
}

void fill_slot(const chmgr_module_row_t &module, uint16_t device, uint8_t slot, chmgr_block_t *block)
{
    tip_assert(module.num_ports <= MAX_PORTS_PER_SLOT);
    block->slots[slot].num_ports = static_cast<uint16_t>(module.num_ports);
    for (uint16_t port = 0; port < module.num_ports; port++)
        fill_port(module, device, slot, port, block);
}

} // namespace

std::span<const chassis_model_t> chassis_models()
{
    return models;
}

const chassis_model_t *chassis_model_find(std::string_view name)
{
    for (const chassis_model_t &model : models) {
        if (name == model.name)
            return &model;
    }
    return nullptr;
}

chassis_model_t chassis_model_plugged(const chassis_model_t &model)
{
    chassis_model_t plugged = model;
    for (uint32_t slot = 0; slot < chmgr_chassis()[model.chassis_type].num_slots; slot++) {
        if (!chmgr_virtual_pim_has_file(model.chassis_type, slot))
            continue;
        long board = chmgr_virtual_pim_board(model.chassis_type, slot);
        for (const board_row_t &row : board_rows)
            plugged.modules[slot] = row.board == board ? row.module : plugged.modules[slot];
    }
    return plugged;
}

void chassis_fill(const chassis_model_t &model, uint16_t device, chmgr_block_t *block)
{
    block->num_slots = chmgr_chassis()[model.chassis_type].num_slots;
    for (uint32_t slot = 0; slot < block->num_slots; slot++)
        fill_slot(chmgr_modules()[model.modules[slot]], device, static_cast<uint8_t>(slot), block);
    block->has_mgmt_port = model.has_mgmt_port ? 1 : 0;
}

void chassis_publish(const chassis_model_t &model, const chmgr_block_t &filled, chmgr_block_t *shared)
{
    // A new block is all zero, as the type of a plain host is: its management port tells the two apart.
    bool is_filled = shared->chassis_type == model.chassis_type && shared->num_slots == filled.num_slots &&
                     shared->has_mgmt_port == filled.has_mgmt_port;
    if (is_filled)
        return;
    std::atomic_ref<uint32_t> type(shared->chassis_type);
    type.store(CHMGR_CHASSIS_UNKNOWN, std::memory_order_seq_cst);
    memcpy(shared, &filled, sizeof filled);
    type.store(model.chassis_type, std::memory_order_seq_cst);
}

uint64_t chassis_mgmt_mac(uint16_t device)
{
    return make_mac(device, MGMT_PORT_SLOT, 0);
}

std::vector<chassis_device_t> chassis_host_ports(const chassis_model_t &model, uint16_t device)
{
    std::vector<chassis_device_t> ports;
    for (uint32_t port = model.has_mgmt_port ? 0 : 1; port <= model.num_more_ports; port++)
        ports.push_back({ "eth" + std::to_string(port), make_mac(device, MGMT_PORT_SLOT, port) });
    return ports;
}

std::vector<chassis_device_t> chassis_extension_devices(uint32_t extensions, uint16_t device)
{
    std::vector<chassis_device_t> devices;
    for (const extension_row_t &row : extension_rows) {
        if ((extensions & row.extension) != 0)
            devices.push_back({ row.device, make_mac(device, row.slot, row.port) });
    }
    return devices;
}

std::string mac_number_text(uint64_t mac)
{
    uint8_t bytes[MAC_BYTES];
    for (size_t i = 0; i < MAC_BYTES; i++)
        bytes[i] = static_cast<uint8_t>(mac >> 8 * (MAC_BYTES - 1 - i));
    char text[MAC_TEXT_SIZE];
    return mac_to_text(bytes, text);
}
