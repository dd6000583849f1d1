#include "common/bitmap.h"

#include <algorithm>

namespace
{

constexpr uint32_t BYTE_BITS = 8;
constexpr uint8_t BYTE_FULL = 0xFF;

// The first bit with the wanted value among [first, last), all in the byte that holds first; -1 when there is none.
int32_t find_in_byte(const uint8_t *map, uint32_t first, uint32_t last, int wanted)
{
    if (map[first / BYTE_BITS] == BYTE_FULL)
        return -1;
    for (uint32_t bit = first; bit < last; bit++) {
        if (bitmap_test_bit(map, bit) == (wanted != 0))
            return static_cast<int32_t>(bit);
    }
    return -1;
}

} // namespace

int32_t bitmap_find_bit(const uint8_t *map, uint32_t num_bits, uint32_t hint, int wanted)
{
    uint32_t start = hint < num_bits ? hint : 0;
    for (uint32_t bit = start, next; bit < num_bits; bit = next) {
        next = (bit / BYTE_BITS + 1) * BYTE_BITS;
        if (int32_t found = find_in_byte(map, bit, std::min(next, num_bits), wanted); found >= 0)
            return found;
    }
    uint32_t positions = std::min(start, BYTE_BITS);
    for (uint32_t base = 0; base < start; base += BYTE_BITS) {
        if (int32_t found = find_in_byte(map, base, std::min(base + positions, num_bits), wanted); found >= 0)
            return found;
    }
    return -1;
}
