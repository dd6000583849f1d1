// The archive of the configuration: a copy at once when it is enabled or changed, and one in each interval. A script
// makes the copies and knows how to reach other devices; it may take long, so each run has a thread of its own.
#ifndef CFGMGR_NETWORK_CFGMGR_CONFIG_BACKUP_H
#define CFGMGR_NETWORK_CFGMGR_CONFIG_BACKUP_H

#include "cfgmgr/daemon/cfgmgr_context.h"

// The archive's settings as they are without a configuration. Keeps the time of the last copy.
void cfgmgr_config_backup_reset(backup_state_t *backup);

// Enables or disables by the settings in the context. Each enabling makes a copy at once, and starts the interval anew.
void cfgmgr_config_backup(bool enable, cfgmgrd_t *cfgmgrd_p);

// Starts a copy: the callback of the context's timer, arg1 being the context.
void cfgmgr_config_backup_cb(timer_util_t *timer, void *arg1, void *arg2, void *arg3, void *arg4);

// Makes one copy. arg is the context, of which it writes archive_last_time alone. Any thread; null.
void *cfgmgr_config_backup_thread(void *arg);

#endif
