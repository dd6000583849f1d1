// Subscription connections: subscribing, and the changes of the points being delivered.

#include "agent/server/subscription.h"

#include "agent/server/log.h"
#include "agent/server/server.h"

#include <algorithm>

static constexpr size_t MAX_POINTS = 4096;      // of one connection
static constexpr size_t MAX_OPER_JOBS = 100000; // queued notifications

static constexpr const char *kind_names[] = { "", "config", "two-phase", "operational" };

const char *subscription_kind_name(uint8_t kind)
{
    return kind < std::size(kind_names) ? kind_names[kind] : "";
}

// ---- which points

std::vector<int32_t> subscription_touched(const server_t &server, const diff_t &changes, unsigned kinds,
                                          const std::vector<int32_t> &among)
{
    std::vector<int32_t> ids;
    for (const auto &[id, point] : server.subscriptions.points) {
        if (!point.is_live || (kinds >> point.kind & 1u) == 0)
            continue;
        // A point that was asked for is served also without data: only so its client knows that it has been read.
        if (among.empty() ? diff_touches(changes, point.target) : std::ranges::count(among, id) > 0)
            ids.push_back(id);
    }
    return ids;
}

// ---- operational writes and triggers

// The one leaf that the changes set; null when they are anything else.
static diff_node_t *only_leaf_set(diff_t &changes)
{
    diff_node_t *node = &changes.root;
    while (node->children.size() == 1 && node->op == WIRE_MOP_MODIFIED)
        node = node->children[0].get();
    return node->children.empty() && node->op == WIRE_MOP_VALUE_SET ? node : nullptr;
}

// No later write may be merged into a notification that stands before these changes of the same data.
static void end_merging_below(server_t &server, const diff_t &changes)
{
    const diff_node_t *node = &changes.root;
    while (node->children.size() == 1 && node->op == WIRE_MOP_MODIFIED)
        node = node->children[0].get();
    std::string prefix = node->schema ? path_text(diff_path(*node)) : std::string();
    std::erase_if(server.queue.oper_leaves, [&](const auto &row) { return row.first.starts_with(prefix); });
}

// A leaf that is written again before its notification went out is told of once, with its newest value: so a fast
// writer and a slow subscriber need room for each leaf but not for each write.
static bool is_merged(server_t &server, diff_t &changes)
{
    diff_node_t *fresh = only_leaf_set(changes);
    if (!fresh)
        return false;
    std::string key = path_text(diff_path(*fresh));
    auto found = server.queue.oper_leaves.find(key);
    if (found == server.queue.oper_leaves.end())
        return false;
    diff_node_t *queued = only_leaf_set(*found->second->changes);
    queued->new_values = std::move(fresh->new_values);
    return true;
}

void subscription_notify_oper(server_t &server, diff_ptr changes)
{
    if (!changes || changes->is_empty() || subscription_touched(server, *changes, POINTS_OPERATIONAL, {}).empty())
        return;
    if (is_merged(server, *changes))
        return;
    if (server.queue.oper_jobs >= MAX_OPER_JOBS) {
        agent_log(LOG_ERR, "an operational notification is lost: %zu are queued behind a delivery", MAX_OPER_JOBS);
        return;
    }
    end_merging_below(server, *changes);
    auto job = std::make_unique<job_t>();
    job->kind = JOB_OPER;
    if (const diff_node_t *leaf = only_leaf_set(*changes)) {
        job->leaf_path = path_text(diff_path(*leaf));
        server.queue.oper_leaves[job->leaf_path] = job.get();
    }
    job->changes = std::move(changes);
    commit_queue_add(server, std::move(job));
}

// Why a point cannot be triggered by the caller; empty when it can.
static std::string trigger_obstacle(call_t &call, unsigned kinds, int32_t id)
{
    const auto &points = call.server.subscriptions.points;
    auto found = points.find(id);
    const connection_t *owner = found == points.end() ? nullptr : server_find(call.server, found->second.connection);
    if (!owner || owner->pid != call.conn.pid)
        return "the process has no subscription " + std::to_string(id);
    if (!(kinds >> found->second.kind & 1u))
        return "subscription " + std::to_string(id) + " is of kind " + subscription_kind_name(found->second.kind);
    return {};
}

static std::vector<int32_t> points_of_process(call_t &call, unsigned kinds)
{
    std::vector<int32_t> ids;
    for (const auto &[id, point] : call.server.subscriptions.points)
        if (trigger_obstacle(call, kinds, id).empty())
            ids.push_back(id);
    return ids;
}

answer_t subscription_trigger(call_t &call, bool is_operational, std::vector<int32_t> ids)
{
    unsigned kinds = is_operational ? POINTS_OPERATIONAL : POINTS_CONFIG;
    for (int32_t id : ids)
        if (std::string obstacle = trigger_obstacle(call, kinds, id); !obstacle.empty())
            return refused(CONFD_ERR_NOEXISTS, obstacle);
    if (ids.empty())
        ids = points_of_process(call, kinds);
    if (ids.empty())
        return {};
    auto job = std::make_unique<job_t>();
    job->kind = JOB_TRIGGER;
    job->reply_to = call.ref;
    job->is_operational = is_operational;
    job->points = std::move(ids);
    if (is_operational || call.server.phase >= 2) {
        commit_queue_add(call.server, std::move(job));
    } else {
        agent_log(LOG_INFO, "%s triggers its subscriptions; served in phase 2", connection_title(call.conn).c_str());
        call.server.triggers_for_phase_2.push_back(std::move(job));
    }
    return deferred();
}

// ---- subscribing

struct wanted_point_t {
    uint8_t kind;
    uint32_t flags;
    int32_t priority;
    uint32_t ns;
    std::string path;
};

static bool read_wanted(wire_reader_t &in, wanted_point_t *wanted)
{
    wanted->kind = in.u8();
    wanted->flags = in.u32();
    wanted->priority = in.i32();
    wanted->ns = in.u32();
    wanted->path = in.text();
    return in.finished() && wanted->kind >= WIRE_SUB_CONFIG && wanted->kind <= WIRE_SUB_OPERATIONAL;
}

static answer_t check_subscribing(const call_t &call)
{
    if (call.server.phase < 1)
        return refused(CONFD_ERR_BADSTATE, "subscriptions are made from phase 1 on; wait for the start first");
    if (call.conn.subscriber.is_done)
        return refused(CONFD_ERR_BADSTATE, "this connection has said that its subscriptions are done; use another");
    if (call.conn.subscriber.num_points >= MAX_POINTS)
        return refused(CONFD_ERR_TOOBIG, "a connection has at most " + std::to_string(MAX_POINTS) + " subscriptions");
    return {};
}

static answer_t subscribe(call_t &call)
{
    wanted_point_t wanted{};
    if (!read_wanted(call.in, &wanted))
        return malformed(call);
    answer_t answer = check_subscribing(call);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    point_t point;
    ds_error_t error;
    if (!path_parse(datastore_schema(*call.server.store), wanted.path, PATH_POINT, point.target, error, wanted.ns))
        return refused(error.code, error.text);
    point.id = call.server.subscriptions.next_id++;
    point.connection = call.conn.serial;
    point.kind = wanted.kind;
    point.priority = wanted.priority;
    point.path = std::move(wanted.path);
    call.out.i32(point.id);
    call.conn.subscriber.num_points++;
    call.server.subscriptions.points.emplace(point.id, std::move(point));
    return {};
}

static answer_t finish_subscribing(call_t &call)
{
    if (!call.in.finished())
        return malformed(call);
    call.conn.subscriber.is_done = true;
    for (auto &[id, point] : call.server.subscriptions.points)
        point.is_live |= point.connection == call.conn.serial;
    agent_log(LOG_INFO, "%s has subscribed to %zu points", connection_title(call.conn).c_str(),
              call.conn.subscriber.num_points);
    return {};
}

// ---- between event and sync

static answer_t outside_delivery(const char *what)
{
    return refused(CONFD_ERR_BADSTATE, std::string(what) + " only between a delivery and its sync");
}

// The target of a point of the event that the connection's client is being served; null outside of one.
static const path_t *find_delivered(const call_t &call, int32_t id)
{
    const auto &points = call.conn.subscriber.points;
    if (call.conn.subscriber.event_type == DELIVERY_NONE || !std::ranges::count(points, id))
        return nullptr;
    auto found = call.server.subscriptions.points.find(id);
    return found == call.server.subscriptions.points.end() ? nullptr : &found->second.target;
}

// A node that WIRE_SUB_DIFF has given out in this event; null for any other number.
static const diff_node_t *find_node(const call_t &call, uint32_t number)
{
    const auto &nodes = call.conn.subscriber.nodes;
    if (call.conn.subscriber.event_type == DELIVERY_NONE || number == 0 || number > nodes.size())
        return nullptr;
    return nodes[number - 1];
}

static void put_nodes(call_t &call, const std::vector<const diff_node_t *> &nodes)
{
    auto &given = call.conn.subscriber.nodes;
    call.out.u32(static_cast<uint32_t>(nodes.size()));
    for (const diff_node_t *node : nodes) {
        given.push_back(node);
        call.out.u32(static_cast<uint32_t>(given.size()));
        call.out.u8(node->op);
        diff_put_keypath(call.out, *node);
        diff_put_values(call.out, *node);
    }
}

static answer_t diff(call_t &call)
{
    int32_t id = call.in.i32();
    uint32_t number = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    const path_t *target = find_delivered(call, id);
    const diff_node_t *above = find_node(call, number);
    const diff_t *changes = commit_queue_changes(call.server);
    if (!target || !changes || (number != 0 && !above))
        return outside_delivery("changes of delivered subscriptions are given");
    std::vector<const diff_node_t *> nodes;
    if (number == 0)
        nodes = diff_instances(*changes, *target);
    else
        for (const auto &child : above->children)
            nodes.push_back(child.get());
    put_nodes(call, nodes);
    return {};
}

static void put_counted(wire_writer_t &out, uint32_t count, const wire_writer_t &items)
{
    out.u32(count);
    out.put(items.bytes.data(), items.bytes.size());
}

static answer_t modifications(call_t &call)
{
    int32_t id = call.in.i32();
    uint32_t flags = call.in.u32();
    std::string text(call.in.text());
    if (!call.in.finished())
        return malformed(call);
    const path_t *target = find_delivered(call, id);
    const diff_t *changes = commit_queue_changes(call.server);
    if (!target || !changes)
        return outside_delivery("modifications of delivered subscriptions are given");
    wire_writer_t items;
    if (text.empty()) {
        uint32_t count = diff_put_point_modifications(items, *changes, *target, flags);
        put_counted(call.out, count, items);
        return {};
    }
    path_t path;
    ds_error_t error;
    if (!path_parse(datastore_schema(*call.server.store), text, PATH_INSTANCE, path, error))
        return refused(error.code, error.text);
    const diff_node_t *node = diff_find(*changes, path);
    uint32_t count = node ? diff_put_modifications(items, *node, flags) : 0;
    put_counted(call.out, count, items);
    return {};
}

static answer_t modifications_at(call_t &call)
{
    uint32_t number = call.in.u32();
    uint32_t flags = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    const diff_node_t *node = find_node(call, number);
    if (!node)
        return outside_delivery("modifications below a node are given");
    wire_writer_t items;
    uint32_t count = diff_put_modifications(items, *node, flags);
    put_counted(call.out, count, items);
    return {};
}

static answer_t sync(call_t &call)
{
    (void)call.in.u8(); // there is one type: the priority level is done
    if (!call.in.finished())
        return malformed(call);
    if (call.conn.subscriber.event_type == DELIVERY_NONE)
        return refused(CONFD_ERR_BADSTATE, "there is no delivery to sync");
    delivery_synced(call.server, call.conn);
    return {};
}

static answer_t abort_prepare(call_t &call)
{
    (void)call.in.i32(); // the text says it to people
    (void)call.in.u32();
    (void)call.in.u32();
    std::string text(call.in.text());
    if (!call.in.finished())
        return malformed(call);
    if (call.conn.subscriber.event_type != DELIVERY_PREPARE)
        return refused(CONFD_ERR_BADSTATE, "a transaction can be refused in its prepare only");
    agent_log(LOG_NOTICE, "%s refuses the transaction: %s", connection_title(call.conn).c_str(), text.c_str());
    delivery_refused(call.server, call.conn, refused(CONFD_ERR_ABORTED, std::move(text)));
    return {};
}

static constexpr op_row_t rows_of_ops[] = {
    { WIRE_SUB_SUBSCRIBE, subscribe },         { WIRE_SUB_DONE, finish_subscribing },           { WIRE_SUB_DIFF, diff },
    { WIRE_SUB_MODIFICATIONS, modifications }, { WIRE_SUB_MODIFICATIONS_AT, modifications_at }, { WIRE_SUB_SYNC, sync },
    { WIRE_SUB_ABORT, abort_prepare },
};

std::span<const op_row_t> subscription_ops()
{
    return rows_of_ops;
}
