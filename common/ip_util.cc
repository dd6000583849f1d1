// Constructors, predicates and the order of addresses.
#include "common/ip_util.h"

#include "common/tip_assert.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>

namespace
{

constexpr uint32_t FIRST_MULTICAST_OCTET = 224;
constexpr uint32_t LOOPBACK_OCTET = 127;

bool is_v6_starting(const ip_addr_t &ip, uint8_t first, uint8_t second)
{
    return ip_addr_is_v6(ip) && ip.addr.v6[0] == first && ip.addr.v6[1] == second;
}

bool v6_is_valid_host(const ip_addr_t &ip)
{
    return !ip_addr_is_link_local(ip) && !ip_addr_is_multicast(ip) && !ip_addr_is_zero(ip);
}

int sign(int64_t value)
{
    return (value > 0) - (value < 0);
}

} // namespace

void ip_addr_set_v4(ip_addr_t *to, uint32_t number)
{
    to->family = AF_INET;
    to->addr.v4 = number;
}

void ip_addr_set_v6(ip_addr_t *to, const uint8_t *bytes)
{
    to->family = AF_INET6;
    memcpy(to->addr.v6, bytes, sizeof to->addr.v6);
}

void ip_addr_clear(ip_addr_t *to, uint32_t family)
{
    memset(to, 0, sizeof *to);
    to->family = family;
}

void ip_addr_copy(ip_addr_t *to, const ip_addr_t &from)
{
    to->family = from.family;
    if (ip_addr_is_v4(from))
        to->addr.v4 = from.addr.v4;
    else
        memmove(to->addr.v6, from.addr.v6, sizeof to->addr.v6);
}

int ip_addr_from_bytes(ip_addr_t *to, const uint8_t *bytes)
{
    if (!ip_addr_is_v4(*to)) {
        memcpy(to->addr.v6, bytes, sizeof to->addr.v6);
        return sizeof to->addr.v6;
    }
    uint32_t number;
    memcpy(&number, bytes, sizeof number);
    to->addr.v4 = ntohl(number);
    return sizeof number;
}

void ip_addr_from_sockaddr(ip_sock_t *to, const sockaddr *from)
{
    if (from->sa_family == AF_INET) {
        sockaddr_in in;
        memcpy(&in, from, sizeof in);
        to->port = ntohs(in.sin_port);
        ip_addr_set_v4(&to->ip, ntohl(in.sin_addr.s_addr));
    } else if (from->sa_family == AF_INET6) {
        sockaddr_in6 in;
        memcpy(&in, from, sizeof in);
        to->port = in.sin6_port;
        ip_addr_set_v6(&to->ip, in.sin6_addr.s6_addr);
    }
}

bool ip_addr_is_v4(const ip_addr_t &ip)
{
    return ip.family == AF_INET;
}

bool ip_addr_is_v6(const ip_addr_t &ip)
{
    return ip.family == AF_INET6;
}

bool ip_addr_is_zero(const ip_addr_t &ip)
{
    if (ip_addr_is_v4(ip))
        return ip.addr.v4 == 0;
    return !ip_addr_is_v6(ip) || (ip.addr.halves[0] | ip.addr.halves[1]) == 0;
}

int ip_addr_compare(const ip_addr_t &a, const ip_addr_t &b)
{
    if (a.family != b.family)
        return a.family < b.family ? -1 : 1;
    if (ip_addr_is_v4(a))
        return sign(static_cast<int64_t>(a.addr.v4) - static_cast<int64_t>(b.addr.v4));
    tip_assert_text(ip_addr_is_v6(a), "0");
    return sign(memcmp(a.addr.v6, b.addr.v6, sizeof a.addr.v6));
}

bool ip_addr_is_link_local(const ip_addr_t &ip)
{
    return is_v6_starting(ip, 0xFE, 0x80);
}

bool ip_addr_is_ula(const ip_addr_t &ip)
{
    return is_v6_starting(ip, 0xFC, 0x00);
}

bool ip_addr_is_multicast(const ip_addr_t &ip)
{
    if (ip_addr_is_v4(ip))
        return ip.addr.v4 >> 28 == 14;
    return ip_addr_is_v6(ip) && ip.addr.v6[0] == 0xFF;
}

bool ip_addr_is_valid_host(const ip_addr_t &ip)
{
    return ip_addr_is_valid_host_or_net(ip) && !(ip_addr_is_v4(ip) && (ip.addr.v4 & 0xFF) == 0);
}

bool ip_addr_is_valid_host_or_net(const ip_addr_t &ip)
{
    if (ip_addr_is_v4(ip))
        return ip_addr_first_octet_ok(ip) && (ip.addr.v4 & 0xFF) != 0xFF;
    return !ip_addr_is_v6(ip) || v6_is_valid_host(ip);
}

bool ip_addr_first_octet_ok(const ip_addr_t &ip)
{
    if (!ip_addr_is_v4(ip))
        return true;
    uint32_t first = ip.addr.v4 >> 24;
    return first != 0 && first != LOOPBACK_OCTET && first < FIRST_MULTICAST_OCTET;
}

void ip_addr_next_v4(ip_addr_t *ip)
{
    if (!ip_addr_is_v4(*ip))
        return;
    for (unsigned shift = 0; shift < 32; shift += 8) {
        uint32_t octet = ((ip->addr.v4 >> shift) & 0xFF) + 1;
        bool carry = octet > 254;
        ip->addr.v4 = (ip->addr.v4 & ~(0xFFU << shift)) | ((carry ? 1 : octet) << shift);
        if (!carry)
            return;
    }
}

void ip_addr_invert(ip_addr_t *ip)
{
    ip->addr.halves[0] = ~ip->addr.halves[0];
    ip->addr.halves[1] = ~ip->addr.halves[1];
}

void ip_addr_and(ip_addr_t *a, const ip_addr_t &b)
{
    if (a->family != b.family)
        return;
    a->addr.halves[0] &= b.addr.halves[0];
    a->addr.halves[1] &= b.addr.halves[1];
}
