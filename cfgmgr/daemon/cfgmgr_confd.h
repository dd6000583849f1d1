// The daemon as a client of the management agent: what it registers and what it does around deliveries.
#ifndef CFGMGR_DAEMON_CFGMGR_CONFD_H
#define CFGMGR_DAEMON_CFGMGR_CONFD_H

#include "cfgmgr/daemon/cfgmgr_context.h"
#include "tconfd/tconfd_api.h"

// Fills the registration record and connects. 0 when connected or when a retry is scheduled, which is the normal case
// of an agent that is not up yet; otherwise 1 after a log line.
[[nodiscard]] int cfgmgr_confd_init(cfgmgrd_t *cfgmgrd_p);
void cfgmgr_confd_deinit(cfgmgrd_t *cfgmgrd_p);

// At the end of each successful connection; does its work once per process: tells the system manager that the agent
// may start to serve.
void cfgmgr_confd_post_init(tconfd_ctx *ctx);

// At the end of each delivery, once, after all its rows: the work that handlers have deferred. triggered is not 0 when
// the delivery was a read.
void cfgmgr_sync_cb(tconfd_ctx *ctx, int triggered);

#endif
