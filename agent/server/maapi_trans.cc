// MAAPI connections: the life of transactions.
#include "agent/server/maapi.h"
#include "agent/server/server.h"

static constexpr size_t MAX_TRANSACTIONS = 64; // of one session

// Of wire_db_t: what a transaction can be on.
static answer_t check_start(const call_t &call, uint8_t db, bool writable)
{
    if (call.conn.maapi.who.id == 0)
        return maapi_no_session();
    if (db != WIRE_DB_RUNNING && db != WIRE_DB_OPERATIONAL)
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
    opened.trans = trans_begin(*call.server.store, writable, call.conn.maapi.who.id);
    opened.db = static_cast<wire_db_t>(db);
    opened.daemons = std::make_shared<callback_trans_t>();
    opened.daemons->th = th;
    opened.daemons->db = db;
    opened.daemons->is_writable = writable;
    opened.daemons->who = call.conn.maapi.who;
    call.out.u32(th);
    return {};
}

static answer_t finish_trans(call_t &call)
{
    uint32_t th = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    if (call.conn.maapi.transactions.erase(th) == 0 && !maapi_is_init(call, th))
        return refused(CONFD_ERR_NOEXISTS, "there is no transaction " + std::to_string(th));
    return {};
}

static answer_t attach_init(call_t &call)
{
    if (!call.in.finished())
        return malformed(call);
    if (!call.server.init_trans)
        return refused(CONFD_ERR_BADSTATE, "the agent is in phase " + std::to_string(call.server.phase) +
                                               "; the init transaction is open in phase 1 only");
    call.out.u32(call.server.init_th);
    return {};
}

static answer_t validate(call_t &call)
{
    uint32_t th = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    answer_t answer;
    trans_t *trans = maapi_find_trans(call, th, &answer);
    diff_ptr diff;
    ds_error_t error;
    if (trans && !trans_validate(*trans, diff, error))
        return refused(error.code, error.text);
    return answer;
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
    if (!maapi_find_trans(call, th, &answer))
        return answer;
    auto job = std::make_unique<job_t>();
    job->kind = JOB_COMMIT;
    job->reply_to = call.ref;
    job->th = th;
    job->keep_open = keep_open;
    commit_queue_add(call.server, std::move(job));
    return deferred();
}

static constexpr op_row_t rows_of_ops[] = {
    { WIRE_MAAPI_START_TRANS, start_trans }, { WIRE_MAAPI_FINISH_TRANS, finish_trans },
    { WIRE_MAAPI_VALIDATE_TRANS, validate }, { WIRE_MAAPI_APPLY_TRANS, apply },
    { WIRE_MAAPI_ATTACH_INIT, attach_init },
};

std::span<const op_row_t> maapi_trans_ops()
{
    return rows_of_ops;
}
