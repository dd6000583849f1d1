// What the operations of MAAPI connections have in common. See maapi.h.
#include "agent/server/maapi.h"

#include "agent/server/server.h"

#include <algorithm>

answer_t maapi_no_session()
{
    return refused(CONFD_ERR_NOSESSION, "start a user session on this connection first");
}

answer_t maapi_not_yet_open(const server_t &server)
{
    return refused(CONFD_ERR_BADSTATE, "the agent is in phase " + std::to_string(server.phase) +
                                           "; configuration is written from phase 2 on (agent_cmd start-phase2)");
}

// ---- handles

// Of a server's open transaction.
struct open_trans_t {
    trans_t *trans = nullptr; // null: there is none
    callback_trans_ref daemons;
    bool is_applied = false;
    const char *no_edit = nullptr; // why it cannot be edited; null: it can
};

// Of the job in progress.
static open_trans_t find_in_job(server_t &server, uint32_t th)
{
    const job_t *job = commit_queue_running(server);
    if (!job || !job->trans || job->th != th)
        return {};
    const char *no_edit = job->stage == STAGE_HOOKS ? nullptr : "is being judged; only its hooks may still change it";
    return { job->trans.get(), job->daemons, false, no_edit };
}

static open_trans_t find_in_session(const connection_t &conn, uint32_t th)
{
    auto found = conn.maapi.transactions.find(th);
    if (found == conn.maapi.transactions.end() || !found->second.trans)
        return {};
    return { found->second.trans.get(), found->second.daemons, found->second.is_applied };
}

static open_trans_t find_open(server_t &server, uint32_t th)
{
    open_trans_t open = find_in_job(server, th);
    if (!open.trans && server.init_trans && th == server.init_th)
        open = { server.init_trans.get(), server.init_daemons };
    for (auto at = server.connections.begin(); !open.trans && at != server.connections.end(); ++at)
        open = find_in_session(*at->second, th);
    return open;
}

bool maapi_is_init(const call_t &call, uint32_t th)
{
    return th == call.server.init_th && (call.server.init_trans || find_in_job(call.server, th).trans);
}

bool maapi_is_open(server_t &server, uint32_t th)
{
    open_trans_t open = find_open(server, th);
    return open.trans && !open.is_applied;
}

// Does the connection's client serve an action of the transaction just now?
static bool serves_action_of(const call_t &call, uint32_t th)
{
    return std::ranges::any_of(call.server.actions.runs, [&](const auto &row) {
        const connection_t *control = server_find(call.server, row.second.control);
        return row.second.th == th && control && control->pid == call.conn.pid;
    });
}

// Of another's session. An attachment outlives the callback that it was made for: what a daemon edits once the
// transaction is back with its session would go unseen into the session's next commit.
static open_trans_t find_attached(const call_t &call, uint32_t th)
{
    open_trans_t open = find_open(call.server, th);
    bool is_called = find_in_job(call.server, th).trans || th == call.server.init_th || serves_action_of(call, th);
    if (!is_called)
        open.no_edit = "is with its session; attached clients change it only in their hooks and actions";
    return open;
}

// One that the connection may use, by being its session's, attached to, or everybody's.
static open_trans_t find_usable(const call_t &call, uint32_t th)
{
    open_trans_t open = find_in_session(call.conn, th);
    bool is_usable =
        call.conn.maapi.transactions.contains(th) || call.conn.maapi.attached.contains(th) || th == call.server.init_th;
    return open.trans || !is_usable ? open : find_attached(call, th);
}

static constexpr uint16_t edit_ops[] = {
    WIRE_MAAPI_SET, WIRE_MAAPI_SET_TEXT, WIRE_MAAPI_CREATE, WIRE_MAAPI_DELETE, WIRE_MAAPI_LOAD, WIRE_MAAPI_MOVE,
};

trans_t *maapi_find_trans(const call_t &call, uint32_t th, answer_t *answer)
{
    open_trans_t open = find_usable(call, th);
    bool is_edit = std::ranges::find(edit_ops, call.ref.op) != std::end(edit_ops);
    if (!open.trans)
        *answer = refused(CONFD_ERR_NOEXISTS, "there is no transaction " + std::to_string(th));
    else if (open.is_applied)
        *answer = refused(CONFD_ERR_BADSTATE, "the transaction is applied; finish it");
    else if (is_edit && open.no_edit)
        *answer = refused(CONFD_ERR_BADSTATE, "transaction " + std::to_string(th) + " " + open.no_edit);
    else
        return open.trans;
    return nullptr;
}

callback_trans_ref maapi_daemons(const call_t &call, uint32_t th)
{
    return find_usable(call, th).daemons;
}

// ---- targets

answer_t maapi_find_target(const call_t &call, uint32_t th, std::string_view text, path_form_t form,
                           maapi_target_t *target)
{
    answer_t answer;
    target->trans = maapi_find_trans(call, th, &answer);
    if (!target->trans)
        return answer;
    ds_error_t error;
    if (!path_parse(datastore_schema(*call.server.store), text, form, target->path, error))
        return refused(error.code, error.text);
    return {};
}

// For payloads that are a handle and a path.
answer_t maapi_take_target(call_t &call, path_form_t form, maapi_target_t *target)
{
    uint32_t th = call.in.u32();
    std::string_view text = call.in.text();
    if (!call.in.finished())
        return malformed(call);
    return maapi_find_target(call, th, text, form, target);
}

view_t maapi_view(const maapi_target_t &target)
{
    return { VIEW_TRANS, target.trans };
}
