#include "common/tip_netns.h"

#include "common/tip_assert.h"
#include "common/tip_handle.h"
#include "common/tip_log.h"
#include "common/tip_root.h"

#include <cerrno>
#include <fcntl.h>
#include <sched.h>

int netns_enter(uint64_t vpn_id)
{
    if (vpn_id == 0)
        return 0;
    unique_fd ns(open(tip_path("%s/%lu", TIP_NETNS_DIR, vpn_id).text, O_RDONLY | O_CLOEXEC));
    if (ns.is_open() && setns(ns.get(), CLONE_NEWNET) == 0)
        return 0;
    tip_log("Failed to setns to vpn %lu", vpn_id);
    tip_assert_text(false, "0");
}

int netns_leave(uint64_t vpn_id)
{
    if (vpn_id == 0)
        return 0;
    unique_fd ns(open(tip_path("%s", TIP_INIT_NETNS).text, O_RDONLY | O_CLOEXEC));
    if (!ns.is_open() && errno == ENOENT)
        exit(0);
    tip_assert_text(ns.is_open(), "0");
    tip_assert_text(setns(ns.get(), CLONE_NEWNET) == 0, "0");
    return 0;
}
