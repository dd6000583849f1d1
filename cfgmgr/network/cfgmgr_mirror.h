// Leaves that show in a second place of the configuration: transaction hooks that write there what an operator changes
// here, in the same transaction, before it is judged. A hook that fails refuses the transaction.
//
// The signatures are those of data callbacks. CONFD_OK; a failure is logged.
#ifndef CFGMGR_NETWORK_CFGMGR_MIRROR_H
#define CFGMGR_NETWORK_CFGMGR_MIRROR_H

#include <confd_dp.h>

// The banner after a login is the agent's. A failure is -1.
int cfgmgr_config_banner_motd_confd_create(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval);
int cfgmgr_config_banner_motd_confd_delete(confd_trans_ctx *tctx, confd_hkeypath_t *kp);

// The host name is the name of the device for SNMP, while that is served and has none of its own. A failure is 1, here
// and below.
int cfgmgr_system_host_name_set(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval);

// An interface without a DHCPv6 client has no rapid commit either.
int cfgmgr_vpn_if_set_dhcp_rapid_commit(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval);

// Logs of the agent: on while they are not disabled here.
int cfgmgr_system_logs_audit_set(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval);
int cfgmgr_system_logs_netconf_set(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval);
// On again when the word is taken back: a log of who did what must not stay off unnoticed.
int cfgmgr_system_logs_audit_remove(confd_trans_ctx *tctx, confd_hkeypath_t *kp);
int cfgmgr_system_logs_netconf_remove(confd_trans_ctx *tctx, confd_hkeypath_t *kp);

#endif
