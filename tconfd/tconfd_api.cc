// The module context: connections to the agent, registrations, teardown and retry.
//
// One function, tconfd_module_init, serves the first connection and every later one. Its steps stand in a table, in
// the order in which the agent expects them; the failure of any one of them rebuilds the whole connection two seconds
// later.

#include "tconfd/tconfd_connect.h"
#include "tconfd/tconfd_internal.h"
#include "tconfd/tconfd_shm.h"

#include "common/tip_assert.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>

namespace
{

constexpr uint32_t RETRY_MS = 2000;
constexpr char IPC_SECRET_FILE[] = "/etc/confd/confd_ipc_secret";
constexpr char STREAM_NAME[] = "corvane";
constexpr char SNMP_NOTIFY_NAME[] = "corvane_snmpv2_trap";
constexpr size_t PRIO_MESSAGE_SIZE = 1024;

void set_ipc_secret()
{
    for (const char *name : { "CONFD_IPC_ACCESS_FILE", "NCS_IPC_ACCESS_FILE" })
        (void)setenv(name, IPC_SECRET_FILE, 1); // fails only without memory; the agent then refuses with a clear text
}

bool is_complete(const tconfd_registration &reg)
{
    return reg.app_ctx != nullptr && reg.subs != nullptr && reg.valpoints != nullptr && reg.actions != nullptr &&
           reg.event_base != nullptr && reg.register_data_cbs != nullptr && reg.timer_mgr != nullptr;
}

// ---- callbacks of the agent that every daemon has

tconfd_ctx *context_of(const confd_daemon_ctx *dx)
{
    return static_cast<tconfd_ctx *>(dx->d_opaque);
}

int tconfd_init_validation(confd_trans_ctx *tctx)
{
    tconfd_ctx *ctx = context_of(tctx->dx);
    ctx->validations++;
    confd_trans_set_fd(tctx, ctx->work_fd);
    int result = maapi_attach(ctx->maapi_fd, 0, tctx);
    if (result == CONFD_OK)
        return CONFD_OK;
    tconfd_log("Failed to do maapi attach for init validation (%u)%s (%d) : %s", static_cast<unsigned>(result),
               confd_strerror(confd_errno), confd_errno, confd_lasterr());
    return CONFD_ERR;
}

int tconfd_stop_validation(confd_trans_ctx *tctx)
{
    int result = maapi_detach(context_of(tctx->dx)->maapi_fd, tctx);
    if (result == CONFD_OK)
        return CONFD_OK;
    tconfd_log("Failed to do maapi detach for stop validation (%u)%s (%d) : %s", static_cast<unsigned>(result),
               confd_strerror(confd_errno), confd_errno, confd_lasterr());
    return CONFD_ERR;
}

// ---- steps of a connection: each logs its own failure

bool init_daemon_ctx(tconfd_ctx *ctx)
{
    return tconfd_daemon_ctx_create(ctx, tconfd_name());
}

struct socket_row_t {
    int32_t tconfd_ctx::*fd;
    const char *word; // of the failure text
};
constexpr socket_row_t socket_rows[] = {
    { &tconfd_ctx::ctrl_fd, "control" }, { &tconfd_ctx::work_fd, "worker" },
    { &tconfd_ctx::data_fd, "data" },    { &tconfd_ctx::subscr_fd, "subscription" },
    { &tconfd_ctx::maapi_fd, "maapi" },  { &tconfd_ctx::notif_fd, "confd notification" },
};

bool open_sockets(tconfd_ctx *ctx)
{
    for (const socket_row_t &row : socket_rows) {
        if (row.fd == &tconfd_ctx::notif_fd && ctx->reg.notif_reg == nullptr) {
            ctx->notif_fd = 0;
            continue;
        }
        if (!tconfd_socket_open(ctx, &(ctx->*row.fd), row.word))
            return false;
    }
    return true;
}

bool connect_data(tconfd_ctx *ctx)
{
    const sockaddr_in &address = tconfd_agent_address();
    const auto *agent = reinterpret_cast<const sockaddr *>(&address);
    int result = cdb_connect(ctx->data_fd, CDB_DATA_SOCKET, agent, sizeof address);
    if (result != CONFD_OK) {
        tconfd_log("Failed to connect data socket to confd (%s - %d)", tconfd_name(), result);
        return false;
    }
    result = maapi_connect(ctx->maapi_fd, agent, sizeof address);
    if (result != CONFD_OK) {
        tconfd_log("Failed to do maapi_connect (%s - %d)", tconfd_name(), result);
        return false;
    }
    return true;
}

bool connect_notifications(tconfd_ctx *ctx)
{
    const tconfd_notif_reg *wanted = ctx->reg.notif_reg;
    if (wanted == nullptr)
        return true;
    confd_notifications_data data{};
    data.interval_ms = static_cast<int>(wanted->interval);
    const sockaddr_in &address = tconfd_agent_address();
    int result =
        confd_notifications_connect2(ctx->notif_fd, reinterpret_cast<const sockaddr *>(&address), sizeof address,
                                     static_cast<int>(wanted->mask), wanted->interval != 0 ? &data : nullptr);
    if (result == CONFD_OK)
        return true;
    tconfd_log("Failed to connect to confd notifications(%s - %d)", tconfd_name(), result);
    return false;
}

bool connect_sockets(tconfd_ctx *ctx)
{
    return tconfd_daemon_sockets_connect(ctx) && connect_data(ctx) && connect_notifications(ctx);
}

void tconfd_notification_cb(evutil_socket_t fd, short, void *arg)
{
    auto *ctx = static_cast<tconfd_ctx *>(arg);
    const tconfd_notif_reg *wanted = ctx->reg.notif_reg;
    confd_notification event{};
    int result = confd_read_notification(fd, &event);
    if (result == CONFD_EOF) {
        tconfd_log("Notification socket closed");
        tconfd_retry_connect(ctx);
    } else if (result == CONFD_ERR && confd_errno != CONFD_ERR_EXTERNAL) {
        tconfd_log("Error on notification socket request: %s (%d): %s", confd_strerror(confd_errno), confd_errno,
                   confd_lasterr());
    }
    // Deliberately not skipped after a close or an error: the callback accepts an event of any content.
    wanted->callback(ctx, &event);
    confd_free_notification(&event);
}

bool create_events(tconfd_ctx *ctx)
{
    struct event_base *base = ctx->reg.event_base;
    if (ctx->reg.notif_reg != nullptr) {
        ctx->notif_event = event_new(base, ctx->notif_fd, EV_READ | EV_PERSIST, tconfd_notification_cb, ctx);
        if (ctx->notif_event == nullptr || event_add(ctx->notif_event, nullptr) != 0) {
            tconfd_log("Failed to add event for confd notification socket");
            return false;
        }
    }
    if (!tconfd_daemon_events_add(ctx))
        return false;
    // Added once the registration thread has subscribed.
    ctx->subscr_event = event_new(base, ctx->subscr_fd, EV_READ | EV_PERSIST, tconfd_sub_cb, ctx);
    if (ctx->subscr_event == nullptr)
        tconfd_log("Failed to create event for subscription socket");
    return ctx->subscr_event != nullptr;
}

bool register_transactions(tconfd_ctx *ctx)
{
    confd_trans_validate_cbs validate{};
    validate.init = tconfd_init_validation;
    validate.stop = tconfd_stop_validation;
    int result = confd_register_trans_validate_cb(ctx->daemon_ctx, &validate);
    if (result != CONFD_OK) {
        tconfd_log("Failed to register validation transaction call back (%s - %d)", tconfd_name(), result);
        return false;
    }
    return tconfd_trans_cb_register(ctx);
}

bool register_actions(tconfd_ctx *ctx)
{
    return tconfd_actions_register(ctx, ctx->reg.actions);
}

bool register_valpoints(tconfd_ctx *ctx)
{
    for (confd_valpoint_cb *row = ctx->reg.valpoints; row->valpoint[0] != '\0'; row++) {
        int result = confd_register_valpoint_cb(ctx->daemon_ctx, row);
        if (result != CONFD_OK) {
            tconfd_log("Failed to register %s validation call back (%s - %d)", row->valpoint, tconfd_name(), result);
            return false;
        }
    }
    return true;
}

bool register_data(tconfd_ctx *ctx)
{
    if (ctx->reg.register_data_cbs(ctx) == 0)
        return true;
    tconfd_log("Failed to register data call backs");
    return false;
}

bool register_notifications(tconfd_ctx *ctx)
{
    confd_notification_stream_cbs stream{};
    (void)snprintf(stream.streamname, sizeof stream.streamname, "%s", STREAM_NAME);
    stream.fd = ctx->work_fd;
    int result = confd_register_notification_stream(ctx->daemon_ctx, &stream, &ctx->reg.notif_ctx);
    if (result != CONFD_OK) {
        tconfd_log("Failed to register notification stream %s (%s - %d)", STREAM_NAME, tconfd_name(), result);
        return false;
    }
    result =
        confd_register_snmp_notification(ctx->daemon_ctx, ctx->work_fd, SNMP_NOTIFY_NAME, "", &ctx->reg.snmp_notif_ctx);
    if (result != CONFD_OK)
        tconfd_log("Failed to register snmp notification %s (%s - %d)", SNMP_NOTIFY_NAME, tconfd_name(), result);
    return result == CONFD_OK;
}

bool register_done(tconfd_ctx *ctx)
{
    return tconfd_register_done(ctx);
}

// What threads of the layer have to say; the only way in which they change the connection.
void tconfd_pipe_cb(evutil_socket_t fd, short, void *arg)
{
    auto *ctx = static_cast<tconfd_ctx *>(arg);
    char byte = 0;
    if (read(fd, &byte, 1) <= 0) {
        tconfd_log("Failed to read from the pipe");
        return;
    }
    if (byte == TCONFD_PIPE_FAILED) {
        tconfd_trace("Thread notification for retry");
        tconfd_retry_connect(ctx);
    } else if (byte == TCONFD_PIPE_SUBSCRIBED) {
        tconfd_subscribe_finish(ctx);
    }
}

bool create_pipe(tconfd_ctx *ctx)
{
    if (pipe(ctx->pipe_fd) != 0) {
        ctx->pipe_fd[0] = ctx->pipe_fd[1] = -1;
        tconfd_log("Failed to setup pipe");
        return false;
    }
    for (int fd : ctx->pipe_fd) {
        if (fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
            tconfd_log("Failed to set fd flags");
            return false;
        }
    }
    ctx->pipe_event = event_new(ctx->reg.event_base, ctx->pipe_fd[0], EV_READ | EV_PERSIST, tconfd_pipe_cb, ctx);
    if (ctx->pipe_event == nullptr) {
        tconfd_log("Failed to create event for pipe");
        return false;
    }
    if (event_add(ctx->pipe_event, nullptr) != 0) {
        tconfd_log("Failed to add event for pipe");
        return false;
    }
    return true;
}

bool start_subscribing(tconfd_ctx *ctx)
{
    tconfd_rows rows(ctx->reg.subs);
    if (!(rows.begin() != rows.end()))
        return true;
    int error = tconfd_subscribe_start(ctx);
    if (error != 0)
        tconfd_log("Failed to create subscription thread (error %d)", error);
    return error == 0;
}

using step_t = bool (*)(tconfd_ctx *ctx);
constexpr step_t connect_steps[] = {
    init_daemon_ctx,    open_sockets,  connect_sockets,        create_events, register_transactions, register_actions,
    register_valpoints, register_data, register_notifications, register_done, create_pipe,           start_subscribing,
};

void delete_retry_timer(tconfd_ctx *ctx)
{
    if (ctx->retry_timer == nullptr)
        return;
    timer_util_delete(ctx->retry_timer);
    ctx->retry_timer = nullptr;
}

int connect_all(tconfd_ctx *ctx)
{
    for (step_t step : connect_steps) {
        if (!step(ctx)) {
            tconfd_retry_connect(ctx);
            return TCONFD_RETRY;
        }
    }
    delete_retry_timer(ctx);
    if (ctx->reg.post_init_cb != nullptr)
        ctx->reg.post_init_cb(ctx);
    tconfd_setup_shm();
    return TCONFD_OK;
}

int first_init(const tconfd_registration *reg, tconfd_ctx **out)
{
    if (reg == nullptr || !is_complete(*reg)) {
        tconfd_log("Invalid tconfd registration: NULL Parameters");
        tip_assert(reg != nullptr && is_complete(*reg));
    }
    tconfd_library_init(daemon_id_to_name(reg->module_id));
    tconfd_ctx *ctx = tconfd_ctx_alloc(*reg);
    if (ctx == nullptr)
        return TCONFD_NO_MEMORY;
    *out = ctx;
    tconfd_module_id_set(reg->module_id);
    return connect_all(ctx);
}

void teardown(tconfd_ctx *ctx)
{
    tconfd_subscribe_abandon(ctx);
    tconfd_daemon_sockets_close(ctx);
    for (int32_t tconfd_ctx::*fd : { &tconfd_ctx::data_fd, &tconfd_ctx::maapi_fd, &tconfd_ctx::notif_fd })
        tconfd_fd_close(&(ctx->*fd));
    for (event *tconfd_ctx::*ev : { &tconfd_ctx::subscr_event, &tconfd_ctx::notif_event, &tconfd_ctx::pipe_event })
        tconfd_event_free(&(ctx->*ev));
    for (int32_t &fd : ctx->pipe_fd)
        tconfd_fd_close(&fd);
    tconfd_daemon_ctx_release(ctx);
}

void tconfd_retry_cb(timer_util_t *, void *arg1, void *, void *, void *)
{
    if (tconfd_module_init(nullptr, static_cast<tconfd_ctx *>(arg1), nullptr) != TCONFD_OK)
        tconfd_trace("tconfd retry: Failed to init tconfd");
}

void start_retry_timer(tconfd_ctx *ctx)
{
    if (ctx->retry_timer != nullptr)
        return;
    ctx->retry_timer = timer_util_create(ctx->reg.timer_mgr, TIMER_PRIO_HIGH, TIMER_CYCLIC, RETRY_MS, tconfd_retry_cb,
                                         ctx, nullptr, nullptr, nullptr, "tconfd_timer");
    if (ctx->retry_timer == nullptr) {
        tconfd_log("Failed to create tconfd retry timer");
        tip_assert(ctx->retry_timer != nullptr);
    }
    timer_enable(ctx->retry_timer);
}

void free_secondary(tconfd_ctx *primary)
{
    if (primary->secondary_ctx == nullptr)
        return;
    tconfd_secondary_free(primary->secondary_ctx);
    primary->secondary_ctx = nullptr;
}

} // namespace

int tconfd_module_init(const tconfd_registration *reg, tconfd_ctx *ctx, tconfd_ctx **out)
{
    set_ipc_secret();
    if (out != nullptr)
        return first_init(reg, out);
    if (ctx == nullptr) {
        tconfd_log("NULL tconfd context pointer");
        tip_assert(ctx != nullptr);
    }
    return connect_all(ctx);
}

void tconfd_retry_connect(tconfd_ctx *ctx)
{
    if (ctx == nullptr) {
        tconfd_log("NULL tconfd context pointer");
        tip_assert(ctx != nullptr);
    }
    tconfd_ctx *primary = ctx->primary_ctx != nullptr ? ctx->primary_ctx : ctx;
    free_secondary(primary);
    teardown(primary);
    start_retry_timer(primary);
}

void tconfd_module_free(tconfd_ctx *ctx)
{
    if (ctx == nullptr)
        return;
    tconfd_unmap_shm();
    free_secondary(ctx);
    teardown(ctx);
    delete_retry_timer(ctx);
    if (ctx->oper_thread != 0)
        pthread_detach(ctx->oper_thread);
    // A read thread that still waits for the agent keeps the block until the process ends.
    if (__atomic_load_n(&ctx->live_threads, __ATOMIC_ACQUIRE) == 0)
        free(ctx);
}

void tconfd_prio_message_str(tconfd_ctx *ctx, const char *text)
{
    if (ctx == nullptr || text == nullptr)
        return;
    (void)maapi_prio_message(ctx->maapi_fd, "all", text); // a message to people: nothing depends on it
}

void tconfd_prio_message(tconfd_ctx *ctx, const char *fmt, ...)
{
    if (ctx == nullptr)
        return;
    char text[PRIO_MESSAGE_SIZE];
    va_list args;
    va_start(args, fmt);
    va_list again;
    va_copy(again, args);
    int length = vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    if (length >= static_cast<int>(sizeof text)) {
        // The second pass is told the length as the size, which deliberately drops the last character.
        std::string whole(static_cast<size_t>(length) + 1, '\0');
        (void)vsnprintf(whole.data(), static_cast<size_t>(length), fmt, again);
        tconfd_prio_message_str(ctx, whole.c_str());
    } else if (length >= 0) {
        tconfd_prio_message_str(ctx, text);
    }
    va_end(again);
}
