// Transactions and data callbacks: what a frame makes of a call, and what bytes go back.
#include "agent/client/confd_internal.h"
#include "tests/unit/confd_played_agent.h"

#include <functional>

namespace
{

constexpr uint32_t TH = 3;

// What all callbacks do, and what they were called with.
struct behaviour_t {
    std::function<int(confd_trans_ctx *)> act;
    int worker = -1; // that init sets, -1 for none
    std::vector<std::string> calls;
    std::vector<confd_trans_ctx *> contexts;
};
behaviour_t *behaviour = nullptr;

int noted(confd_trans_ctx *tctx, const std::string &call)
{
    behaviour->calls.push_back(call);
    behaviour->contexts.push_back(tctx);
    return behaviour->act ? behaviour->act(tctx) : CONFD_OK;
}

std::string text_of(const confd_hkeypath_t *kp)
{
    return confd_keypath_text(*kp);
}

std::string text_of(const confd_value_t *value)
{
    return value->type == C_NOEXISTS ? "-" : confd_value_text(nullptr, *value);
}

int on_init(confd_trans_ctx *tctx)
{
    if (behaviour->worker >= 0)
        confd_trans_set_fd(tctx, behaviour->worker);
    return noted(tctx, "init");
}

int on_find_next(confd_trans_ctx *tctx, confd_hkeypath_t *, int type, confd_value_t *keys, int n)
{
    std::string call = "find_next_object " + std::to_string(type);
    for (int i = 0; i < n; i++)
        call += " " + text_of(&keys[i]);
    return noted(tctx, call);
}

confd_data_cbs all_data_callbacks()
{
    confd_data_cbs cbs = {};
    strcpy(cbs.callpoint, "all");
    cbs.exists_optional = [](confd_trans_ctx *t, confd_hkeypath_t *kp) {
        return noted(t, "exists " + text_of(kp));
    };
    cbs.get_elem = [](confd_trans_ctx *t, confd_hkeypath_t *kp) {
        return noted(t, "get_elem " + text_of(kp));
    };
    cbs.get_next = [](confd_trans_ctx *t, confd_hkeypath_t *, long next) {
        return noted(t, "get_next " + std::to_string(next));
    };
    cbs.set_elem = [](confd_trans_ctx *t, confd_hkeypath_t *, confd_value_t *v) {
        return noted(t, "set_elem " + text_of(v));
    };
    cbs.create = [](confd_trans_ctx *t, confd_hkeypath_t *) {
        return noted(t, "create");
    };
    cbs.remove = [](confd_trans_ctx *t, confd_hkeypath_t *) {
        return noted(t, "remove");
    };
    cbs.get_object = [](confd_trans_ctx *t, confd_hkeypath_t *) {
        return noted(t, "get_object");
    };
    cbs.get_next_object = [](confd_trans_ctx *t, confd_hkeypath_t *, long next) {
        return noted(t, "get_next_object " + std::to_string(next));
    };
    cbs.find_next_object = on_find_next;
    cbs.cb_opaque = &behaviour;
    return cbs;
}

class confd_dp : public ::testing::Test
{
protected:
    void SetUp() override
    {
        behaviour = &mine;
        confd_trans_cbs trans = { on_init, [](confd_trans_ctx *t) {
                                     return noted(t, "finish");
                                 } };
        confd_trans_validate_cbs validate = { on_init, [](confd_trans_ctx *t) {
                                                 return noted(t, "stop");
                                             } };
        confd_data_cbs data = all_data_callbacks(), empty = {};
        strcpy(empty.callpoint, "empty");
        confd_valpoint_cb valpoint = {};
        strcpy(valpoint.valpoint, "check");
        valpoint.cb_opaque = &mine;
        valpoint.validate = [](confd_trans_ctx *t, confd_hkeypath_t *kp, confd_value_t *v) {
            return noted(t, "validate " + text_of(kp) + " " + text_of(v));
        };
        confd_daemon_ctx *dx = agent.dx;
        EXPECT_EQ(agent.accept([&] { return confd_register_trans_cb(dx, &trans); }), CONFD_OK);
        EXPECT_EQ(agent.accept([&] { return confd_register_trans_validate_cb(dx, &validate); }), CONFD_OK);
        EXPECT_EQ(agent.accept([&] { return confd_register_data_cb(dx, &data); }), CONFD_OK);
        EXPECT_EQ(agent.accept([&] { return confd_register_data_cb(dx, &empty); }), CONFD_OK);
        EXPECT_EQ(agent.accept([&] { return confd_register_valpoint_cb(dx, &valpoint); }), CONFD_OK);
        EXPECT_EQ(agent.accept([&] { return confd_register_done(dx); }), CONFD_OK);
    }

    void begin() { (void)agent.ask_control(WIRE_CB_TRANS_INIT, init_payload(TH)); }

    behaviour_t mine;
    played_agent agent;
};

// ---- transactions

TEST_F(confd_dp, a_transaction_has_one_context_until_both_its_parties_have_ended)
{
    mine.act = [](confd_trans_ctx *tctx) {
        EXPECT_EQ(tctx->thandle, static_cast<int>(TH));
        EXPECT_EQ(tctx->dbname, CONFD_CANDIDATE);
        EXPECT_STREQ(tctx->uinfo->username, "admin");
        EXPECT_STREQ(tctx->uinfo->context, "cli");
        EXPECT_STREQ(tctx->uinfo->src_addr, "10.1.1.1");
        EXPECT_EQ(tctx->uinfo->usid, 12);
        tctx->t_opaque = static_cast<char *>(tctx->t_opaque) + 1;
        return CONFD_OK;
    };
    EXPECT_EQ(agent.ask_control(WIRE_CB_VALIDATE_INIT, init_payload(TH, WIRE_DB_CANDIDATE)).payload,
              number_payload(PLAYED_WORKER_ID));
    EXPECT_EQ(agent.ask_control(WIRE_CB_TRANS_INIT, init_payload(TH, WIRE_DB_CANDIDATE)).header.status, 0);
    (void)agent.ask_worker(WIRE_CB_CREATE, point_payload(TH, "all").bytes);
    (void)agent.ask_worker(WIRE_CB_VALIDATE_STOP, number_payload(TH));
    EXPECT_EQ(agent.ask_worker(WIRE_CB_REMOVE, point_payload(TH, "all").bytes).header.status, 0);
    (void)agent.ask_worker(WIRE_CB_TRANS_FINISH, number_payload(TH));
    EXPECT_EQ(mine.calls, (std::vector<std::string>{ "init", "init", "create", "stop", "remove", "finish" }));
    for (confd_trans_ctx *context : mine.contexts)
        EXPECT_EQ(context, mine.contexts.front());

    int result = CONFD_OK;
    fake_request_t answer = agent.ask_worker(WIRE_CB_CREATE, point_payload(TH, "all").bytes, &result);
    EXPECT_EQ(answer.header.status, CONFD_ERR_BADSTATE);
    EXPECT_EQ(result, CONFD_ERR);
    EXPECT_EQ(agent.ask_worker(WIRE_CB_TRANS_FINISH, number_payload(TH)).header.status, 0); // no news
    EXPECT_EQ(mine.calls.size(), 6u);
}

TEST_F(confd_dp, a_failed_init_refuses_with_the_users_words_and_begins_nothing)
{
    mine.act = [](confd_trans_ctx *tctx) {
        confd_trans_seterr(tctx, "not %s", "today");
        return CONFD_ERR;
    };
    int result = CONFD_OK;
    fake_request_t answer = agent.ask_control(WIRE_CB_TRANS_INIT, init_payload(TH), &result);
    EXPECT_EQ(answer.header.status, CONFD_ERR_EXTERNAL);
    EXPECT_EQ(refusal_text(answer), "not today");
    EXPECT_EQ(result, CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_EXTERNAL);
    EXPECT_STREQ(confd_lasterr(), "not today");
    EXPECT_EQ(agent.ask_worker(WIRE_CB_CREATE, point_payload(TH, "all").bytes).header.status, CONFD_ERR_BADSTATE);
}

TEST(confd_dp_workers, init_chooses_among_them_and_one_alone_needs_no_choice)
{
    behaviour_t mine;
    behaviour = &mine;
    confd_trans_cbs trans = { on_init, nullptr };
    played_agent two(2);
    ASSERT_EQ(two.accept([&] { return confd_register_trans_cb(two.dx, &trans); }), CONFD_OK);
    EXPECT_EQ(two.ask_control(WIRE_CB_TRANS_INIT, init_payload(1)).header.status, CONFD_ERR_UNAVAILABLE);
    mine.worker = two.worker_fd(1);
    EXPECT_EQ(two.ask_control(WIRE_CB_TRANS_INIT, init_payload(1)).payload, number_payload(PLAYED_WORKER_ID + 1));
    mine.worker = two.control_fd(); // which is none
    EXPECT_EQ(two.ask_control(WIRE_CB_TRANS_INIT, init_payload(2)).header.status, CONFD_ERR_UNAVAILABLE);

    played_agent one; // without an init callback
    EXPECT_EQ(one.ask_control(WIRE_CB_TRANS_INIT, init_payload(1)).payload, number_payload(PLAYED_WORKER_ID));
}

// ---- validation

TEST_F(confd_dp, anything_but_ok_of_a_validator_refuses)
{
    (void)agent.ask_control(WIRE_CB_VALIDATE_INIT, init_payload(TH));
    confd_value_t deleted = {};
    deleted.type = C_NOEXISTS;
    wire_writer_t changed = point_payload(TH, "check"), gone = point_payload(TH, "check");
    wire_put_value(changed, text_value("new"));
    wire_put_value(gone, deleted);
    struct {
        int result;
        const char *text; // null: none set
        int status;
    } rows[] = { { CONFD_OK, nullptr, 0 },
                 { CONFD_ERR, "must not", CONFD_ERR_EXTERNAL },
                 { 2, nullptr, CONFD_ERR_EXTERNAL },
                 { CONFD_OK, "ignored", 0 } };
    for (const auto &row : rows) {
        mine.act = [&](confd_trans_ctx *tctx) {
            EXPECT_EQ(tctx->cb_opaque, &mine);
            EXPECT_EQ(tctx->worker_fd, agent.worker_fd());
            if (row.text != nullptr)
                confd_trans_seterr(tctx, "%s", row.text);
            return row.result;
        };
        int result = 0;
        fake_request_t answer = agent.ask_worker(WIRE_CB_VALIDATE, changed.bytes, &result);
        EXPECT_EQ(answer.header.status, row.status) << row.result;
        EXPECT_EQ(result, row.status != 0 ? CONFD_ERR : CONFD_OK);
        if (row.status != 0) {
            EXPECT_EQ(refusal_text(answer), row.text != nullptr ? row.text : "");
        }
    }
    mine.act = nullptr;
    EXPECT_EQ(agent.ask_worker(WIRE_CB_VALIDATE, gone.bytes).header.status, 0);
    EXPECT_EQ(mine.calls[1], "validate " + text_of(std::make_unique<confd_hkeypath_t>(entry_path()).get()) + " new");
    EXPECT_TRUE(mine.calls.back().ends_with(" -"));

    wire_writer_t unknown = point_payload(TH, "chek");
    wire_put_value(unknown, deleted);
    EXPECT_NE(refusal_text(agent.ask_worker(WIRE_CB_VALIDATE, unknown.bytes)).find("\"chek\""), std::string::npos);
}

// ---- data

confd_tag_value_t leaf(uint32_t tag, uint32_t number)
{
    confd_tag_value_t value = {};
    CONFD_SET_TAG_UINT32(&value, tag, number);
    return value;
}

std::string objects(uint32_t timeout, uint8_t at_end, std::initializer_list<std::pair<int64_t, uint32_t>> entries)
{
    wire_writer_t out;
    out.u32(timeout);
    out.u8(at_end);
    out.u32(static_cast<uint32_t>(entries.size()));
    for (const auto &[next, number] : entries) {
        confd_tag_value_t value = leaf(1, number);
        out.i64(next);
        wire_put_tag_values(out, &value, 1);
    }
    return out.bytes;
}

std::string written(const std::function<void(wire_writer_t &)> &write)
{
    wire_writer_t out;
    write(out);
    return out.bytes;
}

struct answer_row_t {
    wire_op_t op;
    std::string more; // behind the keypath
    std::function<int(confd_trans_ctx *)> reply;
    std::string expected;
};

std::vector<answer_row_t> answer_rows()
{
    static confd_value_t seven = number_value(7);
    static confd_tag_value_t five = leaf(1, 5), six = leaf(1, 6);
    static confd_tag_next_object page[] = { { &five, 1, 2 }, { &six, 1, -1 }, { nullptr, 0, -1 } };
    static auto none = [](confd_trans_ctx *) {
        return CONFD_OK;
    };
    static auto not_found = [](confd_trans_ctx *t) {
        return confd_data_reply_not_found(t);
    };
    std::string first = written([](wire_writer_t &out) { out.i64(-1); });
    std::string find = written([](wire_writer_t &out) { out.u16(0); });
    std::string value = written([](wire_writer_t &out) { wire_put_value(out, seven); });
    std::string no_key = written([](wire_writer_t &out) {
        out.i64(-1);
        out.u8(0);
    });
    std::string key = written([](wire_writer_t &out) {
        out.i64(4);
        out.u8(1);
        wire_put_value(out, seven);
    });
    const std::string yes(1, 1), no(1, 0), missing(1, C_NOEXISTS), end = objects(0, 1, {});
    return {
        { WIRE_CB_EXISTS, "", not_found, no },
        { WIRE_CB_EXISTS, "", [](confd_trans_ctx *t) { return confd_data_reply_found(t); }, yes },
        { WIRE_CB_GET_ELEM, "", not_found, missing },
        { WIRE_CB_GET_ELEM, "", [](confd_trans_ctx *t) { return confd_data_reply_value(t, &seven); }, value },
        { WIRE_CB_GET_NEXT, first, [](confd_trans_ctx *t) { return confd_data_reply_next_key(t, nullptr, 0, 4); },
          no_key },
        { WIRE_CB_GET_NEXT, first, [](confd_trans_ctx *t) { return confd_data_reply_next_key(t, &seven, 1, 4); }, key },
        { WIRE_CB_SET_ELEM, value, none, "" },
        { WIRE_CB_CREATE, "", none, "" },
        { WIRE_CB_REMOVE, "", none, "" },
        { WIRE_CB_GET_OBJECT, "", not_found, end },
        { WIRE_CB_GET_OBJECT, "", [](confd_trans_ctx *t) { return confd_data_reply_tag_value_array(t, &five, 1); },
          objects(0, 1, { { -1, 5 } }) },
        { WIRE_CB_GET_NEXT_OBJECT, first,
          [](confd_trans_ctx *t) { return confd_data_reply_next_object_tag_value_array(t, nullptr, 0, -1); }, end },
        { WIRE_CB_GET_NEXT_OBJECT, first,
          [](confd_trans_ctx *t) { return confd_data_reply_next_object_tag_value_array(t, &five, 1, 3); },
          objects(0, 0, { { 3, 5 } }) },
        { WIRE_CB_FIND_NEXT_OBJECT, find,
          [](confd_trans_ctx *t) { return confd_data_reply_next_object_tag_value_arrays(t, nullptr, -1, -1); }, end },
        { WIRE_CB_FIND_NEXT_OBJECT, find,
          [](confd_trans_ctx *t) { return confd_data_reply_next_object_tag_value_arrays(t, page, 2, 5000); },
          objects(5000, 0, { { 2, 5 }, { -1, 6 } }) },
        { WIRE_CB_FIND_NEXT_OBJECT, find,
          [](confd_trans_ctx *t) { return confd_data_reply_next_object_tag_value_arrays(t, page, 3, 0); },
          objects(0, 1, { { 2, 5 }, { -1, 6 } }) },
    };
}

TEST_F(confd_dp, each_answer_goes_out_as_its_operation_has_it)
{
    begin();
    int number = 0;
    for (const answer_row_t &row : answer_rows()) {
        mine.act = [&](confd_trans_ctx *tctx) {
            EXPECT_EQ(tctx->cb_opaque, &behaviour);
            return row.reply(tctx);
        };
        int result = CONFD_ERR;
        std::string payload = point_payload(TH, "all").bytes + row.more;
        fake_request_t answer = agent.ask_worker(row.op, payload, &result);
        EXPECT_EQ(answer.header.status, 0) << "row " << number;
        EXPECT_EQ(answer.payload, row.expected) << "row " << number;
        EXPECT_EQ(result, CONFD_OK);
        number++;
    }
}

TEST_F(confd_dp, a_read_without_an_answer_and_a_write_with_any_result_but_ok_fail)
{
    begin();
    struct row_t {
        wire_op_t op;
        std::string more;
        int result;
        const char *text;
    };
    const row_t rows[] = {
        { WIRE_CB_EXISTS, "", CONFD_OK, "exists_optional of callpoint \"all\" gave no answer" },
        { WIRE_CB_GET_NEXT_OBJECT, written([](wire_writer_t &out) { out.i64(-1); }), 15,
          "get_next_object of callpoint \"all\" gave no answer" },
        { WIRE_CB_REMOVE, "", 1, "" },
        { WIRE_CB_CREATE, "", CONFD_ERR, "" },
    };
    for (const row_t &row : rows) {
        mine.act = [&](confd_trans_ctx *) {
            return row.result;
        };
        int result = CONFD_OK;
        fake_request_t answer = agent.ask_worker(row.op, point_payload(TH, "all").bytes + row.more, &result);
        wire_reader_t in(answer.payload);
        EXPECT_EQ(answer.header.status, CONFD_ERR_EXTERNAL);
        EXPECT_EQ(in.text(), row.text);
        EXPECT_EQ(result, CONFD_ERR);
    }
}

TEST_F(confd_dp, callbacks_get_what_the_frame_says)
{
    begin();
    auto ask = [&](wire_op_t op, const std::function<void(wire_writer_t &)> &more) {
        wire_writer_t payload = point_payload(TH, "all");
        more(payload);
        (void)agent.ask_worker(op, payload.bytes); // the callback gives no answer
        return mine.calls.back();
    };
    EXPECT_EQ(ask(WIRE_CB_GET_NEXT, [](wire_writer_t &out) { out.i64(1ll << 40); }), "get_next 1099511627776");
    EXPECT_EQ(ask(WIRE_CB_GET_NEXT_OBJECT, [](wire_writer_t &out) { out.i64(-1); }), "get_next_object -1");
    EXPECT_EQ(ask(WIRE_CB_SET_ELEM, [](wire_writer_t &out) { wire_put_value(out, text_value("x y")); }),
              "set_elem x y");
    EXPECT_EQ(ask(WIRE_CB_FIND_NEXT_OBJECT,
                  [](wire_writer_t &out) {
                      out.u8(WIRE_FIND_SAME_OR_NEXT);
                      out.u8(2);
                      wire_put_value(out, number_value(1));
                      wire_put_value(out, text_value("b"));
                  }),
              "find_next_object 1 1 b");
}

TEST_F(confd_dp, one_answer_of_the_kind_asked_for_is_taken_and_no_other)
{
    begin();
    confd_tag_value_t value = leaf(1, 5);
    confd_value_t number = number_value(5);
    confd_trans_ctx *left = nullptr;
    mine.act = [&](confd_trans_ctx *tctx) {
        left = tctx;
        EXPECT_EQ(confd_data_reply_found(tctx), CONFD_ERR);
        EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
        EXPECT_EQ(confd_data_reply_tag_value_array(tctx, &value, 1), CONFD_ERR);
        EXPECT_EQ(confd_data_reply_next_key(tctx, &number, 1, 0), CONFD_ERR);
        EXPECT_EQ(confd_data_reply_next_object_tag_value_array(tctx, &value, 1, 0), CONFD_ERR);
        EXPECT_EQ(confd_data_reply_value(tctx, nullptr), CONFD_ERR);
        EXPECT_EQ(confd_data_reply_value(tctx, &number), CONFD_OK);
        EXPECT_EQ(confd_data_reply_value(tctx, &number), CONFD_ERR);
        EXPECT_EQ(confd_data_reply_not_found(tctx), CONFD_ERR);
        return CONFD_OK;
    };
    EXPECT_EQ(agent.ask_worker(WIRE_CB_GET_ELEM, point_payload(TH, "all").bytes).payload,
              written([&](wire_writer_t &out) { wire_put_value(out, number); }));
    EXPECT_EQ(confd_data_reply_value(left, &number), CONFD_ERR); // no callback is running

    mine.act = [&](confd_trans_ctx *tctx) {
        EXPECT_EQ(confd_data_reply_tag_value_array(tctx, &value, -1), CONFD_ERR);
        EXPECT_EQ(confd_data_reply_tag_value_array(tctx, nullptr, 1), CONFD_ERR);
        EXPECT_EQ(confd_data_reply_tag_value_array(tctx, &value, 1), CONFD_OK);
        confd_trans_seterr(tctx, "after all");
        return CONFD_ERR;
    };
    EXPECT_EQ(refusal_text(agent.ask_worker(WIRE_CB_GET_OBJECT, point_payload(TH, "all").bytes)), "after all");
}

TEST_F(confd_dp, what_is_not_set_knows_nothing_and_writes_nothing)
{
    begin();
    EXPECT_EQ(agent.ask_worker(WIRE_CB_GET_ELEM, point_payload(TH, "empty").bytes).payload, std::string(1, C_NOEXISTS));
    std::string text = refusal_text(agent.ask_worker(WIRE_CB_CREATE, point_payload(TH, "empty").bytes));
    EXPECT_EQ(text, "the daemon has no create of callpoint \"empty\"");
    EXPECT_EQ(agent.ask_worker(WIRE_CB_GET_ELEM, point_payload(TH, "other").bytes).header.status,
              CONFD_ERR_UNAVAILABLE);
}

// ---- connections

TEST_F(confd_dp, a_callback_that_comes_before_the_reply_to_a_registration_is_served_with_it)
{
    std::string callback = wire_frame(WIRE_CB_TRANS_INIT, 0, 99, init_payload(TH));
    confd_data_cbs late = {};
    strcpy(late.callpoint, "late");
    EXPECT_EQ(agent.accept([&] { return confd_register_data_cb(agent.dx, &late); }, callback), CONFD_OK);
    EXPECT_EQ(mine.calls, std::vector<std::string>{ "init" });
    fake_request_t answer = agent.control->read();
    EXPECT_EQ(answer.header.op, WIRE_CB_TRANS_INIT | WIRE_REPLY);
    EXPECT_EQ(answer.header.id, 99u);
}

TEST_F(confd_dp, a_frame_that_cannot_be_read_ends_its_connection)
{
    begin();
    wire_writer_t find = point_payload(TH, "all"), validate = point_payload(TH, "check");
    find.u8(WIRE_FIND_NEXT);
    find.u8(1);
    wire_put_value(find, text_value("key"));
    wire_put_value(validate, text_value("value"));
    const std::pair<wire_op_t, std::string> frames[] = { { WIRE_CB_FIND_NEXT_OBJECT, find.bytes },
                                                         { WIRE_CB_VALIDATE, validate.bytes },
                                                         { WIRE_CB_TRANS_FINISH, number_payload(TH) + "x" },
                                                         { WIRE_CB_TRANS_INIT, init_payload(TH) + "x" },
                                                         { WIRE_NOTIFY_SEND, "xx" } };
    for (const auto &[op, whole] : frames)
        for (size_t size = 0; size < whole.size(); size++) {
            if (op == WIRE_CB_TRANS_FINISH && size == sizeof(uint32_t))
                continue; // a good one
            int ends[2];
            ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
            confd_io_adopt(ends[0], WIRE_KIND_WORKER);
            fake_peer peer(ends[1]);
            peer.send(wire_frame(op, 0, 1, whole.substr(0, size)));
            EXPECT_EQ(confd_fd_ready(agent.dx, ends[0]), CONFD_ERR) << op << " cut at " << size;
            EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
            EXPECT_EQ(peer.read().header.op, 0);
            EXPECT_EQ(confd_fd_ready(agent.dx, ends[0]), CONFD_EOF);
            confd_io_forget(ends[0]);
            close(ends[0]);
        }
    EXPECT_EQ(mine.calls.size(), 1u);
}

TEST_F(confd_dp, an_agent_that_dies_in_a_callback_is_at_its_end_everywhere)
{
    begin();
    mine.act = [&](confd_trans_ctx *) {
        agent.workers[0].reset();
        return CONFD_OK;
    };
    agent.workers[0]->send(wire_frame(WIRE_CB_CREATE, 0, 1, point_payload(TH, "all").bytes));
    (void)confd_fd_ready(agent.dx, agent.worker_fd()); // what is sent may be lost in silence
    EXPECT_EQ(confd_fd_ready(agent.dx, agent.worker_fd()), CONFD_EOF);
    agent.control.reset();
    EXPECT_EQ(confd_fd_ready(agent.dx, agent.control_fd()), CONFD_EOF);
    EXPECT_EQ(confd_register_done(agent.dx), CONFD_EOF);
}

TEST_F(confd_dp, a_context_may_be_released_in_its_own_callback)
{
    begin();
    mine.act = [&](confd_trans_ctx *) {
        confd_release_daemon(agent.dx);
        return CONFD_OK;
    };
    agent.workers[0]->send(wire_frame(WIRE_CB_CREATE, 0, 1, point_payload(TH, "all").bytes));
    EXPECT_EQ(confd_fd_ready(agent.dx, agent.worker_fd()), CONFD_EOF);
    agent.dx = nullptr;
}

} // namespace
