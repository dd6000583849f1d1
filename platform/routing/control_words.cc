#include "platform/routing/control_words.h"

#include "common/tip_log.h"

#include <charconv>

namespace
{

constexpr uint32_t MS_PER_S = 1000;
constexpr uint32_t MAX_STALL_S = 86400;

std::string_view trimmed(std::string_view text)
{
    size_t first = text.find_first_not_of(" \t\r");
    size_t last = text.find_last_not_of(" \t\r");
    return first == std::string_view::npos ? "" : text.substr(first, last - first + 1);
}

std::string_view word_take(std::string_view *text)
{
    size_t end = text->find_first_of(" \t");
    std::string_view word = text->substr(0, end);
    *text = end == std::string_view::npos ? "" : trimmed(text->substr(end));
    return word;
}

bool number_read(std::string_view text, uint32_t max, uint32_t *number)
{
    auto result = std::from_chars(text.data(), text.data() + text.size(), *number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() && *number <= max;
}

// ---- what stands behind a word

bool take_nothing(std::string_view rest, control_line_t *)
{
    return rest.empty();
}

bool take_refusal(std::string_view rest, control_line_t *line)
{
    bool is_number = number_read(word_take(&rest), UINT32_MAX, &line->number);
    line->text = rest;
    return is_number;
}

bool take_body(std::string_view rest, control_line_t *line)
{
    line->is_file = !hex_to_bytes(rest, &line->text);
    if (line->is_file)
        line->text = rest;
    return !rest.empty();
}

bool take_bytes(std::string_view rest, control_line_t *line)
{
    return hex_to_bytes(rest, &line->text);
}

// "2", "0.25"
bool take_seconds(std::string_view rest, control_line_t *line)
{
    if (rest == "forever") {
        line->number = CONTROL_FOREVER;
        return true;
    }
    size_t point = rest.find('.');
    std::string decimals(point == std::string_view::npos ? "" : rest.substr(point + 1));
    uint32_t seconds = 0, ms = 0;
    bool is_fraction = point == std::string_view::npos || (!decimals.empty() && decimals.size() <= 3);
    decimals.resize(3, '0');
    if (!is_fraction || !number_read(rest.substr(0, point), MAX_STALL_S, &seconds) ||
        !number_read(decimals, MS_PER_S - 1, &ms))
        return false;
    line->number = seconds * MS_PER_S + ms;
    return true;
}

bool take_ms(std::string_view rest, control_line_t *line)
{
    return number_read(rest, MAX_STALL_S * MS_PER_S, &line->number);
}

// Without a number the one of the word's row stays.
bool take_wrong(std::string_view rest, control_line_t *line)
{
    uint32_t max = line->word == CONTROL_WRONG_SIZE ? UINT16_MAX : UINT8_MAX;
    return rest.empty() || number_read(rest, max, &line->number);
}

struct word_row_t {
    const char *word;
    bool (*take)(std::string_view rest, control_line_t *line);
    uint32_t number; // at first
};
constexpr word_row_t word_rows[NUM_CONTROL_WORDS] = {
    { "refuse", take_refusal, 0 },   { "invalid", take_refusal, 0 },    { "show-reply", take_body, 0 },
    { "stall", take_seconds, 0 },    { "die", take_nothing, 0 },        { "close", take_nothing, 0 },
    { "wrong-size", take_wrong, 5 }, { "wrong-module", take_wrong, 9 }, { "wrong-type", take_wrong, 200 },
    { "late", take_ms, 0 },          { "notify", take_bytes, 0 },
};

bool line_read(std::string_view rest, control_line_t *line)
{
    std::string_view word = word_take(&rest);
    if (word == "for") {
        uint32_t type = 0;
        if (!number_read(word_take(&rest), UINT8_MAX, &type))
            return false;
        line->type = static_cast<int>(type);
        word = word_take(&rest);
    }
    for (size_t i = 0; i < NUM_CONTROL_WORDS; i++) {
        if (word != word_rows[i].word)
            continue;
        line->word = static_cast<control_word_t>(i);
        line->number = word_rows[i].number;
        return word_rows[i].take(rest, line);
    }
    return false;
}

int digit_of(char c)
{
    uint8_t value = 0;
    auto result = std::from_chars(&c, &c + 1, value, 16);
    return result.ec == std::errc() ? value : -1;
}

} // namespace

std::vector<control_line_t> control_parse(std::string_view text)
{
    std::vector<control_line_t> lines;
    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view line_text = trimmed(text.substr(0, end));
        text = end == std::string_view::npos ? "" : text.substr(end + 1);
        control_line_t line{};
        line.type = CONTROL_ANY_TYPE;
        if (line_text.empty() || line_text[0] == '#')
            continue;
        if (line_read(line_text, &line))
            lines.push_back(line);
        else
            tip_log("Control line not understood: %.*s", static_cast<int>(line_text.size()), line_text.data());
    }
    return lines;
}

const control_line_t *control_find(const std::vector<control_line_t> &lines, control_word_t word, uint8_t type)
{
    for (const control_line_t &line : lines) {
        if (line.word == word && (line.type == CONTROL_ANY_TYPE || line.type == type))
            return &line;
    }
    return nullptr;
}

bool hex_to_bytes(std::string_view text, std::string *bytes)
{
    if (text.empty() || text.size() % 2 != 0)
        return false;
    std::string out;
    for (size_t i = 0; i < text.size(); i += 2) {
        int high = digit_of(text[i]), low = digit_of(text[i + 1]);
        if (high < 0 || low < 0)
            return false;
        out += static_cast<char>(high << 4 | low);
    }
    *bytes = out;
    return true;
}
