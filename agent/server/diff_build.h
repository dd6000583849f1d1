// Makes a diff_t from the log of a transaction: what is touched is looked up once in the old view and once in the new
// one, so that edits that cancel out do not show. Cost by the number of edits and the size of what was created or
// deleted.
#ifndef AGENT_SERVER_DIFF_BUILD_H
#define AGENT_SERVER_DIFF_BUILD_H

#include "agent/server/diff.h"
#include "agent/server/edit_log.h"

// The log's changes against the tree without them. The log is left as it was (undone and redone in between). is_oper:
// configured nodes of an operational tree only hold operational data: one that is new there counts as modified.
[[nodiscard]] diff_ptr diff_build(edit_log_t &log, bool is_oper);

// All that is set in a tree, as created.
[[nodiscard]] diff_ptr diff_build_all(tree_t &tree, bool is_oper);

#endif
