// Which callpoints the daemon answers with nothing to show, by personality and chassis.
#include "cfgmgr/daemon/cfgmgr_callpoints.h"
#include "common/tip_text.h"
#include "tests/unit/cfgmgr_env.h"

#include <algorithm>
#include <set>

namespace
{

class callpoints : public cfgmgr_env
{
protected:
    callpoints() { ctx.reg.app_ctx = &daemon; }

    void be(uint32_t personality, int chassis_type)
    {
        daemon.personality = personality;
        device().chassis_type = chassis_type;
    }
    std::vector<std::string> registered()
    {
        std::vector<std::string> names;
        for (const std::string &call : agent().calls_of("confd_register_data_cb"))
            names.push_back(call.substr(call.find(' ') + 1));
        return names;
    }
    // The names with nothing behind them, as a device registers them.
    std::vector<std::string> empty_ones()
    {
        agent().calls.clear();
        cfgmgr_register_for_krest_callpoints_on_lodest(&ctx);
        return registered();
    }
    void plug_in(const std::string &port, const std::string &vendor)
    {
        root.write("sys/bus/usb/devices/" + port + "/idVendor", vendor + "\n");
    }
    tconfd_ctx ctx{};
};

std::vector<std::string> names_of(std::vector<callpoint_group_t> groups)
{
    std::vector<std::string> names;
    for (callpoint_group_t group : groups) {
        std::span<const char *const> of_group = cfgmgr_callpoint_names(group);
        names.insert(names.end(), of_group.begin(), of_group.end());
    }
    return names;
}

TEST_F(callpoints, tables_hold_each_name_once)
{
    EXPECT_EQ(cfgmgr_callpoint_names(CALLPOINTS_WWAN).size(), 6u);
    EXPECT_EQ(cfgmgr_callpoint_names(CALLPOINTS_WLAN).size(), 4u);
    EXPECT_EQ(cfgmgr_callpoint_names(CALLPOINTS_GENERAL).size(), 132u);
    EXPECT_EQ(cfgmgr_callpoint_names(CALLPOINTS_OVERLAY).size(), 39u);
    std::vector<std::string> all =
        names_of({ CALLPOINTS_WWAN, CALLPOINTS_WLAN, CALLPOINTS_GENERAL, CALLPOINTS_OVERLAY });
    EXPECT_EQ(std::set<std::string>(all.begin(), all.end()).size(), all.size());
}

struct device_case_t {
    const char *name;
    uint32_t personality;
    int chassis_type;
    std::vector<callpoint_group_t> groups;
};

constexpr callpoint_group_t WWAN = CALLPOINTS_WWAN, WLAN = CALLPOINTS_WLAN, GENERAL = CALLPOINTS_GENERAL,
                            OVERLAY = CALLPOINTS_OVERLAY;

TEST_F(callpoints, are_answered_where_their_program_does_not_run)
{
    const device_case_t cases[] = {
        { "edge router", PERSONALITY_KREST, 6, { WWAN, WLAN } },
        { "edge router without a chassis", PERSONALITY_KREST, 0, { WWAN, WLAN } },
        { "edge router, small", PERSONALITY_KREST, 3, { WWAN, WLAN } },
        { "edge router without its modem", PERSONALITY_KREST, 4, { WWAN, WLAN } },
        { "edge router with access points", PERSONALITY_KREST, 7, { WWAN } },
        { "edge router with both radios", PERSONALITY_KREST, 8, {} },
        { "edge router with a modem", PERSONALITY_KREST, 9, { WLAN } },
        { "edge router with another modem", PERSONALITY_KREST, 10, { WLAN } },
        { "edge router of an unknown kind", PERSONALITY_KREST, 11, { WWAN, WLAN } },
        { "hub", PERSONALITY_TARN, 0, { WWAN, WLAN, GENERAL, OVERLAY } },
        { "controller", PERSONALITY_LODEST, 0, { WWAN, WLAN, GENERAL } },
        { "controller with both radios", PERSONALITY_LODEST, 8, { GENERAL } },
        { "orchestrator", PERSONALITY_ORBEL, 0, { WWAN, WLAN, GENERAL, OVERLAY } },
        { "management system", PERSONALITY_QUORVIX, 0, { WWAN, WLAN, GENERAL, OVERLAY } },
        { "container host with access points", PERSONALITY_PENDRY, 7, { WWAN, GENERAL, OVERLAY } },
        { "no personality", PERSONALITY_NONE, 0, { WWAN, WLAN, GENERAL, OVERLAY } },
    };
    for (const device_case_t &row : cases) {
        be(row.personality, row.chassis_type);
        EXPECT_EQ(empty_ones(), names_of(row.groups)) << row.name;
    }
}

TEST_F(callpoints, a_modem_on_the_usb_bus_has_its_program)
{
    be(PERSONALITY_KREST, 4);
    plug_in("3-1", "0bda");
    plug_in("3-2", "1198");
    EXPECT_EQ(empty_ones(), names_of({ WWAN, WLAN })) << "of other makers";
    plug_in("3-2", "1199");
    EXPECT_EQ(empty_ones(), names_of({ WLAN }));
    plug_in("3-2", "");
    EXPECT_EQ(empty_ones(), names_of({ WWAN, WLAN })) << "unreadable";
    plug_in("3-1", "1199");
    EXPECT_EQ(empty_ones(), names_of({ WLAN }));
    be(PERSONALITY_KREST, 5);
    EXPECT_EQ(empty_ones(), names_of({ WWAN, WLAN })) << "on this chassis nobody looks";
}

TEST_F(callpoints, without_a_program_say_that_there_is_nothing)
{
    be(PERSONALITY_TARN, 0);
    (void)empty_ones();
    confd_trans_ctx tctx{};
    confd_hkeypath_t kp = keypath({ "hardware", "inventory" });
    ASSERT_EQ(agent().data_cbs.size(), 181u);
    for (const auto &[name, callbacks] : agent().data_cbs) {
        agent().calls.clear();
        ASSERT_NE(callbacks.get_next, nullptr) << name;
        ASSERT_NE(callbacks.get_elem, nullptr) << name;
        EXPECT_EQ(callbacks.get_next(&tctx, &kp, -1), CONFD_OK) << name;
        EXPECT_EQ(callbacks.get_elem(&tctx, &kp), CONFD_OK) << name;
        EXPECT_EQ(agent().calls,
                  (std::vector<std::string>{ "confd_data_reply_next_key none, next -1", "confd_data_reply_not_found" }))
            << name;
    }
}

TEST_F(callpoints, hooks_that_write_into_the_transaction_come_first_and_must_be_registered)
{
    const struct {
        const char *name;
        bool has_remove;
        const char *failure;
    } hooks[] = {
        { "post-login-message", true, "Failed to register post-login msg cb" },
        { "system-host-name", false, "Failed to register system-host-name cb" },
        { "set-dhcp-rapid-commit", false, "Failed to register dhcp-client-rapid cb" },
        { "system-logs-audit", true, "Failed to register system-logs-audit cb" },
        { "system-logs-netconf", true, "Failed to register system-logs-netconf cb" },
    };
    be(PERSONALITY_KREST, 8); // without an empty one
    std::vector<std::string> names;
    for (const auto &hook : hooks) {
        names.push_back(hook.name);
        agent().calls.clear();
        agent().results = { { std::string("confd_register_data_cb ") + hook.name, CONFD_ERR } };
        EXPECT_EQ(cfgmgr_confd_register_data_cbs(&ctx), CFGMGR_CALLPOINTS_NO_MIRROR);
        EXPECT_EQ(registered(), names);
        EXPECT_TRUE(log_has(hook.failure));
    }
    agent().calls.clear();
    agent().results.clear();
    EXPECT_EQ(cfgmgr_confd_register_data_cbs(&ctx), CFGMGR_CALLPOINTS_OK);
    EXPECT_EQ(registered(), names);
    for (const auto &hook : hooks) {
        EXPECT_NE(agent().data_cbs[hook.name].set_elem, nullptr) << hook.name;
        EXPECT_EQ(agent().data_cbs[hook.name].remove != nullptr, hook.has_remove) << hook.name;
    }
}

TEST_F(callpoints, the_first_failure_ends_the_registration_and_does_not_count)
{
    be(PERSONALITY_TARN, 0);
    agent().results["confd_register_data_cb wlan-radios"] = CONFD_ERR;
    EXPECT_EQ(cfgmgr_confd_register_data_cbs(&ctx), CFGMGR_CALLPOINTS_OK);
    EXPECT_EQ(registered().back(), "wlan-radios");
    EXPECT_TRUE(log_has("Failed to register data cb for callpoint wlan-radios"));
}

TEST_F(callpoints, what_the_daemon_answers_itself_is_not_emptied_on_that_connection)
{
    be(PERSONALITY_LODEST, 0);
    confd_data_cbs spf{}, bgp{};
    strlcpy(spf.callpoint, "ospf-show", sizeof spf.callpoint);
    strlcpy(bgp.callpoint, "bgp-summary", sizeof bgp.callpoint);
    EXPECT_EQ(cfgmgr_register_data_cb(&ctx, spf), CONFD_OK);
    agent().results["confd_register_data_cb bgp-summary"] = CONFD_ERR;
    EXPECT_EQ(cfgmgr_register_data_cb(&ctx, bgp), CONFD_ERR);
    agent().results.clear();

    std::vector<std::string> names = empty_ones();
    EXPECT_EQ(std::ranges::count(names, "ospf-show"), 0);
    EXPECT_EQ(agent().data_cbs["ospf-show"].get_next, nullptr) << "its own callbacks stay";
    EXPECT_EQ(std::ranges::count(names, "bgp-summary"), 1) << "its own callbacks could not be registered";
    EXPECT_EQ(names.size(), names_of({ WWAN, WLAN, GENERAL }).size() - 1);

    agent().calls.clear();
    EXPECT_EQ(cfgmgr_confd_register_data_cbs(&ctx), CFGMGR_CALLPOINTS_OK);
    names = registered();
    EXPECT_EQ(std::ranges::count(names, "ospf-show"), 1) << "a new connection begins without any";
}

} // namespace
