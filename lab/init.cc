// The first process of a device in the sandbox: starts the services, keeps them running, runs the boot script with the
// terminal, and ends the device with the boot script's status.
//
//   lab_init TIMEOUT_S SERVICES END BOOT
//
// SERVICES has one line a service: NAME, a tab, the path that exists once it is ready ("-" when there is none to wait
// for), a tab, the command's words separated by blanks. Services start in that order, each in a session of its own with
// its output in /var/log/NAME.log, and are started again when they end; each end is a line in /run/lab/deaths. BOOT ends
// with the device's status, 124 when it did not within TIMEOUT_S seconds (0: no limit). Then services get SIGTERM in
// reverse order, what is left is killed, and END takes over as the first process with the status as its argument.
//
// Orphans of the whole process namespace are reaped here. SIGTERM, SIGINT and SIGHUP go to BOOT as SIGTERM. Nothing that
// another process does ends this one.

#include "common/tip_handle.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace
{

constexpr const char *DEATHS_FILE = "/run/lab/deaths";
constexpr int TIMED_OUT = 124;
constexpr int64_t READY_LIMIT_MS = 10000;
constexpr int64_t RESTART_DELAY_MS = 1000;
constexpr int64_t RESTART_AT_ONCE_MS = 2000; // a service that lived this long is started again without a delay
constexpr int64_t STOP_LIMIT_MS = 5000;
constexpr int64_t KILL_AFTER_MS = 5000;

struct service_t {
    std::string name;
    std::string ready_path; // "-": none
    std::vector<std::string> words;
    pid_t pid = 0;          // 0: not running
    int64_t started_ms = 0; // monotonic
    int64_t start_at_ms = 0;
};

struct device_t {
    std::vector<service_t> services;
    pid_t boot_pid = 0;
    int boot_status = -1;     // exit status once it has ended
    int64_t deadline_ms = 0;  // 0: no limit
    bool is_late = false;     // the deadline has passed and SIGTERM was sent
    bool is_stopping = false; // services stay down
};

int64_t now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

sigset_t watched_signals()
{
    sigset_t set;
    sigemptyset(&set);
    for (int signal : { SIGCHLD, SIGTERM, SIGINT, SIGHUP })
        sigaddset(&set, signal);
    return set;
}

std::vector<std::string> split(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t end; (end = text.find(separator, start)) != std::string::npos; start = end + 1)
        if (end > start)
            parts.push_back(text.substr(start, end - start));
    if (start < text.size())
        parts.push_back(text.substr(start));
    return parts;
}

std::vector<service_t> services_read(const char *path)
{
    std::vector<service_t> services;
    file_ptr file(fopen(path, "re"));
    char line[4096];
    while (file && fgets(line, sizeof(line), file.get())) {
        line[strcspn(line, "\n")] = '\0';
        auto fields = split(line, '\t');
        if (fields.size() == 3)
            services.push_back({ .name = fields[0], .ready_path = fields[1], .words = split(fields[2], ' ') });
    }
    return services;
}

void open_as(int target, const char *path, int flags)
{
    int fd = open(path, flags, 0644);
    if (fd >= 0 && fd != target) {
        dup2(fd, target);
        close(fd);
    }
}

[[noreturn]] void exec_words(const std::vector<std::string> &words)
{
    std::vector<char *> argv;
    for (const std::string &word : words)
        argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    fprintf(stderr, "lab_init: %s: %s\n", argv[0], strerror(errno));
    _exit(127);
}

// Shells start background jobs with interrupt and quit ignored, and what is ignored stays so; the device starts afresh.
void signals_restore()
{
    for (int number : { SIGINT, SIGQUIT, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU })
        signal(number, SIG_DFL);
    sigset_t set = watched_signals();
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

void service_start(service_t &service)
{
    service.started_ms = now_ms();
    service.pid = fork();
    if (service.pid != 0) {
        if (service.pid < 0)
            service = { service.name, service.ready_path, service.words, 0, 0, now_ms() + RESTART_DELAY_MS };
        return;
    }
    signals_restore();
    setsid();
    open_as(STDIN_FILENO, "/dev/null", O_RDONLY);
    open_as(STDOUT_FILENO, ("/var/log/" + service.name + ".log").c_str(), O_WRONLY | O_CREAT | O_APPEND);
    dup2(STDOUT_FILENO, STDERR_FILENO);
    exec_words(service.words);
}

void death_note(const service_t &service, int status)
{
    file_ptr file(fopen(DEATHS_FILE, "ae"));
    if (!file)
        return;
    if (WIFSIGNALED(status))
        fprintf(file.get(), "%s ended by signal %d after %lld ms\n", service.name.c_str(), WTERMSIG(status),
                static_cast<long long>(now_ms() - service.started_ms));
    else
        fprintf(file.get(), "%s ended with status %d after %lld ms\n", service.name.c_str(), WEXITSTATUS(status),
                static_cast<long long>(now_ms() - service.started_ms));
}

void service_ended(const device_t &device, service_t &service, int status)
{
    int64_t now = now_ms();
    if (!device.is_stopping)
        death_note(service, status);
    service.pid = 0;
    service.start_at_ms = now - service.started_ms >= RESTART_AT_ONCE_MS ? now : now + RESTART_DELAY_MS;
}

void reap(device_t &device)
{
    int status;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
        if (pid == device.boot_pid)
            device.boot_status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        for (service_t &service : device.services)
            if (service.pid == pid)
                service_ended(device, service, status);
    }
}

// Waits for a signal until the given time and acts on it.
void wait_until(device_t &device, int64_t until_ms)
{
    int64_t left = std::max<int64_t>(until_ms - now_ms(), 0);
    timespec timeout = { .tv_sec = left / 1000, .tv_nsec = left % 1000 * 1000000 };
    sigset_t set = watched_signals();
    int signal = sigtimedwait(&set, nullptr, &timeout);
    if (signal > 0 && signal != SIGCHLD && device.boot_pid > 0)
        kill(device.boot_pid, SIGTERM);
    reap(device);
}

void wait_ready(device_t &device, const service_t &service)
{
    int64_t limit = now_ms() + READY_LIMIT_MS;
    while (service.ready_path != "-" && access(service.ready_path.c_str(), F_OK) != 0 && now_ms() < limit)
        wait_until(device, now_ms() + 5);
}

void boot_start(device_t &device, const char *boot)
{
    device.boot_pid = fork();
    if (device.boot_pid == 0) {
        signals_restore();
        exec_words({ boot });
    }
    if (device.boot_pid < 0)
        device.boot_status = 127;
}

// The deadline is enforced in two steps, so that the boot script can say what it was waiting for.
void deadline_check(device_t &device)
{
    if (device.deadline_ms == 0 || now_ms() < device.deadline_ms)
        return;
    kill(device.boot_pid, device.is_late ? SIGKILL : SIGTERM);
    device.is_late = true;
    device.deadline_ms = now_ms() + KILL_AFTER_MS;
}

void run(device_t &device)
{
    while (device.boot_status < 0) {
        int64_t next = now_ms() + 60000;
        for (service_t &service : device.services) {
            if (service.pid == 0 && service.start_at_ms <= now_ms())
                service_start(service);
            if (service.pid == 0)
                next = std::min(next, service.start_at_ms);
        }
        if (device.deadline_ms != 0)
            next = std::min(next, device.deadline_ms);
        wait_until(device, next);
        if (device.boot_status < 0)
            deadline_check(device);
    }
}

void stop(device_t &device)
{
    device.is_stopping = true;
    device.boot_pid = 0;
    for (auto service = device.services.rbegin(); service != device.services.rend(); ++service) {
        int64_t limit = now_ms() + STOP_LIMIT_MS;
        if (service->pid > 0)
            kill(service->pid, SIGTERM);
        while (service->pid > 0 && now_ms() < limit)
            wait_until(device, limit);
    }
    kill(-1, SIGKILL);
    reap(device);
}

bool parse_seconds(const char *text, int64_t &seconds)
{
    const char *end = text + strlen(text);
    auto result = std::from_chars(text, end, seconds);
    return result.ec == std::errc() && result.ptr == end && seconds >= 0;
}

} // namespace

int main(int argc, char **argv)
{
    int64_t timeout_s = 0;
    if (argc != 5 || !parse_seconds(argv[1], timeout_s)) {
        fprintf(stderr, "usage: lab_init TIMEOUT_S SERVICES END BOOT\n");
        return 2;
    }
    if (getpid() != 1) { // it ends with a signal to every process that it can reach
        fprintf(stderr, "lab_init: runs only as the first process of a sandbox\n");
        return 2;
    }
    sigset_t set = watched_signals();
    sigprocmask(SIG_BLOCK, &set, nullptr);

    device_t device;
    device.services = services_read(argv[2]);
    for (service_t &service : device.services) {
        service_start(service);
        wait_ready(device, service);
    }
    if (timeout_s > 0)
        device.deadline_ms = now_ms() + timeout_s * 1000;
    boot_start(device, argv[4]);
    run(device);
    stop(device);

    signals_restore();
    std::string status = std::to_string(device.is_late ? TIMED_OUT : device.boot_status);
    exec_words({ argv[3], status });
}
