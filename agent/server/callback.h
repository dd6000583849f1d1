// Questions of the agent to its clients: callbacks on control and worker connections.
//
// One connection is asked one thing at a time; further questions to it wait in order. Each question ends exactly once:
// with the client's answer, or with CONFD_ERR_UNAVAILABLE and a text that names the client and what it was asked, when
// the client dies or does not answer in time; below the call that asks when the client is gone already. A client that
// does not answer in time is disconnected, since nobody can tell its late answer from the next one's; so is one that
// answers with garbage. A question's time begins when it is sent, behind whatever its client is busy with; one that
// others wait behind (a hook, a validation point) says so and has its time from the asking: then the asker goes on
// without the client, which stays.
#ifndef AGENT_SERVER_CALLBACK_H
#define AGENT_SERVER_CALLBACK_H

#include "agent/server/dispatch.h"
#include "agent/server/handle.h"
#include "agent/wire/wire.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>

struct server_t;
struct connection_t;

// How a question ended. code 0: payload is what the client answered. CONFD_ERR_EXTERNAL: the client's callback failed,
// text is what it gave as the reason, or empty.
struct callback_reply_t {
    int code = CONFD_ERR_OK;
    std::string text;
    std::string_view payload;
};

using callback_done_t = std::function<void(server_t &server, const callback_reply_t &reply)>;

struct callback_question_t {
    uint16_t op = 0; // WIRE_CB_*
    std::string payload;
    std::string what; // "get_next_object of callpoint \"arp-table\"", for texts
    uint64_t timeout_ms = 0;
    callback_done_t done;   // null: nobody wants to know
    uint32_t ticket = 0;    // of the asker's, by which it may be withdrawn; 0: never
    bool is_urgent = false; // done is called within timeout_ms from the asking, not from the sending
    double asked_ms = 0;    // is_urgent
    std::string behind;     // is_urgent: what the client was busy with; empty: nothing
};

// Of a connection.
struct callback_queue_t {
    std::deque<callback_question_t> questions; // the first has been sent
    uint32_t last_id = 0;                      // of the one sent
    uint64_t asked = 0;                        // ever, for status output
    double sent_ms = 0;
    owned_event timeout;
    owned_event overdue; // of the urgent ones behind others
};

// Asks the client of a connection; a connection that is gone ends the question like a client that dies.
void callback_ask(server_t &server, uint64_t connection, callback_question_t question);

// Takes back the questions with the ticket that have not been sent; they end without a word. False when there were
// none.
bool callback_withdraw(server_t &server, uint64_t connection, uint32_t ticket);

// The worker connection of this number that belongs to the daemon of the control connection; 0 when there is none.
[[nodiscard]] uint64_t callback_find_worker(server_t &server, uint64_t control, uint32_t worker_id);

// A frame with WIRE_REPLY of the connection's client. False when nothing was asked that it could answer.
[[nodiscard]] bool callback_take_answer(connection_t &conn, const wire_header_t &header, std::string_view payload);

// The connection is going: all its questions end.
void callback_forget(server_t &server, connection_t &conn);

// Ends a question with an error that the asker has found in the client's answer: the client is disconnected.
void callback_refuse_answer(server_t &server, uint64_t connection, const std::string &why);

#endif
