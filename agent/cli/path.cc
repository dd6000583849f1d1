// Resolution of typed paths against the data models. See path.h.
#include "agent/cli/path.h"

#include "agent/wire/wire.h"

#include <algorithm>

namespace
{

std::vector<std::string> names_of(const std::vector<const lysc_node *> &nodes)
{
    std::vector<std::string> names;
    for (const lysc_node *node : nodes)
        names.emplace_back(node->name);
    return names;
}

bool fail_unknown(const char *what, const path_t &path, const std::vector<std::string> &names, const word_t &word,
                  cli_error_t &error)
{
    std::string text = std::string("unknown ") + what + " '" + word.text + "' ";
    text += path.node ? "below '" + std::string(path.node->name) + "'" : "at the top";
    return cli_fail(error, text + cli_did_you_mean(word.text, names), word.column);
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
        path.steps.back().keys.push_back(word.text);
        path.keys_taken++;
    }
    path.text += "{" + keys + "}";
    path.steps.back().text_size = path.text.size();
    path.entries.push_back(path.text);
    return true;
}

// Goes on to a child, whose name is words[used - 1], with the keys of an entry.
bool enter(const lysc_node *child, words_view words, path_t &path, size_t &used, cli_error_t &error)
{
    const std::string &name = words[used - 1].text;
    path.node = child;
    path.text += "/" + name;
    path.words.push_back(name);
    path.steps.push_back({ child, {}, path.text.size() });
    return !schema_is_list(child) || take_keys(words, path, used, error);
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
            return fail_unknown("element", path, names_of(schema_children(schema, path.node)), word, error);
        if (!enter(child, words, path, used, error))
            return false;
    }
    return true;
}

bool path_walk_action(const schema_t &schema, words_view words, path_t &path, const lysc_node *&action, size_t &used,
                      cli_error_t &error)
{
    used = 0;
    action = nullptr;
    while (used < words.size() && !path.is_whole_list) {
        const word_t &word = words[used++];
        action = schema_find_in(schema_actions(schema, path.node), word.text);
        if (action) {
            path.text += "/" + word.text;
            return true;
        }
        const lysc_node *child = schema_find_child(schema, path.node, word.text);
        if (!child || !schema_leads_to_action(child)) {
            std::vector<std::string> names = names_of(schema_actions(schema, path.node));
            for (const lysc_node *other : schema_children(schema, path.node))
                if (schema_leads_to_action(other))
                    names.emplace_back(other->name);
            return fail_unknown("action", path, names, word, error);
        }
        if (!enter(child, words, path, used, error))
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

namespace
{

// A blank or a sign of the sentence; a colon may also stand in a name.
bool ends_path(const std::string &text, size_t at)
{
    bool is_last = at + 1 == text.size() || text[at + 1] == ' ';
    return text[at] == ' ' || (is_last && std::string_view(":,;").find(text[at]) != std::string_view::npos);
}

} // namespace

std::string path_words_in(const std::string &text)
{
    bool is_quoted = false;
    bool is_key = false;
    size_t end = 0;
    for (; end < text.size(); end++) {
        char c = text[end];
        if (is_quoted && c == '\\')
            end++;
        else if (is_key && c == '"')
            is_quoted = !is_quoted;
        else if (!is_quoted && (c == '{' || c == '}'))
            is_key = c == '{';
        else if (!is_key && ends_path(text, end))
            break;
    }
    end = std::min(end, text.size());
    bool has_path = text.starts_with('/') && end > 1;
    return has_path ? "'" + path_words_of(text.substr(0, end)) + "'" + text.substr(end) : text;
}
