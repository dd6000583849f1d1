// Receiving from the routing daemons.

#include "cfgmgr/routing/cfgmgr_quagga_pb_msg.h"

#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "proto/bgp.pb-c.h"
#include "proto/ospf.pb-c.h"
#include "proto/routing_common.pb-c.h"
#include "proto/zebra.pb-c.h"

#include <arpa/inet.h>
#include <confd_dp.h>
#include <memory>
#include <span>

namespace
{

struct unpacked_free_t {
    void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, nullptr); }
};
using unpacked_ptr = std::unique_ptr<ProtobufCMessage, unpacked_free_t>;

struct received_t {
    uint32_t type;
    bool is_answer_to_transaction;                                 // the context is its transaction
    int (*handle)(const ProtobufCMessage *message, void *context); // null: the message is of no use here
};

const char *logged_text(const char *message)
{
    return message != nullptr ? message : "success";
}

int on_cfg_response(const ProtobufCMessage *message, void *)
{
    const auto *response = reinterpret_cast<const MMsgResponse *>(message);
    return cfgmgr_quagga_msg_cfg_resp_process(response->code, response->message);
}

int on_validate_response(const ProtobufCMessage *message, void *context)
{
    const auto *response = reinterpret_cast<const MMsgResponse *>(message);
    return cfgmgr_quagga_msg_validate_resp_process(response->code, response->message,
                                                   static_cast<confd_trans_ctx *>(context));
}

// A request that comes back with the two fields of a response filled in; without a code it was done.
template <typename MESSAGE, int (*PROCESS)(uint32_t, const char *)>
int on_request_back(const ProtobufCMessage *message, void *)
{
    const auto *request = reinterpret_cast<const MESSAGE *>(message);
    return PROCESS(request->has_code ? request->code : 0, request->message);
}

constexpr received_t zebra_received[] = {
    { ZEBRA_CONFIG_RESPONSE, false, on_cfg_response },
    { ZEBRA_SHOW, true, nullptr },
    { ZEBRA_NOTIFY, false, nullptr },
    { ZEBRA_DEBUG, false, on_request_back<MRtmDebug, cfgmgr_quagga_msg_debug_resp_process> },
};

constexpr received_t ospf_received[] = {
    { OSPF_CONFIG_RESPONSE, false, on_cfg_response },
    { OSPF_VALIDATE_RESPONSE, true, on_validate_response },
    { OSPF_SHOW, true, nullptr },
    { OSPF_CLEAR, false, on_request_back<MOspfClear, cfgmgr_quagga_msg_clear_resp_process> },
    { OSPF_DEBUG, false, on_request_back<MOspfDebug, cfgmgr_quagga_pb_ospf_debug_resp_process> },
    { OSPF_NOTIFY, false, nullptr },
};

constexpr received_t bgp_received[] = {
    { BGP_CONFIG_RESPONSE, false, on_cfg_response },
    { BGP_VALIDATE_RESPONSE, true, on_validate_response },
    { BGP_SHOW, true, nullptr },
    { BGP_CLEAR, false, on_request_back<MBgpClear, cfgmgr_quagga_msg_clear_resp_process> },
    { BGP_DEBUG, false, on_request_back<MBgpDebug, cfgmgr_quagga_msg_debug_resp_process> },
    { BGP_NOTIFY, false, nullptr },
};

bool is_asking(const void *context)
{
    return context != nullptr && context == cfgmgr_quagga_pb_asking();
}

// Null for what must not come now.
const received_t *find_row(std::span<const received_t> rows, uint32_t type, const void *context)
{
    for (const received_t &row : rows)
        if (row.type == type && (!row.is_answer_to_transaction || is_asking(context)))
            return &row;
    return nullptr;
}

unpacked_ptr unpack(uint32_t peer_id, const quagga_header_t *header, const uint8_t *body)
{
    const ProtobufCMessageDescriptor *descriptor = cfgmgr_quagga_pb_descriptor(peer_id, header->type);
    return unpacked_ptr(protobuf_c_message_unpack(descriptor, nullptr, header->length - QUAGGA_HEADER_SIZE, body));
}

int process(uint32_t peer_id, std::span<const received_t> rows, const quagga_header_t *header, const uint8_t *body,
            void *context)
{
    const received_t *row = find_row(rows, header->type, context);
    if (row == nullptr)
        tip_log("Invalid message (%u) received", header->type);
    tip_assert(row != nullptr);
    unpacked_ptr message = unpack(peer_id, header, body);
    if (message == nullptr)
        tip_log("Could not unpack message(%u) size (%u) of %s", header->type, header->length,
                cfgmgr_quagga_peer(peer_id)->module_name);
    tip_assert(message != nullptr);
    return row->handle != nullptr ? row->handle(message.get(), context) : 0;
}

} // namespace

void cfgmgr_vpn_quagga_read_cb(msgq_t *msgq_p, void *frame, uint16_t length, void *context)
{
    auto *header = static_cast<quagga_header_t *>(frame);
    header->length = ntohs(header->length);
    const quagga_peer_t *peer = cfgmgr_quagga_peer_by_module(header->module);
    tip_log("Rx msg type:%u, len:%u, mod:%s, seq:%u", header->type, header->length,
            peer != nullptr ? peer->module_name : "unknown", header->seq);
    if (header->length != length)
        tip_log("Message size mismatch (%u != %u)", header->length, length);
    tip_assert(header->length == length && length >= QUAGGA_HEADER_SIZE);
    (void)cfgmgr_quagga_pb_msg_process(header, static_cast<const uint8_t *>(frame) + QUAGGA_HEADER_SIZE, context); // 0
    msgq_msg_free(msgq_p, frame);
}

int cfgmgr_quagga_pb_msg_process(const quagga_header_t *header, const uint8_t *body, void *context)
{
    const quagga_peer_t *peer = cfgmgr_quagga_peer_by_module(header->module);
    if (peer == nullptr)
        tip_log("Invalid module (%u) received", header->module);
    tip_assert(peer != nullptr);
    switch (peer->peer_id) {
    case DAEMON_ID_ZEBRA:
        return cfgmgr_quagga_pb_zebra_msg_process(header, body, context);
    case DAEMON_ID_OSPFD:
        return cfgmgr_quagga_pb_ospf_msg_process(header, body, context);
    default:
        return cfgmgr_quagga_pb_bgp_msg_process(header, body, context);
    }
}

int cfgmgr_quagga_pb_zebra_msg_process(const quagga_header_t *header, const uint8_t *body, void *context)
{
    return process(DAEMON_ID_ZEBRA, zebra_received, header, body, context);
}

int cfgmgr_quagga_pb_ospf_msg_process(const quagga_header_t *header, const uint8_t *body, void *context)
{
    return process(DAEMON_ID_OSPFD, ospf_received, header, body, context);
}

int cfgmgr_quagga_pb_bgp_msg_process(const quagga_header_t *header, const uint8_t *body, void *context)
{
    return process(DAEMON_ID_BGPD, bgp_received, header, body, context);
}

int cfgmgr_quagga_msg_cfg_resp_process(uint32_t code, const char *message)
{
    if (code != 0)
        tip_log("Config response %u - %s", code, logged_text(message));
    tip_assert(code == 0);
    return 0;
}

int cfgmgr_quagga_msg_validate_resp_process(uint32_t code, const char *message, confd_trans_ctx *tctx)
{
    tip_log("Validate response %u - %s", code, logged_text(message));
    tctx->t_opaque = reinterpret_cast<void *>(static_cast<intptr_t>(code != 0 ? -1 : 0));
    // Where the daemon gives no reason the agent says which rule has refused what.
    if (code != 0 && message != nullptr && message[0] != '\0')
        confd_trans_seterr(tctx, "%s", message);
    return 0;
}

int cfgmgr_quagga_msg_clear_resp_process(uint32_t code, const char *message)
{
    tip_log("Clear response %u - %s", code, logged_text(message));
    return 0;
}

int cfgmgr_quagga_msg_debug_resp_process(uint32_t code, const char *message)
{
    tip_log("Debug response %u - %s", code, logged_text(message));
    return 0;
}

int cfgmgr_quagga_pb_ospf_debug_resp_process(uint32_t code, const char *message)
{
    tip_log("Debug response %u - %s", code, logged_text(message));
    return 0;
}
