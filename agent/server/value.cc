#include "agent/server/value.h"

#include "agent/server/ly_array.h"

#include <cstring>
#include <libyang/plugins_types.h>
#include <utility>

// ---- ownership

value_t::value_t(const ly_ctx *context, const lyd_value &original) : ctx(context)
{
    if (original.realtype && original.realtype->plugin->duplicate(ctx, &original, &raw) != LY_SUCCESS)
        raw = {};
}

value_t::value_t(const value_t &other) : value_t(other.ctx, other.raw)
{
}

value_t::value_t(value_t &&other) noexcept : ctx(other.ctx), raw(std::exchange(other.raw, {}))
{
}

value_t &value_t::operator=(value_t other) noexcept
{
    std::swap(ctx, other.ctx);
    std::swap(raw, other.raw);
    return *this;
}

value_t::~value_t()
{
    if (raw.realtype)
        raw.realtype->plugin->free(ctx, &raw);
}

std::string_view value_text(const value_t &value)
{
    const char *text = value.is_set() ? lyd_value_get_canonical(value.ctx, &value.raw) : nullptr;
    return text ? text : "";
}

// ---- the rule that a value breaks, in words

static std::string join_names(const lysc_type_bitenum_item *items)
{
    std::string names;
    for (size_t u = 0; u < ly_count(items); u++) {
        names += (names.empty() ? "" : ", ") + std::string(items[u].name);
    }
    return names;
}

static std::string range_text(const lysc_range &range, bool is_signed)
{
    std::string text;
    for (size_t u = 0; u < ly_count(range.parts); u++) {
        const auto &part = range.parts[u];
        std::string low = is_signed ? std::to_string(part.min_64) : std::to_string(part.min_u64);
        std::string high = is_signed ? std::to_string(part.max_64) : std::to_string(part.max_u64);
        text += (text.empty() ? "" : " or ") + (low == high ? low : low + ".." + high);
    }
    return text;
}

struct number_row_t {
    LY_DATA_TYPE basetype;
    bool is_signed;
    const char *range;
};
static constexpr number_row_t number_rows[] = {
    { LY_TYPE_UINT8, false, "0..255" },
    { LY_TYPE_UINT16, false, "0..65535" },
    { LY_TYPE_UINT32, false, "0..4294967295" },
    { LY_TYPE_UINT64, false, "0..18446744073709551615" },
    { LY_TYPE_INT8, true, "-128..127" },
    { LY_TYPE_INT16, true, "-32768..32767" },
    { LY_TYPE_INT32, true, "-2147483648..2147483647" },
    { LY_TYPE_INT64, true, "-9223372036854775808..9223372036854775807" },
};

static std::string number_rule(const lysc_type *type)
{
    for (const number_row_t &row : number_rows) {
        if (row.basetype != type->basetype)
            continue;
        const lysc_range *range = reinterpret_cast<const lysc_type_num *>(type)->range;
        return "a number of " + (range ? range_text(*range, row.is_signed) : row.range);
    }
    return {};
}

// Empty when libyang's own words say it best.
static std::string type_rule(const lysc_type *type)
{
    switch (type->basetype) {
    case LY_TYPE_ENUM:
        return "one of " + join_names(reinterpret_cast<const lysc_type_enum *>(type)->enums);
    case LY_TYPE_BITS:
        return "any of " + join_names(reinterpret_cast<const lysc_type_bits *>(type)->bits) + ", separated by blanks";
    case LY_TYPE_BOOL:
        return "true or false";
    case LY_TYPE_EMPTY:
        return "no value";
    case LY_TYPE_LEAFREF:
        return type_rule(reinterpret_cast<const lysc_type_leafref *>(type)->realtype);
    default:
        return number_rule(type);
    }
}

static bool is_own_message(const lysc_type *type, const char *message)
{
    if (type->basetype != LY_TYPE_STRING || !message)
        return false;
    auto *string = reinterpret_cast<const lysc_type_str *>(type);
    for (size_t u = 0; u < ly_count(string->patterns); u++) {
        if (string->patterns[u]->emsg && strcmp(string->patterns[u]->emsg, message) == 0)
            return true;
    }
    return false;
}

static std::string length_rule(const lysc_type *type)
{
    const lysc_range *length =
        type->basetype == LY_TYPE_STRING ? reinterpret_cast<const lysc_type_str *>(type)->length : nullptr;
    return length ? "length " + range_text(*length, false) : "";
}

static std::string refusal(const lysc_type *type, std::string_view text, std::string_view path, const ly_err_item *item)
{
    static constexpr size_t SHOWN = 200; // characters of a value in an error
    std::string shown(text.substr(0, SHOWN));
    std::string message = std::string(path) + ": \"" + shown + (text.size() > SHOWN ? "..." : "") + "\" is refused: ";
    const char *said = item ? item->msg : nullptr;
    std::string rule = type_rule(type);
    if (!rule.empty())
        return message + "has to be " + rule;
    if (type->basetype == LY_TYPE_UNION)
        return message + "no member of the type takes it";
    if (is_own_message(type, said))
        return message + said;
    bool is_length = said && strncmp(said, "Unsatisfied length", 18) == 0;
    if (is_length)
        return message + length_rule(type);
    std::string words = said ? said : "not a value of the type";
    if (words.ends_with('.'))
        words.pop_back();
    return message + words;
}

// ---- from text

// Bytes of the UTF-8 character at the start of text, 0 when there is no character that a document may hold.
static size_t character_size(std::string_view text)
{
    auto byte = [&](size_t i) {
        return static_cast<uint8_t>(text[i]);
    };
    uint8_t lead = byte(0);
    if (lead < 0x80)
        return lead >= 0x20 || lead == '\t' || lead == '\n' || lead == '\r' ? 1 : 0;
    size_t size = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || text.size() < size)
        return 0;
    uint32_t code = lead & (0x7f >> size);
    for (size_t i = 1; i < size; i++) {
        if ((byte(i) & 0xc0) != 0x80)
            return 0;
        code = code << 6 | (byte(i) & 0x3f);
    }
    static constexpr uint32_t least[] = { 0, 0, 0x80, 0x800, 0x10000 };
    bool is_surrogate = code >= 0xd800 && code < 0xe000;
    bool is_allowed = code >= least[size] && code <= 0x10ffff && !is_surrogate && (code & 0xfffe) != 0xfffe;
    return is_allowed ? size : 0;
}

// Only what JSON and XML can carry: anything else could be stored and never be read back.
static bool is_storable(std::string_view text)
{
    while (!text.empty()) {
        size_t size = character_size(text);
        if (size == 0)
            return false;
        text.remove_prefix(size);
    }
    return true;
}

static const lysc_type *leaf_type(const schema_info_t &node)
{
    if (node.is(WIRE_NODE_LEAF))
        return reinterpret_cast<const lysc_node_leaf *>(node.node)->type;
    if (node.is(WIRE_NODE_LEAF_LIST))
        return reinterpret_cast<const lysc_node_leaflist *>(node.node)->type;
    return nullptr;
}

bool value_from_text(const schema_info_t &node, std::string_view text, std::string_view path, value_t &value,
                     ds_error_t &error)
{
    const lysc_type *type = leaf_type(node);
    if (!type)
        return ds_fail(error, CONFD_ERR_BADTYPE, std::string(path) + " has no value: it is no leaf");
    if (!is_storable(text))
        return ds_fail(error, CONFD_ERR_BADTYPE,
                       std::string(path) + ": the value is refused: it is not UTF-8 text free of control characters");
    const ly_ctx *ctx = node.node->module->ctx;
    value_t made;
    made.ctx = ctx;
    ly_err_item *item = nullptr;
    std::string bounded(text); // some plugins read up to a NUL, whatever the length
    LY_ERR result = type->plugin->store(ctx, type, bounded.c_str(), bounded.size(), 0, LY_VALUE_JSON, nullptr,
                                        LYD_HINT_DATA, node.node, &made.raw, nullptr, &item);
    bool is_good = result == LY_SUCCESS || result == LY_EINCOMPLETE;
    std::string words = is_good ? std::string() : refusal(type, text, path, item);
    ly_err_free(item);
    if (!is_good) {
        made.raw = {}; // a failed store leaves nothing to free
        return ds_fail(error, CONFD_ERR_BADTYPE, std::move(words));
    }
    value = std::move(made);
    return true;
}

// ---- order

template <typename T> static int compare_numbers(T a, T b)
{
    return a < b ? -1 : a > b ? 1 : 0;
}

static int compare_texts(const ly_ctx *ctx, const lyd_value &a, const lyd_value &b)
{
    const char *left = lyd_value_get_canonical(ctx, &a);
    const char *right = lyd_value_get_canonical(ctx, &b);
    return left == right ? 0 : strcmp(left, right); // one text is stored once
}

static int compare_confd(const ly_ctx *ctx, const lyd_value &a, const lyd_value &b)
{
    confd_value_t left = value_to_confd(ctx, a);
    confd_value_t right = value_to_confd(ctx, b);
    if (left.type != right.type)
        return compare_numbers<int>(left.type, right.type);
    int order = memcmp(&left.val, &right.val, sizeof left.val); // address first, then its length, network order
    return order;
}

static size_t member_of(const lyd_value &value)
{
    lysc_type **members = reinterpret_cast<const lysc_type_union *>(value.realtype)->types;
    for (size_t u = 0; u < ly_count(members); u++) {
        if (members[u] == value.subvalue->value.realtype)
            return u;
    }
    return ly_count(members);
}

static int compare_unions(const ly_ctx *ctx, const lyd_value &a, const lyd_value &b)
{
    if (int order = compare_numbers(member_of(a), member_of(b)))
        return order;
    const lyd_value &left = a.subvalue->value;
    const lyd_value &right = b.subvalue->value;
    return left.realtype == right.realtype ? value_compare(ctx, left, right) : compare_texts(ctx, a, b);
}

int value_compare(const ly_ctx *ctx, const lyd_value &a, const lyd_value &b)
{
    switch (a.realtype->basetype) {
    case LY_TYPE_UINT8:
        return compare_numbers(a.uint8, b.uint8);
    case LY_TYPE_UINT16:
        return compare_numbers(a.uint16, b.uint16);
    case LY_TYPE_UINT32:
        return compare_numbers(a.uint32, b.uint32);
    case LY_TYPE_UINT64:
        return compare_numbers(a.uint64, b.uint64);
    case LY_TYPE_INT8:
        return compare_numbers(a.int8, b.int8);
    case LY_TYPE_INT16:
        return compare_numbers(a.int16, b.int16);
    case LY_TYPE_INT32:
        return compare_numbers(a.int32, b.int32);
    case LY_TYPE_INT64:
        return compare_numbers(a.int64, b.int64);
    case LY_TYPE_DEC64:
        return compare_numbers(a.dec64, b.dec64);
    case LY_TYPE_BOOL:
        return compare_numbers(a.boolean, b.boolean);
    case LY_TYPE_ENUM:
        return compare_numbers(a.enum_item->value, b.enum_item->value);
    case LY_TYPE_UNION:
        return compare_unions(ctx, a, b);
    default:
        break;
    }
    uint8_t type = value_type(a.realtype);
    bool is_address = type == C_IPV4 || type == C_IPV6 || type == C_IPV4PREFIX || type == C_IPV6PREFIX;
    int order = is_address ? compare_confd(ctx, a, b) : 0;
    return order ? order : compare_texts(ctx, a, b);
}

void value_put_keys(wire_writer_t &out, std::span<const value_t> keys)
{
    out.u8(static_cast<uint8_t>(keys.size()));
    for (const value_t &key : keys)
        wire_put_value(out, value_to_confd(key));
}
