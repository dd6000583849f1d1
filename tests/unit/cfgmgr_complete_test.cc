// Names of interfaces that are offered to the operator.
#include "cfgmgr/network/cfgmgr_complete.h"
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_if_env.h"

#include <deque>
#include <sstream>

namespace
{

using callback_t = decltype(&cfgmgr_tunnel_if_bind_ifs_complete);
using words_t = std::vector<std::string>;

class complete : public if_env
{
protected:
    complete()
    {
        start_with_vpns();
        agent().calls.clear();
    }
    ~complete() override { cfgmgr_events_level = 0; }

    int ask(callback_t callback, std::string token = "", int character = '\t')
    {
        confd_user_info uinfo{};
        uinfo.actx_thandle = typed_in;
        confd_qname type{};
        char path[] = "/some/path", id[] = "interface", extra[] = "";
        kp = keypath(
            { "vpn", "vpn-instance", std::vector{ u64(5) }, "interface", std::vector{ buf("loopback1") }, "bind" });
        agent().calls.clear();
        log_clear();
        asked = token + '\0';
        return callback(&uinfo, 1, asked.data(), character, &kp, path, id, &type, extra);
    }
    // What was offered; nothing when the callback has failed.
    words_t offered(callback_t callback, const std::string &token = "", int character = '\t')
    {
        if (ask(callback, token, character) != 0)
            return {};
        std::vector<std::string> replies = agent().calls_of("confd_action_reply_completion");
        EXPECT_EQ(replies.size(), 1u);
        words_t words;
        std::istringstream in(replies.at(0));
        for (std::string word; in >> word;)
            words.push_back(word);
        words.erase(words.begin());
        return words;
    }
    std::string told() // to the operator
    {
        std::vector<std::string> errors = agent().calls_of("confd_action_seterr");
        return errors.empty() ? "" : errors.back().substr(sizeof "confd_action_seterr");
    }
    void make_tunnels(int first, int count)
    {
        for (int i = 0; i < count; i++)
            make(("gre" + std::to_string(first + i)).c_str(), 0);
    }
    void configure(std::vector<std::string> names)
    {
        static std::deque<std::string> kept;
        for (std::string &name : names) {
            kept.push_back(std::move(name));
            agent().entries["/vpn/vpn-instance{5}/interface"].push_back({ buf(kept.back().c_str()) });
        }
    }
    confd_hkeypath_t kp{};
    std::string asked;
    int typed_in = 0; // the transaction of the operator
};

constexpr callback_t bind = cfgmgr_tunnel_if_bind_ifs_complete;
constexpr callback_t service = cfgmgr_config_vpn_service_interface_complete;
constexpr callback_t way_out = cfgmgr_config_slx_interface_complete;

// ---- tunnels for services and routes

TEST_F(complete, a_word_that_may_become_a_tunnel_is_offered_the_tunnels_that_go_on_with_it)
{
    make("gre1", 0), make("gre10", 0), make("gre2", 0), make("loopback1", 0), make("gre3", 5);
    const struct {
        const char *token;
        words_t names;
    } cases[] = {
        { "", { "gre1", "gre10", "gre2" } },
        { "g", { "gre1", "gre10", "gre2" } },
        { "gr", { "gre1", "gre10", "gre2" } },
        { "gre", { "gre1", "gre10", "gre2" } },
        { "gre1", { "gre1", "gre10" } },
        { "gre2", { "gre2" } },
        { "gre3", {} }, // of another VPN
        { "ge", {} },
        { "r", {} },
        { "loopback1", {} },
        { "gre1000000000000000000000000000000000000000000000000000000000000000000000", {} },
    };
    for (const auto &row : cases) {
        for (int character : { '\t', '?', ' ' })
            EXPECT_EQ(offered(service, row.token, character), row.names) << row.token;
        EXPECT_EQ(told(), "") << "no choices are no error";
    }
}

TEST_F(complete, tunnels_end_at_the_bound)
{
    make_tunnels(1000, COMPLETE_MAX + 2);
    words_t names = offered(service);
    EXPECT_EQ(names.size(), static_cast<size_t>(COMPLETE_MAX));
    EXPECT_EQ(names.back(), "gre" + std::to_string(1000 + COMPLETE_MAX - 1));
    EXPECT_EQ(offered(way_out, "g").size(), static_cast<size_t>(COMPLETE_MAX));
}

TEST_F(complete, what_was_asked_and_answered_is_traced)
{
    cfgmgr_events_level = 1;
    EXPECT_EQ(ask(service, "x"), -1);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_TRUE(log_has("Request for service-interface completion : no such interface"));
    cfgmgr_events_level = 3;
    make("gre1", 0);
    EXPECT_EQ(ask(service, "g", '?'), 0);
    EXPECT_TRUE(log_has("Request for service-interface completion, 1 g 63 /some/path interface "));
    EXPECT_TRUE(log_has("Request for service-interface completion - returned with 1 entries"));
    EXPECT_EQ(ask(way_out, "ge0/0"), 0);
    EXPECT_TRUE(log_has("Request for slx interface completion, 1 ge0/0 9 /some/path interface "));
    EXPECT_TRUE(log_has("Request for slx interface completion - returned with 9 entries"));
}

// ---- ways out

TEST_F(complete, ports_and_tunnels_of_the_transport_vpn_are_ways_out)
{
    make("gre1", 0), make("loopback1", 0), make("ge0_1", 5), make("ge0_2.100", 0), make("gre2", 5);
    words_t all = { "ge0/0", "ge0/2", "ge0/2.100", "ge0/3", "ge0/4", "ge0/5", "ge0/6", "ge0/7", "gre1" };
    EXPECT_EQ(offered(way_out), all);
    EXPECT_EQ(offered(way_out, "x"), all) << "the agent drops what does not fit";
}

TEST_F(complete, the_list_of_help_leaves_out_ports_that_do_not_translate)
{
    make("gre1", 0);
    find("ge0_3")->flags |= IF_NAT;
    EXPECT_EQ(offered(way_out, "", '?'), (words_t{ "ge0/3", "gre1" }));
    EXPECT_EQ(offered(way_out, "", '\t').size(), 9u);
    EXPECT_EQ(offered(way_out, "ge", '?').size(), 9u) << "with a word begun";
}

TEST_F(complete, a_slash_of_the_word_is_read_as_in_kernel_names)
{
    EXPECT_EQ(ask(way_out, "ge0/0/"), 0);
    EXPECT_EQ(asked.substr(0, 6), "ge0_0_");
    EXPECT_EQ(ask(way_out, std::string(63, 'x') + "//"), 0);
    EXPECT_EQ(asked.substr(62, 3), "x_/") << "no more than a name may have";
}

// ---- when the tables are not there

TEST_F(complete, without_the_transport_vpn_the_operator_is_told)
{
    cfgmgrd_t other{};
    avl_create(
        &other.vpn_table, [](const void *, const void *) { return 0; }, sizeof(cfgmgr_vpn_t),
        offsetof(cfgmgr_vpn_t, node));
    for (const auto &[callback, subject] :
         { std::pair{ service, "service-interface" }, { way_out, "slx interface" } }) {
        std::string request = std::string("Request for ") + subject + " completion";
        cfgmgr_context_publish(nullptr);
        EXPECT_EQ(ask(callback), -1);
        EXPECT_EQ(told(), request + " but daemon not up");
        EXPECT_TRUE(log_has(request + " but daemon not up"));
        cfgmgr_context_publish(&other);
        EXPECT_EQ(ask(callback), -1);
        EXPECT_EQ(told(), request + " : vpn 0 not found");
        EXPECT_TRUE(log_has(request + " : vpn 0 not found"));
    }
    cfgmgr_context_publish(&daemon);
}

TEST_F(complete, a_reply_from_the_tables_that_cannot_be_given_ends_the_process)
{
    make("gre1", 0);
    agent().results["confd_action_reply_completion"] = CONFD_ERR;
    EXPECT_EQ(run_in_child([&] { ask(service); }).output,
              "Failed to reply to confd for service-interface completion\n");
    EXPECT_EQ(run_in_child([&] { ask(way_out); }).output, "Failed to reply to confd for slx interface completion\n");
}

// ---- ports of the candidate

TEST_F(complete, a_tunnel_is_offered_the_ports_of_its_vpn_in_the_candidate)
{
    configure({ "10ge0/0", "ge0/1", "ge0/1.100", "loopback1", "system", "gre1", "bridge7" });
    EXPECT_EQ(offered(bind), (words_t{ "10ge0/0", "ge0/1", "ge0/1.100", "bridge7" }));
    std::vector<std::string> starts = agent().calls_of("maapi_start_user_session3");
    ASSERT_EQ(starts.size(), 1u);
    EXPECT_EQ(starts[0].rfind("maapi_start_user_session3 system cfgmgr_complete.cc:", 0), 0u) << starts[0];
    EXPECT_EQ(agent().calls_of("maapi_start_trans_flags2"), (words_t{ "maapi_start_trans_flags2 1 2" }));
    words_t last(agent().calls.end() - 3, agent().calls.end() - 1);
    EXPECT_EQ(last, (words_t{ "maapi_finish_trans", "maapi_end_user_session" })) << "before the reply";
    EXPECT_EQ(agent().open_connections(), 0);
}

TEST_F(complete, ports_of_the_candidate_end_at_the_bound)
{
    std::vector<std::string> names;
    for (int i = 0; i < COMPLETE_MAX + 10; i++)
        names.push_back("ge0/1." + std::to_string(i + 1));
    names.insert(names.begin(), "loopback1");
    configure(names);
    words_t words = offered(bind);
    EXPECT_EQ(words.size(), static_cast<size_t>(COMPLETE_MAX));
    EXPECT_EQ(words.back(), names[COMPLETE_MAX]);
}

TEST_F(complete, ports_that_the_operator_has_just_typed_stand_behind_those_of_the_candidate)
{
    configure({ "ge0/1", "ge0/2" });
    typed_in = 7;
    agent().entries["7:/vpn/vpn-instance{5}/interface"] = { { buf("ge0/2") }, { buf("ge0/0") }, { buf("irb1") } };
    EXPECT_EQ(offered(bind), (words_t{ "ge0/1", "ge0/2", "ge0/0" }));
    agent().results["maapi_attach"] = CONFD_ERR;
    EXPECT_EQ(offered(bind), (words_t{ "ge0/1", "ge0/2" }));
}

TEST_F(complete, a_name_longer_than_any_is_cut)
{
    configure({ std::string(70, 'g') + "ge", "ge" + std::string(70, 'x') });
    EXPECT_EQ(offered(bind), (words_t{ "ge" + std::string(61, 'x') }));
}

TEST_F(complete, no_port_is_no_error)
{
    EXPECT_EQ(ask(bind), 0);
    EXPECT_EQ(agent().count("confd_action_reply_completion"), 1);
}

TEST_F(complete, each_step_that_fails_is_told_and_leaves_no_session)
{
    const struct {
        const char *step;
        const char *log;
        const char *told;
    } cases[] = {
        { "maapi_connect", "Failed to do maapi_connect", "Failed to do maapi_connect" },
        { "maapi_start_user_session3", "Failed to start a user sessionconfd_str scripted (20) as scripted",
          "Failed to start a user session" },
        { "maapi_start_trans_flags2", "Failed to start a transactionconfd_str scripted (20) as scripted",
          "Failed to start a transaction" },
        { "walk /vpn/vpn-instance{5}/interface", "Failed to initialize maapi cursor for /vpn/vpn-instance{5}/interface",
          "Failed to initialize maapi cursor  confd_str scripted (20) as scripted" },
        { "confd_action_reply_completion", "Failed to reply completion values to confd",
          "Failed to reply completion values to confd" },
    };
    agent().error = 20;
    for (const auto &row : cases) {
        agent().results = { { row.step, CONFD_ERR } };
        EXPECT_EQ(ask(bind), -1) << row.step;
        EXPECT_EQ(told(), row.told);
        EXPECT_EQ(log_lines().size(), 1u);
        EXPECT_TRUE(log_has(row.log)) << row.step;
        EXPECT_EQ(agent().count("maapi_start_user_session3") - (row.step == std::string("maapi_start_user_session3")),
                  agent().count("maapi_end_user_session"));
        EXPECT_EQ(agent().open_connections(), 0) << row.step;
    }
}

TEST_F(complete, the_daemon_not_up_is_told_and_leaves_no_session)
{
    cfgmgr_context_publish(nullptr);
    EXPECT_EQ(ask(bind), -1);
    cfgmgr_context_publish(&daemon);
    EXPECT_EQ(told(), "CFGMGR daemon not UP");
    EXPECT_EQ(agent().count("maapi_finish_trans"), 1);
    EXPECT_EQ(agent().count("maapi_end_user_session"), 1);
}

TEST_F(complete, keys_of_another_type_than_the_models_are_an_assertion)
{
    expect_assertion(
        [&] {
            confd_user_info uinfo{};
            kp = keypath({ "vpn", "vpn-instance", std::vector{ u32(5) }, "interface" });
            (void)cfgmgr_tunnel_if_bind_ifs_complete(&uinfo, 1, asked.data(), '\t', &kp, nullptr, nullptr, nullptr,
                                                     nullptr);
        },
        "(&value)->type == C_UINT64");
    agent().entries["/vpn/vpn-instance{5}/interface"].push_back({ u64(7) });
    expect_assertion([&] { ask(bind); }, "(&if_mc.keys[0])->type == C_BUF");
}

} // namespace
