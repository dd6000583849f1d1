// What stands behind the channel: the daemon proper, as a set of plain functions. The protocol side hands over decoded
// messages and makes frames of what comes back; a backend knows no sockets.
#ifndef PLATFORM_ROUTING_BACKEND_H
#define PLATFORM_ROUTING_BACKEND_H

#include "platform/routing/message_table.h"

#include <string>

struct backend_result_t {
    uint32_t code = 0; // 0: done
    std::string text;  // empty: none
};

struct backend_t {
    void *self; // first argument of all
    backend_result_t (*config)(void *self, const message_row_t &row, const ProtobufCMessage &message);
    backend_result_t (*validate)(void *self, const message_row_t &row, const ProtobufCMessage &message);
    // Packed answer, of the request's own type.
    std::string (*show)(void *self, const message_row_t &row, const ProtobufCMessage &request);
    backend_result_t (*clear)(void *self, const message_row_t &row, const ProtobufCMessage &message);
    backend_result_t (*debug)(void *self, const message_row_t &row, const ProtobufCMessage &message);
};

// A daemon that takes all that it is told, judges what it is asked to, and finds nothing.
[[nodiscard]] backend_t plain_backend();
// The answer to a show request that finds nothing: what is echoed, and no entries.
[[nodiscard]] std::string show_nothing(const ProtobufCMessage &request);

#endif
