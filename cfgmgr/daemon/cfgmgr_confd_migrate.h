// Steps for configurations of older releases that no start of this release runs: a later sequence of upgrades can pick
// them up. Each has the form of a step of cfgmgr_confd_upgrade; what is read of the old forms comes from the stored
// configuration, what is written goes into the transaction.
//
// A failing write is logged and the next goes on. 0, 16 when the configuration cannot be read, or the agent's result of
// the last write that failed.
#ifndef CFGMGR_DAEMON_CFGMGR_CONFD_MIGRATE_H
#define CFGMGR_DAEMON_CFGMGR_CONFD_MIGRATE_H

#include "cfgmgr/daemon/cfgmgr_context.h"

// Daemons and the device are not restarted after a fault.
int cfgmgr_confd_startup_set_daemon_config(cfgmgrd_t *cfgmgrd_p, int maapi, int th);
// A device without the VPN is as wanted.
int cfgmgr_confd_delete_mgmt_vpn(cfgmgrd_t *cfgmgrd_p, int maapi, int th);
// The time between two probes has another name.
int cfgmgr_confd_upgrade_bfd_hello_interval(cfgmgrd_t *cfgmgrd_p, int maapi, int th);
// A list of sites has several data policies, no longer one.
int cfgmgr_confd_upgrade_apply_data_policy(cfgmgrd_t *cfgmgrd_p, int maapi, int th);
// Sites and VPNs of lists are texts, no longer numbers.
int cfgmgr_confd_upgrade_site_list(cfgmgrd_t *cfgmgrd_p, int maapi, int th);
int cfgmgr_confd_upgrade_vpn_list(cfgmgrd_t *cfgmgrd_p, int maapi, int th);
// Ports of a rule are one text, no longer a list of numbers and ranges.
int cfgmgr_confd_upgrade_acl_source_port(cfgmgrd_t *cfgmgrd_p, int maapi, int th);
int cfgmgr_confd_upgrade_acl_destination_port(cfgmgrd_t *cfgmgrd_p, int maapi, int th);

#endif
