#include "agent/server/lock.h"

#include "agent/server/server.h"

answer_t lock_take(lock_t &lock, call_t &call, bool may_wait, const char *what)
{
    if (lock.holder == 0 || lock.holder == call.conn.serial) {
        lock.holder = call.conn.serial;
        return {};
    }
    if (may_wait) {
        lock.waiting.push_back(call.ref);
        return deferred();
    }
    const connection_t *holder = server_find(call.server, lock.holder);
    return refused(CONFD_ERR_LOCKED,
                   std::string(what) + " is locked by " + (holder ? connection_title(*holder) : std::string("nobody")));
}

void lock_release(server_t &server, lock_t &lock, uint64_t connection)
{
    std::erase_if(lock.waiting, [&](const request_ref_t &ref) { return ref.connection == connection; });
    if (lock.holder != connection)
        return;
    lock.holder = 0;
    while (lock.holder == 0 && !lock.waiting.empty()) {
        request_ref_t next = lock.waiting.front();
        lock.waiting.pop_front();
        if (!server_find(server, next.connection))
            continue;
        lock.holder = next.connection;
        server_answer(server, next, {}, {});
    }
}

answer_t lock_check_candidate(const server_t &server, uint32_t session)
{
    if (server.candidate_holder == 0 || server.candidate_holder == session)
        return {};
    return refused(CONFD_ERR_LOCKED, "the candidate is locked by " + server.candidate_holder_name);
}
