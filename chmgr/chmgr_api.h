// The chassis as a daemon sees it: the shared block that the chassis manager fills, mapped when it is first asked for.
//
// A block that cannot be mapped makes every accessor answer with nothing, and the next call tries again, so that a
// daemon may start before the chassis manager. To be called from one thread.
#ifndef CHMGR_CHMGR_API_H
#define CHMGR_CHMGR_API_H

#include "chmgr/chmgr_layout.h"

inline constexpr char CHMGR_BLOCK_NAME[] = "chassis_info"; // as shm_open(3) takes it

enum chmgr_map_result_t {
    CHMGR_MAP_OK = 0,
    CHMGR_MAP_NO_OBJECT = -1, // shm_open failed
    CHMGR_MAP_NO_SIZE = -2,   // ftruncate failed
    CHMGR_MAP_NO_MEMORY = -3, // mmap failed
};

// Maps the block for reading and writing; flags are those of shm_open(3), with O_CREAT from the chassis manager alone. A
// block that is mapped already stays. On failure errno tells why.
[[nodiscard]] int chmgr_block_map(int flags);
void chmgr_block_unmap();

// The block, or null without one.
[[nodiscard]] chmgr_block_t *chmgr_block();

// Row of the chassis table; 0 without a block.
[[nodiscard]] int chmgr_chassis_type();
// 1 when the device has a management port, 0 when not, -1 without a block.
[[nodiscard]] int chmgr_has_mgmt_port();

// Administrative state of a port, in the block and through the chassis' hardware operations. 0, or -1 without a block.
int chmgr_port_state_set(chmgr_port_t *port, bool is_up);

// The system addresses and the host name as every daemon of the device sees them; nothing without a block.
void chmgr_system_ip_set(const ip_addr_t &address);
void chmgr_quorvix_system_ip_set(const ip_addr_t &address);
void chmgr_host_name_set(const char *name);

#endif
