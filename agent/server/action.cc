#include "agent/server/action.h"

#include "agent/server/server.h"

#include <utility>

// ---- the end of a run

static std::string title_of(server_t &server, uint64_t connection)
{
    const connection_t *conn = server_find(server, connection);
    return conn ? connection_title(*conn) : "a client that has gone";
}

static void end_run(server_t &server, uint32_t id, const callback_reply_t &reply)
{
    auto node = server.actions.runs.extract(id);
    if (node.empty())
        return;
    const action_run_t &run = node.mapped();
    wire_writer_t out;
    bool is_judged = reply.code == CONFD_ERR_OK || reply.code == CONFD_ERR_EXTERNAL;
    answer_t answer =
        is_judged ? run.finish(server, reply, title_of(server, run.worker), out) : refused(reply.code, reply.text);
    server_answer(server, run.reply_to, answer, out.bytes);
}

static void ask_to_abort(server_t &server, const action_run_t &run)
{
    wire_writer_t payload;
    payload.u32(run.id);
    callback_question_t question;
    question.op = WIRE_CB_ACTION_ABORT;
    question.payload = std::move(payload.bytes);
    question.what = "the abort of " + run.what;
    question.timeout_ms = server.config.callback_timeout_ms;
    callback_ask(server, run.control, std::move(question));
}

// The daemon learns of it unless it has not seen the run yet. What it answers later has no run to go to.
static void stop_run(server_t &server, const action_run_t &run)
{
    bool is_unseen = callback_withdraw(server, run.control, run.id);
    if (run.worker != 0)
        (void)callback_withdraw(server, run.worker, run.id); // its init has been seen all the same
    if (run.has_abort && !is_unseen)
        ask_to_abort(server, run);
}

static action_run_t take_run_of(server_t &server, uint64_t connection)
{
    for (auto at = server.actions.runs.begin(); at != server.actions.runs.end(); ++at)
        if (at->second.reply_to.connection == connection)
            return std::move(server.actions.runs.extract(at).mapped());
    return {};
}

bool action_interrupt(server_t &server, uint64_t connection)
{
    action_run_t run = take_run_of(server, connection);
    if (run.id == 0)
        return false;
    stop_run(server, run);
    server_answer(server, run.reply_to, refused(CONFD_ERR_ABORTED, "interrupted"), {});
    return true;
}

void action_forget(server_t &server, uint64_t connection)
{
    action_run_t run = take_run_of(server, connection);
    if (run.id != 0)
        stop_run(server, run);
}

// ---- the steps

static void ask_worker(server_t &server, const action_run_t &run)
{
    wire_writer_t payload;
    payload.u32(run.id);
    callback_question_t question;
    question.op = run.op;
    question.payload = std::move(payload.bytes) + run.payload;
    question.what = run.what;
    question.timeout_ms = run.timeout_ms;
    question.ticket = run.id;
    question.done = [id = run.id](server_t &of, const callback_reply_t &reply) {
        end_run(of, id, reply);
    };
    callback_ask(server, run.worker, std::move(question));
}

static void take_worker(server_t &server, uint32_t id, const callback_reply_t &reply)
{
    auto found = server.actions.runs.find(id);
    if (found == server.actions.runs.end())
        return;
    action_run_t &run = found->second;
    if (reply.code != CONFD_ERR_OK) {
        run.worker = run.control; // whose callback it was that failed
        return end_run(server, id, reply);
    }
    wire_reader_t in(reply.payload);
    run.worker = callback_find_worker(server, run.control, in.u32());
    if (run.worker == 0)
        return end_run(server, id,
                       { CONFD_ERR_UNAVAILABLE,
                         title_of(server, run.control) + " has chosen no worker for " + run.what +
                             "; its init callback has to set one",
                         {} });
    ask_worker(server, run);
}

static void ask_for_worker(server_t &server, const action_run_t &run)
{
    wire_writer_t payload;
    payload.u32(run.id);
    payload.u32(run.th);
    payload.text(run.point);
    callback_put_session(payload, run.who);
    callback_question_t question;
    question.op = WIRE_CB_ACTION_INIT;
    question.payload = std::move(payload.bytes);
    question.what = "the start of " + run.what;
    question.timeout_ms = server.config.callback_timeout_ms;
    question.ticket = run.id;
    question.done = [id = run.id](server_t &of, const callback_reply_t &reply) {
        take_worker(of, id, reply);
    };
    callback_ask(server, run.control, std::move(question));
}

answer_t action_start(server_t &server, action_run_t run, uint32_t callbacks)
{
    const registration_t *row = registry_find(server.registry, REGISTRATION_ACTION, run.point);
    if (!row || !(row->detail & callbacks))
        return refused(CONFD_ERR_UNAVAILABLE, "no daemon has registered action point \"" + run.point + "\" for " +
                                                  run.what + "; start the daemon that serves it");
    run.id = server.actions.last_id == UINT32_MAX ? 1 : server.actions.last_id + 1;
    server.actions.last_id = run.id;
    run.control = row->connection;
    run.has_abort = row->detail & ACTION_ABORT;
    uint32_t id = run.id;
    const action_run_t &kept = server.actions.runs.insert_or_assign(id, std::move(run)).first->second;
    ask_for_worker(server, kept);
    return deferred();
}
