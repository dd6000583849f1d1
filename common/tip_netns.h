// The network namespace of a VPN, entered by the calling thread around a bounded piece of work. VPN 0 lives in the
// namespace of process 1, where the daemon starts. A pair always ends there: nesting is not supported.
#ifndef COMMON_TIP_NETNS_H
#define COMMON_TIP_NETNS_H

#include <cstdint>

// 0. Any failure is logged and an assertion, for work must not happen in the wrong namespace. No effect for VPN 0.
int netns_enter(uint64_t vpn_id);
// Back to the namespace of process 1. When /proc has no such file any more (shutdown) the process ends with exit(0); any
// other failure is an assertion. No effect for VPN 0.
int netns_leave(uint64_t vpn_id);

// Is in the VPN's namespace as long as it lives.
class netns_guard
{
public:
    explicit netns_guard(uint64_t vpn_id) : vpn_id_(vpn_id) { (void)netns_enter(vpn_id_); }
    netns_guard(const netns_guard &) = delete;
    netns_guard &operator=(const netns_guard &) = delete;
    ~netns_guard() { (void)netns_leave(vpn_id_); }

private:
    uint64_t vpn_id_;
};

#endif
