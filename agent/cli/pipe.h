// What may stand behind '|' at the end of a command.
#ifndef AGENT_CLI_PIPE_H
#define AGENT_CLI_PIPE_H

#include "agent/cli/output.h"
#include "agent/cli/render.h"
#include "agent/cli/words.h"

#include <optional>
#include <span>

// Which stages a command takes; bits.
enum pipe_set_t : uint8_t {
    PIPE_NONE = 0,
    PIPE_LINES = 1,   // include, exclude, count, no-more
    PIPE_DISPLAY = 2, // display FORMAT
    PIPE_COMPARE = 4, // compare
};

struct pipe_t {
    std::optional<format_t> format;
    bool wants_compare = false;
    bool wants_count = false;
    bool wants_pages = true;
    std::vector<line_filter_t> filters;
};

// Takes "| STAGE | STAGE..." off the end of the words.
[[nodiscard]] bool pipe_take(words_view &words, uint8_t allowed, pipe_t &pipe, cli_error_t &error);

// What may follow the words behind the first '|'.
[[nodiscard]] std::vector<choice_t> pipe_choices(words_view behind, uint8_t allowed);
// The place of the first '|'; the number of words when there is none.
[[nodiscard]] size_t pipe_place(words_view words);

#endif
