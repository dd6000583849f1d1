// MAAPI connections: the life of transactions.
#include "agent/server/maapi.h"
#include "agent/server/server.h"

static constexpr size_t MAX_TRANSACTIONS = 64; // of one session

// Of wire_db_t: what a transaction can be on.
static answer_t check_start(const call_t &call, uint8_t db, bool writable)
{
    if (call.conn.maapi.who.id == 0)
        return maapi_no_session();
    if (db != WIRE_DB_RUNNING && db != WIRE_DB_OPERATIONAL && db != WIRE_DB_CANDIDATE)
        return refused(CONFD_ERR_NOEXISTS, "there are no transactions on datastore " + std::to_string(db));
    if (writable && db == WIRE_DB_OPERATIONAL)
        return refused(CONFD_ERR_NOT_WRITABLE, "operational data is not written by transactions");
    if (writable && call.server.phase < 2)
        return maapi_not_yet_open(call.server);
    if (call.conn.maapi.transactions.size() >= MAX_TRANSACTIONS)
        return refused(CONFD_ERR_TOOMANYTRANS,
                       "a session has at most " + std::to_string(MAX_TRANSACTIONS) + " transactions; finish one first");
    return {};
}

static answer_t start_trans(call_t &call)
{
    uint8_t db = call.in.u8();
    bool writable = call.in.u8() != 0;
    (void)call.in.u32(); // flags: none has a meaning here
    if (!call.in.finished())
        return malformed(call);
    answer_t answer = check_start(call, db, writable);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    uint32_t th = call.server.next_transaction++;
    session_trans_t &opened = call.conn.maapi.transactions[th];
    auto begin = db == WIRE_DB_CANDIDATE ? candidate_begin : trans_begin;
    opened.trans = begin(*call.server.store, writable, call.conn.maapi.who.id);
    opened.db = static_cast<wire_db_t>(db);
    opened.daemons = callback_trans_make(th, db, writable, call.conn.maapi.who);
    call.out.u32(th);
    return {};
}

static answer_t finish_trans(call_t &call)
{
    uint32_t th = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    auto found = call.conn.maapi.transactions.find(th);
    if (found == call.conn.maapi.transactions.end())
        return maapi_is_init(call, th) ? answer_t{}
                                       : refused(CONFD_ERR_NOEXISTS, "there is no transaction " + std::to_string(th));
    callback_trans_finish(call.server, found->second.daemons);
    call.conn.maapi.transactions.erase(found);
    call.conn.maapi.flags.erase(th);
    return {};
}

static answer_t attach_init(call_t &call)
{
    if (!call.in.finished())
        return malformed(call);
    if (!maapi_is_init(call, call.server.init_th))
        return refused(CONFD_ERR_BADSTATE, "the agent is in phase " + std::to_string(call.server.phase) +
                                               "; the init transaction is open in phase 1 only");
    call.out.u32(call.server.init_th);
    return {};
}

// ---- transactions of others, for the time of a callback

// Handles of transactions that have ended are let go of, so that there are never more than open transactions.
static answer_t attach(call_t &call)
{
    uint32_t th = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    maapi_session_t &session = call.conn.maapi;
    std::erase_if(session.attached, [&](uint32_t old) { return !maapi_is_open(call.server, old); });
    std::erase_if(session.flags, [&](const auto &row) { return !maapi_is_open(call.server, row.first); });
    if (!maapi_is_open(call.server, th))
        return refused(CONFD_ERR_NOEXISTS, "there is no transaction " + std::to_string(th));
    session.attached.insert(th);
    return {};
}

static answer_t detach(call_t &call)
{
    uint32_t th = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    if (call.conn.maapi.attached.erase(th) == 0 && !maapi_is_init(call, th))
        return refused(CONFD_ERR_NOEXISTS, "this connection is not attached to transaction " + std::to_string(th));
    call.conn.maapi.flags.erase(th);
    return {};
}

// Flags that are not ours to know are hints of clients, which have no effect here.
static answer_t set_flags(call_t &call)
{
    uint32_t th = call.in.u32();
    uint32_t flags = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    answer_t answer;
    if (maapi_find_trans(call, th, &answer))
        call.conn.maapi.flags[th] = flags & WIRE_TRANS_NO_DEFAULTS;
    return answer;
}

// ---- judging and applying

// The session's own transaction, or the init transaction. Null, with the answer, when there is none, or it is another's.
static trans_t *find_own(const call_t &call, uint32_t th, answer_t *answer)
{
    trans_t *trans = maapi_find_trans(call, th, answer);
    if (!trans || call.conn.maapi.transactions.contains(th) || maapi_is_init(call, th))
        return trans;
    *answer =
        refused(CONFD_ERR_BADSTATE, "transaction " + std::to_string(th) + " is applied by the session that owns it");
    return nullptr;
}

static void add_job(call_t &call, job_kind_t kind, uint32_t th, bool keep_open)
{
    auto job = std::make_unique<job_t>();
    job->kind = kind;
    job->reply_to = call.ref;
    job->th = th;
    job->keep_open = keep_open;
    job->committer = call.conn.maapi.who;
    commit_queue_add(call.server, std::move(job));
}

static answer_t validate(call_t &call)
{
    uint32_t th = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    answer_t answer;
    if (!find_own(call, th, &answer))
        return answer;
    add_job(call, JOB_VALIDATE, th, true);
    return deferred();
}

// Nobody judges the candidate before it is committed.
static answer_t apply_to_candidate(call_t &call, session_trans_t &opened, bool keep_open)
{
    answer_t answer = maapi_check_candidate_lock(call);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    ds_error_t error;
    if (!candidate_merge(*opened.trans, error))
        return refused(error.code, error.text);
    opened.is_applied = !keep_open;
    if (opened.is_applied)
        callback_trans_finish(call.server, opened.daemons);
    return {};
}

static answer_t apply(call_t &call)
{
    uint32_t th = call.in.u32();
    bool keep_open = call.in.u8() != 0;
    if (!call.in.finished())
        return malformed(call);
    if (maapi_is_init(call, th))
        return refused(CONFD_ERR_BADSTATE, "the agent commits the init transaction itself, when it goes to phase 2");
    answer_t answer;
    if (!find_own(call, th, &answer))
        return answer;
    session_trans_t &opened = call.conn.maapi.transactions[th];
    if (opened.db == WIRE_DB_CANDIDATE)
        return apply_to_candidate(call, opened, keep_open);
    add_job(call, JOB_COMMIT, th, keep_open);
    return deferred();
}

static answer_t commit_candidate(call_t &call)
{
    if (!call.in.finished())
        return malformed(call);
    if (call.conn.maapi.who.id == 0)
        return maapi_no_session();
    if (call.server.phase < 2)
        return maapi_not_yet_open(call.server);
    answer_t answer = maapi_check_candidate_lock(call);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    add_job(call, JOB_CANDIDATE, 0, false);
    return deferred();
}

// What is being committed would come back after a refusal.
static answer_t discard_candidate(call_t &call)
{
    if (!call.in.finished())
        return malformed(call);
    if (call.conn.maapi.who.id == 0)
        return maapi_no_session();
    answer_t answer = maapi_check_candidate_lock(call);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    const job_t *job = commit_queue_running(call.server);
    if (job && job->kind == JOB_CANDIDATE)
        return refused(CONFD_ERR_INUSE, "the candidate is being committed; try again when that has ended");
    candidate_discard(*call.server.store);
    return {};
}

static constexpr op_row_t rows_of_ops[] = {
    { WIRE_MAAPI_START_TRANS, start_trans },
    { WIRE_MAAPI_FINISH_TRANS, finish_trans },
    { WIRE_MAAPI_ATTACH_INIT, attach_init },
    { WIRE_MAAPI_ATTACH, attach },
    { WIRE_MAAPI_DETACH, detach },
    { WIRE_MAAPI_SET_FLAGS, set_flags },
    { WIRE_MAAPI_VALIDATE_TRANS, validate },
    { WIRE_MAAPI_APPLY_TRANS, apply },
    { WIRE_MAAPI_CANDIDATE_COMMIT, commit_candidate },
    { WIRE_MAAPI_CANDIDATE_DISCARD, discard_candidate },
};

std::span<const op_row_t> maapi_trans_ops()
{
    return rows_of_ops;
}
