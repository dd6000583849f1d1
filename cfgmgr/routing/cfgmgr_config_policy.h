// Route policies and the lists that they name. They belong to the device, the routing daemons to VPNs: each change becomes
// one message that goes to the daemons of every VPN.
//
// cfgmgr_config_policy.cc holds the lists, cfgmgr_config_route_map.cc the policies, cfgmgr_policy_replay.cc how a VPN that
// comes later gets what is there. No copy of them is kept.
#ifndef CFGMGR_ROUTING_CFGMGR_CONFIG_POLICY_H
#define CFGMGR_ROUTING_CFGMGR_CONFIG_POLICY_H

#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_vpn.h"

// ---- handlers; all give 0. Those of lists act on deletions only: without a member there is nothing to tell.

cfgmgr_config_handler_t cfgmgr_config_route_map;               // "policy/route-policy"
cfgmgr_config_handler_t cfgmgr_config_route_map_seq;           // "policy/route-policy/sequence"
cfgmgr_config_handler_t cfgmgr_config_prefix_list;             // "policy/lists/prefix-list"
cfgmgr_config_handler_t cfgmgr_config_prefix_list_prefix;      // "policy/lists/prefix-list/ip-prefix"
cfgmgr_config_handler_t cfgmgr_config_as_path_list;            // "policy/lists/as-path-list"
cfgmgr_config_handler_t cfgmgr_config_as_path_list_exp;        // "policy/lists/as-path-list/as-path"
cfgmgr_config_handler_t cfgmgr_config_community_list;          // "policy/lists/community-list"
cfgmgr_config_handler_t cfgmgr_config_community_list_attr;     // "policy/lists/community-list/community"
cfgmgr_config_handler_t cfgmgr_config_ext_community_list;      // "policy/lists/ext-community-list"
cfgmgr_config_handler_t cfgmgr_config_ext_community_list_attr; // "policy/lists/ext-community-list/community"

// Sees to it that a VPN just made gets the policies that are there: at once, by the initial read, or by a replay, after
// which cfgmgr_policies_replayed marks it.
void cfgmgr_policy_start(tconfd_ctx *ctx, cfgmgr_vpn_t *vpn_p);
// At the end of a replay: all VPNs have all policies.
void cfgmgr_policies_replayed(cfgmgrd_t *cfgmgrd_p);

// ---- the model's enumerations in the daemons' numbers; one that is unknown is logged and gives 0

[[nodiscard]] uint32_t cfgmgr_config_pol_action_to_quagga_pb(uint32_t action);
[[nodiscard]] uint32_t cfgmgr_config_pol_bgp_origin_to_quagga_pb(uint32_t origin);
[[nodiscard]] uint32_t cfgmgr_config_pol_metric_to_quagga_pb(uint32_t type);

#endif
