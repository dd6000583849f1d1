// MAAPI connections: user sessions and their locks, messages to users.
#include "agent/server/log.h"
#include "agent/server/maapi.h"
#include "agent/server/server.h"
#include "agent/server/walk.h"

#include <algorithm>

static constexpr size_t MAX_IDENTITY_TEXT = 256;
static constexpr size_t MAX_MESSAGE = 64 << 10;

// ---- sessions

void maapi_session_end(server_t &server, maapi_session_t &session)
{
    walk_end_all(server, session);
    session.transactions.clear();
    if (session.who.id != 0)
        datastore_release(*server.store, session.who.id);
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

// ---- locks, messages, keys

static answer_t check_lock(const call_t &call, uint8_t db)
{
    if (call.conn.maapi.who.id == 0)
        return maapi_no_session();
    if (db != WIRE_DB_RUNNING)
        return refused(CONFD_ERR_NOEXISTS, "datastore " + std::to_string(db) + " has no lock; running has one");
    if (call.server.phase < 2) // a lock would keep the init transaction from being committed
        return maapi_not_yet_open(call.server);
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
    { WIRE_MAAPI_LOCK, lock },
    { WIRE_MAAPI_UNLOCK, unlock },
    { WIRE_MAAPI_PRIO_MESSAGE, prio_message },
    { WIRE_MAAPI_INSTALL_CRYPTO_KEYS, install_crypto_keys },
};

std::span<const op_row_t> maapi_session_ops()
{
    return rows_of_ops;
}
