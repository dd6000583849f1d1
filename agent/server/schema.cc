#include "agent/server/schema.h"

#include "agent/server/ly_array.h"
#include "agent/server/schema_rules.h"
#include "agent/server/value.h"
#include "agent/server/xpath.h"

#include <algorithm>
#include <dirent.h>

// ---- hashes

// Notes a name by its hash; false when another name has it already.
static bool add_hash(schema_t &schema, const std::string &name, ds_error_t &error)
{
    auto [row, is_new] = schema.names.try_emplace(wire_hash(name), name);
    if (is_new || row->second == name)
        return true;
    return ds_fail(error, CONFD_ERR_INTERNAL,
                   "the data model cannot be loaded: the names " + name + " and " + row->second +
                       " have one hash; one of them has to be renamed");
}

// ---- nodes

static uint16_t kind_flags(const lysc_node *node)
{
    switch (node->nodetype) {
    case LYS_LIST:
        return WIRE_NODE_LIST;
    case LYS_CONTAINER:
        return lysc_is_np_cont(node) ? WIRE_NODE_CONTAINER : WIRE_NODE_CONTAINER | WIRE_NODE_PRESENCE;
    case LYS_LEAF:
        return lysc_is_key(node) ? WIRE_NODE_LEAF | WIRE_NODE_KEY : WIRE_NODE_LEAF;
    case LYS_LEAFLIST:
        return WIRE_NODE_LEAF_LIST;
    case LYS_RPC:
    case LYS_ACTION:
        return WIRE_NODE_ACTION;
    case LYS_NOTIF:
        return WIRE_NODE_NOTIF;
    default:
        return 0;
    }
}

static uint16_t node_flags(const lysc_node &node, const schema_info_t *parent)
{
    uint16_t flags = kind_flags(&node);
    if (parent && parent->is(WIRE_NODE_ACTION | WIRE_NODE_PARAM))
        flags |= WIRE_NODE_PARAM;
    if (parent && parent->is(WIRE_NODE_NOTIF))
        flags |= WIRE_NODE_NOTIF;
    if ((node.flags & LYS_CONFIG_W) && !(flags & (WIRE_NODE_ACTION | WIRE_NODE_PARAM | WIRE_NODE_NOTIF)))
        flags |= WIRE_NODE_CONFIG;
    return flags;
}

static const lysc_type *type_of(const lysc_node &node)
{
    if (node.nodetype == LYS_LEAF)
        return reinterpret_cast<const lysc_node_leaf &>(node).type;
    if (node.nodetype == LYS_LEAFLIST)
        return reinterpret_cast<const lysc_node_leaflist &>(node).type;
    return nullptr;
}

static void add_statements(const lysc_ext_instance *exts, std::vector<schema_statement_t> &statements)
{
    for (size_t u = 0; u < ly_count(exts); u++) {
        statements.push_back({ exts[u].def->name, exts[u].argument ? exts[u].argument : "" });
    }
}

static bool add_siblings(schema_t &schema, const lysc_node *first, schema_info_t *parent, schema_module_t &module,
                         ds_error_t &error);

static bool add_children(schema_t &schema, schema_info_t &info, schema_module_t &module, ds_error_t &error)
{
    const lysc_node *node = info.node;
    if (info.is(WIRE_NODE_ACTION)) {
        auto *action = reinterpret_cast<const lysc_node_action *>(node);
        return add_siblings(schema, action->input.child, &info, module, error) &&
               add_siblings(schema, action->output.child, &info, module, error);
    }
    return add_siblings(schema, lysc_node_child(node), &info, module, error) &&
           add_siblings(schema, reinterpret_cast<const lysc_node *>(lysc_node_actions(node)), &info, module, error) &&
           add_siblings(schema, reinterpret_cast<const lysc_node *>(lysc_node_notifs(node)), &info, module, error);
}

static bool add_node(schema_t &schema, const lysc_node &node, schema_info_t *parent, schema_module_t &module,
                     ds_error_t &error)
{
    if (parent && parent->depth >= MAXDEPTH)
        return ds_fail(error, CONFD_ERR_INTERNAL,
                       "the data model cannot be loaded: " + schema_path(*parent) + " has nodes below level " +
                           std::to_string(MAXDEPTH));
    schema_info_t &info = schema.nodes.emplace_back();
    info.node = &node;
    info.parent = parent;
    info.index = static_cast<uint32_t>(schema.nodes.size());
    info.order = info.index;
    info.tag = wire_hash(node.name);
    info.ns = wire_hash(node.module->ns);
    info.flags = node_flags(node, parent);
    info.depth = static_cast<uint8_t>(parent ? parent->depth + 1 : 1);
    const lysc_node *self = &node;
    info.is_user_ordered = lysc_is_userordered(self);
    const lysc_type *type = type_of(node);
    info.type = type ? value_type(type) : static_cast<uint8_t>(C_XMLTAG);
    add_statements(node.exts, info.statements);
    const_cast<lysc_node &>(node).priv = &info; // ours by the library's contract, though it hands out const nodes
    (parent ? parent->children : module.tops).push_back(&info);
    if (parent && info.is(WIRE_NODE_KEY))
        parent->keys.push_back(&info);
    return add_hash(schema, node.name, error) && add_children(schema, info, module, error);
}

static bool add_siblings(schema_t &schema, const lysc_node *first, schema_info_t *parent, schema_module_t &module,
                         ds_error_t &error)
{
    for (const lysc_node *node = first; node; node = node->next) {
        bool is_transparent = node->nodetype & (LYS_CHOICE | LYS_CASE);
        if (is_transparent ? !add_siblings(schema, lysc_node_child(node), parent, module, error)
                           : !add_node(schema, *node, parent, module, error))
            return false;
    }
    return true;
}

// ---- modules

static bool add_module(schema_t &schema, const lys_module &mod, ds_error_t &error)
{
    schema_module_t &module = schema.modules.emplace_back();
    module.module = &mod;
    module.ns = wire_hash(mod.ns);
    if (!add_hash(schema, mod.ns, error))
        return false;
    for (size_t u = 0; u < ly_count(mod.identities); u++) {
        if (!add_hash(schema, mod.identities[u].name, error))
            return false;
    }
    return add_siblings(schema, mod.compiled->data, nullptr, module, error) &&
           add_siblings(schema, reinterpret_cast<const lysc_node *>(mod.compiled->rpcs), nullptr, module, error) &&
           add_siblings(schema, reinterpret_cast<const lysc_node *>(mod.compiled->notifs), nullptr, module, error);
}

static bool list_modules(const std::string &dir, std::vector<std::string> &names, ds_error_t &error)
{
    DIR *folder = opendir(dir.c_str());
    if (!folder)
        return ds_fail(error, CONFD_ERR_OS, "the data model cannot be loaded: no folder " + dir);
    while (const dirent *entry = readdir(folder)) {
        std::string_view name = entry->d_name;
        if (name.ends_with(".yang"))
            names.emplace_back(name.substr(0, std::min(name.find('@'), name.size() - 5)));
    }
    closedir(folder);
    std::ranges::sort(names);
    if (names.empty())
        return ds_fail(error, CONFD_ERR_NOEXISTS, "the data model cannot be loaded: no .yang file in " + dir);
    return true;
}

static bool fail_from_context(const ly_ctx *ctx, const std::string &what, ds_error_t &error)
{
    const ly_err_item *item = ly_err_last(ctx);
    std::string text = "the data model cannot be loaded: " + what;
    if (item && item->msg)
        text += std::string(": ") + item->msg;
    if (item && item->path)
        text += std::string(" (") + item->path + ")";
    ly_err_clean(const_cast<ly_ctx *>(ctx), nullptr);
    return ds_fail(error, CONFD_ERR_INTERNAL, text);
}

// Gives libyang the attribute that NETCONF's operations stand in, unless a module of the folder brings it.
static bool add_operation_attribute(ly_ctx *ctx, ds_error_t &error)
{
    static constexpr char text[] = "module netconf-operation {"
                                   "  namespace \"urn:ietf:params:xml:ns:netconf:base:1.0\";"
                                   "  prefix nc;"
                                   "  import ietf-yang-metadata { prefix md; }"
                                   "  md:annotation operation { type string; }"
                                   "}";
    return ly_ctx_get_module_implemented_ns(ctx, "urn:ietf:params:xml:ns:netconf:base:1.0") ||
           lys_parse_mem(ctx, text, LYS_IN_YANG, nullptr) == LY_SUCCESS ||
           fail_from_context(ctx, "the attribute for operations", error);
}

static bool compile_modules(ly_ctx *ctx, const std::vector<std::string> &names, ds_error_t &error)
{
    const char *all_features[] = { "*", nullptr };
    for (const std::string &name : names)
        if (!ly_ctx_load_module(ctx, name.c_str(), nullptr, all_features))
            return fail_from_context(ctx, "module " + name, error);
    if (!add_operation_attribute(ctx, error))
        return false;
    xpath_rewrite_modules(ctx);
    if (ly_ctx_compile(ctx) != LY_SUCCESS)
        return fail_from_context(ctx, "the modules do not fit together", error);
    return true;
}

static bool index_modules(schema_t &schema, ds_error_t &error)
{
    uint32_t at = 0;
    while (const lys_module *mod = ly_ctx_get_module_iter(schema.ctx.get(), &at))
        if (mod->implemented && mod->compiled && !add_module(schema, *mod, error))
            return false;
    return true;
}

// ---- providers

static bool is_operational(const schema_info_t &info)
{
    return !info.is(WIRE_NODE_CONFIG | WIRE_NODE_ACTION | WIRE_NODE_PARAM | WIRE_NODE_NOTIF);
}

// The callpoint that is in force at a node: its own, or that of the next one above.
static const std::string *callpoint_above(const schema_info_t &info)
{
    const std::string *found = nullptr;
    for (const schema_info_t *at = &info; at && !found; at = at->parent)
        found = schema_statement(*at, "callpoint");
    return found;
}

static void find_callpoints(schema_t &schema)
{
    for (schema_info_t &info : schema.nodes)
        info.callpoint = is_operational(info) ? callpoint_above(info) : nullptr;
    for (size_t i = schema.nodes.size(); i-- > 0;) { // children before their parents
        schema_info_t &info = schema.nodes[i];
        info.has_operational |= is_operational(info);
        info.has_provided |= info.callpoint != nullptr;
        if (!info.parent)
            continue;
        schema_info_t &parent = schema.nodes[info.parent->index - 1];
        parent.has_operational |= info.has_operational;
        parent.has_provided |= info.has_provided;
    }
}

static void index_mib_names(schema_t &schema)
{
    for (const schema_info_t &info : schema.nodes)
        if (const std::string *name = info.is(WIRE_NODE_LEAF) ? schema_statement(info, "mib-name") : nullptr)
            schema.mib_leaves.emplace(*name, &info);
}

std::unique_ptr<schema_t> schema_load(const std::string &dir, const std::vector<std::string> &search_dirs,
                                      ds_error_t &error)
{
    ly_log_options(LY_LOSTORE_LAST);
    std::vector<std::string> names;
    if (!list_modules(dir, names, error))
        return nullptr;
    ly_ctx *ctx = nullptr;
    if (ly_ctx_new(dir.c_str(), LY_CTX_EXPLICIT_COMPILE | LY_CTX_NO_YANGLIBRARY | LY_CTX_DISABLE_SEARCHDIR_CWD, &ctx) !=
        LY_SUCCESS) {
        ds_fail(error, CONFD_ERR_OS, "the data model cannot be loaded: no context for " + dir);
        return nullptr;
    }
    auto schema = std::make_unique<schema_t>();
    schema->ctx.reset(ctx);
    for (const std::string &search_dir : search_dirs)
        ly_ctx_set_searchdir(ctx, search_dir.c_str());
    if (!compile_modules(ctx, names, error) || !index_modules(*schema, error))
        return nullptr;
    schema_find_rules(*schema);
    find_callpoints(*schema);
    index_mib_names(*schema);
    return schema;
}

// ---- lookup

static bool is_of_module(const schema_info_t &info, std::string_view prefix, uint32_t ns)
{
    const lys_module *mod = info.node->module;
    return (prefix.empty() || prefix == mod->prefix || prefix == mod->name) && (ns == 0 || ns == info.ns);
}

template <typename Match>
static const schema_info_t *find_child(const schema_t &schema, const schema_info_t *parent, Match match)
{
    if (parent) {
        auto found = std::ranges::find_if(parent->children, [&](auto *info) { return match(*info); });
        return found == parent->children.end() ? nullptr : *found;
    }
    for (const schema_module_t &module : schema.modules)
        for (const schema_info_t *info : module.tops)
            if (match(*info))
                return info;
    return nullptr;
}

const schema_info_t *schema_find(const schema_t &schema, const schema_info_t *parent, std::string_view name,
                                 std::string_view prefix, uint32_t ns)
{
    return find_child(schema, parent,
                      [&](const schema_info_t &info) { return name == info.name() && is_of_module(info, prefix, ns); });
}

const schema_info_t *schema_find_tag(const schema_t &schema, const schema_info_t *parent, uint32_t tag, uint32_t ns)
{
    return find_child(schema, parent,
                      [&](const schema_info_t &info) { return tag == info.tag && (ns == 0 || ns == info.ns); });
}

const std::string *schema_hash_name(const schema_t &schema, uint32_t hash)
{
    auto found = schema.names.find(hash);
    return found == schema.names.end() ? nullptr : &found->second;
}

const std::string *schema_statement(const schema_info_t &node, std::string_view name)
{
    for (const schema_statement_t &statement : node.statements)
        if (statement.name == name)
            return &statement.argument;
    return nullptr;
}

const schema_info_t *schema_find_mib_leaf(const schema_t &schema, std::string_view name)
{
    auto found = schema.mib_leaves.find(name);
    return found != schema.mib_leaves.end() ? found->second : nullptr;
}

bool schema_has_statement(const schema_t &schema, std::string_view name, std::string_view argument)
{
    return std::ranges::any_of(schema.nodes, [&](const schema_info_t &info) {
        return std::ranges::any_of(info.statements, [&](const schema_statement_t &statement) {
            return statement.name == name && statement.argument == argument;
        });
    });
}

std::string schema_path(const schema_info_t &node)
{
    return (node.parent ? schema_path(*node.parent) : std::string()) + "/" + node.name();
}

// ---- the listing for clients

static void add_labels(const lysc_type *type, std::vector<std::pair<int64_t, std::string>> &names)
{
    if (type->basetype == LY_TYPE_ENUM || type->basetype == LY_TYPE_BITS) {
        bool is_enum = type->basetype == LY_TYPE_ENUM;
        const lysc_type_bitenum_item *items = is_enum ? reinterpret_cast<const lysc_type_enum *>(type)->enums
                                                      : reinterpret_cast<const lysc_type_bits *>(type)->bits;
        for (size_t u = 0; u < ly_count(items); u++) {
            names.emplace_back(is_enum ? items[u].value : static_cast<int64_t>(items[u].position), items[u].name);
        }
    } else if (type->basetype == LY_TYPE_LEAFREF) {
        add_labels(reinterpret_cast<const lysc_type_leafref *>(type)->realtype, names);
    } else if (type->basetype == LY_TYPE_UNION) {
        lysc_type **members = reinterpret_cast<const lysc_type_union *>(type)->types;
        for (size_t u = 0; u < ly_count(members); u++) {
            add_labels(members[u], names);
        }
    }
}

static void add_identities(const lysc_ident *base, std::vector<std::pair<int64_t, std::string>> &names)
{
    for (size_t u = 0; u < ly_count(base->derived); u++) {
        names.emplace_back(wire_hash(base->derived[u]->name), base->derived[u]->name);
        add_identities(base->derived[u], names);
    }
}

static wire_schema_node_t wire_node(const schema_info_t &info)
{
    wire_schema_node_t node;
    node.name = info.name();
    node.tag = info.tag;
    node.ns = info.ns;
    node.parent = info.parent ? info.parent->index : 0;
    node.flags = info.flags;
    node.type = info.type;
    for (const schema_info_t *key : info.keys)
        node.keys.push_back(key->tag);
    const lysc_type *type = type_of(*info.node);
    if (!type)
        return node;
    add_labels(type, node.names);
    if (type->basetype == LY_TYPE_IDENT) {
        lysc_ident **bases = reinterpret_cast<const lysc_type_identityref *>(type)->bases;
        for (size_t u = 0; u < ly_count(bases); u++) {
            add_identities(bases[u], node.names);
        }
    }
    return node;
}

void schema_put_listing(const schema_t &schema, wire_writer_t &out)
{
    out.u32(static_cast<uint32_t>(schema.modules.size()));
    for (const schema_module_t &module : schema.modules) {
        out.text(module.module->name);
        out.text(module.module->prefix);
        out.text(module.module->ns);
        out.u32(module.ns);
    }
    out.u32(static_cast<uint32_t>(schema.nodes.size()));
    for (const schema_info_t &info : schema.nodes)
        wire_put_schema_node(out, wire_node(info));
}
