// Rules between the objects of a configuration that the models cannot say: the validation points of the daemon.
//
// The agent asks a point about each change that concerns it, before a transaction is accepted. A validator reads the
// proposed configuration through the transaction and changes nothing; two of them (a bridge's VLAN, DHCPv6 rapid commit)
// also look into the daemon's tables. What passes here is applied by handlers without a question: a handler that meets
// what a rule forbids ends the process.
//
// All validators have the signature of confd_valpoint_cb. 0 accepts; -1 refuses, with a text for the operator set by
// confd_trans_seterr. newval has type C_NOEXISTS for what is deleted, or set back to its default.
#ifndef CFGMGR_NETWORK_CFGMGR_VALIDATE_H
#define CFGMGR_NETWORK_CFGMGR_VALIDATE_H

#include <confd_dp.h>

// The table of all points, ended by an empty row; made at the first call.
[[nodiscard]] confd_valpoint_cb *cfgmgr_validate_points();

using cfgmgr_validator_t = int(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval);

// ---- system (cfgmgr_validate_system.cc)
cfgmgr_validator_t cfgmgr_validate_system_address;
cfgmgr_validator_t cfgmgr_validate_aaa_secret_key;
cfgmgr_validator_t cfgmgr_validate_vpn_exists;
cfgmgr_validator_t cfgmgr_validate_snmp_source_interface;
cfgmgr_validator_t cfgmgr_validate_auth_order;
cfgmgr_validator_t cfgmgr_validate_aaa_user;
cfgmgr_validator_t cfgmgr_validate_radius;

// ---- bridges (cfgmgr_validate_bridge.cc)
cfgmgr_validator_t cfgmgr_validate_bridge;
cfgmgr_validator_t cfgmgr_validate_bridge_vlan;
cfgmgr_validator_t cfgmgr_validate_bridge_if;
cfgmgr_validator_t cfgmgr_validate_bridge_if_native_vlan;
cfgmgr_validator_t cfgmgr_validate_vpn_if_bridgeExclusionValidate;
cfgmgr_validator_t cfgmgr_validate_vpn_if_bridgeExclusionValidateDefaults;

// ---- VPNs and packet sizes (cfgmgr_validate_vpn.cc, cfgmgr_validate_mtu.cc)
cfgmgr_validator_t cfgmgr_validate_vpn;
cfgmgr_validator_t cfgmgr_validate_vpn_service_if_validate;
cfgmgr_validator_t cfgmgr_validate_slx_if;
cfgmgr_validator_t cfgmgr_validate_bridge_if_mtu;
cfgmgr_validator_t cfgmgr_validate_vpn_if_mtu;
cfgmgr_validator_t cfgmgr_validate_vpn_if_tcp_mss;

// ---- interfaces: their names (cfgmgr_validate_vpn_if.cc), single settings (cfgmgr_validate_if_leaf.cc), rates
// (cfgmgr_validate_rate.cc), rapid commit (cfgmgr_validate_dhcp.cc)
cfgmgr_validator_t cfgmgr_validate_vpn_if;
cfgmgr_validator_t cfgmgr_validate_vpn_if_mac;
cfgmgr_validator_t cfgmgr_validate_vpn_arp_mac;
cfgmgr_validator_t cfgmgr_validate_vpn_arp_ip;
cfgmgr_validator_t cfgmgr_validate_vpn_if_tunnel_bind;
cfgmgr_validator_t cfgmgr_validate_vpn_if_wpnt_extension;
cfgmgr_validator_t cfgmgr_validate_vpn_if_wpnt_last_resort;
cfgmgr_validator_t cfgmgr_validate_vpn_if_shaping_rate;
cfgmgr_validator_t cfgmgr_validate_vpn_if_acl_policer_rate;
cfgmgr_validator_t cfgmgr_validate_vpn_if_policer_rate;
cfgmgr_validator_t cfgmgr_dot1x_if_exclusion_validate;
// Not 0 and not -1 when the agent gives no session.
cfgmgr_validator_t cfgmgr_validate_vpn_if_dhcp_rapid_commit;
cfgmgr_validator_t cfgmgr_validate_wwan_if; // a modem takes any setting that the model has

// ---- addresses (cfgmgr_validate_addr.cc), tunnels (cfgmgr_validate_gre.cc), translation (cfgmgr_validate_nat.cc)
// 2 when the agent gives no session.
cfgmgr_validator_t cfgmgr_validate_vpn_if_ip_address;
cfgmgr_validator_t cfgmgr_validate_vpn_if_addr_list;
cfgmgr_validator_t cfgmgr_validate_vpn_if_tunnel_source_destination;
cfgmgr_validator_t cfgmgr_validate_vpn_if_static_nat_src_natpool_ip;
cfgmgr_validator_t cfgmgr_validate_vpn_if_natpool_overload_direction;

// ---- BGP (routing/cfgmgr_validate_bgp.cc)
cfgmgr_validator_t cfgmgr_validate_aspath;
cfgmgr_validator_t cfgmgr_validate_aspath_list;
cfgmgr_validator_t cfgmgr_validate_bgp_neighbor;

// ---- OSPF (routing/cfgmgr_validate_ospf.cc)
cfgmgr_validator_t cfgmgr_validate_vpn_ospf;

#endif
