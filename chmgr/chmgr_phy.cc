#include "chmgr/chmgr_phy.h"

#include "common/tip_handle.h"
#include "common/tip_log.h"
#include "common/tip_netns.h"
#include "common/tip_text.h"

#include <cerrno>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>

namespace
{

constexpr uint32_t MODES_TO_1G = 0x7f; // ADVERTISED_*: 10 half up to 1000 full, and autonegotiation
constexpr uint32_t AUTONEG_ALL = 127;
constexpr uint32_t DEFAULT_SPEED = 1000;
constexpr uint32_t ALL_HALF = 21;
constexpr uint32_t ALL_FULL = 42;

struct speed_row_t {
    uint32_t speed;
    uint32_t half;
    uint32_t full;
};
// Any other speed counts as the last.
constexpr speed_row_t speed_rows[] = {
    { 10, ADVERTISED_10baseT_Half, ADVERTISED_10baseT_Full },
    { 100, ADVERTISED_100baseT_Half, ADVERTISED_100baseT_Full },
    { 1000, ADVERTISED_1000baseT_Half, ADVERTISED_1000baseT_Full },
};

const speed_row_t &row_of(uint32_t speed)
{
    const speed_row_t *row = speed_rows;
    while (row->speed != speed && row != std::end(speed_rows) - 1)
        row++;
    return *row;
}

uint32_t modes(uint32_t speed, uint32_t duplex)
{
    bool is_full = duplex == DUPLEX_FULL;
    if (speed == CHMGR_SPEED_UNSET && duplex == CHMGR_DUPLEX_UNSET)
        return 0;
    if (speed == CHMGR_SPEED_UNSET)
        return is_full ? ALL_FULL : ALL_HALF;
    const speed_row_t &row = row_of(speed);
    if (duplex == CHMGR_DUPLEX_UNSET)
        return row.half | row.full;
    return is_full ? row.full : row.half;
}

bool link_ioctl(int sock, const char *name, ethtool_cmd *link)
{
    ifreq request{};
    if (strlcpy(request.ifr_name, name, sizeof request.ifr_name) >= sizeof request.ifr_name) {
        errno = ENODEV; // not another one whose name is the beginning of this one
        return false;
    }
    request.ifr_data = reinterpret_cast<char *>(link);
    return ioctl(sock, SIOCETHTOOL, &request) == 0;
}

} // namespace

uint32_t chmgr_phy_advertised(uint32_t old, uint32_t autoneg, uint32_t speed, uint32_t duplex)
{
    return autoneg == AUTONEG_ENABLE ? AUTONEG_ALL : (old & ~MODES_TO_1G) | modes(speed, duplex);
}

int chmgr_kernel_phy_set(uint64_t vpn_id, const char *name, uint32_t autoneg, uint32_t speed, uint32_t duplex)
{
    netns_guard in_vpn(vpn_id);
    unique_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ethtool_cmd link{};
    link.cmd = ETHTOOL_GSET;
    if (!link_ioctl(sock.get(), name, &link)) {
        tip_log("%lu:%s Failed to get current phy settings, errno: %d\n", vpn_id, name, errno);
        return CHMGR_PHY_FAILED;
    }
    if ((link.supported & SUPPORTED_FIBRE) != 0) {
        tip_log("Error: Speed/Duplex/Autoneg changes not supported on this transceiver %s. Ignoring settings", name);
        return CHMGR_PHY_OK;
    }
    uint32_t advertised = chmgr_phy_advertised(link.advertising, autoneg, speed, duplex);
    if ((advertised & link.supported) == 0)
        return CHMGR_PHY_FAILED;

    link.cmd = ETHTOOL_SSET;
    link.advertising = advertised;
    link.autoneg = static_cast<uint8_t>(autoneg);
    link.duplex = static_cast<uint8_t>(duplex == CHMGR_DUPLEX_UNSET ? DUPLEX_FULL : duplex);
    ethtool_cmd_speed_set(&link, speed == CHMGR_SPEED_UNSET ? DEFAULT_SPEED : speed);
    if (link_ioctl(sock.get(), name, &link))
        return CHMGR_PHY_OK;
    tip_log("%lu:%s Failed to set new phy settings (errno:%d)\n", vpn_id, name, errno);
    return CHMGR_PHY_FAILED;
}
