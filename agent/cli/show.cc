// The commands that show data.
#include "agent/cli/commands.h"
#include "agent/cli/render.h"

namespace
{

struct format_row_t {
    const char *name;
    format_t format;
};

constexpr format_row_t formats[] = {
    { "tree", format_t::TREE },
    { "set", format_t::SET },
    { "json", format_t::JSON },
    { "xml", format_t::XML },
};

// Takes "| display FORMAT" off the end of the words.
bool take_format(words_view &words, format_t &format, cli_error_t &error)
{
    format = format_t::TREE;
    size_t pipe = 0;
    while (pipe < words.size() && (words[pipe].text != "|" || words[pipe].is_quoted))
        pipe++;
    if (pipe == words.size())
        return true;
    words_view behind = words.subspan(pipe + 1);
    words = words.first(pipe);
    if (behind.size() != 2 || behind[0].text != "display")
        return cli_fail(error, "'| display FORMAT' is all that may follow '|'", words.data()[pipe].column);
    for (const format_row_t &row : formats)
        if (behind[1].text == row.name) {
            format = row.format;
            return true;
        }
    return cli_fail(error, "bad format '" + behind[1].text + "': tree, set, json, xml", behind[1].column);
}

bool resolve_config(shell_t &shell, words_view words, path_t &path, cli_error_t &error)
{
    if (!path_resolve(shell.schema, words, path, error))
        return false;
    if (path.node && !schema_is_config(path.node))
        return cli_fail(error, "'" + std::string(path.node->name) + "' is operational data, not configuration",
                        words.back().column);
    return true;
}

bool show(shell_t &shell, show_source_t source, const path_t &path, format_t format, cli_error_t &error)
{
    std::string document;
    lyd_ptr tree;
    if (!session_show(shell.session, source, path.text, document, error) ||
        !render_read(shell.schema, document, tree, error))
        return false;
    std::string text = render(tree.get(), format);
    if (text.empty() && format == format_t::TREE)
        fprintf(shell.out, "nothing at %s\n", path_place(path).c_str());
    fputs(text.c_str(), shell.out);
    return true;
}

} // namespace

bool run_show_configuration(shell_t &shell, words_view args, cli_error_t &error)
{
    format_t format;
    path_t path;
    return take_format(args, format, error) && resolve_config(shell, args, path, error) &&
           show(shell, show_source_t::RUNNING, path, format, error);
}

bool run_show_transaction(shell_t &shell, words_view args, cli_error_t &error)
{
    format_t format;
    path_t path = shell.place;
    return take_format(args, format, error) && resolve_config(shell, args, path, error) &&
           show(shell, show_source_t::TRANSACTION, path, format, error);
}

bool run_show_data(shell_t &shell, words_view args, cli_error_t &error)
{
    format_t format;
    path_t path;
    if (!take_format(args, format, error))
        return false;
    if (args.empty())
        return cli_fail(error, "show what? give a path, or 'configuration'");
    return path_resolve(shell.schema, args, path, error) &&
           show(shell, show_source_t::OPERATIONAL, path, format, error);
}

namespace
{

// The values of a leaf-list come joined by blanks, each a word of its own.
std::string value_words(const schema_t &schema, const std::string &typed_path, const std::string &value)
{
    line_t line = cli_read_line(typed_path);
    path_t path;
    cli_error_t error;
    bool is_row = line.commands.size() == 1 && path_resolve(schema, line.commands.front(), path, error) &&
                  schema_is_leaf_list(path.node);
    return is_row ? value : cli_quote_word(value);
}

void print_change(const shell_t &shell, char sign, const change_t &change, const std::string &value)
{
    std::string path = path_words_of(change.path);
    std::string words = value.empty() ? "" : " " + value_words(shell.schema, path, value);
    fprintf(shell.out, "%c %s%s\n", sign, path.c_str(), words.c_str());
}

} // namespace

bool run_compare(shell_t &shell, words_view, cli_error_t &error)
{
    std::vector<change_t> changes;
    if (!session_compare(shell.session, changes, error))
        return false;
    if (changes.empty())
        fprintf(shell.out, "no changes\n");
    for (const change_t &change : changes) {
        bool is_deleted = change.op == WIRE_MOP_DELETED;
        bool is_created = change.op == WIRE_MOP_CREATED;
        if (is_deleted || !change.old_value.empty())
            print_change(shell, '-', change, change.old_value);
        if (is_created || (!is_deleted && !change.new_value.empty()))
            print_change(shell, '+', change, change.new_value);
    }
    return true;
}
