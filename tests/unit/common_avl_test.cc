// The balanced tree against std::map, with a look at its links after every change.
#include "common/avl.h"

#include "tests/harness/death.h"

#include <algorithm>
#include <cstddef>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <random>
#include <vector>

namespace
{

struct item_t {
    uint64_t payload;
    uint64_t key;
    avl_node_t node; // not first, so that the offset matters
    avl_node_t other_node;
};

int compare_keys(const void *key, const void *record)
{
    uint64_t a = static_cast<const item_t *>(key)->key;
    uint64_t b = static_cast<const item_t *>(record)->key;
    return (a > b) - (a < b);
}

int compare_payloads(const void *key, const void *record)
{
    uint64_t a = static_cast<const item_t *>(key)->payload;
    uint64_t b = static_cast<const item_t *>(record)->payload;
    return (a > b) - (a < b);
}

// Height of a subtree, or -1 when a balance, a parent, a child slot or a height is wrong.
int checked_height(const avl_node_t *node, const avl_node_t *parent, unsigned child)
{
    if (node == nullptr)
        return 0;
    uintptr_t expected = reinterpret_cast<uintptr_t>(parent) | child << 2;
    int left = checked_height(node->avl_child[0], node, 0);
    int right = checked_height(node->avl_child[1], node, 1);
    int balance = static_cast<int>(node->avl_pcb & 3) - 1;
    if (left < 0 || right < 0 || right - left != balance || (node->avl_pcb & ~uintptr_t{ 3 }) != expected)
        return -1;
    return 1 + std::max(left, right);
}

struct avl_test : testing::Test {
    avl_test() { avl_create(&tree, compare_keys, sizeof(item_t), offsetof(item_t, node)); }

    item_t *add(uint64_t key)
    {
        items.push_back(std::make_unique<item_t>(item_t{ 0, key, {}, {} }));
        avl_add(&tree, items.back().get());
        return items.back().get();
    }
    item_t *find(uint64_t key)
    {
        item_t wanted = { 0, key, {}, {} };
        return static_cast<item_t *>(avl_find(&tree, &wanted, nullptr));
    }
    uint64_t key_of(const void *record) { return record != nullptr ? static_cast<const item_t *>(record)->key : NONE; }
    std::vector<uint64_t> keys()
    {
        std::vector<uint64_t> all;
        for (item_t &item : avl_range<item_t>(&tree))
            all.push_back(item.key);
        return all;
    }
    void check() { ASSERT_GE(checked_height(tree.avl_root, nullptr, 0), 0); }

    static constexpr uint64_t NONE = ~0ULL;
    avl_tree_t tree;
    std::vector<std::unique_ptr<item_t>> items;
};

// The answers of std::map to the same questions.
struct model_t {
    std::map<uint64_t, item_t *> map;

    uint64_t at_least(uint64_t key) { return key_or_none(map.lower_bound(key)); }
    uint64_t above(uint64_t key) { return key_or_none(map.upper_bound(key)); }
    uint64_t below(uint64_t key)
    {
        auto it = map.lower_bound(key);
        return it == map.begin() ? avl_test::NONE : std::prev(it)->first;
    }

private:
    uint64_t key_or_none(std::map<uint64_t, item_t *>::iterator it)
    {
        return it == map.end() ? avl_test::NONE : it->first;
    }
};

TEST_F(avl_test, a_long_random_run_agrees_with_a_sorted_map)
{
    static constexpr uint64_t KEYS = 400;
    std::mt19937 random(1);
    model_t model;
    for (int step = 0; step < 60000; step++) {
        bool is_growing = step / 6000 % 2 == 0; // fill and drain in turns
        item_t wanted = { 0, random() % KEYS, {}, {} };
        avl_index_t where = 0;
        auto *found = static_cast<item_t *>(avl_find(&tree, &wanted, &where));
        ASSERT_EQ(found != nullptr, model.map.count(wanted.key) == 1);
        ASSERT_EQ(key_of(avl_find_next(&tree, &wanted)), model.above(wanted.key));
        ASSERT_EQ(key_of(avl_find_or_next(&tree, &wanted, nullptr)), model.at_least(wanted.key));
        if (found != nullptr) {
            ASSERT_EQ(where, 0U);
            ASSERT_EQ(key_of(avl_walk(&tree, found, AVL_AFTER)), model.above(wanted.key));
            ASSERT_EQ(key_of(avl_walk(&tree, found, AVL_BEFORE)), model.below(wanted.key));
        } else {
            ASSERT_EQ(key_of(avl_nearest(&tree, where, AVL_AFTER)), model.above(wanted.key));
            ASSERT_EQ(key_of(avl_nearest(&tree, where, AVL_BEFORE)), model.below(wanted.key));
        }
        uint64_t new_key = random() % KEYS;
        if (found == nullptr && random() % 4 < (is_growing ? 4U : 1U)) {
            auto *fresh = new item_t{ 0, wanted.key, {}, {} };
            avl_insert(&tree, fresh, where);
            model.map[wanted.key] = fresh;
        } else if (found != nullptr && random() % 4 < (is_growing ? 1U : 3U)) {
            avl_remove(&tree, found);
            model.map.erase(wanted.key);
            delete found;
        } else if (found != nullptr && model.map.count(new_key) == 0) {
            bool must_move = model.below(wanted.key) + 1 > new_key || model.above(wanted.key) < new_key;
            found->key = new_key;
            ASSERT_EQ(avl_update(&tree, found), must_move ? 1 : 0);
            model.map.erase(wanted.key);
            model.map[new_key] = found;
        }
        ASSERT_EQ(avl_numnodes(&tree), model.map.size());
        ASSERT_EQ(key_of(avl_first(&tree)), model.at_least(0));
        ASSERT_EQ(key_of(avl_last(&tree)), model.below(KEYS));
        ASSERT_NO_FATAL_FAILURE(check()) << "step " << step;
        if (step % 500 == 0) {
            std::vector<uint64_t> expected;
            for (auto &entry : model.map)
                expected.push_back(entry.first);
            ASSERT_EQ(keys(), expected);
        }
    }
    uintptr_t cookie = 0;
    while (void *record = avl_destroy_nodes(&tree, &cookie))
        delete static_cast<item_t *>(record);
    avl_destroy(&tree);
}

TEST_F(avl_test, ascending_and_descending_insertion_stay_balanced)
{
    for (uint64_t key = 0; key < 1023; key++)
        add(key);
    EXPECT_EQ(checked_height(tree.avl_root, nullptr, 0), 10);
    for (uint64_t key = 5000; key > 4000; key--)
        add(key);
    check();
}

TEST_F(avl_test, destroying_gives_each_record_once_and_never_reads_a_given_one)
{
    for (uint64_t size : { 0, 1, 2, 3, 4, 7, 12, 100, 1000 }) {
        std::mt19937 random(static_cast<uint32_t>(size));
        std::vector<uint64_t> keys_in(size);
        for (uint64_t key = 0; key < size; key++)
            keys_in[key] = key;
        std::shuffle(keys_in.begin(), keys_in.end(), random);
        for (uint64_t key : keys_in)
            avl_add(&tree, new item_t{ 0, key, {}, {} });
        std::vector<bool> seen(size);
        uintptr_t cookie = 0;
        uint64_t count = 0;
        while (auto *item = static_cast<item_t *>(avl_destroy_nodes(&tree, &cookie))) {
            ASSERT_FALSE(seen[item->key]);
            seen[item->key] = true;
            ASSERT_EQ(avl_numnodes(&tree), size - count++);
            delete item; // a read of it would be the sanitizer's to find
        }
        EXPECT_EQ(count, size);
        EXPECT_EQ(cookie, 1U);
        EXPECT_EQ(tree.avl_root, nullptr);
        avl_destroy(&tree);
    }
}

TEST_F(avl_test, a_walk_survives_the_removal_of_the_record_in_hand)
{
    auto remove_third = [](void *record, void *word1, void *word2) {
        auto *item = static_cast<item_t *>(record);
        static_cast<std::vector<uint64_t> *>(word2)->push_back(item->key);
        if (item->key % 3 == 0)
            avl_remove(static_cast<avl_tree_t *>(word1), item);
        return 0;
    };
    std::vector<uint64_t> visited;
    for (uint64_t key = 0; key < 50; key++)
        add(key);
    EXPECT_EQ(avl_foreach(&tree, remove_third, &tree, &visited), 0);
    EXPECT_EQ(visited.size(), 50U);
    EXPECT_TRUE(std::is_sorted(visited.begin(), visited.end()));
    EXPECT_EQ(avl_numnodes(&tree), 33U);
    visited.clear();
    EXPECT_EQ(avl_foreach_reverse(&tree, remove_third, &tree, &visited), 0);
    EXPECT_EQ(visited.size(), 33U);
    EXPECT_TRUE(std::is_sorted(visited.rbegin(), visited.rend()));
    for (item_t &item : avl_range<item_t>(&tree))
        avl_remove(&tree, &item);
    EXPECT_TRUE(avl_is_empty(&tree));
}

TEST_F(avl_test, a_walk_ends_with_the_first_nonzero_result)
{
    for (uint64_t key = 1; key < 10; key++)
        add(key);
    auto stop_at = [](void *record, void *word1, void *) {
        uint64_t key = static_cast<item_t *>(record)->key;
        return key == *static_cast<uint64_t *>(word1) ? static_cast<int>(key) * 10 : 0;
    };
    uint64_t last = 4;
    EXPECT_EQ(avl_foreach(&tree, stop_at, &last, nullptr), 40);
    EXPECT_EQ(avl_foreach_reverse(&tree, stop_at, &last, nullptr), 40);
    EXPECT_EQ(avl_foreach(&tree, nullptr, nullptr, nullptr), 0);
}

TEST_F(avl_test, inserting_here_needs_no_search)
{
    std::mt19937 random(5);
    add(1000000);
    for (int i = 0; i < 500; i++) {
        auto *here = items[random() % items.size()].get();
        int direction = static_cast<int>(random() % 2);
        auto *neighbour = static_cast<item_t *>(avl_walk(&tree, here, direction));
        uint64_t edge = neighbour != nullptr ? neighbour->key : direction == AVL_AFTER ? 2000000 : 0;
        uint64_t between = here->key + (edge - here->key) / 2; // wraps downwards as well
        if (direction == AVL_BEFORE)
            between = here->key - (here->key - edge) / 2;
        if (between == here->key || between == edge)
            continue;
        items.push_back(std::make_unique<item_t>(item_t{ 0, between, {}, {} }));
        avl_insert_here(&tree, items.back().get(), here, direction);
        ASSERT_NO_FATAL_FAILURE(check());
    }
    std::vector<uint64_t> all = keys();
    EXPECT_EQ(all.size(), items.size());
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end()));
}

TEST_F(avl_test, a_record_sits_in_two_trees_by_two_nodes)
{
    avl_tree_t by_payload;
    avl_create(&by_payload, compare_payloads, sizeof(item_t), offsetof(item_t, other_node));
    for (uint64_t key = 0; key < 20; key++) {
        item_t *item = add(key);
        item->payload = 100 - key;
        avl_add(&by_payload, item);
    }
    avl_remove(&by_payload, find(5));
    EXPECT_EQ(key_of(avl_first(&by_payload)), 19U);
    EXPECT_EQ(key_of(avl_walk(&by_payload, find(6), AVL_AFTER)), 4U);
    EXPECT_EQ(key_of(avl_walk(&tree, find(6), AVL_BEFORE)), 5U);
}

TEST_F(avl_test, an_empty_tree_has_no_records_and_one_place)
{
    item_t item = { 0, 1, {}, {} };
    avl_index_t where = 99;
    EXPECT_EQ(avl_find(&tree, &item, &where), nullptr);
    EXPECT_EQ(where, 0U);
    EXPECT_EQ(avl_nearest(&tree, where, AVL_AFTER), nullptr);
    EXPECT_EQ(avl_first(&tree), nullptr);
    EXPECT_EQ(avl_last(&tree), nullptr);
    EXPECT_EQ(avl_find_next(&tree, &item), nullptr);
    EXPECT_EQ(avl_walk(&tree, nullptr, AVL_AFTER), nullptr);
    EXPECT_EQ(keys(), std::vector<uint64_t>{});
    avl_insert(&tree, &item, 1);
    EXPECT_EQ(avl_find(&tree, &item, nullptr), &item);
}

int compare_wildly(const void *, const void *)
{
    return 2;
}

TEST_F(avl_test, violated_preconditions_end_the_process)
{
    add(1);
    expect_assertion([&] { add(1); }, "failed assertion `0'");
    expect_assertion([&] { avl_destroy(&tree); }, "failed assertion `tree->avl_numnodes == 0'");
    expect_assertion(
        [&] {
            tree.avl_numnodes = 0;
            avl_destroy(&tree);
        },
        "failed assertion `tree->avl_root == ((void *)0)'");
    expect_assertion(
        [&] {
            tree.compar = compare_wildly;
            (void)find(2);
        },
        "failed assertion `-1 <= diff && diff <= 1'");
    expect_assertion([] { avl_create(nullptr, compare_keys, 64, 0); }, "avl:");
    expect_assertion([&] { avl_create(&tree, nullptr, 64, 0); }, "failed assertion `compar'");
    expect_assertion([&] { avl_create(&tree, compare_keys, 0, 0); }, "failed assertion `size > 0'");
    expect_assertion([&] { avl_create(&tree, compare_keys, 64, 48); },
                     "failed assertion `size >= offset + sizeof (avl_node_t)'");
    expect_assertion([&] { avl_create(&tree, compare_keys, 64, 12); }, "failed assertion `(offset & 0x7) == 0'");
    expect_assertion(
        [&] {
            item_t item = {};
            avl_insert_here(&tree, &item, nullptr, AVL_AFTER);
        },
        "failed assertion `here'");
    expect_assertion(
        [&] {
            item_t item = {};
            avl_insert(&tree, &item, 0);
        },
        "failed assertion `tree->avl_root == ((void *)0)'");
}

} // namespace
