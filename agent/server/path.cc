#include "agent/server/path.h"

#include <algorithm>

// No path of a model of MAXDEPTH levels is longer, keys included.
static constexpr size_t MAX_PATH_TEXT = 65536;

// ---- text

struct path_parser_t {
    const schema_t &schema;
    std::string_view whole;
    std::string_view left;
    path_form_t form;
    uint32_t ns;
    path_t path;
    ds_error_t &error;
};

static std::string shown(const path_parser_t &parser)
{
    return "\"" + std::string(parser.whole.substr(0, 300)) + "\"";
}

static bool bad_path(path_parser_t &parser, const std::string &what)
{
    return ds_fail(parser.error, CONFD_ERR_BADPATH, "bad path " + shown(parser) + ": " + what);
}

static std::string place(const path_t &path)
{
    return path.steps.empty() ? "at the top" : "below " + schema_path(*path.node());
}

static bool take_name(path_parser_t &parser, std::string_view &prefix, std::string_view &name)
{
    size_t end = parser.left.find_first_of("/{");
    std::string_view full = parser.left.substr(0, end);
    parser.left.remove_prefix(full.size());
    size_t colon = full.find(':');
    prefix = colon == std::string_view::npos ? std::string_view() : full.substr(0, colon);
    name = colon == std::string_view::npos ? full : full.substr(colon + 1);
    return !name.empty();
}

// One key, quoted or not. At least one character is consumed.
static bool take_key(std::string_view &left, std::string &key)
{
    if (left.front() != '"') {
        size_t end = left.find_first_of(" }{\"");
        if (end == 0 || end == std::string_view::npos || left[end] == '{' || left[end] == '"')
            return false;
        key = left.substr(0, end);
        left.remove_prefix(end);
        return true;
    }
    left.remove_prefix(1);
    while (!left.empty() && left.front() != '"') {
        if (left.front() == '\\')
            left.remove_prefix(1);
        if (left.empty())
            return false;
        key += left.front();
        left.remove_prefix(1);
    }
    if (left.empty())
        return false;
    left.remove_prefix(1);
    return !left.empty() && (left.front() == ' ' || left.front() == '}');
}

// "{a b}" at the start of what is left.
static bool take_keys(path_parser_t &parser, std::vector<std::string> &keys)
{
    parser.left.remove_prefix(1);
    while (true) {
        parser.left.remove_prefix(std::min(parser.left.find_first_not_of(' '), parser.left.size()));
        if (parser.left.starts_with('}'))
            break;
        if (parser.left.empty() || keys.size() >= MAXKEYLEN || !take_key(parser.left, keys.emplace_back()))
            return bad_path(parser, "the keys " + place(parser.path) + " are not well formed");
    }
    parser.left.remove_prefix(1);
    return true;
}

static bool check_key_count(path_parser_t &parser, const path_step_t &step, size_t count)
{
    size_t wanted = step.node->is(WIRE_NODE_LIST) ? step.node->keys.size() : step.node->is(WIRE_NODE_LEAF_LIST) ? 1 : 0;
    if (wanted == count && wanted > 0)
        return true;
    return bad_path(parser, "\"" + schema_path(*step.node) + "\" takes " + std::to_string(wanted) + " keys, not " +
                                std::to_string(count));
}

static bool parse_keys(path_parser_t &parser, path_step_t &step)
{
    std::vector<std::string> texts;
    if (!take_keys(parser, texts) || !check_key_count(parser, step, texts.size()))
        return false;
    for (size_t i = 0; i < texts.size(); i++) {
        const schema_info_t *key = step.node->is(WIRE_NODE_LIST) ? step.node->keys[i] : step.node;
        if (!value_from_text(*key, texts[i], parser.whole, step.keys.emplace_back(), parser.error))
            return false;
    }
    return true;
}

// May a step of this node stand without keys here?
static bool may_lack_keys(path_form_t form, const schema_info_t &node, bool is_last)
{
    if (node.is(WIRE_NODE_LEAF_LIST))
        return true;
    return !node.is(WIRE_NODE_LIST) || form == PATH_POINT || (is_last && form != PATH_INSTANCE);
}

static bool parse_step(path_parser_t &parser)
{
    std::string_view prefix;
    std::string_view name;
    if (!take_name(parser, prefix, name))
        return bad_path(parser, "an empty element " + place(parser.path));
    bool is_first = parser.path.steps.empty();
    path_step_t step;
    step.node = schema_find(parser.schema, parser.path.node(), name, prefix, is_first ? parser.ns : 0);
    if (!step.node)
        return bad_path(parser, "unknown element '" + std::string(prefix) + (prefix.empty() ? "" : ":") +
                                    std::string(name) + "' " + place(parser.path));
    if (parser.left.starts_with('{') && !parse_keys(parser, step))
        return false;
    if (step.keys.empty() && !may_lack_keys(parser.form, *step.node, parser.left.empty()))
        return bad_path(parser, "\"" + schema_path(*step.node) + "\" needs its keys");
    parser.path.steps.push_back(std::move(step));
    return true;
}

static bool check_end(path_parser_t &parser)
{
    const path_t &path = parser.path;
    bool is_list = path.node() && path.node()->is(WIRE_NODE_LIST | WIRE_NODE_LEAF_LIST);
    if (path.steps.empty() && parser.form != PATH_SUBTREE)
        return bad_path(parser, "it names no node");
    if (parser.form == PATH_LIST && (!is_list || !path.steps.back().keys.empty()))
        return bad_path(parser, "it has to end with a list without keys");
    return true;
}

bool path_parse(const schema_t &schema, std::string_view text, path_form_t form, path_t &path, ds_error_t &error,
                uint32_t ns)
{
    path_parser_t parser = { schema, text, text, form, ns, {}, error };
    if (text.size() > MAX_PATH_TEXT)
        return ds_fail(error, CONFD_ERR_TOOBIG, "a path is longer than " + std::to_string(MAX_PATH_TEXT) + " bytes");
    if (parser.left.starts_with('/'))
        parser.left.remove_prefix(1);
    while (!parser.left.empty()) {
        if (!parse_step(parser))
            return false;
        if (parser.left.empty())
            break;
        if (!parser.left.starts_with('/') || parser.left.size() == 1)
            return bad_path(parser, "it goes on with \"" + std::string(parser.left.substr(0, 50)) + "\"");
        parser.left.remove_prefix(1);
    }
    if (!check_end(parser))
        return false;
    path = std::move(parser.path);
    return true;
}

std::string path_text(const path_t &path)
{
    std::string text;
    for (const path_step_t &step : path.steps) {
        text += "/";
        text += step.node->name();
        for (size_t i = 0; i < step.keys.size(); i++)
            text += (i == 0 ? "{" : " ") + wire_quote_key(value_text(step.keys[i]));
        text += step.keys.empty() ? "" : "}";
    }
    return path.steps.empty() ? "/" : text;
}

// ---- keypaths

static bool add_keypath_keys(const schema_t &schema, const confd_value_t *keys, path_t &path, ds_error_t &error)
{
    path_step_t &step = path.steps.back();
    bool is_list = step.node->is(WIRE_NODE_LIST);
    size_t count = is_list ? step.node->keys.size() : 1;
    size_t given = 0;
    while (given < MAXKEYLEN && keys[given].type != C_NOEXISTS)
        given++;
    if (!step.node->is(WIRE_NODE_LIST | WIRE_NODE_LEAF_LIST) || given != count || !step.keys.empty())
        return ds_fail(error, CONFD_ERR_BADPATH, "bad keypath: wrong number of keys at " + schema_path(*step.node));
    std::vector<value_t> values(count);
    for (size_t i = 0; i < count; i++)
        if (!value_from_confd(schema, is_list ? *step.node->keys[i] : *step.node, keys[i], schema_path(*step.node),
                              values[i], error))
            return false;
    step.keys = std::move(values);
    return true;
}

static bool add_keypath_tag(const schema_t &schema, const xml_tag &tag, path_t &path, ds_error_t &error)
{
    const schema_info_t *node = schema_find_tag(schema, path.node(), tag.tag, tag.ns);
    if (node) {
        path.steps.push_back({ node, {} });
        return true;
    }
    const std::string *name = schema_hash_name(schema, tag.tag);
    return ds_fail(error, CONFD_ERR_BADPATH,
                   "bad keypath: unknown element '" + (name ? *name : std::to_string(tag.tag)) + "' " + place(path));
}

bool path_from_keypath(const schema_t &schema, const confd_hkeypath_t &keypath, path_form_t form, path_t &path,
                       ds_error_t &error)
{
    path_t made;
    for (int i = std::min(keypath.len, MAXDEPTH) - 1; i >= 0; i--) {
        const confd_value_t *element = keypath.v[i];
        bool is_tag = element[0].type == C_XMLTAG;
        if (!is_tag && made.steps.empty())
            return ds_fail(error, CONFD_ERR_BADPATH, "bad keypath: it begins with keys");
        if (is_tag ? !add_keypath_tag(schema, element[0].val.xmltag, made, error)
                   : !add_keypath_keys(schema, element, made, error))
            return false;
    }
    for (const path_step_t &step : made.steps)
        if (step.keys.empty() && !may_lack_keys(form, *step.node, &step == &made.steps.back()))
            return ds_fail(error, CONFD_ERR_BADPATH, "bad keypath: " + schema_path(*step.node) + " needs its keys");
    path = std::move(made);
    return true;
}

bool path_keys(const schema_t &schema, const path_t &list, std::span<const confd_value_t> from,
               std::vector<value_t> &keys, ds_error_t &error)
{
    const schema_info_t &info = *list.node();
    bool is_list = info.is(WIRE_NODE_LIST);
    size_t count = is_list ? info.keys.size() : 1;
    if (from.size() != count)
        return ds_fail(error, CONFD_ERR_BADTYPE,
                       path_text(list) + " takes " + std::to_string(count) + " keys, not " +
                           std::to_string(from.size()));
    std::vector<value_t> made(count);
    for (size_t i = 0; i < count; i++)
        if (!value_from_confd(schema, is_list ? *info.keys[i] : info, from[i], path_text(list), made[i], error))
            return false;
    keys = std::move(made);
    return true;
}

void path_put(wire_writer_t &out, const path_t &path)
{
    uint32_t count = 0;
    for (const path_step_t &step : path.steps)
        count += step.keys.empty() ? 1 : 2;
    out.u32(count);
    for (const path_step_t &step : path.steps) {
        out.u8(0);
        out.u32(step.node->tag);
        out.u32(step.node->ns);
        if (step.keys.empty())
            continue;
        out.u8(1);
        value_put_keys(out, step.keys);
    }
}
