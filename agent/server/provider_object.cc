#include "agent/server/provider_object.h"

#include <algorithm>

static constexpr size_t MIN_OBJECT_SIZE = sizeof(int64_t) + sizeof(uint32_t);
static constexpr size_t ITEM_BYTES = sizeof(provider_item_t) + sizeof(value_t); // what a value costs beside its text

static bool fail(provider_fault_t &fault, std::string text)
{
    fault.text = std::move(text);
    return false;
}

static bool unreadable(provider_fault_t &fault)
{
    fault.is_unreadable = true;
    return fail(fault, "the answer is malformed");
}

// ---- small things

const provider_item_t *provider_find_item(const provider_object_t &object, const schema_info_t &node)
{
    auto found = std::ranges::find_if(object.items, [&](const provider_item_t &item) { return item.node == &node; });
    return found == object.items.end() ? nullptr : &*found;
}

bool provider_equal_keys(std::span<const value_t> a, std::span<const value_t> b)
{
    return std::ranges::equal(a, b, [](const value_t &left, const value_t &right) {
        return value_compare(left.ctx, left.raw, right.raw) == 0;
    });
}

std::string provider_keys_text(std::span<const value_t> keys)
{
    std::string text;
    for (const value_t &key : keys)
        text += (text.empty() ? "" : " ") + wire_quote_key(value_text(key));
    return "{" + text + "}";
}

// ---- values

// Owns what wire_get_value has given.
struct wire_value_t {
    confd_value_t value{};
    explicit wire_value_t(wire_reader_t &in) : value(wire_get_value(in)) {}
    wire_value_t(const wire_value_t &) = delete;
    wire_value_t &operator=(const wire_value_t &) = delete;
    ~wire_value_t() { wire_free_value(value); }
};

struct wire_tag_values_t {
    std::vector<confd_tag_value_t> values;
    explicit wire_tag_values_t(wire_reader_t &in) : values(wire_get_tag_values(in)) {}
    wire_tag_values_t(const wire_tag_values_t &) = delete;
    wire_tag_values_t &operator=(const wire_tag_values_t &) = delete;
    ~wire_tag_values_t() { wire_free_tag_values(values); }
};

static bool add_value(const schema_t &schema, const schema_info_t &node, const confd_value_t &from,
                      std::vector<value_t> &values, provider_fault_t &fault)
{
    ds_error_t error;
    value_t value;
    if (!value_from_confd(schema, node, from, node.name(), value, error))
        return fail(fault, error.text);
    values.push_back(std::move(value));
    return true;
}

// Adds none for C_NOEXISTS.
static bool take_values(const schema_t &schema, const schema_info_t &node, const confd_value_t &from,
                        std::vector<value_t> &values, provider_fault_t &fault)
{
    if (from.type == C_NOEXISTS)
        return true;
    if (!node.is(WIRE_NODE_LEAF_LIST))
        return add_value(schema, node, from, values, fault);
    if (from.type != C_LIST)
        return fail(fault, std::string(node.name()) + ": the values of a leaf-list have to come as one list");
    for (unsigned i = 0; i < from.val.list.size; i++)
        if (!add_value(schema, node, from.val.list.ptr[i], values, fault))
            return false;
    return true;
}

bool provider_parse_value(const schema_t &schema, const schema_info_t &node, std::string_view payload,
                          std::vector<value_t> &values, provider_fault_t &fault)
{
    wire_reader_t in(payload);
    wire_value_t read(in);
    if (!in.finished())
        return unreadable(fault);
    return take_values(schema, node, read.value, values, fault);
}

bool provider_parse_found(std::string_view payload, bool &is_found, provider_fault_t &fault)
{
    wire_reader_t in(payload);
    is_found = in.u8() != 0;
    return in.finished() || unreadable(fault);
}

// ---- objects

struct object_parser_t {
    const schema_t &schema;
    const schema_info_t &root;
    std::vector<const schema_info_t *> open; // containers
    provider_object_t object;
    provider_fault_t &fault;
};

static std::string name_of(const schema_t &schema, const xml_tag &tag)
{
    const std::string *name = schema_hash_name(schema, tag.tag);
    return name ? "\"" + *name + "\"" : "the unknown tag " + std::to_string(tag.tag);
}

static const schema_info_t *innermost(const object_parser_t &parser)
{
    return parser.open.empty() ? &parser.root : parser.open.back();
}

static bool take_begin(object_parser_t &parser, const schema_info_t &node)
{
    if (!node.is(WIRE_NODE_CONTAINER))
        return fail(parser.fault, schema_path(node) + " cannot stand in an object: it is no container");
    if (provider_find_item(parser.object, node))
        return fail(parser.fault, schema_path(node) + " is given twice");
    parser.object.items.push_back({ &node, {} });
    parser.object.bytes += ITEM_BYTES;
    parser.open.push_back(&node);
    return true;
}

static bool take_end(object_parser_t &parser, const xml_tag &tag)
{
    if (parser.open.empty() || parser.open.back()->tag != tag.tag)
        return fail(parser.fault, "the end of " + name_of(parser.schema, tag) + ", which has not begun");
    parser.open.pop_back();
    return true;
}

static bool take_leaf(object_parser_t &parser, const schema_info_t &node, const confd_value_t &value)
{
    if (!node.is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST))
        return fail(parser.fault, schema_path(node) + " has no value: it is no leaf");
    if (provider_find_item(parser.object, node))
        return fail(parser.fault, schema_path(node) + " is given twice");
    provider_item_t item = { &node, {} };
    if (!take_values(parser.schema, node, value, item.values, parser.fault))
        return false;
    if (item.values.empty())
        return true;
    for (const value_t &taken : item.values)
        parser.object.bytes += ITEM_BYTES + value_text(taken).size();
    parser.object.items.push_back(std::move(item));
    return true;
}

static bool take_tag_value(object_parser_t &parser, const confd_tag_value_t &value)
{
    if (value.v.type == C_XMLEND)
        return take_end(parser, value.tag);
    const schema_info_t *parent = innermost(parser);
    const schema_info_t *node = schema_find_tag(parser.schema, parent, value.tag.tag, value.tag.ns);
    if (!node)
        return fail(parser.fault, name_of(parser.schema, value.tag) + " is not known below " + schema_path(*parent));
    if (node->callpoint != parser.root.callpoint)
        return fail(parser.fault, schema_path(*node) + " is not of this callpoint");
    return value.v.type == C_XMLBEGIN ? take_begin(parser, *node) : take_leaf(parser, *node, value.v);
}

static bool take_tag_values(object_parser_t &parser, std::span<const confd_tag_value_t> values)
{
    for (const confd_tag_value_t &value : values)
        if (!take_tag_value(parser, value))
            return false;
    if (!parser.open.empty())
        return fail(parser.fault, schema_path(*parser.open.back()) + " has no end");
    return true;
}

// Keys that the object leaves out are those that it was asked by, if it was.
static bool take_keys(object_parser_t &parser, std::span<const value_t> asked)
{
    for (size_t i = 0; i < parser.root.keys.size(); i++) {
        const schema_info_t &key = *parser.root.keys[i];
        const provider_item_t *item = provider_find_item(parser.object, key);
        if (!item && i >= asked.size())
            return fail(parser.fault, "the object lacks the key \"" + std::string(key.name()) + "\"");
        if (!item)
            parser.object.items.push_back({ &key, { asked[i] } });
        parser.object.keys.push_back(item ? item->values[0] : asked[i]);
    }
    if (asked.empty() || provider_equal_keys(parser.object.keys, asked))
        return true;
    return fail(parser.fault, "the object is that of the entry " + provider_keys_text(parser.object.keys));
}

// One object of the answer. is_empty: it had no values.
static bool take_object(const schema_t &schema, const schema_info_t &node, std::span<const value_t> asked,
                        wire_reader_t &in, provider_objects_t &answer, bool &is_empty, provider_fault_t &fault)
{
    object_parser_t parser = { schema, node, {}, {}, fault };
    parser.object.next = in.i64();
    wire_tag_values_t read(in);
    if (!in.ok)
        return unreadable(fault);
    is_empty = read.values.empty();
    parser.object.bytes = sizeof(provider_object_t);
    if (is_empty)
        return true;
    if (!take_tag_values(parser, read.values) || !take_keys(parser, asked))
        return false;
    answer.objects.push_back(std::make_shared<provider_object_t>(std::move(parser.object)));
    return true;
}

bool provider_parse_objects(const schema_t &schema, const schema_info_t &node, std::span<const value_t> asked,
                            std::string_view payload, provider_objects_t &answer, provider_fault_t &fault)
{
    wire_reader_t in(payload);
    answer.timeout_ms = in.u32();
    answer.at_end = in.u8() != 0;
    uint32_t n = in.count(MIN_OBJECT_SIZE);
    if (n > PROVIDER_MAX_OBJECTS)
        return fail(fault, "more than " + std::to_string(PROVIDER_MAX_OBJECTS) + " objects in one answer");
    for (uint32_t i = 0; i < n; i++) {
        bool is_empty = false;
        if (!take_object(schema, node, asked, in, answer, is_empty, fault))
            return false;
        answer.at_end = answer.at_end || is_empty;
    }
    return in.finished() || unreadable(fault);
}

bool provider_parse_next(const schema_t &schema, const schema_info_t &list, std::string_view payload,
                         provider_object_ref &object, provider_fault_t &fault)
{
    wire_reader_t in(payload);
    auto made = std::make_shared<provider_object_t>();
    made->is_whole = false;
    made->next = in.i64();
    uint8_t n = in.u8();
    if (n > MAXKEYLEN)
        return unreadable(fault);
    for (uint8_t i = 0; i < n; i++) {
        wire_value_t read(in);
        if (!in.ok)
            return unreadable(fault);
        if (i < list.keys.size() && !add_value(schema, *list.keys[i], read.value, made->keys, fault))
            return false;
    }
    if (!in.finished())
        return unreadable(fault);
    if (n > 0 && n != list.keys.size())
        return fail(fault, "the list has " + std::to_string(list.keys.size()) + " keys, not " + std::to_string(n));
    made->bytes = sizeof(provider_object_t);
    for (const value_t &key : made->keys)
        made->bytes += ITEM_BYTES + value_text(key).size();
    object = n > 0 ? std::move(made) : nullptr;
    return true;
}
