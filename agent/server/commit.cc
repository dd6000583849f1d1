#include "agent/server/commit.h"

#include "agent/server/log.h"
#include "agent/server/notif.h"
#include "agent/server/phase.h"
#include "agent/server/server.h"
#include "agent/server/settings.h"
#include "agent/server/subscription.h"

#include <algorithm>

// The order of a commit. Each step takes up where the one before has left off; delivering steps come back through
// queue_step when the last subscriber has synced.
//
//   begin_commit    the session's transaction becomes the job's
//   judge           callbacks that may change the transaction (hooks) belong in front of its call of trans_prepare, those
//                   that may refuse it (validation points) behind: the registry knows both
//   prepare         two-phase subscribers, by priority; a refusal goes to abort
//   persist         from here on running shows the new data
//   deliver         all subscribers, by priority
//   end_delivery    operational data of deleted entries goes, commit notifications
//   finish          the answer, then notifications of the operational data that went
static void persist(server_t &server, job_t &job);

// ---- the queue

static bool is_running(const server_t &server)
{
    return !server.queue.jobs.empty() && server.queue.jobs.front()->stage != STAGE_QUEUED;
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

void commit_queue_forget(server_t &server, uint64_t connection)
{
    auto is_its_own = [&](const std::unique_ptr<job_t> &job) {
        return job->stage == STAGE_QUEUED && job->reply_to.connection == connection;
    };
    std::erase_if(server.queue.jobs, is_its_own);
    std::erase_if(server.triggers_for_phase_2, is_its_own);
}

void commit_queue_interrupt(server_t &server, uint64_t connection)
{
    auto &jobs = server.queue.jobs;
    auto found = std::ranges::find_if(jobs, [&](const std::unique_ptr<job_t> &job) {
        return job->stage == STAGE_QUEUED && job->kind == JOB_COMMIT && job->reply_to.connection == connection;
    });
    if (found == jobs.end())
        return;
    request_ref_t reply_to = (*found)->reply_to;
    jobs.erase(found);
    server_answer(server, reply_to, refused(CONFD_ERR_ABORTED, "interrupted"), {});
}

const diff_t *commit_queue_changes(server_t &server)
{
    return is_running(server) ? server.queue.jobs.front()->changes.get() : nullptr;
}

void commit_queue_tell_progress(server_t &server, const std::string &text)
{
    connection_t *conn =
        is_running(server) ? server_find(server, server.queue.jobs.front()->reply_to.connection) : nullptr;
    if (!conn || conn->kind != WIRE_KIND_MAAPI)
        return;
    wire_writer_t push;
    push.text(text);
    connection_send(*conn, WIRE_MAAPI_PROGRESS, 0, 0, push.bytes);
}

// ---- the end of a job

// The transaction goes back to its session, or away with it.
static void give_back_trans(server_t &server, job_t &job)
{
    if (!job.trans)
        return;
    if (job.kind == JOB_PHASE_2) {
        server.init_trans = std::move(job.trans);
        return;
    }
    connection_t *conn = server_find(server, job.reply_to.connection);
    auto found = conn ? conn->maapi.transactions.find(job.th) : std::map<uint32_t, session_trans_t>::iterator{};
    if (conn && found != conn->maapi.transactions.end()) {
        found->second.trans = std::move(job.trans);
        found->second.is_applied = job.answer.code == CONFD_ERR_OK && !job.keep_open;
    }
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
    bool is_commit = job.kind == JOB_COMMIT || job.kind == JOB_PHASE_2;
    give_back_trans(server, job);
    if (is_commit)
        queue.last_commit_ms = monotonic_ms() - job.start_ms;
    queue.refusals += is_commit && job.answer.code != CONFD_ERR_OK;
    wire_writer_t payload;
    if (job.kind == JOB_PHASE_2)
        payload.u32(server.phase);
    if (job.changes)
        settings_follow_commit(server, *job.changes);
    server_answer(server, job.reply_to, job.answer, payload.bytes);
    std::unique_ptr<job_t> done = std::move(queue.jobs.front());
    queue.jobs.pop_front();
    subscription_notify_oper(server, std::move(done->oper_changes));
    if (is_commit && queue.jobs.empty())
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
    if (job.trans)
        trans_unprepare(*job.trans);
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
    if (job.kind == JOB_COMMIT) {
        job.oper_changes = oper_prune(*server.store, *job.changes);
        if (!job.changes->is_empty())
            notif_send_commit(server, job.committer);
    }
    finish(server, job);
}

// False when the rules of the model refuse the transaction; the job has ended then.
static bool judge(server_t &server, job_t &job)
{
    ds_error_t error;
    if (trans_prepare(*job.trans, job.changes, error))
        return true;
    fail(server, job, error.code, error.text);
    return false;
}

static void begin_commit(server_t &server, job_t &job)
{
    connection_t *conn = server_find(server, job.reply_to.connection);
    auto found = conn ? conn->maapi.transactions.find(job.th) : std::map<uint32_t, session_trans_t>::iterator{};
    if (!conn || found == conn->maapi.transactions.end())
        return finish(server, job);
    job.trans = std::move(found->second.trans);
    job.committer = conn->maapi.who;
    if (judge(server, job))
        prepare(server, job);
}

// Nobody is served the init transaction: triggers of the initial read wait for this.
static void begin_phase_2(server_t &server, job_t &job)
{
    if (server.phase >= 2)
        return finish(server, job);
    job.trans = std::move(server.init_trans);
    if (!judge(server, job))
        return;
    ds_error_t error;
    if (!trans_commit(*job.trans, error)) {
        trans_unprepare(*job.trans);
        return fail(server, job, error.code, error.text);
    }
    server.queue.commits += !job.changes->is_empty();
    job.trans.reset();
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
};

static constexpr job_row_t job_rows[] = {
    { JOB_COMMIT, begin_commit },
    { JOB_PHASE_2, begin_phase_2 },
    { JOB_TRIGGER, begin_trigger },
    { JOB_OPER, begin_oper },
};
static_assert(std::size(job_rows) == JOB_KINDS);

static void begin(server_t &server, job_t &job)
{
    job.start_ms = monotonic_ms();
    job_rows[job.kind].begin(server, job);
}

struct stage_row_t {
    job_stage_t stage;
    void (*go_on)(server_t &server, job_t &job); // once the stage's delivery has ended
};

static constexpr stage_row_t stage_rows[] = {
    { STAGE_QUEUED, begin },
    { STAGE_PREPARING, end_prepare },
    { STAGE_ABORTING, finish },
    { STAGE_DELIVERING, end_delivery },
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
