// The agent's phases: 0 schema loaded, clients connect and register; 1 the init transaction is open and subscriptions
// can be made; 2 the init transaction is committed and user sessions may write.
#ifndef AGENT_SERVER_PHASE_H
#define AGENT_SERVER_PHASE_H

#include "agent/server/dispatch.h"

struct server_t;

// From 0 to 1, at start once the store is open: answers those who wait for it. Goes on to phase 2 where the
// configuration says so.
void phase_enter_1(server_t &server);

// Commits the init transaction, in the queue's order; the request is answered with the phase when that is done.
void phase_request_2(server_t &server, const request_ref_t &ref);

// The init transaction is committed.
void phase_enter_2(server_t &server);

#endif
