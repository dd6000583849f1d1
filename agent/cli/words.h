// Command lines as words.
//
// Words are separated by blanks. Double quotes keep blanks and special characters in a word; within them a backslash
// takes the next character as it is, but \n is a line break. Outside quotes ';' ends a command and '#' at the start of
// a word begins a comment that runs to the end of the line.
#ifndef AGENT_CLI_WORDS_H
#define AGENT_CLI_WORDS_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

inline constexpr size_t CLI_NO_COLUMN = static_cast<size_t>(-1);

// Why a command was refused, in words for the operator.
struct cli_error_t {
    std::string text;
    size_t column = CLI_NO_COLUMN; // place in the line, from 0, of the word at fault
    bool is_lost = false;          // the agent is gone: no further command can work
    uint16_t status = 0;           // the agent's error number, when it was the agent that refused
};

// Fills error and gives false, so that a failing step is one return statement.
bool cli_fail(cli_error_t &error, std::string text, size_t column = CLI_NO_COLUMN);

struct word_t {
    std::string text;
    size_t column = 0;      // where it begins in the line
    bool is_quoted = false; // written in quotes: never a command's own sign such as '|'
};

using words_view = std::span<const word_t>;

struct line_t {
    std::vector<std::vector<word_t>> commands; // none of them empty
    bool is_in_quotes = false;                 // the line ends within quotes
    bool is_in_word = false;                   // the line ends within a word, which is the last one of the last command
    bool is_at_command = true;                 // the next word would begin a command
};

// Takes any line apart; a quote that stays open is only noted.
[[nodiscard]] line_t cli_read_line(std::string_view line);
// As above, and an open quote is an error.
[[nodiscard]] bool cli_split_line(std::string_view line, line_t &out, cli_error_t &error);

// The word as it has to be typed: quoted when it holds a blank or a special character, or is empty.
[[nodiscard]] std::string cli_quote_word(std::string_view text);

constexpr char32_t CLI_NO_CHARACTER = 0xffffffff;
// Takes the first character off a UTF-8 text that is not empty, and gives its bytes: one, with the code
// CLI_NO_CHARACTER, where there is no character.
std::string_view cli_take_character(std::string_view &text, char32_t &code);
// Columns that the text takes on a terminal.
[[nodiscard]] size_t cli_width(std::string_view text);

// The candidates most like word, best first, at most three: those that begin with it, differ by a few letters, or are
// longer by letters left out.
[[nodiscard]] std::vector<std::string> cli_near_words(std::string_view word, std::span<const std::string> candidates);
// "; did you mean 'x'?", or nothing when no candidate is near.
[[nodiscard]] std::string cli_did_you_mean(std::string_view word, std::span<const std::string> candidates);

#endif
