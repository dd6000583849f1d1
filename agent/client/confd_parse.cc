// Text to values, by the type of a schema node. The counterpart of confd_text.cc.
#include "agent/client/confd_internal.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstdlib>

// What a parser gets: the node, the text, and where the value goes. A failed one leaves nothing to free.
struct parse_t {
    const confd_cs_node *node;
    std::string_view text;
    confd_value_t *out;
};

template <typename T> static bool read_all_of(std::string_view text, T *number)
{
    const char *end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, *number);
    return error == std::errc() && stop == end && !text.empty();
}

// For types whose union member starts with the number itself.
template <typename T> static bool parse_number(parse_t &p)
{
    T number = 0;
    if (!read_all_of(p.text, &number))
        return false;
    memcpy(&p.out->val, &number, sizeof number);
    return true;
}

static bool give_bytes(parse_t &p, std::string_view bytes)
{
    auto *copy = static_cast<unsigned char *>(malloc(bytes.size() + 1));
    if (copy == nullptr)
        return false;
    memcpy(copy, bytes.data(), bytes.size());
    copy[bytes.size()] = 0;
    p.out->val.buf = { copy, static_cast<unsigned>(bytes.size()) };
    return true;
}

static bool parse_text(parse_t &p)
{
    p.out->type = C_BUF; // of a union too, whose member types are the agent's business
    return give_bytes(p, p.text);
}

static int base64_digit(char c)
{
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    return c == '/' ? 63 : -1;
}

static bool parse_binary(parse_t &p)
{
    std::string_view text = p.text;
    if (text.size() % 4 != 0)
        return false;
    for (int i = 0; i < 2 && text.ends_with('='); i++)
        text.remove_suffix(1);
    std::string bytes;
    uint32_t bits = 0;
    for (size_t i = 0; i < text.size(); i++) {
        int digit = base64_digit(text[i]);
        if (digit < 0)
            return false;
        bits = bits << 6 | static_cast<uint32_t>(digit);
        if (i % 4 != 0)
            bytes += static_cast<char>(bits >> (6 - 2 * (i % 4)));
    }
    return give_bytes(p, bytes);
}

static bool read_address(int family, std::string_view text, void *to)
{
    return inet_pton(family, std::string(text).c_str(), to) == 1;
}

static bool parse_ipv4(parse_t &p)
{
    return read_address(AF_INET, p.text, &p.out->val.ip);
}

static bool parse_ipv6(parse_t &p)
{
    return read_address(AF_INET6, p.text, &p.out->val.ip6);
}

static bool read_prefix(int family, std::string_view text, void *address, uint8_t *len)
{
    size_t slash = text.find('/');
    return slash != std::string_view::npos && read_address(family, text.substr(0, slash), address) &&
           read_all_of(text.substr(slash + 1), len) && *len <= (family == AF_INET ? 32 : 128);
}

static bool parse_ipv4_prefix(parse_t &p)
{
    return read_prefix(AF_INET, p.text, &p.out->val.ipv4prefix.ip, &p.out->val.ipv4prefix.len);
}

static bool parse_ipv6_prefix(parse_t &p)
{
    return read_prefix(AF_INET6, p.text, &p.out->val.ipv6prefix.ip6, &p.out->val.ipv6prefix.len);
}

static bool parse_bool(parse_t &p)
{
    p.out->val.boolean = p.text == "true";
    return p.text == "true" || p.text == "false";
}

static bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// A sign, digits, and digits behind a point.
static bool parse_decimal64(parse_t &p)
{
    std::string digits(p.text);
    size_t point = digits.find('.');
    bool has_point = point != std::string::npos;
    size_t fraction = has_point ? digits.size() - point - 1 : 0;
    if (fraction > 18 || (has_point && (fraction == 0 || point == 0 || !is_digit(digits[point - 1]))))
        return false;
    if (has_point)
        digits.erase(point, 1);
    p.out->val.d64.fraction_digits = static_cast<uint8_t>(fraction);
    return read_all_of(std::string_view(digits), &p.out->val.d64.value);
}

// Zone of a date and time: Z, -00:00 for one that is not known, or hours and minutes.
static bool read_zone(std::string_view zone, confd_datetime *t)
{
    t->timezone_minutes = 0;
    t->timezone = zone == "-00:00" ? CONFD_TIMEZONE_UNDEF : 0;
    if (zone == "Z" || zone == "-00:00")
        return true;
    uint8_t hours = 0, minutes = 0;
    if (zone.size() != 6 || zone[3] != ':' || (zone[0] != '+' && zone[0] != '-') ||
        !read_all_of(zone.substr(1, 2), &hours) || !read_all_of(zone.substr(4), &minutes) || hours > 14 || minutes > 59)
        return false;
    int sign = zone[0] == '-' ? -1 : 1;
    t->timezone = static_cast<int8_t>(sign * hours);
    t->timezone_minutes = static_cast<int8_t>(sign * minutes);
    return true;
}

// A fraction of a second as microseconds; what lies below them is dropped.
static bool read_fraction(std::string_view digits, uint32_t *micro)
{
    std::string six(digits.substr(0, 6));
    six.resize(6, '0');
    return !digits.empty() && digits.find_first_not_of("0123456789") == std::string_view::npos &&
           read_all_of(std::string_view(six), micro);
}

static bool is_date_and_time(const confd_datetime &t)
{
    return t.month >= 1 && t.month <= 12 && t.day >= 1 && t.day <= 31 && t.hour <= 23 && t.min <= 59 && t.sec <= 60;
}

// RFC 3339: 2024-02-29T23:59:60.5+01:00
static bool parse_datetime(parse_t &p)
{
    constexpr size_t SECONDS_END = 19;
    constexpr std::string_view SEPARATORS = "    -  -  T  :  :";
    std::string_view text = p.text;
    if (text.size() < SECONDS_END)
        return false;
    for (size_t i = 0; i < SEPARATORS.size(); i++)
        if (SEPARATORS[i] != ' ' && text[i] != SEPARATORS[i])
            return false;
    confd_datetime &t = p.out->val.datetime;
    t = {};
    if (!read_all_of(text.substr(0, 4), &t.year) || !read_all_of(text.substr(5, 2), &t.month) ||
        !read_all_of(text.substr(8, 2), &t.day) || !read_all_of(text.substr(11, 2), &t.hour) ||
        !read_all_of(text.substr(14, 2), &t.min) || !read_all_of(text.substr(17, 2), &t.sec) || !is_date_and_time(t))
        return false;
    text.remove_prefix(SECONDS_END);
    size_t zone = std::min(text.find_first_of("Z+-"), text.size());
    if (zone > 0 && (text[0] != '.' || !read_fraction(text.substr(1, zone - 1), &t.micro)))
        return false;
    return read_zone(text.substr(zone), &t);
}

// ---- labels

static const std::pair<int64_t, std::string> *find_label(const confd_cs_node *node, std::string_view label)
{
    const auto *names = static_cast<const confd_names_t *>(node->info.names);
    if (names == nullptr)
        return nullptr;
    for (const auto &row : *names)
        if (row.second == label)
            return &row;
    return nullptr;
}

static bool parse_enum(parse_t &p)
{
    const auto *row = find_label(p.node, p.text);
    if (row == nullptr)
        return false;
    p.out->val.enumvalue = static_cast<int32_t>(row->first);
    return true;
}

static bool parse_bits(parse_t &p)
{
    uint64_t bits = 0;
    std::string_view text = p.text;
    while (true) {
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
        if (text.empty())
            break;
        size_t size = std::min(text.find(' '), text.size());
        const auto *row = find_label(p.node, text.substr(0, size));
        if (row == nullptr || row->first < 0 || row->first > 63)
            return false;
        bits |= uint64_t{ 1 } << row->first;
        text.remove_prefix(size);
    }
    p.out->val.b64 = bits;
    if (p.out->type == C_BIT32)
        p.out->val.b32 = static_cast<uint32_t>(bits);
    return true;
}

// With or without the prefix of the identity's module.
static bool parse_identity(parse_t &p)
{
    size_t colon = p.text.find(':');
    bool has_prefix = colon != std::string_view::npos;
    const auto *row = find_label(p.node, p.text);
    if (row == nullptr && has_prefix)
        row = find_label(p.node, p.text.substr(colon + 1));
    if (row == nullptr)
        return false;
    uint32_t ns = has_prefix ? confd_schema_prefix(p.text.substr(0, colon)) : 0;
    p.out->val.idref = { ns != 0 ? ns : p.node->ns, static_cast<uint32_t>(row->first) };
    return true;
}

// ---- structured ones

static bool parse_empty(parse_t &p)
{
    p.out->val.xmltag = { p.node->tag, p.node->ns };
    return p.text.empty();
}

static bool parse_oid(parse_t &p)
{
    constexpr size_t MAX_ARCS = 128;
    std::vector<uint32_t> arcs;
    std::string_view text = p.text;
    while (arcs.size() < MAX_ARCS) {
        size_t size = std::min(text.find('.'), text.size());
        if (!read_all_of(text.substr(0, size), &arcs.emplace_back()))
            return false;
        if (size == text.size()) {
            confd_oid oid = { arcs.data(), static_cast<int>(arcs.size()) };
            confd_value_t view = {};
            view.type = C_OID;
            view.val.oidp = &oid;
            *p.out = wire_copy_value(view);
            return p.out->type == C_OID;
        }
        text.remove_prefix(size + 1);
    }
    return false;
}

static bool fill_keys(const confd_cs_node *list, const path_step_t &step, confd_value_t *keys)
{
    for (size_t i = 0; i < step.keys.size(); i++) {
        const confd_cs_node *key = i < MAXKEYLEN ? confd_schema_key(list, i) : nullptr;
        if (key == nullptr || confd_str2val(key, step.keys[i].c_str(), &keys[i]) != CONFD_OK)
            return false;
    }
    if (step.keys.size() < MAXKEYLEN)
        keys[step.keys.size()].type = C_NOEXISTS;
    return true;
}

// Outermost first: elements are filled from the end of the record downwards, whose length is known beforehand.
static bool fill_keypath(const parsed_path_t &path, confd_hkeypath_t *kp)
{
    const confd_cs_node *node = nullptr;
    int at = kp->len;
    for (const path_step_t &step : path.steps) {
        parsed_path_t one = { { step }, node == nullptr, false };
        node = confd_schema_find(node, one);
        if (node == nullptr)
            return false;
        confd_value_t &tag = kp->v[--at][0];
        tag.type = C_XMLTAG;
        tag.val.xmltag = { node->tag, node->ns };
        if (!step.keys.empty() && !fill_keys(node, step, kp->v[--at]))
            return false;
    }
    return true;
}

static bool parse_objectref(parse_t &p)
{
    parsed_path_t path;
    if (!confd_parse_path(p.text, &path) || !path.is_absolute || path.steps.empty())
        return false;
    size_t len = 0;
    for (const path_step_t &step : path.steps)
        len += step.keys.empty() ? 1 : 2;
    auto *kp = len <= MAXDEPTH ? static_cast<confd_hkeypath_t *>(calloc(1, sizeof(confd_hkeypath_t))) : nullptr;
    if (kp == nullptr)
        return false;
    kp->len = static_cast<int>(len);
    p.out->val.hkp = kp;
    if (fill_keypath(path, kp))
        return true;
    wire_free_value(*p.out);
    return false;
}

struct parse_row_t {
    confd_vtype type; // of the node
    bool (*parse)(parse_t &p);
};

static constexpr parse_row_t parse_rows[] = {
    { C_XMLTAG, parse_empty },
    { C_NOEXISTS, parse_text },
    { C_STR, parse_text },
    { C_BUF, parse_text },
    { C_UINT8, parse_number<uint8_t> },
    { C_UINT16, parse_number<uint16_t> },
    { C_UINT32, parse_number<uint32_t> },
    { C_UINT64, parse_number<uint64_t> },
    { C_INT8, parse_number<int8_t> },
    { C_INT16, parse_number<int16_t> },
    { C_INT32, parse_number<int32_t> },
    { C_INT64, parse_number<int64_t> },
    { C_DOUBLE, parse_number<double> },
    { C_IPV4, parse_ipv4 },
    { C_IPV6, parse_ipv6 },
    { C_BOOL, parse_bool },
    { C_DATETIME, parse_datetime },
    { C_ENUM_VALUE, parse_enum },
    { C_BIT32, parse_bits },
    { C_BIT64, parse_bits },
    { C_DECIMAL64, parse_decimal64 },
    { C_IDENTITYREF, parse_identity },
    { C_IPV4PREFIX, parse_ipv4_prefix },
    { C_IPV6PREFIX, parse_ipv6_prefix },
    { C_OBJECTREF, parse_objectref },
    { C_OID, parse_oid },
    { C_BINARY, parse_binary },
};

static bool is_value_node(const confd_cs_node *node)
{
    return (node->info.flags & (CS_NODE_IS_LEAF | CS_NODE_IS_LEAF_LIST)) != 0;
}

int confd_str2val(const struct confd_cs_node *node, const char *text, confd_value_t *out)
{
    confd_value_t value = {};
    value.type = node->info.shallow_type;
    parse_t p = { node, text, &value };
    for (const parse_row_t &row : parse_rows) {
        if (row.type != node->info.shallow_type || !is_value_node(node))
            continue;
        if (!row.parse(p))
            break;
        *out = value;
        return CONFD_OK;
    }
    const char *name = confd_hash2str(node->tag);
    return confd_fail(CONFD_ERR_BADTYPE, "\"%s\" is no value of %s", text, name != nullptr ? name : "the node");
}
