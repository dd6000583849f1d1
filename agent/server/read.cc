#include "agent/server/datastore.h"
#include "agent/server/diff_build.h"
#include "agent/server/store.h"

#include <algorithm>

static std::span<const path_step_t> steps_above(const path_t &path)
{
    return { path.steps.data(), path.steps.size() - 1 };
}

static bool is_transparent(const schema_info_t &info)
{
    return info.is(WIRE_NODE_CONTAINER) && !info.is(WIRE_NODE_PRESENCE);
}

static bool fail_missing(const path_t &path, ds_error_t &error)
{
    return ds_fail(error, CONFD_ERR_NOEXISTS, path_text(path) + " does not exist");
}

// ---- values

static bool is_whole_leaf_list(const path_t &path)
{
    return path.node() && path.node()->is(WIRE_NODE_LEAF_LIST) && path.steps.back().keys.empty();
}

static bool put_leaf_list(tree_t &tree, const path_t &path, wire_writer_t &out, ds_error_t &error)
{
    lyd_node *parent = tree_find(tree, steps_above(path));
    std::vector<confd_value_t> items;
    if (parent || path.steps.size() == 1)
        tree_for_each(tree, parent, *path.node(),
                      [&](const lyd_node *node) { items.push_back(value_to_confd(tree_ctx(node), tree_value(node))); });
    if (items.empty())
        return fail_missing(path, error);
    confd_value_t list{};
    list.type = C_LIST;
    list.val.list = { items.data(), static_cast<unsigned>(items.size()) };
    wire_put_value(out, list);
    return true;
}

// The list's parent; false when there is none, and so no entry.
static bool find_list(tree_t &tree, const path_t &list, lyd_node *&parent)
{
    parent = tree_find(tree, steps_above(list));
    return parent || list.steps.size() == 1;
}

bool read_value(datastore_t &store, view_t view, const path_t &path, wire_writer_t &out, ds_error_t &error)
{
    tree_t &tree = store_tree(store, view, path);
    if (is_whole_leaf_list(path))
        return put_leaf_list(tree, path, out, error);
    const lyd_node *node = tree_find(tree, path.steps);
    if (!node)
        return fail_missing(path, error);
    confd_value_t value{};
    value.type = C_XMLTAG;
    if (node->schema->nodetype & (LYS_LEAF | LYS_LEAFLIST))
        value = value_to_confd(tree_ctx(node), tree_value(node));
    if (value.type == C_XMLTAG)
        value.val.xmltag = { path.node()->tag, path.node()->ns };
    wire_put_value(out, value);
    return true;
}

bool read_text(datastore_t &store, view_t view, const path_t &path, std::string &text, ds_error_t &error)
{
    const lyd_node *node = tree_find(store_tree(store, view, path), path.steps);
    if (!node)
        return fail_missing(path, error);
    if (!(node->schema->nodetype & (LYS_LEAF | LYS_LEAFLIST)))
        return ds_fail(error, CONFD_ERR_BADTYPE, path_text(path) + " has no value: it is no leaf");
    text = lyd_get_value(node);
    return true;
}

bool read_is_default(datastore_t &store, view_t view, const path_t &path)
{
    if (!path.node() || !path.node()->is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST))
        return false;
    tree_t &tree = store_tree(store, view, path);
    if (!is_whole_leaf_list(path)) {
        const lyd_node *node = tree_find(tree, path.steps);
        return node && is_default(node);
    }
    lyd_node *parent = nullptr;
    const lyd_node *first = find_list(tree, path, parent) ? tree_find_child(tree, parent, path.node()->node) : nullptr;
    return first && is_default(first);
}

// ---- existence and rows

bool read_exists(datastore_t &store, view_t view, const path_t &path)
{
    if (!path.node())
        return true;
    if (is_whole_leaf_list(path))
        return read_count(store, view, path) > 0;
    if (!is_transparent(*path.node()) || path.node()->is(WIRE_NODE_CONFIG))
        return tree_find(store_tree(store, view, path), path.steps) != nullptr;
    path_t above = path;
    above.steps.pop_back();
    return read_exists(store, view, above);
}

uint32_t read_count(datastore_t &store, view_t view, const path_t &list)
{
    tree_t &tree = store_tree(store, view, list);
    lyd_node *parent = nullptr;
    if (!find_list(tree, list, parent))
        return 0;
    return static_cast<uint32_t>(tree_entries(tree, parent, list.node()->node).size());
}

static void take_ordered(tree_t &tree, lyd_node *parent, const path_t &list, std::span<const value_t> after,
                         uint32_t most, std::vector<entry_keys_t> &entries)
{
    const lysc_node *schema = list.node()->node;
    size_t at = after.empty() ? 0 : tree_upper_bound(tree, parent, schema, after);
    const auto &index = tree_entries(tree, parent, schema);
    for (; at < index.size() && entries.size() < most; at++)
        entries.push_back(tree_keys(index[at]));
}

static bool take_user_ordered(tree_t &tree, lyd_node *parent, const path_t &list, std::span<const value_t> after,
                              uint32_t most, std::vector<entry_keys_t> &entries, ds_error_t &error)
{
    const lysc_node *schema = list.node()->node;
    const lyd_node *at = tree_find_child(tree, parent, schema);
    if (!after.empty()) {
        const lyd_node *before = tree_find_entry(tree, parent, schema, after);
        if (!before)
            return ds_fail(error, CONFD_ERR_NOEXISTS, path_text(list) + ": the entry to go on from does not exist");
        at = before->next;
    }
    for (; at && at->schema == schema && entries.size() < most; at = at->next)
        entries.push_back(tree_keys(at));
    return true;
}

bool read_next(datastore_t &store, view_t view, const path_t &list, std::span<const confd_value_t> after, uint32_t most,
               std::vector<entry_keys_t> &entries, ds_error_t &error)
{
    std::vector<value_t> keys;
    if (!after.empty() && !path_keys(*store.schema, list, after, keys, error))
        return false;
    tree_t &tree = store_tree(store, view, list);
    lyd_node *parent = nullptr;
    std::vector<entry_keys_t> found;
    bool is_good = true;
    if (!find_list(tree, list, parent))
        found.clear();
    else if (list.node()->is_user_ordered)
        is_good = take_user_ordered(tree, parent, list, keys, most, found, error);
    else
        take_ordered(tree, parent, list, keys, most, found);
    if (is_good)
        entries = std::move(found);
    return is_good;
}

bool read_nth(datastore_t &store, view_t view, const path_t &list, uint32_t position, entry_keys_t &keys,
              ds_error_t &error)
{
    tree_t &tree = store_tree(store, view, list);
    lyd_node *parent = nullptr;
    const lyd_node *entry = nullptr;
    uint32_t left = position;
    if (find_list(tree, list, parent) && !list.node()->is_user_ordered) {
        const auto &index = tree_entries(tree, parent, list.node()->node);
        entry = position < index.size() ? index[position] : nullptr;
    } else if (parent || list.steps.size() == 1) {
        tree_for_each(tree, parent, *list.node(), [&](const lyd_node *at) { entry = left-- == 0 ? at : entry; });
    }
    if (!entry)
        return ds_fail(error, CONFD_ERR_NOEXISTS,
                       path_text(list) + " has no entry at position " + std::to_string(position));
    keys = tree_keys(entry);
    return true;
}

diff_ptr read_all_as_diff(datastore_t &store, show_db_t db)
{
    store_show_view(store, {});
    return db == SHOW_CONFIG ? diff_build_all(store.running, false) : diff_build_all(store.operational, true);
}
