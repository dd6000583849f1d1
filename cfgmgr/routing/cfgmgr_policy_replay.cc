// Which VPNs a message of policies goes to, and how a VPN that comes later gets the policies that are there.

#include "cfgmgr/network/cfgmgr_vpn.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "tconfd/tconfd_api.h"

namespace
{

// During the initial read everything goes to every VPN: no flag is set before it ends, and nothing is replayed.
bool takes_policies(const cfgmgrd_t &cfgmgrd, const cfgmgr_vpn_t &vpn, bool replay)
{
    bool is_read = __atomic_load_n(&cfgmgrd.tconfd_ctx_p->initial_read_done, __ATOMIC_ACQUIRE) == 1;
    return !is_read || replay != (vpn.policy_synced != 0);
}

} // namespace

int cfgmgr_quagga_pb_send_all(cfgmgrd_t *cfgmgrd_p, const void *message, uint32_t peer_id, uint32_t type, bool replay)
{
    for (cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_first(cfgmgrd_p), *next_p = nullptr; vpn_p != nullptr; vpn_p = next_p) {
        next_p = cfgmgr_vpn_find_next_after(cfgmgrd_p, vpn_p->vpn_id);
        if (takes_policies(*cfgmgrd_p, *vpn_p, replay))
            (void)cfgmgr_quagga_pb_send_message(vpn_p, message, peer_id, type); // logged
    }
    return 0;
}
