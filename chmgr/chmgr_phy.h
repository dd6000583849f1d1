// Link settings of a port that no interface record stands for.
#ifndef CHMGR_CHMGR_PHY_H
#define CHMGR_CHMGR_PHY_H

#include <cstdint>

enum chmgr_phy_result_t {
    CHMGR_PHY_OK = 0,
    CHMGR_PHY_FAILED = 17,
};

inline constexpr uint32_t CHMGR_SPEED_UNSET = UINT32_MAX; // the configuration's -1
inline constexpr uint32_t CHMGR_DUPLEX_UNSET = 255;

// What is advertised (ADVERTISED_* of ethtool) for wanted settings; of old only what lies above the 1 Gbit/s modes stays.
// speed in Mbit/s, duplex 1: full, autoneg 1: everything up to 1 Gbit/s.
[[nodiscard]] uint32_t chmgr_phy_advertised(uint32_t old, uint32_t autoneg, uint32_t speed, uint32_t duplex);

// In the namespace of the VPN, where the port is. Optical ports are left alone: 0, with a log line.
int chmgr_kernel_phy_set(uint64_t vpn_id, const char *name, uint32_t autoneg, uint32_t speed, uint32_t duplex);

#endif
