// Files of the name service: what stands in them, where they lie, and what happens when they cannot be written.
#include "cfgmgr/network/cfgmgr_kernel_files.h"
#include "tests/unit/cfgmgr_kernel_env.h"

#include <list>
#include <sys/stat.h>

namespace
{

class kernel_files : public cfgmgr_kernel_env
{
protected:
    kernel_files()
    {
        EXPECT_EQ(cfgmgr_static_dns_init(&daemon), 0);
        for (const char *dir : { "etc", "etc/netns/5", "etc/netns/65530" })
            root.make_dir(dir);
        strlcpy(daemon.host_name, "edge1", sizeof daemon.host_name);
    }
    ~kernel_files() override
    {
        for (cfgmgr_if_t &interface : interfaces)
            avl_remove(&vpn(5)->if_db, &interface);
        cfgmgr_static_dns_deinit(&daemon);
    }
    void add_host(uint64_t vpn_id, const char *name, const std::vector<const char *> &addresses)
    {
        auto *host = static_cast<cfgmgr_static_host_t *>(calloc(1, sizeof(cfgmgr_static_host_t)));
        host->vpn_id = vpn_id;
        strlcpy(host->host_name, name, sizeof host->host_name);
        for (const char *address : addresses)
            host->addrs[host->addr_count++] = prefix_of(address, 0).ip;
        avl_add(daemon.static_dns, host);
    }
    cfgmgr_if_t &add_if(const char *name, uint32_t v4_servers, uint32_t v6_servers)
    {
        cfgmgr_if_t &interface = interfaces.emplace_back(make_if(name));
        std::string number = std::to_string(interfaces.size());
        for (uint32_t i = 0; i < v4_servers; i++)
            interface.dhcp_dns[i] = static_cast<uint32_t>(0x0a000000 + (interfaces.size() << 8) + i + 1);
        for (uint32_t i = 0; i < v6_servers; i++)
            interface.dhcp6_dns[i] = prefix_of(("2001:db8:" + number + "::" + std::to_string(i + 1)).c_str(), 0).ip;
        interface.dhcp_dns_count = v4_servers;
        interface.dhcp6_dns_count = v6_servers;
        avl_add(&vpn(5)->if_db, &interface);
        return interface;
    }

    std::list<cfgmgr_if_t> interfaces;
    const std::string HOSTS_OF_EDGE1 = "127.0.0.1       localhost.localdomain           localhost\n"
                                       "127.0.0.1\t     edge1\n";
    const std::string RESOLVERS = "options timeout:1\n#Corvane conf\n";
};

// ---- hosts

TEST_F(kernel_files, static_hosts_are_those_of_the_vpn_by_name_with_all_their_addresses)
{
    add_host(5, "web", { "10.0.0.2", "2001:db8::2" });
    add_host(5, "db", { "10.0.0.3" });
    add_host(4, "other", { "10.0.0.4" });
    add_host(6, "another", { "10.0.0.6" });
    EXPECT_EQ(cfgmgr_hosts_render(&daemon, 5), HOSTS_OF_EDGE1 + "10.0.0.3       db\n"
                                                                "10.0.0.2       web\n"
                                                                "2001:db8::2       web\n");
    EXPECT_EQ(cfgmgr_hosts_render(&daemon, 0), HOSTS_OF_EDGE1);
    ASSERT_NE(cfgmgr_static_host_find(&daemon, 5, "web"), nullptr);
    EXPECT_EQ(cfgmgr_static_host_find(&daemon, 5, "web")->addr_count, 2u);
    EXPECT_EQ(cfgmgr_static_host_find(&daemon, 4, "web"), nullptr);
    cfgmgr_static_dns_deinit(&daemon);
    EXPECT_EQ(cfgmgr_hosts_render(&daemon, 5), HOSTS_OF_EDGE1) << "before the table is there";
}

TEST_F(kernel_files, hosts_lie_beside_the_namespace_and_are_written_in_place)
{
    root.write("etc/netns/5/hosts", std::string(4096, 'x'));
    struct stat before;
    struct stat after;
    ASSERT_EQ(stat(root.path("etc/netns/5/hosts").c_str(), &before), 0);
    EXPECT_EQ(cfgmgr_kernel_update_host(&daemon, 5), 0);
    EXPECT_EQ(root.read("etc/netns/5/hosts"), HOSTS_OF_EDGE1);
    EXPECT_FALSE(root.has("etc/hosts"));
    ASSERT_EQ(stat(root.path("etc/netns/5/hosts").c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino) << "programs in the namespace see it through a bind mount";
    EXPECT_EQ(cfgmgr_kernel_update_host(&daemon, 0), 0);
    EXPECT_EQ(root.read("etc/hosts"), HOSTS_OF_EDGE1);
    EXPECT_EQ(cfgmgr_kernel_update_host(&daemon, 6), 7);
    EXPECT_TRUE(log_has("File open of " + root.path("etc/netns/6/hosts") + " failed: No such file or directory\n"));
}

// ---- host name

TEST_F(kernel_files, a_host_name_goes_to_the_kernel_the_chassis_and_all_vpns_but_the_internal_one)
{
    device_chassis_set("krest-V1");
    EXPECT_EQ(cfgmgr_vpn_find_or_create(&daemon, 65530, 0), 0);
    forget();
    EXPECT_EQ(cfgmgr_kernel_hostname_set(&daemon, "edge1"), 0);
    EXPECT_EQ(device().take_effects(), effects_t{ "hostname edge1" });
    EXPECT_EQ(root.read("etc/hostname"), "edge1\n");
    EXPECT_STREQ(device().chassis->host_name, "edge1");
    EXPECT_EQ(root.read("etc/hosts"), HOSTS_OF_EDGE1);
    EXPECT_EQ(root.read("etc/netns/5/hosts"), HOSTS_OF_EDGE1);
    EXPECT_FALSE(root.has("etc/netns/65530/hosts"));
}

TEST_F(kernel_files, a_host_name_that_the_kernel_refuses_changes_nothing)
{
    device().kernel.errors = { { "hostname", EPERM } };
    EXPECT_EQ(cfgmgr_kernel_hostname_set(&daemon, "edge1"), 15);
    EXPECT_TRUE(log_has("Failed to set hostname to edge1: Operation not permitted"));
    EXPECT_FALSE(root.has("etc/hostname"));
    EXPECT_FALSE(root.has("etc/hosts"));
}

TEST_F(kernel_files, a_host_name_file_that_cannot_be_written_does_not_stop_the_rest)
{
    root.make_dir("etc/hostname");
    EXPECT_EQ(cfgmgr_kernel_hostname_set(&daemon, "edge1"), 0);
    EXPECT_TRUE(log_has("Failed to update file '/etc/hostname': Is a directory"));
    EXPECT_TRUE(root.has("etc/hosts"));
}

// ---- resolvers

TEST_F(kernel_files, configured_resolvers_come_first_then_those_of_dhcp_by_interface)
{
    vpn(5)->dns_primary = prefix_of("10.9.9.1", 0).ip;
    vpn(5)->dns_secondary = prefix_of("2001:db8:9::2", 0).ip;
    add_if("ge0_2", 1, 0);
    add_if("ge0_1", 1, 1);
    add_if("ge0_0", 3, 3).shutdown = 1;
    EXPECT_EQ(cfgmgr_resolv_render(*vpn(5)), RESOLVERS + "nameserver 10.9.9.1\n"
                                                         "nameserver 2001:db8:9::2\n"
                                                         "nameserver 10.0.2.1\n"
                                                         "nameserver 2001:db8:2::1\n"
                                                         "nameserver 10.0.1.1\n");
    EXPECT_EQ(cfgmgr_resolv_render(*vpn(0)), RESOLVERS);
}

TEST_F(kernel_files, at_most_three_resolvers_of_each_family_come_from_dhcp)
{
    vpn(5)->dns_primary = prefix_of("10.9.9.1", 0).ip;
    add_if("ge0_1", 2, 1);
    add_if("ge0_2", 3, 1);
    add_if("ge0_3", 1, 3);
    add_if("ge0_4", 1, 1);
    EXPECT_EQ(cfgmgr_resolv_render(*vpn(5)), RESOLVERS + "nameserver 10.9.9.1\n"
                                                         "nameserver 10.0.1.1\n"
                                                         "nameserver 10.0.1.2\n"
                                                         "nameserver 2001:db8:1::1\n"
                                                         "nameserver 10.0.2.1\n"
                                                         "nameserver 2001:db8:2::1\n"
                                                         "nameserver 2001:db8:3::1\n");
}

TEST_F(kernel_files, resolvers_are_written_for_every_vpn_until_one_fails)
{
    EXPECT_EQ(cfgmgr_vpn_find_or_create(&daemon, 65530, 0), 0);
    EXPECT_EQ(cfgmgr_kernel_update_dns(&daemon), 0);
    for (const char *path : { "etc/resolv.conf", "etc/netns/5/resolv.conf", "etc/netns/65530/resolv.conf" }) {
        EXPECT_EQ(root.read(path), RESOLVERS);
        std::filesystem::remove(root.path(path));
    }
    root.make_dir("etc/netns/5/resolv.conf");
    log_clear();
    EXPECT_EQ(cfgmgr_kernel_update_dns(&daemon), 7);
    EXPECT_TRUE(root.has("etc/resolv.conf"));
    EXPECT_FALSE(root.has("etc/netns/65530/resolv.conf"));
    EXPECT_FALSE(log_has("ailed")) << "only at the highest level";
    cfgmgr_events_level = CFGMGR_DETAILED + 1;
    EXPECT_EQ(cfgmgr_kernel_update_dns(&daemon), 7);
    cfgmgr_events_level = 0;
    EXPECT_TRUE(log_has("File open of " + root.path("etc/netns/5/resolv.conf") + " failed: Is a directory"));
}

} // namespace
