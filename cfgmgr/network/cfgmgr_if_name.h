// Names of interfaces: the operator's ("ge0/1.100", "irb5") and the kernel's ("ge0_1.100", "irb.5"), and the ports
// behind them. The port table is the chassis block; without one names are copied unchanged.
#ifndef CFGMGR_NETWORK_CFGMGR_IF_NAME_H
#define CFGMGR_NETWORK_CFGMGR_IF_NAME_H

#include "chmgr/chmgr_layout.h"

#include <cstddef>
#include <cstdint>

// Each gives out, or null for a name that cannot be converted; out then holds the name as it came. port, unless null,
// gets the port or null.
char *cfgmgr_if_cli_to_kernel_name(const char *cli_name, char *out, size_t size, chmgr_port_t **port);
char *cfgmgr_if_kernel_to_cli_name(const char *name, char *out, size_t size, chmgr_port_t **port);
// Kernel name of a bridge's member: the port, tagged with vlan when that is 1 to 4095. A name that already has a tag, or
// is neither port nor access point, is refused: null.
char *cfgmgr_if_bridge_port_name(const char *cli_name, char *out, size_t size, uint16_t vlan, chmgr_port_t **port);
// Twin of a port or of its sub-interface in the forwarding plane: "ge0_1.5" gives "sim0_1.5"; others null.
char *cfgmgr_if_sim_name(const char *name, char *out, size_t size);
// Up to the first dot.
char *cfgmgr_if_base_name(const char *name, char *out, size_t size);
[[nodiscard]] bool cfgmgr_if_is_tagged(const char *name);
// Of "irb5" or "irb.5"; -1 for others.
[[nodiscard]] int cfgmgr_if_irb_number(const char *cli_name);
[[nodiscard]] int cfgmgr_if_irb_bridge(const char *name);
// Tag of "ge0/1.5", 0 without one, -1 for a name that is no port's.
int cfgmgr_if_sub_tag(const char *cli_name, uint32_t *out);
// Whether the chassis could have that interface, by its tables and not by what is plugged in.
[[nodiscard]] bool cfgmgr_if_is_in_port_table(const char *cli_name);

// All ports of all slots; null at the end.
[[nodiscard]] chmgr_port_t *cfgmgr_if_first_port();
[[nodiscard]] chmgr_port_t *cfgmgr_if_next_port(const chmgr_port_t *port);
// id as chmgr_port_id_t packs it: slot in the second byte, port in the upper two.
[[nodiscard]] chmgr_port_t *cfgmgr_chassis_port_by_id(uint32_t id);
// The port behind an index of a hardware interface; null where there is none. Indexes out of range are fatal.
[[nodiscard]] chmgr_port_t *cfgmgr_chassis_port_by_hw(uint16_t hw_interface_id, uint16_t hw_port_index);
// Six bytes, zero when the port has none.
void cfgmgr_chassis_port_mac(const chmgr_port_t *port, uint8_t *out);
// MAC address from the chassis pool for the interface of a bridge or for a modem; 0: the chassis has none to give.
[[nodiscard]] uint64_t cfgmgr_chassis_irb_mac(uint32_t bridge_id);
[[nodiscard]] uint64_t cfgmgr_chassis_cellular_mac(uint32_t index);

#endif
