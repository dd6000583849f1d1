// Walks: a subtree told in pages, of any size, in memory that does not grow with it.
//
// A walk of a transaction tells its view of the configuration. A walk without one tells operational data: what is
// stored, merged with what daemons provide, below the configured instances that it stands in. It goes by an explicit
// stack of frames and comes back to a place by keys, so what changes between two pages is met or missed, but never in
// its way. A walk belongs to its session and holds no lock; it ends when all is told, when it fails, and with its
// session.
//
// A container without presence and a configured entry are told when the first of what is in them is. What a callpoint
// does not give becomes a note in its place; the walk fails when it is of that callpoint's data alone.
#ifndef AGENT_SERVER_WALK_H
#define AGENT_SERVER_WALK_H

#include "agent/server/callback_trans.h"
#include "agent/server/datastore.h"
#include "agent/server/dispatch.h"
#include "agent/server/path.h"
#include "agent/server/provider.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <vector>

struct lyd_node;
struct connection_t;

// An instance in one of the stored trees. The root is there and has no node.
struct walk_place_t {
    bool is_there = false;
    lyd_node *node = nullptr;
};

struct walk_frame_t {
    const schema_info_t *node = nullptr; // null: the root
    bool is_list = false;                // goes through a list's entries; otherwise through an instance's children
    bool has_item = false; // an instance below the ground: told by an item, with an end behind its content
    bool is_told = false;  // the item
    bool is_real = true;   // the entries and containers with presence that it stands in are there
    entry_keys_t keys;     // of an entry
    size_t next_child = 0;

    entry_keys_t last; // of a stored list: the entry before
    size_t position = 0;
    provider_object_ref object;           // of a provided instance
    provider_cursor_ref cursor;           // of a provided list
    std::deque<provider_object_ref> page; // its entries that are still to be told

    bool is_bound = false; // the places are those of now
    walk_place_t config;
    walk_place_t oper;
};

struct walk_t {
    uint32_t id = 0;
    uint64_t connection = 0; // serial
    uint32_t th = 0;         // 0: operational data
    bool with_defaults = false;
    path_t target;
    path_t ground;                   // what the target stands in
    path_t path;                     // of the innermost frame's instance
    std::deque<walk_frame_t> frames; // the first is the ground, whose only child here is the target
    std::vector<const schema_info_t *> tops;
    callback_trans_ref daemons;
    std::set<std::string> unserved; // callpoints that have their note

    // Of the page in the making.
    std::deque<wire_writer_t> items; // one each
    size_t bytes = 0;                // of the items but the last
    uint32_t most = 0;
    size_t steps = 0;
    bool is_running = false; // on the stack
    bool is_waiting = false; // for a provider
    bool is_deferred = false;
    request_ref_t ref;
    answer_t failure;
};
using walk_ref = std::shared_ptr<walk_t>;

// Ends the walks of a session; their requests are answered by nobody.
struct maapi_session_t;
void walk_end_all(server_t &server, maapi_session_t &session);

// Ends the walk for whose page the connection waits; false when it waits for none.
[[nodiscard]] bool walk_interrupt(server_t &server, uint64_t connection);

// ---- between walk.cc and walk_step.cc

// Puts the walk before its target.
void walk_begin(walk_t &walk, const schema_t &schema);
// Goes on until the page is full, the walk ends, fails or waits.
void walk_run(server_t &server, walk_t &walk, view_t view);
// Goes on behind an answer of a provider, from the event loop.
void walk_resume(server_t &server, walk_t &walk);

#endif
