#include "bench/agent_scale_data.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <libyang/libyang.h>
#include <vector>

// ---- the documents

static constexpr int PROFILES = 10;

static std::string printed(const char *format, int a, int b, int c, int d)
{
    char text[2048];
    (void)snprintf(text, sizeof text, format, a, b, c, d);
    return text;
}

// Arguments: number in the VPN, VPN modulo 256, number modulo 256, number modulo profiles.
static constexpr char INTERFACE[] =
    "<interface><name>if%1$d</name><description>interface %1$d of VPN %2$d</description><mtu>1400</mtu>"
    "<mac-address>02:00:00:00:%2$02x:%3$02x</mac-address><speed>medium</speed><duplex>full</duplex>"
    "<arp-timeout>600</arp-timeout><address>10.%2$d.%3$d.1/24</address><profile>profile%4$d</profile>"
    "<options>log count</options><helper>10.0.0.%3$d</helper><helper>10.0.1.%3$d</helper>"
    "<keepalive><interval>30</interval><retries>3</retries></keepalive><source-address>10.%2$d.%3$d.1</source-address>"
    "<shutdown>false</shutdown><shaping-rate>%1$d000</shaping-rate><queue>%4$d</queue></interface>\n";

std::string scale_document(int first, int vpns, int interfaces)
{
    std::string text = "<net xmlns=\"urn:bench:net\">\n";
    for (int i = 0; i < PROFILES; i++)
        text += printed("<profile><name>profile%1$d</name><rate>%1$d</rate></profile>\n", i, 0, 0, 0);
    for (int vpn = first; vpn < first + vpns; vpn++) {
        text += printed("<vpn><id>%1$d</id><name>VPN %1$d</name>\n", vpn, 0, 0, 0);
        for (int i = 0; i < interfaces; i++)
            text += printed(INTERFACE, i, vpn % 256, i % 256, i % PROFILES);
        text += "</vpn>\n";
    }
    return text + "</net>\n";
}

// ---- the whole tree

namespace
{

using clock_type = std::chrono::steady_clock;

double ms_since(clock_type::time_point start)
{
    return std::chrono::duration<double, std::milli>(clock_type::now() - start).count();
}

void require(LY_ERR result, const char *what, const ly_ctx *ctx)
{
    if (result == LY_SUCCESS)
        return;
    const ly_err_item *item = ctx ? ly_err_last(ctx) : nullptr;
    fprintf(stderr, "agent_scale: %s: %s\n", what, item ? item->msg : "failed");
    exit(1);
}

size_t count_nodes(const lyd_node *first)
{
    size_t count = 0;
    for (const lyd_node *node = first; node; node = node->next)
        count += 1 + count_nodes(lyd_child(node));
    return count;
}

struct turn_t {
    double copy_ms, validate_ms, diff_ms, commit_ms;
};

// One leaf is committed.
turn_t commit_whole(ly_ctx *ctx, lyd_node *&running, int turn)
{
    clock_type::time_point start = clock_type::now();
    lyd_node *copy = nullptr, *leaf = nullptr, *diff = nullptr;
    require(lyd_dup_siblings(running, nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS, &copy), "copy", ctx);
    double copied = ms_since(start);
    require(lyd_find_path(copy, "/bench-net:net/vpn[id='7']/interface[name='if7']/mtu", 0, &leaf), "find", ctx);
    require(lyd_change_term(leaf, turn % 2 ? "1300" : "1301"), "change", ctx);
    require(lyd_validate_all(&copy, ctx, LYD_VALIDATE_NO_STATE, nullptr), "validate", ctx);
    double validated = ms_since(start);
    require(lyd_diff_siblings(running, copy, 0, &diff), "compare", ctx);
    double compared = ms_since(start);
    lyd_free_all(diff);
    lyd_free_all(running);
    running = copy;
    return { copied, validated - copied, compared - validated, ms_since(start) };
}

} // namespace

whole_tree_t whole_tree_measure(const std::string &yang_dir, const std::string &document)
{
    static constexpr int TURNS = 9;
    ly_ctx *ctx = nullptr;
    require(ly_ctx_new(yang_dir.c_str(), 0, &ctx), "context", nullptr);
    require(ly_ctx_load_module(ctx, "bench-net", nullptr, nullptr) ? LY_SUCCESS : LY_EOTHER, "model", ctx);
    whole_tree_t result;
    lyd_node *running = nullptr;
    clock_type::time_point start = clock_type::now();
    require(lyd_parse_data_mem(ctx, document.c_str(), LYD_XML, LYD_PARSE_STRICT | LYD_PARSE_NO_STATE,
                               LYD_VALIDATE_NO_STATE, &running),
            "parse", ctx);
    result.parse_ms = ms_since(start);
    result.nodes = count_nodes(running);
    std::vector<turn_t> turns;
    for (int turn = 0; turn < TURNS; turn++)
        turns.push_back(commit_whole(ctx, running, turn));
    std::sort(turns.begin(), turns.end(), [](const turn_t &a, const turn_t &b) { return a.commit_ms < b.commit_ms; });
    const turn_t &median = turns[TURNS / 2];
    result.copy_ms = median.copy_ms;
    result.validate_ms = median.validate_ms;
    result.diff_ms = median.diff_ms;
    result.commit_ms = median.commit_ms;
    lyd_free_all(running);
    ly_ctx_destroy(ctx);
    return result;
}
