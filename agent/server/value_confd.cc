// The client library's side of values: one row of the type table for each kind of YANG type.
#include "agent/server/ly_array.h"
#include "agent/server/value.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstring>
#include <libyang/plugins_types.h>

// ---- kinds of types

struct plugin_row_t {
    std::string_view id; // how the type's plugin begins to name itself
    confd_vtype type;
};
// Types of ietf-inet-types and ietf-yang-types that have a form of their own; typedefs of them inherit the plugin.
static constexpr plugin_row_t plugin_rows[] = {
    { "libyang 2 - ipv4-address", C_IPV4 },      { "libyang 2 - ipv6-address", C_IPV6 },
    { "libyang 2 - ipv4-prefix", C_IPV4PREFIX }, { "libyang 2 - ipv6-prefix", C_IPV6PREFIX },
    { "libyang 2 - date-and-time", C_DATETIME },
};

static uint8_t string_type(const lysc_type *type)
{
    std::string_view id = type->plugin->id;
    for (const plugin_row_t &row : plugin_rows)
        if (id.starts_with(row.id))
            return row.type;
    return C_BUF;
}

static uint8_t bits_type(const lysc_type *type)
{
    const lysc_type_bitenum_item *bits = reinterpret_cast<const lysc_type_bits *>(type)->bits;
    uint32_t highest = bits[ly_count(bits) - 1].position; // ordered by position
    return highest < 32 ? C_BIT32 : highest < 64 ? C_BIT64 : C_BUF;
}

uint8_t value_type(const lysc_type *type)
{
    switch (type->basetype) {
    case LY_TYPE_UINT8:
        return C_UINT8;
    case LY_TYPE_UINT16:
        return C_UINT16;
    case LY_TYPE_UINT32:
        return C_UINT32;
    case LY_TYPE_UINT64:
        return C_UINT64;
    case LY_TYPE_INT8:
        return C_INT8;
    case LY_TYPE_INT16:
        return C_INT16;
    case LY_TYPE_INT32:
        return C_INT32;
    case LY_TYPE_INT64:
        return C_INT64;
    case LY_TYPE_DEC64:
        return C_DECIMAL64;
    case LY_TYPE_BOOL:
        return C_BOOL;
    case LY_TYPE_ENUM:
        return C_ENUM_VALUE;
    case LY_TYPE_EMPTY:
        return C_XMLTAG;
    case LY_TYPE_IDENT:
        return C_IDENTITYREF;
    case LY_TYPE_BINARY:
        return C_BINARY;
    case LY_TYPE_UNION:
        return C_NOEXISTS;
    case LY_TYPE_BITS:
        return bits_type(type);
    case LY_TYPE_LEAFREF:
        return value_type(reinterpret_cast<const lysc_type_leafref *>(type)->realtype);
    default:
        return string_type(type);
    }
}

// ---- to the client's form

static uint64_t bit_positions(const lysc_type_bits *type, std::string_view names)
{
    uint64_t bits = 0;
    for (size_t u = 0; u < ly_count(type->bits); u++) {
        std::string_view name = type->bits[u].name;
        for (size_t at = names.find(name); at != std::string_view::npos; at = names.find(name, at + 1)) {
            bool is_start = at == 0 || names[at - 1] == ' ';
            size_t end = at + name.size();
            if (is_start && (end == names.size() || names[end] == ' '))
                bits |= 1ull << type->bits[u].position;
        }
    }
    return bits;
}

template <typename T> static bool read_number(std::string_view &text, T &number)
{
    auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (failure != std::errc())
        return false;
    text.remove_prefix(end - text.data());
    return true;
}

template <typename T> static bool read_field(std::string_view &text, char before, T &number)
{
    if (before && (text.empty() || text.front() != before))
        return false;
    if (before)
        text.remove_prefix(1);
    return read_number(text, number);
}

// RFC 3339, as the type's pattern has let it through.
static bool read_datetime(std::string_view text, confd_datetime &out)
{
    out = {};
    if (!read_field(text, 0, out.year) || !read_field(text, '-', out.month) || !read_field(text, '-', out.day) ||
        !read_field(text, 'T', out.hour) || !read_field(text, ':', out.min) || !read_field(text, ':', out.sec))
        return false;
    if (text.starts_with('.')) {
        uint32_t scale = 100000;
        for (text.remove_prefix(1); !text.empty() && text[0] >= '0' && text[0] <= '9';
             text.remove_prefix(1), scale /= 10)
            out.micro += static_cast<uint32_t>(text[0] - '0') * scale;
    }
    if (text == "Z" || text.size() != 6)
        return text == "Z";
    bool is_west = text[0] == '-';
    text.remove_prefix(1);
    uint8_t hours = 0;
    uint8_t minutes = 0;
    if (!read_field(text, 0, hours) || !read_field(text, ':', minutes))
        return false;
    out.timezone = static_cast<int8_t>(is_west ? -hours : hours);
    out.timezone_minutes = static_cast<int8_t>(is_west ? -minutes : minutes);
    return true;
}

static confd_value_t text_value(const char *text)
{
    confd_value_t out{};
    out.type = C_BUF;
    out.val.buf.ptr = reinterpret_cast<unsigned char *>(const_cast<char *>(text)); // the record's form; read only
    out.val.buf.size = static_cast<unsigned>(strlen(text));
    return out;
}

// An address without its zone, and behind a slash its length.
static bool read_address(int family, std::string_view text, void *address, uint8_t *length)
{
    size_t slash = text.find('/');
    std::string plain(text.substr(0, std::min(slash, text.find('%'))));
    if (inet_pton(family, plain.c_str(), address) != 1)
        return false;
    if (!length)
        return true;
    std::string_view rest = slash == std::string_view::npos ? std::string_view() : text.substr(slash + 1);
    return read_number(rest, *length);
}

static bool address_value(uint8_t type, const char *text, confd_value_t &out)
{
    out.type = static_cast<confd_vtype>(type);
    switch (type) {
    case C_IPV4:
        return read_address(AF_INET, text, &out.val.ip, nullptr);
    case C_IPV6:
        return read_address(AF_INET6, text, &out.val.ip6, nullptr);
    case C_IPV4PREFIX:
        return read_address(AF_INET, text, &out.val.ipv4prefix.ip, &out.val.ipv4prefix.len);
    case C_IPV6PREFIX:
        return read_address(AF_INET6, text, &out.val.ipv6prefix.ip6, &out.val.ipv6prefix.len);
    default:
        return read_datetime(text, out.val.datetime);
    }
}

static void binary_value(const ly_ctx *ctx, const lyd_value &value, confd_value_t &out)
{
    size_t size = 0;
    ly_bool is_dynamic = 0;
    const void *bytes = value.realtype->plugin->print(ctx, &value, LY_VALUE_LYB, nullptr, &is_dynamic, &size);
    // The binary plugin gives its own buffer, which lives as long as the value.
    out.val.buf.ptr = static_cast<unsigned char *>(const_cast<void *>(bytes));
    out.val.buf.size = static_cast<unsigned>(size);
}

static bool number_value(const lyd_value &value, uint8_t type, confd_value_t &out)
{
    switch (type) {
    case C_UINT8:
        out.val.u8 = value.uint8;
        return true;
    case C_UINT16:
        out.val.u16 = value.uint16;
        return true;
    case C_UINT32:
        out.val.u32 = value.uint32;
        return true;
    case C_UINT64:
        out.val.u64 = value.uint64;
        return true;
    case C_INT8:
        out.val.i8 = value.int8;
        return true;
    case C_INT16:
        out.val.i16 = value.int16;
        return true;
    case C_INT32:
        out.val.i32 = value.int32;
        return true;
    case C_INT64:
        out.val.i64 = value.int64;
        return true;
    case C_BOOL:
        out.val.boolean = value.boolean;
        return true;
    case C_ENUM_VALUE:
        out.val.enumvalue = value.enum_item->value;
        return true;
    case C_DECIMAL64:
        out.val.d64 = { value.dec64, reinterpret_cast<const lysc_type_dec *>(value.realtype)->fraction_digits };
        return true;
    case C_IDENTITYREF:
        out.val.idref = { wire_hash(value.ident->module->ns), wire_hash(value.ident->name) };
        return true;
    default:
        return false;
    }
}

confd_value_t value_to_confd(const ly_ctx *ctx, const lyd_value &value)
{
    if (value.realtype->basetype == LY_TYPE_UNION)
        return value_to_confd(ctx, value.subvalue->value);
    uint8_t type = value_type(value.realtype);
    confd_value_t out{};
    out.type = static_cast<confd_vtype>(type);
    if (type == C_XMLTAG || number_value(value, type, out))
        return out;
    const char *text = lyd_value_get_canonical(ctx, &value);
    if (type == C_BIT32 || type == C_BIT64) {
        uint64_t bits = bit_positions(reinterpret_cast<const lysc_type_bits *>(value.realtype), text);
        type == C_BIT32 ? out.val.b32 = static_cast<uint32_t>(bits) : out.val.b64 = bits;
        return out;
    }
    if (type == C_BINARY) {
        binary_value(ctx, value, out);
        return out;
    }
    if (type != C_BUF && address_value(type, text, out))
        return out;
    return text_value(text);
}

confd_value_t value_to_confd(const value_t &value)
{
    if (value.is_set())
        return value_to_confd(value.ctx, value.raw);
    confd_value_t none{};
    none.type = C_NOEXISTS;
    return none;
}

// ---- from the client's form

static bool enum_text(const lysc_type *type, int32_t number, std::string &text)
{
    if (type->basetype == LY_TYPE_ENUM) {
        const lysc_type_bitenum_item *items = reinterpret_cast<const lysc_type_enum *>(type)->enums;
        for (size_t u = 0; u < ly_count(items); u++) {
            if (items[u].value == number) {
                text = items[u].name;
                return true;
            }
        }
    } else if (type->basetype == LY_TYPE_LEAFREF) {
        return enum_text(reinterpret_cast<const lysc_type_leafref *>(type)->realtype, number, text);
    } else if (type->basetype == LY_TYPE_UNION) {
        lysc_type **members = reinterpret_cast<const lysc_type_union *>(type)->types;
        for (size_t u = 0; u < ly_count(members); u++) {
            if (enum_text(members[u], number, text))
                return true;
        }
    }
    return false;
}

static bool bits_text(const lysc_type *type, uint64_t bits, std::string &text)
{
    if (type->basetype == LY_TYPE_LEAFREF)
        return bits_text(reinterpret_cast<const lysc_type_leafref *>(type)->realtype, bits, text);
    if (type->basetype == LY_TYPE_UNION) {
        lysc_type **members = reinterpret_cast<const lysc_type_union *>(type)->types;
        for (size_t u = 0; u < ly_count(members); u++) {
            if (bits_text(members[u], bits, text))
                return true;
        }
        return false;
    }
    if (type->basetype != LY_TYPE_BITS)
        return false;
    text.clear();
    const lysc_type_bitenum_item *items = reinterpret_cast<const lysc_type_bits *>(type)->bits;
    for (size_t u = 0; u < ly_count(items); u++) {
        uint64_t bit = items[u].position < 64 ? 1ull << items[u].position : 0;
        if (!(bits & bit))
            continue;
        text += (text.empty() ? "" : " ") + std::string(items[u].name);
        bits &= ~bit;
    }
    return bits == 0;
}

static std::string address_text(int family, const void *address)
{
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(family, address, text, sizeof text);
}

static std::string decimal_text(const confd_decimal64 &decimal)
{
    uint64_t size = decimal.value < 0 ? 0 - static_cast<uint64_t>(decimal.value) : static_cast<uint64_t>(decimal.value);
    std::string digits = std::to_string(size);
    size_t point = std::min<size_t>(decimal.fraction_digits, 18);
    if (digits.size() <= point)
        digits.insert(0, point + 1 - digits.size(), '0');
    if (point > 0)
        digits.insert(digits.size() - point, ".");
    return (decimal.value < 0 ? "-" : "") + digits;
}

static std::string oid_text(const confd_oid *oid)
{
    std::string text;
    for (int i = 0; oid && i < oid->len; i++)
        text += (i ? "." : "") + std::to_string(oid->oid[i]);
    return text;
}

static std::string datetime_text(const confd_datetime &time)
{
    char text[64];
    snprintf(text, sizeof text, "%04d-%02u-%02uT%02u:%02u:%02u", time.year, time.month, time.day, time.hour, time.min,
             time.sec);
    std::string all = text;
    if (time.micro) {
        snprintf(text, sizeof text, ".%06u", time.micro % 1000000);
        all += text;
    }
    if (time.timezone == CONFD_TIMEZONE_UNDEF || (time.timezone == 0 && time.timezone_minutes == 0))
        return all + "Z";
    bool is_west = time.timezone < 0 || time.timezone_minutes < 0;
    snprintf(text, sizeof text, "%c%02d:%02d", is_west ? '-' : '+', std::abs(time.timezone),
             std::abs(time.timezone_minutes));
    return all + text;
}

static std::string base64_text(const confd_buf &bytes)
{
    static constexpr char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (unsigned at = 0; at < bytes.size; at += 3) {
        unsigned left = bytes.size - at;
        uint32_t group = static_cast<uint32_t>(bytes.ptr[at]) << 16;
        group |= left > 1 ? static_cast<uint32_t>(bytes.ptr[at + 1]) << 8 : 0;
        group |= left > 2 ? bytes.ptr[at + 2] : 0u;
        text += digits[group >> 18];
        text += digits[group >> 12 & 63];
        text += left > 1 ? digits[group >> 6 & 63] : '=';
        text += left > 2 ? digits[group & 63] : '=';
    }
    return text;
}

// Identities are told apart by name and namespace; the JSON form names the module.
static bool identity_text(const schema_t &schema, const confd_identityref &ref, std::string &text)
{
    const std::string *name = schema_hash_name(schema, ref.id);
    for (const schema_module_t &module : schema.modules) {
        if (!name || module.ns != ref.ns)
            continue;
        text = std::string(module.module->name) + ":" + *name;
        return true;
    }
    return false;
}

static bool scalar_text(const schema_t &schema, const lysc_type *type, const confd_value_t &v, std::string &text)
{
    switch (v.type) {
    case C_STR:
        text = v.val.s ? v.val.s : "";
        return true;
    case C_BUF:
        text.assign(reinterpret_cast<const char *>(v.val.buf.ptr), v.val.buf.size);
        return true;
    case C_UINT8:
        text = std::to_string(v.val.u8);
        return true;
    case C_UINT16:
        text = std::to_string(v.val.u16);
        return true;
    case C_UINT32:
        text = std::to_string(v.val.u32);
        return true;
    case C_UINT64:
        text = std::to_string(v.val.u64);
        return true;
    case C_INT8:
        text = std::to_string(v.val.i8);
        return true;
    case C_INT16:
        text = std::to_string(v.val.i16);
        return true;
    case C_INT32:
        text = std::to_string(v.val.i32);
        return true;
    case C_INT64:
        text = std::to_string(v.val.i64);
        return true;
    case C_BOOL:
        text = v.val.boolean ? "true" : "false";
        return true;
    case C_XMLTAG:
        text.clear();
        return true;
    case C_IPV4:
        text = address_text(AF_INET, &v.val.ip);
        return true;
    case C_IPV6:
        text = address_text(AF_INET6, &v.val.ip6);
        return true;
    case C_IPV4PREFIX:
        text = address_text(AF_INET, &v.val.ipv4prefix.ip) + "/" + std::to_string(v.val.ipv4prefix.len);
        return true;
    case C_IPV6PREFIX:
        text = address_text(AF_INET6, &v.val.ipv6prefix.ip6) + "/" + std::to_string(v.val.ipv6prefix.len);
        return true;
    case C_DATETIME:
        text = datetime_text(v.val.datetime);
        return true;
    case C_DECIMAL64:
        text = decimal_text(v.val.d64);
        return true;
    case C_BINARY:
        text = base64_text(v.val.buf);
        return true;
    case C_OID:
        text = oid_text(v.val.oidp);
        return true;
    case C_ENUM_VALUE:
        return type && enum_text(type, v.val.enumvalue, text);
    case C_BIT32:
        return type && bits_text(type, v.val.b32, text);
    case C_BIT64:
        return type && bits_text(type, v.val.b64, text);
    case C_IDENTITYREF:
        return identity_text(schema, v.val.idref, text);
    default:
        return false;
    }
}

static std::string type_name(uint8_t type)
{
    static constexpr const char *names[] = { nullptr,   "C_NOEXISTS",  "C_XMLTAG",      nullptr,        "C_STR",
                                             "C_BUF",   "C_UINT8",     "C_UINT16",      "C_UINT32",     "C_UINT64",
                                             "C_INT8",  "C_INT16",     "C_INT32",       "C_INT64",      "C_DOUBLE",
                                             "C_IPV4",  "C_IPV6",      "C_BOOL",        "C_QNAME",      "C_DATETIME",
                                             nullptr,   nullptr,       nullptr,         "C_ENUM_VALUE", "C_BIT32",
                                             "C_BIT64", "C_DECIMAL64", "C_IDENTITYREF", "C_IPV4PREFIX", "C_IPV6PREFIX",
                                             nullptr,   "C_LIST" };
    if (type < std::size(names) && names[type])
        return names[type];
    return type == C_BINARY ? "C_BINARY" : "type " + std::to_string(type);
}

std::string value_text_without_type(const schema_t &schema, const confd_value_t &from)
{
    std::string text;
    if (scalar_text(schema, nullptr, from, text))
        return text;
    if (from.type == C_ENUM_VALUE)
        return std::to_string(from.val.enumvalue);
    if (from.type == C_BIT32 || from.type == C_BIT64)
        return std::to_string(from.type == C_BIT32 ? from.val.b32 : from.val.b64);
    return type_name(from.type);
}

bool value_from_confd(const schema_t &schema, const schema_info_t &node, const confd_value_t &from,
                      std::string_view path, value_t &value, ds_error_t &error)
{
    if (!node.is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST))
        return ds_fail(error, CONFD_ERR_BADTYPE, std::string(path) + " has no value: it is no leaf");
    const lysc_type *type = node.is(WIRE_NODE_LEAF) ? reinterpret_cast<const lysc_node_leaf *>(node.node)->type
                                                    : reinterpret_cast<const lysc_node_leaflist *>(node.node)->type;
    uint8_t given = from.type == C_STR || from.type == C_OID ? C_BUF : from.type; // the type has the last word
    if (node.type != C_NOEXISTS && node.type != given)
        return ds_fail(error, CONFD_ERR_BADTYPE,
                       std::string(path) + ": a value of " + type_name(from.type) + " is refused: the type is " +
                           type_name(node.type));
    std::string text;
    if (!scalar_text(schema, type, from, text))
        return ds_fail(error, CONFD_ERR_BADTYPE,
                       std::string(path) + ": a value of " + type_name(from.type) +
                           " is refused: the type has no such name or number");
    return value_from_text(node, text, path, value, error);
}
