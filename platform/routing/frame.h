// The frame of the routing channel: six bytes of header, then a packed protobuf message. Management, notification and
// control sockets all carry it, both ways.
#ifndef PLATFORM_ROUTING_FRAME_H
#define PLATFORM_ROUTING_FRAME_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

inline constexpr size_t FRAME_HEADER_SIZE = 6;
inline constexpr size_t FRAME_MAX_BODY = UINT16_MAX - FRAME_HEADER_SIZE;

struct frame_t {
    uint8_t module = 0;
    uint8_t type = 0;
    uint8_t seq = 0; // the type again, but on the control socket; nothing reads it
    std::string body;
};

enum frame_result_t {
    FRAME_WHOLE,
    FRAME_PART, // more bytes are needed
    FRAME_BAD,  // a length that leaves no room for the header: the stream is lost
};

// Reads the frame that bytes begin with. size, of a whole frame, is what it takes of them.
[[nodiscard]] frame_result_t frame_read(std::string_view bytes, frame_t *frame, size_t *size);

// The bytes of a frame; empty when the body is longer than FRAME_MAX_BODY.
[[nodiscard]] std::string frame_bytes(const frame_t &frame);
// Writes another length into the header of packed bytes.
void frame_set_length(std::string *bytes, uint16_t length);

#endif
