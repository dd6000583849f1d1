// Reads of providers' data by requests that wait for the answers: values, existence, entries.
//
// Each takes the request over: its answer is the call's when it is known at once, else the request is deferred. Nothing
// is held but the request's own record; a connection that goes meanwhile leaves its question to end by itself.
#ifndef AGENT_SERVER_PROVIDER_READ_H
#define AGENT_SERVER_PROVIDER_READ_H

#include "agent/server/callback_trans.h"
#include "agent/server/datastore.h"
#include "agent/server/dispatch.h"
#include "agent/server/path.h"

#include <span>

struct maapi_session_t;

// daemons: who has been told of the transaction that is read; null: the request is a reading of its own. The view is
// where the configuration that the path stands in is looked for.
struct provider_target_t {
    callback_trans_ref daemons;
    view_t view;
    path_t path;
};

[[nodiscard]] answer_t provider_read_value(call_t &call, const provider_target_t &target);
[[nodiscard]] answer_t provider_read_exists(call_t &call, const provider_target_t &target);
[[nodiscard]] answer_t provider_read_count(call_t &call, const provider_target_t &target);
[[nodiscard]] answer_t provider_read_next(call_t &call, const provider_target_t &target,
                                          std::span<const confd_value_t> after, uint32_t most);

// Ends the reading that the connection of the session waits for with CONFD_ERR_ABORTED; false when it waits for none.
bool provider_interrupt(server_t &server, maapi_session_t &session);

#endif
