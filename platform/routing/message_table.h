// What the three daemons understand: a row per daemon, and a row per message that may come to it.
#ifndef PLATFORM_ROUTING_MESSAGE_TABLE_H
#define PLATFORM_ROUTING_MESSAGE_TABLE_H

#include "platform/routing/frame.h"

#include <memory>
#include <protobuf-c/protobuf-c.h>
#include <string_view>

enum message_kind_t : uint8_t {
    MESSAGE_CONFIG,   // answered by a response of a type of its own
    MESSAGE_VALIDATE, // the same
    MESSAGE_SHOW,     // answered by the message's own type
    MESSAGE_CLEAR,    // the same, with code and message filled in
    MESSAGE_DEBUG,    // the same
    MESSAGE_CONTROL,  // on the control socket only, without an answer of its own
    NUM_MESSAGE_KINDS
};

struct message_row_t {
    uint8_t module; // on the wire
    uint8_t type;
    uint8_t answer_type;
    message_kind_t kind;
    const ProtobufCMessageDescriptor *descriptor;
};

struct daemon_row_t {
    const char *name;
    uint8_t module;        // on the wire
    uint8_t notify_type;   // of the notifications that it sends
    const char *mgmt_path; // sockets of VPN 0; those of others have ".VPN" behind it
    const char *notify_path;
    const char *control_path; // null: none
};

struct message_freer {
    void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, nullptr); }
};
using message_ptr = std::unique_ptr<ProtobufCMessage, message_freer>;

// Null for a name that is none.
[[nodiscard]] const daemon_row_t *daemon_row_find(std::string_view name);
// Null when no such message may come to the module.
[[nodiscard]] const message_row_t *message_row_find(uint8_t module, uint8_t type);

// The message in the body of a frame of that row; null when the body is none.
[[nodiscard]] message_ptr message_unpack(const message_row_t &row, std::string_view body);
[[nodiscard]] std::string message_pack(const ProtobufCMessage &message);

#endif
