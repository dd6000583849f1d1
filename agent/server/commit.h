// The queue of all that delivers data: commits, triggered reads, operational notifications, in the order of their
// coming.
//
// One job at a time runs; the others wait, and so does nothing else: reads, operational writes and the edits of other
// transactions go on meanwhile. Jobs begin and end on a stack of their own event, so that a handler may enqueue one and
// then defer its answer.
#ifndef AGENT_SERVER_COMMIT_H
#define AGENT_SERVER_COMMIT_H

#include "agent/server/datastore.h"
#include "agent/server/delivery.h"
#include "agent/server/dispatch.h"
#include "agent/server/handle.h"
#include "agent/server/hook.h"
#include "agent/server/notif.h"
#include "agent/server/valpoint.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

enum job_kind_t : uint8_t {
    JOB_COMMIT,    // of a user session's transaction
    JOB_CANDIDATE, // commit of the candidate
    JOB_PHASE_2,   // of the init transaction, to which nobody subscribes: initial reads show it
    JOB_VALIDATE,  // of a transaction: judged as for a commit, then as if nothing had been
    JOB_TRIGGER,   // of the existing data of points
    JOB_OPER,      // of operational writes
    JOB_KINDS
};

enum job_stage_t : uint8_t {
    STAGE_QUEUED,
    STAGE_HOOKS,      // the transaction can be edited
    STAGE_VALIDATING, // from here on it cannot
    STAGE_PREPARING,  // two-phase subscribers are asked
    STAGE_ABORTING,   // those that had agreed are told
    STAGE_DELIVERING, // the last one
};

struct job_t {
    job_kind_t kind = JOB_COMMIT;
    job_stage_t stage = STAGE_QUEUED;
    request_ref_t reply_to;       // empty: nobody waits
    uint32_t th = 0;              // of a transaction: its handle
    bool keep_open = false;       // JOB_COMMIT
    session_identity_t committer; // kept, as its session may end before its commit
    trans_ptr trans;              // being committed; given back to its owner or gone with it
    size_t mark = 0;              // its edits before hooks made theirs
    callback_trans_ref daemons;   // who has been told of it
    hook_run_t hooks;
    valpoint_run_t validation;
    bool is_operational = false; // JOB_TRIGGER
    std::vector<int32_t> points; // JOB_TRIGGER: asked for
    diff_ptr changes;            // what is delivered
    std::string leaf_path;       // JOB_OPER: of the only leaf that was set, if it is one
    diff_ptr oper_changes;       // operational data that went with deleted configuration
    answer_t answer;             // for reply_to, once the job is done
    double start_ms = 0;
};

struct commit_queue_t {
    std::deque<std::unique_ptr<job_t>> jobs; // the first is in progress once its stage says so
    owned_event run_event;
    std::map<std::string, job_t *> oper_leaves; // queued JOB_OPER by leaf_path
    size_t oper_jobs = 0;                       // JOB_OPER queued or running
    uint64_t commits = 0;                       // that changed running
    uint64_t refusals = 0;                      // of commits
    double last_commit_ms = 0;
};

[[nodiscard]] bool commit_queue_init(server_t &server);
void commit_queue_add(server_t &server, std::unique_ptr<job_t> job);
// Lets the queue go on, from a stack of its own.
void commit_queue_schedule(server_t &server);
// What the connection has asked for and has not begun is not done; what daemons are still asked about ends.
void commit_queue_forget(server_t &server, uint64_t connection);
// The request that the connection waits for is answered with CONFD_ERR_ABORTED if it is a commit or a validation that
// has not begun or that daemons are still asked about; else nothing happens.
void commit_queue_interrupt(server_t &server, uint64_t connection);
// The job in progress; null when there is none.
[[nodiscard]] job_t *commit_queue_running(server_t &server);
// The changes being delivered; null when nothing is.
[[nodiscard]] const diff_t *commit_queue_changes(server_t &server);
// Tells the committer who is being served.
void commit_queue_tell_progress(server_t &server, const std::string &text);

#endif
