// Messages between the daemons and the system manager, inside a message-queue frame. Host byte order; bytes without a
// name are zero.
#ifndef COMMON_SYSMGR_MSG_H
#define COMMON_SYSMGR_MSG_H

#include <cstddef>
#include <cstdint>

inline constexpr uint8_t SYSMGR_MSG_VERSION = 1;

enum sysmgr_msg_type_t : uint8_t {
    SYSMGR_MSG_HELLO = 1,        // to the manager: the sender lives
    SYSMGR_MSG_TEXT = 2,         // to the manager: text
    SYSMGR_MSG_TEXT_2 = 3,       // to the manager: text
    SYSMGR_MSG_FROM_MANAGER = 4, // from the manager
    SYSMGR_MSG_VPN_ADD = 5,      // to the manager: value is a VPN that is being added
    SYSMGR_MSG_VPN_DEL = 6,      // to the manager: value is a VPN that is being removed
    SYSMGR_MSG_AGENT_READY = 7,  // to the manager: the agent's startup transaction is done
};

struct sysmgr_msg_t {
    uint8_t version; // SYSMGR_MSG_VERSION
    uint8_t type;    // sysmgr_msg_type_t
    uint16_t size;   // of the whole: 32 without text, else the length of the text plus 33
    uint32_t unused1;
    uint32_t pid; // the sender's
    uint32_t unused2[3];
    uint64_t value;
    // A NUL-terminated text follows in messages with text.
};
static_assert(sizeof(sysmgr_msg_t) == 32 && offsetof(sysmgr_msg_t, pid) == 8 && offsetof(sysmgr_msg_t, value) == 24);

#endif
