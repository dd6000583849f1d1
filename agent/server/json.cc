#include "agent/server/json.h"

#include <cstdio>

// RFC 8259, section 7: what must not stand bare in a string.
void json_writer_t::quote(std::string_view value)
{
    bytes += '"';
    for (char c : value) {
        auto byte = static_cast<unsigned char>(c);
        if (byte < ' ') {
            char escape[8];
            snprintf(escape, sizeof escape, "\\u%04x", byte);
            bytes += escape;
            continue;
        }
        if (c == '"' || c == '\\')
            bytes += '\\';
        bytes += c;
    }
    bytes += '"';
}

void json_writer_t::begin_item(std::string_view name)
{
    if (!bytes.empty() && bytes.back() != '{' && bytes.back() != '[')
        bytes += ',';
    if (name.empty())
        return;
    quote(name);
    bytes += ':';
}

void json_writer_t::open(std::string_view name, char bracket)
{
    begin_item(name);
    bytes += bracket;
}

void json_writer_t::number(std::string_view name, uint64_t value)
{
    begin_item(name);
    bytes += std::to_string(value);
}

void json_writer_t::real(std::string_view name, double value)
{
    begin_item(name);
    char digits[32];
    snprintf(digits, sizeof digits, "%.6g", value);
    bytes += digits;
}

void json_writer_t::text(std::string_view name, std::string_view value)
{
    begin_item(name);
    quote(value);
}

void json_writer_t::text(std::string_view value)
{
    begin_item({});
    quote(value);
}
