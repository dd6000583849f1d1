// What the program under test says: syslog(3) replaced by one that keeps the texts.
#ifndef TESTS_UNIT_LOG_CAPTURE_H
#define TESTS_UNIT_LOG_CAPTURE_H

#include <string>
#include <vector>

// The lines since the last log_clear, as they would stand behind the ident; any thread.
std::vector<std::string> log_lines();
void log_clear();

// How many lines hold the text.
int log_count(const std::string &text);
inline bool log_has(const std::string &text)
{
    return log_count(text) > 0;
}

// Lines go to standard output as well: for a child process whose output is looked at.
void log_echo(bool on);

#endif
