// Link settings of ports: speed, duplex, autonegotiation, pause frames (ethtool).
#ifndef CFGMGR_NETWORK_CFGMGR_KERNEL_PHY_H
#define CFGMGR_NETWORK_CFGMGR_KERNEL_PHY_H

#include "cfgmgr/network/cfgmgr_if.h"

struct ethtool_cmd;
struct ethtool_pauseparam;

enum cfgmgr_phy_get_result_t {
    PHY_GET_OK = 0,
    PHY_GET_BAD_ARGUMENT = -1,
    PHY_GET_NO_SOCKET = -2,
    PHY_GET_PAUSE_FAILED = -3,
    PHY_GET_MTU_FAILED = -4,
    PHY_GET_LINK_FAILED = -5,
};

// What the device has now; in the namespace. All outputs are required.
int cfgmgr_kernel_phy_get(const cfgmgr_if_t *if_p, ethtool_cmd *link, ethtool_pauseparam *pause, uint32_t *mtu);
// Takes the wanted settings into the record and, where they differ or force is set, into the device. 0 or
// CFGMGR_KERNEL_IF_FAILED.
int cfgmgr_kernel_phy_set(cfgmgr_if_t *if_p, const cfgmgr_if_phy_t &wanted, bool force);

// The advertised modes, of the ethtool mask, that follow from those advertised now and the wanted settings.
[[nodiscard]] uint32_t cfgmgr_phy_advertising(uint32_t now, const cfgmgr_if_phy_t &wanted);

#endif
