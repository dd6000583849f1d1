// Actions and rpcs of the models as commands: `PATH ACTION [PARAMETER [VALUE]]...`.
#include "agent/cli/commands.h"
#include "agent/cli/json_read.h"

#include <algorithm>

namespace
{

bool fail_missing(const lysc_node *leaf, cli_error_t &error)
{
    return cli_fail(error, "a value for '" + std::string(leaf->name) + "' is missing: " + schema_rule(leaf));
}

// The parameters of an action as items, read from words.
struct parameters_t {
    shell_t &shell;
    words_view words;
    size_t used = 0;
    std::vector<item_t> items;

    // Takes members of the parent until a word is none of them.
    bool take_members(const lysc_node *parent, cli_error_t &error)
    {
        std::vector<std::string> taken;
        std::vector<const lysc_node *> nodes = schema_children(shell.schema, parent);
        while (used < words.size()) {
            const lysc_node *node = schema_find_in(nodes, words[used].text);
            if (!node)
                return true;
            bool is_again = std::find(taken.begin(), taken.end(), node->name) != taken.end();
            if (is_again && !(node->nodetype & (LYS_LIST | LYS_LEAFLIST)))
                return cli_fail(error, "'" + words[used].text + "' is given twice", words[used].column);
            taken.emplace_back(node->name);
            used++;
            if (!take_member(node, error))
                return false;
        }
        return true;
    }

private:
    bool take_member(const lysc_node *node, cli_error_t &error)
    {
        if (schema_is_leaf(node) || schema_is_leaf_list(node))
            return take_leaf(node, error);
        item_t item = { schema_is_list(node) ? WIRE_WALK_ENTRY : WIRE_WALK_CONTAINER, node->name, {}, node, "" };
        for (const lysc_node *key : schema_keys(node)) {
            std::string value;
            if (!take_value(key, value, error))
                return false;
            item.values.push_back(value);
        }
        items.push_back(std::move(item));
        if (!take_members(node, error))
            return false;
        items.push_back({});
        return true;
    }
    bool take_leaf(const lysc_node *node, cli_error_t &error)
    {
        std::string value;
        if (!schema_is_empty_leaf(node) && !take_value(node, value, error))
            return false;
        auto same = std::find_if(items.begin(), items.end(), [&](const item_t &item) {
            return item.node == node && item.kind == WIRE_WALK_LEAF_LIST;
        });
        if (same != items.end())
            same->values.push_back(value);
        else
            items.push_back(
                { schema_is_leaf(node) ? WIRE_WALK_LEAF : WIRE_WALK_LEAF_LIST, node->name, { value }, node, "" });
        return true;
    }
    bool take_value(const lysc_node *leaf, std::string &value, cli_error_t &error)
    {
        if (used == words.size() && schema_is_secret(leaf) && shell.ask_secret) {
            if (!shell.ask_secret(shell.screen.data, leaf->name, value))
                return cli_fail(error, "nothing was typed for '" + std::string(leaf->name) + "'");
        } else if (used == words.size()) {
            return fail_missing(leaf, error);
        } else {
            value = words[used++].text;
        }
        std::string rule;
        bool is_good = schema_check_value(leaf, value, rule);
        bool is_shown = !schema_is_secret(leaf);
        return is_good ||
               cli_fail(error,
                        "bad value" + (is_shown ? " '" + value + "'" : "") + " for '" + leaf->name + "': " + rule,
                        words[used - 1].column);
    }
};

bool check_mandatory(const schema_t &schema, const lysc_node *input, const std::vector<item_t> &items,
                     cli_error_t &error)
{
    for (const lysc_node *child : schema_children(schema, input)) {
        bool is_given = std::any_of(items.begin(), items.end(), [&](const item_t &item) { return item.node == child; });
        bool is_alone = child->parent == input; // not one of a choice
        if (schema_is_leaf(child) && (child->flags & LYS_MAND_TRUE) && is_alone && !is_given)
            return cli_fail(error, "'" + std::string(child->name) + "' is missing: " + schema_rule(child));
    }
    return true;
}

bool fail_unknown_parameter(const schema_t &schema, const lysc_node *action, const word_t &word, cli_error_t &error)
{
    std::vector<std::string> names;
    for (const lysc_node *child : schema_children(schema, schema_input(action)))
        names.emplace_back(child->name);
    return cli_fail(error,
                    "'" + std::string(action->name) + "' has no parameter '" + word.text + "'" +
                        cli_did_you_mean(word.text, names),
                    word.column);
}

std::string json_of(const schema_t &schema, const std::vector<item_t> &items)
{
    std::vector<std::string> lines;
    output_t output(lines);
    renderer_t renderer = render_make(schema, output, { format_t::JSON });
    for (const item_t &item : items)
        (void)renderer.take(item); // the lines keep all that comes
    (void)renderer.end();
    output.end();
    std::string text;
    for (const std::string &line : lines)
        text += line;
    return text;
}

} // namespace

bool run_action(shell_t &shell, words_view args, cli_error_t &error)
{
    path_t path;
    const lysc_node *action = nullptr;
    size_t used = 0;
    if (!path_walk_action(shell.schema, args, path, action, used, error))
        return false;
    if (!action)
        return cli_fail(error, "which action? '?' shows those at " + path_place(path));
    parameters_t parameters = { shell, args.subspan(used), 0, {} };
    if (!parameters.take_members(schema_input(action), error))
        return false;
    if (parameters.used < parameters.words.size())
        return fail_unknown_parameter(shell.schema, action, parameters.words[parameters.used], error);
    if (!check_mandatory(shell.schema, schema_input(action), parameters.items, error))
        return false;
    std::string input = parameters.items.empty() ? "" : json_of(shell.schema, parameters.items);
    std::string document;
    std::vector<item_t> items;
    shell.wait.interrupt_note = "interrupted; waiting for the action to end";
    bool ok = session_action(shell.session, path.text, input, document, error);
    shell_clear_status(shell);
    json_place_t place = { &shell.schema, schema_children(shell.schema, schema_output(action)) };
    if (!ok || !json_read_items(place, document, items, error))
        return false;
    shell_show_items(shell, items, {});
    return true;
}
