// Probes of the board that the process runs on.
//
// A board type is what the boot loader left in /proc; a chassis number is the finer distinction that probing radios and
// modems on the buses gives. Both are small numbers of the hardware family, passed around as they are.
#ifndef COMMON_TIP_BOARD_H
#define COMMON_TIP_BOARD_H

#include <cstdint>

// The first hexadecimal number of a sysfs attribute: 0, -1 when the file cannot be read, -2 when no number stands in it.
[[nodiscard]] int hex_file_read(const char *path, unsigned *out);

// 3 for all but an edge router; otherwise 0, 1, 2, 5 or 6 by the board file, 2 when there is none, 4 for a board that is
// not known.
[[nodiscard]] uint32_t board_type_get(uint32_t personality);

// Chassis number of a board type; board 5 is told apart by the radios and modems that are plugged in (6 to 10).
[[nodiscard]] uint32_t chassis_from_board(uint32_t board);
[[nodiscard]] uint32_t chassis_get(uint32_t personality);

// 1 when a modem sits in a module slot of the chassis: only chassis 4 has such a slot.
[[nodiscard]] int module_slot_probe(uint32_t chassis);

// 1 when an interface of this type may be a tunnel end that management uses.
[[nodiscard]] int vpn_is_mgmt_tun_if(uint32_t personality, uint64_t vpn_id, uint32_t if_type);

// The configuration's name of the first transport port of an edge router; null when it has none or is no edge router.
[[nodiscard]] const char *if_default_wan_name(uint32_t personality);

#endif
