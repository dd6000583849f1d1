// Namespaces of VPNs.

#include "cfgmgr/network/cfgmgr_kernel_vpn.h"

#include "cfgmgr/daemon/cfgmgr_sysmgr.h"
#include "common/tip_log.h"

#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr char NETNS_ADD[] = "ip netns add %lu";
constexpr char NETNS_FILES_ADD[] = "mkdir -p /etc/netns/%lu";
constexpr char NETNS_LOOPBACK_UP[] = "ip netns exec %lu ifconfig lo 127.0.0.1 netmask 255.255.255.0 up";
constexpr char NETNS_FILES_DELETE[] = "rm -rf /etc/netns/%lu";

constexpr size_t COMMAND_SIZE = 256;

struct vpn_command {
    char text[COMMAND_SIZE];
    vpn_command(const char *pattern, uint64_t vpn_id)
    {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // one of the templates above, each with one %lu
        (void)snprintf(text, sizeof text, pattern, vpn_id);
#pragma GCC diagnostic pop
    }
};

// Runs a template with the VPN's number; a failure is logged.
bool run_for_vpn(const char *pattern, uint64_t vpn_id)
{
    vpn_command command(pattern, vpn_id);
    if (cfgmgr_kernel_command(command.text))
        return true;
    tip_log("Command Failed: %s", command.text);
    return false;
}

int create_namespace(uint64_t vpn_id)
{
    (void)cfgmgr_kernel_command(vpn_command(NETNS_ADD, vpn_id).text); // fails for one of an earlier start: no error
    bool made = run_for_vpn(NETNS_FILES_ADD, vpn_id) && run_for_vpn(NETNS_LOOPBACK_UP, vpn_id);
    return made ? CFGMGR_KERNEL_OK : CFGMGR_KERNEL_COMMAND_FAILED;
}

int open_kernel_sock(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p)
{
    cfgmgr_set_ns(cfgmgrd_p, vpn_p->vpn_id);
    vpn_p->kernel_sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (vpn_p->kernel_sock < 0)
        tip_log("Failed to create kerne_sock\n");
    cfgmgr_reset_ns(cfgmgrd_p, vpn_p->vpn_id);
    return vpn_p->kernel_sock < 0 ? CFGMGR_KERNEL_IF_FAILED : CFGMGR_KERNEL_OK;
}

} // namespace

int cfgmgr_vpn_namespace_add(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p)
{
    if (vpn_p->vpn_id != VPN_ID_TRANSPORT) {
        int result = create_namespace(vpn_p->vpn_id);
        if (result != CFGMGR_KERNEL_OK)
            return result;
        app_sysmgr_send_vpn(cfgmgrd_p->sysmgr_handle_p, SYSMGR_MSG_VPN_ADD, vpn_p->vpn_id);
    }
    return open_kernel_sock(cfgmgrd_p, vpn_p);
}

int cfgmgr_vpn_namespace_delete(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p)
{
    app_sysmgr_send_vpn(cfgmgrd_p->sysmgr_handle_p, SYSMGR_MSG_VPN_DEL, vpn_p->vpn_id);
    if (vpn_p->vpn_id == VPN_ID_TRANSPORT)
        return CFGMGR_KERNEL_OK;
    return run_for_vpn(NETNS_FILES_DELETE, vpn_p->vpn_id) ? CFGMGR_KERNEL_OK : CFGMGR_KERNEL_COMMAND_FAILED;
}

void cfgmgr_kernel_sock_close(cfgmgr_vpn_t *vpn_p)
{
    if (vpn_p->kernel_sock >= 0)
        close(vpn_p->kernel_sock);
    vpn_p->kernel_sock = -1;
}
