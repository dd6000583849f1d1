// Notification streams, SNMP notifications and the agent's own settings: a scripted daemon sends, subscribers read.
#include "tests/component/agentd_daemon.h"

static confd_value_t datetime(int year, int minute)
{
    confd_value_t value{};
    value.type = C_DATETIME;
    value.val.datetime.year = static_cast<int16_t>(year);
    value.val.datetime.month = 3;
    value.val.datetime.day = 4;
    value.val.datetime.min = static_cast<uint8_t>(minute);
    value.val.datetime.micro = 5;
    return value;
}

static confd_value_t no_time()
{
    confd_value_t value{};
    value.type = C_NOEXISTS;
    return value;
}

static std::string subscription(const std::string &stream, const confd_value_t &start, const confd_value_t &stop)
{
    wire_writer_t payload;
    payload.text(stream);
    wire_put_value(payload, start);
    wire_put_value(payload, stop);
    return payload.bytes;
}

// "0 2020:07 {...}": kind, year and minute, document; "quiet" when nothing comes.
static std::string next_event(const raw_client &client)
{
    raw_client::frame_t frame = client.read_frame();
    if (frame.status < 0)
        return "quiet";
    wire_reader_t in(frame.payload);
    std::string line = std::to_string(in.u8());
    confd_value_t time = wire_get_value(in);
    std::string document(in.text());
    EXPECT_TRUE(in.finished());
    if (!document.empty())
        line +=
            " " + std::to_string(time.val.datetime.year) + ":" + std::to_string(time.val.datetime.min) + " " + document;
    return line;
}

static tag_values_t line_change(uint32_t speed)
{
    tag_values_t values;
    values.begin("line-change").label("severity", 2).text("name", "gone").u32("speed", speed);
    values.begin("where").u8("rack", 4).end("where").end("line-change");
    return values;
}

static std::string document(uint32_t speed)
{
    return R"({"lab-act:line-change":{"severity":"major","name":"gone","speed":)" + std::to_string(speed) +
           R"(,"where":{"rack":4}}})";
}

struct stream_bench {
    explicit stream_bench(const std::string &config = "auto-phase2 = yes\n") : agent(config)
    {
        agent.kill_it(SIGKILL);
        std::filesystem::copy_file(DEVICE_YANG_DIR "/confd_dyncfg.yang", agent.dir().path("yang/confd_dyncfg.yang"));
        begin();
    }
    void begin()
    {
        agent.start();
        daemon = std::make_unique<scripted_daemon>(agent);
        handle = daemon->register_stream("corvane");
        snmp = daemon->register_snmp("std", "ctx");
        daemon->done();
    }
    void send_values(const confd_value_t &time, const tag_values_t &values, uint32_t to) const
    {
        wire_writer_t payload;
        payload.u32(to);
        wire_put_value(payload, time);
        daemon->worker.send_bytes(wire_frame(WIRE_NOTIFY_SEND, 0, 1, payload.bytes + values.bytes()));
    }
    void send(int year, int minute, uint32_t speed) const
    {
        send_values(datetime(year, minute), line_change(speed), handle);
    }
    std::string status() const { return peer_client(agent, WIRE_KIND_ADMIN).ask(WIRE_ADMIN_STATUS).text(); }
    // Until the agent has seen what was sent, or ten seconds.
    bool wait_for_status(const std::string &text) const
    {
        for (int i = 0; i < 1000 && status().find(text) == std::string::npos; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return status().find(text) != std::string::npos;
    }
    agentd_process agent;
    std::unique_ptr<scripted_daemon> daemon;
    uint32_t handle = 0;
    uint32_t snmp = 0;
};

struct subscriber_client : peer_client {
    subscriber_client(const agentd_process &agent, const confd_value_t &start, const confd_value_t &stop)
        : peer_client(agent, WIRE_KIND_NOTIF)
    {
        frame_t reply = ask(WIRE_STREAM_SUBSCRIBE, subscription("corvane", start, stop));
        EXPECT_EQ(reply.status, 0) << reply.text();
    }
};

TEST(agentd_stream, a_subscriber_gets_what_is_sent_as_a_document_of_the_model)
{
    stream_bench bench;
    subscriber_client live(bench.agent, no_time(), no_time());
    bench.send(2020, 7, 100);
    EXPECT_EQ(next_event(live), "0 2020:7 " + document(100));
    subscriber_client ends(bench.agent, no_time(), datetime(2020, 8));
    EXPECT_EQ(next_event(ends), "2");
    bench.send(2020, 9, 101);
    EXPECT_EQ(next_event(live), "0 2020:9 " + document(101));
}

TEST(agentd_stream, a_replay_starts_at_its_time_survives_a_restart_and_goes_on_live)
{
    stream_bench bench;
    for (int minute = 1; minute <= 5; minute++)
        bench.send(2020, minute, static_cast<uint32_t>(minute));
    ASSERT_TRUE(bench.wait_for_status("\"stored\":5"));
    bench.agent.kill_it(SIGKILL);
    bench.begin();
    subscriber_client reader(bench.agent, datetime(2020, 4), no_time());
    EXPECT_EQ(next_event(reader), "0 2020:4 " + document(4));
    EXPECT_EQ(next_event(reader), "0 2020:5 " + document(5));
    EXPECT_EQ(next_event(reader), "1");
    bench.send(2020, 6, 6);
    EXPECT_EQ(next_event(reader), "0 2020:6 " + document(6));
    subscriber_client between(bench.agent, datetime(2020, 2), datetime(2020, 3));
    EXPECT_EQ(next_event(between), "0 2020:2 " + document(2));
    EXPECT_EQ(next_event(between), "0 2020:3 " + document(3));
    EXPECT_EQ(next_event(between), "1");
    EXPECT_EQ(next_event(between), "2");
}

TEST(agentd_stream, live_events_wait_behind_a_long_replay)
{
    stream_bench bench;
    constexpr uint32_t STORED = 3000;
    for (uint32_t i = 0; i < STORED; i++)
        bench.send(2020, 1, i % 1000);
    ASSERT_TRUE(bench.wait_for_status("\"stored\":3000"));
    subscriber_client reader(bench.agent, datetime(2020, 1), no_time());
    bench.send(2021, 1, 999);
    for (uint32_t i = 0; i < STORED; i++)
        ASSERT_EQ(next_event(reader), "0 2020:1 " + document(i % 1000));
    EXPECT_EQ(next_event(reader), "1");
    EXPECT_EQ(next_event(reader), "0 2021:1 " + document(999));
}

struct bad_event_t {
    const char *what;
    confd_value_t time;
    tag_values_t values;
    bool is_own_handle;
};

TEST(agentd_stream, a_notification_that_does_not_fit_is_dropped_with_a_line_in_the_log)
{
    stream_bench bench;
    subscriber_client live(bench.agent, no_time(), no_time());
    std::vector<bad_event_t> rows;
    rows.push_back({ "0..1000", datetime(2020, 1), line_change(5000), true });
    rows.push_back({ "time does not exist", datetime(1900, 1), line_change(1), true });
    rows.push_back(
        { "no notification act", datetime(2020, 1), std::move(tag_values_t().begin("act").end("act")), true });
    rows.push_back(
        { "severity", datetime(2020, 1), std::move(tag_values_t().begin("line-change").end("line-change")), true });
    rows.push_back({ "begin and its end", datetime(2020, 1), std::move(tag_values_t().u32("speed", 1)), true });
    rows.push_back({ "no stream with handle", datetime(2020, 1), line_change(1), false });
    for (const bad_event_t &row : rows)
        bench.send_values(row.time, row.values, row.is_own_handle ? bench.handle : 4711);
    bench.send(2020, 2, 7);
    EXPECT_EQ(next_event(live), "0 2020:2 " + document(7));
    for (const bad_event_t &row : rows)
        EXPECT_NE(bench.agent.log().find(row.what), std::string::npos) << row.what << bench.agent.log();
    EXPECT_NE(bench.status().find("\"notifications-dropped\":6"), std::string::npos);
    bench.daemon->worker.post(WIRE_NOTIFY_SEND, "garbage");
    EXPECT_TRUE(bench.daemon->worker.is_at_end());
}

TEST(agentd_stream, what_cannot_be_subscribed_is_refused_with_the_reason)
{
    stream_bench bench;
    peer_client client(bench.agent, WIRE_KIND_NOTIF);
    raw_client::frame_t reply = client.ask(WIRE_STREAM_SUBSCRIBE, subscription("other", no_time(), no_time()));
    EXPECT_EQ(reply.status, CONFD_ERR_NOEXISTS);
    EXPECT_NE(reply.text().find("corvane"), std::string::npos) << reply.text();
    EXPECT_EQ(client.ask(WIRE_STREAM_SUBSCRIBE, subscription("corvane", datetime(2999, 1), no_time())).status,
              CONFD_ERR_BADTYPE);
    EXPECT_EQ(client.ask(WIRE_STREAM_SUBSCRIBE, subscription("corvane", datetime(2020, 2), datetime(2020, 1))).status,
              CONFD_ERR_BADTYPE);
    EXPECT_EQ(client.ask(WIRE_STREAM_SUBSCRIBE, subscription("corvane", no_time(), no_time())).status, 0);
    EXPECT_EQ(client.ask(WIRE_STREAM_SUBSCRIBE, subscription("corvane", no_time(), no_time())).status,
              CONFD_ERR_BADSTATE);
}

TEST(agentd_stream, a_subscriber_that_does_not_read_is_disconnected_and_others_are_served)
{
    stream_bench bench("auto-phase2 = yes\noutbound-limit = 70000\n");
    auto slow = std::make_unique<subscriber_client>(bench.agent, no_time(), no_time());
    int small = 4096;
    setsockopt(slow->fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    subscriber_client live(bench.agent, no_time(), no_time());
    for (uint32_t i = 0; i < 60000 && bench.agent.log().find("does not read") == std::string::npos; i++) {
        bench.send(2020, 1, i % 1000);
        ASSERT_EQ(next_event(live), "0 2020:1 " + document(i % 1000));
    }
    EXPECT_NE(bench.agent.log().find("does not read"), std::string::npos);
}

static const char *REPLAY_SWITCH =
    "/confd_dyncfg:confdConfig/notifications/eventStreams/stream{corvane}/builtinReplayStore/enabled";

TEST(agentd_stream, the_store_is_emptied_by_removing_its_files_and_switching_it_off_and_on)
{
    stream_bench bench;
    session_client user(bench.agent);
    bench.send(2020, 1, 1);
    ASSERT_TRUE(bench.wait_for_status("\"stored\":1"));
    std::filesystem::remove_all(bench.agent.dir().path("state/netconf_replay"));
    bench.agent.dir().make_dir("state/netconf_replay");
    user.set(REPLAY_SWITCH, "false");
    peer_client client(bench.agent, WIRE_KIND_NOTIF);
    EXPECT_EQ(client.ask(WIRE_STREAM_SUBSCRIBE, subscription("corvane", datetime(2020, 1), no_time())).status,
              CONFD_ERR_UNAVAILABLE);
    subscriber_client live(bench.agent, no_time(), no_time());
    bench.send(2020, 2, 2);
    EXPECT_EQ(next_event(live), "0 2020:2 " + document(2)); // sent, not kept
    user.set(REPLAY_SWITCH, "true");
    bench.send(2020, 3, 3);
    EXPECT_EQ(next_event(live), "0 2020:3 " + document(3));
    subscriber_client reader(bench.agent, datetime(2020, 1), no_time());
    EXPECT_EQ(next_event(reader), "0 2020:3 " + document(3));
    EXPECT_EQ(next_event(reader), "1");
}

TEST(agentd_stream, the_developer_log_follows_its_settings)
{
    stream_bench bench;
    session_client user(bench.agent);
    std::string logs = "/confd_dyncfg:confdConfig/logs/";
    user.set(logs + "developerLogLevel", "trace");
    user.set(logs + "developerLog/file/enabled", "true");
    user.set(logs + "developerLog/enabled", "true");
    {
        peer_client guest(bench.agent, WIRE_KIND_CDB_DATA);
    }
    EXPECT_TRUE(bench.wait_for_status("\"phase\":2"));
    std::string log = bench.agent.dir().read("state/devel.log");
    EXPECT_NE(log.find("peer (pid 4000) connects: data"), std::string::npos) << log;
    EXPECT_EQ(bench.agent.log().find("connects: data"), std::string::npos);
    user.set(logs + "developerLogLevel", "error");
    size_t size = bench.agent.dir().read("state/devel.log").size();
    {
        peer_client guest(bench.agent, WIRE_KIND_CDB_DATA);
    }
    EXPECT_TRUE(bench.wait_for_status("\"phase\":2"));
    EXPECT_EQ(bench.agent.dir().read("state/devel.log").size(), size);
}

TEST(agentd_stream, an_object_identifier_is_taken_as_arcs_and_judged_by_the_model)
{
    stream_bench bench;
    session_client user(bench.agent);
    wire_writer_t begin;
    begin.u8(WIRE_DB_RUNNING);
    begin.u8(1);
    begin.u32(0);
    uint32_t th = wire_reader_t(user.ask(WIRE_MAAPI_START_TRANS, begin.bytes).payload).u32();
    uint32_t good[] = { 1, 3, 6, 1, 4, 1, 32473, 3, 2, 7 };
    uint32_t bad[] = { 9, 9 };
    for (auto [arcs, len] : { std::pair<uint32_t *, int>{ bad, 2 }, { good, 10 } }) {
        confd_oid oid{ arcs, len };
        confd_value_t value{};
        value.type = C_OID;
        value.val.oidp = &oid;
        wire_writer_t edit;
        edit.u32(th);
        edit.text("/confdConfig/snmpAgent/system/sysObjectID");
        wire_put_value(edit, value);
        EXPECT_EQ(user.ask(WIRE_MAAPI_SET, edit.bytes).status, len == 2 ? CONFD_ERR_BADTYPE : 0);
    }
    user.apply(th);
    wire_writer_t dump;
    dump.u8(WIRE_DB_RUNNING);
    dump.u8(0);
    std::string text = peer_client(bench.agent, WIRE_KIND_ADMIN).ask(WIRE_ADMIN_DUMP, dump.bytes).text();
    EXPECT_NE(text.find("1.3.6.1.4.1.32473.3.2.7"), std::string::npos) << text;
}

TEST(agentd_stream, snmp_notifications_are_recorded_with_texts_of_the_model)
{
    stream_bench bench;
    wire_writer_t payload;
    payload.u32(bench.snmp);
    payload.text("group-1");
    payload.text("actLineChange");
    payload.u32(3);
    confd_value_t value{};
    payload.text("actLineSpeed");
    value.type = C_UINT32;
    value.val.u32 = 12;
    wire_put_value(payload, value);
    payload.text("actLineLevel");
    value.type = C_ENUM_VALUE;
    value.val.enumvalue = 2;
    wire_put_value(payload, value);
    payload.text("unknown");
    wire_put_value(payload, value);
    bench.daemon->worker.send_bytes(wire_frame(WIRE_NOTIFY_SNMP, 0, 1, payload.bytes));
    ASSERT_TRUE(bench.wait_for_status("\"snmp-notifications\":1"));
    std::string line = bench.agent.dir().read("state/snmp-notifications.jsonl");
    EXPECT_NE(line.find(R"("notify":"group-1","context":"ctx","notification":"actLineChange","varbinds":[)"
                        R"({"name":"actLineSpeed","value":"12"},{"name":"actLineLevel","value":"major"},)"
                        R"({"name":"unknown","value":"2"}]})"),
              std::string::npos)
        << line;
}
