// A decoded message as one JSON object: fields by name in the order of the definition, those that are absent left out.
#ifndef PLATFORM_ROUTING_MESSAGE_JSON_H
#define PLATFORM_ROUTING_MESSAGE_JSON_H

#include <protobuf-c/protobuf-c.h>
#include <string>
#include <string_view>

// Numbers and enumerations as numbers, bytes as hexadecimal text, repeated fields as lists (absent when empty).
[[nodiscard]] std::string message_json(const ProtobufCMessage &message);
// Text in quotes; what is not valid UTF-8 is taken for Latin-1.
[[nodiscard]] std::string json_text(std::string_view text);

#endif
