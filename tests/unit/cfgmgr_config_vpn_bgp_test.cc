// BGP of a VPN where real commits do not reach: keys that the model does not have, an agent that fails, AS numbers as
// texts, traces. What each leaf fills in is looked at through commits.
#include "cfgmgr/routing/cfgmgr_as_number.h"
#include "cfgmgr/routing/cfgmgr_config_vpn_bgp.h"
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_config_if_env.h"

#include <random>
#include <sys/resource.h>

namespace
{

// ---- AS numbers

TEST(as_numbers, are_one_number_or_two_halves)
{
    static constexpr struct {
        const char *text;
        uint32_t number;
    } rows[] = { { "100", 100 },
                 { "1.10", 65546 },
                 { "65535.65535", 4294967295 },
                 { "4294967295", 4294967295 },
                 { "0.7", 7 },
                 { "7.0", 458752 },
                 { "1.", 1 },
                 { "", 0 },
                 { ".5", 0 },
                 { "x1", 0 },
                 { "4294967296", 0 },
                 { "99999999999999999999.1", 0 },
                 { "1.2.3", 65538 } };
    for (const auto &row : rows)
        EXPECT_EQ(cfgmgr_as_number(row.text), row.number) << row.text;
}

std::string repeated(const std::string &token, int count)
{
    std::string text;
    for (int i = 0; i < count; i++)
        text += token;
    return text;
}

// "-" when it is refused.
std::string converted(const std::string &text)
{
    char out[AS_LIST_SIZE];
    return cfgmgr_convert_as_prepend_str(text.c_str(), out, sizeof out) ? out : "-";
}

TEST(as_numbers, in_lists_become_plain_numbers_each_with_a_blank)
{
    const struct {
        std::string text;
        std::string list;
    } rows[] = {
        { "100 200.300", "100 13107500 " },
        { "7", "7 " },
        { "  7   8  ", "7 8 " },
        { "65535.65535", "4294967295 " },
        { "4294967295", "4294967295 " },
        { "12abc", "-" },
        { "12.", "-" },
        { "1.2.3", "-" },
        { "", "-" },
        { "   ", "-" },
        { "0", "-" },
        { "1 0 2", "-" },
        { "0.0", "-" },
        { "70000.1", "-" },
        { "1.70000", "-" },
        { "1.4294967296", "-" },
        { "4294967296", "-" },
        { "abc", "-" },
        { "1 +2", "-" },
        { "1 2-", "-" },
        { repeated("1 ", 63) + "1", "-" }, // the text fits, its list with the last blank does not
        { repeated("1 ", 63), repeated("1 ", 63) },
        { repeated("1.0 ", 21), repeated("65536 ", 21) },
        { repeated("1.0 ", 22), "-" },
        { repeated(" ", 126) + "1", "1 " },
        { repeated(" ", 127) + "1", "-" },
    };
    for (const auto &row : rows)
        EXPECT_EQ(converted(row.text), row.list) << row.text;
    char small[4];
    EXPECT_TRUE(cfgmgr_convert_as_prepend_str("12", small, sizeof small));
    EXPECT_FALSE(cfgmgr_convert_as_prepend_str("123", small, sizeof small)) << "the end needs room too";
}

TEST(as_numbers, in_any_list_that_is_taken_stay_when_it_is_converted_again)
{
    std::mt19937 random(6502);
    constexpr std::string_view letters = "0123456789.  7";
    int taken = 0;
    for (int round = 0; round < 20000; round++) {
        std::string text(random() % 140, '\0');
        for (char &letter : text)
            letter = random() % 500 == 0 ? static_cast<char>(1 + random() % 255) : letters[random() % letters.size()];
        std::string list = converted(text);
        if (list == "-")
            continue;
        taken++;
        ASSERT_LT(list.size(), AS_LIST_SIZE) << text;
        ASSERT_EQ(list.find_first_not_of("0123456789 "), std::string::npos) << text;
        ASSERT_EQ(converted(list), list) << text;
    }
    EXPECT_GT(taken, 500);
}

// ---- enumerations

TEST(bgp_enumerations, that_are_unknown_are_logged_and_give_0)
{
    static constexpr uint32_t types[] = { 4, 3, 7, 14, 16, 21 };
    log_clear();
    for (uint32_t protocol = 0; protocol < std::size(types); protocol++)
        EXPECT_EQ(cfgmgr_config_bgp_route_to_quagga_pb(protocol), types[protocol]);
    EXPECT_EQ(cfgmgr_config_bgp_afi_to_quagga_pb(0), 0u);
    EXPECT_STREQ(cfgmgr_config_bgp_afi_to_str(0), "ipv4-unicast");
    EXPECT_TRUE(log_lines().empty());
    EXPECT_EQ(cfgmgr_config_bgp_route_to_quagga_pb(6), 0u);
    EXPECT_TRUE(log_has("Unknown redistribute protocol 6"));
    EXPECT_EQ(cfgmgr_config_bgp_afi_to_quagga_pb(1), 0u);
    EXPECT_TRUE(log_has("Unknown address family type 1"));
    auto name_of_2 = [] {
        log_echo(true);
        (void)cfgmgr_config_bgp_afi_to_str(2);
    };
    expect_assertion(name_of_2, "Unknown address family type 2\n");
    expect_assertion(name_of_2, "failed assertion");
}

// ---- handlers

constexpr char AGGREGATES[] = "/vpn/vpn-instance{5}/router/bgp{1.10}/address-family{ipv4-unicast}/aggregate-address";
const effects_t FAMILY_ONLY = { "message 31 1 5" };

class bgp_of_a_vpn : public config_if_env
{
protected:
    ~bgp_of_a_vpn() override { cfgmgr_events_level = 0; }

    int32_t apply(tconfd_handler_t handler, int op, std::vector<confd_value_t> keys, changes_t changes = {})
    {
        return handler(&row, op, static_cast<uint8_t>(keys.size()), keys.data(), static_cast<uint16_t>(changes.size()),
                       op == MOP_DELETED ? nullptr : changes.data());
    }
    effects_t delete_family(const char *as_num = "1.10")
    {
        EXPECT_EQ(apply(cfgmgr_config_vpn_bgp_address_family, MOP_DELETED, { u64(5), buf(as_num), choice(0) }), 0);
        EXPECT_EQ(agent().open_connections(), 0);
        return effects();
    }
    void add_aggregates(const std::string &list, int count)
    {
        agent().instances[list] = count;
        for (int i = 0; i < count; i++)
            agent().leaves[list + "[" + std::to_string(i) + "]/prefix"] = ipv4_network("10.1.0.0", 16);
    }
};

TEST_F(bgp_of_a_vpn, that_is_not_there_cannot_be_told_of_the_overlay)
{
    auto update_of_6 = [&] {
        log_echo(true);
        (void)cfgmgr_config_vpn_bgp_ignore_soo_update(&daemon, 6);
    };
    expect_assertion(update_of_6, "Cannot find VPN 6\n");
    expect_assertion(update_of_6, "vpn_p != ");
}

TEST_F(bgp_of_a_vpn, takes_no_other_keys_than_the_models)
{
    const confd_value_t vpn = u64(5), as_num = u32(1), family = choice(0), neighbor = ipv4("10.0.0.1");
    const struct {
        tconfd_handler_t handler;
        std::vector<confd_value_t> keys;
        const char *text;
    } rows[] = {
        { cfgmgr_config_vpn_bgp, { u32(5), as_num }, "(key_p)->type == C_UINT64" },
        { cfgmgr_config_vpn_bgp, { vpn, u64(1) }, "(key_p)->type == C_UINT32 || (key_p)->type == C_BUF" },
        { cfgmgr_config_vpn_bgp, { vpn }, "next_ < delivery_.num_keys" },
        { cfgmgr_config_vpn_bgp, { u64(6), as_num }, "Cannot find VPN 6\n" },
        { cfgmgr_config_vpn_bgp_address_family, { vpn, as_num, u32(0) }, "(key_p)->type == C_ENUM_VALUE" },
        { cfgmgr_config_vpn_bgp_address_family_network, { vpn, as_num, family, neighbor }, "C_IPV4PREFIX" },
        { cfgmgr_config_vpn_bgp_address_family_aggregate_address, { vpn, as_num, family, u32(0) }, "C_IPV4PREFIX" },
        { cfgmgr_config_vpn_bgp_address_family_redistribute, { vpn, as_num, family, u32(0) }, "C_ENUM_VALUE" },
        { cfgmgr_config_vpn_bgp_neighbor, { vpn, as_num, buf("10.0.0.1") }, "(key_p)->type == C_IPV6" },
        { cfgmgr_config_vpn_bgp_neighbor_address_family, { vpn, as_num, neighbor, buf("x") }, "C_ENUM_VALUE" },
        { cfgmgr_config_vpn_bgp_neighbor_address_family_route_policy,
          { vpn, as_num, neighbor, family, buf("in") },
          "(key_p)->type == C_ENUM_VALUE" },
    };
    for (const auto &c : rows) {
        auto create = [&] {
            log_echo(true);
            (void)apply(c.handler, MOP_CREATED, c.keys);
        };
        expect_assertion(create, c.text);
    }
}

TEST_F(bgp_of_a_vpn, traces_the_change_and_each_of_its_values)
{
    const changes_t changes = { set(vpn_shutdown, boolean(true)), gone(vpn_holdtime) };
    const std::vector<confd_value_t> keys = { u64(5), buf("1.10"), ipv4("10.0.0.1") };
    const std::string begin = "BGP neighbor - XML = ";
    for (int32_t level : { 0, 1, 3 }) {
        cfgmgr_events_level = level;
        log_clear();
        EXPECT_EQ(apply(cfgmgr_config_vpn_bgp_neighbor, MOP_MODIFIED, keys, changes), 0);
        EXPECT_EQ(log_has("BGP neighbor config - vpn:5, AS:65546, IP: 10.0.0.1, oper:3, num_values:2"), level > 2);
        EXPECT_EQ(log_has(begin + std::to_string(vpn_shutdown) + ", type: " + std::to_string(C_BOOL)), level > 0);
        EXPECT_EQ(log_count(begin), level > 0 ? 2 : 0);
    }
}

// ---- aggregates that go with their family

TEST_F(bgp_of_a_vpn, has_its_aggregates_looked_up_by_the_number_as_it_was_written)
{
    add_aggregates(AGGREGATES, 3);
    EXPECT_EQ(delete_family("65546"), FAMILY_ONLY) << "another key, though the same number";
    add_aggregates("/vpn/vpn-instance{5}/router/bgp{4294967295}/address-family{ipv4-unicast}/aggregate-address", 1);
    confd_value_t as_num = u32(4294967295);
    EXPECT_EQ(apply(cfgmgr_config_vpn_bgp_address_family, MOP_DELETED, { u64(5), as_num, choice(0) }), 0);
    EXPECT_EQ(effects(), (effects_t{ "message 31 3 5", "message 31 1 5" }));
}

TEST_F(bgp_of_a_vpn, tells_of_the_family_whatever_becomes_of_its_aggregates)
{
    add_aggregates(AGGREGATES, 2);
    const struct {
        const char *failing;
        const char *text;
    } rows[] = {
        { "cdb_connect", "Cannot connect to CDB (-1) scripted (18) : as scripted" },
        { "cdb_start_session2", "Failed to start cdb session scripted (18) : as scripted" },
    };
    for (const auto &c : rows) {
        agent().results = { { c.failing, CONFD_ERR } };
        EXPECT_EQ(delete_family(), FAMILY_ONLY) << c.failing;
        EXPECT_TRUE(log_has(c.text)) << c.text;
    }
    agent().results.clear();
    agent().leaves.erase(std::string(AGGREGATES) + "[1]/prefix");
    EXPECT_EQ(delete_family(), (effects_t{ "message 31 3 5", "message 31 1 5" })) << "those up to one that fails";
    EXPECT_TRUE(log_has("Failed to get aggregate address scripted (1) : as scripted"));
    agent().instances.clear();
    EXPECT_EQ(delete_family(), FAMILY_ONLY);
    EXPECT_TRUE(log_has("Failed to get num instances of aggregate address scripted ("));

    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit none = { 0, before.rlim_max };
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    effects_t without_socket = delete_family();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(without_socket, FAMILY_ONLY);
    EXPECT_TRUE(log_has("Failed to allocate socket, errno: " + std::to_string(EMFILE)));
}

} // namespace
