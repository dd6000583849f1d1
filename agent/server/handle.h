// Owners of the descriptors and libevent objects of agentd. Raw close and event_free calls appear nowhere else.
#ifndef AGENT_SERVER_HANDLE_H
#define AGENT_SERVER_HANDLE_H

#include <event2/event.h>
#include <event2/listener.h>
#include <memory>
#include <unistd.h>
#include <utility>

// A file descriptor; -1 means none.
class owned_fd
{
public:
    owned_fd() = default;
    explicit owned_fd(int fd) : fd_(fd) {}
    owned_fd(owned_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    owned_fd &operator=(owned_fd &&other) noexcept
    {
        close_it();
        fd_ = std::exchange(other.fd_, -1);
        return *this;
    }
    owned_fd(const owned_fd &) = delete;
    owned_fd &operator=(const owned_fd &) = delete;
    ~owned_fd() { close_it(); }

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool is_open() const { return fd_ >= 0; }

private:
    void close_it() const
    {
        if (fd_ >= 0)
            close(fd_);
    }
    int fd_ = -1;
};

struct event_deleter {
    void operator()(event *ev) const { event_free(ev); }
};
using owned_event = std::unique_ptr<event, event_deleter>;

struct event_base_deleter {
    void operator()(event_base *base) const { event_base_free(base); }
};
using owned_event_base = std::unique_ptr<event_base, event_base_deleter>;

struct listener_deleter {
    void operator()(evconnlistener *listener) const { evconnlistener_free(listener); }
};
using owned_listener = std::unique_ptr<evconnlistener, listener_deleter>;

#endif
