// What validators of interfaces and addresses say to what a commit of an operator seldom brings: addresses learnt from
// DHCP, an agent that does not answer, and many prefixes against simple models.
#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_validate.h"
#include "tconfd/tconfd_util.h"
#include "tests/unit/cfgmgr_config_if_env.h"

#include <deque>
#include <random>

namespace
{

constexpr int REFUSED = -1;

class cfgmgr_validate_if : public config_if_env
{
protected:
    cfgmgr_validate_if()
    {
        dx.d_opaque = &ctx;
        tctx.dx = &dx;
        daemon.tconfd_ctx_p = &ctx;
    }

    confd_value_t text(const std::string &value) { return buf(texts.emplace_back(value).c_str()); }
    static std::string path_of(const std::string &name, uint64_t vpn_id = 5)
    {
        return "/vpn/vpn-instance{" + std::to_string(vpn_id) + "}/interface{" + name + "}";
    }
    void add_interface(const std::string &name, uint64_t vpn_id = 5)
    {
        agent().leaves[path_of(name, vpn_id)] = nothing();
        agent().entries["/vpn/vpn-instance{" + std::to_string(vpn_id) + "}/interface"].push_back({ text(name) });
    }
    void set_leaf(const std::string &name, const std::string &leaf, const confd_value_t &value, uint64_t vpn_id = 5)
    {
        agent().leaves[path_of(name, vpn_id) + "/" + leaf] = value;
    }
    void forget_configuration()
    {
        agent().leaves.clear();
        agent().entries.clear();
    }

    // Asks about a new value of a leaf of the interface; its path below the interface, outermost first.
    int ask(cfgmgr_validator_t *validate, const char *name, const std::vector<fake_step_t> &below, confd_value_t value,
            uint64_t vpn_id = 5)
    {
        std::vector<fake_step_t> steps = { "vpn", "vpn-instance", fake_step_t({ u64(vpn_id) }), "interface",
                                           fake_step_t({ text(name) }) };
        steps.insert(steps.end(), below.begin(), below.end());
        confd_hkeypath_t path = keypath(steps);
        agent().calls.clear();
        return validate(&tctx, &path, &value);
    }
    int ask_address(const char *name, const std::string &prefix)
    {
        bool is_v6 = prefix.find(':') != std::string::npos;
        return ask(cfgmgr_validate_vpn_if_ip_address, name, { is_v6 ? "ipv6" : "ip", "address" }, text(prefix));
    }
    int ask_secondary(const char *name, const std::string &prefix)
    {
        return ask(cfgmgr_validate_vpn_if_ip_address, name,
                   { "ip", "secondary-address", fake_step_t({ text(prefix) }), "address" }, text(prefix));
    }
    int ask_rapid_commit(const char *name, const confd_value_t &value = boolean(true))
    {
        return ask(cfgmgr_validate_vpn_if_dhcp_rapid_commit, name, { "ipv6", "dhcp-rapid-commit" }, value);
    }
    // What the operator is told, "" for nothing.
    std::string refusal()
    {
        std::vector<std::string> calls = agent().calls_of("confd_trans_seterr");
        return calls.empty() ? "" : calls.front().substr(strlen("confd_trans_seterr "));
    }

    confd_daemon_ctx dx{};
    confd_trans_ctx tctx{};
    std::deque<std::string> texts; // of values
};

// ---- addresses

TEST_F(cfgmgr_validate_if, an_address_from_dhcp_counts_where_none_is_configured)
{
    struct row_t {
        const char *configured; // of ge0/1; null: none
        const char *learnt;
        const char *asked;
        const char *refusal;
    };
    static constexpr row_t rows[] = {
        { nullptr, "10.1.1.1/24", "10.1.1.2/24",
          "Interface ge0/1 with dhcp-address 10.1.1.1/24 & interface ge0/2 with address 10.1.1.2/24 cannot have "
          "overlapping subnets" },
        { "10.2.1.1/24", "10.1.1.1/24", "10.1.1.2/24", "" },
        { nullptr, "10.1.1.1/24", "10.1.2.2/24", "" },
        { nullptr, "0.0.0.0/0", "10.1.1.2/24", "" },
        { nullptr, "2001:db8:1::1/64", "2001:db8:1::2/64",
          "Interface ge0/1 with dhcp-address 2001:db8:1::1/64 & interface ge0/2 with address 2001:db8:1::2/64 cannot "
          "have overlapping subnets" },
        { "2001:db8:2::1/64", "2001:db8:1::1/64", "2001:db8:1::2/64", "" },
        { nullptr, "::/0", "2001:db8:1::2/64", "" },
    };
    for (const row_t &row : rows) {
        forget_configuration();
        add_interface("ge0/1");
        add_interface("ge0/2");
        std::string family = strchr(row.asked, ':') != nullptr ? "ipv6" : "ip";
        if (row.configured != nullptr)
            set_leaf("ge0/1", family + "/address", text(row.configured));
        set_leaf("ge0/1", family + "/dhcp-oper-addr", text(row.learnt));
        EXPECT_EQ(ask_address("ge0/2", row.asked), *row.refusal != '\0' ? REFUSED : 0) << row.asked;
        EXPECT_EQ(refusal(), row.refusal);
    }
}

TEST_F(cfgmgr_validate_if, a_secondary_address_is_compared_with_what_its_own_interface_has_learnt)
{
    add_interface("ge0/1");
    set_leaf("ge0/1", "ip/dhcp-oper-addr", text("10.1.1.1/24"));
    EXPECT_EQ(ask_address("ge0/1", "10.1.1.2/24"), 0) << "it takes the learnt one's place";
    EXPECT_EQ(ask_secondary("ge0/1", "10.1.1.2/24"), REFUSED);
    EXPECT_EQ(refusal(), "Interface ge0/1 with dhcp-address 10.1.1.1/24 & interface ge0/1 with secondary-address "
                         "10.1.1.2/24 cannot have overlapping subnets");
}

TEST_F(cfgmgr_validate_if, a_host_of_containers_keeps_its_lists_apart_from_what_dhcp_gave)
{
    daemon.personality = PERSONALITY_PENDRY;
    add_interface("eth1", 0);
    add_interface("eth2", 0);
    set_leaf("eth1", "ip/dhcp-oper-addr", text("10.1.1.1/24"), 0);
    auto ask_list = [&](const char *prefix) {
        return ask(cfgmgr_validate_vpn_if_addr_list, "eth2",
                   { "ip", "address-list", fake_step_t({ text(prefix) }), "address" }, text(prefix), 0);
    };
    EXPECT_EQ(ask_list("10.1.2.1/24"), 0);
    EXPECT_EQ(ask_list("10.1.1.5/25"), REFUSED);
    EXPECT_EQ(refusal(),
              "Interface eth1 with address 10.1.1.1/24 & Interface eth2 with address 10.1.1.5/25 cannot have "
              "same subnet 10.1.1.0/24");
    daemon.personality = PERSONALITY_LODEST;
    EXPECT_EQ(ask_list("10.1.1.5/25"), 0);
}

// Bit by bit, up to the end of the shorter one.
bool model_overlap(uint32_t a, int a_len, uint32_t b, int b_len)
{
    for (int bit = 0; bit < std::min(a_len, b_len); bit++) {
        if ((a >> (31 - bit) & 1) != (b >> (31 - bit) & 1))
            return false;
    }
    return true;
}

std::string prefix_text(uint32_t address, int len)
{
    char out[IP_PREFIX_TEXT];
    ip_prefix_t prefix{};
    ip_addr_set_v4(&prefix.ip, address);
    prefix.len = static_cast<uint8_t>(len);
    return ip_prefix_to_str(prefix, out, sizeof out);
}

TEST_F(cfgmgr_validate_if, prefixes_overlap_when_they_agree_in_all_bits_of_the_shorter)
{
    std::mt19937 random(7);
    std::uniform_int_distribution<int> lens(1, 30);
    int refused = 0;
    for (int i = 0; i < 2000; i++) {
        // Both in 10.0.0.0/8 or below, differing in few bits; odd last bits make host parts that are usable.
        int a_len = lens(random);
        int b_len = lens(random);
        uint32_t a = 0x0a000000U | (random() & 0x00fffffcU) | 1U;
        uint32_t b = (a ^ (1U << (random() % 22 + 2))) & ~2U;
        forget_configuration();
        add_interface("ge0/1");
        add_interface("ge0/2");
        set_leaf("ge0/1", "ip/address", text(prefix_text(a, a_len)));
        int result = ask_address("ge0/2", prefix_text(b, b_len));
        ASSERT_EQ(result != 0, model_overlap(a, a_len, b, b_len))
            << prefix_text(a, a_len) << " " << prefix_text(b, b_len) << " " << refusal();
        refused += result != 0 ? 1 : 0;
    }
    EXPECT_GT(refused, 200);
    EXPECT_LT(refused, 1800);
}

TEST_F(cfgmgr_validate_if, entries_of_a_pool_hold_its_address_once_the_initial_read_is_done)
{
    add_interface("natpool1");
    agent().entries[path_of("natpool1") + "/nat/static"].push_back({ ipv4("10.9.9.9"), ipv4("198.51.100.5") });
    EXPECT_EQ(ask_address("natpool1", "198.51.100.0/28"), 0);
    ctx.initial_read_done = 1;
    EXPECT_EQ(ask_address("natpool1", "198.51.100.0/28"), REFUSED);
    EXPECT_EQ(refusal(),
              "Cannot configure ip address when there are static NAT mappings are configured on the interface");
}

TEST_F(cfgmgr_validate_if, an_agent_that_fails_refuses_an_address)
{
    struct row_t {
        const char *name;
        const char *asked;
        const char *failing;
        const char *refusal; // its beginning
    };
    static constexpr row_t rows[] = {
        { "ge0/2", "10.1.1.1/24", "walk /vpn/vpn-instance{5}/interface",
          "Failed to initialise if maapi cursor  confd_str " },
        { "ge0/2", "10.1.1.1/24", "walk /vpn/vpn-instance{5}/interface{ge0/1}/ip/secondary-address",
          "Failed to initialise maapi cursor  confd_str " },
        { "ge0/2", "10.1.1.1/24", "get /vpn/vpn-instance{5}/interface{ge0/1}/ip/address",
          "Failed to get address element  confd_str " },
        { "ge0/2", "10.1.1.1/24", "walk /vpn/vpn-instance{5}/interface{ge0/2}/vrrp",
          "Failed to initialize maapi cursor  confd_str " },
        { "natpool1", "10.1.1.0/24", "walk /vpn/vpn-instance{5}/interface{natpool1}/nat/static",
          "Failed to initialize maapi cursor  confd_str " },
    };
    ctx.initial_read_done = 1;
    for (const char *name : { "ge0/1", "ge0/2", "natpool1" })
        add_interface(name);
    for (const row_t &row : rows) {
        agent().results.clear();
        EXPECT_EQ(ask_address(row.name, row.asked), 0) << row.failing << ": " << refusal();
        agent().results = { { row.failing, CONFD_ERR } };
        EXPECT_EQ(ask_address(row.name, row.asked), REFUSED) << row.failing;
        EXPECT_TRUE(refusal().starts_with(row.refusal)) << refusal();
    }
}

TEST_F(cfgmgr_validate_if, without_a_session_for_what_dhcp_gave_an_address_is_neither_accepted_nor_refused)
{
    add_interface("ge0/1");
    agent().results["cdb_start_session2"] = CONFD_ERR;
    EXPECT_EQ(ask_address("ge0/1", "10.1.1.1/24"), 2);
    EXPECT_EQ(refusal(), "");
    EXPECT_TRUE(log_has("Cannot start session with CDB (-1)"));
    EXPECT_EQ(ask_address("ge0/1", "10.1.1.0/24"), REFUSED) << "what needs no session is refused as ever";
}

// ---- rapid commit

TEST_F(cfgmgr_validate_if, rapid_commit_is_fixed_while_the_client_runs)
{
    enum {
        ABSENT = -1,
        OFF = 0,
        ON = 1
    };
    struct row_t {
        int client;
        int shutdown;
        const char *refusal;
    };
    static constexpr char RUNNING[] =
        "DHCPv6 client is running (shutdown 0 dhcp-client 1). Can't change dhcp-rapid-commit";
    static constexpr row_t rows[] = {
        { ON, OFF, RUNNING }, { ON, ON, "" },      { ON, ABSENT, "" },     { OFF, OFF, "" },
        { OFF, ON, "" },      { ABSENT, OFF, "" }, { ABSENT, ABSENT, "" },
    };
    for (const row_t &row : rows) {
        forget_configuration();
        if (row.client != ABSENT)
            set_leaf("ge0/1", "ipv6/dhcp-client", boolean(row.client == ON));
        if (row.shutdown != ABSENT)
            set_leaf("ge0/1", "shutdown", boolean(row.shutdown == ON));
        for (const confd_value_t &value : { boolean(true), boolean(false), nothing() }) {
            EXPECT_EQ(ask_rapid_commit("ge0/1", value), *row.refusal != '\0' ? REFUSED : 0);
            EXPECT_EQ(refusal(), row.refusal) << row.client << " " << row.shutdown;
        }
    }
}

TEST_F(cfgmgr_validate_if, rapid_commit_is_fixed_while_there_is_an_address_from_dhcp)
{
    tconfd_str_to_ipv6_prefix("2001:db8::5/64", &find("ge0_1")->dhcp6_addr);
    EXPECT_EQ(ask_rapid_commit("ge0/1"), REFUSED);
    EXPECT_EQ(refusal(), "DHCPv6 client is running. Can't change dhcp-rapid-commit");
    EXPECT_EQ(ask_rapid_commit("ge0/2"), 0);
}

TEST_F(cfgmgr_validate_if, rapid_commit_needs_the_record_of_its_interface)
{
    for (const char *name : { "irb9", "ge0/99", "loopback1" }) {
        EXPECT_EQ(ask_rapid_commit(name), REFUSED);
        EXPECT_EQ(refusal(), std::string("Can't find interface entry vpn:5 name:") + name);
    }
}

TEST_F(cfgmgr_validate_if, without_a_session_rapid_commit_gets_the_sessions_result)
{
    agent().results["cdb_start_session2"] = CONFD_EOF;
    EXPECT_EQ(ask_rapid_commit("ge0/1"), CONFD_EOF);
    EXPECT_EQ(refusal(), "");
    EXPECT_TRUE(log_has("Cannot start session with CDB (-2)"));
}

// ---- rates

TEST_F(cfgmgr_validate_if, rates_follow_the_speed_that_a_name_tells)
{
    struct row_t {
        const char *name;
        uint32_t shaper_max;
        uint64_t policer_max;
        const char *shaper_refusal;
        const char *policer_refusal;
    };
    static constexpr row_t rows[] = {
        { "ge0/1", 1000000, 1000000000, "Invalid value for shaping rate.. Allowed values for 1g intf <0..1000000>KB",
          "Invalid value for policer{p} rate.. Allowed values for 1g intf <8..1000000000>bps" },
        { "xge0/1", 10000000, 10000000000,
          "Invalid value for shaping rate.. Allowed values for 10g intf <0..10000000>KB",
          "Invalid value for policer{p} rate.. Allowed values for 10g intf <8..10000000000>bps" },
        { "10ge0/1", 10000000, 10000000000,
          "Invalid value for shaping rate.. Allowed values for 10g intf <0..10000000>KB",
          "Invalid value for policer{p} rate.. Allowed values for 10g intf <8..10000000000>bps" },
    };
    for (const row_t &row : rows) {
        auto ask_shaper = [&](uint32_t rate) {
            return ask(cfgmgr_validate_vpn_if_shaping_rate, row.name, { "shaping-rate" }, u32(rate));
        };
        auto ask_policer = [&](uint64_t rate) {
            agent().leaves["/policy/policer{p}/rate"] = u64(rate);
            return ask(cfgmgr_validate_vpn_if_policer_rate, row.name,
                       { "policer", fake_step_t({ choice(0) }), "policer-name" }, text("p"));
        };
        EXPECT_EQ(ask_shaper(0), 0);
        EXPECT_EQ(ask_shaper(row.shaper_max), 0);
        EXPECT_EQ(ask_shaper(row.shaper_max + 1), REFUSED);
        EXPECT_EQ(refusal(), row.shaper_refusal);
        EXPECT_EQ(ask_policer(8), 0);
        EXPECT_EQ(ask_policer(row.policer_max), 0);
        for (uint64_t rate : { uint64_t{ 0 }, uint64_t{ 7 }, row.policer_max + 1, UINT64_MAX }) {
            EXPECT_EQ(ask_policer(rate), REFUSED);
            EXPECT_EQ(refusal(), row.policer_refusal);
        }
    }
}

TEST_F(cfgmgr_validate_if, an_access_list_that_cannot_be_read_is_refused)
{
    auto ask_acl = [&] {
        return ask(cfgmgr_validate_vpn_if_acl_policer_rate, "ge0/1",
                   { "access-list", fake_step_t({ choice(0) }), "acl-name" }, text("a"));
    };
    static constexpr char LIST[] = "/policy/access-list{a}/sequence";
    static constexpr char POLICER[] = "/policy/access-list{a}/sequence{10}/action/policer";
    struct row_t {
        std::string failing;
        std::string refusal; // its beginning
    };
    const row_t rows[] = {
        { std::string("walk ") + LIST,
          "Failed to initialise maapi cursor for /policy/access-list{a}/sequence confd_str " },
        { std::string("get ") + POLICER, "Failed to get policer confd_str " },
        { "get /policy/policer{p}/rate", "Failed to get /policy/policer{p}/rate confd_str " },
    };
    confd_value_t sequence{};
    CONFD_SET_UINT16(&sequence, 10);
    agent().entries[LIST].push_back({ sequence });
    EXPECT_EQ(ask_acl(), 0) << "a rule without a policer";
    agent().leaves[POLICER] = text("p");
    agent().leaves["/policy/policer{p}/rate"] = u64(8);
    EXPECT_EQ(ask_acl(), 0) << refusal();
    for (const row_t &row : rows) {
        agent().results = { { row.failing, CONFD_ERR } };
        EXPECT_EQ(ask_acl(), REFUSED) << row.failing;
        EXPECT_TRUE(refusal().starts_with(row.refusal)) << refusal();
    }
}

// ---- translation

TEST_F(cfgmgr_validate_if, an_address_is_of_a_pool_when_stepping_through_the_pool_meets_it)
{
    std::mt19937 random(11);
    int accepted = 0;
    for (int i = 0; i < 500; i++) {
        int len = static_cast<int>(random() % 17 + 16);
        uint32_t network = (0xc6000000U | (random() & 0x00ffffffU)) & ip_masklen_v4(static_cast<uint8_t>(len));
        uint32_t translated = network + random() % (3U << (32 - len)) - (1U << (32 - len));
        uint32_t octet = translated & 0xff;
        if (octet == 0 || octet == 255)
            continue;
        bool is_met = false;
        ip_addr_t at;
        ip_addr_set_v4(&at, network);
        for (uint32_t step = 0; step < 1U << (32 - len); step++) {
            is_met = is_met || at.addr.v4 == translated;
            ip_addr_next_v4(&at);
        }
        set_leaf("natpool1", "ip/address", text(prefix_text(network, len)));
        set_leaf("natpool1", "nat/direction", choice(0));
        confd_value_t inside = choice(0);
        char address[IP_ADDR_TEXT];
        int result = ask(cfgmgr_validate_vpn_if_static_nat_src_natpool_ip, "natpool1",
                         { "nat", "static",
                           fake_step_t({ ipv4("10.9.9.9"), ipv4(ip_v4_to_str(translated, address, sizeof address)) }),
                           "direction" },
                         inside);
        ASSERT_EQ(result == 0, is_met) << prefix_text(network, len) << " " << address << " " << refusal();
        accepted += is_met ? 1 : 0;
    }
    EXPECT_GT(accepted, 50);
    EXPECT_LT(accepted, 450);
}

// ---- deletions

TEST_F(cfgmgr_validate_if, what_is_deleted_is_not_judged)
{
    static constexpr cfgmgr_validator_t *validators[] = {
        cfgmgr_validate_vpn_if,
        cfgmgr_validate_vpn_if_mac,
        cfgmgr_validate_vpn_arp_mac,
        cfgmgr_validate_vpn_arp_ip,
        cfgmgr_validate_vpn_if_tunnel_bind,
        cfgmgr_validate_vpn_if_wpnt_extension,
        cfgmgr_validate_vpn_if_wpnt_last_resort,
        cfgmgr_validate_vpn_if_shaping_rate,
        cfgmgr_validate_vpn_if_acl_policer_rate,
        cfgmgr_validate_vpn_if_policer_rate,
        cfgmgr_dot1x_if_exclusion_validate,
        cfgmgr_validate_wwan_if,
        cfgmgr_validate_vpn_if_ip_address,
        cfgmgr_validate_vpn_if_addr_list,
        cfgmgr_validate_vpn_if_tunnel_source_destination,
        cfgmgr_validate_vpn_if_static_nat_src_natpool_ip,
        cfgmgr_validate_vpn_if_natpool_overload_direction,
    };
    set_leaf("eth9.5", "dot1x", nothing());
    for (cfgmgr_validator_t *validate : validators)
        EXPECT_EQ(ask(validate, "eth9.5", { "tunnel-interface" }, nothing()), 0) << refusal();
}

} // namespace
