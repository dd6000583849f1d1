// ioctl(2), socket(2), open(2) of the tun device and sethostname(2) of the program under test.
#include "tests/unit/cfgmgr_env.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>

namespace
{

std::map<int, uint64_t> &namespaces_of_sockets()
{
    static auto *all = new std::map<int, uint64_t>;
    return *all;
}

std::string text_of(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string text_of(const char *format, ...)
{
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

std::string mac_text(const sockaddr &address)
{
    const auto *mac = reinterpret_cast<const uint8_t *>(address.sa_data);
    return text_of("%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

void note(const std::string &effect)
{
    device().effects.push_back(effect);
}

void get_mac(fake_if_t &interface, ifreq &request)
{
    request.ifr_hwaddr.sa_family = ARPHRD_ETHER;
    for (int i = 0; i < 6; i++)
        request.ifr_hwaddr.sa_data[i] = static_cast<char>(interface.mac >> (8 * (5 - i)));
}

void set_mac(fake_if_t &interface, ifreq &request)
{
    EXPECT_EQ(request.ifr_hwaddr.sa_family, ARPHRD_ETHER);
    interface.mac = 0;
    for (int i = 0; i < 6; i++)
        interface.mac = interface.mac << 8 | static_cast<uint8_t>(request.ifr_hwaddr.sa_data[i]);
    note("mac " + std::string(request.ifr_name) + " " + mac_text(request.ifr_hwaddr));
}

void get_flags(fake_if_t &interface, ifreq &request)
{
    request.ifr_flags = static_cast<short>(interface.flags);
}

void set_flags(fake_if_t &interface, ifreq &request)
{
    uint32_t flags = static_cast<uint16_t>(request.ifr_flags);
    std::string effect = "flags " + std::string(request.ifr_name);
    if (uint32_t added = flags & ~interface.flags)
        effect += text_of(" +0x%x", added);
    if (uint32_t removed = interface.flags & ~flags)
        effect += text_of(" -0x%x", removed);
    interface.flags = flags;
    note(effect);
}

void get_mtu(fake_if_t &interface, ifreq &request)
{
    request.ifr_mtu = static_cast<int>(interface.mtu);
}

void set_mtu(fake_if_t &interface, ifreq &request)
{
    interface.mtu = static_cast<uint32_t>(request.ifr_mtu);
    note(text_of("mtu %s %d", request.ifr_name, request.ifr_mtu));
}

void get_link(fake_if_t &interface, ifreq &request)
{
    auto *link = reinterpret_cast<ethtool_cmd *>(request.ifr_data);
    link->supported = interface.supported;
    link->advertising = interface.advertising;
    ethtool_cmd_speed_set(link, interface.speed);
    link->duplex = interface.duplex;
    link->autoneg = interface.autoneg;
}

void set_link(fake_if_t &interface, ifreq &request)
{
    const auto *link = reinterpret_cast<const ethtool_cmd *>(request.ifr_data);
    interface.advertising = link->advertising;
    interface.speed = ethtool_cmd_speed(link);
    interface.duplex = link->duplex;
    interface.autoneg = link->autoneg;
    note(text_of("link %s speed %u duplex %u autoneg %u advertising 0x%x", request.ifr_name, interface.speed,
                 interface.duplex, interface.autoneg, interface.advertising));
}

void get_pause(fake_if_t &interface, ifreq &request)
{
    *reinterpret_cast<ethtool_pauseparam *>(request.ifr_data) = interface.pause;
}

void set_pause(fake_if_t &interface, ifreq &request)
{
    interface.pause = *reinterpret_cast<const ethtool_pauseparam *>(request.ifr_data);
    note(text_of("pause %s autoneg %u rx %u tx %u", request.ifr_name, interface.pause.autoneg, interface.pause.rx_pause,
                 interface.pause.tx_pause));
}

void find_index(fake_if_t &, ifreq &)
{
}

void set_tun(fake_if_t &, ifreq &request)
{
    note(text_of("tun %s 0x%x", request.ifr_name, static_cast<uint16_t>(request.ifr_flags)));
}

struct ioctl_row_t {
    unsigned long request;
    uint32_t command; // of SIOCETHTOOL
    const char *what;
    void (*handle)(fake_if_t &interface, ifreq &request);
};
const ioctl_row_t ioctl_rows[] = {
    { SIOCGIFINDEX, 0, "get index", find_index },
    { SIOCGIFFLAGS, 0, "get flags", get_flags },
    { SIOCSIFFLAGS, 0, "flags", set_flags },
    { SIOCGIFHWADDR, 0, "get mac", get_mac },
    { SIOCSIFHWADDR, 0, "mac", set_mac },
    { SIOCGIFMTU, 0, "get mtu", get_mtu },
    { SIOCSIFMTU, 0, "mtu", set_mtu },
    { SIOCETHTOOL, ETHTOOL_GSET, "get link", get_link },
    { SIOCETHTOOL, ETHTOOL_SSET, "link", set_link },
    { SIOCETHTOOL, ETHTOOL_GPAUSEPARAM, "get pause", get_pause },
    { SIOCETHTOOL, ETHTOOL_SPAUSEPARAM, "pause", set_pause },
    { TUNSETIFF, 0, "tun", set_tun },
};

const ioctl_row_t *find_row(unsigned long request, const void *argument)
{
    for (const ioctl_row_t &row : ioctl_rows) {
        if (row.request != request)
            continue;
        if (request != SIOCETHTOOL)
            return &row;
        uint32_t command = 0;
        memcpy(&command, static_cast<const ifreq *>(argument)->ifr_data, sizeof command);
        if (row.command == command)
            return &row;
    }
    return nullptr;
}

int scripted_error(const std::string &what, const std::string &name)
{
    const auto &errors = device().kernel.errors;
    for (const std::string &key : { what + " " + name, what }) {
        auto found = errors.find(key);
        if (found != errors.end())
            return found->second;
    }
    return 0;
}

bool exists(uint64_t vpn_id, const std::string &name)
{
    if (device().has_eth0 && vpn_id == 0 && name == "eth0")
        return true;
    const auto &interfaces = device().kernel.interfaces;
    auto found = interfaces.find({ vpn_id, name });
    return found != interfaces.end() && found->second.exists;
}

int fail(int error)
{
    errno = error;
    return -1;
}

int handle_arp(unsigned long request, const arpreq &arp)
{
    if (int error = scripted_error("arp", arp.arp_dev))
        return fail(error);
    EXPECT_EQ(arp.arp_ha.sa_family, ARPHRD_ETHER);
    EXPECT_EQ(arp.arp_flags, ATF_PERM);
    sockaddr_in address;
    memcpy(&address, &arp.arp_pa, sizeof address);
    EXPECT_EQ(address.sin_family, AF_INET);
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    note(text_of("arp %s %s %s ", arp.arp_dev, request == SIOCSARP ? "set" : "delete", text) + mac_text(arp.arp_ha));
    return 0;
}

int handle_interface(int fd, const ioctl_row_t &row, ifreq &request)
{
    std::string name(request.ifr_name, strnlen(request.ifr_name, IFNAMSIZ));
    auto found = namespaces_of_sockets().find(fd);
    uint64_t vpn_id = found != namespaces_of_sockets().end() ? found->second : 0;
    if (int error = scripted_error(row.what, name))
        return fail(error);
    if (row.request == SIOCGIFINDEX)
        return exists(vpn_id, name) ? 0 : fail(ENODEV);
    row.handle(device().kernel.interface(vpn_id, name), request);
    return 0;
}

} // namespace

extern "C" {

int __real_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    bool is_arp = request == SIOCSARP || request == SIOCDARP;
    const ioctl_row_t *row = is_arp ? nullptr : find_row(request, argument);
    if (!is_arp && row == nullptr)
        return __real_ioctl(fd, request, argument);
    if (fcntl(fd, F_GETFD) < 0)
        return -1;
    return is_arp ? handle_arp(request, *static_cast<const arpreq *>(argument))
                  : handle_interface(fd, *row, *static_cast<ifreq *>(argument));
}

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol)
{
    int fd = __real_socket(domain, type, protocol);
    if (domain == AF_INET && fd >= 0)
        namespaces_of_sockets()[fd] = device().kernel.current_ns;
    return fd;
}

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    mode_t mode = (flags & (O_CREAT | __O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (!std::string(path).ends_with("/dev/net/tun"))
        return __real_open(path, flags, mode);
    if (int error = scripted_error("open tun", ""))
        return fail(error);
    return __real_open("/dev/null", flags);
}

int __wrap_sethostname(const char *name, size_t length)
{
    if (int error = scripted_error("hostname", ""))
        return fail(error);
    note("hostname " + std::string(name, length));
    return 0;
}

} // extern "C"
