// Files of the name service: host name, hosts and resolvers, for the device and for each VPN's namespace.
#ifndef CFGMGR_NETWORK_CFGMGR_KERNEL_FILES_H
#define CFGMGR_NETWORK_CFGMGR_KERNEL_FILES_H

#include "cfgmgr/daemon/cfgmgr_context.h"

#include <string>

struct cfgmgr_vpn_t;

inline constexpr size_t STATIC_HOST_NAME_SIZE = 128;
inline constexpr uint32_t STATIC_HOST_ADDR_MAX = 8;

// A static host of a VPN; of static_dns, by VPN and name.
struct cfgmgr_static_host_t {
    avl_node_t node;
    uint64_t vpn_id;
    char host_name[STATIC_HOST_NAME_SIZE];
    uint32_t addr_count; // at most STATIC_HOST_ADDR_MAX
    ip_addr_t addrs[STATIC_HOST_ADDR_MAX];
};

// The table of static hosts. 0, or 1 without memory.
[[nodiscard]] int cfgmgr_static_dns_init(cfgmgrd_t *cfgmgrd_p);
void cfgmgr_static_dns_deinit(cfgmgrd_t *cfgmgrd_p);
[[nodiscard]] cfgmgr_static_host_t *cfgmgr_static_host_find(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, const char *name);
// Forgets the static hosts of a VPN that goes away; its file goes with the VPN. Nothing without the table.
void cfgmgr_static_hosts_remove(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);

// The kernel's host name, /etc/hostname, the chassis block, and the hosts files of all VPNs but the internal one, which
// name the device as the context's host_name has it.
int cfgmgr_kernel_hostname_set(cfgmgrd_t *cfgmgrd_p, const char *name);
// /etc/hosts of VPN 0 or of the VPN's namespace.
int cfgmgr_kernel_update_host(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);
// The resolvers of every VPN: the configured ones, then those learnt by DHCP on interfaces that are up.
int cfgmgr_kernel_update_dns(cfgmgrd_t *cfgmgrd_p);

// Both files of a VPN that has just been made: without them its programs would see those of the transport VPN.
void cfgmgr_kernel_name_files_create(cfgmgrd_t *cfgmgrd_p, const cfgmgr_vpn_t &vpn);

[[nodiscard]] std::string cfgmgr_hosts_render(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);
[[nodiscard]] std::string cfgmgr_resolv_render(const cfgmgr_vpn_t &vpn);

#endif
