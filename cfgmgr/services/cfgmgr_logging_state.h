// The logs of the device as configured: part of the daemon's one record, and what the files of the log service are made
// of.
#ifndef CFGMGR_SERVICES_CFGMGR_LOGGING_STATE_H
#define CFGMGR_SERVICES_CFGMGR_LOGGING_STATE_H

#include <cstdint>

inline constexpr uint32_t LOGGING_PRIORITY_DEFAULT = 6; // information
inline constexpr uint32_t LOGGING_FILESIZE_DEFAULT = 10;
inline constexpr uint32_t LOGGING_FILEROTATE_DEFAULT = 10;

struct logging_disk_t {
    uint8_t enabled;
    uint32_t priority;   // 0 emergency to 7 debug: what is more urgent or as urgent is logged
    uint32_t filesize;   // MB
    uint32_t filerotate; // files that are kept
};

struct logging_state_t {
    logging_disk_t disk;
};

#endif
