// The choice between first boot and start, and the defaults of a new device.

#include "cfgmgr/daemon/cfgmgr_confd_startup.h"

#include "cfgmgr/daemon/cfgmgr_confd_upgrade.h"
#include "cfgmgr/daemon/cfgmgr_confd_write.h"
#include "cfgmgr/daemon/cfgmgr_deployment.h"
#include "chmgr/chmgr_api.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "common/vpn_id.h"
#include "tconfd/tconfd_api.h"

#include <iterator>
#include <netinet/in.h>

namespace
{

constexpr int BETA = 1;
constexpr int RELEASE = 1;

// ---- defaults of a new device; each step's failure is its own affair unless it gives a result

// Values of the model's enumeration of what can be advertised.
constexpr int32_t ADVERTISE_CONNECTED = 2;
constexpr int32_t ADVERTISE_STATIC = 3;

int cfgmgr_confd_startup_set_ovc_default_config(cfgmgrd_t *, int maapi, int th)
{
    int result = maapi_create(maapi, th, "/ovc/tip-adv-static-conn-version");
    if (result != CONFD_OK)
        cfgmgr_confd_log_failure(result, "Failed to create /ovc/tip-adv-static-conn-version");
    for (int32_t protocol : { ADVERTISE_CONNECTED, ADVERTISE_STATIC }) {
        confd_value_t key{};
        CONFD_SET_ENUM_VALUE(&key, protocol);
        result = maapi_create(maapi, th, "/ovc/advertise{%x}", &key);
        if (result != CONFD_OK)
            cfgmgr_confd_log_failure(result, "Failed to create /ovc/advertise of %d", protocol);
    }
    return 0;
}

int cfgmgr_confd_startup_cfg_orbel_ztp(cfgmgrd_t *, int maapi, int th)
{
    int result = maapi_set_elem2(maapi, th, CFGMGR_ZTP_HOST, "/system/orbel/remote");
    tip_assert(result == CONFD_OK);
    confd_value_t port{};
    CONFD_SET_UINT16(&port, CFGMGR_ZTP_PORT);
    result = maapi_set_elem(maapi, th, &port, "/system/orbel/port");
    tip_assert(result == CONFD_OK);
    return 0;
}

int cfgmgr_confd_startup_set_default_security_parameters(cfgmgrd_t *, int maapi, int th)
{
    int result = maapi_set_elem2(maapi, th, "ah-sha1-hmac sha1-hmac", "/security/ipsec/authentication-type");
    if (result == CONFD_OK)
        return 0;
    cfgmgr_confd_log_failure(result, "Failed to set auth types ");
    return CFGMGR_CONFD_FAILED;
}

struct name_row_t {
    uint32_t personality;
    const char *name;
};
constexpr name_row_t name_rows[] = {
    { PERSONALITY_KREST, "krest" },
    { PERSONALITY_PENDRY, "pendry" },
    { PERSONALITY_QUORVIX, "quorvix" },
};
constexpr char OTHER_NAME[] = "lodest";

const char *first_host_name(uint32_t personality)
{
    for (const name_row_t &row : name_rows) {
        if (row.personality == personality)
            return row.name;
    }
    return OTHER_NAME;
}

int cfgmgr_confd_startup_set_host_name(cfgmgrd_t *cfgmgrd_p, int maapi, int th)
{
    return cfgmgr_confd_write_text({ maapi, th }, { "/system/host-name", first_host_name(cfgmgrd_p->personality) });
}

int cfgmgr_confd_startup_set_system_oid(cfgmgrd_t *, int maapi, int th)
{
    uint32_t arcs[] = { 1, 3, 6, 1, 4, 1, CFGMGR_ENTERPRISE_NUMBER, 3, 2, static_cast<uint32_t>(chmgr_chassis_type()) };
    confd_oid oid{};
    oid.oid = arcs;
    oid.len = static_cast<int>(std::size(arcs));
    confd_value_t value{};
    CONFD_SET_OID(&value, &oid);
    int result = maapi_set_elem(maapi, th, &value, "/confdConfig/snmpAgent/system/sysObjectID");
    if (result != CONFD_OK)
        cfgmgr_confd_log_failure(result, "Failed to set the system's object id");
    return result;
}

enum for_whom_t : uint8_t {
    FOR_ALL,
    FOR_EDGE,
};

struct default_row_t {
    int (*write)(cfgmgrd_t *cfgmgrd_p, int maapi, int th);
    for_whom_t whom;
};
// Behind the VPNs, in this order.
constexpr default_row_t default_rows[] = {
    { cfgmgr_confd_startup_set_ovc_default_config, FOR_EDGE },
    { cfgmgr_confd_startup_cfg_orbel_ztp, FOR_EDGE },
    { cfgmgr_confd_startup_set_default_security_parameters, FOR_EDGE },
    { cfgmgr_confd_startup_set_host_name, FOR_ALL },
    { cfgmgr_confd_startup_set_system_oid, FOR_ALL },
};

bool is_edge(const cfgmgrd_t &daemon)
{
    return daemon.personality == PERSONALITY_KREST;
}

// Keys that are enumerations are written by their labels, which the library knows from the schemas. The registration
// thread of the datastore client is loading them too; whoever comes second waits.
void wait_for_schemas()
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(CONFD_PORT);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int result = confd_load_schemas(reinterpret_cast<sockaddr *>(&address), sizeof address);
    if (result != CONFD_OK)
        cfgmgr_confd_log_failure(result, "Failed to load schemas");
}

int write_first_configuration(cfgmgrd_t *cfgmgrd_p, int maapi, int th)
{
    int result = cfgmgr_confd_startup_create_vpn(cfgmgrd_p, maapi, th);
    if (result != 0)
        return result;
    wait_for_schemas();
    for (const default_row_t &row : default_rows) {
        if (row.whom == FOR_ALL || is_edge(*cfgmgrd_p))
            (void)row.write(cfgmgrd_p, maapi, th); // logged; the device can be reached without it
    }
    return 0;
}

// ---- a device with configuration

// What the controller has sent counts until the next start. A device that has got nothing has nothing to lose.
void reset_received_policy(int maapi, int th)
{
    int result = maapi_delete(maapi, th, "/policy-from-lodest");
    if (result != CONFD_OK && confd_errno != CONFD_ERR_NOEXISTS)
        cfgmgr_confd_log_failure(result, "Failed to reset policy-from-lodest");
}

int modify_existing(cfgmgrd_t *cfgmgrd_p, int maapi, int th)
{
    if (is_edge(*cfgmgrd_p)) {
        reset_received_policy(maapi, th);
        (void)cfgmgr_confd_startup_create_mgmt_vpn(cfgmgrd_p, maapi, th); // logged; the device has another way in
    }
    (void)cfgmgr_confd_upgrade_reload_dyncfg_logs(cfgmgrd_p, maapi, th); // logged; the logs stay as they were
    return cfgmgrd_p->upgrade != 0 ? cfgmgr_confd_upgrade(cfgmgrd_p, maapi, th) : 0;
}

} // namespace

int cfgmgr_confd_startup_modify_transaction(cfgmgrd_t *cfgmgrd_p)
{
    int maapi = cfgmgrd_p->tconfd_ctx_p->maapi_fd;
    int th = 0;
    if (maapi_attach_init(maapi, &th) != CONFD_OK) {
        tip_log("Failed attaching to initial transaction - %s (%d):%s", confd_strerror(confd_errno), confd_errno,
                confd_lasterr());
        return CFGMGR_CONFD_FAILED;
    }
    tip_log("Starting CFGMGR: beta(%d), release(%d)", BETA, RELEASE);
    bool is_configured = maapi_exists(maapi, th, "/vpn/vpn-instance{%d}", static_cast<int>(VPN_ID_TRANSPORT)) == 1;
    return is_configured ? modify_existing(cfgmgrd_p, maapi, th) : write_first_configuration(cfgmgrd_p, maapi, th);
}
