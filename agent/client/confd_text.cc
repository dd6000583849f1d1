// Values and keypaths as text: the forms of YANG where it has one (RFC 7950 section 9, RFC 6991), with labels of the
// schema where a node is given.
#include "agent/client/confd_internal.h"

#include <arpa/inet.h>

static std::string number_text(const confd_value_t &value)
{
    switch (value.type) {
    case C_UINT8:
        return std::to_string(value.val.u8);
    case C_UINT16:
        return std::to_string(value.val.u16);
    case C_UINT32:
    case C_BIT32:
        return std::to_string(value.val.u32);
    case C_UINT64:
    case C_BIT64:
        return std::to_string(value.val.u64);
    case C_INT8:
        return std::to_string(value.val.i8);
    case C_INT16:
        return std::to_string(value.val.i16);
    case C_INT32:
    case C_ENUM_VALUE:
        return std::to_string(value.val.i32);
    case C_INT64:
        return std::to_string(value.val.i64);
    default:
        return {};
    }
}

static std::string double_text(const confd_value_t &value)
{
    char text[32];
    (void)snprintf(text, sizeof text, "%.17g", value.val.d);
    return text;
}

static std::string string_text(const confd_value_t &value)
{
    return value.val.s;
}

static std::string bytes_text(const confd_value_t &value)
{
    return { reinterpret_cast<const char *>(value.val.buf.ptr), value.val.buf.size };
}

// RFC 4648 section 4.
static std::string binary_text(const confd_value_t &value)
{
    static constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const confd_buf &buf = value.val.buf;
    std::string text;
    for (unsigned i = 0; i < buf.size; i += 3) {
        unsigned left = buf.size - i;
        uint32_t bits = static_cast<uint32_t>(buf.ptr[i]) << 16;
        bits |= left > 1 ? static_cast<uint32_t>(buf.ptr[i + 1]) << 8 : 0;
        bits |= left > 2 ? buf.ptr[i + 2] : 0u;
        for (unsigned k = 0; k < 4; k++)
            text += k <= left ? alphabet[bits >> (18 - 6 * k) & 63] : '=';
    }
    return text;
}

static std::string address_text(const confd_value_t &value)
{
    char text[INET6_ADDRSTRLEN];
    bool is_v4 = value.type == C_IPV4 || value.type == C_IPV4PREFIX;
    return inet_ntop(is_v4 ? AF_INET : AF_INET6, &value.val, text, sizeof text) != nullptr ? text : "";
}

static std::string prefix_text(const confd_value_t &value)
{
    unsigned len = value.type == C_IPV4PREFIX ? value.val.ipv4prefix.len : value.val.ipv6prefix.len;
    return address_text(value) + "/" + std::to_string(len);
}

static std::string bool_text(const confd_value_t &value)
{
    return value.val.boolean != 0 ? "true" : "false";
}

static std::string datetime_text(const confd_value_t &value)
{
    const confd_datetime &t = value.val.datetime;
    char text[80];
    (void)snprintf(text, sizeof text, "%04d-%02u-%02uT%02u:%02u:%02u", t.year, t.month, t.day, t.hour, t.min, t.sec);
    std::string all = text;
    if (t.micro != 0) {
        (void)snprintf(text, sizeof text, ".%06u", t.micro);
        all += text;
    }
    if (t.timezone == CONFD_TIMEZONE_UNDEF)
        return all + "-00:00"; // RFC 6991: the zone is not known
    bool is_west = t.timezone < 0 || t.timezone_minutes < 0;
    (void)snprintf(text, sizeof text, "%c%02d:%02d", is_west ? '-' : '+', abs(t.timezone), abs(t.timezone_minutes));
    return all + text;
}

static std::string decimal64_text(const confd_value_t &value)
{
    const confd_decimal64 &d = value.val.d64;
    std::string text = std::to_string(d.value);
    if (d.fraction_digits == 0)
        return text;
    size_t sign = text.front() == '-';
    if (text.size() - sign <= d.fraction_digits)
        text.insert(sign, d.fraction_digits + 1 - (text.size() - sign), '0');
    text.insert(text.size() - d.fraction_digits, 1, '.');
    return text;
}

// The name, or the hash in hexadecimal digits when the schema does not tell.
static std::string hash_text(uint32_t hash)
{
    const char *name = confd_hash2str(hash);
    if (name != nullptr)
        return name;
    char text[16];
    (void)snprintf(text, sizeof text, "#%08x", hash);
    return text;
}

static std::string identity_text(const confd_value_t &value)
{
    return hash_text(value.val.idref.id);
}

static std::string tag_text(const confd_value_t &value)
{
    return hash_text(value.val.xmltag.tag);
}

static std::string objectref_text(const confd_value_t &value)
{
    return confd_keypath_text(*value.val.hkp);
}

static std::string oid_text(const confd_value_t &value)
{
    std::string text;
    for (int i = 0; i < value.val.oidp->len; i++)
        text += (i > 0 ? "." : "") + std::to_string(value.val.oidp->oid[i]);
    return text;
}

struct text_row_t {
    confd_vtype type;
    std::string (*text)(const confd_value_t &value);
};

static constexpr text_row_t text_rows[] = {
    { C_XMLTAG, tag_text },           { C_STR, string_text },        { C_BUF, bytes_text },
    { C_UINT8, number_text },         { C_UINT16, number_text },     { C_UINT32, number_text },
    { C_UINT64, number_text },        { C_INT8, number_text },       { C_INT16, number_text },
    { C_INT32, number_text },         { C_INT64, number_text },      { C_DOUBLE, double_text },
    { C_IPV4, address_text },         { C_IPV6, address_text },      { C_BOOL, bool_text },
    { C_QNAME, bytes_text },          { C_DATETIME, datetime_text }, { C_ENUM_VALUE, number_text },
    { C_BIT32, number_text },         { C_BIT64, number_text },      { C_DECIMAL64, decimal64_text },
    { C_IDENTITYREF, identity_text }, { C_IPV4PREFIX, prefix_text }, { C_IPV6PREFIX, prefix_text },
    { C_XMLBEGIN, tag_text },         { C_XMLEND, tag_text },        { C_XMLBEGINDEL, tag_text },
    { C_OBJECTREF, objectref_text },  { C_OID, oid_text },           { C_BINARY, binary_text },
};

static std::string list_text(const confd_cs_node *node, const confd_list &list)
{
    std::string text;
    for (unsigned i = 0; i < list.size; i++)
        text += (i > 0 ? " " : "") + confd_value_text(node, list.ptr[i]);
    return text;
}

// ---- with the schema

static const confd_names_t *names_of(const confd_cs_node *node)
{
    return node != nullptr ? static_cast<const confd_names_t *>(node->info.names) : nullptr;
}

const char *confd_value_label(const confd_cs_node *node, const confd_value_t &value)
{
    const confd_names_t *names = names_of(node);
    if (names == nullptr || (value.type != C_ENUM_VALUE && value.type != C_IDENTITYREF))
        return nullptr;
    int64_t number = value.type == C_ENUM_VALUE ? value.val.enumvalue : static_cast<int64_t>(value.val.idref.id);
    for (const auto &[candidate, label] : *names)
        if (candidate == number)
            return label.c_str();
    return nullptr;
}

// The labels of the bits that are set, in the order of their positions.
static std::string bits_text(const confd_names_t &names, uint64_t bits)
{
    std::string text;
    for (int64_t position = 0; position < 64; position++)
        for (const auto &[candidate, label] : names)
            if (candidate == position && (bits >> position & 1) != 0)
                text += (text.empty() ? "" : " ") + label;
    return text;
}

std::string confd_value_text(const confd_cs_node *node, const confd_value_t &value)
{
    if (value.type == C_LIST)
        return list_text(node, value.val.list);
    if (const char *label = confd_value_label(node, value))
        return label;
    const confd_names_t *names = names_of(node);
    if (names != nullptr && value.type == C_BIT32)
        return bits_text(*names, value.val.b32);
    if (names != nullptr && value.type == C_BIT64)
        return bits_text(*names, value.val.b64);
    for (const text_row_t &row : text_rows)
        if (row.type == value.type)
            return row.text(value);
    return {};
}

// ---- keypaths

static std::string element_name(const confd_value_t &element, bool is_first)
{
    const char *prefix = is_first ? confd_ns2prefix(element.val.xmltag.ns) : nullptr;
    std::string name = hash_text(element.val.xmltag.tag);
    return prefix != nullptr ? std::string(prefix) + ":" + name : name;
}

static std::string keys_text(const confd_cs_node *list, const confd_value_t *keys)
{
    std::string text = "{";
    for (size_t i = 0; i < MAXKEYLEN && keys[i].type != C_NOEXISTS; i++)
        text += (i > 0 ? " " : "") + wire_quote_key(confd_value_text(confd_schema_key(list, i), keys[i]));
    return text + "}";
}

std::string confd_keypath_text(const confd_hkeypath_t &path)
{
    std::string text;
    for (int i = path.len - 1; i >= 0; i--) {
        const confd_value_t *element = path.v[i];
        if (element[0].type == C_XMLTAG)
            text += "/" + element_name(element[0], i == path.len - 1);
        else
            text += keys_text(confd_find_cs_node(&path, path.len - 1 - i), element);
    }
    return text.empty() ? "/" : text;
}

// ---- the library's calls

int confd_copy_text(char *buf, int bufsiz, std::string_view text)
{
    if (buf != nullptr && bufsiz > 0) {
        size_t size = std::min(text.size(), static_cast<size_t>(bufsiz) - 1);
        if (size > 0)
            memcpy(buf, text.data(), size);
        buf[size] = 0;
    }
    return static_cast<int>(text.size());
}

int confd_pp_value(char *buf, int bufsiz, const confd_value_t *v)
{
    return confd_copy_text(buf, bufsiz, confd_value_text(nullptr, *v));
}

int confd_pp_kpath(char *buf, int bufsiz, const confd_hkeypath_t *path)
{
    return confd_copy_text(buf, bufsiz, confd_keypath_text(*path));
}

int confd_val2str(const struct confd_cs_node *node, const confd_value_t *v, char *buf, int bufsiz)
{
    return confd_copy_text(buf, bufsiz, confd_value_text(node, *v));
}

int confd_val2str_ptr(const struct confd_cs_node *node, const confd_value_t *v, const char **out)
{
    const char *label = confd_value_label(node, *v);
    if (label == nullptr)
        return confd_fail(CONFD_ERR_NOEXISTS, "the value %s has no label", confd_value_text(node, *v).c_str());
    *out = label;
    return CONFD_OK;
}
