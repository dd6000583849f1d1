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
    { "vpnIf", cfgmgr_validate_vpn_if },
    { "vpnIfMacValidate", cfgmgr_validate_vpn_if_mac },
    { "vpnIfAddrValidate", cfgmgr_validate_vpn_if_ip_address },
    { "vpnIfAddrListValidate", cfgmgr_validate_vpn_if_addr_list },
    { "vpnIfBind", cfgmgr_validate_vpn_if_tunnel_bind },
    { "vpnIfWpntExt", cfgmgr_validate_vpn_if_wpnt_extension },
    { "vpnIfWpntLR", cfgmgr_validate_vpn_if_wpnt_last_resort },
    { "vpnIfShapingRate", cfgmgr_validate_vpn_if_shaping_rate },
    { "vpnIfAclPolicerRate", cfgmgr_validate_vpn_if_acl_policer_rate },
    { "vpnIfPolicerRate", cfgmgr_validate_vpn_if_policer_rate },
    { "vpnArpIpValidate", cfgmgr_validate_vpn_arp_ip },
    { "vpnArpMacValidate", cfgmgr_validate_vpn_arp_mac },
    { "vpnTunnelSourceDestinationValidate", cfgmgr_validate_vpn_if_tunnel_source_destination },
    { "vpnIfDot1xExclusionValidate", cfgmgr_dot1x_if_exclusion_validate },
    { "validateSrcIpNatpoolIP", cfgmgr_validate_vpn_if_static_nat_src_natpool_ip },
    { "validateNatpoolOverloadDirection", cfgmgr_validate_vpn_if_natpool_overload_direction },
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
