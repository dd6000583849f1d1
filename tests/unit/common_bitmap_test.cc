#include "common/bitmap.h"

#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace
{

// Bit by bit what the search promises, in the order of the promise.
int32_t model_find(const std::vector<uint8_t> &map, uint32_t num_bits, uint32_t hint, bool wanted)
{
    uint32_t start = hint < num_bits ? hint : 0;
    auto fits = [&](uint32_t bit) {
        return map[bit / 8] != 0xFF && ((map[bit / 8] >> bit % 8) & 1) == (wanted ? 1 : 0);
    };
    for (uint32_t bit = start; bit < num_bits; bit++) {
        if (fits(bit))
            return static_cast<int32_t>(bit);
    }
    for (uint32_t bit = 0; bit < num_bits && bit / 8 * 8 < start; bit++) {
        if (bit % 8 < start && fits(bit))
            return static_cast<int32_t>(bit);
    }
    return -1;
}

struct search_row_t {
    const char *what;
    std::vector<uint8_t> map;
    uint32_t num_bits;
    uint32_t hint;
    int wanted;
    int32_t found;
};

TEST(bitmap, the_search_starts_at_the_hint_wraps_and_keeps_its_oddities)
{
    const search_row_t rows[] = {
        { "the hint itself", { 0x00, 0x00 }, 16, 5, 0, 5 },
        { "the first free one after the hint", { 0xE0, 0x01 }, 16, 5, 0, 9 },
        { "the position applies to the first byte only", { 0xFF, 0xFE }, 16, 5, 0, 8 },
        { "wraps to the front", { 0x7F, 0xFF }, 16, 9, 0, 7 },
        { "nothing free", { 0xFF, 0xFF }, 16, 9, 0, -1 },
        { "a hint at the end counts as 0", { 0x01, 0x00 }, 16, 16, 0, 1 },
        { "a hint far outside counts as 0", { 0x01, 0x00 }, 16, ~0U, 0, 1 },
        { "a set bit is found", { 0x00, 0x10 }, 16, 0, 1, 12 },
        { "a set bit in a full byte is not", { 0x00, 0xFF }, 16, 0, 1, -1 },
        { "a full byte is passed over for a later one", { 0xFF, 0x80 }, 16, 0, 1, 15 },
        { "after a small hint only lower positions", { 0xFB, 0xFF }, 16, 3, 0, 2 },
        { "the hint's own position is tried once", { 0x00, 0x00 }, 16, 15, 1, -1 },
        { "the map ends inside a byte", { 0xFF, 0x0F }, 12, 3, 0, -1 },
        { "an empty map", { 0x00 }, 0, 0, 0, -1 },
    };
    for (const search_row_t &row : rows) {
        EXPECT_EQ(bitmap_find_bit(row.map.data(), row.num_bits, row.hint, row.wanted), row.found) << row.what;
        EXPECT_EQ(model_find(row.map, row.num_bits, row.hint, row.wanted != 0), row.found) << "model: " << row.what;
    }
}

TEST(bitmap, random_maps_are_searched_as_a_bit_by_bit_model_does)
{
    std::mt19937 random(3);
    for (int round = 0; round < 20000; round++) {
        uint32_t num_bits = random() % 70;
        std::vector<uint8_t> map(9);
        uint32_t density = random() % 3;
        for (uint8_t &byte : map)
            byte = static_cast<uint8_t>(density == 0 ? random() & random() & random() : random() % 3 ? 0xFF : random());
        uint32_t hint = random() % 80;
        int wanted = static_cast<int>(random() % 2);
        ASSERT_EQ(bitmap_find_bit(map.data(), num_bits, hint, wanted), model_find(map, num_bits, hint, wanted != 0))
            << "bits " << num_bits << " hint " << hint << " wanted " << wanted;
    }
}

TEST(bitmap, bits_count_from_the_least_significant_of_each_byte)
{
    uint8_t map[3] = {};
    bitmap_set_bit(map, 9);
    bitmap_set_bit(map, 23);
    EXPECT_EQ(map[1], 0x02);
    EXPECT_EQ(map[2], 0x80);
    EXPECT_TRUE(bitmap_test_bit(map, 9));
    EXPECT_FALSE(bitmap_test_bit(map, 8));
    map[1] = 0xFF;
    bitmap_clear_bit(map, 15);
    EXPECT_EQ(map[1], 0x7F);
}

TEST(bitmap, handing_out_from_the_last_index_goes_round_the_whole_map)
{
    std::vector<uint8_t> map(4096);
    bitmap_set_bit(map.data(), 0);
    uint32_t hint = 0;
    for (int32_t expected = 1; expected < 32768; expected++) {
        int32_t bit = bitmap_find_bit(map.data(), 32768, hint, 0);
        ASSERT_EQ(bit, expected);
        hint = static_cast<uint32_t>(bit);
        bitmap_set_bit(map.data(), hint);
    }
    EXPECT_EQ(bitmap_find_bit(map.data(), 32768, hint, 0), -1);
    bitmap_clear_bit(map.data(), 77);
    EXPECT_EQ(bitmap_find_bit(map.data(), 32768, hint, 0), 77);
}

} // namespace
