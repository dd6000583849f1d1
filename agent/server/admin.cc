// Admin connections: phase, status, dumps, stop.

#include "agent/server/dispatch.h"
#include "agent/server/json.h"
#include "agent/server/log.h"
#include "agent/server/phase.h"
#include "agent/server/server.h"
#include "agent/server/subscription.h"

#include <unistd.h>

// ---- status, a JSON object

static void put_store(const server_t &server, json_writer_t &json)
{
    datastore_stats_t stats = datastore_stats(*server.store);
    json.begin_object("store");
    json.number("generation", stats.generation);
    json.number("journal-bytes", stats.journal_bytes);
    json.end_object();
}

static void put_commits(const server_t &server, json_writer_t &json)
{
    size_t open = 0;
    for (const auto &[serial, conn] : server.connections)
        open += conn->maapi.transactions.size();
    json.begin_object("transactions");
    json.number("open", open);
    json.number("commits", server.queue.commits);
    json.number("refused", server.queue.refusals);
    json.number("queued", server.queue.jobs.size());
    json.real("last-commit-ms", server.queue.last_commit_ms);
    json.end_object();
}

static void put_clients(const server_t &server, json_writer_t &json)
{
    struct client_t {
        std::string name;
        std::vector<std::string> kinds;
        uint64_t requests = 0; // of the connections that there are
    };
    std::map<uint32_t, client_t> by_pid;
    for (const auto &[serial, conn] : server.connections) {
        if (!conn->is_greeted)
            continue;
        client_t &client = by_pid[conn->pid];
        client.name = conn->name;
        client.kinds.emplace_back(connection_kind_name(conn->kind));
        client.requests += conn->requests;
    }
    json.begin_list("clients");
    for (const auto &[pid, client] : by_pid) {
        json.begin_object();
        json.text("name", client.name);
        json.number("pid", pid);
        json.begin_list("kinds");
        for (const std::string &kind : client.kinds)
            json.text(kind);
        json.end_list();
        json.number("requests", client.requests);
        json.end_object();
    }
    json.end_list();
}

// User sessions: people at the command line and daemons with transactions.
static void put_sessions(const server_t &server, json_writer_t &json)
{
    json.begin_list("sessions");
    for (const auto &[serial, conn] : server.connections) {
        const session_identity_t &who = conn->maapi.who;
        if (who.id == 0)
            continue;
        json.begin_object();
        json.number("id", who.id);
        json.text("user", who.user);
        json.text("context", who.context);
        json.text("address", who.source);
        json.text("client", connection_title(*conn));
        json.number("transactions", conn->maapi.transactions.size());
        json.end_object();
    }
    json.end_list();
}

static void put_point(const server_t &server, const point_t &point, json_writer_t &json)
{
    auto conn = server.connections.find(point.connection);
    json.begin_object();
    json.number("id", static_cast<uint64_t>(point.id));
    json.text("client", conn == server.connections.end() ? std::string() : connection_title(*conn->second));
    json.text("path", point.path);
    json.text("kind", subscription_kind_name(point.kind));
    json.real("priority", point.priority);
    json.number("deliveries", point.deliveries);
    json.real("last-ms", point.last_ms);
    json.end_object();
}

static void put_subscriptions(const server_t &server, json_writer_t &json)
{
    const auto &points = server.subscriptions.points;
    json.begin_object("subscriptions");
    json.number("count", points.size());
    json.begin_list("points");
    for (const auto &[id, point] : points)
        put_point(server, point, json);
    json.end_list();
    json.end_object();
}

// Registrations in force, by kind.
static void put_registrations(const server_t &server, json_writer_t &json)
{
    json.begin_object("registrations");
    for (uint8_t kind = 0; kind < REGISTRATION_KINDS; kind++) {
        uint64_t count = server.registry.rows[kind].size();
        json.number(registration_kind_name(static_cast<registration_kind_t>(kind)), count);
    }
    json.end_object();
}

// What clients have been asked, and what is being asked now.
static void put_callbacks(const server_t &server, json_writer_t &json)
{
    uint64_t asked = 0;
    uint64_t open = 0;
    for (const auto &[serial, conn] : server.connections) {
        asked += conn->callbacks.asked;
        open += conn->callbacks.questions.size();
    }
    json.begin_object("callbacks");
    json.number("asked", asked);
    json.number("open", open);
    json.number("actions", server.actions.runs.size());
    json.end_object();
}

static answer_t give_status(call_t &call)
{
    if (!call.in.finished())
        return malformed(call);
    server_t &server = call.server;
    json_writer_t json;
    json.begin_object();
    json.number("phase", server.phase);
    json.number("pid", static_cast<uint64_t>(getpid()));
    json.number("uptime-s", static_cast<uint64_t>(time(nullptr) - server.started));
    put_store(server, json);
    put_commits(server, json);
    put_clients(server, json);
    put_sessions(server, json);
    put_subscriptions(server, json);
    put_registrations(server, json);
    put_callbacks(server, json);
    streams_put_status(server, json);
    json.end_object();
    call.out.text(json.bytes);
    return {};
}

// ---- the others

static answer_t ask_phase(call_t &call)
{
    uint32_t wanted = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    if (wanted > 2)
        return refused(CONFD_ERR_PROTOUSAGE, "there is no phase " + std::to_string(wanted) + "; ask for 2");
    if (wanted == 2 && call.server.phase < 2) {
        phase_request_2(call.server, call.ref);
        return deferred();
    }
    call.out.u32(call.server.phase);
    return {};
}

static answer_t dump(call_t &call)
{
    uint8_t db = call.in.u8();
    uint8_t format = call.in.u8();
    if (!call.in.finished())
        return malformed(call);
    if (db != WIRE_DB_RUNNING && db != WIRE_DB_OPERATIONAL)
        return refused(CONFD_ERR_NOEXISTS, "there is no datastore " + std::to_string(db) + " to dump");
    return put_shown(call, {}, db == WIRE_DB_RUNNING ? SHOW_CONFIG : SHOW_OPERATIONAL, format, "/", false);
}

static answer_t stop(call_t &call)
{
    if (!call.in.finished())
        return malformed(call);
    agent_log(LOG_NOTICE, "stopping as %s asks", connection_title(call.conn).c_str());
    server_stop_soon(call.server);
    return {};
}

static constexpr op_row_t rows_of_ops[] = {
    { WIRE_ADMIN_PHASE, ask_phase },
    { WIRE_ADMIN_STATUS, give_status },
    { WIRE_ADMIN_DUMP, dump },
    { WIRE_ADMIN_STOP, stop },
};

std::span<const op_row_t> admin_ops()
{
    return rows_of_ops;
}
