// What each hook writes, and where.

#include "cfgmgr/network/cfgmgr_mirror.h"

#include "cfgmgr/network/cfgmgr_config_value.h"
#include "common/tip_log.h"
#include "tconfd/tconfd_util.h"
#include "yang/corvane-vpn.h"

#include <confd_maapi.h>
#include <cstdarg>

namespace
{

constexpr char CLI_BANNER[] = "/confd_dyncfg:confdConfig/cli/banner";
constexpr char SNMP_SHUTDOWN[] = "/snmp/shutdown";
constexpr char SNMP_NAME[] = "/snmp/name";
constexpr char MIB_SYSTEM[] = "/SNMPv2_MIB:SNMPv2-MIB/system";
constexpr char DHCP6_CLIENT[] = "/vpn/vpn-instance{%d}/interface{%s}/ipv6/dhcp-client";
constexpr char DHCP6_RAPID_COMMIT[] = "/vpn/vpn-instance{%d}/interface{%s}/ipv6/dhcp-rapid-commit";
constexpr const char *audit_switches[] = { "/confdConfig/logs/auditLog/enabled",
                                           "/confdConfig/logs/auditLog/file/enabled" };
constexpr const char *netconf_switches[] = { "/confdConfig/logs/netconfLog/enabled",
                                             "/confdConfig/logs/netconfLog/file/enabled" };

constexpr int MIRROR_FAILED = 1;
constexpr int MOTD_FAILED = -1;
constexpr size_t IF_NAME_SIZE = 64; // as operators write it

// One change that is being mirrored.
struct mirror_t {
    const char *operation; // for the log
    confd_trans_ctx *tctx;
    const confd_hkeypath_t *kp;
    const confd_value_t *newval; // null for a removal
    int sock;                    // maapi, attached to the transaction

    [[nodiscard]] int th() const { return tctx->thandle; }
};

// Whether the agent has done a step.
bool is_done(const mirror_t &mirror, const char *step, int result)
{
    if (result == CONFD_OK)
        return true;
    tip_log("Failed to do maapi %s for %s (%u) %s (%d) : %s", step, mirror.operation, static_cast<unsigned>(result),
            confd_strerror(confd_errno), confd_errno, confd_lasterr());
    return false;
}

// ---- what is done in the transaction

using mirror_work_t = bool (*)(const mirror_t &mirror);

bool set_motd(const mirror_t &mirror)
{
    return is_done(mirror, "set elem", maapi_set_elem(mirror.sock, mirror.th(), mirror.newval, CLI_BANNER));
}

bool delete_motd(const mirror_t &mirror)
{
    return is_done(mirror, "delete", maapi_delete(mirror.sock, mirror.th(), CLI_BANNER));
}

bool set_host_name(const mirror_t &mirror)
{
    confd_value_t is_shut{};
    if (!is_done(mirror, "get elem", maapi_get_elem(mirror.sock, mirror.th(), &is_shut, SNMP_SHUTDOWN)))
        return false;
    if (cfgmgr_config_bool(is_shut))
        return true;
    int has_name = maapi_exists(mirror.sock, mirror.th(), SNMP_NAME);
    if (has_name == CONFD_ERR)
        return is_done(mirror, "exists", has_name);
    return has_name != 0 || is_done(mirror, "set elem",
                                    maapi_set_elem(mirror.sock, mirror.th(), mirror.newval, "%s/sysName", MIB_SYSTEM));
}

// A leaf of the transaction that is false, be it by its default.
[[gnu::format(printf, 2, 3)]] bool is_off(const mirror_t &mirror, const char *path, ...)
{
    confd_value_t value{};
    va_list args;
    va_start(args, path);
    int result = maapi_vget_elem(mirror.sock, mirror.th(), &value, path, args);
    va_end(args);
    return result == CONFD_OK && !cfgmgr_config_bool(value);
}

// What is off already is not written: even the same value counts as a change, and rapid commit must not change while a
// client runs.
bool clear_rapid_commit(const mirror_t &mirror)
{
    confd_value_t vpn_key[1];
    confd_value_t if_key[1];
    if (tconfd_keypath_get_keys(mirror.kp, vpn_key, 1, vpn_vpn_instance) == nullptr ||
        tconfd_keypath_get_keys(mirror.kp, if_key, 1, vpn_interface) == nullptr)
        return false; // logged there
    auto vpn_id = static_cast<int>(CONFD_GET_UINT64(&vpn_key[0]));
    char name[IF_NAME_SIZE];
    cfgmgr_config_text(if_key[0], name, sizeof name);
    confd_value_t client{};
    if (!is_done(mirror, "get elem", maapi_get_elem(mirror.sock, mirror.th(), &client, DHCP6_CLIENT, vpn_id, name)))
        return false;
    return cfgmgr_config_bool(client) || is_off(mirror, DHCP6_RAPID_COMMIT, vpn_id, name) ||
           is_done(mirror, "set elem",
                   maapi_set_elem(mirror.sock, mirror.th(), &client, DHCP6_RAPID_COMMIT, vpn_id, name));
}

bool set_switches(const mirror_t &mirror, const char *const (&paths)[2])
{
    confd_value_t enabled;
    CONFD_SET_BOOL(&enabled, cfgmgr_config_bool(*mirror.newval) ? 0 : 1);
    for (const char *path : paths) {
        if (!is_done(mirror, "set elem", maapi_set_elem(mirror.sock, mirror.th(), &enabled, "%s", path)))
            return false;
    }
    return true;
}

bool set_audit(const mirror_t &mirror)
{
    return set_switches(mirror, audit_switches);
}

bool set_netconf(const mirror_t &mirror)
{
    return set_switches(mirror, netconf_switches);
}

// The default is not to disable. What is on by itself needs no word.
bool restore_switches(const mirror_t &mirror, const char *const (&paths)[2])
{
    confd_value_t enabled;
    CONFD_SET_BOOL(&enabled, 1);
    for (const char *path : paths) {
        if (is_off(mirror, "%s", path) &&
            !is_done(mirror, "set elem", maapi_set_elem(mirror.sock, mirror.th(), &enabled, "%s", path)))
            return false;
    }
    return true;
}

bool restore_audit(const mirror_t &mirror)
{
    return restore_switches(mirror, audit_switches);
}

bool restore_netconf(const mirror_t &mirror)
{
    return restore_switches(mirror, netconf_switches);
}

// ---- around it

// The transaction is given back whatever has come of the work.
bool do_attached(mirror_t mirror, mirror_work_t work)
{
    mirror.sock = static_cast<tconfd_ctx *>(mirror.tctx->dx->d_opaque)->maapi_fd;
    if (!is_done(mirror, "attach", maapi_attach(mirror.sock, 0, mirror.tctx)))
        return false;
    bool is_written = work(mirror);
    return is_done(mirror, "detach", maapi_detach(mirror.sock, mirror.tctx)) && is_written;
}

} // namespace

int cfgmgr_config_banner_motd_confd_create(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    return do_attached({ "post-login-message set", tctx, kp, newval, -1 }, set_motd) ? CONFD_OK : MOTD_FAILED;
}

int cfgmgr_config_banner_motd_confd_delete(confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    return do_attached({ "post-login-message delete", tctx, kp, nullptr, -1 }, delete_motd) ? CONFD_OK : MOTD_FAILED;
}

int cfgmgr_system_host_name_set(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    return do_attached({ "system host-name set", tctx, kp, newval, -1 }, set_host_name) ? CONFD_OK : MIRROR_FAILED;
}

int cfgmgr_vpn_if_set_dhcp_rapid_commit(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    return do_attached({ "dhcp-rapid-commit set", tctx, kp, newval, -1 }, clear_rapid_commit) ? CONFD_OK
                                                                                              : MIRROR_FAILED;
}

int cfgmgr_system_logs_audit_set(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    return do_attached({ "system logs audit set", tctx, kp, newval, -1 }, set_audit) ? CONFD_OK : MIRROR_FAILED;
}

int cfgmgr_system_logs_netconf_set(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    return do_attached({ "system logs netconf set", tctx, kp, newval, -1 }, set_netconf) ? CONFD_OK : MIRROR_FAILED;
}

int cfgmgr_system_logs_audit_remove(confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    return do_attached({ "system logs audit remove", tctx, kp, nullptr, -1 }, restore_audit) ? CONFD_OK : MIRROR_FAILED;
}

int cfgmgr_system_logs_netconf_remove(confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    return do_attached({ "system logs netconf remove", tctx, kp, nullptr, -1 }, restore_netconf) ? CONFD_OK
                                                                                                 : MIRROR_FAILED;
}
