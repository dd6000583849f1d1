// The data models as the command line sees them: nodes by name, help texts, and what a leaf's value may be.
//
// The models are the .yang files of one folder, the same that the agent loads. Nodes live as long as the schema.
#ifndef AGENT_CLI_SCHEMA_H
#define AGENT_CLI_SCHEMA_H

#include "agent/cli/words.h"

#include <libyang/libyang.h>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct ly_ctx_freer {
    void operator()(ly_ctx *ctx) const { ly_ctx_destroy(ctx); }
};
using ly_ctx_ptr = std::unique_ptr<ly_ctx, ly_ctx_freer>;

struct schema_t {
    ly_ctx_ptr ctx;
    std::vector<const lysc_node *> roots; // top-level data nodes
    std::vector<const lysc_node *> rpcs;
    std::vector<const lysc_node *> notifications; // top-level ones
};

// One word that could be typed.
struct choice_t {
    std::string text;            // the word; of a placeholder what stands for it, such as "<0..100>"
    std::string help;            // one line
    bool is_placeholder = false; // to be shown, never to be inserted
};

// Loads all models of folder; library_folder holds the common ones they import.
[[nodiscard]] bool schema_load(const std::string &folder, const std::string &library_folder, schema_t &schema,
                               cli_error_t &error);

// Data nodes directly below parent (null: the top), in schema order; no actions, no notifications.
[[nodiscard]] std::vector<const lysc_node *> schema_children(const schema_t &schema, const lysc_node *parent);
// By "name" or "prefix:name"; null when there is none.
[[nodiscard]] const lysc_node *schema_find_child(const schema_t &schema, const lysc_node *parent,
                                                 std::string_view name);
// The same in a set of nodes.
[[nodiscard]] const lysc_node *schema_find_in(const std::vector<const lysc_node *> &nodes, std::string_view name);
// Actions of the node, or the rpcs at the top.
[[nodiscard]] std::vector<const lysc_node *> schema_actions(const schema_t &schema, const lysc_node *parent);
// True when an action stands at the node or below it.
[[nodiscard]] bool schema_leads_to_action(const lysc_node *node);
// True when data can stand at the node or below it, so that there may be something to show.
[[nodiscard]] bool schema_leads_to_data(const lysc_node *node);
// What the path of an action may begin with: rpcs, and top-level nodes that lead to actions.
[[nodiscard]] std::vector<const lysc_node *> schema_action_roots(const schema_t &schema);
// What holds the parameters, and the results, of an action: a parent for the functions above.
[[nodiscard]] const lysc_node *schema_input(const lysc_node *action);
[[nodiscard]] const lysc_node *schema_output(const lysc_node *action);
[[nodiscard]] std::vector<const lysc_node *> schema_keys(const lysc_node *list);

[[nodiscard]] bool schema_is_leaf(const lysc_node *node);
[[nodiscard]] bool schema_is_leaf_list(const lysc_node *node);
[[nodiscard]] bool schema_is_list(const lysc_node *node);
[[nodiscard]] bool schema_is_config(const lysc_node *node);
// A leaf without a value: it is there or not.
[[nodiscard]] bool schema_is_empty_leaf(const lysc_node *node);
// Can be created by itself: a presence container.
[[nodiscard]] bool schema_is_presence(const lysc_node *node);

// A list or leaf-list whose order is the operator's.
[[nodiscard]] bool schema_is_user_ordered(const lysc_node *node);
// A leaf that is stored encrypted: what is typed for it is neither echoed nor kept.
[[nodiscard]] bool schema_is_secret(const lysc_node *node);
// A leaf whose words a program of the device gives.
[[nodiscard]] bool schema_has_completion(const lysc_node *leaf);
// The leaf that a reference points to; null for all others.
[[nodiscard]] const lysc_node *schema_referenced(const lysc_node *leaf);
// The name as in JSON documents: "module:name" where the parent is of another module.
[[nodiscard]] std::string schema_json_name(const lysc_node *node);

// One line about the node for help: its info statement, else the first sentence of its description.
[[nodiscard]] std::string schema_help(const lysc_node *node);
// What a value of the leaf or leaf-list must be, for people: "0..65529", "primary, secondary", "1..32 characters".
[[nodiscard]] std::string schema_rule(const lysc_node *leaf);
// The values of an enumeration, bits, boolean or identity; else one placeholder that shows the rule. Their help tells
// the default, and of a placeholder whether the leaf is mandatory.
[[nodiscard]] std::vector<choice_t> schema_values(const lysc_node *leaf);
// The base type that the value has in the leaf: for a union that of the member that takes it.
[[nodiscard]] LY_DATA_TYPE schema_value_type(const lysc_node *leaf, const std::string &value);
// The label of an enumeration's number; empty when it has none.
[[nodiscard]] std::string schema_enum_label(const lysc_node *leaf, int32_t number);
// Judges the text by the leaf's type alone. On failure rule says which rule it breaks.
[[nodiscard]] bool schema_check_value(const lysc_node *leaf, const std::string &text, std::string &rule);

#endif
