// Hooks that write an operator's change in a second place: what they write, when they leave it, and what a step that
// fails means.
#include "cfgmgr/network/cfgmgr_mirror.h"
#include "tconfd/tconfd_api.h"
#include "tests/unit/cfgmgr_env.h"

#include <algorithm>

namespace
{

using names_t = std::vector<std::string>;

confd_value_t boolean(bool value)
{
    confd_value_t v{};
    CONFD_SET_BOOL(&v, value ? 1 : 0);
    return v;
}

// All hooks with one value, and one with none.
int delete_motd(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *)
{
    return cfgmgr_config_banner_motd_confd_delete(tctx, kp);
}

constexpr char BANNER[] = "/confd_dyncfg:confdConfig/cli/banner";
constexpr char RAPID[] = "/vpn/vpn-instance{7}/interface{ge0/1}/ipv6/dhcp-rapid-commit";
constexpr char CLIENT[] = "/vpn/vpn-instance{7}/interface{ge0/1}/ipv6/dhcp-client";

class mirrors : public cfgmgr_env
{
protected:
    mirrors()
    {
        ctx.maapi_fd = 5;
        dx.d_opaque = &ctx;
        tctx.dx = &dx;
        agent().leaves["/snmp/shutdown"] = boolean(false);
    }
    int call(decltype(cfgmgr_system_host_name_set) *hook, confd_value_t value)
    {
        agent().calls.clear();
        log_clear();
        confd_hkeypath_t kp = keypath(
            { "vpn", "vpn-instance", { { u64(7) } }, "interface", { { buf("ge0/1") } }, "ipv6", "dhcp-client" });
        return hook(&tctx, &kp, &value);
    }
    // What was written, between an attachment and its end.
    names_t edits()
    {
        names_t calls = agent().calls;
        EXPECT_GE(calls.size(), 2u);
        EXPECT_EQ(calls.front(), "maapi_attach");
        EXPECT_EQ(calls.back(), "maapi_detach");
        std::erase_if(calls, [](const std::string &made) {
            return !made.starts_with("maapi_set_elem") && !made.starts_with("maapi_delete");
        });
        return calls;
    }

    tconfd_ctx ctx{};
    confd_daemon_ctx dx{};
    confd_trans_ctx tctx{};
};

TEST_F(mirrors, the_banner_of_later_is_the_agents_and_goes_with_it)
{
    EXPECT_EQ(call(cfgmgr_config_banner_motd_confd_create, buf("hello")), CONFD_OK);
    EXPECT_EQ(edits(), names_t{ std::string("maapi_set_elem ") + BANNER + " hello" });
    EXPECT_EQ(call(delete_motd, nothing()), CONFD_OK);
    EXPECT_EQ(edits(), names_t{ std::string("maapi_delete ") + BANNER });
    EXPECT_EQ(call(delete_motd, nothing()), -1) << "there is none";
    EXPECT_EQ(edits().size(), 1u);
}

TEST_F(mirrors, the_host_name_is_that_of_snmp_unless_snmp_is_off_or_has_a_name)
{
    EXPECT_EQ(call(cfgmgr_system_host_name_set, buf("edge")), CONFD_OK);
    EXPECT_EQ(edits(), names_t{ "maapi_set_elem /SNMPv2_MIB:SNMPv2-MIB/system/sysName edge" });
    agent().leaves["/snmp/name"] = buf("own");
    EXPECT_EQ(call(cfgmgr_system_host_name_set, buf("edge")), CONFD_OK);
    EXPECT_EQ(edits(), names_t{});
    agent().leaves.erase("/snmp/name");
    agent().leaves["/snmp/shutdown"] = boolean(true);
    EXPECT_EQ(call(cfgmgr_system_host_name_set, buf("edge")), CONFD_OK);
    EXPECT_EQ(edits(), names_t{});
}

TEST_F(mirrors, without_a_client_there_is_no_rapid_commit)
{
    agent().leaves[CLIENT] = boolean(false);
    EXPECT_EQ(call(cfgmgr_vpn_if_set_dhcp_rapid_commit, boolean(false)), CONFD_OK);
    EXPECT_EQ(edits(), names_t{ std::string("maapi_set_elem ") + RAPID + " false" });
    agent().leaves[RAPID] = boolean(false);
    EXPECT_EQ(call(cfgmgr_vpn_if_set_dhcp_rapid_commit, boolean(false)), CONFD_OK);
    EXPECT_EQ(edits(), names_t{}) << "it is off already";
    agent().leaves[RAPID] = boolean(true);
    EXPECT_EQ(call(cfgmgr_vpn_if_set_dhcp_rapid_commit, boolean(false)), CONFD_OK);
    EXPECT_EQ(edits(), names_t{ std::string("maapi_set_elem ") + RAPID + " false" });
    agent().leaves[CLIENT] = boolean(true);
    EXPECT_EQ(call(cfgmgr_vpn_if_set_dhcp_rapid_commit, boolean(true)), CONFD_OK);
    EXPECT_EQ(edits(), names_t{});
}

TEST_F(mirrors, logs_of_the_agent_are_off_while_they_are_disabled)
{
    for (bool is_disabled : { true, false }) {
        std::string enabled = is_disabled ? " false" : " true";
        EXPECT_EQ(call(cfgmgr_system_logs_audit_set, boolean(is_disabled)), CONFD_OK);
        EXPECT_EQ(edits(), (names_t{ "maapi_set_elem /confdConfig/logs/auditLog/enabled" + enabled,
                                     "maapi_set_elem /confdConfig/logs/auditLog/file/enabled" + enabled }));
        EXPECT_EQ(call(cfgmgr_system_logs_netconf_set, boolean(is_disabled)), CONFD_OK);
        EXPECT_EQ(edits(), (names_t{ "maapi_set_elem /confdConfig/logs/netconfLog/enabled" + enabled,
                                     "maapi_set_elem /confdConfig/logs/netconfLog/file/enabled" + enabled }));
    }
}

int remove_audit(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *)
{
    return cfgmgr_system_logs_audit_remove(tctx, kp);
}

int remove_netconf(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *)
{
    return cfgmgr_system_logs_netconf_remove(tctx, kp);
}

TEST_F(mirrors, logs_that_were_off_are_on_again_when_the_word_is_taken_back)
{
    const std::pair<decltype(cfgmgr_system_host_name_set) *, std::string> cases[] = {
        { remove_audit, "/confdConfig/logs/auditLog" }, { remove_netconf, "/confdConfig/logs/netconfLog" }
    };
    for (const auto &[hook, log] : cases) {
        EXPECT_EQ(call(hook, nothing()), CONFD_OK);
        EXPECT_EQ(edits(), names_t{}) << log << " is on by itself";
        agent().leaves[log + "/enabled"] = boolean(true);
        agent().leaves[log + "/file/enabled"] = boolean(false);
        EXPECT_EQ(call(hook, nothing()), CONFD_OK);
        EXPECT_EQ(edits(), names_t{ "maapi_set_elem " + log + "/file/enabled true" });
    }
}

struct failure_case_t {
    decltype(cfgmgr_system_host_name_set) *hook;
    confd_value_t value;
    std::string failing; // call of the agent
    int result;
    const char *line;
};

TEST_F(mirrors, a_step_that_fails_refuses_and_is_told_and_the_transaction_is_given_back)
{
    agent().leaves[CLIENT] = boolean(false);
    const failure_case_t cases[] = {
        { cfgmgr_system_host_name_set, buf("edge"), "maapi_attach", 1, "maapi attach for system host-name set (" },
        { cfgmgr_system_host_name_set, buf("edge"), "maapi_detach", 1, "maapi detach for system host-name set (" },
        { cfgmgr_system_host_name_set, buf("edge"), "get /snmp/shutdown", 1,
          "maapi get elem for system host-name set (" },
        { cfgmgr_system_host_name_set, buf("edge"), "maapi_set_elem /SNMPv2_MIB:SNMPv2-MIB/system/sysName", 1,
          "maapi set elem for system host-name set (" },
        { cfgmgr_config_banner_motd_confd_create, buf("hi"), std::string("maapi_set_elem ") + BANNER, -1,
          "maapi set elem for post-login-message set (" },
        { delete_motd, nothing(), "maapi_attach", -1, "maapi attach for post-login-message delete (" },
        { cfgmgr_vpn_if_set_dhcp_rapid_commit, boolean(false), std::string("get ") + CLIENT, 1,
          "maapi get elem for dhcp-rapid-commit set (" },
        { cfgmgr_vpn_if_set_dhcp_rapid_commit, boolean(false), std::string("maapi_set_elem ") + RAPID, 1,
          "maapi set elem for dhcp-rapid-commit set (" },
        { cfgmgr_system_logs_audit_set, boolean(true), "maapi_set_elem /confdConfig/logs/auditLog/file/enabled", 1,
          "maapi set elem for system logs audit set (" },
        { cfgmgr_system_logs_netconf_set, boolean(true), "maapi_set_elem /confdConfig/logs/netconfLog/enabled", 1,
          "maapi set elem for system logs netconf set (" },
    };
    for (const failure_case_t &row : cases) {
        agent().results = { { row.failing, CONFD_ERR } };
        EXPECT_EQ(call(row.hook, row.value), row.result) << row.failing;
        EXPECT_EQ(log_count(std::string("Failed to do ") + row.line), 1) << row.line;
        EXPECT_EQ(agent().count("maapi_detach"), row.failing == "maapi_attach" ? 0 : 1) << row.failing;
    }
}

} // namespace
