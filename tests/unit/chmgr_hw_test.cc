// Hardware operations over a tree of attributes like that of the drivers, and without one.
#include "chmgr/chmgr_hw.h"

#include "chmgr/chmgr_api.h"
#include "chmgr/chmgr_hw_table.h"
#include "chmgr/chmgr_tables.h"
#include "tests/unit/chmgr_env.h"

#include <set>

namespace
{

const std::string CPLD = "/sys/bus/platform/devices/1e000000.cpld/";
const std::string SPI = "/sys/bus/spi/devices/spi0.";

class ChmgrHw : public chmgr_files_env
{
protected:
    int get(chmgr_hw_request_t request) { return chmgr_hw_get(request, &result); }
    int set(chmgr_hw_request_t request, long value)
    {
        request.value = value;
        return chmgr_hw_set(request);
    }

    chmgr_hw_result_t result;
};

class ChmgrHwReal : public ChmgrHw
{
protected:
    ChmgrHwReal()
    {
        chassis_set(CHMGR_CHASSIS_L1);
        put(CPLD + "rev", "0x12\n");
    }
};

class ChmgrHwVirtual : public ChmgrHw
{
protected:
    ChmgrHwVirtual() { chassis_set(CHMGR_CHASSIS_V1); }
};

TEST_F(ChmgrHwReal, single_values_come_from_their_attributes)
{
    struct row_t {
        chmgr_hw_request_t request;
        std::string path;
        const char *text;
        long expected;
    };
    const char *chip = "class/hwmon/hwmon3";
    const row_t rows[] = {
        { { .operation = CHMGR_HW_POE }, CPLD + "poe", "1\n", 1 },
        { { .operation = CHMGR_HW_SYSTEM_LED }, CPLD + "led_sys", "3", 3 },
        { { .operation = CHMGR_HW_SYSTEM_LED_SPI }, SPI + "28/led_sys", "4", 4 },
        { { .operation = CHMGR_HW_AUX_LED }, SPI + "28/led_aux", "5", 5 },
        { { .operation = CHMGR_HW_WLAN1_LED }, CPLD + "led_wlan1", "2", 2 },
        { { .operation = CHMGR_HW_SFP_LED, .slot = 0 }, SPI + "1/led_sfp0", "6", 6 },
        { { .operation = CHMGR_HW_SFP_LED, .slot = 1 }, SPI + "0/led_sfp0", "7", 7 },
        { { .operation = CHMGR_HW_SFP_LED, .slot = 2 }, CPLD + "led_sfp0", "8", 8 },
        { { .operation = CHMGR_HW_FAN_SPEED, .unit = 2 }, CPLD + "fan2_speed", "4200\n", 4200 },
        { { .operation = CHMGR_HW_FAN_SPEED, .unit = 3, .device = chip },
          "/sys/class/hwmon/hwmon3/fan3_input",
          "9",
          9 },
        { { .operation = CHMGR_HW_FAN_DUTY, .unit = 1, .device = chip }, "/sys/class/hwmon/hwmon3/pwm1", "255", 255 },
        { { .operation = CHMGR_HW_TEMPERATURE, .unit = 1, .device = chip },
          "/sys/class/hwmon/hwmon3/temp1_input",
          "-500",
          -500 },
        { { .operation = CHMGR_HW_PROCESSOR_POWER }, "/sys/niagara/misc/pwr_en", "1", 1 },
        { { .operation = CHMGR_HW_PIM_POWER, .unit = 1 }, CPLD + "pim1_pwr_en", "1", 1 },
    };
    for (const row_t &row : rows) {
        EXPECT_EQ(get(row.request), -1) << row.path;
        put(row.path, row.text);
        EXPECT_EQ(get(row.request), 0) << row.path;
        EXPECT_EQ(result.number, row.expected) << row.path;
    }
}

TEST_F(ChmgrHwReal, state_of_a_transceiver_is_its_bit_of_the_masks)
{
    put(SPI + "1/sfp_pres", "0x82\n");
    put(SPI + "1/sfp_tx_dis", "fe\n");
    put(SPI + "1/sfp_tx_flt", "0\n");
    put(SPI + "1/sfp_rx_los", "2\n");
    EXPECT_EQ(get({ .operation = CHMGR_HW_SFP_STATE, .slot = 0, .unit = 1 }), 0);
    EXPECT_EQ((std::vector{ result.sfp.present, result.sfp.tx_disabled, result.sfp.tx_fault, result.sfp.rx_lost }),
              (std::vector{ 1L, 1L, 0L, 1L }));
    EXPECT_EQ(get({ .operation = CHMGR_HW_SFP_PRESENCE, .slot = 0, .unit = 7 }), 0);
    EXPECT_EQ(result.sfp.present, 1);
    EXPECT_EQ(get({ .operation = CHMGR_HW_SFP_PRESENCE, .slot = 0, .unit = 64 }), 0);
    EXPECT_EQ(result.sfp.present, 0);
}

TEST_F(ChmgrHwReal, switching_one_transmitter_leaves_the_others)
{
    put(CPLD + "sfp_tx_dis", "0x0c\n");
    chmgr_hw_request_t port1{ .operation = CHMGR_HW_SFP_TX_DISABLE, .slot = 2, .unit = 1 };
    EXPECT_EQ(set(port1, 1), 0);
    EXPECT_EQ(content(CPLD + "sfp_tx_dis"), "0xe\n");
    port1.unit = 3;
    EXPECT_EQ(set(port1, 0), 0);
    EXPECT_EQ(content(CPLD + "sfp_tx_dis"), "0x6\n");
    port1.unit = 8;
    EXPECT_EQ(set(port1, 0), -1);
}

TEST_F(ChmgrHwReal, module_tells_presence_power_and_kind)
{
    put(CPLD + "pim1_pres_n", "0");
    put(CPLD + "pim1_pwr_ok", "1");
    put(CPLD + "pim1_pwr_flt", "0");
    put("/var/run/pim1_present", "");
    put(SPI + "0/rev", "1a");
    put(SPI + "0/board_rev", "9f");
    EXPECT_EQ(get({ .operation = CHMGR_HW_PIM_STATE, .slot = 1, .unit = 1 }), 0);
    const chmgr_hw_pim_t &pim = result.pim;
    EXPECT_EQ((std::vector{ pim.present, pim.power_ok, pim.power_fault, pim.was_present, pim.revision, pim.board }),
              (std::vector<long>{ 1, 1, 0, 1, 0x1a, CHMGR_PIM_8X1GE }));
}

TEST_F(ChmgrHwReal, storage_is_told_by_texts_and_sizes)
{
    put("/sys/class/mtd/mtd0/type", "nor\n");
    put("/sys/class/mtd/mtd0/size", "8388608\n");
    EXPECT_EQ(get({ .operation = CHMGR_HW_FLASH }), 0);
    EXPECT_STREQ(result.storage.type, "nor");
    EXPECT_EQ(result.storage.size, 8388608);

    const std::string stick = "/sys/bus/usb/devices/usb3/3-2/";
    put(stick + "manufacturer", "Maker\n");
    put(stick + "product", std::string(200, 'p'));
    put(stick + "serial", "");
    put("/sys/class/block/sdb/size", "11");
    put("/sys/class/block/sdc/size", "22");
    EXPECT_EQ(get({ .operation = CHMGR_HW_USB, .unit = 2 }), 0);
    EXPECT_STREQ(result.storage.type, "Maker");
    EXPECT_EQ(std::string(result.storage.name), std::string(CHMGR_HW_TEXT_SIZE - 1, 'p'));
    EXPECT_STREQ(result.storage.serial, "");
    EXPECT_EQ(result.storage.size, 22);
}

TEST_F(ChmgrHwReal, one_attribute_that_is_missing_or_no_number_fails_the_operation_but_not_the_others_values)
{
    for (const char *name : { "ps1_pres", "ps1_ok", "pwr1_ok", "pwr1_flt", "ps1_pwr_off" })
        put(CPLD + name, "1");
    for (const char *name : { "curr1_input", "in1_input", "power1_input", "fan1_input" })
        put(std::string("/sys/class/hwmon/hwmon0/") + name, "12000");
    chmgr_hw_request_t supply{ .operation = CHMGR_HW_POWER_SUPPLY, .unit = 1, .device = "class/hwmon/hwmon0" };
    EXPECT_EQ(get(supply), 0);
    put(CPLD + "ps1_ok", "broken");
    EXPECT_EQ(get(supply), -1);
    EXPECT_EQ(result.supply.input_ok, 0);
    EXPECT_EQ(result.supply.present, 1);
    EXPECT_EQ(result.supply.fan_rpm, 12000);
    supply.device = nullptr;
    EXPECT_EQ(get(supply), -1);
    EXPECT_EQ(result.supply.fan_rpm, 0);
}

TEST_F(ChmgrHwReal, diagnostics_are_bytes_up_to_one_page)
{
    const std::string path = CPLD + "i2c.0/i2c-0/i2c-3/3-0051/sfp_diag";
    put(path, std::string("a\0b", 3));
    EXPECT_EQ(get({ .operation = CHMGR_HW_SFP_DIAGNOSTICS, .bus = 3, .address = 0x51 }), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(result.diagnostics.bytes), result.diagnostics.length),
              std::string("a\0b", 3));
    put(path, std::string(1000, 'x'));
    EXPECT_EQ(get({ .operation = CHMGR_HW_SFP_DIAGNOSTICS, .bus = 3, .address = 0x51 }), 0);
    EXPECT_EQ(result.diagnostics.length, CHMGR_HW_DIAGNOSTICS_SIZE);
}

TEST_F(ChmgrHwReal, a_light_is_set_where_the_board_has_it_and_no_file_is_made)
{
    EXPECT_EQ(set({ .operation = CHMGR_HW_STATUS_LED }, 2), -1);
    EXPECT_FALSE(std::filesystem::exists(root + CPLD + "stat_led_ctl"));
    put(CPLD + "led_sys", "0\n");
    EXPECT_EQ(set({ .operation = CHMGR_HW_STATUS_LED }, 2), 0);
    EXPECT_EQ(content(CPLD + "led_sys"), "2\n");
    put(CPLD + "stat_led_ctl", "0\n");
    EXPECT_EQ(set({ .operation = CHMGR_HW_STATUS_LED }, 7), 0);
    EXPECT_EQ(content(CPLD + "stat_led_ctl"), "7\n");
    EXPECT_EQ(content(CPLD + "led_sys"), "2\n");
    EXPECT_EQ(set({ .operation = CHMGR_HW_BOARD }, 1), -1);       // nothing of it can be set
    EXPECT_EQ(set({ .operation = CHMGR_HW_CHASSIS_INIT }, 1), 0); // takes nothing
    EXPECT_EQ(content(CPLD + "rev"), "0x12\n");
}

TEST_F(ChmgrHwReal, no_record_of_pause_settings)
{
    chmgr_port_t port{};
    EXPECT_EQ(get({ .operation = CHMGR_HW_PORT_PAUSE, .port = &port }), -1);
}

TEST_F(ChmgrHwVirtual, everything_is_absent_even_if_the_machine_has_it)
{
    put(CPLD + "rev", "12");
    put("/sys/class/mtd/mtd0/size", "77");
    for (int operation = CHMGR_HW_CHASSIS_INIT; operation < CHMGR_HW_OPERATIONS; operation++) {
        if (operation == CHMGR_HW_PORT_STATE)
            continue;
        EXPECT_EQ(get({ .operation = static_cast<chmgr_hw_operation_t>(operation) }), 0) << operation;
        EXPECT_EQ(result.number, 0) << operation;
    }
    EXPECT_EQ(get({ .operation = CHMGR_HW_EMMC }), 0);
    EXPECT_STREQ(result.storage.name, "None");
    EXPECT_STREQ(result.storage.serial, "None");
    EXPECT_EQ(set({ .operation = CHMGR_HW_SYSTEM_LED }, 1), 0);
}

TEST_F(ChmgrHwVirtual, pause_settings_are_those_of_the_ports_record)
{
    chmgr_port_t port{};
    for (long value : { 3L, 1L, 2L, 0L }) {
        EXPECT_EQ(set({ .operation = CHMGR_HW_PORT_PAUSE, .port = &port }, value), 0);
        EXPECT_EQ(port.pause_rx, value & 1);
        EXPECT_EQ(port.pause_tx, value >> 1);
        EXPECT_EQ(get({ .operation = CHMGR_HW_PORT_PAUSE, .port = &port }), 0);
        EXPECT_EQ(result.number, value);
    }
}

TEST_F(ChmgrHwVirtual, module_of_a_simulated_chassis_is_what_its_file_says)
{
    struct row_t {
        uint32_t chassis, slot;
        const char *text;
        long board;
    };
    for (const row_t &row : std::initializer_list<row_t>{
             { CHMGR_CHASSIS_L1, 0, "8x1GE\n", 159 },
             { CHMGR_CHASSIS_L1, 1, "2x10GE", 150 },
             { CHMGR_CHASSIS_L1, 1, "4x1GE", 0 },
             { CHMGR_CHASSIS_L1, 1, "8x1GE ", 0 },
             { CHMGR_CHASSIS_L1, 2, "8x1GE", 0 },
             { CHMGR_CHASSIS_M1, 0, "8x1GE", 0 },
         }) {
        chassis_set(row.chassis);
        put("/etc/default/pim" + std::to_string(row.slot), row.text);
        EXPECT_EQ(get({ .operation = CHMGR_HW_PIM_STATE, .slot = row.slot, .unit = row.slot }), 0);
        EXPECT_EQ(result.pim.board, row.board) << row.text;
    }
}

TEST_F(ChmgrHw, without_a_block_nothing_answers)
{
    chmgr_port_t port{};
    EXPECT_EQ(get({ .operation = CHMGR_HW_POE }), -1);
    EXPECT_EQ(set({ .operation = CHMGR_HW_POE }, 1), -1);
    EXPECT_EQ(chmgr_port_state_set(&port, false), -1);
    EXPECT_EQ(port.admin_state, CHMGR_ADMIN_UP);
    ip_addr_t address{};
    chmgr_system_ip_set(address);
    chmgr_host_name_set("name");
}

TEST_F(ChmgrHw, state_of_a_port_lives_in_its_record_on_every_chassis)
{
    for (uint32_t type : { CHMGR_CHASSIS_V1, CHMGR_CHASSIS_S1 }) {
        chassis_set(type);
        put(CPLD + "rev", "1");
        chmgr_port_t &port = chassis().block->slots[0].ports[3];
        EXPECT_EQ(chmgr_port_state_set(&port, false), 0);
        EXPECT_EQ(port.admin_state, CHMGR_ADMIN_DOWN);
        EXPECT_EQ(chmgr_port_state_set(&port, true), 0);
        EXPECT_EQ(port.admin_state, CHMGR_ADMIN_UP);
    }
}

TEST_F(ChmgrHw, name_and_addresses_of_the_device_are_written_where_others_read_them)
{
    chassis_set(CHMGR_CHASSIS_V1);
    ip_addr_t system{}, management{};
    ip_addr_set_v4(&system, 0x0a000001);
    ip_addr_set_v4(&management, 0x0a000002);
    chmgr_system_ip_set(system);
    chmgr_quorvix_system_ip_set(management);
    chmgr_host_name_set(std::string(100, 'h').c_str());
    const char *bytes = reinterpret_cast<const char *>(chassis().block.get());
    EXPECT_EQ(memcmp(bytes + 21408, &system, sizeof system), 0);
    EXPECT_EQ(memcmp(bytes + 21432, &management, sizeof management), 0);
    EXPECT_EQ(std::string(bytes + 21372), std::string(32, 'h'));
}

TEST(ChmgrTables, rows_of_an_operation_stand_together)
{
    std::set<int> closed;
    int current = -1;
    for (const chmgr_hw_attribute_t &row : chmgr_hw_attributes()) {
        bool is_first = row.operation != current;
        EXPECT_TRUE(!is_first || closed.insert(row.operation).second) << row.name;
        current = row.operation;
        EXPECT_LT(row.member, sizeof(chmgr_hw_result_t));
    }
    for (int without : { CHMGR_HW_PORT_PAUSE, CHMGR_HW_CHASSIS_INIT, CHMGR_HW_PORT_STATE, CHMGR_HW_PORT_RESET })
        EXPECT_TRUE(closed.insert(without).second);
    EXPECT_EQ(closed.size(), size_t{ CHMGR_HW_OPERATIONS });
}

TEST(ChmgrTables, transceivers_have_names)
{
    EXPECT_STREQ(chmgr_transceiver_name(CHMGR_TRANSCEIVER_1G_CX), "1G Fiber CX");
    EXPECT_STREQ(chmgr_transceiver_name(CHMGR_TRANSCEIVER_1G_COPPER), "1G Copper");
    EXPECT_STREQ(chmgr_transceiver_name(CHMGR_TRANSCEIVER_10G_SR), "10G Fiber SR");
    EXPECT_STREQ(chmgr_transceiver_name(8), "NA");
    EXPECT_STREQ(chmgr_transceiver_name(UINT32_MAX), "NA");
}

} // namespace
