#include "platform/supervisor.h"

#include "common/daemon_names.h"
#include "common/tip_log.h"
#include "common/tip_pid.h"
#include "common/tip_root.h"
#include "platform/agent_side.h"
#include "platform/run_files.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>

namespace
{

constexpr uint32_t FIRST_DELAY_MS = 200;
constexpr uint32_t LONGEST_DELAY_MS = 30000;
constexpr uint32_t CLEAR_CHECK_MS = 20; // cfgmgr waits for the end of the routing daemons of its predecessor
constexpr uint32_t TICK_MS = 1000;
constexpr int64_t TICK_SLACK_MS = 500; // a tick may come this late without being a pause

std::vector<std::string> agentd_words(const sysmgrd_t &sysmgrd)
{
    return { sysmgrd.settings.agentd, "-f", sysmgrd.settings.agent_config };
}

std::vector<std::string> cfgmgr_words(const sysmgrd_t &sysmgrd)
{
    return { sysmgrd.settings.cfgmgr, "-f", "-p", sysmgrd.settings.personality };
}

// SIGUSR2 is the stop that leaves the device reachable.
constexpr process_rule_t rules[NUM_PROCESSES] = {
    {
        .name = "agentd",
        .peer = 0,
        .read_bit = 0,
        .note_name = nullptr,
        .pid_file_time = PID_FILE_AT_START,
        .stop_steps = { { SIGTERM, 1500 }, { SIGKILL, 1000 } },
        .words = agentd_words,
    },
    {
        .name = "cfgmgr",
        .peer = DAEMON_ID_CFGMGR,
        .read_bit = AGENT_BIT_CFGMGR,
        .note_name = "cfgmgr.starting",
        .pid_file_time = PID_FILE_AT_FIRST_HELLO,
        .stop_steps = { { SIGUSR2, 2000 }, { SIGTERM, 500 }, { SIGKILL, 1000 } },
        .words = cfgmgr_words,
    },
};

constexpr process_index_t stop_order[] = { PROCESS_CFGMGR, PROCESS_AGENTD };

void process_ended_cb(evutil_socket_t, short, void *arg);
void process_start(process_t *process);

std::string log_path(const process_t &process)
{
    return tip_path("/var/log/%s.log", process.rule->name).text;
}

std::string program_of(const process_t &process)
{
    return process.rule->words(*process.sysmgrd).front();
}

void pid_files_remove(const process_t &process)
{
    daemon_pid_file_remove(process.rule->name, 0);
    if (process.rule->note_name != nullptr)
        daemon_pid_file_remove(process.rule->note_name, 0);
}

// ---- start and restart

void start_when_clear(process_t *process);

void restart_cb(evutil_socket_t, short, void *arg)
{
    start_when_clear(static_cast<process_t *>(arg));
}

void start_later(process_t *process, uint32_t delay_ms)
{
    timeval delay = timeval_of_ms(delay_ms);
    process->restart_timer.reset(evtimer_new(process->sysmgrd->base.get(), restart_cb, process));
    evtimer_add(process->restart_timer.get(), &delay);
}

void restart_schedule(process_t *process)
{
    process->restarts++;
    start_later(process, restart_delay_ms(process->quick_deaths));
}

// A cfgmgr that met a routing daemon which is about to end would be without a link to it for good.
void start_when_clear(process_t *process)
{
    if (process->rule == &rules[PROCESS_CFGMGR] && routing_is_ending(*process->sysmgrd))
        start_later(process, CLEAR_CHECK_MS);
    else
        process_start(process);
}

void note_start(process_t *process, bool is_adopted, bool has_hello)
{
    process->is_adopted = is_adopted;
    process->has_hello = has_hello;
    process->started_ms = process->last_hello_ms = monotonic_ms();
    process->restart_timer.reset();
    sysmgrd_changed(process->sysmgrd);
}

// The agent may have a cfgmgr that was ready before: it will not say so again.
void agent_resume(sysmgrd_t *sysmgrd)
{
    const process_t &cfgmgr = sysmgrd->processes[PROCESS_CFGMGR];
    bool is_ready = cfgmgr.watch.pid != 0 && cfgmgr.watch.pid == sysmgrd->memory.ready_pid;
    if (is_ready && sysmgrd->processes[PROCESS_AGENTD].watch.pid != 0)
        agent_side_begin(sysmgrd);
}

bool process_spawn(process_t *process)
{
    std::string path = log_path(*process);
    unique_fd log(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!log.is_open())
        log.reset(open("/dev/null", O_WRONLY | O_CLOEXEC)); // no reason to leave the device without the process
    pid_files_remove(*process);
    pid_t pid = child_spawn(process->rule->words(*process->sysmgrd), log.get());
    if (pid == 0)
        return false;
    const char *file =
        process->rule->pid_file_time == PID_FILE_AT_START ? process->rule->name : process->rule->note_name;
    pid_file_write(file, pid);
    if (process_watch(&process->watch, process->sysmgrd->base.get(), pid, process_ended_cb, process))
        return true;
    // Unwatched it would be started a second time.
    child_discard(pid);
    pid_files_remove(*process);
    return false;
}

void process_start(process_t *process)
{
    if (!process_spawn(process)) {
        tip_log("Cannot start %s: %s; is it built and in PATH?", program_of(*process).c_str(), strerror(errno));
        process->quick_deaths++;
        restart_schedule(process);
        return;
    }
    note_start(process, false, false);
    tip_log("Started %s, pid %d", process->rule->name, process->watch.pid);
    if (process->rule == &rules[PROCESS_AGENTD])
        agent_resume(process->sysmgrd);
}

// ---- taking over

bool process_adopt(process_t *process, pid_t pid, bool has_hello)
{
    if (pid == 0 || !process_watch(&process->watch, process->sysmgrd->base.get(), pid, process_ended_cb, process))
        return false;
    note_start(process, true, has_hello);
    tip_log("Took over %s, pid %d", process->rule->name, pid);
    return true;
}

bool process_find(process_t *process)
{
    std::string program = program_of(*process);
    if (process_adopt(process, pid_file_live(process->rule->name, program), process->rule->peer != 0))
        return true;
    return process->rule->note_name != nullptr &&
           process_adopt(process, pid_file_live(process->rule->note_name, program), false);
}

// ---- the end of a process

// What the memory holds of a dead cfgmgr would let others go before its successor has read its configuration.
void forget_reader(sysmgrd_t *sysmgrd, const process_t &process)
{
    if (process.rule->read_bit == 0)
        return;
    sysmgrd->memory.ready_pid = 0;
    sysmgrd->memory.read_bits &= ~process.rule->read_bit;
    memory_save(sysmgrd->memory);
}

// A cfgmgr that was let go counts its first read as done, even where the agent died under it, and does not set its bit a
// second time: from then on the memory stands for it.
void remember_reader(sysmgrd_t *sysmgrd)
{
    if (sysmgrd->agent.step != AGENT_WATCH)
        return;
    sysmgrd->memory.read_bits |= AGENT_BIT_CFGMGR;
    memory_save(sysmgrd->memory);
}

void stop_step(sysmgrd_t *sysmgrd);

void process_ended_cb(evutil_socket_t, short, void *arg)
{
    auto *process = static_cast<process_t *>(arg);
    sysmgrd_t *sysmgrd = process->sysmgrd;
    pid_t pid = process->watch.pid;
    int64_t lived_ms = monotonic_ms() - process->started_ms;
    process->last_end = process_end_text(process_collect(&process->watch));
    pid_files_remove(*process);
    remember_reader(sysmgrd);
    agent_side_cancel(sysmgrd); // it needs both
    forget_reader(sysmgrd, *process);
    sysmgrd_changed(sysmgrd);
    if (sysmgrd->is_stopping) {
        tip_log("%s (pid %d) %s", process->rule->name, pid, process->last_end.c_str());
        sysmgrd->stop_stage = 0;
        stop_step(sysmgrd);
        return;
    }
    if (process->rule == &rules[PROCESS_CFGMGR])
        routing_reset(sysmgrd);
    process->quick_deaths = lived_ms < QUICK_DEATH_MS ? process->quick_deaths + 1 : 0;
    tip_log("%s (pid %d) %s after %ld ms; what it printed is in %s; starting it again in %u ms", process->rule->name,
            pid, process->last_end.c_str(), lived_ms, log_path(*process).c_str(),
            restart_delay_ms(process->quick_deaths));
    restart_schedule(process);
}

// ---- silence

void judge_silence(process_t *process, int64_t now_ms)
{
    const sysmgrd_settings_t &settings = process->sysmgrd->settings;
    int64_t limit_ms = process->has_hello ? settings.hello_limit_ms : settings.start_limit_ms;
    int64_t silent_ms = now_ms - process->last_hello_ms;
    if (process->rule->peer == 0 || process->watch.pid == 0 || silent_ms <= limit_ms)
        return;
    tip_log("%s (pid %d) has not said hello for %ld ms, %s; killing it", process->rule->name, process->watch.pid,
            silent_ms, process->has_hello ? "it counts as dead" : "it does not come up");
    (void)process_signal(process->watch, SIGKILL); // gone already: its end is about to be noticed
    process->last_hello_ms = now_ms;               // one line a limit
}

// ---- stop

void stop_step_cb(evutil_socket_t, short, void *arg)
{
    auto *sysmgrd = static_cast<sysmgrd_t *>(arg);
    sysmgrd->stop_stage++;
    stop_step(sysmgrd);
}

// Sends the signal of the stage to the first process that still runs. The routing daemons end beside agentd.
void stop_step(sysmgrd_t *sysmgrd)
{
    if (sysmgrd->processes[PROCESS_CFGMGR].watch.pid == 0 && !sysmgrd->routing.is_stopped)
        routing_stop(sysmgrd);
    for (process_index_t index : stop_order) {
        process_t &process = sysmgrd->processes[index];
        if (process.watch.pid == 0)
            continue;
        size_t last = std::size(process.rule->stop_steps) - 1;
        const stop_step_t &step = process.rule->stop_steps[std::min<size_t>(sysmgrd->stop_stage, last)];
        (void)process_signal(process.watch, step.signal != 0 ? step.signal : SIGKILL);
        timeval wait = timeval_of_ms(std::max<uint32_t>(step.wait_ms, FIRST_DELAY_MS));
        sysmgrd->stop_timer.reset(evtimer_new(sysmgrd->base.get(), stop_step_cb, sysmgrd));
        evtimer_add(sysmgrd->stop_timer.get(), &wait);
        return;
    }
    if (routing_is_gone(*sysmgrd))
        event_base_loopbreak(sysmgrd->base.get());
}

} // namespace

void supervisor_start(sysmgrd_t *sysmgrd)
{
    for (size_t i = 0; i < NUM_PROCESSES; i++) {
        process_t &process = sysmgrd->processes[i];
        process.rule = &rules[i];
        process.sysmgrd = sysmgrd;
        (void)process_find(&process);
    }
    const process_t &cfgmgr = sysmgrd->processes[PROCESS_CFGMGR];
    if (cfgmgr.watch.pid == 0 || cfgmgr.watch.pid != sysmgrd->memory.ready_pid)
        forget_reader(sysmgrd, cfgmgr);
    routing_start(sysmgrd, cfgmgr.watch.pid != 0);
    for (process_t &process : sysmgrd->processes) {
        if (process.watch.pid == 0)
            start_when_clear(&process);
    }
    if (sysmgrd->agent.step == AGENT_IDLE)
        agent_resume(sysmgrd);
}

void supervisor_tick(sysmgrd_t *sysmgrd)
{
    int64_t now_ms = monotonic_ms();
    int64_t pause_ms = own_pause_ms(sysmgrd->last_tick_ms, now_ms, supervisor_tick_period_ms(sysmgrd->settings));
    sysmgrd->last_tick_ms = now_ms;
    for (process_t &process : sysmgrd->processes) {
        process.last_hello_ms += pause_ms;
        if (!sysmgrd->is_stopping)
            judge_silence(&process, now_ms);
    }
}

void supervisor_hello(sysmgrd_t *sysmgrd, uint32_t peer, pid_t pid)
{
    auto found = std::find_if(sysmgrd->processes.begin(), sysmgrd->processes.end(),
                              [peer](const process_t &process) { return process.rule->peer == peer; });
    if (found == sysmgrd->processes.end())
        return;
    process_t &process = *found;
    if (process.watch.pid == 0 && !sysmgrd->is_stopping && process_is(pid, program_of(process)))
        (void)process_adopt(&process, pid, false);
    if (process.watch.pid != pid) // a second instance: it has no say
        return;
    process.last_hello_ms = monotonic_ms();
    if (!process.has_hello) {
        pid_file_write(process.rule->name, pid);
        tip_log("%s (pid %d) is up after %ld ms", process.rule->name, pid, process.last_hello_ms - process.started_ms);
        if (process.rule->note_name != nullptr)
            daemon_pid_file_remove(process.rule->note_name, 0);
    }
    process.has_hello = true;
    sysmgrd_changed(sysmgrd);
}

void supervisor_stop(sysmgrd_t *sysmgrd)
{
    sysmgrd->is_stopping = true;
    agent_side_cancel(sysmgrd);
    for (process_t &process : sysmgrd->processes)
        process.restart_timer.reset();
    stop_step(sysmgrd);
}

void supervisor_routing_gone(sysmgrd_t *sysmgrd)
{
    bool has_others = std::any_of(sysmgrd->processes.begin(), sysmgrd->processes.end(),
                                  [](const process_t &process) { return process.watch.pid != 0; });
    if (!has_others)
        event_base_loopbreak(sysmgrd->base.get());
}

uint32_t restart_delay_ms(uint32_t quick_deaths)
{
    uint32_t doublings = std::min(quick_deaths, 16U);
    return std::min(FIRST_DELAY_MS << doublings, LONGEST_DELAY_MS);
}

int64_t own_pause_ms(int64_t last_tick_ms, int64_t now_ms, uint32_t period_ms)
{
    int64_t late_ms = now_ms - last_tick_ms - period_ms;
    return late_ms > TICK_SLACK_MS ? late_ms : 0;
}

uint32_t supervisor_tick_period_ms(const sysmgrd_settings_t &settings)
{
    return std::clamp(settings.hello_limit_ms / 4, 50U, TICK_MS);
}
