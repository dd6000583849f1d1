// Requests and replies on a blocking socket, and the table of connected sockets.
//
// A frame that breaks the protocol (too long, a reply to something else) leaves no way to find the next frame, so the
// socket is shut down in both directions: the call fails, and every later one, a poll of the socket included, sees the
// end of the connection.
#include "agent/client/confd_internal.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <poll.h>
#include <unistd.h>

static constexpr size_t READ_STEP = 1 << 20;   // bytes by which a payload grows as it comes in
static constexpr size_t MAX_SECRET = 1024;     // bytes of the access file
static constexpr size_t MAX_CLIENT_NAME = 128; // bytes the agent takes
static constexpr size_t MAX_QUEUED_PUSHES = 4096;
static constexpr const char *SECRET_VARIABLE = "CONFD_IPC_ACCESS_FILE";

// ---- the table

struct socket_entry_t {
    client_socket_t state;
    std::mutex sending; // a frame goes out whole
};

struct socket_table_t {
    std::mutex mutex;
    std::map<int, socket_entry_t> sockets; // whose entries do not move
    uint64_t last_serial = 0;
};

// Never destroyed, as threads may outlive static objects.
static socket_table_t &table()
{
    static socket_table_t &only = *new socket_table_t;
    return only;
}

static socket_entry_t *find_entry(int sock, wire_kind_t kind, uint64_t serial)
{
    std::lock_guard guard(table().mutex);
    auto found = table().sockets.find(sock);
    bool is_it = found != table().sockets.end() && found->second.state.kind == kind &&
                 (serial == 0 || found->second.state.serial == serial);
    return is_it ? &found->second : nullptr;
}

client_socket_t *confd_io_find(int sock, wire_kind_t kind)
{
    if (socket_entry_t *entry = find_entry(sock, kind, 0))
        return &entry->state;
    (void)confd_fail(CONFD_ERR_PROTOUSAGE, "socket %d is not connected for this call", sock);
    return nullptr;
}

void confd_io_forget(int sock)
{
    std::lock_guard guard(table().mutex);
    table().sockets[sock].state = {};
}

void confd_io_forget_connection(int sock, uint64_t serial)
{
    std::lock_guard guard(table().mutex);
    auto found = table().sockets.find(sock);
    if (found != table().sockets.end() && found->second.state.serial == serial)
        found->second.state = {};
}

void confd_io_adopt(int sock, wire_kind_t kind)
{
    std::lock_guard guard(table().mutex);
    client_socket_t &state = table().sockets[sock].state;
    state = {};
    state.kind = kind;
    state.serial = ++table().last_serial;
}

// ---- bytes

static int fail_os(const char *what)
{
    return confd_fail(CONFD_ERR_OS, "%s: %s", what, strerror(errno));
}

int confd_io_fail_protocol(int sock, const char *what)
{
    (void)shutdown(sock, SHUT_RDWR); // it may be at its end already
    return confd_fail(CONFD_ERR_PROTOUSAGE, "%s", what);
}

// Sockets are blocking as a rule; one that is not is waited for here.
static bool wait_for(int sock, short events)
{
    pollfd descriptor = { sock, events, 0 };
    return poll(&descriptor, 1, -1) >= 0 || errno == EINTR;
}

static bool can_retry(int sock, short events)
{
    if (errno == EINTR)
        return true;
    return (errno == EAGAIN || errno == EWOULDBLOCK) && wait_for(sock, events);
}

static int send_all(int sock, std::string_view bytes)
{
    while (!bytes.empty()) {
        ssize_t n = send(sock, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n >= 0)
            bytes.remove_prefix(static_cast<size_t>(n));
        else if (errno == EPIPE || errno == ECONNRESET)
            return CONFD_EOF;
        else if (!can_retry(sock, POLLOUT))
            return fail_os("cannot send to the agent");
    }
    return CONFD_OK;
}

// What has gone out in part cannot be taken back, so that nothing may follow it.
static int send_frame(int sock, socket_entry_t &entry, std::string_view frame)
{
    std::lock_guard guard(entry.sending);
    int result = send_all(sock, frame);
    if (result == CONFD_ERR)
        (void)shutdown(sock, SHUT_RDWR); // it may be at its end already
    return result;
}

int confd_io_send(int sock, wire_kind_t kind, uint64_t serial, std::string_view frame)
{
    socket_entry_t *entry = find_entry(sock, kind, serial);
    if (entry == nullptr && serial != 0)
        return CONFD_EOF;
    if (entry == nullptr)
        return confd_fail(CONFD_ERR_PROTOUSAGE, "socket %d is not connected for this call", sock);
    return send_frame(sock, *entry, frame);
}

static int receive_all(int sock, char *to, size_t size)
{
    while (size > 0) {
        ssize_t n = recv(sock, to, size, 0);
        if (n == 0 || (n < 0 && errno == ECONNRESET))
            return CONFD_EOF;
        if (n > 0) {
            to += n;
            size -= static_cast<size_t>(n);
        } else if (!can_retry(sock, POLLIN)) {
            return fail_os("cannot receive from the agent");
        }
    }
    return CONFD_OK;
}

static int receive_frame(int sock, push_t *frame)
{
    char bytes[WIRE_HEADER_SIZE];
    if (int result = receive_all(sock, bytes, sizeof bytes); result != CONFD_OK)
        return result;
    frame->header = wire_parse_header(bytes);
    if (frame->header.length > WIRE_MAX_FRAME)
        return confd_io_fail_protocol(sock, "a frame from the agent is too long");

    frame->payload.clear();
    for (size_t have = 0; have < frame->header.length; have = frame->payload.size()) {
        frame->payload.resize(std::min<size_t>(frame->header.length, have + READ_STEP));
        int result = receive_all(sock, frame->payload.data() + have, frame->payload.size() - have);
        if (result != CONFD_OK)
            return result;
    }
    confd_debug(CONFD_PROTO_TRACE, "socket %d: got operation %d, status %d, %u bytes", sock,
                frame->header.op & ~WIRE_REPLY, frame->header.status, frame->header.length);
    return CONFD_OK;
}

// ---- requests

// What the agent sends unasked: pushes, and callbacks where they belong.
static bool is_push(const client_socket_t &state, const wire_header_t &header)
{
    bool has_callbacks = state.kind == WIRE_KIND_CONTROL || state.kind == WIRE_KIND_WORKER;
    return (header.op & WIRE_REPLY) == 0 && (header.id == 0 || has_callbacks);
}

// Keeps a push for its reader. What the agent says to a user's sessions has none in this library.
static int keep_push(int sock, client_socket_t &state, push_t &&push)
{
    if (state.kind == WIRE_KIND_MAAPI)
        return CONFD_OK;
    if (state.pushes.size() >= MAX_QUEUED_PUSHES)
        return confd_io_fail_protocol(sock, "the agent pushes without end instead of answering");
    state.pushes.push_back(std::move(push));
    return CONFD_OK;
}

static int fail_refused(const push_t &reply)
{
    wire_reader_t in(reply.payload);
    std::string text(in.text());
    return confd_fail(reply.header.status, "%s", in.ok ? text.c_str() : "the agent gives no reason");
}

static int await_reply(int sock, client_socket_t &state, wire_op_t op, uint32_t id, std::string *reply)
{
    while (true) {
        push_t frame;
        if (int result = receive_frame(sock, &frame); result != CONFD_OK)
            return result;
        if (is_push(state, frame.header)) {
            if (int result = keep_push(sock, state, std::move(frame)); result != CONFD_OK)
                return result;
            continue;
        }
        if (frame.header.op != (op | WIRE_REPLY) || frame.header.id != id)
            return confd_io_fail_protocol(sock, "the agent answers what was not asked");
        if (frame.header.status != 0)
            return fail_refused(frame);
        if (reply != nullptr)
            *reply = std::move(frame.payload);
        return CONFD_OK;
    }
}

static int request_on(int sock, socket_entry_t &entry, wire_op_t op, const wire_writer_t &request, std::string *reply)
{
    client_socket_t &state = entry.state;
    if (request.bytes.size() > WIRE_MAX_FRAME)
        return confd_fail(CONFD_ERR_TOOBIG, "a request of %zu bytes", request.bytes.size());
    uint32_t id = state.next_id++;
    if (state.next_id == 0)
        state.next_id = 1;
    confd_debug(CONFD_PROTO_TRACE, "socket %d: operation %d, %zu bytes", sock, op, request.bytes.size());
    int sent = send_frame(sock, entry, wire_frame(op, 0, id, request.bytes));
    if (sent == CONFD_ERR)
        return sent;
    // A refusal may lie in the socket although the agent has closed its end.
    int result = await_reply(sock, state, op, id, reply);
    return sent == CONFD_EOF && result == CONFD_OK ? CONFD_EOF : result;
}

int confd_io_request(int sock, wire_kind_t kind, wire_op_t op, const wire_writer_t &request, std::string *reply)
{
    if (socket_entry_t *entry = find_entry(sock, kind, 0))
        return request_on(sock, *entry, op, request, reply);
    return confd_fail(CONFD_ERR_PROTOUSAGE, "socket %d is not connected for this call", sock);
}

int confd_io_next_push(int sock, wire_kind_t kind, push_t *push)
{
    client_socket_t *state = confd_io_find(sock, kind);
    if (state == nullptr)
        return CONFD_ERR;
    if (!state->pushes.empty()) {
        *push = std::move(state->pushes.front());
        state->pushes.pop_front();
        return CONFD_OK;
    }
    int result = receive_frame(sock, push);
    if (result == CONFD_OK && !is_push(*state, push->header))
        return confd_io_fail_protocol(sock, "the agent answers what was not asked");
    return result;
}

// ---- connecting

// The first bytes of a file without blanks around them.
static std::string read_secret(const char *path)
{
    std::string secret(MAX_SECRET, 0);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return {};
    ssize_t n = read(fd, secret.data(), secret.size());
    (void)close(fd); // only read from
    secret.resize(n > 0 ? static_cast<size_t>(n) : 0);
    constexpr const char *BLANKS = " \t\r\n";
    size_t first = secret.find_first_not_of(BLANKS);
    if (first == std::string::npos)
        return {};
    return secret.substr(first, secret.find_last_not_of(BLANKS) - first + 1);
}

static wire_writer_t make_hello(wire_kind_t kind, uint32_t daemon_id)
{
    const char *file = getenv(SECRET_VARIABLE);
    wire_writer_t hello;
    hello.u16(WIRE_VERSION);
    hello.u8(kind);
    hello.text(confd_client_name().substr(0, MAX_CLIENT_NAME));
    hello.u32(static_cast<uint32_t>(getpid()));
    hello.text(file != nullptr ? read_secret(file) : std::string());
    hello.u32(daemon_id);
    return hello;
}

// A connect that a signal interrupts goes on by itself; its outcome is the socket's pending error.
static bool finish_connect(int sock)
{
    pollfd descriptor = { sock, POLLOUT, 0 };
    while (poll(&descriptor, 1, -1) < 0)
        if (errno != EINTR)
            return false;
    socklen_t size = sizeof errno;
    return getsockopt(sock, SOL_SOCKET, SO_ERROR, &errno, &size) == 0 && errno == 0;
}

int confd_io_connect(int sock, wire_kind_t kind, uint32_t hello_daemon_id, const sockaddr *srv, int srv_sz,
                     uint32_t *daemon_id)
{
    confd_io_forget(sock);
    bool is_connected = connect(sock, srv, static_cast<socklen_t>(srv_sz)) == 0 ||
                        ((errno == EINTR || errno == EINPROGRESS) && finish_connect(sock));
    if (!is_connected)
        return fail_os("cannot connect to the agent");

    confd_io_adopt(sock, kind);
    std::string reply;
    int result = confd_io_request(sock, kind, WIRE_HELLO, make_hello(kind, hello_daemon_id), &reply);
    wire_reader_t in(reply);
    uint32_t id = in.u32();
    if (result == CONFD_OK && !in.ok)
        result = confd_fail_malformed(WIRE_HELLO);
    if (result != CONFD_OK)
        confd_io_forget(sock);
    else
        confd_io_find(sock, kind)->hello_id = id;
    if (result == CONFD_OK && daemon_id != nullptr)
        *daemon_id = id;
    return result;
}

// ---- requests whose replies are alike

int confd_ask_nothing(int sock, wire_kind_t kind, wire_op_t op, const wire_writer_t &request)
{
    return confd_io_request(sock, kind, op, request, nullptr);
}

int confd_ask_u32(int sock, wire_kind_t kind, wire_op_t op, const wire_writer_t &request, uint32_t *out)
{
    std::string reply;
    if (int result = confd_io_request(sock, kind, op, request, &reply); result != CONFD_OK)
        return result;
    wire_reader_t in(reply);
    uint32_t number = in.u32();
    if (!in.finished())
        return confd_fail_malformed(op);
    *out = number;
    return CONFD_OK;
}

int confd_ask_value(int sock, wire_kind_t kind, wire_op_t op, const wire_writer_t &request, confd_value_t *out)
{
    std::string reply;
    if (int result = confd_io_request(sock, kind, op, request, &reply); result != CONFD_OK)
        return result;
    wire_reader_t in(reply);
    confd_value_t value = wire_get_value(in);
    if (!in.finished()) {
        wire_free_value(value);
        return confd_fail_malformed(op);
    }
    *out = value;
    return CONFD_OK;
}

int confd_ask_bool(int sock, wire_kind_t kind, wire_op_t op, const wire_writer_t &request)
{
    std::string reply;
    if (int result = confd_io_request(sock, kind, op, request, &reply); result != CONFD_OK)
        return result;
    wire_reader_t in(reply);
    bool is_true = in.u8() != 0;
    return in.finished() ? is_true : confd_fail_malformed(op);
}

int confd_ask_count(int sock, wire_kind_t kind, wire_op_t op, const wire_writer_t &request)
{
    uint32_t count = 0;
    int result = confd_ask_u32(sock, kind, op, request, &count);
    if (result != CONFD_OK)
        return result;
    return count <= INT32_MAX ? static_cast<int>(count) : confd_fail_malformed(op);
}
