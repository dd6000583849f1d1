// The operator's shell: its state, the table of its commands, and the running of one line.
//
// The shell stands either in operational mode, which shows what is, or in configuration mode, which edits a transaction
// and commits it. In configuration mode it has a place in the tree, and paths start there.
#ifndef AGENT_CLI_SHELL_H
#define AGENT_CLI_SHELL_H

#include "agent/cli/path.h"
#include "agent/cli/schema.h"
#include "agent/cli/session.h"

#include <cstdio>
#include <span>
#include <string>

enum shell_mode_t : uint8_t {
    MODE_OPERATIONAL = 1,
    MODE_CONFIGURATION = 2
};

// What stands behind a command's name; completion and help are made from it.
enum class args_t : uint8_t {
    NONE,
    CONFIG_PATH, // a path to configuration
    DATA_PATH,   // a path to anything
    SETTING,     // a path to configuration, then a value where it ends at a leaf
    FILE_NAME,
};

struct shell_t {
    schema_t schema;
    session_t session;
    shell_mode_t mode = MODE_OPERATIONAL;
    path_t place; // in configuration mode
    bool wants_exit = false;
    unsigned files_open = 0; // a file may load others
    FILE *out = stdout;
    FILE *news = stderr;        // where the progress of a long commit is told
    std::string progress;       // what the agent said last in the running request
    std::string shown_progress; // what of it the operator has seen
};

struct command_t {
    const char *name; // one or two words
    uint8_t modes;
    args_t args;
    bool can_pipe;                                                    // "| display FORMAT" may follow
    bool (*run)(shell_t &shell, words_view args, cli_error_t &error); // args: the words behind the name
    const char *usage;
    const char *help;
};

// Has the session tell the shell of progress. The shell stays where it is from here on.
void shell_watch_progress(shell_t &shell);

[[nodiscard]] std::span<const command_t> shell_commands();
// The command whose name begins the words, the longest name first; null when there is none.
[[nodiscard]] const command_t *shell_find_command(uint8_t mode, words_view words, size_t &name_words);

// Runs one command; words is not empty.
[[nodiscard]] bool shell_run(shell_t &shell, words_view words, cli_error_t &error);
// Runs all commands of a line, up to the first that fails.
[[nodiscard]] bool shell_run_line(shell_t &shell, std::string_view line, cli_error_t &error);

// Enters configuration mode with a new transaction.
[[nodiscard]] bool shell_configure(shell_t &shell, cli_error_t &error);
// True with the count of changes that were not committed; 0 in operational mode.
[[nodiscard]] bool shell_count_changes(shell_t &shell, size_t &count, cli_error_t &error);
// "1 change is" or "2 changes are", to begin a sentence.
[[nodiscard]] std::string shell_changes_are(size_t count);

// Runs a file: a configuration document when its name ends in .xml, else lines of commands. Both in configuration mode.
// On failure the text begins with the file's name, line and column.
[[nodiscard]] bool shell_run_file(shell_t &shell, const std::string &name, cli_error_t &error);
// Runs lines until the end of input; name is for errors.
[[nodiscard]] bool shell_run_lines(shell_t &shell, FILE *input, const std::string &name, cli_error_t &error);
// As "NAME:LINE:COLUMN: text", counted from 1; the column is left out when the error has none.
[[nodiscard]] std::string shell_place_error(const std::string &name, size_t line, const cli_error_t &error);

#endif
