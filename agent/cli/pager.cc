// See pager.h.
#include "agent/cli/pager.h"

#include "agent/cli/words.h"

#include <algorithm>

namespace
{

constexpr char PROMPT[] = "\033[7m--More--\033[0m";
constexpr char CLEAR_LINE[] = "\r\033[K";
constexpr int KEY_INTERRUPT = 3; // ^C

enum class answer_t {
    PAGE,
    LINE,
    ALL,
    QUIT
};

struct key_row_t {
    int key;
    answer_t answer;
};

constexpr key_row_t keys[] = {
    { ' ', answer_t::PAGE },           { 'f', answer_t::PAGE }, { '\r', answer_t::LINE },
    { '\n', answer_t::LINE },          { 'j', answer_t::LINE }, { 'G', answer_t::ALL },
    { 'q', answer_t::QUIT },           { 'Q', answer_t::QUIT }, { -1, answer_t::QUIT },
    { KEY_INTERRUPT, answer_t::QUIT },
};

} // namespace

namespace
{

// Commands for the terminal, and marks that turn the direction of the text around them.
bool is_control(char32_t c)
{
    bool is_command = (c < 0x20 && c != '\t') || (c >= 0x7f && c < 0xa0) || c == CLI_NO_CHARACTER;
    return is_command || (c >= 0x202a && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069);
}

} // namespace

std::string pager_safe_text(std::string_view text)
{
    std::string out;
    while (!text.empty()) {
        char32_t code = 0;
        std::string_view bytes = cli_take_character(text, code);
        out += is_control(code) ? "?" : bytes;
    }
    return out;
}

bool pager_t::put(std::string_view line)
{
    if (is_over_)
        return false;
    std::string text = pager_safe_text(line);
    size_t rows = 0;
    size_t columns = 0;
    screen_.size(screen_.data, rows, columns);
    size_t needed = columns == 0 ? 1 : std::max<size_t>(1, (cli_width(text) + columns - 1) / columns);
    if (is_fresh_ && rows > 1)
        rows_free_ = rows - 1;
    is_fresh_ = false;
    if (rows > 1 && !is_unlimited_ && !make_room(needed))
        return false;
    fprintf(screen_.out, "%s\n", text.c_str());
    return true;
}

// Stops until the line fits; a line larger than the window is shown nevertheless.
bool pager_t::make_room(size_t rows)
{
    if (rows_free_ >= rows) {
        rows_free_ -= rows;
        return true;
    }
    if (!ask())
        return false;
    rows_free_ -= std::min(rows, rows_free_);
    return true;
}

bool pager_t::ask()
{
    fprintf(screen_.out, "%s", PROMPT);
    fflush(screen_.out);
    const key_row_t *found = nullptr;
    while (!found) {
        int key = screen_.key(screen_.data);
        for (const key_row_t &row : keys)
            if (row.key == key)
                found = &row;
    }
    fprintf(screen_.out, "%s", CLEAR_LINE);
    size_t rows = 0;
    size_t columns = 0;
    screen_.size(screen_.data, rows, columns);
    is_over_ = found->answer == answer_t::QUIT;
    is_unlimited_ = found->answer == answer_t::ALL;
    rows_free_ = found->answer == answer_t::PAGE && rows > 1 ? rows - 1 : 1;
    return !is_over_;
}

void pager_t::restart()
{
    *this = pager_t(screen_);
}
