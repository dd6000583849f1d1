// Validators of bridges and their members, and of what an interface may have beside its membership.
//
// A member's port stays in VPN 0 and may have nothing there that would make it more than a member; in a bridge with a
// VLAN this holds only for a member that serves the untagged VLAN too, since the port itself stays free otherwise. Both
// sides are judged: a membership by the interface's settings, a setting by the memberships.

#include "cfgmgr/network/cfgmgr_bridge.h"
#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_validate.h"
#include "cfgmgr/network/cfgmgr_validate_common.h"
#include "common/tip_names.h"
#include "common/vpn_id.h"

#include <cstring>

namespace
{

constexpr uint32_t BRIDGE_ID_MAX = 63; // where there are ports to join
constexpr char VAP_PREFIX[] = "vap";

// The member that a point is asked about.
struct member_t {
    uint32_t bridge_id;
    char name[VALIDATE_NAME_SIZE];
    uint32_t vlan; // of the bridge, 0 for none
};

member_t member_of(const confd_hkeypath_t *kp)
{
    member_t member{};
    member.bridge_id = validate_bridge_key(kp);
    validate_if_key(kp, member.name);
    return member;
}

bool is_vap(const char *name)
{
    return strncmp(name, VAP_PREFIX, sizeof VAP_PREFIX - 1) == 0;
}

bool is_member(const validate_t &v, uint32_t bridge_id, const char *name)
{
    return validate_exists(v, "/bridge/bridge-instance{%u}/interface{%s}", bridge_id, name);
}

bool is_native(const validate_t &v, uint32_t bridge_id, const char *name)
{
    return validate_get_bool(v, false, "/bridge/bridge-instance{%u}/interface{%s}/native-vlan", bridge_id, name);
}

bool has_bridge_ports(const validate_t &v)
{
    return v.cfgmgrd_p->personality == PERSONALITY_KREST || v.cfgmgrd_p->personality == PERSONALITY_TARN;
}

int refuse_walk(const validate_t &v)
{
    return validate_refuse_agent(v, "Failed to initialise maapi cursor  ");
}

} // namespace

// ---- bridges

int cfgmgr_validate_bridge(confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *)
{
    validate_t v = validate_of(tctx);
    if (!has_bridge_ports(v))
        return 0;
    validate_list_t bridges(v, "/bridge/bridge-instance");
    while (bridges.next()) {
        uint32_t bridge_id = CONFD_GET_UINT32(&bridges.cursor.keys[0]);
        if (bridge_id > BRIDGE_ID_MAX)
            return validate_refuse(v, "Invalid bridge-id %u. Valid values are 0..63", bridge_id);
    }
    return bridges.is_open ? 0 : refuse_walk(v);
}

// The names of the members that the kernel has depend on the VLAN.
int cfgmgr_validate_bridge_vlan(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *)
{
    validate_t v = validate_of(tctx);
    uint32_t bridge_id = validate_bridge_key(kp);
    cfgmgr_bridge_t *bridge_p = cfgmgr_bridge_find(v.cfgmgrd_p, bridge_id, nullptr);
    if (bridge_p == nullptr || avl_first(&bridge_p->if_db) == nullptr)
        return 0;
    validate_list_t members(v, "/bridge/bridge-instance{%u}/interface", bridge_id);
    if (!members.next())
        return 0;
    return validate_refuse(v, "Cannot change the vlan id of bridge %u when there are interfaces present.", bridge_id);
}

// ---- members

namespace
{

// An interface belongs to one bridge of each VLAN, the untagged one included.
int check_other_bridge(const validate_t &v, uint32_t bridge_id, const char *name, uint32_t vlan)
{
    uint32_t other_vlan;
    if (!validate_bridge_vlan(v, bridge_id, &other_vlan))
        return validate_refuse(v, "Unable to get vlan id from bridge %u to validate interface %s", bridge_id, name);
    if (!is_member(v, bridge_id, name))
        return 0;
    if (other_vlan == vlan)
        return validate_refuse(v, "Interface is part of bridge %u", bridge_id);
    if (vlan == 0 && is_native(v, bridge_id, name))
        return validate_refuse(v, "Interface %s is already bound to bridge %uto service native vlan traffic.", name,
                               bridge_id); // the text joins number and word
    return 0;
}

int cfgmgr_validate_bridge_if_exclusive(const validate_t &v, const member_t &member, uint32_t vlan)
{
    validate_list_t bridges(v, "/bridge/bridge-instance");
    while (bridges.next()) {
        uint32_t bridge_id = CONFD_GET_UINT32(&bridges.cursor.keys[0]);
        int result = bridge_id == member.bridge_id ? 0 : check_other_bridge(v, bridge_id, member.name, vlan);
        if (result != 0)
            return result;
    }
    return bridges.is_open ? 0 : refuse_walk(v);
}

int check_base(const validate_t &v, const member_t &member)
{
    const char *name = member.name;
    if (cfgmgr_validate_if_name_len(v, name) != 0)
        return CONFD_ERR;
    if (strchr(name, '.') != nullptr)
        return validate_refuse(v, "Interface %s name is invalid.  Only base interfaces can be bound to a bridge.",
                               name);
    if (is_vap(name)) {
        bool has_radio = validate_exists(v, "/wlan/wlan-instance{5GHz}/interface{%s}", name) ||
                         validate_exists(v, "/wlan/wlan-instance{2.4GHz}/interface{%s}", name);
        return has_radio ? 0 : validate_refuse(v, "Interface %s must be configured under wlan configuration", name);
    }
    if (validate_exists(v, "/vpn/vpn-instance{0}/interface{%s}", name))
        return 0;
    return validate_refuse(v,
                           "Interface %s cannot be bound to bridge %u because base interface %s doesn't exist in "
                           "global vpn.",
                           name, member.bridge_id, name);
}

// No VPN has the interface, given by its name in configuration; VPN 0 may have an untagged one.
int check_no_vpn(const validate_t &v, const char *name, bool is_tagged)
{
    validate_list_t vpns(v, "/vpn/vpn-instance");
    while (vpns.next()) {
        uint64_t vpn_id = CONFD_GET_UINT64(&vpns.cursor.keys[0]);
        bool may_have = vpn_id == VPN_ID_TRANSPORT && !is_tagged;
        if (!may_have && validate_exists(v, "/vpn/vpn-instance{%lu}/interface{%s}", vpn_id, name))
            return validate_refuse(v, "Interface exists in VPN %lu", vpn_id);
    }
    return vpns.is_open ? 0 : refuse_walk(v);
}

int check_vpns(const validate_t &v, const member_t &member, const char *kernel_name)
{
    char cli_name[VALIDATE_NAME_SIZE];
    if (cfgmgr_if_kernel_to_cli_name(kernel_name, cli_name, sizeof cli_name, nullptr) == nullptr)
        return validate_refuse_agent(v, "Unable to decode interface name ");
    bool is_tagged = member.vlan != 0;
    int result = check_no_vpn(v, cli_name, is_tagged);
    if (result != 0 || is_tagged)
        return result;
    return cfgmgr_validate_if_not_configured(v.tctx, member.name, VPN_ID_TRANSPORT);
}

} // namespace

int cfgmgr_validate_bridge_if(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *)
{
    validate_t v = validate_of(tctx);
    member_t member = member_of(kp);
    if (check_base(v, member) != 0)
        return CONFD_ERR;
    if (!validate_bridge_vlan(v, member.bridge_id, &member.vlan))
        return validate_refuse(v, "Unable to get bridge %u: vlan_id to validate bridge interface %s", member.bridge_id,
                               member.name);
    char kernel_name[VALIDATE_NAME_SIZE];
    if (cfgmgr_if_bridge_port_name(member.name, kernel_name, sizeof kernel_name, static_cast<uint16_t>(member.vlan),
                                   nullptr) == nullptr)
        return validate_refuse(v, "Interface %s name is invalid.", member.name);
    if (check_vpns(v, member, kernel_name) != 0)
        return CONFD_ERR;
    return cfgmgr_validate_bridge_if_exclusive(v, member, member.vlan);
}

// The port itself joins the bridge: it may be in no other VPN, which the handler counts on.
int cfgmgr_validate_bridge_if_native_vlan(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval) || !cfgmgr_config_bool(*newval))
        return 0;
    validate_t v = validate_of(tctx);
    member_t member = member_of(kp);
    if (!validate_bridge_vlan(v, member.bridge_id, &member.vlan))
        return validate_refuse(v, "Unable to get bridge %u: vlan_id to validate native vlan configuration on %s",
                               member.bridge_id, member.name);
    if (member.vlan == 0)
        return validate_refuse(v, "This is not a VLAN tagged bridge.  Native vlan feature is not needed!");
    if (!validate_exists(v, "/vpn/vpn-instance{0}/interface{%s}", member.name))
        return validate_refuse(v, "Interface %s is not in global vpn.", member.name);
    if (check_no_vpn(v, member.name, false) != 0 ||
        cfgmgr_validate_if_not_configured(tctx, member.name, VPN_ID_TRANSPORT) != 0)
        return CONFD_ERR;
    return cfgmgr_validate_bridge_if_exclusive(v, member, 0);
}

// ---- what a member's port may have in VPN 0

namespace
{

// What the agent asks about: a leaf, a leaf-list or a presence container of an interface.
struct setting_t {
    validate_t v;
    const confd_hkeypath_t *kp;
    const confd_value_t *newval;
    char name[VALIDATE_NAME_SIZE]; // of the interface
};

// False for a setting that no bridge excludes.
bool read_setting(confd_trans_ctx *tctx, const confd_hkeypath_t *kp, const confd_value_t *newval, setting_t *out)
{
    *out = { validate_of(tctx), kp, newval, "" };
    validate_if_key(kp, out->name);
    return validate_vpn_key(kp) == VPN_ID_TRANSPORT && !cfgmgr_if_is_tagged(out->name);
}

bool is_set(const setting_t &setting)
{
    return cfgmgr_validate_is_routing_leaf(setting.v.tctx, setting.kp, setting.newval) != 0 &&
           cfgmgr_validate_leaf_is_default(setting.v.tctx, setting.kp, setting.newval) == 0;
}

bool is_excluded_by(const setting_t &setting, uint32_t bridge_id)
{
    uint32_t vlan;
    if (!is_member(setting.v, bridge_id, setting.name))
        return false;
    bool is_untagged = validate_bridge_vlan(setting.v, bridge_id, &vlan) && vlan == 0;
    return is_untagged || is_native(setting.v, bridge_id, setting.name);
}

int refuse_setting(const setting_t &setting, uint32_t bridge_id)
{
    return validate_refuse(setting.v,
                           "Interface routing attributes cannot be configured while it already exists in a bridge %u",
                           bridge_id);
}

// Refused by the first bridge that excludes the setting and for which is_wrong holds.
template <typename judge_t> int check_bridges(const setting_t &setting, judge_t is_wrong)
{
    validate_list_t bridges(setting.v, "/bridge/bridge-instance");
    while (bridges.next()) {
        uint32_t bridge_id = CONFD_GET_UINT32(&bridges.cursor.keys[0]);
        if (is_excluded_by(setting, bridge_id) && is_wrong())
            return refuse_setting(setting, bridge_id);
    }
    return bridges.is_open ? 0 : refuse_walk(setting.v);
}

} // namespace

int cfgmgr_validate_vpn_if_bridgeExclusionValidate(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    setting_t setting;
    if (!read_setting(tctx, kp, newval, &setting))
        return 0;
    if (cfgmgr_validate_if_name_len(setting.v, setting.name) != 0)
        return CONFD_ERR;
    return is_set(setting) ? check_bridges(setting, [] { return true; }) : 0;
}

// For leaves with defaults, which are rarely set: whether this one is, is asked last.
int cfgmgr_validate_vpn_if_bridgeExclusionValidateDefaults(confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                                                           confd_value_t *newval)
{
    setting_t setting;
    if (!read_setting(tctx, kp, newval, &setting))
        return 0;
    if (cfgmgr_validate_if_name_len(setting.v, setting.name) != 0)
        return CONFD_ERR;
    return check_bridges(setting, [&] { return is_set(setting); });
}
