// Probes of board, chassis, modules and i2c buses against a made-up /proc and /sys.
#include "common/tip_board.h"
#include "common/tip_i2c.h"
#include "common/tip_names.h"
#include "common/tip_root.h"
#include "tests/harness/death.h"
#include "tests/harness/temp_dir.h"

#include <gtest/gtest.h>
#include <memory>

namespace
{

// The device's root, new for each row of a test.
class fake_root
{
public:
    fake_root() { tip_root_set(dir.path().c_str()); }
    ~fake_root() { tip_root_set(""); }

    void add_pci(const std::string &device, const std::string &vendor, const std::string &id) const
    {
        dir.write("sys/bus/pci/devices/" + device + "/vendor", vendor + "\n");
        dir.write("sys/bus/pci/devices/" + device + "/device", id + "\n");
    }
    void add_usb(const std::string &port, const std::string &vendor) const
    {
        dir.write("sys/bus/usb/devices/" + port + "/idVendor", vendor + "\n");
    }

    temp_dir dir;
};

TEST(board, type_comes_from_the_board_file)
{
    struct row_t {
        const char *content; // null: no file
        uint32_t board;
        const char *wan;
    };
    const row_t rows[] = {
        { nullptr, 2, nullptr },
        { "board_type: 20000\n", 2, nullptr },
        { "processor_id: 7\nboard_type: 20003\nrest\n", 0, "ge0/0" },
        { "board_type:    20004", 1, "ge2/0" },
        { "board_type: 20005\n", 5, "ge0/4" },
        { "board_type: 20006\n", 6, "ge0/4" },
        { "board_type: 20007\n", 4, nullptr },
        { "board_type: x\n", 4, nullptr },
        { "no_board_type: 20003\n", 4, nullptr },
    };
    for (const row_t &row : rows) {
        SCOPED_TRACE(row.content != nullptr ? row.content : "no file");
        fake_root root;
        if (row.content != nullptr)
            root.dir.write("proc/octeon_info", row.content);
        EXPECT_EQ(board_type_get(PERSONALITY_KREST), row.board);
        EXPECT_EQ(board_type_get(PERSONALITY_TARN), 3U);
        EXPECT_STREQ(if_default_wan_name(PERSONALITY_KREST), row.wan);
        EXPECT_EQ(if_default_wan_name(PERSONALITY_TARN), nullptr);
    }
}

TEST(board, chassis_of_a_personality)
{
    fake_root root;
    root.dir.write("proc/octeon_info", "board_type: 20006\n");
    const std::pair<uint32_t, uint32_t> rows[] = {
        { PERSONALITY_KREST, 11 },
        { PERSONALITY_TARN, 12 },
        { PERSONALITY_LODEST, 1 },
        { PERSONALITY_ORBEL, 3 },
        { PERSONALITY_QUORVIX, 2 },
        { PERSONALITY_ZTP, 3 },
        { PERSONALITY_PENDRY, 13 },
        { 0, 4 },
        { 8, 4 },
    };
    for (auto [personality, chassis] : rows)
        EXPECT_EQ(chassis_get(personality), chassis) << personality;
    const std::pair<uint32_t, uint32_t> boards[] = { { 2, 12 }, { 0, 4 }, { 1, 5 }, { 6, 11 }, { 3, 12 }, { 4, 12 } };
    for (auto [board, chassis] : boards)
        EXPECT_EQ(chassis_from_board(board), chassis) << board;
}

TEST(board, chassis_of_board_5_is_told_by_its_radios_and_modems)
{
    struct row_t {
        bool radio_0, radio_1, modem_1, modem_3;
        uint32_t chassis;
    };
    const row_t rows[] = {
        { false, false, false, false, 6 }, { true, false, false, false, 6 },  { false, true, false, false, 6 },
        { true, true, false, false, 7 },   { true, true, true, true, 7 },     { true, false, false, true, 8 },
        { false, true, true, false, 8 },   { true, false, true, true, 8 },    { false, true, true, true, 8 },
        { false, false, true, true, 9 },   { true, false, true, false, 10 },  { false, true, false, true, 10 },
        { false, false, true, false, 10 }, { false, false, false, true, 10 },
    };
    for (const row_t &row : rows) {
        SCOPED_TRACE(testing::Message() << row.radio_0 << row.radio_1 << row.modem_1 << row.modem_3);
        fake_root root;
        root.add_pci("0000:00:00.0", "0x168c", row.radio_0 ? "0x003c" : "0x003d");
        root.add_pci("0001:02:00.0", row.radio_1 ? "0x168c" : "0x8086", "0x003c");
        root.add_pci("0002:01:02.0", "0x168c", "0x003c");
        root.add_usb("1-1", row.modem_1 ? "1199" : "046d");
        if (row.modem_3)
            root.add_usb("3-1", "1199");
        EXPECT_EQ(chassis_from_board(5), row.chassis);
    }
    fake_root bare;
    EXPECT_EQ(chassis_from_board(5), 6U) << "a machine without the buses";
}

TEST(board, only_chassis_4_has_a_modem_slot)
{
    fake_root root;
    EXPECT_EQ(module_slot_probe(4), 0);
    root.add_usb("1-1", "1199");
    EXPECT_EQ(module_slot_probe(4), 0);
    root.add_usb("3-2", "1199");
    EXPECT_EQ(module_slot_probe(4), 1);
    EXPECT_EQ(module_slot_probe(5), 0);
}

TEST(board, a_hexadecimal_attribute_is_absent_or_unreadable_or_a_number)
{
    temp_dir dir;
    unsigned value = 7;
    EXPECT_EQ(hex_file_read(dir.path("none").c_str(), &value), -1);
    dir.write("a", "\n");
    EXPECT_EQ(hex_file_read(dir.path("a").c_str(), &value), -2);
    EXPECT_EQ(value, 7U);
    dir.write("a", "0x168C\n");
    EXPECT_EQ(hex_file_read(dir.path("a").c_str(), &value), 0);
    EXPECT_EQ(value, 0x168CU);
}

// The table is filled once per process, so each case has a process of its own.
std::string scan_and_find(std::initializer_list<const char *> names)
{
    return run_in_child([&] {
               printf("%x", i2c_scan());
               for (const char *name : names)
                   printf(" %d", i2c_bus_by_name(name));
           })
        .output;
}

TEST(i2c, a_bus_is_found_by_a_name_that_occurs_once)
{
    fake_root root;
    root.dir.write("sys/class/i2c-dev/i2c-3/name", "front\nignored\n");
    root.dir.write("sys/class/i2c-dev/i2c-17/device/name", "back\n");
    root.dir.write("sys/class/i2c-dev/i2c-4/name", "twin\n");
    root.dir.write("sys/class/i2c-dev/i2c-5/name", "twin\n");
    root.dir.write("sys/class/i2c-dev/other/name", "odd\n");
    root.dir.make_dir("sys/class/i2c-dev/i2c-6");
    EXPECT_EQ(scan_and_find({ "front", "back", "twin", "odd", "none", "" }), "0 3 17 -4 -1 -1 -1");
}

TEST(i2c, a_machine_without_buses_is_told_once)
{
    fake_root root;
    EXPECT_EQ(scan_and_find({ "front" }), "ffffffff -1");
    child_result_t again = run_in_child([] { printf("%x %x", i2c_scan(), i2c_scan()); });
    EXPECT_NE(again.output.find('0'), std::string::npos);
}

TEST(i2c, the_table_holds_64_buses)
{
    fake_root root;
    for (int i = 0; i < 70; i++)
        root.dir.write("sys/class/i2c-dev/i2c-" + std::to_string(i) + "/name", "bus\n");
    EXPECT_EQ(scan_and_find({ "bus", "none" }), "0 -4 -1");
}

} // namespace
