// What stands in a tree of configuration without having been set: defaults, containers without presence, and the choice
// between cases.
#ifndef AGENT_SERVER_IMPLICIT_H
#define AGENT_SERVER_IMPLICIT_H

#include "agent/server/edit_log.h"

// Adds the missing implicit nodes directly below parent (null: top level) and in all containers that this makes, and
// takes out the defaults of cases that are not in force.
void implicit_fill(edit_log_t &log, lyd_node *parent);

// As above, for one child of parent and its case.
void implicit_fill_child(edit_log_t &log, lyd_node *parent, const lysc_node *schema);

// As implicit_fill, for parent and everything below it.
void implicit_fill_tree(edit_log_t &log, lyd_node *parent);

// Takes out the nodes of other cases than that of the node, which has just been linked.
void implicit_leave_other_cases(edit_log_t &log, lyd_node *node);

// Do all when statements over a node of this schema below parent hold? node may be null when there is none.
[[nodiscard]] bool implicit_when_holds(tree_t &tree, lyd_node *parent, const lysc_node *schema, lyd_node *node);

// Is the schema node in a case of a choice?
[[nodiscard]] inline bool is_in_case(const lysc_node *schema)
{
    return schema->parent && schema->parent->nodetype == LYS_CASE;
}

#endif
