// Bridges in the kernel: the commands that make them and that put members in and take them out. What a member needs
// depends on its kind, and the order of the kinds is the order of the tests.

#include "cfgmgr/network/cfgmgr_bridge.h"
#include "cfgmgr/network/cfgmgr_kernel_command.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/tip_log.h"
#include "common/tip_text.h"

#include <charconv>
#include <cstring>
#include <net/if.h>
#include <string>

namespace
{

constexpr char ADD_BRIDGE[] = "brctl addbr %d";
constexpr char DEL_BRIDGE[] = "brctl delbr %d";
constexpr char ADD_MEMBER[] = "brctl addif %d %s";
constexpr char DEL_MEMBER[] = "brctl delif %d %s";
constexpr char PROMISC_ON[] = "ifconfig %s promisc";
constexpr char PROMISC_OFF[] = "ifconfig %s -promisc";

constexpr char VAP_PREFIX[] = "vap";
constexpr size_t VAP_PREFIX_LENGTH = sizeof VAP_PREFIX - 1;

int result_of(bool is_done)
{
    return is_done ? CFGMGR_KERNEL_OK : CFGMGR_KERNEL_BAD_ARGUMENT;
}

bool is_vap(const cfgmgr_if_t &interface)
{
    return strncmp(interface.name, VAP_PREFIX, VAP_PREFIX_LENGTH) == 0;
}

int add_vap(uint32_t bridge_id, cfgmgr_if_t *if_p)
{
    const char *digits = if_p->name + VAP_PREFIX_LENGTH;
    uint32_t number = 0;
    if (std::from_chars(digits, digits + strlen(digits), number).ec != std::errc()) {
        tip_log("Interface: %s, Error finding vap port number\n", if_p->name);
        return CFGMGR_KERNEL_IF_FAILED;
    }
    if_p->vlan_id = number + 1;
    if_p->flags |= IF_VAP;
    tip_log("Added Interface %s if type %d, vlan %u to bridge %d", if_p->name, if_p->type, if_p->vlan_id, bridge_id);
    return cfgmgr_kernel_wlan_internal_if_add(if_p);
}

int del_vap(uint32_t bridge_id, cfgmgr_if_t *if_p)
{
    tip_log("Deleting Interface %s if type %d, vlan %u from bridge %d", if_p->name, if_p->type, if_p->vlan_id,
            bridge_id);
    return cfgmgr_kernel_wlan_internal_if_delete(if_p);
}

// Only the last step decides. The device may be there already: its entry into VPN 0 makes it, and so has an earlier run
// of the daemon.
int add_subif(uint32_t bridge_id, cfgmgr_if_t *if_p)
{
    if ((if_p->flags & IF_PRESENT) == 0 && if_p->parent_p != nullptr)
        (void)cfgmgr_kernel_subif_add(if_p->parent_p->name, if_p->vlan_id, if_p);
    (void)cfgmgr_kernel_run(cfgmgr_kernel_format(PROMISC_ON, if_p->name));
    return result_of(cfgmgr_kernel_run(cfgmgr_kernel_format(ADD_MEMBER, bridge_id, if_p->name)));
}

int del_from_bridge(uint32_t bridge_id, cfgmgr_if_t *if_p)
{
    (void)cfgmgr_kernel_run(cfgmgr_kernel_format(DEL_MEMBER, bridge_id, if_p->name));
    (void)cfgmgr_kernel_run(cfgmgr_kernel_format(PROMISC_OFF, if_p->name));
    if ((if_p->flags & IF_SUBIF) != 0)
        return cfgmgr_kernel_subif_delete(cfgmgr_kernel_vpn_of(*if_p), if_p);
    return (if_p->flags & IF_VAP) != 0 ? CFGMGR_KERNEL_OK : CFGMGR_KERNEL_BAD_ARGUMENT;
}

} // namespace

int cfgmgr_bridge_add(cfgmgr_bridge_t *bridge_p)
{
    // The kernel's bridges outlive the daemon: one that an earlier run has left behind serves as well as a new one.
    bool is_made = cfgmgr_kernel_run(cfgmgr_kernel_format(ADD_BRIDGE, bridge_p->bridge_id));
    return result_of(is_made || if_nametoindex(std::to_string(bridge_p->bridge_id).c_str()) != 0);
}

int cfgmgr_bridge_del(cfgmgr_bridge_t *bridge_p)
{
    return result_of(cfgmgr_kernel_run(cfgmgr_kernel_format(DEL_BRIDGE, bridge_p->bridge_id)));
}

int cfgmgr_bridge_if_add(uint32_t bridge_id, cfgmgr_if_t *if_p)
{
    if ((if_p->flags & IF_SUBIF) != 0)
        return add_subif(bridge_id, if_p);
    if (is_vap(*if_p))
        return add_vap(bridge_id, if_p);
    if (cfgmgr_if_is_physical(*if_p)) {
        (void)cfgmgr_kernel_run(cfgmgr_kernel_format(
            PROMISC_ON, if_p->name)); // all that is asked of the kernel: the forwarding plane switches its frames
        return CFGMGR_KERNEL_OK;
    }
    if ((if_p->flags & IF_INTERNAL) != 0)
        return result_of(cfgmgr_kernel_run(cfgmgr_kernel_format(ADD_MEMBER, bridge_id, if_p->name)));
    return (if_p->flags & IF_VAP) != 0 ? CFGMGR_KERNEL_OK : CFGMGR_KERNEL_BAD_ARGUMENT;
}

int cfgmgr_bridge_if_del(uint32_t bridge_id, cfgmgr_if_t *if_p)
{
    if (is_vap(*if_p))
        return del_vap(bridge_id, if_p);
    if (cfgmgr_if_is_physical(*if_p)) {
        (void)cfgmgr_kernel_run(cfgmgr_kernel_format(PROMISC_OFF, if_p->name));
        return CFGMGR_KERNEL_OK;
    }
    return del_from_bridge(bridge_id, if_p);
}

int cfgmgr_bridge_enable(cfgmgrd_t *cfgmgrd_p, cfgmgr_bridge_t *bridge_p, uint64_t vpn_id, bool is_up)
{
    if (cfgmgrd_p == nullptr) {
        tip_log("Invalid cfgmgr pointer");
        return CFGMGR_KERNEL_BAD_ARGUMENT;
    }
    cfgmgr_if_t device{};
    device.vpn_p = cfgmgr_vpn_find(cfgmgrd_p, vpn_id, nullptr);
    if (device.vpn_p == nullptr) {
        tip_log("VPN context not found");
        return CFGMGR_KERNEL_BAD_ARGUMENT;
    }
    strlcpy(device.name, bridge_p->name, sizeof device.name);
    tip_log("vpn %lu, enable %d, bridge %s", vpn_id, is_up, bridge_p->name);
    return cfgmgr_kernel_ifflags_set(&device, is_up);
}
