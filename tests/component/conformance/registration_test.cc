// Everything that the configuration daemon registers, at once, as it does it: each point is then reached.
#include "tests/component/conformance/conform.h"

namespace
{

// ---- callbacks of the daemon's size: plain functions that note what they were called for

int note_validation(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *value)
{
    daemon_of(tctx).note("validate " + text_of(kp) + " " + text_of(value));
    return CONFD_OK;
}

int init_action(confd_user_info *uinfo)
{
    confd_action_set_fd(uinfo, daemon_of(uinfo).worker_fd());
    return CONFD_OK;
}

int note_action(confd_user_info *uinfo, xml_tag *name, confd_hkeypath_t *, confd_tag_value_t *params, int n)
{
    daemon_of(uinfo).note(std::string("action ") + confd_hash2str(name->tag));
    confd_tag_value_t answer{};
    std::string word = n > 0 ? text_of(params[0].v) : "";
    CONFD_SET_TAG_STR(&answer, confd_str2hash("answer"), word.c_str());
    answer.tag.ns = name->ns;
    return confd_action_reply_values(uinfo, &answer, 1);
}

int note_command(confd_user_info *uinfo, char *, int argc, char **argv)
{
    daemon_of(uinfo).note("command " + std::string(argc > 0 ? argv[0] : "-"));
    return CONFD_OK;
}

int note_completion(confd_user_info *uinfo, int, char *token, int, confd_hkeypath_t *kp, char *, char *, confd_qname *,
                    char *)
{
    daemon_of(uinfo).note("completion " + text_of(kp));
    std::string word = std::string(token) + "0";
    confd_completion_value value = { CONFD_COMPLETION, word.data(), nullptr };
    return confd_action_reply_completion(uinfo, &value, 1);
}

int note_set(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *)
{
    daemon_of(tctx).note("set " + text_of(kp));
    return CONFD_OK;
}

int note_create(confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    daemon_of(tctx).note("create " + text_of(kp));
    return CONFD_OK;
}

int note_remove(confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    daemon_of(tctx).note("remove " + text_of(kp));
    return CONFD_OK;
}

int empty_next(confd_trans_ctx *tctx, confd_hkeypath_t *kp, long)
{
    daemon_of(tctx).note("next " + text_of(kp));
    return confd_data_reply_next_key(tctx, nullptr, 0, -1);
}

int empty_elem(confd_trans_ctx *tctx, confd_hkeypath_t *)
{
    return confd_data_reply_not_found(tctx);
}

template <size_t Size> void set_name(char (&to)[Size], const std::string &name)
{
    snprintf(to, Size, "%s", name.c_str());
}

// ---- the registrations, in the daemon's order

void register_actions(confd_daemon_ctx *ctx)
{
    auto add = [ctx](std::span<const char *const> names, auto fill) {
        for (const char *name : names) {
            confd_action_cbs row{};
            set_name(row.actionpoint, name);
            row.init = init_action;
            fill(row);
            EXPECT_EQ(confd_register_action_cbs(ctx, &row), CONFD_OK) << name << ": " << confd_lasterr();
        }
    };
    add(ACTION_POINTS, [](confd_action_cbs &row) { row.action = note_action; });
    add(COMMAND_POINTS, [](confd_action_cbs &row) { row.command = note_command; });
    add(COMPLETION_POINTS, [](confd_action_cbs &row) { row.completion = note_completion; });
}

void register_validation(confd_daemon_ctx *ctx)
{
    for (const char *name : VALIDATION_POINTS) {
        confd_valpoint_cb row{};
        set_name(row.valpoint, name);
        row.validate = note_validation;
        EXPECT_EQ(confd_register_valpoint_cb(ctx, &row), CONFD_OK) << name << ": " << confd_lasterr();
    }
}

void register_data(confd_daemon_ctx *ctx)
{
    for (const hook_point_t &hook : HOOK_POINTS) {
        confd_data_cbs row{};
        set_name(row.callpoint, hook.name);
        row.set_elem = hook.ops & HOOK_SET ? note_set : nullptr;
        row.create = hook.ops & HOOK_CREATE ? note_create : nullptr;
        row.remove = hook.ops & HOOK_REMOVE ? note_remove : nullptr;
        EXPECT_EQ(confd_register_data_cb(ctx, &row), CONFD_OK) << hook.name << ": " << confd_lasterr();
    }
    for (const std::string &name : show_points()) {
        confd_data_cbs row{};
        set_name(row.callpoint, name);
        row.get_next = empty_next;
        row.get_elem = empty_elem;
        EXPECT_EQ(confd_register_data_cb(ctx, &row), CONFD_OK) << name << ": " << confd_lasterr();
    }
}

bool is_list(const hook_point_t &hook)
{
    return hook.ops & HOOK_CREATE || hook.ops == HOOK_REMOVE;
}

// The leaf, or an entry of the list.
std::string hook_path(const hook_point_t &hook)
{
    return std::string("/points:points/hooks/") + hook.name + (is_list(hook) ? "{a}" : "");
}

class registration : public testing::Test
{
protected:
    registration() { register_all(daemon); }

    void register_all(test_daemon &with)
    {
        register_actions(with.ctx());
        register_validation(with.ctx());
        register_data(with.ctx());
        confd_notification_stream_cbs stream{};
        set_name(stream.streamname, "corvane");
        stream.fd = with.worker_fd();
        confd_notification_ctx *notifications = nullptr, *snmp = nullptr;
        EXPECT_EQ(confd_register_notification_stream(with.ctx(), &stream, &notifications), CONFD_OK) << confd_lasterr();
        EXPECT_EQ(confd_register_snmp_notification(with.ctx(), with.worker_fd(), "corvane_snmpv2_trap", "", &snmp),
                  CONFD_OK)
            << confd_lasterr();
        EXPECT_TRUE(notifications && snmp);
        with.start();
    }

    conform_agent agent;
    test_daemon daemon{ agent };
};

TEST_F(registration, the_agent_counts_what_it_has_been_told)
{
    size_t actions = ACTION_POINTS.size() + COMMAND_POINTS.size() + COMPLETION_POINTS.size();
    EXPECT_EQ(actions, 73u);
    EXPECT_EQ(VALIDATION_POINTS.size(), 45u);
    std::string status = agent.status();
    EXPECT_TRUE(mentions(status, "\"action\":73")) << status;
    EXPECT_TRUE(mentions(status, "\"valpoint\":44")) << "one name stands in two places: " << status;
    size_t data = HOOK_POINTS.size() + distinct(show_points()).size();
    EXPECT_TRUE(mentions(status, "\"data\":" + std::to_string(data))) << status;
    EXPECT_TRUE(mentions(status, "\"stream\":1,\"snmp-notif\":1")) << status;
    EXPECT_FALSE(mentions(agent.log(), "unknown")) << "the model has all names: " << agent.log();
}

TEST_F(registration, every_validation_point_is_called)
{
    user_client user(agent);
    ASSERT_GT(user.begin(), 0);
    names_t expected, removed;
    for (size_t i = 0; i < VALIDATION_POINTS.size(); i++) {
        std::string leaf = "/points/valid-" + std::to_string(i), path = "/points:points/valid-" + std::to_string(i);
        EXPECT_EQ(user.set(leaf, "v" + std::to_string(i)), CONFD_OK) << confd_lasterr();
        expected.push_back("validate " + path + " v" + std::to_string(i));
        removed.push_back("validate " + path + " -");
    }
    EXPECT_EQ(user.apply(), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(daemon.take_events(), expected);
    for (size_t i = 0; i < VALIDATION_POINTS.size(); i++)
        EXPECT_EQ(user.remove("/points/valid-" + std::to_string(i)), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(user.apply(), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(daemon.take_events(), removed);
}

TEST_F(registration, every_hook_is_called_for_what_it_has_registered)
{
    user_client user(agent);
    ASSERT_GT(user.begin(), 0);
    names_t expected, removed;
    for (const hook_point_t &hook : HOOK_POINTS) {
        std::string leaf = hook_path(hook) + (is_list(hook) ? "/value" : "");
        EXPECT_EQ(user.set(leaf, "v"), CONFD_OK) << confd_lasterr();
        if (hook.ops & HOOK_CREATE)
            expected.push_back("create " + hook_path(hook));
        if (hook.ops & HOOK_SET)
            expected.push_back("set " + leaf);
        if (hook.ops & HOOK_REMOVE)
            removed.push_back("remove " + hook_path(hook));
    }
    EXPECT_EQ(user.apply(), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(daemon.take_events(), expected);
    EXPECT_EQ(user.remove("/points/hooks"), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(user.apply(), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(daemon.take_events(), removed);
}

TEST_F(registration, every_callpoint_answers_with_an_empty_table)
{
    user_client user(agent);
    ASSERT_GT(user.begin(), 0);
    names_t expected;
    for (const std::string &name : distinct(show_points())) {
        EXPECT_EQ(maapi_num_instances(user.fd(), user.th, "/points/shows/%s", name.c_str()), 0)
            << name << ": " << confd_lasterr();
        EXPECT_EQ(count_of(daemon.take_events(), "next /points:points/shows/" + name), 1u) << name;
    }
}

TEST_F(registration, every_action_and_command_runs)
{
    raw_user user(agent);
    for (const char *name : ACTION_POINTS) {
        raw_client::frame_t reply = user.action(std::string("/conform-points:") + name, R"({"word":"hello"})");
        EXPECT_EQ(reply.status, 0) << name << ": " << reply.text();
        EXPECT_TRUE(mentions(reply.text(), "hello")) << name << ": " << reply.text();
        EXPECT_EQ(daemon.take_events(), names_t{ std::string("action ") + name });
    }
    for (const char *name : COMMAND_POINTS) {
        raw_client::frame_t reply = user.action(std::string("/conform-points:") + name);
        EXPECT_EQ(reply.status, 0) << name << ": " << reply.text();
        EXPECT_EQ(daemon.take_events(), names_t{ std::string("command ") + name });
    }
}

TEST_F(registration, every_completion_is_asked_for)
{
    raw_user user(agent);
    for (size_t i = 0; i < COMPLETION_POINTS.size(); i++) {
        std::string leaf = "points/complete-" + std::to_string(i);
        EXPECT_EQ(user.complete("/" + leaf, "ge"), "0 ge0") << COMPLETION_POINTS[i];
        EXPECT_EQ(daemon.take_events(), names_t{ "completion /points:" + leaf });
    }
}

TEST_F(registration, a_newer_registration_wins_and_the_older_is_told_in_the_log)
{
    test_daemon newer(agent, "newer");
    register_all(newer);
    EXPECT_EQ(commit(agent, { { "/points/valid-0", "v" } }).result, CONFD_OK);
    EXPECT_EQ(newer.take_events().size(), 1u);
    EXPECT_EQ(daemon.take_events(), names_t{});
    EXPECT_TRUE(mentions(agent.log(), "sysIfAddr")) << agent.log();
    std::string status = agent.status();
    EXPECT_TRUE(mentions(status, "\"action\":73")) << status;
}

TEST_F(registration, a_daemon_that_comes_again_is_served_as_before)
{
    daemon.break_off();
    ASSERT_TRUE(agent.has_status("\"action\":0"));
    test_daemon again(agent);
    register_all(again);
    EXPECT_EQ(commit(agent, { { "/points/valid-0", "v" } }).result, CONFD_OK);
    EXPECT_EQ(again.take_events().size(), 1u);
    EXPECT_EQ(raw_user(agent).action("/conform-points:clear_arp").status, 0);
}

} // namespace
