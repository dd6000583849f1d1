// DHCPv6 rapid commit is fixed while the client runs. What runs is told by the daemon's table and the configuration
// that is in force, not by the one that is proposed.

#include "cfgmgr/daemon/cfgmgr_cdb.h"
#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_validate.h"
#include "cfgmgr/network/cfgmgr_validate_common.h"

#include <cinttypes>
#include <cstdarg>

namespace
{

// What cannot be read is as it is without configuration.
bool running_bool(const cdb_session &session, bool otherwise, const char *leaf, uint64_t vpn_id, const char *name)
{
    validate_value_t value;
    if (cdb_get(session.fd(), &value.v, "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}/%s", vpn_id, name, leaf) !=
        CONFD_OK) {
        value.v = {};
        return otherwise;
    }
    return cfgmgr_config_bool(value.v);
}

int check_running(const validate_t &v, uint64_t vpn_id, const char *name)
{
    cdb_session session(CDB_RUNNING);
    if (!session.is_open()) {
        validate_log_no_session(session.result());
        return session.result();
    }
    bool has_client = running_bool(session, false, "ipv6/dhcp-client", vpn_id, name);
    bool is_shut = running_bool(session, true, "shutdown", vpn_id, name);
    if (!has_client || is_shut)
        return 0;
    return validate_refuse(v, "DHCPv6 client is running (shutdown %d dhcp-client %d). Can't change dhcp-rapid-commit",
                           is_shut, has_client);
}

} // namespace

int cfgmgr_validate_vpn_if_dhcp_rapid_commit(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *)
{
    validate_t v = validate_of(tctx);
    uint64_t vpn_id = validate_vpn_key(kp);
    char name[VALIDATE_NAME_SIZE];
    char kernel_name[VALIDATE_NAME_SIZE];
    validate_if_key(kp, name);
    (void)cfgmgr_if_cli_to_kernel_name(name, kernel_name, sizeof kernel_name, nullptr); // else the name, which has none
    const cfgmgr_if_t *if_p = cfgmgr_if_find(v.cfgmgrd_p, kernel_name, nullptr, nullptr);
    if (if_p == nullptr)
        return validate_refuse(v, "Can't find interface entry vpn:%" PRIu64 " name:%s", vpn_id, name);
    if (!ip_addr_is_zero(if_p->dhcp6_addr.ip))
        return validate_refuse(v, "DHCPv6 client is running. Can't change dhcp-rapid-commit");
    return check_running(v, vpn_id, name);
}
