#include "platform/routing/frame.h"

namespace
{

enum header_offset_t {
    LENGTH_HIGH, // big-endian, of the whole frame
    LENGTH_LOW,
    MODULE,
    TYPE,
    SEQ,
};

uint8_t byte_at(std::string_view bytes, size_t offset)
{
    return static_cast<uint8_t>(bytes[offset]);
}

} // namespace

frame_result_t frame_read(std::string_view bytes, frame_t *frame, size_t *size)
{
    if (bytes.size() < FRAME_HEADER_SIZE)
        return FRAME_PART;
    size_t length = static_cast<size_t>(byte_at(bytes, LENGTH_HIGH) << 8 | byte_at(bytes, LENGTH_LOW));
    if (length < FRAME_HEADER_SIZE)
        return FRAME_BAD;
    if (bytes.size() < length)
        return FRAME_PART;
    frame->module = byte_at(bytes, MODULE);
    frame->type = byte_at(bytes, TYPE);
    frame->seq = byte_at(bytes, SEQ);
    frame->body = bytes.substr(FRAME_HEADER_SIZE, length - FRAME_HEADER_SIZE);
    *size = length;
    return FRAME_WHOLE;
}

std::string frame_bytes(const frame_t &frame)
{
    if (frame.body.size() > FRAME_MAX_BODY)
        return {};
    std::string bytes(FRAME_HEADER_SIZE, '\0');
    bytes[MODULE] = static_cast<char>(frame.module);
    bytes[TYPE] = static_cast<char>(frame.type);
    bytes[SEQ] = static_cast<char>(frame.seq);
    bytes += frame.body;
    frame_set_length(&bytes, static_cast<uint16_t>(bytes.size()));
    return bytes;
}

void frame_set_length(std::string *bytes, uint16_t length)
{
    (*bytes)[LENGTH_HIGH] = static_cast<char>(length >> 8);
    (*bytes)[LENGTH_LOW] = static_cast<char>(length);
}
