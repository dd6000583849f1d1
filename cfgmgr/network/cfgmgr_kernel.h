// The kernel layer: the one place from which commands, ioctls, sysctl writes and namespace switches are made.
//
// Most operations are one command from a fixed template; what must be fast or gives a value back is an ioctl on the
// socket inside the VPN, which needs no namespace switch. Operations that are told to run "in the namespace" switch by
// themselves and must not be called from within a switch. Results are of cfgmgr_kernel_result_t unless told otherwise;
// a failure is logged here, once.
//
// cfgmgr_kernel.cc holds namespaces, commands and ioctls; cfgmgr_kernel_if.cc devices by kind; cfgmgr_kernel_attach.cc
// what an interface needs when it enters or leaves a VPN; cfgmgr_kernel_addr.cc addresses, routes and sysctls;
// cfgmgr_kernel_vpn.* a VPN's namespace and taps; cfgmgr_kernel_phy.* link settings; cfgmgr_kernel_files.* generated
// files of the name service. Main thread.
#ifndef CFGMGR_NETWORK_CFGMGR_KERNEL_H
#define CFGMGR_NETWORK_CFGMGR_KERNEL_H

#include "cfgmgr/daemon/cfgmgr_context.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "common/ip_util.h"

#include <cstdint>

enum cfgmgr_kernel_result_t {
    CFGMGR_KERNEL_OK = 0,
    CFGMGR_KERNEL_FILE_FAILED = 7, // a file could not be opened, or a wait has timed out
    CFGMGR_KERNEL_BAD_ARGUMENT = 10,
    CFGMGR_KERNEL_ARP_FAILED = 11,
    CFGMGR_KERNEL_COMMAND_FAILED = 15,
    CFGMGR_KERNEL_IF_FAILED = 17,
    CFGMGR_KERNEL_NS_FAILED = 18,
    CFGMGR_KERNEL_NO_RESOURCE = 21,
};

inline constexpr char KERNEL_PARENT_FP[] = "loop0";       // of the taps
inline constexpr char KERNEL_PARENT_IRB[] = "loop1";      // of "irb.%d"
inline constexpr char KERNEL_PARENT_INTERNAL[] = "loop2"; // of modems and internal legs
inline constexpr char KERNEL_PARENT_WLAN[] = "loop3";     // of the legs of access points
inline constexpr uint32_t KERNEL_LOOP_MTU = 2000;         // of every VLAN on one of them
inline constexpr uint32_t KERNEL_FP_TAP_OFFSET = 2000;    // tag of the forwarding tap above that of the service tap

// ---- doors

// Puts the main thread into the namespace of a VPN and back into the first one. Callers pair the two in one function;
// nesting is not supported. A failed switch ends the process, since nothing later could be trusted.
void cfgmgr_set_ns(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);
void cfgmgr_reset_ns(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);

// Runs a command built from one of the templates of the kernel layer. True when it ran and its exit status is 0.
[[nodiscard]] bool cfgmgr_kernel_command(const char *command);

// ---- ioctls

int cfgmgr_kernel_ifflags_set(cfgmgr_if_t *if_p, bool is_up);
// Loopback flags, and up when asked for; in the namespace.
int cfgmgr_kernel_loopback_set(cfgmgr_if_t *if_p, bool is_up);
// MAC addresses are numbers of 48 bits, the first byte highest. 0 when it cannot be read.
[[nodiscard]] uint64_t cfgmgr_kernel_if_get_mac(int sock, uint64_t vpn_id, const char *name);
int cfgmgr_kernel_if_set_mac(int sock, uint64_t vpn_id, const char *name, uint64_t mac);
int cfgmgr_kernel_if_set_mtu(int sock, uint64_t vpn_id, const char *name, uint32_t mtu);
// True when the VPN is known and has an interface of that name.
[[nodiscard]] bool cfgmgr_kernel_if_exists(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, const char *name);
// op: SIOCSARP or SIOCDARP (arp(7)). ip in host byte order.
int cfgmgr_kernel_arp_oper(int sock, const char *name, uint32_t ip, uint64_t mac, unsigned long op);
// Of the namespace that the thread is in; IF_MAC_UNREADABLE on failure.
[[nodiscard]] uint64_t cfgmgr_get_port_macaddr(const char *name);
// A tun or tap device with the flags of TUNSETIFF; its descriptor, which keeps it alive and is the caller's, or -2.
[[nodiscard]] int cfgmgr_tun_alloc(const char *name, int flags);

// ---- devices

// From one VPN to another; one of the two is VPN 0, anything else is fatal.
int cfgmgr_kernel_if_move(uint64_t src_vpn_id, uint64_t dest_vpn_id, const cfgmgr_if_t *if_p);
// A VLAN in the namespace that the thread is in.
int cfgmgr_kernel_subif_add(const char *parent, uint32_t vlan_id, cfgmgr_if_t *if_p);
int cfgmgr_kernel_subif_delete(uint64_t vpn_id, cfgmgr_if_t *if_p);
int cfgmgr_kernel_if_gre_add(uint64_t vpn_id, cfgmgr_if_t *if_p);
int cfgmgr_kernel_if_gre_delete(uint64_t vpn_id, cfgmgr_if_t *if_p);
int cfgmgr_kernel_loopback_add(uint64_t vpn_id, cfgmgr_if_t *if_p);
int cfgmgr_kernel_loopback_delete(uint64_t vpn_id, cfgmgr_if_t *if_p);
int cfgmgr_kernel_cellular_add(uint64_t vpn_id, cfgmgr_if_t *if_p);
int cfgmgr_kernel_cellular_delete(uint64_t vpn_id, cfgmgr_if_t *if_p);
int cfgmgr_kernel_internal_if_add(uint64_t vpn_id, cfgmgr_if_t *if_p);
int cfgmgr_kernel_internal_if_delete(uint64_t vpn_id, cfgmgr_if_t *if_p);
// The leg between an access point and the forwarding plane, with a bridge of its own.
int cfgmgr_kernel_wlan_internal_if_add(cfgmgr_if_t *if_p);
int cfgmgr_kernel_wlan_internal_if_delete(cfgmgr_if_t *if_p);
int cfgmgr_kernel_if_update_mac(const char *name, uint64_t mac, bool is_up);
void cfgmgr_kernel_if_set_tso_off(uint64_t vpn_id, const cfgmgr_if_t *if_p);
// The twin of a tagged interface in the forwarding plane, in VPN 0; nothing where the port has none.
void cfgmgr_subif_add_sim(cfgmgr_if_t *if_p);
void cfgmgr_subif_del_sim(cfgmgr_if_t *if_p);
// Repeats a change on the twin of an interface, the address first; 0 for what has not changed. Nothing without a twin.
void cfgmgr_kernel_twin_update(cfgmgrd_t *cfgmgrd_p, const cfgmgr_if_t &interface, uint64_t mac, uint32_t mtu);

// What a device needs when it enters or leaves a VPN, by its kind.
int cfgmgr_kernel_if_vpn_add(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, cfgmgr_if_t *if_p);
int cfgmgr_kernel_if_vpn_del(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, cfgmgr_if_t *if_p);

// ---- addresses, routes, sysctls

// In the namespace of the interface's VPN.
int cfgmgr_kernel_ifaddr_set(cfgmgr_if_t *if_p, const ip_prefix_t &prefix, bool is_delete);
// Keeps the own address in the interface's ARP table.
int cfgmgr_if_arp_update(cfgmgr_if_t *if_p, const ip_prefix_t &prefix, bool is_delete);
// next_hop null: a connected route. The routing table is named after the interface. In the namespace that the thread is
// in.
int cfgmgr_kernel_update_rtable(const cfgmgr_if_t *if_p, const ip_prefix_t &prefix, const ip_addr_t *next_hop,
                                bool is_add);
// 0, or -1 with the first failure.
int cfgmgr_kernel_if_sysctl_init(cfgmgr_if_t *if_p);
void cfgmgr_kernel_arp_timeout_set(uint64_t vpn_id, const char *name, uint32_t seconds);
// In the namespace that the thread is in.
void cfgmgr_kernel_enable_accept_ra(const char *name);
void cfgmgr_kernel_disable_accept_ra(const char *name);
void cfgmgr_kernel_enable_ipv6(const char *name);
void cfgmgr_kernel_disable_ipv6(const char *name);

#endif
