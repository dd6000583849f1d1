// What the operations of MAAPI connections have in common. See maapi.h.
#include "agent/server/maapi.h"

#include "agent/server/server.h"

answer_t maapi_no_session()
{
    return refused(CONFD_ERR_NOSESSION, "start a user session on this connection first");
}

answer_t maapi_not_yet_open(const server_t &server)
{
    return refused(CONFD_ERR_BADSTATE, "the agent is in phase " + std::to_string(server.phase) +
                                           "; configuration is written from phase 2 on (agent_cmd start-phase2)");
}

bool maapi_is_init(const call_t &call, uint32_t th)
{
    return call.server.init_trans && th == call.server.init_th;
}

// The transaction of a handle: the session's, or the init transaction. Null, with the answer, when it cannot be used.
trans_t *maapi_find_trans(const call_t &call, uint32_t th, answer_t *answer)
{
    if (maapi_is_init(call, th))
        return call.server.init_trans.get();
    auto found = call.conn.maapi.transactions.find(th);
    if (found == call.conn.maapi.transactions.end()) {
        *answer = refused(CONFD_ERR_NOEXISTS, "there is no transaction " + std::to_string(th));
        return nullptr;
    }
    if (found->second.is_applied) {
        *answer = refused(CONFD_ERR_BADSTATE, "the transaction is applied; finish it");
        return nullptr;
    }
    return found->second.trans.get();
}

callback_trans_ref maapi_daemons(const call_t &call, uint32_t th)
{
    auto found = call.conn.maapi.transactions.find(th);
    return found != call.conn.maapi.transactions.end() ? found->second.daemons : nullptr;
}

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
