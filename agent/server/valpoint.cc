#include "agent/server/valpoint.h"

#include "agent/server/server.h"

#include <algorithm>

static void add_calls(const point_table_t &table, const diff_node_t &node, std::vector<point_call_t> &calls)
{
    for (const auto &child : node.children) {
        const schema_info_t &info = *child->schema;
        if (!table.is_at_or_below(info))
            continue;
        for (const std::string *name : table.names_of(info)) {
            wire_writer_t payload;
            diff_put_keypath(payload, *child);
            diff_put_new_value(payload, *child);
            calls.push_back({ name, &info, child.get(), WIRE_CB_VALIDATE, std::move(payload.bytes) });
        }
        add_calls(table, *child, calls);
    }
}

void valpoint_begin(server_t &server, valpoint_run_t &run, const diff_t &changes)
{
    run.asker.kind = REGISTRATION_VALPOINT;
    if (server.points.valpoints.is_empty)
        return;
    add_calls(server.points.valpoints, changes.root, run.calls);
    std::ranges::stable_sort(run.calls,
                             [](const point_call_t &a, const point_call_t &b) { return a.at->order < b.at->order; });
}

// What has come of the last call.
static answer_t refusal_of(const valpoint_run_t &run)
{
    const point_asker_t::answer_box_t &answer = *run.asker.answer;
    if (answer.code == CONFD_ERR_OK || !answer.text.empty())
        return refused(answer.code, answer.text);
    const point_call_t &call = run.calls[run.at - 1];
    return refused(answer.code, "validation point " + *call.point + " refused " + path_text(diff_path(*call.change)));
}

static run_state_t make_call(server_t &server, valpoint_run_t &run, const point_call_t &call, answer_t &failure)
{
    const registration_t *registration = registry_find(server.registry, REGISTRATION_VALPOINT, *call.point);
    std::string path = path_text(diff_path(*call.change));
    if (!registration) {
        failure = point_unserved("validation point", *call.point, path);
        return RUN_FAILED;
    }
    point_ask(server, run.asker, call, "validation point \"" + *call.point + "\" for " + path,
              "validation point " + *call.point + " (" + path + "): waiting for " + point_owner(server, *registration));
    return RUN_WAITING;
}

run_state_t valpoint_step(server_t &server, valpoint_run_t &run, answer_t &failure)
{
    if (run.asker.answer->is_pending)
        return RUN_WAITING;
    failure = refusal_of(run);
    if (failure.code != CONFD_ERR_OK)
        return RUN_FAILED;
    if (run.at == run.calls.size())
        return RUN_DONE;
    return make_call(server, run, run.calls[run.at++], failure);
}
