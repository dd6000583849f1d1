// MAAPI connections: user sessions and their locks, messages to users.
#include "agent/server/log.h"
#include "agent/server/maapi.h"
#include "agent/server/provider_read.h"
#include "agent/server/server.h"
#include "agent/server/walk.h"

#include <algorithm>

static constexpr size_t MAX_IDENTITY_TEXT = 256;
static constexpr size_t MAX_MESSAGE = 64 << 10;

// ---- the lock of the candidate; running's is the datastore's

static void release_candidate(server_t &server, uint32_t holder)
{
    if (server.candidate_holder != holder)
        return;
    server.candidate_holder = 0;
    server.candidate_holder_name.clear();
}

answer_t maapi_check_candidate_lock(const call_t &call)
{
    return lock_check_candidate(call.server, call.conn.maapi.who.id);
}

static answer_t lock_candidate(call_t &call, const std::string &name)
{
    answer_t answer = maapi_check_candidate_lock(call);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    call.server.candidate_holder = call.conn.maapi.who.id;
    call.server.candidate_holder_name = name;
    return {};
}

static answer_t unlock_candidate(call_t &call)
{
    if (call.server.candidate_holder != call.conn.maapi.who.id)
        return refused(CONFD_ERR_NOEXISTS, "the candidate is not locked by this session");
    release_candidate(call.server, call.conn.maapi.who.id);
    return {};
}

static answer_t lock_running(call_t &call, const std::string &name)
{
    ds_error_t error;
    if (!datastore_lock(*call.server.store, call.conn.maapi.who.id, name, error))
        return refused(error.code, error.text);
    return {};
}

static answer_t unlock_running(call_t &call)
{
    ds_error_t error;
    if (!datastore_unlock(*call.server.store, call.conn.maapi.who.id, error))
        return refused(error.code, error.text);
    return {};
}

// ---- sessions

void maapi_session_end(server_t &server, maapi_session_t &session)
{
    walk_end_all(server, session);
    (void)provider_interrupt(server, session); // nobody waits for the answer any more
    for (auto &[th, opened] : session.transactions)
        if (opened.trans) // else the queue has it, and tells
            callback_trans_finish(server, opened.daemons);
    session.transactions.clear();
    session.attached.clear();
    session.flags.clear();
    if (session.who.id != 0) {
        datastore_release(*server.store, session.who.id);
        release_candidate(server, session.who.id);
    }
    session.who = {};
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
        return maapi_no_session();
    maapi_session_end(call.server, call.conn.maapi);
    return {};
}

// ---- locking, messages, keys

struct lock_row_t {
    uint8_t db; // wire_db_t
    answer_t (*lock)(call_t &call, const std::string &name);
    answer_t (*unlock)(call_t &call);
};
static constexpr lock_row_t lock_rows[] = {
    { WIRE_DB_RUNNING, lock_running, unlock_running },
    { WIRE_DB_CANDIDATE, lock_candidate, unlock_candidate },
};

// The row of the datastore in the payload; null, with the answer, when it cannot be locked.
static const lock_row_t *take_lock_row(call_t &call, answer_t *answer)
{
    uint8_t db = call.in.u8();
    auto row = std::ranges::find(lock_rows, db, &lock_row_t::db);
    if (!call.in.finished())
        *answer = malformed(call);
    else if (call.conn.maapi.who.id == 0)
        *answer = maapi_no_session();
    else if (row == std::end(lock_rows))
        *answer = refused(CONFD_ERR_NOEXISTS,
                          "datastore " + std::to_string(db) + " has no lock; running and the candidate have one");
    else if (call.server.phase < 2) // a lock would keep the init transaction from being committed
        *answer = maapi_not_yet_open(call.server);
    else
        return row;
    return nullptr;
}

static answer_t lock(call_t &call)
{
    answer_t answer;
    const lock_row_t *row = take_lock_row(call, &answer);
    return row ? row->lock(call, call.conn.maapi.who.user + " of " + connection_title(call.conn)) : answer;
}

static answer_t unlock(call_t &call)
{
    answer_t answer;
    const lock_row_t *row = take_lock_row(call, &answer);
    return row ? row->unlock(call) : answer;
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
    { WIRE_MAAPI_LOCK, lock },
    { WIRE_MAAPI_UNLOCK, unlock },
    { WIRE_MAAPI_PRIO_MESSAGE, prio_message },
    { WIRE_MAAPI_INSTALL_CRYPTO_KEYS, install_crypto_keys },
};

std::span<const op_row_t> maapi_session_ops()
{
    return rows_of_ops;
}
