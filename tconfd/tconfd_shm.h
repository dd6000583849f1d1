// The shared region that another daemon keeps: host name and system address of the device.
#ifndef TCONFD_TCONFD_SHM_H
#define TCONFD_TCONFD_SHM_H

#include "common/ip_util.h"

// Maps "tconfd_shared_region" read-only. A failure is logged, and the readers give what they have.
void tconfd_setup_shm();
void tconfd_unmap_shm();

// The host name from the region, at most 253 bytes, in a static buffer; without the region the buffer as it stands.
const char *tconfd_shm_host_name();
// The last known system address: it outlives the region.
void tconfd_shm_system_ip(ip_addr_t *out);

#endif
