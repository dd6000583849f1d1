// Frames, messages and answers of the routing peer, without sockets.
#include "platform/routing/answer.h"
#include "platform/routing/message_json.h"
#include "platform/routing/validate.h"
#include "proto/bgp.pb-c.h"
#include "proto/ospf.pb-c.h"
#include "proto/policy.pb-c.h"
#include "proto/routing_common.pb-c.h"
#include "proto/zebra.pb-c.h"

#include <gtest/gtest.h>
#include <regex.h>
#include <set>

namespace
{

std::string bytes_of(std::initializer_list<int> values)
{
    return { values.begin(), values.end() };
}

// ---- frames

TEST(RoutingFrame, header_has_the_layout_of_the_channel)
{
    EXPECT_EQ(frame_bytes({ 1, 17, 17, "ab" }), bytes_of({ 0, 8, 1, 17, 17, 0 }) + "ab");
    EXPECT_EQ(frame_bytes({ 2, 0, 0, std::string(300, 'x') }).substr(0, 2), bytes_of({ 1, 50 }));
}

TEST(RoutingFrame, comes_back_with_what_follows_left)
{
    frame_t frame;
    size_t size = 0;
    std::string bytes = frame_bytes({ 2, 13, 13, "body" });
    ASSERT_EQ(frame_read(bytes + "next", &frame, &size), FRAME_WHOLE);
    EXPECT_EQ(size, bytes.size());
    EXPECT_EQ(frame.module, 2);
    EXPECT_EQ(frame.type, 13);
    EXPECT_EQ(frame.body, "body");
}

TEST(RoutingFrame, every_cut_one_is_a_part)
{
    frame_t frame;
    size_t size = 0;
    std::string bytes = frame_bytes({ 0, 1, 1, "body" });
    for (size_t length = 0; length < bytes.size(); length++)
        EXPECT_EQ(frame_read(bytes.substr(0, length), &frame, &size), FRAME_PART) << length;
}

TEST(RoutingFrame, length_without_room_for_the_header_is_bad)
{
    frame_t frame;
    size_t size = 0;
    for (int length = 0; length < 6; length++)
        EXPECT_EQ(frame_read(bytes_of({ 0, length, 0, 1, 1, 0 }), &frame, &size), FRAME_BAD) << length;
    EXPECT_EQ(frame_read(bytes_of({ 0, 6, 0, 1, 1, 0 }), &frame, &size), FRAME_WHOLE);
    EXPECT_EQ(frame.body, "");
}

TEST(RoutingFrame, largest_body_fits_and_a_larger_one_does_not)
{
    EXPECT_EQ(frame_bytes({ 0, 1, 1, std::string(65529, 'x') }).size(), 65535u);
    EXPECT_EQ(frame_bytes({ 0, 1, 1, std::string(65530, 'x') }), "");
}

// ---- table

TEST(RoutingTable, answers_go_by_type_and_kind)
{
    struct {
        uint8_t module, type, answer;
        message_kind_t kind;
        const char *name;
    } const rows[] = {
        { 0, 1, 5, MESSAGE_CONFIG, "m_system_routerid" },
        { 0, 4, 5, MESSAGE_CONFIG, "m_rtm_route_map_ospf" },
        { 0, 6, 6, MESSAGE_SHOW, "m_rtm_show" },
        { 0, 7, 7, MESSAGE_CONTROL, "m_rtm_control" },
        { 0, 10, 10, MESSAGE_DEBUG, "m_rtm_debug" },
        { 2, 0, 10, MESSAGE_CONFIG, "m_ospf_instance" },
        { 2, 1, 11, MESSAGE_VALIDATE, "m_ospf_instance" },
        { 2, 6, 10, MESSAGE_CONFIG, "m_ospf_area_interface_address" },
        { 2, 12, 12, MESSAGE_SHOW, "m_ospf_show" },
        { 2, 13, 13, MESSAGE_CLEAR, "m_ospf_clear" },
        { 1, 0, 13, MESSAGE_CONFIG, "m_bgp_instance" },
        { 1, 12, 13, MESSAGE_CONFIG, "m_route_map" },
        { 1, 14, 16, MESSAGE_VALIDATE, "m_bgp_neighbor" },
        { 1, 15, 16, MESSAGE_VALIDATE, "m_bgp_as_path_list" },
        { 1, 17, 17, MESSAGE_SHOW, "m_bgp_show" },
        { 1, 19, 19, MESSAGE_DEBUG, "m_bgp_debug" },
    };
    for (const auto &row : rows) {
        const message_row_t *found = message_row_find(row.module, row.type);
        ASSERT_NE(found, nullptr) << row.name;
        EXPECT_EQ(found->answer_type, row.answer) << row.name;
        EXPECT_EQ(found->kind, row.kind) << row.name;
        EXPECT_STREQ(found->descriptor->name, row.name);
    }
}

TEST(RoutingTable, what_only_daemons_send_is_not_taken)
{
    std::set<std::pair<int, int>> taken;
    for (int module = 0; module < 256; module++) {
        for (int type = 0; type < 256; type++) {
            if (message_row_find(static_cast<uint8_t>(module), static_cast<uint8_t>(type)) != nullptr)
                taken.insert({ module, type });
        }
    }
    EXPECT_EQ(taken.size(), 7u + 13u + 18u);
    for (auto [module, type] : { std::pair{ 0, 5 },
                                 { 0, 8 },
                                 { 0, 9 },
                                 { 2, 10 },
                                 { 2, 11 },
                                 { 2, 15 },
                                 { 2, 16 },
                                 { 1, 13 },
                                 { 1, 16 },
                                 { 1, 20 },
                                 { 1, 21 } })
        EXPECT_FALSE(taken.contains({ module, type })) << module << " " << type;
}

TEST(RoutingTable, daemons_have_the_wire_numbers_of_their_own)
{
    EXPECT_EQ(daemon_row_find("zebra")->module, 0);
    EXPECT_EQ(daemon_row_find("bgpd")->module, 1);
    EXPECT_EQ(daemon_row_find("ospfd")->module, 2);
    EXPECT_STREQ(daemon_row_find("bgpd")->mgmt_path, "/var/run/quagga/bgpd_protobuf_mgmt.api");
    EXPECT_STREQ(daemon_row_find("ospfd")->notify_path, "/var/run/quagga/ospfd_protobuf_notify.api");
    EXPECT_STREQ(daemon_row_find("zebra")->control_path, "/var/run/quagga/zebra_protobuf_ctrl.api");
    EXPECT_EQ(daemon_row_find("ospf"), nullptr);
}

// ---- JSON

TEST(RoutingJson, shows_the_fields_that_are_present)
{
    char address[] = "10.0.0.1", text[] = "a \"b\"\n";
    MIpAddress router_id = M_IP_ADDRESS__INIT;
    router_id.is_ipv4 = 1;
    router_id.address = address;
    MBgpInstance instance = M_BGP_INSTANCE__INIT;
    instance.as_num = 4294967295U;
    EXPECT_EQ(message_json(instance.base), "{\"as_num\":4294967295}");
    instance.has_shutdown = 1;
    instance.router_id = &router_id;
    EXPECT_EQ(message_json(instance.base),
              "{\"as_num\":4294967295,\"shutdown\":false,\"router_id\":{\"is_ipv4\":true,\"address\":\"10.0.0.1\"}}");
    MMsgResponse response = M_MSG_RESPONSE__INIT;
    response.message = text;
    EXPECT_EQ(message_json(response.base), "{\"code\":0,\"message\":\"a \\u0022b\\u0022\\u000a\"}");
}

TEST(RoutingJson, repeated_fields_are_lists)
{
    char names[2][4] = { "ge0", "ge1" };
    MRtmShowIf first = M_RTM_SHOW_IF__INIT, second = M_RTM_SHOW_IF__INIT;
    MRtmShowIf *interfaces[] = { &first, &second };
    first.name = names[0];
    second.name = names[1];
    second.has_rx_octets = 1;
    second.rx_octets = UINT64_MAX;
    MRtmShow show = M_RTM_SHOW__INIT;
    show.n_interfaces = 2;
    show.interfaces = interfaces;
    EXPECT_EQ(message_json(show.base), "{\"show_type\":0,\"interfaces\":[{\"name\":\"ge0\",\"if_index\":0},"
                                       "{\"name\":\"ge1\",\"if_index\":0,\"rx_octets\":18446744073709551615}]}");
}

TEST(RoutingJson, text_stays_json_whatever_the_bytes)
{
    EXPECT_EQ(json_text("gr\xc3\xbc\xc3\x9f"), "\"gr\xc3\xbc\xc3\x9f\"");
    EXPECT_EQ(json_text("\xf0\x9f\x98\x80"), "\"\xf0\x9f\x98\x80\"");
    EXPECT_EQ(json_text("\xfc"
                        "b"),
              "\"\\u00fcb\"");                                         // Latin-1
    EXPECT_EQ(json_text("\xc3"), "\"\\u00c3\"");                       // cut
    EXPECT_EQ(json_text("\xc0\x80"), "\"\\u00c0\\u0080\"");            // longer than it has to be
    EXPECT_EQ(json_text("\xed\xa0\x80"), "\"\\u00ed\\u00a0\\u0080\""); // half of a pair
    EXPECT_EQ(json_text("\xf8\x88"), "\"\\u00f8\\u0088\"");
    EXPECT_EQ(json_text(std::string_view("\0", 1)), "\"\\u0000\"");
}

// ---- answers

struct ask_t {
    std::string control;
    backend_t backend = plain_backend();
    size_t shows = 0;

    answer_t operator()(uint8_t module, uint8_t type, const ProtobufCMessage &message)
    {
        return answer_make(backend, control_parse(control), &shows, *message_row_find(module, type), message);
    }
    // Of an answer that is right: its type and, as JSON, its body.
    std::string text(uint8_t module, uint8_t type, const ProtobufCMessage &message,
                     const ProtobufCMessageDescriptor &descriptor)
    {
        frame_t frame;
        size_t size = 0;
        answer_t answer = (*this)(module, type, message);
        if (frame_read(answer.bytes, &frame, &size) != FRAME_WHOLE || size != answer.bytes.size() ||
            frame.module != module || frame.seq != frame.type)
            return "no frame";
        message_row_t row = { module, frame.type, 0, MESSAGE_CONFIG, &descriptor };
        message_ptr body = message_unpack(row, frame.body);
        return body ? std::to_string(frame.type) + " " + message_json(*body) : "no message";
    }
};

MBgpNeighbor neighbor()
{
    return M_BGP_NEIGHBOR__INIT;
}

TEST(RoutingAnswer, configuration_and_validation_have_responses_of_their_own)
{
    ask_t ask;
    MBgpAsPathList list = M_BGP_AS_PATH_LIST__INIT;
    MBgpNeighbor message = neighbor();
    EXPECT_EQ(ask.text(1, 5, message.base, m_msg_response__descriptor), "13 {\"code\":0}");
    EXPECT_EQ(ask.text(1, 14, message.base, m_msg_response__descriptor), "16 {\"code\":0}");
    EXPECT_EQ(ask.text(1, 15, list.base, m_msg_response__descriptor), "16 {\"code\":0}");
}

TEST(RoutingAnswer, show_that_finds_nothing_repeats_what_it_was_asked)
{
    ask_t ask;
    char name[] = "ge0";
    MRtmShowIf key = M_RTM_SHOW_IF__INIT;
    key.name = name;
    MRtmShowIf *keys[] = { &key };
    MRtmShow show = M_RTM_SHOW__INIT;
    show.show_type = 3;
    show.has_get_first = show.get_first = 1;
    show.has_same_or_next = show.same_or_next = 1;
    show.has_exact = show.exact = 1;
    show.has_longer = show.longer = 1;
    show.n_interfaces = 1;
    show.interfaces = keys;
    EXPECT_EQ(ask.text(0, 6, show.base, m_rtm_show__descriptor), "6 {\"show_type\":3,\"exact\":true,\"longer\":1}");
}

TEST(RoutingAnswer, show_lines_answer_in_turn)
{
    ask_t ask{ .control = "show-reply 0807\nfor 12 show-reply 0809\nshow-reply 0808\n" };
    MRtmShow show = M_RTM_SHOW__INIT;
    for (const char *type : { "7", "8", "0", "0" })
        EXPECT_EQ(ask.text(0, 6, show.base, m_rtm_show__descriptor), std::string("6 {\"show_type\":") + type + "}");
}

TEST(RoutingAnswer, clear_and_debug_answer_with_themselves)
{
    ask_t ask;
    MBgpClear clear = M_BGP_CLEAR__INIT;
    MRtmDebug debug = M_RTM_DEBUG__INIT;
    clear.clear_type = 1;
    debug.debug_type = 2;
    EXPECT_EQ(ask.text(1, 18, clear.base, m_bgp_clear__descriptor), "18 {\"code\":0,\"clear_type\":1}");
    EXPECT_EQ(ask.text(0, 10, debug.base, m_rtm_debug__descriptor), "10 {\"code\":0,\"debug_type\":2}");
    ask.control = "refuse 7 not now";
    EXPECT_EQ(ask.text(1, 18, clear.base, m_bgp_clear__descriptor),
              "18 {\"code\":7,\"message\":\"not now\",\"clear_type\":1}");
}

TEST(RoutingAnswer, refusal_may_be_limited_to_a_type)
{
    ask_t ask{ .control = "for 14 refuse 22 bad neighbor" };
    MBgpNeighbor message = neighbor();
    EXPECT_EQ(ask.text(1, 5, message.base, m_msg_response__descriptor), "13 {\"code\":0}");
    EXPECT_EQ(ask.text(1, 14, message.base, m_msg_response__descriptor),
              "16 {\"code\":22,\"message\":\"bad neighbor\"}");
}

TEST(RoutingAnswer, invalid_is_said_to_requests_for_validation_only)
{
    ask_t ask{ .control = "refuse 3 no\ninvalid 5 an instance too many" };
    MOspfInstance message = M_OSPF_INSTANCE__INIT;
    EXPECT_EQ(ask.text(2, 0, message.base, m_msg_response__descriptor), "10 {\"code\":3,\"message\":\"no\"}");
    EXPECT_EQ(ask.text(2, 1, message.base, m_msg_response__descriptor),
              "11 {\"code\":5,\"message\":\"an instance too many\"}");
    ask.control = "for 14 invalid 5";
    EXPECT_EQ(ask.text(2, 1, message.base, m_msg_response__descriptor), "11 {\"code\":0}");
}

TEST(RoutingAnswer, backend_decides_without_control_lines)
{
    ask_t ask;
    ask.backend.config = [](void *, const message_row_t &row, const ProtobufCMessage &) {
        return backend_result_t{ row.type, "by the backend" };
    };
    MBgpNeighbor message = neighbor();
    EXPECT_EQ(ask.text(1, 5, message.base, m_msg_response__descriptor),
              "13 {\"code\":5,\"message\":\"by the backend\"}");
}

TEST(RoutingAnswer, header_is_bent_as_told)
{
    struct {
        const char *control;
        std::string header;
    } const rows[] = {
        { "", bytes_of({ 0, 8, 0, 5, 5, 0 }) },
        { "wrong-size", bytes_of({ 0, 5, 0, 5, 5, 0 }) },
        { "wrong-size 513", bytes_of({ 2, 1, 0, 5, 5, 0 }) },
        { "wrong-module", bytes_of({ 0, 8, 9, 5, 5, 0 }) },
        { "wrong-type 6", bytes_of({ 0, 8, 0, 6, 6, 0 }) },
        { "for 2 wrong-type", bytes_of({ 0, 8, 0, 5, 5, 0 }) },
    };
    MSystemRouterid message = M_SYSTEM_ROUTERID__INIT;
    for (const auto &row : rows)
        EXPECT_EQ(ask_t{ .control = row.control }(0, 1, message.base).bytes.substr(0, 6), row.header) << row.control;
}

TEST(RoutingAnswer, can_be_late_or_none)
{
    MSystemRouterid message = M_SYSTEM_ROUTERID__INIT;
    EXPECT_EQ(ask_t{ .control = "stall 1.5" }(0, 1, message.base).delay_ms, 1500u);
    EXPECT_EQ(ask_t{ .control = "stall forever" }(0, 1, message.base).delay_ms, CONTROL_FOREVER);
    EXPECT_TRUE(ask_t{ .control = "close" }(0, 1, message.base).is_close);
    EXPECT_TRUE(ask_t{ .control = "die" }(0, 1, message.base).is_death);
    answer_t plain = ask_t{}(0, 1, message.base);
    EXPECT_FALSE(plain.is_close || plain.is_death || plain.delay_ms != 0);
}

TEST(RoutingAnswer, answer_larger_than_a_frame_closes_the_connection)
{
    ask_t ask;
    ask.backend.show = [](void *, const message_row_t &, const ProtobufCMessage &) {
        return std::string(70000, 'x');
    };
    MRtmShow show = M_RTM_SHOW__INIT;
    EXPECT_TRUE(ask(0, 6, show.base).is_close);
}

// ---- validation

TEST(RoutingValidate, as_path_expressions_are_compiled)
{
    const std::string many = "Takes too long to compile";
    struct {
        std::string text;
        std::string fault; // "*": some
    } const rows[] = {
        { "", "" },
        { "^65000_", "" },
        { "_65000_65001$", "" },
        { "^([0-9]+_)*65000(_[0-9]+){2,3}$", "" },
        { "(_65000)+ {1,2}", "" },
        { "[^_]", "" },
        { "[]_]", "" },
        { "1)", "" },
        { "^1_2_3_4_5_6_7_8_9_10_11_12_13_14_15_16_17_18_19_20_21_22_23_24_25$", "" },
        { "(65000", "Unmatched ( or \\(" },
        { "[0-9", "Unmatched [, [^, [:, [., or [=" },
        { "[9-0]", "Invalid range end" },
        { "1{2", "*" },
        { "1{3,2}", "Invalid content of \\{\\}" },
        { "1{99999999999999999999}", "*" },
        { "*1", "Invalid preceding regular expression" },
        { "1\\", "Trailing backslash" },
        { std::string(127, '1'), "" },
        { std::string(128, '1'), "Longer than 127 characters" },
        { "1{1000}", "" },
        { "((((1{200}){200}){200}){200})", many },
        { "((((((((((((((((((((((((((1+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)", many },
        { "____________________*____", many },
    };
    for (const auto &row : rows) {
        std::string fault = as_path_fault(row.text);
        if (row.fault == "*")
            EXPECT_NE(fault, "") << row.text;
        else
            EXPECT_EQ(fault, row.fault) << row.text;
    }
}

TEST(RoutingValidate, a_border_of_a_number_is_any_of_its_neighbours)
{
    regex_t compiled;
    ASSERT_EQ(regcomp(&compiled, as_path_expression("_10_").c_str(), REG_EXTENDED | REG_NOSUB), 0);
    for (const char *path : { "10", "9 10 11", "10,11", "{9,10}", "(10)", "9 {10}" })
        EXPECT_EQ(regexec(&compiled, path, 0, nullptr, 0), 0) << path;
    for (const char *path : { "", "100", "110 210", "1.10" })
        EXPECT_NE(regexec(&compiled, path, 0, nullptr, 0), 0) << path;
    regfree(&compiled);
    EXPECT_EQ(as_path_expression("[^]_]_[_]\\_"), "[^]_](^|[,{}() ]|$)[_]\\_");
}

TEST(RoutingValidate, a_refused_expression_is_named_with_the_reason)
{
    ask_t ask;
    struct {
        std::string regex, answer;
    } rows[] = {
        { "_65000$", "{\"code\":0}" },
        { "[9-0", "{\"code\":1,\"message\":\"as-path expression '[9-0' : Invalid range end\"}" },
        { "(\n\xff\"", "{\"code\":1,\"message\":\"as-path expression '(??\\u0022' : Unmatched ( or \\u005c(\"}" },
        { std::string(4000, '('), "{\"code\":1,\"message\":\"as-path expression '" + std::string(127, '(') +
                                      "...' : Longer than 127 characters\"}" },
    };
    for (auto &row : rows) {
        MBgpAsPathList list = M_BGP_AS_PATH_LIST__INIT;
        list.regex = row.regex.data();
        EXPECT_EQ(ask.text(1, 15, list.base, m_msg_response__descriptor), "16 " + row.answer);
        EXPECT_EQ(ask.text(1, 8, list.base, m_msg_response__descriptor), "13 {\"code\":0}"); // configured all the same
    }
}

TEST(RoutingValidate, a_neighbor_has_the_address_of_one_router)
{
    ask_t ask;
    struct {
        bool is_ipv4, is_good;
        std::string address;
    } rows[] = {
        { true, true, "10.0.0.1" },     { true, true, "223.255.255.255" }, { true, false, "0.0.0.0" },
        { true, false, "0.1.2.3" },     { true, false, "224.0.0.5" },      { true, false, "255.255.255.255" },
        { true, false, "10.0.0" },      { true, false, "2001:db8::1" },    { true, false, "" },
        { false, true, "2001:db8::1" }, { false, true, "fe80::1" },        { false, false, "::" },
        { false, false, "ff02::5" },    { false, false, "10.0.0.1" },      { false, false, "fe80::1%eth0" },
    };
    for (auto &row : rows) {
        MIpAddress address = M_IP_ADDRESS__INIT;
        address.is_ipv4 = row.is_ipv4;
        address.address = row.address.data();
        MBgpNeighbor message = neighbor();
        message.neighbor = &address;
        EXPECT_EQ(ask.text(1, 14, message.base, m_msg_response__descriptor),
                  row.is_good ? "16 {\"code\":0}"
                              : "16 {\"code\":1,\"message\":\"neighbor '" + row.address +
                                    "' : not an address of one router\"}");
    }
}

// ---- control words

TEST(RoutingControl, lines_that_are_not_understood_are_left_out)
{
    for (const char *text : { "refuse",
                              "refuse x text",
                              "invalid",
                              "stall",
                              "stall 1.2345",
                              "stall 1.",
                              "stall -1",
                              "stall 90000",
                              "die now",
                              "wrong-module 256",
                              "wrong-size 65536",
                              "late soon",
                              "for",
                              "for die",
                              "for 256 die",
                              "show-reply",
                              "notify",
                              "notify 0",
                              "notify zz",
                              "# die",
                              "Die",
                              " \t",
                              "" })
        EXPECT_TRUE(control_parse(text).empty()) << text;
}

TEST(RoutingControl, words_bring_their_values)
{
    std::vector<control_line_t> lines =
        control_parse("  refuse 3   no such  thing \r\nlate 250\nnotify 00fF\nshow-reply /tmp/answer\nshow-reply 08\n"
                      "stall 0.25\nfor 3 stall 2\nwrong-size\ndie");
    ASSERT_EQ(lines.size(), 9u);
    EXPECT_EQ(lines[0].number, 3u);
    EXPECT_EQ(lines[0].text, "no such  thing");
    EXPECT_EQ(lines[1].number, 250u);
    EXPECT_EQ(lines[2].text, bytes_of({ 0, 255 }));
    EXPECT_TRUE(lines[3].is_file);
    EXPECT_EQ(lines[3].text, "/tmp/answer");
    EXPECT_FALSE(lines[4].is_file);
    EXPECT_EQ(lines[5].number, 250u);
    EXPECT_EQ(lines[6].number, 2000u);
    EXPECT_EQ(lines[6].type, 3);
    EXPECT_EQ(lines[7].number, 5u);
    EXPECT_EQ(control_find(lines, CONTROL_STALL, 3), &lines[5]);
    EXPECT_EQ(control_find(lines, CONTROL_CLOSE, 3), nullptr);
}

} // namespace
