// Link settings of ports through the ethtool ioctl, in the form that every driver of the device knows.

#include "cfgmgr/network/cfgmgr_kernel_phy.h"

#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_kernel_command.h"
#include "common/tip_handle.h"
#include "common/tip_log.h"

#include <cerrno>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <utility>

namespace
{

// ---- advertised modes, as bits of the ethtool mask

struct modes_t {
    uint32_t half;
    uint32_t full;
};
constexpr modes_t MODES_10 = { 0x1, 0x2 };
constexpr modes_t MODES_100 = { 0x4, 0x8 };
constexpr modes_t MODES_1000 = { 0x10, 0x20 };
constexpr modes_t MODES_ANY_SPEED = { 21, 42 };
constexpr uint32_t MODES_MASK = 127; // all of them, with autonegotiation itself

constexpr int32_t SPEED_SENT_UNSET = 1000;
constexpr uint8_t DUPLEX_SENT_UNSET = DUPLEX_FULL;

modes_t modes_of_speed(int32_t speed)
{
    switch (speed) {
    case PHY_SPEED_UNSET:
        return MODES_ANY_SPEED;
    case SPEED_10:
        return MODES_10;
    case SPEED_100:
        return MODES_100;
    default:
        return MODES_1000;
    }
}

uint32_t wanted_modes(const cfgmgr_if_phy_t &wanted)
{
    if (wanted.speed == PHY_SPEED_UNSET && wanted.duplex == PHY_DUPLEX_UNSET)
        return 0;
    modes_t modes = modes_of_speed(wanted.speed);
    if (wanted.duplex == PHY_DUPLEX_UNSET)
        return modes.half | modes.full;
    return wanted.duplex == DUPLEX_FULL ? modes.full : modes.half;
}

// ---- ioctls

int ethtool_ioctl(int sock, const char *name, void *command)
{
    ifreq request{};
    request.ifr_data = static_cast<char *>(command);
    return cfgmgr_kernel_if_ioctl(sock, SIOCETHTOOL, name, &request);
}

bool read_link(int sock, const char *name, ethtool_cmd *out)
{
    *out = {};
    out->cmd = ETHTOOL_GSET;
    return ethtool_ioctl(sock, name, out) == 0;
}

bool read_pause(int sock, const char *name, ethtool_pauseparam *out)
{
    *out = {};
    out->cmd = ETHTOOL_GPAUSEPARAM;
    return ethtool_ioctl(sock, name, out) == 0;
}

bool read_mtu(int sock, const char *name, uint32_t *out)
{
    ifreq request{};
    if (cfgmgr_kernel_if_ioctl(sock, SIOCGIFMTU, name, &request) != 0)
        return false;
    *out = static_cast<uint32_t>(request.ifr_mtu);
    return true;
}

cfgmgr_phy_get_result_t read_all(const char *name, ethtool_cmd *link, ethtool_pauseparam *pause, uint32_t *mtu)
{
    unique_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock.is_open())
        return PHY_GET_NO_SOCKET;
    if (!read_link(sock.get(), name, link))
        return PHY_GET_LINK_FAILED;
    if (!read_pause(sock.get(), name, pause))
        return PHY_GET_PAUSE_FAILED;
    return read_mtu(sock.get(), name, mtu) ? PHY_GET_OK : PHY_GET_MTU_FAILED;
}

// ---- settings

// True when *to was different.
template <typename T> bool take(T *to, T value)
{
    return std::exchange(*to, value) != value;
}

int set_link(const cfgmgr_if_t &interface, ethtool_cmd *link)
{
    link->advertising = cfgmgr_phy_advertising(link->advertising, interface.phy);
    if ((link->advertising & link->supported) == 0)
        return CFGMGR_KERNEL_IF_FAILED;
    bool has_speed = interface.phy.speed != PHY_SPEED_UNSET;
    ethtool_cmd_speed_set(link, static_cast<uint32_t>(has_speed ? interface.phy.speed : SPEED_SENT_UNSET));
    bool has_duplex = interface.phy.duplex != PHY_DUPLEX_UNSET;
    link->duplex = has_duplex ? static_cast<uint8_t>(interface.phy.duplex) : DUPLEX_SENT_UNSET;
    link->autoneg = static_cast<uint8_t>(interface.phy.autoneg);
    link->cmd = ETHTOOL_SSET;
    if (ethtool_ioctl(cfgmgr_kernel_sock_of(interface), interface.name, link) == 0)
        return CFGMGR_KERNEL_OK;
    tip_log("%lu:%s Failed to set new phy settings (errno:%d)\n", cfgmgr_kernel_vpn_of(interface), interface.name,
            errno);
    return CFGMGR_KERNEL_IF_FAILED;
}

// With autonegotiation both directions are offered.
int set_pause(const cfgmgr_if_t &interface, ethtool_pauseparam *pause)
{
    bool is_auto = interface.phy.pause_autoneg == 1;
    pause->autoneg = interface.phy.pause_autoneg;
    pause->rx_pause = is_auto ? 1 : interface.phy.pause_rx;
    pause->tx_pause = is_auto ? 1 : interface.phy.pause_tx;
    pause->cmd = ETHTOOL_SPAUSEPARAM;
    if (ethtool_ioctl(cfgmgr_kernel_sock_of(interface), interface.name, pause) == 0)
        return CFGMGR_KERNEL_OK;
    tip_log("%lu:%s Failed to set pause settings (errno:%d)\n", cfgmgr_kernel_vpn_of(interface), interface.name, errno);
    return CFGMGR_KERNEL_IF_FAILED;
}

// A port whose driver knows no pause frames is left alone, unless they are to be changed.
int update_pause(cfgmgr_if_t *if_p, const cfgmgr_if_phy_t &wanted)
{
    ethtool_pauseparam pause;
    bool is_read = read_pause(cfgmgr_kernel_sock_of(*if_p), if_p->name, &pause);
    int error = errno;
    bool is_changed = take(&if_p->phy.pause_autoneg, wanted.pause_autoneg);
    is_changed = take(&if_p->phy.pause_rx, wanted.pause_rx) || is_changed;
    is_changed = take(&if_p->phy.pause_tx, wanted.pause_tx) || is_changed;
    if (!is_changed)
        return CFGMGR_KERNEL_OK;
    if (is_read)
        return set_pause(*if_p, &pause);
    tip_log("%lu:%s Failed to get pause settings (errno:%d)\n", cfgmgr_kernel_vpn_of(*if_p), if_p->name, error);
    return CFGMGR_KERNEL_IF_FAILED;
}

} // namespace

uint32_t cfgmgr_phy_advertising(uint32_t now, const cfgmgr_if_phy_t &wanted)
{
    return wanted.autoneg == 1 ? MODES_MASK : (now & ~MODES_MASK) | wanted_modes(wanted);
}

int cfgmgr_kernel_phy_get(const cfgmgr_if_t *if_p, ethtool_cmd *link, ethtool_pauseparam *pause, uint32_t *mtu)
{
    if (if_p == nullptr || link == nullptr || pause == nullptr || mtu == nullptr)
        return PHY_GET_BAD_ARGUMENT;
    kernel_ns_t inside(cfgmgr_kernel_vpn_of(*if_p));
    int result = read_all(if_p->name, link, pause, mtu);
    if (result != PHY_GET_OK)
        tip_log("%s: phy-get failed %d errno %d", if_p->name, result, errno);
    return result;
}

int cfgmgr_kernel_phy_set(cfgmgr_if_t *if_p, const cfgmgr_if_phy_t &wanted, bool force)
{
    if ((if_p->flags & IF_VAP) != 0)
        return CFGMGR_KERNEL_OK;
    ethtool_cmd link;
    if (!read_link(cfgmgr_kernel_sock_of(*if_p), if_p->name, &link)) {
        tip_log("%lu:%s Failed to get current phy settings, errno: %d\n", cfgmgr_kernel_vpn_of(*if_p), if_p->name,
                errno);
        return CFGMGR_KERNEL_IF_FAILED;
    }
    bool is_changed = take(&if_p->phy.speed, wanted.speed);
    is_changed = take(&if_p->phy.duplex, wanted.duplex) || is_changed;
    is_changed = take(&if_p->phy.autoneg, wanted.autoneg) || is_changed;
    if (is_changed || force) {
        int result = set_link(*if_p, &link);
        if (result != CFGMGR_KERNEL_OK)
            return result;
    }
    return update_pause(if_p, wanted);
}
