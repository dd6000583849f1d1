// The start and the end of the interface table, and the interfaces that the device has for its own sake: those that
// carry its system addresses, simulated ones, and the internal legs to a modem.

#include "cfgmgr/network/cfgmgr_bridge.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_if_kind.h"
#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "chmgr/chmgr_api.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "common/tip_root.h"
#include "common/tip_text.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <unistd.h>

namespace
{

constexpr char MGMT_PORT[] = "eth0";
constexpr const char *radios[] = { "wifi0", "wifi1" };
#define RADIO_CONF_FILE "/proc/sys/net/ipv4/conf/%s"
#define MODEM_FILE      "/var/run/qcqmi0"

// ---- ports

// 0 also for what this device does not have.
int create_port(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, const char *name, cfgmgr_if_t **out)
{
    int result = cfgmgr_if_find_or_create(cfgmgrd_p, static_cast<uint32_t>(vpn_id), name, out, IF_TYPE_PLAIN);
    return result == CFGMGR_IF_NOT_PROVISIONED ? CFGMGR_IF_OK : result;
}

int create_chassis_ports(cfgmgrd_t *cfgmgrd_p)
{
    int result = CFGMGR_IF_OK;
    cfgmgr_if_t *if_p;
    for (chmgr_port_t *port = cfgmgr_if_first_port(); port != nullptr && result == CFGMGR_IF_OK;
         port = cfgmgr_if_next_port(port)) {
        char name[sizeof port->kernel_name + 1] = {}; // the block need not end what fills its field
        memcpy(name, port->kernel_name, sizeof port->kernel_name);
        result = create_port(cfgmgrd_p, VPN_ID_TRANSPORT, name, &if_p);
    }
    return result;
}

struct mgmt_port_row_t {
    uint32_t personality;
    uint64_t vpn_id;
    bool needs_mgmt_vpn;
};

constexpr mgmt_port_row_t mgmt_port_rows[] = {
    { PERSONALITY_KREST, VPN_ID_MANAGEMENT, true },  { PERSONALITY_TARN, VPN_ID_MANAGEMENT, true },
    { PERSONALITY_LODEST, VPN_ID_TRANSPORT, false }, { PERSONALITY_QUORVIX, VPN_ID_TRANSPORT, false },
    { PERSONALITY_PENDRY, VPN_ID_TRANSPORT, false },
};

int create_mgmt_port(cfgmgrd_t *cfgmgrd_p)
{
    for (const mgmt_port_row_t &row : mgmt_port_rows) {
        if (row.personality != cfgmgrd_p->personality || (row.needs_mgmt_vpn && cfgmgrd_p->mgmt_vpn == 0))
            continue;
        cfgmgr_if_t *if_p = nullptr;
        int result = create_port(cfgmgrd_p, row.vpn_id, MGMT_PORT, &if_p);
        if (if_p != nullptr)
            (void)cfgmgr_if_enable(if_p, true); // gives 0
        return result;
    }
    return CFGMGR_IF_OK;
}

// ---- radios

// The address that the chassis has for the port of that name; 0 when it has none.
uint64_t chassis_radio_mac(const char *name)
{
    for (chmgr_port_t *port = cfgmgr_if_first_port(); port != nullptr; port = cfgmgr_if_next_port(port)) {
        if (strncmp(port->kernel_name, name, sizeof port->kernel_name) == 0)
            return port->mac;
    }
    return 0;
}

int set_radio_mac(const char *name)
{
    if (access(tip_path(RADIO_CONF_FILE, name).text, F_OK) != 0)
        return CFGMGR_KERNEL_OK;
    uint64_t mac = chassis_radio_mac(name);
    return mac != 0 ? cfgmgr_kernel_if_update_mac(name, mac, false) : CFGMGR_KERNEL_NO_RESOURCE;
}

void set_radio_macs()
{
    for (const char *name : radios) {
        if (set_radio_mac(name) != 0)
            tip_log("Failed to set new MAC address on WLAN radio\n");
    }
}

// ---- the legs to the modem

struct modem_t {
    uint32_t bridge_id;
    uint32_t index;
    const char *radio;    // the modem's own device
    const char *cellular; // what is configured
    uint32_t cellular_tag;
    const char *leg; // towards the forwarding plane
    uint32_t leg_tag;
};
constexpr modem_t modem = { BRIDGE_INTERNAL, 0, "wwan0", "cellular0", IF_CELLULAR_TAG_FIRST, "loop2.10", 10 };

bool has_modem()
{
    static constexpr int types[] = { 1, 3, 4, 5, 6 };
    return std::ranges::find(types, chmgr_chassis_type()) != std::end(types) &&
           access(tip_path(MODEM_FILE).text, F_OK) == 0;
}

void create_modem_bridge(cfgmgrd_t *cfgmgrd_p)
{
    cfgmgr_set_ns(cfgmgrd_p, VPN_ID_INTERNAL);
    int result = cfgmgr_bridge_find_or_create(cfgmgrd_p, modem.bridge_id);
    if (result != 0) {
        tip_log("Failed to create bridge: %d", modem.bridge_id);
        tip_assert(result == 0);
    }
    cfgmgr_bridge_t *bridge_p = cfgmgr_bridge_find(cfgmgrd_p, modem.bridge_id, nullptr);
    if (bridge_p == nullptr) {
        tip_log("Failed to find bridge: %d", modem.bridge_id);
        tip_assert(bridge_p != nullptr);
    }
    (void)cfgmgr_bridge_enable(cfgmgrd_p, bridge_p, VPN_ID_INTERNAL, true); // logged
    cfgmgr_reset_ns(cfgmgrd_p, VPN_ID_INTERNAL);
}

// 0, or the first error; what is not provisioned is left out.
int create_modem_legs(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t **cellular, cfgmgr_if_t **leg)
{
    cfgmgr_if_t *radio;
    int result = cfgmgr_if_find_or_create(cfgmgrd_p, modem.bridge_id, modem.radio, &radio, IF_TYPE_INTERNAL);
    if (result != 0) {
        tip_log("%s: Interface not created", modem.radio);
        return result;
    }
    result = create_port(cfgmgrd_p, VPN_ID_TRANSPORT, modem.cellular, cellular);
    if (result != 0)
        return result;
    if (*cellular != nullptr)
        (*cellular)->vlan_id = modem.cellular_tag;
    result = cfgmgr_if_find_or_create(cfgmgrd_p, modem.bridge_id, modem.leg, leg, IF_TYPE_INTERNAL);
    if (*leg != nullptr)
        (*leg)->vlan_id = modem.leg_tag;
    return result == CFGMGR_IF_NOT_PROVISIONED ? CFGMGR_IF_OK : result;
}

int cfgmgr_internal_interface_init(cfgmgrd_t *cfgmgrd_p)
{
    if (!has_modem())
        return 0;
    create_modem_bridge(cfgmgrd_p);
    cfgmgr_if_t *cellular = nullptr;
    cfgmgr_if_t *leg = nullptr;
    int result = create_modem_legs(cfgmgrd_p, &cellular, &leg);
    if (result != 0) {
        tip_log("Failed to create internal interface for cellular%d module\n", modem.index);
        return result;
    }
    cfgmgr_set_ns(cfgmgrd_p, VPN_ID_INTERNAL);
    for (cfgmgr_if_t *if_p : { leg, cellular }) {
        if (if_p != nullptr)
            (void)cfgmgr_if_enable(if_p, true); // gives 0; a modem comes up by itself
    }
    cfgmgr_reset_ns(cfgmgrd_p, VPN_ID_INTERNAL);
    tip_log("Created Interfaces: %s(%d), %s(%d), %s Bridge %d", modem.cellular, modem.cellular_tag, modem.leg,
            modem.leg_tag, modem.radio, modem.bridge_id);
    return 0;
}

// ---- system interfaces

struct system_row_t {
    const char *name;
    ip_prefix_t cfgmgrd_t::*prefix;
    void (*publish)(const ip_addr_t &address); // to the other daemons
};

// By is_system.
constexpr system_row_t system_rows[] = {
    { "quorvix_system", &cfgmgrd_t::quorvix_system_ip, chmgr_quorvix_system_ip_set },
    { "system", &cfgmgrd_t::system_ip, chmgr_system_ip_set },
};

// A loopback of VPN 0 that is up and has its address. The result of the creation.
int add_loopback(cfgmgrd_t *cfgmgrd_p, const char *name, const ip_prefix_t &prefix)
{
    cfgmgr_if_t *if_p;
    int result = cfgmgr_if_find_or_create(cfgmgrd_p, VPN_ID_TRANSPORT, name, &if_p, IF_TYPE_PLAIN);
    if (result != 0)
        return result;
    (void)cfgmgr_if_addr_update(cfgmgrd_p, name, prefix, false); // the record is there
    (void)cfgmgr_kernel_loopback_set(if_p, true);                // logged
    if_p->shutdown = 0;
    return result;
}

void del_loopback(cfgmgrd_t *cfgmgrd_p, const char *name, const ip_prefix_t &prefix, bool delete_if)
{
    if (cfgmgr_if_addr_update(cfgmgrd_p, name, prefix, true) == 0 && delete_if)
        cfgmgr_if_delete_by_name(cfgmgrd_p, VPN_ID_TRANSPORT, name);
}

struct simulated_name_t {
    char text[IF_NAME_SIZE];
};

simulated_name_t simulated_system_name(int index)
{
    simulated_name_t name;
    (void)snprintf(name.text, sizeof name.text, "system_%d", index);
    return name;
}

simulated_name_t simulated_wan_name(int index)
{
    simulated_name_t name;
    (void)snprintf(name.text, sizeof name.text, "loopback_wan_%d", index);
    return name;
}

void add_simulated(cfgmgrd_t *cfgmgrd_p, const simulated_name_t &name, const ip_prefix_t &prefix)
{
    if (add_loopback(cfgmgrd_p, name.text, prefix) != 0)
        tip_log("Failed to create simulated interface %s", name.text);
}

} // namespace

int cfgmgr_if_init(cfgmgrd_t *cfgmgrd_p)
{
    avl_create(&cfgmgrd_p->if_table, cfgmgr_if_compare, sizeof(cfgmgr_if_t), offsetof(cfgmgr_if_t, node));
    avl_create(&cfgmgrd_p->gre_table, cfgmgr_if_compare, sizeof(cfgmgr_if_t), offsetof(cfgmgr_if_t, unbound_node));
    int result = create_chassis_ports(cfgmgrd_p);
    if (result == 0)
        result = create_mgmt_port(cfgmgrd_p);
    if (result != 0)
        return result;
    set_radio_macs();
    int internal = cfgmgr_internal_interface_init(cfgmgrd_p);
    if (internal != 0 && internal != CFGMGR_IF_NOT_PROVISIONED)
        tip_log("Failed doing internal interface init\n"); // a device without its modem is a device still
    return 0;
}

void cfgmgr_if_deinit(cfgmgrd_t *cfgmgrd_p)
{
    if (cfgmgrd_p->if_table.compar == nullptr)
        return;
    uintptr_t cookie = 0;
    while (void *record = avl_destroy_nodes(&cfgmgrd_p->if_table, &cookie))
        cfgmgr_if_free(static_cast<cfgmgr_if_t *>(record));
    cfgmgrd_p->if_table = {};
    cfgmgrd_p->gre_table = {}; // its records were those of the other tree
}

void cfgmgr_if_system_vpn_add(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p, const ip_prefix_t &prefix, bool is_system)
{
    if (vpn_p->vpn_id == VPN_ID_TRANSPORT) {
        int result = add_loopback(cfgmgrd_p, system_rows[is_system].name, prefix);
        if (result != 0) {
            tip_log("Failed to create system interface in vpn %lu", vpn_p->vpn_id);
            tip_assert(result == 0);
        }
    }
    (void)cfgmgr_vpn_update_routerid(cfgmgrd_p, vpn_p->vpn_id, &prefix); // gives 0
}

void cfgmgr_if_system_vpn_del(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p, const ip_prefix_t &prefix,
                              const char *name_format, bool delete_if)
{
    if (vpn_p->vpn_id == VPN_ID_TRANSPORT)
        del_loopback(cfgmgrd_p, name_format, prefix, delete_if);
    (void)cfgmgr_vpn_update_routerid(cfgmgrd_p, vpn_p->vpn_id, nullptr); // gives 0
}

void cfgmgr_if_system_update_all(cfgmgrd_t *cfgmgrd_p, bool is_delete, bool is_system)
{
    const system_row_t &row = system_rows[is_system];
    const ip_prefix_t &prefix = cfgmgrd_p->*row.prefix;
    for (cfgmgr_vpn_t &vpn : avl_range<cfgmgr_vpn_t>(&cfgmgrd_p->vpn_table)) {
        if (is_delete)
            cfgmgr_if_system_vpn_del(cfgmgrd_p, &vpn, prefix, row.name, true);
        else
            cfgmgr_if_system_vpn_add(cfgmgrd_p, &vpn, prefix, is_system);
    }
    if (!is_delete)
        row.publish(prefix.ip);
}

void cfgmgr_if_simulated_system_add(cfgmgrd_t *cfgmgrd_p, const ip_prefix_t &prefix, int index)
{
    add_simulated(cfgmgrd_p, simulated_system_name(index), prefix);
}

void cfgmgr_if_simulated_system_del(cfgmgrd_t *cfgmgrd_p, const ip_prefix_t &prefix, int index)
{
    del_loopback(cfgmgrd_p, simulated_system_name(index).text, prefix, true);
}

void cfgmgr_if_simulated_wan_add(cfgmgrd_t *cfgmgrd_p, const ip_prefix_t &prefix, int index)
{
    add_simulated(cfgmgrd_p, simulated_wan_name(index), prefix);
}

void cfgmgr_if_simulated_wan_del(cfgmgrd_t *cfgmgrd_p, const ip_prefix_t &prefix, int index)
{
    del_loopback(cfgmgrd_p, simulated_wan_name(index).text, prefix, true);
}
