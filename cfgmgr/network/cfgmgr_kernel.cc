// Namespace switches, the door for commands, and interface ioctls (netdevice(7)).

#include "cfgmgr/network/cfgmgr_kernel.h"

#include "cfgmgr/network/cfgmgr_kernel_command.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/tip_assert.h"
#include "common/tip_handle.h"
#include "common/tip_log.h"
#include "common/tip_netns.h"
#include "common/tip_root.h"
#include "common/tip_system.h"
#include "common/tip_text.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>

namespace
{

constexpr char TUN_DEVICE[] = "/dev/net/tun";
constexpr int TUN_FAILED = -2;

constexpr int FLAGS_UP = IFF_UP | IFF_RUNNING | IFF_ALLMULTI;
constexpr int FLAGS_DOWN = IFF_UP | IFF_RUNNING; // all multicast frames stay wanted, deliberately

uint64_t mac_number(const sockaddr &address)
{
    uint64_t number = 0;
    for (size_t i = 0; i < MAC_BYTES; i++)
        number = number << 8 | static_cast<uint8_t>(address.sa_data[i]);
    return number;
}

void fill_mac(sockaddr *address, uint64_t mac)
{
    address->sa_family = ARPHRD_ETHER;
    for (size_t i = 0; i < MAC_BYTES; i++)
        address->sa_data[i] = static_cast<char>(mac >> (8 * (MAC_BYTES - 1 - i)));
}

int loopback_flags_set(const cfgmgr_if_t &interface, bool is_up)
{
    int sock = cfgmgr_kernel_sock_of(interface);
    ifreq request{};
    if (cfgmgr_kernel_if_ioctl(sock, SIOCGIFFLAGS, interface.name, &request) != 0) {
        tip_log("%lu:%s ifflags_get failed errno: %d", cfgmgr_kernel_vpn_of(interface), interface.name, errno);
        return CFGMGR_KERNEL_IF_FAILED;
    }
    int flags = (request.ifr_flags | IFF_LOOPBACK) & ~(IFF_BROADCAST | IFF_MULTICAST);
    request.ifr_flags = static_cast<short>(is_up ? flags | IFF_UP : flags);
    if (cfgmgr_kernel_if_ioctl(sock, SIOCSIFFLAGS, interface.name, &request) != 0) {
        tip_log("%lu:%s ifflags_set failed errno: %d", cfgmgr_kernel_vpn_of(interface), interface.name, errno);
        return CFGMGR_KERNEL_IF_FAILED;
    }
    return CFGMGR_KERNEL_OK;
}

} // namespace

// ---- doors

void cfgmgr_set_ns(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    tip_log("Setting ns to %lu", vpn_id);
    // To enter the transport VPN takes no system call, so a thread that is elsewhere has to be brought back first.
    if (vpn_id == VPN_ID_TRANSPORT && cfgmgrd_p->last_ns != VPN_ID_TRANSPORT)
        (void)netns_leave(cfgmgrd_p->last_ns); // ends the process when it fails, as below
    (void)netns_enter(vpn_id); // ends the process when it fails
    cfgmgrd_p->last_ns = vpn_id;
}

void cfgmgr_reset_ns(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    tip_log("resetting ns to default from %lu", vpn_id);
    (void)netns_leave(vpn_id); // ends the process when it fails
    cfgmgrd_p->last_ns = VPN_ID_TRANSPORT;
}

bool cfgmgr_kernel_command(const char *command)
{
    return tip_system_ok(tip_system(command));
}

kernel_command_t cfgmgr_kernel_format(const char *pattern, ...)
{
    kernel_command_t command;
    va_list arguments;
    va_start(arguments, pattern);
    int length = vsnprintf(command.text, sizeof command.text, pattern, arguments);
    va_end(arguments);
    command.is_whole = length >= 0 && static_cast<size_t>(length) < sizeof command.text;
    return command;
}

bool cfgmgr_kernel_run(const kernel_command_t &command)
{
    if (cfgmgr_kernel_try(command))
        return true;
    tip_log("Command Failed: %s", command.text);
    return false;
}

bool cfgmgr_kernel_try(const kernel_command_t &command)
{
    return command.is_whole && cfgmgr_kernel_command(command.text);
}

// ---- ioctls

uint64_t cfgmgr_kernel_vpn_of(const cfgmgr_if_t &interface)
{
    return interface.vpn_p != nullptr ? interface.vpn_p->vpn_id : VPN_ID_TRANSPORT;
}

int cfgmgr_kernel_sock_of(const cfgmgr_if_t &interface)
{
    return interface.vpn_p != nullptr ? interface.vpn_p->kernel_sock : -1;
}

int cfgmgr_kernel_if_ioctl(int sock, unsigned long operation, const char *name, ifreq *request)
{
    if (strlcpy(request->ifr_name, name, sizeof request->ifr_name) < sizeof request->ifr_name)
        return ioctl(sock, operation, request);
    errno = ENODEV;
    return -1;
}

int cfgmgr_kernel_ifflags_set(cfgmgr_if_t *if_p, bool is_up)
{
    int sock = cfgmgr_kernel_sock_of(*if_p);
    ifreq request{};
    if (cfgmgr_kernel_if_ioctl(sock, SIOCGIFFLAGS, if_p->name, &request) != 0) {
        tip_log("Failed to get ifflags for %s err %d", if_p->name, errno);
        return CFGMGR_KERNEL_COMMAND_FAILED;
    }
    request.ifr_flags = static_cast<short>(is_up ? request.ifr_flags | FLAGS_UP : request.ifr_flags & ~FLAGS_DOWN);
    if (cfgmgr_kernel_if_ioctl(sock, SIOCSIFFLAGS, if_p->name, &request) != 0) {
        tip_log("Failed to set ifflags to %x for %s err %d", static_cast<unsigned short>(request.ifr_flags), if_p->name,
                errno);
        return CFGMGR_KERNEL_COMMAND_FAILED;
    }
    return CFGMGR_KERNEL_OK;
}

int cfgmgr_kernel_loopback_set(cfgmgr_if_t *if_p, bool is_up)
{
    kernel_ns_t inside(cfgmgr_kernel_vpn_of(*if_p));
    return loopback_flags_set(*if_p, is_up);
}

uint64_t cfgmgr_kernel_if_get_mac(int sock, uint64_t vpn_id, const char *name)
{
    ifreq request{};
    if (cfgmgr_kernel_if_ioctl(sock, SIOCGIFHWADDR, name, &request) == 0)
        return mac_number(request.ifr_hwaddr);
    tip_log("%lu:%s get mac failed errno:%d", vpn_id, name, errno);
    return 0;
}

int cfgmgr_kernel_if_set_mac(int sock, uint64_t vpn_id, const char *name, uint64_t mac)
{
    ifreq request{};
    fill_mac(&request.ifr_hwaddr, mac);
    if (cfgmgr_kernel_if_ioctl(sock, SIOCSIFHWADDR, name, &request) == 0)
        return CFGMGR_KERNEL_OK;
    tip_log("%lu:%s set mac failed errno:%d", vpn_id, name, errno);
    return CFGMGR_KERNEL_IF_FAILED;
}

int cfgmgr_kernel_if_set_mtu(int sock, uint64_t, const char *name, uint32_t mtu)
{
    ifreq request{};
    request.ifr_mtu = static_cast<int>(mtu);
    if (cfgmgr_kernel_if_ioctl(sock, SIOCSIFMTU, name, &request) == 0)
        return CFGMGR_KERNEL_OK;
    tip_log("set mtu to %u for %s failed %d", mtu, name, errno);
    return CFGMGR_KERNEL_IF_FAILED;
}

bool cfgmgr_kernel_if_exists(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, const char *name)
{
    const cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_find(cfgmgrd_p, vpn_id, nullptr);
    ifreq request{};
    return vpn_p != nullptr && cfgmgr_kernel_if_ioctl(vpn_p->kernel_sock, SIOCGIFINDEX, name, &request) == 0;
}

int cfgmgr_kernel_arp_oper(int sock, const char *name, uint32_t ip, uint64_t mac, unsigned long op)
{
    arpreq request{};
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(ip);
    static_assert(sizeof address == sizeof request.arp_pa);
    memcpy(&request.arp_pa, &address, sizeof address);
    fill_mac(&request.arp_ha, mac);
    request.arp_flags = ATF_PERM;
    errno = ENODEV;
    bool is_whole = strlcpy(request.arp_dev, name, sizeof request.arp_dev) < sizeof request.arp_dev;
    if (is_whole && ioctl(sock, op, &request) == 0)
        return CFGMGR_KERNEL_OK;
    int error = errno;
    char text[IP_ADDR_TEXT];
    tip_log("arp-add %s -> %lu failed. errno: %d", ip_v4_to_str(ip, text, sizeof text), mac, error);
    return CFGMGR_KERNEL_ARP_FAILED;
}

uint64_t cfgmgr_get_port_macaddr(const char *name)
{
    unique_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    if (cfgmgr_kernel_if_ioctl(sock.get(), SIOCGIFHWADDR, name, &request) == 0)
        return mac_number(request.ifr_hwaddr);
    tip_log("SIOCGIFHWADDR failed for %s, err: %s", name, strerror(errno));
    return IF_MAC_UNREADABLE;
}

int cfgmgr_tun_alloc(const char *name, int flags)
{
    unique_fd tun(open(tip_path("%s", TUN_DEVICE).text, O_RDWR | O_CLOEXEC));
    if (!tun.is_open())
        tip_log("Failed to open /dev/net/tun; errno: %d [%s]", errno, strerror(errno));
    tip_assert_text(tun.is_open(), "0");
    ifreq request{};
    request.ifr_flags = static_cast<short>(flags);
    if (cfgmgr_kernel_if_ioctl(tun.get(), TUNSETIFF, name, &request) == 0)
        return tun.release();
    tip_log("Failed to allocate tun interface %s; errno: %d [%s]", name, errno, strerror(errno));
    return TUN_FAILED;
}
