// CDB data connections: sessions that read running or its state before the commit being delivered, and read and write
// operational data; triggered reads.
//
// An operational write is done when it is answered: whoever subscribes to it is served behind what is being delivered.

#include "agent/server/dispatch.h"
#include "agent/server/server.h"
#include "agent/server/subscription.h"

static constexpr uint32_t MAX_TRIGGER_POINTS = 4096;

// ---- phase, session

static answer_t get_phase(call_t &call)
{
    if (!call.in.finished())
        return malformed(call);
    call.out.u32(call.server.phase);
    call.out.u32(0);
    return {};
}

static answer_t wait_start(call_t &call)
{
    if (!call.in.finished())
        return malformed(call);
    if (call.server.phase >= 1)
        return {};
    call.server.waiting_for_start.push_back(call.ref);
    return deferred();
}

struct db_row_t {
    wire_db_t db;
    const char *lock_name; // null: the agent has no such datastore
    view_kind_t view;
};

static constexpr db_row_t db_rows[DB_COUNT] = {
    { wire_db_t{}, nullptr, VIEW_RUNNING },
    { WIRE_DB_RUNNING, "running", VIEW_RUNNING },
    { WIRE_DB_STARTUP, nullptr, VIEW_RUNNING },
    { WIRE_DB_OPERATIONAL, "the operational datastore", VIEW_RUNNING },
    { WIRE_DB_PRE_COMMIT_RUNNING, "running as it was before a commit", VIEW_OLD },
};

static answer_t start_session(call_t &call)
{
    uint8_t db = call.in.u8();
    uint32_t flags = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    if (db >= DB_COUNT || !db_rows[db].lock_name)
        return refused(CONFD_ERR_NOEXISTS, "there is no datastore " + std::to_string(db) + " to read");
    if (call.conn.cdb.is_open)
        return refused(CONFD_ERR_BADSTATE, "this connection has a session already; end it first");
    answer_t answer;
    if (flags & WIRE_LOCK_SESSION)
        answer = lock_take(call.server.cdb_locks[db], call, flags & WIRE_LOCK_WAIT, db_rows[db].lock_name);
    if (answer.code == CONFD_ERR_OK)
        call.conn.cdb = { true, db_rows[db].db };
    return answer;
}

static answer_t end_session(call_t &call)
{
    if (!call.in.finished())
        return malformed(call);
    if (!call.conn.cdb.is_open)
        return refused(CONFD_ERR_NOSESSION, "this connection has no session to end");
    lock_release(call.server, call.server.cdb_locks[call.conn.cdb.db], call.conn.serial);
    call.conn.cdb.is_open = false;
    return {};
}

// ---- reads

// Takes a path that is the whole payload, or what is left of it, of an open session.
static answer_t take_path(call_t &call, path_form_t form, path_t *path)
{
    std::string_view text = call.in.text();
    if (!call.in.finished())
        return malformed(call);
    if (!call.conn.cdb.is_open)
        return refused(CONFD_ERR_NOSESSION, "start a session on this connection first");
    ds_error_t error;
    if (!path_parse(datastore_schema(*call.server.store), text, form, *path, error))
        return refused(error.code, error.text);
    return {};
}

// As above, for reads of what is stored. Data that a daemon serves by callbacks is in no datastore.
static answer_t take_stored(call_t &call, path_form_t form, path_t *path)
{
    answer_t answer = take_path(call, form, path);
    if (answer.code != CONFD_ERR_OK || !path->node()->callpoint)
        return answer;
    return refused(CONFD_ERR_NOEXISTS, path_text(*path) + " is not stored: callpoint \"" + *path->node()->callpoint +
                                           "\" serves it; read it in a user session");
}

static view_t view_of(const call_t &call)
{
    return { db_rows[call.conn.cdb.db].view, nullptr };
}

static answer_t get(call_t &call)
{
    path_t path;
    answer_t answer = take_stored(call, PATH_INSTANCE, &path);
    ds_error_t error;
    if (answer.code == CONFD_ERR_OK && !read_value(*call.server.store, view_of(call), path, call.out, error))
        return refused(error.code, error.text);
    return answer;
}

static answer_t exists(call_t &call)
{
    path_t path;
    answer_t answer = take_path(call, PATH_INSTANCE, &path);
    if (answer.code == CONFD_ERR_OK)
        call.out.u8(read_exists(*call.server.store, view_of(call), path));
    return answer;
}

static answer_t num_instances(call_t &call)
{
    path_t path;
    answer_t answer = take_stored(call, PATH_LIST, &path);
    if (answer.code == CONFD_ERR_OK)
        call.out.u32(read_count(*call.server.store, view_of(call), path));
    return answer;
}

static answer_t index(call_t &call)
{
    std::string text(call.in.text());
    uint32_t position = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    if (!call.conn.cdb.is_open)
        return refused(CONFD_ERR_NOSESSION, "start a session on this connection first");
    path_t path;
    entry_keys_t keys;
    ds_error_t error;
    if (!path_parse(datastore_schema(*call.server.store), text, PATH_LIST, path, error) ||
        !read_nth(*call.server.store, view_of(call), path, position, keys, error))
        return refused(error.code, error.text);
    value_put_keys(call.out, keys);
    return {};
}

// ---- operational writes

using oper_edit_t = bool (*)(datastore_t &store, const path_t &path, diff_ptr &diff, ds_error_t &error);

static answer_t check_operational(const call_t &call)
{
    if (!call.conn.cdb.is_open || call.conn.cdb.db == WIRE_DB_OPERATIONAL)
        return {};
    return refused(CONFD_ERR_NOT_WRITABLE, "only operational data is written here; this session reads configuration");
}

template <oper_edit_t Edit> static answer_t edit(call_t &call)
{
    answer_t answer = check_operational(call);
    path_t path;
    if (answer.code == CONFD_ERR_OK)
        answer = take_path(call, PATH_INSTANCE, &path);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    diff_ptr diff;
    ds_error_t error;
    if (!Edit(*call.server.store, path, diff, error))
        return refused(error.code, error.text);
    subscription_notify_oper(call.server, std::move(diff));
    return {};
}

// Gives the diff of a write at the path.
template <typename Write> static answer_t write_at(call_t &call, const std::string &text, Write write)
{
    if (!call.in.finished())
        return malformed(call);
    if (!call.conn.cdb.is_open)
        return refused(CONFD_ERR_NOSESSION, "start a session on this connection first");
    answer_t answer = check_operational(call);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    path_t path;
    diff_ptr diff;
    ds_error_t error;
    if (!path_parse(datastore_schema(*call.server.store), text, PATH_INSTANCE, path, error) ||
        !write(*call.server.store, path, diff, error))
        return refused(error.code, error.text);
    subscription_notify_oper(call.server, std::move(diff));
    return {};
}

static answer_t set_elem(call_t &call)
{
    std::string text(call.in.text());
    value_holder holder(call.in);
    return write_at(call, text, [&](datastore_t &store, const path_t &path, diff_ptr &diff, ds_error_t &error) {
        return oper_set(store, path, holder.value, diff, error);
    });
}

static answer_t set_values(call_t &call)
{
    std::string text(call.in.text());
    tag_values_t values(call.in);
    return write_at(call, text, [&](datastore_t &store, const path_t &path, diff_ptr &diff, ds_error_t &error) {
        return oper_set_values(store, path, values.values, diff, error);
    });
}

// ---- triggered reads

static answer_t trigger(call_t &call)
{
    bool is_operational = call.in.u8() != 0;
    (void)call.in.u32(); // flags: a triggered read waits for what is being delivered in any case
    uint32_t n = call.in.count(sizeof(int32_t));
    std::vector<int32_t> ids;
    for (uint32_t i = 0; i < n && n <= MAX_TRIGGER_POINTS; i++)
        ids.push_back(call.in.i32());
    if (!call.in.finished())
        return malformed(call);
    return subscription_trigger(call, is_operational, std::move(ids));
}

static constexpr op_row_t rows_of_ops[] = {
    { WIRE_CDB_GET_PHASE, get_phase },
    { WIRE_CDB_WAIT_START, wait_start },
    { WIRE_CDB_START_SESSION, start_session },
    { WIRE_CDB_END_SESSION, end_session },
    { WIRE_CDB_GET, get },
    { WIRE_CDB_EXISTS, exists },
    { WIRE_CDB_NUM_INSTANCES, num_instances },
    { WIRE_CDB_SET_ELEM, set_elem },
    { WIRE_CDB_SET_VALUES, set_values },
    { WIRE_CDB_CREATE, edit<oper_create> },
    { WIRE_CDB_DELETE, edit<oper_delete> },
    { WIRE_CDB_TRIGGER, trigger },
    { WIRE_CDB_INDEX, index },
};

std::span<const op_row_t> cdb_ops()
{
    return rows_of_ops;
}
