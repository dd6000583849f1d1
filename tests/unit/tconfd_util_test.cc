// Value helpers: addresses, keys, copies, small translations.
#include "tconfd/tconfd_shm.h"
#include "tconfd/tconfd_util.h"
#include "tests/unit/tconfd_env.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/mman.h>

namespace
{

std::string text_of(const ip_addr_t &ip)
{
    char text[64] = "";
    ip_addr_to_str(ip, text, sizeof text);
    return text;
}

struct prefix_case_t {
    const char *text;
    const char *ip;
    int len;
};

constexpr prefix_case_t any_family[] = {
    { "10.1.2.3/24", "10.1.2.3", 24 },
    { "10.1.2.3", "10.1.2.3", 32 },
    { "0.0.0.0/0", "0.0.0.0", 0 },
    { "2001:db8::1/64", "2001:db8::1", 64 },
    { "2001:db8::1", "2001:db8::1", 128 },
    { "::/0", "::", 0 },
    { "no address", "::", 0 },
    { "", "::", 0 },
};

TEST(tconfd_values, a_prefix_of_either_family_is_read)
{
    for (const prefix_case_t &row : any_family) {
        ip_prefix_t prefix;
        memset(&prefix, 0xff, sizeof prefix);
        tconfd_str_to_ip_prefix(row.text, &prefix);
        EXPECT_EQ(prefix.len, row.len) << row.text;
        EXPECT_EQ(text_of(prefix.ip), row.ip) << row.text;
    }
}

TEST(tconfd_values, a_prefix_of_a_given_family_is_that_of_a_host_without_a_length)
{
    constexpr prefix_case_t rows_v4[] = { { "10.1.2.3/8", "10.1.2.3", 8 }, { "10.1.2.3", "10.1.2.3", 32 } };
    constexpr prefix_case_t rows_v6[] = { { "fe80::1/10", "fe80::1", 10 }, { "fe80::1", "fe80::1", 128 } };
    ip_prefix_t prefix;
    for (const prefix_case_t &row : rows_v4) {
        tconfd_str_to_ipv4_prefix(row.text, &prefix);
        EXPECT_EQ(prefix.len, row.len) << row.text;
        EXPECT_EQ(text_of(prefix.ip), row.ip);
    }
    for (const prefix_case_t &row : rows_v6) {
        tconfd_str_to_ipv6_prefix(row.text, &prefix);
        EXPECT_EQ(prefix.len, row.len) << row.text;
        EXPECT_EQ(text_of(prefix.ip), row.ip);
    }
}

TEST(tconfd_values, a_text_longer_than_any_address_is_none)
{
    ip_prefix_t prefix;
    tconfd_str_to_ip_prefix((std::string(500, '1') + "/24").c_str(), &prefix);
    EXPECT_EQ(text_of(prefix.ip), "::");
    ip_addr_t ip;
    tconfd_str_to_ip("10.9.8.7", &ip);
    EXPECT_EQ(text_of(ip), "10.9.8.7");
}

TEST(tconfd_values, an_address_and_port_have_the_bytes_of_the_port_as_on_the_wire)
{
    ip_addr_t ip;
    tconfd_str_to_ip("10.0.0.1", &ip);
    char text[64];
    tconfd_addr_port_str(&ip, htons(4565), text, sizeof text);
    EXPECT_STREQ(text, "10.0.0.1.17.213");
    tconfd_addr_port_str(&ip, htons(255), text, sizeof text);
    EXPECT_STREQ(text, "10.0.0.1.0.255");
}

TEST(tconfd_values, colours_and_identities)
{
    for (uint32_t value = 0; value < 300; value++) {
        const std::map<uint32_t, uint32_t> levels = { { 1, 1 }, { 2, 3 }, { 3, 5 }, { 4, 7 } };
        EXPECT_EQ(tconfd_color_to_level(value), levels.count(value) != 0 ? levels.at(value) : 0);
        bool is_known = value >= 1 && value <= 13;
        EXPECT_EQ(tconfd_enum_identity(value), is_known ? value : 12u) << value;
    }
}

class tconfd_helpers : public tconfd_env
{
protected:
    confd_hkeypath_t path =
        keypath({ "vpn", "vpn-instance", { { u64(5) } }, "interface", { { u64(6), u64(7) } }, "ip" });
};

TEST_F(tconfd_helpers, keys_are_those_of_the_list_that_the_tag_names)
{
    confd_value_t own[2];
    EXPECT_EQ(tconfd_keypath_get_keys(&path, own, 2, tag_of("interface")), own);
    EXPECT_EQ(CONFD_GET_UINT64(&own[0]), 6u);
    EXPECT_EQ(CONFD_GET_UINT64(&own[1]), 7u);
    confd_value_t *made = tconfd_keypath_get_keys(&path, nullptr, 1, tag_of("vpn-instance"));
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(CONFD_GET_UINT64(&made[0]), 5u);
    tconfd_free_values(made, 1);
    tconfd_free_values(nullptr, 3);
}

TEST_F(tconfd_helpers, keys_of_a_wrong_count_or_list_are_none)
{
    confd_value_t own[2];
    EXPECT_EQ(tconfd_keypath_get_keys(&path, own, 0, tag_of("interface")), nullptr);
    EXPECT_TRUE(log_lines().empty());
    EXPECT_EQ(tconfd_keypath_get_keys(&path, own, 1, tag_of("interface")), nullptr);
    EXPECT_TRUE(log_has("Number of keys given (1) != number of keys found (2) !"));
    EXPECT_EQ(tconfd_keypath_get_keys(&path, nullptr, 2, tag_of("vpn-instance")), nullptr);
    EXPECT_TRUE(log_has("Number of keys given (2) != number of keys found (1) !"));
    EXPECT_EQ(tconfd_keypath_get_keys(&path, nullptr, 1, tag_of("ip")), nullptr);
    EXPECT_EQ(tconfd_keypath_get_keys(&path, nullptr, 1, tag_of("elsewhere")), nullptr);
}

TEST_F(tconfd_helpers, keys_of_a_list_inside_one_of_the_same_name_are_the_outer_ones)
{
    confd_hkeypath_t nested = keypath({ "group", { { u64(1) } }, "group", { { u64(2) } } });
    confd_value_t key;
    ASSERT_EQ(tconfd_keypath_get_keys(&nested, &key, 1, tag_of("group")), &key);
    EXPECT_EQ(CONFD_GET_UINT64(&key), 1u);
}

TEST_F(tconfd_helpers, a_copy_outlives_its_original)
{
    char text[] = "words\0more";
    confd_value_t values[3] = { buf("other"), u32(7), {} };
    CONFD_SET_BUF(&values[0], text, sizeof text);
    CONFD_SET_STR(&values[2], text);
    confd_value_t copies[3];
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(tconfd_copy_confd_value(&copies[i], &values[i]), 0);
    memset(text, 'x', sizeof text);
    EXPECT_EQ(CONFD_GET_BUFSIZE(&copies[0]), sizeof text);
    EXPECT_EQ(memcmp(CONFD_GET_BUFPTR(&copies[0]), "words\0more\0", sizeof text + 1), 0) << "with one byte behind";
    EXPECT_EQ(CONFD_GET_UINT32(&copies[1]), 7u);
    EXPECT_STREQ(CONFD_GET_STR(&copies[2]), "words");
    for (confd_value_t &copy : copies)
        tconfd_free_value_copy(&copy);
}

TEST_F(tconfd_helpers, addresses_are_read_from_leaves_of_their_type)
{
    confd_value_t v4{}, v6{};
    v4.type = C_IPV4;
    inet_pton(AF_INET, "10.1.2.3", &v4.val.ip);
    v6.type = C_IPV6;
    inet_pton(AF_INET6, "2001:db8::7", &v6.val.ip6);
    agent().leaves = { { "/a{4}", v4 }, { "/a{6}", v6 }, { "/a{9}", buf("10.1.0.0/16") } };
    ip_addr_t ip{};
    EXPECT_EQ(tconfd_cdb_get_ip(9, &ip, "/a{%d}", 4), CONFD_OK);
    EXPECT_EQ(text_of(ip), "10.1.2.3");
    EXPECT_EQ(tconfd_maapi_get_ip(9, 1, &ip, "/a{%d}", 6), CONFD_OK);
    EXPECT_EQ(text_of(ip), "2001:db8::7");
    EXPECT_EQ(tconfd_cdb_get_ip(9, &ip, "/a{%d}", 9), CONFD_OK);
    EXPECT_EQ(text_of(ip), "2001:db8::7") << "no address: left alone";
    EXPECT_EQ(tconfd_cdb_get_ip(9, &ip, "/missing"), CONFD_ERR);
    ip_prefix_t prefix{};
    EXPECT_EQ(tconfd_cdb_get_ip_prefix_from_str(9, &prefix, "/a{%d}", 9), CONFD_OK);
    EXPECT_EQ(text_of(prefix.ip) + "/" + std::to_string(prefix.len), "10.1.0.0/16");
    EXPECT_EQ(tconfd_cdb_get_ip_prefix_from_str(9, &prefix, "/missing"), CONFD_ERR);
    EXPECT_TRUE(log_has("Cannot read IP prefix from CDB (-1)scripted (1) : as scripted"));
}

// ---- the shared region, under its real name: skipped where one is there already

TEST_F(tconfd_helpers, the_shared_region_is_read_and_its_last_address_outlives_it)
{
    int fd = shm_open("tconfd_shared_region", O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0)
        GTEST_SKIP() << "cannot make the region";
    EXPECT_STREQ(tconfd_shm_host_name(), "") << "without a region";
    EXPECT_EQ(ftruncate(fd, 100), 0);
    tconfd_setup_shm();
    EXPECT_TRUE(log_has("Failed to map shared memory tconfd_shared_region")) << "too short to be read safely";
    EXPECT_EQ(ftruncate(fd, 280), 0);
    std::string bytes(280, 0);
    uint32_t family = AF_INET, number = 0x0a010203;
    memcpy(bytes.data(), &family, 4);
    memcpy(bytes.data() + 8, &number, 4);
    bytes.replace(24, 256, std::string(256, 'h'));
    EXPECT_EQ(pwrite(fd, bytes.data(), bytes.size(), 0), 280);
    tconfd_setup_shm();
    shm_unlink("tconfd_shared_region");
    EXPECT_EQ(std::string(tconfd_shm_host_name()), std::string(253, 'h'));
    ip_addr_t ip{};
    tconfd_shm_system_ip(&ip);
    EXPECT_EQ(text_of(ip), "10.1.2.3");
    tconfd_unmap_shm();
    close(fd);
    ip = {};
    tconfd_shm_system_ip(&ip);
    EXPECT_EQ(text_of(ip), "10.1.2.3");
    tconfd_setup_shm();
    EXPECT_TRUE(log_has("Failed to open shared memory tconfd_shared_region with an error 2"));
}

} // namespace
