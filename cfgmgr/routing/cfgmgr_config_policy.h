// Route policies and the lists that they name. They belong to the device, the routing daemons to VPNs: each change becomes
// one message that goes to the daemons of every VPN.
//
// cfgmgr_config_policy.cc holds the lists, cfgmgr_config_route_map.cc the policies, cfgmgr_policy_replay.cc whom a change
// is sent to and how a VPN that comes later gets what is there. No copy of them is kept.
#ifndef CFGMGR_ROUTING_CFGMGR_CONFIG_POLICY_H
#define CFGMGR_ROUTING_CFGMGR_CONFIG_POLICY_H

#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_vpn.h"

struct ProtobufCMessage;

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

// ---- whom changes are sent to

// Sends a message of a row that is being served to the daemons that its kind goes to, in every VPN that is to have it.
// A message of another kind is fatal. Gives 0, as handlers do.
int32_t cfgmgr_policy_send(const tconfd_sub *row, const ProtobufCMessage &message);

// Sees to it that a VPN that the row has just made gets the policies that are there: at once when there are none, by the
// initial read, or by a replay, at whose end cfgmgr_policies_replayed marks it. Blocks until the agent has told whether
// there are any.
void cfgmgr_policy_start(const tconfd_sub *row, cfgmgr_vpn_t *vpn_p);
// At the end of each triggered delivery: all VPNs have all policies.
void cfgmgr_policies_replayed(cfgmgrd_t *cfgmgrd_p);
// At the end of any other: whom the initial read has left without them, since it was cut short, waits for a replay.
void cfgmgr_policies_not_replayed(cfgmgrd_t *cfgmgrd_p);
// arg1: the daemon. Replays for VPNs that still wait: a replay is lost with the agent, and none begins while the initial
// read goes on.
void cfgmgr_policy_timer_cb(timer_util_t *timer, void *arg1, void *arg2, void *arg3, void *arg4);
inline constexpr uint32_t POLICY_RETRY_MS = 10000;

// ---- the model's enumerations in the daemons' numbers; one that is unknown is logged and gives 0

[[nodiscard]] uint32_t cfgmgr_config_pol_action_to_quagga_pb(uint32_t action);
[[nodiscard]] uint32_t cfgmgr_config_pol_bgp_origin_to_quagga_pb(uint32_t origin);
[[nodiscard]] uint32_t cfgmgr_config_pol_metric_to_quagga_pb(uint32_t type);

#endif
