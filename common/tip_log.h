// The system's log lines. Everything goes to syslog; the ident is the process's own (openlog in main).
//
// Normal lines are local7.debug in the form "FUNCTION[LINE]: TEXT". Operational milestones are local7.info in a
// structured form with host name, process name, severity and a message id.
#ifndef COMMON_TIP_LOG_H
#define COMMON_TIP_LOG_H

#include <cstddef>
#include <syslog.h>

enum {
    TIP_EVENT_START = 300001,
    TIP_EVENT_TERMINATE = 399999,
    TIP_EVENT_NOTIFICATION = 1400002,
};

inline constexpr size_t TIP_HOSTNAME_SIZE = 128;

// fmt is a string literal; the prefix is joined to it, so that the compiler checks the whole.
#define tip_log(fmt, ...) syslog(LOG_LOCAL7 | LOG_DEBUG, "%s[%d]: " fmt, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

// As tip_log with a facility of the caller's.
#define tip_log_to(facility, fmt, ...)                                                                                 \
    syslog((facility) | LOG_DEBUG, "%s[%d]: " fmt, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

// Fills the process-wide host name of structured lines from gethostname(2); "tDevice" when that fails.
void tip_hostname_init();
[[nodiscard]] const char *tip_hostname();

// One structured line: process is the daemon's display name, id one of TIP_EVENT_*.
void tip_syslog_event(const char *process, int id, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

#endif
