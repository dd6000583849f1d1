// Actions, commands and completions as daemons serve them, and notifications that other threads send meanwhile.
#include "agent/client/confd_internal.h"
#include "tests/unit/confd_played_agent.h"

#include <functional>

namespace
{

constexpr uint32_t INVOCATION = 31;
constexpr uint32_t TAG = 5, NS = 9;

struct behaviour_t {
    std::function<int(confd_user_info *)> act;
    std::vector<std::string> calls;
    std::vector<confd_user_info *> users;
};
behaviour_t *behaviour = nullptr;

int noted(confd_user_info *uinfo, const std::string &call)
{
    behaviour->calls.push_back(call);
    behaviour->users.push_back(uinfo);
    return behaviour->act ? behaviour->act(uinfo) : CONFD_OK;
}

int on_action(confd_user_info *uinfo, xml_tag *name, confd_hkeypath_t *kp, confd_tag_value_t *params, int n)
{
    EXPECT_EQ(name->tag, TAG);
    EXPECT_EQ(name->ns, NS);
    std::string call = "action " + std::to_string(kp->len);
    for (int i = 0; i < n; i++)
        call += " " + std::to_string(params[i].tag.tag) + "=" + std::to_string(CONFD_GET_UINT32(&params[i].v));
    return noted(uinfo, call);
}

int on_command(confd_user_info *uinfo, char *path, int argc, char **argv)
{
    std::string call = std::string("command ") + path;
    for (int i = 0; i < argc; i++)
        call += std::string(" ") + argv[i];
    EXPECT_EQ(argv[argc], nullptr);
    return noted(uinfo, call);
}

int on_completion(confd_user_info *uinfo, int style, char *token, int character, confd_hkeypath_t *kp, char *cmdpath,
                  char *parameter, confd_qname *type, char *extra)
{
    std::string prefix(reinterpret_cast<char *>(type->prefix.ptr), type->prefix.size);
    std::string name(reinterpret_cast<char *>(type->name.ptr), type->name.size);
    std::string call = "completion";
    for (const std::string &word :
         { std::to_string(style), std::string(token), std::to_string(character), std::to_string(kp->len),
           std::string(cmdpath), std::string(parameter), prefix, name, std::string(extra) })
        call += "|" + word;
    return noted(uinfo, call);
}

std::string init_payload(std::string_view point, uint32_t th = 0)
{
    wire_writer_t out;
    out.u32(INVOCATION);
    out.u32(th);
    out.text(point);
    put_session(out);
    return out.bytes;
}

confd_tag_value_t param(uint32_t tag, uint32_t number)
{
    confd_tag_value_t value = {};
    CONFD_SET_TAG_UINT32(&value, tag, number);
    return value;
}

std::string action_payload()
{
    confd_tag_value_t params[] = { param(1, 10), param(2, 20) };
    wire_writer_t out;
    out.u32(INVOCATION);
    out.text("act");
    out.u32(TAG);
    out.u32(NS);
    wire_put_keypath(out, entry_path());
    wire_put_tag_values(out, params, 2);
    return out.bytes;
}

std::string command_payload()
{
    wire_writer_t out;
    out.u32(INVOCATION);
    out.text("act");
    out.text("show it");
    out.u32(2);
    out.text("show");
    out.text("two words");
    return out.bytes;
}

std::string completion_payload()
{
    wire_writer_t out;
    out.u32(INVOCATION);
    out.text("act");
    out.u8(2);
    out.text("ge");
    out.u8('?');
    wire_put_keypath(out, entry_path());
    for (const char *text : { "set if", "if-name", "", "string", "more" })
        out.text(text);
    return out.bytes;
}

class confd_action : public ::testing::Test
{
protected:
    void SetUp() override
    {
        behaviour = &mine;
        confd_action_cbs act = {}, bare = {};
        strcpy(act.actionpoint, "act");
        strcpy(bare.actionpoint, "bare");
        act.init = [](confd_user_info *uinfo) {
            return noted(uinfo, "init");
        };
        act.abort = [](confd_user_info *uinfo) {
            return noted(uinfo, "abort");
        };
        act.action = on_action;
        act.command = on_command;
        act.completion = on_completion;
        act.cb_opaque = &mine;
        EXPECT_EQ(agent.accept([&] { return confd_register_action_cbs(agent.dx, &act); }), CONFD_OK);
        EXPECT_EQ(agent.accept([&] { return confd_register_action_cbs(agent.dx, &bare); }), CONFD_OK);
    }

    void begin(std::string_view point = "act")
    {
        EXPECT_EQ(agent.ask_control(WIRE_CB_ACTION_INIT, init_payload(point)).payload,
                  number_payload(PLAYED_WORKER_ID));
    }

    behaviour_t mine;
    played_agent agent;
};

TEST_F(confd_action, an_invocation_has_its_user_from_init_to_answer_and_no_longer)
{
    mine.act = [&](confd_user_info *uinfo) {
        EXPECT_EQ(uinfo->usid, 12);
        EXPECT_STREQ(uinfo->username, "admin");
        EXPECT_EQ(uinfo->actx_thandle, 6);
        EXPECT_EQ(uinfo->cb_opaque, &mine);
        EXPECT_EQ(uinfo->dx, agent.dx);
        return CONFD_OK;
    };
    EXPECT_EQ(agent.ask_control(WIRE_CB_ACTION_INIT, init_payload("act", 6)).payload, number_payload(PLAYED_WORKER_ID));
    EXPECT_EQ(agent.ask_control(WIRE_CB_ACTION_ABORT, number_payload(INVOCATION)).header.status, 0);
    fake_request_t answer = agent.ask_worker(WIRE_CB_ACTION, action_payload());
    EXPECT_EQ(answer.header.status, 0);
    EXPECT_EQ(answer.payload, number_payload(0)); // nothing to say
    EXPECT_EQ(mine.calls, (std::vector<std::string>{ "init", "abort", "action 2 1=10 2=20" }));
    EXPECT_EQ(mine.users[0], mine.users[2]);
    EXPECT_EQ(agent.ask_worker(WIRE_CB_ACTION, action_payload()).header.status, CONFD_ERR_BADSTATE);
    EXPECT_EQ(agent.ask_control(WIRE_CB_ACTION_ABORT, number_payload(INVOCATION)).header.status, 0);
    EXPECT_EQ(mine.calls.size(), 3u);
}

TEST_F(confd_action, results_and_choices_go_out_as_they_are_given)
{
    begin();
    mine.act = [](confd_user_info *uinfo) {
        confd_tag_value_t result = param(3, 30);
        confd_completion_value choice = { CONFD_COMPLETION, const_cast<char *>("x"), nullptr };
        EXPECT_EQ(confd_action_reply_completion(uinfo, &choice, 1), CONFD_ERR); // nobody has asked for that
        EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
        EXPECT_EQ(confd_action_reply_values(uinfo, nullptr, 1), CONFD_ERR);
        EXPECT_EQ(confd_action_reply_values(uinfo, &result, 1), CONFD_OK);
        EXPECT_EQ(confd_action_reply_values(uinfo, &result, 1), CONFD_ERR);
        return CONFD_OK;
    };
    confd_tag_value_t result = param(3, 30);
    wire_writer_t values;
    wire_put_tag_values(values, &result, 1);
    EXPECT_EQ(agent.ask_worker(WIRE_CB_ACTION, action_payload()).payload, values.bytes);

    mine.act = nullptr;
    begin();
    mine.act = [](confd_user_info *uinfo) {
        char ge[] = "ge0/0", info[] = "none", more[] = "an interface";
        confd_completion_value choices[] = { { CONFD_COMPLETION, ge, more }, { CONFD_COMPLETION_INFO, info, nullptr } };
        return confd_action_reply_completion(uinfo, choices, 2);
    };
    wire_writer_t choices;
    choices.u32(2);
    choices.u8(CONFD_COMPLETION);
    choices.text("ge0/0");
    choices.text("an interface");
    choices.u8(CONFD_COMPLETION_INFO);
    choices.text("none");
    choices.text("");
    EXPECT_EQ(agent.ask_worker(WIRE_CB_COMPLETION, completion_payload()).payload, choices.bytes);
    EXPECT_EQ(mine.calls.back(), "completion|2|ge|63|2|set if|if-name||string|more");
}

TEST_F(confd_action, a_command_gets_its_words_and_its_failure_reaches_the_operator)
{
    begin();
    mine.act = [](confd_user_info *uinfo) {
        confd_action_seterr(uinfo, "no %d", 5);
        return CONFD_ERR;
    };
    int result = CONFD_OK;
    fake_request_t answer = agent.ask_worker(WIRE_CB_COMMAND, command_payload(), &result);
    EXPECT_EQ(mine.calls.back(), "command show it show two words");
    EXPECT_EQ(answer.header.status, CONFD_ERR_EXTERNAL);
    EXPECT_EQ(refusal_text(answer), "no 5");
    EXPECT_EQ(result, CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_EXTERNAL);
}

TEST_F(confd_action, what_is_missing_is_named)
{
    begin("bare");
    EXPECT_EQ(refusal_text(agent.ask_worker(WIRE_CB_ACTION, action_payload())),
              "the daemon has no action of action point \"bare\"");
    EXPECT_EQ(refusal_text(agent.ask_control(WIRE_CB_ACTION_INIT, init_payload("other"))),
              "the daemon has no action point \"other\"");
}

// ---- notifications

struct notification_t {
    confd_tag_value_t values[3] = {};

    explicit notification_t(uint32_t number)
    {
        CONFD_SET_TAG_XMLBEGIN(&values[0], TAG, NS);
        values[1] = param(1, number);
        CONFD_SET_TAG_XMLEND(&values[2], TAG, NS);
    }
};

TEST(confd_notif, what_is_no_notification_is_refused_and_what_is_one_goes_out_unanswered)
{
    played_agent agent;
    confd_notification_stream_cbs cbs = {};
    strcpy(cbs.streamname, "events");
    cbs.fd = agent.worker_fd();
    confd_notification_ctx *stream = nullptr, *snmp = nullptr;
    ASSERT_EQ(agent.accept([&] { return confd_register_notification_stream(agent.dx, &cbs, &stream); }), CONFD_OK);
    ASSERT_EQ(
        agent.accept([&] { return confd_register_snmp_notification(agent.dx, agent.worker_fd(), "group", "", &snmp); }),
        CONFD_OK);
    notification_t one(1);
    confd_datetime now = {};
    now.year = 2026;
    EXPECT_EQ(confd_notification_send(stream, &now, one.values + 1, 2), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    EXPECT_EQ(confd_notification_send(stream, &now, one.values, 2), CONFD_ERR);
    EXPECT_EQ(confd_notification_send(stream, &now, nullptr, 0), CONFD_ERR);
    EXPECT_EQ(confd_notification_send(snmp, &now, one.values, 3), CONFD_ERR);
    EXPECT_EQ(confd_notification_set_snmp_notify_name(stream, "x"), CONFD_ERR);

    confd_value_t when = {};
    CONFD_SET_DATETIME(&when, now);
    wire_writer_t expected;
    expected.u32(PLAYED_HANDLE);
    wire_put_value(expected, when);
    wire_put_tag_values(expected, one.values, 3);
    EXPECT_EQ(confd_notification_send(stream, &now, one.values, 3), CONFD_OK);
    fake_request_t frame = agent.workers[0]->read();
    EXPECT_EQ(frame.header.op, WIRE_NOTIFY_SEND);
    EXPECT_EQ(frame.payload, expected.bytes);

    confd_snmp_varbind variable = { CONFD_SNMP_VARIABLE, "ifName", number_value(4) };
    for (const char *name : { "", "other" }) {
        wire_writer_t trap;
        trap.u32(PLAYED_HANDLE);
        trap.text(name);
        trap.text("linkDown");
        trap.u32(1);
        trap.text("ifName");
        wire_put_value(trap, variable.val);
        EXPECT_EQ(confd_notification_set_snmp_notify_name(snmp, name), CONFD_OK);
        EXPECT_EQ(confd_notification_send_snmp(snmp, "linkDown", &variable, 1), CONFD_OK);
        EXPECT_EQ(agent.workers[0]->read().payload, trap.bytes);
    }
}

// Every frame must come whole, however the threads' bytes would mix.
TEST_F(confd_action, threads_send_notifications_while_callbacks_are_served)
{
    constexpr int THREADS = 3;
    constexpr uint32_t EACH = 300, ACTIONS = 100;
    confd_notification_stream_cbs cbs = {};
    strcpy(cbs.streamname, "events");
    cbs.fd = agent.worker_fd();
    confd_notification_ctx *stream = nullptr;
    ASSERT_EQ(agent.accept([&] { return confd_register_notification_stream(agent.dx, &cbs, &stream); }), CONFD_OK);

    uint32_t notifications = 0, answers = 0;
    std::thread peer([&] {
        for (uint32_t i = 0; i < ACTIONS; i++) {
            agent.control->send(wire_frame(WIRE_CB_ACTION_INIT, 0, i + 1, init_payload("act")));
            (void)agent.control->read();
            agent.workers[0]->send(wire_frame(WIRE_CB_ACTION, 0, i + 1, action_payload()));
            for (fake_request_t frame = agent.workers[0]->read(); frame.header.op != 0;
                 frame = agent.workers[0]->read()) {
                if (frame.header.op == (WIRE_CB_ACTION | WIRE_REPLY)) {
                    answers++;
                    break;
                }
                notifications += frame.header.op == WIRE_NOTIFY_SEND;
            }
        }
        while (notifications < THREADS * EACH && agent.workers[0]->read().header.op == WIRE_NOTIFY_SEND)
            notifications++;
    });
    std::vector<std::thread> senders;
    for (int i = 0; i < THREADS; i++)
        senders.emplace_back([&] {
            confd_datetime now = {};
            for (uint32_t n = 0; n < EACH; n++)
                EXPECT_EQ(confd_notification_send(stream, &now, notification_t(n).values, 3), CONFD_OK);
        });
    for (uint32_t i = 0; i < ACTIONS; i++) {
        EXPECT_EQ(confd_fd_ready(agent.dx, agent.control_fd()), CONFD_OK);
        EXPECT_EQ(confd_fd_ready(agent.dx, agent.worker_fd()), CONFD_OK);
    }
    for (std::thread &sender : senders)
        sender.join();
    peer.join();
    EXPECT_EQ(answers, ACTIONS);
    EXPECT_EQ(notifications, THREADS * EACH);
}

} // namespace
