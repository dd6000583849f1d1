// Devices by kind: what makes them, moves them and takes them away.

#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_kernel_command.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "chmgr/chmgr_sim.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "common/tip_text.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <linux/if_tun.h>
#include <unistd.h>

namespace
{

constexpr char MOVE_TO_VPN[] = "/sbin/ip link set %s netns %lu";
constexpr char MOVE_BACK[] = "/sbin/ip netns exec %lu ip link set %s netns %d";
constexpr char VLAN_ADD[] = "ip link add link %s name %s type vlan id %d";
constexpr char VLAN_MTU[] = "ifconfig %s mtu %u";
constexpr char VLAN_DELETE[] = "ip link delete %s type vlan";
constexpr char VLAN_DELETE_IN_VPN[] = "ip netns exec %lu ip link delete %s type vlan";
constexpr char GRE_ADD[] = "ip tunnel add %s mode gre remote %s local %s ttl 255";
constexpr char GRE_ADD_IN_VPN[] = "ip netns exec %lu ip tunnel add %s mode gre remote %s local %s ttl 255";
constexpr char GRE_DELETE[] = "ip tunnel delete %s";
constexpr char GRE_DELETE_IN_VPN[] = "ip netns exec %lu ip tunnel delete %s";
constexpr char CELLULAR_ADD[] = "ip link add link loop2 name %s address %s type vlan id %d";
constexpr char INTERNAL_MAC[] = "ip link set dev %s address 0:0:0:0:%d:1";
constexpr char WLAN_LEG_MAC[] = "ip link set dev %s address 0:%u:0:0:%u:1";
constexpr char BRIDGE_ADD[] = "brctl addbr %s%u";
constexpr char BRIDGE_DELETE[] = "brctl delbr %s%u";
constexpr char BRIDGE_IF_ADD[] = "brctl addif %s%u %s";
constexpr char BRIDGE_IF_DELETE[] = "brctl delif %s%u %s";
constexpr char BRIDGE_UP[] = "ip link set %s%u  up"; // two blanks, deliberately
constexpr char BRIDGE_DOWN[] = "ip link set %s%u down";
constexpr char LINK_UP[] = "ip link set %s up";
constexpr char LINK_DOWN[] = "ip link set %s down";
constexpr char LINK_MAC[] = "ip link set %s address %02x:%02x:%02x:%02x:%02x:%02x";
constexpr char OFFLOAD_OFF[] = "ethtool -K %s gso off gro off";

constexpr char LOOP_MARK[] = "loop";
constexpr char WWAN_MARK[] = "wwan";
constexpr char VAP_PREFIX[] = "vap";
constexpr char WLAN_BRIDGE[] = "wlan";
constexpr int INTERNAL_MAC_BYTE = 10;
constexpr int TUN_EXCLUSIVE = IFF_TUN | IFF_TUN_EXCL;
static_assert(TUN_EXCLUSIVE == 0x8001);

int result_of(bool done)
{
    return done ? CFGMGR_KERNEL_OK : CFGMGR_KERNEL_IF_FAILED;
}

bool is_wwan(const cfgmgr_if_t &interface)
{
    return strstr(interface.name, WWAN_MARK) != nullptr;
}

// Of digits at the start of the text; 0 without any.
uint32_t leading_number(const char *text)
{
    uint32_t number = 0;
    std::from_chars(text, text + strlen(text), number);
    return number;
}

bool add_vlan(const char *parent, const char *name, uint32_t vlan_id)
{
    return cfgmgr_kernel_run(cfgmgr_kernel_format(VLAN_ADD, parent, name, static_cast<int>(vlan_id)));
}

struct mac_bytes {
    uint8_t at[MAC_BYTES];
    explicit mac_bytes(uint64_t mac)
    {
        for (size_t i = 0; i < MAC_BYTES; i++)
            at[i] = static_cast<uint8_t>(mac >> (8 * (MAC_BYTES - 1 - i)));
    }
};

} // namespace

// ---- between VPNs

int cfgmgr_kernel_if_move(uint64_t src_vpn_id, uint64_t dest_vpn_id, const cfgmgr_if_t *if_p)
{
    if (src_vpn_id == dest_vpn_id)
        return CFGMGR_KERNEL_OK;
    tip_assert((src_vpn_id == 0) || (dest_vpn_id == 0));
    // The daemon's own process stands for the first namespace, where it lives.
    kernel_command_t command = dest_vpn_id != VPN_ID_TRANSPORT
                                   ? cfgmgr_kernel_format(MOVE_TO_VPN, if_p->name, dest_vpn_id)
                                   : cfgmgr_kernel_format(MOVE_BACK, src_vpn_id, if_p->name, getpid());
    if (cfgmgr_kernel_try(command))
        return CFGMGR_KERNEL_OK;
    tip_log("Command Failed: %s, errno: %d", command.text, errno);
    return CFGMGR_KERNEL_IF_FAILED;
}

// ---- VLANs

int cfgmgr_kernel_subif_add(const char *parent, uint32_t vlan_id, cfgmgr_if_t *if_p)
{
    if (!add_vlan(parent, if_p->name, vlan_id))
        return CFGMGR_KERNEL_IF_FAILED;
    bool is_on_loop = strstr(parent, LOOP_MARK) != nullptr;
    if (is_on_loop && !cfgmgr_kernel_run(cfgmgr_kernel_format(VLAN_MTU, if_p->name, KERNEL_LOOP_MTU)))
        return CFGMGR_KERNEL_IF_FAILED;
    if_p->flags |= IF_PRESENT;
    return CFGMGR_KERNEL_OK;
}

int cfgmgr_kernel_subif_delete(uint64_t vpn_id, cfgmgr_if_t *if_p)
{
    if (!cfgmgr_kernel_run(vpn_id != VPN_ID_TRANSPORT ? cfgmgr_kernel_format(VLAN_DELETE_IN_VPN, vpn_id, if_p->name)
                                                      : cfgmgr_kernel_format(VLAN_DELETE, if_p->name)))
        return CFGMGR_KERNEL_IF_FAILED;
    if_p->flags &= ~IF_PRESENT;
    return CFGMGR_KERNEL_OK;
}

// The device is marked even when it could not be made with that address: the modem's interface is there in any case.
int cfgmgr_kernel_cellular_add(uint64_t vpn_id, cfgmgr_if_t *if_p)
{
    kernel_ns_t inside(vpn_id);
    char mac[MAC_TEXT_SIZE];
    kernel_command_t command = cfgmgr_kernel_format(
        CELLULAR_ADD, if_p->name, mac_to_text(mac_bytes(if_p->default_mac).at, mac), static_cast<int>(if_p->vlan_id));
    if (!cfgmgr_kernel_try(command))
        tip_log("Command Failed: %s %d", command.text, errno);
    if_p->flags |= IF_PRESENT;
    return CFGMGR_KERNEL_OK;
}

int cfgmgr_kernel_cellular_delete(uint64_t vpn_id, cfgmgr_if_t *if_p)
{
    kernel_ns_t inside(vpn_id);
    if (!cfgmgr_kernel_run(cfgmgr_kernel_format(VLAN_DELETE, if_p->name)))
        return CFGMGR_KERNEL_IF_FAILED;
    if_p->flags &= ~IF_PRESENT;
    return CFGMGR_KERNEL_OK;
}

// The modem's own device is there already and is only moved; the forwarding plane's leg is made.
int cfgmgr_kernel_internal_if_add(uint64_t vpn_id, cfgmgr_if_t *if_p)
{
    if (!is_wwan(*if_p)) {
        char parent[IF_NAME_SIZE];
        cfgmgr_if_base_name(if_p->name, parent, sizeof parent);
        const char *dot = strchr(if_p->name, '.');
        int result = cfgmgr_kernel_subif_add(parent, dot != nullptr ? leading_number(dot + 1) : 0, if_p);
        if (result != CFGMGR_KERNEL_OK)
            return result;
    }
    int result = cfgmgr_kernel_if_move(VPN_ID_TRANSPORT, vpn_id, if_p);
    if (result != CFGMGR_KERNEL_OK || is_wwan(*if_p))
        return result;
    kernel_ns_t inside(vpn_id);
    return result_of(cfgmgr_kernel_run(cfgmgr_kernel_format(INTERNAL_MAC, if_p->name, INTERNAL_MAC_BYTE)));
}

int cfgmgr_kernel_internal_if_delete(uint64_t vpn_id, cfgmgr_if_t *if_p)
{
    if ((if_p->flags & IF_PRESENT) == 0)
        return CFGMGR_KERNEL_OK;
    kernel_ns_t inside(vpn_id);
    if (!cfgmgr_kernel_run(cfgmgr_kernel_format(VLAN_DELETE, if_p->name)))
        return CFGMGR_KERNEL_IF_FAILED;
    if_p->flags &= ~IF_PRESENT;
    return CFGMGR_KERNEL_OK;
}

// ---- tunnels

// Whether the device was made or not, the record is marked, so that the next reprogramming begins with a delete.
int cfgmgr_kernel_if_gre_add(uint64_t vpn_id, cfgmgr_if_t *if_p)
{
    if (ip_addr_is_zero(if_p->tunnel_src) || ip_addr_is_zero(if_p->tunnel_dst))
        return CFGMGR_KERNEL_OK;
    char remote[IP_ADDR_TEXT];
    char local[IP_ADDR_TEXT];
    ip_addr_to_str(if_p->tunnel_dst, remote, sizeof remote);
    ip_addr_to_str(if_p->tunnel_src, local, sizeof local);
    kernel_ns_t inside(vpn_id);
    bool done = cfgmgr_kernel_try(vpn_id != VPN_ID_TRANSPORT
                                      ? cfgmgr_kernel_format(GRE_ADD_IN_VPN, vpn_id, if_p->name, remote, local)
                                      : cfgmgr_kernel_format(GRE_ADD, if_p->name, remote, local));
    if (!done)
        tip_log("GRE tunnel add failed for %s - remote %s - local %s", if_p->name, remote, local);
    if_p->flags |= IF_PRESENT;
    return result_of(done);
}

int cfgmgr_kernel_if_gre_delete(uint64_t vpn_id, cfgmgr_if_t *if_p)
{
    if ((if_p->flags & IF_PRESENT) == 0)
        return CFGMGR_KERNEL_OK;
    bool done =
        cfgmgr_kernel_try(vpn_id != VPN_ID_TRANSPORT ? cfgmgr_kernel_format(GRE_DELETE_IN_VPN, vpn_id, if_p->name)
                                                     : cfgmgr_kernel_format(GRE_DELETE, if_p->name));
    if (!done)
        tip_log("GRE tunnel delete failed for %s", if_p->name);
    if_p->flags &= ~IF_PRESENT;
    return result_of(done);
}

// ---- loopbacks

int cfgmgr_kernel_loopback_add(uint64_t vpn_id, cfgmgr_if_t *if_p)
{
    kernel_ns_t inside(vpn_id);
    int tun = cfgmgr_tun_alloc(if_p->name, TUN_EXCLUSIVE);
    if (tun < 0) {
        tip_log("Failed to add loopback interface %s", if_p->name);
        return CFGMGR_KERNEL_IF_FAILED;
    }
    if_p->tun_sock = tun;
    if_p->flags |= IF_PRESENT;
    return CFGMGR_KERNEL_OK;
}

// The descriptor is gone whatever close(2) says, and the device with it.
int cfgmgr_kernel_loopback_delete(uint64_t, cfgmgr_if_t *if_p)
{
    if ((if_p->flags & IF_PRESENT) == 0)
        return CFGMGR_KERNEL_OK;
    tip_assert(if_p->tun_sock > 0);
    bool done = close(if_p->tun_sock) == 0;
    if (!done)
        tip_log("failed closing tun %s sock %d: %s", if_p->name, if_p->tun_sock, strerror(errno));
    if_p->tun_sock = -1;
    if_p->flags &= ~IF_PRESENT;
    return result_of(done);
}

// ---- access points

namespace
{

// An access point, its leg to the forwarding plane and the bridge that holds both.
struct wlan_t {
    uint32_t number; // of the access point and of the bridge
    uint32_t tag;
    char leg[IF_NAME_SIZE];
    explicit wlan_t(const cfgmgr_if_t &interface) : tag(interface.vlan_id)
    {
        bool is_vap = strncmp(interface.name, VAP_PREFIX, strlen(VAP_PREFIX)) == 0;
        number = is_vap ? leading_number(interface.name + strlen(VAP_PREFIX)) : 0;
        (void)snprintf(leg, sizeof leg, "%s.%u", KERNEL_PARENT_WLAN, tag); // fits
    }
};

} // namespace

int cfgmgr_kernel_wlan_internal_if_add(cfgmgr_if_t *if_p)
{
    wlan_t wlan(*if_p);
    bool done = add_vlan(KERNEL_PARENT_WLAN, wlan.leg, wlan.tag) &&
                cfgmgr_kernel_run(cfgmgr_kernel_format(WLAN_LEG_MAC, wlan.leg, wlan.number, wlan.tag)) &&
                cfgmgr_kernel_run(cfgmgr_kernel_format(BRIDGE_ADD, WLAN_BRIDGE, wlan.number)) &&
                cfgmgr_kernel_run(cfgmgr_kernel_format(BRIDGE_IF_ADD, WLAN_BRIDGE, wlan.number, wlan.leg)) &&
                cfgmgr_kernel_run(cfgmgr_kernel_format(BRIDGE_IF_ADD, WLAN_BRIDGE, wlan.number, if_p->name)) &&
                cfgmgr_kernel_run(cfgmgr_kernel_format(LINK_UP, wlan.leg)) &&
                cfgmgr_kernel_run(cfgmgr_kernel_format(BRIDGE_UP, WLAN_BRIDGE, wlan.number));
    if (done)
        if_p->flags |= IF_PRESENT;
    return result_of(done);
}

// What is half made or half gone goes all the same: each step is done whatever became of the one before.
int cfgmgr_kernel_wlan_internal_if_delete(cfgmgr_if_t *if_p)
{
    wlan_t wlan(*if_p);
    const kernel_command_t commands[] = {
        cfgmgr_kernel_format(BRIDGE_IF_DELETE, WLAN_BRIDGE, wlan.number, if_p->name),
        cfgmgr_kernel_format(BRIDGE_IF_DELETE, WLAN_BRIDGE, wlan.number, wlan.leg),
        cfgmgr_kernel_format(BRIDGE_DOWN, WLAN_BRIDGE, wlan.number),
        cfgmgr_kernel_format(BRIDGE_DELETE, WLAN_BRIDGE, wlan.number),
        cfgmgr_kernel_format(VLAN_DELETE, wlan.leg),
    };
    bool done = true;
    for (const kernel_command_t &command : commands)
        done = cfgmgr_kernel_run(command) && done;
    if_p->flags &= ~IF_PRESENT;
    return result_of(done);
}

// ---- settings

int cfgmgr_kernel_if_update_mac(const char *name, uint64_t mac, bool is_up)
{
    mac_bytes byte(mac);
    kernel_command_t set_mac =
        cfgmgr_kernel_format(LINK_MAC, name, byte.at[0], byte.at[1], byte.at[2], byte.at[3], byte.at[4], byte.at[5]);
    return result_of(cfgmgr_kernel_run(cfgmgr_kernel_format(LINK_DOWN, name)) && cfgmgr_kernel_run(set_mac) &&
                     (!is_up || cfgmgr_kernel_run(cfgmgr_kernel_format(LINK_UP, name))));
}

void cfgmgr_kernel_if_set_tso_off(uint64_t vpn_id, const cfgmgr_if_t *if_p)
{
    if (strncmp(if_p->name, VAP_PREFIX, strlen(VAP_PREFIX)) == 0)
        return;
    kernel_ns_t inside(vpn_id);
    if (!cfgmgr_kernel_try(cfgmgr_kernel_format(OFFLOAD_OFF, if_p->name)))
        tip_log("Unable to turn segmentation offload off on %s", if_p->name);
}
