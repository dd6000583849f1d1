// The data callpoints that the daemon answers.
//
// Every device loads all models, and a show of a callpoint that nobody has registered is an error. So beside what it
// knows itself the daemon registers, with callbacks that have nothing to show, the callpoints of the programs that do
// not run on this personality and chassis. What has a program of its own is left to it.
//
// All of this runs again at each new connection to the agent. Main thread.
#ifndef CFGMGR_DAEMON_CFGMGR_CALLPOINTS_H
#define CFGMGR_DAEMON_CFGMGR_CALLPOINTS_H

#include "cfgmgr/daemon/cfgmgr_callpoint_names.h"
#include "tconfd/tconfd_api.h"

#include <cstdint>

enum cfgmgr_callpoints_result_t {
    CFGMGR_CALLPOINTS_OK = 0,
    CFGMGR_CALLPOINTS_NO_MIRROR = 16, // of a hook that writes into the transaction, logged
};

// Registers everything, as the registration record of the datastore client wants it. cfgmgr_callpoints_result_t; it
// succeeds also when a callpoint without a program could not be registered.
[[nodiscard]] int cfgmgr_confd_register_data_cbs(tconfd_ctx *ctx);

// Registers callbacks that have something to say; each provider of the daemon comes this way. A name that was
// registered so is not registered again as an empty one, whether an agent would let the first or the last
// registration win. The agent's result; a failure is the caller's to log.
[[nodiscard]] int cfgmgr_register_data_cb(tconfd_ctx *ctx, const confd_data_cbs &callbacks);

// The callpoints of programs that this device does not have, on every personality; the name tells its first use. The
// first failure is logged and ends it.
void cfgmgr_register_for_krest_callpoints_on_lodest(tconfd_ctx *ctx);

// Whether a program of the device answers the group. A modem on the USB bus is looked for where the chassis may have
// one there.
[[nodiscard]] bool cfgmgr_callpoints_have_provider(callpoint_group_t group, uint32_t chassis_type,
                                                   uint32_t personality);

#endif
