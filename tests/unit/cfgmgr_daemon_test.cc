// The process: its command line, its resources, and its link to the system manager.
#include "cfgmgr/daemon/cfgmgr_confd.h"
#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "cfgmgr/daemon/cfgmgr_inotify.h"
#include "cfgmgr/daemon/cfgmgr_sysmgr.h"
#include "common/event_handle.h"
#include "common/msgq_internal.h"
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_env.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <getopt.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>

namespace
{

// ---- the command line

struct options_case_t {
    const char *name;
    std::vector<const char *> words;
    uint32_t personality;
    int mgmt_vpn;
    int has_mgmt_port = 1; // of the chassis; -1 for no record
    int daemonize = 1;
    int upgrade = 0;
};

void PrintTo(const options_case_t &row, std::ostream *out)
{
    *out << row.name;
}

const options_case_t options_cases[] = {
    { "none", {}, 0, 1 },
    { "foreground", { "-f" }, 0, 1, 1, 0 },
    { "upgrade", { "-c" }, 0, 1, 1, 1, 1 },
    { "m_then_n", { "-m", "-n" }, 0, 0 },
    { "n_then_m", { "-n", "-m" }, 0, 1 },
    { "n_before_others", { "-n", "-f" }, 0, 0, 1, 0 },
    { "krest", { "-p", "krest" }, 1, 1 },
    { "tarn", { "-p", "tarn" }, 2, 1 },
    { "lodest", { "-plodest" }, 3, 1 },
    { "orbel_is_an_edge_router", { "-p", "orbel" }, 1, 1 },
    { "quorvix", { "-p", "quorvix" }, 5, 1 },
    { "ztp_is_an_edge_router", { "-p", "ztp" }, 1, 1 },
    { "pendry", { "-p", "pendry" }, 7, 1 },
    { "case_counts", { "-p", "Tarn" }, 1, 1 },
    { "the_last_personality", { "-p", "tarn", "-p", "lodest" }, 3, 1 },
    { "unknown_options_are_ignored", { "-x", "-fz", "-c" }, 0, 1, 1, 0, 1 },
    { "chassis_without_management_port", { "-m" }, 0, 0, 0 },
    { "no_chassis_record", {}, 0, 1, -1 },
    { "no_chassis_record_and_n", { "-n" }, 0, 0, -1 },
};

class options : public testing::TestWithParam<options_case_t>
{
};
INSTANTIATE_TEST_SUITE_P(cfgmgr, options, testing::ValuesIn(options_cases),
                         [](const auto &info) { return info.param.name; });

TEST_P(options, select)
{
    const options_case_t &row = GetParam();
    device() = {};
    device().has_mgmt_port = row.has_mgmt_port;
    std::vector<char *> argv{ const_cast<char *>("cfgmgr") };
    for (const char *word : row.words)
        argv.push_back(const_cast<char *>(word));
    argv.push_back(nullptr);
    cfgmgrd_t daemon{};
    daemon.daemonize = daemon.mgmt_vpn = 1;
    optind = 0;
    EXPECT_EQ(cfgmgr_parse_options(&daemon, static_cast<int>(argv.size()) - 1, argv.data()), 0);
    EXPECT_EQ(daemon.personality, row.personality);
    EXPECT_EQ(daemon.mgmt_vpn, row.mgmt_vpn);
    EXPECT_EQ(daemon.daemonize, row.daemonize);
    EXPECT_EQ(daemon.upgrade, row.upgrade);
}

// ---- resources

TEST(cfgmgr_daemon, comes_up_with_its_defaults_and_goes_down_clean)
{
    cfgmgrd_t daemon{};
    EXPECT_EQ(cfgmgr_context(), nullptr);
    ASSERT_EQ(cfgmgr_init_daemon(&daemon), 0);
    EXPECT_EQ(cfgmgr_context(), &daemon);
    EXPECT_EQ(daemon.daemonize, 1);
    EXPECT_EQ(daemon.mgmt_vpn, 1);
    EXPECT_EQ(daemon.upgrade, 0);
    EXPECT_EQ(timer_interval_ms(daemon.sysmgr_timer_p), 1000);
    EXPECT_FALSE(timer_is_running(daemon.sysmgr_timer_p));
    EXPECT_EQ(cfgmgr_init_inotify(&daemon), 0);
    kill(getpid(), SIGUSR1); // swallowed
    event_base_loop(daemon.event_base, EVLOOP_NONBLOCK);
    log_clear();
    int inotify_fd = daemon.inotify_fd;
    void *left_over[] = { daemon.sigusr1_event, daemon.timer_tick_event }; // to the end of the process
    cfgmgr_terminate(&daemon);
    EXPECT_TRUE(log_has("-CFGMGR-6-INFO-399999: Terminating"));
    EXPECT_EQ(daemon.event_base, nullptr);
    EXPECT_EQ(daemon.inotify_fd, -1);
    EXPECT_NE(fcntl(inotify_fd, F_GETFD), -1) << "left to the end of the process";
    close(inotify_fd);
    for (void *memory : left_over)
        free(memory);
    cfgmgr_context_publish(nullptr);
}

// Forks a child that ends at once; it has ended when this returns, and is not waited for yet.
pid_t ended_child(int exit_code)
{
    pid_t pid = fork();
    if (pid == 0)
        _exit(exit_code);
    siginfo_t info;
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    return pid;
}

TEST(cfgmgr_daemon, the_main_thread_waits_for_its_own_children_and_leaves_those_of_others)
{
    cfgmgrd_t daemon{};
    daemon.event_base = event_base_new();
    ASSERT_EQ(cfgmgr_init_sigchild(&daemon), 0);
    pid_t own = ended_child(0);
    event_base_loop(daemon.event_base, EVLOOP_NONBLOCK);
    EXPECT_EQ(waitpid(own, nullptr, WNOHANG), -1) << "it was waited for";

    std::atomic<bool> has_ended = false, was_looked_for = false;
    int status = 0;
    std::thread other([&] {
        pid_t pid = ended_child(3);
        has_ended = true;
        while (!was_looked_for)
            usleep(1000);
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
    });
    while (!has_ended)
        usleep(1000);
    event_base_loop(daemon.event_base, EVLOOP_NONBLOCK);
    was_looked_for = true;
    other.join();
    EXPECT_EQ(WEXITSTATUS(status), 3);
    event_free(daemon.sigchld_event);
    event_base_free(daemon.event_base);
}

TEST(cfgmgr_daemon, keepalive_runs_the_high_wheel_when_four_milliseconds_have_passed)
{
    static timespec now;
    now = { 100, 0 };
    timer_clock_set([](timespec *time) { *time = now; });
    static int high, normal;
    high = normal = 0;
    cfgmgrd_t daemon{};
    cfgmgr_timer_keepalive();
    daemon.timer_mgr_p = timer_mgr_create(TIMER_RES_1SEC, nullptr, nullptr, nullptr, TIMER_MASK_ALL);
    auto count = [](timer_util_t *, void *counter, void *, void *, void *) {
        ++*static_cast<int *>(counter);
    };
    timer_util_t *timers[] = {
        timer_util_create(daemon.timer_mgr_p, TIMER_PRIO_HIGH, TIMER_CYCLIC, 1000, count, &high, nullptr, nullptr,
                          nullptr, ""),
        timer_util_create(daemon.timer_mgr_p, TIMER_PRIO_NORMAL, TIMER_CYCLIC, 1000, count, &normal, nullptr, nullptr,
                          nullptr, ""),
    };
    for (timer_util_t *timer : timers)
        timer_enable(timer);
    cfgmgr_context_publish(&daemon);
    now.tv_sec = 101;
    clock_gettime(CLOCK_MONOTONIC, &daemon.last_timer_run);
    daemon.last_timer_run.tv_sec += 3600; // no time has passed
    cfgmgr_timer_keepalive();
    EXPECT_EQ(high, 0);
    clock_gettime(CLOCK_MONOTONIC, &daemon.last_timer_run);
    daemon.last_timer_run.tv_sec -= 1;
    timespec before = daemon.last_timer_run;
    cfgmgr_timer_keepalive();
    EXPECT_EQ(high, 1);
    EXPECT_EQ(normal, 0);
    EXPECT_GT(daemon.last_timer_run.tv_sec, before.tv_sec);
    cfgmgr_context_publish(nullptr);
    for (timer_util_t *timer : timers)
        timer_util_delete(timer);
    timer_mgr_delete(daemon.timer_mgr_p);
    timer_clock_set(nullptr);
}

// ---- the link to the system manager, over its own path in a mount namespace of the test's own

bool own_run_dir()
{
    std::string map = "0 " + std::to_string(geteuid()) + " 1";
    if (geteuid() != 0) {
        if (unshare(CLONE_NEWUSER) != 0)
            return false;
        std::ofstream("/proc/self/uid_map") << map;
    }
    return unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", "/var/run", "tmpfs", 0, nullptr) == 0;
}

// The system manager as a bare socket, and a loop for the client. Every message is printed as it comes.
class manager_t
{
public:
    manager_t() { timers = timer_mgr_create(TIMER_RES_10MS, nullptr, nullptr, nullptr, TIMER_MASK_ALL); }
    void listen()
    {
        sockaddr_un address{ AF_UNIX, "/var/run/.sysmgrd" };
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address);
        ::listen(listener_, 5);
    }
    void hang_up()
    {
        close(peer_);
        peer_ = -1;
    }
    void run_ms(int ms)
    {
        auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (std::chrono::steady_clock::now() < until)
            step();
    }
    // Until so many messages have come in all.
    void run_until(size_t messages)
    {
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (count < messages && std::chrono::steady_clock::now() < until)
            step();
    }
    void send(uint8_t type)
    {
        sysmgr_msg_t msg{};
        msg.version = 1;
        msg.type = type;
        msg.size = sizeof msg;
        msgq_hdr_t hdr{};
        hdr.magic1 = MAGIC1;
        hdr.size = sizeof hdr + sizeof msg;
        hdr.src = 7;
        hdr.tgt = 5;
        hdr.type = MSGQ_HDR_DATA;
        hdr.magic2 = MAGIC2;
        (void)!write(peer_, &hdr, sizeof hdr);
        (void)!write(peer_, &msg, sizeof msg);
    }

    event_base_ptr base{ event_base_new() };
    timer_mgr_t *timers;
    size_t count = 0;

private:
    void step()
    {
        event_base_loop(base.get(), EVLOOP_NONBLOCK);
        timer_run(timers, TIMER_MASK_ALL, 1000);
        if (peer_ < 0 && listener_ >= 0 && (peer_ = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK)) >= 0)
            bytes_.clear();
        char chunk[4096];
        if (ssize_t n = peer_ >= 0 ? read(peer_, chunk, sizeof chunk) : -1; n > 0)
            bytes_.append(chunk, static_cast<size_t>(n));
        msgq_hdr_t hdr;
        while (bytes_.size() >= sizeof hdr) {
            memcpy(&hdr, bytes_.data(), sizeof hdr);
            if (bytes_.size() < hdr.size)
                break;
            if (hdr.type == MSGQ_HDR_DATA)
                print(bytes_.substr(sizeof hdr, hdr.size - sizeof hdr));
            bytes_.erase(0, hdr.size);
        }
        usleep(1000);
    }
    void print(std::string message)
    {
        uint32_t pid;
        memcpy(&pid, message.data() + 8, sizeof pid);
        if (pid == static_cast<uint32_t>(getpid()))
            message.replace(8, 4, "PID!");
        for (size_t i = 0; i < message.size(); i++) {
            if (i >= 8 && i < 12)
                printf("%c", message[i]);
            else
                printf("%02x", static_cast<unsigned char>(message[i]));
        }
        printf("\n");
        count++;
    }

    int listener_ = -1;
    int peer_ = -1;
    std::string bytes_;
};

// A message as manager_t prints it: version, type, size, pid and value, the last in host byte order.
std::string frame(int type, const char *value = "0000000000000000")
{
    char text[128];
    snprintf(text, sizeof text, "01%02x200000000000PID!000000000000000000000000%s\n", type, value);
    return text;
}

class sysmgr_link : public testing::Test
{
protected:
    void SetUp() override
    {
        if (WEXITSTATUS(run_in_child([] { _exit(own_run_dir() ? 0 : 1); }).status) != 0)
            GTEST_SKIP() << "no mount namespace for the fixed path: not permitted";
    }
    // What the code prints, with a manager and a client of it.
    template <typename Code> static std::string in_own_run_dir(Code code)
    {
        return run_in_child([&] {
                   if (!own_run_dir())
                       _exit(1);
                   manager_t manager;
                   app_sysmgr_t *client =
                       app_sysmgr_connect(manager.base.get(), manager.timers, received, 5, &manager, nullptr);
                   code(manager, client);
                   app_sysmgr_free(client);
               })
            .output;
    }

private:
    static void received(void *, const sysmgr_msg_t *msg, uint16_t length)
    {
        printf("received %d of %d\n", msg->type, length);
    }
};

TEST_F(sysmgr_link, says_hello_at_once_and_then_each_second_and_nothing_while_down)
{
    std::string output = in_own_run_dir([](manager_t &manager, app_sysmgr_t *client) {
        char text[64];
        app_sysmgr_last_hello_text(text, sizeof text);
        manager.run_ms(1500);
        printf("%d '%s'\n", app_sysmgr_is_up(client), text);
        manager.listen();
        manager.run_until(1);
        auto start = std::chrono::steady_clock::now();
        manager.run_until(3);
        auto ms =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
        printf("%d %d\n", app_sysmgr_is_up(client), ms > 1500 && ms < 6000);
        manager.hang_up();
        manager.run_until(4); // the next connection's first
        app_sysmgr_last_hello_text(text, sizeof text);
        printf("%zu\n", strlen(text));
    });
    EXPECT_EQ(output, "0 ''\n" + frame(1) + frame(1) + frame(1) + "1 1\n" + frame(1) + "24\n");
}

TEST_F(sysmgr_link, tells_of_vpns_and_of_the_agent_byte_by_byte)
{
    std::string output = in_own_run_dir([](manager_t &manager, app_sysmgr_t *client) {
        app_sysmgr_send_vpn(client, SYSMGR_MSG_VPN_ADD, 1); // down: forgotten
        manager.listen();
        manager.run_until(1);
        app_sysmgr_send_vpn(client, SYSMGR_MSG_VPN_ADD, 0x0102030405060708);
        app_sysmgr_send_vpn(client, SYSMGR_MSG_VPN_DEL, 512);
        app_sysmgr_send_agent_ready(client);
        app_sysmgr_send_vpn(nullptr, SYSMGR_MSG_VPN_ADD, 1);
        manager.run_until(4);
    });
    EXPECT_EQ(output, frame(1) + frame(5, "0807060504030201") + frame(6, "0002000000000000") + frame(7));
}

TEST_F(sysmgr_link, a_stop_keeps_quiet_about_removals)
{
    std::string output = in_own_run_dir([](manager_t &manager, app_sysmgr_t *client) {
        manager.listen();
        manager.run_until(1);
        (void)cfgmgr_init_abort_signals();
        raise(SIGUSR2);
        app_sysmgr_send_vpn(client, SYSMGR_MSG_VPN_DEL, 5);
        app_sysmgr_send_vpn(client, SYSMGR_MSG_VPN_ADD, 6);
        manager.run_until(2);
    });
    EXPECT_EQ(output, frame(1) + frame(5, "0600000000000000"));
}

TEST_F(sysmgr_link, only_messages_of_the_manager_reach_the_callback)
{
    std::string output = in_own_run_dir([](manager_t &manager, app_sysmgr_t *) {
        manager.listen();
        manager.run_until(1);
        for (uint8_t type : { 1, 4, 7 })
            manager.send(type);
        manager.run_ms(200);
    });
    EXPECT_EQ(output, frame(1) + "received 4 of 32\n");
}

TEST_F(sysmgr_link, the_end_of_the_first_connection_is_told_once_per_process)
{
    std::string output = in_own_run_dir([](manager_t &manager, app_sysmgr_t *client) {
        manager.listen();
        manager.run_until(1);
        cfgmgrd_t daemon{};
        daemon.sysmgr_handle_p = client;
        tconfd_ctx ctx{};
        ctx.reg.app_ctx = &daemon;
        daemon.tconfd_ctx_p = &ctx;
        cfgmgr_confd_post_init(&ctx);
        cfgmgr_confd_post_init(&ctx);
        manager.run_ms(200);
        printf("%d\n", daemon.startup_done);
    });
    EXPECT_EQ(output, frame(1) + frame(7) + "1\n");
}

} // namespace
