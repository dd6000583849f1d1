// Sending: one frame out and its answer in, in one call.

#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"

#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"

#include <arpa/inet.h>
#include <confd_dp.h>
#include <cstring>
#include <ctime>
#include <utility>

namespace
{

confd_trans_ctx *asking;

// What is being sent, and where to.
struct request_t {
    const quagga_peer_t &peer;
    uint64_t vpn_id;
    msgq_t *msgq_p;
    const void *message;
    uint32_t type;
};

int64_t elapsed_ms(const timespec &from, const timespec &to)
{
    return (to.tv_sec - from.tv_sec) * 1000 + (to.tv_nsec - from.tv_nsec) / 1000000;
}

void fill_header(void *frame, const request_t &request, size_t length)
{
    quagga_header_t header{};
    header.length = htons(static_cast<uint16_t>(length));
    header.module = request.peer.module;
    header.type = static_cast<uint8_t>(request.type);
    header.seq = header.type;
    memcpy(frame, &header, sizeof header);
}

// The frame of a request with its length; null, logged, when it cannot be made.
void *build_frame(const request_t &request, size_t *length)
{
    const char *name = request.peer.module_name;
    size_t packed = cfgmgr_quagga_pb_get_packed_size(request.peer.peer_id, request.type, request.message);
    size_t whole = packed + QUAGGA_HEADER_SIZE;
    // The queue has no memory for what the length field cannot tell.
    auto *frame = static_cast<uint8_t *>(msgq_msg_alloc(request.msgq_p, static_cast<uint32_t>(whole)));
    if (frame == nullptr) {
        tip_log("Quagga daemon - %s (vpn:%lu) memory allocation failure, skipping", name, request.vpn_id);
        return nullptr;
    }
    memset(frame, 0, whole);
    fill_header(frame, request, whole);
    tip_log("Send message %u to %s vpn: %lu (len:%u, hdr:%u)", request.type, name, request.vpn_id,
            static_cast<unsigned>(whole), static_cast<unsigned>(QUAGGA_HEADER_SIZE));
    size_t written =
        cfgmgr_quagga_pb_msg_pack(request.peer.peer_id, request.type, request.message, frame + QUAGGA_HEADER_SIZE);
    if (written == 0) {
        tip_log("Could not pack message(%u) size (%u) to Quagga(%s)", request.type, static_cast<unsigned>(packed),
                name);
        msgq_msg_free(request.msgq_p, frame);
        return nullptr;
    }
    *length = whole;
    return frame;
}

// The answer has been handled when this returns.
int exchange(q_daemon_t *q_daemon_p, const request_t &request)
{
    size_t length = 0;
    void *frame = build_frame(request, &length);
    if (frame == nullptr)
        return QUAGGA_SKIPPED;
    timespec start, end;
    (void)clock_gettime(CLOCK_MONOTONIC_COARSE, &start);
    int result = msgq_write(request.msgq_p, frame, static_cast<uint32_t>(length));
    (void)clock_gettime(CLOCK_MONOTONIC_COARSE, &end);
    if (result != MSGQ_OK) {
        tip_log("Could not send message(%u) to Quagga(%s)", request.type, request.peer.module_name);
        msgq_msg_free(request.msgq_p, frame);
        return QUAGGA_SKIPPED;
    }
    int64_t delay = elapsed_ms(start, end);
    if (delay > q_daemon_p->send_msg_delay)
        q_daemon_p->send_msg_delay = delay;
    return QUAGGA_OK;
}

} // namespace

confd_trans_ctx *cfgmgr_quagga_pb_asking()
{
    return asking;
}

int cfgmgr_quagga_pb_send_message(cfgmgr_vpn_t *vpn_p, const void *message, uint32_t peer_id, uint32_t type)
{
    const quagga_peer_t *peer = cfgmgr_quagga_peer(peer_id);
    tip_assert(peer != nullptr);
    cfgmgr_timer_keepalive();
    q_daemon_t *q_daemon_p = vpn_p->q_daemon_p[peer_id];
    if (q_daemon_p == nullptr || msgq_is_up(q_daemon_p->mgmt_handle) == 0 || cfgmgr_is_terminating()) {
        tip_log("Quagga daemon - %s link is down (vpn:%lu), skipping", peer->module_name, vpn_p->vpn_id);
        return QUAGGA_SKIPPED;
    }
    return exchange(q_daemon_p, { *peer, vpn_p->vpn_id, q_daemon_p->mgmt_handle, message, type });
}

int cfgmgr_quagga_pb_send_show_message(confd_trans_ctx *tctx, cfgmgr_vpn_t *vpn_p, const void *message,
                                       uint32_t peer_id, uint32_t type)
{
    const quagga_peer_t *peer = cfgmgr_quagga_peer(peer_id);
    tip_assert(peer != nullptr);
    const q_daemon_t *q_daemon_p = vpn_p->q_daemon_p[peer_id];
    if (q_daemon_p == nullptr || cfgmgr_is_terminating()) {
        tip_log("Quagga daemon does not exist: %s (vpn:%lu)", peer->module_name, vpn_p->vpn_id);
        return QUAGGA_SKIPPED;
    }
    tctx->t_opaque = vpn_p;
    // Stays behind, deliberately: what answers a configuration message does not look at its context.
    msgq_set_user_arg(q_daemon_p->mgmt_handle, tctx);
    asking = tctx;
    (void)cfgmgr_quagga_pb_send_message(vpn_p, message, peer_id, type); // what became of it shows in the transaction
    asking = nullptr;
    return QUAGGA_OK;
}

int cfgmgr_quagga_pb_validate(confd_trans_ctx *tctx, cfgmgr_vpn_t *vpn_p, const void *message, uint32_t peer_id,
                              uint32_t type)
{
    (void)cfgmgr_quagga_pb_send_show_message(tctx, vpn_p, message, peer_id, type); // as the transaction has it
    return std::exchange(tctx->t_opaque, nullptr) == nullptr ? CONFD_OK : CONFD_ERR;
}
