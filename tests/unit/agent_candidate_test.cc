// The shared candidate, and the way back inside a transaction.
#include "agent_env.h"

namespace
{
const std::string MTU = "/vpn/vpn-instance{1}/interface{a}/mtu";

std::string candidate_text(const datastore_ptr &store, const std::string &path)
{
    trans_ptr look = candidate_begin(*store, false, 9);
    return text_at(store, { VIEW_TRANS, look.get() }, path);
}

int merge(const datastore_ptr &store, const std::vector<std::string> &lines)
{
    trans_ptr trans = candidate_begin(*store, true, 1);
    for (const std::string &line : lines)
        EXPECT_EQ(edit(*trans, line), 0) << line;
    ds_error_t error;
    return candidate_merge(*trans, error) ? 0 : error.code;
}

TEST(agent_candidate, what_is_merged_is_seen_by_all_who_look_at_the_candidate_but_not_in_running)
{
    datastore_ptr store = open_store();
    trans_ptr before = candidate_begin(*store, true, 2);
    EXPECT_EQ(text_at(store, { VIEW_TRANS, before.get() }, MTU), "none");
    EXPECT_FALSE(candidate_is_dirty(*store));
    ASSERT_EQ(merge(store, { "set " + MTU + " 900" }), 0);
    EXPECT_TRUE(candidate_is_dirty(*store));
    EXPECT_EQ(text_at(store, { VIEW_TRANS, before.get() }, MTU), "900");
    EXPECT_EQ(text_at(store, {}, MTU), "none");
    ASSERT_EQ(edit(*before, "set " + MTU + " 901"), 0);
    EXPECT_EQ(text_at(store, { VIEW_TRANS, before.get() }, MTU), "901");
    EXPECT_EQ(candidate_text(store, MTU), "900");
    candidate_discard(*store);
    EXPECT_FALSE(candidate_is_dirty(*store));
    EXPECT_EQ(candidate_text(store, MTU), "none");
    ds_error_t error;
    EXPECT_FALSE(trans_check(*before, error)); // its edit stood on the candidate's
    EXPECT_EQ(error.code, CONFD_ERR_CONFLICT);
    ASSERT_EQ(merge(store, { "create /vpn/vpn-instance{1}/interface{a}" }), 0);
    EXPECT_EQ(text_at(store, { VIEW_TRANS, before.get() }, MTU), "901");
}

TEST(agent_candidate, a_transaction_that_was_merged_goes_on_empty_and_the_later_one_wins)
{
    datastore_ptr store = open_store();
    trans_ptr first = candidate_begin(*store, true, 1);
    trans_ptr second = candidate_begin(*store, true, 2);
    ds_error_t error;
    ASSERT_EQ(edit(*first, "set " + MTU + " 901"), 0);
    ASSERT_EQ(edit(*second, "set " + MTU + " 902"), 0);
    ASSERT_EQ(edit(*first, "set " + MTU + " 903"), 0);
    ASSERT_TRUE(candidate_merge(*second, error));
    ASSERT_TRUE(candidate_merge(*first, error)) << error.text;
    EXPECT_EQ(candidate_text(store, MTU), "903");
    EXPECT_FALSE(trans_is_dirty(*first));
    ASSERT_EQ(edit(*first, "delete /vpn/vpn-instance{1}"), 0);
    ASSERT_EQ(edit(*second, "set " + MTU + " 904"), 0);
    ASSERT_TRUE(candidate_merge(*first, error));
    EXPECT_FALSE(candidate_merge(*second, error)); // what it stands in is gone
    EXPECT_EQ(error.code, CONFD_ERR_CONFLICT);
    EXPECT_EQ(candidate_text(store, MTU), "none");
}

TEST(agent_candidate, it_is_committed_as_a_transaction_and_what_is_not_committed_comes_back_below_later_edits)
{
    datastore_ptr store = open_store();
    ASSERT_EQ(merge(store, { "set " + MTU + " 900", "set /vpn/main 7" }), 0); // there is no instance 7
    trans_ptr taken = candidate_take(*store, 3);
    EXPECT_FALSE(candidate_is_dirty(*store));
    ASSERT_EQ(edit(*taken, "set /vpn/vpn-instance{9}/interface{hook}/mtu 1000"), 0);
    diff_ptr diff;
    ds_error_t error;
    EXPECT_FALSE(trans_prepare(*taken, diff, error));
    EXPECT_EQ(error.code, CONFD_ERR_VALIDATION);
    ASSERT_EQ(merge(store, { "set /vpn/main 1" }), 0);
    candidate_give_back(*store, std::move(taken));
    EXPECT_EQ(candidate_text(store, "/vpn/main"), "1");
    EXPECT_EQ(candidate_text(store, MTU), "900");
    EXPECT_EQ(candidate_text(store, "/vpn/vpn-instance{9}/id"), "none");
    taken = candidate_take(*store, 3);
    ASSERT_TRUE(apply(*taken, error)) << error.text;
    candidate_give_back(*store, std::move(taken));
    EXPECT_FALSE(candidate_is_dirty(*store));
    EXPECT_EQ(text_at(store, {}, MTU), "900");
    EXPECT_EQ(text_at(store, {}, "/vpn/main"), "1");
}

TEST(agent_candidate, what_misses_it_while_it_is_committed_finds_it_in_running_afterwards)
{
    datastore_ptr store = open_store();
    ASSERT_EQ(merge(store, { "set " + MTU + " 900" }), 0);
    trans_ptr other = candidate_begin(*store, true, 2);
    ASSERT_EQ(edit(*other, "set " + MTU + " 901"), 0);
    trans_ptr taken = candidate_take(*store, 3);
    ds_error_t error;
    EXPECT_FALSE(trans_check(*other, error)); // neither there nor here
    ASSERT_TRUE(apply(*taken, error)) << error.text;
    EXPECT_TRUE(trans_check(*other, error)) << error.text;
    EXPECT_EQ(text_at(store, { VIEW_TRANS, other.get() }, MTU), "901");
}

TEST(agent_candidate, it_follows_running_and_names_what_it_has_lost)
{
    datastore_ptr store = open_store();
    (void)commit(store, { "create /vpn/vpn-instance{1}" });
    ASSERT_EQ(merge(store, { "set " + MTU + " 900" }), 0);
    (void)commit(store, { "set /vpn/vpn-instance{1}/interface{b}/mtu 1000" });
    EXPECT_EQ(candidate_text(store, "/vpn/vpn-instance{1}/interface{b}/mtu"), "1000");
    (void)commit(store, { "delete /vpn/vpn-instance{1}" });
    trans_ptr taken = candidate_take(*store, 3);
    diff_ptr diff;
    ds_error_t error;
    EXPECT_FALSE(trans_prepare(*taken, diff, error));
    EXPECT_EQ(error.code, CONFD_ERR_CONFLICT);
    EXPECT_NE(error.text.find(MTU), std::string::npos) << error.text;
    EXPECT_NE(error.text.find("discard-candidate"), std::string::npos) << error.text;
    candidate_give_back(*store, std::move(taken));
    trans_ptr trans = candidate_begin(*store, true, 1);
    EXPECT_EQ(edit(*trans, "set /vpn/main 1"), CONFD_ERR_CONFLICT);
    candidate_discard(*store);
    EXPECT_EQ(edit(*trans, "create /vpn/vpn-instance{1}"), 0);
}

TEST(agent_candidate, what_a_refused_commit_found_in_running_may_go_again)
{
    datastore_ptr store = open_store();
    ASSERT_EQ(merge(store, { "set " + MTU + " 900", "set /vpn/main 7" }), 0); // there is no instance 7
    (void)commit(store, { "create /vpn/vpn-instance{1}/interface{a}" });
    trans_ptr taken = candidate_take(*store, 3);
    diff_ptr diff;
    ds_error_t error;
    EXPECT_FALSE(trans_prepare(*taken, diff, error));
    candidate_give_back(*store, std::move(taken));
    (void)commit(store, { "delete /vpn/vpn-instance{1}" });
    EXPECT_EQ(candidate_text(store, MTU), "900") << "it makes the instance itself, as when it was asked for";
}

TEST(agent_candidate, a_transaction_on_it_cannot_be_committed_and_one_on_running_cannot_be_merged)
{
    datastore_ptr store = open_store();
    trans_ptr trans = candidate_begin(*store, true, 1);
    ASSERT_EQ(edit(*trans, "set " + MTU + " 900"), 0);
    diff_ptr diff;
    ds_error_t error;
    EXPECT_FALSE(trans_prepare(*trans, diff, error));
    EXPECT_EQ(error.code, CONFD_ERR_BADSTATE);
    ASSERT_TRUE(trans_validate(*trans, diff, error));
    EXPECT_EQ(diff_lines(*diff).size(), 3u);
    EXPECT_FALSE(candidate_merge(*trans_begin(*store, true, 1), error));
    EXPECT_EQ(error.code, CONFD_ERR_BADSTATE);
    trans_ptr reader = candidate_begin(*store, false, 1);
    EXPECT_EQ(edit(*reader, "set " + MTU + " 900"), CONFD_ERR_NOT_WRITABLE);
}

TEST(agent_rewind, later_edits_are_as_if_they_had_never_been_made)
{
    datastore_ptr store = open_store();
    (void)commit(store, { "set " + MTU + " 900" });
    trans_ptr trans = trans_begin(*store, true, 1);
    size_t start = trans_mark(*trans);
    ASSERT_EQ(edit(*trans, "set " + MTU + " 901"), 0);
    size_t mark = trans_mark(*trans);
    ASSERT_EQ(edit(*trans, "delete /vpn/vpn-instance{1}"), 0);
    EXPECT_EQ(text_at(store, {}, MTU), "900");
    trans_rewind(*trans, mark);
    EXPECT_EQ(text_at(store, { VIEW_TRANS, trans.get() }, MTU), "901");
    trans_rewind(*trans, mark);
    trans_rewind(*trans, start);
    EXPECT_FALSE(trans_is_dirty(*trans));
    EXPECT_EQ(text_at(store, { VIEW_TRANS, trans.get() }, MTU), "900");
}

TEST(agent_rewind, it_crosses_a_preparation_and_a_commit_of_somebody_else)
{
    datastore_ptr store = open_store();
    trans_ptr trans = trans_begin(*store, true, 1);
    size_t start = trans_mark(*trans);
    ASSERT_EQ(edit(*trans, "set " + MTU + " 901"), 0);
    diff_ptr diff;
    ds_error_t error;
    ASSERT_TRUE(trans_prepare(*trans, diff, error));
    size_t mark = trans_mark(*trans);
    ASSERT_EQ(edit(*trans, "set /vpn/main 1"), 0);
    trans_rewind(*trans, mark);
    trans_rewind(*trans, start);
    ASSERT_EQ(edit(*trans, "set /vpn/main 5"), 0); // as many edits as were judged, but not the judged ones
    EXPECT_FALSE(trans_commit(*trans, error));
    EXPECT_FALSE(trans_prepare(*trans, diff, error));
    trans_rewind(*trans, start);
    ASSERT_EQ(edit(*trans, "create /vpn/vpn-instance{2}"), 0);
    ASSERT_EQ(edit(*trans, "set " + MTU + " 901"), 0);
    (void)commit(store, { "create /vpn/vpn-instance{3}" });
    trans_rewind(*trans, 1);
    ASSERT_TRUE(apply(*trans, error)) << error.text;
    EXPECT_EQ(text_at(store, {}, MTU), "none");
    EXPECT_EQ(text_at(store, {}, "/vpn/vpn-instance{2}/id"), "2");
}

TEST(agent_rewind, the_way_back_to_before_a_conflict_is_open)
{
    datastore_ptr store = open_store();
    (void)commit(store, { "create /vpn/vpn-instance{1}", "create /vpn/vpn-instance{2}" });
    trans_ptr trans = trans_begin(*store, true, 1);
    ASSERT_EQ(edit(*trans, "set /vpn/main 2"), 0);
    size_t mark = trans_mark(*trans);
    ASSERT_EQ(edit(*trans, "set " + MTU + " 901"), 0);
    (void)commit(store, { "delete /vpn/vpn-instance{1}" });
    ds_error_t error;
    EXPECT_FALSE(trans_check(*trans, error));
    trans_rewind(*trans, mark);
    EXPECT_TRUE(trans_check(*trans, error));
    EXPECT_EQ(text_at(store, { VIEW_TRANS, trans.get() }, "/vpn/main"), "2");
}

TEST(agent_read, a_leaf_is_default_until_it_is_set)
{
    datastore_ptr store = open_store();
    (void)commit(store, { "create /vpn/vpn-instance{1}/interface{a}" });
    trans_ptr trans = trans_begin(*store, true, 1);
    view_t view = { VIEW_TRANS, trans.get() };
    EXPECT_TRUE(read_is_default(*store, view, parse(store, MTU)));
    ASSERT_EQ(edit(*trans, "set " + MTU + " 1500"), 0); // the same value, but its own
    EXPECT_FALSE(read_is_default(*store, view, parse(store, MTU)));
    EXPECT_TRUE(read_is_default(*store, {}, parse(store, MTU)));
    for (const char *path : { "/", "/vpn", "/vpn/vpn-instance{1}", "/vpn/vpn-instance{1}/id", "/vpn/vpn-instance{7}/id",
                              "/vpn/vpn-instance{1}/interface{a}/tag" })
        EXPECT_FALSE(read_is_default(*store, {}, parse(store, path))) << path;
}
} // namespace
