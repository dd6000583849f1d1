// What an earlier life of the daemon has left in the kernel because it ended without its way down.
#ifndef CFGMGR_NETWORK_CFGMGR_KERNEL_LEFTOVERS_H
#define CFGMGR_NETWORK_CFGMGR_KERNEL_LEFTOVERS_H

// Removes the taps of all namespaces of VPNs and of the first one. VRF indexes follow the order in which VPNs are made,
// which is another one after a start: a tap that stayed would lead one VPN's traffic into another. Everything else that
// has stayed is used as it is, since its name tells whose it is. To be called before the first VPN is made.
void cfgmgr_kernel_remove_leftover_taps();

#endif
