// The subscription engine: whose turn it is to read, reads, and deliveries.
//
// Every delivery of the agent comes in here. The rows are walked in table order; what a row gets is decided by the
// point that matched, by the row's flags and by whether the row has had its first read.

#include "tconfd/tconfd_internal.h"

#include "common/tip_assert.h"

#include <memory>

namespace
{

constexpr char INITIAL_READ_PATH[] = "/tconfd-initial-read-priority";
constexpr int WAIT_FOR_LOCK = 5; // take the session's lock, and wait for it
constexpr uint32_t MAX_READ_POINTS = 128;
constexpr char ABORT_TEXT[] = "Unable to apply changes";

// The order in which daemons do their initial read. All others come last and have no bit.
struct read_order_t {
    uint8_t module_id;
    uint32_t bit;
};
constexpr read_order_t read_order[] = {
    { 21, 1 }, // "wland"
    { 5, 2 },  // "cfgmgr"
    { 3, 4 },  // "fwtd"
};
constexpr uint32_t LAST_ORDER = sizeof read_order / sizeof read_order[0];

uint32_t own_order()
{
    uint32_t order = 0;
    while (order < LAST_ORDER && read_order[order].module_id != tconfd_module_id())
        order++;
    return order;
}

bool session_is_open(const oper_session &session)
{
    switch (session.step) {
    case oper_session::STEP_SOCKET:
        tconfd_log("Failed to open data socket");
        return false;
    case oper_session::STEP_CONNECT:
        tconfd_log("Failed to connect data socket to confd %s (%d) : %s", confd_strerror(confd_errno), confd_errno,
                   confd_lasterr());
        return false;
    case oper_session::STEP_SESSION:
        tconfd_trace("Failed to start cdb session %s (%d) : %s", confd_strerror(confd_errno), confd_errno,
                     confd_lasterr());
        return false;
    case oper_session::STEP_OPEN:
        break;
    }
    return true;
}

// The bits of the daemons that have read; false when they cannot be had. assertion is the text of the check of the type.
bool get_read_bits(const oper_session &session, const char *assertion, uint32_t *bits)
{
    confd_value_t val;
    if (cdb_get(session.fd(), &val, INITIAL_READ_PATH) != CONFD_OK) {
        tconfd_trace("Failed to get tconfd-initial-read-priority %s (%d) : %s", confd_strerror(confd_errno),
                     confd_errno, confd_lasterr());
        return false;
    }
    tip_assert_text(val.type == C_BIT32, assertion);
    *bits = CONFD_GET_BIT32(&val);
    return true;
}

// ---- reads

struct tconfd_read_req {
    tconfd_ctx *ctx;
    uint32_t ids[MAX_READ_POINTS];
    uint8_t is_oper[MAX_READ_POINTS];
    uint32_t count;
    bool is_initial;
};

std::unique_ptr<tconfd_read_req> read_req_alloc(tconfd_ctx *ctx)
{
    std::unique_ptr<tconfd_read_req> req(new (std::nothrow) tconfd_read_req{});
    if (req == nullptr)
        tconfd_log("Failed to allocate memory for subscription list");
    else
        req->ctx = ctx;
    return req;
}

void read_req_add(tconfd_read_req *req, const tconfd_sub &row)
{
    tip_assert(req->count < MAX_READ_POINTS);
    req->ids[req->count] = row.add_subid;
    req->is_oper[req->count] = (row.flags & TCONFD_SUB_OPER) != 0;
    req->count++;
}

void *tconfd_thread_read_sub_config(void *arg);

int start_read(std::unique_ptr<tconfd_read_req> req)
{
    if (req->count == 0)
        return TCONFD_OK;
    tconfd_ctx *ctx = req->ctx;
    __atomic_add_fetch(&ctx->live_threads, 1, __ATOMIC_ACQ_REL);
    if (req->is_initial)
        __atomic_add_fetch(&ctx->initial_reads, 1, __ATOMIC_ACQ_REL);
    int error = tconfd_thread_start(tconfd_thread_read_sub_config, req.get());
    if (error != 0) {
        if (req->is_initial)
            __atomic_sub_fetch(&ctx->initial_reads, 1, __ATOMIC_ACQ_REL);
        __atomic_sub_fetch(&ctx->live_threads, 1, __ATOMIC_ACQ_REL);
        tconfd_log("Failed to create read thread (error %d)", error);
        return TCONFD_NO_MEMORY;
    }
    (void)req.release(); // the thread's now
    return TCONFD_OK;
}

// Triggers the request's points of one kind; blocks until all are delivered and synced.
void trigger(int sock, const tconfd_read_req &req, bool is_oper)
{
    std::vector<int> points;
    for (uint32_t i = 0; i < req.count; i++) {
        if ((req.is_oper[i] != 0) == is_oper)
            points.push_back(static_cast<int>(req.ids[i]));
    }
    if (points.empty())
        return;
    int n = static_cast<int>(points.size());
    int result = is_oper ? cdb_trigger_oper_subscriptions(sock, points.data(), n, 1)
                         : cdb_trigger_subscriptions(sock, points.data(), n);
    if (result != CONFD_OK) {
        tconfd_log("Failed to trigger config subscription (%s - %d)%s (%d) : %s", tconfd_name(), result,
                   confd_strerror(confd_errno), confd_errno, confd_lasterr());
    } else if (is_oper) {
        tconfd_trace("Triggered %u oper subscriptions", static_cast<unsigned>(n));
    } else {
        tconfd_trace("Triggered %u config subscriptions", static_cast<unsigned>(n));
    }
}

void read_all(const tconfd_read_req &req)
{
    unique_fd sock = tconfd_agent_socket();
    if (!sock.is_open()) {
        tconfd_log("Failed to open data socket to read init config (%s)", tconfd_name());
        return;
    }
    const sockaddr_in &address = tconfd_agent_address();
    int result = cdb_connect(sock.get(), CDB_DATA_SOCKET, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    if (result != CONFD_OK) {
        tconfd_log("Failed to connect init data socket to confd (%s - %d)", tconfd_name(), result);
        return;
    }
    trigger(sock.get(), req, false);
    trigger(sock.get(), req, true);
    // A failed trigger does not stop this: the daemon counts the read as done.
    if (__atomic_exchange_n(&req.ctx->initial_read_done, 1u, __ATOMIC_ACQ_REL) == 0) {
        tconfd_trace("Initial config read done");
        (void)tconfd_set_initial_config_read_done(req.ctx); // logs its failure
    }
}

// Thread body. It blocks in the agent while the main loop serves the deliveries.
void *tconfd_thread_read_sub_config(void *arg)
{
    std::unique_ptr<tconfd_read_req> req(static_cast<tconfd_read_req *>(arg));
    tconfd_block_signals();
    read_all(*req);
    if (req->is_initial)
        __atomic_sub_fetch(&req->ctx->initial_reads, 1, __ATOMIC_ACQ_REL);
    __atomic_sub_fetch(&req->ctx->live_threads, 1, __ATOMIC_ACQ_REL);
    return nullptr;
}

// ---- deliveries

struct event_t {
    cdb_sub_notification type;
    bool is_triggered;
    bool is_cut; // the agent went away before all rows had their changes
    malloc_ptr<int> points;
    int n;
};

// The delivered point of the row, the last one when several match, or -1.
int find_point(const event_t &event, const tconfd_sub &row)
{
    for (int i = event.n - 1; i >= 0; i--) {
        auto id = static_cast<uint32_t>(event.points.get()[i]);
        if (id == row.add_subid || (row.del_subid != 0 && id == row.del_subid))
            return event.points.get()[i];
    }
    return -1;
}

int deliver(int fd, tconfd_delivery *delivery)
{
    tconfd_sub *row = delivery->row;
    if (row->bulk_lists != nullptr)
        return tconfd_sub_diff_bulk_read(delivery);
    if (row->num_keys == 0)
        return tconfd_sub_diff_no_keys(delivery);
    if (row->handler != nullptr)
        return cdb_diff_iterate(fd, delivery->point, tconfd_sub_diff_iter, 0, delivery);
    return CONFD_OK;
}

enum outcome_t {
    ROW_SERVED,
    ROW_NOT_COUNTED,
    DELIVERY_OVER
};

// What a delivery left behind: a failed handler, a failed iteration, or success.
outcome_t judge(int fd, event_t &event, tconfd_sub *row, int result)
{
    if ((row->flags & TCONFD_SUB_FAILED) != 0) {
        if (event.type == CDB_SUB_PREPARE) {
            tconfd_log("Aborting transaction");
            (void)cdb_sub_abort_trans(fd, CONFD_ERRCODE_APPLICATION_INTERNAL, 0, 0, ABORT_TEXT);
            row->state &= static_cast<uint8_t>(~TCONFD_SUB_IN_PROGRESS);
            return DELIVERY_OVER;
        }
        // The transaction is committed: only a restart with a full read brings the system back in line with it.
        tconfd_log("Error iterating subscription (%s - %d)", tconfd_name(), result);
        tip_assert((row->flags & TCONFD_SUB_FAILED) == 0);
    }
    if (result != CONFD_OK) {
        tconfd_log("Error iterating subscription (%s: %d). Unexpected type %d", tconfd_name(), result, event.type);
        tip_assert(result == CONFD_EOF);
        event.is_cut = true;
    }
    return ROW_SERVED;
}

outcome_t serve_row(int fd, event_t &event, tconfd_sub *row, int point)
{
    if ((row->flags & TCONFD_SUB_READ_DONE) == 0 && !event.is_triggered)
        return ROW_SERVED; // a commit before the row's first read: the read will see the same data
    row->last_start = time(nullptr);
    const char *pass = static_cast<uint32_t>(point) == row->add_subid ? "ADD" : "DEL";
    tconfd_trace("Received %s subscription %s", pass, row->path);
    if (event.is_triggered) {
        row->state |= TCONFD_SUB_IN_PROGRESS;
        row->flags |= TCONFD_SUB_READ_DONE;
    }
    if ((row->flags & TCONFD_SUB_TWO_PHASE) != 0) {
        if (event.type == CDB_SUB_COMMIT || event.type == CDB_SUB_ABORT) {
            row->state &= static_cast<uint8_t>(~TCONFD_SUB_IN_PROGRESS);
            return ROW_NOT_COUNTED;
        }
        if (event.type == CDB_SUB_OPER) {
            tconfd_log("Two phase sub for Oper data");
            tip_assert(event.type != CDB_SUB_OPER);
        }
    }
    tconfd_delivery delivery{ row, point };
    outcome_t outcome = judge(fd, event, row, deliver(fd, &delivery));
    if (outcome != ROW_SERVED)
        return outcome;
    row->state &= static_cast<uint8_t>(~TCONFD_SUB_IN_PROGRESS);
    row->last_end = time(nullptr);
    tconfd_trace("Success %s subscription %s", pass, row->path);
    return ROW_SERVED;
}

// False when the delivery ended early and is not to be synced.
bool serve_rows(int fd, tconfd_ctx *ctx, event_t &event)
{
    int remaining = event.n;
    for (tconfd_sub &row : tconfd_rows(ctx->reg.subs)) {
        if (remaining < 1)
            break;
        int point = find_point(event, row);
        if (point < 0)
            continue;
        outcome_t outcome = serve_row(fd, event, &row, point);
        if (outcome == DELIVERY_OVER)
            return false;
        if (outcome == ROW_SERVED)
            remaining--;
    }
    if (remaining != 0) {
        tconfd_log("Not all subscription points (%d) read", remaining);
        tip_assert(remaining == 0);
    }
    return true;
}

// Another daemon has set its bit: it may be this one's turn.
void serve_initial_read_signal(tconfd_ctx *ctx)
{
    if (tconfd_can_read_initial_config(ctx) != 1)
        return;
    if (tconfd_read_sub_config_all(ctx) != TCONFD_OK) {
        tconfd_log("Cannot start initial read");
        tip_assert_text(false, "0");
    }
}

void sync(int fd)
{
    int result = cdb_sync_subscription_socket(fd, CDB_DONE_PRIORITY);
    if (result != CONFD_OK)
        tconfd_log("Failed to sync subscription (%s - %d)", tconfd_name(), result);
}

} // namespace

int tconfd_can_read_initial_config(tconfd_ctx *ctx)
{
    // The order counts: a read that ends in between is done before it stops running.
    if (__atomic_load_n(&ctx->initial_reads, __ATOMIC_ACQUIRE) != 0 ||
        __atomic_load_n(&ctx->initial_read_done, __ATOMIC_ACQUIRE) == 1)
        return 0;
    oper_session session(WAIT_FOR_LOCK);
    uint32_t bits;
    if (!session_is_open(session) || !get_read_bits(session, "(&val)->type == C_BIT32", &bits))
        return 0;
    uint32_t order = own_order();
    for (uint32_t before = 0; before < order; before++) {
        if ((bits & read_order[before].bit) == 0) {
            tconfd_trace("Initial config read not allowed (curr priority:%u, mod priority:%u)", bits, order);
            return 0;
        }
    }
    return 1;
}

int tconfd_set_initial_config_read_done(tconfd_ctx *)
{
    uint32_t order = own_order();
    if (order == LAST_ORDER)
        return 0;
    oper_session session(WAIT_FOR_LOCK);
    uint32_t bits;
    if (!session_is_open(session) || !get_read_bits(session, "(&curr_val)->type == C_BIT32", &bits))
        return 1;
    confd_value_t value{};
    CONFD_SET_BIT32(&value, bits | read_order[order].bit);
    if (cdb_set_elem(session.fd(), &value, INITIAL_READ_PATH) != CONFD_OK) {
        tconfd_log("Failed to set tconfd-initial-read-priority %s (%d) : %s", confd_strerror(confd_errno), confd_errno,
                   confd_lasterr());
        return 1;
    }
    tconfd_trace("Set tconfd-initial-read-priority to %u", CONFD_GET_BIT32(&value));
    return 0;
}

int tconfd_read_sub_config_all(tconfd_ctx *ctx)
{
    auto req = read_req_alloc(ctx);
    if (req == nullptr)
        return TCONFD_NO_MEMORY;
    req->is_initial = true;
    for (const tconfd_sub &row : tconfd_rows(ctx->reg.subs))
        read_req_add(req.get(), row);
    return start_read(std::move(req));
}

int tconfd_read_sub_config(tconfd_ctx *ctx, const uint32_t *add_subids, uint32_t count)
{
    if (count == 0)
        return TCONFD_OK;
    auto req = read_req_alloc(ctx);
    if (req == nullptr)
        return TCONFD_NO_MEMORY;
    for (uint32_t i = 0; i < count; i++) {
        for (const tconfd_sub &row : tconfd_rows(ctx->reg.subs)) {
            if (row.add_subid == add_subids[i]) {
                read_req_add(req.get(), row);
                break;
            }
        }
    }
    return start_read(std::move(req));
}

void tconfd_sub_cb(evutil_socket_t fd, short, void *arg)
{
    auto *ctx = static_cast<tconfd_ctx *>(arg);
    event_t event{};
    int flags = 0;
    int *points = nullptr;
    int result = cdb_read_subscription_socket2(fd, &event.type, &flags, &points, &event.n);
    event.points.reset(points);
    event.is_triggered = (flags & CDB_SUB_FLAG_TRIGGER) != 0;
    if (result == CONFD_EOF) {
        tconfd_log("Subscription socket closed");
        tconfd_retry_connect(ctx);
        return;
    }
    if (result != CONFD_OK) {
        tconfd_log("Failed to read ConfD subscription (%s - %d)%s (%d) : %s", tconfd_name(), result,
                   confd_strerror(confd_errno), confd_errno, confd_lasterr());
        return;
    }
    tconfd_trace("Received %u subscriptions (type:%u, flags:%u)", static_cast<unsigned>(event.n),
                 static_cast<unsigned>(event.type), static_cast<unsigned>(flags));
    if (event.n >= 1) {
        // Only the first point is compared: the signal between daemons arrives alone.
        if (static_cast<uint32_t>(event.points.get()[0]) == ctx->initial_read_subid) {
            serve_initial_read_signal(ctx);
        } else {
            if (!serve_rows(fd, ctx, event))
                return;
            if (ctx->reg.sync_cb != nullptr)
                ctx->reg.sync_cb(ctx, event.is_cut ? 0 : flags & CDB_SUB_FLAG_TRIGGER);
        }
        sync(fd);
    }
    tconfd_trace("Sync subscription from %s succeeded", tconfd_name());
}
