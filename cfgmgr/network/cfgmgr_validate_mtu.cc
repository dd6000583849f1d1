// Validators of packet sizes. What is carried by another interface is smaller by its header: a VLAN tag takes 4 bytes, a
// PPPoE session 8. Tags are judged from both ends, whichever changes last; a session when the size of its port changes.

#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_validate.h"
#include "cfgmgr/network/cfgmgr_validate_common.h"
#include "common/vpn_id.h"

#include <cstring>

namespace
{

// In bytes.
constexpr uint32_t MTU_TAGGED_MAX = 1996;
constexpr uint32_t MTU_PPP_MAX = 1492;
constexpr uint32_t VLAN_HEADER = 4;
constexpr uint32_t PPPOE_HEADER = 8;
constexpr uint32_t TCP_MSS_CELLULAR_MAX = 1348;
constexpr uint32_t TCP_MSS_PPP_MAX = 1452;

constexpr int64_t VPN_ID_OF_BRIDGE = -1;

// The size that an interface is to have.
struct size_change_t {
    validate_t v;
    const confd_hkeypath_t *kp;
    const confd_value_t *newval;
    int64_t vpn_id; // VPN_ID_OF_BRIDGE for a member of a bridge
    const char *name;
    uint32_t mtu;
};

bool is_in_transport_vpn(const size_change_t &change)
{
    return change.vpn_id == static_cast<int64_t>(VPN_ID_TRANSPORT);
}

// False where there is no such interface.
bool get_mtu(const validate_t &v, int64_t vpn_id, const char *name, uint32_t *out)
{
    validate_value_t mtu;
    if (!validate_get(v, &mtu, "/vpn/vpn-instance{%ld}/interface{%s}/mtu", vpn_id, name))
        return false;
    *out = static_cast<uint32_t>(cfgmgr_config_number(mtu.v));
    return true;
}

int check_cellular(const size_change_t &change)
{
    bool is_modem = is_in_transport_vpn(change) && strstr(change.name, "cellular") != nullptr;
    if (!is_modem || change.mtu <= IF_MTU_CELLULAR)
        return 0;
    return validate_refuse(change.v, "Cellular interface MTU can not be greater than %u", IF_MTU_CELLULAR);
}

// A port that is a member has the size of its membership.
int check_conflict(const size_change_t &change)
{
    if (change.vpn_id == VPN_ID_OF_BRIDGE)
        return 0;
    bool is_unset =
        is_in_transport_vpn(change) && cfgmgr_validate_leaf_is_default(change.v.tctx, change.kp, change.newval) != 0;
    return is_unset ? 0 : cfgmgr_validate_if_bridge_conflict(change.v.tctx, change.name);
}

// The text tells another limit than the one that is kept, and other programs know it as it is.
int check_tagged(const size_change_t &change)
{
    if (strchr(change.name, '.') == nullptr)
        return 0;
    if (change.mtu > MTU_TAGGED_MAX)
        return validate_refuse(change.v, "Tagged interface MTU needs to be at least 4 bytes less than max MTU range "
                                         "of 1800");
    char parent[VALIDATE_NAME_SIZE];
    uint32_t parent_mtu;
    (void)cfgmgr_if_base_name(change.name, parent, sizeof parent); // no longer than the name
    if (strcmp(parent, "irb") == 0)
        return 0;
    if (!get_mtu(change.v, VPN_ID_TRANSPORT, parent, &parent_mtu))
        return validate_refuse(change.v, "Cannot find parent interface %s in vpn 0", parent);
    if (change.mtu + VLAN_HEADER <= parent_mtu)
        return 0;
    return validate_refuse(change.v,
                           "Tagged interface MTU needs to be at least 4 bytes less than parent interface (%s) mtu (%u)",
                           parent, parent_mtu);
}

int check_ppp(const size_change_t &change)
{
    if (strstr(change.name, "ppp") == nullptr || change.mtu <= MTU_PPP_MAX)
        return 0;
    return validate_refuse(change.v, "PPP interface MTU can not be greater than %u", MTU_PPP_MAX);
}

// A session that cannot be read is none.
int check_session(const size_change_t &change)
{
    validate_value_t session;
    uint32_t mtu;
    char name[VALIDATE_NAME_SIZE];
    if (change.vpn_id == VPN_ID_OF_BRIDGE ||
        !validate_get(change.v, &session, "/vpn/vpn-instance{%ld}/interface{%s}/pppoe-client/ppp-interface",
                      change.vpn_id, change.name))
        return 0;
    cfgmgr_config_text(session.v, name, sizeof name);
    if (!get_mtu(change.v, VPN_ID_TRANSPORT, name, &mtu) || mtu + PPPOE_HEADER <= change.mtu)
        return 0;
    return validate_refuse(change.v,
                           "PPP interface (%s) mtu (%u) needs to be at least 8 bytes less than the bound physical "
                           "interface (%s) mtu (%u)",
                           name, mtu, change.name, change.mtu);
}

// ---- sub-interfaces, in whatever VPN

bool is_child_of(const char *name, const char *parent)
{
    size_t length = strlen(parent);
    return strncmp(name, parent, length) == 0 && name[length] == '.';
}

int check_children_in(const size_change_t &change, uint64_t vpn_id)
{
    validate_list_t interfaces(change.v, "/vpn/vpn-instance{%lu}/interface", vpn_id);
    while (interfaces.next()) {
        char name[VALIDATE_NAME_SIZE];
        uint32_t mtu;
        cfgmgr_config_text(interfaces.cursor.keys[0], name, sizeof name);
        if (!is_child_of(name, change.name))
            continue;
        if (!get_mtu(change.v, static_cast<int64_t>(vpn_id), name, &mtu))
            return validate_refuse_agent(change.v, "Cannot get sub interface mtu ");
        if (mtu + VLAN_HEADER > change.mtu)
            return validate_refuse(change.v,
                                   "Parent interface MTU needs to be at least 4 bytes more than tagged interface (%s) "
                                   "mtu (%u) in vpn %lu",
                                   name, mtu, vpn_id);
    }
    return interfaces.is_open ? 0 : validate_refuse_agent(change.v, "Failed to initialise maapi cursor for interface ");
}

int check_children(const size_change_t &change)
{
    if (!is_in_transport_vpn(change))
        return 0;
    validate_list_t vpns(change.v, "/vpn/vpn-instance");
    while (vpns.next()) {
        if (check_children_in(change, CONFD_GET_UINT64(&vpns.cursor.keys[0])) != 0)
            return CONFD_ERR;
    }
    return vpns.is_open ? 0 : validate_refuse_agent(change.v, "Failed to initialise maapi cursor  ");
}

// A size that is taken back is the model's default.
uint32_t mtu_of(const confd_value_t &newval)
{
    return cfgmgr_config_is_deleted(newval) ? IF_MTU_DEFAULT : static_cast<uint32_t>(cfgmgr_config_number(newval));
}

} // namespace

int cfgmgr_validate_if_mtu(confd_trans_ctx *tctx, const confd_hkeypath_t *kp, int64_t vpn_id, const char *cli_name,
                           uint32_t mtu, const confd_value_t *newval)
{
    constexpr int (*rules[])(const size_change_t &change) = {
        check_cellular, check_conflict, check_tagged, check_ppp, check_session, check_children,
    };
    size_change_t change = { validate_of(tctx), kp, newval, vpn_id, cli_name, mtu };
    for (auto rule : rules) {
        if (rule(change) != 0)
            return CONFD_ERR;
    }
    return 0;
}

int cfgmgr_validate_bridge_if_mtu(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    char name[VALIDATE_NAME_SIZE];
    validate_if_key(kp, name);
    return cfgmgr_validate_if_mtu(tctx, kp, VPN_ID_OF_BRIDGE, name, mtu_of(*newval), newval);
}

int cfgmgr_validate_vpn_if_mtu(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    char name[VALIDATE_NAME_SIZE];
    validate_if_key(kp, name);
    return cfgmgr_validate_if_mtu(tctx, kp, static_cast<int64_t>(validate_vpn_key(kp)), name, mtu_of(*newval), newval);
}

int cfgmgr_validate_vpn_if_tcp_mss(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return 0;
    validate_t v = validate_of(tctx);
    auto size = static_cast<uint32_t>(cfgmgr_config_number(*newval));
    char name[VALIDATE_NAME_SIZE];
    validate_if_key(kp, name);
    bool is_modem = validate_vpn_key(kp) == VPN_ID_TRANSPORT && strstr(name, "cellular") != nullptr;
    if (is_modem && size > TCP_MSS_CELLULAR_MAX)
        return validate_refuse(v, "Must be less than the default value %u", TCP_MSS_CELLULAR_MAX);
    if (strstr(name, "ppp") != nullptr && size > TCP_MSS_PPP_MAX)
        return validate_refuse(v, "Must be less than the max value %u", TCP_MSS_PPP_MAX);
    return 0;
}
