// Identity of the device and the devices that it simulates, logins, the log on the disk, the archive. The table of leaves
// near the end says which there are and where they stand; above it, by subject, what each does.

#include "cfgmgr/network/cfgmgr_config_system.h"

#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "cfgmgr/network/cfgmgr_config_backup.h"
#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_kernel_files.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/tip_assert.h"
#include "common/tip_handle.h"
#include "common/tip_log.h"
#include "common/tip_root.h"
#include "common/tip_text.h"
#include "tconfd/tconfd_util.h"
#include "yang/corvane-system.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <unistd.h>
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

// A number, or what stands in its place when it is deleted.
int64_t number_or(const confd_value_t &value, int64_t otherwise)
{
    return cfgmgr_config_is_deleted(value) ? otherwise : cfgmgr_config_number(value);
}

bool is_true(const confd_value_t &value)
{
    return !cfgmgr_config_is_deleted(value) && cfgmgr_config_bool(value);
}

// The values of a leaf-list, at most max; none when it is deleted.
size_t values_of(const confd_value_t &value, size_t max, const confd_value_t **out)
{
    if (cfgmgr_config_is_deleted(value))
        return 0;
    tip_assert(value.type == C_LIST);
    *out = CONFD_GET_LIST(&value);
    return std::min<size_t>(CONFD_GET_LISTSIZE(&value), max);
}

// ---- role and host name

void apply_personality(system_change_t &change, const confd_value_t &value)
{
    auto number = static_cast<uint32_t>(number_or(value, 0));
    change.cfgmgrd_p->personality = tconfd_color_to_level(number);
}

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

// ---- logins

constexpr char ADMIN_REMOTE_FILE[] = "/etc/corvane/aaa_auth_admin_remote";

void apply_auth_order(system_change_t &change, const confd_value_t &value)
{
    auth_state_t &auth = change.cfgmgrd_p->auth;
    const confd_value_t *methods = nullptr;
    auth.auth_count = static_cast<uint8_t>(values_of(value, AUTH_ORDER_MAX, &methods));
    for (uint8_t i = 0; i < auth.auth_count; i++)
        auth.auth_order[i] = static_cast<uint8_t>(cfgmgr_config_number(methods[i]));
}

void apply_auth_fallback(system_change_t &change, const confd_value_t &value)
{
    change.cfgmgrd_p->auth.auth_fallback = is_true(value) ? 1 : 0;
}

// The login service looks for the file, and does not mind what is in it.
void apply_admin_remote(system_change_t &change, const confd_value_t &value)
{
    change.cfgmgrd_p->auth.admin_remote_auth = is_true(value) ? 1 : 0;
    tip_path_t path = tip_path("%s", ADMIN_REMOTE_FILE);
    if (!is_true(value)) {
        (void)unlink(path.text); // it may not be there
        return;
    }
    file_ptr file(fopen(path.text, "we"));
    if (file == nullptr || fputs("1", file.get()) < 0 || fflush(file.get()) != 0)
        tip_log("Failed to create file (%s): %d", ADMIN_REMOTE_FILE, errno);
}

void apply_radius_timeout(system_change_t &change, const confd_value_t &value)
{
    change.cfgmgrd_p->radius_state.timeout = static_cast<uint16_t>(number_or(value, RADIUS_TIMEOUT_DEFAULT));
    change.cfgmgrd_p->radius_file_dirty = 1;
}

void apply_radius_retransmit(system_change_t &change, const confd_value_t &value)
{
    change.cfgmgrd_p->radius_state.retransmit = static_cast<uint16_t>(number_or(value, RADIUS_RETRANSMIT_DEFAULT));
    change.cfgmgrd_p->radius_file_dirty = 1;
}

void apply_radius_tags(system_change_t &change, const confd_value_t &value)
{
    radius_state_t &radius = change.cfgmgrd_p->radius_state;
    const confd_value_t *tags = nullptr;
    radius.tag_count = static_cast<uint8_t>(values_of(value, RADIUS_TAGS_MAX, &tags));
    for (uint8_t i = 0; i < radius.tag_count; i++)
        cfgmgr_config_text(tags[i], radius.tags[i], sizeof radius.tags[i]);
    change.cfgmgrd_p->radius_file_dirty = 1;
}

void apply_tacacs_timeout(system_change_t &change, const confd_value_t &value)
{
    change.cfgmgrd_p->tacacs_state.timeout = static_cast<uint16_t>(number_or(value, TACACS_TIMEOUT_DEFAULT));
    change.cfgmgrd_p->tacacs_file_dirty = 1;
}

void apply_tacacs_authentication(system_change_t &change, const confd_value_t &value)
{
    change.cfgmgrd_p->tacacs_state.authentication = static_cast<uint8_t>(number_or(value, system_authentication_ascii));
}

// ---- the log on the disk

void apply_disk_enable(system_change_t &change, const confd_value_t &value)
{
    bool is_deleted = cfgmgr_config_is_deleted(value);
    if (!is_deleted && value.type != C_BOOL) {
        tip_log("type mismatch. expected %d, got %d\n", C_BOOL, value.type);
        return;
    }
    bool is_on = is_deleted || cfgmgr_config_bool(value); // the disk has a log unless told otherwise
    change.cfgmgrd_p->logging.disk.enabled = is_on ? 1 : 0;
    if (is_on)
        tip_log("'system logging disk' enabled\n");
    else
        tip_log("'system logging disk' disabled\n");
}

void apply_disk_priority(system_change_t &change, const confd_value_t &value)
{
    change.cfgmgrd_p->logging.disk.priority = static_cast<uint32_t>(number_or(value, LOGGING_PRIORITY_DEFAULT));
    if (cfgmgr_config_is_deleted(value))
        tip_log("'system logging disk priority' unconfigured\n");
    else
        tip_log("'system logging disk priority' configured\n");
}

void apply_disk_filesize(system_change_t &change, const confd_value_t &value)
{
    change.cfgmgrd_p->logging.disk.filesize = static_cast<uint32_t>(number_or(value, LOGGING_FILESIZE_DEFAULT));
    if (cfgmgr_config_is_deleted(value))
        tip_log("'system logging disk filesize' unconfigured\n");
    else
        tip_log("'system logging disk filesize' configured\n");
}

void apply_disk_filerotate(system_change_t &change, const confd_value_t &value)
{
    change.cfgmgrd_p->logging.disk.filerotate = static_cast<uint32_t>(number_or(value, LOGGING_FILEROTATE_DEFAULT));
    if (cfgmgr_config_is_deleted(value))
        tip_log("'system logging disk filerotate' unconfigured\n");
    else
        tip_log("'system logging disk filerotate' configured\n");
}

// ---- archive

constexpr uint32_t MS_PER_MINUTE = 60000;
constexpr int64_t ARCHIVE_INTERVAL_DEFAULT_MINUTES = ARCHIVE_INTERVAL_DEFAULT_MS / MS_PER_MINUTE;

void set_archive_text(const confd_value_t &value, const char *otherwise, char (&out)[ARCHIVE_TEXT_SIZE])
{
    if (cfgmgr_config_is_deleted(value))
        strlcpy(out, otherwise, sizeof out);
    else
        cfgmgr_config_text(value, out, sizeof out);
}

void apply_archive_path(system_change_t &change, const confd_value_t &value)
{
    set_archive_text(value, "", change.cfgmgrd_p->backup.archive_path);
}

void apply_archive_key(system_change_t &change, const confd_value_t &value)
{
    set_archive_text(value, ARCHIVE_SSH_ID_FILE_DEFAULT, change.cfgmgrd_p->backup.archive_ssh_id_file);
}

void apply_archive_interval(system_change_t &change, const confd_value_t &value)
{
    auto minutes = static_cast<uint32_t>(number_or(value, ARCHIVE_INTERVAL_DEFAULT_MINUTES));
    change.cfgmgrd_p->backup.archive_interval_ms = minutes * MS_PER_MINUTE; // the model keeps it within 32 bits
}

void apply_archive_vpn(system_change_t &change, const confd_value_t &value)
{
    change.cfgmgrd_p->backup.archive_vpn = static_cast<uint64_t>(number_or(value, ARCHIVE_VPN_NONE));
}

// Its settings go with it, so that a later archive does not begin with those of an earlier one.
void disable_archive(system_change_t &change, const confd_value_t &)
{
    cfgmgr_config_backup_reset(&change.cfgmgrd_p->backup);
    cfgmgr_config_backup(false, change.cfgmgrd_p);
}

// ---- the walk

// A name may stand in more than one container, so a leaf is known by both.
struct leaf_row_t {
    uint32_t container;
    uint32_t leaf;
    void (*apply)(system_change_t &change, const confd_value_t &value);
};
constexpr leaf_row_t leaf_rows[] = {
    { system_system, system_personality, apply_personality },
    { system_system, system_host_name, apply_host_name },
    { system_system, system_system_ip, apply_system_ip },
    { system_system, system_quorvix_system_ip, apply_quorvix_system_ip },
    { system_system, system_site_id, apply_site_id },
    { system_simulation, system_device_count, apply_device_count },
    { system_simulation, system_wan_address, apply_wan_address },
    { system_aaa, system_auth_order, apply_auth_order },
    { system_aaa, system_auth_fallback, apply_auth_fallback },
    { system_aaa, system_admin_remote_auth, apply_admin_remote },
    { system_aaa, system_radius_servers, apply_radius_tags },
    { system_radius, system_timeout, apply_radius_timeout },
    { system_radius, system_retransmit, apply_radius_retransmit },
    { system_tacacs, system_timeout, apply_tacacs_timeout },
    { system_tacacs, system_authentication, apply_tacacs_authentication },
    { system_disk, system_enable, apply_disk_enable },
    { system_disk, system_priority, apply_disk_priority },
    { system_file, system_size, apply_disk_filesize },
    { system_file, system_rotate, apply_disk_filerotate },
    { system_archive, system_path, apply_archive_path },
    { system_archive, system_interval, apply_archive_interval },
    { system_archive, system_vpn, apply_archive_vpn },
    { system_archive, system_ssh_id_file, apply_archive_key },
    { system_system, system_archive, disable_archive }, // the container stands here only when it is deleted
};

void apply_leaf(system_change_t &change, uint32_t container, const confd_tag_value_t &leaf)
{
    for (const leaf_row_t &row : leaf_rows) {
        if (row.container == container && row.leaf == leaf.tag.tag)
            row.apply(change, leaf.v);
    }
}

// Any change of the archive starts it anew.
void begin_container(uint32_t container)
{
    if (container == system_archive)
        tip_log("Archive config modification");
}

void end_container(system_change_t &change, uint32_t container)
{
    if (container != system_archive)
        return;
    tip_log("Archive config has been enabled or modified");
    cfgmgr_config_backup(true, change.cfgmgrd_p);
}

void walk_leaves(system_change_t &change, uint16_t num_tv, const confd_tag_value_t *tv)
{
    std::vector<uint32_t> containers = { system_system };
    for (const confd_tag_value_t *node = tv; node != tv + num_tv; node++) {
        if (node->v.type == C_XMLBEGIN || node->v.type == C_XMLBEGINDEL) {
            begin_container(node->tag.tag);
            containers.push_back(node->tag.tag);
        } else if (node->v.type == C_XMLEND && containers.size() > 1) {
            containers.pop_back();
            end_container(change, node->tag.tag);
        } else {
            apply_leaf(change, containers.back(), *node);
        }
    }
}

} // namespace

void cfgmgr_config_system_init(cfgmgrd_t *cfgmgrd_p)
{
    cfgmgrd_p->logging.disk = { 1, LOGGING_PRIORITY_DEFAULT, LOGGING_FILESIZE_DEFAULT, LOGGING_FILEROTATE_DEFAULT };
    cfgmgrd_p->radius_state.timeout = RADIUS_TIMEOUT_DEFAULT;
    cfgmgrd_p->radius_state.retransmit = RADIUS_RETRANSMIT_DEFAULT;
    cfgmgrd_p->tacacs_state.timeout = TACACS_TIMEOUT_DEFAULT;
    cfgmgr_config_backup_reset(&cfgmgrd_p->backup);
    strlcpy(cfgmgrd_p->backup.archive_last_time, ARCHIVE_DISABLED, sizeof cfgmgrd_p->backup.archive_last_time);
}

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
