#include "agent/server/log.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>

static constexpr size_t LINE_SIZE = 1024; // a longer line is cut

static log_target_t target_in_use = LOG_TARGET_STDERR;

void agent_log_open(log_target_t target)
{
    target_in_use = target;
    if (target == LOG_TARGET_SYSLOG)
        openlog("agentd", LOG_PID | LOG_NDELAY, LOG_DAEMON);
}

static void hide_control_characters(char *line)
{
    for (; *line; line++) {
        auto byte = static_cast<unsigned char>(*line);
        if (byte < ' ' || byte == 0x7f)
            *line = '?';
    }
}

static void print_line(const char *line)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    if (strftime(stamp, sizeof stamp, "%F %T", &local) == 0)
        stamp[0] = 0;
    fprintf(stderr, "%s.%03ld agentd: %s\n", stamp, now.tv_nsec / 1000000, line);
}

void agent_log(int priority, const char *fmt, ...)
{
    if (target_in_use == LOG_TARGET_STDERR && priority == LOG_DEBUG)
        return;
    char line[LINE_SIZE];
    va_list args;
    va_start(args, fmt);
    (void)vsnprintf(line, sizeof line, fmt, args); // a long line may be cut
    va_end(args);
    hide_control_characters(line);
    if (target_in_use == LOG_TARGET_SYSLOG)
        syslog(priority, "%s", line);
    else
        print_line(line);
}
