// What the device's identity and the state of the overlay mean to a VPN's routing daemons: the router id of its zebra, the
// site id of its bgpd, what ospfd and bgpd heed in routes.

#include "cfgmgr/network/cfgmgr_vpn.h"
#include "cfgmgr/routing/cfgmgr_config_vpn_bgp.h"
#include "cfgmgr/routing/cfgmgr_config_vpn_ospf.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "proto/bgp.pb-c.h"
#include "proto/zebra.pb-c.h"

namespace
{

constexpr size_t PREFIX_TEXT_SIZE = 128;

bool has_address(const ip_prefix_t *prefix)
{
    return prefix != nullptr && !ip_addr_is_zero(prefix->ip);
}

} // namespace

int cfgmgr_vpn_update_routerid(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, const ip_prefix_t *prefix)
{
    if (vpn_id == VPN_ID_INTERNAL)
        return 0;
    cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_get(cfgmgrd_p, vpn_id);
    char text[PREFIX_TEXT_SIZE];
    MIpPrefix router_id = M_IP_PREFIX__INIT;
    MSystemRouterid message = M_SYSTEM_ROUTERID__INIT;
    if (has_address(prefix)) {
        router_id.is_ipv4 = prefix->ip.family == AF_INET;
        router_id.prefix = text;
        (void)ip_prefix_to_str(*prefix, text, sizeof text);
        message.router_id = &router_id;
    } else {
        message.has_router_id_is_deleted = 1;
        message.router_id_is_deleted = 1;
    }
    // A message that is lost is logged by the channel; nothing else can be done about it here.
    (void)cfgmgr_quagga_pb_send_message(vpn_p, &message, DAEMON_ID_ZEBRA, ZEBRA_SYSTEM_ROUTERID);
    return 0;
}

int cfgmgr_vpn_update_siteid(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, uint32_t site_id)
{
    cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_get(cfgmgrd_p, vpn_id);
    if (vpn_p->bgp_as == 0)
        return 0;
    MBgpInstance message = M_BGP_INSTANCE__INIT;
    message.as_num = vpn_p->bgp_as;
    // The context decides which of the two goes out, deliberately: while its leaf is being removed it still holds the
    // old number, and what is sent is the number 0 and not the removal.
    if (cfgmgrd_p->site_id != 0) {
        message.has_site_id = 1;
        message.site_id = site_id;
    } else {
        message.has_site_id_is_deleted = 1;
        message.site_id_is_deleted = 1;
    }
    (void)cfgmgr_quagga_pb_send_message(vpn_p, &message, DAEMON_ID_BGPD, BGP_INSTANCE); // as above
    return 0;
}

void cfgmgr_vpn_update_siteid_all(cfgmgrd_t *cfgmgrd_p, bool clear)
{
    for (cfgmgr_vpn_t &vpn : avl_range<cfgmgr_vpn_t>(&cfgmgrd_p->vpn_table))
        (void)cfgmgr_vpn_update_siteid(cfgmgrd_p, vpn.vpn_id, clear ? 0 : cfgmgrd_p->site_id); // gives 0
}

void cfgmgr_vpn_update_routing_flags_all(cfgmgrd_t *cfgmgrd_p)
{
    for (const cfgmgr_vpn_t &vpn : avl_range<cfgmgr_vpn_t>(&cfgmgrd_p->vpn_table)) {
        (void)cfgmgr_vpn_ospf_ignore_down_bit_update(cfgmgrd_p, vpn.vpn_id); // gives 0, as below
        (void)cfgmgr_config_vpn_bgp_ignore_soo_update(cfgmgrd_p, vpn.vpn_id);
    }
}
