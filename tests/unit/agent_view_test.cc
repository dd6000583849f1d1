// Transactions that are often put in and out of running.
#include "agent_env.h"

#include <algorithm>
#include <random>

namespace
{
TEST(agent_view, big_transactions_that_alternate_get_trees_of_their_own_until_they_are_committed)
{
    static constexpr int LINES = 1000;
    datastore_ptr store = open_store();
    (void)commit(store, { "create /vpn/vpn-instance{1}" });
    trans_ptr first = trans_begin(*store, true, 1);
    trans_ptr second = trans_begin(*store, true, 2);
    auto mtu = [](int vpn, int i) {
        return "/vpn/vpn-instance{" + std::to_string(vpn) + "}/interface{i" + std::to_string(i) + "}/mtu";
    };
    for (int i = 0; i < LINES; i++) {
        ASSERT_EQ(edit(*first, "set " + mtu(1, i) + " 1400"), 0);
        ASSERT_EQ(edit(*second, "set " + mtu(2, i) + " 1300"), 0);
    }
    ASSERT_TRUE(first->own && second->own);
    view_t view = { VIEW_TRANS, first.get() };
    EXPECT_EQ(read_count(*store, view, parse(store, "/vpn/vpn-instance{1}/interface", PATH_LIST)), LINES);
    EXPECT_FALSE(read_exists(*store, view, parse(store, "/vpn/vpn-instance{2}")));
    EXPECT_EQ(text_at(store, {}, mtu(1, 0)), "none");
    ds_error_t error;
    diff_ptr diff;
    ASSERT_TRUE(trans_diff(*second, diff, error));
    EXPECT_EQ(diff_lines(*diff).size(), 1u + 2u * LINES);
    ASSERT_TRUE(apply(*first, error)) << error.text;
    ASSERT_TRUE(trans_check(*second, error)) << error.text;
    EXPECT_FALSE(second->own); // it has moved with running
    (void)commit(store, { "delete /vpn/vpn-instance{1}/interface" });
    ASSERT_TRUE(apply(*second, error)) << error.text;
    EXPECT_EQ(text_at(store, {}, mtu(2, LINES - 1)), "1300");
    EXPECT_EQ(text_at(store, {}, mtu(1, 0)), "none");
}

std::string entry_name(unsigned id)
{
    return "/vpn/vpn-instance{" + std::to_string(id) + "}";
}

// Ids of entries that want the same place in a small hash table of libyang's.
std::vector<unsigned> colliding_ids(const datastore_ptr &store, unsigned place, size_t count)
{
    trans_ptr trans = trans_begin(*store, true, 1);
    std::vector<unsigned> ids;
    for (unsigned id = 0; ids.size() < count; id++) {
        EXPECT_EQ(edit(*trans, "create " + entry_name(id)), 0);
        if ((tree_find(store->running, parse(store, entry_name(id)).steps)->hash & 7) == place)
            ids.push_back(id);
    }
    return ids;
}

TEST(agent_view, children_may_come_and_go_in_any_order_for_ever)
{
    for (unsigned seed = 0; seed < 32; seed++) {
        std::mt19937 engine(seed);
        datastore_ptr store = open_store();
        std::vector<unsigned> ids = colliding_ids(store, seed % 8, 5);
        trans_ptr trans = trans_begin(*store, true, 1);
        ASSERT_EQ(edit(*trans, "set /vpn/main 1"), 0);
        std::vector<unsigned> present;
        for (int i = 0; i < 1000; i++) {
            unsigned id = ids[engine() % ids.size()];
            bool is_there = std::ranges::count(present, id) > 0;
            if (!is_there && present.size() == 3)
                continue;
            ASSERT_EQ(edit(*trans, (is_there ? "delete " : "create ") + entry_name(id)), 0);
            is_there ? (void)std::erase(present, id) : present.push_back(id);
            ASSERT_EQ(text_at(store, { VIEW_TRANS, trans.get() }, "/vpn/main"), "1");
        }
    }
}
} // namespace
