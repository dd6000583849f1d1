// How people who log in are looked up: part of the daemon's one record, and what the files of the login service are
// made of. Handlers of configuration write it; the flags that the files are out of date stand in the record itself.
#ifndef CFGMGR_SERVICES_CFGMGR_AUTH_STATE_H
#define CFGMGR_SERVICES_CFGMGR_AUTH_STATE_H

#include <cstddef>
#include <cstdint>

inline constexpr size_t AUTH_ORDER_MAX = 3;  // methods, as the model limits them
inline constexpr size_t RADIUS_TAGS_MAX = 8; // likewise
inline constexpr size_t RADIUS_TAG_SIZE = 33;

inline constexpr uint16_t RADIUS_TIMEOUT_DEFAULT = 5; // seconds
inline constexpr uint16_t RADIUS_RETRANSMIT_DEFAULT = 3;
inline constexpr uint16_t TACACS_TIMEOUT_DEFAULT = 5; // seconds

struct radius_state_t {
    uint16_t timeout;                            // seconds
    uint16_t retransmit;                         // times
    uint8_t tag_count;                           // 0: logins use the servers without a tag
    char tags[RADIUS_TAGS_MAX][RADIUS_TAG_SIZE]; // of the servers that logins use, in order
};

struct tacacs_state_t {
    uint16_t timeout;       // seconds
    uint8_t authentication; // 0: the server asks for the password, 1: PAP
};

struct auth_state_t {
    uint8_t auth_order[AUTH_ORDER_MAX]; // methods: 0 local, 1 RADIUS, 2 TACACS+
    uint8_t auth_count;                 // of these
    uint8_t auth_fallback;              // 1: a refusal of one method asks the next
    uint8_t admin_remote_auth;          // 1: user admin is looked up at the servers too
};

#endif
