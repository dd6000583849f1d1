#include "platform/routing/kernel_watch.h"

#include "common/tip_log.h"

#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace
{

constexpr size_t MAX_DATAGRAM = 64 << 10; // dumps come in less
constexpr int RECEIVE_BYTES = 1 << 20;    // the kernel's queue
constexpr int MAX_READS = 64;             // a turn: the sockets want theirs too

void dump_ask(kernel_watch_t *watch, uint16_t type)
{
    std::string request = netlink_dump_request(type, ++watch->seq);
    watch->is_links = type == RTM_GETLINK;
    watch->is_dumping =
        send(watch->fd.get(), request.data(), request.size(), 0) == static_cast<ssize_t>(request.size());
    if (!watch->is_dumping)
        tip_log("Cannot ask the kernel for its interfaces: %s", strerror(errno));
}

void dump_begin(kernel_watch_t *watch)
{
    watch->is_stale = false;
    interface_table_sweep_begin(&watch->table);
    dump_ask(watch, RTM_GETLINK);
}

void dump_end(kernel_watch_t *watch, interface_events_t *events)
{
    watch->is_dumping = false;
    if (watch->is_stale)
        dump_begin(watch);
    else if (watch->is_links)
        dump_ask(watch, RTM_GETADDR);
    else
        interface_table_sweep_end(&watch->table, events);
}

void take_change(kernel_watch_t *watch, const kernel_change_t &change, interface_events_t *events)
{
    bool is_of_dump = change.seq == watch->seq;
    if (is_of_dump && change.is_interrupted)
        watch->is_stale = true;
    if (is_of_dump && change.kind == KERNEL_ERROR) {
        watch->is_dumping = false;
        tip_log("The kernel refuses to tell its interfaces: %s", strerror(change.error));
    }
    if (is_of_dump && change.kind == KERNEL_DONE)
        dump_end(watch, events);
    interface_table_apply(&watch->table, change, events);
}

void note_gap(kernel_watch_t *watch)
{
    if (watch->is_dumping)
        watch->is_stale = true;
    else
        dump_begin(watch);
}

// One datagram. False when there is none left.
bool receive(kernel_watch_t *watch, interface_events_t *events)
{
    static char buffer[MAX_DATAGRAM];
    sockaddr_nl from{};
    socklen_t from_size = sizeof from;
    ssize_t got =
        recvfrom(watch->fd.get(), buffer, sizeof buffer, MSG_TRUNC, reinterpret_cast<sockaddr *>(&from), &from_size);
    bool has_missed = (got < 0 && errno == ENOBUFS) || got > static_cast<ssize_t>(sizeof buffer);
    if (has_missed) {
        note_gap(watch);
        return true;
    }
    if (got < 0)
        return errno == EINTR;
    if (from.nl_pid != 0) // not the kernel
        return true;
    for (const kernel_change_t &change : netlink_parse({ buffer, static_cast<size_t>(got) }))
        take_change(watch, change, events);
    return true;
}

void readable_cb(evutil_socket_t, short, void *arg)
{
    auto *watch = static_cast<kernel_watch_t *>(arg);
    interface_events_t events;
    for (int i = 0; i < MAX_READS && receive(watch, &events); i++) {
    }
    if (!events.empty())
        watch->changed(watch->arg, events);
}

bool socket_open(kernel_watch_t *watch)
{
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    watch->fd.reset(socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!watch->fd.is_open())
        return false;
    int bytes = RECEIVE_BYTES; // less is no failure: what is dropped is asked for again
    (void)setsockopt(watch->fd.get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    return bind(watch->fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
}

} // namespace

bool kernel_watch_start(kernel_watch_t *watch, event_base *base, kernel_watch_t::changed_t changed, void *arg)
{
    watch->changed = changed;
    watch->arg = arg;
    if (!socket_open(watch)) {
        tip_log("Cannot listen to the kernel: %s", strerror(errno));
        return false;
    }
    watch->event.reset(event_new(base, watch->fd.get(), EV_READ | EV_PERSIST, readable_cb, watch));
    if (!watch->event || event_add(watch->event.get(), nullptr) != 0)
        return false;
    dump_begin(watch);
    return true;
}
