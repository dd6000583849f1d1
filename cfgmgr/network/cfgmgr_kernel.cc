// Namespace switches, the door for commands, and interface ioctls (netdevice(7)).

#include "cfgmgr/network/cfgmgr_kernel.h"

#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/tip_log.h"
#include "common/tip_netns.h"
#include "common/tip_system.h"
#include "common/tip_text.h"

#include <net/if.h>
#include <sys/ioctl.h>

void cfgmgr_set_ns(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    tip_log("Setting ns to %lu", vpn_id);
    (void)netns_enter(vpn_id); // ends the process when it fails
    cfgmgrd_p->last_ns = vpn_id;
}

void cfgmgr_reset_ns(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    tip_log("resetting ns to default from %lu", vpn_id);
    (void)netns_leave(vpn_id); // ends the process when it fails
    cfgmgrd_p->last_ns = VPN_ID_TRANSPORT;
}

bool cfgmgr_kernel_command(const char *command)
{
    return tip_system_ok(tip_system(command));
}

bool cfgmgr_kernel_if_exists(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, const char *name)
{
    const cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_find(cfgmgrd_p, vpn_id, nullptr);
    if (vpn_p == nullptr)
        return false;
    ifreq request{};
    strlcpy(request.ifr_name, name, sizeof request.ifr_name);
    return ioctl(vpn_p->kernel_sock, SIOCGIFINDEX, &request) == 0;
}
