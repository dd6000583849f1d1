// The rule of OSPF: the VPN's ospfd is asked whether it can run an instance.

#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_validate.h"
#include "cfgmgr/network/cfgmgr_validate_common.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "proto/ospf.pb-c.h"

// A VPN that the transaction makes has no daemon yet that could judge, and an instance that goes needs none: else it could
// not be taken away from a daemon that has died.
int cfgmgr_validate_vpn_ospf(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return CONFD_OK;
    validate_t v = validate_of(tctx);
    cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_find(v.cfgmgrd_p, validate_vpn_key(kp), nullptr);
    if (vpn_p == nullptr)
        return CONFD_OK;
    MOspfInstance message = M_OSPF_INSTANCE__INIT;
    message.has_validate_only = 1;
    message.validate_only = 1;
    return cfgmgr_quagga_pb_validate(tctx, vpn_p, &message, DAEMON_ID_OSPFD, OSPF_INSTANCE_VALIDATE);
}
