// Registration with the datastore client.

#include "cfgmgr/daemon/cfgmgr_confd.h"

#include "cfgmgr/daemon/cfgmgr_callpoints.h"
#include "cfgmgr/daemon/cfgmgr_confd_startup.h"
#include "cfgmgr/daemon/cfgmgr_dump.h"
#include "cfgmgr/daemon/cfgmgr_sysmgr.h"
#include "cfgmgr/network/cfgmgr_complete.h"
#include "cfgmgr/network/cfgmgr_config_banner.h"
#include "cfgmgr/network/cfgmgr_config_bridge.h"
#include "cfgmgr/network/cfgmgr_config_ovc.h"
#include "cfgmgr/network/cfgmgr_config_system.h"
#include "cfgmgr/network/cfgmgr_config_vpn.h"
#include "cfgmgr/network/cfgmgr_config_vpn_if.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_oper_vpn_if.h"
#include "cfgmgr/network/cfgmgr_validate.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "cfgmgr/routing/cfgmgr_config_policy.h"
#include "cfgmgr/routing/cfgmgr_config_vpn_bgp.h"
#include "cfgmgr/routing/cfgmgr_config_vpn_ospf.h"
#include "common/daemon_names.h"
#include "common/tip_log.h"
#include "common/tip_text.h"
#include "yang/corvane-bridge.h"
#include "yang/corvane-ovc.h"
#include "yang/corvane-policy.h"
#include "yang/corvane-system.h"
#include "yang/corvane-vpn.h"

namespace
{

struct path_row_t {
    const char *path;
    tconfd_handler_t handler;
    uint32_t ns;
    uint8_t num_keys;
    uint8_t add; // priority: lower ones are served first
    uint8_t del; // of deletions, when they come apart; else 0
    uint8_t flags;
};

// The paths that the daemon listens to. Deletions of priority 2 end before additions of 3 begin; within a priority the
// order of the rows counts: a VPN comes before its interfaces, a bridge before its members.
constexpr path_row_t paths[] = {
    { "system", cfgmgr_config_system, system__ns, 0, 3, 0, 0 },
    { "banner", cfgmgr_config_banner, system__ns, 0, 6, 0, 0 },
    { "ovc", cfgmgr_config_ovc_lodest_peers, ovc__ns, 0, 6, 0, TCONFD_SUB_OPER },
    { "bridge/bridge-instance", cfgmgr_config_bridge, bridge__ns, 1, 3, 2, 0 },
    { "vpn/vpn-instance", cfgmgr_config_vpn, vpn__ns, 1, 3, 2, 0 },
    { "vpn/vpn-instance/dns", cfgmgr_config_dns, vpn__ns, 2, 6, 0, 0 },
    { "vpn/vpn-instance/host", cfgmgr_config_host, vpn__ns, 2, 6, 0, 0 },
    { "vpn/vpn-instance/service", cfgmgr_config_service, vpn__ns, 2, 3, 2, 0 },
    { "bridge/bridge-instance/interface", cfgmgr_config_bridge_if, bridge__ns, 2, 3, 2, 0 },
    { "vpn/vpn-instance/interface", cfgmgr_config_vpn_if, vpn__ns, 2, 3, 2, 0 },
    { "vpn/vpn-instance/interface/ip/address-list", cfgmgr_config_if_addr_list, vpn__ns, 3, 3, 0, 0 },
    { "vpn/vpn-instance/interface/ip/secondary-address", cfgmgr_config_if_sec_address, vpn__ns, 3, 3, 0, 0 },
    { "vpn/vpn-instance/interface/ip/static-route", cfgmgr_config_if_route, vpn__ns, 3, 3, 0, 0 },
    { "vpn/vpn-instance/interface/ip/static-route/next-hop", cfgmgr_config_if_route_addr, vpn__ns, 4, 3, 0, 0 },
    { "vpn/vpn-instance/router/bgp", cfgmgr_config_vpn_bgp, vpn__ns, 2, 6, 0, 0 },
    { "vpn/vpn-instance/router/bgp/address-family", cfgmgr_config_vpn_bgp_address_family, vpn__ns, 3, 6, 0, 0 },
    { "vpn/vpn-instance/router/bgp/address-family/aggregate-address",
      cfgmgr_config_vpn_bgp_address_family_aggregate_address, vpn__ns, 4, 6, 0, 0 },
    { "vpn/vpn-instance/router/bgp/address-family/network", cfgmgr_config_vpn_bgp_address_family_network, vpn__ns, 4, 6,
      0, 0 },
    { "vpn/vpn-instance/router/bgp/address-family/redistribute", cfgmgr_config_vpn_bgp_address_family_redistribute,
      vpn__ns, 4, 6, 0, 0 },
    { "vpn/vpn-instance/router/bgp/neighbor", cfgmgr_config_vpn_bgp_neighbor, vpn__ns, 3, 6, 0, 0 },
    { "vpn/vpn-instance/router/bgp/neighbor/address-family", cfgmgr_config_vpn_bgp_neighbor_address_family, vpn__ns, 4,
      6, 0, 0 },
    { "vpn/vpn-instance/router/bgp/neighbor/address-family/route-policy",
      cfgmgr_config_vpn_bgp_neighbor_address_family_route_policy, vpn__ns, 5, 6, 0, 0 },
    { "vpn/vpn-instance/router/ospf/route-policy", cfgmgr_config_vpn_ospf_route_policy, vpn__ns, 2, 6, 0, 0 },
    { "vpn/vpn-instance/router/ospf/redistribute", cfgmgr_config_vpn_ospf_redistribute, vpn__ns, 2, 6, 0, 0 },
    { "vpn/vpn-instance/router/ospf/max-metric/router-lsa", cfgmgr_config_vpn_ospf_max_metric, vpn__ns, 2, 6, 0, 0 },
    { "vpn/vpn-instance/router/ospf/area", cfgmgr_config_vpn_ospf_area, vpn__ns, 2, 6, 0, 0 },
    { "vpn/vpn-instance/router/ospf/area/interface", cfgmgr_config_vpn_ospf_area_interface, vpn__ns, 3, 6, 5, 0 },
    { "vpn/vpn-instance/router/ospf/area/range", cfgmgr_config_vpn_ospf_area_range, vpn__ns, 3, 6, 0, 0 },
    { "policy/route-policy", cfgmgr_config_route_map, policy__ns, 1, 6, 0, 0 },
    { "policy/route-policy/sequence", cfgmgr_config_route_map_seq, policy__ns, 2, 6, 0, 0 },
    { "policy/lists/prefix-list", cfgmgr_config_prefix_list, policy__ns, 1, 6, 0, 0 },
    { "policy/lists/prefix-list/ip-prefix", cfgmgr_config_prefix_list_prefix, policy__ns, 2, 6, 0, 0 },
    { "policy/lists/as-path-list", cfgmgr_config_as_path_list, policy__ns, 1, 6, 0, 0 },
    { "policy/lists/as-path-list/as-path", cfgmgr_config_as_path_list_exp, policy__ns, 2, 6, 0, 0 },
    { "policy/lists/community-list", cfgmgr_config_community_list, policy__ns, 1, 6, 0, 0 },
    { "policy/lists/community-list/community", cfgmgr_config_community_list_attr, policy__ns, 2, 6, 0, 0 },
    { "policy/lists/ext-community-list", cfgmgr_config_ext_community_list, policy__ns, 1, 6, 0, 0 },
    { "policy/lists/ext-community-list/community", cfgmgr_config_ext_community_list_attr, policy__ns, 2, 6, 0, 0 },
    { "vpn/vpn-instance/interface", cfgmgr_oper_vpn_if, vpn__ns, 2, 6, 0, TCONFD_SUB_OPER },
    { "ovc", cfgmgr_config_ovc_overlay_as, ovc__ns, 0, 6, 0, 0 },
};

// As the datastore client takes them, ended by an empty row; it writes into them.
tconfd_sub subscriptions[std::size(paths) + 1];

tconfd_sub make_row(const path_row_t &from)
{
    tconfd_sub row{};
    strlcpy(row.path, from.path, sizeof row.path);
    row.handler = from.handler;
    row.ns = from.ns;
    row.num_keys = from.num_keys;
    row.priority = static_cast<uint8_t>(from.del << 4 | from.add);
    row.flags = from.flags;
    return row;
}

void fill_subscriptions()
{
    tconfd_sub *row = subscriptions;
    for (const path_row_t &path : paths)
        *row++ = make_row(path);
}

struct action_row_t {
    const char *point;
    decltype(confd_action_cbs::command) command = nullptr;
    decltype(confd_action_cbs::completion) completion = nullptr;
};

// What operators run, and the words that they are offered.
constexpr action_row_t action_rows[] = {
    { .point = "cfgmgr_dump_vpn", .command = cfgmgr_dump_vpn },
    { .point = "cfgmgr_dump_if", .command = cfgmgr_dump_if },
    { .point = "cfgmgr_if_reset", .command = cfgmgr_if_reset },
    { .point = "bind_if_complete", .completion = cfgmgr_tunnel_if_bind_ifs_complete },
    { .point = "service-interface-complete", .completion = cfgmgr_config_vpn_service_interface_complete },
    { .point = "gre-route-interface-complete", .completion = cfgmgr_config_vpn_service_interface_complete },
    { .point = "slx-exit-interface-complete", .completion = cfgmgr_config_slx_interface_complete },
};

// As the datastore client takes them, ended by an empty row.
confd_action_cbs actions[std::size(action_rows) + 1];

void fill_actions()
{
    confd_action_cbs *action = actions;
    for (const action_row_t &row : action_rows) {
        *action = {};
        strlcpy(action->actionpoint, row.point, sizeof action->actionpoint);
        action->command = row.command;
        action->completion = row.completion;
        action++;
    }
}

cfgmgrd_t *daemon_of(tconfd_ctx *ctx)
{
    return static_cast<cfgmgrd_t *>(ctx->reg.app_ctx);
}

} // namespace

int cfgmgr_confd_init(cfgmgrd_t *cfgmgrd_p)
{
    fill_subscriptions();
    fill_actions();
    tconfd_registration reg{};
    reg.app_ctx = cfgmgrd_p;
    reg.subs = subscriptions;
    reg.valpoints = cfgmgr_validate_points();
    reg.actions = actions;
    reg.register_data_cbs = cfgmgr_confd_register_data_cbs;
    reg.sync_cb = cfgmgr_sync_cb;
    reg.post_init_cb = cfgmgr_confd_post_init;
    reg.event_base = cfgmgrd_p->event_base;
    reg.timer_mgr = cfgmgrd_p->timer_mgr_p;
    reg.module_id = DAEMON_ID_CFGMGR;
    int result = tconfd_module_init(&reg, nullptr, &cfgmgrd_p->tconfd_ctx_p);
    if (result == TCONFD_OK || result == TCONFD_RETRY)
        return 0;
    tip_log("Failed connecting to confd");
    return 1;
}

void cfgmgr_confd_deinit(cfgmgrd_t *cfgmgrd_p)
{
    tconfd_module_free(cfgmgrd_p->tconfd_ctx_p);
    cfgmgrd_p->tconfd_ctx_p = nullptr;
}

void cfgmgr_confd_post_init(tconfd_ctx *ctx)
{
    cfgmgrd_t *cfgmgrd_p = daemon_of(ctx);
    if (cfgmgrd_p->startup_done == 1)
        return;
    (void)cfgmgr_confd_startup_modify_transaction(cfgmgrd_p); // logged; the agent has to go on in any case
    app_sysmgr_send_agent_ready(cfgmgrd_p->sysmgr_handle_p);
    cfgmgrd_p->startup_done = 1;
}

void cfgmgr_sync_cb(tconfd_ctx *ctx, int triggered)
{
    cfgmgrd_t *cfgmgrd_p = daemon_of(ctx);
    cfgmgrd_p->usergroup_dirty = 0;
    if (triggered != 0)
        cfgmgr_policies_replayed(cfgmgrd_p);
    else
        cfgmgr_policies_not_replayed(cfgmgrd_p);
}
