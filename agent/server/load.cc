// Documents merged into a transaction: each node of the document is one edit.
#include "agent/server/datastore.h"
#include "agent/server/store.h"

#include <algorithm>
#include <cstring>

struct document_t {
    lyd_node *first = nullptr;
    ~document_t() { lyd_free_all(first); }
};

// ---- NETCONF's envelope

static size_t skip_blank(std::string_view text, size_t at)
{
    size_t next = text.find_first_not_of(" \t\r\n", at);
    return next == std::string_view::npos ? text.size() : next;
}

// Position of the first element, behind declarations and comments.
static size_t first_element(std::string_view text)
{
    size_t at = skip_blank(text, 0);
    while (text.substr(at, 2) == "<?" || text.substr(at, 2) == "<!") {
        bool is_comment = text.substr(at, 4) == "<!--";
        size_t end = text.find(is_comment ? "-->" : ">", at);
        if (end == std::string_view::npos)
            return text.size();
        at = skip_blank(text, end + (is_comment ? 3 : 1));
    }
    return at;
}

// What stands inside a "config" or "data" element around everything; else the text itself.
static std::string_view inside_envelope(std::string_view text)
{
    size_t at = first_element(text);
    size_t end = text.find('>', at);
    if (at >= text.size() || text[at] != '<' || end == std::string_view::npos)
        return text;
    std::string_view name = text.substr(at + 1, text.find_first_of(" \t\r\n/>", at) - at - 1);
    name.remove_prefix(name.find(':') == std::string_view::npos ? 0 : name.find(':') + 1);
    if (name != "config" && name != "data")
        return text.substr(at);
    if (text[end - 1] == '/')
        return {};
    size_t close = text.rfind("</");
    return close == std::string_view::npos || close < end ? text : text.substr(end + 1, close - end - 1);
}

// The lines above it are kept, empty, so that errors name lines of the document.
static std::string envelope_content(std::string_view text)
{
    std::string_view inside = inside_envelope(text);
    if (inside.empty())
        return {};
    std::string_view above = text.substr(0, static_cast<size_t>(inside.data() - text.data()));
    std::string content(static_cast<size_t>(std::ranges::count(above, '\n')), '\n');
    return content.append(inside);
}

// ---- edits

static bool load_siblings(trans_t &trans, const lyd_node *first, ds_error_t &error);

static bool is_there(trans_t &trans, const path_t &path)
{
    const lyd_node *node = tree_find(trans.store->running, path.steps);
    return node && !is_default(node);
}

static bool load_node(trans_t &trans, const lyd_node *node, ds_error_t &error)
{
    const schema_info_t *info = node->schema ? schema_info(node->schema) : nullptr;
    if (!info)
        return ds_fail(error, CONFD_ERR_BADPATH, "the document has a node that the data model does not know");
    path_t path = tree_path(node);
    if (node->meta) // an operation that is passed over would merge what it was to delete
        return ds_fail(error, CONFD_ERR_BADTYPE,
                       path_text(path) + ": attribute " + node->meta->name +
                           ": documents are merged, without attributes; delete or order with commands");
    if (info->is(WIRE_NODE_KEY))
        return true;
    if (info->is(WIRE_NODE_LEAF))
        return trans_set_text(trans, path, lyd_get_value(node), error);
    bool is_made = info->is(WIRE_NODE_LIST | WIRE_NODE_PRESENCE | WIRE_NODE_LEAF_LIST);
    if (is_made && !is_there(trans, path) && !trans_create(trans, path, error))
        return false;
    return load_siblings(trans, lyd_child(node), error);
}

static bool load_siblings(trans_t &trans, const lyd_node *first, ds_error_t &error)
{
    for (const lyd_node *node = first; node; node = node->next)
        if (!load_node(trans, node, error))
            return false;
    return true;
}

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

bool trans_load(trans_t &trans, doc_format_t format, const std::string &document, ds_error_t &error)
{
    if (!trans.is_writable)
        return ds_fail(error, CONFD_ERR_NOT_WRITABLE, "the transaction is for reading only");
    if (strlen(document.c_str()) != document.size())
        return ds_fail(error, CONFD_ERR_BADTYPE, "the document is refused: it holds a NUL");
    const ly_ctx *ctx = trans.store->schema->ctx.get();
    std::string text = format == DOC_XML ? envelope_content(document) : document;
    document_t parsed;
    if (lyd_parse_data_mem(ctx, text.c_str(), format == DOC_JSON ? LYD_JSON : LYD_XML,
                           LYD_PARSE_ONLY | LYD_PARSE_STRICT | LYD_PARSE_NO_STATE, 0, &parsed.first) != LY_SUCCESS)
        return fail_parse(ctx, error);
    if (!trans_check(trans, error))
        return false;
    size_t mark = trans_mark(trans);
    if (load_siblings(trans, parsed.first, error))
        return true;
    trans_rewind(trans, mark);
    return false;
}
