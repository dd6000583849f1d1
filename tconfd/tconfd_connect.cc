// Daemon context, control and worker sockets: the part of a connection that every context has.

#include "tconfd/tconfd_connect.h"

#include "tconfd/tconfd_internal.h"

#include <cerrno>
#include <cstdlib>

namespace
{

constexpr int LIBRARY_VERSION = 0x6030100;
constexpr int MAX_DEPTH = 20;
constexpr int MAX_KEYS = 9;

tconfd_ctx *context_of(const confd_daemon_ctx *dx)
{
    return static_cast<tconfd_ctx *>(dx->d_opaque);
}

// Each context's steps log under the operation that connects it.
const char *operation(const tconfd_ctx *ctx)
{
    return ctx->primary_ctx != nullptr ? "tconfd_module_secondary_context_register" : "tconfd_module_init";
}

int init_transaction(confd_trans_ctx *tctx)
{
    confd_trans_set_fd(tctx, context_of(tctx->dx)->work_fd);
    return CONFD_OK;
}

int init_action(confd_user_info *uinfo)
{
    confd_action_set_fd(uinfo, context_of(uinfo->dx)->work_fd);
    return CONFD_OK;
}

void tconfd_ctrl_cb(evutil_socket_t fd, short, void *arg)
{
    auto *ctx = static_cast<tconfd_ctx *>(arg);
    int result = confd_fd_ready(ctx->daemon_ctx, fd);
    if (result == CONFD_EOF) {
        tconfd_log("Control socket closed");
        tconfd_retry_connect(ctx);
    } else if (result == CONFD_ERR && confd_errno != CONFD_ERR_EXTERNAL) {
        tconfd_log("Error on control socket request: %s (%d): %s", confd_strerror(confd_errno), confd_errno,
                   confd_lasterr());
    }
}

void tconfd_work_cb(evutil_socket_t fd, short, void *arg)
{
    auto *ctx = static_cast<tconfd_ctx *>(arg);
    int result = confd_fd_ready(ctx->daemon_ctx, fd);
    if (result == CONFD_EOF) {
        tconfd_trace("Worker socket closed");
        tconfd_retry_connect(ctx);
    } else if (result == CONFD_ERR && confd_errno != CONFD_ERR_EXTERNAL) {
        tconfd_trace("Error on worker socket request: %s (%d): %s", confd_strerror(confd_errno), confd_errno,
                     confd_lasterr());
    }
}

bool add_read_event(event_base *base, int fd, event_callback_fn callback, tconfd_ctx *ctx, event **out)
{
    *out = event_new(base, fd, EV_READ | EV_PERSIST, callback, ctx);
    return *out != nullptr && event_add(*out, nullptr) == 0;
}

} // namespace

void tconfd_library_init(const char *client_name)
{
    char name[33];
    (void)snprintf(name, sizeof name, "%s", client_name);
    confd_init_vsn_sz(name, stderr, CONFD_SILENT, LIBRARY_VERSION, MAX_DEPTH, MAX_KEYS);
}

tconfd_ctx *tconfd_ctx_alloc(const tconfd_registration &reg)
{
    auto *ctx = static_cast<tconfd_ctx *>(calloc(1, sizeof(tconfd_ctx)));
    if (ctx == nullptr) {
        tconfd_log("Failed to allocate memory for tconfd context");
        return nullptr;
    }
    ctx->reg = reg;
    ctx->ctrl_fd = ctx->work_fd = ctx->subscr_fd = ctx->data_fd = ctx->maapi_fd = ctx->notif_fd = -1;
    ctx->pipe_fd[0] = ctx->pipe_fd[1] = -1;
    return ctx;
}

bool tconfd_daemon_ctx_create(tconfd_ctx *ctx, const char *name)
{
    ctx->daemon_ctx = confd_init_daemon(name);
    if (ctx->daemon_ctx == nullptr) {
        tconfd_log_as(operation(ctx), "Failed to initialize confdlib (%s)", name);
        return false;
    }
    ctx->daemon_ctx->d_opaque = ctx;
    return true;
}

void tconfd_daemon_ctx_release(tconfd_ctx *ctx)
{
    if (ctx->daemon_ctx == nullptr)
        return;
    confd_release_daemon(ctx->daemon_ctx);
    ctx->daemon_ctx = nullptr;
}

bool tconfd_socket_open(const tconfd_ctx *ctx, int32_t *fd, const char *word)
{
    *fd = tconfd_agent_socket().release();
    if (*fd >= 0)
        return true;
    tconfd_log_as(operation(ctx), "Failed to open %s socket (%s)", word, tconfd_name());
    return false;
}

bool tconfd_daemon_sockets_connect(tconfd_ctx *ctx)
{
    const sockaddr_in &address = tconfd_agent_address();
    const auto *agent = reinterpret_cast<const sockaddr *>(&address);
    if (confd_connect(ctx->daemon_ctx, ctx->ctrl_fd, CONTROL_SOCKET, agent, sizeof address) != CONFD_OK)
        return false;
    int result = confd_connect(ctx->daemon_ctx, ctx->work_fd, WORKER_SOCKET, agent, sizeof address);
    if (result != CONFD_OK)
        tconfd_log_as(operation(ctx), "Failed to connect worker socket to confd (%s - %d)", tconfd_name(), result);
    return result == CONFD_OK;
}

void tconfd_daemon_sockets_close(tconfd_ctx *ctx)
{
    tconfd_event_free(&ctx->ctrl_event);
    tconfd_event_free(&ctx->work_event);
    tconfd_fd_close(&ctx->ctrl_fd);
    tconfd_fd_close(&ctx->work_fd);
}

bool tconfd_daemon_events_add(tconfd_ctx *ctx)
{
    struct event_base *base = ctx->reg.event_base;
    if (!add_read_event(base, ctx->ctrl_fd, tconfd_ctrl_cb, ctx, &ctx->ctrl_event)) {
        tconfd_log_as(operation(ctx), "Failed to add event for control socket");
        return false;
    }
    if (!add_read_event(base, ctx->work_fd, tconfd_work_cb, ctx, &ctx->work_event)) {
        tconfd_log_as(operation(ctx), "Failed to add event for worker socket");
        return false;
    }
    return true;
}

bool tconfd_trans_cb_register(tconfd_ctx *ctx)
{
    confd_trans_cbs callbacks{};
    callbacks.init = init_transaction;
    int result = confd_register_trans_cb(ctx->daemon_ctx, &callbacks);
    if (result != CONFD_OK)
        tconfd_log_as(operation(ctx), "Failed to register transaction call back (%s - %d)", tconfd_name(), result);
    return result == CONFD_OK;
}

bool tconfd_actions_register(tconfd_ctx *ctx, confd_action_cbs *rows)
{
    for (confd_action_cbs *row = rows; row->actionpoint[0] != '\0'; row++) {
        row->init = init_action;
        int result = confd_register_action_cbs(ctx->daemon_ctx, row);
        if (result != CONFD_OK) {
            tconfd_log_as(operation(ctx), "Failed to register %s action call back (%s - %d)", row->actionpoint,
                          tconfd_name(), result);
            return false;
        }
    }
    return true;
}

bool tconfd_register_done(tconfd_ctx *ctx)
{
    int result = confd_register_done(ctx->daemon_ctx);
    if (result != CONFD_OK)
        tconfd_log_as(operation(ctx), "Failed to end the registrations (%s - %d)", tconfd_name(), result);
    return result == CONFD_OK;
}

void tconfd_fd_close(int32_t *fd)
{
    if (*fd > 0)
        close(*fd);
    *fd = -1;
}

void tconfd_event_free(event **ev)
{
    if (*ev != nullptr)
        event_free(*ev);
    *ev = nullptr;
}
