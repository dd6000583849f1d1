// The device's log: everything that is sent to /dev/log, one line a message, in one file, with the time of arrival in
// microseconds. Lines of any length that a datagram can carry are kept whole, which small syslog daemons do not do.
//
//   lab_logsink SOCKET FILE
//
// A line is: time, facility.severity, and the message as the sender wrote it without priority and time stamp.

#include "common/tip_handle.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

constexpr size_t MESSAGE_MAX = 65536;
constexpr size_t TIME_STAMP_SIZE = 16; // "Nov 21 08:12:33 "

constexpr const char *facilities[] = {
    "kern", "user",  "mail",  "daemon", "auth",   "syslog", "lpr",    "news",   "uucp",   "cron",   "authpriv", "ftp",
    "ntp",  "audit", "alert", "clock",  "local0", "local1", "local2", "local3", "local4", "local5", "local6",   "local7"
};
constexpr const char *severities[] = { "emerg", "alert", "crit", "err", "warning", "notice", "info", "debug" };
static_assert(std::size(facilities) == LOG_NFACILITIES);

// The number between "<" and ">" at the front, taken off; user.notice when there is none.
unsigned priority_take(std::string_view &message)
{
    unsigned priority = LOG_USER | LOG_NOTICE;
    size_t end = message.find('>');
    if (message.empty() || message[0] != '<' || end == std::string_view::npos || end > 4)
        return priority;
    priority = 0;
    for (char digit : message.substr(1, end - 1)) {
        if (digit < '0' || digit > '9')
            return LOG_USER | LOG_NOTICE;
        priority = priority * 10 + static_cast<unsigned>(digit - '0');
    }
    message.remove_prefix(end + 1);
    return priority;
}

void time_stamp_drop(std::string_view &message)
{
    if (message.size() >= TIME_STAMP_SIZE && message[3] == ' ' && message[9] == ':' && message[12] == ':')
        message.remove_prefix(TIME_STAMP_SIZE);
}

std::string time_text()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts;
    localtime_r(&now.tv_sec, &parts);
    char seconds[32];
    char text[64];
    strftime(seconds, sizeof(seconds), "%Y-%m-%dT%H:%M:%S", &parts);
    snprintf(text, sizeof(text), "%s.%06ld", seconds, now.tv_nsec / 1000);
    return text;
}

std::string line_render(std::string_view message)
{
    unsigned priority = priority_take(message);
    time_stamp_drop(message);
    while (!message.empty() && (message.back() == '\n' || message.back() == '\0'))
        message.remove_suffix(1);
    unsigned facility = LOG_FAC(priority);
    std::string line = time_text();
    line.append(" ").append(facility < std::size(facilities) ? facilities[facility] : "unknown");
    line.append(".").append(severities[LOG_PRI(priority)]).append(" ");
    for (char c : message)
        line.push_back(c == '\n' ? ' ' : c);
    return line + "\n";
}

unique_fd socket_open(const char *path)
{
    sockaddr_un address = { .sun_family = AF_UNIX, .sun_path = {} };
    if (strlen(path) >= sizeof(address.sun_path))
        return {};
    memcpy(address.sun_path, path, strlen(path) + 1);
    unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    unlink(path);
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 || chmod(path, 0666) != 0)
        return {};
    return fd;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: lab_logsink SOCKET FILE\n");
        return 2;
    }
    // The file first: once the socket is there, nothing may be lost.
    unique_fd file(open(argv[2], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    unique_fd input = socket_open(argv[1]);
    if (!file.is_open() || !input.is_open()) {
        perror("lab_logsink");
        return 1;
    }
    static char message[MESSAGE_MAX];
    for (;;) {
        ssize_t size = recv(input.get(), message, sizeof(message), 0);
        if (size <= 0)
            continue;
        std::string line = line_render({ message, static_cast<size_t>(size) });
        if (write(file.get(), line.data(), line.size()) < 0)
            perror("lab_logsink");
    }
}
