// The prompt: line editing, Tab and `?`, and messages of the agent while the operator types.
#ifndef AGENT_CLI_TERMINAL_H
#define AGENT_CLI_TERMINAL_H

#include "agent/cli/shell.h"

// Reads and runs lines until the operator leaves; 0, or 2 when the connection was lost. Standard input and output are a
// terminal.
[[nodiscard]] int terminal_run(shell_t &shell, const std::string &user);

#endif
