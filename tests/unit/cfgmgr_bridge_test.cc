// Bridges: what each kind of member costs the kernel and in which order, and the handlers of the configuration.
#include "cfgmgr/network/cfgmgr_bridge.h"

#include "cfgmgr/network/cfgmgr_config_bridge.h"
#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_config_if_env.h"
#include "tests/unit/cfgmgr_if_env.h"
#include "yang/corvane-bridge.h"

namespace
{

using names_t = std::vector<std::string>;

class bridges : public if_env
{
protected:
    bridges() { start_with_vpns(); }

    cfgmgr_bridge_t *bridge(uint32_t id, uint16_t vlan = 0)
    {
        EXPECT_EQ(cfgmgr_bridge_find_or_create(&daemon, id), 0);
        cfgmgr_bridge_t *bridge_p = cfgmgr_bridge_find(&daemon, id, nullptr);
        bridge_p->vlan = vlan;
        forget();
        return bridge_p;
    }
    cfgmgr_if_t *member(const char *name, uint32_t id) { return create(name, id, IF_TYPE_BRIDGE_PORT); }
    names_t members(uint32_t id)
    {
        names_t names;
        for (const cfgmgr_if_t &interface : avl_range<cfgmgr_if_t>(&cfgmgr_bridge_find(&daemon, id, nullptr)->if_db))
            names.push_back(interface.name);
        return names;
    }
    std::vector<uint32_t> ids()
    {
        std::vector<uint32_t> all;
        for (cfgmgr_bridge_t *b = cfgmgr_bridge_first(&daemon); b != nullptr; b = cfgmgr_bridge_next(&daemon, b))
            all.push_back(b->bridge_id);
        return all;
    }
    // Of the bridge layer and of devices; settings that every interface gets are left out.
    effects_t bridge_effects()
    {
        effects_t kept;
        for (const std::string &effect : effects()) {
            if (!effect.starts_with("echo ") && !effect.starts_with("ethtool "))
                kept.push_back(effect);
        }
        return kept;
    }
};

// ---- the table

TEST_F(bridges, are_made_once_and_walked_by_number)
{
    for (uint32_t id : { 7u, 0u, 63u, 7u })
        EXPECT_EQ(cfgmgr_bridge_find_or_create(&daemon, id), 0);
    EXPECT_EQ(effects(), (effects_t{ "brctl addbr 7", "brctl addbr 0", "brctl addbr 63" }));
    EXPECT_EQ(ids(), (std::vector<uint32_t>{ 0, 7, 63 }));
    EXPECT_EQ(cfgmgr_bridge_find(&daemon, 7, nullptr)->vlan, 0);
    EXPECT_EQ(cfgmgr_bridge_find(&daemon, 8, nullptr), nullptr);
    EXPECT_TRUE(log_has("Creating bridge: bridge-id=63"));
}

TEST_F(bridges, one_that_the_kernel_refuses_stays_in_the_table)
{
    device().statuses = { { "brctl addbr 7", EXIT_1 } };
    EXPECT_EQ(cfgmgr_bridge_find_or_create(&daemon, 7), 10);
    EXPECT_EQ(effects(), (effects_t{ "brctl addbr 7", "brctl delbr 7" }));
    EXPECT_TRUE(log_has("Command Failed: brctl addbr 7"));
    EXPECT_TRUE(log_has("Bridge creation failed: bridge-id=7"));
    EXPECT_EQ(ids(), std::vector<uint32_t>{ 7 });
}

TEST_F(bridges, at_the_end_all_go_and_nothing_is_left)
{
    bridge(3);
    bridge(4);
    cfgmgr_bridge_deinit(&daemon);
    EXPECT_EQ(effects(), (effects_t{ "brctl delbr 3", "brctl delbr 4" }));
    EXPECT_TRUE(ids().empty());
    cfgmgr_bridge_delete_by_id(&daemon, 3);
    EXPECT_TRUE(effects().empty());
}

// ---- members by kind

TEST_F(bridges, a_port_is_asked_for_promiscuous_mode_and_no_more)
{
    bridge(7);
    cfgmgr_if_t *port = member("ge0_1", 7);
    EXPECT_EQ(bridge_effects(), effects_t{ "ifconfig ge0_1 promisc" });
    EXPECT_EQ(port->bridge_p->bridge_id, 7u);
    EXPECT_EQ(port->type, IF_TYPE_BRIDGE_PORT);
    cfgmgr_bridge_if_remove(&daemon, port);
    EXPECT_EQ(effects(), effects_t{ "ifconfig ge0_1 -promisc" });
    EXPECT_EQ(port->bridge_p, nullptr);
    EXPECT_EQ(port->type, IF_TYPE_PLAIN);
    EXPECT_EQ(members(7), names_t{});
    cfgmgr_bridge_if_remove(&daemon, port);
    EXPECT_TRUE(effects().empty()) << "nothing without a bridge";
}

TEST_F(bridges, a_tagged_leg_is_made_and_put_in)
{
    bridge(7, 100);
    cfgmgr_if_t *leg = member("ge0_1.100", 7);
    EXPECT_EQ(bridge_effects(), (effects_t{ "ip link add link ge0_1 name ge0_1.100 type vlan id 100",
                                            "ifconfig ge0_1.100 promisc", "brctl addif 7 ge0_1.100" }));
    EXPECT_EQ(members(7), names_t{ "ge0_1.100" });
    cfgmgr_bridge_if_remove(&daemon, leg);
    EXPECT_EQ(effects(), (effects_t{ "brctl delif 7 ge0_1.100", "ifconfig ge0_1.100 -promisc",
                                     "ip link delete ge0_1.100 type vlan" }));
}

TEST_F(bridges, a_leg_whose_device_is_gone_is_made_again)
{
    bridge(7, 100);
    cfgmgr_if_t *leg = member("ge0_1.100", 7);
    cfgmgr_bridge_if_remove(&daemon, leg);
    forget();
    cfgmgr_bridge_if_bind(&daemon, 7, leg);
    EXPECT_EQ(effects(), (effects_t{ "ip link add link ge0_1 name ge0_1.100 type vlan id 100",
                                     "ifconfig ge0_1.100 promisc", "brctl addif 7 ge0_1.100" }));
}

TEST_F(bridges, a_tagged_leg_has_a_twin_where_its_port_has_one)
{
    device().kernel.add(0, "sim0_1");
    bridge(7, 100);
    cfgmgr_if_t *leg = member("ge0_1.100", 7);
    effects_t seen = effects();
    EXPECT_NE(std::count(seen.begin(), seen.end(), "ip link add link sim0_1 name sim0_1.100 type vlan id 100"), 0);
    device().kernel.add(0, "sim0_1.100");
    cfgmgr_bridge_if_remove(&daemon, leg);
    EXPECT_EQ(effects().front(), "ip link delete sim0_1.100 type vlan") << "it goes first";
}

TEST_F(bridges, an_access_point_has_a_bridge_of_its_own)
{
    bridge(7);
    cfgmgr_if_t *vap = member("vap2", 7);
    EXPECT_EQ(bridge_effects(), (effects_t{ "ip link add link loop3 name loop3.3 type vlan id 3",
                                            "ip link set dev loop3.3 address 0:2:0:0:3:1", "brctl addbr wlan2",
                                            "brctl addif wlan2 loop3.3", "brctl addif wlan2 vap2",
                                            "ip link set loop3.3 up", "ip link set wlan2  up" }));
    EXPECT_EQ(vap->vlan_id, 3u);
    EXPECT_NE(vap->flags & IF_VAP, 0u);
    EXPECT_TRUE(log_has("Added Interface vap2 if type 1, vlan 3 to bridge 7"));
    cfgmgr_bridge_if_remove(&daemon, vap);
    EXPECT_EQ(effects(), (effects_t{ "brctl delif wlan2 vap2", "brctl delif wlan2 loop3.3", "ip link set wlan2 down",
                                     "brctl delbr wlan2", "ip link delete loop3.3 type vlan" }));
    EXPECT_TRUE(log_has("Deleting Interface vap2 if type 1, vlan 3 from bridge 7"));
}

TEST_F(bridges, an_access_point_without_a_number_is_refused)
{
    cfgmgr_if_t vap{};
    strcpy(vap.name, "vapx");
    EXPECT_EQ(cfgmgr_bridge_if_add(7, &vap), 17);
    EXPECT_TRUE(log_has("Interface: vapx, Error finding vap port number\n"));
    EXPECT_TRUE(effects().empty());
}

TEST_F(bridges, an_internal_leg_is_put_in_inside_its_vpn)
{
    EXPECT_EQ(cfgmgr_vpn_find_or_create(&daemon, VPN_ID_INTERNAL, 0), 0);
    bridge(BRIDGE_INTERNAL);
    cfgmgr_if_t *leg = create("loop2.10", BRIDGE_INTERNAL, IF_TYPE_INTERNAL);
    EXPECT_EQ(effects().back(), "65530# brctl addif 511 loop2.10");
    EXPECT_EQ(cfgmgr_bridge_if_del(BRIDGE_INTERNAL, leg), 10);
    EXPECT_EQ(effects(), (effects_t{ "brctl delif 511 loop2.10", "ifconfig loop2.10 -promisc" }));
}

TEST_F(bridges, other_kinds_are_no_members)
{
    cfgmgr_if_t tunnel{};
    strcpy(tunnel.name, "gre1");
    tunnel.flags = IF_GRE;
    EXPECT_EQ(cfgmgr_bridge_if_add(7, &tunnel), 10);
    EXPECT_TRUE(effects().empty());
}

TEST_F(bridges, a_failing_step_is_logged_and_the_rest_still_runs)
{
    bridge(7, 100);
    device().statuses = { { "ip link add link ge0_1 name ge0_1.100 type vlan id 100", EXIT_1 },
                          { "ifconfig ge0_1.100 promisc", EXIT_1 },
                          { "brctl delif 7 ge0_1.100", EXIT_1 },
                          { "ifconfig ge0_1.100 -promisc", EXIT_1 } };
    cfgmgr_if_t *leg = member("ge0_1.100", 7);
    EXPECT_EQ(effects().back(), "brctl addif 7 ge0_1.100") << "a device that an earlier start has left is put in";
    EXPECT_EQ(leg->bridge_p->bridge_id, 7u) << "the record states what is configured";
    EXPECT_TRUE(log_has("Command Failed: ifconfig ge0_1.100 promisc"));
    EXPECT_EQ(cfgmgr_bridge_if_del(7, leg), 0);
    EXPECT_EQ(effects(), (effects_t{ "brctl delif 7 ge0_1.100", "ifconfig ge0_1.100 -promisc",
                                     "ip link delete ge0_1.100 type vlan" }));
    device().statuses = { { "brctl addif 7 ge0_1.100", EXIT_1 } };
    EXPECT_EQ(cfgmgr_bridge_if_add(7, leg), 10);
    EXPECT_TRUE(log_has("Command Failed: brctl addif 7 ge0_1.100"));
}

TEST_F(bridges, a_member_of_a_bridge_that_is_not_there_is_in_none)
{
    cfgmgr_if_t *port = find("ge0_1");
    cfgmgr_bridge_if_bind(&daemon, 9, port);
    EXPECT_EQ(port->bridge_p, nullptr);
    EXPECT_TRUE(effects().empty());
}

TEST_F(bridges, binding_a_member_again_ends_the_process)
{
    bridge(7);
    cfgmgr_if_t *port = member("ge0_1", 7);
    child_result_t result = run_in_child([&] { cfgmgr_bridge_if_bind(&daemon, 7, port); });
    EXPECT_TRUE(result.output.find("failed assertion `found_if_p == ((void *)0)'") != std::string::npos)
        << result.output;
}

// ---- deletion with members

TEST_F(bridges, deletion_takes_the_legs_along_and_gives_the_ports_back)
{
    bridge(7, 100);
    member("ge0_1.100", 7);
    member("ge0_1", 7);
    member("ge0_2.100", 7);
    member("vap0", 7);
    EXPECT_EQ(members(7), (names_t{ "ge0_1", "ge0_1.100", "ge0_2.100", "vap0" }));
    forget();
    cfgmgr_bridge_delete_by_id(&daemon, 7);
    EXPECT_EQ(effects().front(), "brctl delbr 7");
    EXPECT_EQ(find("ge0_1.100"), nullptr);
    EXPECT_EQ(find("ge0_2.100"), nullptr);
    for (const char *name : { "ge0_1", "vap0" }) {
        EXPECT_EQ(find(name)->bridge_p, nullptr) << name;
        EXPECT_EQ(find(name)->type, IF_TYPE_PLAIN) << name;
        EXPECT_EQ(find(name)->vpn_p->vpn_id, 0u) << name;
    }
    EXPECT_EQ(find("ge0_1")->children.count, 0);
    EXPECT_TRUE(ids().empty());
}

// ---- the internal bridge's device

TEST_F(bridges, the_internal_one_is_brought_up_in_its_vpn)
{
    cfgmgr_bridge_t *bridge_p = bridge(BRIDGE_INTERNAL);
    EXPECT_STREQ(bridge_p->name, "511");
    EXPECT_EQ(cfgmgr_bridge_enable(&daemon, bridge_p, 5, true), 0);
    EXPECT_EQ(effects(), effects_t{ "flags 511 +0x241" });
    EXPECT_TRUE(log_has("vpn 5, enable 1, bridge 511"));
    EXPECT_EQ(cfgmgr_bridge_enable(&daemon, bridge_p, 99, true), 10);
    EXPECT_TRUE(log_has("VPN context not found"));
    EXPECT_EQ(cfgmgr_bridge_enable(nullptr, bridge_p, 5, true), 10);
    EXPECT_TRUE(log_has("Invalid cfgmgr pointer"));
}

// ---- the configuration

class config_bridges : public bridges
{
protected:
    config_bridges()
    {
        ctx.reg.app_ctx = &daemon;
        row.ctx = &ctx;
    }
    int32_t configure(int op, uint32_t id, changes_t changes = {})
    {
        confd_value_t key = u32(id);
        return cfgmgr_config_bridge(&row, op, 1, &key, static_cast<uint16_t>(changes.size()), changes.data());
    }
    int32_t configure_if(int op, uint32_t id, const char *name, changes_t changes = {})
    {
        confd_value_t keys[] = { u32(id), buf(name) };
        return cfgmgr_config_bridge_if(&row, op, 2, keys, static_cast<uint16_t>(changes.size()), changes.data());
    }
    // Bridge 7 with VLAN 100 and a member, with what that did forgotten.
    cfgmgr_if_t *tagged_member(const changes_t &changes = {})
    {
        EXPECT_EQ(configure(MOP_CREATED, 7, { set(bridge_vlan, number16(100)) }), 0);
        EXPECT_EQ(configure_if(MOP_CREATED, 7, "ge0/1", changes), 0);
        forget();
        return find("ge0_1.100");
    }
    void give_mac(const char *cli_name, uint64_t mac)
    {
        char name[IF_KERNEL_NAME_SIZE];
        chmgr_port_t *port = nullptr;
        ASSERT_NE(cfgmgr_if_cli_to_kernel_name(cli_name, name, sizeof name, &port), nullptr);
        port->mac = mac;
    }
    static changes_t native(bool is_on) { return { set(bridge_native_vlan, boolean(is_on)) }; }

    tconfd_ctx ctx{};
    tconfd_sub row{};
};

TEST_F(config_bridges, a_bridge_has_the_vlan_of_its_own_leaf)
{
    EXPECT_EQ(configure(MOP_CREATED, 7), 0);
    EXPECT_EQ(effects(), effects_t{ "brctl addbr 7" });
    const cfgmgr_bridge_t *bridge_p = cfgmgr_bridge_find(&daemon, 7, nullptr);
    EXPECT_EQ(bridge_p->vlan, 0);
    EXPECT_EQ(configure(MOP_MODIFIED, 7, { set(bridge_vlan, number16(100)) }), 0);
    EXPECT_EQ(bridge_p->vlan, 100);
    EXPECT_EQ(configure(MOP_MODIFIED, 7, inside(bridge_interface, { set(bridge_vlan, number16(5)) })), 0);
    EXPECT_EQ(bridge_p->vlan, 100) << "what lies deeper is another's";
    EXPECT_EQ(configure(MOP_MODIFIED, 7, { gone(bridge_vlan) }), 0);
    EXPECT_EQ(bridge_p->vlan, BRIDGE_VLAN_DELETED);
    EXPECT_TRUE(effects().empty());
    EXPECT_EQ(configure(MOP_DELETED, 7), 0);
    EXPECT_EQ(effects(), effects_t{ "brctl delbr 7" });
}

TEST_F(config_bridges, a_bridge_that_cannot_be_made_ends_the_process)
{
    device().statuses = { { "brctl addbr 7", EXIT_1 } };
    child_result_t result = run_in_child([&] {
        (void)configure(MOP_CREATED, 7);
        printf("went on");
    });
    EXPECT_TRUE(result.output.find("failed assertion `result == 0'") != std::string::npos) << result.output;
}

struct member_name_t {
    uint16_t vlan; // 0: the leaf was never set
    const char *cli_name;
    const char *name; // null: no member is made
    const char *text; // in the log
};

TEST_F(config_bridges, members_are_named_by_port_and_vlan)
{
    for (const member_name_t &row : std::initializer_list<member_name_t>{
             { 0, "ge0/1", "ge0_1", "" },
             { 1, "ge0/1", "ge0_1.1", "" },
             { 4095, "ge0/1", "ge0_1.4095", "" },
             { BRIDGE_VLAN_DELETED, "ge0/1", "ge0_1", "" },
             { 100, "vap0", "vap0", "" },
             { 100, "ge0/1.100", nullptr, "Interface ge0/1.100 not provisioned" },
             { 0, "loopback1", nullptr, "Interface loopback1 not provisioned" },
             { 0, "ge0/77", nullptr, "Interface ge0/77 not provisioned" },
         }) {
        bridge(7, row.vlan);
        EXPECT_EQ(configure_if(MOP_CREATED, 7, row.cli_name), 0) << row.cli_name;
        EXPECT_EQ(members(7), row.name != nullptr ? names_t{ row.name } : names_t{});
        EXPECT_TRUE(log_has(row.text)) << row.text;
        cfgmgr_bridge_delete_by_id(&daemon, 7);
    }
}

TEST_F(config_bridges, a_member_of_no_bridge_is_refused)
{
    EXPECT_EQ(configure_if(MOP_CREATED, 7, "ge0/1"), 1);
    EXPECT_TRUE(log_has("Failed to 1 interface - bridge: 7, if: ge0/1 because bridge doesn't exist"));
    EXPECT_TRUE(effects().empty());
}

TEST_F(config_bridges, a_new_member_gets_the_ports_address_and_a_fresh_link)
{
    bridge(7);
    give_mac("ge0/1", 0x024300000001);
    device().kernel.add(0, "sim0_1");
    cfgmgr_if_t *port = find("ge0_1");
    port->mtu = 9000;
    port->phy.speed = 100;
    EXPECT_EQ(configure_if(MOP_CREATED, 7, "ge0/1"), 0);
    effects_t seen = bridge_effects();
    EXPECT_EQ(effects_t(seen.begin(), seen.begin() + 4),
              (effects_t{ "ifconfig ge0_1 promisc", "flags ge0_1", "mac ge0_1 02:43:00:00:00:01", "mtu ge0_1 1500" }));
    EXPECT_EQ(effects_t(seen.end() - 2, seen.end()), (effects_t{ "mac sim0_1 02:43:00:00:00:01", "mtu sim0_1 1500" }))
        << "the twin follows, the address first";
    EXPECT_EQ(port->mtu, 1500u);
    EXPECT_EQ(port->phy.speed, PHY_SPEED_UNSET);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "flags ge0_1 +0x241"), 0) << "it is shut down";
}

TEST_F(config_bridges, a_new_member_keeps_the_mtu_of_its_leaf)
{
    cfgmgr_if_t *leg = tagged_member({ set(bridge_mtu, number16(1400)), set(bridge_shutdown, boolean(false)) });
    EXPECT_EQ(leg->mtu, 1400u);
    EXPECT_EQ(leg->shutdown, 0u);
    EXPECT_EQ(device().kernel.interface(0, "ge0_1.100").mtu, 1400u);
    EXPECT_NE(device().kernel.interface(0, "ge0_1.100").flags & 0x41, 0u) << "it is up";
}

TEST_F(config_bridges, leaves_of_a_member_change_alone)
{
    cfgmgr_if_t *leg = tagged_member();
    device().kernel.add(0, "sim0_1.100");
    EXPECT_EQ(configure_if(MOP_MODIFIED, 7, "ge0/1", { set(bridge_mtu, number16(1300)) }), 0);
    EXPECT_EQ(effects(), (effects_t{ "mtu ge0_1.100 1300", "mtu sim0_1.100 1300" }));
    EXPECT_EQ(configure_if(MOP_MODIFIED, 7, "ge0/1", { gone(bridge_mtu) }), 0);
    EXPECT_EQ(effects(), (effects_t{ "mtu ge0_1.100 1500", "mtu sim0_1.100 1500" }));
    EXPECT_EQ(configure_if(MOP_MODIFIED, 7, "ge0/1", { set(bridge_shutdown, boolean(false)) }), 0);
    EXPECT_EQ(effects(), effects_t{ "flags ge0_1.100 +0x241" });
    EXPECT_EQ(leg->shutdown, 0u);
    EXPECT_EQ(configure_if(MOP_MODIFIED, 7, "ge0/1", { gone(bridge_shutdown) }), 0);
    EXPECT_EQ(effects(), effects_t{ "flags ge0_1.100 -0x41" });
    EXPECT_EQ(leg->shutdown, 1u);
}

TEST_F(config_bridges, a_change_of_a_member_without_a_record_does_nothing_but_for_an_access_point)
{
    bridge(7, 100);
    EXPECT_EQ(configure_if(MOP_MODIFIED, 7, "ge0/1", native(true)), 0);
    EXPECT_TRUE(effects().empty());
    EXPECT_EQ(configure_if(MOP_MODIFIED, 7, "vap0", { set(bridge_mtu, number16(1300)) }), 0);
    EXPECT_EQ(members(7), names_t{ "vap0" });
    EXPECT_EQ(find("vap0")->mtu, 1300u);
}

TEST_F(config_bridges, a_deleted_member_goes_with_its_base_port)
{
    cfgmgr_if_t *leg = tagged_member(native(true));
    EXPECT_EQ(leg->native_vlan, 1u);
    EXPECT_EQ(members(7), (names_t{ "ge0_1", "ge0_1.100" }));
    EXPECT_EQ(configure_if(MOP_DELETED, 7, "ge0/1"), 0);
    effects_t seen = bridge_effects();
    EXPECT_EQ(
        effects_t(seen.begin(), seen.begin() + 3),
        (effects_t{ "brctl delif 7 ge0_1.100", "ifconfig ge0_1.100 -promisc", "ip link delete ge0_1.100 type vlan" }));
    EXPECT_EQ(seen.back(), "ifconfig ge0_1 -promisc");
    EXPECT_EQ(find("ge0_1.100"), nullptr);
    EXPECT_EQ(find("ge0_1")->type, IF_TYPE_PLAIN);
    EXPECT_EQ(members(7), names_t{});
    EXPECT_EQ(configure_if(MOP_DELETED, 7, "ge0/1"), 0);
    EXPECT_TRUE(effects().empty()) << "gone already";
}

// ---- the untagged VLAN of a tagged member

TEST_F(config_bridges, native_vlan_puts_the_base_port_in_and_takes_it_out)
{
    cfgmgr_if_t *leg = tagged_member();
    cfgmgr_if_t *port = find("ge0_1");
    EXPECT_EQ(configure_if(MOP_MODIFIED, 7, "ge0/1", native(true)), 0);
    EXPECT_EQ(bridge_effects(), effects_t{ "ifconfig ge0_1 promisc" });
    EXPECT_EQ(port->bridge_p, leg->bridge_p);
    EXPECT_EQ(configure_if(MOP_MODIFIED, 7, "ge0/1", native(true)), 0);
    EXPECT_TRUE(effects().empty()) << "no change";
    EXPECT_EQ(configure_if(MOP_MODIFIED, 7, "ge0/1", { gone(bridge_native_vlan) }), 0);
    EXPECT_EQ(effects(), effects_t{ "ifconfig ge0_1 -promisc" });
    EXPECT_EQ(port->bridge_p, nullptr);
    EXPECT_EQ(leg->native_vlan, 0u);
    EXPECT_EQ(leg->bridge_p->bridge_id, 7u);
}

TEST_F(config_bridges, native_vlan_brings_a_port_up_that_is_not_shut_down)
{
    tagged_member();
    find("ge0_1")->shutdown = 0;
    EXPECT_EQ(configure_if(MOP_MODIFIED, 7, "ge0/1", native(true)), 0);
    forget();
    pass_seconds(3);
    EXPECT_EQ(effects().front(), "flags ge0_1 +0x241");
}

TEST_F(config_bridges, native_vlan_needs_a_port_of_the_transport_vpn)
{
    tagged_member();
    make("ge0_1", 5);
    EXPECT_EQ(configure_if(MOP_MODIFIED, 7, "ge0/1", native(true)), 1);
    EXPECT_TRUE(log_has("Unable to bind interface ge0_1 to bridge 7 as native-vlan interface.  It belongs to vpn 5"));
    EXPECT_TRUE(effects().empty());
    EXPECT_EQ(find("ge0_1")->bridge_p, nullptr);
    EXPECT_EQ(find("ge0_1.100")->native_vlan, 1u) << "as configured";
}

TEST_F(config_bridges, native_vlan_takes_the_port_from_another_bridge_and_does_not_miss_it)
{
    tagged_member(native(true));
    bridge(8, 200);
    EXPECT_EQ(configure_if(MOP_CREATED, 8, "ge0/1", native(true)), 0);
    effects_t seen = bridge_effects();
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "ifconfig ge0_1 -promisc"), 1);
    EXPECT_EQ(members(7), names_t{ "ge0_1.100" });
    EXPECT_EQ(members(8), (names_t{ "ge0_1", "ge0_1.200" }));
    EXPECT_EQ(configure_if(MOP_MODIFIED, 7, "ge0/1", native(false)), 0);
    EXPECT_EQ(configure_if(MOP_DELETED, 7, "ge0/1"), 0);
    EXPECT_EQ(members(8), (names_t{ "ge0_1", "ge0_1.200" })) << "not this bridge's port";
}

TEST_F(config_bridges, an_untagged_member_serves_the_untagged_vlan_by_itself)
{
    bridge(7);
    EXPECT_EQ(configure_if(MOP_CREATED, 7, "ge0/1", native(true)), 0);
    forget();
    EXPECT_EQ(configure_if(MOP_MODIFIED, 7, "ge0/1", native(false)), 0);
    EXPECT_TRUE(effects().empty());
    EXPECT_EQ(members(7), names_t{ "ge0_1" });
}

} // namespace
