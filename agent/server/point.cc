#include "agent/server/point.h"

#include "agent/server/server.h"

point_table_t point_table_make(const schema_t &schema, std::string_view statement)
{
    point_table_t table;
    table.names.resize(schema.nodes.size() + 1);
    table.holds.resize(schema.nodes.size() + 1);
    for (const schema_info_t &node : schema.nodes) {
        table.names[node.index] = schema_statement(node, statement);
        if (!table.names[node.index])
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

void point_ask(server_t &server, point_asker_t &asker, const point_call_t &call, std::string what,
               const std::string &progress)
{
    wire_writer_t payload;
    payload.u32(asker.daemons->th);
    payload.text(*call.point);
    payload.bytes += call.payload;
    tell_progress(server, asker, progress);
    asker.answer->is_pending = true;
    std::weak_ptr<point_asker_t::answer_box_t> box = asker.answer;
    auto take_answer = [box](server_t &of, const callback_reply_t &reply) {
        auto answer = box.lock();
        if (!answer)
            return;
        answer->is_pending = false;
        answer->code = reply.code;
        answer->text = reply.text;
        commit_queue_schedule(of);
    };
    callback_trans_ask(server, asker.daemons, asker.kind, *call.point, call.op, std::move(payload.bytes),
                       std::move(what), take_answer);
}
