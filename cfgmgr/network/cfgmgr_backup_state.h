// Where copies of the configuration go, and how often: part of the daemon's one record. The thread that makes a copy
// reads it while the main thread may change it, which can give one copy a wrong name and nothing worse: each text ends
// within its width at any moment.
#ifndef CFGMGR_NETWORK_CFGMGR_BACKUP_STATE_H
#define CFGMGR_NETWORK_CFGMGR_BACKUP_STATE_H

#include <cstddef>
#include <cstdint>

inline constexpr size_t ARCHIVE_TEXT_SIZE = 253;
inline constexpr uint32_t ARCHIVE_INTERVAL_DEFAULT_MS = 604800000; // seven days
inline constexpr uint64_t ARCHIVE_VPN_NONE = 65535;
inline constexpr char ARCHIVE_SSH_ID_FILE_DEFAULT[] = "/etc/corvane/.ssh/archive_id_rsa";
inline constexpr char ARCHIVE_DISABLED[] = "Disabled";

struct backup_state_t {
    char archive_path[ARCHIVE_TEXT_SIZE]; // each copy gets the time behind it; empty: none
    char archive_ssh_id_file[ARCHIVE_TEXT_SIZE];
    char archive_last_time[ARCHIVE_TEXT_SIZE]; // of the last copy that was made, or ARCHIVE_DISABLED
    uint32_t archive_interval_ms;
    uint64_t archive_vpn; // in which the destination is reached; ARCHIVE_VPN_NONE: as the routes tell
};

#endif
