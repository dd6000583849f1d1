// The routing daemons of a VPN: their rows, their connections, the wait for their start and end.

#include "cfgmgr/routing/cfgmgr_quagga_daemon.h"

#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_msg.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "common/tip_names.h"
#include "common/tip_pid.h"
#include "common/tip_root.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <unistd.h>

namespace
{

constexpr int START_TRIES = 100;
constexpr useconds_t START_PAUSE_US = 1000;
// Less patience on the way down, deliberately: nobody depends on it, and a VPN goes away once only.
constexpr int STOP_TRIES = 50;
constexpr useconds_t STOP_PAUSE_US = 200;

// In order of peer id. The numbers on the wire are in another order, and logs have names of their own.
#define QUAGGA_SOCKET(name) TIP_QUAGGA_RUN_DIR "/" name ".api"
constexpr quagga_peer_t peers[] = {
    { DAEMON_ID_ZEBRA, 0, "zebra", "zebra", QUAGGA_SOCKET("zebra_protobuf_mgmt"),
      QUAGGA_SOCKET("zebra_protobuf_notify") },
    { DAEMON_ID_OSPFD, 2, "ospfd", "ospf", QUAGGA_SOCKET("ospfd_protobuf_mgmt"),
      QUAGGA_SOCKET("ospfd_protobuf_notify") },
    { DAEMON_ID_BGPD, 1, "bgpd", "bgp", QUAGGA_SOCKET("bgpd_protobuf_mgmt"), QUAGGA_SOCKET("bgpd_protobuf_notify") },
};
static_assert(std::size(peers) == QUAGGA_PEER_LAST - QUAGGA_PEER_FIRST + 1);

// A link that comes or goes is met by the next message; the context is a daemon or a transaction.
void check_context(const void *context)
{
    tip_assert(context != nullptr);
}

void conn_up(msgq_t *, void *context)
{
    check_context(context);
}

void conn_down(msgq_t *, void *context)
{
    check_context(context);
}

void conn_error(msgq_t *, void *)
{
} // the queue calls it never, but wants it

void *frame_alloc(size_t size)
{
    return malloc(size);
}

void frame_free(void *memory)
{
    free(memory);
}

constexpr msgq_cbs_t callbacks = { conn_up, conn_down, conn_error, cfgmgr_vpn_quagga_read_cb, frame_alloc, frame_free };

// Null when the handle cannot be made.
msgq_t *open_connection(q_daemon_t *q_daemon_p, msgq_handle_type_t type, const char *path)
{
    msgq_cfg_t cfg;
    if (!cfgmgr_quagga_socket_cfg(*q_daemon_p->vpn_p, path, &cfg))
        return nullptr;
    // Requests wait for their answer. On the other socket it is the daemon that connects.
    cfg.blocking = type == MSGQ_HANDLE_TYPE_CLIENT;
    return msgq_init(DAEMON_ID_CFGMGR, q_daemon_p->daemon_id, type, &cfg, &callbacks, q_daemon_p);
}

int open_connections(q_daemon_t *q_daemon_p, const quagga_peer_t &peer)
{
    uint64_t vpn_id = q_daemon_p->vpn_p->vpn_id;
    q_daemon_p->mgmt_handle = open_connection(q_daemon_p, MSGQ_HANDLE_TYPE_CLIENT, peer.mgmt_path);
    if (q_daemon_p->mgmt_handle == nullptr) {
        tip_log("Failed to init mgmt msgq for quagga daemon: %s (VPN:%lu)", peer.module_name, vpn_id);
        return QUAGGA_FAILED;
    }
    if (peer.notify_path[0] == '\0')
        return QUAGGA_OK;
    q_daemon_p->notify_handle = open_connection(q_daemon_p, MSGQ_HANDLE_TYPE_SERVER, peer.notify_path);
    if (q_daemon_p->notify_handle == nullptr) {
        tip_log("Failed to init notify msgq for quagga daemon: %s (VPN:%lu)", peer.module_name, vpn_id);
        return QUAGGA_FAILED;
    }
    return QUAGGA_OK;
}

bool has_pid_file(const char *process, uint64_t vpn_id)
{
    char path[PATH_MAX];
    return access(quagga_pid_path(process, vpn_id, path, sizeof path), F_OK) == 0;
}

} // namespace

const quagga_peer_t *cfgmgr_quagga_peer(uint32_t peer_id)
{
    for (const quagga_peer_t &peer : peers)
        if (peer.peer_id == peer_id)
            return &peer;
    return nullptr;
}

const quagga_peer_t *cfgmgr_quagga_peer_by_module(uint8_t module)
{
    for (const quagga_peer_t &peer : peers)
        if (peer.module == module)
            return &peer;
    return nullptr;
}

bool cfgmgr_quagga_socket_cfg(const cfgmgr_vpn_t &vpn, const char *path, msgq_cfg_t *cfg)
{
    msgq_cfg_t made{};
    made.event_base = vpn.cfgmgr_p->event_base;
    made.timer_mgr = vpn.cfgmgr_p->timer_mgr_p;
    made.use_app_header = 1;
    made.app_hdrlen = QUAGGA_HEADER_SIZE;
    made.app_size_offset = offsetof(quagga_header_t, length);
    made.facility = LOG_LOCAL7;
    made.sock_type = MSGQ_SOCK_UNIX;
    tip_path_t base = tip_path("%s", path);
    int length = vpn.vpn_id == 0 ? snprintf(made.path, sizeof made.path, "%s", base.text)
                                 : snprintf(made.path, sizeof made.path, "%s.%lu", base.text, vpn.vpn_id);
    if (length < 0 || static_cast<size_t>(length) >= sizeof made.path)
        return false;
    *cfg = made;
    return true;
}

bool cfgmgr_vpn_has_quagga_daemon(const cfgmgrd_t &cfgmgrd, uint64_t vpn_id, uint32_t peer_id)
{
    if (peer_id == DAEMON_ID_ZEBRA)
        return true;
    if (cfgmgr_quagga_peer(peer_id) == nullptr || vpn_id == VPN_ID_MANAGEMENT)
        return false;
    return cfgmgrd.personality != PERSONALITY_LODEST && cfgmgrd.personality != PERSONALITY_QUORVIX &&
           cfgmgrd.personality != PERSONALITY_PENDRY;
}

int cfgmgr_vpn_add_quagga_daemon(uint32_t peer_id, cfgmgr_vpn_t *vpn_p)
{
    const quagga_peer_t *peer = cfgmgr_quagga_peer(peer_id);
    tip_assert(peer != nullptr);
    tip_assert_text(vpn_p->q_daemon_p[peer_id] == nullptr, "q_daemon_p == ((void *)0)");
    auto *q_daemon_p = static_cast<q_daemon_t *>(calloc(1, sizeof(q_daemon_t)));
    if (q_daemon_p == nullptr)
        return QUAGGA_FAILED;
    q_daemon_p->daemon_id = peer_id;
    q_daemon_p->vpn_p = vpn_p;
    vpn_p->q_daemon_p[peer_id] = q_daemon_p;
    tip_log("Init connection to %s (vpn-%lu) PB", peer->module_name, vpn_p->vpn_id);
    return open_connections(q_daemon_p, *peer);
}

int cfgmgr_vpn_del_quagga_daemon(uint32_t peer_id, cfgmgr_vpn_t *vpn_p)
{
    q_daemon_t *q_daemon_p = vpn_p->q_daemon_p[peer_id];
    tip_assert_text(q_daemon_p != nullptr, "q_daemon_p != ((void *)0)");
    vpn_p->q_daemon_p[peer_id] = nullptr;
    msgq_free(q_daemon_p->mgmt_handle);
    msgq_free(q_daemon_p->notify_handle);
    free(q_daemon_p);
    return QUAGGA_OK;
}

int cfgmgr_vpn_start_quagga_daemon(uint32_t peer_id, cfgmgr_vpn_t *vpn_p)
{
    int result = cfgmgr_vpn_add_quagga_daemon(peer_id, vpn_p);
    if (result != QUAGGA_OK || vpn_p->vpn_id == VPN_ID_TRANSPORT)
        return result;
    const char *process = cfgmgr_quagga_peer(peer_id)->process;
    int wait_result = cfgmgr_wait_quagga_start(process, vpn_p->vpn_id);
    tip_assert(wait_result == QUAGGA_OK);
    pid_t pid = quagga_pid_read(process, vpn_p->vpn_id);
    tip_assert(pid != 0);
    vpn_p->q_daemon_p[peer_id]->pid = pid;
    return QUAGGA_OK;
}

int cfgmgr_vpn_stop_quagga_daemon(uint32_t peer_id, cfgmgr_vpn_t *vpn_p)
{
    const quagga_peer_t *peer = cfgmgr_quagga_peer(peer_id);
    tip_assert(peer != nullptr);
    if (vpn_p->q_daemon_p[peer_id] == nullptr) {
        tip_log("Quagga daemon does not exist: %s (vpn:%lu)", peer->module_name, vpn_p->vpn_id);
        return QUAGGA_OK;
    }
    // A daemon that lingers is left behind: the wait has told of it.
    if (vpn_p->vpn_id != VPN_ID_TRANSPORT && !cfgmgr_is_terminating())
        (void)cfgmgr_wait_quagga_stop(peer->process, vpn_p->vpn_id);
    if (cfgmgr_vpn_del_quagga_daemon(peer_id, vpn_p) != QUAGGA_OK) {
        tip_log("Quagga daemon del Failed: %s (vpn:%lu)", peer->module_name, vpn_p->vpn_id);
        return QUAGGA_SKIPPED;
    }
    return QUAGGA_OK;
}

int cfgmgr_wait_quagga_start(const char *process, uint64_t vpn_id)
{
    for (int i = 0; i < START_TRIES; i++) {
        cfgmgr_timer_keepalive();
        if (has_pid_file(process, vpn_id)) {
            tip_log("Process started on time: %s [%lu] iter: %d", process, vpn_id, i);
            return QUAGGA_OK;
        }
        (void)usleep(START_PAUSE_US); // one cut short by a signal is a shorter try
    }
    tip_log("Process timeout error: %s [%lu]", process, vpn_id);
    return QUAGGA_TIMEOUT;
}

int cfgmgr_wait_quagga_stop(const char *process, uint64_t vpn_id)
{
    for (int i = 0; i < STOP_TRIES; i++) {
        cfgmgr_timer_keepalive();
        if (!has_pid_file(process, vpn_id)) {
            tip_log("Process stopped on time: %s [%lu] iter: %d", process, vpn_id, i);
            return QUAGGA_OK;
        }
        (void)usleep(STOP_PAUSE_US); // as above
    }
    tip_log("Process stop timeout error: %s [%lu]", process, vpn_id);
    return QUAGGA_TIMEOUT;
}
