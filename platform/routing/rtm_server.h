// Zebra's control socket: interface events for those who register.
#ifndef PLATFORM_ROUTING_RTM_SERVER_H
#define PLATFORM_ROUTING_RTM_SERVER_H

#include "platform/routing/peer.h"

// Begins to follow the kernel and listens. False, logged.
[[nodiscard]] bool rtm_server_start(peer_t *peer);

// The frame of an event on the control socket.
[[nodiscard]] std::string interface_event_frame(const interface_event_t &event);
// The body of the notification that an interface runs, or does not any more.
[[nodiscard]] std::string interface_notification(uint64_t vpn_id, const kernel_link_t &link);

#endif
