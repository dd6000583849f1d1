// Daemons that answer with nonsense: frames that are none, and answers that are well formed and wrong.
#include "tests/component/conformance/outcome.h"

#include <cstring>

namespace
{

// A daemon of bare frames: answers inits properly, and the first callback of its worker as told.
class raw_daemon
{
public:
    explicit raw_daemon(const agentd_process &agent) : control_(agent)
    {
        daemon_id_ = hello(control_, WIRE_KIND_CONTROL, 0);
        worker_ = std::make_unique<raw_client>(agent);
        worker_id_ = hello(*worker_, WIRE_KIND_WORKER, daemon_id_);
        EXPECT_NE(worker_id_, 0u);
        expect_ok(WIRE_REG_TRANS_CB, "");
        expect_ok(WIRE_REG_VALIDATE_CB, "");
    }
    void offer(wire_op_t op, const char *point, uint32_t bits)
    {
        wire_writer_t payload;
        payload.text(point);
        if (op != WIRE_REG_VALPOINT)
            payload.u32(bits);
        expect_ok(op, payload.bytes);
    }
    void done() { expect_ok(WIRE_REG_DONE, ""); }

    // Answers the init, then the worker's first callback with the bytes that `answer` makes of it. False when the agent
    // has asked nothing.
    bool serve(const std::function<std::string(const raw_client::frame_t &)> &answer)
    {
        raw_client::frame_t init = control_.read_frame();
        if (init.status < 0)
            return false;
        wire_writer_t payload;
        payload.u32(worker_id_);
        control_.send_bytes(wire_frame(init.op | WIRE_REPLY, 0, init.id, payload.bytes));
        raw_client::frame_t frame = worker_->read_frame();
        if (frame.status < 0)
            return false;
        worker_->send_bytes(answer(frame));
        return true;
    }
    // Answers one init as told.
    bool serve_init(const std::function<std::string(const raw_client::frame_t &)> &answer)
    {
        raw_client::frame_t init = control_.read_frame();
        return init.status >= 0 && control_.send_bytes(answer(init));
    }

    raw_client &worker() { return *worker_; }
    raw_client &control() { return control_; }
    uint32_t worker_id() const { return worker_id_; }

private:
    // The id that the agent gives.
    static uint32_t hello(raw_client &client, wire_kind_t kind, uint32_t daemon_id)
    {
        wire_writer_t payload;
        payload.u16(WIRE_VERSION);
        payload.u8(kind);
        payload.text("nonsense");
        payload.u32(4242);
        payload.text("");
        payload.u32(daemon_id);
        raw_client::frame_t reply = client.ask(WIRE_HELLO, payload.bytes);
        EXPECT_EQ(reply.status, 0);
        wire_reader_t in(reply.payload);
        return in.u32();
    }
    void expect_ok(uint16_t op, const std::string &payload)
    {
        raw_client::frame_t reply = control_.ask(op, payload);
        EXPECT_EQ(reply.status, 0) << op << ": " << reply.text();
    }

    raw_client control_;
    std::unique_ptr<raw_client> worker_;
    uint32_t daemon_id_ = 0;
    uint32_t worker_id_ = 0;
};

using frame_t = raw_client::frame_t;

std::string reply_to(const frame_t &frame, const std::string &payload, uint16_t status = 0)
{
    return wire_frame(frame.op | WIRE_REPLY, status, frame.id, payload);
}

std::string value_bytes(const confd_value_t &value)
{
    wire_writer_t out;
    wire_put_value(out, value);
    return out.bytes;
}

constexpr uint32_t ALL_CALLBACKS = 0x1ff;

struct nonsense_row_t {
    const char *name;
    std::string (*answer)(const frame_t &frame);
};

// Answers to any callback.
constexpr nonsense_row_t any_nonsense[] = {
    { "no_frame",
      [](const frame_t &) {
          return std::string("GET / HTTP/1.0\r\n\r\n");
      } },
    { "bytes_of_ff",
      [](const frame_t &) {
          return std::string(64, '\xff');
      } },
    { "another_id",
      [](const frame_t &frame) {
          return wire_frame(frame.op | WIRE_REPLY, 0, frame.id + 1, "");
      } },
    { "another_op",
      [](const frame_t &frame) {
          return wire_frame((frame.op + 1) | WIRE_REPLY, 0, frame.id, "");
      } },
    { "no_reply_bit",
      [](const frame_t &frame) {
          return wire_frame(frame.op, 0, frame.id, "");
      } },
    { "bytes_behind",
      [](const frame_t &frame) {
          return reply_to(frame, std::string(300, '\1'));
      } },
    { "a_count_of_ff",
      [](const frame_t &frame) {
          return reply_to(frame, std::string(12, '\xff'));
      } },
    { "a_failure_with_a_broken_text",
      [](const frame_t &frame) {
          return reply_to(frame, "\xff\xff\xff\x7f", 19);
      } },
    { "a_frame_too_long",
      [](const frame_t &frame) {
          std::string bytes = reply_to(frame, "");
          uint32_t length = WIRE_MAX_FRAME + 1;
          memcpy(bytes.data(), &length, sizeof length);
          return bytes;
      } },
    { "half_a_frame_and_the_end",
      [](const frame_t &frame) {
          return reply_to(frame, std::string(40, 'x')).substr(0, 20);
      } },
};

struct asked_row_t {
    const char *name;
    wire_op_t op;
    const char *point;
    outcome_t (*ask)(const conform_agent &agent);
};

void PrintTo(const asked_row_t &row, std::ostream *out)
{
    *out << row.name;
}

constexpr asked_row_t asked_rows[] = {
    { "hook", WIRE_REG_DATA_CB, "hook-banner",
      [](const conform_agent &agent) {
          return commit_of(agent, { { "/hook/banner", "hello" } });
      } },
    { "validation", WIRE_REG_VALPOINT, "val-address",
      [](const conform_agent &agent) {
          return commit_of(agent, { { "/valid/address", "10.1.2.3" } });
      } },
    { "get_elem", WIRE_REG_DATA_CB, "show-single",
      [](const conform_agent &agent) {
          return read_of(agent, "/show/single");
      } },
    { "list", WIRE_REG_DATA_CB, "show-object",
      [](const conform_agent &agent) {
          return count_of_list(agent, "/show/object");
      } },
    { "action", WIRE_REG_ACTION, "act-quiet",
      [](const conform_agent &agent) {
          return action_of(agent, "/conform:act/quiet");
      } },
};

class nonsense : public testing::TestWithParam<asked_row_t>
{
protected:
    conform_agent agent{ SHORT_TIMES };
};

TEST_P(nonsense, ends_its_sender_and_what_was_asked)
{
    const asked_row_t &asked = GetParam();
    for (const nonsense_row_t &row : any_nonsense) {
        SCOPED_TRACE(row.name);
        outcome_t outcome;
        {
            raw_daemon daemon(agent);
            daemon.offer(asked.op, asked.point, asked.op == WIRE_REG_ACTION ? 5 : ALL_CALLBACKS);
            daemon.done();
            auto start = clock_type::now();
            auto answer = std::async(std::launch::async, [&] { return asked.ask(agent); });
            EXPECT_TRUE(daemon.serve(row.answer));
            if (row.name == std::string("half_a_frame_and_the_end"))
                (void)shutdown(daemon.worker().fd(), SHUT_RDWR);
            outcome = answer.get();
            EXPECT_LT(clock_type::now() - start, BOUND);
        }
        EXPECT_GT(outcome.error, 0) << "nonsense is no answer";
        EXPECT_FALSE(outcome.text.empty());
        ASSERT_TRUE(agent.is_running()) << agent.log();
        EXPECT_TRUE(agent.has_status("\"open\":0")) << agent.status();
    }
    EXPECT_EQ(commit(agent, { { "/data/host", "box" } }).result, CONFD_OK);
}

std::string name_of_asked(const testing::TestParamInfo<asked_row_t> &info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(from, nonsense, testing::ValuesIn(asked_rows), name_of_asked);

TEST(nonsense_in_inits, a_worker_that_is_not_the_daemons_own_is_refused)
{
    conform_agent agent(SHORT_TIMES);
    raw_daemon other(agent), daemon(agent);
    daemon.offer(WIRE_REG_DATA_CB, "hook-banner", ALL_CALLBACKS);
    daemon.done();
    for (uint32_t worker : { other.worker_id(), 0u, 0xffffffffu }) {
        auto answer = std::async(std::launch::async, [&] { return commit_of(agent, { { "/hook/banner", "hello" } }); });
        EXPECT_TRUE(daemon.serve_init([worker](const frame_t &frame) {
            wire_writer_t payload;
            payload.u32(worker);
            return reply_to(frame, payload.bytes);
        }));
        outcome_t outcome = answer.get();
        EXPECT_EQ(outcome.error, CONFD_ERR_UNAVAILABLE) << outcome.text;
        EXPECT_TRUE(mentions(outcome.text, "worker")) << outcome.text;
    }
}

// ---- answers that are well formed and wrong

struct wrong_row_t {
    const char *name;
    const char *path; // of the list, or of the leaf
    bool is_list;
    std::string (*answer)(const frame_t &frame); // to every callback
};

std::string next_key(const frame_t &frame, int64_t next, std::initializer_list<confd_value_t> keys)
{
    wire_writer_t out;
    out.i64(next);
    out.u8(static_cast<uint8_t>(keys.size()));
    for (const confd_value_t &key : keys)
        wire_put_value(out, key);
    return reply_to(frame, out.bytes);
}

confd_value_t number_of(uint32_t number)
{
    confd_value_t value{};
    CONFD_SET_UINT32(&value, number);
    return value;
}

confd_value_t word_of(const char *word)
{
    confd_value_t value{};
    CONFD_SET_STR(&value, word);
    return value;
}

constexpr wrong_row_t wrong_rows[] = {
    { "a_key_of_another_type", "/show/element", true,
      [](const frame_t &frame) {
          return next_key(frame, 2, { word_of("one") });
      } },
    { "too_many_keys", "/show/element", true,
      [](const frame_t &frame) {
          return next_key(frame, 2, { number_of(1), number_of(2) });
      } },
    { "the_same_key_for_ever", "/show/element", true,
      [](const frame_t &frame) {
          return next_key(frame, 1, { number_of(1) });
      } },
    { "a_leaf_of_another_type", "/show/element{1}/size", false,
      [](const frame_t &frame) {
          return reply_to(frame, value_bytes(word_of("big")));
      } },
    { "a_tag_as_a_value", "/show/element{1}/size", false,
      [](const frame_t &frame) {
          confd_value_t value{};
          CONFD_SET_XMLTAG(&value, 1, 2);
          return reply_to(frame, value_bytes(value));
      } },
    { "an_enumeration_that_is_not_there", "/show/element{1}/name", false,
      [](const frame_t &frame) {
          confd_value_t value{};
          CONFD_SET_ENUM_VALUE(&value, 77);
          return reply_to(frame, value_bytes(value));
      } },
};

TEST(wrong_answers, are_errors_of_the_read_in_bounded_time)
{
    conform_agent agent("callback-timeout-ms = 2000\n");
    for (const wrong_row_t &row : wrong_rows) {
        SCOPED_TRACE(row.name);
        raw_daemon daemon(agent);
        daemon.offer(WIRE_REG_DATA_CB, "show-element", 6); // get_elem and get_next
        daemon.done();
        std::thread serving([&] {
            if (!daemon.serve(row.answer))
                return;
            for (frame_t frame = daemon.worker().read_frame(); frame.status >= 0; frame = daemon.worker().read_frame())
                if (frame.op == WIRE_CB_TRANS_FINISH)
                    daemon.worker().send_bytes(reply_to(frame, ""));
                else if (!daemon.worker().send_bytes(row.answer(frame)))
                    return;
        });
        auto start = clock_type::now();
        outcome_t outcome = row.is_list ? count_of_list(agent, row.path) : read_of(agent, row.path);
        EXPECT_LT(clock_type::now() - start, std::chrono::seconds(30));
        EXPECT_GT(outcome.error, 0);
        EXPECT_FALSE(outcome.text.empty());
        (void)shutdown(daemon.worker().fd(), SHUT_RDWR);
        (void)shutdown(daemon.control().fd(), SHUT_RDWR);
        serving.join();
        ASSERT_TRUE(agent.is_running()) << agent.log();
    }
}

} // namespace
