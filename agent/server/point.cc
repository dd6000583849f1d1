#include "agent/server/point.h"

#include "agent/server/server.h"

point_table_t point_table_make(const schema_t &schema, std::string_view statement)
{
    point_table_t table;
    table.names.resize(schema.nodes.size() + 1);
    table.holds.resize(schema.nodes.size() + 1);
    for (const schema_info_t &node : schema.nodes) {
        for (const schema_statement_t &own : node.statements)
            if (own.name == statement)
                table.names[node.index].push_back(&own.argument);
        if (table.names[node.index].empty())
            continue;
        table.is_empty = false;
        for (const schema_info_t *above = &node; above && !table.holds[above->index]; above = above->parent)
            table.holds[above->index] = true;
    }
    return table;
}

std::string point_owner(server_t &server, const registration_t &registration)
{
    const connection_t *conn = server_find(server, registration.connection);
    return conn ? connection_title(*conn) : "a client that is gone";
}

answer_t point_unserved(const char *kind, const std::string &point, const std::string &path)
{
    return refused(CONFD_ERR_UNAVAILABLE, std::string(kind) + " " + point + " is served by nobody, and " + path +
                                              " has changed; is its daemon running?");
}

static void tell_progress(server_t &server, point_asker_t &asker, const std::string &progress)
{
    if (progress == asker.progress)
        return;
    asker.progress = progress;
    commit_queue_tell_progress(server, progress);
}

// A yes has no payload: one with something in it is garbage, and its sender goes.
static void take_reply(server_t &server, const point_asker_t &asker, const std::string &point,
                       const callback_reply_t &reply)
{
    asker.answer->is_pending = false;
    asker.answer->code = reply.code;
    asker.answer->text = reply.text;
    if (reply.code == CONFD_ERR_OK && !reply.payload.empty()) {
        asker.answer->code = CONFD_ERR_EXTERNAL;
        asker.answer->text =
            "the daemon of \"" + point + "\" has answered wrongly: an answer without a value was wanted";
        callback_refuse_answer(server, callback_trans_worker(server, *asker.daemons, asker.kind, point),
                               asker.answer->text);
    }
    commit_queue_schedule(server);
}

void point_ask(server_t &server, point_asker_t &asker, const point_call_t &call, std::string what,
               const std::string &progress)
{
    wire_writer_t payload;
    payload.u32(asker.daemons->th);
    payload.text(*call.point);
    payload.bytes += call.payload;
    tell_progress(server, asker, progress);
    asker.answer->is_pending = true;
    // The run may have ended by then; the name is the model's.
    auto take_answer = [box = std::weak_ptr(asker.answer), daemons = asker.daemons, kind = asker.kind,
                        point = call.point](server_t &of, const callback_reply_t &reply) {
        if (auto answer = box.lock())
            take_reply(of, { kind, daemons, answer, {} }, *point, reply);
    };
    callback_trans_ask(server, asker.daemons, asker.kind, *call.point, call.op, std::move(payload.bytes),
                       std::move(what), take_answer, true);
}
