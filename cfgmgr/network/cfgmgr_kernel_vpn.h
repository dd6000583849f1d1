// The kernel's side of a VPN: its namespace and the socket inside it.
#ifndef CFGMGR_NETWORK_CFGMGR_KERNEL_VPN_H
#define CFGMGR_NETWORK_CFGMGR_KERNEL_VPN_H

#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_vpn.h"

// Makes the namespace, tells the system manager of the VPN, opens kernel_sock. A namespace that exists is used as it
// is. One of cfgmgr_kernel_result_t.
[[nodiscard]] int cfgmgr_vpn_namespace_add(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p);

// Tells the system manager, unless the daemon is being stopped, and removes the namespace's files. The namespace itself
// stays, deliberately: a VPN that comes back finds it. One of cfgmgr_kernel_result_t.
int cfgmgr_vpn_namespace_delete(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p);

void cfgmgr_kernel_sock_close(cfgmgr_vpn_t *vpn_p);

#endif
