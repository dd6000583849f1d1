// What a configuration of an older release needs, written into the agent's init transaction.
#ifndef CFGMGR_DAEMON_CFGMGR_CONFD_UPGRADE_H
#define CFGMGR_DAEMON_CFGMGR_CONFD_UPGRADE_H

#include "cfgmgr/daemon/cfgmgr_context.h"

inline constexpr int CFGMGR_MIGRATION_NOT_PENDING = 7;

// All steps in their order. A failing one is logged and the next goes on. The result of the last: 0, or 7 when no
// upgrade was pending.
int cfgmgr_confd_upgrade(cfgmgrd_t *cfgmgrd_p, int maapi, int th);

// The log settings of the image in place of what was changed since. At every start of a configured device. 0, or 16
// after a log line.
int cfgmgr_confd_upgrade_reload_dyncfg_logs(cfgmgrd_t *cfgmgrd_p, int maapi, int th);

#endif
