// Data as a sequence of items, in the order in which they are shown: what a walk of the agent gives, and what documents
// are turned into. Renderers take items, so that no tree need be in memory.
#ifndef AGENT_CLI_ITEM_H
#define AGENT_CLI_ITEM_H

#include "agent/cli/path.h"
#include "agent/wire/wire.h"

#include <string>
#include <vector>

struct item_t {
    wire_walk_item_t kind = WIRE_WALK_END;
    std::string name;                // of the node, without its module; of a note its text
    std::vector<std::string> values; // keys of an entry, value of a leaf, values of a leaf-list
    const lysc_node *node = nullptr; // null: the models here do not know it
    std::string key;                 // name of the only key of an entry that the models do not know
};

// Names of the entry's keys, one for each value.
[[nodiscard]] std::vector<std::string> item_key_names(const item_t &entry);

// Follows a sequence of items through the models, and gives each its node. place is where the sequence starts: the node
// above its first items (null: the top).
class item_tracker_t
{
public:
    item_tracker_t(const schema_t &schema, const lysc_node *place) : schema_(schema), above_{ place } {}
    // name is as in JSON documents. A secret that would stand in clear text is covered.
    void take(item_t &item);

private:
    const lysc_node *find(const std::string &name) const;

    const schema_t &schema_;
    std::vector<const lysc_node *> above_; // innermost last; null below a node that is not known
};

// Covers the value of a secret that stands in clear text.
void item_cover_secret(item_t &item);

// The node's name as it is typed below its parent: with the module's prefix where two modules use it.
[[nodiscard]] std::string item_typed_name(const schema_t &schema, const item_t &item);

// The items that stand around those at path: containers and entries from the top to above its last node.
[[nodiscard]] std::vector<item_t> items_around(const path_t &path);

#endif
