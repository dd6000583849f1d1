#include "agent/server/stream.h"

#include "agent/server/log.h"
#include "agent/server/op.h"
#include "agent/server/server.h"

#include <ctime>
#include <set>

static constexpr size_t MAX_SNMP_NAME = 255;
static constexpr size_t MIN_VARBIND_SIZE = 5; // empty name, a value without content
static constexpr size_t MAX_VARBINDS = 1000;  // of a notification

// ---- times

bool stream_time_from_datetime(const confd_datetime &time, int64_t *time_us)
{
    bool is_time = time.year >= 1970 && time.year <= 9999 && time.month >= 1 && time.month <= 12 && time.day >= 1 &&
                   time.day <= 31 && time.hour < 24 && time.min < 60 && time.sec <= 60 && time.micro < 1000000;
    if (!is_time)
        return false;
    tm utc{};
    utc.tm_year = time.year - 1900;
    utc.tm_mon = time.month - 1;
    utc.tm_mday = time.day;
    utc.tm_hour = time.hour;
    utc.tm_min = time.min;
    utc.tm_sec = time.sec;
    int64_t seconds = timegm(&utc);
    if (time.timezone != CONFD_TIMEZONE_UNDEF)
        seconds -= time.timezone * 3600 + time.timezone_minutes * 60;
    *time_us = seconds * 1000000 + time.micro;
    return *time_us >= 0;
}

confd_datetime stream_time_to_datetime(int64_t time_us)
{
    time_t seconds = time_us / 1000000;
    tm utc{};
    gmtime_r(&seconds, &utc);
    confd_datetime time{};
    time.year = static_cast<int16_t>(utc.tm_year + 1900);
    time.month = static_cast<uint8_t>(utc.tm_mon + 1);
    time.day = static_cast<uint8_t>(utc.tm_mday);
    time.hour = static_cast<uint8_t>(utc.tm_hour);
    time.min = static_cast<uint8_t>(utc.tm_min);
    time.sec = static_cast<uint8_t>(utc.tm_sec);
    time.micro = static_cast<uint32_t>(time_us % 1000000);
    return time;
}

int64_t stream_time_now()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

// ---- the streams

void streams_start(server_t &server)
{
    std::string dir = server.config.replay_dir;
    if (dir.empty() && !server.config.state_dir.empty())
        dir = server.config.state_dir + "/netconf_replay";
    std::vector<std::string> reports;
    stream_store_open(server.streams.store, dir, reports);
    for (const std::string &report : reports)
        agent_log(LOG_WARNING, "%s", report.c_str());
}

std::vector<std::string> stream_names(const server_t &server)
{
    std::set<std::string> names;
    for (const auto &[name, row] : server.registry.rows[REGISTRATION_STREAM])
        names.insert(name);
    for (const auto &[name, log] : server.streams.store.logs)
        names.insert(name);
    return { names.begin(), names.end() };
}

void streams_put_status(server_t &server, json_writer_t &json)
{
    streams_t &streams = server.streams;
    json.begin_list("streams");
    for (const std::string &name : stream_names(server)) {
        uint64_t subscribers = 0;
        for (const auto &[serial, subscriber] : streams.subscribers)
            subscribers += subscriber->stream == name;
        auto sent = streams.sent.find(name);
        json.begin_object();
        json.text("name", name);
        json.number("sent", sent == streams.sent.end() ? 0 : sent->second);
        json.number("stored", stream_store_count(streams.store, name));
        json.number("subscribers", subscribers);
        json.end_object();
    }
    json.end_list();
    json.number("notifications-dropped", streams.dropped);
    json.number("snmp-notifications", streams.snmp_sent);
}

// ---- what daemons send

static void drop(call_t &call, const std::string &why)
{
    call.server.streams.dropped++;
    agent_log(LOG_WARNING, "%s: a notification is dropped: %s", connection_title(call.conn).c_str(), why.c_str());
}

static answer_t garbage(call_t &call)
{
    connection_fail(call.conn, "has sent a malformed notification");
    return unanswered();
}

// The registration with the handle that is of the worker's own daemon; null when there is none.
static const std::pair<const std::string, registration_t> *find_handle(const call_t &call, registration_kind_t kind,
                                                                       uint32_t handle)
{
    for (const auto &row : call.server.registry.rows[kind]) {
        const connection_t *owner =
            row.second.handle == handle ? server_find(call.server, row.second.connection) : nullptr;
        if (owner && owner->daemon_id == call.conn.daemon_id)
            return &row;
    }
    return nullptr;
}

static void keep_event(server_t &server, const std::string &stream, const stream_event_t &event)
{
    if (!stream_store_keeps(server.streams.store, stream))
        return;
    ds_error_t error;
    bool is_kept = stream_store_append(server.streams.store, stream, event, error);
    if (!is_kept && !server.streams.is_store_failing)
        agent_log(LOG_ERR, "events of stream %s are not kept: %s", stream.c_str(), error.text.c_str());
    server.streams.is_store_failing = !is_kept;
}

static void take_notification(call_t &call, uint32_t handle, const confd_value_t &time,
                              const std::vector<confd_tag_value_t> &values)
{
    const auto *row = find_handle(call, REGISTRATION_STREAM, handle);
    if (!row)
        return drop(call, "its daemon has no stream with handle " + std::to_string(handle));
    stream_event_t event;
    if (time.type != C_DATETIME || !stream_time_from_datetime(time.val.datetime, &event.time_us))
        return drop(call, "its time does not exist");
    op_document_t document;
    ds_error_t error;
    if (!op_read_notification(*call.server.store, values, document, error))
        return drop(call, error.text);
    event.document = op_json(document, true);
    std::string stream = row->first;
    call.server.streams.sent[stream]++;
    keep_event(call.server, stream, event);
    stream_tell_subscribers(call.server, stream, event);
}

static answer_t notify(call_t &call)
{
    uint32_t handle = call.in.u32();
    value_holder time(call.in);
    std::vector<confd_tag_value_t> values = wire_get_tag_values(call.in);
    bool is_good = call.in.finished();
    if (is_good)
        take_notification(call, handle, time.value, values);
    wire_free_tag_values(values);
    return is_good ? unanswered() : garbage(call);
}

// ---- SNMP

static std::string varbind_text(const schema_t &schema, std::string_view name, const confd_value_t &from)
{
    const schema_info_t *leaf = schema_find_mib_leaf(schema, name);
    value_t value;
    ds_error_t ignored; // the variable is told as it came
    if (leaf && value_from_confd(schema, *leaf, from, name, value, ignored))
        return std::string(value_text(value));
    return value_text_without_type(schema, from);
}

bool stream_read_snmp(const schema_t &schema, wire_reader_t &in, uint32_t *handle, snmp_notification_t *notification,
                      size_t *left_out)
{
    *left_out = 0;
    *handle = in.u32();
    notification->notify_name = in.text();
    notification->notification = in.text();
    for (uint32_t left = in.count(MIN_VARBIND_SIZE); left > 0 && in.ok; left--) {
        std::string name(in.text());
        value_holder value(in);
        if (!in.ok)
            break;
        if (notification->varbinds.size() < MAX_VARBINDS)
            notification->varbinds.push_back({ name, varbind_text(schema, name, value.value) });
        else
            ++*left_out;
    }
    return in.finished() && !notification->notification.empty() && notification->notification.size() <= MAX_SNMP_NAME &&
           notification->notify_name.size() <= MAX_SNMP_NAME;
}

static answer_t notify_snmp(call_t &call)
{
    uint32_t handle = 0;
    snmp_notification_t notification;
    size_t left_out = 0;
    if (!stream_read_snmp(datastore_schema(*call.server.store), call.in, &handle, &notification, &left_out))
        return garbage(call);
    if (left_out > 0)
        agent_log(LOG_WARNING, "%s: %s has %zu variables more than the %zu that are sent; they are dropped",
                  connection_title(call.conn).c_str(), notification.notification.c_str(), left_out, MAX_VARBINDS);
    const auto *row = find_handle(call, REGISTRATION_SNMP_NOTIF, handle);
    if (!row) {
        drop(call, "its daemon has no SNMP notifications with handle " + std::to_string(handle));
        return unanswered();
    }
    notification.time_us = stream_time_now();
    notification.context = row->second.context;
    if (notification.notify_name.empty())
        notification.notify_name = row->first;
    call.server.streams.snmp_sent++;
    call.server.streams.snmp_sender->send(call.server, notification);
    return unanswered();
}

static constexpr op_row_t rows_of_ops[] = {
    { WIRE_NOTIFY_SEND, notify },
    { WIRE_NOTIFY_SNMP, notify_snmp },
};

std::span<const op_row_t> worker_ops()
{
    return rows_of_ops;
}
