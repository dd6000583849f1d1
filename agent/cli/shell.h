// The operator's shell: its state, the table of its commands, and the running of one line.
//
// The shell stands either in operational mode, which shows what is, or in configuration mode, which edits a transaction
// and commits it. In configuration mode it has a place in the tree, and paths start there.
#ifndef AGENT_CLI_SHELL_H
#define AGENT_CLI_SHELL_H

#include "agent/cli/path.h"
#include "agent/cli/pipe.h"
#include "agent/cli/schema.h"
#include "agent/cli/session.h"

#include <cstdio>
#include <ctime>
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
    DELETION,    // the same, with values of leaf-lists only
    PLACING,     // a path to an entry or value, then its place among its siblings
    ACTION,      // a path to an action, then its parameters
    FILE_NAME,
    STREAM,      // a stream of notifications
    PAST_STREAM, // and how far back
};

// A command that keeps the operator waiting.
struct wait_t {
    std::string progress; // what the agent said last
    std::string shown;    // what of it the operator has seen
    time_t since = 0;
    bool has_status_line = false; // the cursor's line is to be cleared before other text
    bool was_interrupted = false;
    const char *interrupt_note = nullptr; // what ^C does, told when it is pressed
};

struct shell_t {
    schema_t schema;
    session_t session;
    shell_mode_t mode = MODE_OPERATIONAL;
    path_t place; // in configuration mode
    bool wants_exit = false;
    unsigned files_open = 0; // a file may load others
    FILE *out = stdout;
    FILE *news = stderr; // what is said beside the output: progress, notes
    pipe_t pipe;         // of the running command

    session_peer_t peer; // for the connections that last for one command

    // Of a terminal; without one there are no pages, no status line and no questions.
    screen_t screen;
    bool (*ask_secret)(void *terminal, const std::string &prompt, std::string &secret) = nullptr;
    bool (*take_interrupt)() = nullptr; // true once for each ^C

    wait_t wait; // of the running command
};

struct command_t {
    const char *name; // one or two words
    uint8_t modes;
    args_t args;
    uint8_t pipes;                                                    // pipe_set_t: what may stand behind '|'
    bool (*run)(shell_t &shell, words_view args, cli_error_t &error); // args: the words behind the name
    const char *usage;
    const char *help;
};

// Has the session tell the shell of progress, output and interrupts. The shell stays where it is from here on.
void shell_watch_session(shell_t &shell);
// True when the output goes to a terminal, for which control characters in data would be commands.
[[nodiscard]] bool shell_is_terminal(const shell_t &shell);
// Takes the status line off the terminal, so that other text may be written.
void shell_clear_status(shell_t &shell);
// True with an error when the operator has pressed ^C during this command.
[[nodiscard]] bool shell_is_interrupted(shell_t &shell, cli_error_t &error);
// The line without the values of secrets, for the history.
[[nodiscard]] std::string shell_without_secrets(const shell_t &shell, const std::string &line);

[[nodiscard]] std::span<const command_t> shell_commands();
// The command whose name begins the words, the longest name first; null when there is none.
[[nodiscard]] const command_t *shell_find_command(uint8_t mode, words_view words, size_t &name_words);
// The same, where the path of an action is a command too: one whose name has no words, so that the path is its
// arguments.
[[nodiscard]] const command_t *shell_find_command(const schema_t &schema, uint8_t mode, words_view words,
                                                  size_t &name_words);

// Runs one command; words is not empty.
[[nodiscard]] bool shell_run(shell_t &shell, words_view words, cli_error_t &error);
// Runs all commands of a line, up to the first that fails. kept, when not null, is the line on its way into the history:
// it loses the values of the secrets that can be told only once the commands before them have run.
[[nodiscard]] bool shell_run_line(shell_t &shell, std::string_view line, cli_error_t &error,
                                  std::string *kept = nullptr);

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
