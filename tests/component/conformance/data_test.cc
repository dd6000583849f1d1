// Reading and writing data through the client library: types, positions, moves, documents, locks, the candidate,
// secrets, and one commit from its first hook to its last event.
#include "tests/component/conformance/conform.h"

namespace
{

class data : public testing::Test
{
protected:
    void begin() { ASSERT_GT(user.begin(), 0) << confd_lasterr(); }
    std::string get(const std::string &path)
    {
        confd_value_t value{};
        if (maapi_get_elem(user.fd(), user.th, &value, "%s", path.c_str()) != CONFD_OK)
            return "error " + std::to_string(confd_errno);
        std::string text = text_of(value);
        confd_free_value(&value);
        return text;
    }
    // The keys of a list in its order.
    std::string order(const std::string &path)
    {
        maapi_cursor cursor{};
        EXPECT_EQ(maapi_init_cursor(user.fd(), user.th, &cursor, "%s", path.c_str()), CONFD_OK) << confd_lasterr();
        std::string text;
        for (maapi_get_next(&cursor); cursor.n > 0; maapi_get_next(&cursor))
            text += (text.empty() ? "" : " ") + text_of(cursor.keys[0]);
        maapi_destroy_cursor(&cursor);
        return text;
    }
    void load_schema()
    {
        sockaddr_in addr = agent.address();
        ASSERT_EQ(confd_load_schemas(reinterpret_cast<sockaddr *>(&addr), sizeof addr), CONFD_OK) << confd_lasterr();
    }

    // A daemon that agrees to all that the second module's nodes ask for.
    std::unique_ptr<test_daemon> agreeing_daemon()
    {
        auto daemon = std::make_unique<test_daemon>(agent);
        daemon->validate("val-extra", [](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) { return CONFD_OK; });
        data_handlers_t hook;
        hook.set_elem = [](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) {
            return CONFD_OK;
        };
        daemon->data("hook-service", std::move(hook));
        daemon->start();
        return daemon;
    }

    conform_agent agent;
    user_client user{ agent };
};

// ---- values by type

struct type_row_t {
    const char *leaf;
    const char *good; // as it reads back
    confd_vtype type;
    const char *bad;
};
constexpr type_row_t type_rows[] = {
    { "text", "a b", C_BUF, "longer than ten" },
    { "u8", "255", C_UINT8, "256" },
    { "u16", "65535", C_UINT16, "-1" },
    { "u32", "4294967295", C_UINT32, "x" },
    { "u64", "18446744073709551615", C_UINT64, "18446744073709551616" },
    { "i8", "-128", C_INT8, "128" },
    { "i16", "-32768", C_INT16, "32768" },
    { "i32", "-2147483648", C_INT32, "2147483648" },
    { "i64", "-9223372036854775808", C_INT64, "9223372036854775808" },
    { "bool", "true", C_BOOL, "yes" },
    { "dec", "-1.25", C_DECIMAL64, "1.255" },
    { "color", "green", C_ENUM_VALUE, "blue" },
    { "flags", "one four", C_BIT32, "two" },
    { "v4", "10.1.2.3", C_IPV4, "10.1.2.300" },
    { "v6", "fe80::1", C_IPV6, "fe80:::1" },
    { "net4", "10.1.0.0/16", C_IPV4PREFIX, "10.1.0.0/33" },
    { "net6", "2001:db8::/32", C_IPV6PREFIX, "2001:db8::/129" },
    { "when", "2026-11-22T03:00:00Z", C_DATETIME, "yesterday" },
    { "shape", "circle", C_IDENTITYREF, "oval" },
    { "blob", "aGVsbG8=", C_BINARY, "a*" },
    { "any-address", "10.1.2.3", C_IPV4, "too long" },
};

TEST_F(data, texts_are_read_by_the_type_of_their_leaf)
{
    load_schema();
    begin();
    for (const type_row_t &row : type_rows) {
        SCOPED_TRACE(row.leaf);
        std::string path = std::string("/type/") + row.leaf;
        EXPECT_EQ(user.set(path, row.bad), CONFD_ERR);
        EXPECT_EQ(confd_errno, CONFD_ERR_BADTYPE) << confd_lasterr();
        EXPECT_EQ(maapi_exists(user.fd(), user.th, "%s", path.c_str()), 0) << "a refused text changes nothing";
        ASSERT_EQ(user.set(path, row.good), CONFD_OK) << confd_lasterr();
        confd_value_t value{};
        ASSERT_EQ(maapi_get_elem(user.fd(), user.th, &value, "%s", path.c_str()), CONFD_OK) << confd_lasterr();
        EXPECT_EQ(value.type, row.type);
        char text[128];
        confd_val2str(confd_cs_node_cd(nullptr, "%s", path.c_str()), &value, text, sizeof text);
        if (row.type != C_DATETIME) { // the text of a point in time has more than one form
            EXPECT_STREQ(text, row.good);
        }
        EXPECT_EQ(maapi_set_elem(user.fd(), user.th, &value, "%s", path.c_str()), CONFD_OK)
            << "what is read can be written: " << confd_lasterr();
        confd_free_value(&value);
    }
    EXPECT_EQ(user.apply(), CONFD_OK) << confd_lasterr();
}

struct error_row_t {
    const char *what;
    int error;
    int (*call)(user_client &user);
};
constexpr error_row_t error_rows[] = {
    { "read of what is not there", CONFD_ERR_NOEXISTS,
      [](user_client &user) {
          confd_value_t value{};
          return maapi_get_elem(user.fd(), user.th, &value, "/data/vpn{9}/name");
      } },
    { "deletion of what is not there", CONFD_ERR_NOEXISTS,
      [](user_client &user) {
          return user.remove("/data/vpn{9}");
      } },
    { "creation of what is there", CONFD_ERR_ALREADY_EXISTS,
      [](user_client &user) {
          return user.create("/data/vpn{5}");
      } },
    { "a path that the model lacks", CONFD_ERR_BADPATH,
      [](user_client &user) {
          return user.set("/data/vpm", "x");
      } },
    { "a write of operational data", CONFD_ERR_NOT_WRITABLE,
      [](user_client &user) {
          return user.set("/show/stored", "1");
      } },
    { "creation of a leaf", CONFD_ERR_NOTCREATABLE,
      [](user_client &user) {
          return user.create("/data/host");
      } },
    { "deletion of a key", CONFD_ERR_NOTDELETABLE,
      [](user_client &user) {
          return user.remove("/data/vpn{5}/id");
      } },
    { "an unlock without a lock", CONFD_ERR_NOEXISTS,
      [](user_client &user) {
          return maapi_unlock(user.fd(), CONFD_RUNNING);
      } },
    { "a handle that is none", CONFD_ERR_NOEXISTS,
      [](user_client &user) {
          return maapi_set_elem2(user.fd(), 99999, "x", "/data/host");
      } },
};

TEST_F(data, errors_have_their_numbers)
{
    ASSERT_EQ(commit(agent, { { "/data/vpn{5}", "+" } }).result, CONFD_OK);
    begin();
    for (const error_row_t &row : error_rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(row.call(user), CONFD_ERR);
        EXPECT_EQ(confd_errno, row.error) << confd_lasterr();
        EXPECT_STRNE(confd_lasterr(), "");
    }
    user_client nobody(agent, nullptr);
    EXPECT_EQ(maapi_start_trans(nobody.fd(), CONFD_RUNNING, CONFD_READ_WRITE), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_NOSESSION) << confd_lasterr();
}

TEST_F(data, a_lock_names_its_holder)
{
    user_client holder(agent, "ann");
    ASSERT_EQ(maapi_lock(holder.fd(), CONFD_RUNNING), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(maapi_lock(user.fd(), CONFD_RUNNING), CONFD_ERR);
    EXPECT_EQ(confd_errno, 10);
    EXPECT_TRUE(mentions(confd_lasterr(), "ann")) << confd_lasterr();
    begin();
    EXPECT_EQ(user.set("/data/host", "box"), CONFD_OK);
    EXPECT_EQ(user.apply(), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_LOCKED);
    EXPECT_TRUE(mentions(confd_lasterr(), "ann")) << confd_lasterr();
    holder.end();
    for (int i = 0; i < 200 && user.apply() != CONFD_OK; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(read_leaf(agent, "/data/host"), "box") << "a lock goes with its holder";
}

// ---- moves

TEST_F(data, entries_of_a_user_ordered_list_are_moved)
{
    begin();
    for (const char *name : { "a", "b", "c", "d" })
        ASSERT_EQ(user.set(std::string("/data/vpn{5}/rule{") + name + "}/act", "go"), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(order("/data/vpn{5}/rule"), "a b c d");
    confd_value_t key{};
    CONFD_SET_STR(&key, "b");
    auto move = [&](maapi_move_where where, const confd_value_t *to, const char *name) {
        return maapi_move_ordered(user.fd(), user.th, where, to, to ? 1 : 0, "/data/vpn{5}/rule{%s}", name);
    };
    EXPECT_EQ(move(MAAPI_MOVE_FIRST, nullptr, "d"), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(order("/data/vpn{5}/rule"), "d a b c");
    EXPECT_EQ(move(MAAPI_MOVE_AFTER, &key, "d"), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(order("/data/vpn{5}/rule"), "a b d c");
    EXPECT_EQ(move(MAAPI_MOVE_BEFORE, &key, "c"), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(order("/data/vpn{5}/rule"), "a c b d");
    EXPECT_EQ(move(MAAPI_MOVE_LAST, nullptr, "a"), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(order("/data/vpn{5}/rule"), "c b d a");
    EXPECT_EQ(move(MAAPI_MOVE_FIRST, nullptr, "z"), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_NOEXISTS) << confd_lasterr();
    EXPECT_EQ(maapi_move_ordered(user.fd(), user.th, MAAPI_MOVE_FIRST, nullptr, 0, "/data/vpn{5}"), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADPATH) << confd_lasterr();
    ASSERT_EQ(user.apply(), CONFD_OK) << confd_lasterr();
    agent.kill_it(SIGKILL);
    agent.start();
    user_client again(agent);
    ASSERT_GT(again.begin(), 0);
    maapi_cursor cursor{};
    ASSERT_EQ(maapi_init_cursor(again.fd(), again.th, &cursor, "/data/vpn{5}/rule"), CONFD_OK) << confd_lasterr();
    std::string names;
    for (maapi_get_next(&cursor); cursor.n > 0; maapi_get_next(&cursor))
        names += text_of(cursor.keys[0]);
    maapi_destroy_cursor(&cursor);
    EXPECT_EQ(names, "cbda") << "the order outlives the agent";
}

struct move_log_t {
    names_t events;
};
cdb_iter_ret log_move(confd_hkeypath_t *kp, cdb_iter_op op, confd_value_t *, confd_value_t *newv, void *state)
{
    if (op == MOP_MOVED_AFTER)
        static_cast<move_log_t *>(state)->events.push_back("moved " + text_of(kp) + " after " + text_of(newv));
    return ITER_RECURSE;
}

TEST_F(data, a_move_is_told_to_subscribers_as_such)
{
    load_schema();
    ASSERT_EQ(
        commit(agent,
               { { "/data/vpn{5}/rule{a}", "+" }, { "/data/vpn{5}/rule{b}", "+" }, { "/data/vpn{5}/rule{c}", "+" } })
            .result,
        CONFD_OK);
    subscription_client client(agent);
    int point = client.subscribe(1, "/data/vpn/rule");
    client.done();
    begin();
    ASSERT_EQ(maapi_move_ordered(user.fd(), user.th, MAAPI_MOVE_LAST, nullptr, 0, "/data/vpn{5}/rule{a}"), CONFD_OK)
        << confd_lasterr();
    auto applied = std::async(std::launch::async, [this] { return user.apply(); });
    delivery_event_t event = client.read();
    ASSERT_EQ(event.result, CONFD_OK);
    move_log_t log;
    EXPECT_EQ(cdb_diff_iterate(client.fd(), point, log_move, 0, &log), CONFD_OK) << confd_lasterr();
    client.sync();
    EXPECT_EQ(applied.get(), CONFD_OK);
    ASSERT_EQ(log.events.size(), 1u) << testing::PrintToString(log.events);
    EXPECT_TRUE(log.events[0].starts_with("moved /conform:data/vpn{5}/rule{a} after ")) << log.events[0];
}

// ---- CDB

TEST_F(data, relative_paths_start_where_the_socket_stands_and_entries_have_positions)
{
    ASSERT_EQ(commit(agent, { { "/data/vpn{7}/name", "seven" },
                              { "/data/vpn{5}/name", "five" },
                              { "/data/vpn{7}/port{p}/ip/address", "10.0.0.1" },
                              { "/data/vpn{7}/dns", "10.0.0.53" } })
                  .result,
              CONFD_OK);
    data_client client(agent, CDB_RUNNING);
    ASSERT_EQ(cdb_cd(client.fd(), "/data/vpn[%d]", 1), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(client.get("name"), "seven");
    EXPECT_EQ(client.get("port{p}/ip/address"), "10.0.0.1");
    EXPECT_EQ(cdb_num_instances(client.fd(), "port"), 1);
    EXPECT_EQ(client.get("../vpn{5}/name"), "five");
    EXPECT_EQ(client.get("/data/vpn[0]/name"), "five");
    in_addr ip{};
    EXPECT_EQ(cdb_get_ipv4(client.fd(), &ip, "port{p}/ip/address"), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(ip.s_addr, htonl(0x0a000001));
    confd_value_t *values = nullptr;
    int n = 0;
    ASSERT_EQ(cdb_get_list(client.fd(), &values, &n, "dns"), CONFD_OK) << confd_lasterr();
    ASSERT_EQ(n, 1);
    EXPECT_EQ(text_of(values[0]), "10.0.0.53");
    confd_free_value(&values[0]);
    free(values);
}

TEST_F(data, several_operational_leaves_are_written_as_one_change)
{
    load_schema();
    data_client client(agent, CDB_OPERATIONAL);
    subscription_client watcher(agent);
    int point = -1;
    ASSERT_EQ(cdb_oper_subscribe(watcher.fd(), 0, &point, "/show/stored-entry"), CONFD_OK) << confd_lasterr();
    watcher.done();
    uint32_t more = confd_str2hash("more"), ns = confd_str2hash("urn:test:conform");
    confd_value_t words[2];
    CONFD_SET_STR(&words[0], "w1");
    CONFD_SET_STR(&words[1], "w2");
    confd_tag_value_t values[5];
    CONFD_SET_TAG_STR(&values[0], confd_str2hash("text"), "t");
    CONFD_SET_TAG_TAG_NS(&values[1], confd_str2hash("word"), 0);
    CONFD_SET_LIST(&values[1].v, words, 2);
    CONFD_SET_TAG_XMLBEGIN(&values[2], more, ns);
    CONFD_SET_TAG_UINT32(&values[3], confd_str2hash("count"), 3);
    CONFD_SET_TAG_XMLEND(&values[4], more, ns);
    ASSERT_EQ(cdb_set_values(client.fd(), values, 5, "/show/stored-entry{1}"), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(client.get("/show/stored-entry{1}/text"), "t");
    EXPECT_EQ(client.get("/show/stored-entry{1}/more/count"), "3");
    delivery_event_t event = watcher.read();
    ASSERT_EQ(event.result, CONFD_OK);
    EXPECT_EQ(event.type, CDB_SUB_OPER);
    watcher.sync();
    EXPECT_TRUE(watcher.is_quiet()) << "one change, one delivery";
    confd_tag_value_t gone[2];
    CONFD_SET_TAG_TAG_NS(&gone[0], confd_str2hash("text"), 0);
    CONFD_SET_NOEXISTS(&gone[0].v);
    CONFD_SET_TAG_STR(&gone[1], confd_str2hash("count"), "wrong place");
    EXPECT_EQ(cdb_set_values(client.fd(), gone, 2, "/show/stored-entry{1}"), CONFD_ERR);
    EXPECT_EQ(client.get("/show/stored-entry{1}/text"), "t") << "all or nothing";
    EXPECT_EQ(cdb_set_values(client.fd(), gone, 1, "/show/stored-entry{1}"), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(client.get("/show/stored-entry{1}/text"), "-");
}

TEST_F(data, a_second_modules_nodes_come_with_the_entry_they_belong_to)
{
    auto daemon = agreeing_daemon();
    subscription_client client(agent);
    int vpns = client.subscribe(1, "/data/vpn"), services = client.subscribe(2, "/data/vpn/service");
    client.done();
    auto applied = commit_beside(agent, { { "/data/vpn{5}/extra", "e" }, { "/data/vpn{5}/service{3}/next", "n" } });
    ASSERT_EQ(client.read().points, std::vector<int>{ vpns });
    EXPECT_EQ(client.changes(vpns), "created /conform:data/vpn{5}: id=5 extra=e");
    client.sync();
    ASSERT_EQ(client.read().points, std::vector<int>{ services });
    EXPECT_EQ(client.changes(services), "created /conform:data/vpn{5}/service{3}: id=3 next=n");
    client.sync();
    EXPECT_EQ(applied.get().result, CONFD_OK);
}

TEST_F(data, a_choice_has_one_case)
{
    begin();
    EXPECT_EQ(user.set("/data/vpn{5}/wave", "1310"), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(user.set("/data/vpn{5}/pair", "2"), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(maapi_exists(user.fd(), user.th, "/data/vpn{5}/wave"), 0) << "the other case goes";
    EXPECT_EQ(get("/data/vpn{5}/pair"), "2");
}

// ---- documents, candidate, secrets

constexpr char DOCUMENT[] = "<config xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">"
                            "<data xmlns=\"urn:test:conform\"><vpn><id>5</id><name>loaded</name>"
                            "<extra xmlns=\"urn:test:conform-more\">e</extra></vpn><host>box</host></data></config>";

TEST_F(data, a_document_is_merged_whole_or_not_at_all)
{
    auto daemon = agreeing_daemon();
    begin();
    ASSERT_EQ(user.set("/data/vpn{5}/mtu", "1400"), CONFD_OK);
    agent.dir().write("good.xml", DOCUMENT);
    EXPECT_EQ(maapi_load_config(user.fd(), user.th, MAAPI_CONFIG_XML | MAAPI_CONFIG_MERGE,
                                agent.dir().path("good.xml").c_str()),
              CONFD_OK)
        << confd_lasterr();
    EXPECT_EQ(get("/data/vpn{5}/name"), "loaded");
    EXPECT_EQ(get("/data/vpn{5}/mtu"), "1400");
    EXPECT_EQ(get("/data/vpn{5}/extra"), "e");
    std::string bad(DOCUMENT);
    bad.replace(bad.find("<host>box</host>"), 16, "<host>x</host><nothing/>");
    agent.dir().write("bad.xml", bad);
    EXPECT_EQ(maapi_load_config(user.fd(), user.th, MAAPI_CONFIG_XML, agent.dir().path("bad.xml").c_str()), CONFD_ERR);
    EXPECT_TRUE(mentions(confd_lasterr(), "nothing")) << confd_lasterr();
    EXPECT_EQ(get("/data/host"), "box");
    EXPECT_EQ(maapi_load_config(user.fd(), user.th, MAAPI_CONFIG_XML, agent.dir().path("none.xml").c_str()), CONFD_ERR);
    EXPECT_EQ(user.apply(), CONFD_OK) << confd_lasterr();
}

TEST_F(data, the_candidate_is_shared_until_it_is_committed)
{
    user.th = maapi_start_trans(user.fd(), CONFD_CANDIDATE, CONFD_READ_WRITE);
    ASSERT_GT(user.th, 0) << confd_lasterr();
    EXPECT_EQ(user.set("/data/host", "candidate"), CONFD_OK) << confd_lasterr();
    ASSERT_EQ(user.apply(), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(read_leaf(agent, "/data/host"), "-");
    user_client other(agent, "ann");
    other.th = maapi_start_trans(other.fd(), CONFD_CANDIDATE, CONFD_READ_WRITE);
    ASSERT_GT(other.th, 0) << confd_lasterr();
    EXPECT_EQ(maapi_exists(other.fd(), other.th, "/data/host"), 1) << "all sessions see it";
    EXPECT_EQ(other.set("/data/vpn{5}/name", "b"), CONFD_OK);
    EXPECT_EQ(other.apply(), CONFD_OK) << confd_lasterr();
    test_daemon daemon(agent);
    bool is_refusing = true;
    daemon.validate("val-extra", [](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) { return CONFD_OK; });
    data_handlers_t hook;
    hook.set_elem = [](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) {
        return CONFD_OK;
    };
    daemon.data("hook-banner", std::move(hook));
    daemon.validate("val-on", [&](confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *) {
        confd_trans_seterr(tctx, "not yet");
        return is_refusing ? CONFD_ERR : CONFD_OK;
    });
    daemon.start();
    EXPECT_EQ(other.create("/valid/on"), CONFD_OK);
    EXPECT_EQ(other.apply(), CONFD_OK) << "the candidate need not be valid: " << confd_lasterr();
    EXPECT_EQ(maapi_candidate_commit(user.fd()), CONFD_ERR);
    EXPECT_STREQ(confd_lasterr(), "not yet");
    EXPECT_EQ(read_leaf(agent, "/data/host"), "-");
    is_refusing = false;
    EXPECT_EQ(maapi_candidate_commit(user.fd()), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(read_leaf(agent, "/data/host"), "candidate");
    EXPECT_EQ(read_leaf(agent, "/data/vpn{5}/name"), "b");
}

TEST_F(data, a_candidate_in_conflict_is_dropped_by_whoever_may_lock_it)
{
    ASSERT_EQ(commit(agent, { { "/data/vpn{5}/name", "a" } }).result, CONFD_OK);
    user.th = maapi_start_trans(user.fd(), CONFD_CANDIDATE, CONFD_READ_WRITE);
    ASSERT_EQ(user.set("/data/vpn{5}/name", "b"), CONFD_OK) << confd_lasterr();
    ASSERT_EQ(user.apply(), CONFD_OK) << confd_lasterr();
    ASSERT_EQ(commit(agent, { { "/data/vpn{5}", "-" } }).result, CONFD_OK);
    ASSERT_EQ(maapi_candidate_commit(user.fd()), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_CONFLICT);
    EXPECT_TRUE(mentions(confd_lasterr(), "agent_cmd discard-candidate")) << confd_lasterr();
    {
        user_client other(agent, "ann");
        ASSERT_EQ(maapi_lock(other.fd(), CONFD_CANDIDATE), CONFD_OK) << confd_lasterr();
        EXPECT_EQ(agent.command({ "discard-candidate" }), 1);
    }
    for (int i = 0; i < 100 && agent.command({ "discard-candidate" }) != 0;
         i++) // until the lock has gone with its owner
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(maapi_candidate_commit(user.fd()), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(read_leaf(agent, "/data/vpn{5}/name"), "-");
}

TEST_F(data, a_candidate_locked_while_its_commit_waits_is_not_committed)
{
    gate busy;
    test_daemon daemon(agent);
    data_handlers_t hook;
    hook.set_elem = [&](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) {
        busy.pass();
        return CONFD_OK;
    };
    daemon.data("hook-banner", std::move(hook));
    daemon.start();
    user.th = maapi_start_trans(user.fd(), CONFD_CANDIDATE, CONFD_READ_WRITE);
    ASSERT_EQ(user.set("/data/host", "candidate"), CONFD_OK) << confd_lasterr();
    ASSERT_EQ(user.apply(), CONFD_OK) << confd_lasterr();
    auto before = commit_beside(agent, { { "/hook/banner", "hello" } });
    ASSERT_TRUE(busy.wait_for_visitor());
    auto committing = std::async(std::launch::async, [&] {
        int result = maapi_candidate_commit(user.fd());
        return result == CONFD_OK ? 0 : confd_errno;
    });
    EXPECT_TRUE(agent.has_status("\"queued\":2"));
    user_client other(agent, "ann");
    EXPECT_EQ(maapi_lock(other.fd(), CONFD_CANDIDATE), CONFD_OK) << confd_lasterr();
    busy.open();
    EXPECT_EQ(committing.get(), CONFD_ERR_LOCKED);
    EXPECT_EQ(before.get().result, CONFD_OK);
    EXPECT_EQ(maapi_unlock(other.fd(), CONFD_CANDIDATE), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(maapi_candidate_commit(user.fd()), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(read_leaf(agent, "/data/host"), "candidate");
}

TEST_F(data, a_secret_is_stored_encrypted_and_read_with_the_keys)
{
    begin();
    ASSERT_EQ(user.set("/data/secret", "open sesame"), CONFD_OK) << confd_lasterr();
    ASSERT_EQ(user.apply(), CONFD_OK) << confd_lasterr();
    std::string stored = get("/data/secret");
    EXPECT_NE(stored, "open sesame");
    EXPECT_FALSE(mentions(stored, "sesame"));
    std::string output;
    EXPECT_EQ(agent.command({ "dump", "running", "json" }, &output), 0);
    EXPECT_FALSE(mentions(output, "sesame")) << output;
    char clear[256];
    ASSERT_EQ(maapi_install_crypto_keys(user.fd()), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(confd_decrypt(stored.c_str(), static_cast<int>(stored.size()), clear), 11) << confd_lasterr();
    EXPECT_STREQ(clear, "open sesame");
    EXPECT_LT(confd_decrypt("plain", 5, clear), 0);
    EXPECT_EQ(user.set("/data/secret", stored), CONFD_OK) << "what is stored can be given back: " << confd_lasterr();
    EXPECT_EQ(user.apply(), CONFD_OK);
    EXPECT_EQ(get("/data/secret"), stored) << "and is not encrypted twice";
}

TEST_F(data, a_priority_message_reaches_those_it_is_for)
{
    raw_user ann(agent, "ann"), bob(agent, "bob");
    EXPECT_EQ(maapi_prio_message(user.fd(), "ann", "only ann"), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(maapi_prio_message(user.fd(), "all", "all of you"), CONFD_OK) << confd_lasterr();
    for (raw_user *one : { &ann, &bob }) {
        one->post(WIRE_MAAPI_END_SESSION, {});
        (void)one->wait_for(WIRE_MAAPI_END_SESSION);
    }
    EXPECT_EQ(ann.messages, (names_t{ "only ann", "all of you" }));
    EXPECT_EQ(bob.messages, names_t{ "all of you" });
}

// ---- one commit from end to end

TEST_F(data, a_commit_goes_through_hooks_validation_prepare_delivery_and_event_in_this_order)
{
    test_daemon daemon(agent);
    data_handlers_t hook;
    hook.set_elem = [&](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) {
        daemon.note("hook");
        return CONFD_OK;
    };
    daemon.data("hook-banner", std::move(hook));
    daemon.validate("val-address", [&](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) {
        daemon.note("validate");
        return CONFD_OK;
    });
    daemon.start();
    client_socket events;
    sockaddr_in addr = agent.address();
    ASSERT_EQ(confd_notifications_connect2(events.fd(), reinterpret_cast<sockaddr *>(&addr), sizeof addr,
                                           CONFD_NOTIF_COMMIT_SIMPLE, nullptr),
              CONFD_OK);
    subscription_client two_phase(agent), late(agent);
    two_phase.subscribe(5, "/valid", CDB_SUB_RUNNING_TWOPHASE);
    two_phase.done();
    late.subscribe(9, "/hook");
    late.done();
    auto applied = commit_beside(agent, { { "/hook/banner", "hello" }, { "/valid/address", "10.1.2.3" } });
    ASSERT_EQ(two_phase.read().type, CDB_SUB_PREPARE);
    EXPECT_EQ(daemon.take_events(), (names_t{ "hook", "validate" }));
    EXPECT_EQ(read_leaf(agent, "/hook/banner"), "-") << "not yet running in a prepare";
    EXPECT_FALSE(late.is_readable(50));
    two_phase.sync();
    ASSERT_EQ(two_phase.read().type, CDB_SUB_COMMIT);
    EXPECT_EQ(read_leaf(agent, "/hook/banner"), "hello");
    EXPECT_EQ(read_leaf(agent, "/hook/banner", CDB_PRE_COMMIT_RUNNING), "-");
    EXPECT_FALSE(late.is_readable(50)) << "the next level comes when this one is done";
    two_phase.sync();
    ASSERT_EQ(late.read().result, CONFD_OK);
    EXPECT_FALSE(events.is_readable(50));
    late.sync();
    EXPECT_EQ(applied.get().result, CONFD_OK);
    confd_notification event{};
    ASSERT_TRUE(events.is_readable(5000));
    ASSERT_EQ(confd_read_notification(events.fd(), &event), CONFD_OK);
    EXPECT_STREQ(event.n.commit.uinfo.username, "admin");
    EXPECT_EQ(event.n.commit.database, CONFD_RUNNING);
    confd_free_notification(&event);
}

TEST_F(data, a_refused_prepare_undoes_what_hooks_have_done)
{
    test_daemon daemon(agent);
    data_handlers_t hook;
    hook.set_elem = [](confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *) {
        return attachment(tctx).set("/hook/shadow", "made");
    };
    daemon.data("hook-banner", std::move(hook));
    daemon.start();
    subscription_client two_phase(agent);
    two_phase.subscribe(5, "/hook", CDB_SUB_RUNNING_TWOPHASE);
    two_phase.done();
    auto applied = commit_beside(agent, { { "/hook/banner", "hello" } });
    ASSERT_EQ(two_phase.read().type, CDB_SUB_PREPARE);
    EXPECT_EQ(cdb_sub_abort_trans(two_phase.fd(), CONFD_ERRCODE_RESOURCE_DENIED, 0, 0, "no room for %d", 5), CONFD_OK);
    commit_result_t result = applied.get();
    EXPECT_EQ(result.result, CONFD_ERR);
    EXPECT_TRUE(mentions(result.text, "no room for 5")) << result.text;
    EXPECT_EQ(read_leaf(agent, "/hook/shadow"), "-");
}

} // namespace
