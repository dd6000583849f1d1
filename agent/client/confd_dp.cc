// The daemon context: its two connections and its registrations.
//
// The callbacks are kept with the context by the names under which the agent knows them; confd_dp_serve.cc calls them.
#include "agent/client/confd_dp.h"

#include "agent/client/confd_daemon.h"
#include "agent/client/confd_notif.h"

#include <cstdlib>

daemon_t::daemon_t() = default;
daemon_t::~daemon_t() = default;

std::shared_ptr<daemon_t> confd_share_daemon(const confd_daemon_ctx *dx)
{
    return *static_cast<std::shared_ptr<daemon_t> *>(dx->internal);
}

daemon_t &confd_daemon_of(const confd_daemon_ctx *dx)
{
    return **static_cast<std::shared_ptr<daemon_t> *>(dx->internal);
}

// ---- the context

struct confd_daemon_ctx *confd_init_daemon(const char *name)
{
    auto *dx = new confd_daemon_ctx{};
    dx->name = strdup(name);
    dx->ctrl_fd = -1;
    dx->internal = new std::shared_ptr<daemon_t>(std::make_shared<daemon_t>());
    return dx;
}

// An answer that is still to be sent finds its connection forgotten rather than another one of the same number.
static void forget_sockets(daemon_t &daemon)
{
    std::lock_guard guard(daemon.mutex);
    confd_io_forget_connection(daemon.control.fd, daemon.control.serial);
    for (const daemon_socket_t &worker : daemon.workers)
        confd_io_forget_connection(worker.fd, worker.serial);
}

void confd_release_daemon(struct confd_daemon_ctx *dx)
{
    if (dx == nullptr)
        return;
    auto *daemon = static_cast<std::shared_ptr<daemon_t> *>(dx->internal);
    forget_sockets(**daemon);
    delete daemon;
    free(dx->name);
    delete dx;
}

// A new control connection is a new daemon to the agent: nothing of the old one's transactions goes on.
static int connect_control(confd_daemon_ctx *dx, int sock, const sockaddr *srv, int addrsz)
{
    int result = confd_io_connect(sock, WIRE_KIND_CONTROL, 0, srv, addrsz, &dx->daemon_id);
    if (result != CONFD_OK)
        return result;
    const client_socket_t *state = confd_io_find(sock, WIRE_KIND_CONTROL);
    if (state == nullptr)
        return CONFD_ERR;
    dx->ctrl_fd = sock;
    daemon_t &daemon = confd_daemon_of(dx);
    std::lock_guard guard(daemon.mutex);
    daemon.control = { sock, state->serial };
    daemon.workers.clear();
    daemon.transactions.clear();
    daemon.invocations.clear();
    return CONFD_OK;
}

static int connect_worker(confd_daemon_ctx *dx, int sock, const sockaddr *srv, int addrsz)
{
    if (dx->daemon_id == 0)
        return confd_fail(CONFD_ERR_BADSTATE, "a worker socket before the control socket");
    int result = confd_io_connect(sock, WIRE_KIND_WORKER, dx->daemon_id, srv, addrsz, nullptr);
    const client_socket_t *state = result == CONFD_OK ? confd_io_find(sock, WIRE_KIND_WORKER) : nullptr;
    if (state == nullptr)
        return result;
    daemon_t &daemon = confd_daemon_of(dx);
    std::lock_guard guard(daemon.mutex);
    std::erase_if(daemon.workers, [sock](const daemon_socket_t &worker) { return worker.fd == sock; });
    daemon.workers.push_back({ sock, state->serial });
    return CONFD_OK;
}

int confd_connect(struct confd_daemon_ctx *dx, int sock, enum confd_sock_type type, const struct sockaddr *srv,
                  int addrsz)
{
    return type == WORKER_SOCKET ? connect_worker(dx, sock, srv, addrsz) : connect_control(dx, sock, srv, addrsz);
}

// ---- registrations

static int ask_control(confd_daemon_ctx *dx, wire_op_t op, const wire_writer_t &request)
{
    int result = confd_ask_nothing(dx->ctrl_fd, WIRE_KIND_CONTROL, op, request);
    confd_serve_kept(dx);
    return result;
}

static int register_callbacks(confd_daemon_ctx *dx, wire_op_t op, const char *name, uint32_t bits)
{
    wire_writer_t request;
    request.text(name);
    request.u32(bits);
    return ask_control(dx, op, request);
}

static uint32_t bits_of(std::initializer_list<bool> is_set)
{
    uint32_t bits = 0, bit = 1;
    for (bool one : is_set) {
        bits |= one ? bit : 0;
        bit <<= 1;
    }
    return bits;
}

// The callbacks are in place before the agent can make use of them.
int confd_register_trans_cb(struct confd_daemon_ctx *dx, const struct confd_trans_cbs *cbs)
{
    confd_daemon_of(dx).trans = *cbs;
    return ask_control(dx, WIRE_REG_TRANS_CB, {});
}

int confd_register_trans_validate_cb(struct confd_daemon_ctx *dx, const struct confd_trans_validate_cbs *cbs)
{
    confd_daemon_of(dx).validate = *cbs;
    return ask_control(dx, WIRE_REG_VALIDATE_CB, {});
}

// Keeps the row while and as long as the agent accepts it. What is served meanwhile may release the context.
template <typename Row, typename Ask>
static int register_row(confd_daemon_ctx *dx, std::deque<Row> daemon_t::*member, const Row &row, const Ask &ask)
{
    std::shared_ptr<daemon_t> daemon = confd_share_daemon(dx);
    std::deque<Row> &rows = (*daemon).*member;
    rows.push_back(row);
    int result = ask();
    if (result != CONFD_OK)
        rows.pop_back();
    return result;
}

int confd_register_data_cb(struct confd_daemon_ctx *dx, const struct confd_data_cbs *cbs)
{
    uint32_t bits =
        bits_of({ cbs->exists_optional != nullptr, cbs->get_elem != nullptr, cbs->get_next != nullptr,
                  cbs->set_elem != nullptr, cbs->create != nullptr, cbs->remove != nullptr, cbs->get_object != nullptr,
                  cbs->get_next_object != nullptr, cbs->find_next_object != nullptr });
    return register_row(dx, &daemon_t::data, data_registration_t{ *cbs, bits },
                        [&] { return register_callbacks(dx, WIRE_REG_DATA_CB, cbs->callpoint, bits); });
}

int confd_register_valpoint_cb(struct confd_daemon_ctx *dx, const struct confd_valpoint_cb *cb)
{
    wire_writer_t request;
    request.text(cb->valpoint);
    return register_row(dx, &daemon_t::valpoints, *cb, [&] { return ask_control(dx, WIRE_REG_VALPOINT, request); });
}

int confd_register_action_cbs(struct confd_daemon_ctx *dx, const struct confd_action_cbs *cbs)
{
    uint32_t bits = bits_of({ cbs->init != nullptr, cbs->abort != nullptr, cbs->action != nullptr,
                              cbs->command != nullptr, cbs->completion != nullptr });
    return register_row(dx, &daemon_t::actions, *cbs,
                        [&] { return register_callbacks(dx, WIRE_REG_ACTION, cbs->actionpoint, bits); });
}

// Registers what the agent gives a handle for, and keeps the context.
static int register_notification(confd_daemon_ctx *dx, wire_op_t op, const wire_writer_t &request,
                                 std::unique_ptr<confd_notification_ctx> ctx, confd_notification_ctx **nctx)
{
    std::shared_ptr<daemon_t> daemon = confd_share_daemon(dx);
    int result = confd_ask_u32(dx->ctrl_fd, WIRE_KIND_CONTROL, op, request, &ctx->handle);
    confd_serve_kept(dx);
    if (result != CONFD_OK)
        return result;
    *nctx = ctx.get();
    daemon->notifications.push_back(std::move(ctx));
    return CONFD_OK;
}

int confd_register_notification_stream(struct confd_daemon_ctx *dx, const struct confd_notification_stream_cbs *cbs,
                                       struct confd_notification_ctx **nctx)
{
    wire_writer_t request;
    request.text(cbs->streamname);
    request.u8(cbs->replay != nullptr && cbs->get_log_times != nullptr);
    auto ctx = std::make_unique<confd_notification_ctx>();
    ctx->fd = cbs->fd;
    ctx->is_stream = true;
    return register_notification(dx, WIRE_REG_NOTIF_STREAM, request, std::move(ctx), nctx);
}

int confd_register_snmp_notification(struct confd_daemon_ctx *dx, int fd, const char *notify_name, const char *ctx_name,
                                     struct confd_notification_ctx **nctx)
{
    wire_writer_t request;
    request.text(notify_name);
    request.text(ctx_name);
    auto ctx = std::make_unique<confd_notification_ctx>();
    ctx->fd = fd;
    return register_notification(dx, WIRE_REG_SNMP_NOTIF, request, std::move(ctx), nctx);
}

int confd_register_done(struct confd_daemon_ctx *dx)
{
    return ask_control(dx, WIRE_REG_DONE, {});
}
