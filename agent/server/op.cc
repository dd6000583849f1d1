#include "agent/server/op.h"

#include "agent/server/store.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

// ---- errors of libyang

// The last name of the instance that an error is about: "/lab:reset/delay" in "Data location "/lab:reset/delay", ...".
static std::string place_of(const ly_err_item &item)
{
    std::string_view path = item.path ? item.path : "";
    size_t open = path.find('"');
    if (open == std::string_view::npos)
        return std::string(path);
    path.remove_prefix(open + 1);
    return std::string(path.substr(0, std::min(path.find("\","), path.find("\"."))));
}

static bool fail_from_libyang(const ly_ctx *ctx, int code, const std::string &what, ds_error_t &error)
{
    const ly_err_item *item = ly_err_last(ctx);
    std::string text = what + ": " + (item && item->msg ? item->msg : "it does not fit the model");
    std::string place = item ? place_of(*item) : std::string();
    if (!place.empty())
        text += " (" + place + ")";
    ly_err_clean(const_cast<ly_ctx *>(ctx), nullptr);
    return ds_fail(error, code, std::move(text));
}

// ---- beginning a document

static bool is_input_of(const op_document_t &document)
{
    return document.info->is(WIRE_NODE_ACTION) && !document.is_output;
}

// One level of a path: a container, a list entry with its keys, or the operation.
static lyd_node *new_level(lyd_node *parent, const path_step_t &step)
{
    const lys_module *module =
        parent && step.node->node->module == parent->schema->module ? nullptr : step.node->node->module;
    lyd_node *made = nullptr;
    if (!step.node->is(WIRE_NODE_LIST)) {
        (void)lyd_new_inner(parent, module, step.node->name(), 0, &made); // null says it
        return made;
    }
    const char *k[MAXKEYLEN] = {};
    for (size_t i = 0; i < step.keys.size() && i < MAXKEYLEN; i++)
        k[i] = value_text(step.keys[i]).data();
    // Takes as many as the list has.
    (void)lyd_new_list(parent, module, step.node->name(), 0, &made, k[0], k[1], k[2], k[3], k[4], k[5], k[6], k[7],
                       k[8]);
    return made;
}

static bool begin_document(const path_t &path, bool is_output, op_document_t &document, ds_error_t &error)
{
    document = {};
    document.info = path.node();
    document.is_output = is_output;
    for (const path_step_t &step : path.steps) {
        lyd_node *made = new_level(document.op.get(), step);
        if (!made)
            return fail_from_libyang(step.node->node->module->ctx, CONFD_ERR_BADPATH, path_text(path), error);
        (void)document.op.release(); // owned by what stands in it
        document.op.reset(made);
    }
    return true;
}

// ---- judging

static lyd_type judged_type(const op_document_t &document)
{
    if (document.info->is(WIRE_NODE_NOTIF))
        return LYD_TYPE_NOTIF_YANG;
    return document.is_output ? LYD_TYPE_REPLY_YANG : LYD_TYPE_RPC_YANG;
}

static lyd_node *root_of(lyd_node *node)
{
    while (node->parent)
        node = tree_parent(node);
    return node;
}

static bool is_about_reference(const ly_ctx *ctx)
{
    const ly_err_item *item = ly_err_last(ctx);
    return item && item->apptag && strcmp(item->apptag, "instance-required") == 0;
}

// libyang puts the operation into the tree for the time of its judgement and takes it out again; containers around it
// have lost their default flags then.
static void refresh_default_flags(tree_t &tree, const path_t &path)
{
    for (size_t depth = path.steps.size(); depth-- > 1;)
        if (lyd_node *above = tree_find(tree, { path.steps.data(), depth }))
            return tree_refresh_default_flag(above);
}

static bool judge(datastore_t &store, view_t view, const path_t &path, op_document_t &document, const std::string &what,
                  ds_error_t &error)
{
    store_show_view(store, view);
    const ly_ctx *ctx = store.schema->ctx.get();
    LY_ERR result = lyd_validate_op(root_of(document.op.get()), store.running.first, judged_type(document), nullptr);
    refresh_default_flags(store.running, path);
    if (result == LY_SUCCESS)
        return true;
    if (!is_input_of(document) && is_about_reference(ctx)) {
        ly_err_clean(const_cast<ly_ctx *>(ctx), nullptr);
        return true;
    }
    return fail_from_libyang(ctx, CONFD_ERR_VALIDATION, what, error);
}

// ---- from JSON

static constexpr size_t MAX_INPUT_BYTES = 1 << 20;
static constexpr size_t MAX_INPUT_DEPTH = 64; // of brackets; the parser recurses

// Where the object ends with which the text begins; 0 when it begins with none, does not end or nests too deep.
static size_t object_size(std::string_view json)
{
    size_t depth = 0;
    bool is_text = false;
    for (size_t i = 0; i < json.size() && json[0] == '{'; i++) {
        char c = json[i];
        if (is_text && c == '\\')
            i++;
        else if (c == '"')
            is_text = !is_text;
        else if (!is_text && (c == '{' || c == '[') && ++depth > MAX_INPUT_DEPTH)
            return 0;
        else if (!is_text && (c == '}' || c == ']') && --depth == 0)
            return i + 1;
    }
    return 0;
}

static std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r\n";
    size_t first = std::min(text.find_first_not_of(blanks), text.size());
    return text.substr(first, text.find_last_not_of(blanks) + 1 - first);
}

// The object becomes the operation in a document that holds what stands above it.
static bool parse_input(op_document_t &document, std::string_view json, const std::string &what, ds_error_t &error)
{
    const lys_module *module = document.info->node->module;
    std::string text =
        std::string("{\"") + module->name + ":" + document.info->name() + "\":" + std::string(json) + "}";
    ly_in *in = nullptr;
    if (ly_in_new_memory(text.c_str(), &in) != LY_SUCCESS)
        return ds_fail(error, CONFD_ERR_MALLOC, what + ": no memory for the input");
    lyd_node *parent = document.op.get();
    lyd_node *tree = nullptr;
    lyd_node *op = nullptr;
    LY_ERR result = lyd_parse_op(module->ctx, parent, in, LYD_JSON, LYD_TYPE_RPC_YANG, parent ? nullptr : &tree, &op);
    ly_in_free(in, 0);
    if (result != LY_SUCCESS || !op) {
        lyd_free_all(tree);
        return fail_from_libyang(module->ctx, CONFD_ERR_BADTYPE, what, error);
    }
    (void)document.op.release(); // owned by what stands in it
    document.op.reset(op);
    return true;
}

bool op_read_input(datastore_t &store, view_t view, const path_t &action, std::string_view json,
                   op_document_t &document, ds_error_t &error)
{
    std::string what = std::string("action ") + action.node()->name();
    std::string_view object = json.empty() ? "{}" : trimmed(json);
    if (object.size() > MAX_INPUT_BYTES)
        return ds_fail(error, CONFD_ERR_TOOBIG, what + ": the input is too long");
    if (object_size(object) != object.size())
        return ds_fail(error, CONFD_ERR_BADTYPE, what + ": the input is no JSON object, or nests too deep");
    path_t above = action;
    above.steps.pop_back();
    if (!begin_document(above, false, document, error))
        return false;
    document.info = action.node();
    return parse_input(document, object, what, error) && judge(store, view, action, document, what, error);
}

// ---- from tagged values

struct values_reader_t {
    const schema_t &schema;
    std::span<const confd_tag_value_t> values;
    size_t at = 0;
    bool is_output;
    const std::string &what;
    ds_error_t &error;
};

static bool bad_values(const values_reader_t &reader, const std::string &text)
{
    return ds_fail(reader.error, CONFD_ERR_BADTYPE, reader.what + ": " + text);
}

static std::string tag_name(const schema_t &schema, uint32_t tag)
{
    const std::string *name = schema_hash_name(schema, tag);
    return name ? *name : "tag " + std::to_string(tag);
}

// Input and output of an action are children of one node.
static bool is_of_direction(const schema_info_t &info, bool is_output)
{
    return !info.is(WIRE_NODE_PARAM) || ((info.node->flags & LYS_IS_OUTPUT) != 0) == is_output;
}

static const schema_info_t *find_part(const schema_info_t &above, const xml_tag &tag, bool is_output)
{
    for (const schema_info_t *child : above.children)
        if (child->tag == tag.tag && (tag.ns == 0 || child->ns == tag.ns) && is_of_direction(*child, is_output))
            return child;
    return nullptr;
}

static bool add_leaf(values_reader_t &reader, lyd_node *parent, const schema_info_t &info, const confd_value_t &from)
{
    value_t value;
    if (!value_from_confd(reader.schema, info, from, reader.what + ": " + info.name(), value, reader.error))
        return false;
    if (lyd_new_term(parent, info.node->module, info.name(), value_text(value).data(), reader.is_output, nullptr) ==
        LY_SUCCESS)
        return true;
    return fail_from_libyang(info.node->module->ctx, CONFD_ERR_BADTYPE, reader.what, reader.error);
}

static bool add_leaf_list(values_reader_t &reader, lyd_node *parent, const schema_info_t &info,
                          const confd_value_t &from)
{
    if (from.type != C_LIST)
        return add_leaf(reader, parent, info, from);
    for (unsigned i = 0; i < from.val.list.size; i++)
        if (!add_leaf(reader, parent, info, from.val.list.ptr[i]))
            return false;
    return true;
}

// The value of a key in the entry whose begin is the item before `at`; null when the entry does not hold it.
static const confd_value_t *find_key(const values_reader_t &reader, const schema_info_t &key)
{
    size_t depth = 0;
    for (size_t i = reader.at; i < reader.values.size(); i++) {
        const confd_tag_value_t &item = reader.values[i];
        if (item.v.type == C_XMLEND && depth-- == 0)
            return nullptr;
        if (item.v.type == C_XMLBEGIN)
            depth++;
        else if (depth == 0 && item.v.type != C_XMLEND && item.tag.tag == key.tag)
            return &item.v;
    }
    return nullptr;
}

static bool add_entry(values_reader_t &reader, lyd_node *parent, const schema_info_t &info, lyd_node **made)
{
    path_step_t step = { &info, {} };
    for (const schema_info_t *key : info.keys) {
        const confd_value_t *from = find_key(reader, *key);
        if (!from)
            return bad_values(reader, "an entry of " + std::string(info.name()) + " has no " + key->name());
        if (!value_from_confd(reader.schema, *key, *from, reader.what + ": " + key->name(), step.keys.emplace_back(),
                              reader.error))
            return false;
    }
    const char *k[MAXKEYLEN] = {};
    for (size_t i = 0; i < step.keys.size() && i < MAXKEYLEN; i++)
        k[i] = value_text(step.keys[i]).data();
    return lyd_new_list(parent, info.node->module, info.name(), reader.is_output, made, k[0], k[1], k[2], k[3], k[4],
                        k[5], k[6], k[7], k[8]) == LY_SUCCESS ||
           fail_from_libyang(info.node->module->ctx, CONFD_ERR_BADTYPE, reader.what, reader.error);
}

static bool add_container(const values_reader_t &reader, lyd_node *parent, const schema_info_t &info, lyd_node **made)
{
    return lyd_new_inner(parent, info.node->module, info.name(), reader.is_output, made) == LY_SUCCESS ||
           fail_from_libyang(info.node->module->ctx, CONFD_ERR_BADTYPE, reader.what, reader.error);
}

static bool add_content(values_reader_t &reader, lyd_node *parent, const schema_info_t &info);

static bool add_block(values_reader_t &reader, lyd_node *parent, const schema_info_t &info)
{
    lyd_node *made = nullptr;
    bool is_list = info.is(WIRE_NODE_LIST);
    if (is_list ? !add_entry(reader, parent, info, &made) : !add_container(reader, parent, info, &made))
        return false;
    if (!add_content(reader, made, info))
        return false;
    if (reader.at >= reader.values.size() || reader.values[reader.at].tag.tag != info.tag)
        return bad_values(reader, std::string(info.name()) + " is begun and not ended");
    reader.at++;
    return true;
}

// Makes the items up to the end of the node that they stand in, which is left to the caller.
static bool add_content(values_reader_t &reader, lyd_node *parent, const schema_info_t &info)
{
    while (reader.at < reader.values.size() && reader.values[reader.at].v.type != C_XMLEND) {
        const confd_tag_value_t &item = reader.values[reader.at++];
        const schema_info_t *part = find_part(info, item.tag, reader.is_output);
        if (!part)
            return bad_values(reader, std::string(info.name()) + " has no " + tag_name(reader.schema, item.tag.tag));
        bool is_block = part->is(WIRE_NODE_LIST | WIRE_NODE_CONTAINER);
        if (is_block != (item.v.type == C_XMLBEGIN))
            return bad_values(reader, std::string(part->name()) + (is_block ? " is no leaf" : " is a leaf"));
        if (part->is(WIRE_NODE_KEY))
            continue; // made with its entry
        if (is_block ? !add_block(reader, parent, *part) : !add_leaf_list(reader, parent, *part, item.v))
            return false;
    }
    return true;
}

bool op_read_output(datastore_t &store, const path_t &action, std::span<const confd_tag_value_t> values,
                    op_document_t &document, ds_error_t &error)
{
    std::string what = std::string("the output of action ") + action.node()->name();
    if (!begin_document(action, true, document, error))
        return false;
    values_reader_t reader = { datastore_schema(store), values, 0, true, what, error };
    if (!add_content(reader, document.op.get(), *document.info))
        return false;
    if (reader.at != values.size())
        return bad_values(reader, "an end without a begin");
    return judge(store, {}, action, document, what, error);
}

static const schema_info_t *find_notification(const schema_t &schema, const xml_tag &tag)
{
    for (const schema_module_t &module : schema.modules)
        for (const schema_info_t *info : module.tops)
            if (info->tag == tag.tag && (tag.ns == 0 || info->ns == tag.ns) && info->is(WIRE_NODE_NOTIF))
                return info;
    return nullptr;
}

bool op_read_notification(datastore_t &store, std::span<const confd_tag_value_t> values, op_document_t &document,
                          ds_error_t &error)
{
    const schema_t &schema = datastore_schema(store);
    bool is_framed = values.size() >= 2 && values.front().v.type == C_XMLBEGIN && values.back().v.type == C_XMLEND &&
                     values.front().tag.tag == values.back().tag.tag;
    if (!is_framed)
        return ds_fail(error, CONFD_ERR_BADTYPE, "a notification stands between its begin and its end");
    const schema_info_t *info = find_notification(schema, values.front().tag);
    if (!info)
        return ds_fail(error, CONFD_ERR_BADPATH,
                       "the model has no notification " + tag_name(schema, values.front().tag.tag));
    path_t path;
    path.steps.push_back({ info, {} });
    std::string what = std::string("notification ") + info->name();
    if (!begin_document(path, false, document, error))
        return false;
    values_reader_t reader = { schema, values.subspan(1, values.size() - 2), 0, false, what, error };
    if (!add_content(reader, document.op.get(), *info))
        return false;
    if (reader.at != reader.values.size())
        return bad_values(reader, "an end without a begin");
    return judge(store, {}, path, document, what, error);
}

// ---- to tagged values and texts

struct values_writer_t {
    wire_writer_t items;
    uint32_t count = 0;
    bool is_output = false;

    void put(const schema_info_t &info, const confd_value_t &value)
    {
        items.u32(info.tag);
        items.u32(info.ns);
        wire_put_value(items, value);
        count++;
    }
    void put_mark(const schema_info_t &info, confd_vtype type)
    {
        confd_value_t mark{};
        mark.type = type;
        mark.val.xmltag = { info.tag, info.ns };
        put(info, mark);
    }
};

// Calls visit(node) for each instance of a child of the node.
template <typename Visit> static void for_each_part(const lyd_node *above, const schema_info_t &part, Visit visit)
{
    for (const lyd_node *node = lyd_child(above); node; node = node->next)
        if (node->schema == part.node)
            visit(node);
}

static confd_value_t leaf_value(const lyd_node *node, const schema_info_t &info)
{
    confd_value_t value = value_to_confd(tree_ctx(node), tree_value(node));
    if (value.type == C_XMLTAG)
        value.val.xmltag = { info.tag, info.ns };
    return value;
}

static void put_leaves(values_writer_t &out, const lyd_node *above, const schema_info_t &part)
{
    std::vector<confd_value_t> values;
    for_each_part(above, part, [&](const lyd_node *node) { values.push_back(leaf_value(node, part)); });
    if (values.empty())
        return;
    if (part.is(WIRE_NODE_LEAF))
        return out.put(part, values.front());
    confd_value_t list{};
    list.type = C_LIST;
    list.val.list = { values.data(), static_cast<unsigned>(values.size()) };
    out.put(part, list);
}

static void put_content(values_writer_t &out, const lyd_node *above, const schema_info_t &info)
{
    for (const schema_info_t *part : info.children) {
        if (!is_of_direction(*part, out.is_output))
            continue;
        if (part->is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST)) {
            put_leaves(out, above, *part);
            continue;
        }
        for_each_part(above, *part, [&](const lyd_node *node) {
            if (part->is(WIRE_NODE_CONTAINER) && !part->is(WIRE_NODE_PRESENCE) && !lyd_child(node))
                return;
            out.put_mark(*part, C_XMLBEGIN);
            put_content(out, node, *part);
            out.put_mark(*part, C_XMLEND);
        });
    }
}

void op_put_values(wire_writer_t &out, const op_document_t &document)
{
    values_writer_t writer;
    writer.is_output = document.is_output;
    put_content(writer, document.op.get(), *document.info);
    out.u32(writer.count);
    out.bytes += writer.items.bytes;
}

static void add_texts(const op_document_t &document, const lyd_node *above, const schema_info_t &info,
                      std::vector<std::string> &texts)
{
    for (const schema_info_t *part : info.children) {
        if (!is_of_direction(*part, document.is_output))
            continue;
        for_each_part(above, *part, [&](const lyd_node *node) {
            if (is_default(node))
                return;
            if (part->is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST))
                texts.emplace_back(lyd_get_value(node));
            else
                add_texts(document, node, *part, texts);
        });
    }
}

std::vector<std::string> op_texts(const op_document_t &document)
{
    std::vector<std::string> texts;
    add_texts(document, document.op.get(), *document.info, texts);
    return texts;
}

std::string op_json(const op_document_t &document, bool is_whole)
{
    char *printed = nullptr;
    bool is_printed =
        lyd_print_mem(&printed, document.op.get(), LYD_JSON, LYD_PRINT_SHRINK | LYD_PRINT_KEEPEMPTYCONT) == LY_SUCCESS;
    std::unique_ptr<char, decltype(&free)> owner(printed, free);
    std::string text = is_printed && printed ? printed : "";
    if (is_whole)
        return text;
    size_t inner = text.find(':', text.find("\":")); // behind the name, which has a colon itself
    if (inner == std::string::npos || text.size() < inner + 2)
        return {};
    text = text.substr(inner + 1, text.size() - inner - 2);
    return text == "{}" ? std::string() : text;
}
