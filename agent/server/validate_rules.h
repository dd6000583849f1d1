// The single rules of the model, each for one node. False with the error: path, value, rule.
#ifndef AGENT_SERVER_VALIDATE_RULES_H
#define AGENT_SERVER_VALIDATE_RULES_H

#include "agent/server/tree.h"

[[nodiscard]] bool rule_musts(const lyd_node *node, ds_error_t &error);
// Leafrefs and instance-identifiers of a leaf or leaf-list value; anything else is fine.
[[nodiscard]] bool rule_references(tree_t &tree, const lyd_node *node, ds_error_t &error);
// Mandatory nodes and numbers of elements directly below parent (null: top level).
[[nodiscard]] bool rule_children(tree_t &tree, lyd_node *parent, ds_error_t &error);
[[nodiscard]] bool rule_unique(tree_t &tree, lyd_node *parent, const lysc_node *list, ds_error_t &error);

#endif
