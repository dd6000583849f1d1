// Names of interfaces from arbitrary text, over a chassis block in which any bytes may stand.
//
// The first two bytes of the input tell the model and how many bytes replace the block's from its slot records on; those
// follow, and the rest is the name.
#include "cfgmgr/network/cfgmgr_if_name.h"
#include "platform/chassis_model.h"

#include <algorithm>
#include <cstring>
#include <string>

extern "C" {
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
chmgr_block_t *__wrap__Z11chmgr_blockv();
int __wrap__Z18chmgr_chassis_typev();
}

namespace
{

constexpr size_t NAME_SIZE = 33;
constexpr size_t REPLACED_UNIT = 64;

chmgr_block_t block;

void require(bool condition)
{
    if (!condition)
        __builtin_trap();
}

void block_make(uint8_t model_number, const uint8_t *bytes, size_t length)
{
    const chassis_model_t &model = chassis_models()[model_number % chassis_models().size()];
    memset(&block, 0, sizeof block);
    chassis_fill(model, 0, &block);
    block.chassis_type = model.chassis_type;
    block.eth0_is_ge0_0 = model_number >> 7;
    memcpy(&block.num_slots, bytes, std::min(length, sizeof block - offsetof(chmgr_block_t, num_slots)));
}

// A name that the block accepts comes back from the kernel's, unless the block gives two ports one name.
void read_port(const char *name, bool is_block_sound)
{
    char kernel[NAME_SIZE], again[NAME_SIZE];
    chmgr_port_t *port;
    char *result = cfgmgr_if_cli_to_kernel_name(name, kernel, sizeof kernel, &port);
    require(memchr(kernel, '\0', sizeof kernel) != nullptr && (result != nullptr || port == nullptr));
    if (result != nullptr && port != nullptr && is_block_sound && strcmp(name, "eth0") != 0) {
        require(cfgmgr_if_kernel_to_cli_name(kernel, again, sizeof again, &port) == again);
        require(strcmp(again, name) == 0 && port != nullptr);
    }
    (void)cfgmgr_if_kernel_to_cli_name(name, again, sizeof again, &port);
    require(memchr(again, '\0', sizeof again) != nullptr);
}

void read_parts(const char *name)
{
    char out[NAME_SIZE];
    uint32_t tag;
    (void)cfgmgr_if_bridge_port_name(name, out, sizeof out, 4095, nullptr);
    require(cfgmgr_if_sim_name(name, out, sizeof out) == nullptr || strncmp(out, "sim", 3) == 0);
    (void)cfgmgr_if_base_name(name, out, sizeof out);
    require(cfgmgr_if_sub_tag(name, &tag) == -1 || tag <= INT32_MAX);
    require(cfgmgr_if_irb_number(name) >= -1 && cfgmgr_if_irb_bridge(name) >= -1);
    (void)cfgmgr_if_is_in_port_table(name);
}

void walk()
{
    size_t count = 0;
    for (const chmgr_port_t *port = cfgmgr_if_first_port(); port != nullptr; port = cfgmgr_if_next_port(port))
        require(++count <= MAX_SLOTS * MAX_PORTS_PER_SLOT);
    for (uint16_t i = 0; i < MAX_HW_INTERFACES * MAX_PORTS_PER_HW_INTERFACE; i++)
        (void)cfgmgr_chassis_port_by_hw(i / MAX_PORTS_PER_HW_INTERFACE, i % MAX_PORTS_PER_HW_INTERFACE);
}

} // namespace

chmgr_block_t *__wrap__Z11chmgr_blockv()
{
    return &block;
}

int __wrap__Z18chmgr_chassis_typev()
{
    return static_cast<int>(block.chassis_type);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    size_t replaced = std::min(data[1] * REPLACED_UNIT, size - 2);
    block_make(data[0], data + 2, replaced);
    std::string name(reinterpret_cast<const char *>(data) + 2 + replaced, size - 2 - replaced);
    read_port(name.c_str(), replaced == 0);
    read_parts(name.c_str());
    walk();
    return 0;
}
