// The chassis that this platform can be: which modules sit in which slots, and whether there is a management port.
// A description becomes the shared block here; nothing of the system is touched.
#ifndef PLATFORM_CHASSIS_MODEL_H
#define PLATFORM_CHASSIS_MODEL_H

#include "chmgr/chmgr_layout.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

struct chassis_model_t {
    const char *name;
    uint32_t chassis_type;       // row of the chassis table
    uint32_t modules[MAX_SLOTS]; // row of the module table for each slot, 0: empty
    bool has_mgmt_port;          // eth0
    uint32_t num_more_ports;     // eth1 and up, of no slot
    uint32_t extensions;         // chassis_extension_t that it can take
};

// Wireless modules beside the slots.
enum chassis_extension_t : uint32_t {
    CHASSIS_MODEM = 1,
    CHASSIS_WLAN = 2,
};

struct chassis_device_t {
    std::string name; // the kernel's
    uint64_t mac;
};

[[nodiscard]] std::span<const chassis_model_t> chassis_models();
// Null when there is no such model.
[[nodiscard]] const chassis_model_t *chassis_model_find(std::string_view name);

// The model with what files say to be plugged into the slots that take modules: /etc/default/pim0 and the like hold
// "8x1GE" or "2x10GE"; anything else is an empty slot, and without a file the slot is as in the model.
[[nodiscard]] chassis_model_t chassis_model_plugged(const chassis_model_t &model);

// Fills block, which is zero, with everything but the chassis type. device, 0 to 65535, tells the MAC addresses of one
// device from another's.
void chassis_fill(const chassis_model_t &model, uint16_t device, chmgr_block_t *block);

// Brings the shared block to the wanted state. One that describes the model already is left alone with all that other
// programs have written into it. The chassis type comes last: a block that has one is complete.
void chassis_publish(const chassis_model_t &model, const chmgr_block_t &filled, chmgr_block_t *shared);

// MAC addresses are locally administered (IEEE 802, second lowest bit of the first byte).
[[nodiscard]] uint64_t chassis_mgmt_mac(uint16_t device);
// eth0, when there is a management port, and the further ports of no slot.
[[nodiscard]] std::vector<chassis_device_t> chassis_host_ports(const chassis_model_t &model, uint16_t device);
// Network devices of extensions: a modem's data port; a radio and its access points.
[[nodiscard]] std::vector<chassis_device_t> chassis_extension_devices(uint32_t extensions, uint16_t device);
[[nodiscard]] std::string mac_number_text(uint64_t mac);

#endif
