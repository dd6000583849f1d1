// The VPNs and interfaces of a new device.

#include "cfgmgr/daemon/cfgmgr_confd_startup.h"
#include "cfgmgr/daemon/cfgmgr_confd_write.h"
#include "chmgr/chmgr_api.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "common/vpn_id.h"

#include <cstring>

namespace
{

constexpr char MGMT_INTERFACE[] = "eth0";
constexpr char FIRST_ADDRESS[] = "192.168.1.1/24"; // where a technician with a cable finds a new device
constexpr char MODEM_INTERFACE[] = "cellular0";
constexpr int32_t MODEM_COLOR = 6; // of type color, "lte"
constexpr char TRANSPORT_INTERFACE[] = "ge0/0";

#define VPN_PATH "/vpn/vpn-instance{%d}"
#define IF_PATH  "/vpn/vpn-instance{%ld}/interface{%s}"

struct transport_row_t {
    int chassis_type;
    const char *name;
};
// Chassis whose first transport interface is not TRANSPORT_INTERFACE.
constexpr transport_row_t transport_rows[] = {
    { 2, "ge2/0" },
    { 3, "ge0/4" },
    { 4, "ge0/4" },
    { 5, "ge0/4" },
};

const char *first_transport_interface()
{
    int type = chmgr_chassis_type();
    for (const transport_row_t &row : transport_rows) {
        if (row.chassis_type == type)
            return row.name;
    }
    return TRANSPORT_INTERFACE;
}

bool is_router(const cfgmgrd_t &daemon)
{
    return daemon.personality == PERSONALITY_KREST || daemon.personality == PERSONALITY_TARN;
}

// True for what runs beside the network rather than in it.
bool is_server(const cfgmgrd_t &daemon)
{
    return daemon.personality == PERSONALITY_LODEST || daemon.personality == PERSONALITY_QUORVIX ||
           daemon.personality == PERSONALITY_PENDRY;
}

// One interface and the transaction that it is written to.
struct interface_writer_t {
    int sock;
    int th;
    const startup_if_t &wanted;

    [[nodiscard]] long vpn() const { return static_cast<long>(wanted.vpn_id); }
    void create() const
    {
        int result = maapi_create(sock, th, IF_PATH, vpn(), wanted.name);
        tip_assert(result == CONFD_OK);
    }
    void create_below(const char *below) const
    {
        int result = maapi_create(sock, th, IF_PATH "%s", vpn(), wanted.name, below);
        tip_assert(result == CONFD_OK);
    }
    void set(const char *below, const confd_value_t &value) const
    {
        int result = maapi_set_elem(sock, th, &value, IF_PATH "%s", vpn(), wanted.name, below);
        tip_assert(result == CONFD_OK);
    }
    void set(const char *below, bool is_on) const
    {
        confd_value_t value{};
        CONFD_SET_BOOL(&value, is_on ? 1 : 0);
        set(below, value);
    }
};

bool is_modem(const startup_if_t &wanted)
{
    return strcmp(wanted.name, MODEM_INTERFACE) == 0;
}

void write_dhcp(const interface_writer_t &writer)
{
    writer.set("/ip/dhcp-client", true);
    if (!is_modem(writer.wanted))
        writer.set("/ipv6/dhcp-client", true);
}

int write_address(const interface_writer_t &writer)
{
    const startup_if_t &wanted = writer.wanted;
    int result =
        maapi_set_elem2(writer.sock, writer.th, wanted.address, IF_PATH "/ip/address", writer.vpn(), wanted.name);
    if (result == CONFD_OK)
        return 0;
    cfgmgr_confd_log_error("Failed to add static address on vpn %ld %s", writer.vpn(), wanted.name);
    return CFGMGR_STARTUP_NO_ADDRESS;
}

void write_tunnel(const interface_writer_t &writer)
{
    writer.create_below("/tunnel-interface");
    int result = maapi_create(writer.sock, writer.th, IF_PATH "/tunnel-interface/encapsulation{%s}", writer.vpn(),
                              writer.wanted.name, "ipsec");
    tip_assert(result == CONFD_OK);
    if (!is_modem(writer.wanted))
        return;
    confd_value_t color{};
    CONFD_SET_ENUM_VALUE(&color, MODEM_COLOR);
    writer.set("/tunnel-interface/color/value", color);
}

void create_transport_vpn(int maapi, int th)
{
    int result = maapi_create(maapi, th, VPN_PATH, static_cast<int>(VPN_ID_TRANSPORT));
    if (result == CONFD_OK)
        return;
    cfgmgr_confd_log_error("Failed to create vpn 0");
    tip_assert(result == CONFD_OK);
}

// False when it is there already, too.
bool is_mgmt_vpn_created(int maapi, int th)
{
    int vpn = static_cast<int>(VPN_ID_MANAGEMENT);
    tip_log("Creating mgmt vpn (%d)..", vpn);
    if (maapi_create(maapi, th, VPN_PATH, vpn) == CONFD_OK)
        return true;
    if (cfgmgr_events_level > CFGMGR_DETAILED)
        cfgmgr_confd_log_error("Failed to create mgmt vpn (%d)", vpn);
    return false;
}

} // namespace

int cfgmgr_confd_startup_create_if(int maapi, int th, const startup_if_t &wanted)
{
    interface_writer_t writer = { maapi, th, wanted };
    writer.create();
    writer.set("/shutdown", false);
    if (wanted.has_dhcp) {
        write_dhcp(writer);
    } else {
        int result = write_address(writer);
        if (result != 0)
            return result;
    }
    if (wanted.has_tunnel)
        write_tunnel(writer);
    return 0;
}

int cfgmgr_confd_startup_create_mgmt_vpn(cfgmgrd_t *cfgmgrd_p, int maapi, int th)
{
    bool is_created = is_mgmt_vpn_created(maapi, th);
    if (!is_created || cfgmgrd_p->mgmt_vpn == 0 || !is_router(*cfgmgrd_p))
        return 0;
    return cfgmgr_confd_startup_create_if(maapi, th,
                                          { .vpn_id = VPN_ID_MANAGEMENT,
                                            .name = MGMT_INTERFACE,
                                            .has_tunnel = false,
                                            .has_dhcp = false,
                                            .address = FIRST_ADDRESS });
}

int cfgmgr_confd_startup_create_vpn(cfgmgrd_t *cfgmgrd_p, int maapi, int th)
{
    create_transport_vpn(maapi, th);
    int result = cfgmgr_confd_startup_create_mgmt_vpn(cfgmgrd_p, maapi, th);
    if (result != 0)
        return result;
    startup_if_t first = { .vpn_id = VPN_ID_TRANSPORT,
                           .name = MGMT_INTERFACE,
                           .has_tunnel = false,
                           .has_dhcp = false,
                           .address = FIRST_ADDRESS };
    if (is_router(*cfgmgrd_p))
        first = { .vpn_id = VPN_ID_TRANSPORT,
                  .name = first_transport_interface(),
                  .has_tunnel = true,
                  .has_dhcp = true,
                  .address = nullptr };
    else if (!is_server(*cfgmgrd_p))
        return 0;
    return cfgmgr_confd_startup_create_if(maapi, th, first);
}
