#include "agent/server/encrypt.h"

#include "agent/server/store.h"
#include "agent/wire/crypto.h"

static bool has_clear_text(const trans_t &trans, std::string_view text, std::string_view clear)
{
    std::string present;
    return wire_decrypt(trans.store->options.crypto_keys, text, present) && present == clear;
}

// ---- the value that stays when its clear text is set again

static bool has_keys(const lyd_node *node, std::span<const value_t> keys)
{
    const lyd_node *key = lyd_child(node); // they come first
    for (size_t i = 0; i < keys.size() && key; i++, key = key->next)
        if (!tree_equal_values(tree_value(key), keys[i].raw))
            return false;
    return true;
}

// Is the node that an edit is about the instance of the steps? As far as it can be told from where it was.
static bool is_instance(const edit_t &edit, std::span<const path_step_t> steps)
{
    const lyd_node *node = edit.node;
    for (const lyd_node *parent = edit.parent; node && !steps.empty(); steps = steps.first(steps.size() - 1)) {
        const path_step_t &step = steps.back();
        if (step.node->node != node->schema || (step.node->is(WIRE_NODE_LIST) && !has_keys(node, step.keys)))
            return false;
        node = parent;
        parent = node ? tree_parent(node) : nullptr;
    }
    return !node;
}

static const lyd_node *find_below(tree_t &tree, lyd_node *at, std::span<const path_step_t> steps)
{
    for (const path_step_t &step : steps)
        if (at)
            at = step.node->is(WIRE_NODE_LIST) ? tree_find_entry(tree, at, step.node->node, step.keys)
                                               : tree_find_child(tree, at, step.node->node);
    return at;
}

// What the edit has taken from the leaf; false when that is nothing, or another clear text.
static bool take_lost(const trans_t &trans, const edit_t &edit, const path_t &path, std::string_view clear,
                      value_t &value)
{
    std::span<const path_step_t> steps(path.steps);
    for (size_t depth = steps.size(); depth > 0; depth--) {
        if (steps[depth - 1].node->node != edit.node->schema || !is_instance(edit, steps.first(depth)))
            continue;
        if (edit.kind == EDIT_VALUE) {
            value = edit.other;
            return has_clear_text(trans, value_text(value), clear);
        }
        const lyd_node *leaf = find_below(*trans.log.tree, edit.node, steps.subspan(depth));
        if (!leaf || !has_clear_text(trans, lyd_get_value(leaf), clear))
            return false;
        value = value_t(tree_ctx(leaf), tree_value(leaf));
        return true;
    }
    return false;
}

// From the transaction's view, or from what its edits have taken out of running. By the log and not by a look at
// running: a document that replaces many such leaves would change the view for each of them.
static bool take_present(trans_t &trans, const path_t &path, std::string_view clear, value_t &value)
{
    const lyd_node *leaf = tree_find(store_tree(*trans.store, { VIEW_TRANS, &trans }, path), path.steps);
    if (leaf && has_clear_text(trans, lyd_get_value(leaf), clear)) {
        value = value_t(tree_ctx(leaf), tree_value(leaf));
        return true;
    }
    value_t lost;
    for (const edit_t &edit : trans.log.edits)
        if ((edit.kind == EDIT_UNLINK || edit.kind == EDIT_VALUE) && take_lost(trans, edit, path, clear, lost)) {
            value = std::move(lost);
            return true;
        }
    return false;
}

bool encrypt_value(trans_t &trans, const path_t &path, value_t &value, ds_error_t &error)
{
    datastore_t &store = *trans.store;
    const schema_info_t &info = *path.node();
    const std::string &keys = store.options.crypto_keys;
    if (keys.empty() || !info.is(WIRE_NODE_LEAF) || !schema_statement(info, "encrypted"))
        return true;
    std::string clear(value_text(value));
    std::string text;
    if (clear.starts_with(WIRE_CRYPTO_MARK))
        return wire_decrypt(keys, clear, text) ||
               ds_fail(error, CONFD_ERR_BADTYPE,
                       path_text(path) + ": the text begins with " + std::string(WIRE_CRYPTO_MARK) +
                           ", but was not encrypted with the keys of this agent");
    if (take_present(trans, path, clear, value))
        return true;
    if (!wire_encrypt(keys, clear, text))
        return ds_fail(error, CONFD_ERR_INTERNAL, path_text(path) + ": the text cannot be encrypted");
    return value_from_text(info, text, path_text(path), value, error);
}
