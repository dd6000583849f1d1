// Data as text for the operator.
#ifndef AGENT_CLI_RENDER_H
#define AGENT_CLI_RENDER_H

#include "agent/cli/schema.h"

#include <memory>
#include <string>

struct lyd_freer {
    void operator()(lyd_node *node) const { lyd_free_all(node); }
};
using lyd_ptr = std::unique_ptr<lyd_node, lyd_freer>; // all siblings

enum class format_t {
    TREE,
    SET,
    JSON,
    XML
};

// Reads a JSON document of the agent. An empty document is an empty tree.
[[nodiscard]] bool render_read(const schema_t &schema, const std::string &document, lyd_ptr &tree, cli_error_t &error);

// The whole tree in the format; empty text for an empty tree, but JSON is a document then too. TREE: one line a node, two blanks of indent a level, list
// entries with their keys, in schema order. SET: commands that make the configuration.
[[nodiscard]] std::string render(const lyd_node *tree, format_t format);

#endif
