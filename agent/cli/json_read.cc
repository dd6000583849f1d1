// See json_read.h. A document is read into a small tree first: keys of an entry may stand anywhere in it.
#include "agent/cli/json_read.h"

#include <algorithm>
#include <charconv>

namespace
{

constexpr unsigned MOST_LEVELS = 64;

enum class json_kind_t {
    OBJECT,
    ARRAY,
    TEXT,
    WORD // number, true, false, null
};

struct json_t {
    json_kind_t kind = json_kind_t::WORD;
    std::string name; // in an object
    std::string text;
    std::vector<json_t> members;
};

class parser_t
{
public:
    explicit parser_t(std::string_view text) : text_(text) {}

    bool read_document(json_t &out)
    {
        bool ok = read_value(out, 0);
        skip_blanks();
        return ok && at_ == text_.size();
    }
    [[nodiscard]] size_t place() const { return at_; }

private:
    void skip_blanks()
    {
        while (at_ < text_.size() && std::string_view(" \t\r\n").find(text_[at_]) != std::string_view::npos)
            at_++;
    }
    bool take(char c)
    {
        skip_blanks();
        bool is_here = at_ < text_.size() && text_[at_] == c;
        at_ += is_here;
        return is_here;
    }
    bool read_value(json_t &out, unsigned level)
    {
        if (level > MOST_LEVELS)
            return false;
        if (take('{'))
            return read_members(out, json_kind_t::OBJECT, '}', level);
        if (take('['))
            return read_members(out, json_kind_t::ARRAY, ']', level);
        if (take('"')) {
            out.kind = json_kind_t::TEXT;
            return read_text(out.text);
        }
        return read_word(out);
    }
    bool read_members(json_t &out, json_kind_t kind, char end, unsigned level)
    {
        out.kind = kind;
        if (take(end))
            return true;
        do {
            json_t member;
            if (kind == json_kind_t::OBJECT && !(take('"') && read_text(member.name) && take(':')))
                return false;
            if (!read_value(member, level + 1))
                return false;
            out.members.push_back(std::move(member));
        } while (take(','));
        return take(end);
    }
    bool read_word(json_t &out)
    {
        out.kind = json_kind_t::WORD;
        while (at_ < text_.size() && std::string_view(",]} \t\r\n").find(text_[at_]) == std::string_view::npos)
            out.text += text_[at_++];
        return !out.text.empty() && out.text.find_first_of("\"{[:") == std::string::npos;
    }
    // From behind the opening quote.
    bool read_text(std::string &out)
    {
        while (at_ < text_.size() && text_[at_] != '"') {
            if (text_[at_] != '\\')
                out += text_[at_++];
            else if (!read_escape(out))
                return false;
        }
        return take('"');
    }
    bool read_escape(std::string &out)
    {
        static constexpr std::string_view names = "bfnrt";
        static constexpr std::string_view bytes = "\b\f\n\r\t";
        if (++at_ == text_.size())
            return false;
        char c = text_[at_++];
        if (c == 'u')
            return read_code(out);
        size_t named = names.find(c);
        out += named == names.npos ? c : bytes[named];
        return named != names.npos || c == '"' || c == '\\' || c == '/';
    }
    bool read_hex(uint32_t &code)
    {
        if (text_.size() - at_ < 4)
            return false;
        const char *from = text_.data() + at_;
        auto [end, rc] = std::from_chars(from, from + 4, code, 16);
        at_ += 4;
        return rc == std::errc() && end == from + 4;
    }
    bool read_code(std::string &out)
    {
        uint32_t code = 0;
        uint32_t low = 0;
        if (!read_hex(code))
            return false;
        bool is_first_half = code >= 0xd800 && code < 0xdc00;
        if (is_first_half && text_.substr(at_, 2) == "\\u") {
            at_ += 2;
            if (!read_hex(low) || low < 0xdc00 || low >= 0xe000)
                return false;
            code = 0x10000 + ((code - 0xd800) << 10) + (low - 0xdc00);
        }
        add_code(code, out);
        return true;
    }
    static void add_code(uint32_t code, std::string &out)
    {
        auto add = [&out](uint32_t byte) {
            out += static_cast<char>(byte);
        };
        if (code < 0x80)
            return add(code);
        if (code < 0x800) {
            add(0xc0 | code >> 6);
        } else if (code < 0x10000) {
            add(0xe0 | code >> 12);
            add(0x80 | (code >> 6 & 0x3f));
        } else {
            add(0xf0 | code >> 18);
            add(0x80 | (code >> 12 & 0x3f));
            add(0x80 | (code >> 6 & 0x3f));
        }
        add(0x80 | (code & 0x3f));
    }

    std::string_view text_;
    size_t at_ = 0;
};

struct converter_t {
    const schema_t *schema;
    std::vector<item_t> &items;

    void add_members(const json_t &object, const std::vector<const lysc_node *> &nodes)
    {
        for (const json_t &member : object.members)
            add(member, schema_find_in(nodes, member.name));
    }

private:
    static std::string plain_name(const json_t &json) { return json.name.substr(json.name.find(':') + 1); }
    std::vector<const lysc_node *> nodes_below(const lysc_node *node) const
    {
        return schema && node ? schema_children(*schema, node) : std::vector<const lysc_node *>{};
    }
    void add(const json_t &json, const lysc_node *node)
    {
        std::string name = plain_name(json);
        if (json.kind == json_kind_t::OBJECT) {
            items.push_back({ WIRE_WALK_CONTAINER, name, {}, node, "" });
            add_members(json, nodes_below(node));
            items.push_back({});
        } else if (json.kind == json_kind_t::ARRAY) {
            add_array(json, name, node);
        } else {
            items.push_back({ WIRE_WALK_LEAF, name, { json.text }, node, "" });
            item_cover_secret(items.back());
        }
    }
    void add_array(const json_t &json, const std::string &name, const lysc_node *node)
    {
        bool is_list = !json.members.empty() && json.members.front().kind == json_kind_t::OBJECT;
        if (is_list) {
            for (const json_t &entry : json.members)
                add_entry(entry, name, node);
            return;
        }
        bool is_empty_leaf = json.members.size() == 1 && json.members.front().kind == json_kind_t::WORD &&
                             json.members.front().text == "null";
        item_t item = { is_empty_leaf ? WIRE_WALK_LEAF : WIRE_WALK_LEAF_LIST, name, {}, node, "" };
        for (const json_t &value : json.members)
            item.values.push_back(is_empty_leaf ? "" : value.text);
        items.push_back(std::move(item));
    }
    void add_entry(const json_t &entry, const std::string &name, const lysc_node *node)
    {
        std::vector<std::string> keys;
        for (const lysc_node *key : schema_keys(node))
            keys.emplace_back(key->name);
        if (keys.empty() && !entry.members.empty())
            keys.push_back(plain_name(entry.members.front()));
        item_t item = { WIRE_WALK_ENTRY, name, {}, node, keys.empty() ? "" : keys.front() };
        for (const std::string &key : keys)
            for (const json_t &member : entry.members)
                if (plain_name(member) == key)
                    item.values.push_back(member.text);
        items.push_back(std::move(item));
        for (const json_t &member : entry.members)
            if (std::find(keys.begin(), keys.end(), plain_name(member)) == keys.end())
                add(member, schema_find_in(nodes_below(node), member.name));
        items.push_back({});
    }
};

} // namespace

bool json_read_items(const json_place_t &place, std::string_view document, std::vector<item_t> &items,
                     cli_error_t &error)
{
    items.clear();
    if (document.find_first_not_of(" \t\r\n") == document.npos)
        return true;
    json_t json;
    parser_t parser(document);
    if (!parser.read_document(json) || json.kind != json_kind_t::OBJECT)
        return cli_fail(error, "the agent's document cannot be read, at byte " + std::to_string(parser.place()));
    converter_t{ place.schema, items }.add_members(json, place.nodes);
    return true;
}
