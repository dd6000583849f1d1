// The log of agentd: one line an event, to syslog (ident "agentd", facility daemon) or to standard error; beside it the
// developer log, which an operator switches on.
#ifndef AGENT_SERVER_LOG_H
#define AGENT_SERVER_LOG_H

#include <string>
#include <syslog.h>

enum log_target_t {
    LOG_TARGET_STDERR,
    LOG_TARGET_SYSLOG,
};

inline constexpr int LOG_DEVELOP_OFF = -1;

// Lines before the first call go to standard error.
void agent_log_open(log_target_t target);

// The developer log gets all lines up to the priority: in the file (with the one before it kept as ".1" past 4 MiB), or
// without one where the others go.
void agent_log_develop(int priority, const std::string &path);

// priority is LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_INFO or LOG_DEBUG; debug lines are dropped on standard error,
// unless the developer log asks for them. Control characters from a client are shown as '?', so that one event stays
// one line.
void agent_log(int priority, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

#endif
