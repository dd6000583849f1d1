// Prefix arithmetic. Every mask comes from ip_masklen_v4 or ip_masklen_v6, so what is special about a length of 0 holds
// everywhere alike.
#include "common/ip_util.h"

#include "common/tip_assert.h"

#include <algorithm>
#include <cstring>

namespace
{

constexpr uint8_t V4_BITS = 32;
constexpr uint8_t V6_BITS = 128;

enum host_part_t {
    HOST_PART_MIXED,
    HOST_PART_ZEROS, // also when there are no host bits
    HOST_PART_ONES,
};

// The bits below the mask of the prefix's own length, which must be valid.
host_part_t host_part(const ip_prefix_t &prefix)
{
    ip_addr_t host_mask;
    ip_addr_clear(&host_mask, prefix.ip.family);
    ip_mask_from_len(prefix.len, &host_mask);
    ip_addr_invert(&host_mask);
    ip_addr_t host = prefix.ip;
    ip_addr_and(&host, host_mask);
    if (ip_addr_is_zero(host))
        return HOST_PART_ZEROS;
    return ip_addr_compare(host, host_mask) == 0 ? HOST_PART_ONES : HOST_PART_MIXED;
}

bool v6_contains(const ip_addr_t &ip, const ip_prefix_t &prefix)
{
    tip_assert_text(prefix.len <= V6_BITS, "0");
    size_t bytes = prefix.len / 8;
    if (memcmp(ip.addr.v6, prefix.ip.addr.v6, bytes) != 0 || prefix.len % 8 == 0)
        return false;
    uint8_t difference = ip.addr.v6[bytes] ^ prefix.ip.addr.v6[bytes];
    return (difference & ip_mask_byte(prefix.len % 8)) == 0;
}

// The low count bits of a native word, 0..64.
uint64_t low_bits(unsigned count)
{
    return count >= 64 ? ~uint64_t{ 0 } : (uint64_t{ 1 } << count) - 1;
}

} // namespace

uint32_t ip_masklen_v4(uint8_t len)
{
    return ~((1U << ((V4_BITS - len) & 31)) - 1);
}

uint8_t ip_mask_byte(uint8_t len)
{
    return static_cast<uint8_t>(len <= 8 ? 0xFF00 >> len : 0);
}

void ip_masklen_v6(uint8_t len, ip_addr_t *mask)
{
    ip_addr_clear(mask, AF_INET6);
    uint8_t bits = std::min(len, V6_BITS);
    memset(mask->addr.v6, 0xFF, bits / 8);
    if (bits % 8 != 0)
        mask->addr.v6[bits / 8] = ip_mask_byte(bits % 8);
}

void ip_mask_from_len(uint8_t len, ip_addr_t *mask)
{
    if (mask == nullptr)
        return;
    if (ip_addr_is_v4(*mask)) {
        ip_addr_clear(mask, AF_INET);
        mask->addr.v4 = ip_masklen_v4(len);
    } else if (ip_addr_is_v6(*mask)) {
        ip_masklen_v6(len, mask);
    }
}

uint8_t ip_mask_to_len_v4(uint32_t mask)
{
    unsigned len = 0;
    for (; mask != 0; mask >>= 8) {
        auto byte = static_cast<uint8_t>(mask);
        for (uint8_t ones = 1; ones <= 8; ones++)
            len += byte == ip_mask_byte(ones) ? ones : 0;
    }
    return static_cast<uint8_t>(len);
}

bool ip_prefix_len_ok(const ip_prefix_t &prefix)
{
    if (ip_addr_is_v4(prefix.ip))
        return prefix.len <= V4_BITS;
    return ip_addr_is_v6(prefix.ip) && prefix.len <= V6_BITS;
}

bool ip_prefix_is_host(const ip_prefix_t &prefix)
{
    if (!ip_prefix_len_ok(prefix))
        return true;
    uint8_t bits = ip_addr_is_v4(prefix.ip) ? V4_BITS : V6_BITS;
    return prefix.len >= bits - 1 || host_part(prefix) == HOST_PART_MIXED;
}

bool ip_prefix_is_subnet(const ip_prefix_t &prefix)
{
    return ip_prefix_len_ok(prefix) && host_part(prefix) == HOST_PART_ZEROS;
}

bool ip_prefix_host_is_unicast(const ip_prefix_t &prefix)
{
    if (!ip_addr_is_v4(prefix.ip) || prefix.len == V4_BITS)
        return true;
    return host_part(prefix) == HOST_PART_MIXED;
}

bool ip_prefix_contains(const ip_addr_t &ip, const ip_prefix_t &prefix)
{
    if (ip.family != prefix.ip.family)
        return false;
    if (ip_addr_is_v6(ip))
        return v6_contains(ip, prefix);
    if (!ip_addr_is_v4(ip))
        return false;
    tip_assert_text(prefix.len <= V4_BITS, "0");
    return ((ip.addr.v4 ^ prefix.ip.addr.v4) & ip_masklen_v4(prefix.len)) == 0;
}

void ip_prefix_mask_apply(const ip_prefix_t &from, ip_prefix_t *to, uint8_t len)
{
    if (!ip_addr_is_v4(from.ip) && !ip_addr_is_v6(from.ip))
        return;
    ip_prefix_t masked = { from.ip, len != 0 ? len : from.len };
    ip_addr_t mask;
    ip_addr_clear(&mask, from.ip.family);
    ip_mask_from_len(masked.len, &mask);
    ip_addr_and(&masked.ip, mask);
    *to = masked;
}

void ip_prefix_broadcast(const ip_prefix_t &prefix, ip_addr_t *out, uint8_t len)
{
    ip_addr_copy(out, prefix.ip);
    if (ip_addr_is_v4(prefix.ip)) {
        out->addr.v4 = len == V4_BITS - 1 ? 0 : out->addr.v4 | ~ip_masklen_v4(len);
    } else if (len <= 64) {
        out->addr.halves[0] |= low_bits(64U - len);
        out->addr.halves[1] = ~uint64_t{ 0 };
    } else {
        out->addr.halves[1] |= low_bits(V6_BITS - std::min(len, V6_BITS));
    }
}
