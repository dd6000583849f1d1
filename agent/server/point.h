// Points of the data model that daemons serve while a transaction is applied: which nodes have one, and calls of them,
// one at a time.
//
// hook.h and valpoint.h say who is called for what; both wait for an answer by leaving their stack: once it has come,
// the commit queue goes on with the job that asked. An answer to a job that has ended meanwhile is dropped.
#ifndef AGENT_SERVER_POINT_H
#define AGENT_SERVER_POINT_H

#include "agent/server/callback_trans.h"
#include "agent/server/diff.h"
#include "agent/server/dispatch.h"
#include "agent/server/registry.h"
#include "agent/server/schema.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// The points of one statement, by index of the node; computed once.
struct point_table_t {
    bool is_empty = true;
    std::vector<std::vector<const std::string *>> names; // a node's own, in the order of the model
    std::vector<bool> holds;                             // one stands at the node or below it

    [[nodiscard]] const std::vector<const std::string *> &names_of(const schema_info_t &node) const
    {
        return names[node.index];
    }
    [[nodiscard]] bool is_at_or_below(const schema_info_t &node) const { return holds[node.index]; }
};
[[nodiscard]] point_table_t point_table_make(const schema_t &schema, std::string_view statement);

// Of a server: the points that are called in transactions.
struct point_tables_t {
    point_table_t hooks;
    point_table_t valpoints;
};

// How a run over all points that a transaction concerns stands.
enum run_state_t : uint8_t {
    RUN_WAITING, // for an answer
    RUN_DONE,
    RUN_FAILED,
};

struct point_call_t {
    const std::string *point = nullptr;  // its name
    const schema_info_t *at = nullptr;   // the node that names the point
    const diff_node_t *change = nullptr; // lives as long as the run's changes
    uint16_t op = 0;                     // WIRE_CB_*
    std::string payload;                 // keypath and value
};

// Who asks, and what came of it.
struct point_asker_t {
    registration_kind_t kind = REGISTRATION_DATA;
    callback_trans_ref daemons;
    struct answer_box_t {
        bool is_pending = false;
        int code = CONFD_ERR_OK;
        std::string text;
    };
    std::shared_ptr<answer_box_t> answer = std::make_shared<answer_box_t>();
    std::string progress; // told to the committer last
};

// what is what the daemon is asked for, and progress what is told to the committer, both for people. The registration
// is in force.
void point_ask(server_t &server, point_asker_t &asker, const point_call_t &call, std::string what,
               const std::string &progress);

// "cfgmgr (pid 12)": who has registered.
[[nodiscard]] std::string point_owner(server_t &server, const registration_t &registration);

// For a point that changed and that nobody serves.
[[nodiscard]] answer_t point_unserved(const char *kind, const std::string &point, const std::string &path);

#endif
