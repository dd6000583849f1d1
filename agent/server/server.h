// The state of agentd in one record, and the ways in which its rooms reach each other.
//
// One thread, one event loop; everything here belongs to it. connection.cc brings frames in and out, dispatch.cc finds
// their handlers, which stand in the file of their kind of connection; commit.cc is the queue of what changes running
// or delivers data, delivery.cc serves subscribers level by level.
#ifndef AGENT_SERVER_SERVER_H
#define AGENT_SERVER_SERVER_H

#include "agent/server/action.h"
#include "agent/server/commit.h"
#include "agent/server/config.h"
#include "agent/server/connection.h"
#include "agent/server/datastore.h"
#include "agent/server/delivery.h"
#include "agent/server/dispatch.h"
#include "agent/server/handle.h"
#include "agent/server/lock.h"
#include "agent/server/point.h"
#include "agent/server/registry.h"
#include "agent/server/stream.h"

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

// How many numbers wire_db_t has, 0 included.
inline constexpr size_t DB_COUNT = 5;

struct server_t {
    agent_config_t config;
    std::string secret; // asked for in hellos; empty: none
    std::string crypto_keys;
    time_t started = 0;

    owned_event_base base;
    std::map<uint64_t, std::unique_ptr<connection_t>> connections; // by serial
    uint64_t next_serial = 1;
    owned_listener listener;
    owned_event accept_pause; // while descriptors are short
    owned_event stop_signals[2];

    uint32_t phase = 0;
    std::vector<request_ref_t> waiting_for_start;

    datastore_ptr store;
    point_tables_t points;
    trans_ptr init_trans; // phase 1 only; null while it is being judged
    uint32_t init_th = 0;
    callback_trans_ref init_daemons; // phase 1 only: who has been told of it
    uint32_t candidate_holder = 0;   // session that has locked the candidate; 0: free
    std::string candidate_holder_name;
    lock_t cdb_locks[DB_COUNT]; // of CDB sessions
    registry_t registry;
    actions_t actions;
    streams_t streams;
    subscriptions_t subscriptions;
    commit_queue_t queue;
    delivery_t delivery;
    std::vector<std::unique_ptr<job_t>> triggers_for_phase_2; // asked for in phase 1
    uint32_t next_session_id = 1;
    uint32_t next_transaction = 1;
};

// Null when the connection is gone or about to go.
[[nodiscard]] connection_t *server_find(server_t &server, uint64_t serial);

// Serves one frame of a connection.
void server_serve(connection_t &conn, const wire_header_t &header, std::string_view payload);

// An operation that is served even while the answer to another request of the connection is still to come.
[[nodiscard]] bool server_is_urgent(const connection_t &conn, uint16_t op);

// Answers a frame that cannot be served, and ends its connection.
void server_refuse_frame(connection_t &conn, const wire_header_t &header, int code, const std::string &text);

// Answers a deferred request; no effect when its connection is gone.
void server_answer(server_t &server, const request_ref_t &ref, const answer_t &answer, std::string_view payload);

// Ends a connection and releases all that it holds. An empty reason is an ordinary end, which is not logged as a fault.
void server_drop(server_t &server, uint64_t serial, const std::string &reason);

// Makes the event loop; the configuration is set.
[[nodiscard]] bool server_prepare(server_t &server, std::string *error);

// Takes over the descriptor of a connected stream socket, which does not block.
void server_adopt(server_t &server, int fd);

// Listens and serves until told to stop. The store is open. False, with *error, when it cannot start.
[[nodiscard]] bool server_run(server_t &server, std::string *error);

// Ends server_run once the answers written so far are on their way.
void server_stop_soon(server_t &server);

// Drops all connections; before the store goes.
void server_close(server_t &server);

#endif
