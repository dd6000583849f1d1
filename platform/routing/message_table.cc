#include "platform/routing/message_table.h"

#include "common/tip_root.h"
#include "proto/bgp.pb-c.h"
#include "proto/bgp_show.pb-c.h"
#include "proto/ospf.pb-c.h"
#include "proto/ospf_show.pb-c.h"
#include "proto/policy.pb-c.h"
#include "proto/routing_common.pb-c.h"
#include "proto/zebra.pb-c.h"

namespace
{

// The numbers are not in the order of the daemons, deliberately.
enum module_t : uint8_t {
    MODULE_ZEBRA = 0,
    MODULE_BGP = 1,
    MODULE_OSPF = 2,
};

constexpr daemon_row_t daemon_rows[] = {
    {
        .name = "zebra",
        .module = MODULE_ZEBRA,
        .notify_type = 9,
        .mgmt_path = TIP_QUAGGA_RUN_DIR "/zebra_protobuf_mgmt.api",
        .notify_path = TIP_QUAGGA_RUN_DIR "/zebra_protobuf_notify.api",
        .control_path = TIP_QUAGGA_RUN_DIR "/zebra_protobuf_ctrl.api",
    },
    {
        .name = "ospfd",
        .module = MODULE_OSPF,
        .notify_type = 16,
        .mgmt_path = TIP_QUAGGA_RUN_DIR "/ospfd_protobuf_mgmt.api",
        .notify_path = TIP_QUAGGA_RUN_DIR "/ospfd_protobuf_notify.api",
        .control_path = nullptr,
    },
    {
        .name = "bgpd",
        .module = MODULE_BGP,
        .notify_type = 21,
        .mgmt_path = TIP_QUAGGA_RUN_DIR "/bgpd_protobuf_mgmt.api",
        .notify_path = TIP_QUAGGA_RUN_DIR "/bgpd_protobuf_notify.api",
        .control_path = nullptr,
    },
};

constexpr uint8_t ZEBRA_RESPONSE = 5;
constexpr uint8_t OSPF_RESPONSE = 10, OSPF_VALIDATE_RESPONSE = 11;
constexpr uint8_t BGP_RESPONSE = 13, BGP_VALIDATE_RESPONSE = 16;

const message_row_t message_rows[] = {
    { MODULE_ZEBRA, 1, ZEBRA_RESPONSE, MESSAGE_CONFIG, &m_system_routerid__descriptor },
    { MODULE_ZEBRA, 2, ZEBRA_RESPONSE, MESSAGE_CONFIG, &m_prefix_list__descriptor },
    { MODULE_ZEBRA, 3, ZEBRA_RESPONSE, MESSAGE_CONFIG, &m_route_map__descriptor },
    { MODULE_ZEBRA, 4, ZEBRA_RESPONSE, MESSAGE_CONFIG, &m_rtm_route_map_ospf__descriptor },
    { MODULE_ZEBRA, 6, 6, MESSAGE_SHOW, &m_rtm_show__descriptor },
    { MODULE_ZEBRA, 7, 7, MESSAGE_CONTROL, &m_rtm_control__descriptor },
    { MODULE_ZEBRA, 10, 10, MESSAGE_DEBUG, &m_rtm_debug__descriptor },

    { MODULE_OSPF, 0, OSPF_RESPONSE, MESSAGE_CONFIG, &m_ospf_instance__descriptor },
    { MODULE_OSPF, 1, OSPF_VALIDATE_RESPONSE, MESSAGE_VALIDATE, &m_ospf_instance__descriptor },
    { MODULE_OSPF, 2, OSPF_RESPONSE, MESSAGE_CONFIG, &m_ospf_redistribute__descriptor },
    { MODULE_OSPF, 3, OSPF_RESPONSE, MESSAGE_CONFIG, &m_ospf_max_metric__descriptor },
    { MODULE_OSPF, 4, OSPF_RESPONSE, MESSAGE_CONFIG, &m_ospf_area__descriptor },
    { MODULE_OSPF, 5, OSPF_RESPONSE, MESSAGE_CONFIG, &m_ospf_area_interface__descriptor },
    { MODULE_OSPF, 6, OSPF_RESPONSE, MESSAGE_CONFIG, &m_ospf_area_interface_address__descriptor },
    { MODULE_OSPF, 7, OSPF_RESPONSE, MESSAGE_CONFIG, &m_ospf_area_range__descriptor },
    { MODULE_OSPF, 8, OSPF_RESPONSE, MESSAGE_CONFIG, &m_prefix_list__descriptor },
    { MODULE_OSPF, 9, OSPF_RESPONSE, MESSAGE_CONFIG, &m_route_map__descriptor },
    { MODULE_OSPF, 12, 12, MESSAGE_SHOW, &m_ospf_show__descriptor },
    { MODULE_OSPF, 13, 13, MESSAGE_CLEAR, &m_ospf_clear__descriptor },
    { MODULE_OSPF, 14, 14, MESSAGE_DEBUG, &m_ospf_debug__descriptor },

    { MODULE_BGP, 0, BGP_RESPONSE, MESSAGE_CONFIG, &m_bgp_instance__descriptor },
    { MODULE_BGP, 1, BGP_RESPONSE, MESSAGE_CONFIG, &m_bgp_address_family__descriptor },
    { MODULE_BGP, 2, BGP_RESPONSE, MESSAGE_CONFIG, &m_bgp_address_family_redistribute__descriptor },
    { MODULE_BGP, 3, BGP_RESPONSE, MESSAGE_CONFIG, &m_bgp_address_family_aggregate_address__descriptor },
    { MODULE_BGP, 4, BGP_RESPONSE, MESSAGE_CONFIG, &m_bgp_address_family_network__descriptor },
    { MODULE_BGP, 5, BGP_RESPONSE, MESSAGE_CONFIG, &m_bgp_neighbor__descriptor },
    { MODULE_BGP, 6, BGP_RESPONSE, MESSAGE_CONFIG, &m_bgp_neighbor_address_family__descriptor },
    { MODULE_BGP, 7, BGP_RESPONSE, MESSAGE_CONFIG, &m_bgp_neighbor_address_family_route_map__descriptor },
    { MODULE_BGP, 8, BGP_RESPONSE, MESSAGE_CONFIG, &m_bgp_as_path_list__descriptor },
    { MODULE_BGP, 9, BGP_RESPONSE, MESSAGE_CONFIG, &m_bgp_community_list__descriptor },
    { MODULE_BGP, 10, BGP_RESPONSE, MESSAGE_CONFIG, &m_bgp_ext_community_list__descriptor },
    { MODULE_BGP, 11, BGP_RESPONSE, MESSAGE_CONFIG, &m_prefix_list__descriptor },
    { MODULE_BGP, 12, BGP_RESPONSE, MESSAGE_CONFIG, &m_route_map__descriptor },
    { MODULE_BGP, 14, BGP_VALIDATE_RESPONSE, MESSAGE_VALIDATE, &m_bgp_neighbor__descriptor },
    { MODULE_BGP, 15, BGP_VALIDATE_RESPONSE, MESSAGE_VALIDATE, &m_bgp_as_path_list__descriptor },
    { MODULE_BGP, 17, 17, MESSAGE_SHOW, &m_bgp_show__descriptor },
    { MODULE_BGP, 18, 18, MESSAGE_CLEAR, &m_bgp_clear__descriptor },
    { MODULE_BGP, 19, 19, MESSAGE_DEBUG, &m_bgp_debug__descriptor },
};

} // namespace

const daemon_row_t *daemon_row_find(std::string_view name)
{
    for (const daemon_row_t &row : daemon_rows) {
        if (name == row.name)
            return &row;
    }
    return nullptr;
}

const message_row_t *message_row_find(uint8_t module, uint8_t type)
{
    for (const message_row_t &row : message_rows) {
        if (row.module == module && row.type == type)
            return &row;
    }
    return nullptr;
}

message_ptr message_unpack(const message_row_t &row, std::string_view body)
{
    const auto *bytes = reinterpret_cast<const uint8_t *>(body.data());
    return message_ptr(protobuf_c_message_unpack(row.descriptor, nullptr, body.size(), bytes));
}

std::string message_pack(const ProtobufCMessage &message)
{
    std::string body(protobuf_c_message_get_packed_size(&message), '\0');
    (void)protobuf_c_message_pack(&message, reinterpret_cast<uint8_t *>(body.data())); // gives that size again
    return body;
}
