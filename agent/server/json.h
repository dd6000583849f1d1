// Writes one JSON text, member by member. The caller keeps begin and end in step.
#ifndef AGENT_SERVER_JSON_H
#define AGENT_SERVER_JSON_H

#include <cstdint>
#include <string>
#include <string_view>

struct json_writer_t {
    std::string bytes;

    void begin_object(std::string_view name = {}) { open(name, '{'); }
    void end_object() { bytes += '}'; }
    void begin_list(std::string_view name = {}) { open(name, '['); }
    void end_list() { bytes += ']'; }
    void number(std::string_view name, uint64_t value);
    void real(std::string_view name, double value);
    void text(std::string_view name, std::string_view value);
    void text(std::string_view value); // an item of a list

private:
    void open(std::string_view name, char bracket);
    void begin_item(std::string_view name);
    void quote(std::string_view value);
};

#endif
