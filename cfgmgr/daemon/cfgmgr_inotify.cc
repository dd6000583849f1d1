// The daemon's inotify descriptor: events are walked by record.

#include "cfgmgr/daemon/cfgmgr_inotify.h"

#include "common/tip_log.h"

#include <cerrno>
#include <cstring>
#include <sys/inotify.h>
#include <unistd.h>

namespace
{

constexpr size_t READ_SIZE = 16384;

void cfgmgr_inotify_cb(evutil_socket_t fd, short, void *arg)
{
    static int count;
    count++;
    bool is_traced = cfgmgr_pppoe_level > CFGMGR_DETAILED;
    if (is_traced)
        tip_log("%p Received inotify event: %d", arg, count);
    char bytes[READ_SIZE];
    ssize_t len = read(fd, bytes, sizeof bytes);
    if (len < 0) {
        tip_log("ERROR: len: %d, err: %d", static_cast<int>(len), errno);
        return;
    }
    inotify_event event;
    for (size_t at = 0; at + sizeof event <= static_cast<size_t>(len); at += sizeof event + event.len) {
        memcpy(&event, bytes + at, sizeof event);
        if (is_traced)
            tip_log("Notify for WD: %d", event.wd);
    }
}

} // namespace

int cfgmgr_init_inotify(cfgmgrd_t *cfgmgrd_p)
{
    int fd = inotify_init1(IN_CLOEXEC);
    if (fd < 0) {
        tip_log("Failed to init inotify fd: %d, errno: %d", fd, errno);
        return CFGMGR_INOTIFY_NO_FD;
    }
    cfgmgrd_p->inotify_fd = fd;
    cfgmgrd_p->inotify_event = event_new(cfgmgrd_p->event_base, fd, EV_READ | EV_PERSIST, cfgmgr_inotify_cb, cfgmgrd_p);
    if (cfgmgrd_p->inotify_event == nullptr || event_add(cfgmgrd_p->inotify_event, nullptr) != 0) {
        tip_log("Failed to init inotify fd: %d, errno: %d", fd, errno);
        return CFGMGR_INOTIFY_NO_EVENT;
    }
    return CFGMGR_INOTIFY_OK;
}

void cfgmgr_deinit_inotify(cfgmgrd_t *cfgmgrd_p)
{
    if (cfgmgrd_p->inotify_event != nullptr)
        event_free(cfgmgrd_p->inotify_event);
    cfgmgrd_p->inotify_event = nullptr;
    cfgmgrd_p->inotify_fd = -1;
}
