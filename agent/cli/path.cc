// Resolution of typed paths against the data models. See path.h.
#include "agent/cli/path.h"

#include "agent/wire/wire.h"

#include <algorithm>

namespace
{

std::vector<std::string> names_below(const schema_t &schema, const lysc_node *parent)
{
    std::vector<std::string> names;
    for (const lysc_node *child : schema_children(schema, parent))
        names.emplace_back(child->name);
    return names;
}

bool fail_unknown(const schema_t &schema, const path_t &path, const word_t &word, cli_error_t &error)
{
    std::string text = "unknown element '" + word.text + "' ";
    text += path.node ? "below '" + std::string(path.node->name) + "'" : "at the top";
    return cli_fail(error, text + cli_did_you_mean(word.text, names_below(schema, path.node)), word.column);
}

// Takes the keys of the list that path stands at. None given: the whole list.
bool take_keys(words_view words, path_t &path, size_t &used, cli_error_t &error)
{
    path.is_whole_list = used == words.size();
    path.keys_taken = 0;
    if (path.is_whole_list)
        return true;
    std::string keys;
    for (const lysc_node *key : schema_keys(path.node)) {
        if (used == words.size())
            return cli_fail(error, "'" + std::string(key->name) + "' of '" + path.node->name +
                                       "' is missing: " + schema_rule(key));
        const word_t &word = words[used++];
        std::string rule;
        if (!schema_check_value(key, word.text, rule))
            return cli_fail(
                error, "bad value '" + word.text + "' for '" + key->name + "' of '" + path.node->name + "': " + rule,
                word.column);
        keys += (keys.empty() ? "" : " ") + wire_quote_key(word.text);
        path.words.push_back(word.text);
        path.keys_taken++;
    }
    path.text += "{" + keys + "}";
    path.entries.push_back(path.text);
    return true;
}

bool is_end(const path_t &path)
{
    return schema_is_leaf(path.node) || schema_is_leaf_list(path.node) || path.is_whole_list;
}

} // namespace

bool path_walk(const schema_t &schema, words_view words, path_t &path, size_t &used, cli_error_t &error)
{
    used = 0;
    while (used < words.size() && !is_end(path)) {
        const word_t &word = words[used++];
        const lysc_node *child = schema_find_child(schema, path.node, word.text);
        if (!child)
            return fail_unknown(schema, path, word, error);
        path.node = child;
        path.text += "/" + word.text;
        path.words.push_back(word.text);
        if (schema_is_list(child) && !take_keys(words, path, used, error))
            return false;
    }
    return true;
}

bool path_resolve(const schema_t &schema, words_view words, path_t &path, cli_error_t &error)
{
    size_t used = 0;
    if (!path_walk(schema, words, path, used, error))
        return false;
    if (used < words.size())
        return cli_fail(error, "unexpected '" + words[used].text + "' behind '" + path.node->name + "'",
                        words[used].column);
    return true;
}

std::string path_of_value(const path_t &leaf_list, const std::string &value)
{
    return leaf_list.text + "{" + wire_quote_key(value) + "}";
}

std::string path_place(const path_t &path)
{
    std::string text;
    for (const std::string &word : path.words)
        text += (text.empty() ? "" : " ") + cli_quote_word(word);
    return text.empty() ? "the top" : "'" + text + "'";
}

namespace
{

// Takes the keys from behind an opening brace on.
size_t words_of_keys(const std::string &path, size_t at, std::string &out)
{
    std::string word;
    bool is_quoted = false;
    auto end_word = [&] {
        if (!word.empty() || is_quoted)
            out += " " + cli_quote_word(word);
        word.clear();
        is_quoted = false;
    };
    for (bool is_open = false; at < path.size(); at++) {
        char c = path[at];
        if (c == '"') {
            is_open = !is_open;
            is_quoted = true;
        } else if (is_open && c == '\\' && at + 1 < path.size()) {
            word += path[++at];
        } else if (!is_open && c == '}') {
            break;
        } else if (!is_open && c == ' ') {
            end_word();
        } else {
            word += c;
        }
    }
    end_word();
    return at + 1;
}

} // namespace

std::string path_words_of(const std::string &agent_path)
{
    if (!agent_path.starts_with('/'))
        return agent_path;
    std::string out;
    size_t at = 1;
    while (at < agent_path.size()) {
        size_t end = std::min(agent_path.find_first_of("/{", at), agent_path.size());
        if (end > at)
            out += (out.empty() ? "" : " ") + agent_path.substr(at, end - at);
        at = end + 1;
        if (end < agent_path.size() && agent_path[end] == '{')
            at = words_of_keys(agent_path, at, out);
    }
    return out;
}
