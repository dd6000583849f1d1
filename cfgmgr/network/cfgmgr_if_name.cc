#include "cfgmgr/network/cfgmgr_if_name.h"

#include "chmgr/chmgr_api.h"
#include "chmgr/chmgr_tables.h"
#include "common/tip_assert.h"
#include "common/tip_if_name.h"
#include "common/tip_text.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <system_error>

namespace
{

constexpr uint32_t IRB_LIMIT = 64; // one for each bridge that can be configured
constexpr uint16_t VLAN_MAX = 4095;
constexpr char IRB_CLI_PREFIX[] = "irb";
constexpr char IRB_KERNEL_PREFIX[] = "irb.";

// "ge0/1" wherever it begins in a name.
struct port_form_t {
    uint32_t slot;
    uint32_t port;
    const char *rest; // behind the form
};

bool starts_with(const char *text, const char *prefix)
{
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

// Reads digits at *text and moves it behind them. A number that is too large counts as the largest: no table has it.
bool digits_take(const char **text, uint32_t *number)
{
    auto result = std::from_chars(*text, *text + strlen(*text), *number);
    if (result.ec == std::errc::invalid_argument)
        return false;
    if (result.ec == std::errc::result_out_of_range)
        *number = UINT32_MAX;
    *text = result.ptr;
    return true;
}

// The number that is all of text; -1 for anything else.
int whole_number(const char *text)
{
    uint32_t number;
    bool is_number = digits_take(&text, &number) && *text == '\0' && number <= INT32_MAX;
    return is_number ? static_cast<int>(number) : -1;
}

bool port_form_find(const char *name, port_form_t *form)
{
    const char *text = strstr(name, "ge");
    if (text == nullptr)
        return false;
    text += 2;
    if (!digits_take(&text, &form->slot) || *text++ != '/' || !digits_take(&text, &form->port))
        return false;
    form->rest = text;
    return true;
}

char *copy_whole(const char *name, char *out, size_t size)
{
    return strlcpy(out, name, size) < size ? out : nullptr;
}

char *refuse(const char *name, char *out, size_t size)
{
    (void)strlcpy(out, name, size); // null tells already that the name is of no use
    return nullptr;
}

// The result is either whole or refused.
char *joined(const char *name, const std::string &text, char *out, size_t size)
{
    return text.size() < size ? copy_whole(text.c_str(), out, size) : refuse(name, out, size);
}

uint32_t slot_count(const chmgr_block_t &block)
{
    return std::min(block.num_slots, MAX_SLOTS);
}

uint32_t port_count(const chmgr_slot_t &slot)
{
    return std::min<uint32_t>(slot.num_ports, MAX_PORTS_PER_SLOT);
}

chmgr_port_t *port_at(chmgr_block_t *block, uint32_t slot, uint32_t port)
{
    if (block == nullptr || slot >= slot_count(*block) || port >= port_count(block->slots[slot]))
        return nullptr;
    return &block->slots[slot].ports[port];
}

std::string_view name_of(const char (&field)[CHMGR_PORT_NAME_SIZE])
{
    return { field, strnlen(field, sizeof field) };
}

bool is_gre(const char *name)
{
    return strstr(name, "gre") != nullptr && strstr(name, "gretap") == nullptr && strstr(name, "gre0") == nullptr;
}

// "irb5" itself. Digits that are followed by anything else, or name no bridge, make an IRB name that is wrong.
char *irb_to_kernel_name(const char *cli_name, char *out, size_t size)
{
    int number = cfgmgr_if_irb_number(cli_name);
    if (number < 0 || number >= static_cast<int>(IRB_LIMIT))
        return refuse(cli_name, out, size);
    return joined(cli_name, IRB_KERNEL_PREFIX + std::to_string(number), out, size);
}

bool has_irb_form(const char *cli_name)
{
    constexpr size_t length = sizeof IRB_CLI_PREFIX - 1;
    return starts_with(cli_name, IRB_CLI_PREFIX) && cli_name[length] >= '0' && cli_name[length] <= '9';
}

// A port's name, with or without a tag. The tag must be the one way to write its number.
char *port_to_kernel_name(const char *cli_name, const chmgr_port_t &port, char *out, size_t size)
{
    std::string kernel_name(name_of(port.kernel_name));
    const char *dot = strchr(cli_name, '.');
    if (dot == nullptr)
        return joined(cli_name, kernel_name, out, size);
    std::string tag = "." + std::to_string(strtol(dot + 1, nullptr, 10));
    return tag == dot ? joined(cli_name, kernel_name + tag, out, size) : refuse(cli_name, out, size);
}

// "eth0" of a chassis on which that is the first port's other name.
chmgr_port_t *eth0_port(chmgr_block_t *block, const char *cli_name)
{
    bool is_other_name = block->chassis_type == CHMGR_CHASSIS_S2 && block->eth0_is_ge0_0 != 0;
    return is_other_name && strcmp(cli_name, "eth0") == 0 ? port_at(block, 0, 0) : nullptr;
}

// Bit n of the mask: module row n may sit there.
bool has_module_with_port(uint32_t allowed_modules, chmgr_port_type_t type, uint32_t port)
{
    for (size_t row = 0; row < chmgr_modules().size(); row++) {
        const chmgr_module_row_t &module = chmgr_modules()[row];
        if ((allowed_modules & 1U << row) != 0 && module.port_type == type && port < module.num_ports)
            return true;
    }
    return false;
}

} // namespace

char *cfgmgr_if_cli_to_kernel_name(const char *cli_name, char *out, size_t size, chmgr_port_t **port)
{
    chmgr_port_t *ignored;
    chmgr_port_t **found = port != nullptr ? port : &ignored;
    *found = nullptr;
    if (has_irb_form(cli_name))
        return irb_to_kernel_name(cli_name, out, size);
    chmgr_block_t *block = chmgr_block();
    if (block == nullptr)
        return copy_whole(cli_name, out, size);

    std::string base(cli_name, strcspn(cli_name, "."));
    port_form_t form;
    if (!port_form_find(base.c_str(), &form)) {
        *found = eth0_port(block, cli_name);
        return *found != nullptr ? joined(cli_name, "ge0_0", out, size) : copy_whole(cli_name, out, size);
    }
    chmgr_port_t *record = port_at(block, form.slot, form.port);
    if (record == nullptr || name_of(record->cli_name) != base)
        return refuse(cli_name, out, size);
    char *kernel_name = port_to_kernel_name(cli_name, *record, out, size);
    *found = kernel_name != nullptr ? record : nullptr;
    return kernel_name;
}

char *cfgmgr_if_kernel_to_cli_name(const char *name, char *out, size_t size, chmgr_port_t **port)
{
    if (port != nullptr)
        *port = nullptr;
    if (int bridge = cfgmgr_if_irb_bridge(name); bridge >= 0)
        return joined(name, IRB_CLI_PREFIX + std::to_string(bridge), out, size);

    std::string_view base(name, strcspn(name, "."));
    for (chmgr_port_t *record = cfgmgr_if_first_port(); record != nullptr; record = cfgmgr_if_next_port(record)) {
        if (name_of(record->kernel_name) != base)
            continue;
        if (port != nullptr)
            *port = record;
        return joined(name, std::string(name_of(record->cli_name)) + (name + base.size()), out, size);
    }
    return copy_whole(name, out, size);
}

char *cfgmgr_if_bridge_port_name(const char *cli_name, char *out, size_t size, uint16_t vlan, chmgr_port_t **port)
{
    if (port != nullptr)
        *port = nullptr;
    if (starts_with(cli_name, "vap"))
        return copy_whole(cli_name, out, size);
    if (strstr(cli_name, "ge") == nullptr || strchr(cli_name, '.') != nullptr)
        return refuse(cli_name, out, size);
    char *kernel_name = cfgmgr_if_cli_to_kernel_name(cli_name, out, size, port);
    if (kernel_name == nullptr || vlan == 0 || vlan > VLAN_MAX)
        return kernel_name;
    return joined(cli_name, std::string(kernel_name) + "." + std::to_string(vlan), out, size);
}

char *cfgmgr_if_sim_name(const char *name, char *out, size_t size)
{
    return sim_name_from_ge(name, out, size);
}

char *cfgmgr_if_base_name(const char *name, char *out, size_t size)
{
    return joined(name, std::string(name, strcspn(name, ".")), out, size);
}

bool cfgmgr_if_is_tagged(const char *name)
{
    const char *dot = strchr(name, '.');
    return dot != nullptr && dot[1] != '\0';
}

int cfgmgr_if_irb_number(const char *cli_name)
{
    return starts_with(cli_name, IRB_CLI_PREFIX) ? whole_number(cli_name + strlen(IRB_CLI_PREFIX)) : -1;
}

int cfgmgr_if_irb_bridge(const char *name)
{
    return starts_with(name, IRB_KERNEL_PREFIX) ? whole_number(name + strlen(IRB_KERNEL_PREFIX)) : -1;
}

int cfgmgr_if_sub_tag(const char *cli_name, uint32_t *out)
{
    if (strstr(cli_name, "ge") == nullptr)
        return -1;
    port_form_t form;
    int tag = port_form_find(cli_name, &form) && *form.rest == '.' ? whole_number(form.rest + 1) : 0;
    *out = tag > 0 ? static_cast<uint32_t>(tag) : 0;
    return 0;
}

bool cfgmgr_if_is_in_port_table(const char *cli_name)
{
    static constexpr const char *kinds[] = { "loopback", "natpool", "ppp", "system", "vap", "cellular", "eth0" };
    if (is_gre(cli_name) || std::ranges::any_of(kinds, [&](auto kind) { return starts_with(cli_name, kind); }))
        return true;
    port_form_t form;
    uint32_t chassis = static_cast<uint32_t>(chmgr_chassis_type());
    if (!port_form_find(cli_name, &form) || form.slot >= MAX_SLOTS || chassis >= chmgr_chassis().size())
        return false;
    bool is_10ge = starts_with(cli_name, "10ge");
    if (!has_module_with_port(chmgr_chassis()[chassis].allowed_modules[form.slot],
                              is_10ge ? CHMGR_PORT_10GE : CHMGR_PORT_GE, form.port))
        return false;
    char rebuilt[CHMGR_PORT_NAME_SIZE];
    (void)snprintf(rebuilt, sizeof rebuilt, "%s%u/%u", is_10ge ? "10ge" : "ge", form.slot, form.port);
    return strcmp(rebuilt, cli_name) == 0;
}

chmgr_port_t *cfgmgr_if_first_port()
{
    return cfgmgr_if_next_port(nullptr);
}

chmgr_port_t *cfgmgr_if_next_port(const chmgr_port_t *port)
{
    chmgr_block_t *block = chmgr_block();
    if (block == nullptr)
        return nullptr;
    // By address, which only goes up: what the records say of themselves cannot make the walk go round.
    for (chmgr_slot_t &slot : std::span(block->slots, slot_count(*block))) {
        for (chmgr_port_t &next : std::span(slot.ports, port_count(slot))) {
            if (port == nullptr || std::greater<>()(&next, port))
                return &next;
        }
    }
    return nullptr;
}

chmgr_port_t *cfgmgr_chassis_port_by_id(uint32_t id)
{
    chmgr_port_id_t place;
    memcpy(&place, &id, sizeof place);
    return place.zero == 0 ? port_at(chmgr_block(), place.slot, place.port) : nullptr;
}

chmgr_port_t *cfgmgr_chassis_port_by_hw(uint16_t hw_interface_id, uint16_t hw_port_index)
{
    tip_assert(hw_interface_id < MAX_HW_INTERFACES);
    tip_assert(hw_port_index < MAX_PORTS_PER_HW_INTERFACE);
    const chmgr_block_t *block = chmgr_block();
    if (block == nullptr)
        return nullptr;
    size_t place = hw_interface_id * MAX_PORTS_PER_HW_INTERFACE + hw_port_index;
    chmgr_port_t *port = cfgmgr_chassis_port_by_id(block->hw_port_map[place]);
    // An entry that was never filled looks like the id of the first port.
    bool is_there = port != nullptr && port->hw_interface_id == hw_interface_id && port->hw_port_index == hw_port_index;
    return is_there ? port : nullptr;
}

void cfgmgr_chassis_port_mac(const chmgr_port_t *port, uint8_t *out)
{
    uint64_t mac = port != nullptr ? port->mac : 0;
    for (size_t i = 0; i < MAC_BYTES; i++)
        out[i] = static_cast<uint8_t>(mac >> 8 * (MAC_BYTES - 1 - i));
}

// No chassis of this release keeps addresses beyond those of its ports: the caller takes the device's own.
uint64_t cfgmgr_chassis_irb_mac(uint32_t)
{
    return 0;
}

uint64_t cfgmgr_chassis_cellular_mac(uint32_t)
{
    return 0;
}
