// Subscribers of notification streams. See stream.h.
#include "agent/server/log.h"
#include "agent/server/server.h"
#include "agent/server/stream.h"

#include <algorithm>

static constexpr int EVENTS_PER_SLICE = 256;    // of a replay, then others have their turn
static constexpr size_t MAX_QUEUED = 256 << 10; // bytes to the client; the replay waits for it to read
static constexpr timeval NEXT_SLICE = { 0, 0 };
static constexpr timeval SLOW_CLIENT = { 0, 20000 };
static constexpr int64_t MAX_WAIT_US = 60'000'000; // for the stop time: the clock may be set meanwhile

// ---- pushes

static void push(stream_subscriber_t &subscriber, wire_stream_event_t kind, const stream_event_t &event)
{
    connection_t *conn = server_find(*subscriber.server, subscriber.connection);
    if (!conn)
        return;
    confd_value_t time{};
    time.type = C_DATETIME;
    time.val.datetime = stream_time_to_datetime(event.time_us);
    wire_writer_t payload;
    payload.u8(kind);
    wire_put_value(payload, time);
    payload.text(event.document);
    connection_send(*conn, WIRE_STREAM_EVENT, 0, 0, payload.bytes);
}

static void push_mark(stream_subscriber_t &subscriber, wire_stream_event_t kind)
{
    push(subscriber, kind, { stream_time_now(), {} });
}

static void give_live(stream_subscriber_t &subscriber, const stream_event_t &event)
{
    if (event.time_us <= subscriber.stop_us)
        push(subscriber, WIRE_STREAM_NOTIFICATION, event);
}

// ---- the end

static void end_subscription(stream_subscriber_t &subscriber)
{
    push_mark(subscriber, WIRE_STREAM_COMPLETE);
    stream_forget(*subscriber.server, subscriber.connection);
}

void stream_forget(server_t &server, uint64_t connection)
{
    server.streams.subscribers.erase(connection);
}

// Waits for the stop time, or ends when it has come. The subscriber may be gone afterwards.
static void wait_for_stop(stream_subscriber_t &subscriber)
{
    if (subscriber.stop_us == INT64_MAX)
        return;
    int64_t left = subscriber.stop_us - stream_time_now();
    if (left <= 0)
        return end_subscription(subscriber);
    left = std::min(left, MAX_WAIT_US);
    timeval wait = { left / 1000000, left % 1000000 };
    evtimer_add(subscriber.timer.get(), &wait);
}

// ---- the replay

static void end_replay(stream_subscriber_t &subscriber)
{
    push_mark(subscriber, WIRE_STREAM_REPLAY_COMPLETE);
    subscriber.is_replaying = false;
    subscriber.reader = {};
    for (const stream_event_t &event : std::exchange(subscriber.held_back, {}))
        give_live(subscriber, event);
    wait_for_stop(subscriber);
}

static void replay_slice(stream_subscriber_t &subscriber)
{
    connection_t *conn = server_find(*subscriber.server, subscriber.connection);
    stream_event_t event;
    for (int i = 0; conn && i < EVENTS_PER_SLICE && conn->out_bytes < MAX_QUEUED; i++) {
        if (!stream_reader_next(subscriber.server->streams.store, subscriber.reader, &event))
            return end_replay(subscriber);
        if (event.time_us >= subscriber.start_us && event.time_us <= subscriber.stop_us)
            push(subscriber, WIRE_STREAM_NOTIFICATION, event);
    }
    if (conn)
        evtimer_add(subscriber.timer.get(), conn->out_bytes < MAX_QUEUED ? &NEXT_SLICE : &SLOW_CLIENT);
}

static void on_timer(evutil_socket_t, short, void *arg) noexcept
{
    auto &subscriber = *static_cast<stream_subscriber_t *>(arg);
    subscriber.is_replaying ? replay_slice(subscriber) : wait_for_stop(subscriber);
}

static void hold_back(stream_subscriber_t &subscriber, const stream_event_t &event)
{
    server_t &server = *subscriber.server;
    subscriber.held_back_bytes += event.document.size() + sizeof event;
    connection_t *conn = server_find(server, subscriber.connection);
    if (conn && subscriber.held_back_bytes > server.config.outbound_limit)
        return connection_fail(*conn, "does not read its replay: " + std::to_string(subscriber.held_back_bytes) +
                                          " bytes wait behind it");
    subscriber.held_back.push_back(event);
}

void stream_tell_subscribers(server_t &server, const std::string &stream, const stream_event_t &event)
{
    for (auto &[serial, subscriber] : server.streams.subscribers) {
        if (subscriber->stream != stream)
            continue;
        subscriber->is_replaying ? hold_back(*subscriber, event) : give_live(*subscriber, event);
    }
}

// ---- subscribing

static answer_t unknown_stream(const server_t &server, const std::string &stream)
{
    std::string names;
    for (const std::string &name : stream_names(server))
        names += (names.empty() ? "" : ", ") + name;
    return refused(CONFD_ERR_NOEXISTS, "there is no stream \"" + stream + "\"; " +
                                           (names.empty() ? "there is none" : "there are: " + names));
}

// Reads a time that may be left out. False when it is neither.
static bool read_time(const confd_value_t &value, int64_t *time_us)
{
    return value.type == C_NOEXISTS ||
           (value.type == C_DATETIME && stream_time_from_datetime(value.val.datetime, time_us));
}

static answer_t check_subscription(const call_t &call, const stream_subscriber_t &wanted)
{
    std::vector<std::string> names = stream_names(call.server);
    if (std::ranges::find(names, wanted.stream) == names.end())
        return unknown_stream(call.server, wanted.stream);
    if (call.server.streams.subscribers.contains(call.conn.serial))
        return refused(CONFD_ERR_BADSTATE, "this connection has a stream already; use another one");
    if (wanted.is_replaying && !stream_store_keeps(call.server.streams.store, wanted.stream))
        return refused(CONFD_ERR_UNAVAILABLE, "stream \"" + wanted.stream +
                                                  "\" has no replay store; switch it on, or leave the start time out");
    if (wanted.is_replaying && (wanted.start_us > stream_time_now() || wanted.stop_us < wanted.start_us))
        return refused(CONFD_ERR_BADTYPE, "the start time lies in the future or behind the stop time");
    return {};
}

static answer_t subscribe_stream(call_t &call)
{
    auto subscriber = std::make_unique<stream_subscriber_t>();
    subscriber->stream = call.in.text();
    value_holder start(call.in);
    value_holder stop(call.in);
    if (!call.in.finished())
        return malformed(call);
    if (!read_time(start.value, &subscriber->start_us) || !read_time(stop.value, &subscriber->stop_us))
        return refused(CONFD_ERR_BADTYPE, "start and stop are times, or left out");
    subscriber->is_replaying = start.value.type == C_DATETIME;
    answer_t answer = check_subscription(call, *subscriber);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    subscriber->server = &call.server;
    subscriber->connection = call.conn.serial;
    subscriber->timer.reset(evtimer_new(call.server.base.get(), on_timer, subscriber.get()));
    if (!subscriber->timer)
        return refused(CONFD_ERR_MALLOC, "no memory for the subscription");
    if (subscriber->is_replaying)
        subscriber->reader = stream_reader_open(call.server.streams.store, subscriber->stream);
    evtimer_add(subscriber->timer.get(), &NEXT_SLICE);
    call.server.streams.subscribers.emplace(call.conn.serial, std::move(subscriber));
    return {};
}

static constexpr op_row_t rows_of_ops[] = {
    { WIRE_STREAM_SUBSCRIBE, subscribe_stream },
};

std::span<const op_row_t> stream_ops()
{
    return rows_of_ops;
}
