// routing_peer: stands in for one routing daemon of one VPN. It speaks the whole channel to cfgmgr: takes and answers
// every message, tells the interfaces of its namespace, writes down what it was told. It routes nothing.
//
//   routing_peer zebra|ospfd|bgpd [--vpn N] [--root DIR] [--log FILE]
//
// It runs in the network namespace "/var/run/netns/N" (VPN 0: where it was started). Its pid file,
// "/var/run/quagga/NAME.pid[.N]", is there before its sockets and gone before its orderly end. Each message is one line
// of JSON in "/var/log/quagga/NAME.log[.N]". A control file (platform/routing/control_words.h) has it misbehave.
//
// SIGTERM and SIGINT end it with status 0; SIGUSR1 sends the notifications of the control file. Exit status: 1 when it
// cannot start (the log tells why), 2 for a wrong command line.
#include "platform/routing/peer.h"

#include "common/tip_log.h"
#include "common/tip_pid.h"
#include "common/tip_root.h"
#include "platform/run_files.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>

namespace
{

enum exit_status_t {
    EXIT_DONE = 0,
    EXIT_NOT_STARTED = 1,
    EXIT_USAGE = 2,
};

bool vpn_read(std::string_view word, uint64_t *vpn_id)
{
    auto result = std::from_chars(word.data(), word.data() + word.size(), *vpn_id);
    return result.ec == std::errc() && result.ptr == word.data() + word.size();
}

bool option_take(std::string_view option, const char *value, peer_settings_t *settings)
{
    if (option == "--vpn")
        return vpn_read(value, &settings->vpn_id);
    if (option == "--root")
        return tip_root_set(value) == 0;
    if (option == "--log")
        settings->log_path = value;
    return option == "--log";
}

bool options_read(int argc, char **argv, peer_settings_t *settings)
{
    bool is_good = argc > 1 && argc % 2 == 0 && (settings->daemon = daemon_row_find(argv[1])) != nullptr;
    for (int i = 2; is_good && i < argc; i += 2)
        is_good = option_take(argv[i], argv[i + 1], settings);
    if (!is_good)
        fprintf(stderr, "usage: routing_peer zebra|ospfd|bgpd [--vpn N] [--root DIR] [--log FILE]\n");
    return is_good;
}

void folders_make()
{
    for (const char *folder : { TIP_RUN_DIR, TIP_QUAGGA_RUN_DIR, "/var/log", "/var/log/quagga" })
        (void)mkdir(tip_path("%s", folder).text, 0755); // there already, or the files in it tell
}

bool namespace_enter(uint64_t vpn_id)
{
    if (vpn_id == 0)
        return true;
    tip_path_t path = tip_path("%s/%lu", TIP_NETNS_DIR, vpn_id);
    unique_fd fd(open(path.text, O_RDONLY | O_CLOEXEC));
    if (fd.is_open() && setns(fd.get(), CLONE_NEWNET) == 0)
        return true;
    tip_log("Cannot enter the namespace %s: %s", path.text, strerror(errno));
    return false;
}

// In one step: cfgmgr reads the file as soon as it sees it.
bool pid_write(const peer_settings_t &settings)
{
    char path[PATH_MAX];
    (void)quagga_pid_path(settings.daemon->name, settings.vpn_id, path, sizeof path);
    return file_replace(path, std::to_string(getpid()) + "\n");
}

void stop_cb(evutil_socket_t, short, void *arg)
{
    event_base_loopbreak(static_cast<peer_t *>(arg)->base.get());
}

void notify_cb(evutil_socket_t, short, void *arg)
{
    peer_notify_all(static_cast<peer_t *>(arg));
}

// Signals are caught before the pid file tells where to send them.
bool peer_run(peer_t *peer)
{
    struct {
        int number;
        event_callback_fn cb;
        event_ptr event;
    } signals[] = { { SIGTERM, stop_cb, nullptr }, { SIGINT, stop_cb, nullptr }, { SIGUSR1, notify_cb, nullptr } };
    for (auto &row : signals) {
        row.event.reset(evsignal_new(peer->base.get(), row.number, row.cb, peer));
        evsignal_add(row.event.get(), nullptr);
    }
    if (!pid_write(peer->settings))
        return false;
    bool is_up = peer_start(peer);
    if (is_up)
        event_base_dispatch(peer->base.get());
    (void)quagga_pid_remove(peer->settings.daemon->name, peer->settings.vpn_id); // first: cfgmgr waits for it
    peer_stop(peer);
    return is_up && !peer->is_broken;
}

} // namespace

int main(int argc, char **argv)
{
    auto peer = std::make_unique<peer_t>();
    if (!options_read(argc, argv, &peer->settings))
        return EXIT_USAGE;
    openlog(peer->settings.daemon->name, LOG_PID | LOG_NDELAY, LOG_LOCAL7);
    signal(SIGPIPE, SIG_IGN); // a peer that is gone shows in the write
    peer->backend = plain_backend();
    folders_make();
    if (!namespace_enter(peer->settings.vpn_id))
        return EXIT_NOT_STARTED;
    peer->base.reset(event_base_new());
    return peer->base && peer_run(peer.get()) ? EXIT_DONE : EXIT_NOT_STARTED;
}
