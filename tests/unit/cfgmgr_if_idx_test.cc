// System-wide interface indexes.
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_env.h"

#include <random>

namespace
{

using effects_t = std::vector<std::string>;

class cfgmgr_if_idx : public cfgmgr_env
{
protected:
    bitmap_if_idx_t *make(uint32_t rtm_idx, uint64_t vpn_id, const char *name = "ge0/1")
    {
        return cfgmgr_if_idx_find_or_create(&daemon, rtm_idx, name, vpn_id);
    }
};

TEST_F(cfgmgr_if_idx, numbers_go_up_through_the_whole_space_before_a_freed_one_comes_again)
{
    EXPECT_EQ(cfgmgr_if_idx_alloc(&daemon), 1u);
    EXPECT_EQ(cfgmgr_if_idx_alloc(&daemon), 2u);
    cfgmgr_if_idx_free(&daemon, 1);
    for (uint32_t expected = 3; expected <= 32767; expected++)
        ASSERT_EQ(cfgmgr_if_idx_alloc(&daemon), expected);
    EXPECT_EQ(cfgmgr_if_idx_alloc(&daemon), 1u);
}

TEST_F(cfgmgr_if_idx, after_the_last_number_none_is_left_until_one_comes_back)
{
    for (uint32_t i = 1; i <= 32767; i++)
        ASSERT_NE(make(i, 3), nullptr) << i;
    EXPECT_EQ(make(40000, 3), nullptr);
    EXPECT_TRUE(log_has("Failed to get bitmap for idx: 40000 vpn:3"));
    EXPECT_EQ(cfgmgr_if_idx_lookup_by_vpn(&daemon, 3, 40000, IF_IDX_EXACT), nullptr);
    cfgmgr_if_idx_remove(&daemon, 20000, 3);
    bitmap_if_idx_t *again = make(40000, 3);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->bitmap_if_idx, 20000u);
}

TEST_F(cfgmgr_if_idx, a_hint_outside_the_map_starts_over)
{
    daemon.if_idx_hint = 32768;
    EXPECT_EQ(cfgmgr_if_idx_alloc(&daemon), 1u);
}

TEST_F(cfgmgr_if_idx, giving_back_what_is_no_number_is_fatal)
{
    for (uint32_t number : { 0u, 32768u, UINT32_MAX }) {
        child_result_t result = run_in_child([&] { cfgmgr_if_idx_free(&daemon, number); });
        EXPECT_EQ(result.output.rfind("cfgmgr_daemon:", 0), 0u) << result.output;
        EXPECT_NE(result.output.find("failed assertion `(bitmap_if_idx > 0) && (bitmap_if_idx < (32 * 1024))'"),
                  std::string::npos);
    }
}

TEST_F(cfgmgr_if_idx, an_interface_keeps_its_record_and_first_name)
{
    std::string long_name(80, 'n');
    bitmap_if_idx_t *record = make(7, 5, long_name.c_str());
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(std::string(record->name), std::string(63, 'n'));
    EXPECT_EQ(make(7, 5, "other"), record);
    EXPECT_EQ(std::string(record->name), std::string(63, 'n'));
    EXPECT_NE(make(7, 6), record) << "another VPN's interface";
}

TEST_F(cfgmgr_if_idx, both_orders_agree_with_a_model_over_random_changes)
{
    std::mt19937 random(7);
    std::map<std::pair<uint64_t, uint32_t>, uint32_t> by_vpn;
    std::map<uint32_t, std::pair<uint64_t, uint32_t>> by_number;
    auto forget = [&](uint64_t vpn, uint32_t idx) {
        by_number.erase(by_vpn.at({ vpn, idx }));
        by_vpn.erase({ vpn, idx });
    };
    for (int i = 0; i < 5000; i++) {
        uint64_t vpn = random() % 4 * 1000000000000;
        uint32_t idx = random() % 40 + 1;
        bool is_known = by_vpn.count({ vpn, idx }) > 0;
        switch (random() % 8) {
        case 0:
            cfgmgr_if_idx_remove(&daemon, idx, vpn);
            if (is_known)
                forget(vpn, idx);
            break;
        case 1:
            if (is_known) {
                cfgmgr_if_idx_remove_by_bitmap(&daemon, by_vpn.at({ vpn, idx }));
                forget(vpn, idx);
            }
            break;
        case 2:
            if (random() % 20 == 0) {
                cfgmgr_if_idx_remove_vpn(&daemon, vpn);
                for (uint32_t n = 1; n <= 40; n++)
                    if (by_vpn.count({ vpn, n }) > 0)
                        forget(vpn, n);
            }
            break;
        default: {
            bitmap_if_idx_t *record = make(idx, vpn);
            ASSERT_NE(record, nullptr);
            ASSERT_EQ(by_number.count(record->bitmap_if_idx), is_known) << "handed out twice";
            by_vpn[{ vpn, idx }] = record->bitmap_if_idx;
            by_number[record->bitmap_if_idx] = { vpn, idx };
        }
        }
        auto *found = cfgmgr_if_idx_lookup_by_vpn(&daemon, vpn, idx, IF_IDX_EXACT);
        ASSERT_EQ(found != nullptr, by_vpn.count({ vpn, idx }) > 0);
        auto *next = cfgmgr_if_idx_lookup_by_vpn(&daemon, vpn, idx, IF_IDX_NEXT);
        auto behind = by_vpn.upper_bound({ vpn, idx });
        ASSERT_EQ(next != nullptr, behind != by_vpn.end());
        ASSERT_EQ(next != nullptr ? next->bitmap_if_idx : 0, next != nullptr ? behind->second : 0);
        auto *first = cfgmgr_if_idx_lookup_by_bitmap(&daemon, 0, IF_IDX_FIRST);
        ASSERT_EQ(first != nullptr ? first->bitmap_if_idx : 0, by_number.empty() ? 0 : by_number.begin()->first);
    }
    EXPECT_EQ(avl_numnodes(&daemon.if_idx_by_vpn), by_vpn.size());
    EXPECT_EQ(avl_numnodes(&daemon.if_idx_by_bitmap), by_vpn.size());
    cfgmgr_if_idx_remove_all(&daemon);
    EXPECT_EQ(avl_numnodes(&daemon.if_idx_by_vpn) + avl_numnodes(&daemon.if_idx_by_bitmap), 0u);
}

TEST_F(cfgmgr_if_idx, a_lookup_of_an_unknown_mode_finds_nothing)
{
    ASSERT_NE(make(1, 0), nullptr);
    for (int mode : { 0, 4, -1 }) {
        EXPECT_EQ(cfgmgr_if_idx_lookup_by_vpn(&daemon, 0, 1, mode), nullptr);
        EXPECT_EQ(cfgmgr_if_idx_lookup_by_bitmap(&daemon, 1, mode), nullptr);
    }
}

ip_addr_t address(const char *text)
{
    ip_addr_t ip{};
    ip_addr_parse(text, &ip);
    return ip;
}

TEST_F(cfgmgr_if_idx, only_ipv4_addresses_are_kept)
{
    bitmap_if_idx_t *record = make(7, 5);
    ASSERT_NE(record, nullptr);
    cfgmgr_if_idx_addr_update(&daemon, 7, 5, address("10.0.0.1"), false);
    EXPECT_EQ(record->addr.addr.v4, 0x0a000001u);
    cfgmgr_if_idx_addr_update(&daemon, 7, 5, address("2001:db8::1"), false);
    cfgmgr_if_idx_addr_update(&daemon, 7, 5, address("2001:db8::1"), true);
    EXPECT_EQ(record->addr.addr.v4, 0x0a000001u);
    cfgmgr_if_idx_addr_update(&daemon, 7, 5, address("10.0.0.1"), true);
    EXPECT_EQ(record->addr.family, static_cast<uint32_t>(AF_INET));
    EXPECT_EQ(record->addr.addr.v4, 0u);
    cfgmgr_if_idx_addr_update(&daemon, 8, 5, address("10.0.0.1"), false);
    EXPECT_TRUE(log_has("Cannot find interface index 8 in vpn 5"));
    EXPECT_TRUE(device().effects.empty());
}

TEST_F(cfgmgr_if_idx, a_management_system_moves_its_ports_with_the_address_of_the_management_vpn)
{
    ASSERT_NE(make(7, 512), nullptr);
    ASSERT_NE(make(7, 5), nullptr);
    cfgmgr_if_idx_addr_update(&daemon, 7, 512, address("10.0.0.1"), false);
    daemon.personality = PERSONALITY_QUORVIX;
    cfgmgr_if_idx_addr_update(&daemon, 7, 5, address("10.0.0.1"), false);
    cfgmgr_if_idx_addr_update(&daemon, 7, 512, address("2001:db8::1"), false);
    EXPECT_TRUE(device().effects.empty());
    const std::string failing =
        "ip netns exec 512 iptables -t nat -A PREROUTING -p tcp -d 10.0.0.1 --dport 8080 -j DNAT "
        "--to-destination 169.254.0.254:8080";
    device().statuses[failing] = EXIT_1;
    for (char operation : { 'A', 'D' }) {
        cfgmgr_if_idx_addr_update(&daemon, 7, 512, address("10.0.0.1"), operation == 'D');
        effects_t expected;
        for (const char *port : { "80", "8080", "443", "8443", "9080", "9443" })
            expected.push_back(std::string("ip netns exec 512 iptables -t nat -") + operation +
                               " PREROUTING -p tcp -d 10.0.0.1 --dport " + port +
                               " -j DNAT --to-destination 169.254.0.254:" + port);
        EXPECT_EQ(device().take_effects(), expected);
    }
    EXPECT_EQ(log_count("Command Failed: "), 1);
    EXPECT_TRUE(log_has("Command Failed: " + failing + " (2)"));
}

} // namespace
