// What the files behind a daemon context share: its registrations, its open transactions and actions, and the callback
// that is being served.
//
// The user may release a context inside one of its callbacks, when the agent has gone: who serves holds the daemon_t
// itself. The mutex guards the tables alone and is never held while a callback runs; registrations do not move once
// they are made.
#ifndef AGENT_CLIENT_CONFD_DAEMON_H
#define AGENT_CLIENT_CONFD_DAEMON_H

#include "agent/client/confd_internal.h"

#include <map>
#include <mutex>

struct served_call_t;

// What the library keeps with a confd_trans_ctx or a confd_user_info: its `internal` member.
struct callback_state_t {
    std::string error;             // of ..._seterr; for one callback
    served_call_t *call = nullptr; // the callback that is running
};

enum trans_party_t {
    PARTY_DATA = 1,
    PARTY_VALIDATION = 2
};

// A transaction of the agent's, from the first init to the last end of its parties.
struct daemon_trans_t {
    confd_trans_ctx ctx = {};
    confd_user_info uinfo = {};
    int parties = 0; // trans_party_t bits that have begun and not ended

    daemon_trans_t() = default;
    daemon_trans_t(const daemon_trans_t &) = delete;
    daemon_trans_t &operator=(const daemon_trans_t &) = delete;
    ~daemon_trans_t() { confd_trans_release(&ctx); }
};

// An invocation of an action, a command or a completion, from its init to its answer.
struct daemon_action_t {
    confd_user_info uinfo = {};
    callback_state_t state;
    const confd_action_cbs *cbs = nullptr;
};

struct data_registration_t {
    confd_data_cbs cbs;
    uint32_t bits; // of the callbacks set, in the order of the record
};

struct daemon_socket_t {
    int fd;
    uint64_t serial; // of the connection
};

struct daemon_t {
    confd_trans_cbs trans = {};
    confd_trans_validate_cbs validate = {};
    std::deque<confd_valpoint_cb> valpoints;
    std::deque<confd_action_cbs> actions;
    std::deque<data_registration_t> data;
    std::deque<std::unique_ptr<confd_notification_ctx>> notifications;

    std::mutex mutex; // guards what follows
    daemon_socket_t control = { -1, 0 };
    std::vector<daemon_socket_t> workers;
    std::map<uint32_t, std::shared_ptr<daemon_trans_t>> transactions; // by handle
    std::map<uint32_t, std::shared_ptr<daemon_action_t>> invocations;

    daemon_t();
    ~daemon_t();
};

// The last registered one of the name; null when there is none.
template <typename Row, size_t N>
const Row *confd_find_row(const std::deque<Row> &rows, char (Row::*name)[N], std::string_view wanted)
{
    for (auto row = rows.rbegin(); row != rows.rend(); ++row)
        if (wanted == (*row).*name)
            return &*row;
    return nullptr;
}

// ---- serving

// What a data or action callback may be answered with.
enum answer_kind_t : unsigned {
    ANSWER_NOTHING = 0,
    ANSWER_EXISTENCE = 1,
    ANSWER_VALUE = 2,
    ANSWER_KEY = 4,
    ANSWER_OBJECT = 8,   // none or one
    ANSWER_OBJECTS = 16, // of a list
    ANSWER_PARAMETERS = 32,
    ANSWER_COMPLETIONS = 64,
};

// One callback being served.
struct served_call_t {
    daemon_t &daemon;
    confd_daemon_ctx *dx; // may be released by the callback
    int fd;
    wire_reader_t in;

    unsigned wants = ANSWER_NOTHING;        // answer_kind_t
    const confd_hkeypath_t *path = nullptr; // the node that is asked for
    bool is_answered = false;
    wire_writer_t answer = {}; // the reply's payload, unless refused
    int refusal = 0;           // error number for the agent
    std::string reason = {};

    void refuse(int code, std::string text)
    {
        refusal = code;
        reason = std::move(text);
    }
};

// The state of a context that may be the user's own; made when there is none.
callback_state_t &confd_callback_state(void **internal);

// Marks a context as being in the callback; what it has said before is forgotten.
class callback_scope
{
public:
    callback_scope(callback_state_t &state, served_call_t &call) : state_(state)
    {
        state.error.clear();
        state.call = &call;
    }
    callback_scope(const callback_scope &) = delete;
    callback_scope &operator=(const callback_scope &) = delete;
    ~callback_scope() { state_.call = nullptr; }

private:
    callback_state_t &state_;
};

// Fills a user's record from "session" in a frame; texts that are too long are cut.
void confd_read_session(wire_reader_t &in, confd_daemon_ctx *dx, confd_user_info *uinfo);
// Puts the id of the worker that an init callback has chosen (-1: none) into the answer, or refuses.
void confd_answer_worker(served_call_t &call, int chosen);
// The running callback's answer, of which there is one.
int confd_give_answer(served_call_t *call, wire_writer_t &&answer);
void confd_set_error(callback_state_t &state, const char *fmt, va_list args) __attribute__((format(printf, 2, 0)));

// Each serves a frame of one operation: false when its payload is not what it should be.
bool confd_serve_trans_init(served_call_t &call, trans_party_t party);
bool confd_serve_trans_end(served_call_t &call, trans_party_t party);
bool confd_serve_validate(served_call_t &call);
bool confd_serve_data(served_call_t &call, wire_op_t op);
bool confd_serve_action_init(served_call_t &call);
bool confd_serve_action_abort(served_call_t &call);
bool confd_serve_action(served_call_t &call);
bool confd_serve_command(served_call_t &call);
bool confd_serve_completion(served_call_t &call);

// Serves what came while a reply was awaited on the control socket: a poll of it would not tell of that.
void confd_serve_kept(confd_daemon_ctx *dx);

std::shared_ptr<daemon_trans_t> confd_find_trans(daemon_t &daemon, uint32_t th);
// Refuses the call when there is no such transaction.
std::shared_ptr<daemon_trans_t> confd_trans_of_call(served_call_t &call, uint32_t th);

daemon_t &confd_daemon_of(const confd_daemon_ctx *dx);
std::shared_ptr<daemon_t> confd_share_daemon(const confd_daemon_ctx *dx);

// ---- what frames give, freed with the object

struct owned_value_t {
    confd_value_t v = { C_NOEXISTS, {} };

    owned_value_t() = default;
    owned_value_t(const owned_value_t &) = delete;
    owned_value_t &operator=(const owned_value_t &) = delete;
    ~owned_value_t() { wire_free_value(v); }
};

struct owned_keypath_t {
    confd_hkeypath_t v = {};

    owned_keypath_t() = default;
    owned_keypath_t(const owned_keypath_t &) = delete;
    owned_keypath_t &operator=(const owned_keypath_t &) = delete;
    ~owned_keypath_t() { wire_free_keypath(v); }
};

struct owned_tag_values_t {
    std::vector<confd_tag_value_t> v;

    owned_tag_values_t() = default;
    owned_tag_values_t(const owned_tag_values_t &) = delete;
    owned_tag_values_t &operator=(const owned_tag_values_t &) = delete;
    ~owned_tag_values_t() { wire_free_tag_values(v); }
};

#endif
