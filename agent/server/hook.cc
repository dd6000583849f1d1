#include "agent/server/hook.h"

#include "agent/server/server.h"

#include <algorithm>

static constexpr unsigned MAX_ROUNDS = 16;

// What becomes of a change; in the order of calling.
struct hook_op_t {
    wire_iter_op_t change;
    uint16_t op;
    uint32_t bit; // of a data registration's callbacks, as WIRE_REG_DATA_CB numbers them
    const char *name;
};
static constexpr hook_op_t hook_ops[] = {
    { WIRE_MOP_DELETED, WIRE_CB_REMOVE, 1u << 5, "remove" },
    { WIRE_MOP_CREATED, WIRE_CB_CREATE, 1u << 4, "create" },
    { WIRE_MOP_VALUE_SET, WIRE_CB_SET_ELEM, 1u << 3, "set_elem" },
};

// Null for changes that hooks are not told of by themselves.
static const hook_op_t *find_op(const diff_node_t &change)
{
    const schema_info_t &info = *change.schema;
    if (info.is(WIRE_NODE_KEY) || (info.is(WIRE_NODE_CONTAINER) && !info.is(WIRE_NODE_PRESENCE)))
        return nullptr;
    auto row = std::ranges::find(hook_ops, change.op, &hook_op_t::change);
    return row != std::end(hook_ops) ? row : nullptr;
}

static const hook_op_t &op_of(const point_call_t &call)
{
    return *std::ranges::find(hook_ops, call.op, &hook_op_t::op);
}

// ---- the calls of a round

struct covering_t {
    const std::string *point = nullptr; // null: no hook at the node or above
    const schema_info_t *at = nullptr;
};

static void add_call(const diff_node_t &change, const covering_t &cover, std::vector<point_call_t> &calls)
{
    const hook_op_t *op = find_op(change);
    if (!op)
        return;
    wire_writer_t payload;
    diff_put_keypath(payload, change);
    if (op->op == WIRE_CB_SET_ELEM)
        diff_put_new_value(payload, change);
    calls.push_back({ cover.point, cover.at, &change, op->op, std::move(payload.bytes) });
}

static void add_calls(const point_table_t &table, const diff_node_t &node, const covering_t &above,
                      std::vector<point_call_t> &calls)
{
    for (const auto &child : node.children) {
        const schema_info_t &info = *child->schema;
        const auto &own = table.names_of(info);
        covering_t cover = own.empty() ? above : covering_t{ own.front(), &info };
        if (cover.point)
            add_call(*child, cover, calls);
        if (cover.point || table.is_at_or_below(info))
            add_calls(table, *child, cover, calls);
    }
}

static std::string identity_of(const point_call_t &call)
{
    wire_writer_t out;
    out.u32(call.at->index);
    out.u16(call.op);
    return out.bytes + call.payload;
}

static std::vector<point_call_t> new_calls(const point_table_t &table, const hook_run_t &run)
{
    std::vector<point_call_t> calls;
    add_calls(table, run.changes->root, {}, calls);
    std::erase_if(calls, [&](const point_call_t &call) { return run.called.contains(identity_of(call)); });
    std::ranges::stable_sort(calls, [](const point_call_t &a, const point_call_t &b) {
        return a.at != b.at ? a.at->order < b.at->order : &op_of(a) < &op_of(b);
    });
    return calls;
}

static answer_t no_end(const std::vector<point_call_t> &calls)
{
    std::string names;
    const std::string *last = nullptr;
    for (const point_call_t &call : calls) {
        if (!last || *last != *call.point)
            names += (names.empty() ? "" : ", ") + *call.point;
        last = call.point;
    }
    return refused(CONFD_ERR_EXTERNAL, "hooks still change the transaction after " + std::to_string(MAX_ROUNDS) +
                                           " rounds: " + names + "; the last is called for " +
                                           path_text(diff_path(*calls.back().change)));
}

static run_state_t begin_round(server_t &server, hook_run_t &run, answer_t &failure)
{
    ds_error_t error;
    run.calls.clear();
    run.at = 0;
    if (!trans_diff(*run.trans, run.changes, error)) {
        failure = refused(error.code, error.text);
        return RUN_FAILED;
    }
    std::vector<point_call_t> calls = new_calls(server.points.hooks, run);
    if (calls.empty())
        return RUN_DONE;
    if (run.rounds == MAX_ROUNDS) {
        failure = no_end(calls);
        return RUN_FAILED;
    }
    run.rounds++;
    for (const point_call_t &call : calls)
        run.called.insert(identity_of(call));
    run.calls = std::move(calls);
    return RUN_WAITING;
}

// ---- calling

// RUN_DONE when the daemon has no such callback: it does not want to know.
static run_state_t make_call(server_t &server, hook_run_t &run, const point_call_t &call, answer_t &failure)
{
    const registration_t *registration = registry_find(server.registry, REGISTRATION_DATA, *call.point);
    std::string path = path_text(diff_path(*call.change));
    const hook_op_t &op = op_of(call);
    if (!registration) {
        failure = point_unserved("hook", *call.point, path);
        return RUN_FAILED;
    }
    if (!(registration->detail & op.bit))
        return RUN_DONE;
    point_ask(server, run.asker, call, std::string(op.name) + " of hook \"" + *call.point + "\" for " + path,
              "hook " + *call.point + ": waiting for " + point_owner(server, *registration));
    return RUN_WAITING;
}

// What has come of the last call.
static answer_t refusal_of(server_t &server, const hook_run_t &run)
{
    const point_asker_t::answer_box_t &answer = *run.asker.answer;
    if (answer.code == CONFD_ERR_OK || !answer.text.empty())
        return refused(answer.code, answer.text);
    const point_call_t &call = run.calls[run.at - 1];
    const registration_t *registration = registry_find(server.registry, REGISTRATION_DATA, *call.point);
    return refused(answer.code, "hook " + *call.point + " of " +
                                    (registration ? point_owner(server, *registration) : "a client that is gone") +
                                    " failed for " + path_text(diff_path(*call.change)));
}

run_state_t hook_step(server_t &server, hook_run_t &run, answer_t &failure)
{
    if (server.points.hooks.is_empty)
        return RUN_DONE;
    if (run.asker.answer->is_pending)
        return RUN_WAITING;
    failure = refusal_of(server, run);
    if (failure.code != CONFD_ERR_OK)
        return RUN_FAILED;
    for (;;) {
        while (run.at < run.calls.size())
            if (run_state_t state = make_call(server, run, run.calls[run.at++], failure); state != RUN_DONE)
                return state;
        if (run_state_t state = begin_round(server, run, failure); state != RUN_WAITING)
            return state;
    }
}
