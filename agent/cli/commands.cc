// The table of commands, and the running of one line. See shell.h.
#include "agent/cli/commands.h"

#include <algorithm>

namespace
{

bool run_help(shell_t &shell, words_view, cli_error_t &)
{
    for (const command_t &row : shell_commands())
        if (row.modes & shell.mode)
            fprintf(shell.out, "  %-44s %s\n", row.usage, row.help);
    fprintf(shell.out, "\n  Tab completes a word, ? shows what may stand here. Quote words that hold blanks.\n");
    return true;
}

constexpr uint8_t BOTH = MODE_OPERATIONAL | MODE_CONFIGURATION;

// clang-format off
constexpr command_t commands[] = {
    { "show",               MODE_OPERATIONAL,   args_t::DATA_PATH,   true,  run_show_data,
      "show PATH [| display FORMAT]", "operational data" },
    { "show configuration", MODE_OPERATIONAL,   args_t::CONFIG_PATH, true,  run_show_configuration,
      "show configuration [PATH] [| display FORMAT]", "the running configuration" },
    { "configure",          MODE_OPERATIONAL,   args_t::NONE,        false, run_configure,
      "configure", "enter configuration mode" },
    { "set",                MODE_CONFIGURATION, args_t::SETTING,     false, run_set,
      "set PATH [VALUE]", "give a leaf a value, or create an entry" },
    { "delete",             MODE_CONFIGURATION, args_t::SETTING,     false, run_delete,
      "delete PATH [VALUE]", "remove a leaf, an entry or all below a node" },
    { "edit",               MODE_CONFIGURATION, args_t::CONFIG_PATH, false, run_edit,
      "edit PATH", "stand at PATH: paths start there" },
    { "up",                 MODE_CONFIGURATION, args_t::NONE,        false, run_up,
      "up", "stand one level higher" },
    { "top",                MODE_CONFIGURATION, args_t::NONE,        false, run_top,
      "top", "stand at the top" },
    { "show",               MODE_CONFIGURATION, args_t::CONFIG_PATH, true,  run_show_transaction,
      "show [PATH] [| display FORMAT]", "the configuration with your changes" },
    { "compare",            MODE_CONFIGURATION, args_t::NONE,        false, run_compare,
      "compare", "what a commit would change" },
    { "validate",           MODE_CONFIGURATION, args_t::NONE,        false, run_validate,
      "validate", "check the configuration without committing it" },
    { "commit check",       MODE_CONFIGURATION, args_t::NONE,        false, run_validate,
      "commit check", "the same" },
    { "commit",             MODE_CONFIGURATION, args_t::NONE,        false, run_commit,
      "commit", "put your changes into force" },
    { "revert",             MODE_CONFIGURATION, args_t::NONE,        false, run_revert,
      "revert", "give up your changes" },
    { "load",               MODE_CONFIGURATION, args_t::FILE_NAME,   false, run_load,
      "load FILE", "run a file of commands, or merge an .xml document" },
    { "exit",               BOTH,               args_t::NONE,        false, run_exit,
      "exit", "leave this mode" },
    { "help",               BOTH,               args_t::NONE,        false, run_help,
      "help", "this list" },
};
// clang-format on

size_t count_words(std::string_view name)
{
    return static_cast<size_t>(std::count(name.begin(), name.end(), ' ')) + 1;
}

bool begins_words(std::string_view name, words_view words)
{
    std::string typed;
    for (size_t i = 0; i < count_words(name) && i < words.size(); i++)
        typed += (i ? " " : "") + words[i].text;
    return typed == name;
}

bool fail_unknown_command(const shell_t &shell, const word_t &word, cli_error_t &error)
{
    std::vector<std::string> names;
    for (const command_t &row : commands) {
        std::string name(row.name);
        name = name.substr(0, name.find(' '));
        if ((row.modes & shell.mode) && std::find(names.begin(), names.end(), name) == names.end())
            names.push_back(name);
        if (word.text == name && !(row.modes & shell.mode))
            return cli_fail(error,
                            "'" + word.text + "' is a command of " +
                                (shell.mode == MODE_OPERATIONAL ? "configuration mode; type 'configure' first"
                                                                : "operational mode; type 'exit' first"),
                            word.column);
    }
    return cli_fail(error, "unknown command '" + word.text + "'" + cli_did_you_mean(word.text, names), word.column);
}

} // namespace

std::span<const command_t> shell_commands()
{
    return commands;
}

const command_t *shell_find_command(uint8_t mode, words_view words, size_t &name_words)
{
    const command_t *found = nullptr;
    name_words = 0;
    for (const command_t &row : commands)
        if ((row.modes & mode) && begins_words(row.name, words) && count_words(row.name) > name_words) {
            found = &row;
            name_words = count_words(row.name);
        }
    return found;
}

bool shell_run(shell_t &shell, words_view words, cli_error_t &error)
{
    size_t name_words = 0;
    const command_t *command = shell_find_command(shell.mode, words, name_words);
    if (!command)
        return fail_unknown_command(shell, words.front(), error);
    words_view args = words.subspan(name_words);
    if (command->args == args_t::NONE && !args.empty())
        return cli_fail(error, "unexpected '" + args.front().text + "' behind '" + command->name + "'",
                        args.front().column);
    return command->run(shell, args, error);
}

bool shell_run_line(shell_t &shell, std::string_view line, cli_error_t &error)
{
    line_t read;
    if (!cli_split_line(line, read, error))
        return false;
    for (const std::vector<word_t> &words : read.commands)
        if (!shell.wants_exit && !shell_run(shell, words, error))
            return false;
    return true;
}
