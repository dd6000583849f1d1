// Lists as tables: items gathered to rows. See render.h and table.h.
//
// Leaves of containers inside an entry are cells too, under "container/leaf"; lists inside an entry stand below its row
// as a tree. An entry that holds very much is written before its end, so that its memory is bounded.
#include "agent/cli/render.h"

#include "agent/cli/table.h"

#include <optional>

namespace
{

constexpr size_t ENTRY_LINES = 5000; // of the lists inside an entry that wait for its end

bool is_number(const lysc_node *leaf)
{
    if (!schema_is_leaf(leaf))
        return false;
    LY_DATA_TYPE type = reinterpret_cast<const lysc_node_leaf *>(leaf)->type->basetype;
    return type == LY_TYPE_DEC64 || (type >= LY_TYPE_UINT8 && type <= LY_TYPE_UINT64) ||
           (type >= LY_TYPE_INT8 && type <= LY_TYPE_INT64);
}

// What may become a column of the list, in the order of the models.
void add_column_names(const schema_t &schema, const lysc_node *parent, const std::string &prefix,
                      std::vector<std::string> &names)
{
    if (!parent)
        return;
    for (const lysc_node *child : schema_children(schema, parent)) {
        names.push_back(prefix + child->name);
        if (child->nodetype == LYS_CONTAINER)
            add_column_names(schema, child, names.back() + "/", names);
    }
}

class table_renderer_t
{
public:
    table_renderer_t(const schema_t &schema, output_t &output, const render_options_t &options)
        : schema_(schema), output_(output), options_(options), outer_(options.outer),
          tree_(render_make(schema, output, { format_t::TREE }))
    {
    }

    bool take(const item_t &item)
    {
        if (item.kind == WIRE_WALK_NOTE)
            return true;
        if (is_in_row_)
            return take_inside(item);
        bool is_row = item.kind == WIRE_WALK_ENTRY && outer_ == 0;
        bool is_next = is_row && table_ && item.name == list_name_;
        if (!is_next && !end_table())
            return false;
        if (!is_row)
            return take_around(item);
        return (is_next || begin_table(item)) && begin_row(item);
    }
    bool end() { return end_table(); }

private:
    bool take_around(const item_t &item)
    {
        bool opens = item.kind == WIRE_WALK_CONTAINER || item.kind == WIRE_WALK_ENTRY;
        outer_ -= opens && outer_ > 0;
        levels_ += opens;
        levels_ -= item.kind == WIRE_WALK_END && levels_ > 0;
        return tree_.take(item);
    }
    // Inside a tree the list's name stands above the table.
    bool begin_table(const item_t &item)
    {
        list_name_ = item.name;
        bool has_title = levels_ > 0 || options_.has_titles;
        size_t indent = has_title ? 2 * (levels_ + 1) : 0;
        table_.emplace(output_, indent, options_.width, item.values.size());
        std::vector<std::string> names;
        add_column_names(schema_, item.node, "", names);
        table_->set_order(std::move(names));
        return !has_title || tree_.take({ WIRE_WALK_LEAF, item.name, {}, nullptr, "" });
    }
    bool end_table()
    {
        bool ok = !table_ || table_->flush();
        table_.reset();
        return ok;
    }

    bool begin_row(const item_t &item)
    {
        is_in_row_ = true;
        is_row_out_ = false;
        row_ = {};
        std::vector<std::string> names = item_key_names(item);
        std::vector<const lysc_node *> nodes = schema_keys(item.node);
        for (size_t i = 0; i < item.values.size(); i++)
            row_.cells.push_back({ names[i], item.values[i], i < nodes.size() && is_number(nodes[i]) });
        return true;
    }
    bool take_inside(const item_t &item)
    {
        if (nested_depth_ > 0 || item.kind == WIRE_WALK_ENTRY)
            return take_nested(item);
        if (item.kind == WIRE_WALK_END && prefixes_.empty())
            return end_row();
        if (item.kind == WIRE_WALK_END) {
            prefixes_.pop_back();
        } else if (item.kind == WIRE_WALK_CONTAINER) {
            if (schema_is_presence(item.node))
                add_cell(item.name, "yes", false);
            prefixes_.push_back(prefix() + item.name + "/");
        } else {
            add_leaf(item);
        }
        return true;
    }
    std::string prefix() const { return prefixes_.empty() ? "" : prefixes_.back(); }
    void add_leaf(const item_t &item)
    {
        std::string text;
        for (const std::string &value : item.values)
            text += (text.empty() ? "" : " ") + value;
        if (item.node && schema_is_empty_leaf(item.node))
            text = "yes";
        add_cell(item.name, text, is_number(item.node));
    }
    void add_cell(const std::string &name, const std::string &text, bool is_numeric)
    {
        if (is_row_out_)
            row_.below.push_back(prefix() + name + " " + cli_quote_word(text) + "\n");
        else
            row_.cells.push_back({ prefix() + name, text, is_numeric });
    }

    bool take_nested(const item_t &item)
    {
        if (nested_depth_ == 0) {
            nested_output_.emplace(row_.below);
            nested_ = render_make(schema_, *nested_output_, { format_t::TREE });
        }
        bool opens = item.kind == WIRE_WALK_CONTAINER || item.kind == WIRE_WALK_ENTRY;
        item_t shown = item;
        if (nested_depth_ == 0 && !prefixes_.empty()) {
            shown.name = prefix() + item.name;
            shown.node = nullptr; // the name is no longer the node's
        }
        (void)nested_.take(shown); // its output keeps all that comes
        nested_depth_ += opens;
        nested_depth_ -= item.kind == WIRE_WALK_END;
        return row_.below.size() < ENTRY_LINES || write_early();
    }
    bool write_early()
    {
        row_t row;
        std::swap(row, row_);
        bool ok = is_row_out_ ? table_->write_below(row.below) : table_->add(std::move(row)) && table_->flush();
        is_row_out_ = true;
        return ok;
    }
    bool end_row()
    {
        is_in_row_ = false;
        return is_row_out_ ? table_->write_below(row_.below) : table_->add(std::move(row_));
    }

    const schema_t &schema_;
    output_t &output_;
    render_options_t options_;
    size_t outer_;      // entries and containers to come that are no rows
    renderer_t tree_;   // of what is around
    size_t levels_ = 0; // of it that are open
    std::optional<table_t> table_;
    std::string list_name_;
    bool is_in_row_ = false;
    bool is_row_out_ = false; // the entry was written before its end
    row_t row_;
    std::vector<std::string> prefixes_; // of the containers that are open in the row
    std::optional<output_t> nested_output_;
    renderer_t nested_; // of the list in the row that is open
    size_t nested_depth_ = 0;
};

} // namespace

renderer_t render_make_table(const schema_t &schema, output_t &output, const render_options_t &options)
{
    return render_of(std::make_shared<table_renderer_t>(schema, output, options));
}
