// The chassis models against the tables of chassis and modules.
#include "chmgr/chmgr_tables.h"
#include "platform/chassis_model.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <set>

namespace
{

TEST(ChassisModel, every_model_holds_only_modules_that_its_slots_allow)
{
    for (const chassis_model_t &model : chassis_models()) {
        const chmgr_chassis_row_t &row = chmgr_chassis()[model.chassis_type];
        for (uint32_t slot = 0; slot < MAX_SLOTS; slot++) {
            bool is_used = model.modules[slot] != 0;
            EXPECT_EQ(is_used, slot < row.num_slots) << model.name;
            EXPECT_TRUE(!is_used || (row.allowed_modules[slot] & 1U << model.modules[slot])) << model.name;
        }
    }
}

// On a chassis of one slot the mask behind it is that of the wireless modules.
TEST(ChassisModel, wireless_modules_are_those_that_the_tables_allow)
{
    for (const chassis_model_t &model : chassis_models()) {
        uint32_t mask = chmgr_chassis()[model.chassis_type].allowed_modules[1];
        bool is_told = model.chassis_type != CHMGR_CHASSIS_V1 && model.chassis_type != CHMGR_CHASSIS_L1;
        if (is_told) {
            EXPECT_EQ((model.extensions & CHASSIS_MODEM) != 0, (mask & 1 << 11) != 0) << model.name;
            EXPECT_EQ((model.extensions & CHASSIS_WLAN) != 0, (mask & 1 << 12) != 0) << model.name;
        }
    }
    std::set<uint64_t> macs = { chassis_mgmt_mac(7) };
    for (const chassis_device_t &device : chassis_extension_devices(CHASSIS_MODEM | CHASSIS_WLAN, 7))
        EXPECT_TRUE(macs.insert(device.mac).second) << device.name;
    EXPECT_EQ(macs.size(), 7U);
}

TEST(ChassisModel, ports_of_no_slot_begin_with_the_management_port)
{
    auto names_of = [](const char *model) {
        std::string names;
        std::set<uint64_t> macs;
        for (const chassis_device_t &port : chassis_host_ports(*chassis_model_find(model), 7)) {
            names += port.name + " ";
            EXPECT_TRUE(macs.insert(port.mac).second) << port.name;
            EXPECT_EQ(port.mac == chassis_mgmt_mac(7), port.name == "eth0");
        }
        return names;
    };
    EXPECT_EQ(names_of("software"), "eth0 eth1 eth2 ");
    EXPECT_EQ(names_of("krest-V1"), "eth0 ");
    EXPECT_EQ(names_of("krest-S1"), "");
}

TEST(ChassisModel, ports_of_all_models_are_told_apart_by_name_mac_and_place)
{
    struct row_t {
        const char *model;
        size_t ports;
    };
    for (const row_t &row : std::initializer_list<row_t>{ { "krest-M1", 8 },
                                                          { "krest-L1", 14 },
                                                          { "krest-S1", 5 },
                                                          { "krest-S2", 5 },
                                                          { "krest-V1", 8 },
                                                          { "software", 0 } }) {
        auto block = std::make_unique<chmgr_block_t>();
        chassis_fill(*chassis_model_find(row.model), 7, block.get());
        std::set<std::string> names;
        std::set<uint64_t> macs = { chassis_mgmt_mac(7), chassis_mgmt_mac(8) };
        std::set<std::pair<int, int>> places;
        for (uint32_t slot = 0; slot < block->num_slots; slot++) {
            for (uint32_t i = 0; i < block->slots[slot].num_ports; i++) {
                const chmgr_port_t &port = block->slots[slot].ports[i];
                names.insert(port.kernel_name);
                macs.insert(port.mac);
                places.insert({ port.hw_interface_id, port.hw_port_index });
                uint32_t id;
                memcpy(&id, &port.id, sizeof id);
                EXPECT_EQ(block->hw_port_map[port.hw_interface_id * 8 + port.hw_port_index], id);
            }
        }
        EXPECT_EQ(names.size(), row.ports) << row.model;
        EXPECT_EQ(macs.size(), row.ports + 2) << row.model;
        EXPECT_EQ(places.size(), row.ports) << row.model;
    }
}

TEST(ChassisModel, ten_gigabit_ports_say_so_to_the_operator_only)
{
    auto block = std::make_unique<chmgr_block_t>();
    chassis_fill(*chassis_model_find("krest-L1"), 0, block.get());
    EXPECT_STREQ(block->slots[1].ports[1].cli_name, "10ge1/1");
    EXPECT_STREQ(block->slots[1].ports[1].kernel_name, "ge1_1");
    EXPECT_EQ(mac_number_text(block->slots[1].ports[1].mac), "02:43:00:00:01:01");
}

TEST(ChassisModel, publishing_again_keeps_what_others_have_written_but_another_model_replaces_it)
{
    auto filled = std::make_unique<chmgr_block_t>(), shared = std::make_unique<chmgr_block_t>();
    const chassis_model_t &v1 = *chassis_model_find("krest-V1"), &s2 = *chassis_model_find("krest-S2");
    chassis_fill(v1, 0, filled.get());
    chassis_publish(v1, *filled, shared.get());
    EXPECT_EQ(shared->chassis_type, CHMGR_CHASSIS_V1);
    EXPECT_EQ(shared->has_mgmt_port, 1);
    shared->slots[0].ports[2].admin_state = CHMGR_ADMIN_UP;
    chassis_publish(v1, *filled, shared.get());
    EXPECT_EQ(shared->slots[0].ports[2].admin_state, CHMGR_ADMIN_UP);
    auto other = std::make_unique<chmgr_block_t>();
    chassis_fill(s2, 0, other.get());
    chassis_publish(s2, *other, shared.get());
    EXPECT_EQ(shared->chassis_type, CHMGR_CHASSIS_S2);
    EXPECT_EQ(shared->slots[0].num_ports, 5);
    EXPECT_EQ(shared->slots[0].ports[2].admin_state, CHMGR_ADMIN_DOWN);
}

} // namespace
