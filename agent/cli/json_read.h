// JSON documents of the agent (results of actions, notifications, its state) as items.
#ifndef AGENT_CLI_JSON_READ_H
#define AGENT_CLI_JSON_READ_H

#include "agent/cli/item.h"

// What the members of a document are in the models: all of schema below parent, or nothing (a null schema).
struct json_place_t {
    const schema_t *schema = nullptr;
    std::vector<const lysc_node *> nodes; // that the members of the outermost object may be
};

// The members of the document's object. Documents deeper than 64 levels, or that are no JSON, are refused. An entry's
// keys are those of its list; where the models do not know it, its first member.
[[nodiscard]] bool json_read_items(const json_place_t &place, std::string_view document, std::vector<item_t> &items,
                                   cli_error_t &error);

#endif
