// Single keys and unseen lines of the terminal, outside the line editor.
#ifndef AGENT_CLI_TERMINAL_KEYS_H
#define AGENT_CLI_TERMINAL_KEYS_H

#include "agent/cli/pager.h"

// The terminal of standard input and output, for the pager.
[[nodiscard]] screen_t terminal_screen();
// Asks on the terminal, without echo. False when nothing was typed, or ^C.
[[nodiscard]] bool terminal_ask_secret(void *terminal, const std::string &prompt, std::string &secret);

#endif
