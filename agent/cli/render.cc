// Rendering of data trees. See render.h.
#include "agent/cli/render.h"

#include <cstdlib>

namespace
{

std::string value_of(const lyd_node *node)
{
    const char *value = lyd_get_value(node);
    return value ? cli_quote_word(value) : "";
}

bool is_key(const lyd_node *node)
{
    return node->schema && lysc_is_key(node->schema);
}

// " KEY KEY" of a list entry.
std::string keys_of(const lyd_node *node)
{
    std::string keys;
    for (const lyd_node *child = lyd_child(node); child && is_key(child); child = child->next)
        keys += " " + value_of(child);
    return keys;
}

// The values of a leaf-list from its first instance on; node becomes the last one.
std::string values_of(const lyd_node *&node)
{
    std::string values = " " + value_of(node);
    while (node->next && node->next->schema == node->schema) {
        node = node->next;
        values += " " + value_of(node);
    }
    return values;
}

bool has_content(const lyd_node *node)
{
    const lyd_node *child = lyd_child_no_keys(node);
    for (; child; child = child->next)
        if (!schema_is_leaf(child->schema) && child->schema->nodetype == LYS_CONTAINER &&
            !schema_is_presence(child->schema) && !has_content(child))
            continue;
        else
            return true;
    return false;
}

// The one line of a node that has no lines below it: a leaf with its value, a leaf-list with all of them.
std::string leaf_line(const lyd_node *&node)
{
    std::string line = node->schema->name;
    if (schema_is_leaf_list(node->schema))
        return line + values_of(node);
    return schema_is_empty_leaf(node->schema) ? line : line + " " + value_of(node);
}

bool is_term(const lyd_node *node)
{
    return (node->schema->nodetype & (LYS_LEAF | LYS_LEAFLIST)) != 0;
}

bool is_shown_alone(const lyd_node *node)
{
    return schema_is_list(node->schema) || schema_is_presence(node->schema);
}

void render_tree(const lyd_node *node, size_t level, std::string &out)
{
    for (; node; node = node->next) {
        if (!node->schema || is_key(node))
            continue;
        if (is_term(node)) {
            out += std::string(2 * level, ' ') + leaf_line(node) + "\n";
        } else if (is_shown_alone(node) || has_content(node)) {
            out += std::string(2 * level, ' ') + node->schema->name + keys_of(node) + "\n";
            render_tree(lyd_child(node), level + 1, out);
        }
    }
}

void render_set(const lyd_node *node, const std::string &above, std::string &out)
{
    for (; node; node = node->next) {
        if (!node->schema || is_key(node))
            continue;
        if (is_term(node)) {
            out += "set " + above + leaf_line(node) + "\n";
            continue;
        }
        std::string here = above + node->schema->name + keys_of(node);
        if (is_shown_alone(node) && !has_content(node))
            out += "set " + here + "\n";
        render_set(lyd_child(node), here + " ", out);
    }
}

struct malloc_freer {
    void operator()(char *text) const { free(text); }
};

std::string print(const lyd_node *tree, LYD_FORMAT format)
{
    char *raw = nullptr;
    if (lyd_print_mem(&raw, tree, format, LYD_PRINT_WITHSIBLINGS) != LY_SUCCESS)
        return "";
    std::unique_ptr<char, malloc_freer> text(raw);
    return text.get();
}

} // namespace

bool render_read(const schema_t &schema, const std::string &document, lyd_ptr &tree, cli_error_t &error)
{
    tree.reset();
    if (document.find_first_not_of(" \t\r\n") == document.npos)
        return true;
    lyd_node *raw = nullptr;
    LY_ERR rc = lyd_parse_data_mem(schema.ctx.get(), document.c_str(), LYD_JSON, LYD_PARSE_ONLY, 0, &raw);
    if (rc != LY_SUCCESS) {
        const ly_err_item *item = ly_err_first(schema.ctx.get());
        std::string reason = item && item->prev->msg ? item->prev->msg : "no reason given";
        ly_err_clean(schema.ctx.get(), nullptr);
        return cli_fail(error, "the agent's data do not fit the data models here: " + reason);
    }
    tree.reset(raw);
    return true;
}

std::string render(const lyd_node *tree, format_t format)
{
    std::string out;
    if (!tree)
        return format == format_t::JSON ? "{}\n" : "";
    switch (format) {
    case format_t::TREE:
        render_tree(tree, 0, out);
        break;
    case format_t::SET:
        render_set(tree, "", out);
        break;
    case format_t::JSON:
        return print(tree, LYD_JSON);
    case format_t::XML:
        return print(tree, LYD_XML);
    }
    return out;
}
