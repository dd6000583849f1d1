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

// During the initial read the flag alone does not tell: VPNs of the configuration have it from the beginning, since they
// are there before the policies are read, the fixed ones get it in the course of it, and all are to have everything. One
// that came too late for its policies is left out there too: its replay would not take back what it was told before.
bool takes_policies(const cfgmgrd_t &cfgmgrd, const cfgmgr_vpn_t &vpn, bool replay)
{
    if (is_initial_read_done(*cfgmgrd.tconfd_ctx_p))
        return replay != (vpn.policy_synced != 0);
    return vpn.policy_synced != 0 || !timer_is_running(cfgmgrd.policy_timer_p);
}

// ---- replays

// What there may be, below "/policy".
constexpr const char *policy_lists[] = {
    "lists/prefix-list", "lists/as-path-list", "lists/community-list", "lists/ext-community-list", "route-policy",
};
// The rows that bring it; those of lists themselves act on deletions only. A replay takes all of them, also where there
// is nothing yet: what is configured between its beginning and its delivery is withheld from VPNs that wait, so it has to
// be in there.
constexpr const char *policy_rows[] = {
    "policy/lists/prefix-list/ip-prefix",
    "policy/lists/as-path-list/as-path",
    "policy/lists/community-list/community",
    "policy/lists/ext-community-list/community",
    "policy/route-policy",
    "policy/route-policy/sequence",
};

// True as well when the agent cannot tell: a replay of nothing does no harm.
bool has_policies()
{
    cdb_session session(CDB_RUNNING);
    int result = session.is_open() ? cdb_cd(session.fd(), "/policy") : session.result();
    int count = 0;
    for (const char *list : policy_lists) {
        if (result == CONFD_OK && count == 0)
            count = cdb_num_instances(session.fd(), "%s", list);
    }
    if (result != CONFD_OK || count < 0)
        tip_log("Failed to count the policies (%d)%s (%d) : %s", result, confd_strerror(confd_errno), confd_errno,
                confd_lasterr());
    return result != CONFD_OK || count != 0;
}

bool brings_policies(const tconfd_sub &row)
{
    return std::any_of(std::begin(policy_rows), std::end(policy_rows),
                       [&row](const char *path) { return strcmp(row.path, path) == 0; });
}

void start_replay(tconfd_ctx *ctx)
{
    std::vector<uint32_t> points;
    for (const tconfd_sub *row = ctx->reg.subs; row->path[0] != '\0'; row++) {
        if (brings_policies(*row))
            points.push_back(row->add_subid);
    }
    int result = tconfd_read_sub_config(ctx, points.data(), static_cast<uint32_t>(points.size()));
    if (result != TCONFD_OK)
        tip_log("Failed to read the policies again: %d", result);
}

const cfgmgr_vpn_t *find_waiting(cfgmgrd_t *cfgmgrd_p)
{
    for (const cfgmgr_vpn_t &vpn : avl_range<cfgmgr_vpn_t>(&cfgmgrd_p->vpn_table)) {
        if (vpn.policy_synced == 0)
            return &vpn;
    }
    return nullptr;
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

void cfgmgr_policy_start(const tconfd_sub *row, cfgmgr_vpn_t *vpn_p)
{
    bool is_read = is_initial_read_done(*row->ctx);
    // A commit can come when all of the initial read has been delivered and its end is still to be told.
    bool is_in_read = !is_read && (row->state & TCONFD_SUB_IN_PROGRESS) != 0;
    if (is_in_read || !has_policies()) {
        vpn_p->policy_synced = 1;
        return;
    }
    if (is_read)
        start_replay(row->ctx);
    timer_enable(vpn_p->cfgmgr_p->policy_timer_p);
}

void cfgmgr_policies_replayed(cfgmgrd_t *cfgmgrd_p)
{
    bool is_waited_for = timer_is_running(cfgmgrd_p->policy_timer_p);
    if (is_waited_for && !is_initial_read_done(*cfgmgrd_p->tconfd_ctx_p))
        return; // the rest of the initial read, which has no policies for who came too late for them
    for (cfgmgr_vpn_t &vpn : avl_range<cfgmgr_vpn_t>(&cfgmgrd_p->vpn_table))
        vpn.policy_synced = 1;
    if (is_waited_for)
        timer_disable(cfgmgrd_p->policy_timer_p);
}

void cfgmgr_policies_not_replayed(cfgmgrd_t *cfgmgrd_p)
{
    if (is_initial_read_done(*cfgmgrd_p->tconfd_ctx_p) && find_waiting(cfgmgrd_p) != nullptr)
        timer_enable(cfgmgrd_p->policy_timer_p);
}

void cfgmgr_policy_timer_cb(timer_util_t *timer, void *arg1, void *, void *, void *)
{
    auto *cfgmgrd_p = static_cast<cfgmgrd_t *>(arg1);
    tconfd_ctx *ctx = cfgmgrd_p->tconfd_ctx_p;
    const cfgmgr_vpn_t *waiting = find_waiting(cfgmgrd_p);
    if (waiting == nullptr) {
        timer_disable(timer);
        return;
    }
    // A read that is under way may bring them. Without an agent the next one fails, and is tried again.
    if (!is_initial_read_done(*ctx) || __atomic_load_n(&ctx->live_threads, __ATOMIC_ACQUIRE) != 0)
        return;
    tip_log("VPN %lu still waits for policies, reading them again", waiting->vpn_id);
    start_replay(ctx);
}
