// Connection, frames and user session. The operations on data are in session_data.cc.
#include "agent/cli/session.h"

#include "agent/cli/session_call.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

void session_fd::reset(int fd)
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = fd;
}

namespace
{

bool lose(session_t &session, cli_error_t &error, const std::string &why)
{
    session.fd.reset();
    session.trans = 0;
    error.is_lost = true;
    return cli_fail(error, "the connection to the agent is lost: " + why);
}

bool send_all(session_t &session, std::string_view bytes, cli_error_t &error)
{
    while (!bytes.empty()) {
        ssize_t sent = send(session.fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0)
            return lose(session, error, strerror(errno));
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

// Adds what has arrived to `incoming`, without waiting.
bool receive_some(session_t &session, cli_error_t &error)
{
    char chunk[65536];
    ssize_t got = recv(session.fd.get(), chunk, sizeof chunk, MSG_DONTWAIT);
    if (got < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK))
        return true;
    if (got < 0)
        return lose(session, error, strerror(errno));
    if (got == 0)
        return lose(session, error, "the agent closed it");
    session.incoming.append(chunk, static_cast<size_t>(got));
    return true;
}

struct frame_t {
    wire_header_t header{};
    std::string payload;
};

// Takes one whole frame out of `incoming`, if there is one.
bool take_frame(session_t &session, frame_t &frame, bool &found, cli_error_t &error)
{
    found = false;
    if (session.incoming.size() < WIRE_HEADER_SIZE)
        return true;
    wire_header_t header = wire_parse_header(session.incoming.data());
    if (header.length > WIRE_MAX_FRAME)
        return lose(session, error, "it sent a frame that is too long");
    if (session.incoming.size() - WIRE_HEADER_SIZE < header.length)
        return true;
    frame.header = header;
    frame.payload = session.incoming.substr(WIRE_HEADER_SIZE, header.length);
    session.incoming.erase(0, WIRE_HEADER_SIZE + header.length);
    found = true;
    return true;
}

using text_sink_t = void (*session_t::*)(void *sink, std::string_view text);

struct push_row_t {
    uint16_t op;
    text_sink_t sink;
};

constexpr push_row_t text_pushes[] = {
    { WIRE_MAAPI_MESSAGE, &session_t::on_message },
    { WIRE_MAAPI_PROGRESS, &session_t::on_progress },
    { WIRE_MAAPI_OUTPUT, &session_t::on_output },
};

void handle_push(session_t &session, const frame_t &frame)
{
    if (frame.header.op == WIRE_STREAM_EVENT && session.on_event)
        session.on_event(session.sink, frame.payload);
    for (const push_row_t &row : text_pushes) {
        wire_reader_t in(frame.payload);
        std::string_view text = in.text();
        if (row.op == frame.header.op && in.ok && session.*row.sink)
            (session.*row.sink)(session.sink, text);
    }
}

// An interrupt has no reply: what is waited for ends early and says so.
bool pass_interrupt(session_t &session, cli_error_t &error)
{
    bool is_wanted = session.is_interrupted && session.is_interrupted(session.sink);
    return !is_wanted || send_all(session, wire_frame(WIRE_MAAPI_INTERRUPT, 0, ++session.last_id, ""), error);
}

// Waits for bytes, with a call of on_wait each second. A signal ends the wait.
bool wait_some(session_t &session, cli_error_t &error)
{
    static constexpr int WAIT_MS = 1000;
    pollfd waited = { session.fd.get(), POLLIN, 0 };
    int ready = poll(&waited, 1, WAIT_MS);
    if (ready == 0 && session.on_wait)
        session.on_wait(session.sink);
    return pass_interrupt(session, error) && (ready <= 0 || receive_some(session, error));
}

// True with the payload of the reply to request id, pushes handled on the way.
bool await_reply(session_t &session, uint16_t op, uint32_t id, frame_t &frame, cli_error_t &error)
{
    for (;;) {
        bool found = false;
        if (!take_frame(session, frame, found, error))
            return false;
        if (!found) {
            if (!wait_some(session, error))
                return false;
        } else if (!(frame.header.op & WIRE_REPLY)) {
            handle_push(session, frame);
        } else if (frame.header.op != (op | WIRE_REPLY) || frame.header.id != id) {
            return lose(session, error, "it answered another question");
        } else {
            return true;
        }
    }
}

} // namespace

bool session_call(session_t &session, uint16_t op, const wire_writer_t &request, std::string &reply, cli_error_t &error)
{
    if (session.fd.get() < 0)
        return lose(session, error, "it was closed before");
    uint32_t id = ++session.last_id;
    frame_t frame;
    if (!send_all(session, wire_frame(op, 0, id, request.bytes), error) || !await_reply(session, op, id, frame, error))
        return false;
    if (frame.header.status == 0) {
        reply = std::move(frame.payload);
        return true;
    }
    wire_reader_t in(frame.payload);
    std::string text(in.text());
    (void)cli_fail(error, in.ok && !text.empty() ? text : "error " + std::to_string(frame.header.status));
    error.status = frame.header.status;
    return false;
}

namespace
{

bool handle_pushes(session_t &session, cli_error_t &error)
{
    frame_t frame;
    for (bool found = true; found;) {
        if (!take_frame(session, frame, found, error))
            return false;
        if (found)
            handle_push(session, frame);
    }
    return true;
}

} // namespace

bool session_take_pushes(session_t &session, cli_error_t &error)
{
    return receive_some(session, error) && handle_pushes(session, error);
}

bool session_wait_pushes(session_t &session, cli_error_t &error)
{
    return wait_some(session, error) && handle_pushes(session, error);
}

namespace
{

bool connect_to(session_t &session, const session_peer_t &peer, cli_error_t &error)
{
    error.is_lost = true;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(peer.port);
    if (inet_pton(AF_INET, peer.address.c_str(), &address.sin_addr) != 1)
        return cli_fail(error, "'" + peer.address + "' is no IPv4 address");
    session.fd.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (session.fd.get() < 0 ||
        connect(session.fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        std::string reason = strerror(errno);
        session.fd.reset();
        return cli_fail(error, "cannot reach the agent at " + peer.address + " port " + std::to_string(peer.port) +
                                   ": " + reason);
    }
    int on = 1;
    (void)setsockopt(session.fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on); // only slower without it
    error.is_lost = false;
    return true;
}

bool say_hello(session_t &session, const session_peer_t &peer, wire_kind_t kind, cli_error_t &error)
{
    wire_writer_t hello;
    hello.u16(WIRE_VERSION);
    hello.u8(kind);
    hello.text("cli");
    hello.u32(static_cast<uint32_t>(getpid()));
    hello.text(peer.secret);
    hello.u32(0);
    std::string reply;
    return session_call(session, WIRE_HELLO, hello, reply, error);
}

bool start_user_session(session_t &session, const session_peer_t &peer, cli_error_t &error)
{
    wire_writer_t start;
    start.text(peer.user);
    start.text("cli");
    start.text("127.0.0.1");
    start.u16(0);
    std::string reply;
    return session_call(session, WIRE_MAAPI_START_SESSION, start, reply, error);
}

} // namespace

bool session_connect(session_t &session, const session_peer_t &peer, wire_kind_t kind, cli_error_t &error)
{
    if (!connect_to(session, peer, error))
        return false;
    if (say_hello(session, peer, kind, error))
        return true;
    session.fd.reset();
    error.is_lost = true;
    return false;
}

bool session_open(session_t &session, const session_peer_t &peer, cli_error_t &error)
{
    if (!session_connect(session, peer, WIRE_KIND_MAAPI, error))
        return false;
    if (start_user_session(session, peer, error))
        return true;
    session.fd.reset();
    error.is_lost = true;
    return false;
}

void session_close(session_t &session)
{
    session.fd.reset();
    session.trans = 0;
}
