#include "common/tip_log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace
{

constexpr int EVENT_SEVERITY = 6;
char host_name[TIP_HOSTNAME_SIZE];

} // namespace

void tip_hostname_init()
{
    if (gethostname(host_name, sizeof host_name) != 0)
        (void)snprintf(host_name, sizeof host_name, "%s", "tDevice");
    host_name[sizeof host_name - 1] = '\0';
}

const char *tip_hostname()
{
    return host_name;
}

void tip_syslog_event(const char *process, int id, const char *fmt, ...)
{
    char text[4096];
    va_list args;
    va_start(args, fmt);
    (void)vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    syslog(LOG_LOCAL7 | LOG_INFO, "%%Corvane-%s-%s-%d-%s-%d: %s", host_name, process, EVENT_SEVERITY, "INFO", id, text);
}
