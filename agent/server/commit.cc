#include "agent/server/commit.h"

#include "agent/server/log.h"
#include "agent/server/notif.h"
#include "agent/server/phase.h"
#include "agent/server/server.h"
#include "agent/server/settings.h"
#include "agent/server/subscription.h"

#include <algorithm>

// The order of a commit. Each step takes up where the one before has left off; steps that wait for clients come back
// through queue_step when the answer is there, or the last subscriber has synced.
//
//   begin           the transaction becomes the job's
//   call_hooks      daemons may change the transaction
//   judge           the rules of the model
//   call_valpoints  daemons may refuse it; a job that only validates ends here
//   prepare         two-phase subscribers, by priority; a refusal goes to abort
//   persist         from here on running shows the new data
//   deliver         all subscribers, by priority
//   end_delivery    operational data of deleted entries goes, commit notifications
//   finish          the answer, then notifications of the operational data that went
//
// What fails before persist leaves the transaction as it was before its hooks.
static void persist(server_t &server, job_t &job);

// ---- the queue

job_t *commit_queue_running(server_t &server)
{
    bool is_running = !server.queue.jobs.empty() && server.queue.jobs.front()->stage != STAGE_QUEUED;
    return is_running ? server.queue.jobs.front().get() : nullptr;
}

void commit_queue_schedule(server_t &server)
{
    static constexpr timeval now = { 0, 0 };
    evtimer_add(server.queue.run_event.get(), &now);
}

void commit_queue_add(server_t &server, std::unique_ptr<job_t> job)
{
    server.queue.oper_jobs += job->kind == JOB_OPER;
    server.queue.jobs.push_back(std::move(job));
    if (server.queue.jobs.size() == 1)
        commit_queue_schedule(server);
}

const diff_t *commit_queue_changes(server_t &server)
{
    const job_t *job = commit_queue_running(server);
    return job ? job->changes.get() : nullptr;
}

void commit_queue_tell_progress(server_t &server, const std::string &text)
{
    const job_t *job = commit_queue_running(server);
    connection_t *conn = job ? server_find(server, job->reply_to.connection) : nullptr;
    if (!conn || conn->kind != WIRE_KIND_MAAPI)
        return;
    wire_writer_t push;
    push.text(text);
    connection_send(*conn, WIRE_MAAPI_PROGRESS, 0, 0, push.bytes);
}

// ---- the end of a job

static bool is_commit(const job_t &job)
{
    return job.kind == JOB_COMMIT || job.kind == JOB_CANDIDATE || job.kind == JOB_PHASE_2;
}

// The session's transaction with the job's handle; null when the session or the transaction is gone.
static session_trans_t *find_session_trans(server_t &server, const job_t &job)
{
    connection_t *conn = server_find(server, job.reply_to.connection);
    if (!conn)
        return nullptr;
    auto found = conn->maapi.transactions.find(job.th);
    return found != conn->maapi.transactions.end() ? &found->second : nullptr;
}

// Takes back what was done to the transaction for the job's sake.
static void undo_judgement(server_t &server, job_t &job)
{
    callback_trans_stop_validation(server, job.daemons);
    trans_unprepare(*job.trans);
    trans_rewind(*job.trans, job.mark);
}

// The owner keeps the transaction open: daemons that know of it are not told of its end.
static bool give_to_owner(server_t &server, job_t &job, bool is_committed)
{
    if (job.kind == JOB_CANDIDATE) {
        if (!is_committed)
            candidate_give_back(*server.store, std::move(job.trans));
        return false;
    }
    if (server.init_daemons && job.th == server.init_th) {
        if (is_committed)
            server.init_daemons.reset();
        else
            server.init_trans = std::move(job.trans);
        return !is_committed;
    }
    session_trans_t *owner = find_session_trans(server, job);
    if (!owner)
        return false;
    owner->trans = std::move(job.trans);
    owner->is_applied = is_committed && !job.keep_open;
    return !owner->is_applied;
}

// The transaction goes back to its owner, or away.
static void give_back_trans(server_t &server, job_t &job)
{
    if (!job.trans)
        return;
    bool is_committed = is_commit(job) && job.answer.code == CONFD_ERR_OK;
    if (!is_committed)
        undo_judgement(server, job);
    if (!give_to_owner(server, job, is_committed))
        callback_trans_finish(server, job.daemons);
    job.trans.reset();
}

static void write_snapshot(server_t &server)
{
    ds_error_t error;
    if (!datastore_snapshot(*server.store, false, error))
        agent_log(LOG_ERR, "cannot write a snapshot, the journal grows: %s", error.text.c_str());
}

// Answers, and makes room for the next job.
static void finish(server_t &server, job_t &job)
{
    commit_queue_t &queue = server.queue;
    datastore_drop_old(*server.store);
    queue.oper_jobs -= job.kind == JOB_OPER;
    give_back_trans(server, job);
    if (is_commit(job))
        queue.last_commit_ms = monotonic_ms() - job.start_ms;
    queue.refusals += is_commit(job) && job.answer.code != CONFD_ERR_OK;
    wire_writer_t payload;
    if (job.kind == JOB_PHASE_2)
        payload.u32(server.phase);
    if (job.changes && is_commit(job) && job.answer.code == CONFD_ERR_OK)
        settings_follow_commit(server, *job.changes);
    server_answer(server, job.reply_to, job.answer, payload.bytes);
    std::unique_ptr<job_t> done = std::move(queue.jobs.front());
    queue.jobs.pop_front();
    subscription_notify_oper(server, std::move(done->oper_changes));
    if (is_commit(*done) && queue.jobs.empty())
        write_snapshot(server);
    commit_queue_schedule(server);
}

static void fail(server_t &server, job_t &job, int code, std::string text)
{
    if (job.kind == JOB_PHASE_2)
        agent_log(LOG_ERR, "the init transaction is not committed: %s; correct it, then agent_cmd start-phase2",
                  text.c_str());
    job.answer = refused(code, std::move(text));
    finish(server, job);
}

// Has nothing happened yet that cannot be taken back?
static bool can_be_left(const job_t &job)
{
    return job.stage == STAGE_HOOKS || job.stage == STAGE_VALIDATING;
}

// The agent itself wants to get to phase 2, whoever has asked for it.
static job_t *find_leavable(server_t &server, uint64_t connection)
{
    job_t *job = commit_queue_running(server);
    bool is_found = job && job->reply_to.connection == connection && job->kind != JOB_PHASE_2 && can_be_left(*job);
    return is_found ? job : nullptr;
}

void commit_queue_forget(server_t &server, uint64_t connection)
{
    auto is_its_own = [&](const std::unique_ptr<job_t> &job) {
        return job->stage == STAGE_QUEUED && job->reply_to.connection == connection;
    };
    std::erase_if(server.queue.jobs, is_its_own);
    std::erase_if(server.triggers_for_phase_2, is_its_own);
    if (job_t *job = find_leavable(server, connection))
        fail(server, *job, CONFD_ERR_ABORTED, "the session has ended");
}

void commit_queue_interrupt(server_t &server, uint64_t connection)
{
    if (job_t *job = find_leavable(server, connection))
        return fail(server, *job, CONFD_ERR_ABORTED, "interrupted");
    auto &jobs = server.queue.jobs;
    auto found = std::ranges::find_if(jobs, [&](const std::unique_ptr<job_t> &job) {
        bool is_of_trans = is_commit(*job) || job->kind == JOB_VALIDATE;
        return job->stage == STAGE_QUEUED && is_of_trans && job->reply_to.connection == connection;
    });
    if (found == jobs.end())
        return;
    request_ref_t reply_to = (*found)->reply_to;
    jobs.erase(found);
    server_answer(server, reply_to, refused(CONFD_ERR_ABORTED, "interrupted"), {});
}

// ---- delivering

static void deliver(server_t &server, job_t &job, delivery_type_t type, unsigned kinds)
{
    job.stage = STAGE_DELIVERING;
    uint32_t flags = job.kind == JOB_TRIGGER ? WIRE_SUB_FLAG_TRIGGERED : 0;
    delivery_start(server, type, flags, subscription_touched(server, *job.changes, kinds, job.points));
}

static void prepare(server_t &server, job_t &job)
{
    job.stage = STAGE_PREPARING;
    uint32_t flags = job.kind == JOB_TRIGGER ? WIRE_SUB_FLAG_TRIGGERED : 0;
    delivery_start(server, DELIVERY_PREPARE, flags,
                   subscription_touched(server, *job.changes, POINTS_TWO_PHASE, job.points));
}

// Tells those that have agreed to the prepare; the job's answer says why.
static void abort_agreed(server_t &server, job_t &job)
{
    job.stage = STAGE_ABORTING;
    std::vector<int32_t> agreed = std::move(server.delivery.agreed);
    delivery_start(server, DELIVERY_ABORT, 0, agreed);
}

static void end_prepare(server_t &server, job_t &job)
{
    if (server.delivery.refusal.code == CONFD_ERR_OK)
        return persist(server, job);
    job.answer = server.delivery.refusal;
    abort_agreed(server, job);
}

// ---- a commit

static void persist(server_t &server, job_t &job)
{
    if (job.trans) {
        ds_error_t error;
        if (!trans_commit(*job.trans, error)) {
            agent_log(LOG_ERR, "a commit fails: %s", error.text.c_str());
            job.answer = refused(error.code, error.text);
            return abort_agreed(server, job);
        }
        server.queue.commits += !job.changes->is_empty();
    }
    deliver(server, job, DELIVERY_COMMIT, POINTS_CONFIG);
}

static void end_delivery(server_t &server, job_t &job)
{
    if (is_commit(job)) {
        job.oper_changes = oper_prune(*server.store, *job.changes);
        if (!job.changes->is_empty())
            notif_send_commit(server, job.committer);
    }
    finish(server, job);
}

static void call_valpoints(server_t &server, job_t &job);

// The rules of the model. A transaction that is only validated is not disturbed by another's lock.
static void judge(server_t &server, job_t &job)
{
    ds_error_t error;
    auto by_rules = job.kind == JOB_VALIDATE ? trans_judge : trans_prepare;
    if (!by_rules(*job.trans, job.changes, error))
        return fail(server, job, error.code, error.text);
    job.stage = STAGE_VALIDATING;
    job.validation.asker.daemons = job.daemons;
    valpoint_begin(server, job.validation, *job.changes);
    call_valpoints(server, job);
}

static void call_hooks(server_t &server, job_t &job)
{
    answer_t refusal;
    run_state_t state = hook_step(server, job.hooks, refusal);
    if (state == RUN_FAILED)
        return fail(server, job, refusal.code, std::move(refusal.text));
    if (state == RUN_DONE)
        judge(server, job);
}

static void end_judgement(server_t &server, job_t &job);

static void call_valpoints(server_t &server, job_t &job)
{
    answer_t refusal;
    run_state_t state = valpoint_step(server, job.validation, refusal);
    if (state == RUN_FAILED)
        return fail(server, job, refusal.code, std::move(refusal.text));
    if (state == RUN_DONE)
        end_judgement(server, job);
}

// The job has its transaction.
static void begin_judgement(server_t &server, job_t &job)
{
    job.stage = STAGE_HOOKS;
    job.mark = trans_mark(*job.trans);
    job.hooks.trans = job.trans.get();
    job.hooks.asker.daemons = job.daemons;
    call_hooks(server, job);
}

static void begin_commit(server_t &server, job_t &job)
{
    session_trans_t *owner = find_session_trans(server, job);
    connection_t *conn = server_find(server, job.reply_to.connection);
    ds_error_t error;
    if (!owner || !conn) // its session, or the init transaction, has ended while it was queued
        return fail(server, job, CONFD_ERR_NOEXISTS, "there is no transaction " + std::to_string(job.th));
    if (job.kind == JOB_COMMIT && !datastore_check_lock(*server.store, conn->maapi.who.id, error))
        return fail(server, job, error.code, error.text);
    job.trans = std::move(owner->trans);
    job.daemons = owner->daemons;
    job.committer = conn->maapi.who;
    begin_judgement(server, job);
}

static void begin_candidate(server_t &server, job_t &job)
{
    ds_error_t error;
    if (!datastore_check_lock(*server.store, job.committer.id, error))
        return fail(server, job, error.code, error.text);
    answer_t answer = lock_check_candidate(server, job.committer.id); // may have been locked while this was queued
    if (answer.code != CONFD_ERR_OK)
        return fail(server, job, answer.code, std::move(answer.text));
    job.th = server.next_transaction++;
    job.trans = candidate_take(*server.store, job.committer.id);
    job.daemons = callback_trans_make(job.th, WIRE_DB_RUNNING, true, job.committer);
    begin_judgement(server, job);
}

static void take_init_trans(server_t &server, job_t &job)
{
    job.th = server.init_th;
    job.trans = std::move(server.init_trans);
    job.daemons = server.init_daemons;
    begin_judgement(server, job);
}

static void begin_phase_2(server_t &server, job_t &job)
{
    if (server.phase >= 2)
        return finish(server, job);
    take_init_trans(server, job);
}

static void begin_validation(server_t &server, job_t &job)
{
    if (server.init_trans && job.th == server.init_th)
        take_init_trans(server, job);
    else
        begin_commit(server, job);
}

// Nobody is served the init transaction: triggers of the initial read wait for this.
static void commit_init(server_t &server, job_t &job)
{
    ds_error_t error;
    if (!trans_commit(*job.trans, error))
        return fail(server, job, error.code, error.text);
    server.queue.commits += !job.changes->is_empty();
    job.oper_changes = oper_prune(*server.store, *job.changes);
    phase_enter_2(server);
    finish(server, job);
}

// ---- triggers and operational notifications

static void begin_trigger(server_t &server, job_t &job)
{
    job.changes = read_all_as_diff(*server.store, job.is_operational ? SHOW_OPERATIONAL : SHOW_CONFIG);
    if (job.is_operational)
        deliver(server, job, DELIVERY_OPER, POINTS_OPERATIONAL);
    else
        prepare(server, job);
}

static void begin_oper(server_t &server, job_t &job)
{
    if (!job.leaf_path.empty())
        server.queue.oper_leaves.erase(job.leaf_path);
    deliver(server, job, DELIVERY_OPER, POINTS_OPERATIONAL);
}

// ---- the steps

struct job_row_t {
    job_kind_t kind;
    void (*begin)(server_t &server, job_t &job);
    void (*go_on)(server_t &server, job_t &job); // once its transaction has passed; null: it has none
};

static constexpr job_row_t job_rows[] = {
    { JOB_COMMIT, begin_commit, prepare },       { JOB_CANDIDATE, begin_candidate, prepare },
    { JOB_PHASE_2, begin_phase_2, commit_init }, { JOB_VALIDATE, begin_validation, finish },
    { JOB_TRIGGER, begin_trigger, nullptr },     { JOB_OPER, begin_oper, nullptr },
};
static_assert(std::size(job_rows) == JOB_KINDS);

static void begin(server_t &server, job_t &job)
{
    job.start_ms = monotonic_ms();
    job_rows[job.kind].begin(server, job);
}

// All have agreed to the transaction.
static void end_judgement(server_t &server, job_t &job)
{
    callback_trans_stop_validation(server, job.daemons);
    job_rows[job.kind].go_on(server, job);
}

struct stage_row_t {
    job_stage_t stage;
    void (*go_on)(server_t &server, job_t &job); // once the stage's delivery has ended, or an answer has come
};

static constexpr stage_row_t stage_rows[] = {
    { STAGE_QUEUED, begin },          { STAGE_HOOKS, call_hooks }, { STAGE_VALIDATING, call_valpoints },
    { STAGE_PREPARING, end_prepare }, { STAGE_ABORTING, finish },  { STAGE_DELIVERING, end_delivery },
};

static void queue_step(evutil_socket_t, short, void *arg) noexcept
{
    auto &server = *static_cast<server_t *>(arg);
    if (server.delivery.type != DELIVERY_NONE)
        return delivery_step(server);
    if (server.queue.jobs.empty())
        return;
    job_t &job = *server.queue.jobs.front();
    stage_rows[job.stage].go_on(server, job);
}

bool commit_queue_init(server_t &server)
{
    server.queue.run_event.reset(evtimer_new(server.base.get(), queue_step, &server));
    return server.queue.run_event != nullptr;
}
