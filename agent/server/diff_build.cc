#include "agent/server/diff_build.h"

#include "agent/server/diff_order.h"

#include <algorithm>
#include <map>
#include <unordered_map>

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

using places_t = std::unordered_map<const lyd_node *, size_t>;

// An instance on the way to a change, or (whole) one that came or went as such.
struct touched_t {
    touched_map_t below; // by any node that has the identity
    bool is_whole = false;
    bool is_moved = false;
    std::unique_ptr<diff_node_t> old;                 // whole: as it was
    const lyd_node *old_node = nullptr;               // null: it was not there
    std::map<const lysc_node *, places_t> old_places; // of the entries of user-ordered lists below it

    [[nodiscard]] bool has_other_place() const { return is_whole || is_moved; }
};

static bool is_known(const lyd_node *node)
{
    return schema_info(node->schema) != nullptr;
}

static touched_t &touch(touched_t &root, const lyd_node *node)
{
    touched_t &above = tree_parent(node) ? touch(root, tree_parent(node)) : root;
    return above.below[node];
}

// Changes inside what is detached are covered by the change that detached it.
static void note_edit(touched_t &root, const edit_t &edit, const std::unordered_set<const lyd_node *> &detached)
{
    if (!is_known(edit.node) || (edit.parent && !is_attached(detached, edit.parent)))
        return;
    touched_t &above = edit.parent ? touch(root, edit.parent) : root;
    touched_t &touched = above.below[edit.node];
    bool is_move = edit.kind == EDIT_MOVE && is_list_entry(*schema_info(edit.node->schema));
    touched.is_whole = touched.is_whole || !is_move;
    touched.is_moved = touched.is_moved || is_move;
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

// The order of operational entries is nobody's wish.
static bool has_order(const schema_info_t &info)
{
    return is_list_entry(info) && info.is_user_ordered && info.is(WIRE_NODE_CONFIG);
}

static void note_places(tree_t &tree, lyd_node *parent, const lysc_node *schema, touched_t &touched)
{
    auto [row, is_new] = touched.old_places.try_emplace(schema);
    if (!is_new)
        return;
    places_t &places = row->second;
    for (lyd_node *at = tree_find_child(tree, parent, schema); at && at->schema == schema; at = at->next)
        places.emplace(at, places.size());
}

static void copy_old(tree_t &tree, lyd_node *at, touched_t &touched)
{
    for (auto row = touched.below.begin(); row != touched.below.end(); ++row) {
        auto &[like, below] = *row;
        lyd_node *node = find_same(tree, at, like);
        below.old_node = node;
        bool is_one_of_many = std::next(row) != touched.below.end() && std::next(row)->first->schema == like->schema;
        if ((is_one_of_many || below.has_other_place()) && has_order(*schema_info(like->schema)))
            note_places(tree, at, like->schema, touched);
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

// For each new instance the position of the old one with its identity, or NO_PLACE.
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
        matches.push_back(is_match ? *at : NO_PLACE);
    }
    return matches;
}

using keys_t = std::vector<value_t>;

// Notes the place of an entry that is new or moved; one that is not changed otherwise gets a node for it.
static void place_entry(std::unique_ptr<diff_node_t> &change, const order_item_t &item, keys_t keys, keys_t place,
                        const schema_info_t &info)
{
    bool is_new = item.old_place == NO_PLACE;
    if (!is_new && !item.is_placed)
        return;
    if (!change) {
        change = new_node(info, nullptr, WIRE_MOP_MODIFIED);
        change->keys = std::move(keys);
    }
    change->op = is_new ? change->op : WIRE_MOP_MOVED_AFTER;
    change->is_placed = item.is_placed;
    change->place = std::move(place);
}

// The entries of one user-ordered list are those at first to end - 1.
static void place_siblings(const std::vector<keys_t> &keys, const std::vector<size_t> &matches, size_t first,
                           size_t end, const schema_info_t &info, diff_nodes_t &changes)
{
    std::vector<order_item_t> items;
    for (size_t i = first; i < end; i++)
        items.push_back({ matches[i], true });
    diff_find_moves(items);
    for (size_t i = first; i < end; i++)
        place_entry(changes[i], items[i - first], keys[i], i == first ? keys_t() : keys[i - 1], info);
}

// What is gone comes before what is there; the sort by the model puts both right.
static void merge_children(diff_node_t &to, diff_nodes_t old, diff_nodes_t now)
{
    std::vector<size_t> matches = match_children(old, now);
    std::vector<keys_t> keys;
    std::vector<const schema_info_t *> schemas;
    diff_nodes_t changes;
    for (size_t i = 0; i < now.size(); i++) {
        keys.push_back(now[i]->keys);
        schemas.push_back(now[i]->schema);
        changes.push_back(net_change(matches[i] == NO_PLACE ? nullptr : std::move(old[matches[i]]), std::move(now[i])));
    }
    for (size_t i = 0, end = 0; i < schemas.size(); i = end) {
        for (end = i + 1; end < schemas.size() && schemas[end] == schemas[i]; end++)
            ;
        if (has_order(*schemas[i]))
            place_siblings(keys, matches, i, end, *schemas[i], changes);
    }
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

// An instance that was touched, and what has become of it.
struct change_t {
    lyd_node *node; // null: it is gone
    const touched_t *touched;
    std::unique_ptr<diff_node_t> change;
};

// The entries of a list in its order, each with its place before.
struct order_t {
    std::vector<lyd_node *> entries;
    std::vector<order_item_t> items;
    places_t places;
};

static order_t order_of(lyd_node *first, const places_t &old_places, const std::vector<change_t> &changes)
{
    std::unordered_map<const lyd_node *, const touched_t *> touched;
    for (const change_t &change : changes)
        touched.emplace(change.node, change.touched);
    order_t order;
    for (lyd_node *at = first; at && at->schema == first->schema; at = at->next) {
        auto found = touched.find(at);
        const touched_t *by = found == touched.end() ? nullptr : found->second;
        auto old = old_places.find(by ? by->old_node : at);
        order.items.push_back({ old == old_places.end() ? NO_PLACE : old->second, by && by->has_other_place() });
        order.places.emplace(at, order.entries.size());
        order.entries.push_back(at);
    }
    return order;
}

// The changed entries of one user-ordered list, into its order behind those that are gone.
static void place_changes(lyd_node *first, const places_t &old_places, const schema_info_t &info,
                          std::vector<change_t> &changes)
{
    order_t order = order_of(first, old_places, changes);
    diff_find_moves(order.items);
    for (change_t &change : changes) {
        if (!change.node)
            continue;
        size_t at = order.places[change.node];
        place_entry(change.change, order.items[at], tree_keys(change.node),
                    at ? tree_keys(order.entries[at - 1]) : keys_t(), info);
    }
    std::ranges::stable_sort(changes, [&](const change_t &a, const change_t &b) {
        return b.node && (!a.node || order.places[a.node] < order.places[b.node]);
    });
}

static void add_net_changes(tree_t &tree, lyd_node *at, touched_t &touched, diff_node_t &to);

static std::unique_ptr<diff_node_t> net_change_of(tree_t &tree, lyd_node *node, const schema_info_t &info,
                                                  touched_t &touched)
{
    if (touched.is_whole)
        return net_change(std::move(touched.old), node ? copy_node(tree, node, info, nullptr) : nullptr);
    if (!node)
        return nullptr;
    auto change = new_node(info, nullptr, WIRE_MOP_MODIFIED);
    if (is_list_entry(info))
        change->keys = tree_keys(node);
    add_net_changes(tree, node, touched, *change);
    return change->children.empty() ? nullptr : std::move(change);
}

static void add_net_changes(tree_t &tree, lyd_node *at, touched_t &touched, diff_node_t &to)
{
    for (auto row = touched.below.begin(); row != touched.below.end();) {
        const schema_info_t &info = *schema_info(row->first->schema);
        std::vector<change_t> changes; // of the instances of one schema node
        for (; row != touched.below.end() && row->first->schema == info.node; ++row) {
            lyd_node *node = find_same(tree, at, row->first);
            changes.push_back({ node, &row->second, net_change_of(tree, node, info, row->second) });
        }
        if (auto noted = touched.old_places.find(info.node); noted != touched.old_places.end())
            place_changes(tree_find_child(tree, at, info.node), noted->second, info, changes);
        for (change_t &change : changes)
            add_change(to, std::move(change.change));
    }
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
    auto detached = log_detached(log);
    for (const edit_t &edit : log.edits)
        note_edit(root, edit, detached);
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
    // At the top, nodes of several models stand in the order in which they have come.
    std::ranges::stable_sort(diff->root.children, {}, [](const auto &child) { return child->schema->order; });
    if (is_oper)
        take_entries_as_given(diff->root);
    fix_parents(diff->root);
    return diff;
}
