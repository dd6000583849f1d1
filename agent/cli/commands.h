// The commands' own functions, by their row in the table of commands.cc. Each takes the words behind its name, without
// what stands behind '|', which is in the shell.
#ifndef AGENT_CLI_COMMANDS_H
#define AGENT_CLI_COMMANDS_H

#include "agent/cli/shell.h"

// show.cc
[[nodiscard]] bool run_show_running(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_show_data(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_show_transaction(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_compare(shell_t &shell, words_view args, cli_error_t &error);

// action.cc
[[nodiscard]] bool run_action(shell_t &shell, words_view args, cli_error_t &error);

// status.cc
[[nodiscard]] bool run_show_agent_status(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_show_sessions(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_show_notifications(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_monitor_stream(shell_t &shell, words_view args, cli_error_t &error);

// configure.cc
[[nodiscard]] bool run_configure(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_set(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_delete(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_insert(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_move(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_edit(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_up(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_top(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_commit(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_validate(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_revert(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_load(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_exit(shell_t &shell, words_view args, cli_error_t &error);

// Where the command's output goes: through what stands behind '|', and on a terminal page by page.
[[nodiscard]] output_t shell_output(shell_t &shell, pager_t &pager);
// Columns of the terminal; 0 without one.
[[nodiscard]] size_t shell_columns(const shell_t &shell);
// Shows items that are in memory, in the format of the options if none is asked for.
void shell_show_items(shell_t &shell, const std::vector<item_t> &items, render_options_t options);

#endif
