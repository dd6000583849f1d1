// The messages of the routing channel: what each type of each daemon carries, and its packed form.

#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "common/tip_assert.h"
#include "proto/bgp.pb-c.h"
#include "proto/bgp_show.pb-c.h"
#include "proto/ospf.pb-c.h"
#include "proto/ospf_show.pb-c.h"
#include "proto/policy.pb-c.h"
#include "proto/routing_common.pb-c.h"
#include "proto/zebra.pb-c.h"

namespace
{

enum direction_t : uint8_t {
    IN,
    OUT,
    BOTH, // a request and its answer
};

struct message_row_t {
    uint32_t type;
    direction_t direction;
    const ProtobufCMessageDescriptor *descriptor;
};

constexpr message_row_t zebra_messages[] = {
    { ZEBRA_SYSTEM_ROUTERID, OUT, &m_system_routerid__descriptor },
    { ZEBRA_PREFIX_LIST, OUT, &m_prefix_list__descriptor },
    { ZEBRA_ROUTE_MAP, OUT, &m_route_map__descriptor },
    { ZEBRA_ROUTE_MAP_OSPF, OUT, &m_rtm_route_map_ospf__descriptor },
    { ZEBRA_CONFIG_RESPONSE, IN, &m_msg_response__descriptor },
    { ZEBRA_SHOW, BOTH, &m_rtm_show__descriptor },
    { ZEBRA_CONTROL, BOTH, &m_rtm_control__descriptor },
    { ZEBRA_NOTIFY, IN, &m_rtm_notify__descriptor },
    { ZEBRA_DEBUG, BOTH, &m_rtm_debug__descriptor },
};

constexpr message_row_t ospf_messages[] = {
    { OSPF_INSTANCE, OUT, &m_ospf_instance__descriptor },
    { OSPF_INSTANCE_VALIDATE, OUT, &m_ospf_instance__descriptor },
    { OSPF_REDISTRIBUTE, OUT, &m_ospf_redistribute__descriptor },
    { OSPF_MAX_METRIC, OUT, &m_ospf_max_metric__descriptor },
    { OSPF_AREA, OUT, &m_ospf_area__descriptor },
    { OSPF_AREA_INTERFACE, OUT, &m_ospf_area_interface__descriptor },
    { OSPF_AREA_INTERFACE_ADDRESS, OUT, &m_ospf_area_interface_address__descriptor },
    { OSPF_AREA_RANGE, OUT, &m_ospf_area_range__descriptor },
    { OSPF_PREFIX_LIST, OUT, &m_prefix_list__descriptor },
    { OSPF_ROUTE_MAP, OUT, &m_route_map__descriptor },
    { OSPF_CONFIG_RESPONSE, IN, &m_msg_response__descriptor },
    { OSPF_VALIDATE_RESPONSE, IN, &m_msg_response__descriptor },
    { OSPF_SHOW, BOTH, &m_ospf_show__descriptor },
    { OSPF_CLEAR, BOTH, &m_ospf_clear__descriptor },
    { OSPF_DEBUG, BOTH, &m_ospf_debug__descriptor },
    { OSPF_NOTIFY, IN, &m_ospf_notify__descriptor },
};

constexpr message_row_t bgp_messages[] = {
    { BGP_INSTANCE, OUT, &m_bgp_instance__descriptor },
    { BGP_ADDRESS_FAMILY, OUT, &m_bgp_address_family__descriptor },
    { BGP_REDISTRIBUTE, OUT, &m_bgp_address_family_redistribute__descriptor },
    { BGP_AGGREGATE_ADDRESS, OUT, &m_bgp_address_family_aggregate_address__descriptor },
    { BGP_NETWORK, OUT, &m_bgp_address_family_network__descriptor },
    { BGP_NEIGHBOR, OUT, &m_bgp_neighbor__descriptor },
    { BGP_NEIGHBOR_ADDRESS_FAMILY, OUT, &m_bgp_neighbor_address_family__descriptor },
    { BGP_NEIGHBOR_ROUTE_MAP, OUT, &m_bgp_neighbor_address_family_route_map__descriptor },
    { BGP_AS_PATH_LIST, OUT, &m_bgp_as_path_list__descriptor },
    { BGP_COMMUNITY_LIST, OUT, &m_bgp_community_list__descriptor },
    { BGP_EXT_COMMUNITY_LIST, OUT, &m_bgp_ext_community_list__descriptor },
    { BGP_PREFIX_LIST, OUT, &m_prefix_list__descriptor },
    { BGP_ROUTE_MAP, OUT, &m_route_map__descriptor },
    { BGP_CONFIG_RESPONSE, IN, &m_msg_response__descriptor },
    { BGP_NEIGHBOR_VALIDATE, OUT, &m_bgp_neighbor__descriptor },
    { BGP_AS_PATH_VALIDATE, OUT, &m_bgp_as_path_list__descriptor },
    { BGP_VALIDATE_RESPONSE, IN, &m_msg_response__descriptor },
    { BGP_SHOW, BOTH, &m_bgp_show__descriptor },
    { BGP_CLEAR, BOTH, &m_bgp_clear__descriptor },
    { BGP_DEBUG, BOTH, &m_bgp_debug__descriptor },
    { BGP_NOTIFY, IN, &m_bgp_notify__descriptor },
};

template <size_t COUNT> const message_row_t *find(const message_row_t (&rows)[COUNT], uint32_t type)
{
    for (const message_row_t &row : rows)
        if (row.type == type)
            return &row;
    return nullptr;
}

const message_row_t *find_row(uint32_t peer_id, uint32_t type)
{
    switch (peer_id) {
    case DAEMON_ID_ZEBRA:
        return find(zebra_messages, type);
    case DAEMON_ID_OSPFD:
        return find(ospf_messages, type);
    case DAEMON_ID_BGPD:
        return find(bgp_messages, type);
    default:
        return nullptr;
    }
}

// The message as the library sees it; null when the type is not sent.
const ProtobufCMessage *as_sent(uint32_t peer_id, uint32_t type, const void *message)
{
    const message_row_t *row = find_row(peer_id, type);
    if (row == nullptr || row->direction == IN)
        return nullptr;
    const auto *base = static_cast<const ProtobufCMessage *>(message);
    tip_assert(base->descriptor == row->descriptor);
    return base;
}

} // namespace

const ProtobufCMessageDescriptor *cfgmgr_quagga_pb_descriptor(uint32_t peer_id, uint32_t type)
{
    const message_row_t *row = find_row(peer_id, type);
    return row != nullptr ? row->descriptor : nullptr;
}

size_t cfgmgr_quagga_pb_get_packed_size(uint32_t peer_id, uint32_t type, const void *message)
{
    const ProtobufCMessage *sent = as_sent(peer_id, type, message);
    return sent != nullptr ? protobuf_c_message_get_packed_size(sent) : 0;
}

size_t cfgmgr_quagga_pb_msg_pack(uint32_t peer_id, uint32_t type, const void *message, uint8_t *buffer)
{
    const ProtobufCMessage *sent = as_sent(peer_id, type, message);
    return sent != nullptr ? protobuf_c_message_pack(sent, buffer) : 0;
}
