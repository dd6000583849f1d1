// Kinds of interfaces by name: tables of rows, the first that matches wins.

#include "cfgmgr/network/cfgmgr_if_kind.h"

#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "common/tip_text.h"
#include "common/vpn_id.h"

#include <charconv>

namespace
{

constexpr size_t PROVISION_NAME_SIZE = 33; // 32 characters of a name count
constexpr char IRB_PREFIX[] = "irb";
constexpr char CELLULAR_PREFIX[] = "cellular";
constexpr char INTERNAL_PREFIX[] = "loop2";
constexpr char PORT_PREFIX[] = "ge";

bool has_prefix(const char *name, const char *text)
{
    return strncmp(name, text, strlen(text)) == 0;
}

bool has_text(const char *name, const char *text)
{
    return strstr(name, text) != nullptr;
}

// Neither the tunnel that the kernel makes by itself nor a bridged one.
bool is_gre(const char *name, const char *text)
{
    return has_text(name, text) && !has_text(name, "gretap") && !has_text(name, "gre0");
}

// The text is that of the tagged names that are something else.
bool is_sub_interface(const char *name, const char *text)
{
    return has_text(name, ".") && !has_text(name, text);
}

// The number that text begins with; 0 without one. Gives what stands behind it.
const char *read_number(const char *text, uint32_t *out)
{
    *out = 0;
    return std::from_chars(text, text + strlen(text), *out).ptr;
}

uint32_t number_of(const char *text)
{
    uint32_t number;
    (void)read_number(text, &number);
    return number;
}

// ---- classification

uint32_t irb_vlan(const char *name)
{
    int bridge = cfgmgr_if_irb_bridge(name);
    return bridge > 0 ? static_cast<uint32_t>(bridge) : 0;
}

uint32_t sub_interface_vlan(const char *name)
{
    return number_of(strchr(name, '.') + 1);
}

uint32_t cellular_vlan(const char *name)
{
    return number_of(name + strlen(CELLULAR_PREFIX)) + IF_CELLULAR_TAG_FIRST;
}

struct kind_row_t {
    bool (*matches)(const char *name, const char *text);
    const char *text;
    uint32_t flags;
    uint32_t (*vlan)(const char *name); // null: 0
};

constexpr kind_row_t kind_rows[] = {
    { has_prefix, IRB_PREFIX, IF_IRB, irb_vlan },
    { is_sub_interface, INTERNAL_PREFIX, IF_SUBIF, sub_interface_vlan },
    { has_prefix, "vap", IF_VAP, nullptr },
    { has_prefix, CELLULAR_PREFIX, IF_CELLULAR, cellular_vlan },
    { has_prefix, "loopback", IF_LOOPBACK, nullptr },
    { has_prefix, "natpool", IF_LOOPBACK, nullptr },
    { has_prefix, "ppp", IF_PPP, nullptr },
    { has_prefix, "system", IF_SYSTEM | IF_LOOPBACK, nullptr },
    { has_prefix, "quorvix_system", IF_SYSTEM | IF_LOOPBACK, nullptr },
    { has_text, "eth0", IF_MGMT, nullptr },
    { is_gre, "gre", IF_GRE, nullptr },
};

// ---- provisioning

struct provision_row_t {
    bool (*matches)(const char *name, const char *text);
    const char *text;
};

// What does not depend on the hardware.
constexpr provision_row_t everywhere_rows[] = {
    { has_prefix, "loopback" }, { has_prefix, "natpool" },
    { has_prefix, "ppp" },      { is_gre, "gre" },
    { has_prefix, "system" },   { has_prefix, "quorvix_system" },
    { has_prefix, IRB_PREFIX }, { has_prefix, CELLULAR_PREFIX },
    { has_prefix, "vap" },      { has_prefix, INTERNAL_PREFIX },
    { has_prefix, "eth0" },
};

bool is_in_kernel(const char *name, uint64_t vpn_id)
{
    cfgmgrd_t *cfgmgrd_p = cfgmgr_context();
    return cfgmgrd_p != nullptr && cfgmgr_kernel_if_exists(cfgmgrd_p, vpn_id, name);
}

bool is_in_kernel_untagged(const char *name, uint64_t vpn_id)
{
    char base[PROVISION_NAME_SIZE];
    strlcpy(base, name, sizeof base);
    if (has_text(base, "eth"))
        base[strcspn(base, ".")] = '\0';
    return is_in_kernel(base, vpn_id);
}

bool is_provisioned_anywhere(const char *name, uint32_t *)
{
    return is_in_kernel_untagged(name, VPN_ID_TRANSPORT) || is_in_kernel_untagged(name, VPN_ID_MANAGEMENT);
}

bool is_provisioned_in_transport(const char *name, uint32_t *)
{
    return is_in_kernel_untagged(name, VPN_ID_TRANSPORT);
}

bool is_provisioned_on_edge(const char *name, uint32_t *)
{
    return !has_text(name, "eth") || is_in_kernel(name, VPN_ID_TRANSPORT);
}

// "ge0_1", also with a tag behind it.
bool read_port_id(const char *name, chmgr_port_id_t *out)
{
    if (!has_prefix(name, PORT_PREFIX))
        return false;
    uint32_t slot;
    uint32_t port;
    const char *digits = name + strlen(PORT_PREFIX);
    const char *rest = read_number(digits, &slot);
    if (rest == digits || *rest != '_' || slot > UINT8_MAX)
        return false;
    digits = rest + 1;
    if (read_number(digits, &port) == digits || port > UINT16_MAX)
        return false;
    *out = { 0, static_cast<uint8_t>(slot), static_cast<uint16_t>(port) };
    return true;
}

bool is_provisioned_on_hub(const char *name, uint32_t *port_id)
{
    chmgr_port_id_t id;
    if (!read_port_id(name, &id))
        return false;
    uint32_t packed;
    memcpy(&packed, &id, sizeof packed);
    const chmgr_port_t *port = cfgmgr_chassis_port_by_id(packed);
    if (port == nullptr || !has_text(name, port->kernel_name))
        return false;
    if (port_id != nullptr)
        *port_id = packed;
    return true;
}

struct personality_row_t {
    uint32_t personality;
    bool (*is_provisioned)(const char *name, uint32_t *port_id);
};

constexpr personality_row_t personality_rows[] = {
    { PERSONALITY_KREST, is_provisioned_on_edge },   { PERSONALITY_TARN, is_provisioned_on_hub },
    { PERSONALITY_LODEST, is_provisioned_anywhere }, { PERSONALITY_QUORVIX, is_provisioned_anywhere },
    { PERSONALITY_PENDRY, is_provisioned_anywhere },
};

} // namespace

cfgmgr_if_kind_t cfgmgr_if_kind_of(const char *name)
{
    for (const kind_row_t &row : kind_rows) {
        if (row.matches(name, row.text))
            return { row.flags, row.vlan != nullptr ? row.vlan(name) : 0 };
    }
    return {};
}

uint32_t cfgmgr_if_internal_tag(const char *name)
{
    constexpr char TAGGED_PREFIX[] = "loop2.";
    const char *found = strstr(name, TAGGED_PREFIX);
    return found != nullptr ? number_of(found + strlen(TAGGED_PREFIX)) : 0;
}

bool cfgmgr_if_is_provisioned(const char *name, uint32_t personality, uint32_t *port)
{
    char kernel_name[PROVISION_NAME_SIZE];
    strlcpy(kernel_name, name, sizeof kernel_name);
    if (strcmp(kernel_name, IRB_PREFIX) == 0)
        return false;
    for (const provision_row_t &row : everywhere_rows) {
        if (row.matches(kernel_name, row.text))
            return true;
    }
    for (const personality_row_t &row : personality_rows) {
        if (row.personality == personality)
            return row.is_provisioned(kernel_name, port);
    }
    return is_provisioned_in_transport(kernel_name, port);
}

bool cfgmgr_if_is_physical(const cfgmgr_if_t &interface)
{
    return (interface.flags & IF_NOT_PHYSICAL) == 0;
}
