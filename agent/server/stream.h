// Notification streams: from a daemon's worker connection to the replay store and to those who have subscribed.
//
// stream.cc takes notifications, judges them by the model and hands them on; a notification that does not fit is logged
// and dropped, as nobody waits for an answer. stream_subscriber.cc serves subscribers: a replay in slices between other
// work, live events held back behind it, then live, until the stop time. A subscriber that does not read is bounded
// like every client.
#ifndef AGENT_SERVER_STREAM_H
#define AGENT_SERVER_STREAM_H

#include "agent/server/handle.h"
#include "agent/server/json.h"
#include "agent/server/snmp_sender.h"
#include "agent/server/stream_store.h"
#include "agent/wire/wire.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct server_t;

struct stream_subscriber_t {
    server_t *server = nullptr;
    uint64_t connection = 0;
    std::string stream;
    int64_t start_us = INT64_MIN; // of the replay
    int64_t stop_us = INT64_MAX;
    bool is_replaying = false;
    stream_reader_t reader;
    std::deque<stream_event_t> held_back; // live events during the replay
    size_t held_back_bytes = 0;
    owned_event timer; // the next slice, or the stop time
};

struct streams_t {
    stream_store_t store;
    bool is_store_failing = false;                                        // told in the log once
    std::map<uint64_t, std::unique_ptr<stream_subscriber_t>> subscribers; // by connection
    std::map<std::string, uint64_t> sent;                                 // events since the start, by stream
    const snmp_sender_t *snmp_sender = &snmp_recorder;
    uint64_t snmp_sent = 0;
    uint64_t dropped = 0; // notifications that did not fit
};

// Opens the replay store of the configuration.
void streams_start(server_t &server);

// Gives an event to the stream's subscribers; see stream.cc for the store.
void stream_tell_subscribers(server_t &server, const std::string &stream, const stream_event_t &event);
// The connection is going.
void stream_forget(server_t &server, uint64_t connection);

// Registered streams and those that the store knows.
[[nodiscard]] std::vector<std::string> stream_names(const server_t &server);
void streams_put_status(server_t &server, json_writer_t &json);

// False for a time that does not exist. A time without a zone is UTC; what is given back is UTC.
[[nodiscard]] bool stream_time_from_datetime(const confd_datetime &time, int64_t *time_us);
[[nodiscard]] confd_datetime stream_time_to_datetime(int64_t time_us);
[[nodiscard]] int64_t stream_time_now();

// The payload of WIRE_NOTIFY_SNMP, read within its bounds; the variables as texts by the model. left_out: how many are
// too many, and not kept.
struct schema_t;
[[nodiscard]] bool stream_read_snmp(const schema_t &schema, wire_reader_t &in, uint32_t *handle,
                                    snmp_notification_t *notification, size_t *left_out);

#endif
