// Actions and completions in progress: from the choice of a worker to the answer of the one who asked.
//
// A run asks the daemon's control connection for a worker, then the worker. It ends once: with the answer, with what
// went wrong, or early, when the one who asked interrupts it or goes away; the daemon is told of an early end if it has
// registered an abort callback and may have begun. Runs wait for no commit, and nothing waits for a run but its
// request.
#ifndef AGENT_SERVER_ACTION_H
#define AGENT_SERVER_ACTION_H

#include "agent/server/callback.h"
#include "agent/server/dispatch.h"
#include "agent/server/notif.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>

// The callbacks that a registration of an action point says are set.
enum action_callback_t : uint32_t {
    ACTION_INIT = 1,
    ACTION_ABORT = 2,
    ACTION_ACTION = 4,
    ACTION_COMMAND = 8,
    ACTION_COMPLETION = 16,
};

// Makes the answer of the request from the worker's; the reply's code is CONFD_ERR_OK or CONFD_ERR_EXTERNAL. client is
// its title, for texts.
using action_finish_t = std::function<answer_t(server_t &server, const callback_reply_t &reply,
                                               const std::string &client, wire_writer_t &out)>;

struct action_run_t {
    uint32_t id = 0; // the invocation
    request_ref_t reply_to;
    std::string point;
    std::string what; // "action \"reset\"", for texts
    uint32_t th = 0;
    session_identity_t who;
    uint16_t op = 0;     // WIRE_CB_*, asked of the worker
    std::string payload; // of it, behind the invocation
    uint64_t timeout_ms = 0;
    action_finish_t finish;
    uint64_t control = 0; // serial
    uint64_t worker = 0;  // 0: not chosen yet
    bool has_abort = false;
};

struct actions_t {
    std::map<uint32_t, action_run_t> runs; // by id
    uint32_t last_id = 0;
};

// Begins a run of the daemon that has registered the point with one of the callbacks; its request is answered by it.
// When nobody has, the answer says so at once: see the result, which is `deferred` otherwise.
[[nodiscard]] answer_t action_start(server_t &server, action_run_t run, uint32_t callbacks);

// Ends the run that a connection waits for with CONFD_ERR_ABORTED. False when it waits for none.
bool action_interrupt(server_t &server, uint64_t connection);

// The one who asked has gone.
void action_forget(server_t &server, uint64_t connection);

#endif
