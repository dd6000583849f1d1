// Which rules of the model look at which nodes, and small walks over rules.
#ifndef AGENT_SERVER_SCHEMA_RULES_H
#define AGENT_SERVER_SCHEMA_RULES_H

#include "agent/server/ly_array.h"
#include "agent/server/schema.h"

#include <libyang/libyang.h>

// Fills the dependents of all nodes.
void schema_find_rules(schema_t &schema);

// Calls visit(when) for each when statement that decides over the node: its own and those of the choices and cases
// around it. Ends early, with false, when visit gives false.
template <typename Visit> bool for_each_when(const lysc_node *node, Visit visit)
{
    for (const lysc_node *at = node; at; at = at->parent) {
        if (at != node && !(at->nodetype & (LYS_CHOICE | LYS_CASE)))
            break;
        lysc_when **whens = lysc_node_when(at);
        for (size_t u = 0; u < ly_count(whens); u++) {
            if (!visit(*whens[u]))
                return false;
        }
    }
    return true;
}

[[nodiscard]] inline bool has_when(const lysc_node *node)
{
    return !for_each_when(node, [](const lysc_when &) { return false; });
}

#endif
