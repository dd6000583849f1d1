// The commands' own functions, by their row in the table of commands.cc. Each takes the words behind its name.
#ifndef AGENT_CLI_COMMANDS_H
#define AGENT_CLI_COMMANDS_H

#include "agent/cli/shell.h"

// show.cc
[[nodiscard]] bool run_show_configuration(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_show_data(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_show_transaction(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_compare(shell_t &shell, words_view args, cli_error_t &error);

// configure.cc
[[nodiscard]] bool run_configure(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_set(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_delete(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_edit(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_up(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_top(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_commit(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_validate(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_revert(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_load(shell_t &shell, words_view args, cli_error_t &error);
[[nodiscard]] bool run_exit(shell_t &shell, words_view args, cli_error_t &error);

#endif
