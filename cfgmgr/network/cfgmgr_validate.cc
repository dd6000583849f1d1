// The table of the validation points.

#include "cfgmgr/network/cfgmgr_validate.h"

#include "common/tip_text.h"

#include <iterator>

namespace
{

struct point_row_t {
    const char *point;
    cfgmgr_validator_t *validate;
};

// A point that a model names stands here: the agent refuses a change that a point concerns and nobody serves.
constexpr point_row_t points[] = {
    { "sysIfAddr", cfgmgr_validate_system_address },
    { "bridgeValidate", cfgmgr_validate_bridge },
    { "bridgeVlanValidate", cfgmgr_validate_bridge_vlan },
    { "bridgeIfValidate", cfgmgr_validate_bridge_if },
    { "bridgeIfMtuValidate", cfgmgr_validate_bridge_if_mtu },
    { "bridgeIfNativeVlanValidate", cfgmgr_validate_bridge_if_native_vlan },
    { "aaa-secret-key", cfgmgr_validate_aaa_secret_key },
    { "vpnValidate", cfgmgr_validate_vpn },
    { "vpnServiceIfValidate", cfgmgr_validate_vpn_service_if_validate },
    { "vpnIf", cfgmgr_validate_vpn_if },
    { "vpnIfMacValidate", cfgmgr_validate_vpn_if_mac },
    { "vpnIfMtuValidate", cfgmgr_validate_vpn_if_mtu },
    { "vpnIfTcpMssValidate", cfgmgr_validate_vpn_if_tcp_mss },
    { "vpnIfAddrValidate", cfgmgr_validate_vpn_if_ip_address },
    { "vpnIfAddrListValidate", cfgmgr_validate_vpn_if_addr_list },
    { "vpnIfBind", cfgmgr_validate_vpn_if_tunnel_bind },
    { "vpnIfWpntExt", cfgmgr_validate_vpn_if_wpnt_extension },
    { "vpnIfWpntLR", cfgmgr_validate_vpn_if_wpnt_last_resort },
    { "vpnIfShapingRate", cfgmgr_validate_vpn_if_shaping_rate },
    { "vpnIfAclPolicerRate", cfgmgr_validate_vpn_if_acl_policer_rate },
    { "vpnIfPolicerRate", cfgmgr_validate_vpn_if_policer_rate },
    { "aspath", cfgmgr_validate_aspath },
    { "aspathprepend", cfgmgr_validate_aspath_list },
    { "aspathexclude", cfgmgr_validate_aspath_list },
    { "bgpNeighborValidate", cfgmgr_validate_bgp_neighbor },
    { "ospfInstanceValidate", cfgmgr_validate_vpn_ospf },
    { "vpnArpIpValidate", cfgmgr_validate_vpn_arp_ip },
    { "vpnArpMacValidate", cfgmgr_validate_vpn_arp_mac },
    { "validate_vpn_id", cfgmgr_validate_vpn_exists }, // of servers
    { "validate_vpn_id", cfgmgr_validate_vpn_exists }, // of the archive
    { "validate_source_interface", cfgmgr_validate_snmp_source_interface },
    { "validate_auth_order", cfgmgr_validate_auth_order },
    { "aaa_user_validate", cfgmgr_validate_aaa_user },
    { "radiusValidate", cfgmgr_validate_radius },
    { "vpnIfBridgeExclusionValidate", cfgmgr_validate_vpn_if_bridgeExclusionValidate },
    { "vpnIfBridgeExclusionValidateDefaults", cfgmgr_validate_vpn_if_bridgeExclusionValidateDefaults },
    { "vpnTunnelSourceDestinationValidate", cfgmgr_validate_vpn_if_tunnel_source_destination },
    { "vpnIfDot1xExclusionValidate", cfgmgr_dot1x_if_exclusion_validate },
    { "validateSrcIpNatpoolIP", cfgmgr_validate_vpn_if_static_nat_src_natpool_ip },
    { "validateNatpoolOverloadDirection", cfgmgr_validate_vpn_if_natpool_overload_direction },
    { "slxExitIfValidate", cfgmgr_validate_slx_if },
    { "vpnIfDhcpRapidCommitValidate", cfgmgr_validate_vpn_if_dhcp_rapid_commit },
    { "wwanIfSimProfileValidate", cfgmgr_validate_wwan_if },
    { "wwanIfTechnologyValidate", cfgmgr_validate_wwan_if },
    { "wwanIfPreferenceValidate", cfgmgr_validate_wwan_if },
};

// As the datastore client takes them.
confd_valpoint_cb rows[std::size(points) + 1];

} // namespace

confd_valpoint_cb *cfgmgr_validate_points()
{
    for (size_t i = 0; i < std::size(points); i++) {
        rows[i] = {};
        strlcpy(rows[i].valpoint, points[i].point, sizeof rows[i].valpoint);
        rows[i].validate = points[i].validate;
    }
    return rows;
}
