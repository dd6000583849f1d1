// Registration with the datastore client.

#include "cfgmgr/daemon/cfgmgr_confd.h"

#include "cfgmgr/daemon/cfgmgr_sysmgr.h"
#include "cfgmgr/network/cfgmgr_config_vpn.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/daemon_names.h"
#include "common/tip_log.h"
#include "yang/corvane-vpn.h"

namespace
{

constexpr uint8_t priority(uint8_t add, uint8_t del = 0)
{
    return static_cast<uint8_t>(del << 4 | add);
}

tconfd_sub make_row(const char *path, tconfd_handler_t handler, uint32_t ns, uint8_t num_keys, uint8_t priorities)
{
    tconfd_sub row{};
    (void)snprintf(row.path, sizeof row.path, "%s", path);
    row.handler = handler;
    row.ns = ns;
    row.num_keys = num_keys;
    row.priority = priorities;
    return row;
}

// The paths that the daemon listens to. Lower priorities are served first: deletes of 2 end before adds of 3 begin.
tconfd_sub subscriptions[] = {
    make_row("vpn/vpn-instance", cfgmgr_config_vpn, vpn__ns, 1, priority(3, 2)),
    {},
};

// Rules that are checked in code, and operator commands: none.
confd_valpoint_cb validation_points[] = { {} };
confd_action_cbs actions[] = { {} };

// Nothing in the model is served by callbacks.
int cfgmgr_confd_register_data_cbs(tconfd_ctx *)
{
    return 0;
}

cfgmgrd_t *daemon_of(tconfd_ctx *ctx)
{
    return static_cast<cfgmgrd_t *>(ctx->reg.app_ctx);
}

} // namespace

int cfgmgr_confd_init(cfgmgrd_t *cfgmgrd_p)
{
    tconfd_registration reg{};
    reg.app_ctx = cfgmgrd_p;
    reg.subs = subscriptions;
    reg.valpoints = validation_points;
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
    app_sysmgr_send_agent_ready(cfgmgrd_p->sysmgr_handle_p);
    cfgmgrd_p->startup_done = 1;
}

void cfgmgr_sync_cb(tconfd_ctx *ctx, int triggered)
{
    cfgmgrd_t *cfgmgrd_p = daemon_of(ctx);
    cfgmgrd_p->usergroup_dirty = 0;
    if (triggered == 0)
        return;
    for (cfgmgr_vpn_t &vpn : avl_range<cfgmgr_vpn_t>(&cfgmgrd_p->vpn_table))
        vpn.policy_synced = 1;
}
