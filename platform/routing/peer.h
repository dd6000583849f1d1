// One routing daemon of one VPN: its sockets, its log of messages, and the backend behind them.
//
// Three kinds of connections. On the management socket each request gets one answer, in order. To the notification
// socket, which cfgmgr listens on, the daemon connects by itself, again and again. On the control socket, zebra's alone,
// a client that registers gets all interfaces and addresses of the namespace and then each change.
#ifndef PLATFORM_ROUTING_PEER_H
#define PLATFORM_ROUTING_PEER_H

#include "platform/routing/answer.h"
#include "platform/routing/kernel_watch.h"
#include "platform/routing/stream.h"

struct peer_settings_t {
    const daemon_row_t *daemon = nullptr;
    uint64_t vpn_id = 0;
    std::string log_path; // empty: "/var/log/quagga/NAME.log[.VPN]"
};

struct peer_t {
    peer_settings_t settings;
    backend_t backend;
    event_base_ptr base;
    unique_fd log;
    std::string control_text; // as last read
    std::vector<control_line_t> control;
    size_t shows = 0; // answered since the control file has changed
    stream_server_t mgmt;
    stream_server_t rtm;
    kernel_watch_t kernel;
    std::unique_ptr<stream_t> notify; // null: not connected
    event_ptr notify_timer;
    event_ptr late_timer;
    bool is_broken = false; // the sockets could not be opened
};

// "/path/name" of VPN 0, "/path/name.VPN" of others; below the root of common/tip_root.h.
[[nodiscard]] std::string vpn_path(const char *path, uint64_t vpn_id);

// Opens the log and, at once or as late as the control file says, the sockets. False, logged.
[[nodiscard]] bool peer_start(peer_t *peer);
// Closes the sockets and removes their files.
void peer_stop(peer_t *peer);
// Sends a notification, packed; without a connection it is lost.
void peer_notify(peer_t *peer, const std::string &body);
// Sends those of the control file.
void peer_notify_all(peer_t *peer);

// One line: time, VPN, daemon, name and number of the message, and the message; for what is not a message the object is
// empty.
void peer_log(const peer_t &peer, const char *type, int number, const std::string &object);
// Reads the control file, if it has changed.
void peer_control_read(peer_t *peer);

#endif
