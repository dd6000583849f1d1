// The handler of the device's identity: names, addresses, site and simulated devices, alone and several in one commit.
#include "cfgmgr/network/cfgmgr_config_system.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "tests/unit/cfgmgr_env.h"
#include "yang/corvane-system.h"

#include <algorithm>
#include <arpa/inet.h>

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

class system_settings : public cfgmgr_env
{
protected:
    system_settings()
    {
        daemon.timer_mgr_p = timer_mgr_create(TIMER_RES_10MS, nullptr, nullptr, nullptr, TIMER_MASK_ALL);
        EXPECT_EQ(cfgmgr_vpn_init(&daemon), 0);
        EXPECT_EQ(cfgmgr_if_init(&daemon), 0);
        root.make_dir("etc");
        ctx.reg.app_ctx = &daemon;
        row.ctx = &ctx;
        log_clear();
    }
    ~system_settings() override
    {
        cfgmgr_vpn_deinit(&daemon);
        cfgmgr_if_deinit(&daemon);
        timer_mgr_delete(daemon.timer_mgr_p);
    }

    void configure(changes_t changes)
    {
        log_clear();
        EXPECT_EQ(
            cfgmgr_config_system(&row, MOP_MODIFIED, 0, nullptr, static_cast<uint16_t>(changes.size()), changes.data()),
            0);
    }
    void simulate(changes_t inner)
    {
        inner.insert(inner.begin(), mark(system_simulation, C_XMLBEGIN));
        inner.push_back(mark(system_simulation, C_XMLEND));
        configure(inner);
    }
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
    configure({ mark(system_system, C_XMLBEGIN), mark(system_archive, C_XMLBEGIN), leaf(system_host_name, buf("no")),
                leaf(system_device_count, u32(3)), mark(system_archive, C_XMLEND), leaf(system_site_id, u32(7)),
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

} // namespace
