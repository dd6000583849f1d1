// Time of a commit of one leaf, from the operator's side to the daemon's handler and back, on a running device.
//
// Run inside a device (make bench does): it configures a VPN with 10, 1000 and 10000 list entries in turn, and commits
// the VPN's name over and over. The daemon is served, but has nothing to do in the kernel for a name. Prints a row a
// size and ends with status 1 when the time grows with the configuration beyond the limit or a step fails.

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <confd_maapi.h>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int VPN = 7;
constexpr int COMMITS = 2000;
constexpr int WARM_UP = 100;
constexpr int sizes[] = { 10, 1000, 10000 };
constexpr double GROWTH_LIMIT = 1.3;

int sock;

[[noreturn]] void fail(const char *step)
{
    fprintf(stderr, "commit_latency: %s: %s\n", step, confd_lasterr());
    exit(1);
}

void check(int result, const char *step)
{
    if (result != CONFD_OK)
        fail(step);
}

void start_session()
{
    sockaddr_in agent{};
    agent.sin_family = AF_INET;
    agent.sin_port = htons(CONFD_PORT);
    agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    confd_init("commit_latency", stderr, CONFD_SILENT);
    sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    check(maapi_connect(sock, reinterpret_cast<sockaddr *>(&agent), sizeof agent), "connect to the agent");
    confd_ip source{};
    source.af = AF_INET;
    source.ip.v4.s_addr = htonl(INADDR_LOOPBACK);
    check(maapi_start_user_session(sock, "bench", "system", nullptr, 0, &source, CONFD_PROTO_TCP), "start a session");
}

int start_transaction()
{
    int th = maapi_start_trans(sock, CONFD_RUNNING, CONFD_READ_WRITE);
    if (th < 0)
        fail("start a transaction");
    return th;
}

void apply(int th)
{
    check(maapi_apply_trans(sock, th, 0), "commit");
    check(maapi_finish_trans(sock, th), "finish");
}

// Brings the list to `count` entries.
double configure(int from, int count)
{
    auto start = std::chrono::steady_clock::now();
    int th = start_transaction();
    for (int i = from; i < count; i++)
        check(maapi_set_elem2(sock, th, "10.9.0.1", "/vpn/vpn-instance{%d}/host{host-%d}/ip", VPN, i), "set a host");
    apply(th);
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

double commit_name(int number)
{
    char name[32];
    (void)snprintf(name, sizeof name, "name-%d", number);
    auto start = std::chrono::steady_clock::now();
    int th = start_transaction();
    check(maapi_set_elem2(sock, th, name, "/vpn/vpn-instance{%d}/name", VPN), "set the name");
    apply(th);
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

double percentile(const std::vector<double> &sorted, double part)
{
    return sorted[static_cast<size_t>(part * static_cast<double>(sorted.size() - 1))];
}

struct figures_t {
    double p50, p99;
};

figures_t measure()
{
    for (int i = 0; i < WARM_UP; i++)
        commit_name(i);
    std::vector<double> times;
    for (int i = 0; i < COMMITS; i++)
        times.push_back(commit_name(WARM_UP + i));
    std::sort(times.begin(), times.end());
    return { percentile(times, 0.50), percentile(times, 0.99) };
}

} // namespace

int main()
{
    start_session();
    printf("| list entries | entries added in | one-leaf commit p50 | p99 |\n|---|---|---|---|\n");
    double smallest = 0, largest = 0;
    int from = 0;
    for (int size : sizes) {
        double load_ms = configure(from, size);
        figures_t figures = measure();
        printf("| %d | %.1f ms | %.0f us | %.0f us |\n", size, load_ms, figures.p50, figures.p99);
        fflush(stdout);
        if (from == 0)
            smallest = figures.p50;
        largest = figures.p50;
        from = size;
    }
    int th = start_transaction();
    check(maapi_delete(sock, th, "/vpn/vpn-instance{%d}", VPN), "delete the VPN");
    apply(th);
    printf("\np50 at %d entries is %.2f times that at %d (limit %.1f)\n", sizes[2], largest / smallest, sizes[0],
           GROWTH_LIMIT);
    return largest <= GROWTH_LIMIT * smallest ? 0 : 1;
}
