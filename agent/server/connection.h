// One client's connection: bytes in, frames to the dispatcher, frames out.
//
// A connection serves one request at a time and in order. A request whose answer has to wait (for a phase, a lock, a
// commit) holds up those behind it on the same connection and nothing else. Output is queued; a client that does not
// read gets no further requests served once its queue is long, and is disconnected when pushes fill it.
//
// A connection is destroyed only by its own event callbacks and by server_drop, never below a request handler: what
// fails there marks it with connection_fail, and it goes when the stack is clean. Whoever keeps a connection over time
// keeps its serial and looks it up.
#ifndef AGENT_SERVER_CONNECTION_H
#define AGENT_SERVER_CONNECTION_H

#include "agent/server/callback.h"
#include "agent/server/handle.h"
#include "agent/server/session.h"
#include "agent/server/subscriber.h"
#include "agent/wire/wire.h"

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

struct server_t;

struct connection_t {
    server_t *server = nullptr;
    uint64_t serial = 0; // never used again
    owned_fd fd;
    owned_event read_event;
    owned_event write_event;
    owned_event resume_event;   // serves what is buffered, or drops a failed connection, from a clean stack
    owned_event deadline_event; // for the hello, and for the last bytes of a closing connection

    std::string in; // received and not yet served
    std::deque<std::string> out;
    size_t out_offset = 0; // bytes of the first that are sent
    size_t out_bytes = 0;  // of all, unsent
    bool at_eof = false;
    bool is_waiting = false; // the answer to a request is still to come
    bool is_closing = false; // serves nothing more, waits for its peer's end
    std::string failure;     // not empty: to be dropped, and why

    bool is_greeted = false; // the hello has come; the rest is what it said
    wire_kind_t kind = WIRE_KIND_COUNT;
    std::string name;
    uint32_t pid = 0;
    uint32_t daemon_id = 0;
    uint64_t requests = 0; // served, the hello aside

    cdb_session_t cdb;
    maapi_session_t maapi;
    subscriber_t subscriber;
    uint32_t notif_mask = 0;
    callback_queue_t callbacks; // control and worker connections
};

// Makes the events of a connection whose server, serial and fd are set. False when there is no memory.
[[nodiscard]] bool connection_start(connection_t &conn);

// Queues one frame and sends what the socket takes. Never blocks.
void connection_send(connection_t &conn, uint16_t op, uint16_t status, uint32_t id, std::string_view payload);

// Goes on with the requests behind an answered one.
void connection_resume(connection_t &conn);

// Marks the connection: it is dropped, with a log line that gives the reason, once the stack is clean.
void connection_fail(connection_t &conn, std::string reason);

// Serves no further request, sends what is queued, and ends when the peer has closed its end too (a socket closed with
// unread input would take the last answer with it) or after five seconds.
void connection_close_after_output(connection_t &conn);

// "cfgmgr (pid 12)", for texts.
[[nodiscard]] std::string connection_title(const connection_t &conn);

#endif
