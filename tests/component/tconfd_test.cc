// The datastore client against the real agent: whose turn the first read is, what commits reach handlers and in which
// order, and agents that go away and come back.
//
// The agent's port is fixed, so the program lives in a network of its own. A daemon is a child process, since the
// client's identity belongs to the process; it prints what happens to it, line by line, into one pipe for all.
#include "common/event_handle.h"
#include "tconfd/tconfd_internal.h"
#include "tests/component/agentd_clients.h"
#include "tests/harness/death.h"
#include "tests/unit/log_capture.h"
#include "yang/corvane-system.h"
#include "yang/corvane-vpn.h"

#include <chrono>
#include <fstream>
#include <functional>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>

namespace
{

using clock_type = std::chrono::steady_clock;
using names_t = std::vector<std::string>;

constexpr uint64_t BAD_VPN = 13; // its handler fails

// ---- a daemon, in its process

int64_t key_of(const confd_value_t &value)
{
    return value.type == C_UINT64 ? static_cast<int64_t>(value.val.u64) : -1;
}

const char *op_name(int op)
{
    return op == MOP_CREATED ? "created" : op == MOP_DELETED ? "deleted" : "modified";
}

int32_t vpn_handler(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t, confd_tag_value_t *)
{
    printf("%d %s vpn %ld\n", row->ctx->reg.module_id, op_name(op), static_cast<long>(key_of(keys[0])));
    return key_of(keys[0]) == static_cast<int64_t>(BAD_VPN) ? 16 : 0;
}

int32_t system_handler(tconfd_sub *row, int32_t, uint8_t, confd_value_t *, uint16_t num_tv, confd_tag_value_t *tv)
{
    for (int i = 0; i < num_tv; i++)
        printf("%d system %s%s\n", row->ctx->reg.module_id, tv[i].v.type == C_NOEXISTS ? "-" : "",
               confd_hash2str(tv[i].tag.tag));
    return 0;
}

tconfd_sub make_row(const char *path, tconfd_handler_t handler, uint32_t ns, uint8_t num_keys, uint8_t priority)
{
    tconfd_sub row{};
    snprintf(row.path, sizeof row.path, "%s", path);
    row.handler = handler;
    row.ns = ns;
    row.num_keys = num_keys;
    row.priority = priority;
    return row;
}

struct stand_in_t {
    tconfd_sub rows[3] = { make_row("vpn/vpn-instance", vpn_handler, vpn__ns, 1, 0x23),
                           make_row("system", system_handler, system__ns, 0, 4),
                           {} };
    event_base_ptr base{ event_base_new() };
    timer_mgr_t *timers = timer_mgr_create(TIMER_RES_100MS, nullptr, nullptr, nullptr, TIMER_MASK_ALL);
    event *tick = nullptr;
    tconfd_ctx *ctx = nullptr;
    bool was_subscribed = false;
    bool was_read = false;
};

// Prints when the daemon becomes subscribed and when it has read.
void watch(stand_in_t &self)
{
    int id = self.ctx->reg.module_id;
    bool is_subscribed = self.ctx->subscr_event != nullptr && event_pending(self.ctx->subscr_event, EV_READ, nullptr);
    if (is_subscribed && !self.was_subscribed)
        printf("%d subscribed\n", id);
    self.was_subscribed = is_subscribed;
    bool is_read = __atomic_load_n(&self.ctx->initial_read_done, __ATOMIC_ACQUIRE) == 1;
    if (is_read && !self.was_read)
        printf("%d has read\n", id);
    self.was_read = is_read;
}

void on_tick(evutil_socket_t, short, void *arg)
{
    auto *self = static_cast<stand_in_t *>(arg);
    timer_run(self->timers, TIMER_MASK_ALL, 100);
    watch(*self);
    timeval next = { 0, 20000 };
    event_add(self->tick, &next);
}

[[noreturn]] void live_as(uint8_t module_id, int output)
{
    dup2(output, STDOUT_FILENO);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    log_echo(true);
    stand_in_t self;
    confd_valpoint_cb valpoints[1]{};
    confd_action_cbs actions[1]{};
    tconfd_registration reg{};
    reg.app_ctx = &self;
    reg.subs = self.rows;
    reg.valpoints = valpoints;
    reg.actions = actions;
    reg.register_data_cbs = [](tconfd_ctx *) {
        return 0;
    };
    reg.event_base = self.base.get();
    reg.timer_mgr = self.timers;
    reg.module_id = module_id;
    tconfd_module_id_set(module_id);
    int result = tconfd_module_init(&reg, nullptr, &self.ctx);
    printf("%d started %d\n", module_id, result);
    self.tick = evtimer_new(self.base.get(), on_tick, &self);
    on_tick(-1, 0, &self);
    event_base_dispatch(self.base.get());
    _exit(78);
}

// ---- the test's side

bool own_network()
{
    std::string map = "0 " + std::to_string(geteuid()) + " 1";
    if (geteuid() != 0) {
        if (unshare(CLONE_NEWUSER) != 0)
            return false;
        std::ofstream("/proc/self/uid_map") << map;
    }
    if (unshare(CLONE_NEWNET) != 0)
        return false;
    unique_fd sock(socket(AF_INET, SOCK_DGRAM, 0));
    ifreq request{};
    snprintf(request.ifr_name, sizeof request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    return ioctl(sock.get(), SIOCSIFFLAGS, &request) == 0;
}

class tconfd_agent : public testing::Test
{
protected:
    static void SetUpTestSuite() { is_possible = own_network(); }
    void SetUp() override
    {
        if (!is_possible)
            GTEST_SKIP() << "no network of the test's own: not permitted";
        ASSERT_EQ(pipe2(pipe_, O_CLOEXEC | O_NONBLOCK), 0);
        fcntl(pipe_[1], F_SETFL, 0);
    }
    void TearDown() override
    {
        for (pid_t pid : daemons_) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        for (int fd : pipe_)
            close(fd);
    }

    static std::unique_ptr<agentd_process> make_agent()
    {
        return std::make_unique<agentd_process>("auto-phase2 = yes\nport = 4565\n");
    }
    pid_t start_daemon(uint8_t module_id)
    {
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0)
            live_as(module_id, pipe_[1]);
        daemons_.push_back(pid);
        return pid;
    }
    // Of a daemon that ends by itself: its wait status.
    int wait_for_end(pid_t pid)
    {
        int status = -1;
        for (int i = 0; i < 2000 && waitpid(pid, &status, WNOHANG) == 0; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        daemons_.erase(std::remove(daemons_.begin(), daemons_.end(), pid), daemons_.end());
        return status;
    }

    // Everything printed so far, by line.
    const names_t &lines()
    {
        char chunk[4096];
        for (ssize_t n; (n = read(pipe_[0], chunk, sizeof chunk)) > 0;)
            rest_.append(chunk, static_cast<size_t>(n));
        for (size_t end; (end = rest_.find('\n')) != std::string::npos; rest_.erase(0, end + 1))
            lines_.push_back(rest_.substr(0, end));
        return lines_;
    }
    bool wait_for(const std::string &line, int times = 1, int seconds = 20)
    {
        auto until = clock_type::now() + std::chrono::seconds(seconds);
        while (count(line) < times && clock_type::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return count(line) >= times;
    }
    int count(const std::string &line)
    {
        lines();
        return static_cast<int>(std::count(lines_.begin(), lines_.end(), line));
    }
    // Lines that hold the text, in order.
    names_t with(const std::string &text)
    {
        names_t found;
        for (const std::string &line : lines()) {
            if (line.find(text) != std::string::npos)
                found.push_back(line);
        }
        return found;
    }
    static void let_pass(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

    static void set_turn(const agentd_process &agent, uint32_t bits)
    {
        data_client client(agent, CDB_OPERATIONAL);
        confd_value_t value{};
        CONFD_SET_BIT32(&value, bits);
        EXPECT_EQ(cdb_set_elem(client.fd(), &value, "/tconfd-initial-read-priority"), CONFD_OK) << confd_lasterr();
    }
    static uint32_t turn(const agentd_process &agent)
    {
        data_client client(agent, CDB_OPERATIONAL);
        confd_value_t value{};
        int result = cdb_get(client.fd(), &value, "/tconfd-initial-read-priority");
        return result == CONFD_OK ? CONFD_GET_BIT32(&value) : 0;
    }
    static edit_t make_vpn(uint64_t id) { return { "/vpn/vpn-instance{" + std::to_string(id) + "}", "+" }; }
    static edit_t remove_vpn(uint64_t id) { return { "/vpn/vpn-instance{" + std::to_string(id) + "}", "-" }; }

private:
    static inline bool is_possible;
    int pipe_[2] = { -1, -1 };
    std::vector<pid_t> daemons_;
    std::string rest_;
    names_t lines_;
};

TEST_F(tconfd_agent, daemons_read_one_after_the_other_and_each_passes_the_turn_on)
{
    auto agent = make_agent();
    ASSERT_EQ(commit(*agent, { make_vpn(5), make_vpn(7), { "/system/host-name", "box" } }).result, CONFD_OK);
    set_turn(*agent, 0);
    for (int id : { 30, 3, 5 }) {
        start_daemon(static_cast<uint8_t>(id));
        ASSERT_TRUE(wait_for(std::to_string(id) + " subscribed"));
    }
    let_pass(500);
    EXPECT_TRUE(with("has read").empty());
    EXPECT_EQ(turn(*agent), 0u);
    start_daemon(21);
    for (const char *id : { "21", "5", "3", "30" })
        ASSERT_TRUE(wait_for(std::string(id) + " has read")) << id;
    EXPECT_EQ(turn(*agent), 7u);
    names_t order;
    for (const std::string &line : with("created vpn")) {
        std::string id = line.substr(0, line.find(' '));
        if (order.empty() || order.back() != id)
            order.push_back(id);
    }
    EXPECT_EQ(order, (names_t{ "21", "5", "3", "30" })) << "nobody reads while another does";
    EXPECT_EQ(with("5 created vpn"), (names_t{ "5 created vpn 5", "5 created vpn 7" }));
    EXPECT_EQ(count("5 system host-name"), 1);
}

TEST_F(tconfd_agent, the_one_that_subscribes_last_reads_at_once)
{
    auto agent = make_agent();
    set_turn(*agent, 1);
    start_daemon(5);
    EXPECT_TRUE(wait_for("5 has read"));
    EXPECT_TRUE(wait_for("5 subscribed"));
    EXPECT_EQ(turn(*agent), 3u);
}

TEST_F(tconfd_agent, commits_before_the_first_read_are_not_handed_over_twice)
{
    auto agent = make_agent();
    set_turn(*agent, 0);
    start_daemon(5);
    ASSERT_TRUE(wait_for("5 subscribed"));
    EXPECT_EQ(commit(*agent, { make_vpn(7) }).result, CONFD_OK) << "the dropped commit is synced";
    EXPECT_TRUE(with("vpn 7").empty());
    set_turn(*agent, 1);
    ASSERT_TRUE(wait_for("5 has read"));
    EXPECT_EQ(commit(*agent, { make_vpn(8) }).result, CONFD_OK);
    EXPECT_EQ(with(" vpn "), (names_t{ "5 created vpn 7", "5 created vpn 8" }));
}

TEST_F(tconfd_agent, deletes_at_their_own_priority_come_before_adds_of_a_later_one)
{
    auto agent = make_agent();
    ASSERT_EQ(commit(*agent, { make_vpn(5) }).result, CONFD_OK);
    set_turn(*agent, 1);
    start_daemon(5);
    ASSERT_TRUE(wait_for("5 has read"));
    EXPECT_EQ(commit(*agent, { { "/system/host-name", "box" }, make_vpn(3), remove_vpn(5), make_vpn(6) }).result,
              CONFD_OK);
    EXPECT_EQ(commit(*agent, { { "/vpn/vpn-instance{3}/name", "three" } }).result, CONFD_OK);
    EXPECT_EQ(commit(*agent, { { "/vpn/vpn-instance{3}/name", "-" }, { "/system/host-name", "-" } }).result, CONFD_OK);
    names_t seen;
    for (const std::string &line : lines()) {
        if (line.rfind("5 created", 0) == 0 || line.rfind("5 deleted", 0) == 0 || line.rfind("5 modified", 0) == 0 ||
            line.rfind("5 system", 0) == 0)
            seen.push_back(line);
    }
    EXPECT_EQ(seen, (names_t{ "5 created vpn 5", "5 deleted vpn 5", "5 created vpn 3", "5 created vpn 6",
                              "5 system host-name", "5 modified vpn 3", "5 modified vpn 3", "5 system -host-name" }));
}

TEST_F(tconfd_agent, a_failing_handler_ends_its_daemon_and_the_commit_stands)
{
    auto agent = make_agent();
    set_turn(*agent, 1);
    pid_t pid = start_daemon(5);
    ASSERT_TRUE(wait_for("5 has read"));
    EXPECT_EQ(commit(*agent, { make_vpn(BAD_VPN) }).result, CONFD_OK);
    int status = wait_for_end(pid);
    EXPECT_TRUE(WIFSIGNALED(status) || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) << status;
    EXPECT_EQ(with("Config callback failed (cfgmgr - 16) : ").size(), 1u);
    EXPECT_EQ(with("Error iterating subscription (cfgmgr - 0)").size(), 1u);
    EXPECT_EQ(with("failed assertion").size(), 1u);
    EXPECT_EQ(read_leaf(*agent, "/vpn/vpn-instance{13}/vpn-id"), "13");
}

TEST_F(tconfd_agent, an_agent_that_is_killed_and_started_again_is_found_without_a_second_read)
{
    auto agent = make_agent();
    ASSERT_EQ(commit(*agent, { make_vpn(5) }).result, CONFD_OK);
    set_turn(*agent, 1);
    start_daemon(5);
    ASSERT_TRUE(wait_for("5 has read"));
    agent->kill_it(SIGKILL);
    let_pass(300);
    auto start = clock_type::now();
    agent->start();
    ASSERT_TRUE(wait_for("5 subscribed", 2));
    EXPECT_LT(clock_type::now() - start, std::chrono::seconds(8));
    set_turn(*agent, 1);
    let_pass(300);
    EXPECT_EQ(commit(*agent, { make_vpn(6), remove_vpn(5) }).result, CONFD_OK);
    EXPECT_EQ(with(" vpn "), (names_t{ "5 created vpn 5", "5 deleted vpn 5", "5 created vpn 6" }));
    EXPECT_EQ(turn(*agent), 1u) << "the bit is of a read of this process";
}

TEST_F(tconfd_agent, an_agent_that_is_not_there_yet_is_waited_for_in_silence)
{
    start_daemon(5);
    ASSERT_TRUE(wait_for("5 started 3"));
    let_pass(4500);
    EXPECT_EQ(lines(), names_t{ "5 started 3" });
    auto agent = make_agent();
    EXPECT_TRUE(wait_for("5 subscribed", 1, 10));
    set_turn(*agent, 1);
    EXPECT_TRUE(wait_for("5 has read"));
}

} // namespace
