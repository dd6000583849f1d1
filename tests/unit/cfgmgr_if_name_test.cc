// Names of interfaces over the blocks of real chassis models.
#include "cfgmgr/network/cfgmgr_if_name.h"

#include "chmgr/chmgr_tables.h"
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_env.h"

#include <set>

namespace
{

class IfName : public testing::Test
{
protected:
    IfName() { device() = {}; }
    ~IfName() override { device() = {}; }
    IfName(const IfName &) = delete;
    IfName &operator=(const IfName &) = delete;

    static constexpr size_t SIZE = 33;
    char out[SIZE] = "";
    chmgr_port_t *port = nullptr;

    std::string text(const char *result) { return result != nullptr ? result : std::string("null ") + out; }
    std::string kernel(const char *name) { return text(cfgmgr_if_cli_to_kernel_name(name, out, SIZE, &port)); }
    std::string cli(const char *name) { return text(cfgmgr_if_kernel_to_cli_name(name, out, SIZE, &port)); }
    std::string member(const char *name, uint16_t vlan)
    {
        return text(cfgmgr_if_bridge_port_name(name, out, SIZE, vlan, &port));
    }
};

struct row_t {
    const char *chassis;
    const char *name;
    const char *expected; // "null NAME": refused, with the name copied
};

TEST_F(IfName, operators_name_becomes_the_kernels_only_for_what_the_chassis_has)
{
    for (const row_t &row : std::initializer_list<row_t>{
             { "krest-V1", "ge0/0", "ge0_0" },
             { "krest-V1", "ge0/7.4094", "ge0_7.4094" },
             { "krest-V1", "ge0/0.0", "ge0_0.0" },
             { "krest-V1", "ge0/8", "null ge0/8" },
             { "krest-V1", "ge5/0", "null ge5/0" },
             { "krest-V1", "ge00/0", "null ge00/0" },
             { "krest-V1", "ge0/0x", "null ge0/0x" },
             { "krest-V1", "xge0/0", "null xge0/0" },
             { "krest-V1", "ge4294967296/0", "null ge4294967296/0" },
             { "krest-V1", "ge0/0.05", "null ge0/0.05" },
             { "krest-V1", "ge0/0.", "null ge0/0." },
             { "krest-V1", "ge0/0.5.6", "null ge0/0.5.6" },
             { "krest-V1", "ge0/0.5a", "null ge0/0.5a" },
             { "krest-V1", "ge0/0.99999999999999999999", "null ge0/0.99999999999999999999" },
             { "krest-V1", "10ge0/0", "null 10ge0/0" },
             { "krest-L1", "10ge1/1.7", "ge1_1.7" },
             { "krest-L1", "ge1/1", "null ge1/1" },
             { "krest-L1", "ge2/3", "ge2_3" },
             { "krest-V1", "irb0", "irb.0" },
             { "krest-V1", "irb63", "irb.63" },
             { "krest-V1", "irb64", "null irb64" },
             { "krest-V1", "irb5.6", "null irb5.6" },
             { "krest-V1", "irb99999999999", "null irb99999999999" },
             { "krest-V1", "irb", "irb" },
             { "krest-V1", "eth0", "eth0" },
             { "krest-V1", "bridge", "bridge" },
             { "krest-V1", "loopback1", "loopback1" },
         }) {
        device_chassis_set(row.chassis);
        EXPECT_EQ(kernel(row.name), row.expected) << row.chassis;
        bool is_port = *row.expected == 'g';
        EXPECT_EQ(port != nullptr, is_port) << row.name;
    }
}

TEST_F(IfName, eth0_is_the_first_port_only_where_the_chassis_says_so)
{
    device_chassis_set("krest-S2");
    EXPECT_EQ(kernel("eth0"), "eth0");
    device().chassis->eth0_is_ge0_0 = 1;
    EXPECT_EQ(kernel("eth0"), "ge0_0");
    EXPECT_EQ(port, &device().chassis->slots[0].ports[0]);
    EXPECT_EQ(kernel("eth0.5"), "eth0.5");
    EXPECT_EQ(kernel("eth1"), "eth1");
    device_chassis_set("krest-S3");
    device().chassis->eth0_is_ge0_0 = 1;
    EXPECT_EQ(kernel("eth0"), "eth0");
}

TEST_F(IfName, without_a_chassis_names_of_ports_are_copied_and_nothing_is_found)
{
    EXPECT_EQ(kernel("ge0/0.05"), "ge0/0.05");
    EXPECT_EQ(kernel("irb7"), "irb.7");
    EXPECT_EQ(cli("ge0_0"), "ge0_0");
    EXPECT_EQ(cfgmgr_if_first_port(), nullptr);
    EXPECT_EQ(cfgmgr_chassis_port_by_id(0), nullptr);
    EXPECT_EQ(cfgmgr_chassis_port_by_hw(0, 0), nullptr);
    EXPECT_FALSE(cfgmgr_if_is_in_port_table("ge0/0"));
}

TEST_F(IfName, kernels_name_becomes_the_operators_and_unknown_ones_stay)
{
    device_chassis_set("krest-L1");
    for (const auto &[name, expected] : std::initializer_list<std::pair<const char *, const char *>>{
             { "ge0_0", "ge0/0" },
             { "ge1_0.12", "10ge1/0.12" },
             { "ge1_2", "ge1_2" },
             { "ge0_0x", "ge0_0x" },
             { "irb.5", "irb5" },
             { "irb.5x", "irb.5x" },
             { "eth0", "eth0" },
         })
        EXPECT_EQ(cli(name), expected);
    for (chmgr_port_t *p = cfgmgr_if_first_port(); p != nullptr; p = cfgmgr_if_next_port(p)) {
        EXPECT_EQ(cli(kernel(p->cli_name).c_str()), p->cli_name);
        EXPECT_EQ(port, p);
    }
}

TEST_F(IfName, a_name_that_does_not_fit_is_refused_and_cut_nowhere_else)
{
    device_chassis_set("krest-V1");
    char small[6];
    EXPECT_EQ(cfgmgr_if_cli_to_kernel_name("ge0/0.5", small, sizeof small, nullptr), nullptr);
    EXPECT_STREQ(small, "ge0/0");
    EXPECT_STREQ(cfgmgr_if_cli_to_kernel_name("ge0/0", small, sizeof small, nullptr), "ge0_0");
    EXPECT_EQ(cfgmgr_if_kernel_to_cli_name("loopback", small, sizeof small, nullptr), nullptr);
    EXPECT_EQ(cfgmgr_if_bridge_port_name("ge0/0", small, sizeof small, 5, nullptr), nullptr);
    memset(device().chassis->slots[0].ports[0].cli_name, 'g', CHMGR_PORT_NAME_SIZE); // never terminated
    EXPECT_EQ(kernel("ge0/0"), "null ge0/0");
}

TEST_F(IfName, bridge_member_carries_the_tag_of_the_bridge)
{
    device_chassis_set("krest-V1");
    struct member_row_t {
        const char *name;
        uint16_t vlan;
        const char *expected;
    };
    for (const member_row_t &row : std::initializer_list<member_row_t>{
             { "ge0/1", 0, "ge0_1" },
             { "ge0/1", 1, "ge0_1.1" },
             { "ge0/1", 4095, "ge0_1.4095" },
             { "ge0/1", 4096, "ge0_1" },
             { "ge0/1", 65535, "ge0_1" },
             { "ge0/1.5", 5, "null ge0/1.5" },
             { "ge3/1", 5, "null ge3/1" },
             { "eth0", 5, "null eth0" },
             { "vap2", 5, "vap2" },
         })
        EXPECT_EQ(member(row.name, row.vlan), row.expected);
}

TEST_F(IfName, parts_of_names)
{
    EXPECT_STREQ(cfgmgr_if_base_name("ge0/0.5.6", out, SIZE), "ge0/0");
    EXPECT_TRUE(cfgmgr_if_is_tagged("ge0/0.5"));
    EXPECT_FALSE(cfgmgr_if_is_tagged("ge0/0."));
    EXPECT_FALSE(cfgmgr_if_is_tagged("ge0/0"));
    EXPECT_EQ(cfgmgr_if_irb_number("irb63"), 63);
    EXPECT_EQ(cfgmgr_if_irb_number("irb"), -1);
    EXPECT_EQ(cfgmgr_if_irb_number("irb-1"), -1);
    EXPECT_EQ(cfgmgr_if_irb_bridge("irb.7"), 7);
    EXPECT_EQ(cfgmgr_if_irb_bridge("irb7"), -1);
    EXPECT_STREQ(cfgmgr_if_sim_name("ge1_2.30", out, SIZE), "sim1_2.30");
    EXPECT_STREQ(cfgmgr_if_sim_name("ge1_2", out, SIZE), "sim1_2");
    EXPECT_EQ(cfgmgr_if_sim_name("eth0", out, SIZE), nullptr);
}

TEST_F(IfName, tag_of_a_ports_name_and_of_nothing_else)
{
    for (const auto &[name, expected] : std::initializer_list<std::pair<const char *, int>>{
             { "ge0/1.5", 5 }, { "10ge1/0.4000", 4000 }, { "ge0/1", 0 }, { "ge0/1.x", 0 }, { "gex.7", 0 } }) {
        uint32_t tag = 77;
        EXPECT_EQ(cfgmgr_if_sub_tag(name, &tag), 0);
        EXPECT_EQ(tag, static_cast<uint32_t>(expected)) << name;
    }
    uint32_t tag = 77;
    EXPECT_EQ(cfgmgr_if_sub_tag("eth0.5", &tag), -1);
    EXPECT_EQ(tag, 77U);
}

TEST_F(IfName, port_table_tells_what_could_be_plugged_in)
{
    struct table_row_t {
        const char *chassis;
        const char *name;
        bool is_in;
    };
    for (const table_row_t &row : std::initializer_list<table_row_t>{
             { "krest-V1", "ge0/7", true },     { "krest-V1", "ge0/8", false },   { "krest-V1", "ge5/0", false },
             { "krest-V1", "ge1/0", false },    { "krest-S1", "ge0/4", true },    { "krest-S1", "ge0/5", false },
             { "krest-S1", "ge1/0", false },    { "krest-M1", "ge1/0", false },   { "krest-L1", "ge0/7", true },
             { "krest-L1", "10ge0/1", true },   { "krest-L1", "10ge0/2", false }, { "krest-L1", "ge2/3", true },
             { "krest-L1", "ge2/4", false },    { "krest-L1", "10ge2/0", false }, { "krest-L1", "ge00/1", false },
             { "krest-V1", "ge0/0.5", false },  { "krest-V1", "xge0/0", false },  { "krest-V1", "loopback3", true },
             { "krest-V1", "natpool1", true },  { "krest-V1", "ppp1", true },     { "krest-V1", "gre7", true },
             { "krest-V1", "gretap0", false },  { "krest-V1", "gre0", false },    { "krest-V1", "system", true },
             { "krest-V1", "vap0", true },      { "krest-V1", "eth0", true },     { "krest-V1", "eth1", false },
             { "krest-V1", "cellular0", true }, { "krest-V1", "irb5", false },
         }) {
        device_chassis_set(row.chassis);
        EXPECT_EQ(cfgmgr_if_is_in_port_table(row.name), row.is_in) << row.chassis << " " << row.name;
    }
}

TEST_F(IfName, walk_meets_each_port_once_even_when_the_block_lies_about_counts)
{
    for (const auto &[model, count] : std::initializer_list<std::pair<const char *, size_t>>{
             { "krest-V1", 8 }, { "krest-L1", 14 }, { "krest-S1", 5 }, { "software", 0 } }) {
        device_chassis_set(model);
        std::set<const chmgr_port_t *> ports;
        for (chmgr_port_t *p = cfgmgr_if_first_port(); p != nullptr; p = cfgmgr_if_next_port(p))
            EXPECT_TRUE(ports.insert(p).second);
        EXPECT_EQ(ports.size(), count) << model;
    }
    device().chassis->num_slots = UINT32_MAX;
    for (chmgr_slot_t &slot : device().chassis->slots)
        slot.num_ports = UINT16_MAX;
    size_t count = 0;
    for (chmgr_port_t *p = cfgmgr_if_first_port(); p != nullptr; p = cfgmgr_if_next_port(p))
        count++;
    EXPECT_EQ(count, MAX_SLOTS * MAX_PORTS_PER_SLOT);
}

TEST_F(IfName, ports_are_found_by_id_and_by_their_place_in_the_forwarding_hardware)
{
    device_chassis_set("krest-L1");
    for (chmgr_port_t *p = cfgmgr_if_first_port(); p != nullptr; p = cfgmgr_if_next_port(p)) {
        uint32_t id;
        memcpy(&id, &p->id, sizeof id);
        EXPECT_EQ(cfgmgr_chassis_port_by_id(id), p);
        EXPECT_EQ(cfgmgr_chassis_port_by_id(id | 1), nullptr);
        EXPECT_EQ(cfgmgr_chassis_port_by_hw(p->hw_interface_id, p->hw_port_index), p);
    }
    EXPECT_EQ(cfgmgr_chassis_port_by_id(0x00080000), nullptr);
    EXPECT_EQ(cfgmgr_chassis_port_by_hw(9, 7), nullptr);
}

TEST_F(IfName, place_outside_of_the_map_is_fatal)
{
    EXPECT_NE(
        run_in_child([] { (void)cfgmgr_chassis_port_by_hw(10, 0); }).output.find("hw_interface_id < MAX_HW_INTERFACES"),
        std::string::npos);
    expect_assertion([] { (void)cfgmgr_chassis_port_by_hw(10, 0); }, "`hw_interface_id < MAX_HW_INTERFACES'");
    expect_assertion([] { (void)cfgmgr_chassis_port_by_hw(0, 8); }, "`hw_port_index < MAX_PORTS_PER_HW_INTERFACE'");
}

TEST_F(IfName, mac_of_a_port_is_six_bytes_or_zero)
{
    chmgr_port_t with{}, without{};
    with.mac = 0x024300000105;
    uint8_t mac[6];
    cfgmgr_chassis_port_mac(&with, mac);
    EXPECT_EQ(std::vector<uint8_t>(mac, mac + 6), (std::vector<uint8_t>{ 2, 0x43, 0, 0, 1, 5 }));
    for (const chmgr_port_t *none :
         { static_cast<const chmgr_port_t *>(&without), static_cast<const chmgr_port_t *>(nullptr) }) {
        cfgmgr_chassis_port_mac(none, mac);
        EXPECT_EQ(std::vector<uint8_t>(mac, mac + 6), std::vector<uint8_t>(6));
    }
}

} // namespace
