// Owners of libevent objects.
#ifndef COMMON_EVENT_HANDLE_H
#define COMMON_EVENT_HANDLE_H

#include <event2/event.h>
#include <event2/listener.h>
#include <memory>

struct event_freer {
    void operator()(event *ev) const { event_free(ev); }
};
using event_ptr = std::unique_ptr<event, event_freer>;

struct event_base_freer {
    void operator()(event_base *base) const { event_base_free(base); }
};
using event_base_ptr = std::unique_ptr<event_base, event_base_freer>;

struct listener_freer {
    void operator()(evconnlistener *listener) const { evconnlistener_free(listener); }
};
using listener_ptr = std::unique_ptr<evconnlistener, listener_freer>;

#endif
