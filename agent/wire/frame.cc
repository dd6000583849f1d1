// Frames, the bounded reader, the hash of names and the quoting of keys.
#include "agent/wire/wire.h"

#include <cstring>

std::string_view wire_reader_t::raw(size_t size)
{
    if (!ok || size > left) {
        ok = false;
        left = 0;
        return {};
    }
    std::string_view bytes(next, size);
    next += size;
    left -= size;
    return bytes;
}

uint32_t wire_reader_t::count(size_t item_size)
{
    uint32_t n = u32();
    if (n > left / item_size) {
        ok = false;
        left = 0;
        return 0;
    }
    return n;
}

std::string wire_frame(uint16_t op, uint16_t status, uint32_t id, std::string_view payload)
{
    wire_header_t header = { static_cast<uint32_t>(payload.size()), op, status, id };
    std::string frame;
    frame.reserve(sizeof header + payload.size());
    frame.append(reinterpret_cast<const char *>(&header), sizeof header);
    frame.append(payload);
    return frame;
}

wire_header_t wire_parse_header(const char *bytes)
{
    wire_header_t header;
    memcpy(&header, bytes, sizeof header);
    return header;
}

uint32_t wire_hash(std::string_view name)
{
    constexpr uint32_t OFFSET_BASIS = 2166136261u;
    constexpr uint32_t PRIME = 16777619u;
    uint32_t hash = OFFSET_BASIS;
    for (char c : name)
        hash = (hash ^ static_cast<uint8_t>(c)) * PRIME;
    return hash != 0 ? hash : 1;
}

// Backslashes and control characters are quoted too, so that a reader may treat them as it likes outside of quotes.
static bool is_plain_key_char(char c)
{
    return static_cast<unsigned char>(c) > ' ' && c != 0x7f && strchr("{}\"'\\", c) == nullptr;
}

std::string wire_quote_key(std::string_view key)
{
    bool is_plain = !key.empty();
    for (char c : key)
        is_plain = is_plain && is_plain_key_char(c);
    if (is_plain)
        return std::string(key);

    std::string quoted = "\"";
    for (char c : key) {
        if (c == '"' || c == '\\')
            quoted += '\\';
        quoted += c;
    }
    quoted += '"';
    return quoted;
}
