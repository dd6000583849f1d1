// Stands in front of a program of the device and notes what the daemon runs.
//
// Installed under the program's own path; the program itself lies at the same path below /run/lab/real. Run by anything
// that is not a descendant of a process called "cfgmgr" it becomes the program at once. Otherwise it runs the program as
// its child, with the same argument vector, descriptors and environment (and LAB_RECORDED set, so that a command within
// a command is not noted again), passes signals on and ends as the program ended. A program that the device does not
// have ends with 127, as a shell would say it.
//
// The record, /run/lab/record, has one line a command in the order of their starts: status, pid of the daemon, start in
// microseconds since boot, and the argument vector quoted for a shell, separated by tabs. The status is three characters
// wide: "..." while the command runs, then its exit status, or 128 plus the signal that ended it.

#include "common/tip_handle.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr const char *RECORD_FILE = "/run/lab/record";
constexpr const char *REAL_ROOT = "/run/lab/real";
constexpr const char *NESTED_MARK = "LAB_RECORDED";
constexpr std::string_view DAEMON_NAME = "cfgmgr";
constexpr int NOT_FOUND = 127;
constexpr int passed_signals[] = { SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGALRM };

volatile pid_t child_pid = 0; // written before the handlers are set

struct process_t {
    std::string name;
    pid_t parent = 0;
};

// What /proc tells of a process; parent 0 when it is gone.
process_t process_read(pid_t pid)
{
    char path[64];
    char text[512];
    snprintf(path, sizeof(path), "/proc/%d/stat", pid);
    unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    ssize_t size = fd.is_open() ? read(fd.get(), text, sizeof(text) - 1) : -1;
    if (size <= 0)
        return {};
    std::string_view stat(text, static_cast<size_t>(size));
    size_t open_at = stat.find('('), close_at = stat.rfind(')'); // the name may hold both
    if (open_at == stat.npos || close_at == stat.npos || close_at + 4 >= stat.size())
        return {};
    process_t process = { .name = std::string(stat.substr(open_at + 1, close_at - open_at - 1)) };
    std::from_chars(stat.data() + close_at + 4, stat.data() + stat.size(), process.parent);
    return process;
}

// The pid of the nearest ancestor that is the daemon, 0 when there is none.
pid_t daemon_find()
{
    for (pid_t pid = getppid(); pid > 1;) {
        process_t process = process_read(pid);
        if (process.name == DAEMON_NAME)
            return pid;
        pid = process.parent;
    }
    return 0;
}

bool is_plain(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || strchr("_@%+=:,./-", c);
}

void quote_append(std::string &line, std::string_view word)
{
    bool plain = !word.empty();
    for (char c : word)
        plain = plain && c != '\0' && is_plain(c);
    if (plain) {
        line += word;
        return;
    }
    line += '\'';
    for (char c : word) {
        if (c == '\'')
            line += "'\\''";
        else if (c == '\n')
            line += "'$'\\n''"; // a line of the record stays one line
        else if (c == '\t')
            line += "'$'\\t''";
        else
            line += c;
    }
    line += '\'';
}

std::string line_render(pid_t daemon, char **argv)
{
    timespec now;
    clock_gettime(CLOCK_BOOTTIME, &now);
    long long start_us = static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
    char head[64];
    snprintf(head, sizeof(head), "...\t%d\t%lld\t", daemon, start_us);
    std::string line = head;
    for (char **word = argv; *word; ++word) {
        if (word != argv)
            line += ' ';
        quote_append(line, *word);
    }
    return line + "\n";
}

// Appends the line; the result is the place of its status, -1 when there is no record. The lock makes the place sure.
off_t record_start(int fd, const std::string &line)
{
    if (fd < 0 || flock(fd, LOCK_EX) != 0)
        return -1;
    off_t place = lseek(fd, 0, SEEK_END);
    ssize_t size = write(fd, line.data(), line.size());
    flock(fd, LOCK_UN);
    return size == static_cast<ssize_t>(line.size()) ? place : -1;
}

void record_end(int fd, off_t place, int wait_status)
{
    char status[16];
    int code = WIFSIGNALED(wait_status) ? 128 + WTERMSIG(wait_status) : WEXITSTATUS(wait_status);
    snprintf(status, sizeof(status), "%-3d", code);
    if (place >= 0 && pwrite(fd, status, 3, place) != 3)
        perror("lab_recorder");
}

void signal_pass(int signal)
{
    kill(child_pid, signal);
}

// A signal that the caller has set to be ignored stays ignored, in the program too.
void signals_pass()
{
    for (int signal : passed_signals) {
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        if (action.sa_handler == SIG_IGN)
            continue;
        action = {};
        action.sa_handler = signal_pass;
        action.sa_flags = SA_RESTART;
        sigaction(signal, &action, nullptr);
    }
}

[[noreturn]] void become(const char *real, char **argv)
{
    execv(real, argv);
    int error = errno;
    fprintf(stderr, "%s: %s\n", argv[0], error == ENOENT ? "not found" : strerror(error));
    _exit(error == ENOENT ? NOT_FOUND : 126);
}

[[noreturn]] void end_as(int wait_status)
{
    if (WIFSIGNALED(wait_status)) {
        signal(WTERMSIG(wait_status), SIG_DFL);
        raise(WTERMSIG(wait_status));
    }
    _exit(WIFSIGNALED(wait_status) ? 128 + WTERMSIG(wait_status) : WEXITSTATUS(wait_status));
}

[[noreturn]] void run_noted(const char *real, char **argv, pid_t daemon)
{
    unique_fd record(open(RECORD_FILE, O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    off_t place = record_start(record.get(), line_render(daemon, argv));

    // The caller may ignore SIGCHLD, which would take the status away; the program gets the caller's setting back.
    auto child_setting = signal(SIGCHLD, SIG_DFL);
    sigset_t passed, before;
    sigemptyset(&passed);
    for (int signal : passed_signals)
        sigaddset(&passed, signal);
    sigprocmask(SIG_BLOCK, &passed, &before);
    pid_t pid = fork();
    if (pid <= 0) { // without a child the program runs unobserved
        prctl(PR_SET_PDEATHSIG, pid == 0 ? SIGKILL : 0);
        signal(SIGCHLD, child_setting);
        sigprocmask(SIG_SETMASK, &before, nullptr);
        setenv(NESTED_MARK, "1", 1);
        become(real, argv);
    }
    child_pid = pid;
    signals_pass();
    sigprocmask(SIG_SETMASK, &before, nullptr);

    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR)
        ;
    record_end(record.get(), place, status);
    end_as(status);
}

} // namespace

int main(int, char **argv)
{
    char self[PATH_MAX];
    ssize_t size = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (size <= 0 || !argv[0])
        return NOT_FOUND;
    self[size] = '\0';
    std::string real = std::string(REAL_ROOT) + self;
    pid_t daemon = getenv(NESTED_MARK) ? 0 : daemon_find();
    if (daemon == 0)
        become(real.c_str(), argv);
    run_noted(real.c_str(), argv, daemon);
}
