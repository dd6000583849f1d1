// Transaction hooks: who is called for what, in which order, what a hook may do, and what is left of a refused one.
#include "tests/component/conformance/conform.h"

namespace
{

// Callbacks that note what they were called for.
data_handlers_t noting(test_daemon &daemon, const std::string &point)
{
    data_handlers_t handlers;
    handlers.create = [&daemon, point](confd_trans_ctx *, confd_hkeypath_t *kp) {
        daemon.note(point + " create " + text_of(kp));
        return CONFD_OK;
    };
    handlers.remove = [&daemon, point](confd_trans_ctx *, confd_hkeypath_t *kp) {
        daemon.note(point + " remove " + text_of(kp));
        return CONFD_OK;
    };
    handlers.set_elem = [&daemon, point](confd_trans_ctx *, confd_hkeypath_t *kp, confd_value_t *value) {
        daemon.note(point + " set " + text_of(kp) + " " + text_of(value));
        return CONFD_OK;
    };
    return handlers;
}

class hooks : public testing::Test
{
protected:
    void note_all(std::initializer_list<const char *> points)
    {
        for (const char *point : points)
            daemon.data(point, noting(daemon, point));
        daemon.start();
    }
    void on_set(const char *point, decltype(data_handlers_t::set_elem) function)
    {
        data_handlers_t handlers;
        handlers.set_elem = std::move(function);
        daemon.data(point, std::move(handlers));
    }

    conform_agent agent;
    test_daemon daemon{ agent };
};

TEST_F(hooks, a_point_gets_removals_then_creations_then_values)
{
    note_all({ "hook-user" });
    ASSERT_EQ(commit(agent, { { "/hook/user{old}/shell", "sh" }, { "/hook/user{same}/shell", "sh" } }).result,
              CONFD_OK);
    daemon.take_events();
    commit_result_t result = commit(agent, { { "/hook/user{new}/shell", "zsh" },
                                             { "/hook/user{same}/shell", "bash" },
                                             { "/hook/user{new}/level", "5" },
                                             { "/hook/user{old}", "-" } });
    EXPECT_EQ(result.result, CONFD_OK) << result.text;
    EXPECT_EQ(
        daemon.take_events(),
        (names_t{ "hook-user remove /conform:hook/user{old}", "hook-user create /conform:hook/user{new}",
                  "hook-user set /conform:hook/user{new}/level 5", "hook-user set /conform:hook/user{new}/shell zsh",
                  "hook-user set /conform:hook/user{same}/shell bash" }));
}

TEST_F(hooks, a_leaf_that_is_deleted_is_removed_and_a_presence_container_is_created_and_removed)
{
    note_all({ "hook-user" });
    ASSERT_EQ(commit(agent, { { "/hook/user{ann}/shell", "sh" }, { "/hook/user{ann}/home", "+" } }).result, CONFD_OK);
    EXPECT_EQ(count_of(daemon.take_events(), "hook-user create /conform:hook/user{ann}/home"), 1u);
    ASSERT_EQ(commit(agent, { { "/hook/user{ann}/shell", "-" }, { "/hook/user{ann}/home", "-" } }).result, CONFD_OK);
    names_t events = daemon.take_events();
    std::sort(events.begin(), events.end());
    EXPECT_EQ(events, (names_t{ "hook-user remove /conform:hook/user{ann}/home",
                                "hook-user remove /conform:hook/user{ann}/shell" }));
}

TEST_F(hooks, points_are_called_in_the_order_of_the_model_and_the_nearest_one_serves)
{
    note_all({ "hook-banner", "hook-service", "hook-task", "hook-user" });
    commit_result_t result = commit(agent, { { "/data/vpn{5}/more:service{1}/next", "a" },
                                             { "/hook/banner", "hello" },
                                             { "/hook/user{ann}/task{2}/permission", "read" },
                                             { "/hook/user{ann}/shell", "sh" } });
    EXPECT_EQ(result.result, CONFD_OK) << result.text;
    EXPECT_EQ(
        daemon.take_events(),
        (names_t{ "hook-user create /conform:hook/user{ann}", "hook-user set /conform:hook/user{ann}/shell sh",
                  "hook-task create /conform:hook/user{ann}/task{2}",
                  "hook-task set /conform:hook/user{ann}/task{2}/permission read",
                  "hook-banner set /conform:hook/banner hello", "hook-service create /conform:data/vpn{5}/service{1}",
                  "hook-service set /conform:data/vpn{5}/service{1}/next a" }));
}

TEST_F(hooks, what_does_not_change_calls_nobody)
{
    note_all({ "hook-banner", "hook-user" });
    ASSERT_EQ(commit(agent, { { "/hook/banner", "hello" } }).result, CONFD_OK);
    daemon.take_events();
    EXPECT_EQ(commit(agent, { { "/hook/banner", "hello" }, { "/data/host", "box" } }).result, CONFD_OK);
    EXPECT_EQ(commit(agent, { { "/hook/user{a}/shell", "sh" }, { "/hook/user{a}", "-" } }).result, CONFD_OK);
    EXPECT_EQ(daemon.take_events(), names_t{});
}

TEST_F(hooks, a_hook_reads_and_writes_the_transaction_that_it_serves)
{
    on_set("hook-banner", [this](confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *value) {
        attachment at(tctx);
        daemon.note("host " + at.get("/data/host"));
        EXPECT_EQ(maapi_create(at.fd(), at.th(), "/hook/made{%x}", value), CONFD_OK) << confd_lasterr();
        EXPECT_EQ(maapi_set_elem(at.fd(), at.th(), value, "/hook/made{%x}/by", value), CONFD_OK) << confd_lasterr();
        EXPECT_EQ(at.set("/hook/needed", "yes"), CONFD_OK) << confd_lasterr();
        EXPECT_EQ(at.get("/hook/needed"), "yes");
        return CONFD_OK;
    });
    daemon.start();
    commit_result_t result =
        commit(agent, { { "/data/host", "box" }, { "/hook/banner", "two words" }, { "/hook/needs", "it" } });
    EXPECT_EQ(result.result, CONFD_OK) << result.text << ": rules are judged behind the hooks";
    EXPECT_EQ(daemon.take_events(), names_t{ "host box" });
    EXPECT_EQ(read_leaf(agent, "/hook/made{\"two words\"}/by"), "two words");
    EXPECT_EQ(read_leaf(agent, "/hook/needed"), "yes");
}

TEST_F(hooks, a_hook_knows_whose_transaction_it_serves)
{
    int seen_th = 0;
    on_set("hook-banner", [&](confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *) {
        daemon.note(std::string(tctx->uinfo->username) + " " + tctx->uinfo->context + " " +
                    std::to_string(tctx->dbname));
        seen_th = tctx->thandle;
        EXPECT_GT(tctx->uinfo->usid, 0);
        return CONFD_OK;
    });
    daemon.start();
    user_client user(agent, "system-test");
    ASSERT_GT(user.begin(), 0);
    EXPECT_EQ(user.set("/hook/banner", "hello"), CONFD_OK);
    EXPECT_EQ(user.apply(), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(daemon.take_events(), names_t{ "system-test cli " + std::to_string(CONFD_RUNNING) });
    EXPECT_EQ(seen_th, user.th);
}

TEST_F(hooks, changes_that_hooks_make_call_hooks_again)
{
    on_set("hook-chain", [this](confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *value) {
        uint32_t number = CONFD_GET_UINT32(value);
        daemon.note("chain " + std::to_string(number));
        attachment at(tctx);
        if (number < 5)
            EXPECT_EQ(at.set("/hook/chain", std::to_string(number + 1)), CONFD_OK) << confd_lasterr();
        else
            EXPECT_EQ(at.set("/hook/banner", "five"), CONFD_OK) << confd_lasterr();
        return CONFD_OK;
    });
    daemon.data("hook-banner", noting(daemon, "hook-banner"));
    daemon.start();
    commit_result_t result = commit(agent, { { "/hook/chain", "1" } });
    EXPECT_EQ(result.result, CONFD_OK) << result.text;
    EXPECT_EQ(daemon.take_events(), (names_t{ "chain 1", "chain 2", "chain 3", "chain 4", "chain 5",
                                              "hook-banner set /conform:hook/banner five" }));
    EXPECT_EQ(read_leaf(agent, "/hook/chain"), "5");
}

TEST_F(hooks, hooks_that_never_rest_are_stopped_after_16_rounds)
{
    on_set("hook-chain", [this](confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *value) {
        daemon.note("chain");
        attachment at(tctx);
        EXPECT_EQ(at.set("/hook/chain", std::to_string(CONFD_GET_UINT32(value) + 1)), CONFD_OK) << confd_lasterr();
        return CONFD_OK;
    });
    daemon.start();
    commit_result_t result = commit(agent, { { "/hook/chain", "1" } });
    EXPECT_EQ(result.result, CONFD_ERR);
    EXPECT_TRUE(mentions(result.text, "16")) << result.text;
    EXPECT_EQ(daemon.take_events().size(), 16u);
    EXPECT_EQ(read_leaf(agent, "/hook/chain"), "-");
}

TEST_F(hooks, a_refusal_reaches_the_committer_and_undoes_what_hooks_have_done)
{
    bool is_refusing = true;
    on_set("hook-user", [&](confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *) {
        attachment at(tctx);
        EXPECT_EQ(maapi_create(at.fd(), at.th(), "/hook/made{x}"), CONFD_OK) << confd_lasterr();
        return CONFD_OK;
    });
    on_set("hook-banner", [&](confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *) {
        if (!is_refusing)
            return CONFD_OK;
        confd_trans_seterr(tctx, "no banner \"%s\" on %d", "today", 5);
        return CONFD_ERR;
    });
    daemon.start();
    user_client user(agent);
    ASSERT_GT(user.begin(), 0);
    EXPECT_EQ(user.set("/hook/user{ann}/shell", "sh"), CONFD_OK);
    EXPECT_EQ(user.set("/hook/banner", "hello"), CONFD_OK);
    EXPECT_EQ(user.apply(), CONFD_ERR);
    EXPECT_STREQ(confd_lasterr(), "no banner \"today\" on 5");
    EXPECT_EQ(confd_errno, CONFD_ERR_EXTERNAL);
    EXPECT_EQ(read_leaf(agent, "/hook/banner"), "-");
    EXPECT_EQ(maapi_exists(user.fd(), user.th, "/hook/made{x}"), 0) << "the hook's";
    EXPECT_EQ(maapi_exists(user.fd(), user.th, "/hook/user{ann}"), 1) << "the user's own";
    is_refusing = false;
    EXPECT_EQ(user.apply(), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(data_client(agent, CDB_RUNNING).get("/hook/made{x}/name"), "x");
}

TEST_F(hooks, what_a_daemon_sets_behind_its_hook_does_not_reach_the_transaction)
{
    on_set("hook-banner", [&](confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *) {
        EXPECT_EQ(maapi_attach(daemon.maapi_fd(), 0, tctx), CONFD_OK) << confd_lasterr();
        EXPECT_EQ(maapi_set_elem2(daemon.maapi_fd(), tctx->thandle, "early", "/hook/shadow"), CONFD_OK)
            << confd_lasterr();
        return CONFD_ERR;
    });
    daemon.start();
    user_client user(agent);
    ASSERT_GT(user.begin(), 0);
    EXPECT_EQ(user.set("/hook/banner", "hello"), CONFD_OK);
    EXPECT_EQ(user.apply(), CONFD_ERR);
    EXPECT_EQ(maapi_exists(daemon.maapi_fd(), user.th, "/hook/banner"), 1) << "it may still read";
    EXPECT_EQ(maapi_set_elem2(daemon.maapi_fd(), user.th, "late", "/hook/shadow"), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADSTATE) << confd_lasterr();
    EXPECT_TRUE(mentions(confd_lasterr(), "with its session")) << confd_lasterr();
    EXPECT_EQ(maapi_exists(user.fd(), user.th, "/hook/shadow"), 0);
}

TEST(busy_worker, holds_a_commit_no_longer_than_its_time_and_stays)
{
    conform_agent agent("callback-timeout-ms = 500\n");
    gate busy;
    test_daemon daemon(agent, "conform", 2);
    daemon.action("act-quiet", { nullptr,
                                 [&](confd_user_info *, xml_tag *, confd_hkeypath_t *, confd_tag_value_t *, int) {
                                     busy.pass();
                                     return CONFD_OK;
                                 },
                                 nullptr, nullptr });
    daemon.data("hook-banner", noting(daemon, "hook-banner"));
    daemon.choose_worker = [](const confd_user_info *) {
        return 1;
    }; // the first one's thread serves the inits too
    daemon.start();
    raw_user slow(agent);
    slow.post_action("/conform:act/quiet");
    ASSERT_TRUE(busy.wait_for_visitor());
    commit_result_t result = commit(agent, { { "/hook/banner", "hello" } });
    EXPECT_EQ(result.error, CONFD_ERR_UNAVAILABLE);
    EXPECT_TRUE(mentions(result.text, "is busy with action \"quiet\"")) << result.text;
    EXPECT_TRUE(mentions(result.text, "hook-banner")) << result.text;
    EXPECT_EQ(commit(agent, { { "/data/host", "box" } }).result, CONFD_OK) << "the queue goes on";
    busy.open();
    EXPECT_EQ(slow.wait_for(WIRE_MAAPI_ACTION).status, 0);
    EXPECT_EQ(daemon.take_events(), names_t{}) << "it was not asked any more";
    EXPECT_EQ(commit(agent, { { "/hook/banner", "again" } }).result, CONFD_OK);
    EXPECT_EQ(daemon.take_events(), names_t{ "hook-banner set /conform:hook/banner again" });
}

TEST_F(hooks, a_refusal_without_a_text_names_the_point)
{
    on_set("hook-banner", [](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) { return CONFD_ERR; });
    daemon.start();
    commit_result_t result = commit(agent, { { "/hook/banner", "hello" } });
    EXPECT_EQ(result.result, CONFD_ERR);
    EXPECT_TRUE(mentions(result.text, "hook-banner")) << result.text;
}

TEST_F(hooks, a_hook_without_a_callback_for_a_change_is_not_asked)
{
    on_set("hook-banner", [this](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) {
        daemon.note("set");
        return CONFD_OK;
    });
    daemon.start();
    ASSERT_EQ(commit(agent, { { "/hook/banner", "hello" } }).result, CONFD_OK);
    commit_result_t result = commit(agent, { { "/hook/banner", "-" } });
    EXPECT_EQ(result.result, CONFD_OK) << result.text;
    EXPECT_EQ(daemon.take_events(), names_t{ "set" });
}

TEST_F(hooks, two_daemons_serve_the_hooks_of_one_commit)
{
    test_daemon other(agent, "other");
    note_all({ "hook-user" });
    other.data("hook-banner", noting(other, "hook-banner"));
    other.start();
    commit_result_t result = commit(agent, { { "/hook/banner", "hello" }, { "/hook/user{ann}", "+" } });
    EXPECT_EQ(result.result, CONFD_OK) << result.text;
    EXPECT_EQ(daemon.take_events(), names_t{ "hook-user create /conform:hook/user{ann}" });
    EXPECT_EQ(other.take_events(), names_t{ "hook-banner set /conform:hook/banner hello" });
}

// What the daemon does later, its answer and its end of the transaction, is of no account, and the next commit is served.
TEST_F(hooks, an_interrupt_ends_a_commit_that_waits_for_a_hook)
{
    gate busy;
    on_set("hook-banner", [&](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) {
        busy.pass();
        return CONFD_OK;
    });
    daemon.start();
    raw_user user(agent);
    wire_writer_t begin;
    begin.u8(WIRE_DB_RUNNING);
    begin.u8(1);
    begin.u32(0);
    wire_writer_t edit, apply;
    uint32_t th = wire_reader_t(user.ask(WIRE_MAAPI_START_TRANS, begin.bytes).payload).u32();
    edit.u32(th);
    edit.text("/hook/banner");
    edit.text("hello");
    ASSERT_EQ(user.ask(WIRE_MAAPI_SET_TEXT, edit.bytes).status, 0);
    apply.u32(th);
    apply.u8(0);
    user.post(WIRE_MAAPI_APPLY_TRANS, apply.bytes);
    ASSERT_TRUE(busy.wait_for_visitor());
    user.post(WIRE_MAAPI_INTERRUPT, {}, 8);
    raw_client::frame_t reply = user.wait_for(WIRE_MAAPI_APPLY_TRANS);
    EXPECT_EQ(reply.status, CONFD_ERR_ABORTED) << reply.text();
    busy.open();
    commit_result_t next = commit(agent, { { "/hook/banner", "again" } });
    EXPECT_EQ(next.result, CONFD_OK) << next.text;
}

} // namespace
