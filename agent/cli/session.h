// The CLI's connection to the agent: one user session and at most one writable transaction on it.
//
// Requests block until the agent has answered; what the agent pushes meanwhile goes to the sinks. Every operation gives
// false with an error that says what the agent said; a lost connection is noted in the error and in the session, and
// all later operations fail at once.
#ifndef AGENT_CLI_SESSION_H
#define AGENT_CLI_SESSION_H

#include "agent/cli/words.h"
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
    void (*on_wait)(void *sink) = nullptr; // each second that a reply is waited for in vain
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
void session_close(session_t &session);
// Handles what has arrived without a request: call when fd is readable.
[[nodiscard]] bool session_take_pushes(session_t &session, cli_error_t &error);

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
// A JSON document of what is at path ("/": all), ancestors included; empty when there is nothing.
[[nodiscard]] bool session_show(session_t &session, show_source_t source, const std::string &path,
                                std::string &document, cli_error_t &error);
// Keys of the first entries of a list, as text, one row of keys an entry; at most `most` of them.
[[nodiscard]] bool session_instances(session_t &session, const std::string &list, uint32_t most,
                                     std::vector<std::vector<std::string>> &entries, cli_error_t &error);

#endif
