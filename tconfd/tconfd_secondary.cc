// A second daemon context with a control and a worker socket of its own, so that a daemon can answer actions and data
// requests while its primary worker is busy.

#include "tconfd/tconfd_connect.h"
#include "tconfd/tconfd_internal.h"

#include <cstdlib>

namespace
{

bool connect_secondary(tconfd_ctx *ctx, const char *name)
{
    if (!tconfd_daemon_ctx_create(ctx, name) || !tconfd_socket_open(ctx, &ctx->ctrl_fd, "control") ||
        !tconfd_socket_open(ctx, &ctx->work_fd, "worker") || !tconfd_daemon_sockets_connect(ctx) ||
        !tconfd_trans_cb_register(ctx) || !tconfd_daemon_events_add(ctx) ||
        !tconfd_actions_register(ctx, ctx->reg.actions))
        return false;
    if (ctx->reg.register_data_cbs(ctx) != 0) {
        tconfd_log_as("tconfd_module_secondary_context_register", "Failed to register data call backs");
        return false;
    }
    return tconfd_register_done(ctx);
}

} // namespace

void tconfd_secondary_free(tconfd_ctx *secondary)
{
    tconfd_daemon_sockets_close(secondary);
    tconfd_daemon_ctx_release(secondary);
    free(secondary);
}

int tconfd_module_secondary_context_register(const tconfd_registration *reg, tconfd_ctx *ctx)
{
    if (reg == nullptr || ctx == nullptr || reg->actions == nullptr || reg->register_data_cbs == nullptr) {
        tconfd_log("Invalid tconfd registration: NULL Parameters");
        return TCONFD_FAILED;
    }
    if (ctx->secondary_ctx != nullptr) {
        tconfd_secondary_free(ctx->secondary_ctx);
        ctx->secondary_ctx = nullptr;
    }
    char name[33];
    (void)snprintf(name, sizeof name, "%s-secondary", tconfd_name());
    tconfd_library_init(name);
    tconfd_ctx *secondary = tconfd_ctx_alloc(*reg);
    if (secondary == nullptr)
        return TCONFD_NO_MEMORY;
    secondary->reg.event_base = ctx->reg.event_base;
    secondary->primary_ctx = ctx;
    if (connect_secondary(secondary, name)) {
        ctx->secondary_ctx = secondary;
        return TCONFD_OK;
    }
    tconfd_retry_connect(ctx);
    tconfd_secondary_free(secondary);
    return TCONFD_RETRY;
}
