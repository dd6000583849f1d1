// Trees and commands. See render.h; documents are in render_document.cc, tables in render_table.cc.
#include "agent/cli/render.h"

#include <algorithm>

namespace
{

std::string words_of(const std::vector<std::string> &values)
{
    std::string text;
    for (const std::string &value : values)
        text += " " + cli_quote_word(value);
    return text;
}

// " VALUE..." behind a name; an empty leaf has none.
std::string values_of(const item_t &item)
{
    return item.node && schema_is_empty_leaf(item.node) ? "" : words_of(item.values);
}

// A container is written when something in it is: until then its line waits.
class tree_renderer_t
{
public:
    tree_renderer_t(const schema_t &schema, output_t &output) : schema_(schema), output_(output) {}

    bool take(const item_t &item)
    {
        switch (item.kind) {
        case WIRE_WALK_CONTAINER:
            waiting_.push_back(line(item, ""));
            return !schema_is_presence(item.node) || write_waiting();
        case WIRE_WALK_ENTRY:
            waiting_.push_back(line(item, words_of(item.values)));
            return write_waiting();
        case WIRE_WALK_LEAF:
        case WIRE_WALK_LEAF_LIST:
            return write_waiting() && output_.write(line(item, values_of(item)));
        case WIRE_WALK_END:
            if (!waiting_.empty())
                waiting_.pop_back();
            written_ = std::min(written_, waiting_.size());
            return true;
        case WIRE_WALK_NOTE:
            return true;
        }
        return true;
    }

    static bool end() { return true; }

private:
    std::string line(const item_t &item, const std::string &behind) const
    {
        return std::string(2 * waiting_.size(), ' ') + item_typed_name(schema_, item) + behind + "\n";
    }
    bool write_waiting()
    {
        while (written_ < waiting_.size())
            if (!output_.write(waiting_[written_++]))
                return false;
        return true;
    }

    const schema_t &schema_;
    output_t &output_;
    std::vector<std::string> waiting_; // lines of the nodes around, outermost first
    size_t written_ = 0;               // how many of them have been written
};

// A command stands for each leaf, and for what holds none.
class set_renderer_t
{
public:
    set_renderer_t(const schema_t &schema, output_t &output) : schema_(schema), output_(output) {}

    bool take(const item_t &item)
    {
        bool is_settable = !item.node || schema_is_config(item.node);
        switch (item.kind) {
        case WIRE_WALK_CONTAINER:
        case WIRE_WALK_ENTRY:
            around_.push_back({ prefix() + item_typed_name(schema_, item) + words_of(item.values),
                                is_settable && (item.kind == WIRE_WALK_ENTRY || schema_is_presence(item.node)) });
            return true;
        case WIRE_WALK_LEAF:
        case WIRE_WALK_LEAF_LIST:
            if (!is_settable)
                return true;
            note_content();
            return output_.write("set " + prefix() + item_typed_name(schema_, item) + values_of(item) + "\n");
        case WIRE_WALK_END:
            return end_of_node();
        case WIRE_WALK_NOTE:
            return true;
        }
        return true;
    }

    static bool end() { return true; }

private:
    struct level_t {
        std::string path;
        bool needs_command; // nothing written yet makes it
    };

    std::string prefix() const { return around_.empty() ? "" : around_.back().path + " "; }
    void note_content()
    {
        for (level_t &level : around_)
            level.needs_command = false;
    }
    bool end_of_node()
    {
        if (around_.empty())
            return true;
        level_t level = around_.back();
        around_.pop_back();
        if (!level.needs_command)
            return true;
        note_content();
        return output_.write("set " + level.path + "\n");
    }

    const schema_t &schema_;
    output_t &output_;
    std::vector<level_t> around_;
};

} // namespace

renderer_t render_make(const schema_t &schema, output_t &output, const render_options_t &options)
{
    switch (options.format) {
    case format_t::TREE:
        break;
    case format_t::TABLE:
        return render_make_table(schema, output, options);
    case format_t::SET:
        return render_of(std::make_shared<set_renderer_t>(schema, output));
    case format_t::JSON:
        return render_make_json(output);
    case format_t::XML:
        return render_make_xml(output);
    }
    return render_of(std::make_shared<tree_renderer_t>(schema, output));
}
