// What an operator can ask of the interface table.
#include "cfgmgr/daemon/cfgmgr_dump.h"
#include "cfgmgr/daemon/cfgmgr_print.h"
#include "cfgmgr/network/cfgmgr_gre.h"
#include "tconfd/tconfd_api.h"
#include "tests/unit/cfgmgr_if_env.h"
#include "tests/unit/fake_agent.h"

#include <regex>

namespace
{

class if_commands : public if_env
{
protected:
    if_commands() { start_with_vpns(); }

    // The table as printed, with pointers replaced by P.
    std::string dump()
    {
        std::string text;
        cfgmgr_printer_t out = { [](void *arg, const char *piece) { *static_cast<std::string *>(arg) += piece; },
                                 &text };
        cfgmgr_dump_if_table(&daemon, out);
        return std::regex_replace(text, std::regex("0x[0-9a-f]{8,}"), "P");
    }
    static std::string block_of(const std::string &text, const std::string &name)
    {
        size_t begin = text.find("\ninterface: " + name + " ");
        return begin == std::string::npos ? "" : text.substr(begin, text.find("\n\n", begin) + 1 - begin);
    }
    int bounce(const char *vpn, const char *name)
    {
        char *arguments[] = { const_cast<char *>("reset"), const_cast<char *>(vpn), const_cast<char *>(name) };
        return cfgmgr_if_reset(nullptr, nullptr, name == nullptr ? 2 : 3, arguments);
    }
};

TEST_F(if_commands, the_dump_shows_records_and_indexes)
{
    cfgmgr_if_t *if_p = make("ge0_1");
    strcpy(if_p->description, "uplink");
    if_p->ipv4_addr = prefix_of("10.1.5.1", 24);
    if_p->flags |= IF_DHCP6;
    if_p->dhcp_dns_count = 1;
    if_p->dhcp_dns[0] = 0x0a010235;
    cfgmgr_if_route_add(if_p, prefix_of("10.7.0.0", 16), address_of("10.1.5.254"));
    make("ge0_1.7");
    cfgmgr_if_t *gre_p = make("gre1");
    gre_p->tunnel_src_kind = TUNNEL_SRC_INTERFACE;
    strcpy(gre_p->tunnel_src_if, "ge0_1");
    ASSERT_EQ(cfgmgr_find_and_bind_gre_if(&daemon, 5, gre_p), 1);
    ASSERT_NE(cfgmgr_if_idx_find_or_create(&daemon, 12, "ge0_1", 5), nullptr);
    std::string text = dump();
    EXPECT_NE(text.find("CFGMGR Interface Database"), std::string::npos);
    EXPECT_NE(text.find("interface: ge0_1(P) vpn-id: 5 rtm-idx: 12 bitmap-idx: 1\n"), std::string::npos);
    EXPECT_EQ(block_of(text, "ge0_1"), "\ninterface: ge0_1 (P) vpn-id: 5 (P)\n"
                                       "  CLI name: ge0/1, Description: uplink\n"
                                       "  Type: 0, Vlan: 0, Shutdown: True, Mtu: 1500, Mac: 0, Tun socket: 0\n"
                                       "  Flags: 0x8000 dhcpv6\n"
                                       "  Phy: autoneg 1 speed -1 duplex 255, pause autoneg 1 rx 1 tx 1\n"
                                       "  Address: 10.1.5.1/24\n"
                                       "  DHCP resolver: 10.1.2.53\n"
                                       "  Route: 10.7.0.0/16 via 10.1.5.254\n"
                                       "  Child: ge0_1.7\n"
                                       "  Bound tunnel: gre1\n");
    EXPECT_NE(block_of(text, "ge0_1.7").find("  Flags: 0x9 subif present\n"), std::string::npos);
    EXPECT_NE(block_of(text, "ge0_1.7").find("  Parent: ge0_1\n"), std::string::npos);
    EXPECT_NE(text.find("(kind 2, interface ge0_1)"), std::string::npos);
}

TEST_F(if_commands, a_bounce_takes_an_interface_down_and_up)
{
    cfgmgr_if_t *if_p = make("loopback1");
    if_p->ipv6_addr = prefix_of("2001:db8::1", 64);
    forget();
    EXPECT_EQ(bounce("5", "loopback1"), 0);
    EXPECT_EQ(effects(), (if_effects_t{ "flags loopback1", "flags loopback1 +0x241",
                                        "5# ip addr add 2001:db8::1/64 dev loopback1" }));
    EXPECT_EQ(if_p->shutdown, 0u);
    EXPECT_EQ(daemon.last_ns, 0u);
}

TEST_F(if_commands, a_bounce_rewrites_the_resolvers_that_count)
{
    root.make_dir("etc/netns/5");
    root.make_dir("etc/netns/6");
    cfgmgr_if_t *if_p = make("ge0_1");
    if_p->dhcp_dns_count = 1;
    if_p->dhcp_dns[0] = 0x0a010235;
    EXPECT_EQ(bounce("5", "ge0/1"), 0);
    EXPECT_NE(root.read("etc/netns/5/resolv.conf").find("nameserver 10.1.2.53\n"), std::string::npos);
}

TEST_F(if_commands, a_bounce_of_what_is_not_there_is_told_and_succeeds)
{
    make("loopback1", 6);
    struct {
        const char *vpn;
        const char *name;
        const char *log;
    } rows[] = {
        { "5", "ge9/0", "Unable to bounce interface ge9/0 in vpn: 5 - invalid interface name" },
        { "77", "ge0/1", "Unable to bounce interface ge0/1 in vpn: 77 - invalid vpn" },
        { "5", "loopback7", "Unable to bounce interface loopback7 in vpn: 5 - invalid interface" },
        { "5", "loopback1", "Unable to bounce interface loopback1 in vpn: 5 - invalid interface" },
        { "x", "loopback1", "Unable to bounce interface loopback1 in vpn: 0 - invalid interface" },
        { "5", nullptr, "Unable to bounce interface  in vpn: 5 - invalid interface" },
    };
    for (const auto &row : rows) {
        forget();
        EXPECT_EQ(bounce(row.vpn, row.name), 0);
        EXPECT_TRUE(log_has(row.log)) << row.log;
        EXPECT_EQ(effects(), if_effects_t{});
    }
    cfgmgr_context_publish(nullptr);
    EXPECT_EQ(bounce("5", "loopback1"), 0);
    EXPECT_TRUE(log_has("Unable to bounce interface loopback1 in vpn: 5 - invalid daemon"));
    cfgmgr_context_publish(&daemon);
}

TEST_F(if_commands, a_dump_reaches_the_session_that_asked_for_it_in_pieces)
{
    tconfd_ctx ctx{};
    daemon.tconfd_ctx_p = &ctx;
    for (int tag = 2; tag < 100; tag++)
        make(("ge0_1." + std::to_string(tag)).c_str());
    confd_user_info operator_p{};
    operator_p.usid = 7;
    EXPECT_EQ(cfgmgr_dump_if(&operator_p, nullptr, 0, nullptr), CONFD_OK);
    std::string text;
    for (const std::string &piece : agent().printed[7])
        text += piece;
    EXPECT_EQ(std::regex_replace(text, std::regex("0x[0-9a-f]{8,}"), "P"), dump() + "\n");
    EXPECT_GT(agent().printed[7].size(), 1u);
    EXPECT_LT(agent().printed[7].size(), text.size() / 1000);
    daemon.tconfd_ctx_p = nullptr;
}

} // namespace
