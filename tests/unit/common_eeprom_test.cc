// EEPROM devices and their TLV chain, over a file that stands for the device.
#include "common/tip_eeprom.h"
#include "common/tip_root.h"
#include "tests/harness/temp_dir.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>

namespace
{

struct tlv_image_t {
    uint16_t type;
    uint8_t instance;
    std::string value;
    int length_off = 0; // by how much the length field is wrong
    int sum_off = 0;    // by how much the checksum is wrong
};

std::string encode(const tlv_image_t &tlv)
{
    auto length = static_cast<uint16_t>(8 + tlv.value.size() + static_cast<size_t>(tlv.length_off));
    std::string bytes = { static_cast<char>(tlv.type >> 8),
                          static_cast<char>(tlv.type),
                          static_cast<char>(length >> 8),
                          static_cast<char>(length),
                          '\x5a',
                          static_cast<char>(tlv.instance) };
    uint16_t sum = 0;
    for (char c : bytes + tlv.value)
        sum = static_cast<uint16_t>(sum + static_cast<uint8_t>(c));
    sum = static_cast<uint16_t>(sum + tlv.sum_off);
    bytes += static_cast<char>(sum >> 8);
    bytes += static_cast<char>(sum);
    return bytes + tlv.value;
}

class eeprom : public testing::Test
{
protected:
    // A device that holds bytes, with its chain starting at start.
    eeprom_ptr device_with(const std::string &bytes, uint32_t start = 0)
    {
        dir.write("eeprom", bytes);
        eeprom_ptr device = eeprom_new(EEPROM_KIND_PATH, dir.path("eeprom").c_str(), 0, start);
        EXPECT_EQ(eeprom_open(device.get()), 0);
        return device;
    }

    temp_dir dir;
    uint8_t buffer[EEPROM_TLV_MAX];
};

TEST_F(eeprom, path_follows_kind_and_bus)
{
    struct row_t {
        int kind, bus;
        const char *given, *path;
    };
    const row_t rows[] = {
        { 0, 0, nullptr, "/sys/bus/i2c/devices/3-0054/eeprom" },
        { 1, 0, nullptr, "/sys/bus/i2c/devices/6-0054/eeprom" },
        { 2, 0, nullptr, "/sys/bus/i2c/devices/17-0054/eeprom" },
        { 2, 5, nullptr, "/sys/bus/i2c/devices/5-0054/eeprom" },
        { 3, 0, "/dev/x", "/dev/x" },
        { 3, 0, nullptr, nullptr },
        { 4, 0, "/dev/x", nullptr },
        { -1, 0, "/dev/x", nullptr },
        { 0, -1, nullptr, nullptr },
    };
    for (const row_t &row : rows) {
        eeprom_ptr device = eeprom_new(row.kind, row.given, row.bus, 0);
        ASSERT_EQ(device != nullptr, row.path != nullptr) << row.kind << " " << row.bus;
        if (device == nullptr)
            continue;
        EXPECT_STREQ(device->path, row.path);
        EXPECT_EQ(device->fd.get(), -1);
    }
    EXPECT_EQ(eeprom_new(EEPROM_KIND_PATH, std::string(64, 'x').c_str(), 0, 0), nullptr);
}

TEST_F(eeprom, opening_tells_what_is_wrong)
{
    EXPECT_EQ(eeprom_open(nullptr), -1);
    EXPECT_EQ(eeprom_close(nullptr), -1);
    EXPECT_EQ(eeprom_open(eeprom_new(EEPROM_KIND_PATH, "", 0, 0).get()), EEPROM_NO_PATH);
    EXPECT_EQ(eeprom_open(eeprom_new(EEPROM_KIND_PATH, dir.path("none").c_str(), 0, 0).get()), ENOENT);
}

TEST_F(eeprom, bytes_are_written_and_read_at_an_offset)
{
    eeprom_ptr device = device_with("0123456789");
    EXPECT_EQ(eeprom_write(device.get(), 4, "AB", 2), 2);
    EXPECT_EQ(eeprom_read(device.get(), 3, buffer, 4), 4);
    EXPECT_EQ(memcmp(buffer, "3AB6", 4), 0);
    EXPECT_EQ(eeprom_close(device.get()), 0);
    EXPECT_EQ(eeprom_read(device.get(), 3, buffer, 4), -1);
    EXPECT_EQ(eeprom_write(device.get(), 3, "x", 1), -1);
    EXPECT_EQ(eeprom_read(nullptr, 0, buffer, 1), -1);
    EXPECT_EQ(eeprom_write(nullptr, 0, buffer, 1), -1);
}

TEST_F(eeprom, a_good_record_is_read_in_host_byte_order)
{
    eeprom_ptr device = device_with("pad" + encode({ 0x0102, 9, "\xff\xfe value" }));
    ASSERT_EQ(eeprom_tlv_read(device.get(), 3, buffer, sizeof buffer), 16);
    eeprom_tlv_t header;
    memcpy(&header, buffer, sizeof header);
    EXPECT_EQ(header.type, 0x0102);
    EXPECT_EQ(header.length, 16);
    EXPECT_EQ(header.instance, 9);
    EXPECT_EQ(memcmp(buffer + 8, "\xff\xfe value", 8), 0);
}

TEST_F(eeprom, a_record_of_the_largest_and_the_smallest_length_is_read)
{
    eeprom_ptr device = device_with(encode({ 1, 0, std::string(248, '\xff') }) + encode({ 2, 0, "" }));
    EXPECT_EQ(eeprom_tlv_read(device.get(), 0, buffer, sizeof buffer), 256);
    EXPECT_EQ(eeprom_tlv_read(device.get(), 256, buffer, 8), 8);
}

TEST_F(eeprom, a_record_that_is_not_good_is_refused_and_leaves_the_buffer)
{
    struct row_t {
        const char *what;
        std::string bytes;
        int buffer_length;
    };
    const row_t rows[] = {
        { "sum too large", encode({ 1, 0, "value", 0, 1 }), 256 },
        { "sum too small", encode({ 1, 0, "value", 0, -1 }), 256 },
        { "swapped bytes of the sum", encode({ 1, 0, "value", 0, 0x0100 }), 256 },
        { "length 7", encode({ 1, 0, "", -1, 0 }), 256 },
        { "length 257", encode({ 1, 0, std::string(249, 'x') }), 512 },
        { "value cut off", encode({ 1, 0, "value" }).substr(0, 12), 256 },
        { "header cut off", encode({ 1, 0, "value" }).substr(0, 7), 256 },
        { "end of chain", encode({ EEPROM_TLV_END, 0, "" }), 256 },
        { "buffer below the header", encode({ 1, 0, "value" }), 7 },
        { "buffer below the record", encode({ 1, 0, "value" }), 12 },
        { "nothing", "", 256 },
    };
    for (const row_t &row : rows) {
        eeprom_ptr device = device_with(row.bytes);
        memset(buffer, 0xEE, sizeof buffer);
        EXPECT_EQ(eeprom_tlv_read(device.get(), 0, buffer, row.buffer_length), -1) << row.what;
        EXPECT_EQ(buffer[0], 0xEE) << row.what;
    }
}

TEST_F(eeprom, a_record_is_found_by_type_and_instance)
{
    std::string chain = encode({ 1, 1, "one" }) + encode({ 2, 1, "two" }) + encode({ 2, 2, "twotwo" }) +
                        encode({ EEPROM_TLV_END, 0, "" }) + encode({ 7, 0, "behind" });
    eeprom_ptr device = device_with("xxxx" + chain, 4);
    struct row_t {
        uint16_t type;
        uint8_t instance;
        uint32_t result;
    };
    const row_t rows[] = {
        { 1, 0, 4 },
        { 2, 0, 15 },
        { 2, 1, 15 },
        { 2, 2, 26 },
        { 2, 3, 40 | EEPROM_NOT_FOUND },
        { 7, 0, 40 | EEPROM_NOT_FOUND },
    };
    for (const row_t &row : rows)
        EXPECT_EQ(eeprom_tlv_find(device.get(), row.type, row.instance, buffer, sizeof buffer), row.result)
            << row.type << " " << int{ row.instance };
    ASSERT_EQ(eeprom_tlv_find(device.get(), 2, 2, buffer, sizeof buffer), 26U);
    EXPECT_EQ(memcmp(buffer + 8, "twotwo", 6), 0);
    EXPECT_EQ(eeprom_tlv_find(nullptr, 1, 0, buffer, sizeof buffer), EEPROM_NOT_FOUND);
}

TEST_F(eeprom, a_damaged_record_ends_the_search)
{
    eeprom_ptr device = device_with(encode({ 1, 0, "bad", 0, 5 }) + encode({ 2, 0, "good" }));
    EXPECT_EQ(eeprom_tlv_find(device.get(), 2, 0, buffer, sizeof buffer), EEPROM_NOT_FOUND);
}

} // namespace
