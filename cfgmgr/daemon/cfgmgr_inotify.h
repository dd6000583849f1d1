// The daemon's one inotify descriptor (inotify(7)).
#ifndef CFGMGR_DAEMON_CFGMGR_INOTIFY_H
#define CFGMGR_DAEMON_CFGMGR_INOTIFY_H

#include "cfgmgr/daemon/cfgmgr_context.h"

enum cfgmgr_inotify_result_t {
    CFGMGR_INOTIFY_OK = 0,
    CFGMGR_INOTIFY_NO_FD = 2,
    CFGMGR_INOTIFY_NO_EVENT = 5,
};

// Opens the descriptor and reads it from the loop. One of cfgmgr_inotify_result_t; the daemon works without watches.
[[nodiscard]] int cfgmgr_init_inotify(cfgmgrd_t *cfgmgrd_p);
// Frees the event; the descriptor is left to the end of the process.
void cfgmgr_deinit_inotify(cfgmgrd_t *cfgmgrd_p);

#endif
