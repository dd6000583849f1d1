// Transactions of the agent as the daemon sees them: their begin and end, and validation points.
//
// Data callbacks and validation begin and end on their own, in any order; both have the same context, which lives as
// long as one of them does.
#include "agent/client/confd_daemon.h"

#include <cstdlib>

static constexpr size_t MAX_TRANSACTIONS = 10000; // open at once

std::shared_ptr<daemon_trans_t> confd_find_trans(daemon_t &daemon, uint32_t th)
{
    std::lock_guard guard(daemon.mutex);
    auto found = daemon.transactions.find(th);
    return found != daemon.transactions.end() ? found->second : nullptr;
}

std::shared_ptr<daemon_trans_t> confd_trans_of_call(served_call_t &call, uint32_t th)
{
    std::shared_ptr<daemon_trans_t> trans = confd_find_trans(call.daemon, th);
    if (trans == nullptr)
        call.refuse(CONFD_ERR_BADSTATE, "the daemon knows of no transaction " + std::to_string(th));
    return trans;
}

// Null when there are too many.
static std::shared_ptr<daemon_trans_t> open_trans(daemon_t &daemon, uint32_t th)
{
    std::lock_guard guard(daemon.mutex);
    auto found = daemon.transactions.find(th);
    if (found != daemon.transactions.end())
        return found->second;
    if (daemon.transactions.size() >= MAX_TRANSACTIONS)
        return nullptr;
    return daemon.transactions.emplace(th, std::make_shared<daemon_trans_t>()).first->second;
}

static void end_party(daemon_t &daemon, uint32_t th, daemon_trans_t &trans, trans_party_t party)
{
    std::lock_guard guard(daemon.mutex);
    trans.parties &= ~party;
    auto found = daemon.transactions.find(th);
    if (trans.parties == 0 && found != daemon.transactions.end() && found->second.get() == &trans)
        daemon.transactions.erase(found);
}

using trans_callback_t = int (*)(struct confd_trans_ctx *tctx);

// Calls what may be missing. False, with the call refused, when it fails.
static bool run(served_call_t &call, daemon_trans_t &trans, trans_callback_t callback)
{
    if (callback == nullptr)
        return true;
    trans.ctx.cb_opaque = nullptr;
    callback_state_t &state = confd_callback_state(&trans.ctx.internal);
    callback_scope scope(state, call);
    if (callback(&trans.ctx) >= 0)
        return true;
    call.refuse(CONFD_ERR_EXTERNAL, state.error);
    return false;
}

bool confd_serve_trans_init(served_call_t &call, trans_party_t party)
{
    uint32_t th = call.in.u32();
    confd_dbname db = confd_db_of_wire(call.in.u8());
    call.in.u8(); // whether it can be written: all the callbacks that write are asked for then
    confd_user_info uinfo = {};
    confd_read_session(call.in, call.dx, &uinfo);
    if (!call.in.finished())
        return false;
    std::shared_ptr<daemon_trans_t> trans = open_trans(call.daemon, th);
    if (trans == nullptr) {
        call.refuse(CONFD_ERR_TOOMANYTRANS, "too many transactions are open in the daemon");
        return true;
    }
    uinfo.u_opaque = trans->uinfo.u_opaque;
    uinfo.actx_thandle = static_cast<int>(th);
    trans->uinfo = uinfo;
    trans->parties |= party;
    trans->ctx.thandle = static_cast<int>(th);
    trans->ctx.dbname = db;
    trans->ctx.uinfo = &trans->uinfo;
    trans->ctx.dx = call.dx;
    trans->ctx.worker_fd = -1;
    if (run(call, *trans, party == PARTY_DATA ? call.daemon.trans.init : call.daemon.validate.init))
        confd_answer_worker(call, trans->ctx.worker_fd);
    if (call.refusal != 0)
        end_party(call.daemon, th, *trans, party);
    return true;
}

// The end of what never began is no news.
bool confd_serve_trans_end(served_call_t &call, trans_party_t party)
{
    uint32_t th = call.in.u32();
    if (!call.in.finished())
        return false;
    std::shared_ptr<daemon_trans_t> trans = confd_find_trans(call.daemon, th);
    if (trans == nullptr || (trans->parties & party) == 0)
        return true;
    trans->ctx.worker_fd = call.fd;
    (void)run(call, *trans, party == PARTY_DATA ? call.daemon.trans.finish : call.daemon.validate.stop);
    end_party(call.daemon, th, *trans, party);
    return true;
}

static void validate(served_call_t &call, daemon_trans_t &trans, const confd_valpoint_cb &row, confd_hkeypath_t *path,
                     confd_value_t *value)
{
    trans.ctx.worker_fd = call.fd;
    trans.ctx.cb_opaque = row.cb_opaque;
    callback_state_t &state = confd_callback_state(&trans.ctx.internal);
    callback_scope scope(state, call);
    if (row.validate(&trans.ctx, path, value) != CONFD_OK)
        call.refuse(CONFD_ERR_EXTERNAL, state.error);
}

bool confd_serve_validate(served_call_t &call)
{
    uint32_t th = call.in.u32();
    std::string point(call.in.text());
    owned_keypath_t path;
    owned_value_t value;
    if (!wire_get_keypath(call.in, path.v))
        return false;
    value.v = wire_get_value(call.in);
    if (!call.in.finished())
        return false;
    std::shared_ptr<daemon_trans_t> trans = confd_trans_of_call(call, th);
    if (trans == nullptr)
        return true;
    const confd_valpoint_cb *row = confd_find_row(call.daemon.valpoints, &confd_valpoint_cb::valpoint, point);
    if (row == nullptr || row->validate == nullptr)
        call.refuse(CONFD_ERR_UNAVAILABLE, "the daemon has no validation point \"" + point + "\"");
    else
        validate(call, *trans, *row, &path.v, &value.v);
    return true;
}

// ---- the user's calls

void confd_trans_set_fd(struct confd_trans_ctx *tctx, int sock)
{
    tctx->worker_fd = sock;
}

void confd_trans_seterr(struct confd_trans_ctx *tctx, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    confd_set_error(confd_callback_state(&tctx->internal), fmt, args);
    va_end(args);
}

void confd_trans_release(confd_trans_ctx *tctx)
{
    delete static_cast<callback_state_t *>(tctx->internal);
    tctx->internal = nullptr;
}
