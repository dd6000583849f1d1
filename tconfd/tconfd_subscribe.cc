// The registration thread: waits for the agent's phase 1 and subscribes the rows.
//
// One detached thread per connection. It blocks in the agent, so it has sockets of its own, and the connection's
// subscription socket is its alone until it has subscribed. It hands the subscription ids to the loop through its
// record and a byte on the pipe; only the loop writes rows and touches events. A thread that the loop has left behind
// (the connection was torn down meanwhile) cleans up after itself.

#include "tconfd/tconfd_internal.h"

#include "common/tip_assert.h"
#include "tconfd/tconfd_connect.h"

#include <cerrno>
#include <fcntl.h>
#include <memory>

namespace
{

constexpr char INITIAL_READ_LEAF[] = "tconfd-initial-read-priority";

const sockaddr *agent_address()
{
    return reinterpret_cast<const sockaddr *>(&tconfd_agent_address());
}

bool load_schemas()
{
    if (confd_load_schemas(agent_address(), sizeof(sockaddr_in)) == CONFD_OK)
        return true;
    tconfd_log("Failed to load schemas from confd");
    return false;
}

unique_fd connect_maapi()
{
    unique_fd sock = tconfd_agent_socket();
    if (!sock.is_open()) {
        tconfd_log("Failed to open maapi socket");
        return sock;
    }
    int result = maapi_connect(sock.get(), agent_address(), sizeof(sockaddr_in));
    if (result != CONFD_OK) {
        tconfd_log("Failed to do maapi_connect (%d)", result);
        sock.reset();
    }
    return sock;
}

unique_fd connect_data()
{
    unique_fd sock = tconfd_agent_socket();
    if (!sock.is_open()) {
        tconfd_log("Failed to open data socket to reg sub (%s)", tconfd_name());
        return sock;
    }
    int result = cdb_connect(sock.get(), CDB_DATA_SOCKET, agent_address(), sizeof(sockaddr_in));
    if (result != CONFD_OK) {
        tconfd_log("Failed to connect init data socket to confd (%s - %d)", tconfd_name(), result);
        sock.reset();
    }
    return sock;
}

bool wait_for_phase_1(int data_fd)
{
    tconfd_trace("Waiting for confd phase 1");
    int result = cdb_wait_start(data_fd);
    if (result == CONFD_OK)
        return true;
    tconfd_log("CDB Wait start failed (%s - %d) %s (%d) : %s", tconfd_name(), result, confd_strerror(confd_errno),
               confd_errno, confd_lasterr());
    return false;
}

bool install_keys(unique_fd maapi)
{
    tconfd_trace("Confd in phase 1 - Subscribing");
    int result = maapi_install_crypto_keys(maapi.get());
    if (result == CONFD_OK)
        return true;
    tconfd_log("Failed to load crypto keys ( %d) - %s, %d, %s", result, confd_strerror(confd_errno), confd_errno,
               confd_lasterr());
    return false;
}

bool connect_subscription(int subscr_fd)
{
    tconfd_trace("Confd in phase 1 - Subscribing to cdb");
    int result = cdb_connect(subscr_fd, CDB_SUBSCRIPTION_SOCKET, agent_address(), sizeof(sockaddr_in));
    if (result != CONFD_OK)
        tconfd_log("Failed to connect subscription socket to confd ( %d)", result);
    return result == CONFD_OK;
}

bool subscribe_initial_read(tconfd_sub_thread *thread)
{
    int point = 0;
    int result =
        cdb_oper_subscribe(thread->subscr_fd, confd_str2hash(TCONFD_SYSTEM_NAMESPACE), &point, "%s", INITIAL_READ_LEAF);
    if (result != CONFD_OK) {
        tconfd_log("Failed to subscribe to tconfd-initial-read-priority (%s - %d) %s (%d) : %s", tconfd_name(), result,
                   confd_strerror(confd_errno), confd_errno, confd_lasterr());
        return false;
    }
    thread->initial_read_subid = static_cast<uint32_t>(point);
    return true;
}

// Subscribes the row's one or two points.
int subscribe_points(int fd, const tconfd_sub &row, tconfd_sub_thread::ids_t *ids)
{
    int add = 0;
    int del = 0;
    int add_priority = row.priority & 0x0f;
    int del_priority = row.priority >> 4;
    int result;
    if ((row.flags & TCONFD_SUB_OPER) != 0) {
        result = cdb_oper_subscribe(fd, row.ns, &add, "%s", row.path);
    } else if ((row.flags & TCONFD_SUB_TWO_PHASE) != 0) {
        result = cdb_subscribe2(fd, CDB_SUB_RUNNING_TWOPHASE, 0, add_priority, &add, row.ns, "%s", row.path);
    } else {
        result = cdb_subscribe(fd, add_priority, row.ns, &add, "%s", row.path);
        if (result == CONFD_OK && del_priority != 0)
            result = cdb_subscribe(fd, del_priority, row.ns, &del, "%s", row.path);
    }
    *ids = { static_cast<uint32_t>(add), static_cast<uint32_t>(del) };
    return result;
}

bool subscribe_row(tconfd_sub_thread *thread, const tconfd_sub &row)
{
    if (row.priority >= 16 && row.bulk_lists != nullptr) {
        tconfd_log("Delete priority for bulk read not yet supported");
        tip_assert(row.bulk_lists == nullptr);
    }
    tconfd_sub_thread::ids_t ids;
    int result = subscribe_points(thread->subscr_fd, row, &ids);
    if (result != CONFD_OK) {
        tconfd_log("Failed to subscribe to %s (%s - %d)%s (%d) : %s", row.path, tconfd_name(), result,
                   confd_strerror(confd_errno), confd_errno, confd_lasterr());
        return false;
    }
    thread->ids.push_back(ids);
    return true;
}

bool subscribe_rows(tconfd_sub_thread *thread)
{
    for (tconfd_sub &row : tconfd_rows(thread->subs)) {
        if (!subscribe_row(thread, row))
            return false;
    }
    tconfd_trace("Subscribed to confd");
    return true;
}

bool subscribe_done(tconfd_sub_thread *thread)
{
    int result = cdb_subscribe_done(thread->subscr_fd);
    if (result == CONFD_OK)
        return true;
    tconfd_log("cdb_subscribe_done() failed (%s - %d)%s (%d) : %s", tconfd_name(), result, confd_strerror(confd_errno),
               confd_errno, confd_lasterr());
    return false;
}

// True when there is something to serve now.
bool register_all(tconfd_sub_thread *thread, bool *failed)
{
    *failed = true;
    if (!load_schemas())
        return false;
    unique_fd maapi = connect_maapi();
    if (!maapi.is_open())
        return false;
    unique_fd data = connect_data();
    if (!data.is_open() || !wait_for_phase_1(data.get()) || !install_keys(std::move(maapi)) ||
        !connect_subscription(thread->subscr_fd) || !subscribe_initial_read(thread) || !subscribe_rows(thread))
        return false;
    if (thread->ids.empty()) {
        tconfd_log("No subscriptions to register");
        *failed = false;
        return false;
    }
    if (!subscribe_done(thread))
        return false;
    *failed = false;
    return true;
}

// Whoever leaves last frees the record.
void leave(tconfd_sub_thread *thread)
{
    if (!thread->over.exchange(true))
        return;
    tconfd_fd_close(&thread->subscr_fd);
    delete thread;
}

} // namespace

// Nothing of the layer itself is configured through the agent.
tconfd_sub tconfd_own_subs[] = { {} };

tconfd_rows::iterator tconfd_rows::begin() const
{
    return { subs_, tconfd_own_subs };
}

void *tconfd_thread_register_subscriptions(void *record)
{
    auto *thread = static_cast<tconfd_sub_thread *>(record);
    tconfd_block_signals();
    bool failed;
    bool subscribed = register_all(thread, &failed);
    thread->ready.store(subscribed, std::memory_order_release);
    char byte = failed ? TCONFD_PIPE_FAILED : TCONFD_PIPE_SUBSCRIBED;
    if (failed || subscribed)
        (void)write(thread->pipe.get(), &byte, 1); // no reader any more: the connection is already torn down
    leave(thread);
    return nullptr;
}

int tconfd_subscribe_start(tconfd_ctx *ctx)
{
    auto thread = std::make_unique<tconfd_sub_thread>();
    thread->subs = ctx->reg.subs;
    thread->pipe.reset(fcntl(ctx->pipe_fd[1], F_DUPFD_CLOEXEC, 0));
    thread->subscr_fd = ctx->subscr_fd;
    if (!thread->pipe.is_open())
        return errno;
    int error = tconfd_thread_start(tconfd_thread_register_subscriptions, thread.get());
    if (error == 0)
        ctx->sub_thread = thread.release();
    return error;
}

void tconfd_subscribe_finish(tconfd_ctx *ctx)
{
    tconfd_sub_thread *thread = ctx->sub_thread;
    if (thread == nullptr || !thread->ready.load(std::memory_order_acquire))
        return;
    ctx->initial_read_subid = thread->initial_read_subid;
    size_t i = 0;
    for (tconfd_sub &row : tconfd_rows(ctx->reg.subs)) {
        row.ctx = ctx;
        row.add_subid = thread->ids[i].add;
        row.del_subid = thread->ids[i].del;
        i++;
    }
    event_add(ctx->subscr_event, nullptr);
    if (tconfd_can_read_initial_config(ctx) == 1 && tconfd_read_sub_config_all(ctx) != TCONFD_OK) {
        tconfd_log("Initial trigger for subscriptions failed");
        tconfd_retry_connect(ctx);
    }
}

void tconfd_subscribe_abandon(tconfd_ctx *ctx)
{
    tconfd_sub_thread *thread = ctx->sub_thread;
    ctx->sub_thread = nullptr;
    if (thread == nullptr) {
        tconfd_fd_close(&ctx->subscr_fd);
        return;
    }
    // The thread may stand in a call on this socket: it is woken here and closed by whoever leaves last.
    shutdown(ctx->subscr_fd, SHUT_RDWR);
    ctx->subscr_fd = -1;
    leave(thread);
}
