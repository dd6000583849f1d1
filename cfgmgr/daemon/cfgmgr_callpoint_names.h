// The callpoints of programs that do not run on every device, in groups that come and go together.
#ifndef CFGMGR_DAEMON_CFGMGR_CALLPOINT_NAMES_H
#define CFGMGR_DAEMON_CFGMGR_CALLPOINT_NAMES_H

#include <cstdint>
#include <span>

// In order of registration.
enum callpoint_group_t : uint8_t {
    CALLPOINTS_WWAN = 0, // modem
    CALLPOINTS_WLAN = 1, // wireless access points
    CALLPOINTS_GENERAL = 2,
    CALLPOINTS_OVERLAY = 3,
    CALLPOINT_GROUPS
};
[[nodiscard]] std::span<const char *const> cfgmgr_callpoint_names(callpoint_group_t group);

#endif
