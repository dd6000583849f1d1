// The message queue to the daemons (common/sysmgr_msg.h): the system manager is its server.
#ifndef PLATFORM_SYSMGR_LINK_H
#define PLATFORM_SYSMGR_LINK_H

#include "platform/sysmgrd.h"

// Listens on "/var/run/.sysmgrd" below the root. False, logged, when that is not possible.
[[nodiscard]] bool sysmgr_link_init(sysmgrd_t *sysmgrd);
void sysmgr_link_deinit(sysmgrd_t *sysmgrd);

#endif
