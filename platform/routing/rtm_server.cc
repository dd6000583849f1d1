#include "platform/routing/rtm_server.h"

#include "common/tip_log.h"
#include "platform/routing/message_json.h"
#include "proto/zebra.pb-c.h"

#include <arpa/inet.h>
#include <net/if.h>

namespace
{

constexpr uint8_t ZEBRA_MODULE = 0;
constexpr uint8_t CONTROL_TYPE = 7;
constexpr uint32_t CONTROL_INTERFACE = 4; // kind of a control message; the hello needs nothing done

void events_send(stream_t *stream, const interface_events_t &events)
{
    for (const interface_event_t &event : events)
        stream_send(stream, interface_event_frame(event));
}

// A registration is an "interface added" from the client's side. A second one has everything told again.
void take_control(peer_t *peer, stream_t *stream, const MRtmControl &control)
{
    if (control.control_type != CONTROL_INTERFACE || control.interface == nullptr ||
        control.interface->op != INTERFACE_ADD)
        return;
    stream->is_registered = true;
    events_send(stream, interface_table_replay(peer->kernel.table));
}

void control_frame(void *arg, stream_t *stream, const frame_t &frame)
{
    auto *peer = static_cast<peer_t *>(arg);
    const message_row_t *row = message_row_find(frame.module, frame.type);
    message_ptr message;
    if (row != nullptr && row->kind == MESSAGE_CONTROL)
        message = message_unpack(*row, frame.body);
    if (!message) {
        tip_log("Not a control message: module %u, type %u, %zu bytes; the connection is closed", frame.module,
                frame.type, frame.body.size());
        stream_fail(stream);
        return;
    }
    peer_log(*peer, row->descriptor->name, row->type, message_json(*message));
    take_control(peer, stream, *reinterpret_cast<const MRtmControl *>(message.get()));
}

void kernel_changed(void *arg, const interface_events_t &events)
{
    auto *peer = static_cast<peer_t *>(arg);
    for (stream_t &stream : peer->rtm.streams) {
        if (stream.is_registered)
            events_send(&stream, events);
    }
    for (const interface_event_t &event : events) {
        if (event.has_run_change)
            peer_notify(peer, interface_notification(peer->settings.vpn_id, event.link));
    }
}

} // namespace

bool rtm_server_start(peer_t *peer)
{
    return kernel_watch_start(&peer->kernel, peer->base.get(), kernel_changed, peer) &&
           stream_server_start(&peer->rtm, peer->base.get(),
                               vpn_path(peer->settings.daemon->control_path, peer->settings.vpn_id), control_frame,
                               peer);
}

std::string interface_event_frame(const interface_event_t &event)
{
    char address_text[INET6_ADDRSTRLEN] = "";
    std::string name = event.link.name;
    MIpAddress address = M_IP_ADDRESS__INIT;
    MRtmControlInterface interface = M_RTM_CONTROL_INTERFACE__INIT;
    MRtmControl control = M_RTM_CONTROL__INIT;
    control.control_type = CONTROL_INTERFACE;
    control.interface = &interface;
    interface.op = event.op;
    interface.name = name.data();
    interface.if_index = event.link.index;
    interface.has_flags = event.op == INTERFACE_ADD || event.op == INTERFACE_STATE;
    interface.flags = event.link.flags;
    if (event.op == INTERFACE_ADDRESS_ADD || event.op == INTERFACE_ADDRESS_DEL) {
        (void)inet_ntop(event.address.family, event.address.bytes.data(), address_text, sizeof address_text);
        address.is_ipv4 = event.address.family == AF_INET;
        address.address = address_text;
        interface.address = &address;
        interface.prefix_length = event.address.prefix_length;
    }
    return frame_bytes({ ZEBRA_MODULE, CONTROL_TYPE, 0, message_pack(control.base) });
}

std::string interface_notification(uint64_t vpn_id, const kernel_link_t &link)
{
    std::string name = link.name;
    MRtmNotifyInterfaceState state = M_RTM_NOTIFY_INTERFACE_STATE__INIT;
    MRtmNotify notify = M_RTM_NOTIFY__INIT;
    notify.interface_state = &state;
    state.vpn_id = static_cast<uint32_t>(vpn_id);
    state.interface = name.data();
    state.new_state = (link.flags & IFF_RUNNING) != 0 ? 1 : 0;
    return message_pack(notify.base);
}
