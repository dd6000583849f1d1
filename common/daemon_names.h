// The platform's daemons and the small numbers by which they know each other.
//
// A peer id names one end of a message-queue connection and the daemon in every log line and default path that is
// made from it. Ids are fixed for the whole platform: 0 is "unknown", 1 to 32 are single daemons, the rest are
// numbered instances of two kinds.
#ifndef COMMON_DAEMON_NAMES_H
#define COMMON_DAEMON_NAMES_H

#include <cstdint>

enum daemon_id_t : uint32_t {
    DAEMON_ID_UNKNOWN = 0,
    DAEMON_ID_CFGMGR = 5,
    DAEMON_ID_CHMGRD = 6,
    DAEMON_ID_SYSMGRD = 7,
    DAEMON_ID_ZEBRA = 29,
    DAEMON_ID_OSPFD = 30,
    DAEMON_ID_BGPD = 31,
    DAEMON_ID_TDAEMON_FIRST = 33,
    DAEMON_ID_ORBEL_FIRST = 97,
    DAEMON_ID_MAX = 160,
};

// The name of id, 0 to DAEMON_ID_MAX; a larger id fails an assertion.
[[nodiscard]] const char *daemon_id_to_name(uint32_t id);

// The id whose name is equal to name without regard to case, DAEMON_ID_UNKNOWN when there is none.
[[nodiscard]] uint32_t daemon_name_to_id(const char *name);

#endif
