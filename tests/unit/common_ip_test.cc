// Addresses: order, predicates, prefix arithmetic with its deliberate asymmetries, text forms there and back.
#include "common/ip_util.h"
#include "tests/harness/death.h"

#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <random>
#include <string>

namespace
{

ip_addr_t addr(const std::string &text)
{
    ip_addr_t ip;
    EXPECT_EQ(ip_addr_parse(text.c_str(), &ip), 1) << text;
    return ip;
}

ip_prefix_t prefix(const std::string &text)
{
    size_t slash = text.find('/');
    return { addr(text.substr(0, slash)), static_cast<uint8_t>(std::stoi(text.substr(slash + 1))) };
}

std::string str(const ip_addr_t &ip)
{
    char text[IP_ADDR_TEXT];
    return ip_addr_to_str(ip, text, sizeof text);
}

std::string str(const ip_prefix_t &value)
{
    char text[IP_PREFIX_TEXT];
    return ip_prefix_to_str(value, text, sizeof text);
}

TEST(ip_addr, predicates_judge_each_address)
{
    struct row_t {
        const char *text;
        bool link_local, ula, multicast, host, host_or_net, first_octet;
    };
    const row_t rows[] = {
        { "10.1.2.3", false, false, false, true, true, true },
        { "10.1.2.0", false, false, false, false, true, true },
        { "10.1.2.255", false, false, false, false, false, true },
        { "127.0.0.1", false, false, false, false, false, false },
        { "0.1.2.3", false, false, false, false, false, false },
        { "223.1.1.1", false, false, false, true, true, true },
        { "224.0.0.5", false, false, true, false, false, false },
        { "240.0.0.1", false, false, false, false, false, false },
        { "fe80::1", true, false, false, false, false, true },
        { "fe81::1", false, false, false, true, true, true },
        { "fc00::1", false, true, false, true, true, true },
        { "fd00::1", false, false, false, true, true, true },
        { "ff02::1", false, false, true, false, false, true },
        { "::", false, false, false, false, false, true },
        { "2001:db8::", false, false, false, true, true, true },
    };
    for (const row_t &row : rows) {
        SCOPED_TRACE(row.text);
        ip_addr_t ip = addr(row.text);
        EXPECT_EQ(ip_addr_is_link_local(ip), row.link_local);
        EXPECT_EQ(ip_addr_is_ula(ip), row.ula);
        EXPECT_EQ(ip_addr_is_multicast(ip), row.multicast);
        EXPECT_EQ(ip_addr_is_valid_host(ip), row.host);
        EXPECT_EQ(ip_addr_is_valid_host_or_net(ip), row.host_or_net);
        EXPECT_EQ(ip_addr_first_octet_ok(ip), row.first_octet);
    }
}

TEST(ip_addr, an_unknown_family_counts_as_a_zero_address_and_a_valid_host)
{
    ip_addr_t ip;
    memset(&ip, 0xFF, sizeof ip);
    EXPECT_TRUE(ip_addr_is_zero(ip));
    EXPECT_TRUE(ip_addr_is_valid_host(ip));
    EXPECT_FALSE(ip_addr_is_multicast(ip));
    ip_addr_clear(&ip, AF_INET6);
    EXPECT_TRUE(ip_addr_is_zero(ip));
    ip.addr.v6[15] = 1;
    EXPECT_FALSE(ip_addr_is_zero(ip));
}

TEST(ip_addr, order_is_by_family_and_then_by_number)
{
    const char *ascending[] = { "0.0.0.0", "1.2.3.4", "127.255.255.255", "128.0.0.0", "255.255.255.254",
                                "::",      "::1",     "7fff::",          "8000::",    "ffff::" };
    for (size_t a = 0; a < std::size(ascending); a++)
        for (size_t b = 0; b < std::size(ascending); b++)
            EXPECT_EQ(ip_addr_compare(addr(ascending[a]), addr(ascending[b])), (a > b) - (a < b))
                << ascending[a] << " " << ascending[b];
}

TEST(ip_addr, comparing_two_records_of_no_family_is_an_assertion)
{
    ip_addr_t none;
    ip_addr_clear(&none, 7);
    expect_assertion([&] { (void)ip_addr_compare(none, none); }, "ip_util:");
    EXPECT_EQ(ip_addr_compare(none, addr("::")), -1);
}

TEST(ip_addr, only_an_ipv4_port_is_brought_to_host_order)
{
    sockaddr_in in4 = {};
    in4.sin_family = AF_INET;
    in4.sin_port = htons(8080);
    in4.sin_addr.s_addr = htonl(0x0A010203);
    ip_sock_t sock = {};
    ip_addr_from_sockaddr(&sock, reinterpret_cast<sockaddr *>(&in4));
    char text[128];
    EXPECT_STREQ(ip_sock_to_str(sock, text, sizeof text), "10.1.2.3:8080");

    sockaddr_in6 in6 = {};
    in6.sin6_family = AF_INET6;
    in6.sin6_port = htons(8080);
    in6.sin6_addr = in6addr_loopback;
    ip_addr_from_sockaddr(&sock, reinterpret_cast<sockaddr *>(&in6));
    EXPECT_EQ(sock.port, htons(8080));
    EXPECT_EQ(str(sock.ip), "::1");

    sockaddr other = {};
    other.sa_family = AF_UNIX;
    ip_addr_from_sockaddr(&sock, &other);
    EXPECT_EQ(str(sock.ip), "::1");
}

TEST(ip_addr, bytes_are_taken_by_the_family_that_is_set)
{
    const uint8_t bytes[16] = { 0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9 };
    ip_addr_t ip;
    ip_addr_clear(&ip, AF_INET);
    EXPECT_EQ(ip_addr_from_bytes(&ip, bytes), 4);
    EXPECT_EQ(ip.addr.v4, 0x20010db8U);
    ip_addr_clear(&ip, AF_INET6);
    EXPECT_EQ(ip_addr_from_bytes(&ip, bytes), 16);
    EXPECT_EQ(str(ip), "2001:db8::9");
    ip_addr_t copy;
    memset(&copy, 0xEE, sizeof copy);
    ip_addr_copy(&copy, addr("1.2.3.4"));
    EXPECT_EQ(str(copy), "1.2.3.4");
    EXPECT_EQ(copy.addr.v6[4], 0xEE) << "only the bytes that count are copied";
}

TEST(ip_addr, the_next_address_keeps_every_octet_in_1_to_254)
{
    const char *rows[][2] = {
        { "10.0.0.1", "10.0.0.2" },         { "10.0.0.254", "10.0.1.1" },   { "10.0.0.255", "10.0.1.1" },
        { "10.255.254.254", "11.1.1.1" },   { "10.0.254.254", "10.1.1.1" }, { "254.254.254.254", "1.1.1.1" },
        { "253.254.254.254", "254.1.1.1" }, { "fe80::1", "fe80::1" },
    };
    for (const auto &row : rows) {
        ip_addr_t ip = addr(row[0]);
        ip_addr_next_v4(&ip);
        EXPECT_EQ(str(ip), row[1]) << row[0];
    }
}

TEST(ip_mask, a_v4_length_of_0_gives_all_ones)
{
    EXPECT_EQ(ip_masklen_v4(0), 0xFFFFFFFFU);
    EXPECT_EQ(ip_masklen_v4(1), 0x80000000U);
    EXPECT_EQ(ip_masklen_v4(24), 0xFFFFFF00U);
    EXPECT_EQ(ip_masklen_v4(32), 0xFFFFFFFFU);
}

TEST(ip_mask, v6_masks_count_from_the_top)
{
    const std::pair<int, const char *> rows[] = { { 0, "::" },
                                                  { 1, "8000::" },
                                                  { 33, "ffff:ffff:8000::" },
                                                  { 64, "ffff:ffff:ffff:ffff::" },
                                                  { 127, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe" },
                                                  { 200, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff" } };
    for (auto [len, text] : rows) {
        ip_addr_t mask;
        ip_masklen_v6(static_cast<uint8_t>(len), &mask);
        EXPECT_EQ(str(mask), text) << len;
    }
    EXPECT_EQ(ip_mask_byte(0), 0);
    EXPECT_EQ(ip_mask_byte(3), 0xE0);
    EXPECT_EQ(ip_mask_byte(8), 0xFF);
    EXPECT_EQ(ip_mask_byte(9), 0);
    ip_mask_from_len(8, nullptr);
}

TEST(ip_mask, a_v4_length_comes_back_from_its_mask_and_other_bytes_add_nothing)
{
    for (uint8_t len = 1; len <= 32; len++)
        EXPECT_EQ(ip_mask_to_len_v4(ip_masklen_v4(len)), len);
    EXPECT_EQ(ip_mask_to_len_v4(0), 0);
    EXPECT_EQ(ip_mask_to_len_v4(0xFFFF5500), 16);
    EXPECT_EQ(ip_mask_to_len_v4(0x00FF00F0), 12) << "the bytes are summed wherever they stand";
}

TEST(ip_mask, a_mask_and_its_inverse_split_an_address)
{
    std::mt19937 random(7);
    for (int i = 0; i < 1000; i++) {
        ip_addr_t ip;
        ip_addr_clear(&ip, i % 2 != 0 ? AF_INET : AF_INET6);
        for (size_t b = 0; b < (i % 2 != 0 ? 4 : 16); b++)
            ip.addr.v6[b] = static_cast<uint8_t>(random());
        ip_addr_t mask = ip;
        ip_mask_from_len(static_cast<uint8_t>(random() % (i % 2 != 0 ? 33 : 129)), &mask);
        ip_addr_t net = ip;
        ip_addr_t host = ip;
        ip_addr_and(&net, mask);
        ip_addr_invert(&mask);
        ip_addr_and(&host, mask);
        ip_addr_t sum = net;
        for (size_t b = 0; b < 16; b++)
            sum.addr.v6[b] ^= host.addr.v6[b];
        EXPECT_EQ(ip_addr_compare(sum, ip), 0) << str(ip);
    }
    ip_addr_t v4 = addr("10.1.2.3");
    ip_addr_and(&v4, addr("::"));
    EXPECT_EQ(str(v4), "10.1.2.3") << "families that differ leave the address alone";
}

TEST(ip_prefix, host_part_judgements)
{
    struct row_t {
        const char *text;
        bool ok, host, subnet, unicast;
    };
    const row_t rows[] = {
        { "10.1.1.1/24", true, true, false, true },
        { "10.1.1.0/24", true, false, true, false },
        { "10.1.1.255/24", true, false, false, false },
        { "10.1.1.0/31", true, true, true, false },
        { "10.1.1.1/31", true, true, false, false },
        { "10.1.1.1/32", true, true, true, true },
        { "10.1.1.1/33", false, true, false, false },
        { "2001:db8::1/64", true, true, false, true },
        { "2001:db8::/64", true, false, true, true },
        { "2001:db8::ffff:ffff:ffff:ffff/64", true, false, false, true },
        { "2001:db8::1/127", true, true, false, true },
        { "2001:db8::1/128", true, true, true, true },
        { "2001:db8::1/129", false, true, false, true },
    };
    for (const row_t &row : rows) {
        SCOPED_TRACE(row.text);
        ip_prefix_t value = prefix(row.text);
        EXPECT_EQ(ip_prefix_len_ok(value), row.ok);
        EXPECT_EQ(ip_prefix_is_host(value), row.host);
        EXPECT_EQ(ip_prefix_is_subnet(value), row.subnet);
        if (row.ok || !ip_addr_is_v4(value.ip)) {
            EXPECT_EQ(ip_prefix_host_is_unicast(value), row.unicast);
        }
    }
}

TEST(ip_prefix, a_v6_length_that_ends_on_a_byte_contains_nothing)
{
    struct row_t {
        const char *ip, *prefix;
        bool contains;
    };
    const row_t rows[] = {
        { "10.1.2.3", "10.1.0.0/16", true },
        { "10.2.2.3", "10.1.0.0/16", false },
        { "10.1.2.3", "10.1.2.3/32", true },
        { "10.1.2.4", "10.1.2.3/32", false },
        { "10.1.2.3", "0.0.0.0/0", false },
        { "10.1.2.3", "2001:db8::/33", false },
        { "2001:db8::1", "2001:db8::/32", false },
        { "2001:db8::1", "2001:db8::/33", true },
        { "2001:db8:8000::1", "2001:db8::/33", false },
        { "2001:db9::1", "2001:db8::/33", false },
        { "2001:db8::1", "2001:db8::1/128", false },
        { "2001:db8::1", "2001:db8::/127", true },
    };
    for (const row_t &row : rows)
        EXPECT_EQ(ip_prefix_contains(addr(row.ip), prefix(row.prefix)), row.contains) << row.ip << " " << row.prefix;
}

TEST(ip_prefix, containing_by_an_impossible_length_is_an_assertion)
{
    expect_assertion([] { (void)ip_prefix_contains(addr("1.2.3.4"), prefix("1.2.3.4/33")); }, "failed assertion `0'");
    expect_assertion([] { (void)ip_prefix_contains(addr("::1"), prefix("::1/129")); }, "failed assertion `0'");
}

TEST(ip_prefix, applying_a_mask_takes_the_own_length_for_0)
{
    struct row_t {
        const char *from;
        uint8_t len;
        const char *to;
    };
    const row_t rows[] = {
        { "10.1.2.3/24", 0, "10.1.2.0/24" },
        { "10.1.2.3/24", 8, "10.0.0.0/8" },
        { "10.1.2.3/0", 0, "10.1.2.3/0" },
        { "2001:db8:ffff::1/36", 0, "2001:db8:f000::/36" },
        { "2001:db8:ffff::1/36", 32, "2001:db8::/32" },
    };
    for (const row_t &row : rows) {
        ip_prefix_t value = prefix(row.from);
        ip_prefix_mask_apply(value, &value, row.len);
        EXPECT_EQ(str(value), row.to) << row.from;
    }
}

TEST(ip_prefix, broadcast_sets_the_host_bits)
{
    const char *rows[][2] = {
        { "10.1.2.3/24", "10.1.2.255" },
        { "10.1.2.3/8", "10.255.255.255" },
        { "10.1.2.3/32", "10.1.2.3" },
        { "10.1.2.2/31", "0.0.0.0" },
        { "2001:db8::1/64", "2001:db8::ffff:ffff:ffff:ffff" },
        { "2001:db8::1/128", "2001:db8::1" },
    };
    for (const auto &row : rows) {
        ip_addr_t out;
        ip_prefix_broadcast(prefix(row[0]), &out, prefix(row[0]).len);
        EXPECT_EQ(str(out), row[1]) << row[0];
    }
    // Within a half, the bits are those of the native word, so on this machine the bytes that go first.
    ip_addr_t out;
    ip_prefix_broadcast(prefix("2001:db8::1/48"), &out, 48);
    EXPECT_EQ(out.addr.halves[0], prefix("2001:db8::1/48").ip.addr.halves[0] | 0xFFFF);
    EXPECT_EQ(out.addr.halves[1], ~uint64_t{ 0 });
    ip_prefix_broadcast(prefix("2001:db8::1/120"), &out, 120);
    EXPECT_EQ(out.addr.halves[1], prefix("2001:db8::1/120").ip.addr.halves[1] | 0xFF);
    ip_prefix_broadcast(prefix("2001:db8::1/0"), &out, 0);
    EXPECT_EQ(str(out), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
}

TEST(ip_text, parsing_takes_short_ipv4_forms_and_zeroes_the_record_on_failure)
{
    struct row_t {
        const char *text;
        int result;
        uint32_t family;
        const char *shown;
    };
    const row_t rows[] = {
        { "1.2", 1, AF_INET, "0.0.1.2" },
        { "10.1", 1, AF_INET, "0.0.10.1" },
        { "0x0a.1.2.3", 1, AF_INET, "10.1.2.3" },
        { "192.168.1.1", 1, AF_INET, "192.168.1.1" },
        { "2001:db8::1", 1, AF_INET6, "2001:db8::1" },
        { "::ffff:1.2.3.4", 1, AF_INET6, "::ffff:1.2.3.4" },
        { "not-an-address", 0, 0, nullptr },
        { "255.255.255.255", 0, 0, nullptr },
        { "1.2.3.256", 0, 0, nullptr },
        { "10.0.0.1/24", 0, 0, nullptr },
        { "", 0, 0, nullptr },
    };
    for (const row_t &row : rows) {
        SCOPED_TRACE(row.text);
        ip_addr_t ip;
        memset(&ip, 0xFF, sizeof ip);
        EXPECT_EQ(ip_addr_parse(row.text, &ip), row.result);
        EXPECT_EQ(ip.family, row.family);
        if (row.shown != nullptr) {
            EXPECT_EQ(str(ip), row.shown);
        } else {
            EXPECT_EQ(ip.addr.halves[0] | ip.addr.halves[1], 0U);
        }
    }
}

TEST(ip_text, reading_by_family_gives_the_zero_address_for_what_is_none)
{
    ip_addr_t ip = addr("9.9.9.9");
    ip_addr_from_str(&ip, "10.2.3.4");
    EXPECT_EQ(str(ip), "10.2.3.4");
    ip_addr_from_str(&ip, "2001:db8::1");
    EXPECT_EQ(str(ip), "0.0.0.0");
    ip = addr("::9");
    ip_addr_from_str(&ip, "2001:db8::1");
    EXPECT_EQ(str(ip), "2001:db8::1");
    ip_addr_from_str(&ip, "10.2.3.4");
    EXPECT_EQ(str(ip), "::");
}

TEST(ip_text, every_address_comes_back_from_its_text)
{
    std::mt19937 random(11);
    for (int i = 0; i < 1000; i++) {
        ip_addr_t ip;
        ip_addr_clear(&ip, i % 2 != 0 ? AF_INET : AF_INET6);
        for (size_t b = 0; b < (i % 2 != 0 ? 4 : 16); b++)
            ip.addr.v6[b] = random() % 3 != 0 ? static_cast<uint8_t>(random()) : 0;
        EXPECT_EQ(ip_addr_compare(addr(str(ip)), ip), 0) << str(ip);
    }
}

TEST(ip_text, a_short_buffer_is_never_overrun)
{
    wpnt_t wpnt = { addr("2001:db8::1"), 3, 2 };
    char text[128];
    EXPECT_STREQ(wpnt_to_str(wpnt, text, sizeof text), "Originator: 2001:db8::1 Color: 3 Encap: 2");
    EXPECT_STREQ(wpnt_to_name_str(wpnt, text, sizeof text), "2001:db8::1 : metro-ethernet : ipsec");
    for (size_t size = 1; size < 40; size++) {
        memset(text, 'x', sizeof text);
        ip_addr_to_str(wpnt.ip, text, size);
        EXPECT_LT(strnlen(text, size), size);
        wpnt_to_name_str(wpnt, text, size);
        EXPECT_LT(strnlen(text, size), size);
        EXPECT_EQ(text[size], 'x');
    }
}

} // namespace
