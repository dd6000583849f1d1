// The chassis that this platform can be: which modules sit in which slots, and whether there is a management port.
// A description becomes the shared block here; nothing of the system is touched.
#ifndef PLATFORM_CHASSIS_MODEL_H
#define PLATFORM_CHASSIS_MODEL_H

#include "chmgr/chmgr_layout.h"

#include <span>
#include <string>
#include <string_view>

struct chassis_model_t {
    const char *name;
    uint32_t chassis_type;       // row of the chassis table
    uint32_t modules[MAX_SLOTS]; // row of the module table for each slot, 0: empty
    bool has_mgmt_port;          // eth0
};

[[nodiscard]] std::span<const chassis_model_t> chassis_models();
// Null when there is no such model.
[[nodiscard]] const chassis_model_t *chassis_model_find(std::string_view name);

// Fills block, which is zero, with everything but the chassis type. device, 0 to 65535, tells the MAC addresses of one
// device from another's.
void chassis_fill(const chassis_model_t &model, uint16_t device, chmgr_block_t *block);

// Brings the shared block to the wanted state. One that describes the model already is left alone with all that other
// programs have written into it. The chassis type comes last: a block that has one is complete.
void chassis_publish(const chassis_model_t &model, const chmgr_block_t &filled, chmgr_block_t *shared);

// MAC addresses are locally administered (IEEE 802, second lowest bit of the first byte).
[[nodiscard]] uint64_t chassis_mgmt_mac(uint16_t device);
[[nodiscard]] std::string mac_number_text(uint64_t mac);

#endif
