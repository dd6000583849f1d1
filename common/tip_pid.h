// Pid files: those of the platform's daemons, "NAME.INSTANCE.pid", and those of routing daemons, "NAME.pid" with the VPN
// behind it.
#ifndef COMMON_TIP_PID_H
#define COMMON_TIP_PID_H

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

enum daemon_pid_result_t {
    DAEMON_PID_OK = 0,
    DAEMON_PID_FAILED = -1,
    DAEMON_PID_EXISTS = -2, // another instance's file is there
};

// Writes the pid file of instance id of a daemon; one of DAEMON_PID_*.
[[nodiscard]] int daemon_pid_file_create(const char *name, uint64_t id, pid_t pid);
void daemon_pid_file_remove(const char *name, uint64_t id);
// The pid in the file, 0 when no number stands in it (the file's being there still means an instance), -1 when it cannot
// be read; *error, unless error is null, is then errno.
[[nodiscard]] pid_t daemon_pid_read(const char *name, uint64_t id, int *error);

// Where a routing daemon of a VPN keeps its pid; gives buffer.
const char *quagga_pid_path(const char *name, uint64_t vpn_id, char *buffer, size_t size);
// The pid in a file that must exist (assertion), 0 when no number stands in it.
[[nodiscard]] pid_t quagga_pid_read(const char *name, uint64_t vpn_id);
// 0 or -1, with errno.
int quagga_pid_remove(const char *name, uint64_t vpn_id);

#endif
