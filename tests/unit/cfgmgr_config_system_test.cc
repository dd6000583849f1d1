// The handler of the device's own settings: names, addresses, site and simulated devices, logins, the log, the archive;
// alone and several in one commit.
#include "cfgmgr/network/cfgmgr_config_backup.h"
#include "cfgmgr/network/cfgmgr_config_system.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "tests/unit/cfgmgr_env.h"
#include "yang/corvane-system.h"

#include <algorithm>
#include <arpa/inet.h>
#include <sys/stat.h>

namespace
{

using names_t = std::vector<std::string>;
using changes_t = std::vector<confd_tag_value_t>;

confd_value_t ipv4(const char *text)
{
    confd_value_t v{};
    v.type = C_IPV4;
    inet_pton(AF_INET, text, &v.val.ip);
    return v;
}

confd_tag_value_t leaf(uint32_t tag, const confd_value_t &value)
{
    return { { tag, system__ns }, value };
}

confd_tag_value_t mark(uint32_t tag, confd_vtype type)
{
    confd_value_t v{};
    v.type = type;
    return leaf(tag, v);
}

confd_value_t u16(uint16_t number)
{
    confd_value_t v{};
    CONFD_SET_UINT16(&v, number);
    return v;
}

confd_value_t u8(uint8_t number)
{
    confd_value_t v{};
    CONFD_SET_UINT8(&v, number);
    return v;
}

confd_value_t choice(int32_t number)
{
    confd_value_t v{};
    CONFD_SET_ENUM_VALUE(&v, number);
    return v;
}

confd_value_t boolean(bool value)
{
    confd_value_t v{};
    CONFD_SET_BOOL(&v, value ? 1 : 0);
    return v;
}

// Points to the values.
confd_value_t list(std::vector<confd_value_t> &values)
{
    confd_value_t v{};
    CONFD_SET_LIST(&v, values.data(), values.size());
    return v;
}

class system_settings : public cfgmgr_env
{
protected:
    system_settings()
    {
        daemon.timer_mgr_p = timer_mgr_create(TIMER_RES_10MS, nullptr, nullptr, nullptr, TIMER_MASK_ALL);
        daemon.backup_timer_p = timer_util_create(daemon.timer_mgr_p, TIMER_PRIO_NORMAL, TIMER_CYCLIC, 1000,
                                                  cfgmgr_config_backup_cb, &daemon, nullptr, nullptr, nullptr, "a");
        EXPECT_EQ(cfgmgr_vpn_init(&daemon), 0);
        EXPECT_EQ(cfgmgr_if_init(&daemon), 0);
        cfgmgr_config_system_init(&daemon);
        root.make_dir("etc");
        root.make_dir("etc/corvane");
        ctx.reg.app_ctx = &daemon;
        row.ctx = &ctx;
        log_clear();
    }
    ~system_settings() override
    {
        cfgmgr_vpn_deinit(&daemon);
        cfgmgr_if_deinit(&daemon);
        timer_util_delete(daemon.backup_timer_p);
        timer_mgr_delete(daemon.timer_mgr_p);
    }

    void configure(changes_t changes)
    {
        log_clear();
        EXPECT_EQ(
            cfgmgr_config_system(&row, MOP_MODIFIED, 0, nullptr, static_cast<uint16_t>(changes.size()), changes.data()),
            0);
    }
    void configure_in(uint32_t container, changes_t inner)
    {
        inner.insert(inner.begin(), mark(container, C_XMLBEGIN));
        inner.push_back(mark(container, C_XMLEND));
        configure(inner);
    }
    void simulate(changes_t inner) { configure_in(system_simulation, std::move(inner)); }
    // "NAME ADDRESS/LENGTH" of the interfaces whose names begin so, in order of name.
    names_t interfaces(const std::string &prefix)
    {
        names_t found;
        for (const cfgmgr_if_t &interface : avl_range<cfgmgr_if_t>(&daemon.if_table)) {
            char text[IP_PREFIX_TEXT];
            if (std::string(interface.name).starts_with(prefix))
                found.push_back(std::string(interface.name) + " " +
                                ip_prefix_to_str(interface.ipv4_addr, text, sizeof text));
        }
        return found;
    }

    tconfd_ctx ctx{};
    tconfd_sub row{};
};

// ---- host name

struct default_name_case_t {
    uint32_t personality;
    const char *kernel_name;
    const char *kept; // in the context
};
const default_name_case_t default_name_cases[] = {
    { PERSONALITY_KREST, "krest", "krest" },     { PERSONALITY_TARN, "krest", "krest" },
    { PERSONALITY_LODEST, "lodest", "edge7" },   { PERSONALITY_ORBEL, "krest", "krest" },
    { PERSONALITY_QUORVIX, "quorvix", "edge7" }, { PERSONALITY_PENDRY, "pendry", "edge7" },
};

TEST_F(system_settings, without_a_host_name_the_device_is_named_after_its_role)
{
    for (const default_name_case_t &c : default_name_cases) {
        daemon.personality = c.personality;
        configure({ leaf(system_host_name, buf("edge7")) });
        EXPECT_STREQ(daemon.host_name, "edge7");
        EXPECT_EQ(root.read("etc/hostname"), "edge7\n");
        configure({ leaf(system_host_name, nothing()) });
        EXPECT_EQ(root.read("etc/hostname"), c.kernel_name + std::string("\n")) << c.personality;
        EXPECT_STREQ(daemon.host_name, c.kept) << c.personality;
    }
}

TEST_F(system_settings, a_host_name_of_all_32_characters_fits)
{
    std::string name(32, 'n');
    configure({ leaf(system_host_name, buf(name.c_str())) });
    EXPECT_EQ(daemon.host_name, name);
    EXPECT_EQ(root.read("etc/hostname"), name + "\n");
}

// ---- addresses

TEST_F(system_settings, the_system_address_is_on_an_interface_and_in_the_context)
{
    configure({ leaf(system_system_ip, ipv4("10.255.0.1")) });
    EXPECT_EQ(interfaces("system"), names_t{ "system 10.255.0.1/32" });
    EXPECT_EQ(daemon.has_system_ip, 1);
    configure({ leaf(system_system_ip, ipv4("10.255.0.2")) });
    EXPECT_EQ(interfaces("system"), names_t{ "system 10.255.0.2/32" });
    configure({ leaf(system_system_ip, nothing()) });
    EXPECT_EQ(interfaces("system"), names_t{});
    EXPECT_EQ(daemon.has_system_ip, 0);
    EXPECT_TRUE(ip_addr_is_zero(daemon.system_ip.ip));
}

TEST_F(system_settings, a_changed_system_address_is_removed_before_the_new_one_is_set)
{
    configure({ leaf(system_system_ip, ipv4("10.255.0.1")) });
    device().take_effects();
    configure({ leaf(system_system_ip, ipv4("10.255.0.2")) });
    const names_t &effects = device().effects;
    auto removed = std::ranges::find(effects, "ip addr del 10.255.0.1/32 dev system");
    auto added = std::ranges::find(effects, "ip addr add 10.255.0.2/32 dev system");
    ASSERT_NE(removed, effects.end());
    ASSERT_NE(added, effects.end());
    EXPECT_LT(removed, added);
}

TEST_F(system_settings, the_two_system_addresses_do_not_touch_each_other)
{
    configure({ leaf(system_system_ip, ipv4("10.255.0.1")), leaf(system_quorvix_system_ip, ipv4("10.255.0.9")) });
    EXPECT_EQ(interfaces("system"), names_t{ "system 10.255.0.1/32" });
    EXPECT_EQ(interfaces("quorvix"), names_t{ "quorvix_system 10.255.0.9/32" });
    configure({ leaf(system_quorvix_system_ip, ipv4("10.255.0.8")) });
    EXPECT_EQ(interfaces("quorvix"), names_t{ "quorvix_system 10.255.0.8/32" });
    configure({ leaf(system_quorvix_system_ip, nothing()) });
    EXPECT_EQ(interfaces("quorvix"), names_t{});
    EXPECT_EQ(daemon.has_quorvix_system_ip, 0);
    EXPECT_EQ(interfaces("system"), names_t{ "system 10.255.0.1/32" });
}

TEST_F(system_settings, an_ipv6_system_address_is_ignored)
{
    confd_value_t address{};
    address.type = C_IPV6;
    inet_pton(AF_INET6, "2001:db8::1", &address.val.ip6);
    configure({ leaf(system_system_ip, address) });
    EXPECT_EQ(interfaces("system"), names_t{});
    EXPECT_EQ(daemon.has_system_ip, 0);
}

TEST_F(system_settings, the_site_is_kept_and_cleared)
{
    configure({ leaf(system_site_id, u32(4294967295)) });
    EXPECT_EQ(daemon.site_id, 4294967295);
    configure({ leaf(system_site_id, nothing()) });
    EXPECT_EQ(daemon.site_id, 0u);
}

TEST_F(system_settings, a_leaf_counts_in_its_own_container_only)
{
    configure({ mark(system_system, C_XMLBEGIN), mark(system_ntp, C_XMLBEGIN), leaf(system_host_name, buf("no")),
                leaf(system_device_count, u32(3)), mark(system_ntp, C_XMLEND), leaf(system_site_id, u32(7)),
                mark(system_system, C_XMLEND) });
    EXPECT_STREQ(daemon.host_name, "");
    EXPECT_EQ(daemon.sim_device_count, 0u);
    EXPECT_EQ(daemon.site_id, 7u) << "with and without a mark around all";
}

// ---- simulated devices

TEST_F(system_settings, simulated_devices_count_up_from_the_system_address)
{
    configure({ leaf(system_system_ip, ipv4("10.255.0.253")) });
    simulate({ leaf(system_device_count, u32(3)) });
    EXPECT_EQ(interfaces("system_"),
              (names_t{ "system_1 10.255.0.254/32", "system_2 10.255.1.1/32", "system_3 10.255.1.2/32" }));
    EXPECT_TRUE(log_has("Sys ip: 10.255.0.253 Old num device: 0 New num device: 3"));
    EXPECT_TRUE(log_has("Add i: 2 New sys ip 10.255.1.1"));
    simulate({ leaf(system_device_count, u32(1)) });
    EXPECT_EQ(interfaces("system_"), names_t{ "system_1 10.255.0.254/32" });
    EXPECT_TRUE(log_has("Del i: 3 new sys ip 10.255.1.2"));
    configure({ leaf(system_system_ip, ipv4("10.255.9.1")) });
    EXPECT_EQ(interfaces("system_"), names_t{ "system_1 10.255.9.2/32" });
    simulate({ leaf(system_device_count, nothing()) });
    EXPECT_EQ(interfaces("system_"), names_t{});
}

TEST_F(system_settings, an_address_and_a_count_of_one_commit_fit_together)
{
    simulate({ leaf(system_device_count, u32(2)) });
    EXPECT_EQ(interfaces("system_"), names_t{}) << "there is nothing to count from";
    configure({ leaf(system_system_ip, ipv4("10.255.0.1")), mark(system_simulation, C_XMLBEGIN),
                leaf(system_device_count, u32(1)), mark(system_simulation, C_XMLEND) });
    EXPECT_EQ(interfaces("system_"), names_t{ "system_1 10.255.0.2/32" });
    configure({ leaf(system_system_ip, ipv4("10.255.7.1")), mark(system_simulation, C_XMLBEGIN),
                leaf(system_device_count, u32(2)), mark(system_simulation, C_XMLEND) });
    EXPECT_EQ(interfaces("system_"), (names_t{ "system_1 10.255.7.2/32", "system_2 10.255.7.3/32" }));
}

TEST_F(system_settings, the_first_simulated_device_has_the_transport_address_itself)
{
    simulate({ leaf(system_device_count, u32(2)), leaf(system_wan_address, ipv4("198.51.100.254")) });
    EXPECT_EQ(interfaces("loopback_wan"),
              (names_t{ "loopback_wan_1 198.51.100.254/32", "loopback_wan_2 198.51.101.1/32" }));
    EXPECT_TRUE(log_has("Add i: 2 New wan_intf loopback ip 198.51.101.1"));
    simulate({ leaf(system_wan_address, ipv4("198.51.100.7")) });
    EXPECT_EQ(interfaces("loopback_wan"),
              (names_t{ "loopback_wan_1 198.51.100.7/32", "loopback_wan_2 198.51.100.8/32" }));
    EXPECT_FALSE(log_has("Del i:")) << "the interfaces stay, their addresses change";
    simulate({ leaf(system_wan_address, nothing()) });
    EXPECT_EQ(interfaces("loopback_wan"), names_t{});
    EXPECT_TRUE(log_has("Del i:0 new loopback wan ip 0.0.0.0"));
    EXPECT_EQ(log_count("Del i: "), 2);
}

TEST_F(system_settings, without_simulated_devices_their_addresses_do_nothing)
{
    simulate({ leaf(system_wan_address, ipv4("198.51.100.1")) });
    EXPECT_EQ(interfaces("loopback_wan"), names_t{});
    EXPECT_FALSE(log_has("i:"));
    configure({ leaf(system_system_ip, ipv4("10.255.0.1")) });
    EXPECT_FALSE(log_has("Sys ip:"));
}

// ---- role

TEST_F(system_settings, the_role_is_that_of_the_model_and_none_when_it_is_deleted)
{
    const std::pair<int32_t, uint32_t> roles[] = { { system_personality_krest, PERSONALITY_KREST },
                                                   { system_personality_lodest, PERSONALITY_LODEST },
                                                   { system_personality_quorvix, PERSONALITY_QUORVIX },
                                                   { system_personality_pendry, PERSONALITY_PENDRY },
                                                   { 9, 0 } };
    for (auto [number, personality] : roles) {
        configure({ leaf(system_personality, choice(number)) });
        EXPECT_EQ(daemon.personality, personality) << number;
    }
    configure({ leaf(system_personality, choice(system_personality_quorvix)) });
    configure({ leaf(system_personality, nothing()) });
    EXPECT_EQ(daemon.personality, 0u);
}

// ---- settings that are numbers in the context

struct number_case_t {
    const char *name;
    uint32_t container;
    uint32_t leaf;
    confd_value_t value;
    int64_t (*read)(const cfgmgrd_t &daemon);
    int64_t set, otherwise; // what is there with the value, and without
    const char *log_set = nullptr;
    const char *log_deleted = nullptr;
};
const number_case_t number_cases[] = {
    { "fallback", system_aaa, system_auth_fallback, boolean(true),
      [](const cfgmgrd_t &d) -> int64_t { return d.auth.auth_fallback; }, 1, 0 },
    { "radius_timeout", system_radius, system_timeout, u16(1000),
      [](const cfgmgrd_t &d) -> int64_t { return d.radius_state.timeout; }, 1000, 5 },
    { "radius_retransmit", system_radius, system_retransmit, u16(999),
      [](const cfgmgrd_t &d) -> int64_t { return d.radius_state.retransmit; }, 999, 3 },
    { "tacacs_timeout", system_tacacs, system_timeout, u16(300),
      [](const cfgmgrd_t &d) -> int64_t { return d.tacacs_state.timeout; }, 300, 5 },
    { "tacacs_authentication", system_tacacs, system_authentication, choice(system_authentication_pap),
      [](const cfgmgrd_t &d) -> int64_t { return d.tacacs_state.authentication; }, 1, 0 },
    { "disk", system_disk, system_enable, boolean(false),
      [](const cfgmgrd_t &d) -> int64_t { return d.logging.disk.enabled; }, 0, 1, "'system logging disk' disabled\n",
      "'system logging disk' enabled\n" },
    { "disk_priority", system_disk, system_priority, choice(3),
      [](const cfgmgrd_t &d) -> int64_t { return d.logging.disk.priority; }, 3, 6,
      "'system logging disk priority' configured\n", "'system logging disk priority' unconfigured\n" },
    { "disk_filesize", system_file, system_size, u16(20),
      [](const cfgmgrd_t &d) -> int64_t { return d.logging.disk.filesize; }, 20, 10,
      "'system logging disk filesize' configured\n", "'system logging disk filesize' unconfigured\n" },
    { "disk_filerotate", system_file, system_rotate, u8(2),
      [](const cfgmgrd_t &d) -> int64_t { return d.logging.disk.filerotate; }, 2, 10,
      "'system logging disk filerotate' configured\n", "'system logging disk filerotate' unconfigured\n" },
};

TEST_F(system_settings, a_number_is_kept_and_gives_way_to_its_default)
{
    for (const number_case_t &row : number_cases) {
        EXPECT_EQ(row.read(daemon), row.otherwise) << row.name << " before any configuration";
        configure_in(row.container, { leaf(row.leaf, row.value) });
        EXPECT_EQ(row.read(daemon), row.set) << row.name;
        EXPECT_TRUE(row.log_set == nullptr || log_has(row.log_set)) << row.name;
        configure_in(row.container, { leaf(row.leaf, nothing()) });
        EXPECT_EQ(row.read(daemon), row.otherwise) << row.name << " deleted";
        EXPECT_TRUE(row.log_deleted == nullptr || log_has(row.log_deleted)) << row.name;
    }
}

TEST_F(system_settings, a_switch_of_another_type_is_told_and_ignored)
{
    configure_in(system_disk, { leaf(system_enable, u8(0)) });
    EXPECT_EQ(daemon.logging.disk.enabled, 1);
    EXPECT_TRUE(log_has("type mismatch. expected " + std::to_string(C_BOOL) + ", got " + std::to_string(C_UINT8)));
}

TEST_F(system_settings, servers_of_logs_do_not_change_the_log_on_the_disk)
{
    configure({ mark(system_logging, C_XMLBEGIN), mark(system_server, C_XMLBEGIN), leaf(system_priority, choice(2)),
                mark(system_server, C_XMLEND), mark(system_logging, C_XMLEND) });
    EXPECT_EQ(daemon.logging.disk.priority, 6u);
}

// ---- logins

TEST_F(system_settings, methods_of_login_are_kept_in_their_order)
{
    std::vector<confd_value_t> methods = { choice(system_auth_order_tacacs), choice(system_auth_order_local) };
    configure_in(system_aaa, { leaf(system_auth_order, list(methods)) });
    ASSERT_EQ(daemon.auth.auth_count, 2);
    EXPECT_EQ(daemon.auth.auth_order[0], 2);
    EXPECT_EQ(daemon.auth.auth_order[1], 0);
    methods.assign(9, choice(system_auth_order_radius));
    configure_in(system_aaa, { leaf(system_auth_order, list(methods)) });
    EXPECT_EQ(daemon.auth.auth_count, 3) << "more than there is room for";
    configure_in(system_aaa, { leaf(system_auth_order, nothing()) });
    EXPECT_EQ(daemon.auth.auth_count, 0);
}

TEST_F(system_settings, tags_of_radius_servers_are_kept_to_the_last_character)
{
    std::string longest(32, 't');
    std::vector<confd_value_t> tags = { buf("one"), buf(longest.c_str()) };
    configure_in(system_aaa, { leaf(system_radius_servers, list(tags)) });
    ASSERT_EQ(daemon.radius_state.tag_count, 2);
    EXPECT_STREQ(daemon.radius_state.tags[0], "one");
    EXPECT_EQ(daemon.radius_state.tags[1], longest);
    tags.assign(12, buf("x"));
    configure_in(system_aaa, { leaf(system_radius_servers, list(tags)) });
    EXPECT_EQ(daemon.radius_state.tag_count, 8) << "more than there is room for";
    configure_in(system_aaa, { leaf(system_radius_servers, nothing()) });
    EXPECT_EQ(daemon.radius_state.tag_count, 0);
}

TEST_F(system_settings, a_file_of_servers_is_out_of_date_after_a_change_of_what_stands_in_it)
{
    struct dirty_case_t {
        uint32_t container, leaf;
        uint8_t radius, tacacs;
    };
    const dirty_case_t cases[] = {
        { system_radius, system_timeout, 1, 0 },        { system_radius, system_retransmit, 1, 0 },
        { system_aaa, system_radius_servers, 1, 0 },    { system_tacacs, system_timeout, 0, 1 },
        { system_tacacs, system_authentication, 0, 0 }, { system_aaa, system_auth_order, 0, 0 }
    };
    for (const dirty_case_t &row : cases) {
        daemon.radius_file_dirty = daemon.tacacs_file_dirty = 0;
        configure_in(row.container, { leaf(row.leaf, nothing()) });
        EXPECT_EQ(daemon.radius_file_dirty, row.radius) << row.leaf;
        EXPECT_EQ(daemon.tacacs_file_dirty, row.tacacs) << row.leaf;
    }
}

TEST_F(system_settings, the_login_service_sees_by_a_file_that_servers_know_the_admin)
{
    configure_in(system_aaa, { leaf(system_admin_remote_auth, boolean(true)) });
    EXPECT_EQ(root.read("etc/corvane/aaa_auth_admin_remote"), "1");
    EXPECT_EQ(daemon.auth.admin_remote_auth, 1);
    for (const confd_value_t &off : { boolean(false), nothing() }) {
        configure_in(system_aaa, { leaf(system_admin_remote_auth, off) });
        struct stat info;
        EXPECT_NE(stat((root.path() + "/etc/corvane/aaa_auth_admin_remote").c_str(), &info), 0);
        EXPECT_EQ(daemon.auth.admin_remote_auth, 0);
    }
    EXPECT_EQ(rmdir((root.path() + "/etc/corvane").c_str()), 0);
    configure_in(system_aaa, { leaf(system_admin_remote_auth, boolean(true)) });
    EXPECT_TRUE(log_has("Failed to create file (/etc/corvane/aaa_auth_admin_remote): " + std::to_string(ENOENT)));
}

// ---- archive

constexpr char SCRIPT[] = "/usr/bin/tconfd_script_backup.sh -operation save -user admin path ";

class system_archive_settings : public system_settings
{
protected:
    // Copies fail, which their threads say at their very end.
    system_archive_settings() { device().failing_program = SCRIPT; }
    // The command of the copy that the change brings.
    std::string configure_archive(const changes_t &inner)
    {
        device().take_effects();
        configure_in(system_archive, inner);
        wait_for_log("Failed to do a periodic archive of config");
        EXPECT_EQ(device().effects.size(), 1u);
        return device().effects.back();
    }
};

TEST_F(system_archive_settings, an_archive_copies_at_once_and_then_in_its_interval)
{
    std::string path(224, 'p'), key(252, 'k');
    std::string copy = configure_archive({ leaf(system_path, buf(path.c_str())), leaf(system_interval, u32(71582)),
                                           leaf(system_vpn, u64(512)), leaf(system_ssh_id_file, buf(key.c_str())) });
    EXPECT_TRUE(copy.starts_with(SCRIPT + path + "_2")) << copy;
    EXPECT_TRUE(copy.ends_with("  external-vpn 512 -ssh-id-file " + key)) << copy;
    EXPECT_EQ(daemon.backup.archive_interval_ms, 4294920000);
    EXPECT_EQ(timer_interval_ms(daemon.backup_timer_p), 4294920000);
    EXPECT_TRUE(timer_is_running(daemon.backup_timer_p));
    for (const char *text : { "Archive config modification", "Archive config has been enabled or modified",
                              "Enabling periodic archive of configuration" })
        EXPECT_EQ(log_count(text), 1) << text;
}

TEST_F(system_archive_settings, settings_that_are_deleted_take_their_defaults)
{
    (void)configure_archive({ leaf(system_path, buf("/tmp/a")), leaf(system_interval, u32(5)), leaf(system_vpn, u64(5)),
                              leaf(system_ssh_id_file, buf("/k")) });
    EXPECT_EQ(timer_interval_ms(daemon.backup_timer_p), 300000);
    std::string copy = configure_archive(
        { leaf(system_interval, nothing()), leaf(system_vpn, nothing()), leaf(system_ssh_id_file, nothing()) });
    EXPECT_TRUE(copy.starts_with(SCRIPT + std::string("/tmp/a_2"))) << copy;
    EXPECT_TRUE(copy.ends_with("  -ssh-id-file /etc/corvane/.ssh/archive_id_rsa")) << copy;
    EXPECT_EQ(copy.find("external-vpn"), std::string::npos) << copy;
    EXPECT_EQ(timer_interval_ms(daemon.backup_timer_p), 604800000);
}

TEST_F(system_archive_settings, an_archive_that_is_deleted_copies_no_more_and_leaves_nothing_to_a_later_one)
{
    (void)configure_archive({ leaf(system_path, buf("/tmp/a")), leaf(system_vpn, u64(5)) });
    configure({ leaf(system_archive, nothing()) });
    EXPECT_TRUE(log_has("Disabling periodic archive of configuration"));
    EXPECT_FALSE(timer_is_running(daemon.backup_timer_p));
    EXPECT_STREQ(daemon.backup.archive_last_time, "Disabled");
    std::string copy = configure_archive({ leaf(system_path, buf("/tmp/b")) });
    EXPECT_EQ(copy.find("external-vpn"), std::string::npos) << copy;
}

} // namespace
