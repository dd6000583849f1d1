// The operator at the command line with a daemon behind: tables, actions that take long, completions, streams.
#include "tests/component/cli_terminal.h"
#include "tests/component/conformance/conform.h"

namespace
{

constexpr long ENTRIES = 1500;

std::string entry_name(long number)
{
    std::string digits = std::to_string(number);
    return "name" + std::string(5 - digits.size(), '0') + digits;
}

// A list of many entries, one at a time.
data_handlers_t many_entries()
{
    data_handlers_t handlers;
    handlers.get_next = [](confd_trans_ctx *tctx, confd_hkeypath_t *, long next) {
        long number = next < 0 ? 0 : next;
        if (number == ENTRIES)
            return confd_data_reply_next_key(tctx, nullptr, -1, -1);
        std::string name = entry_name(number);
        confd_value_t key{};
        CONFD_SET_STR(&key, name.c_str());
        return confd_data_reply_next_key(tctx, &key, 1, number + 1);
    };
    handlers.get_elem = [](confd_trans_ctx *tctx, confd_hkeypath_t *kp) {
        confd_value_t value{};
        if (kp->v[0][0].val.xmltag.tag == confd_str2hash("name"))
            value = kp->v[1][0];
        else
            CONFD_SET_UINT32(&value, 7);
        return confd_data_reply_value(tctx, &value);
    };
    return handlers;
}

class operator_line : public testing::Test
{
protected:
    std::vector<std::string> cli_words() const
    {
        return { CLI_PROGRAM, "--port", std::to_string(agent.port()), "--yang", model_dir() };
    }
    std::string run_cli(const std::string &command)
    {
        std::vector<std::string> words = cli_words();
        words.insert(words.end(), { "-c", command });
        std::string output;
        agent.run(words, &output);
        return output;
    }

    conform_agent agent;
    test_daemon daemon{ agent, "conform", 2 };
};

TEST_F(operator_line, a_list_of_any_length_is_one_table)
{
    daemon.data("show-keyed", many_entries());
    daemon.start();
    std::string output = run_cli("show show keyed");
    EXPECT_TRUE(output.starts_with("name       value\n"
                                   "name00000      7\n"))
        << output.substr(0, 200);
    EXPECT_TRUE(output.ends_with("name01499      7\n"));
    EXPECT_EQ(run_cli("show show keyed | count"), "Count: 1501 lines\n");
}

TEST_F(operator_line, an_interrupt_ends_an_action_and_the_session_goes_on)
{
    gate printed;
    action_handlers_t handlers;
    handlers.command = [&](confd_user_info *uinfo, char *, int, char **) {
        maapi_cli_printf(daemon.maapi_fd(), uinfo->usid, "begun\n");
        printed.pass();
        return CONFD_OK;
    };
    handlers.abort = [&](confd_user_info *) {
        printed.open();
        return CONFD_OK;
    };
    daemon.action("act-dump", handlers);
    daemon.choose_worker = [](const confd_user_info *) { return 1; }; // the other thread hears of the interrupt
    daemon.start();
    cli_terminal terminal(cli_words(), agent.dir().path(""));
    ASSERT_TRUE(terminal.expect("> ")) << terminal.seen;
    ASSERT_TRUE(terminal.type("dump\r", "begun")) << terminal.seen;
    EXPECT_TRUE(terminal.type("\x03", "waiting for the action to end")) << terminal.seen;
    EXPECT_TRUE(terminal.expect("> ")) << terminal.seen;
    EXPECT_TRUE(terminal.type("show agent status | include phase\r", "phase 2")) << terminal.seen;
}

TEST_F(operator_line, tab_and_help_ask_the_daemon_that_knows_the_leaf)
{
    action_handlers_t handlers;
    handlers.completion = [](confd_user_info *uinfo, char *token, int character, confd_hkeypath_t *) {
        char word[] = "loopback17";
        char extra[] = "10.0.0.2";
        char info[] = "or a tunnel";
        confd_completion_value values[] = { { CONFD_COMPLETION, word, extra },
                                            { CONFD_COMPLETION_INFO, info, nullptr } };
        daemon_of(uinfo).note(std::string(token) + " " + std::to_string(character));
        return confd_action_reply_completion(uinfo, values, 2);
    };
    daemon.action("complete-bind", handlers);
    daemon.start();
    cli_terminal terminal(cli_words(), agent.dir().path(""));
    ASSERT_TRUE(terminal.type("configure\r", "(config)# ")) << terminal.seen;
    EXPECT_TRUE(terminal.type("set data bind loop\t", "back17 ")) << terminal.seen;
    EXPECT_TRUE(terminal.type("\x15set data bind ?", "10.0.0.2")) << terminal.seen;
    EXPECT_TRUE(terminal.expect("or a tunnel")) << terminal.seen;
    EXPECT_EQ(daemon.take_events(), (names_t{ "loop 9", " 63" }));
}

TEST_F(operator_line, a_stream_is_a_line_an_event_past_ones_and_new_ones)
{
    confd_notification_stream_cbs row{};
    confd_notification_ctx *stream = nullptr;
    snprintf(row.streamname, sizeof row.streamname, "corvane");
    row.fd = daemon.worker_fd();
    ASSERT_EQ(confd_register_notification_stream(daemon.ctx(), &row, &stream), CONFD_OK) << confd_lasterr();
    daemon.start();
    uint32_t ns = confd_str2hash("urn:test:conform");
    confd_tag_value_t values[6];
    CONFD_SET_TAG_XMLBEGIN(&values[0], confd_str2hash("link-change"), ns);
    CONFD_SET_TAG_ENUM_VALUE(&values[1], confd_str2hash("severity"), 2);
    CONFD_SET_TAG_XMLBEGIN(&values[2], confd_str2hash("link"), ns);
    CONFD_SET_TAG_STR(&values[3], confd_str2hash("name"), "eth 0");
    CONFD_SET_TAG_XMLEND(&values[4], confd_str2hash("link"), ns);
    CONFD_SET_TAG_XMLEND(&values[5], confd_str2hash("link-change"), ns);
    confd_datetime time{};
    time.year = 2026;
    time.month = 11;
    time.day = 22;
    time.hour = 3;
    time.micro = 250000;
    static constexpr char LINE[] = "2026-11-22T03:00:00.250Z link-change  severity major  link  link/name \"eth 0\"";
    cli_terminal terminal(cli_words(), agent.dir().path(""));
    ASSERT_TRUE(terminal.type("monitor stream corvane\r", "^C ends")) << terminal.seen;
    ASSERT_TRUE(agent.has_status("notification")) << agent.status();
    ASSERT_EQ(confd_notification_send(stream, &time, values, 6), CONFD_OK) << confd_lasterr();
    EXPECT_TRUE(terminal.expect(LINE)) << terminal.seen;
    EXPECT_TRUE(terminal.type("\x03", "> ")) << terminal.seen;
    EXPECT_EQ(run_cli("show notifications stream corvane"), std::string(LINE) + "\n");
    EXPECT_EQ(run_cli("show notifications stream corvane | exclude eth"), "");
}

} // namespace
