// Interface events of zebra: what is asked for on every connection, and what the events do.
#include "cfgmgr/routing/cfgmgr_rtm.h"

#include "cfgmgr/network/cfgmgr_if.h"
#include "common/vpn_id.h"
#include "proto/zebra.pb-c.h"
#include "tests/unit/cfgmgr_quagga_env.h"

namespace
{

using namespace std::string_literals;
using effects_t = std::vector<std::string>;

struct event_t {
    uint32_t op;
    std::string name;
    uint32_t index;
    int64_t flags = -1; // absent
    std::string address = {};
    uint32_t prefix_length = 0;
};

std::string control_body(const event_t &event)
{
    MIpAddress address = M_IP_ADDRESS__INIT;
    MRtmControlInterface interface = M_RTM_CONTROL_INTERFACE__INIT;
    MRtmControl control = M_RTM_CONTROL__INIT;
    control.control_type = RTM_CONTROL_INTERFACE;
    control.interface = &interface;
    interface.op = event.op;
    interface.name = const_cast<char *>(event.name.c_str());
    interface.if_index = event.index;
    interface.has_flags = event.flags >= 0;
    interface.flags = static_cast<uint32_t>(event.flags);
    interface.prefix_length = event.prefix_length;
    address.is_ipv4 = event.address.find(':') == std::string::npos;
    address.address = const_cast<char *>(event.address.c_str());
    if (!event.address.empty())
        interface.address = &address;
    return packed(control);
}

std::string control_frame(const event_t &event)
{
    return quagga_frame(0, ZEBRA_CONTROL, control_body(event));
}

class cfgmgr_rtm : public cfgmgr_quagga_env
{
protected:
    cfgmgr_rtm()
    {
        avl_create(&daemon.if_table, cfgmgr_if_compare, sizeof(cfgmgr_if_t), offsetof(cfgmgr_if_t, node));
        strcpy(port.name, "ge0_0");
        port.vpn_p = &vpn.record;
        avl_index_t where;
        EXPECT_EQ(avl_find(&daemon.if_table, &port, &where), nullptr);
        avl_insert(&daemon.if_table, &port, where);
    }
    ~cfgmgr_rtm() override
    {
        cfgmgr_rtm_client_deinit(&vpn.record);
        cfgmgr_rtm_client_deinit(&transport.record);
        avl_remove(&daemon.if_table, &port);
    }

    void take(cfgmgr_vpn_t &record, const event_t &event)
    {
        std::string frame = control_frame(event);
        EXPECT_EQ(decode(record, frame), RTM_OK);
    }
    void take(const event_t &event) { take(vpn.record, event); }
    static int decode(cfgmgr_vpn_t &record, const std::string &bytes)
    {
        // Not one byte more than the frame has, and aligned as the queue's are.
        std::unique_ptr<char[]> memory(new char[bytes.size()]);
        memcpy(memory.get(), bytes.data(), bytes.size());
        return cfgmgr_rtm_pkt_decode(&record, reinterpret_cast<quagga_header_t *>(memory.get()),
                                     static_cast<uint16_t>(bytes.size()));
    }
    const bitmap_if_idx_t *find(uint32_t index, uint64_t vpn_id = 5)
    {
        return cfgmgr_if_idx_lookup_by_vpn(&daemon, vpn_id, index, IF_IDX_EXACT);
    }
    void set_ipv6(const char *address)
    {
        EXPECT_EQ(ip_addr_parse(address, &port.ipv6_addr.ip), 1);
        port.ipv6_addr.len = 64;
    }
    // The commands of the address's coming up; empty when it was not touched.
    effects_t brought_up()
    {
        effects_t commands;
        for (const std::string &effect : device().take_effects())
            if (effect.find("ip addr") != std::string::npos || effect.starts_with("enter"))
                commands.push_back(effect);
        return commands;
    }

    quagga_vpn_t vpn{ &daemon, 5 };
    quagga_vpn_t transport{ &daemon, 0 };
    cfgmgr_if_t port{};
};

// ---- the connection

TEST_F(cfgmgr_rtm, hello_and_registration_go_out_and_zebra_replays_what_there_is)
{
    scripted_daemon_t zebra(run_path("zebra_protobuf_ctrl.api.5"), [](const std::string &frame) {
        bool is_registration = frame.size() > 2 && frame.find("\x08\x04"s) == QUAGGA_HEADER_SIZE;
        return is_registration ? control_frame({ RTM_IF_ADD, "ge0_0", 12 }) +
                                     control_frame({ RTM_ADDRESS_ADD, "ge0_0", 12, -1, "10.1.5.1", 24 })
                               : "";
    });
    ASSERT_EQ(cfgmgr_rtm_client_init(&vpn.record), QUAGGA_OK);
    EXPECT_EQ(msgq_is_up(vpn.record.rtm_handle_p), 0);
    ASSERT_TRUE(loop.run_until([&] { return find(12) != nullptr && find(12)->addr.addr.v4 != 0; }));
    EXPECT_EQ(find(12)->addr.addr.v4, 0x0a010501u);
    ASSERT_EQ(zebra.frames().size(), 2u);
    // No copy of the type on this socket.
    EXPECT_EQ(zebra.frames()[0], "\x00\x0a\x00\x07\x00\x00\x08\x03\x12\x00"s);
    EXPECT_EQ(zebra.frames()[1], "\x00\x12\x00\x07\x00\x00\x08\x04\x1a\x08\x08\x00\x12\x00\x18\x00\x28\x00"s);
}

TEST_F(cfgmgr_rtm, zebra_going_away_empties_the_vpn_and_its_return_fills_it_again)
{
    scripted_daemon_t zebra(run_path("zebra_protobuf_ctrl.api.5"), [](const std::string &frame) {
        return frame[7] == RTM_CONTROL_INTERFACE ? control_frame({ RTM_IF_ADD, "ge0_0", 12 }) : "";
    });
    ASSERT_NE(cfgmgr_if_idx_find_or_create(&daemon, 12, "ge0_1", 6), nullptr);
    ASSERT_EQ(cfgmgr_rtm_client_init(&vpn.record), QUAGGA_OK);
    ASSERT_TRUE(loop.run_until([&] { return find(12) != nullptr; }));
    ASSERT_NE(cfgmgr_if_idx_find_or_create(&daemon, 13, "ge0_1", 5), nullptr);
    zebra.hang_up();
    ASSERT_TRUE(loop.run_until([&] { return msgq_is_up(vpn.record.rtm_handle_p) == 0; }));
    EXPECT_EQ(find(12), nullptr);
    EXPECT_EQ(find(13), nullptr);
    EXPECT_NE(find(12, 6), nullptr);
    ASSERT_TRUE(loop.run_until([&] { return find(12) != nullptr; }));
    EXPECT_EQ(find(13), nullptr);
    EXPECT_EQ(zebra.connections(), 2);
    EXPECT_EQ(zebra.frames().size(), 4u);
    EXPECT_EQ(zebra.frames()[2], zebra.frames()[0]);
    EXPECT_EQ(zebra.frames()[3], zebra.frames()[1]);
}

TEST_F(cfgmgr_rtm, vpn_0_uses_the_socket_without_a_number)
{
    scripted_daemon_t zebra(run_path("zebra_protobuf_ctrl.api"));
    ASSERT_EQ(cfgmgr_rtm_client_init(&transport.record), QUAGGA_OK);
    EXPECT_TRUE(loop.run_until([&] { return zebra.frames().size() == 2; }));
}

TEST_F(cfgmgr_rtm, the_connection_is_made_once_and_given_up_any_number_of_times)
{
    EXPECT_EQ(cfgmgr_rtm_client_init(nullptr), QUAGGA_NO_RESOURCE);
    cfgmgr_rtm_client_deinit(nullptr);
    ASSERT_EQ(cfgmgr_rtm_client_init(&vpn.record), QUAGGA_OK);
    expect_assertion([&] { (void)cfgmgr_rtm_client_init(&vpn.record); },
                     "failed assertion `vpn_p->rtm_handle_p == ((void *)0)'");
    cfgmgr_rtm_client_deinit(&vpn.record);
    EXPECT_EQ(vpn.record.rtm_handle_p, nullptr);
    cfgmgr_rtm_client_deinit(&vpn.record);
    tip_root_set(root.path().c_str()); // the socket's name is too long now
    EXPECT_EQ(cfgmgr_rtm_client_init(&vpn.record), QUAGGA_NO_RESOURCE);
}

TEST_F(cfgmgr_rtm, without_a_link_nothing_goes_out)
{
    EXPECT_EQ(cfgmgr_rtm_send_hello_msg(&vpn.record), RTM_OK);
    ASSERT_EQ(cfgmgr_rtm_client_init(&vpn.record), QUAGGA_OK);
    EXPECT_EQ(cfgmgr_rtm_send_interface_register_msg(&vpn.record), RTM_OK);
}

TEST_F(cfgmgr_rtm, a_new_vpn_has_its_daemons_and_its_interface_events_and_gives_them_up)
{
    device().has_routing = false;
    ASSERT_EQ(cfgmgr_vpn_init(&daemon), 0);
    device().has_routing = true;
    struct row_t {
        std::string process;
        uint8_t module;
        uint32_t response_type;
    };
    std::vector<std::unique_ptr<scripted_daemon_t>> daemons;
    for (const row_t &row : { row_t{ "zebra", 0, ZEBRA_CONFIG_RESPONSE }, row_t{ "ospfd", 2, OSPF_CONFIG_RESPONSE },
                              row_t{ "bgpd", 1, BGP_CONFIG_RESPONSE } }) {
        std::string done = quagga_frame(row.module, row.response_type, response(0));
        daemons.push_back(std::make_unique<scripted_daemon_t>(run_path(row.process + "_protobuf_mgmt.api.9"),
                                                              [done](const std::string &) { return done; }));
        write_pid(row.process + ".pid.9", "4711");
    }
    scripted_daemon_t control(run_path("zebra_protobuf_ctrl.api.9"));
    ASSERT_EQ(cfgmgr_vpn_find_or_create(&daemon, 9, 1), 0);
    cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_find(&daemon, 9, nullptr);
    for (uint32_t peer_id = QUAGGA_PEER_FIRST; peer_id <= QUAGGA_PEER_LAST; peer_id++) {
        ASSERT_NE(vpn_p->q_daemon_p[peer_id], nullptr);
        EXPECT_EQ(vpn_p->q_daemon_p[peer_id]->pid, 4711);
    }
    EXPECT_TRUE(loop.run_until([&] { return control.frames().size() == 2; }));
    ip_prefix_t router_id{};
    EXPECT_EQ(ip_addr_parse("10.9.9.9", &router_id.ip), 1);
    router_id.len = 32;
    EXPECT_EQ(cfgmgr_vpn_update_routerid(&daemon, 9, &router_id), 0);
    EXPECT_EQ(daemons[0]->frames(), std::vector{ "\x00\x17\x00\x01\x01\x00\x0a\x0f\x08\x01\x12\x0b"s + "10.9.9.9/32" });
    cfgmgr_vpn_delete_by_id(&daemon, 9);
    EXPECT_TRUE(log_has("Process stop timeout error: bgpd [9]"));
    EXPECT_EQ(msgq_instance(), nullptr) << "a connection was left";
}

// ---- frames

TEST_F(cfgmgr_rtm, bad_frames_are_told_of_and_forgotten)
{
    struct row_t {
        std::string frame;
        const char *log;
    };
    const std::string body = control_body({ RTM_IF_ADD, "ge0_0", 12 });
    for (const row_t &row : {
             row_t{ quagga_frame(1, ZEBRA_CONTROL, body), "[5] Wrong module id\n" },
             row_t{ quagga_frame(0, ZEBRA_NOTIFY, body), "[5] wrong message type\n" },
             row_t{ quagga_frame(0, ZEBRA_CONTROL, body.substr(0, body.size() - 1)), "[5] Error trying to unpack!\n" },
             row_t{ quagga_frame(0, ZEBRA_CONTROL, ""), "[5] Error trying to unpack!\n" },
         }) {
        EXPECT_EQ(decode(vpn.record, row.frame), RTM_BAD_FRAME);
        EXPECT_TRUE(log_has(row.log)) << row.log;
        EXPECT_EQ(find(12), nullptr);
    }
}

TEST_F(cfgmgr_rtm, a_bad_frame_leaves_the_connection_up)
{
    scripted_daemon_t zebra(run_path("zebra_protobuf_ctrl.api.5"), [](const std::string &frame) {
        return frame[7] == RTM_CONTROL_HELLO ? quagga_frame(2, 7, "x") + control_frame({ RTM_IF_ADD, "ge0_0", 12 })
                                             : "";
    });
    ASSERT_EQ(cfgmgr_rtm_client_init(&vpn.record), QUAGGA_OK);
    EXPECT_TRUE(loop.run_until([&] { return find(12) != nullptr; }));
    EXPECT_TRUE(log_has("[5] Wrong module id"));
    EXPECT_EQ(msgq_is_up(vpn.record.rtm_handle_p), 1);
}

TEST_F(cfgmgr_rtm, a_length_other_than_the_frames_is_fatal)
{
    std::string frame = control_frame({ RTM_IF_ADD, "ge0_0", 12 });
    frame[1]++;
    child_result_t result = run_in_child([&] {
        log_echo(true);
        decode(vpn.record, frame);
    });
    std::string expected =
        "[5] Message size mismatch (" + std::to_string(frame.size() + 1) + " != " + std::to_string(frame.size()) + ")";
    EXPECT_NE(result.output.find(expected), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("failed assertion"), std::string::npos);
}

TEST_F(cfgmgr_rtm, control_messages_of_other_kinds_are_nothing)
{
    log_clear();
    EXPECT_EQ(decode(vpn.record, quagga_frame(0, ZEBRA_CONTROL, "\x08\x03\x12\x00"s)), RTM_OK);
    EXPECT_EQ(decode(vpn.record, quagga_frame(0, ZEBRA_CONTROL, "\x08\x04"s)), RTM_OK); // an event without interface
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(cfgmgr_rtm, a_detailed_trace_shows_frames_and_events)
{
    cfgmgr_events_level = 3;
    scripted_daemon_t zebra(run_path("zebra_protobuf_ctrl.api.5"), [](const std::string &frame) {
        return frame[7] == RTM_CONTROL_HELLO ? control_frame({ RTM_IF_ADD, "loop2", 12 }) : "";
    });
    ASSERT_EQ(cfgmgr_rtm_client_init(&vpn.record), QUAGGA_OK);
    EXPECT_TRUE(loop.run_until([] { return log_has("if:loop2 -- ignore"); }));
    EXPECT_TRUE(log_has("[5] Received RTM Msg 0x"));
    EXPECT_TRUE(log_has("Received RTM-Interface Msg[0]: loop2 (12) vpn-id: 5\n"));
    cfgmgr_events_level = 0;
}

// ---- events

TEST_F(cfgmgr_rtm, interfaces_come_and_go)
{
    take({ RTM_IF_ADD, "ge0_0", 12 });
    ASSERT_NE(find(12), nullptr);
    EXPECT_STREQ(find(12)->name, "ge0_0");
    take({ RTM_IF_DELETE, "ge0_0", 13 });
    EXPECT_NE(find(12), nullptr);
    take({ RTM_IF_DELETE, "ge0_0", 12 });
    EXPECT_EQ(find(12), nullptr);
}

TEST_F(cfgmgr_rtm, the_devices_own_loops_never_reach_the_table)
{
    struct row_t {
        const char *name;
        bool is_taken;
    };
    uint32_t index = 20;
    for (const row_t &row : { row_t{ "loop2", false }, row_t{ "loop0.2005", false }, row_t{ "myloop", false },
                              row_t{ "loopback2", true }, row_t{ "loopback_wan_1", true }, row_t{ "lo", true } }) {
        take({ RTM_IF_ADD, row.name, ++index });
        EXPECT_EQ(find(index) != nullptr, row.is_taken) << row.name;
    }
}

TEST_F(cfgmgr_rtm, an_index_that_no_kernel_gives_is_not_entered)
{
    take({ RTM_IF_ADD, "ge0_0", 0 });
    EXPECT_EQ(find(0), nullptr);
}

TEST_F(cfgmgr_rtm, operations_without_a_meaning_are_ignored)
{
    set_ipv6("2001:db8::1");
    for (uint32_t op : { 3u, 6u, 7u, UINT32_MAX })
        take({ op, "ge0_0", 12, 64, "10.0.0.1", 24 });
    EXPECT_EQ(find(12), nullptr);
    EXPECT_TRUE(device().take_effects().empty());
}

TEST_F(cfgmgr_rtm, an_interface_that_runs_gets_its_ipv6_address_back)
{
    struct row_t {
        event_t event;
        bool is_set;
    };
    for (const row_t &row : {
             row_t{ { RTM_IF_ADD, "ge0_0", 12, 64 + 1 }, true },
             row_t{ { RTM_IF_ADD, "ge0_0", 12, 1 }, false },
             row_t{ { RTM_IF_ADD, "ge0_0", 12 }, false },
             row_t{ { RTM_IF_ADD, "ge0_1", 13, 64 }, false }, // without a record
             row_t{ { RTM_IF_STATE, "ge0_0", 12 }, true },
             row_t{ { RTM_IF_STATE, "ge0_1", 13 }, false },
         }) {
        set_ipv6("2001:db8::1");
        (void)device().take_effects();
        take(row.event);
        effects_t effects = brought_up();
        ASSERT_EQ(effects.size(), row.is_set ? 2u : 0u) << row.event.op << " " << row.event.flags;
        if (row.is_set) {
            EXPECT_EQ(effects[0], "enter 5");
            EXPECT_TRUE(effects[1].starts_with("ip addr add 2001:db8::1/64 dev ge0_0")) << effects[1];
        }
    }
}

TEST_F(cfgmgr_rtm, without_an_ipv6_address_there_is_nothing_to_bring_up)
{
    EXPECT_EQ(ip_addr_parse("10.1.5.1", &port.ipv4_addr.ip), 1);
    take({ RTM_IF_STATE, "ge0_0", 12 });
    ip_addr_clear(&port.ipv6_addr.ip, AF_INET6);
    take({ RTM_IF_ADD, "ge0_0", 12, 64 });
    EXPECT_TRUE(device().take_effects().empty());
}

TEST_F(cfgmgr_rtm, addresses_are_kept_in_the_index_table)
{
    take({ RTM_IF_ADD, "ge0_0", 12 });
    take({ RTM_ADDRESS_ADD, "ge0_0", 12, -1, "10.1.5.1", 24 });
    EXPECT_EQ(find(12)->addr.addr.v4, 0x0a010501u);
    EXPECT_TRUE(log_has("Received RTM-Interface-Address-Add Msg[4]: ge0_0 (12) vpn-id: 5 addr: 10.1.5.1\n"));
    take({ RTM_ADDRESS_DELETE, "ge0_0", 12, -1, "10.1.5.1", 24 });
    EXPECT_TRUE(ip_addr_is_zero(find(12)->addr));
    take({ RTM_ADDRESS_ADD, "ge0_0", 99, -1, "10.1.5.1", 24 });
    EXPECT_TRUE(log_has("Cannot find interface index 99 in vpn 5"));
}

TEST_F(cfgmgr_rtm, addresses_that_cannot_be_read_change_nothing)
{
    take({ RTM_IF_ADD, "ge0_0", 12 });
    take({ RTM_ADDRESS_ADD, "ge0_0", 12, -1, "10.1.5.1", 24 });
    log_clear();
    for (uint32_t op : { RTM_ADDRESS_ADD, RTM_ADDRESS_DELETE }) {
        take({ op, "ge0_0", 12 });
        take({ op, "ge0_0", 12, -1, "nonsense", 24 });
        take({ op, "ge0_0", 12, -1, "10.1.5.2", 33 });
        take({ op, "ge0_0", 12, -1, "10.1.5.2", 256 });
        take({ op, "ge0_0", 12, -1, "fe80::1", 129 });
        EXPECT_EQ(find(12)->addr.addr.v4, 0x0a010501u);
    }
    EXPECT_FALSE(log_has("Cannot find interface index"));
}

TEST_F(cfgmgr_rtm, link_local_addresses_are_learnt_in_vpn_0)
{
    take({ RTM_ADDRESS_ADD, "ge0_0", 12, -1, "fe80::1", 64 });
    EXPECT_TRUE(ip_addr_is_zero(port.ipv6_linklocal.ip));
    take(transport.record, { RTM_ADDRESS_ADD, "ge0_0", 12, -1, "2001:db8::2", 64 });
    take(transport.record, { RTM_ADDRESS_ADD, "ge0_1", 13, -1, "fe80::2", 64 });
    EXPECT_TRUE(ip_addr_is_zero(port.ipv6_linklocal.ip));
    take(transport.record, { RTM_ADDRESS_ADD, "ge0_0", 12, -1, "fe80::1", 64 });
    char text[IP_PREFIX_TEXT];
    EXPECT_STREQ(ip_prefix_to_str(port.ipv6_linklocal, text, sizeof text), "fe80::1/64");
    // The kernel drops it and makes it anew with the link; what was learnt stays.
    take(transport.record, { RTM_ADDRESS_DELETE, "ge0_0", 12, -1, "fe80::1", 64 });
    EXPECT_STREQ(ip_prefix_to_str(port.ipv6_linklocal, text, sizeof text), "fe80::1/64");
}

} // namespace
