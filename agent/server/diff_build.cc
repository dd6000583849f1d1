#include "agent/server/diff_build.h"

#include <algorithm>
#include <map>

// ---- a copy of what is set

static bool is_list_entry(const schema_info_t &info)
{
    return info.is(WIRE_NODE_LIST);
}

// Containers without presence are there only for what they hold.
static bool is_transparent(const schema_info_t &info)
{
    return info.is(WIRE_NODE_CONTAINER) && !info.is(WIRE_NODE_PRESENCE);
}

static bool is_leaf(const schema_info_t &info)
{
    return info.is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST);
}

static void copy_values(tree_t &tree, lyd_node *parent, const schema_info_t &info, std::vector<value_t> &values)
{
    tree_for_each(tree, parent, info, [&](const lyd_node *node) {
        if (!is_default(node))
            values.emplace_back(tree_ctx(node), tree_value(node));
    });
}

static wire_iter_op_t created_op(const schema_info_t &info)
{
    if (is_transparent(info))
        return WIRE_MOP_MODIFIED;
    bool is_value = is_leaf(info) && info.type != C_XMLTAG;
    return is_value ? WIRE_MOP_VALUE_SET : WIRE_MOP_CREATED;
}

static std::unique_ptr<diff_node_t> new_node(const schema_info_t &info, const diff_node_t *parent, wire_iter_op_t op)
{
    auto node = std::make_unique<diff_node_t>();
    node->schema = &info;
    node->parent = parent;
    node->op = op;
    return node;
}

static void copy_children(tree_t &tree, lyd_node *from, diff_node_t &to);

// An instance with all below it, as created; null when nothing of it is set.
static std::unique_ptr<diff_node_t> copy_node(tree_t &tree, lyd_node *from, const schema_info_t &info,
                                              const diff_node_t *parent)
{
    auto node = new_node(info, parent, created_op(info));
    if (is_leaf(info)) {
        copy_values(tree, tree_parent(from), info, node->new_values);
        return node->new_values.empty() ? nullptr : std::move(node);
    }
    if (is_list_entry(info))
        node->keys = tree_keys(from);
    copy_children(tree, from, *node);
    return is_transparent(info) && node->children.empty() ? nullptr : std::move(node);
}

static void add_copy(tree_t &tree, lyd_node *from, const schema_info_t &info, diff_node_t &to)
{
    if (auto child = copy_node(tree, from, info, &to))
        to.children.push_back(std::move(child));
}

static void copy_children(tree_t &tree, lyd_node *from, diff_node_t &to)
{
    const lysc_node *done = nullptr; // entries of one list stand together
    for (lyd_node *at = tree_children(tree, from); at; at = at->next) {
        const schema_info_t *info = schema_info(at->schema);
        if (!info || at->schema == done)
            continue;
        done = at->schema;
        if (is_list_entry(*info))
            tree_for_each(tree, from, *info, [&](lyd_node *entry) { add_copy(tree, entry, *info, to); });
        else
            add_copy(tree, at, *info, to);
    }
}

// ---- what the log has touched

struct touched_t;
struct touched_order_t {
    bool operator()(const lyd_node *a, const lyd_node *b) const
    {
        if (a->schema != b->schema)
            return schema_info(a->schema)->order < schema_info(b->schema)->order;
        return a->schema->nodetype == LYS_LIST && tree_compare(a, b) < 0;
    }
};
using touched_map_t = std::map<const lyd_node *, touched_t, touched_order_t>;

// An instance on the way to a change, or (whole) one that came or went as such.
struct touched_t {
    touched_map_t below; // by any node that has the identity
    bool is_whole = false;
    size_t serial = 0;                // of touching
    std::unique_ptr<diff_node_t> old; // whole: as it was
};

static bool is_known(const lyd_node *node)
{
    return schema_info(node->schema) != nullptr;
}

static touched_t &touch(touched_t &root, const lyd_node *node, size_t &serial)
{
    touched_t &above = tree_parent(node) ? touch(root, tree_parent(node), serial) : root;
    auto [row, is_new] = above.below.try_emplace(node);
    if (is_new)
        row->second.serial = serial++;
    return row->second;
}

// Changes inside what is detached are covered by the change that detached it.
static void note_edit(touched_t &root, const edit_t &edit, const std::unordered_set<const lyd_node *> &detached,
                      size_t &serial)
{
    if (!is_known(edit.node) || (edit.parent && !is_attached(detached, edit.parent)))
        return;
    touched_t &above = edit.parent ? touch(root, edit.parent, serial) : root;
    auto [row, is_new] = above.below.try_emplace(edit.node);
    if (is_new)
        row->second.serial = serial++;
    row->second.is_whole = true;
}

// ---- old against new

static lyd_node *find_same(tree_t &tree, lyd_node *parent, const lyd_node *like)
{
    if (like->schema->nodetype != LYS_LIST)
        return tree_find_child(tree, parent, like->schema);
    const auto &entries = tree_entries(tree, parent, like->schema);
    auto at = std::ranges::partition_point(entries, [&](auto *entry) { return tree_compare(entry, like) < 0; });
    return at != entries.end() && tree_compare(*at, like) == 0 ? *at : nullptr;
}

static void copy_old(tree_t &tree, lyd_node *at, touched_t &touched)
{
    for (auto &[like, below] : touched.below) {
        lyd_node *node = find_same(tree, at, like);
        if (node && below.is_whole)
            below.old = copy_node(tree, node, *schema_info(node->schema), nullptr);
        else if (node)
            copy_old(tree, node, below);
    }
}

static bool equal_values(const std::vector<value_t> &a, const std::vector<value_t> &b)
{
    return std::ranges::equal(
        a, b, [](const value_t &left, const value_t &right) { return tree_equal_values(left.raw, right.raw); });
}

static bool same_instance(const diff_node_t &a, const diff_node_t &b)
{
    return a.schema == b.schema && equal_values(a.keys, b.keys);
}

static bool precedes(const diff_node_t &a, const diff_node_t &b)
{
    if (a.schema != b.schema)
        return a.schema->order < b.schema->order;
    for (size_t i = 0; i < a.keys.size() && i < b.keys.size(); i++)
        if (int order = value_compare(a.keys[i].ctx, a.keys[i].raw, b.keys[i].raw))
            return order < 0;
    return false;
}

using diff_nodes_t = std::vector<std::unique_ptr<diff_node_t>>;

static std::unique_ptr<diff_node_t> net_change(std::unique_ptr<diff_node_t> old, std::unique_ptr<diff_node_t> now);

static void add_change(diff_node_t &to, std::unique_ptr<diff_node_t> change)
{
    if (!change)
        return;
    change->parent = &to;
    to.children.push_back(std::move(change));
}

// An instance that is gone. A container without presence tells what it held.
static std::unique_ptr<diff_node_t> deleted(std::unique_ptr<diff_node_t> old)
{
    old->old_values = std::move(old->new_values);
    old->new_values.clear();
    if (!is_transparent(*old->schema)) {
        old->op = WIRE_MOP_DELETED;
        old->children.clear();
        return old;
    }
    for (auto &child : old->children) {
        child = deleted(std::move(child));
        child->parent = old.get();
    }
    return old;
}

static constexpr size_t NO_MATCH = static_cast<size_t>(-1);

// For each new instance the position of the old one with its identity.
static std::vector<size_t> match_children(const diff_nodes_t &old, const diff_nodes_t &now)
{
    std::vector<size_t> sorted(old.size());
    for (size_t i = 0; i < sorted.size(); i++)
        sorted[i] = i;
    std::ranges::sort(sorted, [&](size_t a, size_t b) { return precedes(*old[a], *old[b]); });
    std::vector<size_t> matches;
    for (const auto &node : now) {
        auto at = std::ranges::partition_point(sorted, [&](size_t i) { return precedes(*old[i], *node); });
        bool is_match = at != sorted.end() && same_instance(*old[*at], *node);
        matches.push_back(is_match ? *at : NO_MATCH);
    }
    return matches;
}

// What is gone comes before what is there; the caller's order by the model puts both right.
static void merge_children(diff_node_t &to, diff_nodes_t old, diff_nodes_t now)
{
    std::vector<size_t> matches = match_children(old, now);
    diff_nodes_t changes;
    for (size_t i = 0; i < now.size(); i++)
        changes.push_back(net_change(matches[i] == NO_MATCH ? nullptr : std::move(old[matches[i]]), std::move(now[i])));
    for (auto &gone : old)
        if (gone)
            add_change(to, deleted(std::move(gone)));
    for (auto &change : changes)
        add_change(to, std::move(change));
    std::ranges::stable_sort(to.children, [](const auto &a, const auto &b) {
        return a->schema->is_user_ordered && a->schema == b->schema ? false : precedes(*a, *b);
    });
}

static std::unique_ptr<diff_node_t> net_change(std::unique_ptr<diff_node_t> old, std::unique_ptr<diff_node_t> now)
{
    if (!now)
        return old ? deleted(std::move(old)) : nullptr;
    if (!old)
        return now;
    if (is_leaf(*now->schema)) {
        bool is_same = equal_values(old->new_values, now->new_values);
        now->old_values = std::move(old->new_values);
        return is_same ? nullptr : std::move(now);
    }
    diff_nodes_t children = std::move(now->children);
    now->children.clear();
    now->op = WIRE_MOP_MODIFIED;
    merge_children(*now, std::move(old->children), std::move(children));
    return now->children.empty() ? nullptr : std::move(now);
}

static void sort_children(diff_node_t &node, const std::vector<size_t> &serials)
{
    std::vector<size_t> at(node.children.size());
    for (size_t i = 0; i < at.size(); i++)
        at[i] = i;
    std::ranges::stable_sort(at, [&](size_t a, size_t b) {
        const schema_info_t *left = node.children[a]->schema;
        const schema_info_t *right = node.children[b]->schema;
        return left == right && left->is_user_ordered && is_list_entry(*left) ? serials[a] < serials[b]
                                                                              : left->order < right->order;
    });
    diff_nodes_t sorted;
    for (size_t i : at)
        sorted.push_back(std::move(node.children[i]));
    node.children = std::move(sorted);
}

static void add_net_changes(tree_t &tree, lyd_node *at, touched_t &touched, diff_node_t &to)
{
    std::vector<size_t> serials;
    for (auto &[like, below] : touched.below) {
        const schema_info_t &info = *schema_info(like->schema);
        lyd_node *node = find_same(tree, at, like);
        std::unique_ptr<diff_node_t> change;
        if (below.is_whole) {
            change = net_change(std::move(below.old), node ? copy_node(tree, node, info, nullptr) : nullptr);
        } else if (node) {
            change = new_node(info, nullptr, WIRE_MOP_MODIFIED);
            if (is_list_entry(info))
                change->keys = tree_keys(node);
            add_net_changes(tree, node, below, *change);
            if (change->children.empty())
                change = nullptr;
        }
        if (change)
            serials.push_back(below.serial);
        add_change(to, std::move(change));
    }
    sort_children(to, serials);
}

// Configured nodes of an operational tree only carry operational ones.
static void take_entries_as_given(diff_node_t &node)
{
    for (auto &child : node.children) {
        if (!child->schema->is(WIRE_NODE_CONFIG))
            continue;
        if (child->op == WIRE_MOP_CREATED) {
            child->op = WIRE_MOP_MODIFIED;
            std::erase_if(child->children, [](const auto &leaf) { return leaf->schema->is(WIRE_NODE_KEY); });
        }
        take_entries_as_given(*child);
    }
    std::erase_if(node.children, [](const auto &child) {
        return child->schema->is(WIRE_NODE_CONFIG) && child->op == WIRE_MOP_MODIFIED && child->children.empty();
    });
}

static void fix_parents(diff_node_t &node)
{
    for (auto &child : node.children) {
        child->parent = &node;
        fix_parents(*child);
    }
}

diff_ptr diff_build(edit_log_t &log, bool is_oper)
{
    auto diff = std::make_unique<diff_t>();
    if (log.edits.empty())
        return diff;
    touched_t root;
    size_t serial = 0;
    auto detached = log_detached(log);
    for (const edit_t &edit : log.edits)
        note_edit(root, edit, detached, serial);
    log_undo(log);
    copy_old(*log.tree, nullptr, root);
    log_redo(log);
    add_net_changes(*log.tree, nullptr, root, diff->root);
    if (is_oper)
        take_entries_as_given(diff->root);
    fix_parents(diff->root);
    return diff;
}

diff_ptr diff_build_all(tree_t &tree, bool is_oper)
{
    auto diff = std::make_unique<diff_t>();
    copy_children(tree, nullptr, diff->root);
    if (is_oper)
        take_entries_as_given(diff->root);
    fix_parents(diff->root);
    return diff;
}
