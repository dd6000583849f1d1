// What the operations of MAAPI connections have in common: transactions by their handles, targets of operations.
//
// The operations stand by concern: maapi_session.cc (sessions, locks, messages), maapi_trans.cc (the life of
// transactions), maapi_edit.cc (their edits), maapi_read.cc (reads and documents), maapi_action.cc (actions and what
// the operator's command line needs).
#ifndef AGENT_SERVER_MAAPI_H
#define AGENT_SERVER_MAAPI_H

#include "agent/server/datastore.h"
#include "agent/server/dispatch.h"
#include "agent/server/session.h"

#include <string_view>
#include <vector>

[[nodiscard]] answer_t maapi_no_session();
[[nodiscard]] answer_t maapi_not_yet_open(const server_t &server);

[[nodiscard]] bool maapi_is_init(const call_t &call, uint32_t th);
// The transaction of a handle: the session's, one that the connection is attached to, or the init transaction; also
// while it is being applied, when it cannot be edited but by hooks. Clients that are attached edit in hooks and actions
// only. Null, with the answer, when the operation cannot use it.
[[nodiscard]] trans_t *maapi_find_trans(const call_t &call, uint32_t th, answer_t *answer);

// Is there an open transaction with the handle, whosoever it is?
[[nodiscard]] bool maapi_is_open(server_t &server, uint32_t th);

// Who has been told of a transaction that the connection can use; null when there is none.
[[nodiscard]] callback_trans_ref maapi_daemons(const call_t &call, uint32_t th);

// CONFD_ERR_LOCKED when another session holds the lock of the candidate.
[[nodiscard]] answer_t maapi_check_candidate_lock(const call_t &call);

// What the operations on one path of a transaction begin with.
struct maapi_target_t {
    trans_t *trans = nullptr;
    path_t path;
};
[[nodiscard]] answer_t maapi_find_target(const call_t &call, uint32_t th, std::string_view text, path_form_t form,
                                         maapi_target_t *target);
// For payloads that are a handle and a path.
[[nodiscard]] answer_t maapi_take_target(call_t &call, path_form_t form, maapi_target_t *target);
[[nodiscard]] view_t maapi_view(const maapi_target_t &target);

// Keys read from a request; go with it.
struct maapi_keys_t {
    std::vector<confd_value_t> keys;
    bool is_ok = true;
    explicit maapi_keys_t(wire_reader_t &in)
    {
        uint8_t count = in.u8();
        is_ok = count <= MAXKEYLEN;
        for (uint8_t i = 0; i < count && is_ok && in.ok; i++)
            keys.push_back(wire_get_value(in));
    }
    maapi_keys_t(const maapi_keys_t &) = delete;
    maapi_keys_t &operator=(const maapi_keys_t &) = delete;
    ~maapi_keys_t()
    {
        for (confd_value_t &key : keys)
            wire_free_value(key);
    }
};

#endif
