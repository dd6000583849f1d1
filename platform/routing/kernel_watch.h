// Follows the interfaces and addresses of the process's network namespace: all of them at first, then each change. When
// the kernel has dropped messages (its queue to us has a limit) all are asked for again.
#ifndef PLATFORM_ROUTING_KERNEL_WATCH_H
#define PLATFORM_ROUTING_KERNEL_WATCH_H

#include "common/event_handle.h"
#include "common/tip_handle.h"
#include "platform/routing/interface_table.h"

struct kernel_watch_t {
    using changed_t = void (*)(void *arg, const interface_events_t &events);
    interface_table_t table;
    unique_fd fd;
    event_ptr event;
    uint32_t seq = 0;        // of the last dump
    bool is_dumping = false; // it is in progress; the kernel refuses a second one beside it
    bool is_stale = false;   // something was missed since it began
    bool is_links = false;   // it is the one of links, the addresses follow
    changed_t changed = nullptr;
    void *arg = nullptr;
};

// False, logged. changed is called from the loop with one event or more.
[[nodiscard]] bool kernel_watch_start(kernel_watch_t *watch, event_base *base, kernel_watch_t::changed_t changed,
                                      void *arg);

#endif
