// Splitting and quoting of command lines, and the search for words that were meant. See words.h.
#include "agent/cli/words.h"

#include <algorithm>
#include <cctype>

bool cli_fail(cli_error_t &error, std::string text, size_t column)
{
    error.text = std::move(text);
    error.column = column;
    error.status = 0;
    return false;
}

namespace
{

struct splitter_t {
    line_t line;
    std::vector<word_t> command;
    word_t word;

    void end_word()
    {
        if (line.is_in_word)
            command.push_back(std::move(word));
        word = {};
        line.is_in_word = false;
    }
    void end_command()
    {
        end_word();
        if (!command.empty())
            line.commands.push_back(std::move(command));
        command.clear();
    }
    void begin_word(size_t column)
    {
        if (!line.is_in_word)
            word.column = column;
        line.is_in_word = true;
        line.is_at_command = false;
    }
};

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Reads what follows an opening quote; gives the place behind the closing one, or the end.
size_t read_quoted(splitter_t &splitter, std::string_view line, size_t at)
{
    splitter.word.is_quoted = true;
    splitter.line.is_in_quotes = true;
    for (; at < line.size(); at++) {
        if (line[at] == '"') {
            splitter.line.is_in_quotes = false;
            return at + 1;
        }
        bool is_escaped = line[at] == '\\' && at + 1 < line.size();
        at += is_escaped;
        splitter.word.text += is_escaped && line[at] == 'n' ? '\n' : line[at];
    }
    return at;
}

} // namespace

line_t cli_read_line(std::string_view line)
{
    splitter_t splitter;
    size_t at = 0;
    while (at < line.size()) {
        char c = line[at];
        if (c == '#' && !splitter.line.is_in_word)
            break;
        if (is_blank(c)) {
            splitter.end_word();
            at++;
        } else if (c == ';') {
            splitter.end_command();
            splitter.line.is_at_command = true;
            at++;
        } else {
            splitter.begin_word(at);
            if (c == '"') {
                at = read_quoted(splitter, line, at + 1);
            } else {
                splitter.word.text += c;
                at++;
            }
        }
    }
    bool is_in_word = splitter.line.is_in_word;
    splitter.end_command();
    splitter.line.is_in_word = is_in_word;
    return std::move(splitter.line);
}

bool cli_split_line(std::string_view line, line_t &out, cli_error_t &error)
{
    line_t read = cli_read_line(line);
    if (read.is_in_quotes)
        return cli_fail(error, "the quote is not closed", read.commands.back().back().column);
    out = std::move(read);
    return true;
}

std::string cli_quote_word(std::string_view text)
{
    bool is_plain = !text.empty() && text != "|" && text.front() != '#';
    for (char c : text)
        is_plain = is_plain && !is_blank(c) && c != '"' && c != ';' && c != '\\';
    if (is_plain)
        return std::string(text);
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\' || c == '\n')
            out += '\\';
        out += c == '\n' ? 'n' : c;
    }
    return out + '"';
}

namespace
{

struct width_row_t {
    char32_t first;
    char32_t last;
    size_t columns;
};

// What takes other than one column, in order.
constexpr width_row_t widths[] = {
    { 0x300, 0x36f, 0 },     { 0x1100, 0x115f, 2 },   { 0x200b, 0x200f, 0 },   { 0x20d0, 0x20ff, 0 },
    { 0x2e80, 0x303e, 2 },   { 0x3041, 0xa4cf, 2 },   { 0xac00, 0xd7a3, 2 },   { 0xf900, 0xfaff, 2 },
    { 0xfe00, 0xfe0f, 0 },   { 0xfe20, 0xfe2f, 0 },   { 0xfe30, 0xfe6f, 2 },   { 0xff00, 0xff60, 2 },
    { 0xffe0, 0xffe6, 2 },   { 0x1f300, 0x1f64f, 2 }, { 0x1f680, 0x1f6ff, 2 }, { 0x1f900, 0x1f9ff, 2 },
    { 0x20000, 0x3fffd, 2 },
};

size_t columns_of(char32_t c)
{
    for (const width_row_t &row : widths)
        if (c >= row.first && c <= row.last)
            return row.columns;
    return 1;
}

} // namespace

std::string_view cli_take_character(std::string_view &text, char32_t &code)
{
    auto lead = static_cast<unsigned char>(text.front());
    size_t size = lead < 0x80 ? 1 : lead < 0xc2 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf5 ? 4 : 0;
    bool is_good = size != 0 && size <= text.size();
    code = size > 1 ? lead & (0x7f >> size) : lead;
    for (size_t i = 1; is_good && i < size; i++) {
        is_good = (text[i] & 0xc0) == 0x80;
        code = code << 6 | (text[i] & 0x3f);
    }
    if (!is_good) {
        code = CLI_NO_CHARACTER;
        size = 1;
    }
    std::string_view taken = text.substr(0, size);
    text.remove_prefix(size);
    return taken;
}

size_t cli_width(std::string_view text)
{
    size_t width = 0;
    for (char32_t code; !text.empty(); width += columns_of(code))
        (void)cli_take_character(text, code);
    return width;
}

namespace
{

// Letters to insert, delete or replace to get from one word to the other.
size_t distance_of(std::string_view a, std::string_view b)
{
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); j++)
        row[j] = j;
    for (size_t i = 1; i <= a.size(); i++) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); j++) {
            size_t replaced = diagonal + (a[i - 1] != b[j - 1]);
            diagonal = row[j];
            row[j] = std::min({ row[j] + 1, row[j - 1] + 1, replaced });
        }
    }
    return row[b.size()];
}

// The word's letters stand in the candidate in this order, from its first on: a name with letters left out.
bool is_shortened(std::string_view word, std::string_view candidate)
{
    static constexpr size_t SHORTEST = 3;
    if (word.size() < SHORTEST || candidate.empty() || word.front() != candidate.front())
        return false;
    size_t taken = 0;
    for (char c : candidate)
        taken += taken < word.size() && c == word[taken];
    return taken == word.size();
}

} // namespace

std::vector<std::string> cli_near_words(std::string_view word, std::span<const std::string> candidates)
{
    static constexpr size_t MOST = 3;
    static constexpr size_t LONGEST = 64; // longer words are no typing mistakes, and the distance costs their product
    if (word.empty() || word.size() > LONGEST)
        return {};
    std::vector<std::pair<size_t, const std::string *>> ranked;
    size_t limit = word.size() / 3 + 1;
    for (const std::string &candidate : candidates) {
        if (candidate.size() > LONGEST)
            continue;
        size_t distance = candidate.starts_with(word) ? 0 : distance_of(word, candidate);
        if (distance > limit && is_shortened(word, candidate))
            distance = limit;
        if (distance <= limit && distance < candidate.size())
            ranked.emplace_back(distance, &candidate);
    }
    std::stable_sort(ranked.begin(), ranked.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    std::vector<std::string> near;
    for (size_t i = 0; i < ranked.size() && i < MOST; i++)
        near.push_back(*ranked[i].second);
    return near;
}

std::string cli_did_you_mean(std::string_view word, std::span<const std::string> candidates)
{
    std::string text;
    for (const std::string &name : cli_near_words(word, candidates))
        text += (text.empty() ? "; did you mean '" : "' or '") + name;
    return text.empty() ? text : text + "'?";
}
