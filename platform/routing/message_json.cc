#include "platform/routing/message_json.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace
{

template <typename T> T value_at(const void *place)
{
    T value;
    memcpy(&value, place, sizeof value);
    return value;
}

template <typename T> std::string number_json(const void *place)
{
    return std::to_string(value_at<T>(place));
}

std::string bool_json(const void *place)
{
    return value_at<protobuf_c_boolean>(place) != 0 ? "true" : "false";
}

std::string string_json(const void *place)
{
    const char *text = value_at<const char *>(place);
    return json_text(text != nullptr ? text : "");
}

std::string bytes_json(const void *place)
{
    auto data = value_at<ProtobufCBinaryData>(place);
    std::string text = "\"";
    for (size_t i = 0; i < data.len; i++) {
        char hex[3];
        (void)snprintf(hex, sizeof hex, "%02x", static_cast<unsigned>(data.data[i]));
        text += hex;
    }
    return text + "\"";
}

std::string sub_message_json(const void *place)
{
    return message_json(*value_at<const ProtobufCMessage *>(place));
}

struct type_row_t {
    size_t size; // of one value in a message's record
    std::string (*json)(const void *place);
};

type_row_t type_row(ProtobufCType type)
{
    switch (type) {
    case PROTOBUF_C_TYPE_INT32:
    case PROTOBUF_C_TYPE_SINT32:
    case PROTOBUF_C_TYPE_SFIXED32:
    case PROTOBUF_C_TYPE_ENUM:
        return { sizeof(int32_t), number_json<int32_t> };
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
        return { sizeof(int64_t), number_json<int64_t> };
    case PROTOBUF_C_TYPE_UINT32:
    case PROTOBUF_C_TYPE_FIXED32:
        return { sizeof(uint32_t), number_json<uint32_t> };
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
        return { sizeof(uint64_t), number_json<uint64_t> };
    case PROTOBUF_C_TYPE_FLOAT:
        return { sizeof(float), number_json<float> };
    case PROTOBUF_C_TYPE_DOUBLE:
        return { sizeof(double), number_json<double> };
    case PROTOBUF_C_TYPE_BOOL:
        return { sizeof(protobuf_c_boolean), bool_json };
    case PROTOBUF_C_TYPE_STRING:
        return { sizeof(char *), string_json };
    case PROTOBUF_C_TYPE_BYTES:
        return { sizeof(ProtobufCBinaryData), bytes_json };
    case PROTOBUF_C_TYPE_MESSAGE:
        return { sizeof(ProtobufCMessage *), sub_message_json };
    }
    return { 0, nullptr };
}

bool is_pointer(ProtobufCType type)
{
    return type == PROTOBUF_C_TYPE_STRING || type == PROTOBUF_C_TYPE_MESSAGE;
}

bool is_present(const ProtobufCFieldDescriptor &field, const char *record)
{
    const char *quantifier = record + field.quantifier_offset;
    if (field.label == PROTOBUF_C_LABEL_REPEATED)
        return value_at<size_t>(quantifier) != 0;
    if (is_pointer(field.type))
        return value_at<const void *>(record + field.offset) != nullptr;
    return field.label != PROTOBUF_C_LABEL_OPTIONAL || value_at<protobuf_c_boolean>(quantifier) != 0;
}

std::string list_json(const ProtobufCFieldDescriptor &field, const char *record, const type_row_t &row)
{
    auto count = value_at<size_t>(record + field.quantifier_offset);
    const char *elements = value_at<const char *>(record + field.offset);
    std::string text = "[";
    for (size_t i = 0; i < count; i++)
        text += (i != 0 ? "," : "") + row.json(elements + i * row.size);
    return text + "]";
}

// Length of the character of UTF-8 that text begins with, 0 when there is none.
size_t utf8_length(std::string_view text)
{
    auto first = static_cast<uint8_t>(text[0]);
    size_t length = first < 0x80 ? 1 : first >= 0xc2 && first < 0xe0 ? 2 : (first & 0xf0) == 0xe0 ? 3 : 4;
    if ((length == 4 && (first < 0xf0 || first > 0xf4)) || text.size() < length)
        return 0;
    uint32_t code = length == 1 ? first : first & (0xffU >> (length + 1));
    for (size_t i = 1; i < length; i++) {
        auto byte = static_cast<uint8_t>(text[i]);
        if ((byte & 0xc0) != 0x80)
            return 0;
        code = code << 6 | (byte & 0x3f);
    }
    bool is_overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    bool is_no_character = (code >= 0xd800 && code < 0xe000) || code > 0x10ffff;
    return is_overlong || is_no_character ? 0 : length;
}

} // namespace

std::string json_text(std::string_view text)
{
    std::string out = "\"";
    while (!text.empty()) {
        size_t length = utf8_length(text);
        auto first = static_cast<uint8_t>(text[0]);
        char escape[8];
        (void)snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(first));
        bool is_plain = length > 1 || (length == 1 && first >= 0x20 && first != '"' && first != '\\');
        out += is_plain ? std::string(text.substr(0, length)) : escape;
        text.remove_prefix(length > 1 ? length : 1);
    }
    return out + "\"";
}

std::string message_json(const ProtobufCMessage &message)
{
    const ProtobufCMessageDescriptor &descriptor = *message.descriptor;
    const char *record = reinterpret_cast<const char *>(&message);
    std::string text = "{";
    for (unsigned i = 0; i < descriptor.n_fields; i++) {
        const ProtobufCFieldDescriptor &field = descriptor.fields[i];
        type_row_t row = type_row(field.type);
        if (row.json == nullptr || !is_present(field, record))
            continue;
        bool is_list = field.label == PROTOBUF_C_LABEL_REPEATED;
        text += (text.size() > 1 ? "," : "") + json_text(field.name) + ":";
        text += is_list ? list_json(field, record, row) : row.json(record + field.offset);
    }
    return text + "}";
}
