// The inside of the datastores: what datastore.cc, view.cc, trans.cc, wish.cc, candidate.cc, read.cc, show.cc and
// oper.cc share.
#ifndef AGENT_SERVER_STORE_H
#define AGENT_SERVER_STORE_H

#include "agent/server/datastore.h"
#include "agent/server/edit.h"
#include "agent/server/edit_log.h"
#include "agent/server/journal.h"
#include "agent/server/tree.h"

// An edit as it was asked for: it can be made again on another state of running.
enum wish_kind_t : uint8_t {
    WISH_SET,
    WISH_SET_LIST,
    WISH_CREATE,
    WISH_DELETE,
    WISH_MOVE, // values: the keys of the other entry
};

struct wish_t {
    wish_kind_t kind;
    path_t path;
    std::vector<value_t> values = {};
    wire_move_t where = WIRE_MOVE_LAST; // WISH_MOVE
    edit_ground_t ground = {};          // what it had to make above, when it was asked for
    size_t first_edit = 0;              // of the transaction's log, that the wish made
};

// What the candidate adds to running. Transactions on it make its wishes below their own.
struct candidate_t {
    std::vector<wish_t> wishes;
    uint64_t generation = 1; // grows with each change
};

struct trans_t {
    datastore_t *store = nullptr;
    bool is_writable = false;
    uint64_t holder = 0;
    std::vector<wish_t> wishes;
    edit_log_t log;
    std::unique_ptr<tree_t> own; // a copy of running that the log is in instead; while mounted: running
    size_t switched = 0;         // edits of the log made again, for nothing but switching views
    uint64_t generation = 0;     // of running, that the log is against
    bool is_on_candidate = false;
    uint64_t candidate_generation = 0;        // of the candidate whose wishes the log begins with
    size_t wishes_taken = 0;                  // of the candidate, at the beginning: see candidate_take
    std::vector<edit_ground_t> grounds_taken; // theirs, as they were in the candidate
    bool is_prepared = false;
    size_t edits_asked_for = 0; // prepared: edits of the log that are not consequences
    size_t wishes_prepared = 0; // wishes judged by trans_prepare
    ds_error_t conflict;        // code 0: none

    explicit trans_t(datastore_t &of);
};

struct datastore_t {
    datastore_options_t options;
    std::unique_ptr<schema_t> schema;
    tree_t running;
    tree_t operational;
    uint64_t generation = 1;    // grows with each commit
    uint64_t changes = 0;       // commits that changed running, of all time
    trans_t *mounted = nullptr; // whose edits stand in running now
    trans_t *prepared = nullptr;
    candidate_t candidate;
    size_t node_count = 0; // of running
    uint64_t counted_generation = 0;
    edit_log_t last_commit{ &running }; // undone while the old view is looked at
    uint64_t lock_holder = 0;           // 0: free
    std::string lock_name;
    journal_t journal;

    ~datastore_t();
};

// Brings running into the state that the view shows. A transaction in conflict shows running.
void store_show_view(datastore_t &store, view_t view);

// The transaction's edits are in running's own tree again when they are looked at next.
void store_go_home(trans_t &trans);

// The tree that a node of the path belongs to, in the state of the view; the root: running.
[[nodiscard]] tree_t &store_tree(datastore_t &store, view_t view, const path_t &path);

// Makes the wish in the log, and notes in it what it had to make above.
[[nodiscard]] bool wish_apply(edit_log_t &log, wish_t &wish, ds_error_t &error);

// Wishes that make the changes of a diff again.
[[nodiscard]] std::vector<wish_t> wishes_of(const diff_t &diff);

// The journal's form: u32 n, n * (u8 wish_kind_t, text path, u32 n, n * text value); of WISH_MOVE the keys of the entry
// before, none for the first.
[[nodiscard]] std::string wishes_record(const std::vector<wish_t> &wishes);
// Makes the wishes of a record; when it fails the log holds those before.
[[nodiscard]] bool wishes_replay(edit_log_t &log, const schema_t &schema, std::string_view record, ds_error_t &error);

#endif
