// Time of a commit of one leaf, from the operator's side to the daemon's handler and back, on a running device.
//
// Run inside a device (make bench does): it configures a VPN with 10, 1000 and 10000 list entries in turn, and commits
// the VPN's name over and over. The daemon is served, but has nothing to do in the kernel for a name. The ladder is
// climbed a few times and each size keeps its quietest turn, since a neighbour on the same machine costs more than any
// size does. Prints a row a size (or one for each size given as an argument, ascending) and ends with status 1 when the
// time grows with the configuration beyond the limit or a step fails.

#include "bench/bench_session.h"

#include <algorithm>
#include <chrono>
#include <confd_maapi.h>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>
#include <vector>

namespace
{

constexpr int VPN = 7;
constexpr int ROUNDS = 5;
constexpr int COMMITS = 1000;
constexpr int WARM_UP = 100;
constexpr int default_sizes[] = { 10, 1000, 10000 };
constexpr double GROWTH_LIMIT = 1.3;

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
    double load_ms = 1e9;
    double p50 = 1e9; // us
    double p99 = 1e9;
};

figures_t measure(double load_ms)
{
    for (int i = 0; i < WARM_UP; i++)
        commit_name(i);
    std::vector<double> times;
    for (int i = 0; i < COMMITS; i++)
        times.push_back(commit_name(WARM_UP + i));
    std::sort(times.begin(), times.end());
    return { load_ms, percentile(times, 0.50), percentile(times, 0.99) };
}

// One climb: each size keeps the turn with the lowest median.
void climb(const std::vector<int> &sizes, std::vector<figures_t> &best)
{
    int from = 0;
    for (size_t i = 0; i < sizes.size(); i++) {
        figures_t figures = measure(configure(from, sizes[i]));
        if (figures.p50 < best[i].p50)
            best[i] = figures;
        from = sizes[i];
    }
    int th = start_transaction();
    check(maapi_delete(sock, th, "/vpn/vpn-instance{%d}", VPN), "delete the VPN");
    apply(th);
}

// The sizes named on the command line, ascending, or the usual ones.
std::vector<int> sizes_of(int argc, char **argv)
{
    std::vector<int> sizes(std::begin(default_sizes), std::end(default_sizes));
    if (argc > 1)
        sizes.clear();
    for (int i = 1; i < argc; i++)
        sizes.push_back(atoi(argv[i]));
    return sizes;
}

} // namespace

int main(int argc, char **argv)
{
    const std::vector<int> sizes = sizes_of(argc, argv);
    start_session();
    std::vector<figures_t> best(sizes.size());
    for (int round = 0; round < ROUNDS; round++)
        climb(sizes, best);
    printf("| list entries | entries added in | one-leaf commit p50 | p99 |\n|---|---|---|---|\n");
    for (size_t i = 0; i < sizes.size(); i++)
        printf("| %d | %.1f ms | %.0f us | %.0f us |\n", sizes[i], best[i].load_ms, best[i].p50, best[i].p99);
    double growth = best.back().p50 / best.front().p50;
    printf("\np50 at %d entries is %.2f times that at %d (limit %.1f)\n", sizes.back(), growth, sizes.front(),
           GROWTH_LIMIT);
    return growth <= GROWTH_LIMIT ? 0 : 1;
}
