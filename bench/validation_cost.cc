// What the rules between objects cost: a change of one interface or one VPN on a device full of them.
//
// Run inside a device (make bench does): it fills the device with VPNs of 50 interfaces, half of them tagged
// sub-interfaces of eight ports and half loopbacks, all with addresses; once the VPNs are there, the daemon's commands
// for interfaces are replaced by one that does nothing. Then it checks one change at a time, each in a transaction of
// its own that is given up again (commit check), and commits those for which the handlers have little to do. The reads
// of the validators are those that the agent has served the daemon meanwhile, by the agent's own status. Prints a row a
// change, and ends with status 1 when the check of one takes longer than the limit or a step fails.
//
//     validation_cost [VPNS [INTERFACES]]

#include "bench/bench_session.h"

#include <algorithm>
#include <chrono>
#include <confd_maapi.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

constexpr int VPNS = 77; // all that can be configured beside VPN 0 and the management VPN
constexpr int INTERFACES = 50;
constexpr int PORTS = 8;
constexpr int FIRST_VPN = 1001;
constexpr int FIRST_TAG = 10;
constexpr int ROUNDS = 50;
constexpr double LIMIT_MS = 100;
constexpr const char *NO_COMMANDS = "for tool in ip ifconfig ethtool; do mount --bind /bin/true \"$(readlink -f "
                                    "\"$(command -v $tool)\")\" || exit; done";
constexpr const char *STATUS_COMMAND = "agent_cmd status --json";

// ---- the configuration

// The interfaces of the device are counted through; each has a network of its own.
std::string address_of(int number)
{
    char text[32];
    bool is_loopback = number % 2 != 0;
    (void)snprintf(text, sizeof text, "10.%d.%d.1/%d", number >> 8, number & 255, is_loopback ? 32 : 24);
    return text;
}

std::string name_of(int number)
{
    int pair = number / 2;
    char text[32];
    if (number % 2 != 0)
        (void)snprintf(text, sizeof text, "loopback%d", pair + 1);
    else
        (void)snprintf(text, sizeof text, "ge0/%d.%d", pair % PORTS, FIRST_TAG + pair / PORTS);
    return text;
}

void set(int th, const char *value, const std::string &path)
{
    check(maapi_set_elem2(sock, th, value, "%s", path.c_str()), path.c_str());
}

std::string interface_path(int vpn, const std::string &name, const char *leaf)
{
    return "/vpn/vpn-instance{" + std::to_string(vpn) + "}/interface{" + name + "}/" + leaf;
}

// The ports, the management VPN that a device cannot be without, and the VPNs, still empty.
void configure_vpns(int vpns)
{
    int th = start_transaction();
    set(th, "false", interface_path(512, "eth0", "shutdown"));
    for (int vpn = 0; vpn < vpns; vpn++)
        set(th, "bench", "/vpn/vpn-instance{" + std::to_string(FIRST_VPN + vpn) + "}/name");
    for (int port = 0; port < PORTS; port++)
        set(th, "1600", interface_path(0, "ge0/" + std::to_string(port), "mtu"));
    apply(th);
}

// What the kernel is told about interfaces is of no interest here, and takes minutes.
void commands_do_nothing()
{
    if (system(NO_COMMANDS) != 0)
        fail("replace the commands");
}

double configure(int vpns, int interfaces)
{
    auto start = std::chrono::steady_clock::now();
    configure_vpns(vpns);
    commands_do_nothing();
    for (int vpn = 0; vpn < vpns; vpn++) {
        int th = start_transaction();
        for (int i = vpn * interfaces; i < (vpn + 1) * interfaces; i++)
            set(th, address_of(i).c_str(), interface_path(FIRST_VPN + vpn, name_of(i), "ip/address"));
        apply(th);
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// ---- reads, as the agent has counted them

std::string status_text()
{
    std::string text;
    FILE *pipe = popen(STATUS_COMMAND, "r");
    char part[4096];
    while (pipe != nullptr && fgets(part, sizeof part, pipe) != nullptr)
        text += part;
    if (pipe == nullptr || pclose(pipe) != 0)
        fail("read the agent's status");
    return text;
}

// Requests of the daemon so far.
long requests()
{
    const std::string text = status_text();
    size_t client = text.find("\"name\":\"cfgmgr\"");
    size_t count = client == std::string::npos ? client : text.find("\"requests\":", client);
    if (count == std::string::npos)
        fail("find the daemon in the agent's status");
    return strtol(text.c_str() + count + strlen("\"requests\":"), nullptr, 10);
}

// ---- changes

struct change_t {
    std::string title;
    std::string path;          // a leaf, or an entry when there is no value
    std::string values[2];     // in turn, so that each is a change
    bool is_committed = false; // the handler has little to do for it
};

struct figures_t {
    double p50 = 0; // ms
    double p99 = 0;
    long reads = 0;
};

void edit(int th, const change_t &change, int round)
{
    const std::string &value = change.values[round % 2];
    if (value.empty())
        check(maapi_create(sock, th, "%s", change.path.c_str()), change.path.c_str());
    else
        set(th, value.c_str(), change.path);
}

double milliseconds_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

double check_once(const change_t &change, int round)
{
    int th = start_transaction();
    edit(th, change, round);
    auto start = std::chrono::steady_clock::now();
    check(maapi_validate_trans(sock, th, 0, 0), change.title.c_str());
    double took = milliseconds_since(start);
    check(maapi_finish_trans(sock, th), "give up");
    return took;
}

double commit_once(const change_t &change, int round)
{
    int th = start_transaction();
    edit(th, change, round);
    auto start = std::chrono::steady_clock::now();
    apply(th);
    return milliseconds_since(start);
}

figures_t measure(const change_t &change, double (*once)(const change_t &, int))
{
    std::vector<double> times;
    long before = requests();
    once(change, 0);
    long reads = requests() - before;
    for (int round = 1; round <= ROUNDS; round++)
        times.push_back(once(change, round));
    std::sort(times.begin(), times.end());
    return { times[times.size() / 2], times[times.size() * 99 / 100], reads };
}

std::vector<change_t> changes_of(int interfaces)
{
    const int vpn = FIRST_VPN + 1;
    const std::string tagged = name_of(interfaces % 2 == 0 ? interfaces : interfaces + 1);
    const std::string tag_free = "ge0/0." + std::to_string(FIRST_TAG + VPNS * INTERFACES);
    return {
        { "address of a tagged interface",
          interface_path(vpn, tagged, "ip/address"),
          { "172.16.1.1/24", "172.16.2.1/24" } },
        { "a new secondary address",
          "/vpn/vpn-instance{" + std::to_string(vpn) + "}/interface{" + tagged +
              "}/ip/secondary-address{172.16.9.1/24}",
          { "", "" } },
        { "MTU of a tagged interface", interface_path(vpn, tagged, "mtu"), { "1400", "1402" }, true },
        { "MTU of a port with tagged interfaces", interface_path(0, "ge0/0", "mtu"), { "1602", "1604" }, true },
        { "a new tagged interface",
          "/vpn/vpn-instance{" + std::to_string(vpn) + "}/interface{" + tag_free + "}",
          { "", "" } },
        { "address of an interface of VPN 0",
          interface_path(0, "ge0/0", "ip/address"),
          { "172.16.1.1/24", "172.16.2.1/24" } },
        { "name of a VPN", "/vpn/vpn-instance{" + std::to_string(vpn) + "}/name", { "a", "b" }, true },
    };
}

// True when it stays within the limit.
bool row_print(const change_t &change)
{
    figures_t checked = measure(change, check_once);
    printf("| %s | %ld | %.1f ms | %.1f ms | ", change.title.c_str(), checked.reads, checked.p50, checked.p99);
    if (change.is_committed)
        printf("%.1f ms |\n", measure(change, commit_once).p50);
    else
        printf("|\n");
    fflush(stdout);
    return checked.p50 <= LIMIT_MS;
}

} // namespace

int main(int argc, char **argv)
{
    const int vpns = argc > 1 ? atoi(argv[1]) : VPNS;
    const int interfaces = argc > 2 ? atoi(argv[2]) : INTERFACES;
    start_session();
    double took = configure(vpns, interfaces);
    printf("%d VPNs of %d interfaces, configured in %.0f s\n\n", vpns, interfaces, took);
    printf("| change | reads | check p50 | p99 | commit p50 |\n|---|---|---|---|---|\n");
    int over = 0;
    for (const change_t &change : changes_of(interfaces))
        over += !row_print(change);
    printf("\n%d changes take longer to be checked than %.0f ms\n", over, LIMIT_MS);
    return over == 0 ? 0 : 1;
}
