// Daemons that stall, die or answer with nonsense: what they were asked for ends in bounded time with an error that
// names client and point, and the agent then serves the next daemon as if nothing had been.
#include "tests/component/conformance/outcome.h"

namespace
{

using trouble_t = std::function<void()>; // what the callback does before it answers

// ---- daemons that get into trouble in one kind of callback

data_handlers_t in_element_form(const trouble_t &trouble, bool is_in_list)
{
    data_handlers_t handlers;
    handlers.get_next = [=](confd_trans_ctx *tctx, confd_hkeypath_t *, long next) {
        if (is_in_list)
            trouble();
        confd_value_t key{};
        CONFD_SET_UINT32(&key, 1);
        return next < 0 ? confd_data_reply_next_key(tctx, &key, 1, 2) : confd_data_reply_next_key(tctx, nullptr, 0, -1);
    };
    handlers.get_elem = [=](confd_trans_ctx *tctx, confd_hkeypath_t *kp) {
        if (!is_in_list)
            trouble();
        confd_value_t value{};
        CONFD_SET_STR(&value, "one");
        if (kp->v[0][0].val.xmltag.tag == confd_str2hash("id"))
            CONFD_SET_UINT32(&value, 1);
        return confd_data_reply_value(tctx, &value);
    };
    return handlers;
}

data_handlers_t in_object_form(const trouble_t &trouble)
{
    data_handlers_t handlers;
    handlers.get_object = [=](confd_trans_ctx *tctx, confd_hkeypath_t *) {
        trouble();
        return confd_data_reply_not_found(tctx);
    };
    handlers.get_next_object = [=](confd_trans_ctx *tctx, confd_hkeypath_t *, long) {
        trouble();
        return confd_data_reply_next_object_tag_value_array(tctx, nullptr, 0, -1);
    };
    handlers.find_next_object = [=](confd_trans_ctx *tctx, confd_hkeypath_t *, int, confd_value_t *, int) {
        trouble();
        return confd_data_reply_next_object_tag_value_array(tctx, nullptr, 0, -1);
    };
    return handlers;
}

data_handlers_t in_hook(const trouble_t &trouble, hook_op_t op)
{
    auto calm = [](confd_trans_ctx *, confd_hkeypath_t *) {
        return CONFD_OK;
    };
    auto troubled = [=](confd_trans_ctx *, confd_hkeypath_t *) {
        trouble();
        return CONFD_OK;
    };
    data_handlers_t handlers;
    handlers.create = calm;
    handlers.remove = calm;
    if (op == HOOK_CREATE)
        handlers.create = troubled;
    if (op == HOOK_REMOVE)
        handlers.remove = troubled;
    handlers.set_elem = [=](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) {
        if (op == HOOK_SET)
            trouble();
        return CONFD_OK;
    };
    return handlers;
}

int accept(confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *)
{
    return CONFD_OK;
}

struct fault_row_t {
    const char *name;  // of the test
    const char *point; // named in the error; null: none is known yet
    void (*offer)(test_daemon &daemon, const trouble_t &trouble);
    outcome_t (*ask)(const conform_agent &agent);
};

constexpr fault_row_t fault_rows[] = {
    { "hook_set", "hook-user",
      [](test_daemon &daemon, const trouble_t &trouble) { daemon.data("hook-user", in_hook(trouble, HOOK_SET)); },
      [](const conform_agent &agent) {
          return commit_of(agent, { { "/hook/user{a}/shell", "sh" } });
      } },
    { "hook_create", "hook-user",
      [](test_daemon &daemon, const trouble_t &trouble) { daemon.data("hook-user", in_hook(trouble, HOOK_CREATE)); },
      [](const conform_agent &agent) {
          return commit_of(agent, { { "/hook/user{a}", "+" } });
      } },
    { "hook_remove", "hook-user",
      [](test_daemon &daemon, const trouble_t &trouble) { daemon.data("hook-user", in_hook(trouble, HOOK_REMOVE)); },
      [](const conform_agent &agent) {
          return commit_of(agent, { { "/hook/user{old}", "-" } });
      } },
    { "hook_init", nullptr,
      [](test_daemon &daemon, const trouble_t &trouble) {
          daemon.trans_init = [&daemon, trouble](confd_trans_ctx *tctx) {
              trouble();
              confd_trans_set_fd(tctx, daemon.worker_fd());
              return CONFD_OK;
          };
          daemon.data("hook-user", in_hook([] {}, HOOK_SET));
      },
      [](const conform_agent &agent) {
          return commit_of(agent, { { "/hook/user{a}/shell", "sh" } });
      } },
    { "validation", "val-address",
      [](test_daemon &daemon, const trouble_t &trouble) {
          daemon.validate("val-address", [=](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) {
              trouble();
              return CONFD_OK;
          });
      },
      [](const conform_agent &agent) {
          return commit_of(agent, { { "/valid/address", "10.1.2.3" } });
      } },
    { "validation_init", nullptr,
      [](test_daemon &daemon, const trouble_t &trouble) {
          daemon.validate_init = [&daemon, trouble](confd_trans_ctx *tctx) {
              trouble();
              confd_trans_set_fd(tctx, daemon.worker_fd());
              return maapi_attach(daemon.maapi_fd(), 0, tctx);
          };
          daemon.validate("val-address", accept);
      },
      [](const conform_agent &agent) {
          return commit_of(agent, { { "/valid/address", "10.1.2.3" } });
      } },
    { "get_elem", "show-element",
      [](test_daemon &daemon, const trouble_t &trouble) {
          daemon.data("show-element", in_element_form(trouble, false));
      },
      [](const conform_agent &agent) {
          return read_of(agent, "/show/element{1}/name");
      } },
    { "get_next", "show-element",
      [](test_daemon &daemon, const trouble_t &trouble) {
          daemon.data("show-element", in_element_form(trouble, true));
      },
      [](const conform_agent &agent) {
          return count_of_list(agent, "/show/element");
      } },
    { "get_object", "show-object",
      [](test_daemon &daemon, const trouble_t &trouble) { daemon.data("show-object", in_object_form(trouble)); },
      [](const conform_agent &agent) {
          return exists_of(agent, "/show/object{1 a}");
      } },
    { "get_next_object", "show-object",
      [](test_daemon &daemon, const trouble_t &trouble) { daemon.data("show-object", in_object_form(trouble)); },
      [](const conform_agent &agent) {
          return count_of_list(agent, "/show/object");
      } },
    { "exists_optional", "show-process",
      [](test_daemon &daemon, const trouble_t &trouble) {
          data_handlers_t handlers;
          handlers.exists_optional = [=](confd_trans_ctx *tctx, confd_hkeypath_t *) {
              trouble();
              return confd_data_reply_found(tctx);
          };
          daemon.data("show-process", std::move(handlers));
      },
      [](const conform_agent &agent) {
          return exists_of(agent, "/show/process");
      } },
    { "action", "quiet",
      [](test_daemon &daemon, const trouble_t &trouble) {
          daemon.action("act-quiet", { nullptr,
                                       [=](confd_user_info *, xml_tag *, confd_hkeypath_t *, confd_tag_value_t *, int) {
                                           trouble();
                                           return CONFD_OK;
                                       },
                                       nullptr, nullptr });
      },
      [](const conform_agent &agent) {
          return action_of(agent, "/conform:act/quiet");
      } },
    { "action_init", nullptr,
      [](test_daemon &daemon, const trouble_t &trouble) {
          daemon.choose_worker = [=](const confd_user_info *) {
              trouble();
              return 0;
          };
          daemon.action("act-quiet", { nullptr,
                                       [](confd_user_info *, xml_tag *, confd_hkeypath_t *, confd_tag_value_t *, int) {
                                           return CONFD_OK;
                                       },
                                       nullptr, nullptr });
      },
      [](const conform_agent &agent) {
          return action_of(agent, "/conform:act/quiet");
      } },
    { "command", "dump",
      [](test_daemon &daemon, const trouble_t &trouble) {
          daemon.action("act-dump", { nullptr, nullptr,
                                      [=](confd_user_info *, char *, int, char **) {
                                          trouble();
                                          return CONFD_OK;
                                      },
                                      nullptr });
      },
      [](const conform_agent &agent) {
          return action_of(agent, "/conform:dump");
      } },
    { "completion", "bind",
      [](test_daemon &daemon, const trouble_t &trouble) {
          daemon.action("complete-bind",
                        { nullptr, nullptr, nullptr, [=](confd_user_info *uinfo, char *, int, confd_hkeypath_t *) {
                             trouble();
                             return confd_action_reply_completion(uinfo, nullptr, 0);
                         } });
      },
      [](const conform_agent &agent) {
          return completion_of(agent, "/conform:data/bind");
      } },
};

void PrintTo(const fault_row_t &row, std::ostream *out)
{
    *out << row.name;
}

class faults : public testing::TestWithParam<fault_row_t>
{
protected:
    void SetUp() override
    {
        test_daemon calm(agent); // there has to be something to remove
        calm.data("hook-user", in_hook([] {}, HOOK_SET));
        calm.start();
        ASSERT_EQ(commit(agent, { { "/hook/user{old}", "+" } }).result, CONFD_OK);
    }
    void expect_named(const outcome_t &outcome) const
    {
        EXPECT_EQ(outcome.error, CONFD_ERR_UNAVAILABLE) << outcome.text;
        EXPECT_TRUE(mentions(outcome.text, "component-test")) << "the client: " << outcome.text;
        if (GetParam().point) {
            EXPECT_TRUE(mentions(outcome.text, GetParam().point)) << outcome.text;
        }
    }
    // The next daemon is served, and nothing is left of the one before.
    void expect_recovered()
    {
        EXPECT_TRUE(agent.has_status("\"open\":0")) << agent.status();
        EXPECT_TRUE(agent.has_status("\"data\":0,\"valpoint\":0,\"action\":0")) << agent.status();
        test_daemon next(agent);
        GetParam().offer(next, [] {});
        next.start();
        outcome_t outcome = GetParam().ask(agent);
        EXPECT_EQ(outcome.error, 0) << outcome.text;
        EXPECT_EQ(commit(agent, { { "/data/host", "served" } }).result, CONFD_OK) << "nobody holds a lock";
    }

    conform_agent agent{ SHORT_TIMES };
};

TEST_P(faults, a_daemon_that_stalls_is_given_up)
{
    gate stall;
    {
        test_daemon daemon(agent);
        GetParam().offer(daemon, [&] { stall.pass(); });
        daemon.start();
        auto start = clock_type::now();
        outcome_t outcome = GetParam().ask(agent);
        EXPECT_LT(clock_type::now() - start, BOUND);
        expect_named(outcome);
        EXPECT_EQ(commit(agent, { { "/data/host", "meanwhile" } }).result, CONFD_OK);
        stall.open();
    }
    expect_recovered();
}

TEST_P(faults, a_daemon_that_dies_in_the_middle_is_missed_at_once)
{
    {
        test_daemon daemon(agent);
        GetParam().offer(daemon, [&daemon] { daemon.break_off(); });
        daemon.start();
        outcome_t outcome = GetParam().ask(agent);
        expect_named(outcome);
        EXPECT_TRUE(mentions(outcome.text, "disconnected")) << outcome.text;
    }
    expect_recovered();
}

TEST_P(faults, a_daemon_that_has_gone_before_it_is_asked_is_missed)
{
    {
        test_daemon daemon(agent);
        GetParam().offer(daemon, [] {});
        daemon.start();
        daemon.break_off();
        EXPECT_TRUE(agent.has_status("\"data\":0,\"valpoint\":0,\"action\":0")) << agent.status();
    }
    auto start = clock_type::now();
    outcome_t outcome = GetParam().ask(agent);
    EXPECT_LT(clock_type::now() - start, BOUND);
    EXPECT_TRUE(outcome.error == 0 || outcome.error == CONFD_ERR_UNAVAILABLE) << outcome.text;
    expect_recovered();
}

TEST_P(faults, a_worker_that_dies_while_its_daemon_lives_is_missed)
{
    {
        test_daemon daemon(agent, "conform", 1);
        GetParam().offer(daemon, [&daemon] { daemon.break_worker(0); });
        daemon.start();
        auto start = clock_type::now();
        outcome_t outcome = GetParam().ask(agent);
        EXPECT_LT(clock_type::now() - start, BOUND);
        EXPECT_EQ(outcome.error, CONFD_ERR_UNAVAILABLE) << outcome.text;
        EXPECT_EQ(commit(agent, { { "/data/host", "meanwhile" } }).result, CONFD_OK);
    }
    expect_recovered();
}

std::string name_of(const testing::TestParamInfo<fault_row_t> &info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(in, faults, testing::ValuesIn(fault_rows), name_of);

// ---- a process that is killed

TEST(killed_daemon, is_missed_in_the_middle_of_its_validation)
{
    conform_agent agent("callback-timeout-ms = 60000\n");
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    pid_t pid = fork();
    if (pid == 0) {
        test_daemon daemon(agent, "doomed");
        daemon.validate("val-address", [](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) {
            raise(SIGKILL);
            return CONFD_OK;
        });
        daemon.start();
        (void)!write(ready[1], "x", 1);
        for (;;)
            pause();
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    commit_result_t result = commit(agent, { { "/valid/address", "10.1.2.3" } });
    EXPECT_EQ(result.error, CONFD_ERR_UNAVAILABLE) << result.text;
    EXPECT_TRUE(mentions(result.text, "val-address")) << result.text;
    EXPECT_TRUE(mentions(result.text, std::to_string(pid))) << "whose process it was: " << result.text;
    waitpid(pid, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
    EXPECT_TRUE(agent.has_status("\"open\":0"));
    EXPECT_EQ(commit(agent, { { "/data/host", "box" } }).result, CONFD_OK);
}

TEST(committer, that_dies_in_the_middle_of_a_validation_leaves_nothing_behind)
{
    conform_agent agent;
    test_daemon daemon(agent);
    gate busy;
    daemon.validate("val-address", [&](confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *) {
        busy.pass();
        return CONFD_OK;
    });
    daemon.start();
    {
        raw_user user(agent);
        wire_writer_t begin;
        begin.u8(WIRE_DB_RUNNING);
        begin.u8(1);
        begin.u32(0);
        raw_client::frame_t reply = user.ask(WIRE_MAAPI_START_TRANS, begin.bytes);
        wire_reader_t in(reply.payload);
        uint32_t th = in.u32();
        wire_writer_t edit;
        edit.u32(th);
        edit.text("/valid/address");
        edit.text("10.1.2.3");
        ASSERT_EQ(user.ask(WIRE_MAAPI_SET_TEXT, edit.bytes).status, 0);
        wire_writer_t apply;
        apply.u32(th);
        apply.u8(0);
        user.post(WIRE_MAAPI_APPLY_TRANS, apply.bytes);
        ASSERT_TRUE(busy.wait_for_visitor());
    }
    busy.open();
    EXPECT_TRUE(agent.has_status("\"open\":0")) << agent.status();
    EXPECT_EQ(commit(agent, { { "/data/host", "box" } }).result, CONFD_OK);
    EXPECT_EQ(commit(agent, { { "/valid/address", "10.1.2.4" } }).result, CONFD_OK) << "the daemon is served on";
}

} // namespace
