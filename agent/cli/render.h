// Data as text for the operator. A renderer takes one item after the other and writes what it can as soon as it can.
#ifndef AGENT_CLI_RENDER_H
#define AGENT_CLI_RENDER_H

#include "agent/cli/item.h"
#include "agent/cli/output.h"

#include <functional>
#include <memory>

enum class format_t : uint8_t {
    TREE,
    TABLE,
    SET,
    JSON,
    XML
};

struct renderer_t {
    std::function<bool(const item_t &item)> take; // false when nobody reads on
    std::function<bool()> end;                    // after the last item: writes what is still held back
};

// A renderer of a state that has both functions, and that it keeps.
template <typename State> renderer_t render_of(std::shared_ptr<State> state)
{
    return { [state](const item_t &item) { return state->take(item); },
             [state] {
                 return state->end();
             } };
}

struct render_options_t {
    format_t format = format_t::TREE;
    size_t width = 0; // of a table: the room on a line; 0: any
    size_t outer = 0; // of a table: so many first containers and entries are shown as a tree, what they hold as tables
    bool has_titles = false; // of tables at the top too: the list's name stands above
};

// TREE: one line a node, two blanks of indent a level, entries with their keys; containers that hold nothing are left
// out. TABLE: the same, but outermost lists are tables. SET: commands that make the configuration. JSON and XML: a
// document.
[[nodiscard]] renderer_t render_make(const schema_t &schema, output_t &output, const render_options_t &options);

// Makers of the single files, for render_make.
[[nodiscard]] renderer_t render_make_json(output_t &output);
[[nodiscard]] renderer_t render_make_xml(output_t &output);
[[nodiscard]] renderer_t render_make_table(const schema_t &schema, output_t &output, const render_options_t &options);

#endif
