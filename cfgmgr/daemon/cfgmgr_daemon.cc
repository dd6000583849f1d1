// Resources of the process, the start of its tables, and the way down.

#include "cfgmgr/daemon/cfgmgr_daemon.h"

#include "cfgmgr/daemon/cfgmgr_confd.h"
#include "cfgmgr/daemon/cfgmgr_inotify.h"
#include "cfgmgr/daemon/cfgmgr_sysmgr.h"
#include "cfgmgr/network/cfgmgr_bridge.h"
#include "cfgmgr/network/cfgmgr_config_backup.h"
#include "cfgmgr/network/cfgmgr_config_system.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_if_idx.h"
#include "cfgmgr/network/cfgmgr_kernel_files.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "cfgmgr/routing/cfgmgr_config_policy.h"
#include "chmgr/chmgr_api.h"
#include "common/event_handle.h"
#include "common/msgq_util.h"
#include "common/tip_log.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <event2/util.h>
#include <unistd.h>
#include <utility>

namespace
{

constexpr uint32_t TIMER_BUDGET_MS = 100;
constexpr int64_t KEEPALIVE_MIN_MS = 4;
constexpr uint32_t SYSMGR_RETRY_MS = 1000;

void *plain_malloc(size_t size)
{
    return malloc(size);
}

void *plain_realloc(void *memory, size_t size)
{
    return realloc(memory, size);
}

void plain_free(void *memory)
{
    free(memory);
}

// ---- timers

void note_timer_run(cfgmgrd_t *cfgmgrd_p)
{
    clock_gettime(CLOCK_MONOTONIC, &cfgmgrd_p->last_timer_run);
}

// One tick: one-shot, re-armed from here, so that a slow tick delays the next one.
void timer_tick_cb(evutil_socket_t, short, void *arg)
{
    auto *cfgmgrd_p = static_cast<cfgmgrd_t *>(arg);
    (void)timer_run(cfgmgrd_p->timer_mgr_p, TIMER_MASK_ALL, TIMER_BUDGET_MS); // what is left is served next time
    note_timer_run(cfgmgrd_p);
    timeval tick;
    timer_mgr_tick(cfgmgrd_p->timer_mgr_p, &tick);
    event_add(cfgmgrd_p->timer_tick_event, &tick);
}

bool init_timers(cfgmgrd_t *cfgmgrd_p)
{
    cfgmgrd_p->timer_mgr_p = timer_mgr_create(TIMER_RES_1SEC, plain_malloc, plain_free, cfgmgrd_p, TIMER_MASK_ALL);
    if (cfgmgrd_p->timer_mgr_p == nullptr)
        return false;
    cfgmgrd_p->sysmgr_timer_p = timer_util_create(cfgmgrd_p->timer_mgr_p, TIMER_PRIO_NORMAL, TIMER_CYCLIC,
                                                  SYSMGR_RETRY_MS, cfgmgr_init_sysmgr_timer_cb, cfgmgrd_p, nullptr,
                                                  nullptr, nullptr, "cfgmgr-init-sysmgr-timer");
    // It carries the same label as the timer above.
    cfgmgrd_p->backup_timer_p =
        timer_util_create(cfgmgrd_p->timer_mgr_p, TIMER_PRIO_NORMAL, TIMER_CYCLIC, ARCHIVE_INTERVAL_DEFAULT_MS,
                          cfgmgr_config_backup_cb, cfgmgrd_p, nullptr, nullptr, nullptr, "cfgmgr-init-sysmgr-timer");
    cfgmgrd_p->policy_timer_p =
        timer_util_create(cfgmgrd_p->timer_mgr_p, TIMER_PRIO_NORMAL, TIMER_CYCLIC, POLICY_RETRY_MS,
                          cfgmgr_policy_timer_cb, cfgmgrd_p, nullptr, nullptr, nullptr, "cfgmgr-policy");
    cfgmgrd_p->timer_tick_event = evtimer_new(cfgmgrd_p->event_base, timer_tick_cb, cfgmgrd_p);
    if (cfgmgrd_p->sysmgr_timer_p == nullptr || cfgmgrd_p->backup_timer_p == nullptr ||
        cfgmgrd_p->policy_timer_p == nullptr || cfgmgrd_p->timer_tick_event == nullptr)
        return false;
    timeval tick;
    timer_mgr_tick(cfgmgrd_p->timer_mgr_p, &tick);
    return event_add(cfgmgrd_p->timer_tick_event, &tick) == 0;
}

void swallow_signal(evutil_socket_t, short, void *)
{
}

bool init_sigusr1(cfgmgrd_t *cfgmgrd_p)
{
    cfgmgrd_p->sigusr1_event = evsignal_new(cfgmgrd_p->event_base, SIGUSR1, swallow_signal, cfgmgrd_p);
    return cfgmgrd_p->sigusr1_event != nullptr && event_add(cfgmgrd_p->sigusr1_event, nullptr) == 0;
}

// ---- options

struct personality_row_t {
    const char *arg;
    uint32_t personality;
};
constexpr personality_row_t personality_rows[] = {
    { "tarn", PERSONALITY_TARN },
    { "lodest", PERSONALITY_LODEST },
    { "quorvix", PERSONALITY_QUORVIX },
    { "pendry", PERSONALITY_PENDRY },
};

// ---- start of the tables

struct start_step_t {
    int (*init)(cfgmgrd_t *cfgmgrd_p);
    const char *failure;
};
// In the order that the later ones rely on.
constexpr start_step_t start_steps[] = {
    { cfgmgr_vpn_init, "Failed to init vpn db" },      { cfgmgr_bridge_init, "Failed to init bridge db" },
    { cfgmgr_if_init, "Failed to init interface-db" }, { cfgmgr_static_dns_init, "Failed to init static dns" },
    { cfgmgr_confd_init, "Failed to init confd" },
};

// ---- release

void free_event(event **ev)
{
    if (*ev != nullptr)
        event_free(*ev);
    *ev = nullptr;
}

void free_memory(uint8_t **memory)
{
    free(*memory);
    *memory = nullptr;
}

void release_timers(cfgmgrd_t *cfgmgrd_p)
{
    if (cfgmgrd_p->timer_mgr_p == nullptr)
        return;
    for (timer_util_t **timer :
         { &cfgmgrd_p->sysmgr_timer_p, &cfgmgrd_p->backup_timer_p, &cfgmgrd_p->policy_timer_p }) {
        if (timer_util_t *existing = std::exchange(*timer, nullptr))
            timer_util_delete(existing);
    }
    timer_mgr_delete(cfgmgrd_p->timer_mgr_p);
    cfgmgrd_p->timer_mgr_p = nullptr;
}

} // namespace

int cfgmgr_init_daemon(cfgmgrd_t *cfgmgrd_p)
{
    cfgmgrd_p->daemonize = 1;
    cfgmgrd_p->mgmt_vpn = 1;
    cfgmgrd_p->inotify_fd = -1;
    cfgmgr_config_system_init(cfgmgrd_p);
    // The kernel keeps the name of an earlier run. Until one is configured, host files have it too. Cut off if too long.
    (void)gethostname(cfgmgrd_p->host_name, sizeof cfgmgrd_p->host_name - 1);
    cfgmgrd_p->event_base = event_base_new();
    if (cfgmgrd_p->event_base == nullptr) {
        tip_log("Failed to malloc event base");
        return 1;
    }
    evutil_secure_rng_init();
    // The base exists already: plain wrappers keep what it has allocated valid.
    event_set_mem_functions(plain_malloc, plain_realloc, plain_free);
    if (!init_timers(cfgmgrd_p) || !init_sigusr1(cfgmgrd_p))
        return 1;
    cfgmgrd_p->reserved_bitmap_p = cfgmgr_bitmap_alloc();
    if (cfgmgrd_p->reserved_bitmap_p == nullptr)
        return 1;
    if (cfgmgr_if_idx_init(cfgmgrd_p) != 0) {
        tip_log("Failed to init bitmap idx db");
        return 1;
    }
    cfgmgr_context_publish(cfgmgrd_p);
    return 0;
}

uint32_t cfgmgr_personality_from_arg(const char *arg)
{
    for (const personality_row_t &row : personality_rows) {
        if (strcmp(row.arg, arg) == 0)
            return row.personality;
    }
    return PERSONALITY_KREST; // deliberately also "orbel"
}

int cfgmgr_parse_options(cfgmgrd_t *cfgmgrd_p, int argc, char **argv)
{
    bool no_mgmt_vpn = false;
    opterr = 0;
    for (int option; (option = getopt(argc, argv, "fmcnp:")) != -1;) {
        switch (option) {
        case 'f':
            cfgmgrd_p->daemonize = 0;
            break;
        case 'm':
            cfgmgrd_p->mgmt_vpn = 1;
            no_mgmt_vpn = false;
            break;
        case 'n':
            no_mgmt_vpn = true;
            break;
        case 'c':
            cfgmgrd_p->upgrade = 1;
            break;
        case 'p':
            cfgmgrd_p->personality = cfgmgr_personality_from_arg(optarg);
            break;
        default:
            break;
        }
    }
    if (no_mgmt_vpn)
        cfgmgrd_p->mgmt_vpn = 0;
    // A missing chassis record (-1) leaves the choice of the command line.
    if (chmgr_has_mgmt_port() == 0)
        cfgmgrd_p->mgmt_vpn = 0;
    return 0;
}

int cfgmgr_main(cfgmgrd_t *cfgmgrd_p)
{
    tip_log("Initiate cfgmgr main");
    clock_gettime(CLOCK_MONOTONIC, &cfgmgrd_p->start_time);
    for (const start_step_t &step : start_steps) {
        if (step.init(cfgmgrd_p) == 0)
            continue;
        tip_log("%s", step.failure);
        cfgmgr_terminate(cfgmgrd_p);
        exit(0); // a failed start is not a failed exit code: the system manager starts the daemon again
    }
    return 0;
}

void cfgmgr_timer_keepalive()
{
    cfgmgrd_t *cfgmgrd_p = cfgmgr_context();
    if (cfgmgrd_p == nullptr || cfgmgrd_p->timer_mgr_p == nullptr)
        return;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const timespec &last = cfgmgrd_p->last_timer_run;
    int64_t passed_ms = (now.tv_sec - last.tv_sec) * 1000 + (now.tv_nsec - last.tv_nsec) / 1000000;
    if (passed_ms < KEEPALIVE_MIN_MS)
        return;
    (void)timer_run(cfgmgrd_p->timer_mgr_p, TIMER_MASK_HIGH, TIMER_BUDGET_MS); // the rest is served by the tick
    cfgmgrd_p->last_timer_run = now;
}

void cfgmgr_terminate(cfgmgrd_t *cfgmgrd_p)
{
    if (cfgmgr_events_level > 0)
        tip_log("Terminating");
    tip_syslog_event(CFGMGR_PROCESS_NAME, TIP_EVENT_TERMINATE, "Terminating");
    if (cfgmgrd_p != nullptr)
        cfgmgr_deinit_resources(cfgmgrd_p);
}

void cfgmgr_deinit_resources(cfgmgrd_t *cfgmgrd_p)
{
    if (cfgmgrd_p->sysmgr_handle_p != nullptr) {
        app_sysmgr_free(cfgmgrd_p->sysmgr_handle_p);
        cfgmgrd_p->sysmgr_handle_p = nullptr;
    }
    cfgmgr_bridge_deinit(cfgmgrd_p);
    cfgmgr_vpn_deinit(cfgmgrd_p);
    cfgmgr_if_deinit(cfgmgrd_p);
    cfgmgr_static_dns_deinit(cfgmgrd_p);
    cfgmgr_deinit_inotify(cfgmgrd_p);
    free_event(&cfgmgrd_p->sigchld_event);
    free_memory(&cfgmgrd_p->reserved_bitmap_p);
    cfgmgr_if_idx_deinit(cfgmgrd_p);
    cfgmgr_confd_deinit(cfgmgrd_p);
    msgq_free_all();
    release_timers(cfgmgrd_p);
    // The events of SIGUSR1 and of the tick are left to the end of the process.
    // Taken out of the record first: a stop signal may look at it at any time.
    if (event_base *base = std::exchange(cfgmgrd_p->event_base, nullptr))
        event_base_free(base);
    closelog();
}
