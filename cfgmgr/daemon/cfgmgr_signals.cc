// Signals of the daemon.

#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "common/tip_log.h"
#include "common/tip_signal.h"

#include <csignal>
#include <sys/wait.h>

namespace
{

constexpr int NUM_SIGNALS = 65;

volatile sig_atomic_t term_flag;

void handle_stop(int)
{
    term_flag = 1;
    cfgmgrd_t *cfgmgrd_p = cfgmgr_context();
    if (cfgmgrd_p != nullptr && cfgmgrd_p->event_base != nullptr)
        event_base_loopbreak(cfgmgrd_p->event_base);
}

using signal_handler_t = void (*)(int);

struct signal_table_t {
    signal_handler_t handlers[NUM_SIGNALS]; // by signal number; null is left alone
    constexpr signal_table_t() : handlers{} { handlers[SIGUSR2] = handle_stop; }
};
constexpr signal_table_t signal_table;

// One child per event: a second one that ends in the same wake-up waits for the next SIGCHLD. Only children of the main
// thread: a thread that runs a command waits for that itself, and would miss its result.
void cfgmgr_sigchild_signal(evutil_socket_t, short, void *)
{
    int status = 0;
    pid_t pid = waitpid(-1, &status, WNOHANG | __WNOTHREAD);
    if (pid <= 0 || cfgmgr_pppoe_level <= CFGMGR_DETAILED)
        return;
    tip_log("Pid %d exited, \n", pid);
    tip_log("status: %d.\n", status);
}

} // namespace

bool cfgmgr_is_terminating()
{
    return term_flag != 0;
}

int cfgmgr_init_abort_signals()
{
    tip_signal_init();
    for (int number = 0; number < NUM_SIGNALS; number++) {
        signal_handler_t handler = signal_table.handlers[number];
        if (handler == nullptr)
            continue;
        tip_log("Registering %p for signal %d\n", reinterpret_cast<void *>(handler), number);
        struct sigaction action = {};
        action.sa_handler = handler;
        sigemptyset(&action.sa_mask);
        if (sigaction(number, &action, nullptr) != 0)
            return 1;
    }
    return 0;
}

int cfgmgr_init_sigchild(cfgmgrd_t *cfgmgrd_p)
{
    cfgmgrd_p->sigchld_event = evsignal_new(cfgmgrd_p->event_base, SIGCHLD, cfgmgr_sigchild_signal, cfgmgrd_p);
    return cfgmgrd_p->sigchld_event != nullptr && event_add(cfgmgrd_p->sigchld_event, nullptr) == 0 ? 0 : 1;
}
