// Handlers of the configuration of bridges and their members.
//
// A member is configured under its port's name. In a bridge with a VLAN it is the port's sub-interface of that tag, the
// tagged leg; a leg that serves the untagged VLAN as well has the port itself in the bridge beside it, the base port.
// A commit has passed validation: what cannot be made ends the process.

#include "cfgmgr/network/cfgmgr_config_bridge.h"

#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "cfgmgr/network/cfgmgr_bridge.h"
#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_kernel_phy.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "common/tip_text.h"
#include "yang/corvane-bridge.h"

#include <cstring>

namespace
{

constexpr int CONFIG_FAILED = 1;

// One delivery for one member.
struct member_change_t {
    cfgmgrd_t *cfgmgrd_p;
    cfgmgr_bridge_t *bridge_p;
    char cli_name[IF_NAME_SIZE];
    char name[IF_KERNEL_NAME_SIZE]; // of the member
    chmgr_port_t *port;             // null for an access point
    cfgmgr_if_t *if_p = nullptr;    // the member's record
    uint32_t native_vlan = 0;       // wanted
    bool has_mtu = false;           // the delivery holds the leaf
    bool mtu_changed = false;       // the twin has to follow
    uint64_t mac = 0;               // given to the member just now; 0 none
};

uint32_t bridge_id_of(confd_value_t *key_p)
{
    tip_assert((key_p)->type == C_UINT32);
    return CONFD_GET_UINT32(key_p);
}

// Calls the row's action for each leaf of the entry itself; what lies deeper belongs to other handlers.
template <typename target_t> struct leaf_action_t {
    uint32_t tag;
    void (*apply)(target_t &target, const confd_value_t &value);
};
template <typename target_t, size_t count>
void apply_leaves(const leaf_action_t<target_t> (&actions)[count], target_t &target, uint16_t num_tv,
                  const confd_tag_value_t *tv)
{
    int depth = 0;
    for (uint16_t i = 0; i < num_tv; i++) {
        int type = tv[i].v.type;
        if (type == C_XMLEND)
            depth--;
        for (const leaf_action_t<target_t> &action : actions) {
            if (depth == 0 && action.tag == tv[i].tag.tag)
                action.apply(target, tv[i].v);
        }
        if (type == C_XMLBEGIN || type == C_XMLBEGINDEL)
            depth++;
    }
}

// ---- bridges

void apply_vlan(cfgmgr_bridge_t &bridge, const confd_value_t &value)
{
    bool is_deleted = cfgmgr_config_is_deleted(value);
    bridge.vlan = is_deleted ? BRIDGE_VLAN_DELETED : static_cast<uint16_t>(cfgmgr_config_number(value));
}

constexpr leaf_action_t<cfgmgr_bridge_t> bridge_actions[] = {
    { bridge_vlan, apply_vlan },
};

cfgmgr_bridge_t *make_bridge(cfgmgrd_t *cfgmgrd_p, uint32_t bridge_id)
{
    int result = cfgmgr_bridge_find_or_create(cfgmgrd_p, bridge_id);
    if (result != 0) {
        tip_log("Failed to create bridge: %d", bridge_id);
        tip_assert(result == 0);
    }
    cfgmgr_bridge_t *bridge_p = cfgmgr_bridge_find(cfgmgrd_p, bridge_id, nullptr);
    if (bridge_p == nullptr) {
        tip_log("Failed to find bridge: %d", bridge_id);
        tip_assert(bridge_p != nullptr);
    }
    return bridge_p;
}

// ---- records of members

// 0 or CFGMGR_IF_NOT_PROVISIONED.
int make_member_record(member_change_t &change, const char *name, cfgmgr_if_t **out)
{
    uint32_t bridge_id = change.bridge_p->bridge_id;
    int result = cfgmgr_if_find_or_create(change.cfgmgrd_p, bridge_id, name, out, IF_TYPE_BRIDGE_PORT);
    if (result != 0 && result != CFGMGR_IF_NOT_PROVISIONED) {
        tip_log("Failed to create interface - bridge: %d, if: %s", bridge_id, name);
        tip_assert(result == 0);
    }
    return result;
}

bool create_member(member_change_t &change)
{
    if (make_member_record(change, change.name, &change.if_p) == 0)
        return true;
    tip_log("Interface %s not provisioned", change.name);
    return false;
}

// The port under a tagged leg; null for a member without one, which carries its untagged frames itself.
const char *base_port_name(const cfgmgr_if_t &member, char (&out)[IF_KERNEL_NAME_SIZE])
{
    return (member.flags & IF_SUBIF) != 0 ? cfgmgr_if_base_name(member.name, out, sizeof out) : nullptr;
}

void release_base_port(cfgmgrd_t *cfgmgrd_p, const cfgmgr_bridge_t *bridge_p, const char *name)
{
    cfgmgr_if_t *port_p = cfgmgr_if_find(cfgmgrd_p, name, nullptr, nullptr);
    if (port_p != nullptr && port_p->bridge_p == bridge_p)
        cfgmgr_bridge_if_remove(cfgmgrd_p, port_p);
}

void delete_member(member_change_t &change)
{
    cfgmgr_if_t *if_p = cfgmgr_if_find(change.cfgmgrd_p, change.name, nullptr, nullptr);
    if (if_p == nullptr)
        return;
    char buffer[IF_KERNEL_NAME_SIZE];
    const char *base = if_p->native_vlan != 0 ? base_port_name(*if_p, buffer) : nullptr;
    bool is_subif = (if_p->flags & IF_SUBIF) != 0;
    uint64_t vpn_id = if_p->vpn_p != nullptr ? if_p->vpn_p->vpn_id : VPN_ID_TRANSPORT;
    cfgmgr_bridge_if_remove(change.cfgmgrd_p, if_p);
    if (is_subif)
        cfgmgr_if_delete_by_name(change.cfgmgrd_p, vpn_id, change.name);
    if (base != nullptr)
        release_base_port(change.cfgmgrd_p, change.bridge_p, base);
}

// ---- leaves of a member

int kernel_sock(const member_change_t &change)
{
    const cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_find(change.cfgmgrd_p, VPN_ID_TRANSPORT, nullptr);
    tip_assert(vpn_p != nullptr);
    return vpn_p->kernel_sock;
}

void set_mtu(member_change_t &change, uint32_t mtu)
{
    change.if_p->mtu = mtu;
    (void)cfgmgr_kernel_if_set_mtu(kernel_sock(change), VPN_ID_TRANSPORT, change.if_p->name, mtu); // logged
    change.mtu_changed = true;
}

void apply_native_vlan(member_change_t &change, const confd_value_t &value)
{
    change.native_vlan = !cfgmgr_config_is_deleted(value) && cfgmgr_config_bool(value) ? 1 : 0;
}

void apply_mtu(member_change_t &change, const confd_value_t &value)
{
    change.has_mtu = true;
    bool is_deleted = cfgmgr_config_is_deleted(value);
    set_mtu(change, is_deleted ? IF_MTU_DEFAULT : static_cast<uint32_t>(cfgmgr_config_number(value)));
}

// Deleted: the model's default.
void apply_shutdown(member_change_t &change, const confd_value_t &value)
{
    bool is_shut = cfgmgr_config_is_deleted(value) || cfgmgr_config_bool(value);
    cfgmgr_if_enable(change.if_p, !is_shut);
    change.if_p->shutdown = is_shut ? 1 : 0;
}

constexpr leaf_action_t<member_change_t> member_actions[] = {
    { bridge_native_vlan, apply_native_vlan },
    { bridge_mtu, apply_mtu },
    { bridge_shutdown, apply_shutdown },
};

// ---- a new member

void set_chassis_mac(member_change_t &change)
{
    uint8_t bytes[MAC_BYTES] = {};
    if (change.port != nullptr)
        cfgmgr_chassis_port_mac(change.port, bytes);
    for (uint8_t byte : bytes)
        change.mac = change.mac << 8 | byte;
    if (change.mac == 0)
        return;
    cfgmgr_if_t *if_p = change.if_p;
    cfgmgr_if_enable(if_p, false);
    (void)cfgmgr_kernel_if_set_mac(kernel_sock(change), VPN_ID_TRANSPORT, if_p->name, change.mac); // logged
    if (if_p->shutdown == 0)
        cfgmgr_if_enable(if_p, true);
}

// Nothing of the VPN that the port was in before stays.
void reset_link(member_change_t &change)
{
    cfgmgr_if_t *if_p = change.if_p;
    cfgmgr_if_phy_t wanted = PHY_DEFAULT;
    wanted.autoneg = if_p->phy.autoneg; // no leaf of a bridge's member, so it is left as it is
    if (!change.has_mtu)
        set_mtu(change, IF_MTU_DEFAULT);
    (void)cfgmgr_kernel_phy_set(if_p, wanted, false); // logged
    if (if_p->shutdown != 0)
        return;
    cfgmgr_if_enable(if_p, false);
    cfgmgr_if_enable(if_p, true);
}

// ---- the untagged VLAN

int bind_base_port(member_change_t &change, const char *name)
{
    uint32_t bridge_id = change.bridge_p->bridge_id;
    cfgmgr_if_t *port_p = cfgmgr_if_find(change.cfgmgrd_p, name, nullptr, nullptr);
    if (port_p == nullptr) {
        tip_log("Native VLAN enabled but unable to find Interface %s in DB", name);
        return CONFIG_FAILED;
    }
    if (port_p->vpn_p != nullptr && port_p->vpn_p->vpn_id != VPN_ID_TRANSPORT) {
        tip_log("Unable to bind interface %s to bridge %d as native-vlan interface.  It belongs to vpn %lu", name,
                bridge_id, port_p->vpn_p->vpn_id);
        return CONFIG_FAILED;
    }
    if (port_p->bridge_p != change.bridge_p)
        cfgmgr_bridge_if_remove(change.cfgmgrd_p, port_p);
    if (make_member_record(change, name, &port_p) != 0) {
        tip_log("Interface %s not provisioned as native vlan if for bridge %d. Port not present", name, bridge_id);
        return 0;
    }
    if (port_p->shutdown == 0)
        cfgmgr_if_enable(port_p, true);
    return 0;
}

int apply_untagged_vlan(member_change_t &change)
{
    if (change.native_vlan == change.if_p->native_vlan)
        return 0;
    int result = 0;
    char buffer[IF_KERNEL_NAME_SIZE];
    const char *base = base_port_name(*change.if_p, buffer);
    if (base != nullptr && change.native_vlan != 0)
        result = bind_base_port(change, base);
    else if (base != nullptr)
        release_base_port(change.cfgmgrd_p, change.bridge_p, base);
    change.if_p->native_vlan = change.native_vlan;
    return result;
}

int configure_member(member_change_t &change, bool is_new, uint16_t num_tv, const confd_tag_value_t *tv)
{
    change.native_vlan = change.if_p->native_vlan;
    cfgmgr_set_ns(change.cfgmgrd_p, VPN_ID_TRANSPORT);
    apply_leaves(member_actions, change, num_tv, tv);
    if (is_new) {
        set_chassis_mac(change);
        reset_link(change);
    }
    int result = apply_untagged_vlan(change);
    cfgmgr_reset_ns(change.cfgmgrd_p, VPN_ID_TRANSPORT);
    cfgmgr_kernel_twin_update(change.cfgmgrd_p, *change.if_p, change.mac, change.mtu_changed ? change.if_p->mtu : 0);
    return result;
}

// A change of a member without a record is ignored, but for an access point: it comes and goes with its radio.
int change_member(member_change_t &change, int32_t op, uint16_t num_tv, const confd_tag_value_t *tv)
{
    bool is_new = op == MOP_CREATED;
    if (!is_new) {
        change.if_p = cfgmgr_if_find(change.cfgmgrd_p, change.name, nullptr, nullptr);
        if (change.if_p == nullptr && strncmp(change.name, "vap", 3) != 0)
            return 0;
        is_new = change.if_p == nullptr;
    }
    if (is_new && !create_member(change))
        return 0;
    return configure_member(change, is_new, num_tv, tv);
}

} // namespace

int32_t cfgmgr_config_bridge(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t num_tv,
                             confd_tag_value_t *tv)
{
    cfgmgr_timer_keepalive();
    auto *cfgmgrd_p = static_cast<cfgmgrd_t *>(row->ctx->reg.app_ctx);
    uint32_t bridge_id = bridge_id_of(&keys[0]);
    if (op == MOP_DELETED) {
        cfgmgr_bridge_delete_by_id(cfgmgrd_p, bridge_id);
        return 0;
    }
    apply_leaves(bridge_actions, *make_bridge(cfgmgrd_p, bridge_id), num_tv, tv);
    return 0;
}

int32_t cfgmgr_config_bridge_if(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t num_tv,
                                confd_tag_value_t *tv)
{
    cfgmgr_timer_keepalive();
    member_change_t change{};
    change.cfgmgrd_p = static_cast<cfgmgrd_t *>(row->ctx->reg.app_ctx);
    uint32_t bridge_id = bridge_id_of(&keys[0]);
    cfgmgr_config_text(keys[1], change.cli_name, sizeof change.cli_name);
    change.bridge_p = cfgmgr_bridge_find(change.cfgmgrd_p, bridge_id, nullptr);
    if (change.bridge_p == nullptr) {
        tip_log("Failed to %d interface - bridge: %d, if: %s because bridge doesn't exist", op, bridge_id,
                change.cli_name);
        return CONFIG_FAILED;
    }
    if (cfgmgr_if_bridge_port_name(change.cli_name, change.name, sizeof change.name, change.bridge_p->vlan,
                                   &change.port) == nullptr) {
        tip_log("Interface %s not provisioned", change.cli_name);
        return 0;
    }
    if (op != MOP_DELETED)
        return change_member(change, op, num_tv, tv);
    delete_member(change);
    return 0;
}
