// Which daemons a message of policies goes to, in which VPNs, and how a VPN that comes later gets the policies that are
// there.
//
// Such a VPN stays out of what is sent until a replay has given it everything: its daemons would otherwise see changes of
// objects that they do not have. A replay is a triggered read of the policies, so it gives them as they are then. It runs
// on a thread, which waits for the end of the delivery, and the delivery is served here, by the main thread.

#include "cfgmgr/daemon/cfgmgr_cdb.h"
#include "cfgmgr/network/cfgmgr_config_vpn.h"
#include "cfgmgr/routing/cfgmgr_config_policy.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "proto/policy.pb-c.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <vector>

namespace
{

// ---- daemons of a message

struct policy_target_t {
    const ProtobufCMessageDescriptor *message;
    uint32_t peer_id;
    uint32_t type;
};
// In the order of sending.
constexpr policy_target_t targets[] = {
    { &m_bgp_as_path_list__descriptor, DAEMON_ID_BGPD, BGP_AS_PATH_LIST },
    { &m_bgp_community_list__descriptor, DAEMON_ID_BGPD, BGP_COMMUNITY_LIST },
    { &m_bgp_ext_community_list__descriptor, DAEMON_ID_BGPD, BGP_EXT_COMMUNITY_LIST },
    { &m_prefix_list__descriptor, DAEMON_ID_BGPD, BGP_PREFIX_LIST },
    { &m_prefix_list__descriptor, DAEMON_ID_OSPFD, OSPF_PREFIX_LIST },
    { &m_prefix_list__descriptor, DAEMON_ID_ZEBRA, ZEBRA_PREFIX_LIST },
    { &m_route_map__descriptor, DAEMON_ID_BGPD, BGP_ROUTE_MAP },
    { &m_route_map__descriptor, DAEMON_ID_OSPFD, OSPF_ROUTE_MAP },
    { &m_route_map__descriptor, DAEMON_ID_ZEBRA, ZEBRA_ROUTE_MAP },
};

// ---- VPNs of a message

bool is_initial_read_done(const tconfd_ctx &ctx)
{
    return __atomic_load_n(&ctx.initial_read_done, __ATOMIC_ACQUIRE) == 1;
}

// During the initial read the flags do not tell: VPNs of the configuration have theirs from the beginning, since they are
// there before the policies are read, the fixed ones get it in the course of it, and all are to have everything.
bool takes_policies(const cfgmgrd_t &cfgmgrd, const cfgmgr_vpn_t &vpn, bool replay)
{
    return !is_initial_read_done(*cfgmgrd.tconfd_ctx_p) || replay != (vpn.policy_synced != 0);
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

int32_t cfgmgr_policy_send(const tconfd_sub *row, const ProtobufCMessage &message)
{
    bool replay = (row->state & TCONFD_SUB_IN_PROGRESS) != 0;
    bool is_known = false;
    for (const policy_target_t &target : targets) {
        if (target.message != message.descriptor)
            continue;
        (void)cfgmgr_quagga_pb_send_all(cfgmgr_config_daemon(row), &message, target.peer_id, target.type, replay); // 0
        is_known = true;
    }
    tip_assert(is_known);
    return 0;
}
