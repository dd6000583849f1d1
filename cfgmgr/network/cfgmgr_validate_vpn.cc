// Validators of VPNs as a whole, and of the lists in them that name interfaces of VPN 0.
//
// A VPN is judged after any change in it, so this is the place for what has to stay true when something is taken out:
// ports under sub-interfaces and bridges' members, and interfaces that servers are asked from.

#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_validate.h"
#include "cfgmgr/network/cfgmgr_validate_common.h"
#include "common/tip_assert.h"
#include "common/tip_names.h"
#include "common/tip_root.h"
#include "common/vpn_id.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <span>
#include <string>
#include <unistd.h>
#include <unordered_set>
#include <utility>
#include <vector>

namespace
{

constexpr char MANAGEMENT_IF[] = "eth0";
constexpr char MODEM_IF[] = "cellular0";
constexpr char MODEM_DEVICE[] = "/var/run/qcqmi0"; // there while the device has a modem
constexpr uint32_t TAG_MAX = 4094;

bool starts_with(const char *name, const char *prefix)
{
    return strncmp(name, prefix, strlen(prefix)) == 0;
}

bool is_in_transport_vpn(const validate_t &v, const char *name)
{
    return validate_exists(v, "/vpn/vpn-instance{0}/interface{%s}", name);
}

int refuse_walk(const validate_t &v, const validate_list_t &list)
{
    return list.is_open ? 0 : validate_refuse_agent(v, "Failed to initialise maapi cursor  ");
}

// ---- VPNs that stay

int check_fixed_vpns(const validate_t &v)
{
    if (!validate_exists(v, "/vpn/vpn-instance{0}"))
        return validate_refuse(v, "Cannot delete vpn %d", 0);
    if (!validate_exists(v, "/vpn/vpn-instance{512}"))
        return validate_refuse(v, "Cannot delete management vpn %d", 512);
    uint32_t personality = v.cfgmgrd_p->personality;
    bool has_management =
        v.cfgmgrd_p->mgmt_vpn != 0 && (personality == PERSONALITY_KREST || personality == PERSONALITY_TARN);
    if (has_management && !validate_exists(v, "/vpn/vpn-instance{512}/interface{%s}", MANAGEMENT_IF))
        return validate_refuse(v, "Cannot delete %s interface from management vpn (%d)", MANAGEMENT_IF, 512);
    return 0;
}

// ---- interfaces of a VPN

// 0 for what is no tag; a number that begins with 0 is none.
uint32_t tag_of(const char *text)
{
    uint32_t tag = 0;
    const char *end = text + strlen(text);
    auto result = std::from_chars(text, end, tag);
    return *text != '0' && result.ec == std::errc() && result.ptr == end ? tag : 0;
}

// Names of the interfaces of VPN 0, in order. Read once: a device has thousands of sub-interfaces whose ports are looked
// up, and a read of the transaction takes as long as a thousand comparisons.
using name_list_t = std::vector<std::string>;

// False when they cannot be read.
bool transport_names(const validate_t &v, name_list_t *out)
{
    validate_list_t interfaces(v, "/vpn/vpn-instance{0}/interface");
    while (interfaces.next()) {
        char name[VALIDATE_NAME_SIZE];
        cfgmgr_config_text(interfaces.cursor.keys[0], name, sizeof name);
        out->emplace_back(name);
    }
    std::sort(out->begin(), out->end());
    return interfaces.is_open;
}

int check_tagged(const validate_t &v, const name_list_t &ports, const char *name)
{
    uint32_t tag = tag_of(strchr(name, '.') + 1);
    if (tag < 1 || tag > TAG_MAX)
        return validate_refuse(v, "Invalid vlan-tag in interface name %s. Valid values are 1..4094", name);
    char parent[VALIDATE_NAME_SIZE];
    (void)cfgmgr_if_base_name(name, parent, sizeof parent); // no longer than the name
    if (strcmp(parent, "irb") == 0 || std::binary_search(ports.begin(), ports.end(), parent))
        return 0;
    return validate_refuse(v, "Parent interface %s for tagged interface %s does not exist in vpn 0", parent, name);
}

int check_interface(const validate_t &v, const name_list_t &ports, const char *name)
{
    if (strchr(name, '.') != nullptr && check_tagged(v, ports, name) != 0)
        return CONFD_ERR;
    if (strstr(name, "cellular") == nullptr)
        return 0;
    bool has_modem = strcmp(name, MODEM_IF) == 0 && access(tip_path(MODEM_DEVICE).text, F_OK) == 0;
    return has_modem ? 0 : validate_refuse(v, "%s interface is not configurable in this system", name);
}

// The interfaces that a walk has met.
using names_t = std::unordered_set<std::string>;

// Of a kind that one VPN alone may have, or that this one may not: the name's own rule refuses the second place, in
// words that tell more.
bool has_one_place(const validate_t &v, const char *name, uint64_t vpn_id)
{
    uint32_t personality = v.cfgmgrd_p->personality;
    bool is_chassis = personality == PERSONALITY_KREST || personality == PERSONALITY_TARN;
    return starts_with(name, "ppp") || starts_with(name, "vap") || starts_with(name, "cellular") ||
           (is_chassis && starts_with(name, MANAGEMENT_IF)) || (vpn_id == VPN_ID_TRANSPORT && starts_with(name, "irb"));
}

// An interface has one record, which would go away with the configuration of either VPN and leave the other's without.
int check_alone(const validate_t &v, const char *name, uint64_t vpn_id, names_t &met)
{
    if (has_one_place(v, name, vpn_id) || met.emplace(name).second)
        return 0;
    return validate_refuse(v, "Interface exists in VPN %lu", vpn_id);
}

int check_vpn(const validate_t &v, const name_list_t &ports, uint64_t vpn_id, names_t &met)
{
    bool may_have_services = v.cfgmgrd_p->personality == PERSONALITY_KREST;
    if (!may_have_services && vpn_id != VPN_ID_TRANSPORT && vpn_id != VPN_ID_MANAGEMENT)
        return validate_refuse(v, "Only vpn 0 or 512 can be configured");
    validate_list_t interfaces(v, "/vpn/vpn-instance{%lu}/interface", vpn_id);
    while (interfaces.next()) {
        char name[VALIDATE_NAME_SIZE];
        cfgmgr_config_text(interfaces.cursor.keys[0], name, sizeof name);
        if (check_interface(v, ports, name) != 0 || check_alone(v, name, vpn_id, met) != 0)
            return CONFD_ERR;
    }
    return refuse_walk(v, interfaces);
}

int check_vpns(const validate_t &v)
{
    name_list_t ports;
    if (!transport_names(v, &ports))
        return validate_refuse_agent(v, "Failed to initialise maapi cursor  ");
    names_t met;
    validate_list_t vpns(v, "/vpn/vpn-instance");
    while (vpns.next()) {
        if (check_vpn(v, ports, CONFD_GET_UINT64(&vpns.cursor.keys[0]), met) != 0)
            return CONFD_ERR;
    }
    return refuse_walk(v, vpns);
}

// ---- ports that bridges need

int check_members(const validate_t &v, uint32_t bridge_id)
{
    validate_list_t members(v, "/bridge/bridge-instance{%u}/interface", bridge_id);
    while (members.next()) {
        char name[VALIDATE_NAME_SIZE];
        cfgmgr_config_text(members.cursor.keys[0], name, sizeof name);
        if (!starts_with(name, "vap") && !is_in_transport_vpn(v, name))
            return validate_refuse(v, "Parent interface %s cant be removed because it is part of bridge %u", name,
                                   bridge_id);
    }
    return refuse_walk(v, members);
}

int check_bridges(const validate_t &v)
{
    validate_list_t bridges(v, "/bridge/bridge-instance");
    while (bridges.next()) {
        if (check_members(v, CONFD_GET_UINT32(&bridges.cursor.keys[0])) != 0)
            return CONFD_ERR;
    }
    return refuse_walk(v, bridges);
}

// ---- servers

struct server_list_t {
    const char *path;
    int num_keys;
};
constexpr server_list_t server_lists[] = {
    { "/system/radius/server", 1 },
    { "/system/tacacs/server", 1 },
    { "/snmp/trap/target", 3 },
};

int check_servers(const validate_t &v)
{
    for (const server_list_t &list : server_lists) {
        if (cfgmgr_validate_ext_auth_src_intf(v.tctx, list.path, list.num_keys) != 0)
            return CONFD_ERR;
    }
    return 0;
}

} // namespace

// The rules look at all VPNs, and the agent asks for each one that has changed: in one validation, during which nothing
// changes, one answer does for all.
int cfgmgr_validate_vpn(confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *)
{
    constexpr int (*rules[])(const validate_t &v) = { check_fixed_vpns, check_vpns, check_bridges, check_servers };
    static std::pair<uint32_t, int> accepted; // validation and transaction in which all was well
    validate_t v = validate_of(tctx);
    std::pair asked{ v.cfgmgrd_p->tconfd_ctx_p->validations, v.th };
    if (asked.first != 0 && asked == accepted)
        return 0;
    for (auto rule : rules) {
        if (rule(v) != 0)
            return CONFD_ERR;
    }
    accepted = asked;
    return 0;
}

// ---- lists of interfaces of VPN 0

namespace
{

using name_rule_t = int(const validate_t &v, const char *name);

// Judges each name of a leaf-list; an empty one is deleted.
int check_names(const validate_t &v, const confd_value_t &list, name_rule_t *rule)
{
    if (cfgmgr_config_is_deleted(list))
        return 0;
    tip_assert(list.type == C_LIST);
    for (const confd_value_t &item : std::span(CONFD_GET_LIST(&list), CONFD_GET_LISTSIZE(&list))) {
        char name[VALIDATE_NAME_SIZE];
        cfgmgr_config_text(item, name, sizeof name);
        if (cfgmgr_validate_if_name_len(v, name) != 0 || rule(v, name) != 0)
            return CONFD_ERR;
    }
    return 0;
}

int check_service_if(const validate_t &v, const char *name)
{
    return is_in_transport_vpn(v, name) ? 0
                                        : validate_refuse(v, "Service interface %s does not exist in vpn %d", name, 0);
}

int check_exit_if(const validate_t &v, const char *name)
{
    bool is_port = starts_with(name, "ge") || starts_with(name, "10g");
    if (is_in_transport_vpn(v, name) &&
        (!is_port || validate_exists(v, "/vpn/vpn-instance{0}/interface{%s}/nat", name)))
        return 0;
    return validate_refuse(v,
                           "Interface %s is not a valid skylane local exit interface. Interface should be in vpn 0 & "
                           "nat interface or GRE interface",
                           name);
}

} // namespace

int cfgmgr_validate_vpn_service_if_validate(confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *newval)
{
    return check_names(validate_of(tctx), *newval, check_service_if);
}

int cfgmgr_validate_slx_if(confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *newval)
{
    return check_names(validate_of(tctx), *newval, check_exit_if);
}
