#include "agent/server/tree.h"

#include <algorithm>
#include <libyang/plugins_types.h>

// ---- indexes

static node_indexes_t *indexes_of(tree_t &tree, const lyd_node *parent)
{
    return parent ? static_cast<node_indexes_t *>(parent->priv) : &tree.indexes;
}

static list_index_t *find_index(tree_t &tree, const lyd_node *parent, const lysc_node *schema)
{
    node_indexes_t *indexes = indexes_of(tree, parent);
    if (indexes)
        for (list_index_t &index : indexes->lists)
            if (index.schema == schema)
                return &index;
    return nullptr;
}

static bool is_before(const lyd_node *a, const lyd_node *b)
{
    return tree_compare(a, b) < 0;
}

static list_index_t &get_index(tree_t &tree, lyd_node *parent, const lysc_node *schema)
{
    if (list_index_t *found = find_index(tree, parent, schema))
        return *found;
    if (parent && !parent->priv)
        parent->priv = new node_indexes_t;
    list_index_t &index = indexes_of(tree, parent)->lists.emplace_back();
    index.schema = schema;
    for (lyd_node *at = tree_find_child(tree, parent, schema); at && at->schema == schema; at = at->next)
        index.entries.push_back(at);
    if (!std::ranges::is_sorted(index.entries, is_before))
        std::ranges::sort(index.entries, is_before);
    return index;
}

static void add_to_index(tree_t &tree, lyd_node *node)
{
    list_index_t *index = find_index(tree, tree_parent(node), node->schema);
    if (!index)
        return;
    auto &entries = index->entries;
    bool is_last = entries.empty() || is_before(entries.back(), node);
    entries.insert(is_last ? entries.end() : std::ranges::upper_bound(entries, node, is_before), node);
}

static void drop_from_index(tree_t &tree, lyd_node *node)
{
    list_index_t *index = find_index(tree, tree_parent(node), node->schema);
    if (!index)
        return;
    auto at = std::ranges::lower_bound(index->entries, node, is_before);
    while (at != index->entries.end() && *at != node) // leaf-list values of operational data may stand twice
        ++at;
    if (at != index->entries.end())
        index->entries.erase(at);
}

// ---- memory

void tree_free_node(lyd_node *node)
{
    lyd_node *at = nullptr;
    LYD_TREE_DFS_BEGIN(node, at)
    {
        delete static_cast<node_indexes_t *>(at->priv);
        at->priv = nullptr;
        LYD_TREE_DFS_END(node, at);
    }
    lyd_free_tree(node);
}

void tree_free(tree_t &tree)
{
    tree.indexes.lists.clear();
    lyd_node *next = nullptr;
    for (lyd_node *node = tree.first; node; node = next) {
        next = node->next;
        tree_free_node(node);
    }
    tree.first = nullptr;
}

// ---- structure

lyd_node *tree_children(const tree_t &tree, const lyd_node *parent)
{
    return parent ? lyd_child(parent) : tree.first;
}

lyd_node *tree_find_child(const tree_t &tree, const lyd_node *parent, const lysc_node *schema)
{
    lyd_node *match = nullptr;
    if (!parent) {
        // Without a parent libyang has no hashes; comparing pointers is all there is to a scan.
        for (match = tree.first; match && match->schema != schema; match = match->next)
            ;
        return match;
    }
    lyd_node *first = lyd_child(parent);
    if (!first || lyd_find_sibling_val(first, schema, nullptr, 0, &match) != LY_SUCCESS)
        return nullptr;
    return match;
}

static bool is_list_like(const lyd_node *node)
{
    return node->schema->nodetype & (LYS_LIST | LYS_LEAFLIST);
}

// Default flag that a container without presence has by its content.
static bool has_only_defaults(const lyd_node *container)
{
    for (const lyd_node *child = lyd_child(container); child; child = child->next)
        if (!is_default(child))
            return false;
    return true;
}

void tree_refresh_default_flag(lyd_node *node)
{
    for (; node && lysc_is_np_cont(node->schema); node = tree_parent(node)) {
        uint32_t flags = (node->flags & ~LYD_DEFAULT) | (has_only_defaults(node) ? LYD_DEFAULT : 0);
        if (flags == node->flags)
            return;
        node->flags = flags;
    }
}

static constexpr uint32_t FEW_CHILDREN = 24;

// libyang makes a new table with the next child that is put in.
static void drop_hash_table(lyd_node *parent)
{
    lyd_node *carrier = nullptr;
    if (lyd_dup_single(parent, nullptr, LYD_DUP_NO_META, &carrier) != LY_SUCCESS)
        return; // no memory: the old table serves on
    auto *from = reinterpret_cast<lyd_node_inner *>(parent);
    std::swap(from->children_ht, reinterpret_cast<lyd_node_inner *>(carrier)->children_ht);
    lyd_free_tree(carrier);
}

// libyang 2.1 crashes when it puts a child into a hash table all of whose slots have been in use: it looks for a free
// one behind the last child of the same slot only, and does not look between. Slots of removed children count, two each
// at most, until the table is made anew. It is at most three quarters full otherwise, so an eighth of the children may
// go.
void tree_before_link(lyd_node *parent)
{
    auto *counts = parent ? static_cast<node_indexes_t *>(parent->priv) : nullptr;
    if (!counts || counts->unlinked == 0 ||
        (counts->counted >= FEW_CHILDREN && counts->unlinked <= counts->counted / 8))
        return;
    drop_hash_table(parent);
    counts->unlinked = 0;
    counts->counted = 0;
    for (const lyd_node *child = lyd_child(parent); child; child = child->next)
        counts->counted++;
}

static void note_unlink(lyd_node *parent)
{
    if (!parent || !reinterpret_cast<lyd_node_inner *>(parent)->children_ht)
        return;
    if (!parent->priv)
        parent->priv = new node_indexes_t;
    static_cast<node_indexes_t *>(parent->priv)->unlinked++;
}

// Keeps the default flags of the containers above as they are: libyang changes them while it links.
static void link_raw(tree_t &tree, lyd_node *parent, lyd_node *node)
{
    if (parent)
        lyd_insert_child(parent, node);
    else
        lyd_insert_sibling(tree.first, node, &tree.first);
}

static void link_ordered(tree_t &tree, lyd_node *parent, lyd_node *node, const lyd_node *prev)
{
    lyd_node *first = tree_find_child(tree, parent, node->schema);
    if (prev)
        lyd_insert_after(const_cast<lyd_node *>(prev), node);
    else if (first)
        lyd_insert_before(first, node);
    else
        link_raw(tree, parent, node);
    if (!parent && tree.first)
        tree.first = lyd_first_sibling(tree.first);
}

void tree_link(tree_t &tree, lyd_node *parent, lyd_node *node, const lyd_node *prev)
{
    tree_before_link(parent);
    if (lysc_is_userordered(node->schema))
        link_ordered(tree, parent, node, prev);
    else
        link_raw(tree, parent, node);
    if (is_list_like(node))
        add_to_index(tree, node);
    tree_refresh_default_flag(parent);
}

void tree_adopt(tree_t &tree, lyd_node *node)
{
    if (is_list_like(node))
        add_to_index(tree, node);
    tree_refresh_default_flag(tree_parent(node));
}

void tree_unlink(tree_t &tree, lyd_node *node)
{
    lyd_node *parent = tree_parent(node);
    if (is_list_like(node))
        drop_from_index(tree, node);
    if (tree.first == node)
        tree.first = node->next;
    note_unlink(parent);
    lyd_unlink_tree(node);
    tree_refresh_default_flag(parent);
}

// ---- lookup

const std::vector<lyd_node *> &tree_entries(tree_t &tree, lyd_node *parent, const lysc_node *schema)
{
    return get_index(tree, parent, schema).entries;
}

static size_t key_count(const lysc_node *schema)
{
    return schema->nodetype == LYS_LEAFLIST ? 1 : schema_info(schema)->keys.size();
}

static int compare_with_keys(const lyd_node *node, std::span<const value_t> keys)
{
    const lyd_node *at = node->schema->nodetype == LYS_LEAFLIST ? node : lyd_child(node);
    for (const value_t &key : keys) {
        if (int order = value_compare(key.ctx, tree_value(at), key.raw))
            return order;
        at = at->next;
    }
    return 0;
}

lyd_node *tree_find_entry(tree_t &tree, lyd_node *parent, const lysc_node *schema, std::span<const value_t> keys)
{
    const auto &entries = tree_entries(tree, parent, schema);
    auto at = std::ranges::partition_point(entries, [&](auto *entry) { return compare_with_keys(entry, keys) < 0; });
    return at != entries.end() && compare_with_keys(*at, keys) == 0 ? *at : nullptr;
}

size_t tree_upper_bound(tree_t &tree, lyd_node *parent, const lysc_node *schema, std::span<const value_t> keys)
{
    const auto &entries = tree_entries(tree, parent, schema);
    auto at = std::ranges::partition_point(entries, [&](auto *entry) { return compare_with_keys(entry, keys) <= 0; });
    return static_cast<size_t>(at - entries.begin());
}

lyd_node *tree_find(tree_t &tree, std::span<const path_step_t> steps)
{
    lyd_node *at = nullptr;
    for (const path_step_t &step : steps) {
        bool is_entry = step.node->is(WIRE_NODE_LIST | WIRE_NODE_LEAF_LIST);
        if (is_entry && step.keys.empty())
            return nullptr;
        at = is_entry ? tree_find_entry(tree, at, step.node->node, step.keys)
                      : tree_find_child(tree, at, step.node->node);
        if (!at)
            return nullptr;
    }
    return at;
}

// ---- nodes

const lyd_value &tree_value(const lyd_node *term)
{
    return reinterpret_cast<const lyd_node_term *>(term)->value;
}

bool tree_equal_values(const lyd_value &a, const lyd_value &b)
{
    return a.realtype == b.realtype && a.realtype->plugin->compare(&a, &b) == LY_SUCCESS;
}

std::vector<value_t> tree_keys(const lyd_node *node)
{
    std::vector<value_t> keys;
    if (!is_list_like(node))
        return keys;
    size_t count = key_count(node->schema);
    const lyd_node *at = node->schema->nodetype == LYS_LEAFLIST ? node : lyd_child(node);
    for (size_t i = 0; i < count; i++, at = at->next)
        keys.emplace_back(tree_ctx(node), tree_value(at));
    return keys;
}

int tree_compare(const lyd_node *a, const lyd_node *b)
{
    size_t count = key_count(a->schema);
    bool is_leaf_list = a->schema->nodetype == LYS_LEAFLIST;
    const lyd_node *left = is_leaf_list ? a : lyd_child(a);
    const lyd_node *right = is_leaf_list ? b : lyd_child(b);
    for (size_t i = 0; i < count; i++, left = left->next, right = right->next)
        if (int order = value_compare(tree_ctx(a), tree_value(left), tree_value(right)))
            return order;
    return 0;
}

path_t tree_path(const lyd_node *node)
{
    path_t path;
    for (const lyd_node *at = node; at; at = tree_parent(at))
        path.steps.push_back({ schema_info(at->schema), tree_keys(at) });
    std::ranges::reverse(path.steps);
    return path;
}

std::string tree_path_text(const lyd_node *node)
{
    return path_text(tree_path(node));
}
