// A transaction (or a reading of operational data) as daemons see it: who has been told that it began, and through
// which worker each wants to be asked.
//
// A daemon is told of a transaction before its first callback in it, once for its data callbacks (with the init that it
// has registered) and once for its validation points; and told of the end. Shared by whoever may still be asking.
#ifndef AGENT_SERVER_CALLBACK_TRANS_H
#define AGENT_SERVER_CALLBACK_TRANS_H

#include "agent/server/callback.h"
#include "agent/server/notif.h"
#include "agent/server/registry.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct callback_party_t {
    uint64_t control = 0; // serial
    uint64_t worker = 0;  // serial; 0: not chosen yet
    bool is_validation = false;
    std::vector<callback_question_t> waiting; // for the worker to be chosen
};

struct provider_cache_t;

struct callback_trans_t {
    uint32_t th = 0;
    uint8_t db = WIRE_DB_RUNNING; // wire_db_t
    bool is_writable = false;
    session_identity_t who;
    bool is_ended = false; // daemons have been told: nobody is asked any more
    std::vector<callback_party_t> parties;
    std::vector<uint64_t> stopping; // control serials of those that are being told of the end of their validation
    std::shared_ptr<provider_cache_t> objects; // of providers; null until the first is kept
};
using callback_trans_ref = std::shared_ptr<callback_trans_t>;

// Of a transaction that begins: nobody has been told yet.
[[nodiscard]] callback_trans_ref callback_trans_make(uint32_t th, uint8_t db, bool is_writable,
                                                     const session_identity_t &who);

// Asks the daemon that has registered the point (REGISTRATION_DATA or REGISTRATION_VALPOINT) in the transaction. Ends
// with CONFD_ERR_UNAVAILABLE when nobody has: see registry_find. The payload's first item, u32 th, is the caller's.
// is_urgent: as in callback_question_t.
void callback_trans_ask(server_t &server, const callback_trans_ref &trans, registration_kind_t kind,
                        const std::string &point, uint16_t op, std::string payload, std::string what,
                        callback_done_t done, bool is_urgent = false);

// The worker connection that serves the point in the transaction; 0 when none does, or not any more.
[[nodiscard]] uint64_t callback_trans_worker(const server_t &server, const callback_trans_t &trans,
                                             registration_kind_t kind, const std::string &point);

// Tells daemons that the transaction ends (all, or only their validation of it); waits for none of them. What is asked
// in a transaction behind its end fails with CONFD_ERR_UNAVAILABLE.
void callback_trans_finish(server_t &server, const callback_trans_ref &trans);
void callback_trans_stop_validation(server_t &server, const callback_trans_ref &trans);

// u32 id, text user, text context, text source address.
void callback_put_session(wire_writer_t &out, const session_identity_t &who);

#endif
