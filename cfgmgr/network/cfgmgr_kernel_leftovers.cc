// By rtnetlink(7): at a start with many VPNs a program for each tap would take longer than everything else.

#include "cfgmgr/network/cfgmgr_kernel_leftovers.h"

#include "cfgmgr/network/cfgmgr_kernel.h"
#include "common/tip_assert.h"
#include "common/tip_handle.h"
#include "common/tip_log.h"
#include "common/tip_root.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/rtnetlink.h>
#include <memory>
#include <net/if.h>
#include <sched.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <vector>

namespace
{

bool is_number(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) { return isdigit(c) != 0; });
}

bool is_tap(std::string_view name)
{
    constexpr std::string_view parent = KERNEL_PARENT_FP;
    return name.size() > parent.size() && name.starts_with(parent) && name[parent.size()] == '.' &&
           is_number(name.substr(parent.size() + 1));
}

// Names first: the list of interfaces is not to change under the walk.
std::vector<std::string> taps_here()
{
    std::vector<std::string> names;
    std::unique_ptr<struct if_nameindex, void (*)(struct if_nameindex *)> all(if_nameindex(),
                                                                              [](struct if_nameindex *list) {
                                                                                  if (list != nullptr)
                                                                                      if_freenameindex(list);
                                                                              });
    for (const struct if_nameindex *interface = all.get(); interface != nullptr && interface->if_index != 0;
         interface++) {
        if (is_tap(interface->if_name))
            names.emplace_back(interface->if_name);
    }
    return names;
}

struct link_request_t {
    nlmsghdr header;
    ifinfomsg link;
};

// True when the kernel has taken the request and answered that it is done.
bool link_delete(const std::string &name)
{
    unique_fd sock(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    link_request_t request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_DELLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    request.link.ifi_index = static_cast<int>(if_nametoindex(name.c_str()));
    struct {
        nlmsghdr header;
        nlmsgerr error;
        char rest[512]; // the request comes back with an error
    } answer{};
    if (!sock.is_open() || send(sock.get(), &request, sizeof request, 0) != sizeof request)
        return false;
    ssize_t size = recv(sock.get(), &answer, sizeof answer, 0);
    return size >= static_cast<ssize_t>(NLMSG_LENGTH(sizeof(nlmsgerr))) && answer.header.nlmsg_type == NLMSG_ERROR &&
           answer.error.error == 0;
}

void remove_taps_here(const char *vpn)
{
    for (const std::string &name : taps_here()) {
        bool is_gone = link_delete(name);
        tip_log("%s tap %s of an earlier start in vpn %s", is_gone ? "Removed" : "Cannot remove", name.c_str(), vpn);
    }
}

// A file of the folder that is no namespace (any more) is passed over.
void remove_taps_in(const unique_fd &home, const char *vpn)
{
    unique_fd space(open(tip_path("%s/%s", TIP_NETNS_DIR, vpn).text, O_RDONLY | O_CLOEXEC));
    if (!space.is_open() || setns(space.get(), CLONE_NEWNET) != 0)
        return;
    remove_taps_here(vpn);
    bool is_home = setns(home.get(), CLONE_NEWNET) == 0;
    tip_assert(is_home); // nothing could be trusted in a foreign namespace
}

} // namespace

void cfgmgr_kernel_remove_leftover_taps()
{
    unique_fd home(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
    std::unique_ptr<DIR, int (*)(DIR *)> folder(opendir(tip_path("%s", TIP_NETNS_DIR).text), closedir);
    if (!home.is_open() || folder == nullptr)
        return; // the first start: no namespace has ever been made
    remove_taps_here("0");
    while (const dirent *entry = readdir(folder.get())) {
        if (is_number(entry->d_name))
            remove_taps_in(home, entry->d_name);
    }
}
