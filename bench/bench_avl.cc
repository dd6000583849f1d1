// The balanced tree against std::map with the same 64-bit keys.
//
// find: a random key that is there. churn: one record out of N is taken out and put back, at a random place. fill: N
// records in random order into an empty table, and out again; given per record.
// Aim: no slower than std::map.
#include "common/avl.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstddef>
#include <map>
#include <random>
#include <vector>

namespace
{

struct item_t {
    avl_node_t node;
    uint64_t key;
    uint64_t payload;
};

int compare_keys(const void *key, const void *record)
{
    uint64_t a = static_cast<const item_t *>(key)->key;
    uint64_t b = static_cast<const item_t *>(record)->key;
    return (a > b) - (a < b);
}

std::vector<uint64_t> shuffled_keys(size_t count, uint32_t seed)
{
    std::vector<uint64_t> keys(count);
    for (size_t i = 0; i < count; i++)
        keys[i] = i * 0x9E3779B97F4A7C15ULL;
    std::shuffle(keys.begin(), keys.end(), std::mt19937(seed));
    return keys;
}

struct avl_table {
    avl_table() { avl_create(&tree, compare_keys, sizeof(item_t), offsetof(item_t, node)); }
    ~avl_table()
    {
        uintptr_t cookie = 0;
        while (void *record = avl_destroy_nodes(&tree, &cookie))
            delete static_cast<item_t *>(record);
        avl_destroy(&tree);
    }
    uint64_t find(uint64_t key)
    {
        item_t wanted;
        wanted.key = key;
        return static_cast<item_t *>(avl_find(&tree, &wanted, nullptr))->payload;
    }
    void insert(uint64_t key) { avl_add(&tree, new item_t{ {}, key, key }); }
    void remove(uint64_t key)
    {
        item_t wanted;
        wanted.key = key;
        auto *found = static_cast<item_t *>(avl_find(&tree, &wanted, nullptr));
        avl_remove(&tree, found);
        delete found;
    }

    avl_tree_t tree;
};

struct map_table {
    uint64_t find(uint64_t key) { return map.find(key)->second; }
    void insert(uint64_t key) { map.emplace(key, key); }
    void remove(uint64_t key) { map.erase(key); }

    std::map<uint64_t, uint64_t> map;
};

// Random picks, too many for a branch predictor to learn.
constexpr size_t ORDER_LENGTH = 1 << 20;

std::vector<uint64_t> random_picks(const std::vector<uint64_t> &keys)
{
    std::mt19937 random(2);
    std::vector<uint64_t> picks(ORDER_LENGTH);
    for (uint64_t &pick : picks)
        pick = keys[random() % keys.size()];
    return picks;
}

template <typename Table> void find(benchmark::State &state)
{
    auto size = static_cast<size_t>(state.range(0));
    Table table;
    std::vector<uint64_t> keys = shuffled_keys(size, 1);
    for (uint64_t key : keys)
        table.insert(key);
    std::vector<uint64_t> order = random_picks(keys);
    size_t step = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(table.find(order[step]));
        step = (step + 1) % ORDER_LENGTH;
    }
}

template <typename Table> void churn(benchmark::State &state)
{
    auto size = static_cast<size_t>(state.range(0));
    Table table;
    std::vector<uint64_t> keys = shuffled_keys(size, 1);
    for (uint64_t key : keys)
        table.insert(key);
    std::vector<uint64_t> order = random_picks(keys);
    size_t step = 0;
    for (auto _ : state) {
        table.remove(order[step]);
        table.insert(order[step]);
        step = (step + 1) % ORDER_LENGTH;
    }
}

template <typename Table> void fill(benchmark::State &state)
{
    auto size = static_cast<size_t>(state.range(0));
    std::vector<uint64_t> keys = shuffled_keys(size, 1);
    std::mt19937 random(2);
    for (auto _ : state) {
        state.PauseTiming();
        std::shuffle(keys.begin(), keys.end(), random);
        std::vector<uint64_t> out = keys;
        std::shuffle(out.begin(), out.end(), random);
        state.ResumeTiming();
        Table table;
        for (uint64_t key : keys)
            table.insert(key);
        for (uint64_t key : out)
            table.remove(key);
    }
    state.counters["per_record"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * static_cast<double>(size),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

#define SIZES ->Arg(1000)->Arg(100000)->Arg(1000000)
BENCHMARK(find<avl_table>) SIZES;
BENCHMARK(find<map_table>) SIZES;
BENCHMARK(churn<avl_table>) SIZES;
BENCHMARK(churn<map_table>) SIZES;
BENCHMARK(fill<avl_table>) SIZES;
BENCHMARK(fill<map_table>) SIZES;

} // namespace
