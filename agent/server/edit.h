// Edits of a tree by the rules of YANG (RFC 7950, sections 3 and 7): entries and containers above come into being, a
// node of one case drives out those of others, what goes back to its default gets it, containers without presence are
// always there. Every elementary change is in the log.
//
// Operational trees are edited by the same functions; they have no defaults.
#ifndef AGENT_SERVER_EDIT_H
#define AGENT_SERVER_EDIT_H

#include "agent/server/edit_log.h"
#include "agent/server/path.h"

#include <span>
#include <vector>

// How much of the path an edit found in place and how much it made: a later repetition that finds less has lost its
// ground.
struct edit_ground_t {
    size_t made = 0; // list entries and presence containers made above the node itself
};

[[nodiscard]] bool edit_set(edit_log_t &log, const path_t &path, const value_t &value, edit_ground_t &ground,
                            ds_error_t &error);
// All values of a leaf-list.
[[nodiscard]] bool edit_set_list(edit_log_t &log, const path_t &path, std::span<const value_t> values,
                                 edit_ground_t &ground, ds_error_t &error);
[[nodiscard]] bool edit_create(edit_log_t &log, const path_t &path, edit_ground_t &ground, ds_error_t &error);
[[nodiscard]] bool edit_delete(edit_log_t &log, const path_t &path, ds_error_t &error);
// An entry of a user-ordered list or leaf-list, to another place among its siblings; `to` are the keys of the other
// one.
[[nodiscard]] bool edit_move(edit_log_t &log, const path_t &path, wire_move_t where, std::span<const value_t> to,
                             ds_error_t &error);

// The instance, made with all above it when it is not there; null, with the error, when libyang refuses.
[[nodiscard]] lyd_node *edit_ensure(edit_log_t &log, std::span<const path_step_t> steps, edit_ground_t &ground,
                                    ds_error_t &error);

#endif
