// Interface events of a VPN, from the control socket of its zebra.

#include "cfgmgr/routing/cfgmgr_rtm.h"

#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_if_idx.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/routing/cfgmgr_quagga_daemon.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "common/tip_root.h"
#include "proto/zebra.pb-c.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>

namespace
{

constexpr char CONTROL_PATH[] = TIP_QUAGGA_RUN_DIR "/zebra_protobuf_ctrl.api";

struct control_free_t {
    void operator()(MRtmControl *control) const { m_rtm_control__free_unpacked(control, nullptr); }
};
using control_ptr = std::unique_ptr<MRtmControl, control_free_t>;

bool is_detailed()
{
    return cfgmgr_events_level > CFGMGR_DETAILED;
}

int send_control(cfgmgr_vpn_t *vpn_p, const MRtmControl &control)
{
    if (msgq_is_up(vpn_p->rtm_handle_p) == 0)
        return RTM_OK;
    size_t length = m_rtm_control__get_packed_size(&control) + QUAGGA_HEADER_SIZE;
    auto *frame = static_cast<uint8_t *>(msgq_msg_alloc(vpn_p->rtm_handle_p, static_cast<uint32_t>(length)));
    if (frame == nullptr)
        return RTM_NO_MEMORY;
    // The type is not repeated on this socket.
    quagga_header_t header{};
    header.length = htons(static_cast<uint16_t>(length));
    header.module = cfgmgr_quagga_peer(DAEMON_ID_ZEBRA)->module;
    header.type = ZEBRA_CONTROL;
    memcpy(frame, &header, sizeof header);
    (void)m_rtm_control__pack(&control, frame + sizeof header);
    if (msgq_write(vpn_p->rtm_handle_p, frame, static_cast<uint32_t>(length)) != MSGQ_OK) {
        msgq_msg_free(vpn_p->rtm_handle_p, frame);
        return RTM_NOT_SENT;
    }
    return RTM_OK;
}

void conn_up(msgq_t *, void *context)
{
    auto *vpn_p = static_cast<cfgmgr_vpn_t *>(context);
    if (cfgmgr_rtm_send_hello_msg(vpn_p) != RTM_OK)
        tip_log("Could not register with zebra with hello");
    if (cfgmgr_rtm_send_interface_register_msg(vpn_p) != RTM_OK)
        tip_log("Could not register with zebra for interface events");
}

void conn_down(msgq_t *, void *context)
{
    const auto *vpn_p = static_cast<const cfgmgr_vpn_t *>(context);
    cfgmgr_if_idx_remove_vpn(vpn_p->cfgmgr_p, vpn_p->vpn_id);
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

// The control message of a frame; null, logged, when it holds none.
control_ptr unpack(const cfgmgr_vpn_t &vpn, const quagga_header_t *frame)
{
    long vpn_id = static_cast<long>(vpn.vpn_id);
    if (frame->module != cfgmgr_quagga_peer(DAEMON_ID_ZEBRA)->module) {
        tip_log("[%ld] Wrong module id\n", vpn_id);
        return nullptr;
    }
    if (frame->type != ZEBRA_CONTROL) {
        tip_log("[%ld] wrong message type\n", vpn_id);
        return nullptr;
    }
    const auto *body = reinterpret_cast<const uint8_t *>(frame) + QUAGGA_HEADER_SIZE;
    control_ptr control(m_rtm_control__unpack(nullptr, frame->length - QUAGGA_HEADER_SIZE, body));
    if (control == nullptr)
        tip_log("[%ld] Error trying to unpack!\n", vpn_id);
    return control;
}

// The kernel forgets IPv6 addresses when an interface goes down: the configured one is set anew.
void bring_up_address(cfgmgr_vpn_t *vpn_p, const char *name)
{
    cfgmgr_if_t *if_p = cfgmgr_if_find(vpn_p->cfgmgr_p, name, nullptr, nullptr);
    if (if_p == nullptr || if_p->vpn_p == nullptr || ip_addr_is_zero(if_p->ipv6_addr.ip))
        return;
    // Goes into the interface's namespace and back by itself; logs its failure.
    (void)cfgmgr_kernel_ifaddr_set(if_p, if_p->ipv6_addr, false);
}

// False for an event without an address that can be read.
bool read_address(const MRtmControlInterface &event, ip_prefix_t *prefix)
{
    constexpr uint32_t longest = 128;
    ip_prefix_t read{};
    if (event.address == nullptr || event.prefix_length > longest ||
        ip_addr_parse(event.address->address, &read.ip) == 0)
        return false;
    read.len = static_cast<uint8_t>(event.prefix_length);
    if (ip_addr_is_v4(read.ip) != (event.address->is_ipv4 != 0) || !ip_prefix_len_ok(read))
        return false;
    *prefix = read;
    return true;
}

void on_if_add(cfgmgr_vpn_t *vpn_p, const MRtmControlInterface &event)
{
    // No kernel has an index 0, and the walk that empties the table of a VPN would leave one behind.
    if (event.if_index == 0)
        return;
    (void)cfgmgr_if_idx_find_or_create(vpn_p->cfgmgr_p, event.if_index, event.name, vpn_p->vpn_id); // logs a failure
    if (event.has_flags && (event.flags & RTM_IF_RUNNING) != 0)
        bring_up_address(vpn_p, event.name);
}

void on_if_delete(cfgmgr_vpn_t *vpn_p, const MRtmControlInterface &event)
{
    cfgmgr_if_idx_remove(vpn_p->cfgmgr_p, event.if_index, vpn_p->vpn_id);
}

void on_if_state(cfgmgr_vpn_t *vpn_p, const MRtmControlInterface &event)
{
    bring_up_address(vpn_p, event.name);
}

// The kernel makes link-local addresses by itself: this is how they become known.
void keep_link_local(cfgmgr_vpn_t *vpn_p, const char *name, const ip_prefix_t &prefix)
{
    if (!ip_addr_is_v6(prefix.ip) || !ip_addr_is_link_local(prefix.ip))
        return;
    cfgmgr_if_t *if_p = cfgmgr_if_find(vpn_p->cfgmgr_p, name, nullptr, nullptr);
    if (if_p != nullptr)
        if_p->ipv6_linklocal = prefix;
}

void on_address_add(cfgmgr_vpn_t *vpn_p, const MRtmControlInterface &event)
{
    ip_prefix_t prefix;
    if (!read_address(event, &prefix))
        return;
    cfgmgr_if_idx_addr_update(vpn_p->cfgmgr_p, event.if_index, vpn_p->vpn_id, prefix.ip, false);
    if (vpn_p->vpn_id == VPN_ID_TRANSPORT)
        keep_link_local(vpn_p, event.name, prefix);
}

void on_address_delete(cfgmgr_vpn_t *vpn_p, const MRtmControlInterface &event)
{
    ip_prefix_t prefix;
    if (read_address(event, &prefix))
        cfgmgr_if_idx_addr_update(vpn_p->cfgmgr_p, event.if_index, vpn_p->vpn_id, prefix.ip, true);
}

// By cfgmgr_rtm_op_t; null: ignored.
constexpr void (*op_handlers[])(cfgmgr_vpn_t *, const MRtmControlInterface &) = {
    on_if_add, on_if_delete, on_if_state, nullptr, on_address_add, on_address_delete,
};
static_assert(std::size(op_handlers) == RTM_ADDRESS_DELETE + 1);

// The forwarding plane's own devices are of no interest to anybody.
bool is_internal_loop(const char *name)
{
    return strstr(name, "loop") != nullptr && strstr(name, "loopback") == nullptr;
}

} // namespace

int cfgmgr_rtm_client_init(cfgmgr_vpn_t *vpn_p)
{
    if (vpn_p == nullptr)
        return QUAGGA_NO_RESOURCE;
    tip_assert_text(vpn_p->rtm_handle_p == nullptr, "vpn_p->rtm_handle_p == ((void *)0)");
    static constexpr msgq_cbs_t callbacks = { conn_up,     conn_down, conn_error, cfgmgr_rtm_read_cb,
                                              frame_alloc, frame_free };
    msgq_cfg_t cfg;
    if (!cfgmgr_quagga_socket_cfg(*vpn_p, CONTROL_PATH, &cfg))
        return QUAGGA_NO_RESOURCE;
    vpn_p->rtm_handle_p =
        msgq_init(DAEMON_ID_CFGMGR, DAEMON_ID_ZEBRA, MSGQ_HANDLE_TYPE_CLIENT, &cfg, &callbacks, vpn_p);
    return vpn_p->rtm_handle_p != nullptr ? QUAGGA_OK : QUAGGA_NO_RESOURCE;
}

void cfgmgr_rtm_client_deinit(cfgmgr_vpn_t *vpn_p)
{
    if (vpn_p == nullptr)
        return;
    msgq_free(vpn_p->rtm_handle_p);
    vpn_p->rtm_handle_p = nullptr;
}

int cfgmgr_rtm_send_hello_msg(cfgmgr_vpn_t *vpn_p)
{
    MRtmControlHello hello = M_RTM_CONTROL_HELLO__INIT;
    MRtmControl control = M_RTM_CONTROL__INIT;
    control.control_type = RTM_CONTROL_HELLO;
    control.hello = &hello;
    return send_control(vpn_p, control);
}

int cfgmgr_rtm_send_interface_register_msg(cfgmgr_vpn_t *vpn_p)
{
    char no_name[] = "";
    MRtmControlInterface all = M_RTM_CONTROL_INTERFACE__INIT;
    all.op = RTM_IF_ADD;
    all.name = no_name;
    MRtmControl control = M_RTM_CONTROL__INIT;
    control.control_type = RTM_CONTROL_INTERFACE;
    control.interface = &all;
    return send_control(vpn_p, control);
}

void cfgmgr_rtm_read_cb(msgq_t *msgq_p, void *frame, uint16_t length, void *context)
{
    auto *vpn_p = static_cast<cfgmgr_vpn_t *>(context);
    if (is_detailed())
        tip_log("[%ld] Received RTM Msg %p of %d bytes\n", static_cast<long>(vpn_p->vpn_id), frame, length);
    (void)cfgmgr_rtm_pkt_decode(vpn_p, static_cast<quagga_header_t *>(frame),
                                length); // a bad one is logged and forgotten
    msgq_msg_free(msgq_p, frame);
}

int cfgmgr_rtm_pkt_decode(cfgmgr_vpn_t *vpn_p, quagga_header_t *frame, uint16_t length)
{
    frame->length = ntohs(frame->length);
    if (frame->length != length)
        tip_log("[%ld] Message size mismatch (%u != %u)", static_cast<long>(vpn_p->vpn_id), frame->length, length);
    tip_assert(frame->length == length && length >= QUAGGA_HEADER_SIZE);
    control_ptr control = unpack(*vpn_p, frame);
    if (control == nullptr)
        return RTM_BAD_FRAME;
    if (control->control_type == RTM_CONTROL_INTERFACE && control->interface != nullptr)
        cfgmgr_rtm_proc_if_state_chg(vpn_p, *control->interface);
    return RTM_OK;
}

void cfgmgr_rtm_proc_if_state_chg(cfgmgr_vpn_t *vpn_p, const MRtmControlInterface &event)
{
    int op = static_cast<int>(event.op), index = static_cast<int>(event.if_index);
    if (is_detailed())
        tip_log("Received RTM-Interface Msg[%d]: %s (%d) vpn-id: %lu\n", op, event.name, index, vpn_p->vpn_id);
    if (is_internal_loop(event.name)) {
        if (is_detailed())
            tip_log("if:%s -- ignore", event.name);
        return;
    }
    if (event.op == RTM_ADDRESS_ADD)
        tip_log("Received RTM-Interface-Address-Add Msg[%d]: %s (%d) vpn-id: %lu addr: %s\n", op, event.name, index,
                vpn_p->vpn_id, event.address != nullptr ? event.address->address : "none");
    if (event.op < std::size(op_handlers) && op_handlers[event.op] != nullptr)
        op_handlers[event.op](vpn_p, event);
}
