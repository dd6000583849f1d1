// The undo log of a tree: elementary changes that can be taken back and made again any number of times.
//
// The log owns what is detached: nodes that were taken out while the changes stand, nodes that were put in while they
// do not. Between undo and redo nobody else may change the tree. Costs go by the number of changes.
#ifndef AGENT_SERVER_EDIT_LOG_H
#define AGENT_SERVER_EDIT_LOG_H

#include "agent/server/tree.h"
#include "agent/server/value.h"

#include <cstdint>
#include <unordered_set>
#include <vector>

// Flags of a leaf that come and go with its value: a value that is new has not been judged by its when.
inline constexpr uint32_t EDIT_FLAGS = LYD_DEFAULT | LYD_WHEN_TRUE;

enum edit_kind_t : uint8_t {
    EDIT_LINK,
    EDIT_UNLINK,
    EDIT_VALUE, // of a leaf, with its default flag
    EDIT_MOVE,  // among the entries of a user-ordered list
};

struct edit_t {
    edit_kind_t kind;
    uint32_t other_flags = 0; // EDIT_VALUE: those of EDIT_FLAGS that go with other
    lyd_node *node;
    lyd_node *parent = nullptr; // null: top level
    lyd_node *prev = nullptr;   // user-ordered: the entry before it; EDIT_MOVE: in the place where it is not now
    value_t other;              // EDIT_VALUE: the value that is not in the tree
};

struct edit_log_t {
    tree_t *tree = nullptr;
    std::vector<edit_t> edits;
    bool is_applied = true;

    explicit edit_log_t(tree_t *of) : tree(of) {}
    edit_log_t(edit_log_t &&other) noexcept;
    edit_log_t &operator=(edit_log_t &&other) noexcept;
    ~edit_log_t();
};

// A node that stands in the tree already, as libyang has put it there (last of its schema node).
void log_linked(edit_log_t &log, lyd_node *node);
void log_unlink(edit_log_t &log, lyd_node *node);
// Gives the leaf another value, which is not a default.
void log_change(edit_log_t &log, lyd_node *leaf, value_t value);

// Puts an entry of a user-ordered list behind another one; prev null: makes it the first.
void log_move(edit_log_t &log, lyd_node *node, lyd_node *prev);

// The entry before this one of a user-ordered list, null for the first.
[[nodiscard]] lyd_node *entry_before(const lyd_node *node);

// Takes back everything behind the first count changes, for good.
void log_rollback(edit_log_t &log, size_t count);
void log_undo(edit_log_t &log);
void log_redo(edit_log_t &log);
// Frees what is detached and forgets the changes; the tree stays as it is.
void log_forget(edit_log_t &log);

// Nodes that are out of the tree as it stands.
[[nodiscard]] std::unordered_set<const lyd_node *> log_detached(const edit_log_t &log);

// Carries the set on by one change that stands.
void log_note_detached(std::unordered_set<const lyd_node *> &detached, const edit_t &edit);

// Does the node stand in the tree, given what is detached?
[[nodiscard]] bool is_attached(const std::unordered_set<const lyd_node *> &detached, const lyd_node *node);

#endif
