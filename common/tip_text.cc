// Texts, dumps and the bounded copy.
#include "common/tip_text.h"

#include "common/tip_log.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace
{

constexpr size_t DUMP_LINE_BYTES = 16;
constexpr size_t DUMP_LINE_SIZE = 80;

bool is_space(char c)
{
    return isspace(static_cast<unsigned char>(c)) != 0;
}

char printable(uint8_t byte)
{
    return byte >= 32 && byte <= 126 ? static_cast<char>(byte) : '.';
}

// One line for count bytes, 1..16, at offset.
int dump_line(const uint8_t *bytes, size_t offset, size_t count, char *line)
{
    char hex[DUMP_LINE_SIZE];
    char text[DUMP_LINE_BYTES + 1] = {};
    int used = snprintf(hex, sizeof hex, "%04x ", static_cast<unsigned>(offset));
    for (size_t i = 0; i < DUMP_LINE_BYTES; i++) {
        char *at = hex + used;
        size_t left = sizeof hex - static_cast<size_t>(used);
        used += i < count ? snprintf(at, left, " %02x", bytes[offset + i]) : snprintf(at, left, "   ");
        if (i < count)
            text[i] = printable(bytes[offset + i]);
    }
    return snprintf(line, DUMP_LINE_SIZE * 2, "  %s  %s\n", hex, text);
}

} // namespace

#if defined(__GLIBC__) && !__GLIBC_PREREQ(2, 38)
extern "C" size_t strlcpy(char *to, const char *source, size_t size) noexcept
{
    size_t length = strlen(source);
    if (size > 0) {
        size_t copied = std::min(length, size - 1);
        memcpy(to, source, copied);
        to[copied] = '\0';
    }
    return length;
}
#endif

uint8_t *mac_from_str(const char *text, uint8_t *mac)
{
    uint8_t parsed[MAC_BYTES];
    for (size_t i = 0; i < MAC_BYTES; i++) {
        char *end;
        parsed[i] = static_cast<uint8_t>(strtoul(text, &end, 16));
        if (end == text || (i + 1 < MAC_BYTES && *end != ':'))
            return nullptr;
        text = end + 1;
    }
    memcpy(mac, parsed, sizeof parsed);
    return mac;
}

char *mac_to_str(const uint8_t *mac, char *buffer, size_t size)
{
    (void)snprintf(buffer, size, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return buffer;
}

char *mac_to_text(const uint8_t *mac, char *buffer)
{
    return mac_to_str(mac, buffer, MAC_TEXT_SIZE);
}

const char *bool_str(bool value)
{
    return value ? "True" : "False";
}

char *proto_str(unsigned number, char *buffer, size_t size)
{
    if (number == 6)
        (void)strlcpy(buffer, "TCP", size);
    else if (number == 17)
        (void)strlcpy(buffer, "UDP", size);
    else
        (void)snprintf(buffer, size, "%u", number);
    return buffer;
}

void str_upper(char *text)
{
    for (; *text != '\0'; text++)
        if (*text >= 'a' && *text <= 'z')
            *text = static_cast<char>(*text - 'a' + 'A');
}

void str_first_word(const char *in, size_t in_len, char *out, size_t out_size)
{
    if (in == nullptr || in_len == 0 || out == nullptr || out_size == 0)
        return;
    memset(out, 0, out_size);
    const char *end = in + strnlen(in, in_len);
    const char *word = std::find_if_not(in, end, is_space);
    const char *word_end = std::find_if(word, end, is_space);
    memcpy(out, word, std::min(static_cast<size_t>(word_end - word), out_size - 1));
}

void hex_dump(const void *bytes, size_t length)
{
    char text[HEX_DUMP_SIZE];
    (void)hex_dump_to_buffer(bytes, length, text, sizeof text);
    tip_log("%s", text);
}

size_t hex_dump_to_buffer(const void *bytes, size_t length, char *buffer, size_t size)
{
    size_t used = 0;
    if (size > 0)
        buffer[0] = '\0';
    for (size_t offset = 0; offset < length; offset += DUMP_LINE_BYTES) {
        char line[DUMP_LINE_SIZE * 2];
        auto count = std::min(DUMP_LINE_BYTES, length - offset);
        auto line_length = static_cast<size_t>(dump_line(static_cast<const uint8_t *>(bytes), offset, count, line));
        if (used + line_length >= size)
            break;
        memcpy(buffer + used, line, line_length + 1);
        used += line_length;
    }
    return used;
}

uint64_t round_down_pow2(uint64_t value)
{
    return std::bit_floor(value);
}

uint64_t percent_increase(uint32_t before, uint32_t now)
{
    return before > 0 && before < now ? uint64_t{ now - before } * 100 / before : 0;
}
