// Edits, views and commits of transactions.
#include "agent/server/xpath.h"
#include "agent_env.h"

#include <random>

namespace
{
const std::string V5 = "/vpn/vpn-instance{5}";
const std::string IF = V5 + "/interface{ge0/1}";

TEST(agent_trans, edits_are_seen_by_their_transaction_and_by_nobody_else_until_commit)
{
    datastore_ptr store = open_store();
    trans_ptr trans = trans_begin(*store, true, 1);
    trans_ptr other = trans_begin(*store, true, 2);
    ASSERT_EQ(edit(*trans, "set " + IF + "/mtu 1400"), 0);
    ASSERT_EQ(edit(*other, "set " + V5 + "/name other"), 0);
    view_t mine = { VIEW_TRANS, trans.get() };
    EXPECT_EQ(text_at(store, mine, IF + "/mtu"), "1400");
    EXPECT_EQ(text_at(store, mine, IF + "/ip/dhcp"), "false");
    EXPECT_EQ(text_at(store, mine, V5 + "/name"), "none");
    EXPECT_EQ(text_at(store, {}, IF + "/mtu"), "none");
    EXPECT_EQ(text_at(store, { VIEW_TRANS, other.get() }, V5 + "/name"), "other");
    ds_error_t error;
    ASSERT_TRUE(apply(*trans, error)) << error.text;
    EXPECT_EQ(text_at(store, {}, IF + "/mtu"), "1400");
    EXPECT_EQ(text_at(store, { VIEW_OLD }, IF + "/mtu"), "none");
    EXPECT_EQ(text_at(store, {}, IF + "/mtu"), "1400");
    datastore_drop_old(*store);
    EXPECT_EQ(text_at(store, { VIEW_OLD }, IF + "/mtu"), "1400");
}

struct edit_row_t {
    std::vector<std::string> lines; // the last one is judged
    int code;
    std::string text; // a part of the error's
};

TEST(agent_trans, edits_follow_the_rules_of_yang)
{
    const edit_row_t rows[] = {
        { { "set " + IF + "/mtu 1400" }, 0, "" },
        { { "set " + IF + "/mtu 99" }, CONFD_ERR_BADTYPE, "576..2000" },
        { { "set " + IF + "/mode slowly" }, CONFD_ERR_BADTYPE, "slow, fast" },
        { { "set /all/word 9x" }, CONFD_ERR_BADTYPE, "begins with" },
        { { "set /all/word abcdefghi" }, CONFD_ERR_BADTYPE, "length 1..8" },
        { { "set /all/either maybe" }, CONFD_ERR_BADTYPE, "/all/either" },
        { { "set " + IF + "/state up" }, CONFD_ERR_NOT_WRITABLE, "state" },
        { { "create " + V5, "create " + V5 }, CONFD_ERR_ALREADY_EXISTS, V5 },
        { { "create " + V5 + "/name" }, CONFD_ERR_NOTCREATABLE, "name" },
        { { "create " + IF + "/quiet" }, 0, "" },
        { { "create " + IF + "/quiet", "create " + IF + "/quiet" }, CONFD_ERR_ALREADY_EXISTS, "quiet" },
        { { "create " + IF + "/ip" }, CONFD_ERR_NOTCREATABLE, "ip" },
        { { "delete " + V5 }, CONFD_ERR_NOEXISTS, V5 },
        { { "create " + V5, "delete " + V5 + "/id" }, CONFD_ERR_NOTDELETABLE, "key" },
        { { "create " + V5, "set " + V5 + "/id 6" }, CONFD_ERR_NOT_WRITABLE, "6" },
        { { "create " + V5, "set " + V5 + "/id 5" }, 0, "" },
        { { "create " + IF, "delete " + IF + "/mtu" }, CONFD_ERR_NOEXISTS, "mtu" },
        { { "set " + IF + "/mtu 1500", "delete " + IF + "/mtu" }, 0, "" },
        { { "create " + IF, "delete " + IF + "/ip" }, CONFD_ERR_NOEXISTS, "ip" },
        { { "set " + IF + "/ip/dhcp true", "delete " + IF + "/ip" }, 0, "" },
        { { "create " + IF, "delete " + V5 + "/interface" }, 0, "" },
        { { "set " + IF + "/tag x", "delete " + IF + "/tag{x}" }, 0, "" },
        { { "delete /all" }, CONFD_ERR_NOEXISTS, "/all" },
        { { "delete /" }, CONFD_ERR_NOT_WRITABLE, "/" },
    };
    datastore_ptr store = open_store();
    for (const edit_row_t &row : rows) {
        trans_ptr trans = trans_begin(*store, true, 1);
        std::string why;
        for (size_t i = 0; i + 1 < row.lines.size(); i++)
            EXPECT_EQ(edit(*trans, row.lines[i]), 0) << row.lines[i];
        EXPECT_EQ(edit(*trans, row.lines.back(), &why), row.code) << row.lines.back() << ": " << why;
        EXPECT_NE(why.find(row.text), std::string::npos) << row.lines.back() << ": " << why;
    }
    EXPECT_TRUE(contents(store).empty());
}

TEST(agent_trans, a_refused_edit_leaves_nothing_behind)
{
    datastore_ptr store = open_store();
    trans_ptr trans = trans_begin(*store, true, 1);
    EXPECT_NE(edit(*trans, "set " + IF + "/mtu 99"), 0);
    EXPECT_FALSE(read_exists(*store, { VIEW_TRANS, trans.get() }, parse(store, V5)));
    EXPECT_FALSE(trans_is_dirty(*trans));
    trans_ptr reader = trans_begin(*store, false, 1);
    EXPECT_EQ(edit(*reader, "create " + V5), CONFD_ERR_NOT_WRITABLE);
}

struct verdict_row_t {
    std::vector<std::string> ground; // committed before
    std::vector<std::string> lines;
    int code;
    std::string text; // a part of the error's, or the net change
};

TEST(agent_trans, the_rules_of_the_model_judge_a_transaction)
{
    const std::string RANGE = "/pool/range";
    const std::vector<std::string> fallback = { "set " + RANGE + "{3}/last 4", "create /pool/fallback" };
    const verdict_row_t rows[] = {
        { {}, { "set " + IF + "/ip/dhcp true", "set " + IF + "/mtu 900" }, CONFD_ERR_VALIDATION, "DHCP needs 1280" },
        { { "set " + IF + "/mtu 900" },
          { "set " + IF + "/ip/dhcp true" },
          CONFD_ERR_VALIDATION,
          IF + "/mtu = \"900\"" },
        { {}, { "set " + IF + "/speed 9" }, CONFD_ERR_VALIDATION, "../mode = 'fast'" },
        { { "set " + IF + "/mode fast", "set " + IF + "/speed 9" },
          { "set " + IF + "/mode slow" },
          0,
          "=" + IF + "/mode fast -> slow\n-" + IF + "/speed" },
        { {}, { "create " + IF + "/nat" }, CONFD_ERR_NOTSET, IF + "/nat/pool" },
        { {}, { "set " + V5 + "/route{10.0.0.0/8 ge0/9}/metric 3" }, CONFD_ERR_VALIDATION, "ge0/9" },
        { { "create " + IF, "set " + V5 + "/route{10.0.0.0/8 ge0/1}/metric 3" },
          { "delete " + IF },
          CONFD_ERR_VALIDATION,
          "route" },
        { { "create " + IF, "set " + V5 + "/route{10.0.0.0/8 ge0/1}/metric 3" }, { "delete " + V5 }, 0, "-" + V5 },
        { { "create " + V5, "set /vpn/main 5" }, { "delete " + V5 }, CONFD_ERR_VALIDATION, "/vpn/main" },
        { {},
          { "set " + IF + "/port 1", "set " + IF + "/port 2", "set " + IF + "/port 3", "set " + IF + "/port 4" },
          CONFD_ERR_VALIDATION,
          "at most 3" },
        { { "set " + IF + "/number 1", "set " + IF + "/ip/address 1.1.1.1" },
          { "set " + V5 + "/interface{b}/number 1", "set " + V5 + "/interface{b}/ip/address 1.1.1.1" },
          CONFD_ERR_VALIDATION,
          "unique" },
        { { "set " + IF + "/channel 3" },
          { "set " + IF + "/duplex half" },
          0,
          "=" + IF + "/duplex half\n-" + IF + "/channel" },
        { { "set " + IF + "/mtu 1400" }, { "delete " + IF, "set " + IF + "/mtu 1400" }, 0, "" },
        { { "set " + IF + "/mtu 1400" },
          { "delete " + IF, "set " + IF + "/mtu 1300" },
          0,
          "=" + IF + "/mtu 1400 -> 1300" },
        { { "set " + IF + "/mtu 1400" }, { "set " + IF + "/mtu 1300", "delete " + IF + "/mtu" }, 0, "-" + IF + "/mtu" },
        { { "set " + IF + "/mtu 1400" }, { "set " + IF + "/mtu 1300", "set " + IF + "/mtu 1400" }, 0, "" },
        { {}, { "create " + RANGE + "{5}", "create " + RANGE + "{6}" }, CONFD_ERR_VALIDATION, "/pool: one range" },
        { { "create " + RANGE + "{5}" }, { "create " + RANGE + "{512}" }, 0, "+" + RANGE + "{512}" },
        { { "create " + RANGE + "{5}" }, { "delete " + RANGE + "{5}" }, 0, "-" + RANGE + "{5}" },
        { { "create " + RANGE + "{5}" }, { "delete /pool" }, 0, "-" + RANGE + "{5}" },
        { {}, { "set /pool/note x" }, 0, "=/pool/note x" },
        { { "set /pool/note x" }, { "create " + RANGE + "{7}" }, 0, "+" + RANGE + "{7}\n-/pool/note" },
        { { "set " + RANGE + "{7}/last 9" }, { "set " + RANGE + "{7}/last 4" }, CONFD_ERR_VALIDATION, "end at 5" },
        { {}, { "create /pool/fallback" }, CONFD_ERR_VALIDATION, "/pool/fallback: the fallback is 3 to 4" },
        { fallback, { "delete " + RANGE + "{3}" }, CONFD_ERR_VALIDATION, "/pool/fallback: the fallback is 3 to 4" },
        { fallback, { "delete " + RANGE + "{3}", "delete /pool/fallback" }, 0, "-" + RANGE + "{3}\n-/pool/fallback" },
        { fallback, { "delete /pool" }, 0, "-" + RANGE + "{3}\n-/pool/fallback" },
    };
    for (const verdict_row_t &row : rows) {
        datastore_ptr store = open_store();
        if (!row.ground.empty())
            commit(store, row.ground);
        auto before = contents(store);
        trans_ptr trans = trans_begin(*store, true, 1);
        for (const std::string &line : row.lines)
            EXPECT_EQ(edit(*trans, line), 0) << line;
        diff_ptr diff;
        ds_error_t error;
        EXPECT_EQ(trans_validate(*trans, diff, error), row.code == 0) << row.lines.back() << ": " << error.text;
        EXPECT_EQ(error.code, row.code) << error.text;
        if (row.code == 0)
            EXPECT_EQ(diff_text(*diff), row.text);
        else
            EXPECT_NE(error.text.find(row.text), std::string::npos) << error.text;
        EXPECT_EQ(contents(store), before);
    }
}

TEST(agent_trans, predicates_are_judged_without_logical_operators)
{
    const std::pair<const char *, const char *> rows[] = {
        { "a and b or c", "a and b or c" },
        { "a[1]", "a[1]" },
        { "count(a[b != 0 and b != 5]) <= 2", "count(a[boolean(b != 0 ) * boolean( b != 5) > 0]) <= 2" },
        { "x[a and b or c]", "x[boolean(boolean(a ) * boolean( b ) > 0) + boolean( c) > 0]" },
        { "x[not(a or b)] and y", "x[not(boolean(a ) + boolean( b) > 0)] and y" },
        { "x[(a or b) = c]/or/and", "x[(boolean(a ) + boolean( b) > 0) = c]/or/and" },
        { "x[y[a and b]][c]", "x[y[boolean(a ) * boolean( b) > 0]][c]" },
        { "x[f(a, b and c, d)]", "x[f(a,boolean( b ) * boolean( c) > 0, d)]" },
        { "x[. = 'a and b[' or @p:and]", "x[boolean(. = 'a and b[' ) + boolean( @p:and) > 0]" },
        { "x[and and or]", "x[boolean(and ) * boolean( or) > 0]" },
        { "x[* and p:* and ../and]", "x[boolean(* ) * boolean( p:* ) * boolean( ../and) > 0]" },
        { "x[2 * and]", "x[2 * and]" },
        { "x[self::or or a-or-b]", "x[boolean(self::or ) + boolean( a-or-b) > 0]" },
        { "x[a div and mod or]", "x[a div and mod or]" },
    };
    for (const auto &[text, plain] : rows)
        EXPECT_EQ(xpath_plain_predicates(text), plain) << text;
}

TEST(agent_trans, a_lock_refuses_the_others_and_names_its_holder)
{
    datastore_ptr store = open_store();
    ds_error_t error;
    ASSERT_TRUE(datastore_lock(*store, 7, "admin (session 7)", error));
    EXPECT_FALSE(datastore_lock(*store, 8, "guest", error));
    EXPECT_EQ(error.code, CONFD_ERR_LOCKED);
    EXPECT_NE(error.text.find("admin (session 7)"), std::string::npos);
    trans_ptr mine = trans_begin(*store, true, 7);
    trans_ptr other = trans_begin(*store, true, 8);
    EXPECT_EQ(edit(*mine, "create " + V5), 0);
    EXPECT_EQ(edit(*other, "create /vpn/vpn-instance{6}"), 0);
    diff_ptr diff;
    EXPECT_FALSE(trans_prepare(*other, diff, error));
    EXPECT_EQ(error.code, CONFD_ERR_LOCKED);
    ASSERT_TRUE(trans_prepare(*mine, diff, error)) << error.text;
    datastore_release(*store, 7);
    EXPECT_FALSE(trans_prepare(*other, diff, error));
    EXPECT_EQ(error.code, CONFD_ERR_INUSE);
    trans_unprepare(*mine);
    EXPECT_TRUE(apply(*other, error)) << error.text;
    EXPECT_TRUE(apply(*mine, error)) << error.text;
    EXPECT_EQ(contents(store).size(), 2u);
}

TEST(agent_trans, a_transaction_goes_on_over_somebody_elses_commit_or_tells_of_the_conflict)
{
    datastore_ptr store = open_store();
    commit(store, { "create " + IF });
    trans_ptr fits = trans_begin(*store, true, 1);
    trans_ptr clashes = trans_begin(*store, true, 1);
    EXPECT_EQ(edit(*fits, "set " + V5 + "/name x"), 0);
    EXPECT_EQ(edit(*clashes, "set " + IF + "/mtu 1400"), 0);
    commit(store, { "delete " + IF });
    ds_error_t error;
    EXPECT_TRUE(trans_check(*fits, error)) << error.text;
    EXPECT_FALSE(trans_check(*clashes, error));
    EXPECT_EQ(error.code, CONFD_ERR_CONFLICT);
    EXPECT_NE(error.text.find(IF + "/mtu"), std::string::npos) << error.text;
    EXPECT_EQ(edit(*clashes, "set " + V5 + "/name y"), CONFD_ERR_CONFLICT);
    EXPECT_TRUE(apply(*fits, error));
    EXPECT_EQ(text_at(store, {}, V5 + "/name"), "x");
}

TEST(agent_trans, what_somebody_else_has_done_meanwhile_is_no_conflict)
{
    datastore_ptr store = open_store();
    commit(store, { "create " + IF, "set " + V5 + "/name old" });
    trans_ptr trans = trans_begin(*store, true, 1);
    EXPECT_EQ(edit(*trans, "create /vpn/vpn-instance{6}"), 0);
    EXPECT_EQ(edit(*trans, "set /vpn/vpn-instance{6}/name mine"), 0);
    EXPECT_EQ(edit(*trans, "delete " + IF), 0);
    EXPECT_EQ(edit(*trans, "delete " + V5 + "/name"), 0);
    commit(store, { "set /vpn/vpn-instance{6}/name theirs", "delete " + V5 });
    ds_error_t error;
    ASSERT_TRUE(apply(*trans, error)) << error.text;
    EXPECT_EQ(text_at(store, {}, "/vpn/vpn-instance{6}/name"), "mine");
    EXPECT_FALSE(read_exists(*store, {}, parse(store, V5)));
}

TEST(agent_trans, edits_behind_a_prepare_need_another_one)
{
    datastore_ptr store = open_store();
    trans_ptr trans = trans_begin(*store, true, 1);
    EXPECT_EQ(edit(*trans, "set " + IF + "/mode fast"), 0);
    diff_ptr diff;
    ds_error_t error;
    ASSERT_TRUE(trans_prepare(*trans, diff, error));
    EXPECT_EQ(edit(*trans, "set " + IF + "/speed 3"), 0);
    EXPECT_FALSE(trans_commit(*trans, error));
    EXPECT_EQ(error.code, CONFD_ERR_BADSTATE);
    ASSERT_TRUE(apply(*trans, error)) << error.text;
    EXPECT_EQ(text_at(store, {}, IF + "/speed"), "3");
    EXPECT_FALSE(trans_is_dirty(*trans));
    EXPECT_EQ(edit(*trans, "set " + IF + "/speed 4"), 0);
    EXPECT_TRUE(apply(*trans, error));
}

// ---- reads

TEST(agent_reads, entries_come_in_key_order_and_from_any_place)
{
    datastore_ptr store = open_store();
    commit(store, { "create /vpn/vpn-instance{10}", "create /vpn/vpn-instance{9}", "create /vpn/vpn-instance{512}",
                    "create /vpn/vpn-instance{0}", "create /vpn/vpn-instance{9}/rule{z}",
                    "create /vpn/vpn-instance{9}/rule{a}" });
    path_t list = parse(store, "/vpn/vpn-instance", PATH_LIST);
    auto keys_after = [&](const path_t &of, std::vector<confd_value_t> after, uint32_t most) {
        std::vector<entry_keys_t> entries;
        ds_error_t error;
        EXPECT_TRUE(read_next(*store, {}, of, after, most, entries, error)) << error.text;
        std::string text;
        for (const entry_keys_t &keys : entries)
            text += std::string(value_text(keys[0])) + " ";
        return text;
    };
    confd_value_t nine{};
    nine.type = C_UINT64;
    nine.val.u64 = 9;
    confd_value_t gone = nine;
    gone.val.u64 = 100;
    EXPECT_EQ(keys_after(list, {}, 100), "0 9 10 512 ");
    EXPECT_EQ(keys_after(list, { nine }, 1), "10 ");
    EXPECT_EQ(keys_after(list, { gone }, 9), "512 ");
    EXPECT_EQ(keys_after(parse(store, "/vpn/vpn-instance{9}/rule", PATH_LIST), {}, 9), "z a ");
    EXPECT_EQ(read_count(*store, {}, list), 4u);
    entry_keys_t keys;
    ds_error_t error;
    ASSERT_TRUE(read_nth(*store, {}, list, 2, keys, error));
    EXPECT_EQ(value_text(keys[0]), "10");
    EXPECT_FALSE(read_nth(*store, {}, list, 4, keys, error));
    EXPECT_EQ(error.code, CONFD_ERR_NOEXISTS);
}

TEST(agent_reads, a_document_shown_can_be_loaded_again)
{
    for (doc_format_t format : { DOC_JSON, DOC_XML }) {
        datastore_ptr store = open_store();
        commit(store, { "set " + IF + "/mtu 1400", "create /vpn/vpn-instance{10}", "create " + V5 + "/rule{b}",
                        "create " + V5 + "/rule{a}", "set " + IF + "/tag z", "set " + IF + "/tag a", "set /all/u8 3" });
        std::string document = show(store, "/", format);
        EXPECT_LT(document.find('5'), document.find("10"));
        EXPECT_EQ(document.find("1500"), std::string::npos);
        datastore_ptr copy = open_store();
        trans_ptr trans = trans_begin(*copy, true, 1);
        ds_error_t error;
        std::string text = format == DOC_XML
                               ? "<?xml version=\"1.0\"?>\n<config xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" +
                                     document + "</config>\n"
                               : document;
        ASSERT_TRUE(trans_load(*trans, format, text, error)) << error.text;
        ASSERT_TRUE(apply(*trans, error)) << error.text;
        EXPECT_EQ(contents(copy), contents(store));
        EXPECT_EQ(show(copy, "/", format), document);
    }
}

TEST(agent_reads, a_document_is_loaded_as_a_whole_or_not_at_all)
{
    datastore_ptr store = open_store();
    const char *documents[] = {
        "{",
        "{\"test-net:vpn\":{\"nothing\":1}}",
        "{\"test-net:vpn\":{\"vpn-instance\":[{\"id\":\"3\"},{\"id\":\"70000\"}]}}",
        "{\"test-net:vpn\":{\"vpn-instance\":[{\"id\":\"3\",\"label\":4}]}}",
    };
    for (const char *document : documents) {
        trans_ptr trans = trans_begin(*store, true, 1);
        ds_error_t error;
        EXPECT_FALSE(trans_load(*trans, DOC_JSON, document, error)) << document;
        EXPECT_FALSE(error.text.empty());
        EXPECT_FALSE(trans_is_dirty(*trans));
        EXPECT_FALSE(read_exists(*store, { VIEW_TRANS, trans.get() }, parse(store, "/vpn/vpn-instance{3}")));
    }
}

TEST(agent_reads, a_document_is_refused_with_the_place_of_the_fault)
{
    const std::string in_lines =
        "<?xml version=\"1.0\"?>\n<!-- three\nlines -->\n<config>\n<vpn xmlns=\"urn:test:net\">";
    const std::pair<std::string, std::string> documents[] = {
        { in_lines + "<nothing/></vpn></config>", "line number 5" },
        { "<vpn xmlns=\"urn:test:net\"><vpn-instance xmlns:y=\"urn:ietf:params:xml:ns:yang:1\" y:operation=\"delete\">"
          "<id>5</id></vpn-instance></vpn>",
          V5 + ": attribute operation" },
    };
    datastore_ptr store = open_store();
    for (const auto &[document, place] : documents) {
        trans_ptr trans = trans_begin(*store, true, 1);
        ds_error_t error;
        EXPECT_FALSE(trans_load(*trans, DOC_XML, document, error)) << document;
        EXPECT_NE(error.text.find(place), std::string::npos) << error.text;
        EXPECT_FALSE(trans_is_dirty(*trans));
    }
}

TEST(agent_reads, a_part_is_shown_with_its_parents)
{
    datastore_ptr store = open_store();
    commit(store, { "set " + IF + "/mtu 1400", "create " + V5 + "/interface{b}", "create /vpn/vpn-instance{10}" });
    std::string part = show(store, IF);
    EXPECT_NE(part.find("\"id\": \"5\""), std::string::npos) << part;
    EXPECT_NE(part.find("1400"), std::string::npos);
    EXPECT_EQ(part.find("\"b\""), std::string::npos);
    EXPECT_NE(show(store, IF, DOC_JSON, true).find("\"dhcp\": false"), std::string::npos);
    EXPECT_EQ(show(store, "/all"), "");
    EXPECT_NE(show(store, V5 + "/interface").find("\"b\""), std::string::npos);
}
} // namespace
