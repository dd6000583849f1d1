// What the agent costs at two sizes, about 90 000 nodes of configuration and ten times as many: commits of one leaf in
// memory and on disk, loads, starts, memory, and the walk over a provider's long table; beside it the same commit by a
// copy of the whole tree.
//
// The agents, the daemon that validates, subscribes and provides (agent_scale_daemon), and the operator here are
// processes of their own, connected as on a device. The sizes take turns, and each keeps its quietest, since a
// neighbour on the same machine costs more than any size does. Prints a table; ends with status 1 when an aim is missed.
#include "agent/client/confd_lib.h"
#include "agent/client/confd_maapi.h"
#include "bench/agent_scale_daemon.h"
#include "bench/agent_scale_data.h"
#include "tests/component/agentd_process.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sys/resource.h>

namespace
{

using clock_type = std::chrono::steady_clock;

constexpr int SIZES[] = { 80, 800 }; // VPNs
constexpr int ROUNDS = 5;
constexpr int COMMITS = 400; // of a round
constexpr int WARM_UP = 50;
constexpr int LOADED_VPNS = 12; // 10 200 leaves
constexpr int FIRST_LOADED_VPN = 10000;
constexpr double GROWTH_AIM = 1.3;
constexpr double WALK_MEMORY_AIM_MB = 8; // the table is 20 MB as values

double ms_since(clock_type::time_point start)
{
    return std::chrono::duration<double, std::milli>(clock_type::now() - start).count();
}

[[noreturn]] void fail(const std::string &what)
{
    fprintf(stderr, "agent_scale: %s\n", what.c_str());
    exit(1);
}

void check(int result, const char *step)
{
    if (result != CONFD_OK)
        fail(std::string(step) + ": " + confd_lasterr());
}

// ---- the operator

class operator_t
{
public:
    explicit operator_t(const agentd_process &agent) : sock_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = agent.address();
        confd_ip source{};
        source.af = AF_INET;
        source.ip.v4.s_addr = htonl(INADDR_LOOPBACK);
        check(maapi_connect(sock_, reinterpret_cast<sockaddr *>(&address), sizeof address), "connect to the agent");
        check(maapi_start_user_session(sock_, "bench", "system", nullptr, 0, &source, CONFD_PROTO_TCP),
              "start a session");
    }
    operator_t(const operator_t &) = delete;
    operator_t &operator=(const operator_t &) = delete;
    ~operator_t() { close(sock_); }

    // Microseconds from the start of a transaction with one leaf to its end.
    double commit_mtu(int vpn, int interface, int mtu)
    {
        clock_type::time_point start = clock_type::now();
        int th = begin();
        check(maapi_set_elem2(sock_, th, std::to_string(mtu).c_str(), MTU_PATH, vpn, interface), "set an MTU");
        apply(th);
        return ms_since(start) * 1000;
    }
    double load_ms(const std::string &file)
    {
        clock_type::time_point start = clock_type::now();
        int th = begin();
        check(maapi_load_config(sock_, th, MAAPI_CONFIG_XML | MAAPI_CONFIG_MERGE, file.c_str()), "load a document");
        apply(th);
        return ms_since(start);
    }
    void delete_loaded()
    {
        int th = begin();
        for (int i = 0; i < LOADED_VPNS; i++)
            check(maapi_delete(sock_, th, "/net/vpn{%d}", FIRST_LOADED_VPN + i), "delete a VPN");
        apply(th);
    }

private:
    int begin()
    {
        int th = maapi_start_trans(sock_, CONFD_RUNNING, CONFD_READ_WRITE);
        if (th < 0)
            check(CONFD_ERR, "start a transaction");
        return th;
    }
    void apply(int th)
    {
        check(maapi_apply_trans(sock_, th, 0), "commit");
        check(maapi_finish_trans(sock_, th), "finish");
    }

    int sock_;
};

// ---- memory

double status_mb(pid_t pid, const char *item)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string word; file >> word;)
        if (double kb = 0; word == item && file >> kb)
            return kb / 1024;
    fail(std::string("no ") + item);
}

void reset_peak(pid_t pid)
{
    std::ofstream("/proc/" + std::to_string(pid) + "/clear_refs") << "5";
}

// ---- a size

// Milliseconds unless said.
struct column_t {
    double nodes = 0;
    double fill = 0;
    double load = 1e9;
    double p50 = 1e9, p99 = 0;                 // us
    double durable_p50 = 1e9, durable_p99 = 0; // us
    double start = 1e9;
    double memory = 0, memory_restarted = 0; // MB
    double whole_parse = 0, whole_copy = 0, whole_validate = 0, whole_diff = 0, whole_commit = 0;
};

class site_t
{
public:
    explicit site_t(int vpns) : vpns_(vpns)
    {
        agent.dir().write("all.xml", scale_document(0, vpns, INTERFACES));
        agent.dir().write("some.xml", scale_document(FIRST_LOADED_VPN, LOADED_VPNS, INTERFACES));
        connect();
        column.fill = operator_->load_ms(agent.dir().path("all.xml"));
    }
    ~site_t() { disconnect(); }

    void measure_whole_tree()
    {
        whole_tree_t whole = whole_tree_measure(TEST_YANG_DIR, agent.dir().read("all.xml"));
        column.nodes = static_cast<double>(whole.nodes);
        column.whole_parse = whole.parse_ms;
        column.whole_copy = whole.copy_ms;
        column.whole_validate = whole.validate_ms;
        column.whole_diff = whole.diff_ms;
        column.whole_commit = whole.commit_ms;
    }

    void measure_commits(double &p50, double &p99)
    {
        std::vector<double> times;
        uint64_t validations = daemon_->validations(), deliveries = daemon_->deliveries();
        for (int i = 0; i < WARM_UP; i++)
            commit_one();
        for (int i = 0; i < COMMITS; i++)
            times.push_back(commit_one());
        if (daemon_->validations() - validations != WARM_UP + COMMITS ||
            daemon_->deliveries() - deliveries != 2 * (WARM_UP + COMMITS))
            fail("the daemon was not asked about each commit, or not told of it at both levels");
        std::sort(times.begin(), times.end());
        if (times[COMMITS / 2] >= p50)
            return;
        p50 = times[COMMITS / 2];
        p99 = times[COMMITS * 99 / 100];
    }

    void measure_load()
    {
        column.load = std::min(column.load, operator_->load_ms(agent.dir().path("some.xml")));
        operator_->delete_loaded();
    }

    double memory() const { return status_mb(agent.pid(), "VmRSS:"); }

    // From the start of the process to phase 2.
    void measure_start(const std::string &config)
    {
        disconnect();
        agent.kill_it(SIGTERM);
        agent.configure(config);
        clock_type::time_point start = clock_type::now();
        agent.start();
        wire_writer_t wanted;
        wanted.u32(2);
        if (raw_client(agent, WIRE_KIND_ADMIN).ask(WIRE_ADMIN_PHASE, wanted.bytes).status != 0)
            fail("the agent does not come to phase 2 again: " + agent.log());
        column.start = std::min(column.start, ms_since(start));
        column.memory_restarted = memory();
        connect();
    }

    static constexpr char IN_MEMORY[] = "auto-phase2 = yes\ndurable = no\n";
    static constexpr char DURABLE[] = "auto-phase2 = yes\ndurable = yes\n";
    agentd_process agent{ IN_MEMORY };
    column_t column;

private:
    void connect()
    {
        daemon_ = std::make_unique<scale_daemon>(agent.port());
        operator_ = std::make_unique<operator_t>(agent);
    }
    void disconnect()
    {
        operator_.reset();
        daemon_.reset();
    }
    // Somewhere in the configuration, an MTU other than the one that is there.
    double commit_one()
    {
        number_++;
        int vpn = number_ * 37 % vpns_, interface = number_ * 7 % INTERFACES;
        return operator_->commit_mtu(vpn, interface, 2000 + number_ % 1000);
    }

    int vpns_;
    int number_ = 0;
    std::unique_ptr<scale_daemon> daemon_;
    std::unique_ptr<operator_t> operator_;
};

// ---- the provider's table

struct walk_t {
    double agent_ms = 0, agent_mb = 0;
    double cli_ms = 0, cli_mb = 0;
};

// Items of the walk over all routes, taken as a display takes them. A page at a time is held here.
void walk_routes(const agentd_process &agent)
{
    raw_client client(agent, WIRE_KIND_MAAPI);
    wire_writer_t session, walk;
    for (const char *text : { "bench", "system", "127.0.0.1" })
        session.text(text);
    session.u16(0);
    if (client.ask(WIRE_MAAPI_START_SESSION, session.bytes).status != 0)
        fail("no session for the walk");
    walk.u32(0);
    walk.text("/routes");
    walk.u32(0);
    raw_client::frame_t opened = client.ask(WIRE_MAAPI_WALK, walk.bytes);
    if (opened.status != 0)
        fail("no walk: " + opened.text());
    wire_writer_t next;
    next.u32(wire_reader_t(opened.payload).u32());
    next.u32(1000);
    uint64_t items = 0;
    for (bool is_at_end = false; !is_at_end;) {
        raw_client::frame_t page = client.ask(WIRE_MAAPI_WALK_NEXT, next.bytes);
        wire_reader_t in(page.payload);
        if (page.status != 0)
            fail("the walk ends: " + page.text());
        is_at_end = in.u8() != 0;
        items += in.u32();
    }
    // The container, and of each route its begin, five leaves and its end.
    if (items < 7ull * ROUTES)
        fail("the walk gave only " + std::to_string(items) + " items");
}

struct program_t {
    double ms = 0, peak_mb = 0;
    size_t lines = 0;
};

program_t run_cli(const agentd_process &agent, const std::string &command)
{
    clock_type::time_point start = clock_type::now();
    program_t result;
    std::string port = std::to_string(agent.port()), output = agent.dir().path("cli-output");
    pid_t pid = fork();
    if (pid == 0) {
        if (!freopen(output.c_str(), "w", stdout))
            _exit(127);
        execl(CLI_PROGRAM, CLI_PROGRAM, "--port", port.c_str(), "--yang", TEST_YANG_DIR, "-c", command.c_str(),
              nullptr);
        _exit(127);
    }
    int status = -1;
    rusage usage{};
    if (wait4(pid, &status, 0, &usage) != pid || status != 0)
        fail("cli -c '" + command + "' ended with " + std::to_string(status));
    result.ms = ms_since(start);
    result.peak_mb = static_cast<double>(usage.ru_maxrss) / 1024;
    std::string text = agent.dir().read("cli-output");
    result.lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    return result;
}

walk_t measure_walk(const agentd_process &agent)
{
    walk_t result;
    reset_peak(agent.pid());
    double before = status_mb(agent.pid(), "VmRSS:");
    clock_type::time_point start = clock_type::now();
    walk_routes(agent);
    result.agent_ms = ms_since(start);
    program_t one = run_cli(agent, "show routes route 5"), all = run_cli(agent, "show routes");
    if (all.lines < ROUTES)
        fail("the cli printed only " + std::to_string(all.lines) + " lines of routes");
    result.agent_mb = status_mb(agent.pid(), "VmHWM:") - before;
    result.cli_ms = all.ms;
    result.cli_mb = all.peak_mb - one.peak_mb;
    return result;
}

// ---- the table

struct row_t {
    const char *what;
    const char *unit;
    double column_t::*figure;
    double aims[2]; // at each size; 0: none; both are the same or the second is none
};

constexpr row_t rows[] = {
    { "nodes, with defaults", "", &column_t::nodes, {} },
    { "all of it loaded from XML and committed", "ms", &column_t::fill, {} },
    { "10 200 leaves more loaded from XML and committed", "ms", &column_t::load, { 3000, 3000 } },
    { "one-leaf commit in memory, p50", "us", &column_t::p50, { 1000, 1000 } },
    { "the same, p99", "us", &column_t::p99, {} },
    { "one-leaf commit on disk, p50", "us", &column_t::durable_p50, { 3000, 3000 } },
    { "the same, p99", "us", &column_t::durable_p99, {} },
    { "start from disk to phase 2", "ms", &column_t::start, { 2000, 0 } },
    { "memory of agentd after the load", "MB", &column_t::memory, {} },
    { "memory of agentd after a start", "MB", &column_t::memory_restarted, {} },
    { "libyang alone: XML parsed and judged", "ms", &column_t::whole_parse, {} },
    { "libyang alone: one-leaf commit by a copy of the tree", "ms", &column_t::whole_commit, {} },
    { "of that the copy", "ms", &column_t::whole_copy, {} },
    { "of that the judging", "ms", &column_t::whole_validate, {} },
    { "of that the comparison", "ms", &column_t::whole_diff, {} },
};

int num_missed;

// "aim 3000" with what has become of it.
std::string judged(double figure, double aim, const char *format)
{
    char text[64];
    (void)snprintf(text, sizeof text, format, aim);
    bool is_missed = figure > aim;
    num_missed += is_missed;
    return std::string(text) + (is_missed ? " MISSED" : "");
}

void print_rows(const column_t &small, const column_t &large)
{
    printf("| | %d x %d | %d x %d | aim |\n|---|---|---|---|\n", SIZES[0], INTERFACES, SIZES[1], INTERFACES);
    for (const row_t &row : rows) {
        double figures[] = { small.*row.figure, large.*row.figure };
        double worst = 0;
        for (int i = 0; i < 2; i++)
            worst = std::max(worst, row.aims[i] > 0 ? figures[i] / row.aims[i] : 0);
        std::string aim = row.aims[0] > 0 ? judged(worst * row.aims[0], row.aims[0], "%.0f") : "";
        printf("| %s | %.0f %s | %.0f %s | %s |\n", row.what, figures[0], row.unit, figures[1], row.unit, aim.c_str());
    }
}

void print_others(const column_t &small, const column_t &large, const walk_t &walk)
{
    struct other_t {
        const char *what;
        double figure;
        const char *format;
        double aim;
    };
    const other_t others[] = {
        { "p50 in memory, large by small", large.p50 / small.p50, "%.2f", GROWTH_AIM },
        { "p50 on disk, large by small", large.durable_p50 / small.durable_p50, "%.2f", GROWTH_AIM },
        { "walk over 100 000 provided rows, ms", walk.agent_ms, "%.0f", 0 },
        { "growth of agentd at its peak meanwhile, MB", walk.agent_mb, "%.1f", WALK_MEMORY_AIM_MB },
        { "the same table shown by the cli, ms", walk.cli_ms, "%.0f", 0 },
        { "peak of the cli beyond that of one row, MB", walk.cli_mb, "%.1f", WALK_MEMORY_AIM_MB },
    };
    printf("\n| | | aim |\n|---|---|---|\n");
    for (const other_t &row : others) {
        printf("| %s | ", row.what);
        printf(row.format, row.figure);
        printf(" | %s |\n", row.aim > 0 ? judged(row.figure, row.aim, row.format).c_str() : "");
    }
}

std::string load_average()
{
    std::string text;
    std::ifstream file("/proc/loadavg");
    std::getline(file, text);
    return text;
}

} // namespace

int main()
{
    (void)setvbuf(stdout, nullptr, _IOLBF, 0); // nothing is left to be printed again by a child
    confd_init("agent_scale", stderr, CONFD_SILENT);
    printf("load average at the start: %s\n", load_average().c_str());
    site_t small(SIZES[0]), large(SIZES[1]);
    site_t *sites[] = { &small, &large };
    for (int round = 0; round < ROUNDS; round++)
        for (site_t *site : sites)
            site->measure_commits(site->column.p50, site->column.p99);
    for (site_t *site : sites) {
        site->column.memory = site->memory();
        for (int turn = 0; turn < 3; turn++)
            site->measure_load();
        site->measure_start(site_t::IN_MEMORY);
        site->measure_start(site_t::DURABLE);
    }
    for (int round = 0; round < ROUNDS; round++)
        for (site_t *site : sites)
            site->measure_commits(site->column.durable_p50, site->column.durable_p99);
    walk_t walk = measure_walk(small.agent);
    for (site_t *site : sites)
        site->measure_whole_tree();
    printf("load average at the end: %s\n\n", load_average().c_str());
    print_rows(small.column, large.column);
    print_others(small.column, large.column, walk);
    printf("\n%s\n", num_missed ? "aims were missed" : "all aims met");
    return num_missed ? 1 : 0;
}
