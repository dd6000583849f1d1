// What changed: a tree of the changed nodes, independent of the trees that it was made from.
//
// Values that are only defaults do not count: a leaf that goes back to its default is deleted. A leaf or leaf-list that
// has a value of its own is WIRE_MOP_VALUE_SET; list entries, presence containers and leaves of type empty are created
// and deleted; whatever has a change below it, and every container without presence, is modified. Below a deleted entry
// or presence container nothing is told. Below a created one stands all that it holds, keys included. An entry of a
// user-ordered list that is in another place among those that were there is WIRE_MOP_MOVED_AFTER, with its other
// changes below; as few entries as possible are told as moved, and none that no edit has touched.
#ifndef AGENT_SERVER_DIFF_H
#define AGENT_SERVER_DIFF_H

#include "agent/server/path.h"
#include "agent/server/schema.h"
#include "agent/server/value.h"
#include "agent/wire/wire.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct diff_node_t {
    const schema_info_t *schema = nullptr; // null in the root
    const diff_node_t *parent = nullptr;
    wire_iter_op_t op = WIRE_MOP_MODIFIED;
    std::vector<value_t> keys;  // of a list entry
    std::vector<value_t> place; // keys of the entry before a created or moved one of a user-ordered list; first: none
    bool is_placed = false;     // it has to be put there: it does not simply stand behind all that were there
    std::vector<value_t> old_values; // of a leaf: none or one; of a leaf-list: all
    std::vector<value_t> new_values;
    // In the order of the model, entries of one list in key order (user-ordered ones in theirs, deleted ones first).
    std::vector<std::unique_ptr<diff_node_t>> children;
};

struct diff_t {
    diff_node_t root;

    [[nodiscard]] bool is_empty() const { return root.children.empty(); }
};
using diff_ptr = std::unique_ptr<diff_t>;

// Is anything changed at or below the point, and not only by the deletion of an entry above it?
[[nodiscard]] bool diff_touches(const diff_t &diff, const path_t &point);

// The changed instances at the level of the point: entries of a list in key order, below entries above in their order;
// a container or leaf itself. They live as long as the diff. Their changes below are their children.
[[nodiscard]] std::vector<const diff_node_t *> diff_instances(const diff_t &diff, const path_t &point);

// The node of one instance, null when nothing at or below it changed.
[[nodiscard]] const diff_node_t *diff_find(const diff_t &diff, const path_t &instance);

[[nodiscard]] path_t diff_path(const diff_node_t &node);
void diff_put_keypath(wire_writer_t &out, const diff_node_t &node);
// Old and new value, as WIRE_SUB_DIFF gives them: C_NOEXISTS where there is none, a leaf-list's as C_LIST. Created and
// moved entries of a user-ordered list have as new value the keys of the entry before as C_LIST, the first C_NOEXISTS.
void diff_put_values(wire_writer_t &out, const diff_node_t &node);
// The value now: C_NOEXISTS of what is deleted, else C_XMLTAG of an entry or container.
void diff_put_new_value(wire_writer_t &out, const diff_node_t &node);

// Writes what changed in the instance, its own begin and end left out, as items (u32 tag, u32 ns, value) and gives
// their number. Containers stand between C_XMLBEGIN and C_XMLEND, leaves in the order of the model, deleted leaves and
// presence containers are C_NOEXISTS, leaf-lists C_LIST. List entries only with WIRE_MODS_LISTS: C_XMLBEGIN (deleted:
// C_XMLBEGINDEL), keys, changes, C_XMLEND. A leaf gives itself, a deleted container its C_NOEXISTS, a deleted entry
// nothing.
[[nodiscard]] uint32_t diff_put_modifications(wire_writer_t &out, const diff_node_t &node, uint32_t flags);

// The same for a subscription point: a container's changes without begin and end, a list's entries (with the flag).
[[nodiscard]] uint32_t diff_put_point_modifications(wire_writer_t &out, const diff_t &diff, const path_t &point,
                                                    uint32_t flags);

// A change as a person reads it, for WIRE_MAAPI_COMPARE: leaves, created, moved and deleted entries and
// presence containers.
struct diff_line_t {
    wire_iter_op_t op;
    std::string path;
    std::string old_text; // a leaf-list's values separated by blanks
    std::string new_text; // moved: "first", or "after" and the keys of the entry before
};
[[nodiscard]] std::vector<diff_line_t> diff_lines(const diff_t &diff);

#endif
