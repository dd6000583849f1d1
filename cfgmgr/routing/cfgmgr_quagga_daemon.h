// The routing daemons of a VPN: which ones it has, the connections to them, and the wait for their start and end.
//
// The system manager starts and stops the processes when it is told of a VPN; this daemon waits for them. Connections
// are made once, with the VPN: a daemon that dies later stays without a link until this daemon starts again.
#ifndef CFGMGR_ROUTING_CFGMGR_QUAGGA_DAEMON_H
#define CFGMGR_ROUTING_CFGMGR_QUAGGA_DAEMON_H

#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/daemon_names.h"
#include "common/msgq_util.h"

inline constexpr uint32_t QUAGGA_PEER_FIRST = DAEMON_ID_ZEBRA;
inline constexpr uint32_t QUAGGA_PEER_LAST = DAEMON_ID_BGPD;

enum quagga_result_t {
    QUAGGA_OK = 0,
    QUAGGA_FAILED = 1,
    QUAGGA_TIMEOUT = 7,
    QUAGGA_SKIPPED = 15, // a message that was not sent, or was lost
    QUAGGA_NO_RESOURCE = 21,
};

// One row of what differs by daemon.
struct quagga_peer_t {
    uint32_t peer_id;
    uint8_t module;          // on the wire
    const char *process;     // of the pid file
    const char *module_name; // in logs
    const char *mgmt_path;   // sockets of VPN 0; others append ".VPN"
    const char *notify_path; // empty: none
};
// Null for an id or number that is no routing daemon's.
[[nodiscard]] const quagga_peer_t *cfgmgr_quagga_peer(uint32_t peer_id);
[[nodiscard]] const quagga_peer_t *cfgmgr_quagga_peer_by_module(uint8_t module);

// What the connections to a VPN's daemons share: the frame, the daemon context's loop and timers, the socket of
// that VPN under the name that VPN 0 uses. False when the name does not fit. Not blocking.
[[nodiscard]] bool cfgmgr_quagga_socket_cfg(const cfgmgr_vpn_t &vpn, const char *path, msgq_cfg_t *cfg);

// Whether a VPN has that daemon: zebra always; the others not in the management VPN, nor on controllers, management
// systems and container hosts.
[[nodiscard]] bool cfgmgr_vpn_has_quagga_daemon(const cfgmgrd_t &cfgmgrd, uint64_t vpn_id, uint32_t peer_id);

// Opens the connections; waits, without limit, for the daemon's management socket. A second record is fatal.
[[nodiscard]] int cfgmgr_vpn_add_quagga_daemon(uint32_t peer_id, cfgmgr_vpn_t *vpn_p);
// Closes them and frees the record; without a record fatal.
int cfgmgr_vpn_del_quagga_daemon(uint32_t peer_id, cfgmgr_vpn_t *vpn_p);
// The connections and, in a VPN other than 0, the pid; a daemon without a pid file is fatal.
[[nodiscard]] int cfgmgr_vpn_start_quagga_daemon(uint32_t peer_id, cfgmgr_vpn_t *vpn_p);
// Waits for the end, unless the process is being stopped, and gives the record up.
int cfgmgr_vpn_stop_quagga_daemon(uint32_t peer_id, cfgmgr_vpn_t *vpn_p);
// The pid file appears within 100 ms; vanishes within 10 ms. 0 or QUAGGA_TIMEOUT.
[[nodiscard]] int cfgmgr_wait_quagga_start(const char *process, uint64_t vpn_id);
int cfgmgr_wait_quagga_stop(const char *process, uint64_t vpn_id);

#endif
