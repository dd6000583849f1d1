// The kernel layer: the one place from which commands, ioctls and namespace switches are made.
#ifndef CFGMGR_NETWORK_CFGMGR_KERNEL_H
#define CFGMGR_NETWORK_CFGMGR_KERNEL_H

#include "cfgmgr/daemon/cfgmgr_context.h"

#include <cstdint>

struct cfgmgr_vpn_t;

enum cfgmgr_kernel_result_t {
    CFGMGR_KERNEL_OK = 0,
    CFGMGR_KERNEL_COMMAND_FAILED = 15,
    CFGMGR_KERNEL_IF_FAILED = 17,
};

// Puts the main thread into the namespace of a VPN and back into the first one. Callers pair the two in one function;
// nesting is not supported. A failed switch ends the process, since nothing later could be trusted.
void cfgmgr_set_ns(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);
void cfgmgr_reset_ns(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);

// Runs a command built from one of the templates of the kernel layer. True when it ran and its exit status is 0.
[[nodiscard]] bool cfgmgr_kernel_command(const char *command);

// True when the VPN is known and has an interface of that name.
[[nodiscard]] bool cfgmgr_kernel_if_exists(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, const char *name);

#endif
