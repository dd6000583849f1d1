// Kinds of interfaces by name, and which names a device can have.
#include "cfgmgr/network/cfgmgr_if_kind.h"
#include "tests/unit/cfgmgr_if_env.h"

#include <cstring>

namespace
{

struct kind_case_t {
    const char *name;
    uint32_t flags;
    uint32_t vlan_id;
};

class if_kind : public testing::TestWithParam<kind_case_t>
{
};

TEST_P(if_kind, is_told_by_the_name)
{
    cfgmgr_if_kind_t kind = cfgmgr_if_kind_of(GetParam().name);
    EXPECT_EQ(kind.flags, GetParam().flags);
    EXPECT_EQ(kind.vlan_id, GetParam().vlan_id);
}

constexpr kind_case_t kinds[] = {
    { "ge0_1", 0, 0 },
    { "eth1", 0, 0 },
    { "wwan0", 0, 0 },
    { "irb.5", IF_IRB, 5 },
    { "ge0_1.100", IF_SUBIF, 100 },
    { "loop2.10", 0, 0 },
    { "vap0", IF_VAP, 0 },
    { "vap1.7", IF_SUBIF, 7 },
    { "cellular0", IF_CELLULAR, 20 },
    { "cellular3", IF_CELLULAR, 23 },
    { "loopback1", IF_LOOPBACK, 0 },
    { "natpool4", IF_LOOPBACK, 0 },
    { "ppp1", IF_PPP, 0 },
    { "system", IF_SYSTEM | IF_LOOPBACK, 0 },
    { "system_3", IF_SYSTEM | IF_LOOPBACK, 0 },
    { "quorvix_system", IF_SYSTEM | IF_LOOPBACK, 0 },
    { "eth0", IF_MGMT, 0 },
    { "gre1", IF_GRE, 0 },
    { "gre10", IF_GRE, 0 },
    { "gretap0", 0, 0 },
    { "gretap1", 0, 0 },
    { "gre0", 0, 0 },
};
INSTANTIATE_TEST_SUITE_P(names, if_kind, testing::ValuesIn(kinds),
                         [](const auto &at) { return "row" + std::to_string(at.index); });

TEST(if_kinds, tag_of_an_internal_leg)
{
    EXPECT_EQ(cfgmgr_if_internal_tag("loop2.10"), 10u);
    EXPECT_EQ(cfgmgr_if_internal_tag("loop2"), 0u);
    EXPECT_EQ(cfgmgr_if_internal_tag("wwan0"), 0u);
}

TEST(if_kinds, a_port_is_what_is_nothing_else)
{
    cfgmgr_if_t interface {
    };
    for (uint32_t bit = 0; bit < 32; bit++) {
        interface.flags = 1u << bit;
        static constexpr uint32_t others[] = { 0x1, 0x2, 0x4, 0x200, 0x400, 0x800, 0x1000, 0x2000, 0x4000 };
        bool is_other = std::find(std::begin(others), std::end(others), interface.flags) != std::end(others);
        EXPECT_EQ(cfgmgr_if_is_physical(interface), !is_other) << std::hex << interface.flags;
    }
}

struct provision_case_t {
    const char *name;
    const char *personalities; // digits of those that can have it
};

class if_provisioning : public if_env, public testing::WithParamInterface<provision_case_t>
{
protected:
    if_provisioning()
    {
        EXPECT_EQ(cfgmgr_vpn_init(&daemon), 0);
        EXPECT_EQ(cfgmgr_vpn_find_or_create(&daemon, VPN_ID_MANAGEMENT, 0), 0);
        device().kernel.add(VPN_ID_TRANSPORT, "eth1");
        device().kernel.add(VPN_ID_MANAGEMENT, "eth2");
    }
};

TEST_P(if_provisioning, depends_on_the_personality)
{
    for (uint32_t personality = 0; personality <= PERSONALITY_PENDRY; personality++) {
        bool expected = strchr(GetParam().personalities, static_cast<char>('0' + personality)) != nullptr;
        EXPECT_EQ(cfgmgr_if_is_provisioned(GetParam().name, personality, nullptr), expected) << personality;
    }
}

constexpr provision_case_t provisionings[] = {
    { "irb", "" },
    { "irb.5", "01234567" },
    { "loopback1", "01234567" },
    { "natpool1", "01234567" },
    { "ppp1", "01234567" },
    { "gre1", "01234567" },
    { "system", "01234567" },
    { "quorvix_system", "01234567" },
    { "cellular0", "01234567" },
    { "vap0", "01234567" },
    { "loop2.10", "01234567" },
    { "eth0", "01234567" },
    { "eth1", "0134567" },
    { "eth1.7", "034567" }, // an edge device has no other use for these ports
    { "eth2", "357" },
    { "eth2.7", "357" },
    { "eth3", "" },
    { "ge0_1", "12" },
    { "ge0_1.100", "12" },
    { "ge0_8", "1" },
    { "ge1_0", "1" },
    { "ge300_0", "1" },
    { "ge0_70000", "1" },
    { "ge_0", "1" },
    { "ge0_", "1" },
    { "ge0/1", "1" },
    { "gretap1", "1" },
    { "gre0", "1" },
};
INSTANTIATE_TEST_SUITE_P(names, if_provisioning, testing::ValuesIn(provisionings),
                         [](const auto &at) { return "row" + std::to_string(at.index); });

TEST_F(if_provisioning, of_a_hub_tells_the_port)
{
    uint32_t port = 0;
    ASSERT_TRUE(cfgmgr_if_is_provisioned("ge0_3.9", PERSONALITY_TARN, &port));
    chmgr_port_id_t id;
    memcpy(&id, &port, sizeof id);
    EXPECT_EQ(id.slot, 0);
    EXPECT_EQ(id.port, 3);
}

TEST_F(if_provisioning, looks_at_32_characters)
{
    std::string name = std::string(30, 'x') + "et";
    EXPECT_TRUE(cfgmgr_if_is_provisioned((name + "h").c_str(), PERSONALITY_KREST, nullptr)) << "no \"eth\" is seen";
    EXPECT_FALSE(cfgmgr_if_is_provisioned((name.substr(1) + "h").c_str(), PERSONALITY_KREST, nullptr));
}

} // namespace
