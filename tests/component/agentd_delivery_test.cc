// What subscribers of agentd get, when, and in which order.
#include "tests/component/agentd_clients.h"

#include <cinttypes>

static constexpr int ADDS = 3, DELETES = 2; // the priorities of a path that is subscribed to twice

// Two points on the list of VPNs and two on its ports, as a client that takes deletions before additions has them.
struct split_subscriber : subscription_client {
    explicit split_subscriber(const agentd_process &agent) : subscription_client(agent)
    {
        vpn_add = subscribe(ADDS, "/net/vpn");
        vpn_del = subscribe(DELETES, "/net/vpn");
        port_add = subscribe(ADDS, "net/vpn/port");
        port_del = subscribe(DELETES, "net/vpn/port");
        done();
    }
    int vpn_add, vpn_del, port_add, port_del;
};

struct commit_row_t {
    const char *what;
    std::vector<edit_t> before; // committed first
    std::vector<edit_t> edits;
    const char *vpn;  // changes at the VPN points; empty: no delivery
    const char *port; // and at the port points
};

static const commit_row_t commit_rows[] = {
    { "an entry is created", {}, { { "/net/vpn{5}/name", "a" } }, "created /net:net/vpn{5}: id=5 name=a", "" },
    { "an entry is deleted",
      { { "/net/vpn{5}/name", "a" } },
      { { "/net/vpn{5}", "-" } },
      "deleted /net:net/vpn{5}",
      "" },
    { "an entry with entries below is deleted",
      { { "/net/vpn{5}/port{p}/speed", "1" } },
      { { "/net/vpn{5}", "-" } },
      "deleted /net:net/vpn{5}",
      "" },
    { "a leaf is set",
      { { "/net/vpn{5}", "+" } },
      { { "/net/vpn{5}/mtu", "1400" } },
      "modified /net:net/vpn{5}: mtu=1400",
      "" },
    { "a leaf goes back to its default",
      { { "/net/vpn{5}/mtu", "1400" } },
      { { "/net/vpn{5}/mtu", "-" } },
      "modified /net:net/vpn{5}: -mtu",
      "" },
    { "an entry below is created",
      { { "/net/vpn{5}", "+" } },
      { { "/net/vpn{5}/port{p}/speed", "10" } },
      "modified /net:net/vpn{5}:",
      "created /net:net/vpn{5}/port{p}: name=p speed=10" },
    { "an empty presence container is added",
      { { "/net/vpn{5}/port{p}", "+" } },
      { { "/net/vpn{5}/port{p}/shaping", "+" } },
      "modified /net:net/vpn{5}:",
      "modified /net:net/vpn{5}/port{p}: shaping( )" },
    { "a presence container is deleted",
      { { "/net/vpn{5}/port{p}/shaping/rate", "7" } },
      { { "/net/vpn{5}/port{p}/shaping", "-" } },
      "modified /net:net/vpn{5}:",
      "modified /net:net/vpn{5}/port{p}: -shaping" },
    { "two entries change at once",
      { { "/net/vpn{5}", "+" }, { "/net/vpn{6}", "+" } },
      { { "/net/vpn{6}", "-" }, { "/net/vpn{5}/name", "x" }, { "/net/vpn{4}", "+" } },
      "created /net:net/vpn{4}: id=4; modified /net:net/vpn{5}: name=x; deleted /net:net/vpn{6}",
      "" },
    { "something else changes", {}, { { "/net/banner", "x" } }, "", "" },
    { "a leaf is set to what it is", { { "/net/vpn{5}/mtu", "900" } }, { { "/net/vpn{5}/mtu", "900" } }, "", "" },
};

// Reads the event of one level, and checks its points and what they show.
static void expect_level(subscription_client &client, int vpn_point, int port_point, const commit_row_t &row)
{
    delivery_event_t event = client.read();
    ASSERT_EQ(event.result, CONFD_OK);
    EXPECT_EQ(event.type, CDB_SUB_COMMIT);
    EXPECT_EQ(event.flags, 0);
    std::vector<int> points = { vpn_point };
    if (*row.port)
        points.push_back(port_point);
    EXPECT_EQ(event.points, points);
    EXPECT_EQ(client.changes(vpn_point), row.vpn);
    if (*row.port) {
        EXPECT_EQ(client.changes(port_point), row.port);
    }
    EXPECT_TRUE(client.is_quiet()) << "the next level comes behind the sync of this one";
    EXPECT_EQ(client.sync(), CONFD_OK);
}

TEST(agentd_delivery, each_level_gets_the_same_changes_after_the_one_before_has_synced)
{
    for (const commit_row_t &row : commit_rows) {
        SCOPED_TRACE(row.what);
        agentd_process agent;
        if (!row.before.empty()) {
            ASSERT_EQ(commit(agent, row.before).result, CONFD_OK);
        }
        split_subscriber client(agent);
        auto committing = commit_beside(agent, row.edits);
        if (*row.vpn) {
            expect_level(client, client.vpn_del, client.port_del, row);
            expect_level(client, client.vpn_add, client.port_add, row);
        }
        EXPECT_EQ(committing.get().result, CONFD_OK);
        EXPECT_TRUE(client.is_quiet());
    }
}

TEST(agentd_delivery, all_clients_of_a_level_sync_before_the_next_level)
{
    agentd_process agent;
    subscription_client first(agent), second(agent);
    first.subscribe(1, "/net/banner");
    first.subscribe(2, "/net/banner");
    second.subscribe(1, "/net/banner");
    first.done();
    second.done();
    auto committing = commit_beside(agent, { { "/net/banner", "x" } });
    EXPECT_EQ(first.read().points.size(), 1u);
    EXPECT_EQ(first.sync(), CONFD_OK);
    EXPECT_TRUE(first.is_quiet()) << "the second client has not synced level 1";
    EXPECT_EQ(second.read().points.size(), 1u);
    EXPECT_EQ(second.sync(), CONFD_OK);
    EXPECT_EQ(first.read().points.size(), 1u);
    EXPECT_EQ(committing.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    EXPECT_EQ(first.sync(), CONFD_OK);
    EXPECT_EQ(committing.get().result, CONFD_OK);
}

TEST(agentd_delivery, points_count_once_subscribing_is_done)
{
    agentd_process agent;
    subscription_client client(agent);
    client.subscribe(1, "/net/banner");
    EXPECT_EQ(commit(agent, { { "/net/banner", "x" } }).result, CONFD_OK);
    EXPECT_TRUE(client.is_quiet());
    client.done();
    int point = -1;
    EXPECT_EQ(cdb_subscribe(client.fd(), 1, 0, &point, "/net/vpn"), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADSTATE);
}

TEST(agentd_delivery, a_path_that_the_model_lacks_is_not_subscribed_to)
{
    agentd_process agent;
    subscription_client client(agent);
    int point = -1;
    EXPECT_EQ(cdb_subscribe(client.fd(), 1, 0, &point, "/net/nothing"), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADPATH);
    EXPECT_NE(std::string(confd_lasterr()).find("nothing"), std::string::npos);
}

TEST(agentd_delivery, new_and_old_running_are_both_read_during_delivery)
{
    agentd_process agent;
    ASSERT_EQ(commit(agent, { { "/net/banner", "old" } }).result, CONFD_OK);
    subscription_client client(agent);
    client.subscribe(1, "/net/banner");
    client.done();
    auto committing = commit_beside(agent, { { "/net/banner", "new" } });
    EXPECT_EQ(client.read().result, CONFD_OK);
    EXPECT_EQ(read_leaf(agent, "/net/banner"), "new");
    EXPECT_EQ(read_leaf(agent, "/net/banner", CDB_PRE_COMMIT_RUNNING), "old");
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(committing.get().result, CONFD_OK);
    EXPECT_EQ(read_leaf(agent, "/net/banner", CDB_PRE_COMMIT_RUNNING), "new");
}

TEST(agentd_delivery, changes_are_given_between_event_and_sync_only_and_for_delivered_points_only)
{
    agentd_process agent;
    subscription_client client(agent);
    int banner = client.subscribe(1, "/net/banner"), vpn = client.subscribe(1, "/net/vpn");
    client.done();
    const std::string bad_state = "error " + std::to_string(CONFD_ERR_BADSTATE);
    EXPECT_EQ(client.changes(banner), bad_state);
    auto committing = commit_beside(agent, { { "/net/banner", "x" } });
    EXPECT_EQ(client.read().points, std::vector<int>{ banner });
    EXPECT_EQ(client.changes(vpn), bad_state);
    EXPECT_EQ(client.changes(banner).substr(0, 3), "set");
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(client.changes(banner), bad_state);
    EXPECT_EQ(client.sync(), CONFD_ERR) << "there is nothing to sync";
    EXPECT_EQ(committing.get().result, CONFD_OK);
}

TEST(agentd_delivery, commits_wait_for_the_delivery_before_them_in_order)
{
    agentd_process agent;
    subscription_client client(agent);
    int banner = client.subscribe(1, "/net/banner");
    client.done();
    auto first = commit_beside(agent, { { "/net/banner", "one" } });
    EXPECT_EQ(client.read().points, std::vector<int>{ banner });
    auto second = commit_beside(agent, { { "/net/banner", "two" } });
    EXPECT_EQ(second.wait_for(std::chrono::milliseconds(150)), std::future_status::timeout);
    EXPECT_EQ(read_leaf(agent, "/net/banner"), "one");
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(client.read().points, std::vector<int>{ banner });
    EXPECT_EQ(read_leaf(agent, "/net/banner"), "two");
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(first.get().result, CONFD_OK);
    EXPECT_EQ(second.get().result, CONFD_OK);
}

// ---- clients that fail

TEST(agentd_delivery, a_subscriber_that_dies_is_dropped_and_the_commit_goes_on)
{
    agentd_process agent;
    subscription_client dying(agent), living(agent);
    dying.subscribe(1, "/net/banner");
    dying.subscribe(2, "/net/banner");
    living.subscribe(3, "/net/banner");
    dying.done();
    living.done();
    auto committing = commit_beside(agent, { { "/net/banner", "x" } });
    EXPECT_EQ(dying.read().result, CONFD_OK);
    dying.end();
    EXPECT_EQ(living.read().result, CONFD_OK);
    EXPECT_EQ(living.sync(), CONFD_OK);
    EXPECT_EQ(committing.get().result, CONFD_OK);
    std::string status;
    EXPECT_EQ(agent.command({ "status", "--json" }, &status), 0);
    EXPECT_NE(status.find("\"subscriptions\":{\"count\":1,"), std::string::npos) << status;
}

TEST(agentd_delivery, a_subscriber_that_stalls_is_disconnected_and_the_commit_goes_on)
{
    agentd_process agent("auto-phase2 = yes\nsync-timeout-ms = 300\n");
    subscription_client stalled(agent);
    stalled.subscribe(1, "/net/banner");
    stalled.done();
    EXPECT_EQ(commit(agent, { { "/net/banner", "x" } }).result, CONFD_OK);
    EXPECT_EQ(stalled.read().result, CONFD_OK) << "it was served";
    EXPECT_EQ(stalled.sync(), CONFD_EOF);
    EXPECT_NE(agent.log().find("has not synced a delivery within 300 ms"), std::string::npos);
    EXPECT_EQ(commit(agent, { { "/net/banner", "y" } }).result, CONFD_OK);
}

TEST(agentd_delivery, a_committer_that_dies_leaves_its_commit_to_finish_under_its_name)
{
    agentd_process agent;
    subscription_client client(agent);
    client.subscribe(1, "/net/banner");
    client.done();
    client_socket events;
    sockaddr_in addr = agent.address();
    ASSERT_EQ(confd_notifications_connect2(events.fd(), reinterpret_cast<sockaddr *>(&addr), sizeof addr,
                                           CONFD_NOTIF_COMMIT_SIMPLE, nullptr),
              CONFD_OK);
    user_client user(agent, "ann");
    ASSERT_GT(user.begin(), 0);
    apply_edit(user, { "/net/banner", "x" });
    auto committing = std::async(std::launch::async, [&] { return user.apply(); });
    EXPECT_EQ(client.read().result, CONFD_OK);
    shutdown(user.fd(), SHUT_RDWR);
    EXPECT_NE(committing.get(), CONFD_OK);
    user.end();
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(read_leaf(agent, "/net/banner"), "x");
    ASSERT_TRUE(events.is_readable(10000));
    confd_notification event{};
    ASSERT_EQ(confd_read_notification(events.fd(), &event), CONFD_OK);
    EXPECT_STREQ(event.n.commit.uinfo.username, "ann");
    confd_free_notification(&event);
    auto next = commit_beside(agent, { { "/net/banner", "y" } });
    EXPECT_EQ(client.read().result, CONFD_OK);
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(next.get().result, CONFD_OK);
}

TEST(agentd_delivery, the_committer_is_told_who_is_waited_for)
{
    agentd_process agent;
    subscription_client client(agent);
    client.subscribe(4, "/net/banner");
    client.done();
    raw_client user(agent, WIRE_KIND_MAAPI);
    wire_writer_t session, start, set, apply;
    for (const char *text : { "ann", "cli", "127.0.0.1" })
        session.text(text);
    session.u16(0);
    ASSERT_EQ(user.ask(WIRE_MAAPI_START_SESSION, session.bytes).status, 0);
    start.u8(WIRE_DB_RUNNING);
    start.u8(1);
    start.u32(0);
    uint32_t th = wire_reader_t(user.ask(WIRE_MAAPI_START_TRANS, start.bytes).payload).u32();
    set.u32(th);
    set.text("/net/banner");
    set.text("x");
    ASSERT_EQ(user.ask(WIRE_MAAPI_SET_TEXT, set.bytes).status, 0);
    apply.u32(th);
    apply.u8(1);
    user.post(WIRE_MAAPI_APPLY_TRANS, apply.bytes);
    raw_client::frame_t push = user.read_frame();
    EXPECT_EQ(push.op, WIRE_MAAPI_PROGRESS);
    EXPECT_EQ(push.text(), "commit, priority 4: waiting for component-test (pid " + std::to_string(getpid()) + ")");
    EXPECT_EQ(client.read().result, CONFD_OK);
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(user.read_frame().op, WIRE_MAAPI_APPLY_TRANS | WIRE_REPLY);
}

// ---- two phases

TEST(agentd_two_phase, a_refused_prepare_aborts_those_that_agreed_and_changes_nothing)
{
    agentd_process agent;
    subscription_client agreeing(agent), refusing(agent), plain(agent);
    int agreed = agreeing.subscribe(1, "/net/banner", CDB_SUB_RUNNING_TWOPHASE);
    refusing.subscribe(2, "/net/banner", CDB_SUB_RUNNING_TWOPHASE);
    plain.subscribe(1, "/net/banner");
    for (subscription_client *client : { &agreeing, &refusing, &plain })
        client->done();
    auto committing = commit_beside(agent, { { "/net/banner", "x" } });
    delivery_event_t event = agreeing.read();
    EXPECT_EQ(event.type, CDB_SUB_PREPARE);
    EXPECT_EQ(agreeing.changes(agreed).substr(0, 3), "set");
    EXPECT_EQ(read_leaf(agent, "/net/banner"), "-") << "prepared, not committed";
    EXPECT_EQ(agreeing.sync(), CONFD_OK);
    EXPECT_EQ(refusing.read().type, CDB_SUB_PREPARE);
    EXPECT_EQ(cdb_sub_abort_trans(refusing.fd(), CONFD_ERRCODE_APPLICATION, 0, 0, "no %s today", "banners"), CONFD_OK);
    event = agreeing.read();
    EXPECT_EQ(event.type, CDB_SUB_ABORT);
    EXPECT_EQ(event.points, std::vector<int>{ agreed });
    EXPECT_EQ(agreeing.sync(), CONFD_OK);
    commit_result_t result = committing.get();
    EXPECT_EQ(result.error, CONFD_ERR_ABORTED);
    EXPECT_NE(result.text.find("no banners today"), std::string::npos) << result.text;
    EXPECT_EQ(read_leaf(agent, "/net/banner"), "-");
    EXPECT_TRUE(refusing.is_quiet());
    EXPECT_TRUE(plain.is_quiet());
}

TEST(agentd_two_phase, an_agreed_prepare_is_followed_by_the_commit)
{
    agentd_process agent;
    subscription_client client(agent);
    int two = client.subscribe(1, "/net/banner", CDB_SUB_RUNNING_TWOPHASE);
    int one = client.subscribe(1, "/net/banner");
    client.done();
    auto committing = commit_beside(agent, { { "/net/banner", "x" } });
    delivery_event_t event = client.read();
    EXPECT_EQ(event.type, CDB_SUB_PREPARE);
    EXPECT_EQ(event.points, std::vector<int>{ two });
    EXPECT_EQ(client.sync(), CONFD_OK);
    event = client.read();
    EXPECT_EQ(event.type, CDB_SUB_COMMIT);
    EXPECT_EQ(event.points, (std::vector<int>{ two, one }));
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(committing.get().result, CONFD_OK);
}

// ---- triggers

TEST(agentd_trigger, existing_data_comes_as_created_by_priority_and_empty_points_are_served_too)
{
    agentd_process agent;
    ASSERT_EQ(commit(agent, { { "/net/vpn{5}/port{p}/speed", "3" }, { "/net/vpn{6}/name", "b" } }).result, CONFD_OK);
    subscription_client client(agent), other(agent);
    int port = client.subscribe(6, "/net/vpn/port"), vpn = client.subscribe(3, "/net/vpn");
    int domain = client.subscribe(4, "/net/domain");
    client.done();
    auto reading = std::async(std::launch::async, [&agent] {
        data_client data(agent);
        return cdb_trigger_subscriptions(data.fd(), nullptr, 0);
    });
    delivery_event_t event = client.read();
    EXPECT_EQ(event.type, CDB_SUB_COMMIT);
    EXPECT_EQ(event.flags, CDB_SUB_FLAG_TRIGGER);
    EXPECT_EQ(event.points, std::vector<int>{ vpn });
    EXPECT_EQ(client.changes(vpn), "created /net:net/vpn{5}: id=5; created /net:net/vpn{6}: id=6 name=b");
    EXPECT_EQ(client.sync(), CONFD_OK);
    event = client.read();
    EXPECT_EQ(event.points, std::vector<int>{ domain });
    EXPECT_EQ(event.flags, CDB_SUB_FLAG_TRIGGER);
    EXPECT_EQ(client.changes(domain), "") << "nothing is there, and the client has to know";
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(client.read().points, std::vector<int>{ port });
    EXPECT_EQ(client.changes(port), "created /net:net/vpn{5}/port{p}: name=p speed=3");
    EXPECT_EQ(reading.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(reading.get(), CONFD_OK);
}

TEST(agentd_trigger, named_points_are_served_alone_and_those_of_others_refused)
{
    agentd_process agent;
    ASSERT_EQ(commit(agent, { { "/net/banner", "x" }, { "/net/vpn{5}", "+" } }).result, CONFD_OK);
    subscription_client client(agent);
    int banner = client.subscribe(1, "/net/banner"), domain = client.subscribe(1, "/net/domain");
    client.subscribe(1, "/net/vpn");
    client.done();
    data_client data(agent);
    auto reading = std::async(std::launch::async, [&] {
        int wanted[] = { banner, domain };
        return cdb_trigger_subscriptions(data.fd(), wanted, 2);
    });
    EXPECT_EQ(client.read().points, (std::vector<int>{ banner, domain }));
    EXPECT_EQ(client.changes(domain), "");
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(reading.get(), CONFD_OK);
    int foreign[] = { 4711 };
    EXPECT_EQ(cdb_trigger_subscriptions(data.fd(), foreign, 1), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_NOEXISTS);
}

TEST(agentd_trigger, in_phase_1_it_waits_for_the_init_transaction)
{
    agentd_process agent("");
    subscription_client client(agent);
    int banner = client.subscribe(1, "/net/banner");
    client.done();
    auto reading = std::async(std::launch::async, [&agent] {
        data_client data(agent);
        return cdb_trigger_subscriptions(data.fd(), nullptr, 0);
    });
    user_client init(agent, nullptr);
    ASSERT_EQ(maapi_attach_init(init.fd(), &init.th), CONFD_OK);
    apply_edit(init, { "/net/banner", "first boot" });
    EXPECT_TRUE(client.is_quiet());
    EXPECT_EQ(agent.command({ "start-phase2" }), 0);
    delivery_event_t event = client.read();
    EXPECT_EQ(event.points, std::vector<int>{ banner });
    EXPECT_EQ(event.flags, CDB_SUB_FLAG_TRIGGER);
    EXPECT_NE(client.changes(banner).find("first boot"), std::string::npos);
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(reading.get(), CONFD_OK);
    EXPECT_TRUE(client.is_quiet()) << "the init transaction itself is delivered to nobody";
}

TEST(agentd_trigger, operational_data_is_triggered_as_operational)
{
    agentd_process agent;
    data_client data(agent, CDB_OPERATIONAL);
    ASSERT_EQ(data.set_u32("/state/counter", 7), CONFD_OK);
    subscription_client client(agent);
    int counter = client.subscribe(1, "/state/counter", CDB_SUB_OPERATIONAL);
    int session = client.subscribe(1, "/state/session", CDB_SUB_OPERATIONAL);
    client.done();
    auto reading = std::async(std::launch::async, [&agent] {
        data_client other(agent);
        return cdb_trigger_oper_subscriptions(other.fd(), nullptr, 0, 1);
    });
    delivery_event_t event = client.read();
    EXPECT_EQ(event.type, CDB_SUB_OPER);
    EXPECT_EQ(event.flags, CDB_SUB_FLAG_TRIGGER);
    EXPECT_EQ(event.points, (std::vector<int>{ counter, session }));
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(reading.get(), CONFD_OK);
}

// ---- operational notifications

TEST(agentd_operational_delivery, a_write_during_a_delivery_is_done_at_once_and_told_behind_it)
{
    agentd_process agent;
    subscription_client client(agent);
    int banner = client.subscribe(1, "/net/banner");
    int counter = client.subscribe(1, "/state/counter", CDB_SUB_OPERATIONAL);
    int session = client.subscribe(1, "/state/session", CDB_SUB_OPERATIONAL);
    client.done();
    auto committing = commit_beside(agent, { { "/net/banner", "x" } });
    EXPECT_EQ(client.read().points, std::vector<int>{ banner });
    data_client data(agent, CDB_OPERATIONAL);
    EXPECT_EQ(data.set_u32("/state/counter", 1), CONFD_OK)
        << "the writer waits neither for the sync nor for subscribers";
    EXPECT_EQ(cdb_create(data.fd(), "/state/session{1}"), CONFD_OK);
    EXPECT_EQ(data.set_u32("/state/counter", 2), CONFD_OK);
    EXPECT_EQ(data.get("/state/counter"), "2");
    EXPECT_TRUE(client.is_quiet());
    EXPECT_EQ(client.sync(), CONFD_OK);

    delivery_event_t event = client.read();
    EXPECT_EQ(event.type, CDB_SUB_OPER);
    EXPECT_EQ(event.points, std::vector<int>{ counter });
    EXPECT_EQ(client.changes(counter), "set /net:state/counter: counter=2") << "told once, with the newest value";
    EXPECT_TRUE(client.is_quiet()) << "one delivery at a time";
    EXPECT_EQ(client.sync(), CONFD_OK);
    event = client.read();
    EXPECT_EQ(event.points, std::vector<int>{ session });
    EXPECT_EQ(client.changes(session).substr(0, 34), "created /net:state/session{1}: id=");
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(committing.get().result, CONFD_OK);
    EXPECT_TRUE(client.is_quiet());
}

TEST(agentd_operational_delivery, every_write_outside_a_delivery_is_told)
{
    agentd_process agent;
    subscription_client client(agent);
    int counter = client.subscribe(1, "/state/counter", CDB_SUB_OPERATIONAL);
    client.done();
    data_client data(agent, CDB_OPERATIONAL);
    for (uint32_t i = 1; i <= 3; i++) {
        EXPECT_EQ(data.set_u32("/state/counter", i), CONFD_OK);
        EXPECT_EQ(client.read().points, std::vector<int>{ counter });
        EXPECT_EQ(client.changes(counter), "set /net:state/counter: counter=" + std::to_string(i));
        EXPECT_EQ(client.sync(), CONFD_OK);
    }
    EXPECT_EQ(cdb_delete(data.fd(), "/state/counter"), CONFD_OK);
    EXPECT_EQ(client.read().points, std::vector<int>{ counter });
    EXPECT_EQ(client.changes(counter), "deleted /net:state/counter");
    EXPECT_EQ(client.sync(), CONFD_OK);
}

// ---- operational data of deleted configuration

// A client that reads what it has written for an entry, once it is told that the entry is gone.
struct label_subscriber : subscription_client {
    explicit label_subscriber(const agentd_process &agent) : subscription_client(agent), data(agent, CDB_OPERATIONAL)
    {
        first = subscribe(1, "/net/vpn");
        last = subscribe(2, "/net/vpn");
        labels = subscribe(1, "/net/vpn", CDB_SUB_OPERATIONAL);
        done();
    }
    // What is told of operational data next.
    void expect_told(const std::string &text)
    {
        delivery_event_t event = read();
        EXPECT_EQ(event.type, CDB_SUB_OPER);
        EXPECT_EQ(event.points, std::vector<int>{ labels });
        EXPECT_EQ(changes(labels), text);
        EXPECT_EQ(sync(), CONFD_OK);
    }
    int first, last, labels;
    data_client data;
};

// A configured VPN 5 with the label 7, before anybody subscribes.
static void make_labelled_vpn(const agentd_process &agent)
{
    ASSERT_EQ(commit(agent, { { "/net/vpn{5}/name", "a" } }).result, CONFD_OK);
    ASSERT_EQ(data_client(agent, CDB_OPERATIONAL).set_u32("/net/vpn{5}/label", 7), CONFD_OK);
}

TEST(agentd_operational_delivery, data_of_a_deleted_entry_is_read_until_the_last_level_has_synced)
{
    agentd_process agent;
    make_labelled_vpn(agent);
    label_subscriber client(agent);
    auto committing = commit_beside(agent, { { "/net/vpn{5}", "-" } });
    for (int point : { client.first, client.last }) {
        EXPECT_EQ(client.read().points, std::vector<int>{ point });
        EXPECT_EQ(client.data.get("/net/vpn{5}/label"), "7");
        EXPECT_EQ(client.sync(), CONFD_OK);
    }
    EXPECT_EQ(committing.get().result, CONFD_OK);
    EXPECT_EQ(client.data.get("/net/vpn{5}/label"), "-");
    client.expect_told("deleted /net:net/vpn{5}");
    EXPECT_TRUE(client.is_quiet());
}

TEST(agentd_operational_delivery, data_of_a_deleted_entry_can_be_deleted_by_its_subscriber_and_not_written)
{
    agentd_process agent;
    make_labelled_vpn(agent);
    label_subscriber client(agent);
    auto committing = commit_beside(agent, { { "/net/vpn{5}", "-" } });
    EXPECT_EQ(client.read().points, std::vector<int>{ client.first });
    EXPECT_EQ(client.data.set_u32("/net/vpn{5}/label", 8), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_NOEXISTS);
    EXPECT_EQ(cdb_delete(client.data.fd(), "/net/vpn{5}/label"), CONFD_OK);
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(client.read().points, std::vector<int>{ client.last });
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(committing.get().result, CONFD_OK);
    client.expect_told("modified /net:net/vpn{5}: -label");
    client.expect_told("deleted /net:net/vpn{5}");
    EXPECT_TRUE(client.is_quiet());
}

TEST(agentd_operational_delivery, data_of_a_deleted_entry_is_gone_before_the_next_commit_makes_it_anew)
{
    agentd_process agent;
    make_labelled_vpn(agent);
    label_subscriber client(agent);
    auto deleting = commit_beside(agent, { { "/net/vpn{5}", "-" } });
    EXPECT_EQ(client.read().points, std::vector<int>{ client.first });
    auto creating = commit_beside(agent, { { "/net/vpn{5}/name", "b" } });
    EXPECT_EQ(creating.wait_for(std::chrono::milliseconds(150)), std::future_status::timeout);
    EXPECT_EQ(client.data.get("/net/vpn{5}/label"), "7");
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(client.read().points, std::vector<int>{ client.last });
    EXPECT_EQ(client.sync(), CONFD_OK);

    EXPECT_EQ(client.read().points, std::vector<int>{ client.first });
    EXPECT_EQ(client.changes(client.first), "created /net:net/vpn{5}: id=5 name=b");
    EXPECT_EQ(client.data.get("/net/vpn{5}/label"), "-");
    EXPECT_EQ(client.data.set_u32("/net/vpn{5}/label", 9), CONFD_OK);
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(client.read().points, std::vector<int>{ client.last });
    EXPECT_EQ(client.sync(), CONFD_OK);
    EXPECT_EQ(deleting.get().result, CONFD_OK);
    EXPECT_EQ(creating.get().result, CONFD_OK);
    client.expect_told("deleted /net:net/vpn{5}");
    client.expect_told("modified /net:net/vpn{5}: label=9");
    EXPECT_EQ(client.data.get("/net/vpn{5}/label"), "9");
}

TEST(agentd_operational_delivery, data_of_an_entry_deleted_and_made_again_in_one_commit_stays)
{
    agentd_process agent;
    make_labelled_vpn(agent);
    EXPECT_EQ(commit(agent, { { "/net/vpn{5}", "-" }, { "/net/vpn{5}/name", "b" } }).result, CONFD_OK);
    EXPECT_EQ(read_leaf(agent, "/net/vpn{5}/label", CDB_OPERATIONAL), "7");
}

TEST(agentd_operational_delivery, data_of_a_deleted_entry_goes_where_nobody_subscribes_or_the_subscriber_dies)
{
    agentd_process agent;
    make_labelled_vpn(agent);
    EXPECT_EQ(commit(agent, { { "/net/vpn{5}", "-" } }).result, CONFD_OK);
    EXPECT_EQ(read_leaf(agent, "/net/vpn{5}/label", CDB_OPERATIONAL), "-");
    make_labelled_vpn(agent);
    label_subscriber client(agent);
    auto committing = commit_beside(agent, { { "/net/vpn{5}", "-" } });
    EXPECT_EQ(client.read().points, std::vector<int>{ client.first });
    client.end();
    EXPECT_EQ(committing.get().result, CONFD_OK);
    EXPECT_EQ(read_leaf(agent, "/net/vpn{5}/label", CDB_OPERATIONAL), "-");
}

TEST(agentd_two_phase, a_refused_deletion_leaves_the_operational_data)
{
    agentd_process agent;
    make_labelled_vpn(agent);
    subscription_client refusing(agent);
    refusing.subscribe(1, "/net/vpn", CDB_SUB_RUNNING_TWOPHASE);
    refusing.done();
    auto committing = commit_beside(agent, { { "/net/vpn{5}", "-" } });
    EXPECT_EQ(refusing.read().type, CDB_SUB_PREPARE);
    EXPECT_EQ(cdb_sub_abort_trans(refusing.fd(), CONFD_ERRCODE_APPLICATION, 0, 0, "no"), CONFD_OK);
    EXPECT_EQ(committing.get().error, CONFD_ERR_ABORTED);
    EXPECT_EQ(read_leaf(agent, "/net/vpn{5}/label", CDB_OPERATIONAL), "7");
}
