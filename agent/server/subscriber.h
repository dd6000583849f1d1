// Subscriptions: the points that clients have asked for, and what each subscriber is being served.
//
// A point belongs to a subscription connection and counts once that has said WIRE_SUB_DONE. Point ids are unique in the
// agent's life time and ascend in the order of subscribing.
#ifndef AGENT_SERVER_SUBSCRIBER_H
#define AGENT_SERVER_SUBSCRIBER_H

#include "agent/server/datastore.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct server_t;

struct point_t {
    int32_t id = 0;
    uint64_t connection = 0;
    uint8_t kind = 0; // wire_sub_kind_t
    int32_t priority = 0;
    std::string path; // as subscribed
    path_t target;
    bool is_live = false; // WIRE_SUB_DONE has come
    uint64_t deliveries = 0;
    double last_ms = 0; // from event to sync, of the last delivery
};

struct subscriptions_t {
    std::map<int32_t, point_t> points;
    int32_t next_id = 1;
};

// Of a subscription connection.
struct subscriber_t {
    size_t num_points = 0;
    bool is_done = false;                   // WIRE_SUB_DONE has come
    uint8_t event_type = 0;                 // being served; 0 none
    std::vector<int32_t> points;            // of that event
    std::vector<const diff_node_t *> nodes; // given out by WIRE_SUB_DIFF; a node's number is its index plus one
};

#endif
