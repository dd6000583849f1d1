// The lines that the operator typed, kept in a file of his home folder.
//
// The file is his alone (mode 0600); a line is added when it has been run, without the values of secrets.
#ifndef AGENT_CLI_HISTORY_H
#define AGENT_CLI_HISTORY_H

#include <string>
#include <vector>

inline constexpr size_t HISTORY_LINES = 500;

// $HOME/.cfgmgr_cli_history; empty when there is no home.
[[nodiscard]] std::string history_file();
// The last lines of the file, oldest first; a file that has grown to twice as many is cut.
[[nodiscard]] std::vector<std::string> history_load(const std::string &file);
// Adds a line. What cannot be written is lost without a word: a home may be read-only.
void history_add(const std::string &file, const std::string &line);

#endif
