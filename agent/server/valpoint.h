// Validation points: daemons judge a prepared transaction by what has changed in it; the first refusal ends the
// judgement.
//
// A point is called for each changed instance of its node, or for a container or entry that anything changed in: points
// in the order of the model, instances in key order, deleted ones included. Below a deleted entry nothing is called.
#ifndef AGENT_SERVER_VALPOINT_H
#define AGENT_SERVER_VALPOINT_H

#include "agent/server/diff.h"
#include "agent/server/point.h"

#include <vector>

// Of one transaction. A schema without validation points costs nothing.
struct valpoint_run_t {
    point_asker_t asker;
    std::vector<point_call_t> calls;
    size_t at = 0; // the next one
};

// changes outlive the run.
void valpoint_begin(server_t &server, valpoint_run_t &run, const diff_t &changes);

// Goes on until an answer has to be waited for. With RUN_FAILED the failure is the refusal.
[[nodiscard]] run_state_t valpoint_step(server_t &server, valpoint_run_t &run, answer_t &failure);

#endif
