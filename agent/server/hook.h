// Transaction hooks: while a transaction is applied, daemons are told of its changes and may change more of it.
//
// A hook covers its node and everything below, down to nodes with a hook of their own. Calls of one point are removes,
// then creates, then set_elems, each in the order of the changes; points come in the order of the model. What hooks
// change calls further hooks, in rounds: each change is told once.
#ifndef AGENT_SERVER_HOOK_H
#define AGENT_SERVER_HOOK_H

#include "agent/server/datastore.h"
#include "agent/server/point.h"

#include <string>
#include <unordered_set>
#include <vector>

// Of one transaction. A schema without hooks costs nothing: the run is done at its first step.
struct hook_run_t {
    trans_t *trans = nullptr; // outlives the run
    point_asker_t asker;
    diff_ptr changes; // as the round began
    std::vector<point_call_t> calls;
    size_t at = 0; // the next one
    unsigned rounds = 0;
    std::unordered_set<std::string> called; // in all rounds
};

// Goes on until an answer has to be waited for. With RUN_FAILED the failure says who refuses what.
[[nodiscard]] run_state_t hook_step(server_t &server, hook_run_t &run, answer_t &failure);

#endif
