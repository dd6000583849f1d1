// State and AS number of the overlay, for the routing of each VPN.

#include "cfgmgr/network/cfgmgr_config_ovc.h"

#include "cfgmgr/daemon/cfgmgr_cdb.h"
#include "cfgmgr/daemon/cfgmgr_context.h"
#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "cfgmgr/routing/cfgmgr_config_vpn_bgp.h"
#include "cfgmgr/routing/cfgmgr_quagga_fill.h"
#include "common/tip_log.h"
#include "yang/corvane-ovc.h"

namespace
{

constexpr char LODEST_PEERS[] = "/ovc/lodest-peers";

uint32_t as_of(const confd_value_t &value)
{
    if (cfgmgr_config_is_deleted(value))
        return 0;
    return cfgmgr_quagga_as_key(&value);
}

} // namespace

int32_t cfgmgr_config_ovc_lodest_peers(tconfd_sub *row, int32_t, uint8_t, confd_value_t *, uint16_t,
                                       confd_tag_value_t *)
{
    cdb_session session(CDB_OPERATIONAL);
    confd_value_t value{};
    if (!session.is_open() || cdb_get(session.fd(), &value, LODEST_PEERS) != CONFD_OK) {
        tip_log("Failed to read lodest-peers %s (%d) : %s", confd_strerror(confd_errno), confd_errno, confd_lasterr());
        return 1;
    }
    auto *cfgmgrd_p = static_cast<cfgmgrd_t *>(row->ctx->reg.app_ctx);
    uint8_t is_up = cfgmgr_config_bool(value) ? 1 : 0;
    if (is_up != cfgmgrd_p->ovc_up) {
        cfgmgrd_p->ovc_up = is_up;
        cfgmgr_vpn_update_routing_flags_all(cfgmgrd_p);
    }
    return 0;
}

int32_t cfgmgr_config_ovc_overlay_as(tconfd_sub *row, int32_t, uint8_t, confd_value_t *, uint16_t num_tv,
                                     confd_tag_value_t *tv)
{
    auto *cfgmgrd_p = static_cast<cfgmgrd_t *>(row->ctx->reg.app_ctx);
    for (uint16_t i = 0; i < num_tv; i++) {
        if (CONFD_GET_TAG_TAG(&tv[i]) != ovc_overlay_as)
            continue;
        cfgmgrd_p->overlay_as = as_of(*CONFD_GET_TAG_VALUE(&tv[i]));
        cfgmgr_config_vpn_bgp_overlay_as_update(cfgmgrd_p);
    }
    return 0;
}
