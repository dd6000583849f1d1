// sysmgrd: the system manager of the device. Starts and supervises agentd, cfgmgr and the routing daemons of the VPNs that
// cfgmgr tells it of, serves cfgmgr's messages, brings the agent to serving, answers for the processes that this device lacks (the pid file "fp" of the forwarding process,
// the first read of the wireless daemon), and tells its state in /var/run/sysmgrd.status.
//
//   sysmgrd [--foreground] [--personality NAME] [OPTION VALUE]...
//
// SIGTERM and SIGINT stop the processes in order and then this one. A system manager that dies otherwise leaves them
// running, and its successor takes them over. Log lines go to syslog, in the foreground to standard error too. Exit
// status: 0 after such a signal, 1 when it cannot start (the log tells why), 2 for a wrong command line.
#include "platform/sysmgrd.h"

#include "common/tip_log.h"
#include "common/tip_pid.h"
#include "common/tip_root.h"
#include "platform/run_files.h"
#include "platform/supervisor.h"
#include "platform/sysmgr_link.h"
#include "platform/sysmgrd_options.h"
#include "platform/sysmgrd_status.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/resource.h>

namespace
{

constexpr char NAME[] = "sysmgrd";
constexpr char FORWARDING_PROCESS[] = "fp";

enum exit_status_t {
    EXIT_DONE = 0,
    EXIT_NOT_STARTED = 1,
    EXIT_USAGE = 2,
};

void status_cb(evutil_socket_t, short, void *arg)
{
    status_write(*static_cast<sysmgrd_t *>(arg));
}

void tick_cb(evutil_socket_t, short, void *arg)
{
    supervisor_tick(static_cast<sysmgrd_t *>(arg));
}

void stop_cb(evutil_socket_t number, short, void *arg)
{
    auto *sysmgrd = static_cast<sysmgrd_t *>(arg);
    if (sysmgrd->is_stopping)
        return;
    tip_log("Stopping by signal %d", static_cast<int>(number));
    supervisor_stop(sysmgrd);
}

bool is_second_instance()
{
    pid_t other = pid_file_live(NAME, NAME);
    if (other != 0)
        tip_log("Another sysmgrd runs with pid %d; end that one first", other);
    return other != 0;
}

bool to_background(const sysmgrd_settings_t &settings)
{
    if (settings.foreground || daemon(0, 0) == 0)
        return true;
    tip_log("Cannot go to the background: %s; try --foreground", strerror(errno));
    return false;
}

// A descriptor a routing daemon is held here, and several in cfgmgr, which inherits the limit.
void descriptor_limit_raise()
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit); // refused: the usual limit is enough for a device with few VPNs
}

// Everything that the loop needs. The base is made after going to the background: it does not survive a fork.
bool sysmgrd_init(sysmgrd_t *sysmgrd)
{
    sysmgrd->base.reset(event_base_new());
    if (!sysmgrd->base)
        return false;
    sysmgrd->started_ms = sysmgrd->last_tick_ms = monotonic_ms();
    sysmgrd->status_timer.reset(evtimer_new(sysmgrd->base.get(), status_cb, sysmgrd));
    sysmgrd->tick.reset(event_new(sysmgrd->base.get(), -1, EV_PERSIST, tick_cb, sysmgrd));
    timeval period = timeval_of_ms(supervisor_tick_period_ms(sysmgrd->settings));
    event_add(sysmgrd->tick.get(), &period);
    sysmgrd->memory = memory_load();
    return agent_config_provide(&sysmgrd->settings) && pid_file_write(NAME, getpid()) &&
           pid_file_write(FORWARDING_PROCESS, getpid()) && sysmgr_link_init(sysmgrd);
}

void sysmgrd_run(sysmgrd_t *sysmgrd)
{
    event_ptr on_term(evsignal_new(sysmgrd->base.get(), SIGTERM, stop_cb, sysmgrd));
    event_ptr on_int(evsignal_new(sysmgrd->base.get(), SIGINT, stop_cb, sysmgrd));
    event_add(on_term.get(), nullptr);
    event_add(on_int.get(), nullptr);
    supervisor_start(sysmgrd);
    sysmgrd_changed(sysmgrd);
    event_base_dispatch(sysmgrd->base.get());
}

// After an ordered stop there is nothing that a successor could take over.
void sysmgrd_deinit(sysmgrd_t *sysmgrd)
{
    status_write(*sysmgrd);
    sysmgr_link_deinit(sysmgrd);
    memory_remove();
    daemon_pid_file_remove(FORWARDING_PROCESS, 0);
    daemon_pid_file_remove(NAME, 0);
}

} // namespace

int main(int argc, char **argv)
{
    auto sysmgrd = std::make_unique<sysmgrd_t>();
    sysmgrd->settings.yang_dir = SYSMGRD_YANG_DIR;
    if (!sysmgrd_options_read(argc, argv, &sysmgrd->settings) || tip_root_set(sysmgrd->settings.root.c_str()) != 0)
        return EXIT_USAGE;
    openlog(NAME, LOG_PID | LOG_NDELAY | (sysmgrd->settings.foreground ? LOG_PERROR : 0), LOG_LOCAL7);
    if (is_second_instance() || !to_background(sysmgrd->settings) || !sysmgrd_init(sysmgrd.get()))
        return EXIT_NOT_STARTED;
    descriptor_limit_raise();
    signal(SIGPIPE, SIG_IGN); // a peer that is gone shows in the write
    tip_log("System manager of a %s", sysmgrd->settings.personality.c_str());
    sysmgrd_run(sysmgrd.get());
    sysmgrd_deinit(sysmgrd.get());
    return EXIT_DONE;
}
