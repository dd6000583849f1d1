#include "agent/server/encrypt.h"

#include "agent/server/store.h"
#include "agent/wire/crypto.h"

// Takes the value that the view has if its clear text is the wanted one.
static bool take_present(datastore_t &store, view_t view, const path_t &path, std::string_view clear, value_t &value)
{
    const lyd_node *leaf = tree_find(store_tree(store, view, path), path.steps);
    std::string present;
    if (!leaf || !wire_decrypt(store.options.crypto_keys, lyd_get_value(leaf), present) || present != clear)
        return false;
    value = value_t(tree_ctx(leaf), tree_value(leaf));
    return true;
}

// Has the transaction taken out or changed a leaf of this kind? Else it has the leaves of running.
static bool has_lost_leaves(const trans_t &trans, const schema_info_t &info)
{
    for (const edit_t &edit : trans.log.edits)
        for (const schema_info_t *at = &info; at && (edit.kind == EDIT_UNLINK || edit.kind == EDIT_VALUE);
             at = at->parent)
            if (edit.node->schema == at->node)
                return true;
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
    if (take_present(store, { VIEW_TRANS, &trans }, path, clear, value) ||
        (has_lost_leaves(trans, info) && take_present(store, { VIEW_RUNNING }, path, clear, value)))
        return true;
    if (!wire_encrypt(keys, clear, text))
        return ds_fail(error, CONFD_ERR_INTERNAL, path_text(path) + ": the text cannot be encrypted");
    return value_from_text(info, text, path_text(path), value, error);
}
