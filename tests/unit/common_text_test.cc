// Names, texts, times and small numbers.
#include "common/tip_board.h"
#include "common/tip_if_name.h"
#include "common/tip_names.h"
#include "common/tip_text.h"
#include "common/tip_time.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

namespace
{

TEST(tip_names, long_and_short_colour_names_differ_where_they_should)
{
    struct row_t {
        uint8_t color;
        const char *long_name, *short_name;
    };
    const row_t rows[] = {
        { 1, "default", "default" },
        { 3, "metro-ethernet", "met-eth" },
        { 4, "biz-internet", "biz-int" },
        { 5, "public-internet", "pub-int" },
        { 7, "3g", "3g" },
        { 22, "private6", "private6" },
    };
    for (const row_t &row : rows) {
        EXPECT_STREQ(color_name(row.color), row.long_name);
        EXPECT_EQ(color_from_name(row.short_name), row.color);
    }
    EXPECT_STREQ(color_name(0), "invalid");
    EXPECT_STREQ(color_name(23), "--");
    EXPECT_EQ(color_from_name("metro-ethernet"), 0);
    EXPECT_EQ(color_from_name("biz-internet"), 4) << "a colour is known by the beginning of the text";
    EXPECT_EQ(color_from_name("invalid"), 0);
    EXPECT_EQ(color_from_name(""), 0);
    for (uint8_t color = 1; color <= 22; color++)
        if (color < 3 || color > 5) {
            EXPECT_EQ(color_from_name(color_name(color)), color);
        }
}

TEST(tip_names, values_outside_a_table_have_their_own_text)
{
    EXPECT_STREQ(encap_name(ENCAP_IPSEC), "ipsec");
    EXPECT_STREQ(encap_name(0), "--");
    EXPECT_STREQ(encap_name(3), "--");
    EXPECT_EQ(encap_from_name("gre"), ENCAP_GRE);
    EXPECT_EQ(encap_from_name("ipsec"), ENCAP_IPSEC);
    EXPECT_EQ(encap_from_name("gre6"), ENCAP_NONE);
    EXPECT_STREQ(personality_name(PERSONALITY_KREST), "Krest");
    EXPECT_STREQ(personality_name(PERSONALITY_PENDRY), "Pendry");
    EXPECT_STREQ(personality_name(0), "Unknown");
    EXPECT_STREQ(personality_name(8), "Unknown");
    EXPECT_STREQ(service_name(1), "FW");
    EXPECT_STREQ(service_name(8), "TE");
    EXPECT_EQ(service_name(0), nullptr);
    EXPECT_EQ(service_name(9), nullptr);
}

TEST(tip_text, bounded_copy_tells_the_length_of_the_source)
{
    char to[5] = "zzzz";
    EXPECT_EQ(strlcpy(to, "abcdef", sizeof to), 6U);
    EXPECT_STREQ(to, "abcd");
    EXPECT_EQ(strlcpy(to, "", sizeof to), 0U);
    EXPECT_STREQ(to, "");
    EXPECT_EQ(strlcpy(nullptr, "abc", 0), 3U);
}

TEST(tip_text, a_mac_needs_six_numbers)
{
    uint8_t mac[MAC_BYTES] = { 9, 9, 9, 9, 9, 9 };
    for (const char *bad : { "", "1:2:3:4:5", "1:2:3:4:5:", "1-2-3-4-5-6", "x:2:3:4:5:6" })
        EXPECT_EQ(mac_from_str(bad, mac), nullptr) << bad;
    EXPECT_EQ(mac[0], 9) << "refused text leaves the buffer alone";
    EXPECT_EQ(mac_from_str("0:1a:FF:3:04:a5 behind", mac), mac);
    char text[MAC_TEXT_SIZE];
    EXPECT_STREQ(mac_to_text(mac, text), "00:1a:ff:03:04:a5");
    char small[6];
    EXPECT_STREQ(mac_to_str(mac, small, sizeof small), "00:1a");
}

TEST(tip_text, the_first_word_is_cut_by_every_bound)
{
    struct row_t {
        const char *in;
        size_t in_len, out_size;
        const char *out;
    };
    const row_t rows[] = {
        { "  \t one two", 64, 16, "one" }, { "one", 2, 16, "on" }, { "one", 64, 3, "on" }, { "   ", 64, 16, "" },
        { "\nword\n", 64, 16, "word" },    { "   x", 3, 16, "" },  { "one", 64, 1, "" },
    };
    for (const row_t &row : rows) {
        char out[16];
        memset(out, 'z', sizeof out);
        str_first_word(row.in, row.in_len, out, row.out_size);
        EXPECT_STREQ(out, row.out) << row.in;
    }
    char out[4] = "old";
    str_first_word("one", 0, out, sizeof out);
    str_first_word(nullptr, 3, out, sizeof out);
    str_first_word("one", 3, out, 0);
    EXPECT_STREQ(out, "old");
}

TEST(tip_text, raising_touches_plain_letters_only)
{
    char text[] = "abz-AZ_09 \xe4{`";
    str_upper(text);
    EXPECT_STREQ(text, "ABZ-AZ_09 \xe4{`");
    char buffer[16];
    EXPECT_STREQ(proto_str(6, buffer, sizeof buffer), "TCP");
    EXPECT_STREQ(proto_str(17, buffer, sizeof buffer), "UDP");
    EXPECT_STREQ(proto_str(132, buffer, sizeof buffer), "132");
    EXPECT_STREQ(bool_str(true), "True");
    EXPECT_STREQ(bool_str(false), "False");
}

TEST(tip_text, a_dump_has_sixteen_bytes_a_line_and_drops_what_does_not_fit)
{
    uint8_t bytes[20];
    for (uint8_t i = 0; i < sizeof bytes; i++)
        bytes[i] = static_cast<uint8_t>(i + 'A' - 1);
    bytes[1] = 127;
    char text[HEX_DUMP_SIZE];
    hex_dump_to_buffer(bytes, sizeof bytes, text, sizeof text);
    EXPECT_STREQ(text, "  0000  40 7f 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f  @.BCDEFGHIJKLMNO\n"
                       "  0010  50 51 52 53                                      PQRS\n");
    std::string large(1 << 16, 'x');
    size_t used = hex_dump_to_buffer(large.data(), large.size(), text, sizeof text);
    EXPECT_EQ(used, strlen(text));
    EXPECT_EQ(text[used - 1], '\n');
    EXPECT_GT(used, sizeof text - 80);
    hex_dump(large.data(), large.size());
}

TEST(tip_number, powers_and_percentages)
{
    EXPECT_EQ(round_down_pow2(0), 0U);
    EXPECT_EQ(round_down_pow2(1), 1U);
    EXPECT_EQ(round_down_pow2(4095), 2048U);
    EXPECT_EQ(round_down_pow2(4096), 4096U);
    EXPECT_EQ(percent_increase(100, 150), 50U);
    EXPECT_EQ(percent_increase(3, 4), 33U);
    EXPECT_EQ(percent_increase(0, 4), 0U);
    EXPECT_EQ(percent_increase(4, 4), 0U);
    EXPECT_EQ(percent_increase(1, UINT32_MAX), 429496729400U);
}

TEST(tip_number, the_next_boundary_lies_within_one_period)
{
    EXPECT_EQ(msecs_to_next_boundary(1), 1U);
    EXPECT_EQ(msecs_to_next_boundary(0), 0U);
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    uint64_t distance = msecs_to_next_boundary(3600 * 1000);
    uint64_t expected = 3600 * 1000 - static_cast<uint64_t>(now.tv_sec * 1000 + now.tv_nsec / 1000000) % (3600 * 1000);
    uint64_t off = (expected - distance + 3600 * 1000) % (3600 * 1000);
    EXPECT_LT(off, 5000U);
}

class tip_time : public testing::Test
{
protected:
    tip_time()
    {
        setenv("TZ", "XYZ-2", 1); // two hours ahead of UTC
        tzset();
    }
    ~tip_time() override
    {
        unsetenv("TZ");
        tzset();
    }
};

TEST_F(tip_time, durations_show_years_only_when_there_are_any)
{
    const std::pair<int64_t, const char *> rows[] = {
        { 0, "0:00:00:00" },           { 59, "0:00:00:59" },         { 86399, "0:23:59:59" },
        { 86400, "1:00:00:00" },       { 31535999, "364:23:59:59" }, { 31536000, "1y 0:00:00:00" },
        { 63162061, "2y 1:01:01:01" },
    };
    char text[TIME_DURATION_SIZE];
    for (auto [seconds, expected] : rows)
        EXPECT_STREQ(time_duration_str(seconds, text), expected);
    std::string up = time_uptime_str(time(nullptr) - 3600, text);
    EXPECT_EQ(up.substr(0, 5), "0:01:");
}

TEST_F(tip_time, times_are_shown_in_local_time)
{
    constexpr time_t moment = 1700000000; // 14 November 2023, 22:13:20 UTC
    char text[TIME_CTIME_SIZE];
    EXPECT_STREQ(time_to_str(moment, text), "Wed Nov 15 00:13:20 XYZ 2023");
    EXPECT_STREQ(time_ctime_str(moment, text), "Wed Nov 15 00:13:20 2023");
    EXPECT_EQ(time_iso_str(text, sizeof text, moment), TIME_ISO_OK);
    EXPECT_STREQ(text, "2023-11-15T00:13:20");
    EXPECT_EQ(time_iso_zone_str(text, sizeof text, moment), TIME_ISO_OK);
    EXPECT_STREQ(text, "2023-11-15T00:13:20+0200");
}

TEST_F(tip_time, what_cannot_be_shown_is_told_and_leaves_an_empty_text)
{
    char text[32] = "old";
    EXPECT_EQ(time_iso_str(text, 8, 0), TIME_ISO_NO_ROOM);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(time_iso_zone_str(text, sizeof text, INT64_MAX), TIME_ISO_NO_LOCALTIME);
    EXPECT_STREQ(time_to_str(INT64_MAX, text), "");
    EXPECT_STREQ(time_now_short(text, 4), "");
    EXPECT_EQ(strlen(time_now_short(text, sizeof text)), strlen("Nov 15 00:13:20"));
    EXPECT_EQ(time_now_str(), time_now_str()) << "one buffer for all calls";
}

TEST(tip_if_name, the_simulated_port_has_the_numbers_of_the_hardware_port)
{
    const char *rows[][2] = {
        { "ge0_0", "sim0_0" },  { "ge2_13.100", "sim2_13.100" },
        { "ge0_0.x", nullptr }, { "ge0/0", nullptr },
        { "irb.1", nullptr },   { "ge", nullptr },
        { "ge0_", nullptr },    { "", nullptr },
    };
    for (const auto &row : rows) {
        char out[32] = "old";
        char *result = sim_name_from_ge(row[0], out, sizeof out);
        EXPECT_EQ(result, row[1] != nullptr ? out : nullptr) << row[0];
        EXPECT_STREQ(out, row[1] != nullptr ? row[1] : "old") << row[0];
    }
    char small[6];
    EXPECT_EQ(sim_name_from_ge("ge0_0", small, sizeof small), nullptr);
}

TEST(tip_if_name, names_tell_their_kind)
{
    struct row_t {
        const char *name;
        bool phys, system, loop;
    };
    const row_t rows[] = {
        { "ge0_0", true, false, false },    { "ge0_0.5", false, false, false },   { "loopback3", false, true, false },
        { "natpool1", false, true, false }, { "system", false, false, false },    { "loop0", true, false, true },
        { "natpoo", true, false, false },   { "myloopback", true, false, false },
    };
    for (const row_t &row : rows) {
        EXPECT_EQ(if_name_is_phys(row.name), row.phys) << row.name;
        EXPECT_EQ(if_name_is_system(row.name), row.system) << row.name;
        EXPECT_EQ(if_name_is_loop(row.name), row.loop) << row.name;
    }
}

TEST(vpn, only_tunnel_interfaces_carry_management_on_controllers_and_in_vpn_512)
{
    struct row_t {
        uint32_t personality;
        uint64_t vpn;
        uint32_t if_type;
        int result;
    };
    const row_t rows[] = {
        { PERSONALITY_KREST, 0, 1, 1 },  { PERSONALITY_KREST, 512, 1, 0 }, { PERSONALITY_KREST, 512, 29, 1 },
        { PERSONALITY_LODEST, 0, 1, 0 }, { PERSONALITY_LODEST, 0, 29, 1 }, { PERSONALITY_QUORVIX, 0, 1, 0 },
        { PERSONALITY_PENDRY, 0, 1, 0 }, { PERSONALITY_ORBEL, 0, 1, 1 },
    };
    for (const row_t &row : rows)
        EXPECT_EQ(vpn_is_mgmt_tun_if(row.personality, row.vpn, row.if_type), row.result)
            << row.personality << " " << row.vpn << " " << row.if_type;
}

} // namespace
