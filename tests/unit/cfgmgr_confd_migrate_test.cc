#include "cfgmgr/daemon/cfgmgr_confd_migrate.h"
#include "tests/unit/cfgmgr_env.h"

namespace
{

using calls_t = std::vector<std::string>;

class confd_migration : public cfgmgr_env
{
protected:
    using step_t = int (*)(cfgmgrd_t *cfgmgrd_p, int maapi, int th);

    calls_t run(step_t step, int expected = 0)
    {
        agent().calls.clear();
        EXPECT_EQ(step(&daemon, 0, 1), expected);
        calls_t writes;
        for (const std::string &call : agent().calls) {
            if (call.starts_with("maapi_"))
                writes.push_back(call.substr(6));
        }
        return writes;
    }
    static void put(const std::string &path, const confd_value_t &value) { agent().leaves[path] = value; }
    static void list(const std::string &path, int entries) { agent().instances[path] = entries; }
};

confd_value_t u16(uint16_t value)
{
    confd_value_t v{};
    CONFD_SET_UINT16(&v, value);
    return v;
}

confd_value_t color(int32_t value)
{
    confd_value_t v{};
    CONFD_SET_ENUM_VALUE(&v, value);
    return v;
}

TEST_F(confd_migration, nothing_is_restarted_by_itself)
{
    EXPECT_EQ(run(cfgmgr_confd_startup_set_daemon_config),
              (calls_t{ "set_elem2 /system/daemon-restart false", "set_elem2 /system/daemon-reboot false",
                        "set_elem2 /system/reboot-on-failure false" }));
    EXPECT_TRUE(log_has("Setting daemon-restart to 'false'.."));
    EXPECT_TRUE(log_has("Setting reboot-on-failure to 'false'.."));
}

TEST_F(confd_migration, a_management_vpn_goes_and_a_missing_one_is_no_failure)
{
    put("/vpn/vpn-instance{512}", nothing());
    EXPECT_EQ(run(cfgmgr_confd_delete_mgmt_vpn), calls_t{ "delete /vpn/vpn-instance{512}" });
    EXPECT_EQ(run(cfgmgr_confd_delete_mgmt_vpn), calls_t{ "delete /vpn/vpn-instance{512}" });
    agent().results["maapi_delete /vpn/vpn-instance{512}"] = CONFD_ERR;
    (void)run(cfgmgr_confd_delete_mgmt_vpn, CONFD_ERR);
    EXPECT_TRUE(log_has("Failed to delete mgmt vpn (512) ("));
}

TEST_F(confd_migration, intervals_of_colors_get_their_new_name)
{
    list("/bfd/color", 3);
    put("/bfd/color[0]/color", color(1));
    put("/bfd/color[0]/interval", u32(700));
    put("/bfd/color[1]/color", color(2));
    put("/bfd/color[2]/color", color(6));
    put("/bfd/color[2]/interval", u32(900));
    EXPECT_EQ(run(cfgmgr_confd_upgrade_bfd_hello_interval),
              (calls_t{ "set_elem /bfd/color{enum 1}/hello-interval 700",
                        "set_elem /bfd/color{enum 6}/hello-interval 900" }));
}

TEST_F(confd_migration, the_data_policy_of_sites_becomes_the_first_of_several)
{
    list("/apply-policy/site-list", 2);
    put("/apply-policy/site-list[0]/name", buf("west"));
    put("/apply-policy/site-list[1]/name", buf("east"));
    put("/apply-policy/site-list[1]/data-policy", buf("slow"));
    EXPECT_EQ(run(cfgmgr_confd_upgrade_apply_data_policy),
              calls_t{ "create /apply-policy/site-list{east}/data-policy{slow}" });
}

TEST_F(confd_migration, numbers_of_lists_become_texts)
{
    list("/policy/lists/site-list", 2);
    put("/policy/lists/site-list[0]/name", buf("a"));
    list("/policy/lists/site-list[0]/site-id", 3);
    put("/policy/lists/site-list[0]/site-id[0]/id", u32(4294967295));
    put("/policy/lists/site-list[0]/site-id[1]/id", buf("100-200"));
    put("/policy/lists/site-list[0]/site-id[2]/id", buf("7-x"));
    put("/policy/lists/site-list[1]/name", buf("b"));
    EXPECT_EQ(run(cfgmgr_confd_upgrade_site_list), (calls_t{ "create /policy/lists/site-list{a}/site-id{4294967295}",
                                                             "create /policy/lists/site-list{a}/site-id{100-200}" }));
    list("/policy/lists/vpn-list", 1);
    put("/policy/lists/vpn-list[0]/name", buf("v"));
    list("/policy/lists/vpn-list[0]/vpn", 1);
    put("/policy/lists/vpn-list[0]/vpn[0]/id", u64(512));
    EXPECT_EQ(run(cfgmgr_confd_upgrade_vpn_list), calls_t{ "create /policy/lists/vpn-list{v}/vpn{512}" });
}

TEST_F(confd_migration, ports_of_a_rule_become_one_text)
{
    list("/policy/access-list", 1);
    list("/policy/access-list[0]/sequence", 2);
    put("/policy/access-list[0]/acl-name", buf("web"));
    put("/policy/access-list[0]/sequence[0]/seq-value", u16(10));
    put("/policy/access-list[0]/sequence[1]/seq-value", u16(20));
    confd_value_t values[] = { u16(80), buf("8000-8080"), buf("none"), u16(443) };
    confd_value_t ports{};
    ports.type = C_LIST;
    ports.val.list.size = std::size(values);
    ports.val.list.ptr = values;
    put("/policy/access-list[0]/sequence[1]/match/source-port", ports);
    put("/policy/access-list[0]/sequence[0]/match/destination-port", u16(53));
    EXPECT_EQ(run(cfgmgr_confd_upgrade_acl_source_port),
              calls_t{ "set_elem2 /policy/access-list{web}/sequence{20}/match/source-port 80 8000-8080 443" });
    EXPECT_EQ(run(cfgmgr_confd_upgrade_acl_destination_port),
              calls_t{ "set_elem2 /policy/access-list{web}/sequence{10}/match/destination-port 53" });
}

TEST_F(confd_migration, a_write_that_fails_does_not_hold_up_the_rest)
{
    list("/apply-policy/site-list", 2);
    for (const char *at : { "0", "1" }) {
        put(std::string("/apply-policy/site-list[") + at + "]/name", buf("s"));
        put(std::string("/apply-policy/site-list[") + at + "]/data-policy", buf(at));
    }
    agent().results["maapi_create /apply-policy/site-list{s}/data-policy{0}"] = CONFD_ERR;
    EXPECT_EQ(run(cfgmgr_confd_upgrade_apply_data_policy, CONFD_ERR).size(), 2u);
    EXPECT_TRUE(log_has("Failed to create /apply-policy/site-list{s}/data-policy{0} ("));
}

TEST_F(confd_migration, without_the_stored_configuration_nothing_is_written)
{
    list("/bfd/color", 1);
    agent().results["cdb_connect"] = CONFD_ERR;
    for (step_t step : { cfgmgr_confd_upgrade_bfd_hello_interval, cfgmgr_confd_upgrade_apply_data_policy,
                         cfgmgr_confd_upgrade_site_list, cfgmgr_confd_upgrade_acl_source_port })
        EXPECT_EQ(run(step, 16), calls_t{});
}

} // namespace
