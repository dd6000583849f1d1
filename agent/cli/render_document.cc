// JSON and XML documents, written item by item. See render.h.
#include "agent/cli/render.h"

#include <cstdio>

namespace
{

std::string json_quote(std::string_view text)
{
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escape[8];
            snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            out += escape;
        } else {
            out += c;
        }
    }
    return out + '"';
}

// How the types stand in a document (RFC 7951, section 6).
std::string json_value(const lysc_node *node, const std::string &value)
{
    if (!node)
        return json_quote(value);
    switch (schema_value_type(node, value)) {
    case LY_TYPE_INT8:
    case LY_TYPE_INT16:
    case LY_TYPE_INT32:
    case LY_TYPE_UINT8:
    case LY_TYPE_UINT16:
    case LY_TYPE_UINT32:
    case LY_TYPE_BOOL:
        return value;
    case LY_TYPE_EMPTY:
        return "[null]";
    default:
        return json_quote(value);
    }
}

std::string json_name(const item_t &item)
{
    return json_quote(item.node ? schema_json_name(item.node) : item.name);
}

// The keys of an entry as leaves.
std::vector<item_t> key_leaves(const item_t &entry)
{
    std::vector<item_t> leaves;
    std::vector<std::string> names = item_key_names(entry);
    std::vector<const lysc_node *> nodes = schema_keys(entry.node);
    nodes.resize(names.size(), nullptr);
    for (size_t i = 0; i < entry.values.size(); i++)
        leaves.push_back({ WIRE_WALK_LEAF, names[i], { entry.values[i] }, nodes[i], "" });
    return leaves;
}

class json_renderer_t
{
public:
    explicit json_renderer_t(output_t &output) : output_(output) {}

    bool take(const item_t &item)
    {
        switch (item.kind) {
        case WIRE_WALK_CONTAINER:
            begin_member(item);
            text_ += "{";
            objects_.emplace_back();
            break;
        case WIRE_WALK_ENTRY:
            begin_entry(item);
            break;
        case WIRE_WALK_LEAF:
            begin_member(item);
            text_ += json_value(item.node, item.values.empty() ? "" : item.values.front());
            break;
        case WIRE_WALK_LEAF_LIST:
            begin_member(item);
            add_array(item);
            break;
        case WIRE_WALK_END:
            if (objects_.size() > 1)
                end_object();
            break;
        case WIRE_WALK_NOTE:
            break;
        }
        return flush();
    }
    bool end()
    {
        while (!objects_.empty())
            end_object();
        text_ += "\n";
        return flush();
    }

private:
    struct object_t {
        bool has_members = false;
        std::string list; // the name of the list that is being written; empty: none
    };

    std::string indent() const
    {
        size_t levels = 0;
        for (const object_t &object : objects_)
            levels += object.list.empty() ? 1 : 2;
        return std::string(2 * levels, ' ');
    }
    void end_list()
    {
        if (objects_.back().list.empty())
            return;
        objects_.back().list.clear();
        text_ += "\n" + indent() + "]";
    }
    void begin_member(const item_t &item)
    {
        end_list();
        text_ += (objects_.back().has_members ? ",\n" : "\n") + indent() + json_name(item) + ": ";
        objects_.back().has_members = true;
    }
    void begin_entry(const item_t &item)
    {
        std::string name = json_name(item);
        bool is_next = objects_.back().list == name;
        if (!is_next) {
            begin_member(item);
            text_ += "[";
            objects_.back().list = name;
        }
        text_ += (is_next ? ",\n" : "\n") + indent() + "{";
        objects_.emplace_back();
        for (const item_t &key : key_leaves(item)) {
            begin_member(key);
            text_ += json_value(key.node, key.values.front());
        }
    }
    void add_array(const item_t &item)
    {
        text_ += "[";
        for (size_t i = 0; i < item.values.size(); i++)
            text_ += (i ? ", " : "") + json_value(item.node, item.values[i]);
        text_ += "]";
    }
    void end_object()
    {
        end_list();
        bool has_members = objects_.back().has_members;
        objects_.pop_back();
        text_ += (has_members ? "\n" + indent() : "") + "}";
    }
    bool flush()
    {
        std::string text;
        text.swap(text_);
        return output_.write(text);
    }

    output_t &output_;
    std::string text_ = "{"; // not yet written
    std::vector<object_t> objects_{ object_t{} };
};

std::string xml_text(std::string_view text)
{
    std::string out;
    for (char c : text)
        out += c == '<' ? "&lt;" : c == '>' ? "&gt;" : c == '&' ? "&amp;" : c == '"' ? "&quot;" : std::string(1, c);
    return out;
}

// A namespace is declared where it is not that of the element around, and where a value is the name of an identity.
std::string xml_attributes(const item_t &item, const std::string &value)
{
    std::string text;
    if (!item.node)
        return text;
    if (schema_json_name(item.node).find(':') != std::string::npos)
        text = " xmlns=\"" + xml_text(item.node->module->ns) + "\"";
    size_t colon = value.find(':');
    bool is_leaf = schema_is_leaf(item.node) || schema_is_leaf_list(item.node);
    if (!is_leaf || colon == value.npos || schema_value_type(item.node, value) != LY_TYPE_IDENT)
        return text;
    std::string module = value.substr(0, colon);
    const lys_module *found = ly_ctx_get_module_implemented(item.node->module->ctx, module.c_str());
    return found ? text + " xmlns:" + module + "=\"" + xml_text(found->ns) + "\"" : text;
}

class xml_renderer_t
{
public:
    explicit xml_renderer_t(output_t &output) : output_(output) {}

    bool take(const item_t &item)
    {
        std::string text;
        switch (item.kind) {
        case WIRE_WALK_CONTAINER:
        case WIRE_WALK_ENTRY:
            text = indent() + "<" + item.name + xml_attributes(item, "") + ">\n";
            names_.push_back(item.name);
            return output_.write(text + keys_of(item));
        case WIRE_WALK_LEAF:
        case WIRE_WALK_LEAF_LIST:
            for (const std::string &value : item.values)
                text += leaf(item, value);
            return output_.write(text);
        case WIRE_WALK_END:
            return names_.empty() || end_element();
        case WIRE_WALK_NOTE:
            return true;
        }
        return true;
    }
    bool end()
    {
        while (!names_.empty())
            if (!end_element())
                return false;
        return true;
    }

private:
    std::string indent() const { return std::string(2 * names_.size(), ' '); }
    std::string leaf(const item_t &item, const std::string &value) const
    {
        std::string open = indent() + "<" + item.name + xml_attributes(item, value);
        return value.empty() ? open + "/>\n" : open + ">" + xml_text(value) + "</" + item.name + ">\n";
    }
    std::string keys_of(const item_t &entry) const
    {
        std::string text;
        for (const item_t &key : key_leaves(entry))
            text += leaf(key, key.values.front());
        return text;
    }
    bool end_element()
    {
        std::string name = names_.back();
        names_.pop_back();
        return output_.write(indent() + "</" + name + ">\n");
    }

    output_t &output_;
    std::vector<std::string> names_; // elements that are open
};

} // namespace

renderer_t render_make_json(output_t &output)
{
    return render_of(std::make_shared<json_renderer_t>(output));
}

renderer_t render_make_xml(output_t &output)
{
    return render_of(std::make_shared<xml_renderer_t>(output));
}
