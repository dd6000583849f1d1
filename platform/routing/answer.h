// From a request to its one answer: what the backend says, as the control lines bend it, as the bytes of a frame.
#ifndef PLATFORM_ROUTING_ANSWER_H
#define PLATFORM_ROUTING_ANSWER_H

#include "platform/routing/backend.h"
#include "platform/routing/control_words.h"

struct answer_t {
    bool is_death = false; // the process is to end
    bool is_close = false; // the connection is to be closed
    uint32_t delay_ms = 0; // CONTROL_FOREVER: never
    std::string bytes;     // of the frame
};

// shows is the number of show requests answered since the lines changed; this one is counted.
[[nodiscard]] answer_t answer_make(const backend_t &backend, const std::vector<control_line_t> &lines, size_t *shows,
                                   const message_row_t &row, const ProtobufCMessage &message);

#endif
