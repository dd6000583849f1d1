// The handler of an interface in a VPN: creation and deletion of the record, the walk over its changes, and what follows
// from them all together.

#include "cfgmgr/network/cfgmgr_config_vpn_if.h"

#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "cfgmgr/network/cfgmgr_bridge.h"
#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_config_vpn_if_leaf.h"
#include "cfgmgr/network/cfgmgr_if_kind.h"
#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_kernel_phy.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "yang/corvane-vpn.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace
{

bool starts_with(const char *name, const char *prefix)
{
    return strncmp(name, prefix, strlen(prefix)) == 0;
}

// ---- the walk

// Gives the depth behind the entry. Lists and containers that are not walked here are stepped over as a whole: what
// they hold may have the names of leaves of the interface.
int depth_after(int depth, const confd_value_t &value)
{
    if (value.type == C_XMLBEGIN || value.type == C_XMLBEGINDEL)
        return depth + 1;
    return value.type == C_XMLEND ? depth - 1 : depth;
}

void apply_changes(vpn_if_change_t &change, std::span<const confd_tag_value_t> entries)
{
    int depth = 0;
    for (const confd_tag_value_t &entry : entries) {
        int after = depth_after(depth, entry.v);
        int level = std::min(depth, after); // of the entry itself: both marks of a container are at its parent's
        if (level == 0)
            cfgmgr_config_vpn_if_leaf(change, VPN_IF_TOP, entry);
        else if (level == 1 && change.family != 0)
            cfgmgr_config_vpn_if_leaf(change, VPN_IF_FAMILY, entry);
        depth = after;
    }
}

// ---- what follows

void set_link(vpn_if_change_t &change)
{
    if (!change.pause_changed && !change.link_changed)
        return;
    (void)cfgmgr_kernel_phy_set(change.if_p, change.phy, false);
    if (!change.link_changed || change.if_p->shutdown != 0)
        return;
    (void)cfgmgr_if_enable(change.if_p, false);
    (void)cfgmgr_if_enable(change.if_p, true);
}

// The forwarding plane has a twin of each port, in VPN 0 whatever the port's VPN.
void update_twin(const vpn_if_change_t &change)
{
    if (change.if_p->type != IF_TYPE_IRB)
        cfgmgr_kernel_twin_update(change.cfgmgrd_p, *change.if_p, change.mac_changed ? change.mac : 0,
                                  change.mtu_changed ? change.if_p->mtu : 0);
}

void change_interface(const vpn_if_key_t &key, int32_t op, cfgmgr_if_t *if_p,
                      std::span<const confd_tag_value_t> entries)
{
    tip_assert(if_p->vpn_p != nullptr);
    vpn_if_change_t change{};
    change.cfgmgrd_p = key.cfgmgrd_p;
    change.vpn_id = key.vpn_id;
    change.op = op;
    change.if_p = if_p;
    change.port_p = key.port_p;
    change.phy = if_p->phy;

    // Many operations on the way enter the namespace by themselves and leave the thread in the first one, so nothing in
    // the walk may count on being inside: cfgmgr_if_enable, whose routes are set by commands there, sees to it too.
    cfgmgr_set_ns(key.cfgmgrd_p, key.vpn_id);
    apply_changes(change, entries);
    if_p->native_vlan = 0;
    set_link(change);
    if ((if_p->flags & IF_LOOPBACK) != 0)
        (void)cfgmgr_kernel_loopback_set(if_p, false);
    cfgmgr_reset_ns(key.cfgmgrd_p, key.vpn_id);
    update_twin(change);
}

// ---- life

void delete_interface(const vpn_if_key_t &key)
{
    cfgmgr_if_t *if_p = cfgmgr_config_if_find(key, nullptr);
    if (if_p == nullptr)
        return;
    if (if_p->type == IF_TYPE_BRIDGE_PORT)
        cfgmgr_bridge_if_remove(key.cfgmgrd_p, if_p);
    cfgmgr_if_delete_by_name(key.cfgmgrd_p, key.vpn_id, key.name);
}

// A port that a host was given while the daemon runs has no record before the next start, though it is there for those
// who ask the kernel.
bool has_parent(const vpn_if_key_t &key)
{
    if ((cfgmgr_if_kind_of(key.name).flags & IF_SUBIF) == 0)
        return true;
    char parent_name[IF_NAME_SIZE];
    (void)cfgmgr_if_base_name(key.name, parent_name, sizeof parent_name); // no longer than the name
    return cfgmgr_if_find(key.cfgmgrd_p, parent_name, nullptr, nullptr) != nullptr;
}

// Null for a name that the device has no interface for, which is no error: a port may be of a module that is not
// plugged in.
cfgmgr_if_t *create_interface(const vpn_if_key_t &key)
{
    cfgmgr_if_t *if_p = nullptr;
    cfgmgr_if_type_t type = starts_with(key.name, "irb") ? IF_TYPE_IRB : IF_TYPE_PLAIN;
    int result = CFGMGR_IF_NOT_PROVISIONED;
    if (key.is_convertible && has_parent(key))
        result = cfgmgr_if_find_or_create(key.cfgmgrd_p, static_cast<uint32_t>(key.vpn_id), key.name, &if_p, type);
    if (result == CFGMGR_IF_OK)
        return if_p;
    if (result != CFGMGR_IF_NOT_PROVISIONED) {
        tip_log("Failed to create interface - vpn: %lu, if: %s", key.vpn_id, key.name);
        tip_assert(result == CFGMGR_IF_OK);
    }
    tip_log("Interface %s not provisioned", key.name);
    return nullptr;
}

} // namespace

vpn_if_key_t cfgmgr_config_if_key(const tconfd_sub &row, const confd_value_t *keys)
{
    const confd_value_t *key_p = &keys[0];
    tip_assert((key_p)->type == C_UINT64);
    vpn_if_key_t key{};
    key.cfgmgrd_p = static_cast<cfgmgrd_t *>(row.ctx->reg.app_ctx);
    key.vpn_id = CONFD_GET_UINT64(key_p);
    char cli_name[IF_NAME_SIZE];
    cfgmgr_config_text(keys[1], cli_name, sizeof cli_name);
    key.is_convertible = cfgmgr_if_cli_to_kernel_name(cli_name, key.name, sizeof key.name, &key.port_p) != nullptr;
    return key;
}

cfgmgr_if_t *cfgmgr_config_if_find(const vpn_if_key_t &key, int *error)
{
    if (key.is_convertible)
        return cfgmgr_if_find(key.cfgmgrd_p, key.name, nullptr, error);
    if (error != nullptr)
        *error = CFGMGR_IF_NOT_PROVISIONED;
    return nullptr;
}

bool cfgmgr_config_if_is_pool_name(const char *name)
{
    return starts_with(name, "natpool");
}

int32_t cfgmgr_config_vpn_if(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t num_tv,
                             confd_tag_value_t *tv)
{
    cfgmgr_timer_keepalive();
    vpn_if_key_t key = cfgmgr_config_if_key(*row, keys);
    if (op == MOP_DELETED) {
        delete_interface(key);
        return 0;
    }
    cfgmgr_if_t *if_p = op == MOP_CREATED ? create_interface(key) : cfgmgr_config_if_find(key, nullptr);
    if (if_p != nullptr)
        change_interface(key, op, if_p, std::span<const confd_tag_value_t>(tv, num_tv));
    return 0;
}
