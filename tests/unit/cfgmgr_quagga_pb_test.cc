// Messages to the routing daemons and their answers, byte by byte.
#include "proto/bgp.pb-c.h"
#include "proto/bgp_show.pb-c.h"
#include "proto/ospf.pb-c.h"
#include "proto/ospf_show.pb-c.h"
#include "proto/policy.pb-c.h"
#include "proto/zebra.pb-c.h"
#include "tests/unit/cfgmgr_quagga_env.h"

#include <arpa/inet.h>

namespace
{

using namespace std::string_literals;

constexpr uint8_t ZEBRA = 0, BGP = 1, OSPF = 2; // on the wire

// A VPN with one daemon that answers by a script.
class cfgmgr_quagga_pb : public cfgmgr_quagga_env
{
protected:
    void connect(uint32_t peer_id, const scripted_daemon_t::script_t &script)
    {
        std::string path = run_path(cfgmgr_quagga_peer(peer_id)->process + "_protobuf_mgmt.api.5"s);
        peer = std::make_unique<scripted_daemon_t>(path, script);
        ASSERT_EQ(cfgmgr_vpn_add_quagga_daemon(peer_id, &vpn.record), QUAGGA_OK);
        q_daemon_p = vpn.record.q_daemon_p[peer_id];
        ASSERT_TRUE(loop.run_until([&] { return peer->connections() == 1; })); // its thread has taken it
        log_clear();
    }
    // One that answers every frame with this one.
    void connect(uint32_t peer_id, const std::string &answer)
    {
        connect(peer_id, [answer](const std::string &) { return answer; });
    }
    int send_instance(uint32_t as_num = 65001)
    {
        MBgpInstance message = M_BGP_INSTANCE__INIT;
        message.as_num = as_num;
        return cfgmgr_quagga_pb_send_message(&vpn.record, &message, DAEMON_ID_BGPD, BGP_INSTANCE);
    }
    int validate_as_path(confd_trans_ctx *tctx)
    {
        char name[] = "list", expression[] = "^65001_";
        MBgpAsPathList message = M_BGP_AS_PATH_LIST__INIT;
        message.name = name;
        message.regex = expression;
        return cfgmgr_quagga_pb_send_show_message(tctx, &vpn.record, &message, DAEMON_ID_BGPD, BGP_AS_PATH_VALIDATE);
    }

    std::unique_ptr<scripted_daemon_t> peer;
    quagga_vpn_t vpn{ &daemon, 5 };
    q_daemon_t *q_daemon_p = nullptr;
};

const std::string BGP_DONE = quagga_frame(BGP, BGP_CONFIG_RESPONSE, response(0));

// ---- requests

TEST_F(cfgmgr_quagga_pb, a_frame_holds_its_length_the_module_and_the_type_twice)
{
    connect(DAEMON_ID_BGPD, BGP_DONE);
    EXPECT_EQ(send_instance(), QUAGGA_OK);
    MBgpInstance message = M_BGP_INSTANCE__INIT;
    message.as_num = 65001;
    std::string body = packed(message);
    std::string length{ '\0', static_cast<char>(6 + body.size()) };
    EXPECT_EQ(peer->frames(), std::vector{ length + "\x01\x00\x00\x00"s + body });
    EXPECT_TRUE(log_has("Send message 0 to bgp vpn: 5 (len:" + std::to_string(6 + body.size()) + ", hdr:6)"));
    EXPECT_TRUE(log_has("Rx msg type:13, len:8, mod:bgp, seq:0"));
    EXPECT_FALSE(log_has("Config response"));
}

TEST_F(cfgmgr_quagga_pb, a_show_request_repeats_its_type_too)
{
    MBgpShow message = M_BGP_SHOW__INIT;
    connect(DAEMON_ID_BGPD, quagga_frame(BGP, BGP_SHOW, packed(message)));
    confd_trans_ctx tctx{};
    EXPECT_EQ(cfgmgr_quagga_pb_send_show_message(&tctx, &vpn.record, &message, DAEMON_ID_BGPD, BGP_SHOW), QUAGGA_OK);
    ASSERT_EQ(peer->frames().size(), 1u);
    EXPECT_EQ(peer->frames()[0].substr(2, 4), "\x01\x11\x11\x00"s);
    EXPECT_EQ(tctx.t_opaque, &vpn.record);
}

TEST_F(cfgmgr_quagga_pb, messages_keep_their_order_and_each_waits_for_its_answer)
{
    int answered = 0;
    connect(DAEMON_ID_BGPD, [&](const std::string &) {
        usleep(2000);
        ++answered;
        return BGP_DONE;
    });
    for (uint32_t i = 1; i <= 5; i++) {
        EXPECT_EQ(send_instance(i), QUAGGA_OK);
        EXPECT_EQ(answered, static_cast<int>(i));
    }
    for (uint32_t i = 0; i < 5; i++) {
        MBgpInstance expected = M_BGP_INSTANCE__INIT;
        expected.as_num = i + 1;
        EXPECT_EQ(peer->frames()[i].substr(QUAGGA_HEADER_SIZE), packed(expected));
    }
}

TEST_F(cfgmgr_quagga_pb, an_answer_in_pieces_is_waited_for)
{
    connect(DAEMON_ID_BGPD, [this](const std::string &) {
        for (char byte : BGP_DONE.substr(0, BGP_DONE.size() - 1)) {
            peer->send(std::string(1, byte));
            usleep(1000);
        }
        return BGP_DONE.substr(BGP_DONE.size() - 1);
    });
    EXPECT_EQ(send_instance(), QUAGGA_OK);
    EXPECT_TRUE(log_has("Rx msg type:13, len:8"));
}

TEST_F(cfgmgr_quagga_pb, the_longest_exchange_is_kept)
{
    useconds_t pause = 60000;
    connect(DAEMON_ID_BGPD, [&](const std::string &) {
        usleep(pause);
        return BGP_DONE;
    });
    (void)send_instance();
    int64_t longest = q_daemon_p->send_msg_delay;
    EXPECT_GE(longest, 40); // the clock is a coarse one
    EXPECT_LT(longest, 10000);
    pause = 0;
    (void)send_instance();
    EXPECT_EQ(q_daemon_p->send_msg_delay, longest);
}

TEST_F(cfgmgr_quagga_pb, without_a_record_a_message_is_lost_and_a_request_refused)
{
    MOspfShow show = M_OSPF_SHOW__INIT;
    confd_trans_ctx tctx{};
    EXPECT_EQ(cfgmgr_quagga_pb_send_message(&vpn.record, &show, DAEMON_ID_OSPFD, OSPF_SHOW), QUAGGA_SKIPPED);
    EXPECT_TRUE(log_has("Quagga daemon - ospf link is down (vpn:5), skipping"));
    log_clear();
    EXPECT_EQ(cfgmgr_quagga_pb_send_show_message(&tctx, &vpn.record, &show, DAEMON_ID_OSPFD, OSPF_SHOW),
              QUAGGA_SKIPPED);
    EXPECT_TRUE(log_has("Quagga daemon does not exist: ospf (vpn:5)"));
    EXPECT_FALSE(log_has("link is down"));
    EXPECT_EQ(tctx.t_opaque, nullptr);
}

TEST_F(cfgmgr_quagga_pb, a_daemon_that_has_closed_its_link_is_skipped_for_ever)
{
    connect(DAEMON_ID_BGPD, BGP_DONE);
    EXPECT_EQ(send_instance(), QUAGGA_OK);
    peer->hang_up();
    EXPECT_EQ(send_instance(), QUAGGA_SKIPPED); // this one finds out
    EXPECT_TRUE(log_has("Could not send message(0) to Quagga(bgp)"));
    EXPECT_FALSE(log_has("link is down"));
    EXPECT_EQ(send_instance(), QUAGGA_SKIPPED);
    EXPECT_TRUE(log_has("Quagga daemon - bgp link is down (vpn:5), skipping"));
    loop.settle();
    EXPECT_EQ(send_instance(), QUAGGA_SKIPPED);
    EXPECT_EQ(peer->connections(), 1);
    confd_trans_ctx tctx{};
    EXPECT_EQ(validate_as_path(&tctx), QUAGGA_OK);
    EXPECT_EQ(tctx.t_opaque, &vpn.record);
}

TEST_F(cfgmgr_quagga_pb, a_link_that_breaks_under_a_message_loses_it)
{
    connect(DAEMON_ID_BGPD, [this](const std::string &) {
        peer->hang_up();
        return "";
    });
    EXPECT_EQ(send_instance(), QUAGGA_OK); // it went out
    EXPECT_EQ(msgq_is_up(q_daemon_p->mgmt_handle), 0);
    EXPECT_EQ(send_instance(), QUAGGA_SKIPPED);
    EXPECT_TRUE(log_has("Quagga daemon - bgp link is down (vpn:5), skipping"));
}

TEST_F(cfgmgr_quagga_pb, nothing_but_defaults_is_not_sent)
{
    connect(DAEMON_ID_ZEBRA, quagga_frame(ZEBRA, ZEBRA_CONFIG_RESPONSE, response(0)));
    MSystemRouterid empty = M_SYSTEM_ROUTERID__INIT;
    EXPECT_EQ(cfgmgr_quagga_pb_send_message(&vpn.record, &empty, DAEMON_ID_ZEBRA, ZEBRA_SYSTEM_ROUTERID),
              QUAGGA_SKIPPED);
    EXPECT_TRUE(log_has("Could not pack message(1) size (0) to Quagga(zebra)"));
    EXPECT_TRUE(peer->frames().empty());
}

TEST_F(cfgmgr_quagga_pb, what_the_length_cannot_tell_is_not_sent)
{
    connect(DAEMON_ID_ZEBRA, quagga_frame(ZEBRA, ZEBRA_CONFIG_RESPONSE, response(0)));
    std::string text;
    for (bool fits : { true, false }) {
        MIpPrefix prefix = M_IP_PREFIX__INIT;
        MSystemRouterid message = M_SYSTEM_ROUTERID__INIT;
        message.router_id = &prefix;
        text.resize(fits ? 65519 : 65520, 'x');
        prefix.prefix = text.data();
        size_t whole = packed(message).size() + QUAGGA_HEADER_SIZE;
        EXPECT_EQ(whole, fits ? 65535u : 65536u);
        EXPECT_EQ(cfgmgr_quagga_pb_send_message(&vpn.record, &message, DAEMON_ID_ZEBRA, ZEBRA_SYSTEM_ROUTERID),
                  fits ? QUAGGA_OK : QUAGGA_SKIPPED);
    }
    EXPECT_TRUE(log_has("Quagga daemon - zebra (vpn:5) memory allocation failure, skipping"));
    EXPECT_EQ(peer->frames().size(), 1u);
}

// ---- the table of messages

struct sent_t {
    uint32_t peer_id;
    std::vector<std::pair<uint32_t, const ProtobufCMessageDescriptor *>> types;
};
const sent_t all_sent[] = {
    { DAEMON_ID_ZEBRA,
      { { 1, &m_system_routerid__descriptor },
        { 2, &m_prefix_list__descriptor },
        { 3, &m_route_map__descriptor },
        { 4, &m_rtm_route_map_ospf__descriptor },
        { 6, &m_rtm_show__descriptor },
        { 7, &m_rtm_control__descriptor },
        { 10, &m_rtm_debug__descriptor } } },
    { DAEMON_ID_OSPFD,
      { { 0, &m_ospf_instance__descriptor },
        { 1, &m_ospf_instance__descriptor },
        { 2, &m_ospf_redistribute__descriptor },
        { 3, &m_ospf_max_metric__descriptor },
        { 4, &m_ospf_area__descriptor },
        { 5, &m_ospf_area_interface__descriptor },
        { 6, &m_ospf_area_interface_address__descriptor },
        { 7, &m_ospf_area_range__descriptor },
        { 8, &m_prefix_list__descriptor },
        { 9, &m_route_map__descriptor },
        { 12, &m_ospf_show__descriptor },
        { 13, &m_ospf_clear__descriptor },
        { 14, &m_ospf_debug__descriptor } } },
    { DAEMON_ID_BGPD,
      { { 0, &m_bgp_instance__descriptor },
        { 1, &m_bgp_address_family__descriptor },
        { 2, &m_bgp_address_family_redistribute__descriptor },
        { 3, &m_bgp_address_family_aggregate_address__descriptor },
        { 4, &m_bgp_address_family_network__descriptor },
        { 5, &m_bgp_neighbor__descriptor },
        { 6, &m_bgp_neighbor_address_family__descriptor },
        { 7, &m_bgp_neighbor_address_family_route_map__descriptor },
        { 8, &m_bgp_as_path_list__descriptor },
        { 9, &m_bgp_community_list__descriptor },
        { 10, &m_bgp_ext_community_list__descriptor },
        { 11, &m_prefix_list__descriptor },
        { 12, &m_route_map__descriptor },
        { 14, &m_bgp_neighbor__descriptor },
        { 15, &m_bgp_as_path_list__descriptor },
        { 17, &m_bgp_show__descriptor },
        { 18, &m_bgp_clear__descriptor },
        { 19, &m_bgp_debug__descriptor } } },
};

TEST_F(cfgmgr_quagga_pb, types_that_are_sent_pack_their_message_and_the_others_nothing)
{
    for (const sent_t &sent : all_sent) {
        for (uint32_t type = 0; type < 300; type++) {
            std::vector<uint8_t> memory(2048), bytes(4096);
            auto *message = reinterpret_cast<ProtobufCMessage *>(memory.data());
            const ProtobufCMessageDescriptor *expected = nullptr;
            for (const auto &[listed, descriptor] : sent.types)
                expected = listed == type ? descriptor : expected;
            if (expected != nullptr) {
                ASSERT_LE(expected->sizeof_message, memory.size());
                protobuf_c_message_init(expected, message);
            }
            size_t size = expected != nullptr ? protobuf_c_message_get_packed_size(message) : 0;
            EXPECT_EQ(cfgmgr_quagga_pb_get_packed_size(sent.peer_id, type, message), size) << type;
            EXPECT_EQ(cfgmgr_quagga_pb_msg_pack(sent.peer_id, type, message, bytes.data()), size) << type;
        }
    }
    EXPECT_EQ(cfgmgr_quagga_pb_get_packed_size(DAEMON_ID_CFGMGR, 0, nullptr), 0u);
}

TEST_F(cfgmgr_quagga_pb, a_message_of_another_type_is_fatal)
{
    MBgpInstance message = M_BGP_INSTANCE__INIT;
    expect_assertion([&] { (void)cfgmgr_quagga_pb_get_packed_size(DAEMON_ID_BGPD, BGP_NEIGHBOR, &message); },
                     "failed assertion");
}

// ---- answers

TEST_F(cfgmgr_quagga_pb, a_refused_configuration_message_is_fatal)
{
    connect(DAEMON_ID_BGPD, quagga_frame(BGP, BGP_CONFIG_RESPONSE, response(3, "as in use")));
    child_result_t result = run_in_child([&] {
        log_echo(true);
        (void)send_instance();
    });
    EXPECT_NE(result.output.find("Config response 3 - as in use"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("failed assertion"), std::string::npos);
}

TEST_F(cfgmgr_quagga_pb, frames_that_are_not_of_the_channel_are_fatal)
{
    struct row_t {
        const char *name;
        std::string frame;
        const char *log;
    };
    const row_t rows[] = {
        { "a module that no daemon has", quagga_frame(3, 13, response(0)), "Invalid module (3) received" },
        { "a type that is only sent", quagga_frame(BGP, BGP_INSTANCE, response(0)), "Invalid message (0) received" },
        { "a type of another module", quagga_frame(ZEBRA, 13, response(0)), "Invalid message (13) received" },
        { "a type that does not exist", quagga_frame(BGP, 20, response(0)), "Invalid message (20) received" },
        { "interface events", quagga_frame(ZEBRA, ZEBRA_CONTROL, "\x08\x03"), "Invalid message (7) received" },
        { "an answer for a transaction that did not ask", quagga_frame(BGP, BGP_VALIDATE_RESPONSE, response(0)),
          "Invalid message (16) received" },
        { "show data that nobody asked for", quagga_frame(OSPF, OSPF_SHOW, "\x08\x01"),
          "Invalid message (12) received" },
        { "a response without a code", quagga_frame(BGP, BGP_CONFIG_RESPONSE, "\x12\x01x"), "Could not unpack" },
        { "a body that is no message", quagga_frame(BGP, BGP_NOTIFY, "\xff\xff\xff"), "Could not unpack" },
    };
    for (const row_t &row : rows) {
        connect(DAEMON_ID_BGPD, row.frame);
        child_result_t result = run_in_child([&] {
            log_echo(true);
            (void)send_instance();
        });
        EXPECT_NE(result.output.find(row.log), std::string::npos) << row.name << "\n" << result.output;
        EXPECT_NE(result.output.find("failed assertion"), std::string::npos) << row.name;
        cfgmgr_vpn_del_quagga_daemon(DAEMON_ID_BGPD, &vpn.record);
        peer.reset();
        std::filesystem::remove(run_path("bgpd_protobuf_mgmt.api.5"));
    }
}

TEST_F(cfgmgr_quagga_pb, a_length_other_than_the_frames_is_fatal)
{
    connect(DAEMON_ID_BGPD, BGP_DONE);
    for (int off : { -1, 1 }) {
        child_result_t result = run_in_child([&] {
            log_echo(true);
            std::string frame = BGP_DONE;
            frame[1] = static_cast<char>(frame[1] + off);
            auto length = static_cast<uint16_t>(frame.size());
            void *memory = msgq_msg_alloc(q_daemon_p->mgmt_handle, length);
            memcpy(memory, frame.data(), length);
            cfgmgr_vpn_quagga_read_cb(q_daemon_p->mgmt_handle, memory, length, q_daemon_p);
        });
        std::string expected = "Message size mismatch (" + std::to_string(8 + off) + " != 8)";
        EXPECT_NE(result.output.find(expected), std::string::npos) << result.output;
        EXPECT_NE(result.output.find("failed assertion"), std::string::npos);
    }
}

TEST_F(cfgmgr_quagga_pb, replies_to_clear_and_debug_are_logged)
{
    MBgpClear clear = M_BGP_CLEAR__INIT;
    MBgpDebug debug = M_BGP_DEBUG__INIT;
    char text[] = "no such neighbor";
    std::string answers[2];
    answers[0] = quagga_frame(BGP, BGP_DEBUG, packed(debug));
    clear.has_code = 1;
    clear.code = 7;
    clear.message = text;
    answers[1] = quagga_frame(BGP, BGP_CLEAR, packed(clear));
    connect(DAEMON_ID_BGPD, [&](const std::string &frame) { return answers[frame[3] == BGP_CLEAR]; });
    EXPECT_EQ(cfgmgr_quagga_pb_send_message(&vpn.record, &clear, DAEMON_ID_BGPD, BGP_CLEAR), QUAGGA_OK);
    EXPECT_TRUE(log_has("Clear response 7 - no such neighbor"));
    EXPECT_EQ(cfgmgr_quagga_pb_send_message(&vpn.record, &debug, DAEMON_ID_BGPD, BGP_DEBUG), QUAGGA_OK);
    EXPECT_TRUE(log_has("Debug response 0 - success"));
}

TEST_F(cfgmgr_quagga_pb, ospf_has_a_debug_response_of_its_own)
{
    MOspfDebug debug = M_OSPF_DEBUG__INIT;
    connect(DAEMON_ID_OSPFD, quagga_frame(OSPF, OSPF_DEBUG, packed(debug)));
    EXPECT_EQ(cfgmgr_quagga_pb_send_message(&vpn.record, &debug, DAEMON_ID_OSPFD, OSPF_DEBUG), QUAGGA_OK);
    EXPECT_TRUE(log_has("cfgmgr_quagga_pb_ospf_debug_resp_process["));
}

// ---- answers for a transaction

TEST_F(cfgmgr_quagga_pb, a_refused_validation_sets_slot_and_error_of_its_transaction)
{
    connect(DAEMON_ID_BGPD, quagga_frame(BGP, BGP_VALIDATE_RESPONSE, response(1, "bad expression 100%s")));
    confd_trans_ctx tctx{};
    EXPECT_EQ(validate_as_path(&tctx), QUAGGA_OK);
    EXPECT_EQ(tctx.t_opaque, reinterpret_cast<void *>(-1));
    EXPECT_TRUE(agent().has_called("confd_trans_seterr bad expression 100%s"));
    EXPECT_TRUE(log_has("Validate response 1 - bad expression 100%s"));
    EXPECT_EQ(peer->frames()[0].substr(2, 3), "\x01\x0f\x0f"s);
}

TEST_F(cfgmgr_quagga_pb, a_passed_validation_clears_the_slot)
{
    connect(DAEMON_ID_BGPD, quagga_frame(BGP, BGP_VALIDATE_RESPONSE, response(0)));
    confd_trans_ctx tctx{};
    EXPECT_EQ(validate_as_path(&tctx), QUAGGA_OK);
    EXPECT_EQ(tctx.t_opaque, nullptr);
    EXPECT_EQ(agent().calls_of("confd_trans_seterr").size(), 0u);
    EXPECT_TRUE(log_has("Validate response 0 - success"));
}

TEST_F(cfgmgr_quagga_pb, configuration_after_a_validation_leaves_the_old_transaction_alone)
{
    connect(DAEMON_ID_BGPD, [](const std::string &frame) {
        return frame[3] == BGP_INSTANCE ? BGP_DONE : quagga_frame(BGP, BGP_VALIDATE_RESPONSE, response(0));
    });
    auto tctx = std::make_unique<confd_trans_ctx>();
    EXPECT_EQ(validate_as_path(tctx.get()), QUAGGA_OK);
    tctx.reset(); // a sanitizer tells of a touch
    EXPECT_EQ(send_instance(), QUAGGA_OK);
    confd_trans_ctx next{};
    EXPECT_EQ(validate_as_path(&next), QUAGGA_OK);
    EXPECT_EQ(next.t_opaque, nullptr);
}

TEST_F(cfgmgr_quagga_pb, an_answer_for_a_transaction_that_is_over_is_fatal)
{
    connect(DAEMON_ID_BGPD, quagga_frame(BGP, BGP_VALIDATE_RESPONSE, response(0)));
    confd_trans_ctx tctx{};
    EXPECT_EQ(validate_as_path(&tctx), QUAGGA_OK);
    EXPECT_EQ(cfgmgr_quagga_pb_asking(), nullptr);
    expect_assertion([&] { (void)send_instance(); }, "failed assertion");
}

// ---- notifications

TEST_F(cfgmgr_quagga_pb, notifications_are_taken_as_they_come_and_get_no_answer)
{
    connect(DAEMON_ID_OSPFD, ""s);
    raw_peer_t notifier(run_path("ospfd_protobuf_notify.api.5"));
    MOspfNotify message = M_OSPF_NOTIFY__INIT;
    message.notify_type = 1;
    std::string frame = quagga_frame(OSPF, OSPF_NOTIFY, packed(message), 9);
    for (char byte : frame) {
        notifier.send(std::string(1, byte));
        loop.turn();
    }
    notifier.send(frame + frame);
    EXPECT_TRUE(loop.run_until([] { return log_count("Rx msg type:16, len:8, mod:ospf, seq:9") == 3; }));
    EXPECT_EQ(notifier.receive(), "");
    EXPECT_FALSE(notifier.is_closed());
}

} // namespace
