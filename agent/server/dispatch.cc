#include "agent/server/dispatch.h"

#include "agent/server/log.h"
#include "agent/server/server.h"

#include <algorithm>

static constexpr size_t MAX_CLIENT_NAME = 128;

using op_table_t = std::span<const op_row_t> (*)();
static constexpr size_t MAX_OP_TABLES = 6; // of one kind

struct kind_row_t {
    wire_kind_t kind;
    const char *name;
    op_table_t tables[MAX_OP_TABLES]; // ended by null when they are fewer
};

static constexpr kind_row_t kind_rows[] = {
    { WIRE_KIND_CONTROL, "control", { control_ops } },
    { WIRE_KIND_WORKER, "worker", { worker_ops } },
    { WIRE_KIND_CDB_SUB, "subscription", { subscription_ops } },
    { WIRE_KIND_CDB_DATA, "data", { cdb_ops } },
    { WIRE_KIND_MAAPI,
      "maapi",
      { maapi_edit_ops, maapi_read_ops, maapi_trans_ops, maapi_session_ops, maapi_action_ops, maapi_walk_ops } },
    { WIRE_KIND_NOTIF, "notification", { notif_ops, stream_ops } },
    { WIRE_KIND_SCHEMA, "schema", { schema_ops } },
    { WIRE_KIND_ADMIN, "admin", { admin_ops } },
};
static_assert(std::size(kind_rows) == WIRE_KIND_COUNT);

const char *connection_kind_name(wire_kind_t kind)
{
    return kind < WIRE_KIND_COUNT ? kind_rows[kind].name : "unknown";
}

answer_t malformed(call_t &call)
{
    connection_close_after_output(call.conn);
    return refused(CONFD_ERR_PROTOUSAGE, "operation " + std::to_string(call.ref.op) + " with a malformed payload");
}

// Compares in a time that tells nothing about where the texts differ.
static bool is_same_secret(std::string_view given, std::string_view secret)
{
    unsigned difference = given.size() != secret.size();
    for (size_t i = 0; i < given.size() && !secret.empty(); i++)
        difference |= static_cast<unsigned char>(given[i]) ^ static_cast<unsigned char>(secret[i % secret.size()]);
    return difference == 0;
}

struct hello_t {
    uint16_t version;
    uint8_t kind;
    std::string name;
    uint32_t pid;
    std::string_view secret;
    uint32_t daemon_id;
};

static bool read_hello(wire_reader_t &in, hello_t *hello)
{
    hello->version = in.u16();
    hello->kind = in.u8();
    hello->name = in.text();
    hello->pid = in.u32();
    hello->secret = in.text();
    hello->daemon_id = in.u32();
    return in.finished();
}

// Why the hello is not accepted; OK otherwise.
static answer_t check_hello(const server_t &server, const hello_t &hello)
{
    if (hello.version != WIRE_VERSION)
        return refused(CONFD_ERR_PROTOUSAGE, "protocol version " + std::to_string(hello.version) +
                                                 "; the agent speaks " + std::to_string(WIRE_VERSION));
    if (hello.kind >= WIRE_KIND_COUNT)
        return refused(CONFD_ERR_PROTOUSAGE, "unknown kind of connection " + std::to_string(hello.kind));
    if (hello.name.size() > MAX_CLIENT_NAME)
        return refused(CONFD_ERR_TOOBIG, "a client name of more than " + std::to_string(MAX_CLIENT_NAME) + " bytes");
    if (!server.secret.empty() && !is_same_secret(hello.secret, server.secret))
        return refused(CONFD_ERR_ACCESS_DENIED, "wrong secret; the client must read the agent's access file");
    return {};
}

// What the hello is answered with: a number that the client, or the agent, needs of the connection.
static uint32_t hello_answer(const connection_t &conn)
{
    if (conn.kind == WIRE_KIND_CONTROL)
        return conn.daemon_id;
    return conn.kind == WIRE_KIND_WORKER ? static_cast<uint32_t>(conn.serial) : 0;
}

static answer_t greet(call_t &call)
{
    hello_t hello{};
    if (!read_hello(call.in, &hello))
        return malformed(call);
    answer_t answer = check_hello(call.server, hello);
    if (answer.code != CONFD_ERR_OK) {
        connection_close_after_output(call.conn);
        return answer;
    }
    connection_t &conn = call.conn;
    conn.is_greeted = true;
    conn.kind = static_cast<wire_kind_t>(hello.kind);
    conn.name = std::move(hello.name);
    conn.pid = hello.pid;
    conn.daemon_id = conn.kind == WIRE_KIND_CONTROL ? call.server.registry.next_daemon_id++ : hello.daemon_id;
    event_del(conn.deadline_event.get());
    call.out.u32(hello_answer(conn));
    agent_log(LOG_DEBUG, "%s connects: %s", connection_title(conn).c_str(), connection_kind_name(conn.kind));
    return {};
}

// The handler of a request; null, with *why, when there is none here.
static auto find_handler(const connection_t &conn, uint16_t op, std::string *why) -> answer_t (*)(call_t &)
{
    if (!conn.is_greeted && op == WIRE_HELLO)
        return greet;
    if (!conn.is_greeted) {
        *why = "operation " + std::to_string(op) + " before the hello";
        return nullptr;
    }
    for (op_table_t table : kind_rows[conn.kind].tables)
        for (const op_row_t &row : table ? table() : std::span<const op_row_t>())
            if (row.op == op)
                return row.serve;
    *why = "no operation " + std::to_string(op) + " on a " + kind_rows[conn.kind].name + " connection";
    return nullptr;
}

static void send_answer(connection_t &conn, const request_ref_t &ref, const answer_t &answer, std::string_view payload)
{
    auto op = static_cast<uint16_t>(ref.op | WIRE_REPLY);
    if (answer.code == CONFD_ERR_OK && payload.size() <= WIRE_MAX_FRAME)
        return connection_send(conn, op, 0, ref.id, payload);
    wire_writer_t error;
    bool is_big = answer.code == CONFD_ERR_OK;
    error.text(is_big ? std::string_view("the answer is larger than a frame; ask for less") : answer.text);
    connection_send(conn, op, static_cast<uint16_t>(is_big ? CONFD_ERR_TOOBIG : answer.code), ref.id, error.bytes);
}

void server_refuse_frame(connection_t &conn, const wire_header_t &header, int code, const std::string &text)
{
    agent_log(LOG_WARNING, "%s: refused: %s", connection_title(conn).c_str(), text.c_str());
    send_answer(conn, { conn.serial, static_cast<uint16_t>(header.op & ~WIRE_REPLY), header.id }, refused(code, text),
                {});
    connection_close_after_output(conn);
}

void server_serve(connection_t &conn, const wire_header_t &header, std::string_view payload)
{
    if (header.op & WIRE_REPLY) {
        if (!callback_take_answer(conn, header, payload))
            server_refuse_frame(conn, header, CONFD_ERR_PROTOUSAGE, "an answer to what was not asked");
        return;
    }
    std::string why;
    auto serve = find_handler(conn, header.op, &why);
    if (!serve)
        return server_refuse_frame(conn, header, CONFD_ERR_PROTOUSAGE, why);
    conn.requests += conn.is_greeted;
    call_t call{ *conn.server, conn, wire_reader_t(payload), {}, { conn.serial, header.op, header.id } };
    bool was_waiting = conn.is_waiting; // an urgent operation
    conn.is_waiting = true;             // until server_answer, which a handler that defers may have come to already
    answer_t answer = serve(call);
    if (answer.code == CONFD_ERR_PROTOUSAGE)
        agent_log(LOG_WARNING, "%s: refused: %s", connection_title(conn).c_str(), answer.text.c_str());
    if (answer.is_deferred || (answer.is_silent && was_waiting))
        return;
    conn.is_waiting = was_waiting;
    if (!answer.is_silent)
        send_answer(conn, call.ref, answer, call.out.bytes);
}

bool server_is_urgent(const connection_t &conn, uint16_t op)
{
    return conn.kind == WIRE_KIND_MAAPI && op == WIRE_MAAPI_INTERRUPT;
}

void server_answer(server_t &server, const request_ref_t &ref, const answer_t &answer, std::string_view payload)
{
    connection_t *conn = server_find(server, ref.connection);
    if (!conn)
        return;
    conn->is_waiting = false;
    send_answer(*conn, ref, answer, payload);
    connection_resume(*conn);
}
