// The commands of configuration mode.
#include "agent/cli/commands.h"

namespace
{

void say(const shell_t &shell, const char *text)
{
    fprintf(shell.out, "%s\n", text);
}

// The place that words name, and what of them is left as values.
bool walk_config(shell_t &shell, words_view words, path_t &path, words_view &values, cli_error_t &error)
{
    path = shell.place;
    size_t used = 0;
    if (words.empty() && !path.node)
        return cli_fail(error, "a path is missing");
    if (!path_walk(shell.schema, words, path, used, error))
        return false;
    if (!schema_is_config(path.node))
        return cli_fail(error, "'" + std::string(path.node->name) + "' is operational data, not configuration",
                        words[used - 1].column);
    values = words.subspan(used);
    return true;
}

bool fail_unexpected(const path_t &path, const word_t &word, cli_error_t &error)
{
    return cli_fail(error, "unexpected '" + word.text + "' behind '" + path.node->name + "'", word.column);
}

bool check_values(const path_t &path, words_view values, cli_error_t &error)
{
    for (const word_t &value : values) {
        std::string rule;
        if (!schema_check_value(path.node, value.text, rule))
            return cli_fail(error, "bad value '" + value.text + "' for '" + path.node->name + "': " + rule,
                            value.column);
    }
    return true;
}

bool set_leaf(shell_t &shell, const path_t &path, words_view values, cli_error_t &error)
{
    if (schema_is_empty_leaf(path.node))
        return values.empty() ? session_create(shell.session, path.text, error)
                              : fail_unexpected(path, values.front(), error);
    if (values.empty())
        return cli_fail(error,
                        "a value for '" + std::string(path.node->name) + "' is missing: " + schema_rule(path.node));
    if (values.size() > 1)
        return fail_unexpected(path, values[1], error);
    return check_values(path, values, error) && session_set(shell.session, path.text, values.front().text, error);
}

using value_call_t = bool (*)(session_t &session, const std::string &path, cli_error_t &error);

// Creates or deletes single values of a leaf-list.
bool for_each_value(shell_t &shell, const path_t &path, words_view values, value_call_t call, cli_error_t &error)
{
    if (!check_values(path, values, error))
        return false;
    for (const word_t &value : values)
        if (!call(shell.session, path_of_value(path, value.text), error))
            return false;
    return true;
}

bool set_entry(shell_t &shell, const path_t &path, cli_error_t &error)
{
    if (path.is_whole_list)
        return cli_fail(error, "'" + std::string(schema_keys(path.node).front()->name) + "' of '" + path.node->name +
                                   "' is missing: " + schema_rule(schema_keys(path.node).front()));
    if (!schema_is_list(path.node) && !schema_is_presence(path.node))
        return cli_fail(error, "'" + std::string(path.node->name) + "' has no value of its own; name a leaf below it");
    return session_create(shell.session, path.text, error);
}

// Does what a `set` asks for; entries above that do not exist yet come into being with it.
template <typename Action>
bool with_entries_above(shell_t &shell, const path_t &path, cli_error_t &error, Action action)
{
    if (action())
        return true;
    if (error.status != CONFD_ERR_NOEXISTS || path.entries.empty())
        return false;
    for (const std::string &entry : path.entries)
        if (!session_create(shell.session, entry, error))
            return false;
    return action();
}

bool apply_setting(shell_t &shell, const path_t &path, words_view values, cli_error_t &error)
{
    if (schema_is_leaf(path.node))
        return set_leaf(shell, path, values, error);
    if (!schema_is_leaf_list(path.node))
        return set_entry(shell, path, error);
    if (values.empty())
        return cli_fail(error,
                        "a value for '" + std::string(path.node->name) + "' is missing: " + schema_rule(path.node));
    return for_each_value(shell, path, values, session_create, error);
}

} // namespace

bool run_configure(shell_t &shell, words_view, cli_error_t &error)
{
    return shell_configure(shell, error);
}

bool run_set(shell_t &shell, words_view args, cli_error_t &error)
{
    path_t path;
    words_view values;
    return walk_config(shell, args, path, values, error) &&
           with_entries_above(shell, path, error, [&] { return apply_setting(shell, path, values, error); });
}

bool run_delete(shell_t &shell, words_view args, cli_error_t &error)
{
    path_t path;
    words_view values;
    if (args.empty())
        return cli_fail(error, "delete what? give a path");
    if (!walk_config(shell, args, path, values, error))
        return false;
    if (schema_is_leaf_list(path.node) && !values.empty())
        return for_each_value(shell, path, values, session_delete, error);
    if (!values.empty())
        return fail_unexpected(path, values.front(), error);
    return session_delete(shell.session, path.text, error);
}

bool run_edit(shell_t &shell, words_view args, cli_error_t &error)
{
    path_t path;
    words_view values;
    if (!walk_config(shell, args, path, values, error))
        return false;
    if (!values.empty())
        return fail_unexpected(path, values.front(), error);
    if (schema_is_leaf(path.node) || schema_is_leaf_list(path.node))
        return cli_fail(error, "'" + std::string(path.node->name) + "' has nothing below it", args.back().column);
    if (path.is_whole_list)
        return set_entry(shell, path, error); // says which key is missing
    shell.place = path;
    return true;
}

bool run_up(shell_t &shell, words_view, cli_error_t &error)
{
    if (!shell.place.node)
        return cli_fail(error, "this is the top");
    size_t dropped = 1 + schema_keys(shell.place.node).size();
    std::vector<word_t> words;
    for (size_t i = 0; i + dropped < shell.place.words.size(); i++)
        words.push_back({ shell.place.words[i], 0, true });
    path_t above;
    if (!path_resolve(shell.schema, words, above, error))
        return false;
    shell.place = above;
    return true;
}

bool run_top(shell_t &shell, words_view, cli_error_t &)
{
    shell.place = {};
    return true;
}

bool run_commit(shell_t &shell, words_view, cli_error_t &error)
{
    size_t count = 0;
    if (!shell_count_changes(shell, count, error))
        return false;
    if (count == 0) {
        say(shell, "no changes");
        return true;
    }
    shell.progress.clear();
    shell.shown_progress.clear();
    if (!session_apply(shell.session, error))
        return false;
    say(shell, "commit complete");
    return true;
}

bool run_validate(shell_t &shell, words_view, cli_error_t &error)
{
    if (!session_validate(shell.session, error))
        return false;
    say(shell, "the configuration is valid");
    return true;
}

bool run_revert(shell_t &shell, words_view, cli_error_t &error)
{
    return session_begin(shell.session, error);
}

bool run_load(shell_t &shell, words_view args, cli_error_t &error)
{
    if (args.size() != 1)
        return cli_fail(error, "load takes one file name");
    return shell_run_file(shell, args.front().text, error);
}

bool run_exit(shell_t &shell, words_view, cli_error_t &error)
{
    if (shell.mode == MODE_OPERATIONAL) {
        shell.wants_exit = true;
        return true;
    }
    size_t count = 0;
    if (!shell_count_changes(shell, count, error))
        return false;
    if (count != 0)
        return cli_fail(error, shell_changes_are(count) + " not committed; 'commit' or 'revert' first");
    session_end(shell.session);
    shell.mode = MODE_OPERATIONAL;
    shell.place = {};
    return true;
}
