// A connection that carries frames, and a listener for such connections. All of it runs in the event loop; nothing in it
// waits.
#ifndef PLATFORM_ROUTING_STREAM_H
#define PLATFORM_ROUTING_STREAM_H

#include "common/event_handle.h"
#include "common/tip_handle.h"
#include "platform/routing/frame.h"

#include <event2/bufferevent.h>
#include <list>
#include <memory>
#include <string>

struct bufferevent_freer {
    void operator()(bufferevent *bev) const { bufferevent_free(bev); }
};
using bufferevent_ptr = std::unique_ptr<bufferevent, bufferevent_freer>;

struct stream_t {
    // The frame is taken off the stream. The stream may be held or failed, but not destroyed, in the call.
    using frame_cb_t = void (*)(void *arg, stream_t *stream, const frame_t &frame);
    // Closed by the peer, broken, or failed; the owner destroys the stream.
    using end_cb_t = void (*)(void *arg, stream_t *stream);

    bufferevent_ptr bev;
    frame_cb_t on_frame = nullptr;
    end_cb_t on_end = nullptr;
    void *arg = nullptr;
    bool is_held = false;       // frames wait
    bool is_failed = false;     // nothing is read any more
    event_ptr timer;            // the owner's
    std::string pending;        // the owner's
    bool is_registered = false; // the owner's
};

// Takes the descriptor over. False when there is no memory for it. The stream stays where it is in memory.
[[nodiscard]] bool stream_open(stream_t *stream, event_base *base, unique_fd fd, stream_t::frame_cb_t on_frame,
                               stream_t::end_cb_t on_end, void *arg);
void stream_send(stream_t *stream, const std::string &bytes);
// Frames that come from now on wait for the release.
void stream_hold(stream_t *stream);
void stream_release(stream_t *stream);
// Ends it from this side: on_end comes from the loop, or on return from on_frame.
void stream_fail(stream_t *stream);

// A unix socket's path, with its limit of length. False, logged, when it does not fit; fd is then not open.
[[nodiscard]] unique_fd stream_connect(const std::string &path);

struct stream_server_t {
    std::string path;
    listener_ptr listener;
    std::list<stream_t> streams;
    stream_t::frame_cb_t on_frame = nullptr;
    void *arg = nullptr;
};

// Listens in the place of what the path held before. False, logged.
[[nodiscard]] bool stream_server_start(stream_server_t *server, event_base *base, const std::string &path,
                                       stream_t::frame_cb_t on_frame, void *arg);
// Closes all and removes the socket. Nothing when it was not started.
void stream_server_stop(stream_server_t *server);

#endif
