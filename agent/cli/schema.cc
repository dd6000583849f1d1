// Loading of the models and access to their nodes. The rules of types are in schema_type.cc.
#include "agent/cli/schema.h"

#include <algorithm>
#include <cstring>
#include <dirent.h>

namespace
{

struct dir_closer {
    void operator()(DIR *dir) const { closedir(dir); }
};
using dir_ptr = std::unique_ptr<DIR, dir_closer>;

// Names of the modules in the folder, sorted.
std::vector<std::string> module_names(const std::string &folder)
{
    static constexpr std::string_view SUFFIX = ".yang";
    std::vector<std::string> names;
    dir_ptr dir(opendir(folder.c_str()));
    if (!dir)
        return names;
    while (const dirent *entry = readdir(dir.get())) {
        std::string_view name = entry->d_name;
        if (name.ends_with(SUFFIX))
            names.emplace_back(name.substr(0, std::min(name.find('@'), name.size() - SUFFIX.size())));
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string last_message(const ly_ctx *ctx)
{
    const ly_err_item *item = ly_err_first(ctx);
    return item && item->prev && item->prev->msg ? item->prev->msg : "no reason given";
}

// Top-level data of the folder's own modules; the library brings some of its own, which the agent does not serve.
void collect_roots(schema_t &schema, const std::vector<std::string> &names)
{
    for (const std::string &name : names) {
        const lys_module *module = ly_ctx_get_module_implemented(schema.ctx.get(), name.c_str());
        const lysc_node *node = nullptr;
        while (module && module->compiled && (node = lys_getnext(node, nullptr, module->compiled, 0)))
            if (node->nodetype & (LYS_CONTAINER | LYS_LIST | LYS_LEAF | LYS_LEAFLIST))
                schema.roots.push_back(node);
        if (!module || !module->compiled)
            continue;
        for (const lysc_node_action *rpc = module->compiled->rpcs; rpc;
             rpc = reinterpret_cast<const lysc_node_action *>(rpc->next))
            schema.rpcs.push_back(&rpc->node);
        for (const lysc_node_notif *notif = module->compiled->notifs; notif;
             notif = reinterpret_cast<const lysc_node_notif *>(notif->next))
            schema.notifications.push_back(&notif->node);
    }
}

} // namespace

bool schema_load(const std::string &folder, const std::string &library_folder, schema_t &schema, cli_error_t &error)
{
    std::vector<std::string> names = module_names(folder);
    if (names.empty())
        return cli_fail(error, "no data models in " + folder);
    ly_log_options(LY_LOSTORE);
    ly_ctx *raw = nullptr;
    uint16_t options = LY_CTX_NO_YANGLIBRARY | LY_CTX_EXPLICIT_COMPILE | LY_CTX_DISABLE_SEARCHDIR_CWD;
    if (ly_ctx_new(folder.c_str(), options, &raw) != LY_SUCCESS)
        return cli_fail(error, "cannot read the data models in " + folder);
    schema.ctx.reset(raw);
    (void)ly_ctx_set_searchdir(raw, library_folder.c_str()); // missing: the import that needs it fails and says so
    for (const std::string &name : names)
        if (!ly_ctx_load_module(raw, name.c_str(), nullptr, nullptr))
            return cli_fail(error, "data model " + name + ": " + last_message(raw));
    if (ly_ctx_compile(raw) != LY_SUCCESS)
        return cli_fail(error, "data models in " + folder + ": " + last_message(raw));
    collect_roots(schema, names);
    return true;
}

std::vector<const lysc_node *> schema_children(const schema_t &schema, const lysc_node *parent)
{
    if (!parent)
        return schema.roots;
    std::vector<const lysc_node *> children;
    const lysc_node *node = nullptr;
    while ((node = lys_getnext(node, parent, nullptr, 0)))
        if (node->nodetype & (LYS_CONTAINER | LYS_LIST | LYS_LEAF | LYS_LEAFLIST))
            children.push_back(node);
    return children;
}

const lysc_node *schema_find_child(const schema_t &schema, const lysc_node *parent, std::string_view name)
{
    return schema_find_in(schema_children(schema, parent), name);
}

const lysc_node *schema_find_in(const std::vector<const lysc_node *> &nodes, std::string_view name)
{
    std::string_view prefix;
    if (size_t colon = name.find(':'); colon != name.npos) {
        prefix = name.substr(0, colon);
        name = name.substr(colon + 1);
    }
    for (const lysc_node *child : nodes)
        if (name == child->name && (prefix.empty() || prefix == child->module->prefix || prefix == child->module->name))
            return child;
    return nullptr;
}

std::vector<const lysc_node *> schema_actions(const schema_t &schema, const lysc_node *parent)
{
    if (!parent)
        return schema.rpcs;
    std::vector<const lysc_node *> actions;
    for (const lysc_node_action *action = lysc_node_actions(parent); action;
         action = reinterpret_cast<const lysc_node_action *>(action->next))
        actions.push_back(&action->node);
    return actions;
}

bool schema_leads_to_action(const lysc_node *node)
{
    if (!(node->nodetype & (LYS_CONTAINER | LYS_LIST)))
        return false;
    if (lysc_node_actions(node))
        return true;
    const lysc_node *child = nullptr;
    while ((child = lys_getnext(child, node, nullptr, 0)))
        if (schema_leads_to_action(child))
            return true;
    return false;
}

bool schema_leads_to_data(const lysc_node *node)
{
    if (node->nodetype != LYS_CONTAINER || schema_is_presence(node))
        return true;
    const lysc_node *child = nullptr;
    while ((child = lys_getnext(child, node, nullptr, 0)))
        if (!(child->nodetype & (LYS_ACTION | LYS_NOTIF)) && schema_leads_to_data(child))
            return true;
    return false;
}

std::vector<const lysc_node *> schema_action_roots(const schema_t &schema)
{
    std::vector<const lysc_node *> nodes = schema.rpcs;
    for (const lysc_node *root : schema.roots)
        if (schema_leads_to_action(root))
            nodes.push_back(root);
    return nodes;
}

const lysc_node *schema_input(const lysc_node *action)
{
    return &reinterpret_cast<const lysc_node_action *>(action)->input.node;
}

const lysc_node *schema_output(const lysc_node *action)
{
    return &reinterpret_cast<const lysc_node_action *>(action)->output.node;
}

std::vector<const lysc_node *> schema_keys(const lysc_node *list)
{
    std::vector<const lysc_node *> keys;
    if (!schema_is_list(list))
        return keys;
    for (const lysc_node *child = lysc_node_child(list); child && lysc_is_key(child); child = child->next)
        keys.push_back(child);
    return keys;
}

bool schema_is_leaf(const lysc_node *node)
{
    return node && node->nodetype == LYS_LEAF;
}

bool schema_is_leaf_list(const lysc_node *node)
{
    return node && node->nodetype == LYS_LEAFLIST;
}

bool schema_is_list(const lysc_node *node)
{
    return node && node->nodetype == LYS_LIST;
}

bool schema_is_config(const lysc_node *node)
{
    return (node->flags & LYS_CONFIG_W) != 0;
}

bool schema_is_empty_leaf(const lysc_node *node)
{
    return schema_is_leaf(node) && reinterpret_cast<const lysc_node_leaf *>(node)->type->basetype == LY_TYPE_EMPTY;
}

bool schema_is_presence(const lysc_node *node)
{
    return node && node->nodetype == LYS_CONTAINER && (node->flags & LYS_PRESENCE);
}

namespace
{

// The argument of the node's extension statement; null without one.
const char *extension_argument(const lysc_node *node, const char *name)
{
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(node->exts, i)
    if (strcmp(node->exts[i].def->name, name) == 0)
        return node->exts[i].argument;
    return nullptr;
}

struct atoms_freer {
    void operator()(ly_set *set) const { ly_set_free(set, nullptr); }
};

} // namespace

bool schema_is_user_ordered(const lysc_node *node)
{
    return node && (node->nodetype & (LYS_LIST | LYS_LEAFLIST)) && (node->flags & LYS_ORDBY_USER);
}

bool schema_is_secret(const lysc_node *node)
{
    return schema_is_leaf(node) && extension_argument(node, "encrypted");
}

bool schema_has_completion(const lysc_node *leaf)
{
    return extension_argument(leaf, "completion") != nullptr;
}

const lysc_node *schema_referenced(const lysc_node *leaf)
{
    if (!schema_is_leaf(leaf) && !schema_is_leaf_list(leaf))
        return nullptr;
    const lysc_type *type = reinterpret_cast<const lysc_node_leaf *>(leaf)->type;
    if (type->basetype != LY_TYPE_LEAFREF)
        return nullptr;
    const auto *reference = reinterpret_cast<const lysc_type_leafref *>(type);
    ly_set *atoms = nullptr;
    if (lys_find_expr_atoms(leaf, leaf->module, reference->path, reference->prefixes, LYS_FIND_XP_SCHEMA, &atoms) !=
        LY_SUCCESS)
        return nullptr;
    std::unique_ptr<ly_set, atoms_freer> owner(atoms);
    for (uint32_t i = atoms->count; i > 0; i--) // the target is met last, but for leaves of its predicates
        if (schema_is_leaf(atoms->snodes[i - 1]) && atoms->snodes[i - 1] != leaf)
            return atoms->snodes[i - 1];
    return nullptr;
}

std::string schema_json_name(const lysc_node *node)
{
    const lysc_node *parent = lysc_data_parent(node);
    bool is_local = parent && parent->module == node->module;
    return is_local ? node->name : std::string(node->module->name) + ":" + node->name;
}

std::string schema_help(const lysc_node *node)
{
    if (const char *info = extension_argument(node, "info"))
        return info;
    std::string_view text = node->dsc ? node->dsc : "";
    size_t end = std::min(text.find(". "), text.find(".\n"));
    std::string line(text.substr(0, end));
    std::replace(line.begin(), line.end(), '\n', ' ');
    if (line.ends_with('.'))
        line.pop_back();
    return line;
}
