#include "agent/server/edit.h"

#include "agent/server/implicit.h"

#include <algorithm>
#include <string>

// ---- making nodes

static bool is_config(const lysc_node *schema)
{
    return schema->flags & LYS_CONFIG_W;
}

static lyd_node *make_entry(lyd_node *parent, const lysc_node *schema, std::span<const value_t> keys)
{
    const char *texts[MAXKEYLEN] = {};
    for (size_t i = 0; i < keys.size() && i < MAXKEYLEN; i++)
        texts[i] = value_text(keys[i]).data();
    lyd_node *node = nullptr;
    // libyang takes as many as the list has keys.
    (void)lyd_new_list_canon(parent, schema->module, schema->name, 0, &node, texts[0], texts[1], texts[2], texts[3],
                             texts[4], texts[5], texts[6], texts[7], texts[8]); // node stays null on failure
    return node;
}

static lyd_node *make_node(lyd_node *parent, const lysc_node *schema, std::span<const value_t> values)
{
    lyd_node *node = nullptr;
    tree_before_link(parent);
    if (schema->nodetype == LYS_LIST)
        return make_entry(parent, schema, values);
    if (schema->nodetype == LYS_CONTAINER)
        (void)lyd_new_inner(parent, schema->module, schema->name, 0, &node); // as above
    else
        (void)lyd_new_term_canon(parent, schema->module, schema->name,
                                 values.empty() ? "" : value_text(values[0]).data(), 0, &node); // as above
    return node;
}

// A new node below parent with what goes with it. Null, with the error, when libyang refuses.
static lyd_node *add_node(edit_log_t &log, lyd_node *parent, const schema_info_t &info, std::span<const value_t> values,
                          ds_error_t &error)
{
    lyd_node *node = make_node(parent, info.node, values);
    if (!node) {
        const ly_err_item *item = ly_err_last(info.node->module->ctx);
        ds_fail(error, CONFD_ERR_INTERNAL,
                schema_path(info) + " cannot be created" + (item && item->msg ? std::string(": ") + item->msg : ""));
        return nullptr;
    }
    if (!parent)
        lyd_insert_sibling(log.tree->first, node, &log.tree->first);
    log_linked(log, node);
    implicit_leave_other_cases(log, node);
    if (is_config(info.node) && (info.node->nodetype & (LYS_LIST | LYS_CONTAINER)))
        implicit_fill_tree(log, node);
    if (is_config(info.node) && is_in_case(info.node))
        implicit_fill_child(log, parent, info.node);
    return node;
}

static lyd_node *find_step(edit_log_t &log, lyd_node *parent, const path_step_t &step)
{
    if (step.node->is(WIRE_NODE_LIST | WIRE_NODE_LEAF_LIST))
        return tree_find_entry(*log.tree, parent, step.node->node, step.keys);
    return tree_find_child(*log.tree, parent, step.node->node);
}

lyd_node *edit_ensure(edit_log_t &log, std::span<const path_step_t> steps, edit_ground_t &ground, ds_error_t &error)
{
    lyd_node *at = nullptr;
    for (const path_step_t &step : steps) {
        lyd_node *next = find_step(log, at, step);
        if (!next) {
            ground.made += step.node->is(WIRE_NODE_LIST | WIRE_NODE_PRESENCE) ? 1 : 0;
            next = add_node(log, at, *step.node, step.keys, error);
        }
        if (!next)
            return nullptr;
        at = next;
    }
    return at;
}

static lyd_node *ensure_parent(edit_log_t &log, const path_t &path, edit_ground_t &ground, ds_error_t &error,
                               bool &is_good)
{
    std::span<const path_step_t> above(path.steps.data(), path.steps.size() - 1);
    lyd_node *parent = edit_ensure(log, above, ground, error);
    is_good = parent || above.empty();
    return parent;
}

// ---- leaves

// A key has the value that its entry's name has.
static bool set_key(edit_log_t &log, const path_t &path, const value_t &value, ds_error_t &error)
{
    lyd_node *leaf = tree_find(*log.tree, path.steps);
    if (leaf && tree_equal_values(tree_value(leaf), value.raw))
        return true;
    if (!leaf)
        return ds_fail(error, CONFD_ERR_NOEXISTS, path_text(path) + ": the list entry does not exist");
    return ds_fail(error, CONFD_ERR_NOT_WRITABLE,
                   path_text(path) + ": a key cannot be changed to \"" + std::string(value_text(value)) + "\"");
}

static bool set_leaf(edit_log_t &log, lyd_node *parent, const schema_info_t &info, const value_t &value,
                     ds_error_t &error)
{
    lyd_node *leaf = tree_find_child(*log.tree, parent, info.node);
    if (!leaf)
        return add_node(log, parent, info, { &value, 1 }, error) != nullptr;
    bool was_default = is_default(leaf);
    if (!was_default && tree_equal_values(tree_value(leaf), value.raw))
        return true;
    log_change(log, leaf, value);
    if (was_default)
        implicit_leave_other_cases(log, leaf);
    return true;
}

// Drops the default values that stand for a leaf-list without values.
static void drop_defaults(edit_log_t &log, lyd_node *parent, const lysc_node *schema)
{
    std::vector<lyd_node *> defaults;
    for (lyd_node *at = tree_find_child(*log.tree, parent, schema); at && at->schema == schema; at = at->next)
        if (is_default(at))
            defaults.push_back(at);
    for (lyd_node *node : defaults)
        log_unlink(log, node);
}

static bool add_leaf_list_value(edit_log_t &log, lyd_node *parent, const schema_info_t &info, const value_t &value,
                                ds_error_t &error)
{
    drop_defaults(log, parent, info.node);
    if (tree_find_entry(*log.tree, parent, info.node, { &value, 1 }))
        return true;
    return add_node(log, parent, info, { &value, 1 }, error) != nullptr;
}

bool edit_set(edit_log_t &log, const path_t &path, const value_t &value, edit_ground_t &ground, ds_error_t &error)
{
    const schema_info_t &info = *path.node();
    if (info.is(WIRE_NODE_KEY) && !path.steps.empty())
        return set_key(log, path, value, error);
    bool is_good = false;
    lyd_node *parent = ensure_parent(log, path, ground, error, is_good);
    if (!is_good)
        return false;
    return info.is(WIRE_NODE_LEAF_LIST) ? add_leaf_list_value(log, parent, info, value, error)
                                        : set_leaf(log, parent, info, value, error);
}

static bool has_values(tree_t &tree, lyd_node *parent, const schema_info_t &info, std::span<const value_t> values)
{
    size_t at = 0;
    bool is_same = true;
    tree_for_each(tree, parent, info, [&](const lyd_node *node) {
        is_same =
            is_same && at < values.size() && !is_default(node) && tree_equal_values(tree_value(node), values[at].raw);
        at++;
    });
    return is_same && at == values.size();
}

bool edit_set_list(edit_log_t &log, const path_t &path, std::span<const value_t> values, edit_ground_t &ground,
                   ds_error_t &error)
{
    const schema_info_t &info = *path.node();
    bool is_good = false;
    lyd_node *parent = ensure_parent(log, path, ground, error, is_good);
    if (!is_good)
        return false;
    if (has_values(*log.tree, parent, info, values))
        return true;
    std::vector<lyd_node *> before = tree_entries(*log.tree, parent, info.node);
    for (lyd_node *node : before)
        log_unlink(log, node);
    for (const value_t &value : values)
        if (!add_leaf_list_value(log, parent, info, value, error))
            return false;
    if (values.empty() && is_config(info.node))
        implicit_fill_child(log, parent, info.node);
    return true;
}

// ---- create

bool edit_create(edit_log_t &log, const path_t &path, edit_ground_t &ground, ds_error_t &error)
{
    const schema_info_t &info = *path.node();
    bool is_good = false;
    lyd_node *parent = ensure_parent(log, path, ground, error, is_good);
    if (!is_good)
        return false;
    const path_step_t &step = path.steps.back();
    lyd_node *present = find_step(log, parent, step);
    if (present && !is_default(present))
        return ds_fail(error, CONFD_ERR_ALREADY_EXISTS, path_text(path) + " exists already");
    if (info.is(WIRE_NODE_LEAF_LIST))
        return add_leaf_list_value(log, parent, info, step.keys[0], error);
    return add_node(log, parent, info, step.keys, error) != nullptr;
}

// ---- delete

static bool delete_all(edit_log_t &log, const path_t &path, ds_error_t &error)
{
    std::span<const path_step_t> above(path.steps.data(), path.steps.size() - 1);
    lyd_node *parent = tree_find(*log.tree, above);
    const schema_info_t &info = *path.node();
    std::vector<lyd_node *> entries;
    if (parent || above.empty())
        entries = tree_entries(*log.tree, parent, info.node);
    std::erase_if(entries, [](const lyd_node *entry) { return is_default(entry); });
    if (entries.empty())
        return ds_fail(error, CONFD_ERR_NOEXISTS, path_text(path) + " has nothing to delete");
    for (lyd_node *entry : entries)
        log_unlink(log, entry);
    if (is_config(info.node))
        implicit_fill_child(log, parent, info.node);
    return true;
}

bool edit_delete(edit_log_t &log, const path_t &path, ds_error_t &error)
{
    const schema_info_t &info = *path.node();
    if (info.is(WIRE_NODE_KEY))
        return ds_fail(error, CONFD_ERR_NOTDELETABLE, path_text(path) + ": a key goes only with its list entry");
    if (info.is(WIRE_NODE_LIST | WIRE_NODE_LEAF_LIST) && path.steps.back().keys.empty())
        return delete_all(log, path, error);
    lyd_node *node = tree_find(*log.tree, path.steps);
    if (!node || is_default(node))
        return ds_fail(error, CONFD_ERR_NOEXISTS, path_text(path) + " does not exist");
    lyd_node *parent = tree_parent(node);
    log_unlink(log, node);
    if (is_config(info.node) && !info.is(WIRE_NODE_LIST))
        implicit_fill_child(log, parent, info.node);
    return true;
}
