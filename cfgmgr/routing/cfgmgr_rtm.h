// Interface events of a VPN: the control connection to its zebra, which keeps the table of interface indexes up to date.
//
// The connection comes back by itself when zebra was away. Between a loss and the next connection the index table holds
// nothing of the VPN; zebra tells everything anew on the registration. Main thread.
#ifndef CFGMGR_ROUTING_CFGMGR_RTM_H
#define CFGMGR_ROUTING_CFGMGR_RTM_H

#include "cfgmgr/network/cfgmgr_vpn.h"

struct MRtmControlInterface;
struct quagga_header_t;

enum cfgmgr_rtm_result_t {
    RTM_OK = 0,
    RTM_NO_MEMORY = 1,
    RTM_BAD_FRAME = 4,
    RTM_NOT_SENT = 12,
};

// What a control message is about.
enum cfgmgr_rtm_control_t : uint32_t {
    RTM_CONTROL_HELLO = 3,
    RTM_CONTROL_INTERFACE = 4,
};

// What has happened to an interface.
enum cfgmgr_rtm_op_t : uint32_t {
    RTM_IF_ADD = 0, // from this daemon: the registration
    RTM_IF_DELETE = 1,
    RTM_IF_STATE = 2,
    RTM_IF_UNUSED = 3,
    RTM_ADDRESS_ADD = 4,
    RTM_ADDRESS_DELETE = 5,
};
inline constexpr uint32_t RTM_IF_RUNNING = 64; // of the kernel's flags

// Opens the connection, without waiting for it. 0, or QUAGGA_NO_RESOURCE. A second one is fatal.
[[nodiscard]] int cfgmgr_rtm_client_init(cfgmgr_vpn_t *vpn_p);
// Null and a VPN without one are fine.
void cfgmgr_rtm_client_deinit(cfgmgr_vpn_t *vpn_p);

// ---- what goes out on every new connection. 0, also without a link, or a cfgmgr_rtm_result_t.

int cfgmgr_rtm_send_hello_msg(cfgmgr_vpn_t *vpn_p);
// Asks for all interfaces and addresses, and for their changes from then on.
int cfgmgr_rtm_send_interface_register_msg(cfgmgr_vpn_t *vpn_p);

// ---- what comes in

// Read callback of the connection; context is the VPN. Takes the frame.
void cfgmgr_rtm_read_cb(msgq_t *msgq_p, void *frame, uint16_t length, void *context);
// Reads a frame, whose length field it brings to host order. A length field that is not the frame's length is fatal;
// what else is wrong gives RTM_BAD_FRAME.
int cfgmgr_rtm_pkt_decode(cfgmgr_vpn_t *vpn_p, quagga_header_t *frame, uint16_t length);
void cfgmgr_rtm_proc_if_state_chg(cfgmgr_vpn_t *vpn_p, const MRtmControlInterface &event);

#endif
