#include "cfgmgr/daemon/cfgmgr_confd.h"
#include "cfgmgr/daemon/cfgmgr_confd_startup.h"
#include "cfgmgr/daemon/cfgmgr_deployment.h"
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_env.h"

namespace
{

using calls_t = std::vector<std::string>;

calls_t operator+(calls_t one, const calls_t &other)
{
    one.insert(one.end(), other.begin(), other.end());
    return one;
}

class startup_transaction : public cfgmgr_env
{
protected:
    startup_transaction()
    {
        daemon.tconfd_ctx_p = &ctx;
        daemon.mgmt_vpn = 1;
    }
    ~startup_transaction() override { cfgmgr_events_level = 0; }

    // What is written, without the attaching and the call's first word of each that writes a leaf as text or value.
    calls_t writes()
    {
        calls_t all;
        for (const std::string &call : std::exchange(agent().calls, {})) {
            if (call.starts_with("maapi_") && call != "maapi_attach_init")
                all.push_back(call.substr(6));
        }
        return all;
    }
    calls_t run(int expected = 0)
    {
        EXPECT_EQ(cfgmgr_confd_startup_modify_transaction(&daemon), expected);
        return writes();
    }
    void configure() { agent().leaves["/vpn/vpn-instance{0}"] = nothing(); }

    tconfd_ctx ctx{};
};

// ---- first boot

const calls_t VPNS = { "create /vpn/vpn-instance{0}", "create /vpn/vpn-instance{512}" };

calls_t with_address(const std::string &vpn)
{
    std::string path = "/vpn/vpn-instance{" + vpn + "}/interface{eth0}";
    return { "create " + path, "set_elem " + path + "/shutdown false",
             "set_elem2 " + path + "/ip/address 192.168.1.1/24" };
}

calls_t transport(const std::string &name)
{
    std::string path = "/vpn/vpn-instance{0}/interface{" + name + "}";
    return { "create " + path,
             "set_elem " + path + "/shutdown false",
             "set_elem " + path + "/ip/dhcp-client true",
             "set_elem " + path + "/ipv6/dhcp-client true",
             "create " + path + "/tunnel-interface",
             "create " + path + "/tunnel-interface/encapsulation{ipsec}" };
}

const calls_t EDGE = {
    "create /ovc/tip-adv-static-conn-version", "create /ovc/advertise{enum 2}",
    "create /ovc/advertise{enum 3}",           "set_elem2 /system/orbel/remote ztp.corvane.example",
    "set_elem /system/orbel/port 12346",       "set_elem2 /security/ipsec/authentication-type ah-sha1-hmac sha1-hmac",
};

calls_t name_and_oid(const std::string &name, int chassis)
{
    return { "set_elem2 /system/host-name " + name,
             "set_elem /confdConfig/snmpAgent/system/sysObjectID 1.3.6.1.4.1.32473.3.2." + std::to_string(chassis) };
}

struct boot_row_t {
    uint32_t personality;
    int chassis;
    int has_mgmt;
    calls_t wanted;
};

TEST_F(startup_transaction, a_new_device_gets_the_defaults_of_its_role_and_chassis_in_order)
{
    const boot_row_t rows[] = {
        { PERSONALITY_KREST, 0, 1, VPNS + with_address("512") + transport("ge0/0") + EDGE + name_and_oid("krest", 0) },
        { PERSONALITY_KREST, 1, 1, VPNS + with_address("512") + transport("ge0/0") + EDGE + name_and_oid("krest", 1) },
        { PERSONALITY_KREST, 2, 1, VPNS + with_address("512") + transport("ge2/0") + EDGE + name_and_oid("krest", 2) },
        { PERSONALITY_KREST, 3, 0, VPNS + transport("ge0/4") + EDGE + name_and_oid("krest", 3) },
        { PERSONALITY_KREST, 4, 0, VPNS + transport("ge0/4") + EDGE + name_and_oid("krest", 4) },
        { PERSONALITY_KREST, 5, 0, VPNS + transport("ge0/4") + EDGE + name_and_oid("krest", 5) },
        { PERSONALITY_KREST, 6, 0, VPNS + transport("ge0/0") + EDGE + name_and_oid("krest", 6) },
        { PERSONALITY_TARN, 6, 1, VPNS + with_address("512") + transport("ge0/0") + name_and_oid("lodest", 6) },
        { PERSONALITY_TARN, 2, 0, VPNS + transport("ge2/0") + name_and_oid("lodest", 2) },
        { PERSONALITY_LODEST, 0, 1, VPNS + with_address("0") + name_and_oid("lodest", 0) },
        { PERSONALITY_QUORVIX, 0, 1, VPNS + with_address("0") + name_and_oid("quorvix", 0) },
        { PERSONALITY_PENDRY, 0, 1, VPNS + with_address("0") + name_and_oid("pendry", 0) },
        { PERSONALITY_PENDRY, 0, 0, VPNS + with_address("0") + name_and_oid("pendry", 0) },
        { PERSONALITY_ZTP, 0, 1, VPNS + name_and_oid("lodest", 0) },
    };
    for (const boot_row_t &row : rows) {
        SCOPED_TRACE(std::to_string(row.personality) + " on chassis " + std::to_string(row.chassis));
        fake_agent_reset();
        daemon.personality = row.personality;
        daemon.mgmt_vpn = static_cast<uint8_t>(row.has_mgmt);
        device().chassis_type = row.chassis;
        EXPECT_EQ(run(), row.wanted);
    }
}

TEST_F(startup_transaction, the_start_is_told)
{
    (void)run();
    EXPECT_TRUE(log_has("Starting CFGMGR: beta(1), release(1)"));
    EXPECT_TRUE(log_has("Creating mgmt vpn (512).."));
}

TEST_F(startup_transaction, a_modem_gets_no_ipv6_address_and_its_color)
{
    startup_if_t modem = {
        .vpn_id = 0, .name = "cellular0", .has_tunnel = true, .has_dhcp = true, .address = "10.0.0.1/24"
    };
    EXPECT_EQ(cfgmgr_confd_startup_create_if(0, 1, modem), 0);
    std::string path = "/vpn/vpn-instance{0}/interface{cellular0}";
    EXPECT_EQ(writes(), (calls_t{ "create " + path, "set_elem " + path + "/shutdown false",
                                  "set_elem " + path + "/ip/dhcp-client true", "create " + path + "/tunnel-interface",
                                  "create " + path + "/tunnel-interface/encapsulation{ipsec}",
                                  "set_elem " + path + "/tunnel-interface/color/value enum 6" }));
}

// ---- what fails

TEST_F(startup_transaction, without_the_init_transaction_nothing_is_written)
{
    agent().results["maapi_attach_init"] = CONFD_ERR;
    EXPECT_EQ(run(16), calls_t{});
    EXPECT_TRUE(log_has("Failed attaching to initial transaction - scripted ("));
}

TEST_F(startup_transaction, an_address_that_is_refused_ends_it)
{
    daemon.personality = PERSONALITY_LODEST;
    agent().results["maapi_set_elem2 /vpn/vpn-instance{0}/interface{eth0}/ip/address"] = CONFD_ERR;
    EXPECT_EQ(run(2).back(), "set_elem2 /vpn/vpn-instance{0}/interface{eth0}/ip/address 192.168.1.1/24");
    EXPECT_TRUE(log_has("Failed to add static address on vpn 0 eth0 - scripted ("));
}

TEST_F(startup_transaction, what_the_device_can_do_without_does_not_hold_up_the_rest)
{
    device().chassis_type = 6;
    for (const char *failing :
         { "maapi_create /ovc/tip-adv-static-conn-version", "maapi_create /ovc/advertise{enum 2}",
           "maapi_set_elem2 /security/ipsec/authentication-type", "maapi_set_elem2 /system/host-name" })
        agent().results[failing] = CONFD_ERR;
    EXPECT_EQ(run(), VPNS + with_address("512") + transport("ge0/0") + EDGE + name_and_oid("krest", 6));
    EXPECT_TRUE(log_has("Failed to set auth types  (4294967295) scripted ("));
    EXPECT_TRUE(log_has("Failed to set /system/host-name (4294967295) scripted ("));
}

TEST_F(startup_transaction, what_the_device_needs_is_an_assertion)
{
    for (const char *failing :
         { "maapi_create /vpn/vpn-instance{0}", "maapi_create /vpn/vpn-instance{0}/interface{ge0/0}",
           "maapi_set_elem /vpn/vpn-instance{0}/interface{ge0/0}/ip/dhcp-client",
           "maapi_create /vpn/vpn-instance{0}/interface{ge0/0}/tunnel-interface",
           "maapi_set_elem2 /system/orbel/remote", "maapi_set_elem /system/orbel/port" }) {
        fake_agent_reset();
        agent().results[failing] = CONFD_ERR;
        SCOPED_TRACE(failing);
        expect_assertion([&] { (void)cfgmgr_confd_startup_modify_transaction(&daemon); }, "failed assertion");
    }
}

TEST_F(startup_transaction, a_management_vpn_that_cannot_be_made_is_only_traced)
{
    device().chassis_type = 6;
    agent().results["maapi_create /vpn/vpn-instance{512}"] = CONFD_ERR;
    EXPECT_EQ(run(), VPNS + transport("ge0/0") + EDGE + name_and_oid("krest", 6));
    EXPECT_FALSE(log_has("Failed to create mgmt vpn"));
    fake_agent_reset();
    agent().results["maapi_create /vpn/vpn-instance{512}"] = CONFD_ERR;
    cfgmgr_events_level = 3;
    (void)run();
    EXPECT_TRUE(log_has("Failed to create mgmt vpn (512) - scripted ("));
}

// ---- a device with configuration

const std::string RELOAD = "load_config 1025 ";
const std::string LOGS = "/etc/confd/init/tconfd_init_dyncfg_logs.xml";

TEST_F(startup_transaction, a_configured_edge_loses_the_received_policy_and_has_a_management_vpn)
{
    configure();
    agent().leaves["/policy-from-lodest"] = nothing();
    std::string reload = RELOAD + root.path() + LOGS;
    EXPECT_EQ(run(), calls_t({ "delete /policy-from-lodest", "create /vpn/vpn-instance{512}" }) + with_address("512") +
                         calls_t{ reload });
    EXPECT_TRUE(log_has("Done loading dynamic config file.."));
    EXPECT_EQ(run(), (calls_t{ "delete /policy-from-lodest", "create /vpn/vpn-instance{512}", reload }));
    EXPECT_FALSE(log_has("Failed to reset policy-from-lodest")) << "there was none any more";
}

TEST_F(startup_transaction, a_policy_that_cannot_be_reset_does_not_hold_up_the_rest)
{
    configure();
    agent().results["maapi_delete /policy-from-lodest"] = CONFD_ERR;
    EXPECT_EQ(run().back(), RELOAD + root.path() + LOGS);
    EXPECT_TRUE(log_has("Failed to reset policy-from-lodest (4294967295) scripted ("));
}

TEST_F(startup_transaction, a_configured_device_of_another_kind_only_reloads_the_settings_of_logs)
{
    configure();
    for (uint32_t personality : { PERSONALITY_TARN, PERSONALITY_LODEST, PERSONALITY_QUORVIX, PERSONALITY_PENDRY }) {
        daemon.personality = personality;
        EXPECT_EQ(run(), calls_t{ RELOAD + root.path() + LOGS });
    }
}

// ---- an upgrade

const calls_t UPGRADE = {
    "set_elem2 /confdConfig/snmpAgent/system/sysDescr Corvane SNMP agent",
    "set_elem /confd_dyncfg:confdConfig/snmpAgent/enabled false",
    "set_elem2 /confdConfig/snmpAgent/snmpVersions/v3 true",
    "set_elem2 /confdConfig/snmpAgent/mibs/file SNMP-COMMUNITY-MIB.bin SNMP-VIEW-BASED-ACM-MIB.bin "
    "SNMP-USER-BASED-SM-MIB.bin SNMP-TARGET-MIB.bin SNMP-NOTIFICATION-MIB.bin "
    "SNMP-FRAMEWORK-MIB.bin " CFGMGR_PRODUCT_MIBS,
    "set_elem2 /confdConfig/snmpAgent/ip 127.0.0.1",
    "set_elem2 /confdConfig/snmpAgent/port 7667",
    "set_elem2 /confdConfig/snmpAgent/snmpEngine/snmpEngineMaxMessageSize 50000",
    "set_elem2 /confdConfig/netconf/transport/tcp/enabled false",
    "set_elem2 /system/ztp-status success",
};

class startup_upgrade : public startup_transaction
{
protected:
    startup_upgrade()
    {
        configure();
        daemon.personality = PERSONALITY_LODEST;
        daemon.upgrade = 1;
        confd_value_t shut{};
        CONFD_SET_BOOL(&shut, 1);
        agent().leaves["/snmp/shutdown"] = shut;
        std::filesystem::create_directories(root.path() + "/var/confd/cdb");
    }
    void mark() { std::ofstream(marker) << "1"; }

    std::string reload = RELOAD + root.path() + LOGS;
    std::string marker = root.path() + "/var/confd/cdb/migration_pending";
};

TEST_F(startup_upgrade, runs_all_steps_in_order_and_takes_the_marker_away)
{
    mark();
    EXPECT_EQ(run(), calls_t{ reload } + UPGRADE);
    EXPECT_TRUE(log_has("Set ztp status to success after upgrade"));
    EXPECT_TRUE(log_has("Migration done"));
    EXPECT_FALSE(std::filesystem::exists(marker));
}

TEST_F(startup_upgrade, without_the_marker_the_result_tells_it)
{
    EXPECT_EQ(run(7), calls_t{ reload } + UPGRADE);
    EXPECT_FALSE(log_has("Migration done"));
}

TEST_F(startup_upgrade, a_marker_that_stays_is_told_to_those_who_trace)
{
    std::filesystem::create_directories(marker + "/held");
    (void)run();
    EXPECT_FALSE(log_has("removal of file"));
    cfgmgr_events_level = 1;
    (void)run();
    EXPECT_TRUE(log_has("removal of file '/var/confd/cdb/migration_pending' failed: Is a directory"));
}

TEST_F(startup_upgrade, a_step_that_fails_does_not_hold_up_the_rest)
{
    agent().results["maapi_set_elem2 /system/ztp-status"] = CONFD_ERR;
    agent().results["maapi_set_elem2 /confdConfig/snmpAgent/ip"] = CONFD_ERR;
    agent().leaves.erase("/snmp/shutdown");
    calls_t wanted = UPGRADE;
    wanted.erase(wanted.begin() + 1);
    EXPECT_EQ(run(7), calls_t{ reload } + wanted);
    EXPECT_TRUE(log_has("Failed to get /snmp/shutdown ("));
    EXPECT_FALSE(log_has("Set ztp status to success after upgrade"));
}

TEST_F(startup_upgrade, an_snmp_agent_that_was_served_goes_on)
{
    CONFD_SET_BOOL(&agent().leaves["/snmp/shutdown"], 0);
    EXPECT_EQ(run(7)[2], "set_elem /confd_dyncfg:confdConfig/snmpAgent/enabled true");
}

TEST_F(startup_upgrade, a_former_orchestrator_keeps_its_role_by_a_flag)
{
    const std::string create = "create /system/orbel/orbel-only";
    daemon.personality = PERSONALITY_KREST;
    auto has_flag = [&] {
        calls_t all = run(7);
        return std::count(all.begin(), all.end(), create) == 1;
    };
    EXPECT_FALSE(has_flag());
    EXPECT_TRUE(log_has("Checking to see if orbel-only flag is required"));
    EXPECT_TRUE(log_has("older version - check for orbel local"));
    EXPECT_TRUE(log_has("orbel local does not exist. Nothing to do"));
    agent().leaves["/system/orbel/local"] = nothing();
    EXPECT_TRUE(has_flag());
    agent().leaves["/system/multicast-buffer-percent"] = nothing();
    EXPECT_FALSE(has_flag());
    EXPECT_TRUE(log_has("multicast-buffer-percent exists. Nothing to do"));
    agent().leaves.erase("/system/multicast-buffer-percent");
    daemon.personality = PERSONALITY_TARN;
    EXPECT_FALSE(has_flag());
}

TEST_F(startup_transaction, a_second_connection_does_nothing)
{
    ctx.reg.app_ctx = &daemon;
    cfgmgr_confd_post_init(&ctx);
    EXPECT_FALSE(writes().empty());
    cfgmgr_confd_post_init(&ctx);
    EXPECT_EQ(agent().calls, calls_t{});
}

} // namespace
