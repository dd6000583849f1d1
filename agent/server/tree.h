// A data tree of libyang with an ordered index of the entries of each list.
//
// libyang keeps entries of system-ordered lists as they came and finds top-level ones by a scan. The index of one list
// in one parent hangs on the parent (priv of lyd_node, the tree's record for top-level lists), is made when the list is
// first looked at, and is kept by tree_link and tree_unlink. A detached subtree keeps the indexes of its inside.
//
// Values that a node got and lost are the concern of edit_log; nothing here keeps a history.
#ifndef AGENT_SERVER_TREE_H
#define AGENT_SERVER_TREE_H

#include "agent/server/path.h"
#include "agent/server/schema.h"

#include <cstdint>
#include <libyang/libyang.h>
#include <span>
#include <string>
#include <vector>

struct list_index_t {
    const lysc_node *schema = nullptr;
    std::vector<lyd_node *> entries; // in key order
};

struct node_indexes_t { // of the lists and leaf-lists directly below one node
    std::vector<list_index_t> lists;
    uint32_t unlinked = 0; // children taken out since libyang's hash table of them was made
    uint32_t counted = 0;  // children that there were then
};

struct tree_t {
    lyd_node *first = nullptr; // of the top-level siblings
    node_indexes_t indexes;
};

// Frees a detached subtree, or all of a tree, with its indexes.
void tree_free_node(lyd_node *node);
void tree_free(tree_t &tree);

// First of the children; parent null: of the top-level nodes.
[[nodiscard]] lyd_node *tree_children(const tree_t &tree, const lyd_node *parent);
[[nodiscard]] inline lyd_node *tree_parent(const lyd_node *node)
{
    return reinterpret_cast<lyd_node *>(node->parent);
}

// The child that is the only one of its schema node (of a list: the first as libyang keeps them); null when there is
// none.
[[nodiscard]] lyd_node *tree_find_child(const tree_t &tree, const lyd_node *parent, const lysc_node *schema);

// To be called before libyang itself puts a new child into parent (which may be null): see the reason there.
void tree_before_link(lyd_node *parent);

// Links a detached node below parent, behind others of its schema node, or for user-ordered ones behind prev (null: as
// the first). And takes it out. Default flags of containers around it follow.
void tree_link(tree_t &tree, lyd_node *parent, lyd_node *node, const lyd_node *prev);
void tree_unlink(tree_t &tree, lyd_node *node);
// A node that libyang has linked itself, last of its schema node.
void tree_adopt(tree_t &tree, lyd_node *node);
// Sets the default flag of node and of the containers without presence around it by their content.
void tree_refresh_default_flag(lyd_node *node);

// The entries in key order. The reference is good until the next change.
[[nodiscard]] const std::vector<lyd_node *> &tree_entries(tree_t &tree, lyd_node *parent, const lysc_node *schema);
[[nodiscard]] lyd_node *tree_find_entry(tree_t &tree, lyd_node *parent, const lysc_node *schema,
                                        std::span<const value_t> keys);
// Position of the first entry behind the one with these keys.
[[nodiscard]] size_t tree_upper_bound(tree_t &tree, lyd_node *parent, const lysc_node *schema,
                                      std::span<const value_t> keys);

// The instance that a path names, null when there is none (or when it has no keys where it needs them).
[[nodiscard]] lyd_node *tree_find(tree_t &tree, std::span<const path_step_t> steps);

// The key values of a list entry or the value of a leaf-list's.
[[nodiscard]] std::vector<value_t> tree_keys(const lyd_node *node);
[[nodiscard]] const lyd_value &tree_value(const lyd_node *term);
// Order of two instances of one list.
[[nodiscard]] int tree_compare(const lyd_node *a, const lyd_node *b);
[[nodiscard]] path_t tree_path(const lyd_node *node);
[[nodiscard]] std::string tree_path_text(const lyd_node *node);

[[nodiscard]] inline const ly_ctx *tree_ctx(const lyd_node *node)
{
    return node->schema->module->ctx;
}
[[nodiscard]] inline bool is_default(const lyd_node *node)
{
    return node->flags & LYD_DEFAULT;
}
// Two values of one leaf are the same.
[[nodiscard]] bool tree_equal_values(const lyd_value &a, const lyd_value &b);

// Calls visit(entry) for each instance in order: a user-ordered list's in its own, others in key order. A node that is
// no list is its own only instance. visit must not
// change the list.
template <typename Visit> void tree_for_each(tree_t &tree, lyd_node *parent, const schema_info_t &info, Visit visit)
{
    if (info.is(WIRE_NODE_LIST | WIRE_NODE_LEAF_LIST) && !info.is_user_ordered) {
        for (lyd_node *entry : tree_entries(tree, parent, info.node))
            visit(entry);
        return;
    }
    for (lyd_node *at = tree_find_child(tree, parent, info.node); at && at->schema == info.node; at = at->next)
        visit(at);
}

#endif
