// The entry of the process. Every step has its place, and later ones rely on it: a second instance is refused before
// anything else, the daemon's own resources are made before it leaves the terminal, and nothing talks to the agent
// before the system manager is there.

#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "cfgmgr/daemon/cfgmgr_inotify.h"
#include "cfgmgr/daemon/cfgmgr_sysmgr.h"
#include "common/daemon_names.h"
#include "common/tip_log.h"
#include "common/tip_pid.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace
{

constexpr char FORWARDING_PROCESS[] = "fp";

// The file alone decides, also an empty one: whether its process lives is the system manager's concern.
bool is_second_instance()
{
    const char *name = daemon_id_to_name(DAEMON_ID_CFGMGR);
    pid_t pid = daemon_pid_read(name, 0, nullptr);
    if (pid < 0)
        return false;
    printf("Daemon %s already exists @ pid %d\n", name, pid);
    return true;
}

void wait_for_forwarding_process()
{
    while (daemon_pid_read(FORWARDING_PROCESS, 0, nullptr) <= 0)
        sleep(1);
}

// Everything up to the event loop. False when the process is to end.
bool start(cfgmgrd_t *cfgmgrd_p, int argc, char **argv)
{
    if (cfgmgr_init_daemon(cfgmgrd_p) != 0) {
        tip_log("Failed to init daemon");
        return false;
    }
    if (cfgmgr_parse_options(cfgmgrd_p, argc, argv) != 0) {
        tip_log("Failed to get proper input params");
        return false;
    }
    if (cfgmgrd_p->daemonize != 0) {
        if (daemon(0, 0) != 0) {
            tip_log("Failed to daemonize process: %s", strerror(errno));
            exit(-1);
        }
        event_reinit(cfgmgrd_p->event_base); // epoll descriptors and signal pipes do not survive the fork
    }
    cfgmgrd_p->pid = getpid();
    if (cfgmgrd_p->personality == PERSONALITY_KREST)
        wait_for_forwarding_process();
    if (cfgmgr_init_sysmgr_conn(cfgmgrd_p) != 0) {
        tip_log("Failed to register to sysmgr");
        return false;
    }
    (void)cfgmgr_init_abort_signals(); // cannot fail with the signals it installs
    if (cfgmgr_init_sigchild(cfgmgrd_p) != 0)
        return false;
    if (cfgmgr_init_inotify(cfgmgrd_p) != 0)
        tip_log("Failed to register inotify");
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    if (is_second_instance())
        return -1;
    tip_hostname_init();
    openlog(CFGMGR_PROCESS_NAME, LOG_PID | LOG_NDELAY, LOG_LOCAL7);
    tip_syslog_event(CFGMGR_PROCESS_NAME, TIP_EVENT_START, "Starting");
    auto *cfgmgrd_p = static_cast<cfgmgrd_t *>(calloc(1, sizeof(cfgmgrd_t)));
    if (cfgmgrd_p == nullptr) {
        tip_log("Failed to malloc initial memory");
    } else if (start(cfgmgrd_p, argc, argv)) {
        if (cfgmgr_events_level > 0)
            tip_log("Waiting for events");
        if (!cfgmgr_is_terminating()) // a stop that came before the loop would be forgotten by it
            event_base_dispatch(cfgmgrd_p->event_base);
    }
    cfgmgr_terminate(cfgmgrd_p); // the record itself is left to the end of the process, with the events it still holds
    return 0;
}
