#include "common/tip_signal.h"

#include "common/tip_assert.h"

#include <csignal>
#include <cstdlib>

namespace
{

void exit_on_signal(int, siginfo_t *, void *)
{
    exit(0);
}

void assert_on_signal(int, siginfo_t *, void *)
{
    tip_assert_fail("tip_signal", 64, "0");
}

struct signal_row_t {
    int number;
    void (*handler)(int, siginfo_t *, void *);
};

constexpr signal_row_t signal_rows[] = {
    { SIGTERM, exit_on_signal },  { SIGABRT, assert_on_signal }, { SIGHUP, assert_on_signal },
    { SIGINT, assert_on_signal }, { SIGQUIT, assert_on_signal },
};

} // namespace

void tip_signal_init()
{
    for (const signal_row_t &row : signal_rows) {
        struct sigaction action = {};
        action.sa_sigaction = row.handler;
        action.sa_flags = SA_SIGINFO;
        sigemptyset(&action.sa_mask);
        sigaction(row.number, &action, nullptr);
    }
}
