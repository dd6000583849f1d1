// What the kernel says of interfaces, from bytes to events and control frames.
#include "platform/routing/interface_table.h"
#include "platform/routing/message_json.h"
#include "platform/routing/rtm_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <random>
#include <set>

namespace
{

template <typename T> std::string raw(const T &record)
{
    return { reinterpret_cast<const char *>(&record), sizeof record };
}

std::string padded(std::string bytes)
{
    bytes.resize((bytes.size() + 3) / 4 * 4, '\0');
    return bytes;
}

std::string attribute(uint16_t type, const std::string &value)
{
    rtattr head = { static_cast<uint16_t>(sizeof head + value.size()), type };
    return padded(raw(head) + value);
}

std::string message(uint16_t type, const std::string &body, uint32_t seq = 0, uint16_t flags = 0)
{
    nlmsghdr head = {};
    head.nlmsg_len = static_cast<uint32_t>(sizeof head + body.size());
    head.nlmsg_type = type;
    head.nlmsg_flags = flags;
    head.nlmsg_seq = seq;
    return padded(raw(head) + body);
}

std::string link_body(int index, const std::string &name, unsigned flags = 0, unsigned char family = AF_UNSPEC)
{
    ifinfomsg info = {};
    info.ifi_family = family;
    info.ifi_index = index;
    info.ifi_flags = flags;
    return raw(info) + attribute(IFLA_MTU, raw(1500U)) + attribute(IFLA_IFNAME, name + std::string(1, '\0'));
}

std::string packed_address(const std::string &text)
{
    char bytes[16] = {};
    bool is_ipv4 = text.find(':') == std::string::npos;
    inet_pton(is_ipv4 ? AF_INET : AF_INET6, text.c_str(), bytes);
    return { bytes, is_ipv4 ? 4u : 16u };
}

std::string address_body(unsigned index, const std::string &text, unsigned char length, uint16_t kind = IFA_ADDRESS)
{
    std::string value = packed_address(text);
    ifaddrmsg info = {};
    info.ifa_family = value.size() == 4 ? AF_INET : AF_INET6;
    info.ifa_prefixlen = length;
    info.ifa_index = index;
    return raw(info) + attribute(kind, value);
}

// ---- bytes

TEST(RoutingNetlink, links_and_addresses_of_one_datagram_come_in_order)
{
    auto changes =
        netlink_parse(message(RTM_NEWLINK, link_body(7, "ge0_1", IFF_UP | IFF_RUNNING), 3) +
                      message(RTM_NEWROUTE, "whatever") + message(RTM_NEWADDR, address_body(7, "10.1.5.1", 24)) +
                      message(RTM_DELADDR, address_body(7, "2001:db8::1", 64)) +
                      message(RTM_DELLINK, link_body(8, "ge0_2")) + message(NLMSG_DONE, raw(0), 9));
    ASSERT_EQ(changes.size(), 5u);
    EXPECT_EQ(changes[0].kind, KERNEL_LINK);
    EXPECT_EQ(changes[0].link.index, 7u);
    EXPECT_EQ(changes[0].link.name, "ge0_1");
    EXPECT_EQ(changes[0].link.flags, IFF_UP | IFF_RUNNING);
    EXPECT_EQ(changes[0].seq, 3u);
    EXPECT_EQ(changes[1].kind, KERNEL_ADDRESS);
    EXPECT_EQ(changes[1].address.prefix_length, 24);
    EXPECT_EQ(changes[2].kind, KERNEL_ADDRESS_GONE);
    EXPECT_EQ(changes[2].address.family, AF_INET6);
    EXPECT_EQ(changes[3].kind, KERNEL_LINK_GONE);
    EXPECT_EQ(changes[4].kind, KERNEL_DONE);
    EXPECT_EQ(changes[4].seq, 9u);
}

TEST(RoutingNetlink, own_end_of_a_point_to_point_link_is_the_address)
{
    std::string body = address_body(7, "192.0.2.2", 32) + attribute(IFA_LOCAL, packed_address("192.0.2.1"));
    auto changes = netlink_parse(message(RTM_NEWADDR, body));
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].address.bytes[3], 1);
}

TEST(RoutingNetlink, interrupted_dump_and_refusal_are_seen)
{
    auto changes =
        netlink_parse(message(NLMSG_DONE, raw(0), 4, NLM_F_DUMP_INTR) + message(NLMSG_ERROR, raw(-EBUSY), 5) +
                      message(NLMSG_ERROR, raw(0), 6)); // an acknowledgement
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_TRUE(changes[0].is_interrupted);
    EXPECT_EQ(changes[1].kind, KERNEL_ERROR);
    EXPECT_EQ(changes[1].error, EBUSY);
}

TEST(RoutingNetlink, what_is_malformed_or_of_others_is_left_out)
{
    std::string long_name(IFNAMSIZ, 'n');
    for (const std::string &bytes : {
             message(RTM_NEWLINK, link_body(7, "ge0", 0, AF_BRIDGE)), // a bridge's view of a port
             message(RTM_NEWLINK, link_body(0, "ge0")),
             message(RTM_NEWLINK, link_body(-1, "ge0")),
             message(RTM_NEWLINK, link_body(7, "")),
             message(RTM_NEWLINK, link_body(7, long_name)),
             message(RTM_NEWLINK, raw(ifinfomsg{})),
             message(RTM_NEWLINK, "short"),
             message(RTM_NEWADDR, address_body(0, "10.0.0.1", 8)),
             message(RTM_NEWADDR, address_body(7, "10.0.0.1", 33)),
             message(RTM_NEWADDR, address_body(7, "10.0.0.1", 8, IFA_BROADCAST)),
             message(RTM_NEWADDR, address_body(7, "10.0.0.1", 8).substr(0, 14)),
             message(RTM_NEWLINK, link_body(7, "ge0")).substr(0, 30),
         })
        EXPECT_TRUE(netlink_parse(bytes).empty());
}

TEST(RoutingNetlink, every_cut_of_a_datagram_is_read_within_its_bounds)
{
    std::string bytes = message(RTM_NEWLINK, link_body(7, "ge0_1")) + message(RTM_NEWADDR, address_body(7, "::1", 128));
    for (size_t length = 0; length < bytes.size(); length++) {
        std::string cut(bytes.data(), length); // of its own, for the sanitizer
        EXPECT_LE(netlink_parse(cut).size(), 1u);
    }
}

// ---- events

struct table_env_t {
    interface_table_t table;

    std::string tell(const std::string &bytes)
    {
        interface_events_t events;
        for (const kernel_change_t &change : netlink_parse(bytes))
            interface_table_apply(&table, change, &events);
        return text(events);
    }
    static std::string text(const interface_events_t &events)
    {
        std::string out;
        for (const interface_event_t &event : events)
            out += (out.empty() ? "" : " ") + std::to_string(event.op) + ":" + event.link.name +
                   (event.has_run_change ? "!" : "");
        return out;
    }
};

TEST(RoutingInterfaces, only_changes_are_events)
{
    table_env_t env;
    EXPECT_EQ(env.tell(message(RTM_NEWLINK, link_body(7, "ge0"))), "0:ge0");
    EXPECT_EQ(env.tell(message(RTM_NEWLINK, link_body(7, "ge0"))), "");
    EXPECT_EQ(env.tell(message(RTM_NEWLINK, link_body(7, "ge0", IFF_PROMISC))), "");
    EXPECT_EQ(env.tell(message(RTM_NEWLINK, link_body(7, "ge0", IFF_UP))), "2:ge0");
    EXPECT_EQ(env.tell(message(RTM_NEWLINK, link_body(7, "ge0", IFF_UP | IFF_RUNNING))), "2:ge0!");
    EXPECT_EQ(env.tell(message(RTM_NEWADDR, address_body(7, "10.0.0.1", 8))), "4:ge0");
    EXPECT_EQ(env.tell(message(RTM_NEWADDR, address_body(7, "10.0.0.1", 8))), "");
    EXPECT_EQ(env.tell(message(RTM_NEWADDR, address_body(7, "10.0.0.1", 16))), "4:ge0");
    EXPECT_EQ(env.tell(message(RTM_DELADDR, address_body(7, "10.0.0.1", 8))), "5:ge0");
    EXPECT_EQ(env.tell(message(RTM_DELADDR, address_body(7, "10.0.0.1", 8))), "");
    EXPECT_EQ(env.tell(message(RTM_DELLINK, link_body(7, "ge0"))), "1:ge0");
    EXPECT_EQ(env.tell(message(RTM_DELLINK, link_body(7, "ge0"))), "");
    EXPECT_EQ(env.tell(message(RTM_NEWLINK, link_body(7, "ge0"))), "0:ge0"); // its addresses went with it
}

TEST(RoutingInterfaces, renamed_one_goes_and_comes_with_its_addresses)
{
    table_env_t env;
    env.tell(message(RTM_NEWLINK, link_body(7, "eth0")) + message(RTM_NEWADDR, address_body(7, "10.0.0.1", 8)));
    EXPECT_EQ(env.tell(message(RTM_NEWLINK, link_body(7, "ge0"))), "1:eth0 0:ge0 4:ge0");
}

TEST(RoutingInterfaces, address_waits_for_its_interface)
{
    table_env_t env;
    EXPECT_EQ(env.tell(message(RTM_NEWADDR, address_body(7, "10.0.0.1", 8))), "");
    EXPECT_EQ(env.tell(message(RTM_NEWLINK, link_body(7, "ge0"))), "0:ge0 4:ge0");
}

TEST(RoutingInterfaces, replay_tells_each_with_its_addresses)
{
    table_env_t env;
    env.tell(message(RTM_NEWLINK, link_body(7, "ge0")) + message(RTM_NEWLINK, link_body(1, "lo")) +
             message(RTM_NEWADDR, address_body(7, "::1", 64)) + message(RTM_NEWADDR, address_body(7, "10.0.0.1", 8)) +
             message(RTM_NEWADDR, address_body(1, "127.0.0.1", 8)));
    EXPECT_EQ(table_env_t::text(interface_table_replay(env.table)), "0:lo 4:lo 0:ge0 4:ge0 4:ge0");
}

TEST(RoutingInterfaces, sweep_tells_what_is_gone)
{
    table_env_t env;
    interface_events_t events;
    env.tell(message(RTM_NEWLINK, link_body(1, "lo")) + message(RTM_NEWLINK, link_body(7, "ge0")) +
             message(RTM_NEWADDR, address_body(1, "127.0.0.1", 8)) +
             message(RTM_NEWADDR, address_body(1, "127.0.0.2", 8)));
    interface_table_sweep_begin(&env.table);
    env.tell(message(RTM_NEWLINK, link_body(1, "lo")) + message(RTM_NEWADDR, address_body(1, "127.0.0.1", 8)));
    interface_table_sweep_end(&env.table, &events);
    EXPECT_EQ(table_env_t::text(events), "5:lo 1:ge0");
}

// Whoever follows the events knows what the table knows.
TEST(RoutingInterfaces, events_lead_to_the_replay)
{
    std::mt19937 generator(20261122);
    auto random = [&generator] { return static_cast<uint32_t>(generator()); };
    interface_table_t table;
    std::map<uint32_t, std::string> links;
    std::set<kernel_address_t> addresses;
    auto follow = [&](const interface_events_t &events) {
        for (const interface_event_t &event : events) {
            if (event.op == INTERFACE_ADD) {
                links[event.link.index] = event.link.name;
            } else if (event.op == INTERFACE_DEL) {
                EXPECT_EQ(links.erase(event.link.index), 1u);
                std::erase_if(addresses, [&](const auto &one) { return one.index == event.link.index; });
            } else if (event.op == INTERFACE_ADDRESS_ADD) {
                EXPECT_TRUE(addresses.insert(event.address).second);
            } else if (event.op == INTERFACE_ADDRESS_DEL) {
                EXPECT_EQ(addresses.erase(event.address), 1u);
            }
            EXPECT_TRUE(event.op == INTERFACE_DEL || links.contains(event.link.index));
        }
    };
    for (int i = 0; i < 20000; i++) {
        kernel_change_t change{};
        interface_events_t events;
        change.kind = static_cast<kernel_change_kind_t>(random() % 4);
        change.link = { .index = 1 + random() % 5, .flags = random() % 4, .name = random() % 2 ? "a" : "b" };
        change.address = { .index = 1 + random() % 5, .family = AF_INET, .prefix_length = 8, .bytes = {} };
        change.address.bytes[0] = static_cast<uint8_t>(random() % 4);
        if (random() % 500 == 0)
            interface_table_sweep_begin(&table);
        interface_table_apply(&table, change, &events);
        if (random() % 500 == 0)
            interface_table_sweep_end(&table, &events);
        follow(events);
    }
    std::set<kernel_address_t> told;
    std::map<uint32_t, std::string> told_links;
    for (const interface_event_t &event : interface_table_replay(table)) {
        if (event.op == INTERFACE_ADDRESS_ADD)
            told.insert(event.address);
        else
            told_links[event.link.index] = event.link.name;
    }
    EXPECT_EQ(told, addresses);
    EXPECT_EQ(told_links, links);
}

// ---- frames

std::string event_text(const interface_event_t &event)
{
    frame_t frame;
    size_t size = 0;
    std::string bytes = interface_event_frame(event);
    if (frame_read(bytes, &frame, &size) != FRAME_WHOLE || frame.seq != 0)
        return "no frame";
    const message_row_t *row = message_row_find(frame.module, frame.type);
    message_ptr body = row != nullptr ? message_unpack(*row, frame.body) : nullptr;
    return body ? std::string(row->descriptor->name) + " " + message_json(*body) : "no message";
}

TEST(RoutingControlFrames, carry_what_the_operation_has)
{
    kernel_link_t link = { 7, IFF_UP | IFF_RUNNING, "ge0_1" };
    kernel_address_t address = netlink_parse(message(RTM_NEWADDR, address_body(7, "2001:db8::1", 64)))[0].address;
    const std::string head = "m_rtm_control {\"control_type\":4,\"interface\":{";
    EXPECT_EQ(event_text({ INTERFACE_ADD, link, {} }),
              head + "\"op\":0,\"name\":\"ge0_1\",\"if_index\":7,\"flags\":65,\"prefix_length\":0}}");
    EXPECT_EQ(event_text({ INTERFACE_DEL, link, {} }),
              head + "\"op\":1,\"name\":\"ge0_1\",\"if_index\":7,\"prefix_length\":0}}");
    EXPECT_EQ(event_text({ INTERFACE_STATE, link, {} }),
              head + "\"op\":2,\"name\":\"ge0_1\",\"if_index\":7,\"flags\":65,\"prefix_length\":0}}");
    EXPECT_EQ(event_text({ INTERFACE_ADDRESS_DEL, link, address }),
              head + "\"op\":5,\"name\":\"ge0_1\",\"if_index\":7,\"prefix_length\":64,"
                     "\"address\":{\"is_ipv4\":false,\"address\":\"2001:db8::1\"}}}");
}

} // namespace
