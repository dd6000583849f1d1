// The interface table: one record per interface that the daemon knows, under its kernel name.
//
// A record lies in the daemon's tree from its creation to its deletion, in the tree of its VPN while it has one, and
// where it applies in the trees of a bridge and of GRE interfaces. It states what is configured: a kernel step that
// fails is logged and never changes it back. A port's record lives as long as the process and moves between VPNs; VPN 0
// holds it while it is not configured.
//
// cfgmgr_if.cc holds lookups, addresses and enabling, cfgmgr_if_kind.cc what names mean, cfgmgr_if_create.cc creation
// and deletion, cfgmgr_if_system.cc the system and simulated interfaces and the start, cfgmgr_if_route.cc the static
// routes of an interface, cfgmgr_if_dump.cc the operator's commands. Main thread.
#ifndef CFGMGR_NETWORK_CFGMGR_IF_H
#define CFGMGR_NETWORK_CFGMGR_IF_H

#include "cfgmgr/daemon/cfgmgr_context.h"
#include "common/dll.h"
#include "common/ip_util.h"

struct confd_user_info;
struct cfgmgr_bridge_t;
struct cfgmgr_printer_t;
struct cfgmgr_vpn_t;

inline constexpr size_t IF_NAME_SIZE = 64;
inline constexpr size_t IF_KERNEL_NAME_SIZE = 33; // of a name in configuration, converted
inline constexpr size_t IF_DESCRIPTION_SIZE = 33;
inline constexpr uint32_t IF_MTU_DEFAULT = 1500; // bytes
inline constexpr uint32_t IF_MTU_CELLULAR = 1428;
inline constexpr uint32_t IF_DHCP_DNS_MAX = 3;
inline constexpr uint64_t IF_MAC_UNREADABLE = UINT64_MAX; // reading the address failed

enum cfgmgr_if_type_t : uint32_t {
    IF_TYPE_PLAIN = 0,
    IF_TYPE_BRIDGE_PORT = 1,
    IF_TYPE_IRB = 2,
    IF_TYPE_INTERNAL = 3,
};

enum cfgmgr_if_flag_t : uint32_t {
    IF_SUBIF = 0x1,      // tagged sub-interface
    IF_LOOPBACK = 0x2,   // backed by a tun device: loopback, natpool, system interfaces
    IF_PRESENT = 0x8,    // the daemon has made the device and it exists in the kernel
    IF_SYSTEM = 0x10,    // carries a system address
    IF_OSPF = 0x20,      // its address is advertised to ospfd
    IF_MGMT = 0x40,      // "eth0" in its name
    IF_DHCP4 = 0x80,     // takes its IPv4 address from DHCP
    IF_IRB = 0x200,      // joins a bridge to a VPN
    IF_CELLULAR = 0x400, // modem
    IF_INTERNAL = 0x800, // internal leg
    IF_VAP = 0x1000,     // wireless access point
    IF_GRE = 0x2000,     // tunnel
    IF_PPP = 0x4000,     // PPP session
    IF_DHCP6 = 0x8000,   // takes its IPv6 address from DHCP
    IF_NAT = 0x10000,    // translates addresses
};
// An interface with none of these is physical. 0x4 has no meaning any more.
inline constexpr uint32_t IF_NOT_PHYSICAL =
    0x4 | IF_LOOPBACK | IF_SUBIF | IF_CELLULAR | IF_INTERNAL | IF_VAP | IF_PPP | IF_GRE | IF_IRB;

enum cfgmgr_tunnel_src_t : uint32_t {
    TUNNEL_SRC_UNSET = 0, // never configured
    TUNNEL_SRC_ADDRESS = 1,
    TUNNEL_SRC_INTERFACE = 2,
    TUNNEL_SRC_NONE = 3, // none any more
};

// Link settings. 1 and 0 for on and off.
struct cfgmgr_if_phy_t {
    uint32_t pause_autoneg;
    uint32_t pause_rx;
    uint32_t pause_tx;
    int32_t speed;   // Mbit/s; PHY_SPEED_UNSET
    uint32_t duplex; // 1 full, 0 half; PHY_DUPLEX_UNSET
    uint32_t autoneg;
};
inline constexpr int32_t PHY_SPEED_UNSET = -1;
inline constexpr uint32_t PHY_DUPLEX_UNSET = 255;
inline constexpr cfgmgr_if_phy_t PHY_DEFAULT = { 1, 1, 1, PHY_SPEED_UNSET, PHY_DUPLEX_UNSET, 1 };

// A static route of an interface; heap, of if_p->routes, ordered by prefix, length and next hop.
struct cfgmgr_if_route_t {
    avl_node_t node;
    ip_prefix_t prefix;
    ip_addr_t next_hop;
};

// Zeroed at creation; freed by cfgmgr_if_delete and at the end of the process only.
struct cfgmgr_if_t {
    avl_node_t node;         // of if_table
    avl_node_t vpn_node;     // of the VPN's if_db
    avl_node_t bridge_node;  // of a bridge's if_db
    avl_node_t gre_node;     // of an underlay's gre_bound
    avl_node_t unbound_node; // of gre_table
    char name[IF_NAME_SIZE]; // kernel name; the key of all five trees
    char cli_name[IF_NAME_SIZE];
    uint32_t type;  // cfgmgr_if_type_t
    uint32_t flags; // cfgmgr_if_flag_t
    // Tag of a sub-interface; 20 + index of a cellular interface; bridge of an IRB interface; number + 1 of an access
    // point in a bridge; else 0.
    uint32_t vlan_id;
    int32_t tun_sock;         // keeps a loopback's device alive
    uint32_t addr_list_count; // entries of the address list
    ip_prefix_t route_prefix; // network of the address list, in a routing table of its own; AF_INET and zero: empty
    ip_prefix_t ipv4_addr;    // configured; family 0 or a zero address: none
    ip_prefix_t ipv6_addr;
    ip_prefix_t ipv6_linklocal; // as the kernel has it; learnt in VPN 0 only
    uint64_t default_mac;       // low 48 bits, first byte highest; 0 unknown, IF_MAC_UNREADABLE
    uint32_t shutdown;          // 1 at creation
    uint32_t mtu;               // bytes
    uint32_t tunnel_interface;  // 1 while the port carries overlay tunnels
    uint32_t native_vlan;       // bridge port: 1 when it serves the untagged VLAN as well
    char description[IF_DESCRIPTION_SIZE];
    cfgmgr_if_phy_t phy;
    cfgmgr_vpn_t *vpn_p;          // null in no VPN
    cfgmgr_bridge_t *bridge_p;    // null in no bridge
    timer_util_t *delay_up_timer; // brings a port up; null for internal interfaces. Owned
    uint32_t ospf_area;
    cfgmgr_if_t *parent_p;   // of a sub-interface
    dll_node_t sibling_node; // of the parent's children
    dll_t children;          // sub-interfaces, in order of creation
    ip_prefix_t dhcp_addr;   // learnt last from the DHCP client
    ip_prefix_t dhcp6_addr;
    uint32_t dhcp_dns_count;
    uint32_t dhcp_dns[IF_DHCP_DNS_MAX]; // host byte order
    uint32_t dhcp6_dns_count;
    ip_addr_t dhcp6_dns[IF_DHCP_DNS_MAX];
    avl_tree_t gre_bound; // cfgmgr_if_t with this interface as their source interface
    uint32_t gre_unbound; // 1 while in gre_table
    ip_addr_t tunnel_dst; // empty: none
    ip_addr_t tunnel_src;
    uint32_t tunnel_src_kind; // cfgmgr_tunnel_src_t
    char tunnel_src_if[IF_KERNEL_NAME_SIZE];
    avl_tree_t routes;      // cfgmgr_if_route_t, owned
    uint64_t oper_up_since; // seconds of uptime when the interface went up; 0 when down
};

enum cfgmgr_if_result_t {
    CFGMGR_IF_OK = 0,
    CFGMGR_IF_FAILED = 1,           // no memory
    CFGMGR_IF_NOT_FOUND = 7,        // no name, or no record
    CFGMGR_IF_NOT_PROVISIONED = 19, // the device has no such interface
};

// ---- lookups

// error, unless null: cfgmgr_if_result_t of the lookup. where as in avl_find.
[[nodiscard]] cfgmgr_if_t *cfgmgr_if_find(cfgmgrd_t *cfgmgrd_p, const char *name, avl_index_t *where, int *error);
// Whether a kernel name may have a record on a device of this personality. port, unless null, gets the port id of a
// hub's port.
[[nodiscard]] bool cfgmgr_if_is_provisioned(const char *name, uint32_t personality, uint32_t *port);
[[nodiscard]] bool cfgmgr_if_is_physical(const cfgmgr_if_t &interface);
// Walks over the daemon's tree; null at the end. The PPP walk is over VPN 0.
[[nodiscard]] cfgmgr_if_t *cfgmgr_if_first_in_vpn(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);
[[nodiscard]] cfgmgr_if_t *cfgmgr_if_next_in_vpn(cfgmgrd_t *cfgmgrd_p, const cfgmgr_if_t *if_p);
[[nodiscard]] cfgmgr_if_t *cfgmgr_if_first_ppp(cfgmgrd_t *cfgmgrd_p);
[[nodiscard]] cfgmgr_if_t *cfgmgr_if_next_ppp(cfgmgrd_t *cfgmgrd_p, const cfgmgr_if_t *if_p);
// Sub-interfaces in order of creation; null at the end.
[[nodiscard]] cfgmgr_if_t *cfgmgr_if_first_child(const cfgmgr_if_t *if_p);
[[nodiscard]] cfgmgr_if_t *cfgmgr_if_next_child(const cfgmgr_if_t *child_p);
// Names, for the trees of interfaces.
int cfgmgr_if_compare(const void *key, const void *record);

// ---- life

// The trees, the records of all ports, of eth0 where the personality has it, and of the device's internal interfaces. 0
// or a cfgmgr_if_result_t.
[[nodiscard]] int cfgmgr_if_init(cfgmgrd_t *cfgmgrd_p);
// Frees what is left of the records. The kernel is not touched.
void cfgmgr_if_deinit(cfgmgrd_t *cfgmgrd_p);

// The record of a name in its VPN or bridge, made or moved there. id is a bridge's for IF_TYPE_BRIDGE_PORT and
// IF_TYPE_INTERNAL, else a VPN's. *out is written on 0. A sub-interface without a record of its port is fatal.
[[nodiscard]] int cfgmgr_if_find_or_create(cfgmgrd_t *cfgmgrd_p, uint32_t id, const char *name, cfgmgr_if_t **out,
                                           cfgmgr_if_type_t type);
// Takes an interface out of everything. A port or modem stays, in VPN 0; any other record is freed.
void cfgmgr_if_delete(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p);
// Only when the record is in that VPN, or for a bridge port in that bridge.
void cfgmgr_if_delete_by_name(cfgmgrd_t *cfgmgrd_p, uint64_t id, const char *name);
// The reduced delete of VPN 0 at the end of the process: ports keep their record, kernel ports are not moved.
void cfgmgr_if_delete_at_exit(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p);

// For the table's own files: frees a record that is in no tree any more, with its routes and its timer.
void cfgmgr_if_free(cfgmgr_if_t *if_p);
[[nodiscard]] timer_util_t *cfgmgr_if_delay_timer_create(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p);

// ---- settings

// Sets or removes the address of its family, in the kernel and in the record. 0 or cfgmgr_if_find's error.
int cfgmgr_if_addr_update(cfgmgrd_t *cfgmgrd_p, const char *name, const ip_prefix_t &prefix, bool is_delete);
void cfgmgr_if_addr_clear(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p);
// A port comes up by its timer, two seconds later. Gives 0.
int cfgmgr_if_enable(cfgmgr_if_t *if_p, bool is_up);
// Sets the default MAC address of an interface that the daemon has just made.
void cfgmgr_update_default_if_mac(cfgmgr_if_t *if_p, uint64_t vpn_id);

// ---- static routes, each with the routing table that is named after the interface. Installed while not shut down. The
// thread may be in any namespace and stays there.

void cfgmgr_if_route_add(cfgmgr_if_t *if_p, const ip_prefix_t &prefix, const ip_addr_t &next_hop);
void cfgmgr_if_route_del(cfgmgr_if_t *if_p, const ip_prefix_t &prefix, const ip_addr_t &next_hop);
void cfgmgr_if_route_del_prefix(cfgmgr_if_t *if_p, const ip_prefix_t &prefix);
void cfgmgr_if_routes_flush(cfgmgr_if_t *if_p);
// For the table's own files: the empty tree; the entries freed without a word to the kernel.
void cfgmgr_if_routes_init(cfgmgr_if_t *if_p);
void cfgmgr_if_routes_free(cfgmgr_if_t *if_p);
// Puts all of the interface's routes into the kernel (after it came up).
void cfgmgr_if_routes_install(cfgmgr_if_t *if_p);
// The same, behind the route of the address list's network.
void cfgmgr_if_routes_restore(cfgmgr_if_t *if_p);

// ---- system and simulated interfaces

// "system", or "quorvix_system" of the management system, in VPN 0; the router id in all but the internal VPN.
void cfgmgr_if_system_vpn_add(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p, const ip_prefix_t &prefix, bool is_system);
// name_format without a conversion: the interface's name.
void cfgmgr_if_system_vpn_del(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p, const ip_prefix_t &prefix,
                              const char *name_format, bool delete_if);
// Over all VPNs, with the address of the context; an added one goes to the chassis block too.
void cfgmgr_if_system_update_all(cfgmgrd_t *cfgmgrd_p, bool is_delete, bool is_system);
// "system_%d" and "loopback_wan_%d" in VPN 0.
void cfgmgr_if_simulated_system_add(cfgmgrd_t *cfgmgrd_p, const ip_prefix_t &prefix, int index);
void cfgmgr_if_simulated_system_del(cfgmgrd_t *cfgmgrd_p, const ip_prefix_t &prefix, int index);
void cfgmgr_if_simulated_wan_add(cfgmgrd_t *cfgmgrd_p, const ip_prefix_t &prefix, int index);
void cfgmgr_if_simulated_wan_del(cfgmgrd_t *cfgmgrd_p, const ip_prefix_t &prefix, int index);

// ---- operator commands

// Takes an interface down and up again: argv[1] VPN, argv[2] name as configured. Always 0. Signature of the agent's
// action callbacks.
int cfgmgr_if_reset(confd_user_info *uinfo, char *path, int argc, char **argv);
// Prints the database.
void cfgmgr_dump_if_table(cfgmgrd_t *cfgmgrd_p, const cfgmgr_printer_t &out);

#endif
