// Data providers: operational data in element, key and object form, as readers of every kind see it.
#include "tests/component/conformance/conform.h"

#include <arpa/inet.h>
#include <deque>

namespace
{

constexpr uint32_t ENTRIES = 3;

uint32_t tag_of(const char *name)
{
    return confd_str2hash(name);
}

// The keys of the list entry that a keypath stands at or below, counted from its end.
const confd_value_t *keys_at(const confd_hkeypath_t *kp, int element)
{
    return kp->v[element];
}

struct tag_values_t {
    std::vector<confd_tag_value_t> items;
    std::deque<std::string> texts; // what values point to
    // The library's macros name their target more than once.
    confd_value_t *add(const char *name)
    {
        items.push_back({ { tag_of(name), 0 }, {} });
        return &items.back().v;
    }
    tag_values_t &text(const char *name, const std::string &value)
    {
        texts.push_back(value);
        confd_value_t *v = add(name);
        CONFD_SET_STR(v, texts.back().c_str());
        return *this;
    }
    tag_values_t &u32(const char *name, uint32_t value)
    {
        confd_value_t *v = add(name);
        CONFD_SET_UINT32(v, value);
        return *this;
    }
    tag_values_t &u64(const char *name, uint64_t value)
    {
        confd_value_t *v = add(name);
        CONFD_SET_UINT64(v, value);
        return *this;
    }
    tag_values_t &address(const char *name, uint32_t value)
    {
        confd_value_t *v = add(name);
        in_addr ip{ htonl(value) };
        CONFD_SET_IPV4(v, ip);
        return *this;
    }
    tag_values_t &yes(const char *name)
    {
        confd_value_t *v = add(name);
        CONFD_SET_BOOL(v, 1);
        return *this;
    }
    tag_values_t &begin(const char *name)
    {
        (void)add(name);
        CONFD_SET_TAG_XMLBEGIN(&items.back(), tag_of(name), 0);
        return *this;
    }
    tag_values_t &end(const char *name)
    {
        (void)add(name);
        CONFD_SET_TAG_XMLEND(&items.back(), tag_of(name), 0);
        return *this;
    }
};

class providers : public testing::Test
{
protected:
    void serve(const char *callpoint, data_handlers_t handlers) { daemon.data(callpoint, std::move(handlers)); }
    void begin() // once all is registered
    {
        daemon.start();
        ASSERT_GT(user.begin(), 0);
    }
    // A leaf as text; "-": no value; "error N: text".
    std::string get(const std::string &path)
    {
        confd_value_t value{};
        if (maapi_get_elem(user.fd(), user.th, &value, "%s", path.c_str()) != CONFD_OK)
            return confd_errno == CONFD_ERR_NOEXISTS ? "-"
                                                     : "error " + std::to_string(confd_errno) + ": " + confd_lasterr();
        std::string text = text_of(value);
        confd_free_value(&value);
        return text;
    }
    int exists(const std::string &path) { return maapi_exists(user.fd(), user.th, "%s", path.c_str()); }
    // The keys of a list's entries, blanks between keys and "; " between entries; "error N: text".
    std::string list(const std::string &path)
    {
        maapi_cursor cursor{};
        if (maapi_init_cursor(user.fd(), user.th, &cursor, "%s", path.c_str()) != CONFD_OK)
            return std::string("error: ") + confd_lasterr();
        std::string text;
        int result = maapi_get_next(&cursor);
        for (; result == CONFD_OK && cursor.n > 0; result = maapi_get_next(&cursor)) {
            text += text.empty() ? "" : "; ";
            for (int i = 0; i < cursor.n; i++)
                text += (i > 0 ? " " : "") + text_of(cursor.keys[i]);
        }
        maapi_destroy_cursor(&cursor);
        if (result != CONFD_OK)
            text += " error " + std::to_string(confd_errno) + ": " + confd_lasterr();
        return text;
    }
    std::string show(const std::string &command)
    {
        std::string output;
        int status = agent.run(
            { CLI_PROGRAM, "--port", std::to_string(agent.port()), "--yang", model_dir(), "-c", command }, &output);
        EXPECT_EQ(status, 0) << output;
        return output;
    }

    conform_agent agent;
    test_daemon daemon{ agent };
    user_client user{ agent };
};

// ---- element and key form

// Entries 1 to 3 with two inner entries each.
data_handlers_t element_form(test_daemon &daemon)
{
    data_handlers_t handlers;
    handlers.get_next = [&daemon](confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next) {
        daemon.note("get_next " + text_of(kp) + " " + std::to_string(next));
        bool is_inner = kp->v[0][0].val.xmltag.tag == tag_of("inner");
        long number = next < 0 ? 1 : next;
        confd_value_t key{};
        if (number > (is_inner ? 2 : static_cast<long>(ENTRIES)))
            return confd_data_reply_next_key(tctx, nullptr, 0, -1);
        if (is_inner)
            CONFD_SET_UINT8(&key, static_cast<uint8_t>(number));
        else
            CONFD_SET_UINT32(&key, static_cast<uint32_t>(number));
        return confd_data_reply_next_key(tctx, &key, 1, number + 1);
    };
    handlers.get_elem = [](confd_trans_ctx *tctx, confd_hkeypath_t *kp) {
        uint32_t leaf = kp->v[0][0].val.xmltag.tag;
        bool is_inner = leaf == tag_of("no") || leaf == tag_of("text");
        uint32_t id = CONFD_GET_UINT32(keys_at(kp, is_inner ? 3 : leaf == tag_of("note") ? 2 : 1));
        if (id > ENTRIES)
            return confd_data_reply_not_found(tctx);
        std::string text = "n" + std::to_string(id);
        confd_value_t value{};
        if (leaf == tag_of("id"))
            CONFD_SET_UINT32(&value, id);
        else if (leaf == tag_of("size"))
            CONFD_SET_UINT64(&value, id * 10000000000ull);
        else if (leaf == tag_of("no"))
            value = keys_at(kp, 1)[0];
        else if (leaf == tag_of("name") && id == 2)
            return confd_data_reply_not_found(tctx);
        else
            CONFD_SET_STR(&value, text.c_str());
        if (is_inner && CONFD_GET_UINT8(keys_at(kp, 1)) > 2)
            return confd_data_reply_not_found(tctx);
        return confd_data_reply_value(tctx, &value);
    };
    return handlers;
}

TEST_F(providers, a_table_is_read_key_by_key_and_leaf_by_leaf)
{
    serve("show-element", element_form(daemon));
    begin();
    EXPECT_EQ(list("/show/element"), "1; 2; 3");
    EXPECT_EQ(daemon.take_events(),
              (names_t{ "get_next /conform:show/element -1", "get_next /conform:show/element 2",
                        "get_next /conform:show/element 3", "get_next /conform:show/element 4" }));
    EXPECT_EQ(get("/show/element{1}/name"), "n1");
    EXPECT_EQ(get("/show/element{3}/size"), "30000000000");
    EXPECT_EQ(get("/show/element{2}/detail/note"), "n2");
    EXPECT_EQ(get("/show/element{2}/name"), "-") << "the entry has no such leaf";
    EXPECT_EQ(get("/show/element{9}/name"), "-") << "no such entry";
    EXPECT_EQ(exists("/show/element{2}"), 1);
    EXPECT_EQ(exists("/show/element{9}"), 0);
    EXPECT_EQ(maapi_num_instances(user.fd(), user.th, "/show/element"), 3);
}

TEST_F(providers, a_list_in_an_entry_is_asked_for_with_the_keys_above)
{
    serve("show-element", element_form(daemon));
    begin();
    EXPECT_EQ(list("/show/element{2}/inner"), "1; 2");
    EXPECT_EQ(daemon.take_events()[0], "get_next /conform:show/element{2}/inner -1");
    EXPECT_EQ(get("/show/element{3}/inner{2}/text"), "n3");
    EXPECT_EQ(get("/show/element{3}/inner{7}/text"), "-");
}

TEST_F(providers, a_single_leaf_and_a_container_that_may_be_absent)
{
    bool is_running = true;
    data_handlers_t process;
    process.exists_optional = [&](confd_trans_ctx *tctx, confd_hkeypath_t *) {
        return is_running ? confd_data_reply_found(tctx) : confd_data_reply_not_found(tctx);
    };
    process.get_elem = [&](confd_trans_ctx *tctx, confd_hkeypath_t *kp) {
        confd_value_t value{};
        if (!is_running)
            return confd_data_reply_not_found(tctx);
        if (kp->v[0][0].val.xmltag.tag == tag_of("pid"))
            CONFD_SET_UINT32(&value, 77);
        else
            CONFD_SET_STR(&value, "ospfd");
        return confd_data_reply_value(tctx, &value);
    };
    data_handlers_t single;
    single.get_elem = [](confd_trans_ctx *tctx, confd_hkeypath_t *) {
        confd_value_t value{};
        CONFD_SET_CBUF(&value, "alone", 5);
        return confd_data_reply_value(tctx, &value);
    };
    serve("show-process", std::move(process));
    serve("show-single", std::move(single));
    begin();
    EXPECT_EQ(exists("/show/process"), 1);
    EXPECT_EQ(get("/show/process/pid"), "77");
    EXPECT_EQ(get("/show/single"), "alone");
    EXPECT_EQ(exists("/show/single"), 1);
    is_running = false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(exists("/show/process"), 0);
    EXPECT_EQ(get("/show/process/pid"), "-");
}

// ---- object form

struct row_t {
    uint32_t vpn;
    const char *name;
    uint32_t address;
};
constexpr row_t rows[] = { { 1, "eth0", 0x0a000001 }, { 1, "eth1", 0x0a000002 }, { 2, "eth 0", 0x0a000003 } };

void put_object(tag_values_t &out, const row_t &row)
{
    out.u32("vpn", row.vpn).text("name", row.name).address("address", row.address).yes("up");
    out.begin("stats").u64("rx", row.vpn * 100).u64("tx", 7).end("stats");
}

// Answers with all objects and an end record, to be used for as long.
data_handlers_t object_form(test_daemon &daemon, int timeout_ms)
{
    data_handlers_t handlers;
    handlers.get_next_object = [&daemon, timeout_ms](confd_trans_ctx *tctx, confd_hkeypath_t *, long next) {
        daemon.note("get_next_object " + std::to_string(next));
        std::deque<tag_values_t> objects(std::size(rows));
        std::vector<confd_tag_next_object> records;
        for (size_t i = 0; i < std::size(rows); i++) {
            put_object(objects[i], rows[i]);
            records.push_back({ objects[i].items.data(), static_cast<int>(objects[i].items.size()), -1 });
        }
        records.push_back({ nullptr, 0, -1 });
        return confd_data_reply_next_object_tag_value_arrays(tctx, records.data(), static_cast<int>(records.size()),
                                                             timeout_ms);
    };
    handlers.get_object = [&daemon](confd_trans_ctx *tctx, confd_hkeypath_t *kp) {
        daemon.note("get_object " + text_of(kp));
        for (const row_t &row : rows) {
            if (CONFD_GET_UINT32(&kp->v[0][0]) != row.vpn || text_of(kp->v[0][1]) != row.name)
                continue;
            tag_values_t object;
            put_object(object, row);
            return confd_data_reply_tag_value_array(tctx, object.items.data(), static_cast<int>(object.items.size()));
        }
        return confd_data_reply_not_found(tctx);
    };
    return handlers;
}

TEST_F(providers, objects_that_came_with_a_list_are_read_without_asking_again)
{
    serve("show-object", object_form(daemon, 60000));
    begin();
    EXPECT_EQ(list("/show/object"), "1 eth0; 1 eth1; 2 eth 0");
    EXPECT_EQ(daemon.take_events(), names_t{ "get_next_object -1" })
        << "the end record has told that there are no more";
    EXPECT_EQ(get("/show/object{1 eth1}/address"), "10.0.0.2");
    EXPECT_EQ(get("/show/object{2 \"eth 0\"}/stats/rx"), "200");
    EXPECT_EQ(get("/show/object{1 eth0}/up"), "true");
    EXPECT_EQ(daemon.take_events(), names_t{});
}

TEST_F(providers, objects_are_asked_for_anew_when_their_time_is_over)
{
    serve("show-object", object_form(daemon, 1));
    begin();
    EXPECT_EQ(list("/show/object"), "1 eth0; 1 eth1; 2 eth 0");
    daemon.take_events();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(get("/show/object{1 eth1}/address"), "10.0.0.2");
    EXPECT_EQ(daemon.take_events(), names_t{ "get_object /conform:show/object{1 eth1}" });
}

TEST_F(providers, an_entry_is_looked_up_by_its_keys)
{
    serve("show-object", object_form(daemon, 60000));
    begin();
    EXPECT_EQ(exists("/show/object{1 eth1}"), 1);
    EXPECT_EQ(get("/show/object{1 eth1}/stats/tx"), "7");
    EXPECT_EQ(count_of(daemon.take_events(), "get_object "), 1u) << "one object has all leaves";
    EXPECT_EQ(exists("/show/object{3 eth1}"), 0);
    EXPECT_EQ(get("/show/object{3 eth1}/up"), "-");
}

TEST_F(providers, a_list_is_continued_by_the_keys_of_its_last_entry)
{
    static constexpr const char *names[] = { "a", "b", "c" };
    auto reply = [](confd_trans_ctx *tctx, size_t at) {
        if (at >= std::size(names))
            return confd_data_reply_next_object_tag_value_array(tctx, nullptr, 0, -1);
        tag_values_t object;
        object.text("name", names[at]).u32("value", static_cast<uint32_t>(at));
        return confd_data_reply_next_object_tag_value_array(tctx, object.items.data(),
                                                            static_cast<int>(object.items.size()), -1);
    };
    data_handlers_t handlers;
    handlers.get_next_object = [&](confd_trans_ctx *tctx, confd_hkeypath_t *, long next) {
        daemon.note("next " + std::to_string(next));
        return reply(tctx, 0);
    };
    handlers.find_next_object = [&](confd_trans_ctx *tctx, confd_hkeypath_t *, int type, confd_value_t *keys, int n) {
        std::string from = n > 0 ? text_of(keys[0]) : "";
        daemon.note("find " + std::to_string(type) + " " + from);
        size_t at = 0;
        while (at < std::size(names) && (type == CONFD_FIND_NEXT ? names[at] <= from : names[at] < from))
            at++;
        return reply(tctx, at);
    };
    serve("show-keyed", std::move(handlers));
    begin();
    EXPECT_EQ(list("/show/keyed"), "a; b; c");
    names_t events = daemon.take_events();
    ASSERT_GE(events.size(), 3u);
    EXPECT_EQ(names_t(events.end() - 3, events.end()), (names_t{ "find 0 a", "find 0 b", "find 0 c" }));
    EXPECT_EQ(get("/show/keyed{c}/value"), "2");
    EXPECT_EQ(get("/show/keyed{bb}/value"), "-");
}

TEST_F(providers, a_list_in_an_object_has_its_own_callpoint)
{
    serve("show-object", object_form(daemon, 60000));
    data_handlers_t paths;
    paths.get_next_object = [this](confd_trans_ctx *tctx, confd_hkeypath_t *kp, long) {
        daemon.note("path " + text_of(kp));
        tag_values_t object;
        object.u32("index", 1).address("next-hop", 0x0a000009);
        confd_tag_next_object records[] = { { object.items.data(), static_cast<int>(object.items.size()), -1 },
                                            { nullptr, 0, -1 } };
        return confd_data_reply_next_object_tag_value_arrays(tctx, records, 2, 60000);
    };
    serve("show-path", std::move(paths));
    begin();
    EXPECT_EQ(list("/show/object{2 \"eth 0\"}/path"), "1");
    EXPECT_EQ(get("/show/object{2 \"eth 0\"}/path{1}/next-hop"), "10.0.0.9");
    EXPECT_EQ(count_of(daemon.take_events(), "path /conform:show/object{2 "), 1u);
}

TEST_F(providers, leaf_lists_come_as_lists)
{
    data_handlers_t handlers;
    handlers.get_next_object = [](confd_trans_ctx *tctx, confd_hkeypath_t *, long) {
        tag_values_t object;
        object.u32("vpn", 1).text("name", "eth0");
        confd_value_t words[2];
        CONFD_SET_STR(&words[0], "up");
        CONFD_SET_STR(&words[1], "running");
        confd_value_t *flag = object.add("flag");
        CONFD_SET_LIST(flag, words, 2);
        confd_tag_next_object records[] = { { object.items.data(), static_cast<int>(object.items.size()), -1 },
                                            { nullptr, 0, -1 } };
        return confd_data_reply_next_object_tag_value_arrays(tctx, records, 2, 60000);
    };
    serve("show-object", std::move(handlers));
    begin();
    EXPECT_EQ(list("/show/object"), "1 eth0");
    confd_value_t *values = nullptr;
    int n = 0;
    ASSERT_EQ(maapi_get_list_elem(user.fd(), user.th, &values, &n, "/show/object{1 eth0}/flag"), CONFD_OK)
        << confd_lasterr();
    ASSERT_EQ(n, 2);
    EXPECT_EQ(text_of(values[0]) + " " + text_of(values[1]), "up running");
    for (int i = 0; i < n; i++)
        confd_free_value(&values[i]);
    free(values);
}

TEST_F(providers, a_long_table_comes_whole_and_in_order)
{
    constexpr long COUNT = 5000;
    data_handlers_t handlers;
    handlers.get_next_object = [&](confd_trans_ctx *tctx, confd_hkeypath_t *, long next) {
        long from = next < 0 ? 1 : next;
        std::deque<tag_values_t> objects; // their values point into them
        for (long id = from; id < from + 100 && id <= COUNT; id++)
            objects.emplace_back().u32("id", static_cast<uint32_t>(id)).text("text", "t");
        std::vector<confd_tag_next_object> records;
        for (size_t i = 0; i < objects.size(); i++)
            records.push_back({ objects[i].items.data(), static_cast<int>(objects[i].items.size()),
                                from + static_cast<long>(i) + 1 });
        return confd_data_reply_next_object_tag_value_arrays(tctx, records.data(), static_cast<int>(records.size()), 0);
    };
    serve("show-added", std::move(handlers));
    begin();
    std::string expected = "1";
    for (long id = 2; id <= COUNT; id++)
        expected += "; " + std::to_string(id);
    EXPECT_EQ(list("/show/more:added"), expected);
    EXPECT_EQ(maapi_num_instances(user.fd(), user.th, "/show/more:added"), COUNT);
}

TEST_F(providers, data_below_a_configured_entry_is_asked_for_with_its_keys)
{
    data_handlers_t handlers;
    handlers.get_next = [this](confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next) {
        daemon.note(text_of(kp));
        confd_value_t key{};
        in_addr ip{ htonl(0x0a000005) };
        CONFD_SET_IPV4(&key, ip);
        return next < 0 ? confd_data_reply_next_key(tctx, &key, 1, 1) : confd_data_reply_next_key(tctx, nullptr, 0, -1);
    };
    handlers.get_elem = [](confd_trans_ctx *tctx, confd_hkeypath_t *kp) {
        confd_value_t value{};
        CONFD_SET_STR(&value, "00:11:22:33:44:55");
        if (kp->v[0][0].val.xmltag.tag == tag_of("ip"))
            value = kp->v[1][0];
        return confd_data_reply_value(tctx, &value);
    };
    serve("show-arp", std::move(handlers));
    ASSERT_EQ(commit(agent, { { "/data/vpn{5}", "+" } }).result, CONFD_OK);
    begin();
    EXPECT_EQ(list("/data/vpn{5}/arp"), "10.0.0.5");
    EXPECT_EQ(daemon.take_events()[0], "/conform:data/vpn{5}/arp");
    EXPECT_EQ(get("/data/vpn{5}/arp{10.0.0.5}/mac"), "00:11:22:33:44:55");
    EXPECT_EQ(list("/data/vpn{6}/arp"), "") << "no such VPN";
}

// ---- what goes wrong

TEST_F(providers, a_failing_callback_fails_the_read_with_its_text)
{
    data_handlers_t handlers;
    handlers.get_elem = [](confd_trans_ctx *tctx, confd_hkeypath_t *) {
        confd_trans_seterr(tctx, "the daemon is busy");
        return CONFD_ERR;
    };
    handlers.get_next = [](confd_trans_ctx *, confd_hkeypath_t *, long) {
        return CONFD_ERR;
    };
    serve("show-element", std::move(handlers));
    begin();
    std::string text = get("/show/element{1}/name");
    EXPECT_TRUE(text.starts_with("error " + std::to_string(CONFD_ERR_EXTERNAL))) << text;
    EXPECT_TRUE(mentions(text, "the daemon is busy")) << text;
    text = list("/show/element");
    EXPECT_TRUE(mentions(text, "error " + std::to_string(CONFD_ERR_EXTERNAL))) << text;
    EXPECT_TRUE(mentions(text, "show-element")) << text;
}

TEST_F(providers, data_that_nobody_serves_is_an_error_that_names_the_callpoint)
{
    begin();
    std::string text = get("/show/single");
    EXPECT_TRUE(text.starts_with("error " + std::to_string(CONFD_ERR_UNAVAILABLE))) << text;
    EXPECT_TRUE(mentions(text, "show-single")) << text;
}

TEST_F(providers, a_value_of_the_wrong_type_does_not_reach_the_reader)
{
    data_handlers_t handlers;
    handlers.exists_optional = [](confd_trans_ctx *tctx, confd_hkeypath_t *) {
        return confd_data_reply_found(tctx);
    };
    handlers.get_elem = [](confd_trans_ctx *tctx, confd_hkeypath_t *) {
        confd_value_t value{};
        CONFD_SET_STR(&value, "many");
        return confd_data_reply_value(tctx, &value);
    };
    serve("show-process", std::move(handlers));
    begin();
    std::string text = get("/show/process/pid");
    EXPECT_TRUE(text.starts_with("error ")) << text;
    EXPECT_TRUE(mentions(text, "show-process") || mentions(text, "pid")) << text;
    EXPECT_EQ(get("/show/process/title"), "many") << "the daemon is still served";
}

TEST_F(providers, an_answer_of_another_kind_is_refused_to_the_callback)
{
    data_handlers_t handlers;
    handlers.get_elem = [this](confd_trans_ctx *tctx, confd_hkeypath_t *) {
        EXPECT_EQ(confd_data_reply_next_key(tctx, nullptr, 0, -1), CONFD_ERR);
        daemon.note(std::to_string(confd_errno));
        confd_value_t value{};
        CONFD_SET_STR(&value, "right");
        return confd_data_reply_value(tctx, &value);
    };
    serve("show-single", std::move(handlers));
    begin();
    EXPECT_EQ(get("/show/single"), "right");
    EXPECT_EQ(daemon.take_events(), names_t{ std::to_string(CONFD_ERR_PROTOUSAGE) });
}

// ---- at the operator's prompt

TEST_F(providers, the_command_line_shows_what_daemons_serve)
{
    serve("show-object", object_form(daemon, 60000));
    serve("show-element", element_form(daemon));
    begin();
    std::string output = show("show show object");
    for (const char *part : { "eth0", "eth1", "10.0.0.3", "200" })
        EXPECT_TRUE(mentions(output, part)) << output;
    output = show("show show element 2");
    EXPECT_TRUE(mentions(output, "20000000000")) << output;
    EXPECT_FALSE(mentions(output, "30000000000")) << output;
}

TEST_F(providers, the_command_line_shows_the_rest_when_one_daemon_is_missing)
{
    serve("show-element", element_form(daemon));
    begin();
    std::string output = show("show show");
    EXPECT_TRUE(mentions(output, "20000000000")) << output;
    EXPECT_TRUE(mentions(output, "show-object")) << "what could not be read is told: " << output;
}

} // namespace
