#include "platform/routing_daemons.h"

#include "common/daemon_names.h"
#include "common/tip_file.h"
#include "common/tip_log.h"
#include "common/tip_pid.h"
#include "common/tip_root.h"
#include "platform/run_files.h"
#include "platform/supervisor.h"
#include "platform/sysmgrd.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace
{

constexpr uint64_t TRANSPORT_VPN = 0;
constexpr uint64_t MANAGEMENT_VPN = 512;
constexpr uint32_t END_LIMIT_MS = 500; // from the request to end to the signal that is not refused
constexpr size_t MAX_CMDLINE = 4096;

constexpr std::string_view zebra_only_personalities[] = { "lodest", "quorvix", "pendry" };

struct routing_row_t {
    daemon_id_t id;
    bool is_everywhere;
};
constexpr routing_row_t routing_rows[NUM_ROUTING_DAEMONS] = {
    { DAEMON_ID_ZEBRA, true },
    { DAEMON_ID_OSPFD, false },
    { DAEMON_ID_BGPD, false },
};

void daemon_start(routing_daemon_t *daemon);

const char *name_of(const routing_daemon_t &daemon)
{
    return routing_daemon_name(daemon.index);
}

std::vector<std::string> words_of(const routing_daemon_t &daemon)
{
    const sysmgrd_settings_t &settings = daemon.sysmgrd->settings;
    std::vector<std::string> words = { settings.routing_peer, name_of(daemon), "--vpn", std::to_string(daemon.vpn_id) };
    if (!settings.root.empty())
        words.insert(words.end(), { "--root", settings.root });
    return words;
}

void timer_arm(routing_daemon_t *daemon, event_callback_fn cb, uint32_t delay_ms)
{
    timeval delay = timeval_of_ms(delay_ms);
    daemon->timer.reset(evtimer_new(daemon->sysmgrd->base.get(), cb, daemon));
    evtimer_add(daemon->timer.get(), &delay);
}

void folders_make()
{
    for (const char *folder : { TIP_RUN_DIR, TIP_QUAGGA_RUN_DIR, "/var/log", "/var/log/quagga" })
        (void)mkdir(tip_path("%s", folder).text, 0755); // there already, or the daemons tell what they miss
}

// ---- end

void record_remove(routing_daemon_t *daemon)
{
    daemon->sysmgrd->routing.daemons.erase({ daemon->vpn_id, daemon->index });
}

void kill_cb(evutil_socket_t, short, void *arg)
{
    const auto *daemon = static_cast<routing_daemon_t *>(arg);
    tip_log("%s of VPN %lu (pid %d) does not end within %u ms, killing it", name_of(*daemon), daemon->vpn_id,
            daemon->watch.pid, END_LIMIT_MS);
    (void)process_signal(daemon->watch, SIGKILL); // gone already: its end is about to be noticed
}

// Tells a daemon to end; is_wanted: it starts again after that. One that does not run loses its record at once.
void daemon_end(routing_daemon_t *daemon, bool is_wanted)
{
    daemon->is_wanted = is_wanted;
    if (daemon->watch.pid == 0) {
        record_remove(daemon);
        return;
    }
    if (daemon->is_ending)
        return;
    daemon->is_ending = true;
    (void)process_signal(daemon->watch, SIGTERM);
    timer_arm(daemon, kill_cb, END_LIMIT_MS);
}

void restart_cb(evutil_socket_t, short, void *arg)
{
    daemon_start(static_cast<routing_daemon_t *>(arg));
}

void restart_schedule(routing_daemon_t *daemon)
{
    daemon->restarts++;
    timer_arm(daemon, restart_cb, restart_delay_ms(daemon->quick_deaths));
}

void note_death(routing_daemon_t *daemon, pid_t pid, int status)
{
    int64_t lived_ms = monotonic_ms() - daemon->started_ms;
    daemon->quick_deaths = lived_ms < QUICK_DEATH_MS ? daemon->quick_deaths + 1 : 0;
    tip_log("%s of VPN %lu (pid %d) %s after %ld ms; starting it again in %u ms, cfgmgr's link to it stays down",
            name_of(*daemon), daemon->vpn_id, pid, process_end_text(status).c_str(), lived_ms,
            restart_delay_ms(daemon->quick_deaths));
    restart_schedule(daemon);
}

void daemon_ended_cb(evutil_socket_t, short, void *arg)
{
    auto *daemon = static_cast<routing_daemon_t *>(arg);
    sysmgrd_t *sysmgrd = daemon->sysmgrd;
    pid_t pid = daemon->watch.pid;
    bool was_told = daemon->is_ending;
    int status = process_collect(&daemon->watch);
    daemon->is_ending = false;
    daemon->timer.reset();
    (void)quagga_pid_remove(name_of(*daemon), daemon->vpn_id); // gone already after an orderly end
    sysmgrd_changed(sysmgrd);
    if (!daemon->is_wanted)
        record_remove(daemon);
    else if (was_told)
        daemon_start(daemon);
    else
        note_death(daemon, pid, status);
    if (sysmgrd->routing.is_stopped && routing_is_gone(*sysmgrd))
        supervisor_routing_gone(sysmgrd);
}

// ---- start and taking over

void note_start(routing_daemon_t *daemon, bool is_adopted)
{
    daemon->started_ms = monotonic_ms();
    daemon->timer.reset();
    tip_log("%s %s of VPN %lu, pid %d", is_adopted ? "Took over" : "Started", name_of(*daemon), daemon->vpn_id,
            daemon->watch.pid);
    sysmgrd_changed(daemon->sysmgrd);
}

bool daemon_spawn(routing_daemon_t *daemon)
{
    unique_fd log(
        open(tip_path("/var/log/quagga/routing_peer.log").text, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!log.is_open())
        log.reset(open("/dev/null", O_WRONLY | O_CLOEXEC));    // no reason to leave the VPN without the daemon
    (void)quagga_pid_remove(name_of(*daemon), daemon->vpn_id); // none in most cases; cfgmgr would believe an old one
    pid_t pid = child_spawn(words_of(*daemon), log.get());
    if (pid == 0)
        return false;
    if (process_watch(&daemon->watch, daemon->sysmgrd->base.get(), pid, daemon_ended_cb, daemon))
        return true;
    child_discard(pid); // unwatched it would be started a second time
    return false;
}

void daemon_start(routing_daemon_t *daemon)
{
    if (daemon_spawn(daemon)) {
        note_start(daemon, false);
        return;
    }
    tip_log("Cannot start %s of VPN %lu: %s; is %s built and in PATH?", name_of(*daemon), daemon->vpn_id,
            strerror(errno), daemon->sysmgrd->settings.routing_peer.c_str());
    daemon->quick_deaths++;
    restart_schedule(daemon);
}

// All of them run one program: the words tell which one a process is. A script's interpreter stands before them.
bool runs_words(pid_t pid, const std::vector<std::string> &words)
{
    std::string tail;
    for (size_t i = 1; i < words.size(); i++)
        tail += std::string(1, '\0') + words[i];
    tail += '\0';
    std::string cmdline = file_text("/proc/" + std::to_string(pid) + "/cmdline", MAX_CMDLINE);
    return cmdline.ends_with(tail);
}

// The live process that the daemon's pid file stands for, else 0.
pid_t daemon_find(const routing_daemon_t &daemon)
{
    char path[PATH_MAX];
    long pid = 0;
    (void)quagga_pid_path(name_of(daemon), daemon.vpn_id, path, sizeof path);
    bool is_pid = file_read_number(path, 10, &pid) == 0 && pid > 0 && pid <= INT_MAX;
    return is_pid && runs_words(static_cast<pid_t>(pid), words_of(daemon)) ? static_cast<pid_t>(pid) : 0;
}

bool daemon_adopt(routing_daemon_t *daemon)
{
    pid_t pid = daemon_find(*daemon);
    if (pid == 0 || !process_watch(&daemon->watch, daemon->sysmgrd->base.get(), pid, daemon_ended_cb, daemon))
        return false;
    note_start(daemon, true);
    return true;
}

routing_daemon_t *record_create(sysmgrd_t *sysmgrd, uint64_t vpn_id, routing_index_t index)
{
    auto daemon = std::make_unique<routing_daemon_t>();
    daemon->sysmgrd = sysmgrd;
    daemon->index = index;
    daemon->vpn_id = vpn_id;
    return (sysmgrd->routing.daemons[{ vpn_id, index }] = std::move(daemon)).get();
}

void daemon_provide(sysmgrd_t *sysmgrd, uint64_t vpn_id, routing_index_t index)
{
    auto found = sysmgrd->routing.daemons.find({ vpn_id, index });
    if (found == sysmgrd->routing.daemons.end()) {
        daemon_start(record_create(sysmgrd, vpn_id, index));
        return;
    }
    routing_daemon_t &daemon = *found->second;
    daemon.is_wanted = true;
    if (daemon.is_ending) // of the VPN of that number before: cfgmgr is about to connect to the next one
        (void)process_signal(daemon.watch, SIGKILL);
}

// Ends the daemons that is_one chooses; records vanish under it.
template <typename Which> void end_all(sysmgrd_t *sysmgrd, Which is_one, bool is_vpn_0_wanted)
{
    std::vector<routing_daemon_t *> chosen;
    for (const auto &[key, daemon] : sysmgrd->routing.daemons) {
        if (is_one(*daemon))
            chosen.push_back(daemon.get());
    }
    for (routing_daemon_t *daemon : chosen)
        daemon_end(daemon, is_vpn_0_wanted && daemon->vpn_id == TRANSPORT_VPN);
    sysmgrd_changed(sysmgrd);
}

bool is_any(const routing_daemon_t &)
{
    return true;
}

template <typename Action> void each_daemon_of(const sysmgrd_t &sysmgrd, uint64_t vpn_id, Action action)
{
    for (routing_index_t index : { ROUTING_ZEBRA, ROUTING_OSPFD, ROUTING_BGPD }) {
        if (routing_daemon_exists(sysmgrd.settings.personality, vpn_id, index))
            action(index);
    }
}

void adopt_all_of(sysmgrd_t *sysmgrd, uint64_t vpn_id)
{
    each_daemon_of(*sysmgrd, vpn_id, [sysmgrd, vpn_id](routing_index_t index) {
        routing_daemon_t *daemon = record_create(sysmgrd, vpn_id, index);
        if (!daemon_adopt(daemon))
            record_remove(daemon);
    });
}

} // namespace

const char *routing_daemon_name(routing_index_t index)
{
    return daemon_id_to_name(routing_rows[index].id);
}

bool routing_daemon_exists(std::string_view personality, uint64_t vpn_id, routing_index_t index)
{
    bool is_zebra_only =
        vpn_id == MANAGEMENT_VPN || std::find(std::begin(zebra_only_personalities), std::end(zebra_only_personalities),
                                              personality) != std::end(zebra_only_personalities);
    return routing_rows[index].is_everywhere || !is_zebra_only;
}

void routing_start(sysmgrd_t *sysmgrd, bool is_cfgmgr_alive)
{
    folders_make();
    std::set<uint64_t> vpns = sysmgrd->memory.vpns;
    vpns.insert(TRANSPORT_VPN);
    for (uint64_t vpn_id : vpns)
        adopt_all_of(sysmgrd, vpn_id);
    if (!is_cfgmgr_alive) {
        routing_reset(sysmgrd);
        return;
    }
    for (uint64_t vpn_id : vpns)
        routing_vpn_add(sysmgrd, vpn_id);
}

void routing_vpn_add(sysmgrd_t *sysmgrd, uint64_t vpn_id)
{
    if (sysmgrd->routing.is_stopped)
        return;
    each_daemon_of(*sysmgrd, vpn_id,
                   [sysmgrd, vpn_id](routing_index_t index) { daemon_provide(sysmgrd, vpn_id, index); });
}

void routing_vpn_del(sysmgrd_t *sysmgrd, uint64_t vpn_id)
{
    if (vpn_id != TRANSPORT_VPN)
        end_all(
            sysmgrd, [vpn_id](const routing_daemon_t &daemon) { return daemon.vpn_id == vpn_id; }, false);
}

void routing_reset(sysmgrd_t *sysmgrd)
{
    sysmgrd->memory.vpns.clear();
    memory_save(sysmgrd->memory);
    end_all(sysmgrd, is_any, true);
    each_daemon_of(*sysmgrd, TRANSPORT_VPN, [sysmgrd](routing_index_t index) {
        if (!sysmgrd->routing.daemons.contains({ TRANSPORT_VPN, index }))
            daemon_start(record_create(sysmgrd, TRANSPORT_VPN, index));
    });
}

bool routing_is_ending(const sysmgrd_t &sysmgrd)
{
    const auto &daemons = sysmgrd.routing.daemons;
    return std::any_of(daemons.begin(), daemons.end(), [](const auto &entry) { return entry.second->is_ending; });
}

void routing_stop(sysmgrd_t *sysmgrd)
{
    sysmgrd->routing.is_stopped = true;
    end_all(sysmgrd, is_any, false);
}

bool routing_is_gone(const sysmgrd_t &sysmgrd)
{
    return sysmgrd.routing.daemons.empty();
}
