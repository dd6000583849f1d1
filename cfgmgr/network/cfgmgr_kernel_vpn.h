// The kernel's side of a VPN: its namespace, the socket inside it, its taps to the forwarding plane, and the start and
// stop of its routing daemons.
#ifndef CFGMGR_NETWORK_CFGMGR_KERNEL_VPN_H
#define CFGMGR_NETWORK_CFGMGR_KERNEL_VPN_H

#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_vpn.h"

// Makes the namespace, tells the system manager of the VPN, connects to its routing daemons, opens kernel_sock. A
// namespace that exists is used as it is. One of cfgmgr_kernel_result_t. Routing daemons that do not come up are fatal.
[[nodiscard]] int cfgmgr_vpn_namespace_add(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p);

// Tells the system manager, unless the daemon is being stopped, lets the routing daemons go and removes the namespace's
// files. The namespace itself stays, deliberately: a VPN that comes back finds it. One of cfgmgr_kernel_result_t.
int cfgmgr_vpn_namespace_delete(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p);

void cfgmgr_kernel_sock_close(cfgmgr_vpn_t *vpn_p);

// The service tap, loop0.<vrf id>, with the addresses that lead to the forwarding plane; not for VPN 0.
int cfgmgr_vpn_create_tap(cfgmgr_vpn_t *vpn_p);
// The forwarding tap, loop0.<vrf id + 2000>, of every VPN.
int cfgmgr_vpn_create_fp_tap_interface(cfgmgr_vpn_t *vpn_p);
// Deletes both; a failure is logged and does not stop the rest.
void cfgmgr_vpn_delete_taps(const cfgmgr_vpn_t *vpn_p);

#endif
