// Maps of bits in bytes: bit n is bit n mod 8, counted from the least significant, of byte n / 8.
//
// The maps are plain bytes of their owner's; number allocators keep a hint beside them and search from it.
#ifndef COMMON_BITMAP_H
#define COMMON_BITMAP_H

#include <cstdint>

inline void bitmap_set_bit(uint8_t *map, uint32_t bit)
{
    map[bit / 8] = static_cast<uint8_t>(map[bit / 8] | (1U << bit % 8));
}

inline void bitmap_clear_bit(uint8_t *map, uint32_t bit)
{
    map[bit / 8] = static_cast<uint8_t>(map[bit / 8] & ~(1U << bit % 8));
}

[[nodiscard]] inline bool bitmap_test_bit(const uint8_t *map, uint32_t bit)
{
    return (map[bit / 8] >> bit % 8 & 1) != 0;
}

// The first of num_bits bits (at most INT32_MAX) that has the wanted value (0 or 1), looking from hint to the end and
// then from 0; -1 when there is none. A hint outside the map counts as 0.
//
// Two narrowings are deliberate. Bytes of 0xFF are never looked into, so a wanted 1 inside a full byte is not found.
// The second pass tries only positions below hint within a byte, so after a hint under 8 it sees just those bits of
// the first byte.
[[nodiscard]] int32_t bitmap_find_bit(const uint8_t *map, uint32_t num_bits, uint32_t hint, int wanted);

#endif
