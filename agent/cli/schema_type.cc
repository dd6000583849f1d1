// What values a leaf takes, in words and as a judgement. See schema.h.
#include "agent/cli/schema.h"

#include <algorithm>
#include <libyang/plugins_types.h>

namespace
{

const lysc_type *type_of(const lysc_node *leaf)
{
    const lysc_type *type = reinterpret_cast<const lysc_node_leaf *>(leaf)->type; // a leaf-list has it at one place
    while (type->basetype == LY_TYPE_LEAFREF)
        type = reinterpret_cast<const lysc_type_leafref *>(type)->realtype;
    return type;
}

bool is_signed(LY_DATA_TYPE type)
{
    return type == LY_TYPE_INT8 || type == LY_TYPE_INT16 || type == LY_TYPE_INT32 || type == LY_TYPE_INT64;
}

// "1..32" or "0..10, 20..30"
std::string range_text(const lysc_range *range, bool with_sign)
{
    std::string text;
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(range->parts, i)
    {
        const auto &part = range->parts[i];
        std::string min = with_sign ? std::to_string(part.min_64) : std::to_string(part.min_u64);
        std::string max = with_sign ? std::to_string(part.max_64) : std::to_string(part.max_u64);
        text += (text.empty() ? "" : ", ") + (min == max ? min : min + ".." + max);
    }
    return text;
}

struct plain_type_t {
    LY_DATA_TYPE type;
    const char *rule;
};

constexpr plain_type_t plain_types[] = {
    { LY_TYPE_INT8, "-128..127" },
    { LY_TYPE_INT16, "-32768..32767" },
    { LY_TYPE_INT32, "-2147483648..2147483647" },
    { LY_TYPE_INT64, "-9223372036854775808..9223372036854775807" },
    { LY_TYPE_UINT8, "0..255" },
    { LY_TYPE_UINT16, "0..65535" },
    { LY_TYPE_UINT32, "0..4294967295" },
    { LY_TYPE_UINT64, "0..18446744073709551615" },
    { LY_TYPE_BINARY, "base64 text" },
    { LY_TYPE_DEC64, "a decimal number" },
    { LY_TYPE_IDENT, "a name of the model, MODULE:NAME" },
    { LY_TYPE_INST, "a path in the model" },
};

std::string number_rule(const lysc_type *type)
{
    const lysc_range *range = reinterpret_cast<const lysc_type_num *>(type)->range;
    if (range && type->basetype != LY_TYPE_DEC64)
        return range_text(range, is_signed(type->basetype));
    for (const plain_type_t &row : plain_types)
        if (row.type == type->basetype)
            return row.rule;
    return "a value";
}

std::string string_rule(const lysc_type_str *type)
{
    std::string text = type->length ? range_text(type->length, false) + " characters" : "";
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(type->patterns, i)
    {
        const lysc_pattern *pattern = type->patterns[i];
        std::string rule = pattern->emsg ? pattern->emsg : std::string("pattern ") + pattern->expr;
        if (text.find(rule) == text.npos)
            text += (text.empty() ? "" : "; ") + rule;
    }
    return text.empty() ? "text" : text;
}

// Types whose patterns nobody wants to read.
struct named_type_t {
    const char *plugin; // the type's own implementation in the library
    const char *rule;
};

constexpr named_type_t named_types[] = {
    { "ipv4-address", "an IPv4 address" },
    { "ipv4-address-no-zone", "an IPv4 address" },
    { "ipv6-address", "an IPv6 address" },
    { "ipv6-address-no-zone", "an IPv6 address" },
    { "ipv4-prefix", "an IPv4 prefix, A.B.C.D/0..32" },
    { "ipv6-prefix", "an IPv6 prefix, ADDRESS/0..128" },
    { "date-and-time", "a time, YYYY-MM-DDThh:mm:ssZ" },
};

// An implementation's name reads "libyang 2 - ipv4-address, version 1".
const char *named_rule(const lysc_type *type)
{
    std::string_view id = type->plugin && type->plugin->id ? type->plugin->id : "";
    for (const named_type_t &row : named_types)
        if (id.find(std::string(" - ") + row.plugin + ",") != id.npos)
            return row.rule;
    return nullptr;
}

void add_items(lysc_type_bitenum_item *items, std::vector<choice_t> &choices)
{
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(items, i)
    choices.push_back({ items[i].name, items[i].dsc ? items[i].dsc : "", false });
}

// All that may stand for the identity, but not itself.
void add_identities(const lysc_ident *base, const lys_module *module, std::vector<choice_t> &choices)
{
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(base->derived, i)
    {
        const lysc_ident *identity = base->derived[i];
        std::string name = identity->module == module ? "" : std::string(identity->module->name) + ":";
        choices.push_back({ name + identity->name, identity->dsc ? identity->dsc : "", false });
        add_identities(identity, module, choices);
    }
}

std::vector<choice_t> identities_of(const lysc_node *leaf, const lysc_type *type)
{
    std::vector<choice_t> choices;
    const auto *identities = reinterpret_cast<const lysc_type_identityref *>(type);
    LY_ARRAY_COUNT_TYPE i;
    if (type->basetype == LY_TYPE_IDENT)
        LY_ARRAY_FOR(identities->bases, i)
    add_identities(identities->bases[i], leaf->module, choices);
    return choices;
}

std::vector<choice_t> words_of_type(const lysc_type *type)
{
    std::vector<choice_t> choices;
    if (type->basetype == LY_TYPE_ENUM)
        add_items(reinterpret_cast<const lysc_type_enum *>(type)->enums, choices);
    else if (type->basetype == LY_TYPE_BITS)
        add_items(reinterpret_cast<const lysc_type_bits *>(type)->bits, choices);
    else if (type->basetype == LY_TYPE_BOOL)
        choices = { { "true", "", false }, { "false", "", false } };
    return choices;
}

std::string rule_of_type(const lysc_type *type)
{
    if (type->basetype == LY_TYPE_LEAFREF)
        return rule_of_type(reinterpret_cast<const lysc_type_leafref *>(type)->realtype);
    if (const char *rule = named_rule(type))
        return rule;
    std::string text;
    if (type->basetype == LY_TYPE_UNION) {
        lysc_type **members = reinterpret_cast<const lysc_type_union *>(type)->types;
        LY_ARRAY_COUNT_TYPE i;
        LY_ARRAY_FOR(members, i)
        text += (text.empty() ? "" : " or ") + rule_of_type(members[i]);
        return text;
    }
    for (const choice_t &choice : words_of_type(type))
        text += (text.empty() ? "" : ", ") + choice.text;
    if (!text.empty())
        return text;
    return type->basetype == LY_TYPE_STRING ? string_rule(reinterpret_cast<const lysc_type_str *>(type))
                                            : number_rule(type);
}

} // namespace

std::string schema_rule(const lysc_node *leaf)
{
    std::string rule = rule_of_type(type_of(leaf));
    const char *units = reinterpret_cast<const lysc_node_leaf *>(leaf)->units;
    return units ? rule + " " + units : rule;
}

namespace
{

// The default as it is typed; empty when the leaf has none.
std::string default_of(const lysc_node *leaf)
{
    if (!schema_is_leaf(leaf))
        return "";
    const lyd_value *value = reinterpret_cast<const lysc_node_leaf *>(leaf)->dflt;
    const char *text = value ? lyd_value_get_canonical(leaf->module->ctx, value) : nullptr;
    return text ? text : "";
}

void add_note(std::string &help, const std::string &note)
{
    help += (help.empty() ? "[" : " [") + note + "]";
}

// The first line, without its end.
void shorten(std::string &text)
{
    text = text.substr(0, std::min(text.find(". "), text.find('\n')));
    if (text.ends_with('.'))
        text.pop_back();
}

} // namespace

std::vector<choice_t> schema_values(const lysc_node *leaf)
{
    const lysc_type *type = type_of(leaf);
    std::vector<choice_t> choices = type->basetype == LY_TYPE_IDENT ? identities_of(leaf, type) : words_of_type(type);
    std::string by_default = default_of(leaf);
    for (choice_t &choice : choices) {
        shorten(choice.help);
        if (choice.text == by_default || by_default.ends_with(":" + choice.text))
            add_note(choice.help, "default");
    }
    if (!choices.empty())
        return choices;
    choices.push_back({ "<" + schema_rule(leaf) + ">", schema_help(leaf), true });
    if (!by_default.empty())
        add_note(choices.back().help, "default " + by_default);
    if (leaf->flags & LYS_MAND_TRUE)
        add_note(choices.back().help, "mandatory");
    return choices;
}

LY_DATA_TYPE schema_value_type(const lysc_node *leaf, const std::string &value)
{
    const lysc_type *type = type_of(leaf);
    if (type->basetype != LY_TYPE_UNION)
        return type->basetype;
    lysc_type **members = reinterpret_cast<const lysc_type_union *>(type)->types;
    const lysc_type *taken = nullptr;
    LY_ERR rc = lyd_value_validate(nullptr, leaf, value.c_str(), value.size(), nullptr, &taken, nullptr);
    bool is_known = (rc == LY_SUCCESS || rc == LY_EINCOMPLETE) && taken && taken->basetype != LY_TYPE_UNION;
    return is_known ? taken->basetype : members[0]->basetype;
}

std::string schema_enum_label(const lysc_node *leaf, int32_t number)
{
    const lysc_type *type = type_of(leaf);
    const auto *enumeration = reinterpret_cast<const lysc_type_enum *>(type);
    LY_ARRAY_COUNT_TYPE i;
    if (type->basetype == LY_TYPE_ENUM)
        LY_ARRAY_FOR(enumeration->enums, i)
    if (enumeration->enums[i].value == number)
        return enumeration->enums[i].name;
    return "";
}

bool schema_check_value(const lysc_node *leaf, const std::string &text, std::string &rule)
{
    LY_ERR rc = lyd_value_validate(nullptr, leaf, text.c_str(), text.size(), nullptr, nullptr, nullptr);
    if (rc == LY_SUCCESS || rc == LY_EINCOMPLETE)
        return true;
    rule = schema_rule(leaf);
    return false;
}
