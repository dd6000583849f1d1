// MAAPI connections: user sessions, their transactions and locks, messages to users.

#include "agent/server/dispatch.h"
#include "agent/server/log.h"
#include "agent/server/server.h"

#include <algorithm>

static constexpr size_t MAX_IDENTITY_TEXT = 256;
static constexpr size_t MAX_TRANSACTIONS = 64; // of one session
static constexpr uint32_t MAX_NEXT_ENTRIES = 10000;
static constexpr size_t MAX_MESSAGE = 64 << 10;

// ---- sessions

void maapi_session_end(server_t &server, maapi_session_t &session)
{
    session.transactions.clear();
    if (session.who.id != 0)
        datastore_release(*server.store, session.who.id);
    session.who = {};
}

static answer_t no_session()
{
    return refused(CONFD_ERR_NOSESSION, "start a user session on this connection first");
}

static answer_t not_yet_open(const server_t &server)
{
    return refused(CONFD_ERR_BADSTATE, "the agent is in phase " + std::to_string(server.phase) +
                                           "; configuration is written from phase 2 on (agent_cmd start-phase2)");
}

static answer_t start_session(call_t &call)
{
    session_identity_t who;
    who.user = call.in.text();
    who.context = call.in.text();
    who.source = call.in.text();
    (void)call.in.u16(); // the port is the client's own record
    if (!call.in.finished())
        return malformed(call);
    if (who.user.empty() || std::max({ who.user.size(), who.context.size(), who.source.size() }) > MAX_IDENTITY_TEXT)
        return refused(CONFD_ERR_PROTOUSAGE, "a user session needs a user name, and texts of at most " +
                                                 std::to_string(MAX_IDENTITY_TEXT) + " bytes");
    if (call.conn.maapi.who.id != 0)
        return refused(CONFD_ERR_BADSTATE, "this connection has a user session already; end it first");
    who.id = call.server.next_session_id++;
    call.out.u32(who.id);
    call.conn.maapi.who = std::move(who);
    return {};
}

static answer_t end_session(call_t &call)
{
    if (!call.in.finished())
        return malformed(call);
    if (call.conn.maapi.who.id == 0)
        return no_session();
    maapi_session_end(call.server, call.conn.maapi);
    return {};
}

// ---- transactions

// Of wire_db_t: what a transaction can be on.
static answer_t check_start(const call_t &call, uint8_t db, bool writable)
{
    if (call.conn.maapi.who.id == 0)
        return no_session();
    if (db != WIRE_DB_RUNNING && db != WIRE_DB_OPERATIONAL)
        return refused(CONFD_ERR_NOEXISTS, "there are no transactions on datastore " + std::to_string(db));
    if (writable && db == WIRE_DB_OPERATIONAL)
        return refused(CONFD_ERR_NOT_WRITABLE, "operational data is not written by transactions");
    if (writable && call.server.phase < 2)
        return not_yet_open(call.server);
    if (call.conn.maapi.transactions.size() >= MAX_TRANSACTIONS)
        return refused(CONFD_ERR_TOOMANYTRANS,
                       "a session has at most " + std::to_string(MAX_TRANSACTIONS) + " transactions; finish one first");
    return {};
}

static answer_t start_trans(call_t &call)
{
    uint8_t db = call.in.u8();
    bool writable = call.in.u8() != 0;
    (void)call.in.u32(); // flags: none has a meaning here
    if (!call.in.finished())
        return malformed(call);
    answer_t answer = check_start(call, db, writable);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    uint32_t th = call.server.next_transaction++;
    call.conn.maapi.transactions[th].trans = trans_begin(*call.server.store, writable, call.conn.maapi.who.id);
    call.out.u32(th);
    return {};
}

static bool is_init(const call_t &call, uint32_t th)
{
    return call.server.init_trans && th == call.server.init_th;
}

static answer_t finish_trans(call_t &call)
{
    uint32_t th = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    if (call.conn.maapi.transactions.erase(th) == 0 && !is_init(call, th))
        return refused(CONFD_ERR_NOEXISTS, "there is no transaction " + std::to_string(th));
    return {};
}

// The transaction of a handle: the session's, or the init transaction. Null, with the answer, when it cannot be used.
static trans_t *find_trans(const call_t &call, uint32_t th, answer_t *answer)
{
    if (is_init(call, th))
        return call.server.init_trans.get();
    auto found = call.conn.maapi.transactions.find(th);
    if (found == call.conn.maapi.transactions.end()) {
        *answer = refused(CONFD_ERR_NOEXISTS, "there is no transaction " + std::to_string(th));
        return nullptr;
    }
    if (found->second.is_applied) {
        *answer = refused(CONFD_ERR_BADSTATE, "the transaction is applied; finish it");
        return nullptr;
    }
    return found->second.trans.get();
}

static answer_t attach_init(call_t &call)
{
    if (!call.in.finished())
        return malformed(call);
    if (!call.server.init_trans)
        return refused(CONFD_ERR_BADSTATE, "the agent is in phase " + std::to_string(call.server.phase) +
                                               "; the init transaction is open in phase 1 only");
    call.out.u32(call.server.init_th);
    return {};
}

static answer_t validate(call_t &call)
{
    uint32_t th = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    answer_t answer;
    trans_t *trans = find_trans(call, th, &answer);
    diff_ptr diff;
    ds_error_t error;
    if (trans && !trans_validate(*trans, diff, error))
        return refused(error.code, error.text);
    return answer;
}

static answer_t apply(call_t &call)
{
    uint32_t th = call.in.u32();
    bool keep_open = call.in.u8() != 0;
    if (!call.in.finished())
        return malformed(call);
    if (is_init(call, th))
        return refused(CONFD_ERR_BADSTATE, "the agent commits the init transaction itself, when it goes to phase 2");
    answer_t answer;
    if (!find_trans(call, th, &answer))
        return answer;
    auto job = std::make_unique<job_t>();
    job->kind = JOB_COMMIT;
    job->reply_to = call.ref;
    job->th = th;
    job->keep_open = keep_open;
    commit_queue_add(call.server, std::move(job));
    return deferred();
}

// ---- reads and edits of a transaction

// What the operations on one path of a transaction begin with.
struct target_t {
    trans_t *trans = nullptr;
    path_t path;
};

static answer_t find_target(const call_t &call, uint32_t th, std::string_view text, path_form_t form, target_t *target)
{
    answer_t answer;
    target->trans = find_trans(call, th, &answer);
    if (!target->trans)
        return answer;
    ds_error_t error;
    if (!path_parse(datastore_schema(*call.server.store), text, form, target->path, error))
        return refused(error.code, error.text);
    return {};
}

// For payloads that are a handle and a path.
static answer_t take_target(call_t &call, path_form_t form, target_t *target)
{
    uint32_t th = call.in.u32();
    std::string_view text = call.in.text();
    if (!call.in.finished())
        return malformed(call);
    return find_target(call, th, text, form, target);
}

static view_t view_of(const target_t &target)
{
    return { VIEW_TRANS, target.trans };
}

static answer_t get(call_t &call)
{
    target_t target;
    answer_t answer = take_target(call, PATH_INSTANCE, &target);
    ds_error_t error;
    if (answer.code == CONFD_ERR_OK && !read_value(*call.server.store, view_of(target), target.path, call.out, error))
        return refused(error.code, error.text);
    return answer;
}

static answer_t exists(call_t &call)
{
    target_t target;
    answer_t answer = take_target(call, PATH_INSTANCE, &target);
    if (answer.code == CONFD_ERR_OK)
        call.out.u8(read_exists(*call.server.store, view_of(target), target.path));
    return answer;
}

static answer_t num_instances(call_t &call)
{
    target_t target;
    answer_t answer = take_target(call, PATH_LIST, &target);
    if (answer.code == CONFD_ERR_OK)
        call.out.u32(read_count(*call.server.store, view_of(target), target.path));
    return answer;
}

static answer_t set(call_t &call)
{
    uint32_t th = call.in.u32();
    std::string_view text = call.in.text();
    value_holder holder(call.in);
    if (!call.in.finished())
        return malformed(call);
    target_t target;
    answer_t answer = find_target(call, th, text, PATH_INSTANCE, &target);
    ds_error_t error;
    if (answer.code == CONFD_ERR_OK && !trans_set(*target.trans, target.path, holder.value, error))
        return refused(error.code, error.text);
    return answer;
}

static answer_t set_text(call_t &call)
{
    uint32_t th = call.in.u32();
    std::string_view text = call.in.text();
    std::string_view value = call.in.text();
    if (!call.in.finished())
        return malformed(call);
    target_t target;
    answer_t answer = find_target(call, th, text, PATH_INSTANCE, &target);
    ds_error_t error;
    if (answer.code == CONFD_ERR_OK && !trans_set_text(*target.trans, target.path, value, error))
        return refused(error.code, error.text);
    return answer;
}

using trans_edit_t = bool (*)(trans_t &trans, const path_t &path, ds_error_t &error);

template <trans_edit_t Edit, path_form_t Form> static answer_t edit(call_t &call)
{
    target_t target;
    answer_t answer = take_target(call, Form, &target);
    ds_error_t error;
    if (answer.code == CONFD_ERR_OK && !Edit(*target.trans, target.path, error))
        return refused(error.code, error.text);
    return answer;
}

// Keys read from a request; go with it.
struct key_holder {
    std::vector<confd_value_t> keys;
    bool is_ok = true;
    explicit key_holder(wire_reader_t &in)
    {
        uint8_t count = in.u8();
        is_ok = count <= MAXKEYLEN;
        for (uint8_t i = 0; i < count && is_ok && in.ok; i++)
            keys.push_back(wire_get_value(in));
    }
    key_holder(const key_holder &) = delete;
    key_holder &operator=(const key_holder &) = delete;
    ~key_holder()
    {
        for (confd_value_t &key : keys)
            wire_free_value(key);
    }
};

static answer_t next(call_t &call)
{
    uint32_t th = call.in.u32();
    std::string_view text = call.in.text();
    key_holder after(call.in);
    uint32_t most = std::min(call.in.u32(), MAX_NEXT_ENTRIES);
    if (!call.in.finished() || !after.is_ok)
        return malformed(call);
    target_t target;
    answer_t answer = find_target(call, th, text, PATH_LIST, &target);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    std::vector<entry_keys_t> entries;
    ds_error_t error;
    if (!read_next(*call.server.store, view_of(target), target.path, after.keys, most, entries, error))
        return refused(error.code, error.text);
    call.out.u32(static_cast<uint32_t>(entries.size()));
    for (const entry_keys_t &keys : entries)
        value_put_keys(call.out, keys);
    return {};
}

// ---- documents

answer_t put_shown(call_t &call, view_t view, show_db_t db, uint8_t format, std::string_view path, bool with_defaults)
{
    if (format != DOC_JSON && format != DOC_XML)
        return refused(CONFD_ERR_PROTOUSAGE, "unknown document format " + std::to_string(format));
    path_t subtree;
    std::string text;
    ds_error_t error;
    if (!path_parse(datastore_schema(*call.server.store), path, PATH_SUBTREE, subtree, error) ||
        !read_show(*call.server.store, view, db, subtree, static_cast<doc_format_t>(format), with_defaults, text,
                   error))
        return refused(error.code, error.text);
    call.out.text(text);
    return {};
}

static constexpr uint32_t SHOW_DEFAULTS = 1; // of WIRE_MAAPI_SHOW

static answer_t show(call_t &call)
{
    uint32_t th = call.in.u32();
    std::string path(call.in.text());
    uint8_t format = call.in.u8();
    bool with_defaults = call.in.u32() & SHOW_DEFAULTS;
    if (!call.in.finished())
        return malformed(call);
    if (th == 0)
        return put_shown(call, {}, SHOW_OPERATIONAL, format, path, with_defaults);
    answer_t answer;
    trans_t *trans = find_trans(call, th, &answer);
    return trans ? put_shown(call, { VIEW_TRANS, trans }, SHOW_CONFIG, format, path, with_defaults) : answer;
}

static answer_t compare(call_t &call)
{
    uint32_t th = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    answer_t answer;
    trans_t *trans = find_trans(call, th, &answer);
    if (!trans)
        return answer;
    diff_ptr diff;
    ds_error_t error;
    if (!trans_diff(*trans, diff, error))
        return refused(error.code, error.text);
    std::vector<diff_line_t> lines = diff_lines(*diff);
    call.out.u32(static_cast<uint32_t>(lines.size()));
    for (const diff_line_t &line : lines) {
        call.out.u8(line.op);
        call.out.text(line.path);
        call.out.text(line.old_text);
        call.out.text(line.new_text);
    }
    return {};
}

static answer_t load(call_t &call)
{
    uint32_t th = call.in.u32();
    uint8_t format = call.in.u8();
    std::string document(call.in.text());
    if (!call.in.finished())
        return malformed(call);
    if (format != DOC_JSON && format != DOC_XML)
        return refused(CONFD_ERR_PROTOUSAGE, "unknown document format " + std::to_string(format));
    answer_t answer;
    trans_t *trans = find_trans(call, th, &answer);
    ds_error_t error;
    if (trans && !trans_load(*trans, static_cast<doc_format_t>(format), document, error))
        return refused(error.code, error.text);
    return answer;
}

// ---- locks, messages, keys

static answer_t check_lock(const call_t &call, uint8_t db)
{
    if (call.conn.maapi.who.id == 0)
        return no_session();
    if (db != WIRE_DB_RUNNING)
        return refused(CONFD_ERR_NOEXISTS, "datastore " + std::to_string(db) + " has no lock; running has one");
    if (call.server.phase < 2) // a lock would keep the init transaction from being committed
        return not_yet_open(call.server);
    return {};
}

static answer_t lock(call_t &call)
{
    uint8_t db = call.in.u8();
    if (!call.in.finished())
        return malformed(call);
    answer_t answer = check_lock(call, db);
    const session_identity_t &who = call.conn.maapi.who;
    ds_error_t error;
    if (answer.code == CONFD_ERR_OK &&
        !datastore_lock(*call.server.store, who.id, who.user + " of " + connection_title(call.conn), error))
        return refused(error.code, error.text);
    return answer;
}

static answer_t unlock(call_t &call)
{
    uint8_t db = call.in.u8();
    if (!call.in.finished())
        return malformed(call);
    answer_t answer = check_lock(call, db);
    ds_error_t error;
    if (answer.code == CONFD_ERR_OK && !datastore_unlock(*call.server.store, call.conn.maapi.who.id, error))
        return refused(error.code, error.text);
    return answer;
}

static answer_t prio_message(call_t &call)
{
    std::string user(call.in.text());
    std::string_view message = call.in.text();
    if (!call.in.finished())
        return malformed(call);
    if (message.size() > MAX_MESSAGE)
        return refused(CONFD_ERR_TOOBIG, "a message has at most " + std::to_string(MAX_MESSAGE) + " bytes");
    wire_writer_t push;
    push.text(message);
    bool is_sent = false;
    for (auto &[serial, conn] : call.server.connections) {
        const session_identity_t &who = conn->maapi.who;
        if (who.id == 0 || (user != "all" && user != who.user))
            continue;
        connection_send(*conn, WIRE_MAAPI_MESSAGE, 0, 0, push.bytes);
        is_sent = true;
    }
    if (!is_sent && user != "all")
        return refused(CONFD_ERR_NOEXISTS, "user " + user + " has no session");
    return {};
}

static answer_t install_crypto_keys(call_t &call)
{
    if (!call.in.finished())
        return malformed(call);
    call.out.text(call.server.crypto_keys);
    return {};
}

static constexpr op_row_t rows_of_ops[] = {
    { WIRE_MAAPI_START_SESSION, start_session },
    { WIRE_MAAPI_END_SESSION, end_session },
    { WIRE_MAAPI_START_TRANS, start_trans },
    { WIRE_MAAPI_FINISH_TRANS, finish_trans },
    { WIRE_MAAPI_VALIDATE_TRANS, validate },
    { WIRE_MAAPI_APPLY_TRANS, apply },
    { WIRE_MAAPI_ATTACH_INIT, attach_init },
    { WIRE_MAAPI_GET, get },
    { WIRE_MAAPI_EXISTS, exists },
    { WIRE_MAAPI_SET, set },
    { WIRE_MAAPI_SET_TEXT, set_text },
    { WIRE_MAAPI_CREATE, edit<trans_create, PATH_INSTANCE> },
    { WIRE_MAAPI_DELETE, edit<trans_delete, PATH_SUBTREE> },
    { WIRE_MAAPI_NUM_INSTANCES, num_instances },
    { WIRE_MAAPI_NEXT, next },
    { WIRE_MAAPI_LOCK, lock },
    { WIRE_MAAPI_UNLOCK, unlock },
    { WIRE_MAAPI_PRIO_MESSAGE, prio_message },
    { WIRE_MAAPI_INSTALL_CRYPTO_KEYS, install_crypto_keys },
    { WIRE_MAAPI_SHOW, show },
    { WIRE_MAAPI_COMPARE, compare },
    { WIRE_MAAPI_LOAD, load },
};

std::span<const op_row_t> maapi_ops()
{
    return rows_of_ops;
}
