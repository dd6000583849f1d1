// Completion from the table of commands, the data models and the entries that exist. See complete.h.
#include "agent/cli/complete.h"

#include "agent/cli/shell.h"

#include <algorithm>

namespace
{

struct query_t {
    const schema_t &schema;
    uint8_t mode;
    const path_t &place;
    const complete_source_t &source;
    char key;
    words_view words; // those that are finished
    std::string_view partial;
    completion_t result;

    void offer(std::string text, std::string help, bool is_placeholder = false)
    {
        for (const choice_t &choice : result.choices)
            if (choice.text == text && (!text.empty() || choice.help == help))
                return;
        if (is_placeholder || text.starts_with(partial))
            result.choices.push_back({ std::move(text), std::move(help), is_placeholder });
    }
    void offer(const std::vector<choice_t> &choices)
    {
        for (const choice_t &choice : choices)
            offer(choice.text, choice.help, choice.is_placeholder);
    }
};

// The next word of commands whose name begins with the finished words.
void offer_command_words(query_t &query)
{
    std::string typed;
    for (const word_t &word : query.words)
        typed += word.text + " ";
    for (const command_t &row : shell_commands()) {
        std::string name(row.name);
        if (!(row.modes & query.mode) || !name.starts_with(typed))
            continue;
        std::string next = name.substr(typed.size());
        query.offer(next.substr(0, next.find(' ')), row.help);
    }
}

bool is_offered(args_t args, const lysc_node *node)
{
    if (args == args_t::ACTION)
        return schema_leads_to_action(node);
    return args == args_t::DATA_PATH ? schema_leads_to_data(node) : schema_is_config(node);
}

void offer_children(query_t &query, args_t args, const lysc_node *parent)
{
    for (const lysc_node *child : schema_children(query.schema, parent))
        if (is_offered(args, child) && !lysc_is_key(child))
            query.offer(child->name, schema_help(child));
    if (args != args_t::ACTION)
        return;
    for (const lysc_node *action : schema_actions(query.schema, parent))
        query.offer(action->name, schema_help(action));
}

// Column `column` of the list's entries whose keys begin with those typed before.
void offer_entries(query_t &query, const path_t &list, size_t column, words_view before)
{
    if (!query.source.entries)
        return;
    for (const std::vector<std::string> &entry : query.source.entries(query.source.data, list)) {
        bool fits = entry.size() > column;
        for (size_t i = 0; fits && i < before.size(); i++)
            fits = entry[i] == before[i].text;
        if (fits)
            query.offer(cli_quote_word(entry[column]), "");
    }
}

// The list that the node is a key of, as seen from path: the entries around both are those of path.
bool find_list_of(const lysc_node *key, const path_t &path, path_t &list)
{
    std::vector<const lysc_node *> around;
    for (const lysc_node *node = lysc_data_parent(key); node; node = lysc_data_parent(node))
        around.insert(around.begin(), node);
    if (around.empty() || !lysc_is_key(key))
        return false;
    for (const lysc_node *node : around) {
        bool is_target = node == around.back();
        size_t depth = list.steps.size();
        path_step_t step = { node, {}, 0 };
        list.text += "/" + std::string(node->name);
        bool is_shared = depth < path.steps.size() && path.steps[depth].node == node;
        if (!is_target && schema_is_list(node) && !is_shared)
            return false; // of which entry is not known
        if (!is_target && is_shared) {
            step = path.steps[depth];
            list.text = path.text.substr(0, step.text_size);
        }
        list.steps.push_back(step);
    }
    list.node = around.back();
    list.is_whole_list = true;
    return true;
}

// What a leaf's value may be: what a program of the device says, what a reference may point to, and the type's rule.
void offer_values(query_t &query, const lysc_node *leaf, const path_t &path, const std::string &leaf_text)
{
    size_t before = query.result.choices.size();
    if (schema_is_empty_leaf(leaf))
        return;
    if (schema_has_completion(leaf) && query.source.words)
        query.offer(query.source.words(query.source.data, leaf_text, query.partial, query.key));
    path_t list;
    const lysc_node *referenced = schema_referenced(leaf);
    if (referenced && find_list_of(referenced, path, list)) {
        std::vector<const lysc_node *> keys = schema_keys(list.node);
        size_t column = static_cast<size_t>(std::find(keys.begin(), keys.end(), referenced) - keys.begin());
        offer_entries(query, list, column, {});
    }
    if (!schema_has_completion(leaf) || query.result.choices.size() == before)
        query.offer(schema_values(leaf));
}

// Keys that exist, where those before are the ones typed; then what else a key may be.
void offer_keys(query_t &query, const path_t &list, words_view words)
{
    std::vector<const lysc_node *> keys = schema_keys(list.node);
    if (list.keys_taken >= keys.size())
        return;
    const lysc_node *key = keys[list.keys_taken];
    offer_entries(query, list, list.keys_taken, words.last(list.keys_taken));
    offer_values(query, key, list, list.text + "/" + key->name);
}

bool is_key_missing(const path_t &path, bool ok, const cli_error_t &error)
{
    return schema_is_list(path.node) && (path.is_whole_list || (!ok && error.column == CLI_NO_COLUMN));
}

void offer_path(query_t &query, args_t args, words_view words)
{
    path_t path = args == args_t::DATA_PATH ? path_t{} : query.place;
    size_t used = 0;
    cli_error_t error;
    bool ok = path_walk(query.schema, words, path, used, error);
    if (is_key_missing(path, ok, error))
        return offer_keys(query, path, words);
    if (!ok) {
        query.result.problem = error.text;
        return;
    }
    bool is_leaf_list = schema_is_leaf_list(path.node);
    if (!schema_is_leaf(path.node) && !is_leaf_list)
        return offer_children(query, args, path.node);
    bool takes_value =
        args == args_t::SETTING || (args != args_t::DATA_PATH && args != args_t::CONFIG_PATH && is_leaf_list);
    if (takes_value && (used == words.size() || is_leaf_list))
        offer_values(query, path.node, path, path.text);
}

// Behind an entry of a list that has an order stands where it goes.
void offer_placing(query_t &query, words_view words)
{
    path_t path = query.place;
    size_t used = 0;
    cli_error_t error;
    bool ok = path_walk(query.schema, words, path, used, error);
    bool is_entry = schema_is_user_ordered(path.node) && !path.is_whole_list &&
                    (schema_is_list(path.node) || (ok && used + 1 == words.size()));
    if (!ok || !is_entry)
        return offer_path(query, args_t::PLACING, words);
    query.offer("first", "before all others");
    query.offer("last", "behind all others");
    query.offer("before", "before another");
    query.offer("after", "behind another");
}

// Parameters that were not given yet, or the value of the one that was named last.
void offer_parameters(query_t &query, const path_t &path, const lysc_node *action, words_view words)
{
    const lysc_node *at = schema_input(action);
    const lysc_node *leaf = nullptr;
    std::vector<const lysc_node *> given;
    for (const word_t &word : words) {
        if (leaf) {
            leaf = nullptr;
            continue;
        }
        const lysc_node *node = schema_find_child(query.schema, at, word.text);
        if (!node)
            return;
        given.push_back(node);
        if (node->nodetype & (LYS_CONTAINER | LYS_LIST))
            at = node;
        else if (!schema_is_empty_leaf(node))
            leaf = node;
    }
    if (leaf)
        return offer_values(query, leaf, path, path.text + "/" + leaf->name);
    for (const lysc_node *child : schema_children(query.schema, at))
        if (schema_is_leaf_list(child) || std::find(given.begin(), given.end(), child) == given.end())
            query.offer(child->name, schema_help(child) + (child->flags & LYS_MAND_TRUE ? " [mandatory]" : ""));
}

void offer_action(query_t &query, words_view words)
{
    path_t path;
    const lysc_node *action = nullptr;
    size_t used = 0;
    cli_error_t error;
    bool ok = path_walk_action(query.schema, words, path, action, used, error);
    if (is_key_missing(path, ok, error))
        return offer_keys(query, path, words);
    if (!ok)
        query.result.problem = error.text;
    if (action)
        offer_parameters(query, path, action, words.subspan(used));
    else if (ok)
        offer_children(query, args_t::ACTION, path.node);
}

void offer_stream(query_t &query, args_t args, words_view words)
{
    if (words.empty())
        query.offer("<NAME>", "name of the stream", true);
    if (args == args_t::PAST_STREAM && words.size() == 1)
        query.offer("last", "only the last minutes");
    if (args == args_t::PAST_STREAM && words.size() == 2)
        query.offer("<MINUTES>", "how far back", true);
}

void offer_by_kind(query_t &query, args_t kind, words_view args)
{
    switch (kind) {
    case args_t::NONE:
        return;
    case args_t::FILE_NAME:
        if (args.empty())
            query.offer("<FILE>", "a file of commands, or an .xml document", true);
        return;
    case args_t::STREAM:
    case args_t::PAST_STREAM:
        return offer_stream(query, kind, args);
    case args_t::ACTION:
        return offer_action(query, args);
    case args_t::PLACING:
        return offer_placing(query, args);
    case args_t::CONFIG_PATH:
    case args_t::DATA_PATH:
    case args_t::SETTING:
    case args_t::DELETION:
        return offer_path(query, kind, args);
    }
}

void offer_arguments(query_t &query, const command_t &command, words_view args)
{
    size_t pipe = pipe_place(args);
    if (pipe < args.size())
        return query.offer(pipe_choices(args.subspan(pipe + 1), command.pipes));
    offer_by_kind(query, command.args, args);
    if (command.pipes != PIPE_NONE && query.partial.empty() && query.result.problem.empty())
        query.offer("|", "filter it, or show it in another format", true);
}

// The path of an action is a command.
void offer_action_roots(query_t &query)
{
    if (query.words.empty())
        for (const lysc_node *node : schema_action_roots(query.schema))
            query.offer(node->name, schema_help(node));
}

} // namespace

completion_t cli_complete(const schema_t &schema, uint8_t mode, const path_t &place, const complete_source_t &source,
                          std::string_view line, char key)
{
    line_t read = cli_read_line(line);
    std::vector<word_t> words;
    if (!read.is_at_command)
        words = read.commands.back();
    word_t partial;
    partial.column = line.size();
    if (read.is_in_word && !words.empty()) {
        partial = words.back();
        words.pop_back();
    }
    query_t query = { schema, mode, place, source, key, words, partial.text, {} };
    query.result.typed = line.size() - partial.column;
    size_t name_words = 0;
    const command_t *command = shell_find_command(schema, mode, words, name_words);
    offer_command_words(query);
    offer_action_roots(query);
    bool is_longer_name = name_words < words.size() && !query.result.choices.empty();
    if (command && !is_longer_name)
        offer_arguments(query, *command, query.words.subspan(name_words));
    return std::move(query.result);
}

std::string cli_common_prefix(const std::vector<choice_t> &choices)
{
    const std::string *first = nullptr;
    size_t size = 0;
    for (const choice_t &choice : choices) {
        if (choice.is_placeholder)
            continue;
        if (!first) {
            first = &choice.text;
            size = first->size();
        }
        size_t same = 0;
        while (same < size && same < choice.text.size() && choice.text[same] == (*first)[same])
            same++;
        size = same;
    }
    return first ? first->substr(0, size) : "";
}
