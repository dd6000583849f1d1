// Identity of the device and the devices that it simulates.

#include "cfgmgr/network/cfgmgr_config_system.h"

#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_kernel_files.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/tip_log.h"
#include "yang/corvane-system.h"

#include <vector>

namespace
{

constexpr uint8_t HOST_LENGTH = 32;

// One delivery.
struct system_change_t {
    cfgmgrd_t *cfgmgrd_p;
    bool sim_count_changed = false;
    bool sim_wan_changed = false;
};

// ---- host name

struct default_name_t {
    uint32_t personality;
    const char *name;
};
constexpr default_name_t default_names[] = {
    { PERSONALITY_LODEST, "lodest" },
    { PERSONALITY_QUORVIX, "quorvix" },
    { PERSONALITY_PENDRY, "pendry" },
};
constexpr char OTHER_NAME[] = "krest";

// Deliberately, the personalities with a name of their own keep the configured one in the context, and others do not.
void reset_host_name(cfgmgrd_t *cfgmgrd_p)
{
    for (const default_name_t &row : default_names) {
        if (row.personality == cfgmgrd_p->personality) {
            (void)cfgmgr_kernel_hostname_set(cfgmgrd_p, row.name); // logged there
            return;
        }
    }
    (void)snprintf(cfgmgrd_p->host_name, sizeof cfgmgrd_p->host_name, "%s", OTHER_NAME);
    (void)cfgmgr_kernel_hostname_set(cfgmgrd_p, OTHER_NAME); // as above
}

void apply_host_name(system_change_t &change, const confd_value_t &value)
{
    cfgmgrd_t *cfgmgrd_p = change.cfgmgrd_p;
    if (cfgmgr_config_is_deleted(value)) {
        reset_host_name(cfgmgrd_p);
        return;
    }
    cfgmgr_config_text(value, cfgmgrd_p->host_name, sizeof cfgmgrd_p->host_name);
    (void)cfgmgr_kernel_hostname_set(cfgmgrd_p, cfgmgrd_p->host_name); // logged there
}

// ---- addresses that name the device

bool take_host_address(const confd_value_t &value, ip_prefix_t *out)
{
    if (value.type != C_IPV4) {
        tip_log("A device is named by an IPv4 address: another one is ignored");
        return false;
    }
    *out = { cfgmgr_config_address(value), HOST_LENGTH };
    return true;
}

void apply_system_ip(system_change_t &change, const confd_value_t &value)
{
    cfgmgrd_t *cfgmgrd_p = change.cfgmgrd_p;
    if (cfgmgr_config_is_deleted(value)) {
        cfgmgr_if_system_update_all(cfgmgrd_p, true, true);
        cfgmgrd_p->system_ip = {};
        cfgmgrd_p->has_system_ip = 0;
        return;
    }
    ip_prefix_t address;
    if (!take_host_address(value, &address))
        return;
    if (cfgmgrd_p->has_system_ip != 0) {
        cfgmgr_if_system_update_all(cfgmgrd_p, true, true);
        cfgmgr_config_simulated_sysip(cfgmgrd_p, cfgmgrd_p->sim_device_count, true);
    }
    cfgmgrd_p->system_ip = address;
    cfgmgrd_p->has_system_ip = 1;
    cfgmgr_if_system_update_all(cfgmgrd_p, false, true);
    cfgmgr_config_simulated_sysip(cfgmgrd_p, cfgmgrd_p->sim_device_count, false);
}

void apply_quorvix_system_ip(system_change_t &change, const confd_value_t &value)
{
    cfgmgrd_t *cfgmgrd_p = change.cfgmgrd_p;
    ip_prefix_t address{};
    bool is_deleted = cfgmgr_config_is_deleted(value);
    if (!is_deleted && !take_host_address(value, &address))
        return;
    if (is_deleted || cfgmgrd_p->has_quorvix_system_ip != 0)
        cfgmgr_if_system_update_all(cfgmgrd_p, true, false);
    cfgmgrd_p->quorvix_system_ip = address;
    cfgmgrd_p->has_quorvix_system_ip = is_deleted ? 0 : 1;
    if (!is_deleted)
        cfgmgr_if_system_update_all(cfgmgrd_p, false, false);
}

void apply_site_id(system_change_t &change, const confd_value_t &value)
{
    if (cfgmgr_config_is_deleted(value)) {
        cfgmgr_vpn_update_siteid_all(change.cfgmgrd_p, true);
        change.cfgmgrd_p->site_id = 0;
        return;
    }
    change.cfgmgrd_p->site_id = static_cast<uint32_t>(cfgmgr_config_number(value));
    cfgmgr_vpn_update_siteid_all(change.cfgmgrd_p, false);
}

// ---- simulated devices

void apply_device_count(system_change_t &change, const confd_value_t &value)
{
    bool is_deleted = cfgmgr_config_is_deleted(value);
    change.cfgmgrd_p->sim_device_count = is_deleted ? 0 : static_cast<uint32_t>(cfgmgr_config_number(value));
    change.sim_count_changed = true;
}

void apply_wan_address(system_change_t &change, const confd_value_t &value)
{
    ip_addr_clear(&change.cfgmgrd_p->sim_wan_ip, AF_INET);
    if (!cfgmgr_config_is_deleted(value))
        change.cfgmgrd_p->sim_wan_ip = cfgmgr_config_address(value);
    change.sim_wan_changed = true;
}

const char *text_of(const ip_prefix_t &prefix, char (&text)[IP_ADDR_TEXT])
{
    return ip_addr_to_str(prefix.ip, text, sizeof text);
}

// ---- the walk

// A name may stand in more than one container, so a leaf is known by both.
struct leaf_row_t {
    uint32_t container;
    uint32_t leaf;
    void (*apply)(system_change_t &change, const confd_value_t &value);
};
constexpr leaf_row_t leaf_rows[] = {
    { system_system, system_host_name, apply_host_name },
    { system_system, system_system_ip, apply_system_ip },
    { system_system, system_quorvix_system_ip, apply_quorvix_system_ip },
    { system_system, system_site_id, apply_site_id },
    { system_simulation, system_device_count, apply_device_count },
    { system_simulation, system_wan_address, apply_wan_address },
};

void apply_leaf(system_change_t &change, uint32_t container, const confd_tag_value_t &leaf)
{
    for (const leaf_row_t &row : leaf_rows) {
        if (row.container == container && row.leaf == leaf.tag.tag)
            row.apply(change, leaf.v);
    }
}

void walk_leaves(system_change_t &change, uint16_t num_tv, const confd_tag_value_t *tv)
{
    std::vector<uint32_t> containers = { system_system };
    for (const confd_tag_value_t *node = tv; node != tv + num_tv; node++) {
        if (node->v.type == C_XMLBEGIN || node->v.type == C_XMLBEGINDEL)
            containers.push_back(node->tag.tag);
        else if (node->v.type == C_XMLEND && containers.size() > 1)
            containers.pop_back();
        else
            apply_leaf(change, containers.back(), *node);
    }
}

} // namespace

void cfgmgr_config_simulated_sysip(cfgmgrd_t *cfgmgrd_p, uint32_t old_count, bool is_delete)
{
    uint32_t new_count = cfgmgrd_p->sim_device_count;
    char text[IP_ADDR_TEXT];
    ip_prefix_t address = cfgmgrd_p->system_ip;
    for (uint32_t i = 1; (is_delete || old_count != new_count) && i <= old_count; i++) {
        ip_addr_next_v4(&address.ip);
        cfgmgr_if_simulated_system_del(cfgmgrd_p, address, static_cast<int>(i));
        tip_log("Del i: %d new sys ip %s", static_cast<int>(i), text_of(address, text));
    }
    if (is_delete || (old_count == 0 && new_count == 0))
        return;
    address = { cfgmgrd_p->system_ip.ip, HOST_LENGTH };
    tip_log("Sys ip: %s Old num device: %d New num device: %d", text_of(address, text), static_cast<int>(old_count),
            static_cast<int>(new_count));
    // Without an address of its own the device has none to count from: the devices follow when it gets one.
    for (uint32_t i = 1; cfgmgrd_p->has_system_ip != 0 && i <= new_count; i++) {
        ip_addr_next_v4(&address.ip);
        cfgmgr_if_simulated_system_add(cfgmgrd_p, address, static_cast<int>(i));
        tip_log("Add i: %d New sys ip %s", static_cast<int>(i), text_of(address, text));
    }
}

void cfgmgr_config_simulated_wan_ip(cfgmgrd_t *cfgmgrd_p, uint32_t old_count, bool is_delete)
{
    uint32_t new_count = cfgmgrd_p->sim_device_count;
    if (old_count == 0 && new_count == 0)
        return;
    char text[IP_ADDR_TEXT];
    ip_prefix_t address = { cfgmgrd_p->sim_wan_ip, HOST_LENGTH };
    if (is_delete || old_count != new_count) {
        tip_log("Del i:0 new loopback wan ip %s", text_of(address, text));
        for (uint32_t i = 1; i <= old_count; i++) {
            ip_addr_next_v4(&address.ip);
            cfgmgr_if_simulated_wan_del(cfgmgrd_p, address, static_cast<int>(i));
            tip_log("Del i: %d new loopback wan ip %s", static_cast<int>(i), text_of(address, text));
        }
    }
    address.ip = cfgmgrd_p->sim_wan_ip;
    // The first device has the configured address itself.
    for (uint32_t i = 1; !is_delete && i <= new_count; i++) {
        cfgmgr_if_simulated_wan_add(cfgmgrd_p, address, static_cast<int>(i));
        tip_log("Add i: %d New wan_intf loopback ip %s", static_cast<int>(i), text_of(address, text));
        ip_addr_next_v4(&address.ip);
    }
}

int32_t cfgmgr_config_system(tconfd_sub *row, int32_t, uint8_t, confd_value_t *, uint16_t num_tv, confd_tag_value_t *tv)
{
    cfgmgr_timer_keepalive();
    system_change_t change{ static_cast<cfgmgrd_t *>(row->ctx->reg.app_ctx) };
    uint32_t old_count = change.cfgmgrd_p->sim_device_count;
    walk_leaves(change, num_tv, tv);
    if (change.sim_count_changed)
        cfgmgr_config_simulated_sysip(change.cfgmgrd_p, old_count, false);
    if (change.sim_wan_changed)
        cfgmgr_config_simulated_wan_ip(change.cfgmgrd_p, old_count, ip_addr_is_zero(change.cfgmgrd_p->sim_wan_ip));
    return 0;
}
