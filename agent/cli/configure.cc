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
        std::string shown = schema_is_secret(path.node) ? "" : " '" + value.text + "'";
        if (!schema_check_value(path.node, value.text, rule))
            return cli_fail(error, "bad value" + shown + " for '" + path.node->name + "': " + rule, value.column);
    }
    return true;
}

// A secret that was not typed on the line is asked for, unseen and twice.
bool ask_secret(shell_t &shell, const path_t &path, std::string &secret, cli_error_t &error)
{
    std::string again;
    std::string prompt = path.node->name;
    void *terminal = shell.screen.data;
    if (!shell.ask_secret(terminal, prompt, secret) || !shell.ask_secret(terminal, prompt + " again", again))
        return cli_fail(error, "nothing was typed for '" + prompt + "'");
    return secret == again || cli_fail(error, "the two are not the same");
}

bool set_leaf(shell_t &shell, const path_t &path, words_view values, cli_error_t &error)
{
    if (schema_is_empty_leaf(path.node))
        return values.empty() ? session_create(shell.session, path.text, error)
                              : fail_unexpected(path, values.front(), error);
    word_t secret;
    if (values.empty() && schema_is_secret(path.node) && shell.ask_secret) {
        secret.column = CLI_NO_COLUMN;
        if (!ask_secret(shell, path, secret.text, error))
            return false;
        values = { &secret, 1 };
    }
    if (values.empty())
        return cli_fail(error,
                        "a value for '" + std::string(path.node->name) + "' is missing: " + schema_rule(path.node));
    if (values.size() > 1)
        return fail_unexpected(path, values[1], error);
    if (!check_values(path, values, error))
        return false;
    if (session_set(shell.session, path.text, values.front().text, error))
        return true;
    error.column = values.front().column;
    return false;
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

namespace
{

struct place_row_t {
    const char *name;
    wire_move_t where;
    bool has_other; // the entry before or behind which it goes follows
};

constexpr place_row_t places[] = {
    { "first", WIRE_MOVE_FIRST, false },
    { "last", WIRE_MOVE_LAST, false },
    { "before", WIRE_MOVE_BEFORE, true },
    { "after", WIRE_MOVE_AFTER, true },
};

// "PATH first" or "PATH before KEY...", taken apart.
struct placing_t {
    path_t entry;
    path_t other;
    wire_move_t where = WIRE_MOVE_LAST;
};

const place_row_t *find_place(const word_t &word)
{
    for (const place_row_t &row : places)
        if (word.text == row.name && !word.is_quoted)
            return &row;
    return nullptr;
}

// An entry of a list ordered by the operator, or one value of such a leaf-list.
bool take_placed(shell_t &shell, words_view words, path_t &path, cli_error_t &error)
{
    words_view values;
    if (!walk_config(shell, words, path, values, error))
        return false;
    if (!schema_is_user_ordered(path.node))
        return cli_fail(error, "'" + std::string(path.node->name) + "' has no order that can be changed",
                        words.empty() ? CLI_NO_COLUMN : words.back().column);
    if (schema_is_list(path.node))
        return !path.is_whole_list || set_entry(shell, path, error); // says which key is missing
    if (values.size() != 1)
        return cli_fail(error, "one value of '" + std::string(path.node->name) + "' has to stand here");
    if (!check_values(path, values, error))
        return false;
    path.text = path_of_value(path, values.front().text);
    path.words.push_back(values.front().text);
    return true;
}

bool take_placing(shell_t &shell, words_view args, placing_t &placing, cli_error_t &error)
{
    size_t at = args.size();
    while (at > 0 && !find_place(args[at - 1]))
        at--;
    if (at == 0)
        return cli_fail(error, "where to? first, last, before KEY or after KEY");
    const place_row_t &row = *find_place(args[at - 1]);
    words_view keys = args.subspan(at);
    placing.where = row.where;
    if (!take_placed(shell, args.first(at - 1), placing.entry, error))
        return false;
    if (!row.has_other)
        return keys.empty() || fail_unexpected(placing.entry, keys.front(), error);
    std::vector<word_t> other(args.begin(), args.begin() + static_cast<ptrdiff_t>(at - 1));
    size_t key_words = schema_is_list(placing.entry.node) ? schema_keys(placing.entry.node).size() : 1;
    other.resize(other.size() - key_words);
    other.insert(other.end(), keys.begin(), keys.end());
    return take_placed(shell, other, placing.other, error);
}

} // namespace

bool run_move(shell_t &shell, words_view args, cli_error_t &error)
{
    placing_t placing;
    return take_placing(shell, args, placing, error) &&
           session_move(shell.session, placing.entry, placing.where, placing.other, error);
}

bool run_insert(shell_t &shell, words_view args, cli_error_t &error)
{
    placing_t placing;
    if (!take_placing(shell, args, placing, error))
        return false;
    auto create = [&] {
        return session_create(shell.session, placing.entry.text, error);
    };
    return with_entries_above(shell, placing.entry, error, create) &&
           session_move(shell.session, placing.entry, placing.where, placing.other, error);
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
    shell.wait.interrupt_note = "interrupted; a commit that is in progress goes on, waiting for its end";
    bool ok = session_apply(shell.session, error);
    shell_clear_status(shell);
    if (!ok)
        return false;
    say(shell, "commit complete");
    return true;
}

bool run_validate(shell_t &shell, words_view, cli_error_t &error)
{
    shell.wait.interrupt_note = "interrupted; waiting for the check to end";
    bool ok = session_validate(shell.session, error);
    shell_clear_status(shell);
    if (!ok)
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
