#include "platform/routing/stream.h"

#include "common/tip_log.h"

#include <cerrno>
#include <cstring>
#include <event2/buffer.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace
{

constexpr size_t MAX_STREAMS = 8; // of a server: cfgmgr makes one
constexpr int BACKLOG = 8;
constexpr size_t MAX_UNREAD = 128 << 10; // waiting in one stream: more than the largest frame

// One frame off the buffer. False when there is no whole one.
bool frame_take(stream_t *stream, frame_t *frame)
{
    evbuffer *input = bufferevent_get_input(stream->bev.get());
    unsigned char header[FRAME_HEADER_SIZE];
    if (evbuffer_copyout(input, header, sizeof header) != static_cast<ssize_t>(sizeof header))
        return false;
    const char *bytes = reinterpret_cast<const char *>(evbuffer_pullup(input, -1));
    size_t size = 0;
    frame_result_t result = frame_read({ bytes, evbuffer_get_length(input) }, frame, &size);
    if (result == FRAME_BAD) {
        tip_log("A frame's length leaves no room for its header, the connection is closed");
        stream->is_failed = true;
    }
    if (result != FRAME_WHOLE)
        return false;
    (void)evbuffer_drain(input, size);
    return true;
}

void end(stream_t *stream)
{
    stream->is_failed = true;
    (void)bufferevent_disable(stream->bev.get(), EV_READ | EV_WRITE);
    stream->on_end(stream->arg, stream); // may destroy it
}

// False when the stream is gone.
bool frames_deliver(stream_t *stream)
{
    frame_t frame;
    while (!stream->is_held && !stream->is_failed && frame_take(stream, &frame))
        stream->on_frame(stream->arg, stream, frame);
    if (!stream->is_failed)
        return true;
    end(stream);
    return false;
}

void read_cb(bufferevent *, void *arg)
{
    (void)frames_deliver(static_cast<stream_t *>(arg));
}

void event_cb(bufferevent *, short, void *arg)
{
    end(static_cast<stream_t *>(arg));
}

bool address_of(const std::string &path, sockaddr_un *address)
{
    *address = {};
    address->sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address->sun_path)
        return false;
    memcpy(address->sun_path, path.data(), path.size());
    return true;
}

// ---- server

void server_stream_end(void *arg, stream_t *stream)
{
    auto *server = static_cast<stream_server_t *>(arg);
    server->streams.remove_if([stream](const stream_t &one) { return &one == stream; });
}

void server_frame(void *arg, stream_t *stream, const frame_t &frame)
{
    auto *server = static_cast<stream_server_t *>(arg);
    server->on_frame(server->arg, stream, frame);
}

void accept_cb(evconnlistener *listener, evutil_socket_t number, sockaddr *, int, void *arg)
{
    auto *server = static_cast<stream_server_t *>(arg);
    unique_fd fd(number);
    if (server->streams.size() >= MAX_STREAMS) {
        tip_log("More than %zu connections to %s, the new one is closed", MAX_STREAMS, server->path.c_str());
        return;
    }
    stream_t &stream = server->streams.emplace_back();
    if (!stream_open(&stream, evconnlistener_get_base(listener), std::move(fd), server_frame, server_stream_end,
                     server))
        server->streams.pop_back();
}

} // namespace

bool stream_open(stream_t *stream, event_base *base, unique_fd fd, stream_t::frame_cb_t on_frame,
                 stream_t::end_cb_t on_end, void *arg)
{
    (void)evutil_make_socket_nonblocking(fd.get());
    stream->bev.reset(bufferevent_socket_new(base, fd.get(), BEV_OPT_CLOSE_ON_FREE));
    if (!stream->bev)
        return false;
    (void)fd.release();
    stream->on_frame = on_frame;
    stream->on_end = on_end;
    stream->arg = arg;
    bufferevent_setwatermark(stream->bev.get(), EV_READ, 0, MAX_UNREAD);
    bufferevent_setcb(stream->bev.get(), read_cb, nullptr, event_cb, stream);
    return bufferevent_enable(stream->bev.get(), EV_READ | EV_WRITE) == 0;
}

void stream_send(stream_t *stream, const std::string &bytes)
{
    if (!stream->is_failed && bufferevent_write(stream->bev.get(), bytes.data(), bytes.size()) != 0)
        stream_fail(stream);
}

void stream_hold(stream_t *stream)
{
    stream->is_held = true;
}

void stream_release(stream_t *stream)
{
    stream->is_held = false;
    bufferevent_trigger(stream->bev.get(), EV_READ, BEV_TRIG_DEFER_CALLBACKS); // frames that are here already
}

void stream_fail(stream_t *stream)
{
    if (stream->is_failed)
        return;
    stream->is_failed = true;
    bufferevent_trigger(stream->bev.get(), EV_READ, BEV_TRIG_IGNORE_WATERMARKS | BEV_TRIG_DEFER_CALLBACKS);
}

unique_fd stream_connect(const std::string &path)
{
    sockaddr_un address;
    if (!address_of(path, &address)) {
        tip_log("The path of a socket is too long: %s", path.c_str());
        return unique_fd();
    }
    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd.is_open() && connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        fd.reset(); // nobody listens yet, which is no news
    return fd;
}

bool stream_server_start(stream_server_t *server, event_base *base, const std::string &path,
                         stream_t::frame_cb_t on_frame, void *arg)
{
    sockaddr_un address;
    server->path = path;
    server->on_frame = on_frame;
    server->arg = arg;
    if (!address_of(path, &address)) {
        tip_log("The path of a socket is too long: %s", path.c_str());
        return false;
    }
    (void)unlink(path.c_str()); // of a process that did not end in order
    unsigned options = LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC;
    server->listener.reset(evconnlistener_new_bind(base, accept_cb, server, options, BACKLOG,
                                                   reinterpret_cast<sockaddr *>(&address), sizeof address));
    if (!server->listener)
        tip_log("Cannot listen on %s: %s", path.c_str(), strerror(errno));
    return server->listener != nullptr;
}

void stream_server_stop(stream_server_t *server)
{
    if (!server->listener)
        return;
    (void)unlink(server->path.c_str());
    server->listener.reset();
    server->streams.clear();
}
