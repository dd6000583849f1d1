// Documents merged into a transaction: each node of the document is one edit, or what its NETCONF operation asks for.
#include "agent/server/datastore.h"
#include "agent/server/store.h"
#include "agent/server/xml_envelope.h"

#include <cstring>

struct document_t {
    lyd_node *first = nullptr;
    ~document_t() { lyd_free_all(first); }
};

// ---- operations (RFC 6241, section 7.2)

enum operation_t : uint8_t {
    OPERATION_MERGE,
    OPERATION_REPLACE,
    OPERATION_CREATE,
    OPERATION_DELETE,
    OPERATION_REMOVE,
    OPERATION_NONE,
};

struct operation_row_t {
    std::string_view name;
    operation_t operation;
};
static constexpr operation_row_t operation_rows[] = {
    { "merge", OPERATION_MERGE },   { "replace", OPERATION_REPLACE }, { "create", OPERATION_CREATE },
    { "delete", OPERATION_DELETE }, { "remove", OPERATION_REMOVE },   { "none", OPERATION_NONE },
};

static bool find_operation(std::string_view name, const path_t &path, operation_t &operation, ds_error_t &error)
{
    for (const operation_row_t &row : operation_rows)
        if (row.name == name) {
            operation = row.operation;
            return true;
        }
    return ds_fail(error, CONFD_ERR_BADTYPE, path_text(path) + ": there is no operation \"" + std::string(name) + "\"");
}

static bool is_operation(std::string_view name, std::string_view ns)
{
    return name == "operation" && ns == NETCONF_NAMESPACE;
}

// The operation that the node's attribute asks for; without one it stays what it is.
static bool own_operation(const lyd_node *node, const path_t &path, operation_t &operation, ds_error_t &error)
{
    for (const lyd_meta *meta = node->meta; meta; meta = meta->next) {
        if (!is_operation(meta->name, meta->annotation->module->ns)) // passing over it would change what is asked for
            return ds_fail(error, CONFD_ERR_BADTYPE,
                           path_text(path) + ": attribute " + meta->name +
                               ": no other attribute than NETCONF's operation is taken; order with commands");
        if (!find_operation(lyd_get_meta_value(meta), path, operation, error))
            return false;
    }
    return true;
}

// ---- edits

struct load_t {
    trans_t &trans;
    ds_error_t refusal; // of the parser, when it could not type all nodes
    std::string line;   // where that was, in words
};

static bool load_siblings(load_t &load, const lyd_node *first, operation_t operation, ds_error_t &error);

static bool is_there(trans_t &trans, const path_t &path)
{
    const lyd_node *node = tree_find(trans.store->running, path.steps);
    return node && !is_default(node);
}

static bool take_out(load_t &load, const path_t &path, operation_t operation, ds_error_t &error)
{
    ds_error_t why;
    if (trans_delete(load.trans, path, why) || (operation == OPERATION_REMOVE && why.code == CONFD_ERR_NOEXISTS))
        return true;
    error = std::move(why);
    return false;
}

// What a node to be replaced holds goes, the node stays: in its place among others that users have put in order.
static bool clear_content(load_t &load, const path_t &path, ds_error_t &error)
{
    for (const schema_info_t *child : path.node()->children) {
        if (!child->is(WIRE_NODE_CONFIG) || child->is(WIRE_NODE_KEY))
            continue;
        path_t at = path;
        at.steps.push_back({ child, {} });
        if (!take_out(load, at, OPERATION_REMOVE, error))
            return false;
    }
    return true;
}

static bool prepare_node(load_t &load, const path_t &path, operation_t operation, ds_error_t &error)
{
    bool has = is_there(load.trans, path);
    if (operation == OPERATION_CREATE && has)
        return ds_fail(error, CONFD_ERR_ALREADY_EXISTS, path_text(path) + " exists already");
    if (operation == OPERATION_NONE && !has && path.node()->is(WIRE_NODE_LIST | WIRE_NODE_PRESENCE))
        return ds_fail(error, CONFD_ERR_NOEXISTS, path_text(path) + " does not exist");
    bool is_inner = path.node()->is(WIRE_NODE_LIST | WIRE_NODE_CONTAINER);
    return operation != OPERATION_REPLACE || !has || !is_inner || clear_content(load, path, error);
}

static bool merge_node(load_t &load, const lyd_node *node, const path_t &path, ds_error_t &error)
{
    const schema_info_t &info = *path.node();
    if (info.is(WIRE_NODE_LEAF))
        return trans_set_text(load.trans, path, lyd_get_value(node), error);
    bool is_made = info.is(WIRE_NODE_LIST | WIRE_NODE_PRESENCE | WIRE_NODE_LEAF_LIST);
    if (is_made && !is_there(load.trans, path) && !trans_create(load.trans, path, error))
        return false;
    return load_siblings(load, lyd_child(node), OPERATION_MERGE, error);
}

static std::string_view text_or_empty(const char *text)
{
    return text ? text : "";
}

// A node that the parser could not type: a leaf to be deleted may stand without its value. Anything else is what the
// document is refused for.
static bool load_opaque(load_t &load, const lyd_node *node, ds_error_t &error)
{
    auto *opaque = reinterpret_cast<const lyd_node_opaq *>(node);
    path_t path = node->parent ? tree_path(tree_parent(node)) : path_t();
    const schema_info_t *info = schema_find(*load.trans.store->schema, path.node(), opaque->name.name, {},
                                            wire_hash(text_or_empty(opaque->name.module_ns)));
    if (!info || !info->is(WIRE_NODE_CONFIG) || info->is(WIRE_NODE_KEY)) {
        error = load.refusal;
        return false;
    }
    path.steps.push_back({ info, {} });
    operation_t operation = OPERATION_MERGE;
    for (const lyd_attr *attr = opaque->attr; attr; attr = attr->next)
        if (is_operation(attr->name.name, text_or_empty(attr->name.module_ns)) &&
            !find_operation(text_or_empty(attr->value), path, operation, error))
            return false;
    bool is_deletion = operation == OPERATION_DELETE || operation == OPERATION_REMOVE;
    bool is_bare =
        text_or_empty(opaque->value).find_first_not_of(" \t\r\n") == std::string_view::npos && !opaque->child;
    if (is_deletion && is_bare && info->is(WIRE_NODE_LEAF))
        return take_out(load, path, operation, error);
    value_t value;
    error = load.refusal;
    ds_error_t why;
    if (info->is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST) &&
        !value_from_text(*info, text_or_empty(opaque->value), path_text(path), value, why))
        return ds_fail(error, why.code, why.text + load.line);
    return false;
}

static bool load_node(load_t &load, const lyd_node *node, operation_t operation, ds_error_t &error)
{
    if (!node->schema)
        return load_opaque(load, node, error);
    const schema_info_t *info = schema_info(node->schema);
    if (!info)
        return ds_fail(error, CONFD_ERR_BADPATH, "the document has a node that the data model does not know");
    path_t path = tree_path(node);
    if (!own_operation(node, path, operation, error))
        return false;
    if (info->is(WIRE_NODE_KEY))
        return true;
    if (operation == OPERATION_DELETE || operation == OPERATION_REMOVE)
        return take_out(load, path, operation, error);
    if (!prepare_node(load, path, operation, error))
        return false;
    return operation == OPERATION_NONE ? load_siblings(load, lyd_child(node), operation, error)
                                       : merge_node(load, node, path, error);
}

static bool load_siblings(load_t &load, const lyd_node *first, operation_t operation, ds_error_t &error)
{
    for (const lyd_node *node = first; node; node = node->next)
        if (!load_node(load, node, operation, error))
            return false;
    return true;
}

// ---- documents

static constexpr size_t MAX_DOCUMENT = 32u << 20;
static constexpr size_t MAX_NESTING = 128;

static bool fail_parse(const ly_ctx *ctx, ds_error_t &error)
{
    const ly_err_item *item = ly_err_last(ctx);
    std::string text = "the document is refused: ";
    text += item && item->msg ? item->msg : "it is not well formed";
    if (item && item->path)
        text += std::string(" (") + item->path + ")";
    ly_err_clean(const_cast<ly_ctx *>(ctx), nullptr);
    return ds_fail(error, CONFD_ERR_BADTYPE, text);
}

// " (line 5)", as far as libyang tells.
static std::string line_of(const ds_error_t &refusal)
{
    static constexpr std::string_view words = "line number ";
    size_t at = refusal.text.rfind(words);
    if (at == std::string::npos)
        return {};
    at += words.size();
    return " (line " + refusal.text.substr(at, refusal.text.find_first_not_of("0123456789", at) - at) + ")";
}

static bool is_nested_too_deep(std::string_view json)
{
    size_t depth = 0;
    bool is_string = false;
    for (size_t i = 0; i < json.size() && depth <= MAX_NESTING; i++) {
        char c = json[i];
        if (c == '"')
            is_string = !is_string;
        else if (c == '\\' && is_string)
            i++;
        else if (!is_string && (c == '{' || c == '['))
            depth++;
        else if (!is_string && (c == '}' || c == ']'))
            depth -= depth > 0 ? 1 : 0;
    }
    return depth > MAX_NESTING;
}

static bool take_content(doc_format_t format, const std::string &document, std::string &content, ds_error_t &error)
{
    if (strlen(document.c_str()) != document.size())
        return ds_fail(error, CONFD_ERR_BADTYPE, "the document is refused: it holds a NUL");
    if (document.size() > MAX_DOCUMENT || (format == DOC_JSON && is_nested_too_deep(document)))
        return ds_fail(error, CONFD_ERR_TOOBIG, "the document is refused: it is too big or nested too deep");
    if (format == DOC_XML)
        return xml_take_content(document, content, error);
    content = document;
    return true;
}

// An XML document with nodes that cannot be typed is parsed again with those as they stand.
static bool parse(load_t &load, doc_format_t format, const std::string &content, document_t &parsed, ds_error_t &error)
{
    const ly_ctx *ctx = load.trans.store->schema->ctx.get();
    LYD_FORMAT form = format == DOC_JSON ? LYD_JSON : LYD_XML;
    if (lyd_parse_data_mem(ctx, content.c_str(), form, LYD_PARSE_ONLY | LYD_PARSE_STRICT | LYD_PARSE_NO_STATE, 0,
                           &parsed.first) == LY_SUCCESS)
        return true;
    (void)fail_parse(ctx, load.refusal);
    load.line = line_of(load.refusal);
    if (format == DOC_XML &&
        lyd_parse_data_mem(ctx, content.c_str(), form, LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0, &parsed.first) == LY_SUCCESS)
        return true;
    ly_err_clean(const_cast<ly_ctx *>(ctx), nullptr);
    error = load.refusal;
    return false;
}

bool trans_load(trans_t &trans, doc_format_t format, const std::string &document, ds_error_t &error)
{
    if (!trans.is_writable)
        return ds_fail(error, CONFD_ERR_NOT_WRITABLE, "the transaction is for reading only");
    load_t load = { trans, {}, {} };
    std::string content;
    document_t parsed;
    if (!take_content(format, document, content, error) || !parse(load, format, content, parsed, error) ||
        !trans_check(trans, error))
        return false;
    size_t mark = trans_mark(trans);
    if (load_siblings(load, parsed.first, OPERATION_MERGE, error))
        return true;
    trans_rewind(trans, mark);
    return false;
}
