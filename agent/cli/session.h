// The CLI's connections to the agent: one of a user session with at most one writable transaction, and for a moment
// such for streams of notifications or the agent's state.
//
// Requests block until the agent has answered; what the agent pushes meanwhile goes to the sinks. Every operation gives
// false with an error that says what the agent said; a lost connection is noted in the error and in the session, and
// all later operations fail at once.
#ifndef AGENT_CLI_SESSION_H
#define AGENT_CLI_SESSION_H

#include "agent/cli/item.h"
#include "agent/wire/wire.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

// A descriptor; -1 means none.
class session_fd
{
public:
    session_fd() = default;
    session_fd(const session_fd &) = delete;
    session_fd &operator=(const session_fd &) = delete;
    ~session_fd() { reset(); }
    [[nodiscard]] int get() const { return fd_; }
    void reset(int fd = -1);

private:
    int fd_ = -1;
};

struct session_t {
    session_fd fd;
    uint32_t last_id = 0; // of requests
    uint32_t trans = 0;   // the writable transaction; 0: none
    std::string incoming; // bytes read and not yet taken

    // What the agent pushes: a message for the operator, and who is being served in a commit. Null: dropped.
    void (*on_message)(void *sink, std::string_view text) = nullptr;
    void (*on_progress)(void *sink, std::string_view text) = nullptr;
    void (*on_output)(void *sink, std::string_view text) = nullptr;   // what a running action prints
    void (*on_event)(void *sink, std::string_view payload) = nullptr; // of WIRE_STREAM_EVENT
    void (*on_wait)(void *sink) = nullptr;                            // each second that a reply is waited for in vain
    // Asked while a reply is waited for: true once for each time the operator wants it to come early. The agent is
    // told, and the wait goes on.
    bool (*is_interrupted)(void *sink) = nullptr;
    void *sink = nullptr;
};

struct session_peer_t {
    std::string address = "127.0.0.1"; // numeric
    uint16_t port = WIRE_PORT;
    std::string user;
    std::string secret; // of the agent's access file; usually empty
};

// One row of what a transaction would change.
struct change_t {
    uint8_t op = 0; // wire_iter_op_t
    std::string path;
    std::string old_value;
    std::string new_value;
};

enum class show_source_t {
    RUNNING,
    TRANSACTION,
    OPERATIONAL
};

[[nodiscard]] bool session_open(session_t &session, const session_peer_t &peer, cli_error_t &error);
// A connection of another kind, without a user session.
[[nodiscard]] bool session_connect(session_t &session, const session_peer_t &peer, wire_kind_t kind,
                                   cli_error_t &error);
void session_close(session_t &session);
// Handles what has arrived without a request: call when fd is readable.
[[nodiscard]] bool session_take_pushes(session_t &session, cli_error_t &error);
// Waits for pushes, a second at most, and handles them.
[[nodiscard]] bool session_wait_pushes(session_t &session, cli_error_t &error);

// Opens the writable transaction. With one open already, its changes are given up.
[[nodiscard]] bool session_begin(session_t &session, cli_error_t &error);
void session_end(session_t &session);

[[nodiscard]] bool session_set(session_t &session, const std::string &path, const std::string &value,
                               cli_error_t &error);
// What is there already counts as created.
[[nodiscard]] bool session_create(session_t &session, const std::string &path, cli_error_t &error);
[[nodiscard]] bool session_delete(session_t &session, const std::string &path, cli_error_t &error);
// Merges an XML document into the transaction.
[[nodiscard]] bool session_load(session_t &session, const std::string &document, cli_error_t &error);
[[nodiscard]] bool session_validate(session_t &session, cli_error_t &error);
// The transaction is open and empty afterwards, or open and unchanged when the commit failed.
[[nodiscard]] bool session_apply(session_t &session, cli_error_t &error);
[[nodiscard]] bool session_compare(session_t &session, std::vector<change_t> &changes, cli_error_t &error);
// Puts an entry of a user-ordered list, or a value of such a leaf-list, elsewhere among its siblings. other: the path
// of the one before or behind which it goes; empty for the first and last place.
[[nodiscard]] bool session_move(session_t &session, const path_t &entry, wire_move_t where, const path_t &other,
                                cli_error_t &error);
// The value at path of the running configuration as text; empty when there is none.
[[nodiscard]] bool session_get_text(session_t &session, const std::string &path, std::string &text, cli_error_t &error);
// Keys of the first entries of a list, as text, one row of keys an entry; at most `most` of them. Those of operational
// lists come from the programs that know them.
[[nodiscard]] bool session_instances(session_t &session, const path_t &list, uint32_t most,
                                     std::vector<std::vector<std::string>> &entries, cli_error_t &error);

// A walk through data: items come page by page, so that any amount takes little memory. It ends with the object.
class session_walk_t
{
public:
    explicit session_walk_t(session_t &session) : session_(session) {}
    session_walk_t(const session_walk_t &) = delete;
    session_walk_t &operator=(const session_walk_t &) = delete;
    ~session_walk_t();
    // Of the node at path and what is below ("": all). The items' nodes are not set.
    [[nodiscard]] bool start(show_source_t source, const std::string &path, cli_error_t &error);
    // The next items; none when the walk is at its end.
    [[nodiscard]] bool next(std::vector<item_t> &items, cli_error_t &error);

private:
    session_t &session_;
    uint32_t trans_ = 0; // of the walk's own; 0: none
    uint32_t walk_ = 0;
    bool is_open_ = false;
};

// Runs an action or rpc; input and output are JSON objects, empty for none.
[[nodiscard]] bool session_action(session_t &session, const std::string &path, const std::string &input,
                                  std::string &output, cli_error_t &error);
// Asks the leaf's program for words that begin with token. character: that of the key, Tab or '?'.
[[nodiscard]] bool session_complete(session_t &session, const std::string &leaf, const std::string &token,
                                    char character, std::vector<choice_t> &choices, cli_error_t &error);

// On a connection of kind WIRE_KIND_NOTIF: events come from here on. since: seconds since 1970 from which past ones are
// told first, 0 for none; is_past_only: none after now.
[[nodiscard]] bool session_stream(session_t &session, const std::string &stream, int64_t since, bool is_past_only,
                                  cli_error_t &error);
// On a connection of kind WIRE_KIND_ADMIN: the agent's state, a JSON object.
[[nodiscard]] bool session_status(session_t &session, std::string &document, cli_error_t &error);

#endif
