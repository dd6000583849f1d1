#include "platform/child.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

extern "C" { // this header of glibc up to 2.36 does not say so itself
#include <sys/pidfd.h>
}

namespace
{

constexpr size_t MAX_OUTPUT = 64 << 10;
constexpr int FIRST_CLOSED_FD = 3;

// posix_spawn's two objects.
struct spawn_settings_t {
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    spawn_settings_t()
    {
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_init(&actions);
    }
    spawn_settings_t(const spawn_settings_t &) = delete;
    spawn_settings_t &operator=(const spawn_settings_t &) = delete;
    ~spawn_settings_t()
    {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
};

std::string read_all(int fd)
{
    std::string text(MAX_OUTPUT, '\0');
    ssize_t got = read(fd, text.data(), text.size()); // the writer has ended: all is there
    text.resize(got > 0 ? static_cast<size_t>(got) : 0);
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

void command_limit_cb(evutil_socket_t, short, void *arg)
{
    auto *command = static_cast<async_command_t *>(arg);
    command->is_late = true;
    (void)process_signal(command->watch, SIGKILL);
}

void command_ended_cb(evutil_socket_t, short, void *arg)
{
    auto *command = static_cast<async_command_t *>(arg);
    int status = process_collect(&command->watch);
    std::string output = command->is_late ? "took too long" : read_all(command->output.get());
    command->output.reset();
    command->limit.reset();
    bool is_ok = status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!is_ok && output.empty())
        output = process_end_text(status);
    command->done(command->arg, is_ok, output); // may start the next command in the same place
}

} // namespace

pid_t child_spawn(const std::vector<std::string> &words, int output_fd)
{
    spawn_settings_t settings;
    sigset_t all, none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&settings.attributes, &all);
    posix_spawnattr_setsigmask(&settings.attributes, &none);
    posix_spawnattr_setflags(&settings.attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID);
    posix_spawn_file_actions_addopen(&settings.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&settings.actions, output_fd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&settings.actions, output_fd, STDERR_FILENO);
    posix_spawn_file_actions_addclosefrom_np(&settings.actions, FIRST_CLOSED_FD);
    std::vector<std::string> copies = words; // the interface wants them writable
    std::vector<char *> argv;
    for (std::string &word : copies)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    errno = posix_spawnp(&pid, argv[0], &settings.actions, &settings.attributes, argv.data(), environ);
    return errno == 0 ? pid : 0;
}

void child_discard(pid_t pid)
{
    int error = errno;
    (void)kill(pid, SIGKILL);
    (void)waitpid(pid, nullptr, 0); // at once: nothing outlives this signal
    errno = error;
}

bool process_watch(process_watch_t *watch, event_base *base, pid_t pid, event_callback_fn cb, void *arg)
{
    unique_fd fd(pidfd_open(pid, 0));
    if (!fd.is_open())
        return false;
    event_ptr event(event_new(base, fd.get(), EV_READ, cb, arg));
    if (!event || event_add(event.get(), nullptr) != 0)
        return false;
    watch->pid = pid;
    watch->fd = std::move(fd);
    watch->event = std::move(event);
    return true;
}

int process_collect(process_watch_t *watch)
{
    int status = -1;
    if (waitpid(watch->pid, &status, WNOHANG) != watch->pid)
        status = -1; // somebody else's child
    watch->event.reset();
    watch->fd.reset();
    watch->pid = 0;
    return status;
}

bool process_signal(const process_watch_t &watch, int number)
{
    return watch.fd.is_open() && pidfd_send_signal(watch.fd.get(), number, nullptr, 0) == 0;
}

std::string process_end_text(int status)
{
    if (status == -1)
        return "ended";
    if (WIFSIGNALED(status))
        return "was ended by signal " + std::to_string(WTERMSIG(status));
    return "ended with status " + std::to_string(WEXITSTATUS(status));
}

bool async_command_start(async_command_t *command, event_base *base, const std::vector<std::string> &words,
                         uint32_t limit_ms, async_command_t::done_t done, void *arg)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return false;
    unique_fd output(ends[0]), input(ends[1]);
    (void)fcntl(output.get(), F_SETFL, O_NONBLOCK); // what the command has left running must not hold up the reader
    event_ptr limit(evtimer_new(base, command_limit_cb, command));
    timeval limit_time = timeval_of_ms(limit_ms);
    if (!limit || evtimer_add(limit.get(), &limit_time) != 0)
        return false;
    pid_t pid = child_spawn(words, input.get());
    if (pid == 0)
        return false;
    if (!process_watch(&command->watch, base, pid, command_ended_cb, command)) {
        child_discard(pid);
        return false;
    }
    command->output = std::move(output);
    command->limit = std::move(limit);
    command->is_late = false;
    command->done = done;
    command->arg = arg;
    return true;
}

void async_command_cancel(async_command_t *command)
{
    if (command->watch.pid == 0)
        return;
    (void)process_signal(command->watch, SIGKILL);
    (void)waitpid(command->watch.pid, nullptr, 0); // at once: nothing outlives this signal
    (void)process_collect(&command->watch);
    command->output.reset();
    command->limit.reset();
}

timeval timeval_of_ms(uint32_t ms)
{
    return { .tv_sec = ms / 1000, .tv_usec = ms % 1000 * 1000 };
}

int64_t monotonic_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}
