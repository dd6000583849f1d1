// The reserved VPN numbers.
#ifndef COMMON_VPN_ID_H
#define COMMON_VPN_ID_H

#include <cstdint>

inline constexpr uint64_t VPN_ID_TRANSPORT = 0; // the namespace of process 1
inline constexpr uint64_t VPN_ID_MANAGEMENT = 512;
inline constexpr uint64_t VPN_ID_INTERNAL = 65530; // not part of the configuration

#endif
