// The handler of a VPN instance.

#include "cfgmgr/network/cfgmgr_config_vpn.h"

#include "cfgmgr/daemon/cfgmgr_cdb.h"
#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "cfgmgr/routing/cfgmgr_config_policy.h"
#include "cfgmgr/routing/cfgmgr_config_vpn_ospf.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "tconfd/tconfd_util.h"
#include "yang/corvane-vpn.h"

#include <algorithm>
#include <span>

namespace
{

constexpr int CONFIG_FAILED = 16;

int write_vrf_id(uint64_t vpn_id, uint16_t vrf_id)
{
    cdb_session session(CDB_OPERATIONAL);
    if (!session.is_open())
        return session.result();
    confd_value_t value{};
    CONFD_SET_UINT16(&value, vrf_id);
    return cdb_set_elem(session.fd(), &value, "/vpn/vpn-instance{%lu}/vrf-id", vpn_id);
}

int cfgmgr_vpn_set_vrf_id(const cfgmgr_vpn_t &vpn)
{
    int result = write_vrf_id(vpn.vpn_id, vpn.vrf_id);
    if (result == CONFD_OK)
        return 0;
    tip_log("Failed to set vrf-id %d for vpn-id %lu (%d)%s (%d) : %s", vpn.vrf_id, vpn.vpn_id, result,
            confd_strerror(confd_errno), confd_errno, confd_lasterr());
    return CONFIG_FAILED;
}

uint32_t allocate_label(tconfd_ctx *ctx, cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    uint32_t label = cfgmgr_label_alloc(cfgmgrd_p, vpn_id);
    if (label == CFGMGR_LABEL_NONE) {
        tip_log("Failed to get label for vpn: %lu", vpn_id);
        tip_assert(label != CFGMGR_LABEL_NONE);
    }
    int result = tconfd_set_vpn_label(ctx, vpn_id, label);
    if (result != 0) {
        tip_log("Failed to set label for vpn: %lu", vpn_id);
        tip_assert(result == 0);
    }
    return label;
}

cfgmgr_vpn_t *make_vpn(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, uint32_t label)
{
    int result = cfgmgr_vpn_find_or_create(cfgmgrd_p, vpn_id, label);
    if (result != 0) {
        tip_log("Failed to create vpn: %lu", vpn_id);
        tip_assert(result == 0);
    }
    cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_find(cfgmgrd_p, vpn_id, nullptr);
    if (vpn_p == nullptr) {
        tip_log("Failed to find vpn: %lu", vpn_id);
        tip_assert(vpn_p != nullptr);
    }
    return vpn_p;
}

// These were made at the start and stay whatever becomes of their configuration.
bool is_fixed_vpn(uint64_t vpn_id)
{
    return vpn_id == VPN_ID_TRANSPORT || vpn_id == VPN_ID_MANAGEMENT;
}

int create_vpn(tconfd_sub *row, cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    uint32_t label = allocate_label(row->ctx, cfgmgrd_p, vpn_id);
    cfgmgr_vpn_t *vpn_p = make_vpn(cfgmgrd_p, vpn_id, label);
    int result = cfgmgr_vpn_set_vrf_id(*vpn_p);
    if (result != 0) {
        if (!is_fixed_vpn(vpn_id))
            cfgmgr_vpn_delete(cfgmgrd_p, vpn_p, true);
        return result;
    }
    cfgmgr_policy_start(row, vpn_p);
    return 0;
}

void delete_vpn(tconfd_ctx *ctx, cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    cfgmgr_config_services_release(ctx, cfgmgrd_p, vpn_id);
    if (vpn_id != VPN_ID_TRANSPORT) // all else leans on this one while the daemon runs
        cfgmgr_vpn_delete_by_id(cfgmgrd_p, vpn_id);
}

// OSPF is a container, so what changes in it comes with the VPN.
bool has_ospf(uint16_t num_tv, const confd_tag_value_t *tv)
{
    return std::ranges::any_of(std::span(tv, num_tv),
                               [](const confd_tag_value_t &changed) { return changed.tag.tag == vpn_ospf; });
}

} // namespace

cfgmgrd_t *cfgmgr_config_daemon(const tconfd_sub *row)
{
    return static_cast<cfgmgrd_t *>(row->ctx->reg.app_ctx);
}

uint64_t cfgmgr_config_vpn_id(const confd_value_t *key_p)
{
    tip_assert((key_p)->type == C_UINT64);
    return CONFD_GET_UINT64(key_p);
}

cfgmgr_vpn_t *cfgmgr_config_vpn_get(const tconfd_sub *row, const confd_value_t *key_p)
{
    return cfgmgr_vpn_get(cfgmgr_config_daemon(row), cfgmgr_config_vpn_id(key_p));
}

int32_t cfgmgr_config_vpn(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                          confd_tag_value_t *tv)
{
    cfgmgr_timer_keepalive();
    cfgmgrd_t *cfgmgrd_p = cfgmgr_config_daemon(row);
    uint64_t vpn_id = cfgmgr_config_vpn_id(&keys[0]);
    if (op == MOP_DELETED) {
        delete_vpn(row->ctx, cfgmgrd_p, vpn_id);
        return 0;
    }
    int result = op == MOP_CREATED ? create_vpn(row, cfgmgrd_p, vpn_id) : 0;
    if (result != 0 || !has_ospf(num_tv, tv))
        return result;
    return cfgmgr_config_vpn_ospf(row, op, num_keys, keys, num_tv, tv);
}
