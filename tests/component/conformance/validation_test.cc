// Validation points: when they are called, what they see of the transaction, and what their refusal does.
#include "tests/component/conformance/conform.h"

namespace
{

class validation : public testing::Test
{
protected:
    // Notes "POINT PATH VALUE" and accepts.
    void note(const char *point)
    {
        daemon.validate(point, [this, point](confd_trans_ctx *, confd_hkeypath_t *kp, confd_value_t *value) {
            daemon.note(std::string(point) + " " + text_of(kp) + " " + text_of(value));
            return CONFD_OK;
        });
    }
    void note_all()
    {
        for (const char *point : { "val-address", "val-port", "val-port-name", "val-mtu", "val-member", "val-policy",
                                   "val-on", "val-extra" })
            note(point);
        daemon.start();
    }
    static validate_fn_t refusing(const char *text)
    {
        return [text](confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *) {
            confd_trans_seterr(tctx, "%s", text);
            return CONFD_ERR;
        };
    }
    // What was called for the commit, which has to succeed.
    names_t called(const std::vector<edit_t> &edits)
    {
        daemon.take_events();
        commit_result_t result = commit(agent, edits);
        EXPECT_EQ(result.result, CONFD_OK) << result.text;
        return daemon.take_events();
    }

    conform_agent agent;
    test_daemon daemon{ agent };
};

TEST_F(validation, points_are_called_with_keypath_and_value_of_what_has_changed)
{
    note_all();
    EXPECT_EQ(called({ { "/valid/address", "10.1.2.3" } }), names_t{ "val-address /conform:valid/address 10.1.2.3" });
    EXPECT_EQ(called({ { "/valid/address", "10.1.2.4" } }), names_t{ "val-address /conform:valid/address 10.1.2.4" });
    EXPECT_EQ(called({ { "/valid/address", "10.1.2.4" }, { "/valid/plain", "x" } }), names_t{}) << "no change of it";
    EXPECT_EQ(called({ { "/data/vpn{5}/more:extra", "e" } }), names_t{ "val-extra /conform:data/vpn{5}/extra e" });
    names_t on = called({ { "/valid/on", "+" } });
    ASSERT_EQ(on.size(), 1u);
    EXPECT_TRUE(on[0].starts_with("val-on /conform:valid/on ")) << on[0];
}

TEST_F(validation, points_of_a_new_entry_are_called_once_each)
{
    note_all();
    names_t events = called({ { "/valid/port{a}/mtu", "1400" },
                              { "/valid/port{a}/color", "red" },
                              { "/valid/port{a}/member", "m1" },
                              { "/valid/port{a}/options/speed", "10" } });
    EXPECT_EQ(count_of(events, "val-port /conform:valid/port{a} "), 1u) << testing::PrintToString(events);
    EXPECT_EQ(count_of(events, "val-port-name /conform:valid/port{a}/name a"), 1u) << testing::PrintToString(events);
    EXPECT_EQ(count_of(events, "val-mtu /conform:valid/port{a}/mtu 1400"), 1u) << testing::PrintToString(events);
    EXPECT_EQ(count_of(events, "val-member /conform:valid/port{a}/member m1"), 1u) << testing::PrintToString(events);
    EXPECT_EQ(events.size(), 4u) << testing::PrintToString(events);
}

TEST_F(validation, a_change_below_a_list_entry_or_container_calls_its_point)
{
    note_all();
    ASSERT_EQ(commit(agent, { { "/valid/port{a}", "+" }, { "/valid/port{b}", "+" } }).result, CONFD_OK);
    names_t events = called({ { "/valid/port{b}/options/speed", "10" }, { "/valid/port{b}/color", "red" } });
    ASSERT_EQ(events.size(), 1u) << testing::PrintToString(events);
    EXPECT_TRUE(events[0].starts_with("val-port /conform:valid/port{b} ")) << events[0];
    events = called({ { "/valid/policy/rate", "10" } });
    ASSERT_EQ(events.size(), 1u) << testing::PrintToString(events);
    EXPECT_TRUE(events[0].starts_with("val-policy /conform:valid/policy ")) << events[0];
}

TEST_F(validation, deletions_are_judged_too)
{
    note_all();
    ASSERT_EQ(commit(agent, { { "/valid/address", "10.1.2.3" },
                              { "/valid/on", "+" },
                              { "/valid/port{a}", "+" },
                              { "/valid/port{b}/mtu", "1400" } })
                  .result,
              CONFD_OK);
    EXPECT_EQ(called({ { "/valid/address", "-" }, { "/valid/on", "-" } }),
              (names_t{ "val-address /conform:valid/address -", "val-on /conform:valid/on -" }));
    names_t events = called({ { "/valid/port{a}", "-" } });
    EXPECT_EQ(count_of(events, "val-port /conform:valid/port{a} -"), 1u) << testing::PrintToString(events);
    events = called({ { "/valid/port{b}/mtu", "-" } });
    EXPECT_EQ(count_of(events, "val-port /conform:valid/port{b} "), 1u) << testing::PrintToString(events);
    EXPECT_EQ(count_of(events, "val-mtu /conform:valid/port{b}/mtu"), 1u) << testing::PrintToString(events);
}

TEST_F(validation, the_first_refusal_ends_it_with_its_text_and_running_is_as_before)
{
    daemon.validate("val-address", refusing("Address 10.1.2.3 is \"taken\" by %s"));
    daemon.validate("val-on", refusing("not this one"));
    daemon.start();
    user_client user(agent);
    ASSERT_GT(user.begin(), 0);
    EXPECT_EQ(user.set("/valid/address", "10.1.2.3"), CONFD_OK);
    EXPECT_EQ(user.create("/valid/on"), CONFD_OK);
    EXPECT_EQ(user.set("/valid/plain", "x"), CONFD_OK);
    EXPECT_EQ(user.apply(), CONFD_ERR);
    EXPECT_STREQ(confd_lasterr(), "Address 10.1.2.3 is \"taken\" by %s");
    EXPECT_EQ(confd_errno, CONFD_ERR_EXTERNAL);
    EXPECT_EQ(read_leaf(agent, "/valid/plain"), "-");
    EXPECT_EQ(user.remove("/valid/address"), CONFD_OK) << "the transaction can be put right";
    EXPECT_EQ(user.remove("/valid/on"), CONFD_OK);
    EXPECT_EQ(user.apply(), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(read_leaf(agent, "/valid/plain"), "x");
}

TEST_F(validation, points_behind_a_refusal_are_not_asked_and_the_order_is_the_models)
{
    daemon.validate("val-on", [this](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) {
        daemon.note("on");
        return CONFD_OK;
    });
    daemon.validate("val-policy", refusing("no policy"));
    daemon.validate("val-address", [this](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) {
        daemon.note("address");
        return CONFD_OK;
    });
    daemon.start();
    commit_result_t result =
        commit(agent, { { "/valid/on", "+" }, { "/valid/policy/rate", "10" }, { "/valid/address", "10.1.2.3" } });
    EXPECT_EQ(result.text, "no policy");
    EXPECT_EQ(daemon.take_events(), names_t{ "address" });
}

TEST_F(validation, a_node_with_two_points_asks_both_in_their_order)
{
    note("val-first");
    daemon.validate("val-second", refusing("not this one either"));
    daemon.start();
    EXPECT_EQ(commit(agent, { { "/valid/both", "x" } }).text, "not this one either");
    EXPECT_EQ(daemon.take_events(), names_t{ "val-first /conform:valid/both x" });
}

TEST_F(validation, a_refusal_without_a_text_names_the_point)
{
    daemon.validate("val-on", [](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) { return CONFD_ERR; });
    daemon.start();
    commit_result_t result = commit(agent, { { "/valid/on", "+" } });
    EXPECT_EQ(result.result, CONFD_ERR);
    EXPECT_TRUE(mentions(result.text, "val-on")) << result.text;
}

TEST_F(validation, a_check_asks_the_points_and_changes_nothing)
{
    bool is_refusing = false;
    daemon.validate("val-address", [&](confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *) {
        daemon.note(text_of(kp));
        confd_trans_seterr(tctx, "bad address");
        return is_refusing ? CONFD_ERR : CONFD_OK;
    });
    daemon.start();
    user_client user(agent);
    ASSERT_GT(user.begin(), 0);
    EXPECT_EQ(user.set("/valid/address", "10.1.2.3"), CONFD_OK);
    EXPECT_EQ(maapi_validate_trans(user.fd(), user.th, 0, 0), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(daemon.take_events(), names_t{ "/conform:valid/address" });
    EXPECT_EQ(read_leaf(agent, "/valid/address"), "-");
    is_refusing = true;
    EXPECT_EQ(maapi_validate_trans(user.fd(), user.th, 0, 0), CONFD_ERR);
    EXPECT_STREQ(confd_lasterr(), "bad address");
    is_refusing = false;
    EXPECT_EQ(user.apply(), CONFD_OK) << confd_lasterr();
}

// What a validator of the daemon reads of the transaction.
void read_all(test_daemon &daemon, confd_trans_ctx *tctx)
{
    int fd = daemon.maapi_fd(), th = tctx->thandle;
    maapi_cursor cursor{};
    EXPECT_EQ(maapi_init_cursor(fd, th, &cursor, "/valid/port"), CONFD_OK) << confd_lasterr();
    for (maapi_get_next(&cursor); cursor.n > 0; maapi_get_next(&cursor)) {
        confd_value_t value{};
        EXPECT_EQ(maapi_get_elem(fd, th, &value, "/valid/port{%x}/mtu", &cursor.keys[0]), CONFD_OK) << confd_lasterr();
        daemon.note(text_of(cursor.keys[0]) + " mtu " + text_of(value));
        confd_free_value(&value);
    }
    maapi_destroy_cursor(&cursor);
    EXPECT_EQ(maapi_set_flags(fd, th, MAAPI_FLAG_NO_DEFAULTS), CONFD_OK) << confd_lasterr();
    for (const char *name : { "a", "c" }) {
        EXPECT_EQ(maapi_cd(fd, th, "/valid/port{%s}", name), CONFD_OK) << confd_lasterr();
        confd_value_t value{};
        EXPECT_EQ(maapi_get_elem(fd, th, &value, "mtu"), CONFD_OK) << confd_lasterr();
        daemon.note(std::string(name) + (value.type == C_DEFAULT ? " default" : " own") + " exists " +
                    std::to_string(maapi_exists(fd, th, "mtu")));
    }
    EXPECT_EQ(maapi_set_flags(fd, th, 0), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(maapi_exists(fd, th, "/valid/port{b}"), 0) << "deleted in the transaction";
    EXPECT_EQ(maapi_num_instances(fd, th, "/valid/port"), 2);
}

TEST_F(validation, a_point_reads_the_transaction_that_it_judges)
{
    daemon.validate("val-policy", [this](confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *) {
        read_all(daemon, tctx);
        return CONFD_OK;
    });
    for (const char *point : { "val-port", "val-mtu", "val-port-name" })
        daemon.validate(point, [](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) { return CONFD_OK; });
    daemon.start();
    ASSERT_EQ(commit(agent, { { "/valid/port{a}/mtu", "1400" }, { "/valid/port{b}/mtu", "1300" } }).result, CONFD_OK);
    commit_result_t result =
        commit(agent, { { "/valid/port{b}", "-" }, { "/valid/port{c}/color", "red" }, { "/valid/policy/rate", "10" } });
    EXPECT_EQ(result.result, CONFD_OK) << result.text;
    EXPECT_EQ(daemon.take_events(), (names_t{ "a mtu 1400", "c mtu 1500", "a own exists 1", "c default exists 0" }));
    EXPECT_EQ(commit(agent, { { "/valid/policy/rate", "-" } }).result, CONFD_OK)
        << "the next validation attaches again: " << confd_lasterr();
}

TEST_F(validation, what_a_hook_adds_is_judged)
{
    data_handlers_t hook;
    hook.set_elem = [](confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *) {
        return attachment(tctx).set("/valid/address", "10.9.9.9");
    };
    daemon.data("hook-banner", std::move(hook));
    daemon.validate("val-address", refusing("not 10.9.9.9"));
    daemon.start();
    commit_result_t result = commit(agent, { { "/hook/banner", "hello" } });
    EXPECT_EQ(result.text, "not 10.9.9.9");
    EXPECT_EQ(read_leaf(agent, "/hook/banner"), "-");
}

TEST_F(validation, the_rules_of_the_model_come_first)
{
    note_all();
    commit_result_t result = commit(agent, { { "/valid/address", "10.1.2.3" }, { "/data/after", "x" } });
    EXPECT_EQ(result.error, CONFD_ERR_VALIDATION);
    EXPECT_TRUE(mentions(result.text, "a host is needed first")) << result.text;
    EXPECT_EQ(daemon.take_events(), names_t{});
}

TEST_F(validation, each_validation_begins_and_stops)
{
    daemon.validate_init = [this](confd_trans_ctx *tctx) {
        daemon.note(std::string("init for ") + tctx->uinfo->username);
        confd_trans_set_fd(tctx, daemon.worker_fd());
        return maapi_attach(daemon.maapi_fd(), 0, tctx);
    };
    note("val-address");
    note("val-on");
    daemon.start();
    EXPECT_EQ(called({ { "/valid/on", "+" }, { "/valid/address", "10.1.2.3" } }).size(), 3u);
    EXPECT_EQ(called({ { "/valid/on", "-" } }), (names_t{ "init for admin", "val-on /conform:valid/on -" }));
}

TEST_F(validation, a_refused_init_refuses_the_commit)
{
    daemon.validate_init = [](confd_trans_ctx *tctx) {
        confd_trans_seterr(tctx, "not today");
        return CONFD_ERR;
    };
    note("val-address");
    daemon.start();
    commit_result_t result = commit(agent, { { "/valid/address", "10.1.2.3" } });
    EXPECT_EQ(result.result, CONFD_ERR);
    EXPECT_TRUE(mentions(result.text, "not today")) << result.text;
    EXPECT_EQ(read_leaf(agent, "/valid/address"), "-");
}

TEST_F(validation, a_point_may_read_running_beside_the_transaction)
{
    ASSERT_EQ(commit(agent, { { "/data/host", "old" } }).result, CONFD_OK);
    daemon.validate("val-address", [this](confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *) {
        confd_value_t value{};
        EXPECT_EQ(maapi_get_elem(daemon.maapi_fd(), tctx->thandle, &value, "/data/host"), CONFD_OK);
        daemon.note("running " + read_leaf(agent, "/data/host") + ", transaction " + text_of(value));
        confd_free_value(&value);
        return CONFD_OK;
    });
    daemon.start();
    EXPECT_EQ(called({ { "/valid/address", "10.1.2.3" }, { "/data/host", "new" } }),
              names_t{ "running old, transaction new" });
}

} // namespace
