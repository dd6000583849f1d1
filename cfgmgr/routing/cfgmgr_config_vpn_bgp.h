// BGP of a VPN: each changed object of its configuration becomes one message to the VPN's bgpd.
//
// cfgmgr_config_vpn_bgp.cc holds the instance and what changes for all instances of the device at once,
// cfgmgr_config_vpn_bgp_family.cc the address families, cfgmgr_config_vpn_bgp_neighbor.cc the neighbours,
// cfgmgr_validate_bgp.cc the rules. No copy of the configuration is kept but the AS number in the VPN's record.
#ifndef CFGMGR_ROUTING_CFGMGR_CONFIG_VPN_BGP_H
#define CFGMGR_ROUTING_CFGMGR_CONFIG_VPN_BGP_H

#include "cfgmgr/daemon/cfgmgr_context.h"
#include "cfgmgr/network/cfgmgr_config_value.h"

struct cfgmgr_vpn_t;

// ---- handlers; all give 0. A message that cannot be delivered is lost, one that is refused ends the process.

cfgmgr_config_handler_t cfgmgr_config_vpn_bgp;                                  // "vpn/vpn-instance/router/bgp"
cfgmgr_config_handler_t cfgmgr_config_vpn_bgp_address_family;                   // below it "address-family"
cfgmgr_config_handler_t cfgmgr_config_vpn_bgp_address_family_aggregate_address; // "address-family/aggregate-address"
cfgmgr_config_handler_t cfgmgr_config_vpn_bgp_address_family_network;           // "address-family/network"
cfgmgr_config_handler_t cfgmgr_config_vpn_bgp_address_family_redistribute;      // "address-family/redistribute"
cfgmgr_config_handler_t cfgmgr_config_vpn_bgp_neighbor;                         // "neighbor"
cfgmgr_config_handler_t cfgmgr_config_vpn_bgp_neighbor_address_family;          // "neighbor/address-family"
// "neighbor/address-family/route-policy"
cfgmgr_config_handler_t cfgmgr_config_vpn_bgp_neighbor_address_family_route_policy;

// Tells the VPN's bgpd that the aggregates of an address family are gone, as they stood before the commit: entries of a
// list that goes with its parent make no change of their own. 1, logged, when they cannot be read at all; one that
// cannot be read ends it.
int cfgmgr_config_vpn_bgp_delete_all_aggregate_address(cfgmgr_vpn_t *vpn_p, const confd_value_t *as_key_p,
                                                       uint32_t afi);

// ---- what changes for the device; nothing for a VPN without BGP, an unknown one is fatal

// Whether a site of origin counts: only while the overlay is up. Gives 0.
int cfgmgr_config_vpn_bgp_ignore_soo_update(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);
// The overlay's AS number, to every VPN; 0 too.
void cfgmgr_config_vpn_bgp_overlay_as_update(cfgmgrd_t *cfgmgrd_p);

// ---- the model's enumerations in the daemon's numbers; one that is unknown is logged and gives 0

[[nodiscard]] uint32_t cfgmgr_config_bgp_afi_to_quagga_pb(uint32_t afi);
// As it stands in paths; one that is unknown is fatal.
[[nodiscard]] const char *cfgmgr_config_bgp_afi_to_str(uint32_t afi);
[[nodiscard]] uint32_t cfgmgr_config_bgp_route_to_quagga_pb(uint32_t protocol);

#endif
