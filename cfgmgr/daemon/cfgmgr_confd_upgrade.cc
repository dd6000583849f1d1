// The steps of an upgrade, most of which are texts written to leaves.

#include "cfgmgr/daemon/cfgmgr_confd_upgrade.h"

#include "cfgmgr/daemon/cfgmgr_cdb.h"
#include "cfgmgr/daemon/cfgmgr_confd_write.h"
#include "cfgmgr/daemon/cfgmgr_deployment.h"
#include "common/tip_log.h"
#include "common/tip_root.h"

#include <cerrno>
#include <cstring>
#include <span>
#include <unistd.h>

namespace
{

constexpr char LOG_SETTINGS[] = "/etc/confd/init/tconfd_init_dyncfg_logs.xml";
constexpr char MIGRATION_PENDING[] = "/var/confd/cdb/migration_pending";

int write_texts(int maapi, int th, std::span<const confd_text_row_t> rows)
{
    int last = CONFD_OK;
    for (const confd_text_row_t &row : rows) {
        int result = cfgmgr_confd_write_text({ maapi, th }, row);
        if (result != CONFD_OK)
            last = result;
    }
    return last;
}

int cfgmgr_confd_upgrade_set_sys_descr(cfgmgrd_t *, int maapi, int th)
{
    static constexpr confd_text_row_t rows[] = {
        { "/confdConfig/snmpAgent/system/sysDescr", "Corvane SNMP agent" },
    };
    return write_texts(maapi, th, rows);
}

// Older releases knew only the operator's switch; the agent's own follows it.
int cfgmgr_confd_upgrade_from_15_4_3_set_dyncfg(cfgmgrd_t *, int maapi, int th)
{
    confd_value_t shutdown{};
    int result = maapi_get_elem(maapi, th, &shutdown, "/snmp/shutdown");
    if (result == CONFD_OK && shutdown.type != C_BOOL) {
        tip_log("/snmp/shutdown has type %d", shutdown.type);
        confd_free_value(&shutdown);
        return CFGMGR_CONFD_FAILED;
    }
    if (result != CONFD_OK) {
        cfgmgr_confd_log_failure(result, "Failed to get /snmp/shutdown");
        return result;
    }
    confd_value_t enabled{};
    CONFD_SET_BOOL(&enabled, CONFD_GET_BOOL(&shutdown) != 0 ? 0 : 1);
    result = maapi_set_elem(maapi, th, &enabled, "/confd_dyncfg:confdConfig/snmpAgent/enabled");
    if (result != CONFD_OK)
        cfgmgr_confd_log_failure(result, "Failed to set /confd_dyncfg:confdConfig/snmpAgent/enabled");
    return result;
}

// A device of an old release that ran as an orchestrator keeps that role by a flag. The leaf that came with the flag's
// release tells an old configuration from a new one.
int cfgmgr_confd_upgrade_create_orbel_only_flag(cfgmgrd_t *cfgmgrd_p, int maapi, int th)
{
    if (cfgmgrd_p->personality != PERSONALITY_KREST)
        return 0;
    tip_log("Checking to see if orbel-only flag is required");
    cdb_session session(CDB_RUNNING);
    if (!session.is_open()) {
        cfgmgr_confd_log_failure(session.result(), "Failed to read the configuration");
        return CFGMGR_CONFD_FAILED;
    }
    if (cdb_exists(session.fd(), "/system/multicast-buffer-percent") == 1) {
        tip_log("multicast-buffer-percent exists. Nothing to do");
        return 0;
    }
    tip_log("older version - check for orbel local");
    if (cdb_exists(session.fd(), "/system/orbel/local") != 1) {
        tip_log("orbel local does not exist. Nothing to do");
        return 0;
    }
    return cfgmgr_confd_write_create({ maapi, th }, "/system/orbel/orbel-only");
}

int cfgmgr_confd_upgrade_set_snmpv3(cfgmgrd_t *, int maapi, int th)
{
    static constexpr confd_text_row_t rows[] = {
        { "/confdConfig/snmpAgent/snmpVersions/v3", "true" },
        { "/confdConfig/snmpAgent/mibs/file",
          "SNMP-COMMUNITY-MIB.bin SNMP-VIEW-BASED-ACM-MIB.bin SNMP-USER-BASED-SM-MIB.bin SNMP-TARGET-MIB.bin "
          "SNMP-NOTIFICATION-MIB.bin SNMP-FRAMEWORK-MIB.bin " CFGMGR_PRODUCT_MIBS },
    };
    return write_texts(maapi, th, rows);
}

int cfgmgr_confd_upgrade_set_snmp_agent(cfgmgrd_t *, int maapi, int th)
{
    static constexpr confd_text_row_t rows[] = {
        { "/confdConfig/snmpAgent/ip", "127.0.0.1" },
        { "/confdConfig/snmpAgent/port", "7667" },
    };
    return write_texts(maapi, th, rows);
}

int cfgmgr_confd_upgrade_set_snmp_engine_message(cfgmgrd_t *, int maapi, int th)
{
    static constexpr confd_text_row_t rows[] = {
        { "/confdConfig/snmpAgent/snmpEngine/snmpEngineMaxMessageSize", "50000" },
    };
    return write_texts(maapi, th, rows);
}

int cfgmgr_confd_upgrade_set_netconf_tcp(cfgmgrd_t *, int maapi, int th)
{
    static constexpr confd_text_row_t rows[] = {
        { "/confdConfig/netconf/transport/tcp/enabled", "false" },
    };
    return write_texts(maapi, th, rows);
}

// A device that was in service before knows who it is.
int cfgmgr_confd_upgrade_set_ztp_status(cfgmgrd_t *, int maapi, int th)
{
    static constexpr confd_text_row_t rows[] = {
        { "/system/ztp-status", "success" },
    };
    int result = write_texts(maapi, th, rows);
    if (result == CONFD_OK)
        tip_log("Set ztp status to success after upgrade");
    return result;
}

// The marker is there from the installation of a release until the configuration has been brought up to it.
int cfgmgr_confd_migration_done(cfgmgrd_t *, int, int)
{
    tip_path_t marker = tip_path("%s", MIGRATION_PENDING);
    if (access(marker.text, F_OK) != 0)
        return CFGMGR_MIGRATION_NOT_PENDING;
    if (unlink(marker.text) == 0)
        tip_log("Migration done");
    else if (cfgmgr_events_level > 0)
        tip_log("removal of file '%s' failed: %s\n", MIGRATION_PENDING, strerror(errno));
    return 0;
}

using upgrade_step_t = int (*)(cfgmgrd_t *cfgmgrd_p, int maapi, int th);
// In this order; the marker goes last.
constexpr upgrade_step_t steps[] = {
    cfgmgr_confd_upgrade_set_sys_descr,
    cfgmgr_confd_upgrade_from_15_4_3_set_dyncfg,
    cfgmgr_confd_upgrade_create_orbel_only_flag,
    cfgmgr_confd_upgrade_set_snmpv3,
    cfgmgr_confd_upgrade_set_snmp_agent,
    cfgmgr_confd_upgrade_set_snmp_engine_message,
    cfgmgr_confd_upgrade_set_netconf_tcp,
    cfgmgr_confd_upgrade_set_ztp_status,
    cfgmgr_confd_migration_done,
};

} // namespace

int cfgmgr_confd_upgrade(cfgmgrd_t *cfgmgrd_p, int maapi, int th)
{
    int result = 0;
    for (upgrade_step_t step : steps)
        result = step(cfgmgrd_p, maapi, th);
    return result;
}

int cfgmgr_confd_upgrade_reload_dyncfg_logs(cfgmgrd_t *, int maapi, int th)
{
    tip_log("Reloading dynamic config file..");
    int result = maapi_load_config(maapi, th, MAAPI_CONFIG_XML | MAAPI_CONFIG_MERGE, tip_path("%s", LOG_SETTINGS).text);
    if (result != CONFD_OK) {
        cfgmgr_confd_log_failure(result, "Failed to load %s", LOG_SETTINGS);
        return CFGMGR_CONFD_FAILED;
    }
    tip_log("Done loading dynamic config file..");
    return 0;
}
