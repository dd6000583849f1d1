// OSPF of a VPN: each changed object of its configuration becomes one message to the VPN's ospfd, the policy of its routes
// one to zebra.
//
// cfgmgr_config_vpn_ospf.cc holds the instance, cfgmgr_config_vpn_ospf_area.cc the areas with their interfaces and ranges,
// cfgmgr_config_vpn_ospf_address.cc the addresses of these interfaces. ospfd learns the networks it runs on from messages
// only, so the record of an interface carries a mark while it is in an area, and each change of its address is told.
#ifndef CFGMGR_ROUTING_CFGMGR_CONFIG_VPN_OSPF_H
#define CFGMGR_ROUTING_CFGMGR_CONFIG_VPN_OSPF_H

#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_vpn.h"

struct cfgmgr_if_t;

// What stands behind the keys in the traces of OSPF.
inline constexpr char OSPF_BEHIND_KEYS[] = " ";

// ---- handlers; all give 0 but that of a range. A message that cannot be delivered is lost, one that is refused ends the
// process.

// Not of a row of its own: the handler of "vpn/vpn-instance" hands its changes on when container ospf is among them.
cfgmgr_config_handler_t cfgmgr_config_vpn_ospf;
cfgmgr_config_handler_t cfgmgr_config_vpn_ospf_route_policy;   // "vpn/vpn-instance/router/ospf/route-policy"
cfgmgr_config_handler_t cfgmgr_config_vpn_ospf_redistribute;   // below it "redistribute"
cfgmgr_config_handler_t cfgmgr_config_vpn_ospf_max_metric;     // "max-metric/router-lsa"
cfgmgr_config_handler_t cfgmgr_config_vpn_ospf_area;           // "area"
cfgmgr_config_handler_t cfgmgr_config_vpn_ospf_area_interface; // "area/interface"
cfgmgr_config_handler_t cfgmgr_config_vpn_ospf_area_range;     // "area/range"; 1 for a range that is not IPv4

// ---- what changes for the device, or for an interface

// Whether the down bit of routes counts: only while the overlay is up. To every VPN, with OSPF or without. Gives 0.
int cfgmgr_vpn_ospf_ignore_down_bit_update(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);
// Tells ospfd of one address of an interface in an area. if_name is the kernel's. Nothing, logged, for an empty address.
void cfgmgr_config_vpn_ospf_send_network(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p, uint32_t area, const char *if_name,
                                         const ip_prefix_t &address, bool is_deleted);
// The same for the address that the interface has. With update_mark the mark of its record follows. Nothing for an
// interface that the device does not have, or that is in another VPN.
void cfgmgr_config_vpn_ospf_send_if_address(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p, uint32_t area,
                                            const char *if_name, bool is_deleted, bool update_mark);
// An interface's configured address becomes another one, or goes: before the record has changed. Nothing for an interface
// without the mark, nor for IPv6.
void cfgmgr_ospf_if_addr_update(const cfgmgr_if_t &interface, const ip_prefix_t &address, bool is_delete);
// Takes the marks of all interfaces of a VPN away.
void cfgmgr_ospf_clear_if_marks(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);

// ---- the model's enumerations in the daemon's numbers; one that is unknown is logged and gives 0

[[nodiscard]] uint32_t cfgmgr_config_ospf_metric_type_to_quagga_pb(uint32_t type);
[[nodiscard]] uint32_t cfgmgr_config_ospf_protocol_to_quagga_pb(uint32_t protocol);
[[nodiscard]] uint32_t cfgmgr_config_ospf_advertise_to_quagga_pb(uint32_t advertise);
[[nodiscard]] uint32_t cfgmgr_config_ospf_translate_to_quagga_pb(uint32_t translate);
[[nodiscard]] uint32_t cfgmgr_config_ospf_network_to_quagga_pb(uint32_t network);
[[nodiscard]] uint32_t cfgmgr_config_ospf_authtype_to_quagga_pb(uint32_t type);

#endif
