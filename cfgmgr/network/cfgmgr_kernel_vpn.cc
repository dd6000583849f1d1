// Namespaces of VPNs and the taps that lead from them to the forwarding plane.

#include "cfgmgr/network/cfgmgr_kernel_vpn.h"

#include "cfgmgr/daemon/cfgmgr_sysmgr.h"
#include "cfgmgr/network/cfgmgr_kernel_command.h"
#include "cfgmgr/routing/cfgmgr_quagga_daemon.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "common/tip_text.h"

#include <cerrno>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr char NETNS_ADD[] = "ip netns add %lu";
constexpr char NETNS_FILES_ADD[] = "mkdir -p /etc/netns/%lu";
constexpr char NETNS_LOOPBACK_UP[] = "ip netns exec %lu ifconfig lo 127.0.0.1 netmask 255.255.255.0 up";
constexpr char NETNS_FILES_DELETE[] = "rm -rf /etc/netns/%lu";

// The link between a management system and its management VPN. Traffic from the system's own end has a routing table of
// its own, named after the VPN.
constexpr char VETH_ADD[] = "ip link add veth0%lu type veth peer name veth1%lu";
constexpr char VETH_MOVE[] = "ip link set veth1%lu netns %lu";
constexpr char VETH_HOST_UP[] = "ifconfig veth0%lu 169.254.0.254/30 up";
constexpr char VETH_VPN_UP[] = "ip netns exec %lu ifconfig veth1%lu 169.254.0.253/30 up";
constexpr char VETH_ROUTE[] = "ip route add default via 169.254.0.253 dev veth0%lu table %lu";
constexpr char VETH_RULE[] = "ip rule add from 169.254.0.254 table %lu";

constexpr char TAP_ADDRESS_V4[] = "ip netns exec %lu ip addr add %s/24 dev %s";
constexpr char TAP_ADDRESS_V6[] = "ip netns exec %lu ip addr add %s/120 dev %s";
constexpr char TAP_MAC[] = "ip netns exec %lu ip link set dev %s address %s";
constexpr char TAP_UP[] = "ip netns exec %lu ip link set %s up";
constexpr char TAP_NEIGHBOR_V4[] = "ip netns exec %lu ip neighbor add %s lladdr 00:00:01:02:03:04 nud permanent dev %s";
constexpr char TAP_NEIGHBOR_V6[] =
    "ip netns exec %lu ip -6 neighbor add %s lladdr 00:00:01:02:03:04 nud permanent dev %s";
constexpr char TAP_ROUTE_V4[] = "ip netns exec %lu route add default gw %s";
constexpr char TAP_ROUTE_V6[] = "ip netns exec %lu route -6 add default gw %s";
constexpr char TAP_DELETE[] = "ip netns exec %lu ip link delete %s.%u type vlan";

constexpr char IN_VPN_PREFIX[] = "ip netns exec %lu ";
constexpr char FP_TAP_MAC[] = "%sip link set dev %s address %s";
constexpr char FP_TAP_UP[] = "%sip link set %s up";

constexpr char LOCAL_V4[] = "127.1.0.1";
constexpr char LOCAL_V6[] = "FCFF::01";
constexpr char FORWARDING_PLANE_V4[] = "127.1.0.2";
constexpr char FORWARDING_PLANE_V6[] = "FCFF::02";

int result_of(bool done)
{
    return done ? CFGMGR_KERNEL_OK : CFGMGR_KERNEL_COMMAND_FAILED;
}

// ---- namespaces

int create_namespace(uint64_t vpn_id)
{
    (void)cfgmgr_kernel_try(cfgmgr_kernel_format(NETNS_ADD, vpn_id)); // fails for one of an earlier start: no error
    return result_of(cfgmgr_kernel_run(cfgmgr_kernel_format(NETNS_FILES_ADD, vpn_id)) &&
                     cfgmgr_kernel_run(cfgmgr_kernel_format(NETNS_LOOPBACK_UP, vpn_id)));
}

bool has_management_link(const cfgmgrd_t &cfgmgrd, uint64_t vpn_id)
{
    return vpn_id == VPN_ID_MANAGEMENT && cfgmgrd.personality == PERSONALITY_QUORVIX;
}

int create_management_link(uint64_t vpn_id)
{
    return result_of(cfgmgr_kernel_run(cfgmgr_kernel_format(VETH_ADD, vpn_id, vpn_id)) &&
                     cfgmgr_kernel_run(cfgmgr_kernel_format(VETH_MOVE, vpn_id, vpn_id)) &&
                     cfgmgr_kernel_run(cfgmgr_kernel_format(VETH_HOST_UP, vpn_id)) &&
                     cfgmgr_kernel_run(cfgmgr_kernel_format(VETH_VPN_UP, vpn_id, vpn_id)) &&
                     cfgmgr_kernel_run(cfgmgr_kernel_format(VETH_ROUTE, vpn_id, vpn_id)) &&
                     cfgmgr_kernel_run(cfgmgr_kernel_format(VETH_RULE, vpn_id)));
}

// The daemons are waited for: without them a VPN cannot be configured, and a new start is the way out.
void start_routing_daemons(const cfgmgrd_t &cfgmgrd, cfgmgr_vpn_t *vpn_p)
{
    for (uint32_t peer = QUAGGA_PEER_FIRST; peer <= QUAGGA_PEER_LAST; peer++) {
        if (!cfgmgr_vpn_has_quagga_daemon(cfgmgrd, vpn_p->vpn_id, peer))
            continue;
        int result = cfgmgr_vpn_start_quagga_daemon(peer, vpn_p);
        tip_assert(result == QUAGGA_OK);
    }
}

void stop_routing_daemons(const cfgmgrd_t &cfgmgrd, cfgmgr_vpn_t *vpn_p)
{
    for (uint32_t peer = QUAGGA_PEER_FIRST; peer <= QUAGGA_PEER_LAST; peer++) {
        if (!cfgmgr_vpn_has_quagga_daemon(cfgmgrd, vpn_p->vpn_id, peer))
            continue;
        int result = cfgmgr_vpn_stop_quagga_daemon(peer, vpn_p);
        tip_assert(result == QUAGGA_OK);
    }
}

int open_kernel_sock(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p)
{
    cfgmgr_set_ns(cfgmgrd_p, vpn_p->vpn_id);
    vpn_p->kernel_sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (vpn_p->kernel_sock < 0)
        tip_log("Failed to create kerne_sock\n");
    cfgmgr_reset_ns(cfgmgrd_p, vpn_p->vpn_id);
    return vpn_p->kernel_sock < 0 ? CFGMGR_KERNEL_IF_FAILED : CFGMGR_KERNEL_OK;
}

// ---- taps

// A tap as the functions of devices take it; not in any table.
struct tap_t {
    cfgmgr_if_t record = {};
    char mac[MAC_TEXT_SIZE] = ""; // of its parent

    explicit tap_t(uint32_t tag)
    {
        record.vlan_id = tag;
        (void)snprintf(record.name, sizeof record.name, "%s.%u", KERNEL_PARENT_FP, tag); // fits
    }
    // Reads the parent's MAC address in the first namespace; false, logged, when there is none.
    [[nodiscard]] bool read_mac()
    {
        uint64_t number = cfgmgr_get_port_macaddr(KERNEL_PARENT_FP);
        if (number == IF_MAC_UNREADABLE)
            return false;
        uint8_t bytes[MAC_BYTES];
        for (size_t i = 0; i < MAC_BYTES; i++)
            bytes[i] = static_cast<uint8_t>(number >> (8 * (MAC_BYTES - 1 - i)));
        mac_to_text(bytes, mac);
        return true;
    }
};

// The device of a tap, in its VPN.
int make_tap(uint64_t vpn_id, tap_t *tap)
{
    int result = cfgmgr_kernel_subif_add(KERNEL_PARENT_FP, tap->record.vlan_id, &tap->record);
    if (result != CFGMGR_KERNEL_OK)
        return result;
    result = cfgmgr_kernel_if_move(VPN_ID_TRANSPORT, vpn_id, &tap->record);
    if (result != CFGMGR_KERNEL_OK)
        (void)cfgmgr_kernel_subif_delete(vpn_id, &tap->record); // logged; the first failure counts
    return result;
}

// The host's end has fixed addresses, and so has the forwarding plane, which never answers for its own.
bool address_tap(uint64_t vpn_id, const tap_t &tap)
{
    const char *name = tap.record.name;
    return cfgmgr_kernel_try(cfgmgr_kernel_format(TAP_ADDRESS_V4, vpn_id, LOCAL_V4, name)) &&
           cfgmgr_kernel_try(cfgmgr_kernel_format(TAP_ADDRESS_V6, vpn_id, LOCAL_V6, name)) &&
           cfgmgr_kernel_try(cfgmgr_kernel_format(TAP_MAC, vpn_id, name, tap.mac)) &&
           cfgmgr_kernel_try(cfgmgr_kernel_format(TAP_UP, vpn_id, name)) &&
           cfgmgr_kernel_try(cfgmgr_kernel_format(TAP_NEIGHBOR_V4, vpn_id, FORWARDING_PLANE_V4, name)) &&
           cfgmgr_kernel_try(cfgmgr_kernel_format(TAP_NEIGHBOR_V6, vpn_id, FORWARDING_PLANE_V6, name));
}

// All traffic that the kernel itself originates in a service VPN goes to the forwarding plane.
bool route_to_tap(uint64_t vpn_id)
{
    return vpn_id == VPN_ID_MANAGEMENT ||
           (cfgmgr_kernel_try(cfgmgr_kernel_format(TAP_ROUTE_V4, vpn_id, FORWARDING_PLANE_V4)) &&
            cfgmgr_kernel_try(cfgmgr_kernel_format(TAP_ROUTE_V6, vpn_id, FORWARDING_PLANE_V6)));
}

bool bring_up_fp_tap(uint64_t vpn_id, const tap_t &tap)
{
    const char *name = tap.record.name;
    kernel_command_t prefix = cfgmgr_kernel_format(IN_VPN_PREFIX, vpn_id);
    if (vpn_id == VPN_ID_TRANSPORT)
        prefix.text[0] = '\0';
    if (!cfgmgr_kernel_try(cfgmgr_kernel_format(FP_TAP_MAC, prefix.text, name, tap.mac))) {
        tip_log("Failed to set interface mac address for interface %s err %d\n", name, errno);
        return false;
    }
    if (!cfgmgr_kernel_try(cfgmgr_kernel_format(FP_TAP_UP, prefix.text, name))) {
        tip_log("Failed to bringup interface %s err %d\n", name, errno);
        return false;
    }
    return true;
}

} // namespace

int cfgmgr_vpn_namespace_add(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p)
{
    if (vpn_p->vpn_id != VPN_ID_TRANSPORT) {
        int result = create_namespace(vpn_p->vpn_id);
        if (result != CFGMGR_KERNEL_OK)
            return result;
        (void)cfgmgr_vpn_create_tap(vpn_p); // a device without a forwarding plane works without taps
        app_sysmgr_send_vpn(cfgmgrd_p->sysmgr_handle_p, SYSMGR_MSG_VPN_ADD, vpn_p->vpn_id);
    }
    if (has_management_link(*cfgmgrd_p, vpn_p->vpn_id)) {
        int result = create_management_link(vpn_p->vpn_id);
        if (result != CFGMGR_KERNEL_OK)
            return result;
    }
    start_routing_daemons(*cfgmgrd_p, vpn_p);
    return open_kernel_sock(cfgmgrd_p, vpn_p);
}

int cfgmgr_vpn_namespace_delete(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p)
{
    app_sysmgr_send_vpn(cfgmgrd_p->sysmgr_handle_p, SYSMGR_MSG_VPN_DEL, vpn_p->vpn_id);
    stop_routing_daemons(*cfgmgrd_p, vpn_p);
    if (vpn_p->vpn_id == VPN_ID_TRANSPORT)
        return CFGMGR_KERNEL_OK;
    return result_of(cfgmgr_kernel_run(cfgmgr_kernel_format(NETNS_FILES_DELETE, vpn_p->vpn_id)));
}

void cfgmgr_kernel_sock_close(cfgmgr_vpn_t *vpn_p)
{
    if (vpn_p->kernel_sock >= 0)
        close(vpn_p->kernel_sock);
    vpn_p->kernel_sock = -1;
}

// The failing command is not logged, deliberately: what is missing without a forwarding plane is missing every time.
int cfgmgr_vpn_create_tap(cfgmgr_vpn_t *vpn_p)
{
    if (vpn_p->vpn_id == VPN_ID_TRANSPORT)
        return CFGMGR_KERNEL_OK;
    tap_t tap(vpn_p->vrf_id);
    int failure = CFGMGR_KERNEL_FILE_FAILED; // without the parent
    if (tap.read_mac()) {
        int result = make_tap(vpn_p->vpn_id, &tap);
        if (result != CFGMGR_KERNEL_OK)
            return result;
        if (address_tap(vpn_p->vpn_id, tap) && route_to_tap(vpn_p->vpn_id))
            return CFGMGR_KERNEL_OK;
        failure = CFGMGR_KERNEL_IF_FAILED;
    }
    (void)cfgmgr_kernel_subif_delete(vpn_p->vpn_id, &tap.record); // logged; the first failure counts
    return failure;
}

int cfgmgr_vpn_create_fp_tap_interface(cfgmgr_vpn_t *vpn_p)
{
    tap_t tap(vpn_p->vrf_id + KERNEL_FP_TAP_OFFSET);
    if (!tap.read_mac())
        return CFGMGR_KERNEL_FILE_FAILED;
    int result = make_tap(vpn_p->vpn_id, &tap);
    if (result != CFGMGR_KERNEL_OK || bring_up_fp_tap(vpn_p->vpn_id, tap))
        return result;
    (void)cfgmgr_kernel_subif_delete(vpn_p->vpn_id, &tap.record); // logged; the first failure counts
    return CFGMGR_KERNEL_IF_FAILED;
}

void cfgmgr_vpn_delete_taps(const cfgmgr_vpn_t *vpn_p)
{
    for (uint32_t tag : { uint32_t{ vpn_p->vrf_id }, vpn_p->vrf_id + KERNEL_FP_TAP_OFFSET })
        (void)cfgmgr_kernel_run(cfgmgr_kernel_format(TAP_DELETE, vpn_p->vpn_id, KERNEL_PARENT_FP, tag)); // logged
}
