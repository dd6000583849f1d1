// Locks of datastores between sessions: one holder, and requests that wait for it in order.
#ifndef AGENT_SERVER_LOCK_H
#define AGENT_SERVER_LOCK_H

#include "agent/server/dispatch.h"

#include <cstdint>
#include <deque>

struct server_t;

struct lock_t {
    uint64_t holder = 0; // serial of a connection, 0 when free
    std::deque<request_ref_t> waiting;
};

// Takes a lock that is free or the caller's own. Otherwise the request waits, or is refused with a text that names the
// holder; what is the name of the thing locked.
[[nodiscard]] answer_t lock_take(lock_t &lock, call_t &call, bool may_wait, const char *what);

// The connection no longer waits for the lock; when it holds it, the first that still waits gets it and is answered.
void lock_release(server_t &server, lock_t &lock, uint64_t connection);

// CONFD_ERR_LOCKED when another session than this one holds the lock of the candidate.
[[nodiscard]] answer_t lock_check_candidate(const server_t &server, uint32_t session);

#endif
