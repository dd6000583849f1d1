// CDB subscription sockets: points, deliveries and the reading of what has changed.
#include "agent/client/confd_cdb.h"
#include "agent/client/confd_internal.h"

#include <cstdlib>

static constexpr wire_kind_t SUB = WIRE_KIND_CDB_SUB;

// ---- points

struct point_t {
    wire_sub_kind_t kind;
    int flags;
    int priority;
    uint32_t ns;
};

static int subscribe(int sock, const point_t &point, int *spoint, const char *fmt, va_list args)
{
    std::string path;
    if (!confd_format_path({}, fmt, args, &path))
        return CONFD_ERR;
    wire_writer_t request;
    request.u8(point.kind);
    request.u32(static_cast<uint32_t>(point.flags));
    request.i32(point.priority);
    request.u32(point.ns);
    request.text(path);
    uint32_t id = 0;
    int result = confd_ask_u32(sock, SUB, WIRE_SUB_SUBSCRIBE, request, &id);
    if (result == CONFD_OK)
        *spoint = static_cast<int>(id);
    return result;
}

int cdb_subscribe(int sock, int priority, uint32_t nspace, int *spoint, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int result = subscribe(sock, { WIRE_SUB_CONFIG, 0, priority, nspace }, spoint, fmt, args);
    va_end(args);
    return result;
}

int cdb_subscribe2(int sock, enum cdb_sub_type type, int flags, int priority, int *spoint, uint32_t nspace,
                   const char *fmt, ...)
{
    static_assert(int{ CDB_SUB_RUNNING } == WIRE_SUB_CONFIG &&
                  int{ CDB_SUB_RUNNING_TWOPHASE } == WIRE_SUB_CONFIG_TWO_PHASE &&
                  int{ CDB_SUB_OPERATIONAL } == WIRE_SUB_OPERATIONAL);
    va_list args;
    va_start(args, fmt);
    int result = subscribe(sock, { static_cast<wire_sub_kind_t>(type), flags, priority, nspace }, spoint, fmt, args);
    va_end(args);
    return result;
}

int cdb_oper_subscribe(int sock, uint32_t nspace, int *spoint, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int result = subscribe(sock, { WIRE_SUB_OPERATIONAL, 0, 0, nspace }, spoint, fmt, args);
    va_end(args);
    return result;
}

int cdb_subscribe_done(int sock)
{
    return confd_ask_nothing(sock, SUB, WIRE_SUB_DONE, {});
}

// ---- deliveries

struct delivery_t {
    uint8_t type;
    uint32_t flags;
    std::vector<int> points;
};

static bool read_delivery(const push_t &push, delivery_t *delivery)
{
    wire_reader_t in(push.payload);
    delivery->type = in.u8();
    delivery->flags = in.u32();
    for (uint32_t n = in.count(sizeof(int32_t)); n > 0; n--)
        delivery->points.push_back(in.i32());
    return push.header.op == WIRE_SUB_EVENT && in.finished() && delivery->type >= CDB_SUB_PREPARE &&
           delivery->type <= CDB_SUB_OPER;
}

int cdb_read_subscription_socket2(int sock, enum cdb_sub_notification *type, int *flags, int *points[], int *len)
{
    push_t push;
    if (int result = confd_io_next_push(sock, SUB, &push); result != CONFD_OK)
        return result;
    delivery_t delivery;
    if (!read_delivery(push, &delivery))
        return confd_fail_malformed(WIRE_SUB_EVENT);
    size_t size = delivery.points.size() * sizeof(int);
    auto *copy = static_cast<int *>(malloc(size + 1)); // never null for want of points
    if (copy == nullptr)
        return confd_fail(CONFD_ERR_MALLOC, "%zu points", delivery.points.size());
    if (size > 0)
        memcpy(copy, delivery.points.data(), size);
    *type = static_cast<cdb_sub_notification>(delivery.type);
    *flags = static_cast<int>(delivery.flags);
    *points = copy;
    *len = static_cast<int>(delivery.points.size());
    return CONFD_OK;
}

int cdb_sync_subscription_socket(int sock, enum cdb_subscription_sync_type type)
{
    wire_writer_t request;
    request.u8(static_cast<uint8_t>(type));
    return confd_ask_nothing(sock, SUB, WIRE_SUB_SYNC, request);
}

int cdb_sub_abort_trans(int sock, enum confd_errcode code, uint32_t apptag_ns, uint32_t apptag_tag, const char *fmt,
                        ...)
{
    char text[1024];
    va_list args;
    va_start(args, fmt);
    (void)vsnprintf(text, sizeof text, fmt, args); // a longer text is cut
    va_end(args);
    wire_writer_t request;
    request.i32(code);
    request.u32(apptag_ns);
    request.u32(apptag_tag);
    request.text(text);
    return confd_ask_nothing(sock, SUB, WIRE_SUB_ABORT, request);
}

// ---- modifications

static void free_modifications(confd_tag_value_t *values, uint32_t n)
{
    for (uint32_t i = 0; i < n; i++)
        wire_free_value(values[i].v);
    free(values);
}

// False with nothing to free.
static bool read_modifications(wire_reader_t &in, confd_tag_value_t **values, int *nvalues)
{
    constexpr size_t MIN_MODIFICATION = 9;
    uint32_t n = in.count(MIN_MODIFICATION);
    // One more, for callers who take a null array for a failure.
    auto *all = in.ok ? static_cast<confd_tag_value_t *>(calloc(n + size_t{ 1 }, sizeof(confd_tag_value_t))) : nullptr;
    if (all == nullptr)
        return false;
    for (uint32_t i = 0; i < n; i++) {
        all[i].tag.tag = in.u32();
        all[i].tag.ns = in.u32();
        all[i].v = wire_get_value(in);
    }
    if (!in.finished()) {
        free_modifications(all, n);
        return false;
    }
    *values = all;
    *nvalues = static_cast<int>(n);
    return true;
}

static int ask_modifications(int sock, wire_op_t op, const wire_writer_t &request, confd_tag_value_t **values,
                             int *nvalues)
{
    std::string reply;
    if (int result = confd_io_request(sock, SUB, op, request, &reply); result != CONFD_OK)
        return result;
    wire_reader_t in(reply);
    return read_modifications(in, values, nvalues) ? CONFD_OK : confd_fail_malformed(op);
}

int cdb_get_modifications(int sock, int subid, int flags, confd_tag_value_t **values, int *nvalues, const char *fmt,
                          ...)
{
    std::string path;
    bool ok = true;
    if (fmt != nullptr) {
        va_list args;
        va_start(args, fmt);
        ok = confd_format_path({}, fmt, args, &path);
        va_end(args);
    }
    if (!ok)
        return CONFD_ERR;
    wire_writer_t request;
    request.i32(subid);
    request.u32(static_cast<uint32_t>(flags));
    request.text(path);
    return ask_modifications(sock, WIRE_SUB_MODIFICATIONS, request, values, nvalues);
}

int cdb_get_modifications_iter(int sock, int flags, confd_tag_value_t **values, int *nvalues)
{
    client_socket_t *state = confd_io_find(sock, SUB);
    if (state == nullptr)
        return CONFD_ERR;
    if (state->iterations.empty())
        return confd_fail(CONFD_ERR_BADSTATE, "only inside the callback of an iteration");
    wire_writer_t request;
    request.u32(state->iterations.back());
    request.u32(static_cast<uint32_t>(flags));
    return ask_modifications(sock, WIRE_SUB_MODIFICATIONS_AT, request, values, nvalues);
}

// ---- iteration

struct walk_t {
    int sock;
    client_socket_t *state;
    int subid;
    cdb_iter_fn iter;
    void *user;
    bool is_stopped = false; // the callback has had enough
};

// One changed node; frees itself.
struct diff_item_t {
    uint32_t node = 0;
    uint8_t op = 0;
    confd_hkeypath_t path = {};
    confd_value_t old_value = {};
    confd_value_t new_value = {};

    diff_item_t() = default;
    diff_item_t(const diff_item_t &) = delete;
    diff_item_t &operator=(const diff_item_t &) = delete;
    ~diff_item_t()
    {
        wire_free_keypath(path);
        wire_free_value(old_value);
        wire_free_value(new_value);
    }
};

static bool read_item(wire_reader_t &in, diff_item_t *item)
{
    item->node = in.u32();
    item->op = in.u8();
    if (!wire_get_keypath(in, item->path))
        return false;
    item->old_value = wire_get_value(in);
    item->new_value = wire_get_value(in);
    return in.ok && item->op >= MOP_CREATED && item->op <= MOP_ATTR_SET;
}

static confd_value_t *or_null(confd_value_t &value)
{
    return value.type != C_NOEXISTS ? &value : nullptr;
}

static cdb_iter_ret call_back(walk_t &walk, diff_item_t &item)
{
    walk.state->iterations.push_back(item.node);
    cdb_iter_ret verdict = walk.iter(&item.path, static_cast<cdb_iter_op>(item.op), or_null(item.old_value),
                                     or_null(item.new_value), walk.user);
    if (!walk.state->iterations.empty()) // it may have closed the socket
        walk.state->iterations.pop_back();
    return verdict;
}

static int walk_level(walk_t &walk, uint32_t node, int depth);

static int walk_item(walk_t &walk, diff_item_t &item, int depth)
{
    cdb_iter_ret verdict = call_back(walk, item);
    walk.is_stopped = verdict == ITER_STOP;
    return verdict == ITER_RECURSE ? walk_level(walk, item.node, depth + 1) : CONFD_OK;
}

static int walk_level(walk_t &walk, uint32_t node, int depth)
{
    constexpr size_t MIN_ITEM = 11;
    if (depth > MAXDEPTH)
        return confd_fail(CONFD_ERR_PROTOUSAGE, "changes deeper than %d levels", MAXDEPTH);
    wire_writer_t request;
    request.i32(walk.subid);
    request.u32(node);
    std::string reply;
    if (int result = confd_io_request(walk.sock, SUB, WIRE_SUB_DIFF, request, &reply); result != CONFD_OK)
        return result;

    wire_reader_t in(reply);
    for (uint32_t n = in.count(MIN_ITEM); n > 0 && !walk.is_stopped; n--) {
        diff_item_t item;
        if (!read_item(in, &item))
            return confd_fail_malformed(WIRE_SUB_DIFF);
        if (int result = walk_item(walk, item, depth); result != CONFD_OK)
            return result;
    }
    return in.ok ? CONFD_OK : confd_fail_malformed(WIRE_SUB_DIFF);
}

// No flags are known: all changes are given in the order of the model in any case.
int cdb_diff_iterate(int sock, int subid, cdb_iter_fn iter, int, void *initstate)
{
    client_socket_t *state = confd_io_find(sock, SUB);
    if (state == nullptr)
        return CONFD_ERR;
    walk_t walk = { sock, state, subid, iter, initstate };
    return walk_level(walk, 0, 1);
}
