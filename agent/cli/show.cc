// The commands that show data.
#include "agent/cli/commands.h"

namespace
{

bool resolve_config(shell_t &shell, words_view words, path_t &path, cli_error_t &error)
{
    if (!path_resolve(shell.schema, words, path, error))
        return false;
    if (path.node && !schema_is_config(path.node))
        return cli_fail(error, "'" + std::string(path.node->name) + "' is operational data, not configuration",
                        words.back().column);
    return true;
}

// A list by itself is a table; what is configured reads best as a tree.
format_t default_format(show_source_t source, const path_t &path)
{
    bool is_table = source == show_source_t::OPERATIONAL && path.is_whole_list && schema_is_list(path.node);
    return is_table ? format_t::TABLE : format_t::TREE;
}

// What the walk could not read is told behind what it could.
struct notes_t {
    static constexpr size_t MOST = 20;
    std::vector<std::string> texts;
    size_t left_out = 0;

    void add(const std::string &text)
    {
        if (texts.size() < MOST)
            texts.push_back(text);
        else
            left_out++;
    }
    void tell(FILE *news) const
    {
        for (const std::string &text : texts)
            fprintf(news, "note: %s\n", pager_safe_text(text).c_str());
        if (left_out > 0)
            fprintf(news, "note: %zu more of that kind\n", left_out);
    }
};

// One show: items of a walk, through a renderer.
struct showing_t {
    shell_t &shell;
    const path_t &path;
    output_t &output;
    renderer_t &renderer;
    bool is_plain_table; // without what is around the list
    bool has_items = false;
    notes_t notes;

    bool take(const item_t &item)
    {
        if (item.kind == WIRE_WALK_NOTE) {
            notes.add(item.name);
            return true;
        }
        if (!has_items && !is_plain_table)
            for (const item_t &around : items_around(path))
                if (!renderer.take(around))
                    return false;
        has_items = true;
        return renderer.take(item);
    }
    bool run(session_walk_t &walk, cli_error_t &error)
    {
        size_t steps = path.steps.size();
        item_tracker_t tracker(shell.schema, steps > 1 ? path.steps[steps - 2].node : nullptr);
        for (std::vector<item_t> items;;) {
            if (!walk.next(items, error) || shell_is_interrupted(shell, error))
                return false;
            shell_clear_status(shell);
            if (items.empty())
                return true;
            for (item_t &item : items) {
                tracker.take(item);
                if (!take(item))
                    return true; // the operator has seen enough
            }
        }
    }
};

bool show(shell_t &shell, show_source_t source, const path_t &path, cli_error_t &error)
{
    format_t format = shell.pipe.format.value_or(default_format(source, path));
    pager_t pager(shell.screen);
    output_t output = shell_output(shell, pager);
    bool is_whole_list = path.is_whole_list;
    renderer_t renderer = render_make(shell.schema, output,
                                      { format, shell_columns(shell), is_whole_list ? 0 : path.steps.size(), false });
    showing_t showing = { shell, path, output, renderer, format == format_t::TABLE && is_whole_list, false, {} };
    session_walk_t walk(shell.session);
    shell.wait.interrupt_note = "";
    bool ok = walk.start(source, path.text, error) && showing.run(walk, error);
    shell_clear_status(shell);
    (void)renderer.end(); // nothing follows, whether or not it is read
    output.end();
    showing.notes.tell(shell.news);
    bool is_empty = ok && !output.has_lines() && !shell.pipe.wants_count;
    if (is_empty && format != format_t::SET && format != format_t::XML)
        fprintf(shell.out, "nothing at %s\n", path_place(path).c_str());
    return ok;
}

} // namespace

output_t shell_output(shell_t &shell, pager_t &pager)
{
    output_t output(shell.out, shell.screen.out && shell.pipe.wants_pages ? &pager : nullptr);
    if (shell_is_terminal(shell))
        output.guard_terminal();
    for (const line_filter_t &filter : shell.pipe.filters)
        output.add_filter(filter);
    if (shell.pipe.wants_count)
        output.count_only();
    return output;
}

size_t shell_columns(const shell_t &shell)
{
    size_t rows = 0;
    size_t columns = 0;
    if (shell.screen.out)
        shell.screen.size(shell.screen.data, rows, columns);
    return columns;
}

void shell_show_items(shell_t &shell, const std::vector<item_t> &items, render_options_t options)
{
    pager_t pager(shell.screen);
    output_t output = shell_output(shell, pager);
    options.format = shell.pipe.format.value_or(options.format);
    options.width = shell_columns(shell);
    renderer_t renderer = render_make(shell.schema, output, options);
    for (const item_t &item : items)
        if (!renderer.take(item))
            break;
    (void)renderer.end(); // nothing follows, whether or not it is read
    output.end();
}

namespace
{

// The values of a leaf-list come joined by blanks, each a word of its own. A secret in clear text is covered.
std::string value_words(const schema_t &schema, const std::string &typed_path, const std::string &value)
{
    line_t line = cli_read_line(typed_path);
    path_t path;
    cli_error_t error;
    bool is_known = line.commands.size() == 1 && path_resolve(schema, line.commands.front(), path, error);
    if (is_known && schema_is_leaf_list(path.node))
        return value;
    item_t item = { WIRE_WALK_LEAF, "", { value }, is_known ? path.node : nullptr, "" };
    item_cover_secret(item);
    return cli_quote_word(item.values.front());
}

bool print_change(const shell_t &shell, output_t &output, char sign, const change_t &change, const std::string &value)
{
    std::string path = path_words_of(change.path);
    std::string words = value.empty() ? "" : " " + value_words(shell.schema, path, value);
    return output.write(std::string(1, sign) + " " + path + words + "\n");
}

bool print_changes(const shell_t &shell, output_t &output, const change_t &change)
{
    bool is_deleted = change.op == WIRE_MOP_DELETED;
    bool is_created = change.op == WIRE_MOP_CREATED;
    bool ok = true;
    if (change.op == WIRE_MOP_MOVED_AFTER)
        return output.write("~ " + path_words_of(change.path) + " " + change.new_value + "\n"); // "first", "after ..."
    if (is_deleted || !change.old_value.empty())
        ok = print_change(shell, output, '-', change, change.old_value);
    if (ok && (is_created || (!is_deleted && !change.new_value.empty())))
        ok = print_change(shell, output, '+', change, change.new_value);
    return ok;
}

// The path as the agent writes those of changes: without prefixes of modules, whatever was typed.
std::string plain_text(const path_t &path)
{
    std::string text;
    for (const path_step_t &step : path.steps) {
        text += std::string("/") + step.node->name;
        for (size_t i = 0; i < step.keys.size(); i++)
            text += (i == 0 ? "{" : " ") + wire_quote_key(step.keys[i]);
        text += step.keys.empty() ? "" : "}";
    }
    return text;
}

// At the path or below it.
bool is_below(const std::string &path, const std::string &above)
{
    return path.starts_with(above) &&
           (path.size() == above.size() || above.empty() || path[above.size()] == '/' || path[above.size()] == '{');
}

bool compare(shell_t &shell, const path_t &path, cli_error_t &error)
{
    std::vector<change_t> changes;
    if (!session_compare(shell.session, changes, error))
        return false;
    pager_t pager(shell.screen);
    output_t output = shell_output(shell, pager);
    std::string above = plain_text(path);
    bool goes_on = true;
    for (size_t i = 0; goes_on && i < changes.size(); i++)
        if (is_below(changes[i].path, above))
            goes_on = print_changes(shell, output, changes[i]);
    output.end();
    if (!output.has_lines() && !shell.pipe.wants_count)
        fprintf(shell.out, "no changes\n");
    return true;
}

// At the top stand data of the models and what else can be shown.
bool fail_unknown_show(const shell_t &shell, const word_t &word, cli_error_t &error)
{
    static constexpr std::string_view SHOW = "show ";
    std::vector<std::string> names;
    for (const command_t &row : shell_commands()) {
        std::string_view name(row.name);
        if ((row.modes & shell.mode) && name.starts_with(SHOW))
            names.emplace_back(name.substr(SHOW.size(), name.find(' ', SHOW.size()) - SHOW.size()));
    }
    for (const lysc_node *root : shell.schema.roots)
        names.emplace_back(root->name);
    return cli_fail(error, "there is no '" + word.text + "' to show" + cli_did_you_mean(word.text, names), word.column);
}

} // namespace

bool run_show_running(shell_t &shell, words_view args, cli_error_t &error)
{
    path_t path;
    if (shell.pipe.wants_compare)
        return cli_fail(error, "changes are compared in configuration mode; type 'configure' first");
    return resolve_config(shell, args, path, error) && show(shell, show_source_t::RUNNING, path, error);
}

bool run_show_transaction(shell_t &shell, words_view args, cli_error_t &error)
{
    path_t path = shell.place;
    if (!resolve_config(shell, args, path, error))
        return false;
    return shell.pipe.wants_compare ? compare(shell, path, error)
                                    : show(shell, show_source_t::TRANSACTION, path, error);
}

bool run_show_data(shell_t &shell, words_view args, cli_error_t &error)
{
    path_t path;
    if (args.empty())
        return cli_fail(error, "show what? give a path, or 'configuration'");
    if (!path_resolve(shell.schema, args, path, error))
        return path.node ? false : fail_unknown_show(shell, args.front(), error);
    return show(shell, show_source_t::OPERATIONAL, path, error);
}

bool run_compare(shell_t &shell, words_view args, cli_error_t &error)
{
    path_t path = shell.place;
    return resolve_config(shell, args, path, error) && compare(shell, path, error);
}
