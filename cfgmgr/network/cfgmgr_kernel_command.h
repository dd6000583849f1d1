// How the sources of the kernel layer build and run their commands, and how they step into a VPN's namespace. Not for
// other layers.
#ifndef CFGMGR_NETWORK_CFGMGR_KERNEL_COMMAND_H
#define CFGMGR_NETWORK_CFGMGR_KERNEL_COMMAND_H

#include "cfgmgr/network/cfgmgr_kernel.h"

#include <cstddef>

inline constexpr size_t KERNEL_COMMAND_SIZE = 512;

struct kernel_command_t {
    char text[KERNEL_COMMAND_SIZE]; // as much of it as fits
    bool is_whole;
};

// A command from one of the templates of the caller's file. One that is cut must not be run, and is not.
kernel_command_t cfgmgr_kernel_format(const char *pattern, ...) __attribute__((format(printf, 1, 2)));

// True when the command ran and its exit status is 0. The first logs a failure, "Command Failed: ..."; the second leaves
// that to the caller, with errno as the command's start has left it.
[[nodiscard]] bool cfgmgr_kernel_run(const kernel_command_t &command);
[[nodiscard]] bool cfgmgr_kernel_try(const kernel_command_t &command);

// Is in the namespace of a VPN as long as it lives; nesting is not supported.
class kernel_ns_t
{
public:
    explicit kernel_ns_t(uint64_t vpn_id) : vpn_id_(vpn_id) { cfgmgr_set_ns(cfgmgr_context(), vpn_id_); }
    kernel_ns_t(const kernel_ns_t &) = delete;
    kernel_ns_t &operator=(const kernel_ns_t &) = delete;
    ~kernel_ns_t() { cfgmgr_reset_ns(cfgmgr_context(), vpn_id_); }

private:
    uint64_t vpn_id_;
};

// The VPN of an interface and its socket; VPN 0 and -1 while it is in none.
[[nodiscard]] uint64_t cfgmgr_kernel_vpn_of(const cfgmgr_if_t &interface);
[[nodiscard]] int cfgmgr_kernel_sock_of(const cfgmgr_if_t &interface);

// An interface ioctl (netdevice(7)) with the name filled in: 0, or -1 with errno. A name that no interface can have,
// because the kernel's is shorter, is ENODEV.
struct ifreq;
[[nodiscard]] int cfgmgr_kernel_if_ioctl(int sock, unsigned long operation, const char *name, ifreq *request);

#endif
