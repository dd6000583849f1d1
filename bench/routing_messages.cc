// What routing configuration costs on its way to the daemons: large lists of one policy, many neighbours of one VPN, and
// the fan-out of one change to the daemons of all VPNs.
//
// Run inside a device (make bench does). The routing daemons are the device's stand-ins: each message is one exchange, in
// which the peer decodes the message, writes it down as a line of text and answers. So the messages of a commit are
// counted by these lines, and their time is that of both ends. A step that is repeated (a list created, taken away,
// created again) shows whether the daemon's memory stays. Prints a row a step.
//
//     routing_messages [ENTRIES [NEIGHBOURS [VPNS]]]

#include "bench/bench_session.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

constexpr int ENTRIES = 10000;
constexpr int NEIGHBOURS = 500;
constexpr int VPNS = 77; // all that can be configured beside VPN 0 and the management VPN
constexpr int FIRST_VPN = 1001;
constexpr int ROUNDS = 50;
constexpr unsigned QUIET_S = 2;
constexpr char LOG_DIR[] = "/var/log/quagga";
constexpr char PID_FILE[] = "/run/cfgmgr.0.pid";
constexpr char BIG_LIST[] = "/policy/lists/prefix-list{big}";
constexpr char SMALL_ENTRY[] = "/policy/lists/prefix-list{small}/ip-prefix{10.0.0.0/8}/le";

// ---- what is counted

long lines_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return std::count(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>(), '\n');
}

// Messages that all routing daemons have had so far.
long messages()
{
    DIR *folder = opendir(LOG_DIR);
    if (folder == nullptr)
        fail("open the logs of the routing daemons");
    long sum = 0;
    while (const dirent *entry = readdir(folder))
        if (strstr(entry->d_name, ".log") != nullptr)
            sum += lines_of(std::string(LOG_DIR) + "/" + entry->d_name);
    (void)closedir(folder);
    return sum;
}

// KiB of memory that the daemon has in use.
long daemon_memory()
{
    std::string pid, line;
    std::getline(std::ifstream(PID_FILE), pid);
    std::ifstream status("/proc/" + pid + "/status");
    while (std::getline(status, line))
        if (line.starts_with("VmRSS:"))
            return strtol(line.c_str() + strlen("VmRSS:"), nullptr, 10);
    fail("read the daemon's memory");
}

// ---- configurations

void set(int th, const std::string &value, const std::string &path)
{
    check(maapi_set_elem2(sock, th, value.c_str(), "%s", path.c_str()), path.c_str());
}

void create(int th, const std::string &path)
{
    check(maapi_create(sock, th, "%s", path.c_str()), path.c_str());
}

void set_entries(int th, int entries)
{
    for (int i = 0; i < entries; i++)
        set(th, "32",
            std::string(BIG_LIST) + "/ip-prefix{10." + std::to_string(i >> 8) + "." + std::to_string(i & 255) +
                ".0/24}/le");
}

void delete_list(int th, int)
{
    check(maapi_delete(sock, th, "%s", BIG_LIST), BIG_LIST);
}

std::string bgp_path()
{
    return "/vpn/vpn-instance{" + std::to_string(FIRST_VPN) + "}/router/bgp{65000}";
}

void set_neighbours(int th, int neighbours)
{
    for (int i = 0; i < neighbours; i++) {
        const std::string path =
            bgp_path() + "/neighbor{10." + std::to_string(i >> 8) + "." + std::to_string(i & 255) + ".1}";
        set(th, "65001", path + "/remote-as");
        set(th, "30", path + "/timers/keepalive");
        create(th, path + "/address-family{ipv4-unicast}");
        set(th, "guard", path + "/address-family{ipv4-unicast}/route-policy{in}/pol-name");
    }
}

void set_vpns(int th, int vpns)
{
    for (int vpn = 0; vpn < vpns; vpn++)
        set(th, "bench", "/vpn/vpn-instance{" + std::to_string(FIRST_VPN + vpn) + "}/name");
}

void set_small(int th, int)
{
    set(th, "24", SMALL_ENTRY);
    set(th, "small", "/policy/route-policy{guard}/sequence{10}/match/address");
    set(th, "accept", "/policy/route-policy{guard}/sequence{10}/action/base-action");
}

// ---- steps

double milliseconds_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

double commit_ms(void (*edit)(int th, int count), int count)
{
    int th = start_transaction();
    edit(th, count);
    auto start = std::chrono::steady_clock::now();
    apply(th);
    return milliseconds_since(start);
}

void step_print(const char *title, void (*edit)(int th, int count), int count)
{
    long before = messages();
    double took = commit_ms(edit, count);
    long sent = messages() - before;
    printf("| %s | %.0f ms | %ld | %.0f | %ld KiB |\n", title, took, sent, static_cast<double>(sent) * 1000 / took,
           daemon_memory());
    fflush(stdout);
}

// New VPNs get the policies, and tell of their interfaces, after the commit that has made them.
void settle()
{
    for (long before = -1, now = messages(); now != before; now = messages()) {
        before = now;
        sleep(QUIET_S);
    }
}

void fan_out_print(int vpns)
{
    settle();
    std::vector<double> times;
    long before = messages();
    for (int round = 0; round < ROUNDS; round++)
        times.push_back(commit_ms([](int th, int le) { set(th, std::to_string(le), SMALL_ENTRY); }, 25 + round % 2));
    long sent = (messages() - before) / ROUNDS;
    std::sort(times.begin(), times.end());
    double p50 = times[times.size() / 2];
    printf("\n%d VPNs beside VPN 0 and the management VPN, one entry of a list changed: p50 %.1f ms, p99 %.1f ms, "
           "%ld messages, %.0f messages/s\n",
           vpns, p50, times[times.size() * 99 / 100], sent, static_cast<double>(sent) * 1000 / p50);
}

} // namespace

int main(int argc, char **argv)
{
    const int entries = argc > 1 ? atoi(argv[1]) : ENTRIES;
    const int neighbours = argc > 2 ? atoi(argv[2]) : NEIGHBOURS;
    const int vpns = argc > 3 ? atoi(argv[3]) : VPNS;
    start_session();
    printf("| step | commit | messages | messages/s | memory of the daemon after it |\n|---|---|---|---|---|\n");
    step_print("a small policy", set_small, 0);
    step_print("a list of many entries", set_entries, entries);
    step_print("the list deleted", delete_list, 0);
    step_print("the list again", set_entries, entries);
    step_print("deleted again", delete_list, 0);
    step_print("a VPN", set_vpns, 1);
    step_print("its neighbours, each with a family and a policy", set_neighbours, neighbours);
    step_print("all other VPNs", set_vpns, vpns);
    fan_out_print(vpns);
    step_print("a tenth of the list, to all of them", set_entries, entries / 10);
    return 0;
}
