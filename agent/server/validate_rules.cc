#include "agent/server/validate_rules.h"

#include "agent/server/implicit.h"
#include "agent/server/ly_array.h"

#include <libyang/plugins_types.h>
#include <unordered_set>

// ---- must

static std::string shown_value(const lyd_node *node)
{
    bool is_term = node->schema->nodetype & (LYS_LEAF | LYS_LEAFLIST);
    return is_term ? " = \"" + std::string(lyd_get_value(node)) + "\"" : "";
}

// Not the rule's own message: whoever reads it would look for the fault in his edits.
static std::string unclear_rule(const lyd_node *node, const lysc_must &must)
{
    const ly_err_item *item = ly_err_last(tree_ctx(node));
    return std::string("\"") + lyxp_get_expr(must.cond) + "\" cannot be judged" +
           (item && item->msg ? std::string(": ") + item->msg : "");
}

bool rule_musts(const lyd_node *node, ds_error_t &error)
{
    const lysc_must *musts = lysc_node_musts(node->schema);
    for (size_t u = 0; u < ly_count(musts); u++) {
        ly_bool holds = 0;
        const lysc_must &must = musts[u];
        LY_ERR result = lyd_eval_xpath3(node, node->schema->module, lyxp_get_expr(must.cond), LY_VALUE_SCHEMA_RESOLVED,
                                        must.prefixes, nullptr, &holds);
        if (result == LY_SUCCESS && holds)
            continue;
        std::string rule = result != LY_SUCCESS ? unclear_rule(node, must)
                           : must.emsg          ? must.emsg
                                                : std::string("must be \"") + lyxp_get_expr(must.cond) + "\"";
        return ds_fail(error, CONFD_ERR_VALIDATION, tree_path_text(node) + shown_value(node) + ": " + rule);
    }
    return true;
}

// ---- references

static const lysc_type *type_of(const lysc_node *schema)
{
    return schema->nodetype == LYS_LEAF       ? reinterpret_cast<const lysc_node_leaf *>(schema)->type
           : schema->nodetype == LYS_LEAFLIST ? reinterpret_cast<const lysc_node_leaflist *>(schema)->type
                                              : nullptr;
}

bool rule_references(tree_t &tree, const lyd_node *node, ds_error_t &error)
{
    const lysc_type *type = type_of(node->schema);
    if (!type || !type->plugin->validate)
        return true;
    ly_err_item *item = nullptr;
    auto *term = reinterpret_cast<lyd_node_term *>(const_cast<lyd_node *>(node)); // the plugin may cache in the value
    LY_ERR result = type->plugin->validate(tree_ctx(node), type, node, tree.first, &term->value, &item);
    ly_err_free(item);
    if (result == LY_SUCCESS)
        return true;
    std::string target = type->basetype == LY_TYPE_LEAFREF
                             ? lyxp_get_expr(reinterpret_cast<const lysc_type_leafref *>(type)->path)
                             : "the model";
    return ds_fail(error, CONFD_ERR_VALIDATION,
                   tree_path_text(node) + shown_value(node) + " refers to nothing that is there (" + target + ")");
}

// ---- numbers of children

struct children_check_t {
    tree_t &tree;
    lyd_node *parent;
    ds_error_t &error;
};

static std::string child_path(const children_check_t &check, const lysc_node *schema)
{
    return (check.parent ? tree_path_text(check.parent) : "") + "/" + schema->name;
}

static bool missing(const children_check_t &check, const lysc_node *schema, const std::string &text)
{
    if (!implicit_when_holds(check.tree, check.parent, schema, nullptr))
        return true;
    return ds_fail(check.error, CONFD_ERR_NOTSET, child_path(check, schema) + " " + text);
}

static bool check_count(const children_check_t &check, const lysc_node *schema, uint32_t min, uint32_t max)
{
    if (min == 0 && (max == 0 || max == UINT32_MAX))
        return true;
    size_t count = tree_entries(check.tree, check.parent, schema).size();
    if (count < min)
        return missing(check, schema,
                       "has " + std::to_string(count) + " elements, at least " + std::to_string(min) + " are needed");
    if (max == 0 || count <= max)
        return true;
    return ds_fail(check.error, CONFD_ERR_VALIDATION,
                   child_path(check, schema) + " has " + std::to_string(count) + " elements, at most " +
                       std::to_string(max) + " are allowed");
}

static bool check_siblings(const children_check_t &check, const lysc_node *first);

static bool has_data(const children_check_t &check, const lysc_node *inside)
{
    for (const lysc_node *at = lysc_node_child(inside); at; at = at->next) {
        if (at->nodetype & (LYS_CHOICE | LYS_CASE)) {
            if (has_data(check, at))
                return true;
            continue;
        }
        // A container without presence is there for every case alike until something is in it.
        const lyd_node *node = tree_find_child(check.tree, check.parent, at);
        if (node && !(lysc_is_np_cont(at) && is_default(node)))
            return true;
    }
    return false;
}

// The rules of a case hold once it has data.
static bool check_choice(const children_check_t &check, const lysc_node *choice)
{
    bool has_any = false;
    for (const lysc_node *at = lysc_node_child(choice); at; at = at->next) {
        if (!has_data(check, at))
            continue;
        has_any = true;
        if (!check_siblings(check, lysc_node_child(at)))
            return false;
    }
    bool is_mandatory = choice->flags & LYS_MAND_TRUE;
    return has_any || !is_mandatory || missing(check, choice, "has to be chosen: none of its nodes is set");
}

static bool check_child(const children_check_t &check, const lysc_node *schema)
{
    switch (schema->nodetype) {
    case LYS_CHOICE:
        return check_choice(check, schema);
    case LYS_LIST: {
        auto *list = reinterpret_cast<const lysc_node_list *>(schema);
        return check_count(check, schema, list->min, list->max);
    }
    case LYS_LEAFLIST: {
        auto *list = reinterpret_cast<const lysc_node_leaflist *>(schema);
        return check_count(check, schema, list->min, list->max);
    }
    case LYS_LEAF:
        return !(schema->flags & LYS_MAND_TRUE) || tree_find_child(check.tree, check.parent, schema) ||
               missing(check, schema, "has to be set");
    default:
        return true;
    }
}

static bool check_siblings(const children_check_t &check, const lysc_node *first)
{
    for (const lysc_node *schema = first; schema; schema = schema->next)
        if ((schema->flags & LYS_CONFIG_W) && !check_child(check, schema))
            return false;
    return true;
}

bool rule_children(tree_t &tree, lyd_node *parent, ds_error_t &error)
{
    children_check_t check = { tree, parent, error };
    if (parent)
        return check_siblings(check, lysc_node_child(parent->schema));
    const ly_ctx *ctx = tree.first ? tree_ctx(tree.first) : nullptr;
    uint32_t at = 0;
    while (const lys_module *mod = ctx ? ly_ctx_get_module_iter(ctx, &at) : nullptr)
        if (mod->implemented && mod->compiled && !check_siblings(check, mod->compiled->data))
            return false;
    return true;
}

// ---- unique

// The leaf below the entry, through containers; null when it has none.
static const lyd_node *find_below(tree_t &tree, const lyd_node *entry, const lysc_node *leaf)
{
    const schema_info_t *info = schema_info(leaf);
    const lyd_node *above = entry;
    if (info->parent->node != entry->schema)
        above = find_below(tree, entry, info->parent->node);
    return above ? tree_find_child(tree, above, leaf) : nullptr;
}

// Values of the leaves, each with its length before it; empty when one is missing, for then the rule does not apply.
static std::string unique_text(tree_t &tree, const lyd_node *entry, lysc_node_leaf **leaves)
{
    std::string text;
    for (size_t u = 0; u < ly_count(leaves); u++) {
        const lyd_node *leaf = find_below(tree, entry, &leaves[u]->node);
        if (!leaf)
            return {};
        std::string value = lyd_get_value(leaf);
        text += std::to_string(value.size()) + ":" + value;
    }
    return text;
}

static std::string leaf_names(lysc_node_leaf **leaves)
{
    std::string names;
    for (size_t u = 0; u < ly_count(leaves); u++) {
        names += (names.empty() ? "" : ", ") + std::string(leaves[u]->name);
    }
    return names;
}

bool rule_unique(tree_t &tree, lyd_node *parent, const lysc_node *list, ds_error_t &error)
{
    lysc_node_leaf ***uniques = reinterpret_cast<const lysc_node_list *>(list)->uniques;
    for (size_t u = 0; u < ly_count(uniques); u++) {
        std::unordered_set<std::string> seen;
        for (const lyd_node *entry : tree_entries(tree, parent, list)) {
            std::string text = unique_text(tree, entry, uniques[u]);
            if (text.empty() || seen.insert(text).second)
                continue;
            return ds_fail(error, CONFD_ERR_VALIDATION,
                           tree_path_text(entry) + ": another entry has the same " + leaf_names(uniques[u]) +
                               ", which has to be unique");
        }
    }
    return true;
}
