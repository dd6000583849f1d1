// Processes from the outside: starting one, noticing its end, and running a short command beside the event loop.
//
// Ends are noticed by process descriptors (pidfd_open(2)), so that a process that somebody else has started can be
// watched like one's own; only its exit status is then unknown. Children are sessions of their own and outlive the
// caller.
#ifndef PLATFORM_CHILD_H
#define PLATFORM_CHILD_H

#include "common/event_handle.h"
#include "common/tip_handle.h"

#include <string>
#include <sys/types.h>
#include <vector>

// Starts a program, looked up in PATH unless its first word has a slash, with output and errors going to output_fd,
// nothing to read, no other descriptor, and all signals as a fresh process has them. The pid, or 0 with errno.
[[nodiscard]] pid_t child_spawn(const std::vector<std::string> &words, int output_fd);

// Ends a child at once and reaps it, for one that cannot be watched. errno is kept.
void child_discard(pid_t pid);

struct process_watch_t {
    pid_t pid = 0; // 0: nothing is watched
    unique_fd fd;
    event_ptr event;
};

// Calls cb(arg) in the loop once the process has ended; cb has to call process_collect. False when there is no such
// process.
[[nodiscard]] bool process_watch(process_watch_t *watch, event_base *base, pid_t pid, event_callback_fn cb, void *arg);
// Ends the watch of a process that has ended, reaping it when it is a child. The wait status, -1 when it is not known.
int process_collect(process_watch_t *watch);
// False when it is gone already.
bool process_signal(const process_watch_t &watch, int number);
// "ended with status 1", "was ended by signal 9", "ended".
[[nodiscard]] std::string process_end_text(int status);

// One command in progress, its output kept (64 KB at most fit). It belongs to one place in memory while it runs.
struct async_command_t {
    using done_t = void (*)(void *arg, bool is_ok, const std::string &output);
    process_watch_t watch;
    unique_fd output;
    event_ptr limit;
    bool is_late = false;
    done_t done = nullptr;
    void *arg = nullptr;
};

// Calls done from the loop at the end: is_ok when the exit status is 0; output is what it printed, or why it was not
// run. A command that takes longer than limit_ms is killed. False, with errno, when it could not be started.
[[nodiscard]] bool async_command_start(async_command_t *command, event_base *base,
                                       const std::vector<std::string> &words, uint32_t limit_ms,
                                       async_command_t::done_t done, void *arg);
// Kills it; done is not called. Nothing when none is in progress.
void async_command_cancel(async_command_t *command);

[[nodiscard]] timeval timeval_of_ms(uint32_t ms);
[[nodiscard]] int64_t monotonic_ms();

#endif
