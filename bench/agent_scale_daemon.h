// The daemon's side of the agent's benchmark, in a process of its own: the validation point "bench-mtu", subscribers at
// two priority levels that read what has changed before they sync, and the provider of a long table of routes.
//
// What cannot be had from the agent is said on standard error and ends the process with status 1.
#ifndef BENCH_AGENT_SCALE_DAEMON_H
#define BENCH_AGENT_SCALE_DAEMON_H

#include <cstdint>
#include <sys/types.h>

class scale_daemon
{
public:
    // Returns once all is registered at the agent of this port.
    explicit scale_daemon(uint16_t port);
    scale_daemon(const scale_daemon &) = delete;
    scale_daemon &operator=(const scale_daemon &) = delete;
    ~scale_daemon();

    // Validations and deliveries it has served.
    [[nodiscard]] uint64_t validations() const;
    [[nodiscard]] uint64_t deliveries() const;

private:
    struct shared_t;
    shared_t *shared_;
    pid_t pid_ = -1;
};

#endif
