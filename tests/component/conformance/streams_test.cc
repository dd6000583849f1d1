// Notification streams: what subscribers get, what the agent keeps for those who come later, also over its restarts.
#include "tests/component/conformance/conform.h"

namespace
{

confd_datetime time_of(uint8_t minute)
{
    confd_datetime time{};
    time.year = 2026;
    time.month = 11;
    time.day = 22;
    time.hour = 3;
    time.min = minute;
    time.micro = 250000;
    return time;
}

struct stream_event_t {
    int kind = -1; // wire_stream_event_t; -1: nothing came
    int minute = -1;
    std::string document;
};

// A subscriber of a stream: a connection of bare frames.
class stream_client : public raw_client
{
public:
    stream_client(const agentd_process &agent, const std::string &stream, int start = -1, int stop = -1)
        : raw_client(agent, WIRE_KIND_NOTIF)
    {
        wire_writer_t payload;
        payload.text(stream);
        for (int minute : { start, stop }) {
            confd_value_t value{};
            if (minute < 0)
                CONFD_SET_NOEXISTS(&value);
            else
                CONFD_SET_DATETIME(&value, time_of(static_cast<uint8_t>(minute)));
            wire_put_value(payload, value);
        }
        post(WIRE_STREAM_SUBSCRIBE, payload.bytes);
        frame_t reply = read_frame();
        while (reply.op == WIRE_STREAM_EVENT) { // of a replay
            early_.push_back(event_of(reply));
            reply = read_frame();
        }
        status = reply.status;
        text = status > 0 ? reply.text() : "";
    }
    stream_event_t next()
    {
        if (!early_.empty()) {
            stream_event_t event = early_.front();
            early_.erase(early_.begin());
            return event;
        }
        return event_of(read_frame());
    }
    bool is_quiet() const
    {
        pollfd item = { fd(), POLLIN, 0 };
        return early_.empty() && poll(&item, 1, 150) == 0;
    }

    int status = -1;
    std::string text;

private:
    static stream_event_t event_of(const frame_t &frame)
    {
        stream_event_t event;
        if (frame.op != WIRE_STREAM_EVENT)
            return event;
        wire_reader_t in(frame.payload);
        event.kind = in.u8();
        confd_value_t time = wire_get_value(in);
        event.minute = time.type == C_DATETIME ? time.val.datetime.min : -1;
        event.document = in.text();
        EXPECT_TRUE(in.finished());
        return event;
    }

    std::vector<stream_event_t> early_;
};

// "link-change" with a severity, a VPN and a name.
std::vector<confd_tag_value_t> link_change(uint64_t vpn, const char *name)
{
    uint32_t ns = confd_str2hash("urn:test:conform"), top = confd_str2hash("link-change"),
             link = confd_str2hash("link");
    std::vector<confd_tag_value_t> values(7);
    CONFD_SET_TAG_XMLBEGIN(&values[0], top, ns);
    CONFD_SET_TAG_ENUM_VALUE(&values[1], confd_str2hash("severity"), 2);
    CONFD_SET_TAG_XMLBEGIN(&values[2], link, ns);
    CONFD_SET_TAG_UINT64(&values[3], confd_str2hash("vpn"), vpn);
    CONFD_SET_TAG_STR(&values[4], confd_str2hash("name"), name);
    CONFD_SET_TAG_XMLEND(&values[5], link, ns);
    CONFD_SET_TAG_XMLEND(&values[6], top, ns);
    return values;
}

class streams : public testing::Test
{
protected:
    void start_daemon()
    {
        daemon = std::make_unique<test_daemon>(agent);
        confd_notification_stream_cbs row{};
        snprintf(row.streamname, sizeof row.streamname, "corvane");
        row.fd = daemon->worker_fd();
        ASSERT_EQ(confd_register_notification_stream(daemon->ctx(), &row, &stream), CONFD_OK) << confd_lasterr();
        ASSERT_EQ(
            confd_register_snmp_notification(daemon->ctx(), daemon->worker_fd(), "corvane_snmpv2_trap", "", &snmp),
            CONFD_OK)
            << confd_lasterr();
        daemon->start();
    }
    int send(uint8_t minute, uint64_t vpn, const char *name = "eth0")
    {
        confd_datetime time = time_of(minute);
        std::vector<confd_tag_value_t> values = link_change(vpn, name);
        return confd_notification_send(stream, &time, values.data(), static_cast<int>(values.size()));
    }
    // Of the minutes 1 to last. A sender is not answered: the agent has what a subscriber has seen.
    void send_and_see(uint8_t last)
    {
        stream_client witness(agent, "corvane");
        for (uint8_t minute = 1; minute <= last; minute++)
            ASSERT_EQ(send(minute, minute), CONFD_OK) << confd_lasterr();
        for (int minute = 1; minute <= last; minute++)
            ASSERT_EQ(witness.next().minute, minute);
    }
    void SetUp() override { start_daemon(); }

    conform_agent agent;
    std::unique_ptr<test_daemon> daemon;
    confd_notification_ctx *stream = nullptr, *snmp = nullptr;
};

TEST_F(streams, a_notification_reaches_all_subscribers_as_a_document)
{
    stream_client first(agent, "corvane"), second(agent, "corvane");
    ASSERT_EQ(first.status, 0) << first.text;
    ASSERT_EQ(send(1, 5, "eth \"0\""), CONFD_OK) << confd_lasterr();
    for (stream_client *client : { &first, &second }) {
        stream_event_t event = client->next();
        EXPECT_EQ(event.kind, WIRE_STREAM_NOTIFICATION);
        EXPECT_EQ(event.minute, 1);
        for (const char *part : { "conform:link-change", "\"severity\":\"major\"", "\"vpn\":\"5\"", "eth \\\"0\\\"" }) {
            std::string text = event.document;
            std::erase(text, '\n');
            for (size_t at; (at = text.find("\": ")) != std::string::npos;)
                text.erase(at + 2, 1);
            EXPECT_TRUE(mentions(text, part)) << part << ": " << event.document;
        }
    }
}

TEST_F(streams, notifications_come_in_the_order_of_sending_from_several_threads)
{
    stream_client client(agent, "corvane");
    ASSERT_EQ(client.status, 0) << client.text;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([this, t] {
            for (uint8_t i = 0; i < 25; i++)
                EXPECT_EQ(send(i, static_cast<uint64_t>(t)), CONFD_OK) << confd_lasterr();
        });
    for (std::thread &thread : threads)
        thread.join();
    int last[4] = { -1, -1, -1, -1 };
    for (int i = 0; i < 100; i++) {
        stream_event_t event = client.next();
        ASSERT_EQ(event.kind, WIRE_STREAM_NOTIFICATION);
        size_t at = event.document.find("vpn\"");
        ASSERT_NE(at, std::string::npos) << event.document;
        int thread = event.document[event.document.find_first_of("0123", at)] - '0';
        EXPECT_EQ(event.minute, last[thread] + 1);
        last[thread] = event.minute;
    }
    EXPECT_TRUE(client.is_quiet());
}

TEST_F(streams, those_who_come_later_get_what_was_kept_and_then_what_comes)
{
    send_and_see(4);
    stream_client watcher(agent, "corvane", 0);
    ASSERT_EQ(watcher.status, 0) << watcher.text;
    for (int minute = 1; minute <= 4; minute++)
        EXPECT_EQ(watcher.next().minute, minute);
    EXPECT_EQ(watcher.next().kind, WIRE_STREAM_REPLAY_COMPLETE);
    ASSERT_EQ(send(5, 5), CONFD_OK);
    EXPECT_EQ(watcher.next().minute, 5);

    stream_client part(agent, "corvane", 2, 3);
    ASSERT_EQ(part.status, 0) << part.text;
    EXPECT_EQ(part.next().minute, 2);
    EXPECT_EQ(part.next().minute, 3);
    EXPECT_EQ(part.next().kind, WIRE_STREAM_REPLAY_COMPLETE);
    EXPECT_EQ(part.next().kind, WIRE_STREAM_COMPLETE);
}

TEST_F(streams, what_was_kept_outlives_the_agent)
{
    send_and_see(3);
    agent.kill_it(SIGKILL);
    ASSERT_TRUE(daemon->is_disconnected());
    agent.start();
    start_daemon();
    stream_client after(agent, "corvane", 0);
    ASSERT_EQ(after.status, 0) << after.text;
    for (int minute = 1; minute <= 3; minute++)
        EXPECT_EQ(after.next().minute, minute);
    EXPECT_EQ(after.next().kind, WIRE_STREAM_REPLAY_COMPLETE);
    ASSERT_EQ(send(4, 4), CONFD_OK);
    EXPECT_EQ(after.next().minute, 4);
}

TEST_F(streams, a_stream_that_nobody_has_registered_is_refused)
{
    stream_client client(agent, "nothing");
    EXPECT_EQ(client.status, CONFD_ERR_NOEXISTS);
    EXPECT_TRUE(mentions(client.text, "nothing")) << client.text;
}

TEST_F(streams, a_notification_that_the_model_lacks_is_dropped_and_logged)
{
    stream_client client(agent, "corvane");
    std::vector<confd_tag_value_t> values = link_change(5, "eth0");
    confd_datetime time = time_of(1);
    values[3].tag.tag = confd_str2hash("mtu");
    EXPECT_EQ(confd_notification_send(stream, &time, values.data(), 7), CONFD_OK) << "nobody answers a sender";
    values = link_change(5, "eth0");
    EXPECT_EQ(confd_notification_send(stream, &time, values.data(), 5), CONFD_ERR) << "it lacks its ends";
    ASSERT_EQ(send(2, 6), CONFD_OK);
    EXPECT_EQ(client.next().minute, 2);
    EXPECT_TRUE(mentions(agent.log(), "notification")) << agent.log();
}

TEST_F(streams, a_subscriber_that_does_not_read_does_not_hold_up_the_others)
{
    stream_client lazy(agent, "corvane");
    stream_client client(agent, "corvane");
    std::string long_name(4000, 'x');
    for (int i = 0; i < 2000; i++)
        ASSERT_EQ(send(static_cast<uint8_t>(i % 60), static_cast<uint64_t>(i), long_name.c_str()), CONFD_OK);
    for (int i = 0; i < 2000; i++)
        ASSERT_EQ(client.next().minute, i % 60) << i;
    EXPECT_EQ(commit(agent, { { "/data/host", "box" } }).result, CONFD_OK);
}

// ---- SNMP

TEST_F(streams, an_snmp_notification_goes_on_record_under_the_name_set_for_it)
{
    confd_snmp_varbind variables[2]{};
    for (confd_snmp_varbind &variable : variables)
        variable.type = CONFD_SNMP_VARIABLE;
    snprintf(variables[0].name, sizeof variables[0].name, "linkVpn");
    CONFD_SET_UINT64(&variables[0].val, 5);
    snprintf(variables[1].name, sizeof variables[1].name, "linkName");
    CONFD_SET_STR(&variables[1].val, "eth \"0\"");
    ASSERT_EQ(confd_notification_send_snmp(snmp, "linkChangeTrap", variables, 2), CONFD_OK) << confd_lasterr();
    ASSERT_EQ(confd_notification_set_snmp_notify_name(snmp, "group_a"), CONFD_OK) << confd_lasterr();
    ASSERT_EQ(confd_notification_send_snmp(snmp, "linkChangeTrap", variables, 1), CONFD_OK) << confd_lasterr();
    ASSERT_TRUE(agent.has_status("\"snmp-notifications\":2")) << agent.status();
    std::istringstream record(agent.dir().read("state/snmp-notifications.jsonl"));
    std::string first, second;
    std::getline(record, first);
    std::getline(record, second);
    for (const char *part :
         { "corvane_snmpv2_trap", "linkChangeTrap", "linkVpn", "\"5\"", "linkName", "eth \\\"0\\\"" })
        EXPECT_TRUE(mentions(first, part)) << part << ": " << first;
    EXPECT_TRUE(mentions(second, "group_a")) << second;
    EXPECT_FALSE(mentions(second, "corvane_snmpv2_trap")) << second;
}

} // namespace
