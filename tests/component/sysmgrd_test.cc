// The real sysmgrd in a folder of its own, with stand-ins (tests/component/platform) for the programs that it runs.
#include "tests/harness/temp_dir.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

constexpr int HELLO = 1, VPN_ADD = 5, VPN_DEL = 6, AGENT_READY = 7;

class Sysmgrd : public ::testing::Test
{
protected:
    Sysmgrd()
    {
        prctl(PR_SET_CHILD_SUBREAPER, 1); // children that a killed sysmgrd leaves behind become the test's, to be ended
        dir.make_dir("var/run");
        dir.make_dir("var/log");
    }
    ~Sysmgrd() override
    {
        if (pid > 0)
            end(SIGKILL);
        while (waitpid(-1, nullptr, WNOHANG) >= 0) { // ends when there is no child left
            for (pid_t child : children())
                kill(child, SIGKILL);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    static std::vector<pid_t> children()
    {
        std::ifstream list("/proc/self/task/" + std::to_string(getpid()) + "/children");
        return { std::istream_iterator<pid_t>(list), {} };
    }

    void start(const std::string &hello_limit_ms = "10000", const std::string &start_limit_ms = "120000")
    {
        std::string stand_ins = STAND_INS_DIR;
        std::vector<std::string> words = {
            SYSMGRD_PROGRAM,    "--foreground",
            "--root",           dir.path(),
            "--personality",    personality,
            "--agentd",         stand_ins + "/agentd",
            "--cfgmgr",         stand_ins + "/cfgmgr",
            "--agent-cmd",      stand_ins + "/agent_cmd",
            "--agent-bits",     stand_ins + "/agent_bits",
            "--routing-peer",   routing_peer,
            "--agent-port",     "4711",
            "--hello-limit-ms", hello_limit_ms,
            "--start-limit-ms", start_limit_ms,
        };
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        pid = fork();
        if (pid == 0) {
            int log = open(dir.path("log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            dup2(log, STDOUT_FILENO);
            dup2(log, STDERR_FILENO);
            if (chdir(dir.path().c_str()) == 0)
                execv(argv[0], argv.data());
            _exit(127);
        }
    }

    int end(int number)
    {
        int status = -1;
        kill(pid, number);
        waitpid(pid, &status, 0);
        pid = -1;
        return status;
    }

    std::vector<pid_t> pids(const std::string &file) const
    {
        std::vector<pid_t> found;
        std::stringstream text(dir.read(file));
        for (pid_t number; text >> number;)
            found.push_back(number);
        return found;
    }

    template <typename Condition>::testing::AssertionResult soon(Condition condition) const
    {
        for (int i = 0; i < 1500; i++) {
            if (condition())
                return ::testing::AssertionSuccess();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return ::testing::AssertionFailure() << "not within 15 s\n"
                                             << dir.read("log") << dir.read("var/run/sysmgrd.status");
    }
    ::testing::AssertionResult soon_starts(const std::string &file, size_t times) const
    {
        return soon([&] { return pids(file).size() >= times; });
    }
    ::testing::AssertionResult soon_has(const std::string &file, const std::string &text) const
    {
        return soon([&] { return dir.read(file).find(text) != std::string::npos; });
    }
    ::testing::AssertionResult soon_up() const
    {
        return soon(
            [&] { return !pids("cfgmgr.pids").empty() && pids("var/run/cfgmgr.0.pid") == last("cfgmgr.pids"); });
    }
    std::vector<pid_t> last(const std::string &file) const { return { pids(file).back() }; }

    void say(const std::string &lines) const
    {
        dir.write("say.new", lines);
        std::filesystem::rename(dir.path("say.new"), dir.path("say"));
    }
    static std::string line(int type, uint64_t value = 0)
    {
        return std::to_string(type) + " " + std::to_string(value) + "\n";
    }

    // The pid in the file of a routing daemon, 0 without one.
    pid_t routing(const std::string &file) const
    {
        std::vector<pid_t> found = pids("var/run/quagga/" + file);
        return found.size() == 1 ? found[0] : 0;
    }
    ::testing::AssertionResult soon_runs(const std::vector<std::string> &files) const
    {
        return soon([&] {
            return std::all_of(files.begin(), files.end(), [&](const std::string &file) { return routing(file) != 0; });
        });
    }
    ::testing::AssertionResult soon_other(const std::string &file, pid_t before) const
    {
        return soon([&] { return routing(file) != 0 && routing(file) != before; });
    }
    std::string personality = "tarn";
    std::string routing_peer = std::string(STAND_INS_DIR) + "/routing_peer";

    temp_dir dir;
    pid_t pid = -1;
};

TEST_F(Sysmgrd, cfgmgr_gets_its_pid_file_with_its_first_hello)
{
    dir.write("silent", "");
    dir.write("var/run/cfgmgr.0.pid", "1\n"); // of a boot before
    start();
    ASSERT_TRUE(soon_starts("cfgmgr.pids", 1));
    EXPECT_EQ(dir.read("cfgmgr.started"), "without\n");
    EXPECT_EQ(dir.read("cfgmgr.words"), "-f -p tarn\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(dir.has("var/run/cfgmgr.0.pid"));
    std::filesystem::remove(dir.path("silent"));
    ASSERT_TRUE(soon_up());
    EXPECT_TRUE(soon([&] { return pids("var/run/agentd.0.pid") == pids("agentd.pids"); }));
    EXPECT_EQ(pids("var/run/fp.0.pid"), std::vector{ pid });
    EXPECT_TRUE(soon_has("var/log/cfgmgr.log", "assertion lines appear here"));
}

TEST_F(Sysmgrd, agent_serves_before_the_first_bit_is_set)
{
    dir.write("refuse", "");
    start();
    ASSERT_TRUE(soon_up());
    EXPECT_FALSE(dir.has("calls")); // nothing is asked before cfgmgr has reported
    say(line(AGENT_READY));
    ASSERT_TRUE(soon_has("calls", "agent_cmd --port 4711 start-phase2\nagent_cmd")); // refused, asked again
    EXPECT_EQ(dir.read("calls").find("agent_bits"), std::string::npos);
    std::filesystem::remove(dir.path("refuse"));
    ASSERT_TRUE(soon_has("calls", "agent_cmd --port 4711 start-phase2\nagent_bits --port 4711 1\n"));
    ASSERT_TRUE(soon_has("var/run/sysmgrd.status", "\"step\":\"watch\""));
    dir.write("bits", "3\n"); // cfgmgr has read
    EXPECT_TRUE(soon_has("var/run/sysmgrd.status", "\"step\":\"done\""));
    EXPECT_TRUE(soon_has("var/run/sysmgrd.status", "\"read-bits\":3"));
}

TEST_F(Sysmgrd, agent_started_anew_gets_back_what_it_had)
{
    start();
    ASSERT_TRUE(soon_up());
    say(line(AGENT_READY));
    ASSERT_TRUE(soon_has("var/run/sysmgrd.status", "\"step\":\"watch\""));
    dir.write("bits", "7\n");
    ASSERT_TRUE(soon_has("var/run/sysmgrd.status", "\"step\":\"done\""));
    std::filesystem::remove(dir.path("calls"));
    kill(pids("agentd.pids")[0], SIGKILL);
    ASSERT_TRUE(soon_starts("agentd.pids", 2));
    ASSERT_TRUE(soon_has("calls", "agent_bits --port 4711 7\n"));
    EXPECT_EQ(dir.read("calls"), "agent_cmd --port 4711 start-phase2\nagent_bits --port 4711 7\n");
    EXPECT_EQ(pids("cfgmgr.pids").size(), 1u);
}

TEST_F(Sysmgrd, dead_cfgmgr_is_started_again_and_its_bit_forgotten)
{
    start();
    ASSERT_TRUE(soon_up());
    say(line(AGENT_READY));
    ASSERT_TRUE(soon_has("var/run/sysmgrd.status", "\"step\":\"watch\""));
    dir.write("bits", "3\n");
    ASSERT_TRUE(soon_has("var/run/sysmgrd.status", "\"step\":\"done\""));
    kill(pids("cfgmgr.pids")[0], SIGSEGV);
    ASSERT_TRUE(soon_starts("cfgmgr.pids", 2));
    EXPECT_EQ(dir.read("cfgmgr.started"), "without\nwithout\n");
    EXPECT_TRUE(soon_up());
    EXPECT_TRUE(soon_has("var/run/sysmgrd.status", "\"read-bits\":1"));
    EXPECT_TRUE(soon_has("log", "was ended by signal 11"));
    EXPECT_TRUE(soon_has("log", "what it printed is in " + dir.path("var/log/cfgmgr.log")));
}

TEST_F(Sysmgrd, silence_after_a_hello_is_death)
{
    start("500");
    ASSERT_TRUE(soon_up());
    dir.write("silent", "");
    ASSERT_TRUE(soon_has("log", "it counts as dead"));
    ASSERT_TRUE(soon_has("log", "was ended by signal 9"));
    std::filesystem::remove(dir.path("silent"));
    ASSERT_TRUE(soon_starts("cfgmgr.pids", 2));
    EXPECT_TRUE(soon_up());
}

TEST_F(Sysmgrd, silence_before_a_hello_has_a_limit_of_its_own)
{
    dir.write("silent", "");
    start("200", "1500");
    ASSERT_TRUE(soon_starts("cfgmgr.pids", 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    EXPECT_EQ(dir.read("log").find("killing"), std::string::npos);
    ASSERT_TRUE(soon_has("log", "it does not come up; killing it"));
    EXPECT_TRUE(soon_starts("cfgmgr.pids", 2));
}

TEST_F(Sysmgrd, vpns_are_a_set)
{
    start();
    ASSERT_TRUE(soon_up());
    say(line(VPN_ADD, 0) + line(VPN_ADD, 65530) + line(VPN_ADD, 5) + line(VPN_ADD, 5) + line(VPN_DEL, 65530) +
        line(VPN_DEL, 9));
    EXPECT_TRUE(soon_has("var/run/sysmgrd.status", "\"vpns\":[0,5]"));
}

TEST_F(Sysmgrd, successor_takes_over_what_a_killed_one_has_left)
{
    start();
    ASSERT_TRUE(soon_up());
    say(line(AGENT_READY) + line(VPN_ADD, 5));
    ASSERT_TRUE(soon_has("calls", "agent_bits --port 4711 1\n"));
    ASSERT_TRUE(soon_has("var/run/sysmgrd.status", "\"vpns\":[5]"));
    end(SIGKILL);
    std::filesystem::remove(dir.path("var/run/sysmgrd.status"));
    std::filesystem::remove(dir.path("calls"));
    dir.write("bits", "3\n");
    start("700");
    ASSERT_TRUE(soon_has("var/run/sysmgrd.status", "\"vpns\":[5]"));
    EXPECT_TRUE(soon_has("var/run/sysmgrd.status", "\"step\":\"done\"")); // cfgmgr does not report a second time
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_EQ(pids("agentd.pids").size(), 1u);
    EXPECT_EQ(pids("cfgmgr.pids").size(), 1u); // its hellos go to the successor, or it would have been killed
    kill(pids("cfgmgr.pids")[0], SIGKILL);
    kill(pids("agentd.pids")[0], SIGKILL);
    EXPECT_TRUE(soon_starts("cfgmgr.pids", 2));
    EXPECT_TRUE(soon_starts("agentd.pids", 2));
    EXPECT_TRUE(soon_up());
}

TEST_F(Sysmgrd, child_that_had_not_said_hello_is_found_too)
{
    dir.write("silent", "");
    start();
    ASSERT_TRUE(soon_starts("cfgmgr.pids", 1));
    ASSERT_TRUE(soon([&] { return dir.has("var/run/cfgmgr.starting.0.pid"); }));
    end(SIGKILL);
    start();
    ASSERT_TRUE(soon_has("log", "Took over cfgmgr"));
    std::filesystem::remove(dir.path("silent"));
    EXPECT_TRUE(soon_up());
    EXPECT_EQ(pids("cfgmgr.pids").size(), 1u);
    EXPECT_FALSE(dir.has("var/run/cfgmgr.starting.0.pid"));
}

TEST_F(Sysmgrd, pid_file_of_another_program_is_not_believed)
{
    dir.write("var/run/agentd.0.pid", std::to_string(getpid()) + "\n");
    start();
    ASSERT_TRUE(soon_starts("agentd.pids", 1));
    EXPECT_TRUE(soon([&] { return pids("var/run/agentd.0.pid") == pids("agentd.pids"); }));
}

TEST_F(Sysmgrd, stops_cfgmgr_before_the_agent)
{
    start();
    ASSERT_TRUE(soon_up());
    ASSERT_TRUE(soon_starts("agentd.pids", 1));
    int status = end(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(dir.read("signals"), "cfgmgr-usr2\nagentd-term\n");
    for (const char *name : { "cfgmgr", "agentd", "fp", "sysmgrd" })
        EXPECT_FALSE(dir.has(std::string("var/run/") + name + ".0.pid")) << name;
}

// ---- routing daemons

TEST_F(Sysmgrd, transport_vpn_has_its_routing_daemons_before_cfgmgr_says_a_word)
{
    dir.write("silent", "");
    start();
    ASSERT_TRUE(soon_runs({ "zebra.pid", "ospfd.pid", "bgpd.pid" }));
    EXPECT_TRUE(soon_has("var/run/sysmgrd.status", "{\"vpn\":0,\"zebra\":" + std::to_string(routing("zebra.pid")) +
                                                       ",\"ospfd\":" + std::to_string(routing("ospfd.pid")) +
                                                       ",\"bgpd\":" + std::to_string(routing("bgpd.pid")) +
                                                       ",\"restarts\":0}"));
}

TEST_F(Sysmgrd, added_vpn_gets_routing_daemons_and_a_removed_one_loses_them)
{
    start();
    ASSERT_TRUE(soon_up());
    say(line(VPN_ADD, 5) + line(VPN_ADD, 512));
    ASSERT_TRUE(soon_runs({ "zebra.pid.5", "ospfd.pid.5", "bgpd.pid.5", "zebra.pid.512" }));
    EXPECT_FALSE(dir.has("var/run/quagga/ospfd.pid.512")); // one turn later than the ones that were waited for
    EXPECT_FALSE(dir.has("var/run/quagga/bgpd.pid.512"));
    ASSERT_TRUE(soon_has("var/run/sysmgrd.status", "{\"vpn\":5,"));
    std::vector<pid_t> zebra = pids("zebra.5.pids");
    say(line(VPN_DEL, 5) + line(VPN_DEL, 0));
    ASSERT_TRUE(soon([&] { return dir.read("var/run/sysmgrd.status").find("{\"vpn\":5,") == std::string::npos; }));
    for (const char *file : { "zebra.pid.5", "ospfd.pid.5", "bgpd.pid.5" })
        EXPECT_FALSE(dir.has(std::string("var/run/quagga/") + file)) << file;
    EXPECT_EQ(kill(zebra[0], 0), -1);
    EXPECT_NE(routing("zebra.pid"), 0); // VPN 0's are not cfgmgr's to end
    EXPECT_NE(routing("zebra.pid.512"), 0);
}

TEST_F(Sysmgrd, controllers_run_zebra_alone)
{
    personality = "lodest";
    start();
    ASSERT_TRUE(soon_up());
    say(line(VPN_ADD, 5));
    ASSERT_TRUE(soon_runs({ "zebra.pid", "zebra.pid.5" }));
    ASSERT_TRUE(soon_has("var/run/sysmgrd.status",
                         "{\"vpn\":5,\"zebra\":" + std::to_string(routing("zebra.pid.5")) + ",\"restarts\":0}"));
    EXPECT_EQ(dir.read("var/run/sysmgrd.status").find("ospfd"), std::string::npos);
}

TEST_F(Sysmgrd, dead_routing_daemon_is_started_again_without_cfgmgr)
{
    start();
    ASSERT_TRUE(soon_up());
    say(line(VPN_ADD, 5));
    ASSERT_TRUE(soon_runs({ "zebra.pid.5", "ospfd.pid.5", "bgpd.pid.5" }));
    pid_t dead = routing("bgpd.pid.5");
    pid_t other = routing("ospfd.pid.5");
    kill(dead, SIGKILL);
    EXPECT_TRUE(soon_other("bgpd.pid.5", dead));
    EXPECT_TRUE(soon_has("var/run/sysmgrd.status", "\"restarts\":1}"));
    EXPECT_TRUE(soon_has("log", "bgpd of VPN 5 (pid " + std::to_string(dead) + ") was ended by signal 9"));
    EXPECT_EQ(routing("ospfd.pid.5"), other);
    EXPECT_EQ(pids("cfgmgr.pids").size(), 1u);
}

TEST_F(Sysmgrd, cfgmgr_started_again_meets_new_routing_daemons)
{
    start();
    ASSERT_TRUE(soon_up());
    say(line(VPN_ADD, 5));
    ASSERT_TRUE(soon_runs({ "zebra.pid", "ospfd.pid", "bgpd.pid", "zebra.pid.5", "ospfd.pid.5", "bgpd.pid.5" }));
    pid_t transport = routing("zebra.pid"), vpn_5 = routing("zebra.pid.5");
    dir.write("stubborn", ""); // what does not end when told is killed, before cfgmgr starts
    kill(pids("cfgmgr.pids")[0], SIGKILL);
    ASSERT_TRUE(soon_starts("cfgmgr.pids", 2));
    EXPECT_EQ(kill(transport, 0), -1);
    EXPECT_EQ(kill(vpn_5, 0), -1);
    EXPECT_TRUE(soon_has("log", "does not end within"));
    std::filesystem::remove(dir.path("stubborn"));
    EXPECT_TRUE(soon_other("zebra.pid", transport));
    EXPECT_TRUE(soon_has("var/run/sysmgrd.status", "\"vpns\":[]")); // cfgmgr tells them anew
    EXPECT_FALSE(dir.has("var/run/quagga/zebra.pid.5"));
    say(line(VPN_ADD, 5));
    EXPECT_TRUE(soon_other("zebra.pid.5", vpn_5));
}

TEST_F(Sysmgrd, vpn_that_comes_back_gets_new_daemons_even_where_the_old_ones_do_not_end)
{
    start();
    ASSERT_TRUE(soon_up());
    say(line(VPN_ADD, 5));
    ASSERT_TRUE(soon_runs({ "zebra.pid.5", "ospfd.pid.5", "bgpd.pid.5" }));
    pid_t before = routing("zebra.pid.5");
    dir.write("stubborn", "");
    say(line(VPN_DEL, 5) + line(VPN_ADD, 5));
    EXPECT_TRUE(soon_other("zebra.pid.5", before));
    EXPECT_EQ(dir.read("log").find("does not end within"), std::string::npos); // nothing was waited for
}

TEST_F(Sysmgrd, successor_takes_over_routing_daemons)
{
    start();
    ASSERT_TRUE(soon_up());
    say(line(VPN_ADD, 5));
    ASSERT_TRUE(soon_runs({ "zebra.pid", "ospfd.pid", "bgpd.pid", "zebra.pid.5", "ospfd.pid.5", "bgpd.pid.5" }));
    pid_t kept = routing("zebra.pid.5"), dead = routing("ospfd.pid.5");
    end(SIGKILL);
    kill(dead, SIGKILL);
    waitpid(dead, nullptr, 0); // the test has inherited it
    start();
    ASSERT_TRUE(soon_has("log", "Took over zebra of VPN 5, pid " + std::to_string(kept)));
    EXPECT_TRUE(soon_other("ospfd.pid.5", dead));
    EXPECT_EQ(pids("zebra.5.pids").size(), 1u);
    EXPECT_EQ(pids("zebra.pids").size(), 1u);
}

TEST_F(Sysmgrd, successor_ends_routing_daemons_of_a_cfgmgr_that_is_gone)
{
    start();
    ASSERT_TRUE(soon_up());
    say(line(VPN_ADD, 5));
    ASSERT_TRUE(soon_runs({ "zebra.pid", "zebra.pid.5", "ospfd.pid.5", "bgpd.pid.5" }));
    pid_t transport = routing("zebra.pid");
    pid_t cfgmgr = pids("cfgmgr.pids")[0];
    end(SIGKILL);
    kill(cfgmgr, SIGKILL);
    waitpid(cfgmgr, nullptr, 0);
    start();
    ASSERT_TRUE(soon_starts("cfgmgr.pids", 2));
    EXPECT_FALSE(dir.has("var/run/quagga/zebra.pid.5"));
    EXPECT_TRUE(soon_other("zebra.pid", transport));
}

TEST_F(Sysmgrd, real_routing_daemons_open_their_sockets_and_are_taken_over)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "no right to enter a network namespace";
    dir.make_dir("var/run/netns");
    std::filesystem::create_symlink("/proc/self/ns/net", dir.path("var/run/netns/5"));
    routing_peer = PEER_PROGRAM;
    start();
    ASSERT_TRUE(soon_up());
    say(line(VPN_ADD, 5));
    for (const char *name : { "zebra", "ospfd", "bgpd" }) {
        std::string socket = std::string("var/run/quagga/") + name + "_protobuf_mgmt.api";
        EXPECT_TRUE(soon([&] { return dir.has(socket) && dir.has(socket + ".5"); })) << name;
    }
    ASSERT_TRUE(soon_has("var/run/sysmgrd.status", "\"vpns\":[5]"));
    pid_t zebra = routing("zebra.pid.5");
    end(SIGKILL);
    start();
    ASSERT_TRUE(soon_has("log", "Took over zebra of VPN 5, pid " + std::to_string(zebra)));
    say(line(VPN_DEL, 5));
    EXPECT_TRUE(soon([&] { return routing("zebra.pid.5") == 0 && routing("bgpd.pid.5") == 0; }));
    EXPECT_NE(routing("zebra.pid"), 0);
    EXPECT_FALSE(dir.has("var/run/quagga/zebra_protobuf_mgmt.api.5"));
    EXPECT_EQ(dir.read("var/log/quagga/routing_peer.log"), "");
}

TEST_F(Sysmgrd, stop_ends_the_routing_daemons_too)
{
    start();
    ASSERT_TRUE(soon_up());
    say(line(VPN_ADD, 5));
    ASSERT_TRUE(soon_runs({ "zebra.pid", "ospfd.pid", "bgpd.pid", "zebra.pid.5", "ospfd.pid.5", "bgpd.pid.5" }));
    int status = end(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_TRUE(std::filesystem::is_empty(dir.path("var/run/quagga")));
    std::string ended = dir.read("routing.ended");
    EXPECT_EQ(std::count(ended.begin(), ended.end(), '\n'), 6);
}

TEST_F(Sysmgrd, second_instance_is_refused)
{
    start();
    ASSERT_TRUE(soon_up());
    pid_t first = pid;
    start();
    int status = -1;
    waitpid(pid, &status, 0);
    pid = first;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
    EXPECT_EQ(pids("var/run/sysmgrd.0.pid"), std::vector{ first });
    EXPECT_EQ(pids("agentd.pids").size(), 1u);
}

} // namespace
