// The daemon context: its two connections, its registrations, and the small calls that callbacks make.
//
// The callbacks are kept with the context by the names under which the agent knows them. The agent makes no calls on
// the control and worker sockets, so that a frame there is an error and the end of the connection is all there is to
// be served.
#include "agent/client/confd_dp.h"

#include "agent/client/confd_internal.h"

#include <cstdlib>

struct confd_notification_ctx {
    confd_daemon_ctx *dx;
    std::string name;         // of the stream or the notification
    std::string context_name; // SNMP
    uint32_t handle;          // the agent's
    int fd;                   // the worker socket
    confd_notification_stream_cbs cbs;
};

struct registrations_t {
    confd_trans_cbs trans = {};
    confd_trans_validate_cbs validate = {};
    std::vector<confd_valpoint_cb> valpoints;
    std::vector<confd_action_cbs> actions;
    std::vector<confd_data_cbs> data;
    std::vector<std::unique_ptr<confd_notification_ctx>> notifications;
};

static registrations_t &registrations_of(confd_daemon_ctx *dx)
{
    return *static_cast<registrations_t *>(dx->internal);
}

// ---- the context

struct confd_daemon_ctx *confd_init_daemon(const char *name)
{
    auto *dx = new confd_daemon_ctx{};
    dx->name = strdup(name);
    dx->ctrl_fd = -1;
    dx->internal = new registrations_t;
    return dx;
}

void confd_release_daemon(struct confd_daemon_ctx *dx)
{
    if (dx == nullptr)
        return;
    delete static_cast<registrations_t *>(dx->internal);
    free(dx->name);
    delete dx;
}

int confd_connect(struct confd_daemon_ctx *dx, int sock, enum confd_sock_type type, const struct sockaddr *srv,
                  int addrsz)
{
    if (type == WORKER_SOCKET) {
        if (dx->daemon_id == 0)
            return confd_fail(CONFD_ERR_BADSTATE, "a worker socket before the control socket");
        return confd_io_connect(sock, WIRE_KIND_WORKER, dx->daemon_id, srv, addrsz, nullptr);
    }
    int result = confd_io_connect(sock, WIRE_KIND_CONTROL, 0, srv, addrsz, &dx->daemon_id);
    if (result == CONFD_OK)
        dx->ctrl_fd = sock;
    return result;
}

int confd_fd_ready(struct confd_daemon_ctx *dx, int fd)
{
    push_t push;
    int result = confd_io_next_push(fd, fd == dx->ctrl_fd ? WIRE_KIND_CONTROL : WIRE_KIND_WORKER, &push);
    if (result != CONFD_OK)
        return result;
    return confd_fail(CONFD_ERR_PROTOUSAGE, "operation %d of the agent is not known", push.header.op);
}

// ---- registrations

static int register_name(confd_daemon_ctx *dx, wire_op_t op, const char *name)
{
    wire_writer_t request;
    request.text(name);
    return confd_ask_nothing(dx->ctrl_fd, WIRE_KIND_CONTROL, op, request);
}

static int register_callbacks(confd_daemon_ctx *dx, wire_op_t op, const char *name, std::initializer_list<bool> is_set)
{
    uint32_t bits = 0, bit = 1;
    for (bool one : is_set) {
        bits |= one ? bit : 0;
        bit <<= 1;
    }
    wire_writer_t request;
    request.text(name);
    request.u32(bits);
    return confd_ask_nothing(dx->ctrl_fd, WIRE_KIND_CONTROL, op, request);
}

int confd_register_trans_cb(struct confd_daemon_ctx *dx, const struct confd_trans_cbs *cbs)
{
    int result = confd_ask_nothing(dx->ctrl_fd, WIRE_KIND_CONTROL, WIRE_REG_TRANS_CB, {});
    if (result == CONFD_OK)
        registrations_of(dx).trans = *cbs;
    return result;
}

int confd_register_trans_validate_cb(struct confd_daemon_ctx *dx, const struct confd_trans_validate_cbs *cbs)
{
    int result = confd_ask_nothing(dx->ctrl_fd, WIRE_KIND_CONTROL, WIRE_REG_VALIDATE_CB, {});
    if (result == CONFD_OK)
        registrations_of(dx).validate = *cbs;
    return result;
}

int confd_register_data_cb(struct confd_daemon_ctx *dx, const struct confd_data_cbs *cbs)
{
    int result = register_callbacks(dx, WIRE_REG_DATA_CB, cbs->callpoint,
                                    { cbs->exists_optional != nullptr, cbs->get_elem != nullptr,
                                      cbs->get_next != nullptr, cbs->set_elem != nullptr, cbs->create != nullptr,
                                      cbs->remove != nullptr, cbs->get_object != nullptr,
                                      cbs->get_next_object != nullptr, cbs->find_next_object != nullptr });
    if (result == CONFD_OK)
        registrations_of(dx).data.push_back(*cbs);
    return result;
}

int confd_register_valpoint_cb(struct confd_daemon_ctx *dx, const struct confd_valpoint_cb *cb)
{
    int result = register_name(dx, WIRE_REG_VALPOINT, cb->valpoint);
    if (result == CONFD_OK)
        registrations_of(dx).valpoints.push_back(*cb);
    return result;
}

int confd_register_action_cbs(struct confd_daemon_ctx *dx, const struct confd_action_cbs *cbs)
{
    int result = register_callbacks(dx, WIRE_REG_ACTION, cbs->actionpoint,
                                    { cbs->init != nullptr, cbs->abort != nullptr, cbs->action != nullptr,
                                      cbs->command != nullptr, cbs->completion != nullptr });
    if (result == CONFD_OK)
        registrations_of(dx).actions.push_back(*cbs);
    return result;
}

// Registers what the agent gives a handle for, and keeps the context.
static int register_notification(wire_op_t op, const wire_writer_t &request, confd_notification_ctx &&from,
                                 confd_notification_ctx **nctx)
{
    auto ctx = std::make_unique<confd_notification_ctx>(std::move(from));
    int result = confd_ask_u32(ctx->dx->ctrl_fd, WIRE_KIND_CONTROL, op, request, &ctx->handle);
    if (result != CONFD_OK)
        return result;
    *nctx = ctx.get();
    registrations_of(ctx->dx).notifications.push_back(std::move(ctx));
    return CONFD_OK;
}

int confd_register_notification_stream(struct confd_daemon_ctx *dx, const struct confd_notification_stream_cbs *cbs,
                                       struct confd_notification_ctx **nctx)
{
    wire_writer_t request;
    request.text(cbs->streamname);
    request.u8(cbs->replay != nullptr && cbs->get_log_times != nullptr);
    return register_notification(WIRE_REG_NOTIF_STREAM, request, { dx, cbs->streamname, {}, 0, cbs->fd, *cbs }, nctx);
}

int confd_register_snmp_notification(struct confd_daemon_ctx *dx, int fd, const char *notify_name, const char *ctx_name,
                                     struct confd_notification_ctx **nctx)
{
    wire_writer_t request;
    request.text(notify_name);
    request.text(ctx_name);
    return register_notification(WIRE_REG_SNMP_NOTIF, request, { dx, notify_name, ctx_name, 0, fd, {} }, nctx);
}

int confd_register_done(struct confd_daemon_ctx *dx)
{
    return confd_ask_nothing(dx->ctrl_fd, WIRE_KIND_CONTROL, WIRE_REG_DONE, {});
}

// ---- in callbacks

void confd_trans_set_fd(struct confd_trans_ctx *tctx, int sock)
{
    tctx->worker_fd = sock;
}

void confd_action_set_fd(struct confd_user_info *uinfo, int sock)
{
    uinfo->worker_fd = sock;
}

void confd_trans_seterr(struct confd_trans_ctx *tctx, const char *fmt, ...)
{
    char text[1024];
    va_list args;
    va_start(args, fmt);
    (void)vsnprintf(text, sizeof text, fmt, args); // a longer text is cut
    va_end(args);
    free(tctx->internal);
    tctx->internal = strdup(text);
}

const char *confd_trans_error(const confd_trans_ctx *tctx)
{
    return tctx->internal != nullptr ? static_cast<const char *>(tctx->internal) : "";
}

void confd_trans_release(confd_trans_ctx *tctx)
{
    free(tctx->internal);
    tctx->internal = nullptr;
}
