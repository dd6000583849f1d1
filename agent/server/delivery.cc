#include "agent/server/delivery.h"

#include "agent/server/log.h"
#include "agent/server/server.h"

#include <algorithm>

static constexpr const char *type_names[] = { "none", "prepare", "commit", "abort", "operational" };

double monotonic_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// ---- the plan

static served_client_t &client_of(level_t &level, uint64_t connection)
{
    for (served_client_t &client : level.clients)
        if (client.connection == connection)
            return client;
    level.clients.push_back({ connection, {}, false });
    return level.clients.back();
}

static std::vector<level_t> plan_levels(const server_t &server, std::span<const int32_t> ids)
{
    std::map<int32_t, level_t> by_priority;
    for (int32_t id : ids) {
        auto found = server.subscriptions.points.find(id);
        if (found == server.subscriptions.points.end())
            continue;
        const point_t &point = found->second;
        level_t &level = by_priority[point.priority];
        level.priority = point.priority;
        client_of(level, point.connection).points.push_back(id);
    }
    std::vector<level_t> levels;
    for (auto &[priority, level] : by_priority)
        levels.push_back(std::move(level));
    return levels;
}

// ---- serving a level

static void send_event(const delivery_t &delivery, connection_t &conn, const served_client_t &client)
{
    conn.subscriber.event_type = delivery.type;
    conn.subscriber.points = client.points;
    conn.subscriber.nodes.clear();
    wire_writer_t event;
    event.u8(delivery.type);
    event.u32(delivery.flags);
    event.u32(static_cast<uint32_t>(client.points.size()));
    for (int32_t id : client.points)
        event.i32(id);
    connection_send(conn, WIRE_SUB_EVENT, 0, 0, event.bytes);
}

static void tell_progress(server_t &server, const delivery_t &delivery, const connection_t &conn, const level_t &level)
{
    std::string text = std::string(type_names[delivery.type]) + ", priority " + std::to_string(level.priority) +
                       ": waiting for " + connection_title(conn);
    commit_queue_tell_progress(server, text);
}

// False when all clients of the level are gone.
static bool serve_level(server_t &server, delivery_t &delivery, level_t &level)
{
    bool is_any = false;
    for (served_client_t &client : level.clients) {
        connection_t *conn = server_find(server, client.connection);
        client.is_done = !conn;
        if (!conn)
            continue;
        send_event(delivery, *conn, client);
        tell_progress(server, delivery, *conn, level);
        is_any = true;
    }
    delivery.level_start_ms = monotonic_ms();
    auto ms = static_cast<long>(server.config.sync_timeout_ms);
    timeval limit = { ms / 1000, ms % 1000 * 1000 };
    evtimer_add(delivery.timeout.get(), &limit);
    return is_any;
}

static bool is_level_done(const level_t &level)
{
    return std::ranges::all_of(level.clients, [](const served_client_t &client) { return client.is_done; });
}

// Serves levels from the current one on until one has to be waited for.
static void go_on(server_t &server)
{
    delivery_t &delivery = server.delivery;
    while (delivery.at < delivery.levels.size() && delivery.refusal.code == CONFD_ERR_OK &&
           !serve_level(server, delivery, delivery.levels[delivery.at]))
        delivery.at++;
    if (delivery.at < delivery.levels.size() && delivery.refusal.code == CONFD_ERR_OK)
        return;
    evtimer_del(delivery.timeout.get());
    delivery.type = DELIVERY_NONE;
    delivery.levels.clear();
    commit_queue_schedule(server);
}

void delivery_step(server_t &server)
{
    delivery_t &delivery = server.delivery;
    if (delivery.type == DELIVERY_NONE || !is_level_done(delivery.levels[delivery.at]))
        return;
    delivery.at++;
    go_on(server);
}

void delivery_start(server_t &server, delivery_type_t type, uint32_t flags, std::span<const int32_t> points)
{
    delivery_t &delivery = server.delivery;
    delivery.type = type;
    delivery.flags = flags;
    delivery.levels = plan_levels(server, points);
    delivery.at = 0;
    delivery.refusal = {};
    delivery.agreed.clear();
    go_on(server);
}

// ---- the end of a client's part

// The connection's part of the level being served; null when it has none to do.
static served_client_t *find_served(server_t &server, uint64_t connection)
{
    delivery_t &delivery = server.delivery;
    if (delivery.type == DELIVERY_NONE)
        return nullptr;
    for (served_client_t &client : delivery.levels[delivery.at].clients)
        if (client.connection == connection && !client.is_done)
            return &client;
    return nullptr;
}

static void end_event(subscriber_t &subscriber)
{
    subscriber.event_type = DELIVERY_NONE;
    subscriber.points.clear();
    subscriber.nodes.clear();
}

static void count_deliveries(server_t &server, const served_client_t &client)
{
    double took_ms = monotonic_ms() - server.delivery.level_start_ms;
    for (int32_t id : client.points) {
        point_t &point = server.subscriptions.points[id];
        point.deliveries++;
        point.last_ms = took_ms;
    }
}

void delivery_synced(server_t &server, connection_t &conn)
{
    end_event(conn.subscriber);
    served_client_t *client = find_served(server, conn.serial);
    if (!client)
        return;
    client->is_done = true;
    count_deliveries(server, *client);
    auto &agreed = server.delivery.agreed;
    agreed.insert(agreed.end(), client->points.begin(), client->points.end());
    commit_queue_schedule(server);
}

void delivery_refused(server_t &server, connection_t &conn, answer_t refusal)
{
    end_event(conn.subscriber);
    served_client_t *client = find_served(server, conn.serial);
    if (!client)
        return;
    client->is_done = true;
    if (server.delivery.refusal.code == CONFD_ERR_OK)
        server.delivery.refusal = std::move(refusal);
    commit_queue_schedule(server);
}

void delivery_forget(server_t &server, const connection_t &conn)
{
    std::erase_if(server.subscriptions.points, [&](const auto &row) { return row.second.connection == conn.serial; });
    if (served_client_t *client = find_served(server, conn.serial)) {
        client->is_done = true;
        agent_log(LOG_WARNING, "%s is gone in the middle of a delivery, which goes on without it",
                  connection_title(conn).c_str());
        commit_queue_schedule(server);
    }
}

static void on_timeout(evutil_socket_t, short, void *arg) noexcept
{
    auto &server = *static_cast<server_t *>(arg);
    std::vector<uint64_t> stalled;
    if (server.delivery.type != DELIVERY_NONE)
        for (const served_client_t &client : server.delivery.levels[server.delivery.at].clients)
            if (!client.is_done)
                stalled.push_back(client.connection);
    for (uint64_t serial : stalled)
        server_drop(server, serial,
                    "has not synced a delivery within " + std::to_string(server.config.sync_timeout_ms) + " ms");
}

bool delivery_init(server_t &server)
{
    server.delivery.timeout.reset(evtimer_new(server.base.get(), on_timeout, &server));
    return server.delivery.timeout != nullptr;
}
