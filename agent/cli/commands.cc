// The table of commands, and the running of one line. See shell.h.
#include "agent/cli/commands.h"

#include <algorithm>

namespace
{

bool run_help(shell_t &shell, words_view, cli_error_t &)
{
    pager_t pager(shell.screen);
    output_t output = shell_output(shell, pager);
    std::string text;
    for (const command_t &row : shell_commands())
        if (row.modes & shell.mode) {
            std::string usage(row.usage);
            usage.resize(std::max<size_t>(usage.size(), 46), ' ');
            text += "  " + usage + " " + row.help + "\n";
        }
    text += "\n"
            "  PATH ACTION [PARAMETER [VALUE]]... runs an action of the models.\n"
            "  Behind a show: | display tree, table, set, json or xml   | include TEXT   | exclude TEXT\n"
            "                 | count   | no-more   and for configuration | compare\n"
            "  Tab completes a word, ? shows what may stand here. Quote words with blanks; ';' joins commands.\n";
    (void)output.write(text); // nothing follows, whether or not it is read
    output.end();
    return true;
}

constexpr uint8_t BOTH = MODE_OPERATIONAL | MODE_CONFIGURATION;
constexpr uint8_t PIPE_SHOW = PIPE_LINES | PIPE_DISPLAY;
constexpr uint8_t PIPE_CONFIG = PIPE_SHOW | PIPE_COMPARE;

// clang-format off
constexpr command_t commands[] = {
    { "show",               MODE_OPERATIONAL,   args_t::DATA_PATH,   PIPE_SHOW,   run_show_data,
      "show PATH [| ...]", "operational data" },
    { "show configuration", MODE_OPERATIONAL,   args_t::CONFIG_PATH, PIPE_CONFIG, run_show_running,
      "show configuration [PATH] [| ...]", "the running configuration" },
    { "show notifications stream", BOTH,        args_t::PAST_STREAM, PIPE_LINES,  run_show_notifications,
      "show notifications stream NAME [last MINUTES]", "what a stream has told" },
    { "show sessions",      BOTH,               args_t::NONE,        PIPE_SHOW,   run_show_sessions,
      "show sessions", "who is connected to the agent" },
    { "show agent status",  BOTH,               args_t::NONE,        PIPE_SHOW,   run_show_agent_status,
      "show agent status", "the agent's own state" },
    { "monitor stream",     BOTH,               args_t::STREAM,      PIPE_LINES,  run_monitor_stream,
      "monitor stream NAME", "what a stream tells from now on; ^C ends" },
    { "configure",          MODE_OPERATIONAL,   args_t::NONE,        PIPE_NONE,   run_configure,
      "configure", "enter configuration mode" },
    { "set",                MODE_CONFIGURATION, args_t::SETTING,     PIPE_NONE,   run_set,
      "set PATH [VALUE]", "give a leaf a value, or create an entry" },
    { "delete",             MODE_CONFIGURATION, args_t::DELETION,    PIPE_NONE,   run_delete,
      "delete PATH [VALUE]", "remove a leaf, an entry or all below a node" },
    { "insert",             MODE_CONFIGURATION, args_t::PLACING,     PIPE_NONE,   run_insert,
      "insert PATH first|last|before KEY|after KEY", "create an entry at a place of its list" },
    { "move",               MODE_CONFIGURATION, args_t::PLACING,     PIPE_NONE,   run_move,
      "move PATH first|last|before KEY|after KEY", "put an entry elsewhere in its list" },
    { "edit",               MODE_CONFIGURATION, args_t::CONFIG_PATH, PIPE_NONE,   run_edit,
      "edit PATH", "stand at PATH: paths start there" },
    { "up",                 MODE_CONFIGURATION, args_t::NONE,        PIPE_NONE,   run_up,
      "up", "stand one level higher" },
    { "top",                MODE_CONFIGURATION, args_t::NONE,        PIPE_NONE,   run_top,
      "top", "stand at the top" },
    { "show",               MODE_CONFIGURATION, args_t::CONFIG_PATH, PIPE_CONFIG, run_show_transaction,
      "show [PATH] [| ...]", "the configuration with your changes" },
    { "show configuration", MODE_CONFIGURATION, args_t::CONFIG_PATH, PIPE_CONFIG, run_show_transaction,
      "show configuration [PATH] [| ...]", "the same" },
    { "compare",            MODE_CONFIGURATION, args_t::CONFIG_PATH, PIPE_LINES,  run_compare,
      "compare [PATH]", "what a commit would change" },
    { "validate",           MODE_CONFIGURATION, args_t::NONE,        PIPE_NONE,   run_validate,
      "validate", "check the configuration without committing it" },
    { "commit check",       MODE_CONFIGURATION, args_t::NONE,        PIPE_NONE,   run_validate,
      "commit check", "the same" },
    { "commit",             MODE_CONFIGURATION, args_t::NONE,        PIPE_NONE,   run_commit,
      "commit", "put your changes into force" },
    { "revert",             MODE_CONFIGURATION, args_t::NONE,        PIPE_NONE,   run_revert,
      "revert", "give up your changes" },
    { "load",               MODE_CONFIGURATION, args_t::FILE_NAME,   PIPE_NONE,   run_load,
      "load FILE", "run a file of commands, or merge an .xml document" },
    { "exit",               BOTH,               args_t::NONE,        PIPE_NONE,   run_exit,
      "exit", "leave this mode" },
    { "help",               BOTH,               args_t::NONE,        PIPE_LINES,  run_help,
      "help", "this list" },
};
// clang-format on

// An action of the models is a command by its path, an rpc by its name.
constexpr command_t action_command = {
    "", BOTH, args_t::ACTION, PIPE_SHOW, run_action, "PATH ACTION [PARAMETER [VALUE]]...", "run an action",
};

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
    for (const lysc_node *node : schema_action_roots(shell.schema))
        names.emplace_back(node->name);
    for (const command_t &row : commands) {
        std::string name(row.name);
        name = name.substr(0, name.find(' '));
        if ((row.modes & shell.mode) && std::find(names.begin(), names.end(), name) == names.end())
            names.push_back(name);
        if (word.text == name && (row.modes & shell.mode))
            return cli_fail(error, "'" + std::string(row.name) + "' is the command that begins with '" + name + "'",
                            word.column);
        if (word.text == name)
            return cli_fail(error,
                            "'" + word.text + "' is a command of " +
                                (shell.mode == MODE_OPERATIONAL ? "configuration mode; type 'configure' first"
                                                                : "operational mode; type 'exit' first"),
                            word.column);
    }
    if (schema_find_child(shell.schema, nullptr, word.text))
        return cli_fail(error, "'" + word.text + "' is no command; 'show " + word.text + "' shows it", word.column);
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

const command_t *shell_find_command(const schema_t &schema, uint8_t mode, words_view words, size_t &name_words)
{
    const command_t *found = shell_find_command(mode, words, name_words);
    if (found || words.empty())
        return found;
    const lysc_node *node = schema_find_child(schema, nullptr, words.front().text);
    bool is_action = schema_find_in(schema.rpcs, words.front().text) || (node && schema_leads_to_action(node));
    return is_action ? &action_command : nullptr;
}

bool shell_run(shell_t &shell, words_view words, cli_error_t &error)
{
    size_t name_words = 0;
    const command_t *command = shell_find_command(shell.schema, shell.mode, words, name_words);
    if (!command)
        return fail_unknown_command(shell, words.front(), error);
    words_view args = words.subspan(name_words);
    shell.wait = {};
    shell.wait.since = time(nullptr);
    shell.pipe = {};
    if (!pipe_take(args, command->pipes, shell.pipe, error))
        return false;
    if (command->args == args_t::NONE && !args.empty())
        return cli_fail(error, "unexpected '" + args.front().text + "' behind '" + command->name + "'",
                        args.front().column);
    if (command->run(shell, args, error))
        return true;
    if (error.status != 0)
        error.text = path_words_in(error.text);
    return false;
}

bool shell_run_line(shell_t &shell, std::string_view line, cli_error_t &error, std::string *kept)
{
    line_t read;
    if (!cli_split_line(line, read, error))
        return false;
    for (const std::vector<word_t> &words : read.commands) {
        bool is_first = &words == &read.commands.front();
        if (shell.wants_exit || (!is_first && shell_is_interrupted(shell, error)))
            return shell.wants_exit;
        if (kept)
            *kept = shell_without_secrets(shell, *kept);
        if (!shell_run(shell, words, error))
            return false;
    }
    return true;
}
