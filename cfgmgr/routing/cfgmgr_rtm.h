// Interface events of a VPN: the control connection to its zebra, which keeps the table of interface indexes up to date.
//
// The connection comes back by itself when zebra was away. Between a loss and the next connection the index table holds
// nothing of the VPN; zebra tells everything anew on the registration. Main thread.
#ifndef CFGMGR_ROUTING_CFGMGR_RTM_H
#define CFGMGR_ROUTING_CFGMGR_RTM_H

#include "cfgmgr/network/cfgmgr_vpn.h"

// Opens the connection, without waiting for it. 0, or QUAGGA_NO_RESOURCE. A second one is fatal.
[[nodiscard]] int cfgmgr_rtm_client_init(cfgmgr_vpn_t *vpn_p);
// Null and a VPN without one are fine.
void cfgmgr_rtm_client_deinit(cfgmgr_vpn_t *vpn_p);

#endif
