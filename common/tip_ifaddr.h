// Addresses of kernel interfaces, changed by command.
#ifndef COMMON_TIP_IFADDR_H
#define COMMON_TIP_IFADDR_H

#include "common/ip_util.h"

inline constexpr int IFADDR_FAILED = 17;

// Adds prefix to the interface, or removes it, in the calling thread's network namespace: with_broadcast states the
// broadcast address as well. Removing a zero address flushes all addresses of its family. 0, or IFADDR_FAILED when
// there is nothing to add or the command fails. Waits for the command.
[[nodiscard]] int tip_util_ifaddr_set(const char *if_name, const ip_prefix_t &prefix, bool with_broadcast,
                                      bool is_delete);

#endif
