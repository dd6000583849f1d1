// Names of interfaces for the operator who types one: the completion callbacks of leaves whose values are no reference
// to one list.
//
// Each gives at most 128 names, and -1 with or without a reason when it has none to give: without one the operator just
// sees no choices. What does not go on with the word typed so far is dropped by the agent. The callbacks of services
// and exits show what is committed; a reply that cannot be given to the agent ends the process there.
#ifndef CFGMGR_NETWORK_CFGMGR_COMPLETE_H
#define CFGMGR_NETWORK_CFGMGR_COMPLETE_H

#include <confd_dp.h>

inline constexpr int COMPLETE_MAX = 128;

// Ports of the VPN in the keypath, as in the candidate configuration and behind them those that the operator has just
// typed. In a session of its own: blocks for its exchange with the agent.
int cfgmgr_tunnel_if_bind_ifs_complete(confd_user_info *uinfo, int cli_style, char *token, int completion_char,
                                       confd_hkeypath_t *kp, char *cmdpath, char *cmdparam_id, confd_qname *simple_type,
                                       char *extra);
// GRE tunnels of the transport VPN, by their kernel names.
int cfgmgr_config_vpn_service_interface_complete(confd_user_info *uinfo, int cli_style, char *token,
                                                 int completion_char, confd_hkeypath_t *kp, char *cmdpath,
                                                 char *cmdparam_id, confd_qname *simple_type, char *extra);
// Ports and GRE tunnels of the transport VPN. The help list has of the ports only those that translate addresses; what
// completes a word has all.
int cfgmgr_config_slx_interface_complete(confd_user_info *uinfo, int cli_style, char *token, int completion_char,
                                         confd_hkeypath_t *kp, char *cmdpath, char *cmdparam_id,
                                         confd_qname *simple_type, char *extra);

#endif
