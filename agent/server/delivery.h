// One delivery to subscribers: levels of ascending priority, each sent to all its clients at once and synced by all of
// them before the next.
//
// A client that dies in between is left out, one that stalls past the time-out is disconnected; a delivery always ends.
// commit.cc decides what is delivered and when; at most one delivery is in progress.
#ifndef AGENT_SERVER_DELIVERY_H
#define AGENT_SERVER_DELIVERY_H

#include "agent/server/dispatch.h"
#include "agent/server/handle.h"

#include <cstdint>
#include <span>
#include <vector>

// Of WIRE_SUB_EVENT.
enum delivery_type_t : uint8_t {
    DELIVERY_NONE = 0,
    DELIVERY_PREPARE = 1,
    DELIVERY_COMMIT = 2,
    DELIVERY_ABORT = 3,
    DELIVERY_OPER = 4,
};

struct served_client_t {
    uint64_t connection = 0;
    std::vector<int32_t> points; // ascending, which is the order of subscribing
    bool is_done = false;        // synced, refused, or gone
};

struct level_t {
    int32_t priority = 0;
    std::vector<served_client_t> clients;
};

struct delivery_t {
    delivery_type_t type = DELIVERY_NONE;
    uint32_t flags = 0;
    std::vector<level_t> levels;
    size_t at = 0;               // the level being served
    double level_start_ms = 0;   // monotonic
    answer_t refusal;            // of a prepare, in the words of the client
    std::vector<int32_t> agreed; // points whose clients have synced a prepare
    owned_event timeout;
};

[[nodiscard]] bool delivery_init(server_t &server);

// Starts to deliver points of live subscriptions. Its type is DELIVERY_NONE again, and the commit queue scheduled, when
// all is done: at once when there is nobody to serve.
void delivery_start(server_t &server, delivery_type_t type, uint32_t flags, std::span<const int32_t> points);

// Goes on behind a level that all have synced. Not called below the handler of a sync: a client waits for the answer to
// its sync before it looks for events, so the next level's event has to come behind the answer.
void delivery_step(server_t &server);

// The connection's client is gone: nobody waits for it, and its points are forgotten.
void delivery_forget(server_t &server, const connection_t &conn);

// The connection's client has done its part of the level, or has refused the prepare.
void delivery_synced(server_t &server, connection_t &conn);
void delivery_refused(server_t &server, connection_t &conn, answer_t refusal);

// Monotonic time in milliseconds.
[[nodiscard]] double monotonic_ms();

#endif
