#include "agent/server/connection.h"

#include "agent/server/server.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

static constexpr size_t READ_CHUNK = 64 << 10;
static constexpr int READS_PER_EVENT = 8;         // then others have their turn
static constexpr int FRAMES_PER_EVENT = 64;       // likewise
static constexpr size_t IN_HIGH_WATER = 1 << 20;  // a connection that cannot be served is not read beyond this
static constexpr size_t OUT_HIGH_WATER = 1 << 20; // nor are further requests served
static constexpr timeval CLOSING_TIME = { 5, 0 };

std::string connection_title(const connection_t &conn)
{
    if (!conn.is_greeted)
        return "connection " + std::to_string(conn.serial);
    return (conn.name.empty() ? std::string("unnamed client") : conn.name) + " (pid " + std::to_string(conn.pid) + ")";
}

// ---- output

// Sends from the front of the queue until the socket takes no more.
static void send_queued(connection_t &conn)
{
    while (!conn.out.empty()) {
        const std::string &front = conn.out.front();
        ssize_t n = send(conn.fd.get(), front.data() + conn.out_offset, front.size() - conn.out_offset, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            if (errno != EAGAIN)
                connection_fail(conn, std::string("cannot send: ") + strerror(errno));
            return;
        }
        conn.out_offset += static_cast<size_t>(n);
        conn.out_bytes -= static_cast<size_t>(n);
        if (conn.out_offset == front.size()) {
            conn.out.pop_front();
            conn.out_offset = 0;
        }
    }
}

void connection_send(connection_t &conn, uint16_t op, uint16_t status, uint32_t id, std::string_view payload)
{
    if (!conn.failure.empty())
        return;
    if (conn.out_bytes > conn.server->config.outbound_limit)
        return connection_fail(conn, "does not read: " + std::to_string(conn.out_bytes) + " bytes are queued to it");
    std::string frame = wire_frame(op, status, id, payload);
    conn.out_bytes += frame.size();
    conn.out.push_back(std::move(frame));
    if (conn.out.size() == 1)
        send_queued(conn);
    if (!conn.out.empty() && event_add(conn.write_event.get(), nullptr) != 0)
        connection_fail(conn, "cannot wait for its socket");
}

void connection_fail(connection_t &conn, std::string reason)
{
    if (!conn.failure.empty())
        return;
    conn.failure = std::move(reason);
    connection_resume(conn);
}

void connection_close_after_output(connection_t &conn)
{
    conn.is_closing = true;
    evtimer_add(conn.deadline_event.get(), &CLOSING_TIME);
    connection_resume(conn);
}

void connection_resume(connection_t &conn)
{
    static constexpr timeval now = { 0, 0 };
    evtimer_add(conn.resume_event.get(), &now);
}

// ---- input

static bool can_serve(const connection_t &conn)
{
    return conn.failure.empty() && !conn.is_waiting && !conn.is_closing && conn.out_bytes < OUT_HIGH_WATER;
}

// Appends what has arrived, a bounded amount.
static void receive(connection_t &conn)
{
    static char chunk[READ_CHUNK];
    for (int i = 0; i < READS_PER_EVENT && !conn.at_eof; i++) {
        ssize_t n = recv(conn.fd.get(), chunk, sizeof chunk, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno == EAGAIN)
            return;
        if (n <= 0)
            conn.at_eof = true;
        else if (!conn.is_closing)
            conn.in.append(chunk, static_cast<size_t>(n));
        if (n < static_cast<ssize_t>(READ_CHUNK))
            return;
    }
}

// True when a whole frame lies at offset of the input. A frame that is too long fails the connection.
static bool has_frame(connection_t &conn, size_t offset, wire_header_t *header)
{
    size_t left = conn.in.size() - offset;
    if (left < WIRE_HEADER_SIZE)
        return false;
    *header = wire_parse_header(conn.in.data() + offset);
    uint32_t most = conn.is_greeted ? WIRE_MAX_FRAME : WIRE_MAX_HELLO;
    if (header->length > most) {
        server_refuse_frame(conn, *header, CONFD_ERR_TOOBIG,
                            "a frame of " + std::to_string(header->length) + " bytes; " + std::to_string(most) +
                                " is the most here");
        return false;
    }
    return left - WIRE_HEADER_SIZE >= header->length;
}

// Serves the urgent frames that stand in the input behind a request that waits, within what the connection may buffer.
static void serve_urgent_frames(connection_t &conn)
{
    size_t offset = 0;
    wire_header_t header{};
    while (conn.is_waiting && !conn.is_closing && conn.failure.empty() && has_frame(conn, offset, &header)) {
        size_t size = WIRE_HEADER_SIZE + header.length;
        if (!server_is_urgent(conn, header.op)) {
            offset += size;
            continue;
        }
        std::string frame = conn.in.substr(offset, size);
        conn.in.erase(offset, size);
        server_serve(conn, header, std::string_view(frame).substr(WIRE_HEADER_SIZE));
    }
}

// Serves buffered frames; true when one that could be served now is left for the next turn.
static bool serve_frames(connection_t &conn)
{
    size_t offset = 0;
    int served = 0;
    wire_header_t header{};
    bool is_more = false;
    while (can_serve(conn) && has_frame(conn, offset, &header)) {
        is_more = served++ == FRAMES_PER_EVENT;
        if (is_more)
            break;
        std::string_view payload(conn.in.data() + offset + WIRE_HEADER_SIZE, header.length);
        server_serve(conn, header, payload);
        offset += WIRE_HEADER_SIZE + header.length;
    }
    conn.in.erase(0, offset);
    serve_urgent_frames(conn);
    if (conn.in.empty() && conn.in.capacity() > IN_HIGH_WATER)
        conn.in.shrink_to_fit();
    return is_more;
}

// Why the connection ends now; null when it goes on.
static const char *reason_to_drop(const connection_t &conn, bool is_more)
{
    if (!conn.failure.empty())
        return conn.failure.c_str();
    return conn.at_eof && !is_more ? "" : nullptr;
}

// Serves what can be served. The connection may be gone afterwards.
static void serve_and_settle(connection_t &conn)
{
    bool is_more = serve_frames(conn);
    if (const char *reason = reason_to_drop(conn, is_more))
        return server_drop(*conn.server, conn.serial, std::string(reason));
    if (is_more)
        connection_resume(conn);
    if (conn.is_closing && conn.out.empty())
        (void)shutdown(conn.fd.get(), SHUT_WR); // the peer may have gone already
    bool is_held = !can_serve(conn) && conn.in.size() >= IN_HIGH_WATER;
    if (is_held || conn.at_eof)
        event_del(conn.read_event.get());
    else
        event_add(conn.read_event.get(), nullptr);
}

// ---- event callbacks

static void on_readable(evutil_socket_t, short, void *arg) noexcept
{
    auto &conn = *static_cast<connection_t *>(arg);
    receive(conn);
    serve_and_settle(conn);
}

static void on_writable(evutil_socket_t, short, void *arg) noexcept
{
    auto &conn = *static_cast<connection_t *>(arg);
    send_queued(conn);
    if (!conn.out.empty() && conn.failure.empty())
        event_add(conn.write_event.get(), nullptr);
    serve_and_settle(conn);
}

static void on_resume(evutil_socket_t, short, void *arg) noexcept
{
    serve_and_settle(*static_cast<connection_t *>(arg));
}

static void on_deadline(evutil_socket_t, short, void *arg) noexcept
{
    auto &conn = *static_cast<connection_t *>(arg);
    server_drop(*conn.server, conn.serial, conn.is_closing ? "" : "sent no hello in time");
}

bool connection_start(connection_t &conn)
{
    event_base *base = conn.server->base.get();
    conn.read_event.reset(event_new(base, conn.fd.get(), EV_READ | EV_PERSIST, on_readable, &conn));
    conn.write_event.reset(event_new(base, conn.fd.get(), EV_WRITE, on_writable, &conn));
    conn.resume_event.reset(evtimer_new(base, on_resume, &conn));
    conn.deadline_event.reset(evtimer_new(base, on_deadline, &conn));
    if (!conn.read_event || !conn.write_event || !conn.resume_event || !conn.deadline_event)
        return false;
    auto ms = static_cast<long>(conn.server->config.hello_timeout_ms);
    timeval hello_time = { ms / 1000, ms % 1000 * 1000 };
    return evtimer_add(conn.deadline_event.get(), &hello_time) == 0 && event_add(conn.read_event.get(), nullptr) == 0;
}
