// Messages to and from the routing daemons: a six-byte header and a packed protobuf message, one exchange at a time.
//
// A request holds the main thread until its answer has come: there is no limit to that wait. So at most one request is
// under way in the process, and the next frame on a connection is its answer. Nothing is queued and nothing is sent
// again: a message for a daemon without a link is lost, and a restart of this daemon brings everything anew.
#ifndef CFGMGR_ROUTING_CFGMGR_QUAGGA_PB_API_H
#define CFGMGR_ROUTING_CFGMGR_QUAGGA_PB_API_H

#include "cfgmgr/network/cfgmgr_vpn.h"
#include "cfgmgr/routing/cfgmgr_quagga_daemon.h"

#include <cstddef>
#include <cstdint>

struct confd_trans_ctx;
struct ProtobufCMessageDescriptor;

// Header of every frame, both ways.
struct quagga_header_t {
    uint16_t length; // of the whole frame, big-endian on the wire
    uint8_t module;
    uint8_t type; // of the module's table
    uint8_t seq;  // the type again, deliberately; nothing reads it
    uint8_t reserved;
};
inline constexpr size_t QUAGGA_HEADER_SIZE = 6;
static_assert(sizeof(quagga_header_t) == QUAGGA_HEADER_SIZE);

enum zebra_message_t : uint32_t {
    ZEBRA_SYSTEM_ROUTERID = 1,
    ZEBRA_PREFIX_LIST = 2,
    ZEBRA_ROUTE_MAP = 3,
    ZEBRA_ROUTE_MAP_OSPF = 4,
    ZEBRA_CONFIG_RESPONSE = 5,
    ZEBRA_SHOW = 6,
    ZEBRA_CONTROL = 7,
    ZEBRA_NOTIFY = 9,
    ZEBRA_DEBUG = 10,
};
enum ospf_message_t : uint32_t {
    OSPF_INSTANCE = 0,
    OSPF_INSTANCE_VALIDATE = 1,
    OSPF_REDISTRIBUTE = 2,
    OSPF_MAX_METRIC = 3,
    OSPF_AREA = 4,
    OSPF_AREA_INTERFACE = 5,
    OSPF_AREA_INTERFACE_ADDRESS = 6,
    OSPF_AREA_RANGE = 7,
    OSPF_PREFIX_LIST = 8,
    OSPF_ROUTE_MAP = 9,
    OSPF_CONFIG_RESPONSE = 10,
    OSPF_VALIDATE_RESPONSE = 11,
    OSPF_SHOW = 12,
    OSPF_CLEAR = 13,
    OSPF_DEBUG = 14,
    OSPF_NOTIFY = 16,
};
enum bgp_message_t : uint32_t {
    BGP_INSTANCE = 0,
    BGP_ADDRESS_FAMILY = 1,
    BGP_REDISTRIBUTE = 2,
    BGP_AGGREGATE_ADDRESS = 3,
    BGP_NETWORK = 4,
    BGP_NEIGHBOR = 5,
    BGP_NEIGHBOR_ADDRESS_FAMILY = 6,
    BGP_NEIGHBOR_ROUTE_MAP = 7,
    BGP_AS_PATH_LIST = 8,
    BGP_COMMUNITY_LIST = 9,
    BGP_EXT_COMMUNITY_LIST = 10,
    BGP_PREFIX_LIST = 11,
    BGP_ROUTE_MAP = 12,
    BGP_CONFIG_RESPONSE = 13,
    BGP_NEIGHBOR_VALIDATE = 14,
    BGP_AS_PATH_VALIDATE = 15,
    BGP_VALIDATE_RESPONSE = 16,
    BGP_SHOW = 17,
    BGP_CLEAR = 18,
    BGP_DEBUG = 19,
    BGP_NOTIFY = 21,
};

// Sends a message (a record of proto/) and takes its answer. 0 or QUAGGA_SKIPPED.
int cfgmgr_quagga_pb_send_message(cfgmgr_vpn_t *vpn_p, const void *message, uint32_t peer_id, uint32_t type);
// As above for a request whose answer goes to the transaction: t_opaque is the VPN's record when the answer is handled,
// and afterwards what the handler has left there. QUAGGA_SKIPPED, with nothing sent, without a record of the daemon or
// while the process is being stopped; otherwise 0, whatever became of the request.
int cfgmgr_quagga_pb_send_show_message(confd_trans_ctx *tctx, cfgmgr_vpn_t *vpn_p, const void *message,
                                       uint32_t peer_id, uint32_t type);
// Asks a daemon to judge what a transaction brings: 0, or -1 with the daemon's text set. Without a record of the daemon
// there is nobody to ask, and it passes; a link that is down refuses without a text. Both are deliberate.
int cfgmgr_quagga_pb_validate(confd_trans_ctx *tctx, cfgmgr_vpn_t *vpn_p, const void *message, uint32_t peer_id,
                              uint32_t type);
// Sends a message of policies to that daemon of every VPN, in order of number. After the initial read a change goes to
// the VPNs that have all policies, and a replay to those that are still being filled: these get what changes meanwhile
// by the replay, which reads the configuration as it is then. Gives 0; a VPN that cannot be reached is logged.
int cfgmgr_quagga_pb_send_all(cfgmgrd_t *cfgmgrd_p, const void *message, uint32_t peer_id, uint32_t type, bool replay);

// The transaction whose request is under way; null when none is. Only its answer may touch a transaction: the handle
// goes on naming the last one, which may be gone.
[[nodiscard]] confd_trans_ctx *cfgmgr_quagga_pb_asking();

// The kind of message of a daemon and type; null for a type that the channel does not have.
[[nodiscard]] const ProtobufCMessageDescriptor *cfgmgr_quagga_pb_descriptor(uint32_t peer_id, uint32_t type);
// Size and packed form of a message by daemon and type; 0 for types that are not sent. A message of another kind than
// the type's is fatal.
[[nodiscard]] size_t cfgmgr_quagga_pb_get_packed_size(uint32_t peer_id, uint32_t type, const void *message);
[[nodiscard]] size_t cfgmgr_quagga_pb_msg_pack(uint32_t peer_id, uint32_t type, const void *message, uint8_t *buffer);

#endif
