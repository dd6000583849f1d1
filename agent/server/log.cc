#include "agent/server/log.h"

#include "agent/server/handle.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>

static constexpr size_t LINE_SIZE = 1024;           // a longer line is cut
static constexpr off_t MAX_DEVELOP_BYTES = 4 << 20; // of the developer log's file

static log_target_t target_in_use = LOG_TARGET_STDERR;

struct develop_log_t {
    int priority = LOG_DEVELOP_OFF;
    std::string path; // empty: with the others
    owned_fd fd;
};
static develop_log_t develop;

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

static std::string stamped(const char *line)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    if (strftime(stamp, sizeof stamp, "%F %T", &local) == 0)
        stamp[0] = 0;
    char all[LINE_SIZE + 64];
    (void)snprintf(all, sizeof all, "%s.%03ld agentd: %s\n", stamp, now.tv_nsec / 1000000, line); // all fits
    return all;
}

// ---- the developer log

static void open_develop_file()
{
    develop.fd = owned_fd();
    if (develop.priority != LOG_DEVELOP_OFF && !develop.path.empty())
        develop.fd = owned_fd(open(develop.path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
}

void agent_log_develop(int priority, const std::string &path)
{
    if (priority == develop.priority && path == develop.path)
        return;
    develop.priority = priority;
    develop.path = path;
    open_develop_file();
}

static void write_develop_line(const std::string &line)
{
    struct stat status {
    };
    if (fstat(develop.fd.get(), &status) == 0 && status.st_size >= MAX_DEVELOP_BYTES) {
        (void)rename(develop.path.c_str(), (develop.path + ".1").c_str()); // else the file grows on
        open_develop_file();
    }
    (void)!write(develop.fd.get(), line.data(), line.size()); // a log that cannot be written has nowhere to say so
}

void agent_log(int priority, const char *fmt, ...)
{
    bool is_developers = priority <= develop.priority;
    bool is_shown =
        priority != LOG_DEBUG || target_in_use == LOG_TARGET_SYSLOG || (is_developers && develop.path.empty());
    bool is_kept = is_developers && develop.fd.is_open();
    if (!is_shown && !is_kept)
        return;
    char line[LINE_SIZE];
    va_list args;
    va_start(args, fmt);
    (void)vsnprintf(line, sizeof line, fmt, args); // a long line may be cut
    va_end(args);
    hide_control_characters(line);
    if (is_kept)
        write_develop_line(stamped(line));
    if (is_shown && target_in_use == LOG_TARGET_SYSLOG)
        syslog(priority, "%s", line);
    else if (is_shown)
        fputs(stamped(line).c_str(), stderr);
}
