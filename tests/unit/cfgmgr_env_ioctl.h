// The kernel that the daemon's sockets reach in tests: interfaces by VPN and name, with what ioctls read and write. A
// socket belongs to the namespace that was entered when it was made. Writing ioctls are effects of the device:
// "flags ge0_1 +0x241", "flags ge0_1 -0x41", "mac ge0_1 02:00:00:00:00:01", "mtu ge0_1 1400",
// "link ge0_1 speed 100 duplex 1 autoneg 0 advertising 0x8", "pause ge0_1 autoneg 0 rx 1 tx 1",
// "arp ge0_1 set 10.0.0.1 02:00:00:00:00:01" or "arp ge0_1 delete ...", "tun loopback1 0x8001", "hostname edge".
#ifndef TESTS_UNIT_CFGMGR_ENV_IOCTL_H
#define TESTS_UNIT_CFGMGR_ENV_IOCTL_H

#include <cstdint>
#include <linux/ethtool.h>
#include <map>
#include <string>

struct fake_if_t {
    bool exists = false; // for the question after its index; the other ioctls work without it
    uint32_t flags = 0;
    uint64_t mac = 0x020000000001;
    uint32_t mtu = 1500;
    uint32_t supported = 0x2ff; // copper, all speeds
    uint32_t advertising = 0x2ff;
    uint32_t speed = 1000;
    uint8_t duplex = 1;
    uint8_t autoneg = 1;
    ethtool_pauseparam pause = {};
};

struct fake_kernel_t {
    uint64_t current_ns = 0; // VPN of the namespace that the thread is in
    // Written by the ioctls; an interface that a test has not made comes up with the values above.
    std::map<std::pair<uint64_t, std::string>, fake_if_t> interfaces;
    // errno of an ioctl by "WHAT NAME" or by "WHAT" alone: the words of the effects, and for reading "get flags",
    // "get mac", "get mtu", "get link", "get pause"; of sethostname by "hostname", of the tun device's open by "open tun".
    std::map<std::string, int> errors;

    fake_if_t &interface(uint64_t vpn_id, const std::string &name) { return interfaces[{ vpn_id, name }]; }
    void add(uint64_t vpn_id, const std::string &name) { interface(vpn_id, name).exists = true; }
};

#endif
