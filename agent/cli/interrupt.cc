// See interrupt.h.
#include "agent/cli/interrupt.h"

#include <csignal>
#include <unistd.h>

namespace
{

volatile sig_atomic_t is_noted;

void note(int) noexcept
{
    static constexpr int STATUS_BY_SIGNAL = 130;
    if (is_noted)
        _exit(STATUS_BY_SIGNAL);
    is_noted = 1;
}

} // namespace

void interrupt_watch()
{
    struct sigaction action = {};
    action.sa_handler = note;                  // no SA_RESTART: poll and read come back
    (void)sigaction(SIGINT, &action, nullptr); // fails for bad signal numbers only
}

bool interrupt_take()
{
    bool was_noted = is_noted;
    is_noted = 0;
    return was_noted;
}
