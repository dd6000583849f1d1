// Actions, completions, interrupts and output: a user of bare frames asks, a scripted daemon answers.
#include "tests/component/agentd_daemon.h"

enum : uint32_t {
    INIT = 1,
    ABORT = 2,
    ACTION = 4,
    COMMAND = 8,
    COMPLETION = 16
};

static constexpr const char *CONFIG = "auto-phase2 = yes\naction-timeout-ms = 400\n";

static std::string name_of(uint32_t tag)
{
    for (const char *name : { "delay", "lamp", "how", "hard", "note", "step", "id", "text", "beside", "host", "count" })
        if (wire_hash(name) == tag)
            return name;
    return "?";
}

static std::string value_text(const confd_value_t &v)
{
    switch (v.type) {
    case C_UINT8:
        return std::to_string(v.val.u8);
    case C_UINT16:
        return std::to_string(v.val.u16);
    case C_BOOL:
        return v.val.boolean ? "true" : "false";
    case C_ENUM_VALUE:
        return "#" + std::to_string(v.val.enumvalue);
    case C_BUF:
        return std::string(reinterpret_cast<const char *>(v.val.buf.ptr), v.val.buf.size);
    case C_LIST: {
        std::string all;
        for (unsigned i = 0; i < v.val.list.size; i++)
            all += value_text(v.val.list.ptr[i]);
        return "[" + all + "]";
    }
    default:
        return "type " + std::to_string(v.type);
    }
}

// The tagged values of WIRE_CB_ACTION, as one line.
static std::string print_params(const std::string &payload)
{
    wire_reader_t in(payload);
    in.u32();
    in.text();
    in.u32();
    in.u32();
    confd_hkeypath_t path{};
    EXPECT_TRUE(wire_get_keypath(in, path));
    std::string line = std::to_string(path.len) + ":";
    wire_free_keypath(path);
    std::vector<confd_tag_value_t> values = wire_get_tag_values(in);
    EXPECT_TRUE(in.finished());
    for (const confd_tag_value_t &item : values) {
        EXPECT_EQ(item.tag.ns, wire_hash("urn:test:lab-act"));
        std::string name = " " + name_of(item.tag.tag);
        line += item.v.type == C_XMLBEGIN ? name + "("
                : item.v.type == C_XMLEND ? " )"
                                          : name + "=" + value_text(item.v);
    }
    wire_free_tag_values(values);
    return line;
}

struct action_bench {
    explicit action_bench(uint32_t bits = INIT | ABORT | ACTION, const std::string &config = CONFIG)
        : agent(config), daemon(agent), user(agent)
    {
        daemon.register_action("line-reset", bits);
        daemon.register_action("ping", bits);
        daemon.register_action("uplink-names", INIT | COMPLETION);
        daemon.done();
    }
    agentd_process agent;
    scripted_daemon daemon;
    session_client user;
};

static const char *RESET = "/act/line{a}/reset";

TEST(agentd_action, parameters_reach_the_daemon_in_the_order_of_the_model_and_its_answer_comes_back_as_json)
{
    action_bench bench;
    bench.user.create("/act/line{a}");
    bench.user.post_action(RESET,
                           R"({"step":[{"text":"one","id":1}],"beside":"a","lamp":["major","minor"],"delay":7})");
    bench.daemon.choose_worker();
    std::string asked = bench.daemon.worker.expect(WIRE_CB_ACTION);
    EXPECT_EQ(print_params(asked), "4: delay=7 lamp=[#2#1] how( hard=false ) step( id=1 text=one ) beside=a");
    tag_values_t out;
    out.u32("delay", 70000).label("status", 2).begin("seen").text("at", "noon").u8("id", 3).end("seen");
    bench.daemon.worker.answer(WIRE_CB_ACTION, out.bytes());
    raw_client::frame_t reply = bench.user.read_frame();
    EXPECT_EQ(reply.status, 0);
    EXPECT_EQ(reply.text(), R"({"status":"major","delay":70000,"seen":[{"id":3,"at":"noon"}]})");
}

struct refused_action_t {
    const char *path;
    const char *input;
    int status;
    std::vector<const char *> words; // of the text
};

TEST(agentd_action, what_does_not_fit_is_refused_with_parameter_value_and_rule)
{
    action_bench bench;
    bench.user.create("/act/line{a}");
    std::string deep = "{\"delay\":" + std::string(500, '[') + std::string(500, ']') + "}";
    const refused_action_t rows[] = {
        { RESET, "", CONFD_ERR_VALIDATION, { "reset", "delay", "Mandatory" } },
        { RESET, R"({"delay":99})", CONFD_ERR_BADTYPE, { "reset", "delay", "99", "range" } },
        { RESET, R"({"delay":9,"speed":1})", CONFD_ERR_BADTYPE, { "reset", "speed" } },
        { RESET, R"({"delay":9,"status":"major"})", CONFD_ERR_BADTYPE, { "status" } },
        { RESET, R"({"delay":9,"lamp":["red"]})", CONFD_ERR_BADTYPE, { "lamp", "red" } },
        { RESET, R"({"delay":9,"delay":10})", CONFD_ERR_VALIDATION, { "delay", "Duplicate" } },
        { RESET, R"({"delay":9,"beside":"b"})", CONFD_ERR_VALIDATION, { "beside", "b" } },
        { RESET, R"({"delay":)", CONFD_ERR_BADTYPE, { "reset" } },
        { RESET, deep.c_str(), CONFD_ERR_BADTYPE, { "deep" } },
        { RESET, R"({"delay":9},"lab-act:reset":{"delay":9})", CONFD_ERR_BADTYPE, { "no JSON object" } },
        { "/act/line{b}/reset", R"({"delay":9})", CONFD_ERR_NOEXISTS, { "/act/line{b} does not exist" } },
        { "/act/line/reset", R"({"delay":9})", CONFD_ERR_BADPATH, { "keys" } },
        { "/act/line{a}", "", CONFD_ERR_BADPATH, { "no action" } },
        { "/act/loose", "", CONFD_ERR_UNAVAILABLE, { "/act/loose", "action point" } },
    };
    for (const refused_action_t &row : rows) {
        raw_client::frame_t reply = bench.user.run_action(row.path, row.input);
        EXPECT_EQ(reply.status, row.status) << row.input << reply.text();
        for (const char *word : row.words)
            EXPECT_NE(reply.text().find(word), std::string::npos) << row.input << ": " << reply.text();
    }
}

struct bad_output_t {
    const char *what;
    std::string payload;
    const char *word;
};

TEST(agentd_action, an_answer_that_does_not_fit_the_model_is_a_fault_of_the_daemon)
{
    action_bench bench;
    bench.user.create("/act/line{a}");
    const bad_output_t rows[] = {
        { "mandatory leaf missing", tag_values_t().u32("delay", 1).bytes(), "status" },
        { "input parameter", tag_values_t().label("status", 1).label("lamp", 1).bytes(), "lamp" },
        { "wrong type", tag_values_t().u8("status", 1).bytes(), "status" },
        { "no such number", tag_values_t().label("status", 9).bytes(), "status" },
        { "no key", tag_values_t().label("status", 1).begin("seen").end("seen").bytes(), "id" },
        { "no end", tag_values_t().label("status", 1).begin("seen").u8("id", 1).bytes(), "seen" },
        { "end of another", tag_values_t().label("status", 1).begin("seen").u8("id", 1).end("how").bytes(), "seen" },
        { "end alone", tag_values_t().label("status", 1).end("seen").bytes(), "end" },
        { "leaf begun", tag_values_t().begin("status").end("status").bytes(), "status" },
        { "garbage", "\xff\xff\xff", "no list of values" },
    };
    for (const bad_output_t &row : rows) {
        bench.user.post_action(RESET, R"({"delay":1})");
        bench.daemon.choose_worker();
        bench.daemon.worker.expect(WIRE_CB_ACTION);
        bench.daemon.worker.answer(WIRE_CB_ACTION, row.payload);
        raw_client::frame_t reply = bench.user.read_frame();
        EXPECT_EQ(reply.status, CONFD_ERR_EXTERNAL) << row.what;
        EXPECT_NE(reply.text().find("peer"), std::string::npos) << reply.text();
        EXPECT_NE(reply.text().find(row.word), std::string::npos) << row.what << ": " << reply.text();
    }
}

TEST(agentd_action, a_failing_callback_gives_its_text_or_names_action_and_client)
{
    action_bench bench;
    const char *texts[][2] = { { "no route", "no route" }, { "", "action ping of peer (pid 4000) failed" } };
    for (auto &[given, expected] : texts) {
        bench.user.post_action("/ping", R"({"host":"h"})");
        bench.daemon.choose_worker();
        EXPECT_EQ(print_params(bench.daemon.worker.expect(WIRE_CB_ACTION)), "1: host=h count=5");
        bench.daemon.worker.fail(WIRE_CB_ACTION, given);
        raw_client::frame_t reply = bench.user.read_frame();
        EXPECT_EQ(reply.status, CONFD_ERR_EXTERNAL);
        EXPECT_EQ(reply.text(), expected);
    }
}

TEST(agentd_action, a_command_gets_the_given_parameters_as_words)
{
    action_bench bench(INIT | COMMAND);
    bench.user.create("/act/line{a}");
    bench.user.post_action(RESET, R"({"how":{"note":"x y"},"delay":7,"lamp":["minor"]})");
    bench.daemon.choose_worker();
    std::string asked = bench.daemon.worker.expect(WIRE_CB_COMMAND);
    wire_reader_t in(asked);
    in.u32();
    EXPECT_EQ(in.text(), "line-reset");
    EXPECT_EQ(in.text(), "/act/line/reset");
    std::string words;
    for (uint32_t n = in.u32(); n > 0; n--)
        words += "<" + std::string(in.text()) + ">";
    EXPECT_TRUE(in.finished());
    EXPECT_EQ(words, "<reset><7><minor><x y>");
    bench.daemon.worker.answer(WIRE_CB_COMMAND, "");
    EXPECT_EQ(bench.user.read_frame().status, 0);
}

TEST(agentd_action, without_a_daemon_or_an_answer_in_time_the_action_is_unavailable)
{
    action_bench bench;
    bench.user.post_action("/ping", R"({"host":"h"})");
    bench.daemon.choose_worker();
    bench.daemon.worker.expect(WIRE_CB_ACTION);
    raw_client::frame_t late = bench.user.read_frame();
    EXPECT_EQ(late.status, CONFD_ERR_UNAVAILABLE);
    EXPECT_NE(late.text().find("has not answered"), std::string::npos) << late.text();
    session_client other(bench.agent);
    agentd_process bare(CONFIG);
    raw_client::frame_t reply = session_client(bare).run_action("/ping", R"({"host":"h"})");
    EXPECT_EQ(reply.status, CONFD_ERR_UNAVAILABLE);
    EXPECT_NE(reply.text().find("action point \"ping\""), std::string::npos) << reply.text();
}

TEST(agentd_action, actions_queue_at_a_worker_and_hold_up_nobody_else)
{
    action_bench bench;
    session_client second(bench.agent);
    bench.user.post_action("/ping", R"({"host":"one"})");
    bench.daemon.choose_worker();
    std::string first = bench.daemon.worker.expect(WIRE_CB_ACTION);
    second.post_action("/ping", R"({"host":"two"})");
    bench.daemon.choose_worker();
    session_client(bench.agent).create("/act/line{a}"); // a commit meanwhile
    bench.daemon.worker.answer(WIRE_CB_ACTION, tag_values_t().bytes());
    EXPECT_EQ(bench.user.read_frame().status, 0);
    EXPECT_EQ(print_params(bench.daemon.worker.expect(WIRE_CB_ACTION)), "1: host=two count=5");
    bench.daemon.worker.answer(WIRE_CB_ACTION, tag_values_t().bytes());
    EXPECT_EQ(second.read_frame().status, 0);
}

TEST(agentd_action, an_interrupt_ends_the_request_at_once_and_tells_the_daemon)
{
    action_bench bench;
    bench.user.post_action("/ping", R"({"host":"h"})");
    uint32_t invocation = bench.daemon.choose_worker();
    bench.daemon.worker.expect(WIRE_CB_ACTION);
    bench.user.post(WIRE_MAAPI_CLI_WRITE, "garbage"); // waits behind the action
    bench.user.post(WIRE_MAAPI_INTERRUPT, "");
    raw_client::frame_t reply = bench.user.read_frame();
    EXPECT_EQ(reply.op, WIRE_MAAPI_ACTION | WIRE_REPLY);
    EXPECT_EQ(reply.status, CONFD_ERR_ABORTED);
    EXPECT_EQ(reply.text(), "interrupted");
    EXPECT_EQ(bench.user.read_frame().op, WIRE_MAAPI_CLI_WRITE | WIRE_REPLY);
    EXPECT_EQ(wire_reader_t(bench.daemon.control.expect(WIRE_CB_ACTION_ABORT)).u32(), invocation);
    bench.daemon.control.answer(WIRE_CB_ACTION_ABORT, "");
    bench.daemon.worker.fail(WIRE_CB_ACTION, "aborted"); // late, and dropped
    session_client other(bench.agent);
    other.post_action("/ping", R"({"host":"again"})");
    bench.daemon.choose_worker();
    bench.daemon.worker.expect(WIRE_CB_ACTION);
    bench.daemon.worker.answer(WIRE_CB_ACTION, tag_values_t().bytes());
    EXPECT_EQ(other.read_frame().status, 0);
}

TEST(agentd_action, an_interrupted_action_that_waits_for_its_worker_is_never_run)
{
    action_bench bench;
    session_client second(bench.agent);
    bench.user.post_action("/ping", R"({"host":"one"})");
    bench.daemon.choose_worker();
    bench.daemon.worker.expect(WIRE_CB_ACTION);
    second.post_action("/ping", R"({"host":"two"})");
    bench.daemon.choose_worker();
    second.post(WIRE_MAAPI_INTERRUPT, "");
    EXPECT_EQ(second.read_frame().status, CONFD_ERR_ABORTED);
    bench.daemon.control.expect(WIRE_CB_ACTION_ABORT);
    bench.daemon.control.answer(WIRE_CB_ACTION_ABORT, "");
    bench.daemon.worker.answer(WIRE_CB_ACTION, tag_values_t().bytes());
    EXPECT_EQ(bench.user.read_frame().status, 0);
    bench.user.post_action("/ping", R"({"host":"three"})");
    bench.daemon.choose_worker();
    EXPECT_EQ(print_params(bench.daemon.worker.expect(WIRE_CB_ACTION)), "1: host=three count=5");
}

TEST(agentd_action, an_action_whose_user_goes_is_aborted)
{
    action_bench bench;
    auto guest = std::make_unique<session_client>(bench.agent);
    guest->post_action("/ping", R"({"host":"h"})");
    uint32_t invocation = bench.daemon.choose_worker();
    bench.daemon.worker.expect(WIRE_CB_ACTION);
    guest.reset();
    EXPECT_EQ(wire_reader_t(bench.daemon.control.expect(WIRE_CB_ACTION_ABORT)).u32(), invocation);
}

static std::string completion_request(const std::string &path, const std::string &token)
{
    wire_writer_t payload;
    payload.u32(0);
    payload.text(path);
    payload.text(token);
    payload.u8(9);
    return payload.bytes;
}

static std::string print_completions(const raw_client::frame_t &reply)
{
    if (reply.status != 0)
        return std::to_string(reply.status) + " " + reply.text();
    wire_reader_t in(reply.payload);
    std::string line;
    for (uint32_t n = in.u32(); n > 0; n--) {
        line += std::to_string(in.u8()) + " ";
        line += in.text();
        line += "/" + std::string(in.text()) + ";";
    }
    return line;
}

TEST(agentd_action, completions_are_filtered_by_the_word_typed)
{
    action_bench bench;
    bench.user.post(WIRE_MAAPI_COMPLETE, completion_request("/act/line{a}/uplink", "ge0"));
    bench.daemon.choose_worker();
    std::string asked = bench.daemon.worker.expect(WIRE_CB_COMPLETION);
    wire_reader_t in(asked);
    in.u32();
    EXPECT_EQ(in.text(), "uplink-names");
    in.u8();
    EXPECT_EQ(in.text(), "ge0");
    EXPECT_EQ(in.u8(), 9);
    confd_hkeypath_t path{};
    ASSERT_TRUE(wire_get_keypath(in, path));
    EXPECT_EQ(path.len, 4);
    wire_free_keypath(path);
    EXPECT_EQ(in.text(), "/act/line/uplink");
    EXPECT_EQ(in.text(), "uplink");
    in.text();
    EXPECT_EQ(in.text(), "string");
    wire_writer_t words;
    words.u32(4);
    const std::pair<uint8_t, const char *> items[] = { { 0, "ge0/0" }, { 0, "GE0/1" }, { 0, "ge1/0" }, { 1, "note" } };
    for (auto &[kind, value] : items) {
        words.u8(kind);
        words.text(value);
        words.text("x");
    }
    bench.daemon.worker.answer(WIRE_CB_COMPLETION, words.bytes);
    EXPECT_EQ(print_completions(bench.user.read_frame()), "0 ge0/0/x;1 note/x;");
}

TEST(agentd_action, a_completion_that_fails_without_a_text_offers_nothing)
{
    action_bench bench;
    for (const char *text : { "", "daemon not up" }) {
        bench.user.post(WIRE_MAAPI_COMPLETE, completion_request("/act/line{a}/uplink", ""));
        bench.daemon.choose_worker();
        bench.daemon.worker.expect(WIRE_CB_COMPLETION);
        bench.daemon.worker.fail(WIRE_CB_COMPLETION, text);
        std::string expected = *text ? std::to_string(CONFD_ERR_EXTERNAL) + " " + text : "";
        EXPECT_EQ(print_completions(bench.user.read_frame()), expected);
    }
    bench.user.post(WIRE_MAAPI_COMPLETE, completion_request("/act/line{a}/plain", ""));
    EXPECT_EQ(print_completions(bench.user.read_frame()), "");
}

TEST(agentd_action, output_arrives_at_its_session_before_the_answer_of_the_action)
{
    action_bench bench;
    bench.user.post_action("/ping", R"({"host":"h"})");
    bench.daemon.choose_worker();
    bench.daemon.worker.expect(WIRE_CB_ACTION);
    peer_client writer(bench.agent, WIRE_KIND_MAAPI);
    wire_writer_t line;
    line.u32(bench.user.session);
    line.text("64 bytes\n");
    EXPECT_EQ(writer.ask(WIRE_MAAPI_CLI_WRITE, line.bytes).status, 0);
    bench.daemon.worker.answer(WIRE_CB_ACTION, tag_values_t().bytes());
    raw_client::frame_t push = bench.user.read_frame();
    EXPECT_EQ(push.op, WIRE_MAAPI_OUTPUT);
    EXPECT_EQ(push.text(), "64 bytes\n");
    EXPECT_EQ(bench.user.read_frame().op, WIRE_MAAPI_ACTION | WIRE_REPLY);
    wire_writer_t lost;
    lost.u32(99999);
    lost.text("x");
    EXPECT_EQ(writer.ask(WIRE_MAAPI_CLI_WRITE, lost.bytes).status, CONFD_ERR_NOEXISTS);
}
