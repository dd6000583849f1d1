// The log of agentd: one line an event, to syslog (ident "agentd", facility daemon) or to standard error.
#ifndef AGENT_SERVER_LOG_H
#define AGENT_SERVER_LOG_H

#include <syslog.h>

enum log_target_t {
    LOG_TARGET_STDERR,
    LOG_TARGET_SYSLOG,
};

// Lines before the first call go to standard error.
void agent_log_open(log_target_t target);

// priority is LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_INFO or LOG_DEBUG; debug lines are dropped on standard error. Control
// characters from a client are shown as '?', so that one event stays one line.
void agent_log(int priority, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

#endif
