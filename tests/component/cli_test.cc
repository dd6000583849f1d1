// The operator's cli against the real agent with the device's own models: what is typed, what is printed, and how the
// program ends.
#include "tests/component/agentd_process.h"
#include "tests/component/cli_terminal.h"

#include <gtest/gtest.h>

namespace
{

struct cli_run_t {
    int status = -1;
    std::string output;
};

class cli : public testing::Test
{
protected:
    cli_run_t run(std::vector<std::string> words)
    {
        words.insert(words.begin(), { CLI_PROGRAM, "--port", std::to_string(agent.port()), "--yang", TEST_YANG_DIR });
        cli_run_t result;
        result.status = agent.run(std::move(words), &result.output);
        return result;
    }
    cli_run_t command(const std::string &text) { return run({ "-c", text }); }
    std::string configuration() { return command("show configuration | display set").output; }
    std::string write(const std::string &name, const std::string &text)
    {
        agent.dir().write(name, text);
        return agent.dir().path(name);
    }

    agentd_process agent;
};

constexpr char TWO_VPNS[] = "set vpn vpn-instance 10 name \"Customer A\"\n"
                            "set vpn vpn-instance 10 dns 10.10.0.53 role primary\n"
                            "set vpn vpn-instance 10 host intranet.a.example ip 10.10.1.5\n"
                            "set vpn vpn-instance 20 name \"Customer B\"\n"
                            "set vpn vpn-instance 20 dns 10.20.0.53 role primary\n";

TEST_F(cli, the_sample_comes_into_force_and_survives_a_restart_of_the_agent)
{
    cli_run_t loaded = run({ SAMPLES_DIR "/two-vpns.cfg" });
    EXPECT_EQ(loaded.status, 0);
    EXPECT_EQ(loaded.output, "commit complete\n");
    std::string before = configuration();
    EXPECT_NE(before.find("set vpn vpn-instance 10 name \"Customer A\"\n"), std::string::npos) << before;
    agent.kill_it(SIGKILL);
    agent.start();
    EXPECT_EQ(configuration(), before);
}

TEST_F(cli, what_is_shown_as_commands_makes_the_same_configuration)
{
    ASSERT_EQ(run({ "--commit", write("first.cfg", TWO_VPNS) }).status, 0);
    std::string shown = configuration();
    ASSERT_EQ(command("configure; delete vpn; commit").status, 0);
    EXPECT_EQ(configuration(), "");
    ASSERT_EQ(run({ "--commit", write("again.cfg", shown) }).status, 0);
    EXPECT_EQ(configuration(), shown);
}

TEST_F(cli, a_tree_shows_entries_with_their_keys_and_only_what_was_asked_for)
{
    ASSERT_EQ(run({ "--commit", write("two.cfg", TWO_VPNS) }).status, 0);
    EXPECT_EQ(command("show configuration vpn vpn-instance 20").output, "vpn\n"
                                                                        "  vpn-instance 20\n"
                                                                        "    name \"Customer B\"\n"
                                                                        "    dns 10.20.0.53\n"
                                                                        "      role primary\n");
    EXPECT_EQ(command("show configuration vpn vpn-instance 30").output, "nothing at 'vpn vpn-instance 30'\n");
}

TEST_F(cli, compare_tells_what_a_commit_would_change_and_revert_gives_it_up)
{
    ASSERT_EQ(run({ "--commit", write("two.cfg", TWO_VPNS) }).status, 0);
    cli_run_t result = command("configure; edit vpn vpn-instance 10; set name B; delete host intranet.a.example; "
                               "set interface ge0/1 mtu 1400; compare; revert; compare");
    EXPECT_EQ(result.status, 0) << result.output;
    for (const char *line :
         { "- vpn vpn-instance 10 name \"Customer A\"\n", "+ vpn vpn-instance 10 name B\n",
           "- vpn vpn-instance 10 host intranet.a.example\n", "+ vpn vpn-instance 10 interface ge0/1 mtu 1400\n" })
        EXPECT_NE(result.output.find(line), std::string::npos) << line << result.output;
    EXPECT_TRUE(result.output.ends_with("no changes\n")) << result.output;
    EXPECT_EQ(configuration(), TWO_VPNS);
}

TEST_F(cli, compare_finds_the_changes_of_a_place_typed_with_the_prefix_of_its_module)
{
    ASSERT_EQ(run({ "--commit", write("two.cfg", TWO_VPNS) }).status, 0);
    cli_run_t result = command("configure; set vpn vpn-instance 10 name B; set vpn vpn-instance 20 name C; "
                               "compare corvane-vpn:vpn vpn-instance 10; revert");
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_NE(result.output.find("+ vpn vpn-instance 10 name B\n"), std::string::npos) << result.output;
    EXPECT_EQ(result.output.find("name C"), std::string::npos) << result.output;
}

TEST_F(cli, a_rule_that_only_the_agent_knows_refuses_the_commit_with_path_and_rule)
{
    cli_run_t result = command("configure; set vpn vpn-instance 30 dns 10.0.0.1; commit");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("role"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("30"), std::string::npos) << result.output;
    EXPECT_EQ(configuration(), "");
}

TEST_F(cli, a_file_that_ends_without_a_commit_changes_nothing_and_says_so)
{
    std::string file = write("half.cfg", "set vpn vpn-instance 10 name A\n");
    cli_run_t result = run({ file });
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("ends without 'commit': "), std::string::npos) << result.output;
    EXPECT_EQ(configuration(), "");
    EXPECT_EQ(run({ "--commit", file }).status, 0);
    EXPECT_EQ(configuration(), "set vpn vpn-instance 10 name A\n");
}

TEST_F(cli, a_bad_line_ends_the_run_with_its_place_and_what_was_committed_before_stays)
{
    std::string file = write("bad.cfg", "set vpn vpn-instance 10 name A\ncommit\nset vpn vpn-instance 70000 name B\n"
                                        "set vpn vpn-instance 20 name C\ncommit\n");
    cli_run_t result = run({ file });
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("bad.cfg:3:22: bad value '70000' for 'vpn-id'"), std::string::npos) << result.output;
    EXPECT_EQ(configuration(), "set vpn vpn-instance 10 name A\n");
}

TEST_F(cli, a_document_is_merged)
{
    ASSERT_EQ(command("configure; set vpn vpn-instance 10 name A; commit").status, 0);
    std::string file = write("more.xml", "<config xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">"
                                         "<vpn xmlns=\"urn:corvane:yang:vpn\"><vpn-instance><vpn-id>20</vpn-id>"
                                         "<name>B</name></vpn-instance></vpn></config>");
    cli_run_t result = run({ "--commit", file });
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(configuration(), "set vpn vpn-instance 10 name A\nset vpn vpn-instance 20 name B\n");
    std::string broken = write("broken.xml", "<config><vpn");
    EXPECT_EQ(run({ "--commit", broken }).status, 1);
}

TEST_F(cli, single_values_of_a_leaf_list_are_added_and_removed)
{
    ASSERT_EQ(command("configure; set vpn vpn-instance 10 host h ip 10.0.0.1 10.0.0.2 10.0.0.3; commit").status, 0);
    cli_run_t result = command("configure; delete vpn vpn-instance 10 host h ip 10.0.0.2; commit");
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(configuration(), "set vpn vpn-instance 10 host h ip 10.0.0.1 10.0.0.3\n");
}

TEST_F(cli, a_list_is_shown_as_a_table_with_what_it_holds_below_its_rows)
{
    ASSERT_EQ(run({ "--commit", write("two.cfg", TWO_VPNS) }).status, 0);
    EXPECT_EQ(command("show configuration vpn vpn-instance | display table").output, "vpn-id  name\n"
                                                                                     "    10  Customer A\n"
                                                                                     "  dns 10.10.0.53\n"
                                                                                     "    role primary\n"
                                                                                     "  host intranet.a.example\n"
                                                                                     "    ip 10.10.1.5\n"
                                                                                     "    20  Customer B\n"
                                                                                     "  dns 10.20.0.53\n"
                                                                                     "    role primary\n");
    EXPECT_EQ(command("show configuration vpn vpn-instance 10 dns | display table").output, "address     role\n"
                                                                                            "10.10.0.53  primary\n");
    EXPECT_EQ(command("show configuration | display set | include dns | exclude 20 | count").output, "Count: 1 line\n");
}

TEST_F(cli, every_document_form_loads_again)
{
    ASSERT_EQ(run({ "--commit", write("two.cfg", TWO_VPNS) }).status, 0);
    std::string xml = command("show configuration | display xml").output;
    ASSERT_EQ(command("configure; delete vpn; commit").status, 0);
    cli_run_t loaded = run({ "--commit", write("all.xml", xml) });
    EXPECT_EQ(loaded.status, 0) << loaded.output << xml;
    EXPECT_EQ(configuration(), TWO_VPNS);
}

TEST_F(cli, values_in_the_operators_order_go_where_they_are_put)
{
    std::string service = "vpn vpn-instance 0 service FW interface ";
    cli_run_t result = command("configure; set " + service + "ge0/1 ge0/2; move " + service + "ge0/2 first; insert " +
                               service + "ge0/3 before ge0/1; show " + service + "; show | compare; revert");
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_NE(result.output.find("interface ge0/2 ge0/3 ge0/1\n"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("+ vpn vpn-instance 0 service FW"), std::string::npos) << result.output;
}

TEST_F(cli, a_value_that_the_agent_refuses_is_told_with_its_place)
{
    std::string file = write("bad.cfg", "set vpn vpn-instance 10 interface ge0/1 arp-timeout 20000000000\n");
    cli_run_t result = run({ file });
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("bad.cfg:1:53: "), std::string::npos) << result.output;
}

TEST_F(cli, the_agent_tells_its_state_and_who_is_connected)
{
    EXPECT_NE(command("show agent status").output.find("phase 2\n"), std::string::npos);
    cli_run_t sessions = command("show sessions | include cli");
    EXPECT_EQ(sessions.status, 0) << sessions.output;
    EXPECT_NE(sessions.output.find("127.0.0.1"), std::string::npos) << sessions.output;
}

TEST_F(cli, a_terminal_completes_pages_and_keeps_secrets)
{
    ASSERT_EQ(run({ "--commit", write("two.cfg", TWO_VPNS) }).status, 0);
    ASSERT_EQ(command("configure; set confdConfig cli banner \"First line\\nSecond line\"; commit").status, 0);
    cli_terminal terminal({ CLI_PROGRAM, "--port", std::to_string(agent.port()), "--yang", TEST_YANG_DIR },
                          agent.dir().path(""), 5);
    EXPECT_TRUE(terminal.expect("First line\r\nSecond line\r\n")) << terminal.seen;
    EXPECT_TRUE(terminal.type("show configu\t", "ration ")) << terminal.seen;
    EXPECT_TRUE(terminal.type("vpn vpn-instance ?", "<0..65529>")) << terminal.seen;
    EXPECT_TRUE(terminal.type("\r", "--More--")) << terminal.seen;
    EXPECT_TRUE(terminal.type("q", "> ")) << terminal.seen;
    EXPECT_TRUE(terminal.type("configur\r", "did you mean 'configure'?")) << terminal.seen;
    EXPECT_TRUE(terminal.type("configure\r", "(config)# ")) << terminal.seen;
    std::string leaf = "vpn vpn-instance 10 interface ppp1 ppp authentication chap password";
    EXPECT_TRUE(terminal.type("set " + leaf + "\r", "password: ")) << terminal.seen;
    EXPECT_TRUE(terminal.type("hidden1\r", "password again: ")) << terminal.seen;
    EXPECT_TRUE(terminal.type("hidden1\r", "(config)# ")) << terminal.seen;
    EXPECT_EQ(terminal.seen.find("hidden"), std::string::npos) << terminal.seen;
    EXPECT_TRUE(terminal.type("set " + leaf + " hidden2\r", "(config)# ")) << terminal.seen;
    EXPECT_TRUE(terminal.type("show " + leaf + " | include pass\r", "password $8$")) << terminal.seen;
    EXPECT_TRUE(terminal.expect("# ")) << terminal.seen;
    std::string history = agent.dir().read(".cfgmgr_cli_history");
    EXPECT_NE(history.find("set " + leaf + "\n"), std::string::npos) << history;
    EXPECT_EQ(history.find("hidden"), std::string::npos) << history;
}

TEST_F(cli, an_agent_that_is_gone_ends_it_with_2)
{
    agent.kill_it(SIGKILL);
    cli_run_t result = command("show configuration");
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.output.find("cannot reach the agent"), std::string::npos) << result.output;
    EXPECT_EQ(run({ "--nosuch" }).status, 2);
}

} // namespace
