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
    words_view words; // those that are finished
    std::string_view partial;
    completion_t result;

    void offer(std::string text, std::string help, bool is_placeholder = false)
    {
        for (const choice_t &choice : result.choices)
            if (choice.text == text)
                return;
        if (is_placeholder || text.starts_with(partial))
            result.choices.push_back({ std::move(text), std::move(help), is_placeholder });
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
    return args == args_t::DATA_PATH || schema_is_config(node);
}

void offer_children(query_t &query, args_t args, const lysc_node *parent)
{
    for (const lysc_node *child : schema_children(query.schema, parent))
        if (is_offered(args, child) && !lysc_is_key(child))
            query.offer(child->name, schema_help(child));
}

// Keys that exist, where those before are the ones typed; then what else a key may be.
void offer_keys(query_t &query, const path_t &list)
{
    std::vector<const lysc_node *> keys = schema_keys(list.node);
    if (list.keys_taken >= keys.size())
        return;
    const lysc_node *key = keys[list.keys_taken];
    words_view before = query.words.last(list.keys_taken);
    if (query.source.entries)
        for (const std::vector<std::string> &entry : query.source.entries(query.source.data, list)) {
            bool fits = entry.size() == keys.size();
            for (size_t i = 0; fits && i < before.size(); i++)
                fits = entry[i] == before[i].text;
            if (fits)
                query.offer(cli_quote_word(entry[list.keys_taken]), "");
        }
    for (const choice_t &choice : schema_values(key))
        query.offer(choice.text, choice.help, choice.is_placeholder);
}

void offer_path(query_t &query, args_t args, words_view words)
{
    path_t path = args == args_t::DATA_PATH ? path_t{} : query.place;
    size_t used = 0;
    cli_error_t error;
    bool ok = path_walk(query.schema, words, path, used, error);
    bool is_key_missing = schema_is_list(path.node) && (path.is_whole_list || (!ok && error.column == CLI_NO_COLUMN));
    if (is_key_missing)
        return offer_keys(query, path);
    if (!ok)
        return;
    if (!schema_is_leaf(path.node) && !schema_is_leaf_list(path.node))
        return offer_children(query, args, path.node);
    bool takes_more = used == words.size() || schema_is_leaf_list(path.node);
    if (args == args_t::SETTING && takes_more && !schema_is_empty_leaf(path.node))
        for (const choice_t &choice : schema_values(path.node))
            query.offer(choice.text, choice.help, choice.is_placeholder);
}

void offer_pipe(query_t &query, words_view behind)
{
    if (behind.empty())
        query.offer("display", "show it in another format");
    if (behind.size() == 1 && behind[0].text == "display") {
        query.offer("tree", "indented");
        query.offer("set", "commands that make it");
        query.offer("json", "JSON");
        query.offer("xml", "XML");
    }
}

void offer_arguments(query_t &query, const command_t &command, words_view args)
{
    auto pipe =
        std::find_if(args.begin(), args.end(), [](const word_t &word) { return word.text == "|" && !word.is_quoted; });
    if (pipe != args.end())
        return offer_pipe(query, args.subspan(static_cast<size_t>(pipe - args.begin()) + 1));
    if (command.args == args_t::FILE_NAME && args.empty())
        query.offer("<FILE>", "a file of commands, or an .xml document", true);
    else if (command.args != args_t::NONE && command.args != args_t::FILE_NAME)
        offer_path(query, command.args, args);
    if (command.can_pipe && query.partial.empty())
        query.offer("|", "show it in another format");
}

} // namespace

completion_t cli_complete(const schema_t &schema, uint8_t mode, const path_t &place, const complete_source_t &source,
                          std::string_view line)
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
    query_t query = { schema, mode, place, source, words, partial.text, {} };
    query.result.typed = line.size() - partial.column;
    size_t name_words = 0;
    const command_t *command = shell_find_command(mode, words, name_words);
    if (!command || name_words == words.size())
        offer_command_words(query);
    if (command)
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
