// Commands, and what depends on running them: interface addresses, the namespace of a VPN.
#include "common/tip_ifaddr.h"
#include "common/tip_netns.h"
#include "common/tip_root.h"
#include "common/tip_system.h"
#include "tests/harness/death.h"
#include "tests/harness/temp_dir.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace
{

// Programs of the test's own stand first in PATH, and what commands say on standard error goes nowhere.
class tip_system_test : public testing::Test
{
protected:
    tip_system_test() : old_path(getenv("PATH")), old_stderr(dup(STDERR_FILENO))
    {
        setenv("PATH", (dir.path() + ":" + old_path).c_str(), 1);
        int null = open("/dev/null", O_WRONLY);
        dup2(null, STDERR_FILENO);
        close(null);
    }
    ~tip_system_test() override
    {
        dup2(old_stderr, STDERR_FILENO);
        close(old_stderr);
        setenv("PATH", old_path.c_str(), 1);
    }

    void add_program(const std::string &name, const std::string &text, mode_t mode = 0755)
    {
        dir.write(name, text);
        chmod(dir.path(name).c_str(), mode);
    }

    temp_dir dir;
    std::string old_path;
    int old_stderr;
};

TEST_F(tip_system_test, status_is_that_of_system)
{
    add_program("code", "#!/bin/sh\nexit $1\n");
    add_program("bare", "exit 5\n"); // no interpreter line: a shell's affair
    add_program("locked", "#!/bin/sh\nexit 0\n", 0644);
    std::string locked = dir.path("locked");
    const std::string commands[] = {
        "code 0",
        "code 1",
        "code 255",
        "\t code   3\t",
        "code 3;",
        "bare",
        "true",
        "false",
        "exit 9",
        "cd /",
        ":",
        "",
        "  ",
        "kill -TERM $$",
        "kill -INT $$",
        "test -d /",
        "no_such_program_here",
        "no_such_program_here 2>/dev/null",
        "/nonexistent/program",
        "/tmp",
        locked,
        locked + " 'x'",
        "code 2 && code 4",
        "code 2 || code 4",
        "! code 2",
        "A=4; code $A",
        "A=4 code 6",
        "(code 7)",
        "echo 'unbalanced",
        "echo none > /proc/sys/net/ipv4/ip_forward", // refused
        "code 1 # 2",
        "if true; then code 8; fi",
        "code $((4+4))",
        "ls /nonexist*",
        "code \"2\"",
        "code 11\ncode 12",
    };
    for (const std::string &command : commands)
        EXPECT_EQ(tip_system(command.c_str()), system(command.c_str())) << "[" << command << "]";
}

TEST_F(tip_system_test, a_program_that_a_signal_kills_is_told_from_one_that_fails)
{
    add_program("die", "#!/bin/sh\nkill -$1 $$\n");
    EXPECT_EQ(tip_system("die KILL"), SIGKILL);
    EXPECT_EQ(tip_system("die TERM"), SIGTERM);
    EXPECT_EQ(tip_system("die INT"), SIGINT);
}

TEST_F(tip_system_test, words_are_split_at_blanks_only)
{
    add_program("words", "#!/bin/sh\nfor w; do echo \"<$w>\"; done > " + dir.path("out") + "\n");
    const char *rows[][2] = {
        { "words addr add 10.1.2.3/24 dev ge0_0.100", "<addr>\n<add>\n<10.1.2.3/24>\n<dev>\n<ge0_0.100>\n" },
        { "  words\tone \t two  ", "<one>\n<two>\n" },
        { "words 'one two' $((1+2))", "<one two>\n<3>\n" },
        { "words a,b+c@d:e_f^", "<a,b+c@d:e_f^>\n" },
        { "words", "" },
    };
    for (const auto &row : rows) {
        EXPECT_TRUE(tip_system_ok(tip_system(row[0]))) << row[0];
        EXPECT_EQ(dir.read("out"), row[1]) << row[0];
    }
}

TEST_F(tip_system_test, a_redirection_of_both_outputs_works_where_bash_is_installed)
{
    if (access("/bin/bash", X_OK) != 0)
        GTEST_SKIP() << "no bash here";
    add_program("say", "#!/bin/sh\necho out\necho err >&2\n");
    EXPECT_TRUE(tip_system_ok(tip_system(("say >& " + dir.path("both")).c_str())));
    EXPECT_EQ(dir.read("both"), "out\nerr\n");
}

TEST_F(tip_system_test, success_is_exit_status_0_and_nothing_else)
{
    EXPECT_TRUE(tip_system_ok(0));
    for (int status : { -1, 1 << 8, 255 << 8, SIGKILL, SIGTERM, SIGSEGV | 0x80 })
        EXPECT_FALSE(tip_system_ok(status)) << status;
    EXPECT_FALSE(tip_system_ok(tip_system("echo 1 > /proc/sys/no_such_setting")));
    EXPECT_FALSE(tip_system_ok(tip_system("echo 1 > /proc/sys/kernel")));
}

TEST_F(tip_system_test, a_program_is_found_without_a_path_in_the_environment)
{
    unsetenv("PATH");
    EXPECT_TRUE(tip_system_ok(tip_system("env test -d /")));
}

TEST_F(tip_system_test, only_the_standard_descriptors_reach_a_command)
{
    constexpr int leaked = 57;
    ASSERT_EQ(dup2(STDOUT_FILENO, leaked), leaked);
    for (const char *command : { "env test -e /proc/self/fd/57", "env test -e /proc/self/fd/57 && true" })
        EXPECT_FALSE(tip_system_ok(tip_system(command))) << command;
    for (const char *command : { "env test -e /proc/self/fd/2", "env test -e /proc/self/fd/2 && true" })
        EXPECT_TRUE(tip_system_ok(tip_system(command))) << command;
    close(leaked);
}

std::atomic<int> child_signals;

TEST_F(tip_system_test, other_children_and_signal_treatment_are_left_alone)
{
    struct sigaction counting = {};
    counting.sa_handler = [](int) {
        child_signals++;
    };
    struct sigaction old_child, old_int, after;
    sigaction(SIGCHLD, &counting, &old_child);
    sigaction(SIGINT, &counting, &old_int);
    sigset_t mask_before, mask_after;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask_before);

    pid_t other = fork();
    if (other == 0)
        _exit(42);
    EXPECT_TRUE(tip_system_ok(tip_system("sleep 0.05")));
    int status = 0;
    EXPECT_EQ(waitpid(other, &status, 0), other) << "the other child was reaped";
    EXPECT_EQ(WEXITSTATUS(status), 42);
    EXPECT_GT(child_signals.load(), 0) << "the handler has heard of children";

    child_signals = 0;
    sigaction(SIGCHLD, nullptr, &after);
    EXPECT_EQ(after.sa_handler, counting.sa_handler);
    sigaction(SIGINT, nullptr, &after);
    EXPECT_EQ(after.sa_handler, counting.sa_handler);
    pthread_sigmask(SIG_SETMASK, nullptr, &mask_after);
    EXPECT_EQ(sigismember(&mask_before, SIGCHLD), sigismember(&mask_after, SIGCHLD));
    sigaction(SIGCHLD, &old_child, nullptr);
    sigaction(SIGINT, &old_int, nullptr);
}

TEST_F(tip_system_test, a_key_that_interrupts_reaches_the_command_but_not_the_daemon)
{
    child_result_t result = run_in_child([] {
        signal(SIGINT, SIG_DFL);
        signal(SIGQUIT, SIG_DFL);
        int status = tip_system("kill -INT $PPID; kill -QUIT $PPID; kill -INT $$");
        printf("%d", WIFSIGNALED(status) ? WTERMSIG(status) : -1);
    });
    EXPECT_EQ(result.output, std::to_string(SIGINT));
}

TEST_F(tip_system_test, threads_get_the_status_of_their_own_command)
{
    add_program("code", "#!/bin/sh\nexit $1\n");
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; thread++)
        threads.emplace_back([thread, &wrong] {
            for (int i = 0; i < 10; i++)
                if (WEXITSTATUS(tip_system(("code " + std::to_string(thread * 10 + i)).c_str())) != thread * 10 + i)
                    wrong++;
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    struct sigaction after;
    sigaction(SIGINT, nullptr, &after);
    EXPECT_EQ(after.sa_handler, SIG_DFL);
}

TEST_F(tip_system_test, no_process_for_the_command_is_an_error_with_its_number)
{
    child_result_t result = run_in_child([] {
        if (geteuid() == 0 && setresuid(54321, 54321, 54321) != 0)
            return;
        rlimit none = { 0, 0 };
        setrlimit(RLIMIT_NPROC, &none);
        errno = 0;
        int status = tip_system("ls /");
        printf("%d %d", status, errno == EAGAIN);
    });
    EXPECT_EQ(result.output, "-1 1");
}

// ---- In a network namespace of the test's own

// A user without privilege becomes root of a user namespace first, so that programs keep the right to the network.
bool new_network()
{
    std::string map = "0 " + std::to_string(geteuid()) + " 1";
    if (geteuid() != 0) {
        if (unshare(CLONE_NEWUSER) != 0)
            return false;
        std::ofstream("/proc/self/uid_map") << map;
    }
    return unshare(CLONE_NEWNET) == 0;
}

ino_t current_network()
{
    struct stat info;
    return stat("/proc/thread-self/ns/net", &info) == 0 ? info.st_ino : 0;
}

// Names the calling thread's network namespace in the fake root; the descriptor stays open to keep it.
void name_network(const std::string &path)
{
    int fd = open("/proc/thread-self/ns/net", O_RDONLY);
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    (void)!symlink(("/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd)).c_str(), path.c_str());
}

bool networks_available()
{
    return WEXITSTATUS(run_in_child([] { _exit(new_network() ? 0 : 1); }).status) == 0;
}

class netns : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!networks_available())
            GTEST_SKIP() << "network namespaces cannot be made here";
        tip_root_set(dir.path().c_str());
    }
    void TearDown() override { tip_root_set(""); }

    temp_dir dir;
};

TEST_F(netns, a_guard_is_inside_while_it_lives_and_commands_with_it)
{
    child_result_t result = run_in_child([&] {
        new_network();
        name_network(dir.path("proc/1/ns/net"));
        ino_t outside = current_network();
        (void)!unshare(CLONE_NEWNET);
        name_network(dir.path("var/run/netns/5"));
        ino_t inside = current_network();
        netns_leave(5);
        printf("%d", current_network() == outside);
        {
            netns_guard guard(5);
            std::string command = "test \"$(readlink /proc/self/ns/net)\" = \"net:[" + std::to_string(inside) + "]\"";
            printf("%d%d", current_network() == inside, tip_system_ok(tip_system(command.c_str())));
        }
        {
            netns_guard guard(0);
            printf("%d", current_network() == outside);
        }
        printf("%d", current_network() == outside);
    });
    EXPECT_EQ(result.output, "11111");
}

std::string file_text(const char *path)
{
    std::ifstream file(path);
    std::string text;
    std::getline(file, text);
    return text;
}

TEST_F(netns, a_kernel_setting_is_written_without_a_process_and_in_the_threads_own_namespace)
{
    static constexpr char file[] = "/proc/sys/net/ipv4/conf/lo/arp_announce";
    child_result_t result = run_in_child([] {
        new_network();
        std::thread([] {
            (void)!unshare(CLONE_NEWNET);
            printf("%d ", tip_system("echo 2 >\t/proc/sys/net/ipv4/conf/lo/arp_announce "));
            printf("%s ", file_text(file).c_str());
        }).join();
        rusage children;
        getrusage(RUSAGE_CHILDREN, &children);
        printf("%s %ld", file_text(file).c_str(), children.ru_minflt);
    });
    EXPECT_EQ(result.output, "0 2 0 0");
}

TEST_F(netns, what_only_looks_like_a_kernel_setting_goes_to_the_shell)
{
    child_result_t result = run_in_child([] {
        new_network();
        setenv("MODE", "1", 1);
        for (const char *start : { "echo $MODE", "echo -n 2", "echo -n", "echo '0'", "printf 2" }) {
            std::string command = std::string(start) + " > /proc/sys/net/ipv4/conf/lo/arp_announce";
            printf("%d", tip_system_ok(tip_system(command.c_str())));
            printf("%s ", file_text("/proc/sys/net/ipv4/conf/lo/arp_announce").c_str());
        }
    });
    EXPECT_EQ(result.output, "11 12 12 10 12 ");
}

TEST_F(netns, entering_a_namespace_that_is_not_there_is_an_assertion)
{
    expect_assertion([] { netns_enter(5); }, "failed assertion `0'");
    dir.write("var/run/netns/6", "");
    expect_assertion([] { netns_enter(6); }, "failed assertion `0'");
}

TEST_F(netns, leaving_ends_the_process_quietly_when_process_1_is_gone)
{
    child_result_t result = run_in_child([] { netns_leave(5); });
    EXPECT_TRUE(WIFEXITED(result.status));
    EXPECT_EQ(WEXITSTATUS(result.status), 0);
    EXPECT_EQ(result.output, "");
    dir.write("proc/1/ns/net", "");
    expect_assertion([] { netns_leave(5); }, "failed assertion `0'");
}

struct ifaddr_row_t {
    const char *address;
    uint8_t len;
    bool broadcast, is_delete;
    int result;
    const char *shown; // among the interface's addresses afterwards
    const char *not_shown;
};

const ifaddr_row_t ifaddr_rows[] = {
    { "10.1.2.3", 24, true, false, 0, "inet 10.1.2.3/24 brd 10.1.2.255", "none" },
    { "10.1.2.3", 24, true, false, 17, "inet 10.1.2.3/24 brd 10.1.2.255", "none" },
    { "10.9.9.9", 32, false, false, 0, "inet 10.9.9.9/32", "10.9.9.9/32 brd" },
    { "2001:db8::1", 64, true, false, 0, "inet6 2001:db8::1/64", "none" },
    { "10.1.2.3", 24, true, true, 0, "inet 10.9.9.9/32", "10.1.2.3" },
    { "0.0.0.0", 0, true, false, 17, "inet 10.9.9.9/32", "none" },
    { "0.0.0.0", 0, true, true, 0, "inet6 2001:db8::1/64", "inet 1" },
    { "::", 0, true, true, 0, "lo", "inet6" },
};

TEST_F(netns, interface_addresses_are_added_removed_and_flushed)
{
    child_result_t result = run_in_child([&] {
        new_network();
        (void)!system("ip link set lo up; ip addr flush dev lo");
        for (const ifaddr_row_t &row : ifaddr_rows) {
            ip_prefix_t prefix = { {}, row.len };
            ip_addr_parse(row.address, &prefix.ip);
            int got = tip_util_ifaddr_set("lo", prefix, row.broadcast, row.is_delete);
            (void)!system(("ip addr show dev lo > " + dir.path("shown")).c_str());
            std::string shown = dir.read("shown");
            if (got != row.result || shown.find(row.shown) == std::string::npos ||
                shown.find(row.not_shown) != std::string::npos)
                printf("WRONG %s/%u: %d\n%s", row.address, row.len, got, shown.c_str());
        }
        printf("done");
    });
    EXPECT_EQ(result.output.find("WRONG"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("done"), std::string::npos);
}

TEST_F(netns, an_address_of_no_family_cannot_be_flushed)
{
    ip_prefix_t none = {};
    EXPECT_EQ(tip_util_ifaddr_set("lo", none, true, true), IFADDR_FAILED);
}

} // namespace
