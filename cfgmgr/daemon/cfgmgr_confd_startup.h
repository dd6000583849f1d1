// What the daemon does to the agent's init transaction, which is open from the agent's start until the system manager
// lets it serve: the one moment for writing configuration without a commit of its own.
//
// A device without configuration gets the defaults that it needs to be reached and to find its orchestrator. A device
// with one loses what is not meant to outlive a start, and is brought up from an older release when the command line
// asks for it. What is written here passes the hooks and validation points when the agent commits the transaction.
#ifndef CFGMGR_DAEMON_CFGMGR_CONFD_STARTUP_H
#define CFGMGR_DAEMON_CFGMGR_CONFD_STARTUP_H

#include "cfgmgr/daemon/cfgmgr_context.h"

#include <cstdint>

inline constexpr int CFGMGR_STARTUP_NO_ADDRESS = 2; // an interface without the address that it should have

// An interface of a VPN with its defaults. Needed ones: a failure is an assertion, but for the address.
struct startup_if_t {
    uint64_t vpn_id;
    const char *name;    // the operator's
    bool has_tunnel;     // the overlay's tunnels start here
    bool has_dhcp;       // addresses come from DHCP
    const char *address; // static one with its length; not looked at with DHCP
};

// Once per process, with the agent in phase 1. 0 or the result of the step that came last or could not be done without:
// 2, 16, or 7 of an upgrade that was not pending.
int cfgmgr_confd_startup_modify_transaction(cfgmgrd_t *cfgmgrd_p);

// Steps of it, on the maapi socket and a transaction. 0, or the result told above.
int cfgmgr_confd_startup_create_vpn(cfgmgrd_t *cfgmgrd_p, int maapi, int th);
// VPN 512, and its interface where the device has a port for it.
int cfgmgr_confd_startup_create_mgmt_vpn(cfgmgrd_t *cfgmgrd_p, int maapi, int th);
int cfgmgr_confd_startup_create_if(int maapi, int th, const startup_if_t &wanted);

#endif
