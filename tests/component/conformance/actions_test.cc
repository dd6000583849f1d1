// Actions, commands and completions: parameters and results, what is printed meanwhile, who serves, and interrupts.
#include "tests/component/conformance/conform.h"

namespace
{

std::string params_text(const confd_tag_value_t *params, int n)
{
    return print_modifications(params, n);
}

class actions : public testing::Test
{
protected:
    std::string run_cli(const std::string &command, int *status = nullptr)
    {
        std::string output;
        int result = agent.run(
            { CLI_PROGRAM, "--port", std::to_string(agent.port()), "--yang", model_dir(), "-c", command }, &output);
        if (status)
            *status = result;
        return output;
    }
    void serve(const char *point, action_handlers_t handlers) { daemon.action(point, std::move(handlers)); }

    conform_agent agent;
    test_daemon daemon{ agent, "conform", 2 };
};

// Answers a sum, a text and two rows.
int add(confd_user_info *uinfo, xml_tag *name, confd_hkeypath_t *kp, confd_tag_value_t *params, int n)
{
    test_daemon &daemon = daemon_of(uinfo);
    daemon.note(std::string(confd_hash2str(name->tag)) + " " + text_of(kp) + params_text(params, n));
    uint64_t sum = 0;
    for (int i = 0; i < n; i++)
        sum += params[i].v.type == C_UINT32 ? CONFD_GET_UINT32(&params[i].v) : 0;
    uint32_t row = confd_str2hash("row");
    confd_tag_value_t answer[8];
    CONFD_SET_TAG_UINT64(&answer[0], confd_str2hash("sum"), sum);
    CONFD_SET_TAG_STR(&answer[1], confd_str2hash("text"), "said \"so\"");
    for (int i = 0; i < 2; i++) {
        CONFD_SET_TAG_XMLBEGIN(&answer[2 + 3 * i], row, name->ns);
        CONFD_SET_TAG_UINT32(&answer[3 + 3 * i], confd_str2hash("index"), static_cast<uint32_t>(i));
        CONFD_SET_TAG_XMLEND(&answer[4 + 3 * i], row, name->ns);
    }
    return confd_action_reply_values(uinfo, answer, 8);
}

TEST_F(actions, parameters_arrive_by_tag_and_results_come_back)
{
    serve("act-add", { nullptr, add, nullptr, nullptr });
    daemon.start();
    raw_user user(agent);
    raw_client::frame_t reply =
        user.action("/conform:act/add", R"({"a":7,"b":35,"note":["x","y"],"opt":{"wide":true}})");
    EXPECT_EQ(reply.status, 0) << reply.text();
    for (const char *part : { "\"sum\":", "42", "said \\\"so\\\"", "\"row\":", "\"index\":" })
        EXPECT_TRUE(mentions(reply.text(), part)) << part << ": " << reply.text();
    names_t events = daemon.take_events();
    ASSERT_EQ(events.size(), 1u);
    for (const char *part : { "add /conform:act/add", " a=7", " b=35", " note=", " opt( wide=true )" })
        EXPECT_TRUE(mentions(events[0], part)) << part << ": " << events[0];
}

TEST_F(actions, defaults_of_parameters_are_filled_in_and_missing_ones_refused)
{
    serve("act-add", { nullptr, add, nullptr, nullptr });
    daemon.start();
    raw_user user(agent);
    raw_client::frame_t reply = user.action("/conform:act/add", R"({"a":7})");
    EXPECT_EQ(reply.status, 0) << reply.text();
    EXPECT_TRUE(mentions(reply.text(), "12")) << reply.text();
    daemon.take_events();
    for (const char *input : { "", R"({"a":-1})", R"({"a":1,"z":1})", R"({"a":)", R"([1])", R"({"a":1,"opt":3})" }) {
        reply = user.action("/conform:act/add", input);
        EXPECT_GT(reply.status, 0) << input << reply.text();
        EXPECT_FALSE(reply.text().empty()) << input;
    }
    EXPECT_EQ(daemon.take_events(), names_t{}) << "the daemon sees good parameters only";
}

TEST_F(actions, an_action_of_an_entry_has_its_keys_and_one_without_results_none)
{
    serve("act-reset", { nullptr,
                         [](confd_user_info *uinfo, xml_tag *, confd_hkeypath_t *kp, confd_tag_value_t *params, int n) {
                             daemon_of(uinfo).note(text_of(kp) + params_text(params, n));
                             return CONFD_OK;
                         },
                         nullptr, nullptr });
    daemon.start();
    ASSERT_EQ(commit(agent, { { "/data/vpn{5}", "+" } }).result, CONFD_OK);
    raw_user user(agent);
    raw_client::frame_t reply = user.action("/conform:data/vpn{5}/reset", R"({"force":true})");
    EXPECT_EQ(reply.status, 0) << reply.text();
    EXPECT_TRUE(reply.text().empty() || reply.text() == "{}") << reply.text();
    EXPECT_EQ(daemon.take_events(), names_t{ "/conform:data/vpn{5}/reset force=true" });
    EXPECT_GT(user.action("/conform:data/vpn{6}/reset").status, 0) << "no such VPN";
    EXPECT_EQ(daemon.take_events(), names_t{});
}

TEST_F(actions, a_failure_has_the_daemons_reason)
{
    serve("act-quiet", { nullptr,
                         [](confd_user_info *uinfo, xml_tag *, confd_hkeypath_t *, confd_tag_value_t *, int) {
                             confd_action_seterr(uinfo, "cannot be %s now", "quiet");
                             return CONFD_ERR;
                         },
                         nullptr, nullptr });
    daemon.start();
    raw_user user(agent);
    raw_client::frame_t reply = user.action("/conform:act/quiet");
    EXPECT_EQ(reply.status, CONFD_ERR_EXTERNAL);
    EXPECT_TRUE(mentions(reply.text(), "cannot be quiet now")) << reply.text();
    reply = user.action("/conform:unserved");
    EXPECT_EQ(reply.status, CONFD_ERR_UNAVAILABLE);
    EXPECT_TRUE(mentions(reply.text(), "act-unserved")) << reply.text();
    EXPECT_EQ(user.action("/conform:data/host").status, CONFD_ERR_BADPATH) << "no action";
}

TEST_F(actions, a_command_gets_words_and_prints_to_its_user)
{
    serve("act-dump", { nullptr, nullptr,
                        [](confd_user_info *uinfo, char *, int argc, char **argv) {
                            test_daemon &daemon = daemon_of(uinfo);
                            std::string words;
                            for (int i = 0; i < argc; i++)
                                words += (i > 0 ? "|" : "") + std::string(argv[i]);
                            daemon.note(words);
                            for (int line = 1; line <= 3; line++)
                                EXPECT_EQ(maapi_cli_printf(daemon.maapi_fd(), uinfo->usid, "line %d of %s\n", line,
                                                           uinfo->username),
                                          CONFD_OK)
                                    << confd_lasterr();
                            return CONFD_OK;
                        },
                        nullptr });
    daemon.start();
    raw_user user(agent, "ann"), other(agent, "bob");
    raw_client::frame_t reply = user.action("/conform:dump", R"({"what":"all of it","count":3})");
    EXPECT_EQ(reply.status, 0) << reply.text();
    EXPECT_EQ(user.printed, "line 1 of ann\nline 2 of ann\nline 3 of ann\n");
    names_t events = daemon.take_events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].substr(0, events[0].find('|')), "dump") << "its name first: " << events[0];
    EXPECT_TRUE(mentions(events[0], "|all of it")) << events[0];
    EXPECT_TRUE(events[0].ends_with("|3")) << events[0];
    EXPECT_EQ(other.action("/conform:dump").status, 0);
    EXPECT_EQ(user.printed.size(), 42u) << "each user has its own output";
    EXPECT_EQ(other.printed, "line 1 of bob\nline 2 of bob\nline 3 of bob\n");
}

TEST_F(actions, output_for_a_session_that_is_not_there_is_refused)
{
    EXPECT_EQ(maapi_cli_printf(daemon.maapi_fd(), 4711, "hello"), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_NOEXISTS) << confd_lasterr();
}

TEST_F(actions, a_second_worker_serves_while_the_first_is_busy)
{
    gate busy;
    serve("act-quiet", { nullptr,
                         [&](confd_user_info *, xml_tag *, confd_hkeypath_t *, confd_tag_value_t *, int) {
                             busy.pass();
                             return CONFD_OK;
                         },
                         nullptr, nullptr });
    serve("act-add", { nullptr, add, nullptr, nullptr });
    daemon.choose_worker = [](const confd_user_info *uinfo) {
        return std::string(uinfo->username) == "slow" ? 1 : 0; // the first worker's thread serves the inits too
    };
    daemon.start();
    raw_user slow(agent, "slow"), quick(agent, "quick");
    slow.post_action("/conform:act/quiet");
    ASSERT_TRUE(busy.wait_for_visitor());
    EXPECT_EQ(quick.action("/conform:act/add", R"({"a":1})").status, 0);
    busy.open();
    EXPECT_EQ(slow.wait_for(WIRE_MAAPI_ACTION).status, 0);
}

TEST_F(actions, a_second_context_of_the_process_serves_while_the_first_is_busy)
{
    gate busy;
    serve("act-quiet", { nullptr,
                         [&](confd_user_info *, xml_tag *, confd_hkeypath_t *, confd_tag_value_t *, int) {
                             busy.pass();
                             return CONFD_OK;
                         },
                         nullptr, nullptr });
    daemon.start();
    test_daemon second(agent, "second");
    second.action("act-add", { nullptr, add, nullptr, nullptr });
    second.start();
    raw_user slow(agent), quick(agent);
    slow.post_action("/conform:act/quiet");
    ASSERT_TRUE(busy.wait_for_visitor());
    EXPECT_EQ(quick.action("/conform:act/add", R"({"a":1})").status, 0);
    EXPECT_EQ(commit(agent, { { "/data/host", "box" } }).result, CONFD_OK) << "commits go on beside an action";
    busy.open();
    EXPECT_EQ(slow.wait_for(WIRE_MAAPI_ACTION).status, 0);
}

TEST_F(actions, an_interrupt_reaches_the_callback_for_it)
{
    gate busy;
    action_handlers_t handlers;
    handlers.abort = [&](confd_user_info *) {
        busy.open();
        daemon.note("abort");
        return CONFD_OK;
    };
    handlers.action = [&](confd_user_info *uinfo, xml_tag *, confd_hkeypath_t *, confd_tag_value_t *, int) {
        busy.pass();
        daemon.note("left");
        confd_action_seterr(uinfo, "interrupted");
        return CONFD_ERR;
    };
    serve("act-quiet", std::move(handlers));
    daemon.choose_worker = [](const confd_user_info *) {
        return 1;
    };
    daemon.start();
    raw_user user(agent);
    user.post_action("/conform:act/quiet");
    ASSERT_TRUE(busy.wait_for_visitor());
    user.post(WIRE_MAAPI_INTERRUPT, {}, 8);
    raw_client::frame_t reply = user.wait_for(WIRE_MAAPI_ACTION);
    EXPECT_GT(reply.status, 0) << reply.text();
    EXPECT_TRUE(daemon.wait_for("abort") && daemon.wait_for("left")) << "nobody may be at the gate when it goes";
    EXPECT_EQ(user.action("/conform:unserved").status, CONFD_ERR_UNAVAILABLE) << "the session goes on";
}

TEST_F(actions, completions_come_with_their_explanations)
{
    serve("complete-bind",
          { nullptr, nullptr, nullptr, [](confd_user_info *uinfo, char *token, int character, confd_hkeypath_t *kp) {
               daemon_of(uinfo).note(std::string(token) + " " + std::to_string(character) + " " + text_of(kp));
               char first[] = "loopback1", second[] = "loopback2", extra[] = "10.0.0.2", info[] = "or a tunnel";
               confd_completion_value values[] = { { CONFD_COMPLETION, first, nullptr },
                                                   { CONFD_COMPLETION, second, extra },
                                                   { CONFD_COMPLETION_INFO, info, nullptr } };
               return confd_action_reply_completion(uinfo, values, 3);
           } });
    daemon.start();
    raw_user user(agent);
    EXPECT_EQ(user.complete("/conform:data/bind", "loop"), "0 loopback1; 0 loopback2 (10.0.0.2); 1 or a tunnel");
    EXPECT_EQ(user.complete("/conform:data/bind", "", '?'), "0 loopback1; 0 loopback2 (10.0.0.2); 1 or a tunnel");
    EXPECT_EQ(user.complete("/conform:data/bind", "gre"), "1 or a tunnel") << "words that go on with the token only";
    EXPECT_EQ(daemon.take_events(),
              (names_t{ "loop 9 /conform:data/bind", " 63 /conform:data/bind", "gre 9 /conform:data/bind" }));
    std::string none = user.complete("/conform:data/host", "x");
    EXPECT_TRUE(none.empty() || none.starts_with("error ")) << "a leaf without a completion: " << none;
}

TEST_F(actions, the_command_line_runs_them)
{
    serve("act-add", { nullptr, add, nullptr, nullptr });
    serve("act-dump", { nullptr, nullptr,
                        [](confd_user_info *uinfo, char *, int, char **) {
                            return maapi_cli_printf(daemon_of(uinfo).maapi_fd(), uinfo->usid, "all of it\n");
                        },
                        nullptr });
    daemon.start();
    int status = -1;
    std::string output = run_cli("dump", &status);
    EXPECT_EQ(status, 0) << output;
    EXPECT_TRUE(mentions(output, "all of it")) << output;
    output = run_cli("act add a 7", &status);
    EXPECT_EQ(status, 0) << output;
    EXPECT_TRUE(mentions(output, "12")) << output;
    output = run_cli("unserved", &status);
    EXPECT_NE(status, 0) << output;
    EXPECT_TRUE(mentions(output, "act-unserved")) << output;
}

} // namespace
