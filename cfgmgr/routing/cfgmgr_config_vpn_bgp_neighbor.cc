// Neighbours of a BGP instance: the session with them, what is exchanged, and the policies that it passes.

#include "cfgmgr/network/cfgmgr_vpn.h"
#include "cfgmgr/routing/cfgmgr_config_vpn_bgp.h"
#include "cfgmgr/routing/cfgmgr_quagga_change.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "proto/bgp.pb-c.h"
#include "yang/corvane-vpn.h"

namespace
{

constexpr quagga_leaf_t neighbor_leaves[] = {
    { .tag = vpn_shutdown, .field = QUAGGA_SCALAR(MBgpNeighbor, shutdown), .form = cfgmgr_quagga_fill_bool },
    { .tag = vpn_remote_as, .field = QUAGGA_SCALAR(MBgpNeighbor, remote_as), .form = cfgmgr_quagga_fill_as },
    { .tag = vpn_keepalive, .field = QUAGGA_SCALAR(MBgpNeighbor, keepalive), .form = cfgmgr_quagga_fill_uint16 },
    { .tag = vpn_holdtime, .field = QUAGGA_SCALAR(MBgpNeighbor, holdtime), .form = cfgmgr_quagga_fill_uint16 },
    { .tag = vpn_advertisement_interval,
      .field = QUAGGA_SCALAR(MBgpNeighbor, advertisement_interval),
      .form = cfgmgr_quagga_fill_uint16 },
    { .tag = vpn_connect_retry,
      .field = QUAGGA_SCALAR(MBgpNeighbor, connect_retry),
      .form = cfgmgr_quagga_fill_uint16 },
    { .tag = vpn_if_name,
      .field = QUAGGA_POINTER(MBgpNeighbor, update_source_if_name),
      .form = cfgmgr_quagga_fill_interface,
      .removal = QUAGGA_REMOVED_FLAG,
      .deleted = QUAGGA_SCALAR(MBgpNeighbor, update_source_if_name_is_deleted) },
    { .tag = vpn_ip_address,
      .field = QUAGGA_POINTER(MBgpNeighbor, update_source_if_address),
      .form = cfgmgr_quagga_fill_address,
      .removal = QUAGGA_REMOVED_FLAG,
      .deleted = QUAGGA_SCALAR(MBgpNeighbor, update_source_if_address_is_deleted) },
    { .tag = vpn_next_hop_self, .field = QUAGGA_SCALAR(MBgpNeighbor, next_hop_self), .form = cfgmgr_quagga_fill_bool },
    { .tag = vpn_send_community,
      .field = QUAGGA_SCALAR(MBgpNeighbor, send_community),
      .form = cfgmgr_quagga_fill_bool },
    { .tag = vpn_send_ext_community,
      .field = QUAGGA_SCALAR(MBgpNeighbor, send_ext_community),
      .form = cfgmgr_quagga_fill_bool },
    { .tag = vpn_ebgp_multihop, .field = QUAGGA_SCALAR(MBgpNeighbor, ebgp_multihop), .form = cfgmgr_quagga_fill_uint8 },
    { .tag = vpn_capability_negotiate,
      .field = QUAGGA_SCALAR(MBgpNeighbor, capability_negotiate),
      .form = cfgmgr_quagga_fill_bool },
    { .tag = vpn_password,
      .field = QUAGGA_POINTER(MBgpNeighbor, password),
      .form = cfgmgr_quagga_fill_secret,
      .removal = QUAGGA_REMOVED_FLAG,
      .deleted = QUAGGA_SCALAR(MBgpNeighbor, password_is_deleted) },
};

// bgpd takes a limit off with the session only, so its removal has no message of its own.
constexpr quagga_leaf_t neighbor_family_leaves[] = {
    { .tag = vpn_prefix_num,
      .field = QUAGGA_SCALAR(MBgpNeighborAddressFamily, maximum_prefixes),
      .form = cfgmgr_quagga_fill_uint32,
      .removal = QUAGGA_REMOVED_IGNORED },
    { .tag = vpn_threshold,
      .field = QUAGGA_SCALAR(MBgpNeighborAddressFamily, maximum_prefixes_threshold),
      .form = cfgmgr_quagga_fill_uint8 },
    { .tag = vpn_warning_only,
      .field = QUAGGA_SCALAR(MBgpNeighborAddressFamily, maximum_prefixes_warning_only),
      .form = cfgmgr_quagga_fill_bool },
    { .tag = vpn_restart_interval,
      .field = QUAGGA_SCALAR(MBgpNeighborAddressFamily, maximum_prefixes_restart_interval),
      .form = cfgmgr_quagga_fill_uint16 },
};

constexpr quagga_leaf_t neighbor_policy_leaves[] = {
    { .tag = vpn_pol_name,
      .field = QUAGGA_POINTER(MBgpNeighborAddressFamilyRouteMap, route_policy),
      .form = cfgmgr_quagga_fill_text,
      .removal = QUAGGA_REMOVED_IGNORED }, // goes with its entry only
};

} // namespace

int32_t cfgmgr_config_vpn_bgp_neighbor(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys,
                                       uint16_t num_tv, confd_tag_value_t *tv)
{
    quagga_change_t change("BGP neighbor", { row, op, num_keys, keys, num_tv, tv });
    MBgpNeighbor message = M_BGP_NEIGHBOR__INIT;
    message.as_num = change.as_key();
    message.neighbor = change.address_key();
    change.fill(&message, neighbor_leaves);
    return change.send(&message, DAEMON_ID_BGPD, BGP_NEIGHBOR);
}

int32_t cfgmgr_config_vpn_bgp_neighbor_address_family(tconfd_sub *row, int32_t op, uint8_t num_keys,
                                                      confd_value_t *keys, uint16_t num_tv, confd_tag_value_t *tv)
{
    quagga_change_t change("BGP neighbor address family", { row, op, num_keys, keys, num_tv, tv });
    MBgpNeighborAddressFamily message = M_BGP_NEIGHBOR_ADDRESS_FAMILY__INIT;
    message.as_num = change.as_key();
    message.neighbor = change.address_key();
    message.address_family = cfgmgr_config_bgp_afi_to_quagga_pb(change.enum_key("AF"));
    change.fill(&message, neighbor_family_leaves);
    return change.send(&message, DAEMON_ID_BGPD, BGP_NEIGHBOR_ADDRESS_FAMILY);
}

int32_t cfgmgr_config_vpn_bgp_neighbor_address_family_route_policy(tconfd_sub *row, int32_t op, uint8_t num_keys,
                                                                   confd_value_t *keys, uint16_t num_tv,
                                                                   confd_tag_value_t *tv)
{
    quagga_change_t change("BGP neighbor route policy", { row, op, num_keys, keys, num_tv, tv });
    MBgpNeighborAddressFamilyRouteMap message = M_BGP_NEIGHBOR_ADDRESS_FAMILY_ROUTE_MAP__INIT;
    message.as_num = change.as_key();
    message.neighbor = change.address_key();
    message.address_family = cfgmgr_config_bgp_afi_to_quagga_pb(change.enum_key("AF"));
    message.direction = change.enum_key("direction"); // the model's numbers are the daemon's: 0 in, 1 out
    change.fill(&message, neighbor_policy_leaves);
    return change.send(&message, DAEMON_ID_BGPD, BGP_NEIGHBOR_ROUTE_MAP);
}
