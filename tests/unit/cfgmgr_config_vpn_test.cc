// Handlers of what stands below a VPN: resolvers, static hosts, services.
#include "cfgmgr/network/cfgmgr_config_vpn.h"
#include "cfgmgr/network/cfgmgr_kernel_files.h"
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_env.h"
#include "yang/corvane-vpn.h"

#include <arpa/inet.h>

namespace
{

using names_t = std::vector<std::string>;
using changes_t = std::vector<confd_tag_value_t>;

confd_value_t address(const char *text)
{
    confd_value_t v{};
    v.type = strchr(text, ':') != nullptr ? C_IPV6 : C_IPV4;
    inet_pton(v.type == C_IPV4 ? AF_INET : AF_INET6, text, &v.val);
    return v;
}

confd_value_t choice(int32_t number)
{
    confd_value_t v{};
    CONFD_SET_ENUM_VALUE(&v, number);
    return v;
}

confd_tag_value_t leaf(uint32_t tag, const confd_value_t &value)
{
    return { { tag, vpn__ns }, value };
}

std::string text_of(const ip_addr_t &ip)
{
    char text[IP_ADDR_TEXT];
    return ip.family == 0 ? "none" : ip_addr_to_str(ip, text, sizeof text);
}

// The handlers at work on a device with VPN 0 and, unless told otherwise, VPN 5.
class config_env : public cfgmgr_env
{
protected:
    config_env()
    {
        EXPECT_EQ(cfgmgr_static_dns_init(&daemon), 0);
        EXPECT_EQ(cfgmgr_vpn_init(&daemon), 0);
        EXPECT_EQ(cfgmgr_vpn_find_or_create(&daemon, 5, 0), 0);
        root.make_dir("etc/netns/5");
        ctx.reg.app_ctx = &daemon;
        row.ctx = &ctx;
        log_clear();
    }
    ~config_env() override { cfgmgr_static_dns_deinit(&daemon); }

    int32_t configure(tconfd_handler_t handler, int op, uint64_t vpn_id, const confd_value_t &key,
                      changes_t changes = {})
    {
        confd_value_t keys[] = { u64(vpn_id), key };
        return handler(&row, op, 2, keys, static_cast<uint16_t>(changes.size()),
                       op == MOP_DELETED ? nullptr : changes.data());
    }
    cfgmgr_vpn_t &vpn() { return *cfgmgr_vpn_find(&daemon, 5, nullptr); }

    tconfd_ctx ctx{};
    tconfd_sub row{};
};

// ---- resolvers

class vpn_resolvers : public config_env
{
protected:
    void set(const char *ip, int32_t role, int op = MOP_CREATED)
    {
        EXPECT_EQ(configure(cfgmgr_config_dns, op, 5, address(ip), { leaf(vpn_role, choice(role)) }), 0);
    }
    void remove(const char *ip) { EXPECT_EQ(configure(cfgmgr_config_dns, MOP_DELETED, 5, address(ip)), 0); }
    std::string both() { return text_of(vpn().dns_primary) + " " + text_of(vpn().dns_secondary); }
    std::string file() { return root.read("etc/netns/5/resolv.conf"); }
};

TEST_F(vpn_resolvers, stand_in_the_record_by_role_and_in_the_file)
{
    set("10.5.0.53", vpn_role_primary);
    EXPECT_EQ(both(), "10.5.0.53 none");
    set("2001:db8::53", vpn_role_secondary);
    EXPECT_EQ(both(), "10.5.0.53 2001:db8::53");
    EXPECT_NE(file().find("nameserver 10.5.0.53\nnameserver 2001:db8::53\n"), std::string::npos) << file();
    remove("10.5.0.53");
    EXPECT_EQ(both(), "none 2001:db8::53");
    EXPECT_EQ(file().find("10.5.0.53"), std::string::npos) << file();
}

TEST_F(vpn_resolvers, of_one_role_overwrite_each_other)
{
    set("10.5.0.53", vpn_role_primary);
    set("10.5.0.54", vpn_role_primary);
    EXPECT_EQ(both(), "10.5.0.54 none");
    remove("10.5.0.53");
    EXPECT_EQ(both(), "10.5.0.54 none") << "the overwritten one is nobody's";
    remove("10.5.0.54");
    EXPECT_EQ(both(), "none none");
}

TEST_F(vpn_resolvers, in_both_roles_are_removed_from_the_first_one)
{
    set("10.5.0.53", vpn_role_primary);
    set("10.5.0.53", vpn_role_secondary, MOP_MODIFIED);
    EXPECT_EQ(both(), "10.5.0.53 10.5.0.53");
    remove("10.5.0.53");
    EXPECT_EQ(both(), "none 10.5.0.53");
}

TEST_F(vpn_resolvers, that_validation_should_have_refused_end_the_process)
{
    auto configure_dns = [&](uint64_t vpn_id, const confd_value_t &role) {
        log_echo(true);
        (void)configure(cfgmgr_config_dns, MOP_CREATED, vpn_id, address("10.5.0.53"), { leaf(vpn_role, role) });
    };
    expect_assertion([&] { configure_dns(6, choice(vpn_role_primary)); }, "Cannot find VPN 6\n");
    expect_assertion([&] { configure_dns(5, nothing()); }, "failed assertion");
    EXPECT_EQ(configure(cfgmgr_config_dns, MOP_CREATED, 5, address("10.5.0.53"), { leaf(vpn_mtu, u32(1)) }), 0);
    EXPECT_TRUE(log_has("Unhandled dns operation " + std::to_string(static_cast<int>(vpn_mtu))));
    EXPECT_EQ(both(), "none none");
}

// ---- static hosts

class vpn_hosts : public config_env
{
protected:
    void set(const char *name, const names_t &ips, int op = MOP_CREATED, uint64_t vpn_id = 5)
    {
        std::vector<confd_value_t> values;
        for (const std::string &ip : ips)
            values.push_back(address(ip.c_str()));
        confd_value_t list{};
        list.type = C_LIST;
        list.val.list = { values.data(), static_cast<unsigned>(values.size()) };
        EXPECT_EQ(configure(cfgmgr_config_host, op, vpn_id, buf(name), { leaf(vpn_ip, list) }), 0);
    }
    void remove(const char *name) { EXPECT_EQ(configure(cfgmgr_config_host, MOP_DELETED, 5, buf(name)), 0); }
    names_t addresses(const char *name, uint64_t vpn_id = 5)
    {
        const cfgmgr_static_host_t *host = cfgmgr_static_host_find(&daemon, vpn_id, name);
        names_t texts;
        for (uint32_t i = 0; host != nullptr && i < host->addr_count; i++)
            texts.push_back(text_of(host->addrs[i]));
        return texts;
    }
    std::string file() { return root.read("etc/netns/5/hosts"); }
};

TEST_F(vpn_hosts, keep_their_addresses_in_the_order_given)
{
    set("web.example", { "10.5.0.9", "10.5.0.1", "2001:db8::9" });
    EXPECT_EQ(addresses("web.example"), (names_t{ "10.5.0.9", "10.5.0.1", "2001:db8::9" }));
    EXPECT_TRUE(log_has("Static dns entry: web.example 10.5.0.1"));
    EXPECT_NE(file().find("10.5.0.9       web.example\n10.5.0.1       web.example\n"), std::string::npos) << file();
    set("web.example", { "10.5.0.2" }, MOP_MODIFIED);
    EXPECT_EQ(addresses("web.example"), names_t{ "10.5.0.2" });
    EXPECT_EQ(avl_numnodes(daemon.static_dns), 1u);
}

TEST_F(vpn_hosts, with_more_than_eight_addresses_keep_the_first_eight)
{
    names_t ips;
    for (int i = 1; i <= 9; i++)
        ips.push_back("10.5.0." + std::to_string(i));
    set("many", ips);
    ips.pop_back();
    EXPECT_EQ(addresses("many"), ips);
    EXPECT_FALSE(log_has("10.5.0.9"));
    EXPECT_EQ(file().find("10.5.0.9"), std::string::npos) << file();
}

TEST_F(vpn_hosts, are_each_vpns_own)
{
    root.make_dir("etc");
    set("web", { "10.5.0.1" });
    set("web", { "10.0.0.1" }, MOP_CREATED, 0);
    EXPECT_EQ(addresses("web"), names_t{ "10.5.0.1" });
    EXPECT_EQ(addresses("web", 0), names_t{ "10.0.0.1" });
    remove("web");
    EXPECT_EQ(addresses("web"), names_t{});
    EXPECT_EQ(addresses("web", 0), names_t{ "10.0.0.1" });
    EXPECT_EQ(file().find("10.5.0.1"), std::string::npos) << file();
    remove("web");
    EXPECT_EQ(avl_numnodes(daemon.static_dns), 1u) << "one that is not there is removed without a word";
}

TEST_F(vpn_hosts, go_with_their_vpn)
{
    root.make_dir("etc");
    set("mail", { "10.5.0.2" });
    set("web", { "10.5.0.1" });
    set("web", { "10.0.0.1" }, MOP_CREATED, 0);
    cfgmgr_vpn_delete_by_id(&daemon, 5);
    EXPECT_EQ(addresses("mail"), names_t{});
    EXPECT_EQ(addresses("web"), names_t{});
    EXPECT_EQ(addresses("web", 0), names_t{ "10.0.0.1" });
    EXPECT_EQ(avl_numnodes(daemon.static_dns), 1u);
}

TEST_F(vpn_hosts, with_a_long_name_are_told_apart_in_all_of_it)
{
    std::string name(126, 'a');
    set((name + "b").c_str(), { "10.5.0.1" });
    set((name + "c").c_str(), { "10.5.0.2" });
    EXPECT_EQ(addresses((name + "b").c_str()), names_t{ "10.5.0.1" });
    EXPECT_EQ(addresses((name + "c").c_str()), names_t{ "10.5.0.2" });
}

TEST_F(vpn_hosts, that_validation_should_have_refused_end_the_process)
{
    auto configure_host = [&](uint64_t vpn_id, const confd_value_t &list) {
        log_echo(true);
        (void)configure(cfgmgr_config_host, MOP_MODIFIED, vpn_id, buf("web"), { leaf(vpn_ip, list) });
    };
    expect_assertion([&] { configure_host(6, nothing()); }, "Cannot find VPN 6\n");
    expect_assertion([&] { configure_host(5, nothing()); }, "failed assertion");
    EXPECT_EQ(configure(cfgmgr_config_host, MOP_CREATED, 5, buf("web"), { leaf(vpn_mtu, u32(1)) }), 0);
    EXPECT_TRUE(log_has("Unhandled host operation " + std::to_string(static_cast<int>(vpn_mtu))));
}

// ---- services

class vpn_services : public config_env
{
protected:
    void set(int op, int32_t service, uint64_t vpn_id = 5)
    {
        EXPECT_EQ(configure(cfgmgr_config_service, op, vpn_id, choice(service)), 0);
    }
    int64_t label(const std::string &path)
    {
        auto found = agent().leaves.find("/vpn/vpn-instance" + path + "/label");
        return found != agent().leaves.end() ? found->second.val.u32 : -1;
    }
    bool is_taken(uint32_t number) { return (daemon.reserved_bitmap_p[number / 8] >> number % 8 & 1) != 0; }
};

TEST_F(vpn_services, show_a_label_under_their_names)
{
    static const char *const names[] = { "FW", "IDS", "IDP", "netsvc1", "netsvc2", "netsvc3", "netsvc4", "TE" };
    for (int32_t service = 1; service <= 8; service++) {
        set(MOP_CREATED, service);
        EXPECT_EQ(label("{5}/service{" + std::string(names[service - 1]) + "}"), service);
        EXPECT_TRUE(is_taken(static_cast<uint32_t>(service)));
    }
    EXPECT_TRUE(log_has("VPN:5, service:8, oper:1, num_values:0"));
}

TEST_F(vpn_services, of_the_transport_vpn_have_label_0_and_take_none)
{
    set(MOP_CREATED, vpn_service_type_FW, 0);
    EXPECT_EQ(label("{0}/service{FW}"), 0);
    set(MOP_DELETED, vpn_service_type_FW, 0);
    EXPECT_TRUE(is_taken(0)) << "number 0 is never handed out";
    set(MOP_CREATED, vpn_service_type_FW, 5);
    EXPECT_EQ(label("{5}/service{FW}"), 1);
}

TEST_F(vpn_services, give_back_the_label_that_the_datastore_has)
{
    set(MOP_CREATED, vpn_service_type_FW);
    set(MOP_CREATED, vpn_service_type_TE);
    set(MOP_MODIFIED, vpn_service_type_TE);
    set(MOP_DELETED, vpn_service_type_FW);
    EXPECT_FALSE(is_taken(1));
    EXPECT_TRUE(is_taken(2));
    agent().leaves.clear();
    set(MOP_DELETED, vpn_service_type_TE);
    EXPECT_TRUE(is_taken(2)) << "a label that cannot be read stays taken";
    EXPECT_EQ(agent().open_connections(), 0);
}

TEST_F(vpn_services, give_their_labels_back_with_their_vpn)
{
    set(MOP_CREATED, vpn_service_type_FW);
    set(MOP_CREATED, vpn_service_type_TE);
    EXPECT_EQ(configure(cfgmgr_config_vpn, MOP_DELETED, 5, {}), 0); // without a second key
    EXPECT_FALSE(is_taken(1));
    EXPECT_FALSE(is_taken(2));
}

TEST_F(vpn_services, that_validation_should_have_refused_end_the_process)
{
    auto create = [&](const confd_value_t &service) {
        log_echo(true);
        (void)configure(cfgmgr_config_service, MOP_CREATED, 5, service);
    };
    expect_assertion([&] { create(u32(1)); }, "(service_p)->type == C_ENUM_VALUE");
    expect_assertion([&] { create(choice(9)); }, "name != nullptr");
    agent().results["cdb_set_elem"] = CONFD_ERR;
    expect_assertion([&] { create(choice(8)); }, "Failed to set label for vpn: 5 service: 8\n");
    memset(daemon.reserved_bitmap_p, 0xff, CFGMGR_BITMAP_BYTES);
    expect_assertion([&] { create(choice(8)); }, "Failed to allocate label for vpn: 5 service: 8\n");
}

} // namespace
