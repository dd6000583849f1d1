// From a frame to the function that serves it: one table of operations for each kind of connection.
//
// A handler reads its payload, and looks at call.in.finished() before it does anything; it writes the reply's payload
// to call.out and says how it went. An answer that has to wait is deferred: the handler keeps call.ref and answers
// through server_answer, once.
#ifndef AGENT_SERVER_DISPATCH_H
#define AGENT_SERVER_DISPATCH_H

#include "agent/wire/wire.h"

#include <cstdint>
#include <span>
#include <string>

struct server_t;
struct connection_t;

// How a request ended: 0 or an error number with a text for people.
struct answer_t {
    int code = CONFD_ERR_OK;
    std::string text;
    bool is_deferred = false;
    bool is_silent = false; // of an operation without a reply
};

// A request to be answered later; its connection may be gone by then.
struct request_ref_t {
    uint64_t connection = 0; // serial
    uint16_t op = 0;
    uint32_t id = 0;
};

struct call_t {
    server_t &server;
    connection_t &conn;
    wire_reader_t in;
    wire_writer_t out;
    request_ref_t ref;
};

struct op_row_t {
    uint16_t op;
    answer_t (*serve)(call_t &call);
};

[[nodiscard]] inline answer_t refused(int code, std::string text)
{
    return { code, std::move(text), false, false };
}

[[nodiscard]] inline answer_t deferred()
{
    return { CONFD_ERR_OK, {}, true, false };
}

[[nodiscard]] inline answer_t unanswered()
{
    return { CONFD_ERR_OK, {}, false, true };
}

// For a payload that does not hold what the operation takes. Ends the connection too.
[[nodiscard]] answer_t malformed(call_t &call);

// "maapi", "data" and so on.
[[nodiscard]] const char *connection_kind_name(wire_kind_t kind);

// The tables, each in the file that serves the kind.
std::span<const op_row_t> control_ops();
std::span<const op_row_t> subscription_ops();
std::span<const op_row_t> cdb_ops();
std::span<const op_row_t> worker_ops();
std::span<const op_row_t> maapi_session_ops();
std::span<const op_row_t> maapi_trans_ops();
std::span<const op_row_t> maapi_edit_ops();
std::span<const op_row_t> maapi_read_ops();
std::span<const op_row_t> maapi_action_ops();
std::span<const op_row_t> maapi_walk_ops();
std::span<const op_row_t> stream_ops();
std::span<const op_row_t> notif_ops();
std::span<const op_row_t> schema_ops();
std::span<const op_row_t> admin_ops();

#endif
