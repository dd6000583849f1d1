#include "cfgmgr/routing/cfgmgr_as_number.h"

#include "common/tip_log.h"
#include "common/tip_text.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>

namespace
{

constexpr unsigned HALF_BITS = 16;
constexpr uint32_t HALF_END = 1U << HALF_BITS;

// One or two numbers at the beginning of a text.
struct halves_t {
    int count = 0;
    uint32_t first = 0;
    uint32_t second = 0;
    bool has_rest = false; // something else stands behind them
};

halves_t parse_halves(std::string_view text)
{
    halves_t halves;
    const char *end = text.data() + text.size();
    auto first = std::from_chars(text.data(), end, halves.first);
    if (first.ec != std::errc())
        return halves;
    halves.count = 1;
    halves.has_rest = first.ptr != end;
    if (first.ptr == end || *first.ptr != '.')
        return halves;
    auto second = std::from_chars(first.ptr + 1, end, halves.second);
    if (second.ec == std::errc::result_out_of_range)
        halves.second = UINT32_MAX; // still a number, which is no half
    halves.count += second.ec == std::errc::invalid_argument ? 0 : 1;
    halves.has_rest = halves.count < 2 || second.ptr != end;
    return halves;
}

// 0 for a token that is no AS number.
uint32_t convert_token(std::string_view token)
{
    halves_t halves = parse_halves(token);
    if (halves.has_rest)
        return 0; // it would be lost
    if (halves.count < 2)
        return halves.count == 0 ? 0 : halves.first;
    bool is_in_range = halves.first < HALF_END && halves.second < HALF_END;
    return is_in_range ? halves.first << HALF_BITS | halves.second : 0;
}

// The next token of text, which is cut off; empty behind the last.
std::string_view next_token(std::string_view *text)
{
    text->remove_prefix(std::min(text->find_first_not_of(' '), text->size()));
    std::string_view token = text->substr(0, text->find(' '));
    text->remove_prefix(token.size());
    return token;
}

} // namespace

uint32_t cfgmgr_as_number(std::string_view text)
{
    halves_t halves = parse_halves(text);
    return halves.count == 2 ? halves.first << HALF_BITS | halves.second : halves.first;
}

bool cfgmgr_convert_as_prepend_str(const char *text, char *out, size_t size)
{
    char copy[AS_LIST_SIZE];
    if (strlcpy(copy, text, sizeof copy) >= sizeof copy || strpbrk(copy, "+-") != nullptr)
        return false;
    size_t written = 0;
    std::string_view rest = copy;
    for (std::string_view token = next_token(&rest); !token.empty(); token = next_token(&rest)) {
        uint32_t number = convert_token(token);
        if (number == 0) {
            tip_log("non-integer value: %s \n", std::string(token).c_str());
            return false;
        }
        written += static_cast<size_t>(snprintf(out + written, size - written, "%u ", number));
        if (written >= size)
            return false;
    }
    return written != 0;
}
