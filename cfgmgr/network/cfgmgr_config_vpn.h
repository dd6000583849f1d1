// Handlers of the configuration of a VPN itself: the instance, its resolvers, its static hosts, its services.
//
// cfgmgr_config_vpn.cc holds the instance, cfgmgr_config_dns_host.cc what the name service of the VPN knows,
// cfgmgr_config_service.cc the services. A commit has passed validation, so a key of a wrong type, a VPN that is not
// there and labels that have run out are bugs and end the process.
#ifndef CFGMGR_NETWORK_CFGMGR_CONFIG_VPN_H
#define CFGMGR_NETWORK_CFGMGR_CONFIG_VPN_H

#include "cfgmgr/daemon/cfgmgr_context.h"
#include "tconfd/tconfd_api.h"

struct cfgmgr_vpn_t;

// ---- handlers; 0, or an error that ends the delivery

// "vpn/vpn-instance", keyed by the VPN's number. An error when the VRF index could not be written, with the VPN taken
// back.
int32_t cfgmgr_config_vpn(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                          confd_tag_value_t *tv);
// "vpn/vpn-instance/dns", keyed by VPN and address. The later of two resolvers of one role counts.
int32_t cfgmgr_config_dns(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                          confd_tag_value_t *tv);
// "vpn/vpn-instance/host", keyed by VPN and name. Addresses beyond STATIC_HOST_ADDR_MAX are dropped.
int32_t cfgmgr_config_host(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                           confd_tag_value_t *tv);
// "vpn/vpn-instance/service", keyed by VPN and kind. Shows a label for the service, and frees it with the service.
int32_t cfgmgr_config_service(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                              confd_tag_value_t *tv);

// ---- what the handlers share

[[nodiscard]] cfgmgrd_t *cfgmgr_config_daemon(const tconfd_sub *row);
// The VPN's number in a key.
[[nodiscard]] uint64_t cfgmgr_config_vpn_id(const confd_value_t *key_p);
// The VPN of a key; one that is not there is fatal.
[[nodiscard]] cfgmgr_vpn_t *cfgmgr_config_vpn_get(const tconfd_sub *row, const confd_value_t *key_p);

// Gives back the labels of a VPN's services: nobody is told of them when they go with their VPN.
void cfgmgr_config_services_release(tconfd_ctx *ctx, cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);

#endif
