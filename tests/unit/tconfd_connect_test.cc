// The connection: its steps in order, what a failure of each leads to, and how rows are subscribed.
#include "common/event_handle.h"
#include "tests/harness/death.h"
#include "tests/unit/tconfd_env.h"

#include <fcntl.h>

namespace
{

using names_t = std::vector<std::string>;

int data_cbs_result;
int post_inits;
int notifications;

// A daemon's side: rows, one action, one validation point, agent events; loop and timers of its own.
class tconfd_connection : public tconfd_env
{
protected:
    tconfd_connection()
    {
        snprintf(actions[0].actionpoint, sizeof actions[0].actionpoint, "an-action");
        snprintf(valpoints[0].valpoint, sizeof valpoints[0].valpoint, "a-point");
        reg.app_ctx = this;
        reg.valpoints = valpoints;
        reg.actions = actions;
        reg.notif_reg = &notif_reg;
        notif_reg = { 8, 250, [](tconfd_ctx *, confd_notification *) {
                         notifications++;
                     } };
        reg.register_data_cbs = [](tconfd_ctx *) {
            return data_cbs_result;
        };
        reg.post_init_cb = [](tconfd_ctx *) {
            post_inits++;
        };
        reg.event_base = base.get();
        timer_clock_set([](timespec *time) { *time = { fake_seconds, 0 }; });
        timers = timer_mgr_create(TIMER_RES_1SEC, nullptr, nullptr, nullptr, TIMER_MASK_ALL);
        reg.timer_mgr = timers;
        reg.module_id = 5;
        data_cbs_result = post_inits = notifications = 0;
    }
    ~tconfd_connection() override
    {
        tconfd_module_free(module);
        timer_clock_set(nullptr);
        timer_mgr_delete(timers);
    }

    int connect()
    {
        reg.subs = rows.data();
        return tconfd_module_init(&reg, nullptr, &module);
    }
    bool run_until(const std::function<bool()> &done)
    {
        for (int i = 0; i < 2000 && !done(); i++) {
            event_base_loop(base.get(), EVLOOP_NONBLOCK);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return done();
    }
    void pass_seconds(int seconds)
    {
        for (; seconds > 0; seconds--) {
            fake_seconds++;
            timer_run(timers, TIMER_MASK_ALL, 1000);
        }
    }
    bool has_read() const
    {
        return __atomic_load_n(&module->initial_read_done, __ATOMIC_ACQUIRE) == 1 &&
               __atomic_load_n(&module->live_threads, __ATOMIC_ACQUIRE) == 0;
    }
    bool is_subscribed() const
    {
        return module->subscr_event != nullptr && event_pending(module->subscr_event, EV_READ, nullptr);
    }

    static inline time_t fake_seconds = 1000;
    event_base_ptr base{ event_base_new() };
    timer_mgr_t *timers;
    confd_action_cbs actions[2]{};
    confd_valpoint_cb valpoints[2]{};
    tconfd_notif_reg notif_reg;
    tconfd_registration reg{};
    tconfd_ctx *module = nullptr;
};

TEST_F(tconfd_connection, its_steps_have_one_order)
{
    rows.push_back({});
    EXPECT_EQ(connect(), TCONFD_OK);
    EXPECT_EQ(agent().calls,
              (names_t{ "confd_init_vsn_sz cfgmgr 0 0x6030100 20 9", "confd_init_daemon cfgmgr",
                        "confd_connect 0 127.0.0.1:4565", "confd_connect_worker 1 127.0.0.1:4565",
                        "cdb_connect 2 127.0.0.1:4565", "maapi_connect 0 127.0.0.1:4565", "interval 250",
                        "confd_notifications_connect2 8 127.0.0.1:4565", "confd_register_trans_validate_cb",
                        "confd_register_trans_cb", "confd_register_action_cbs an-action init",
                        "confd_register_valpoint_cb a-point", "confd_register_notification_stream corvane",
                        "confd_register_snmp_notification corvane_snmpv2_trap ''", "confd_register_done" }));
    EXPECT_EQ(post_inits, 1);
    EXPECT_STREQ(getenv("CONFD_IPC_ACCESS_FILE"), "/etc/confd/confd_ipc_secret");
    EXPECT_STREQ(getenv("NCS_IPC_ACCESS_FILE"), "/etc/confd/confd_ipc_secret");
    EXPECT_EQ(module->retry_timer, nullptr);
    for (int fd : { module->ctrl_fd, module->work_fd, module->data_fd, module->maapi_fd, module->pipe_fd[0],
                    module->pipe_fd[1] })
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
}

struct step_case_t {
    const char *function;
    const char *text; // null: silent
};
constexpr step_case_t steps[] = {
    { "confd_init_daemon", "Failed to initialize confdlib (cfgmgr)" },
    { "confd_connect", nullptr },
    { "confd_connect_worker", "Failed to connect worker socket to confd (cfgmgr - -1)" },
    { "cdb_connect", "Failed to connect data socket to confd (cfgmgr - -1)" },
    { "maapi_connect", "Failed to do maapi_connect (cfgmgr - -1)" },
    { "confd_notifications_connect2", "Failed to connect to confd notifications(cfgmgr - -1)" },
    { "confd_register_trans_validate_cb", "" },
    { "confd_register_trans_cb", "" },
    { "confd_register_action_cbs", "Failed to register an-action action call back (cfgmgr - -1)" },
    { "confd_register_valpoint_cb", "Failed to register a-point validation call back (cfgmgr - -1)" },
    { "", "Failed to register data call backs" },
    { "confd_register_notification_stream", "" },
    { "confd_register_snmp_notification", "" },
    { "confd_register_done", "" },
};

TEST_F(tconfd_connection, a_step_that_fails_takes_all_down_and_is_tried_again_after_two_seconds)
{
    rows.push_back({});
    for (const step_case_t &step : steps) {
        SCOPED_TRACE(step.function);
        fake_agent_reset();
        log_clear();
        tconfd_debug_disable();
        agent().results[step.function] = CONFD_ERR;
        data_cbs_result = step.function[0] == '\0' ? 1 : 0;
        post_inits = 0;
        ASSERT_EQ(connect(), TCONFD_RETRY);
        EXPECT_EQ(log_count(""), step.text == nullptr ? 0 : 1);
        EXPECT_TRUE(step.text == nullptr || log_has(step.text));
        EXPECT_EQ(agent().open_connections(), 0);
        EXPECT_EQ(module->daemon_ctx, nullptr);
        EXPECT_EQ(agent().count("confd_release_daemon"), strcmp(step.function, "confd_init_daemon") != 0);
        ASSERT_NE(module->retry_timer, nullptr);
        timer_util_t *timer = module->retry_timer;
        EXPECT_EQ(timer_interval_ms(timer), 2000);
        pass_seconds(2);
        EXPECT_EQ(module->retry_timer, timer) << "one timer, as long as it fails";
        EXPECT_EQ(agent().count("confd_init_daemon"), 2);
        EXPECT_EQ(post_inits, 0);
        agent().results.clear();
        data_cbs_result = 0;
        pass_seconds(2);
        EXPECT_EQ(module->retry_timer, nullptr);
        EXPECT_EQ(agent().count("confd_init_vsn_sz"), 1);
        EXPECT_EQ(post_inits, 1);
        pass_seconds(5);
        EXPECT_EQ(agent().count("confd_init_daemon"), 3);
        tconfd_module_free(module);
        module = nullptr;
    }
}

TEST_F(tconfd_connection, without_agent_events_there_is_no_socket_for_them)
{
    rows.push_back({});
    reg.notif_reg = nullptr;
    EXPECT_EQ(connect(), TCONFD_OK);
    EXPECT_EQ(agent().count("confd_notifications_connect2"), 0);
    EXPECT_EQ(module->notif_fd, 0);
    EXPECT_EQ(module->notif_event, nullptr);
    int input = fcntl(0, F_GETFD);
    tconfd_module_free(module);
    module = nullptr;
    EXPECT_EQ(fcntl(0, F_GETFD), input) << "the 0 that stands for unused is nobody's to close";
}

TEST_F(tconfd_connection, rows_are_subscribed_by_kind_after_phase_1_and_their_points_come_to_the_loop)
{
    lay_out(
        { { "a", 1, 0x23, 0 }, { "b", 1, 6, TCONFD_SUB_OPER }, { "c", 0, 4, TCONFD_SUB_TWO_PHASE }, { "d", 0, 5, 0 } });
    for (tconfd_sub &row : rows) {
        row.ctx = nullptr;
        row.add_subid = row.del_subid = 0;
    }
    agent().next_point = 11;
    set_read_bits(0);
    bool seen_early = false;
    agent().on_wait_start = [&] {
        seen_early = rows[0].add_subid != 0;
    };
    EXPECT_EQ(connect(), TCONFD_OK);
    ASSERT_TRUE(run_until([&] { return is_subscribed(); }));
    EXPECT_FALSE(seen_early);
    auto first = std::find(agent().calls.begin(), agent().calls.end(), "confd_load_schemas");
    EXPECT_EQ(names_t(first, std::find(agent().calls.begin(), agent().calls.end(), "cdb_subscribe_done") + 1),
              (names_t{ "confd_load_schemas", "maapi_connect 0 127.0.0.1:4565", "cdb_connect 2 127.0.0.1:4565",
                        "cdb_wait_start", "maapi_install_crypto_keys", "cdb_connect_sub 1 127.0.0.1:4565",
                        "cdb_oper_subscribe tconfd-initial-read-priority", "cdb_subscribe 3 a", "cdb_subscribe 2 a",
                        "cdb_oper_subscribe b", "cdb_subscribe2 2 0 4 c", "cdb_subscribe 5 d", "cdb_subscribe_done" }));
    EXPECT_EQ(module->initial_read_subid, 11u);
    const std::pair<uint32_t, uint32_t> ids[] = { { 12, 13 }, { 14, 0 }, { 15, 0 }, { 16, 0 } };
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(std::make_pair(rows[i].add_subid, rows[i].del_subid), ids[i]) << i;
        EXPECT_EQ(rows[i].ctx, module);
    }
}

TEST_F(tconfd_connection, the_last_to_subscribe_reads_at_once_and_never_again_after_a_reconnect)
{
    lay_out({ { "a", 1, 3, 0 } });
    set_read_bits(1);
    EXPECT_EQ(connect(), TCONFD_OK);
    ASSERT_TRUE(run_until([&] { return has_read(); }));
    EXPECT_EQ(agent().count("cdb_trigger_subscriptions"), 1);
    tconfd_retry_connect(module);
    EXPECT_EQ(agent().open_connections(), 0);
    pass_seconds(2);
    ASSERT_TRUE(run_until([&] { return is_subscribed(); }));
    EXPECT_EQ(agent().count("cdb_subscribe_done"), 2);
    EXPECT_EQ(agent().count("cdb_trigger_subscriptions"), 1);
}

constexpr step_case_t thread_steps[] = {
    { "confd_load_schemas", "Failed to load schemas from confd" },
    { "cdb_wait_start", "CDB Wait start failed (cfgmgr - -1) scripted (18) : as scripted" },
    { "maapi_install_crypto_keys", "Failed to load crypto keys ( -1) - scripted, 18, as scripted" },
    { "cdb_connect_sub", "Failed to connect subscription socket to confd ( -1)" },
    { "cdb_oper_subscribe",
      "Failed to subscribe to tconfd-initial-read-priority (cfgmgr - -1) scripted (18) : as scripted" },
    { "cdb_subscribe", "Failed to subscribe to a (cfgmgr - -1)scripted (18) : as scripted" },
    { "cdb_subscribe_done", "cdb_subscribe_done() failed (cfgmgr - -1)scripted (18) : as scripted" },
};

TEST_F(tconfd_connection, a_registration_that_fails_in_its_thread_has_the_loop_reconnect)
{
    lay_out({ { "a", 1, 0x23, 0 } });
    for (const step_case_t &step : thread_steps) {
        SCOPED_TRACE(step.function);
        fake_agent_reset();
        log_clear();
        set_read_bits(0);
        agent().results[step.function] = CONFD_ERR;
        ASSERT_EQ(connect(), TCONFD_OK);
        EXPECT_TRUE(run_until([&] { return module->retry_timer != nullptr; }));
        EXPECT_TRUE(log_has(step.text));
        EXPECT_EQ(agent().open_connections(), 0);
        agent().results.clear();
        pass_seconds(2);
        EXPECT_TRUE(run_until([&] { return is_subscribed(); }));
        tconfd_module_free(module);
        module = nullptr;
    }
}

TEST_F(tconfd_connection, a_registration_left_behind_ends_by_itself)
{
    lay_out({ { "a", 1, 0x23, 0 } });
    std::mutex gate;
    gate.lock();
    std::atomic<bool> passed = false;
    agent().on_wait_start = [&] {
        if (!passed)
            std::lock_guard through(gate);
        passed = true;
    };
    set_read_bits(0);
    ASSERT_EQ(connect(), TCONFD_OK);
    ASSERT_TRUE(run_until([&] { return agent().count("cdb_wait_start") == 1; }));
    tconfd_module_free(module);
    module = nullptr;
    gate.unlock();
    ASSERT_TRUE(run_until([&] { return agent().open_connections() == 0; }));
    EXPECT_EQ(rows[0].add_subid, 2u) << "rows are the loop's alone";
}

TEST_F(tconfd_connection, an_agent_that_closes_any_socket_is_connected_to_again)
{
    lay_out({ { "a", 1, 3, 0 } });
    set_read_bits(0);
    const std::pair<int32_t tconfd_ctx::*, const char *> sockets[] = {
        { &tconfd_ctx::ctrl_fd, "Control socket closed" },
        { &tconfd_ctx::work_fd, "Worker socket closed" },
        { &tconfd_ctx::notif_fd, "Notification socket closed" },
        { &tconfd_ctx::subscr_fd, "Subscription socket closed" },
    };
    ASSERT_EQ(connect(), TCONFD_OK);
    for (auto [fd, text] : sockets) {
        SCOPED_TRACE(text);
        ASSERT_TRUE(run_until([&] { return is_subscribed(); }));
        int peer = agent().peers[module->*fd];
        agent().results["cdb_read_subscription_socket2"] = CONFD_EOF;
        shutdown(peer, SHUT_RDWR);
        ASSERT_TRUE(run_until([&] { return module->retry_timer != nullptr; }));
        EXPECT_TRUE(log_has(text));
        EXPECT_EQ(module->*fd, -1);
        EXPECT_EQ(agent().open_connections(), 0);
        pass_seconds(2);
        EXPECT_EQ(module->retry_timer, nullptr);
    }
    EXPECT_EQ(notifications, 1) << "the callback is called after a close as well";
}

TEST_F(tconfd_connection, an_error_on_a_socket_is_logged_unless_the_agent_was_told)
{
    rows.push_back({});
    ASSERT_EQ(connect(), TCONFD_OK);
    agent().results = { { "confd_fd_ready", CONFD_ERR }, { "confd_read_notification", CONFD_ERR } };
    for (int error : { CONFD_ERR_EXTERNAL, CONFD_ERR_INTERNAL }) {
        log_clear();
        agent().error = error;
        for (int fd : { module->ctrl_fd, module->work_fd, module->notif_fd })
            EXPECT_EQ(write(agent().peers[fd], "x", 1), 1);
        int before = notifications;
        ASSERT_TRUE(run_until([&] { return notifications > before; }));
        run_until([&] { return false; });
        int expected = error == CONFD_ERR_EXTERNAL ? 0 : 1;
        for (const char *word : { "control", "worker", "notification" })
            EXPECT_EQ(log_count(std::string("Error on ") + word + " socket request: scripted (18): as scripted"),
                      expected);
    }
    EXPECT_EQ(module->retry_timer, nullptr);
}

TEST_F(tconfd_connection, a_second_daemon_context_has_sockets_of_its_own_and_falls_with_the_first)
{
    rows.push_back({});
    ASSERT_EQ(connect(), TCONFD_OK);
    agent().calls.clear();
    EXPECT_EQ(tconfd_module_secondary_context_register(&reg, module), TCONFD_OK);
    EXPECT_EQ(agent().calls, (names_t{ "confd_init_vsn_sz cfgmgr-secondary 0 0x6030100 20 9",
                                       "confd_init_daemon cfgmgr-secondary", "confd_connect 0 127.0.0.1:4565",
                                       "confd_connect_worker 1 127.0.0.1:4565", "confd_register_trans_cb",
                                       "confd_register_action_cbs an-action init", "confd_register_done" }));
    ASSERT_NE(module->secondary_ctx, nullptr);
    EXPECT_EQ(module->secondary_ctx->primary_ctx, module);
    shutdown(agent().peers[module->secondary_ctx->work_fd], SHUT_RDWR);
    ASSERT_TRUE(run_until([&] { return module->retry_timer != nullptr; }));
    EXPECT_EQ(module->secondary_ctx, nullptr);
    EXPECT_EQ(agent().open_connections(), 0);
    pass_seconds(2);
    agent().results["confd_connect_worker"] = CONFD_ERR;
    log_clear();
    EXPECT_EQ(tconfd_module_secondary_context_register(&reg, module), TCONFD_RETRY);
    ASSERT_EQ(log_count("Failed to connect worker socket to confd (cfgmgr - -1)"), 1);
    EXPECT_EQ(log_count("tconfd_module_secondary_context_register["), 1);
    EXPECT_NE(module->retry_timer, nullptr);
    EXPECT_EQ(module->secondary_ctx, nullptr);
}

TEST_F(tconfd_connection, a_registration_record_lacks_nothing_that_is_required)
{
    rows.push_back({});
    reg.subs = rows.data();
    const std::function<void(tconfd_registration &)> missing[] = {
        [](tconfd_registration &r) { r.app_ctx = nullptr; },
        [](tconfd_registration &r) { r.subs = nullptr; },
        [](tconfd_registration &r) { r.valpoints = nullptr; },
        [](tconfd_registration &r) { r.actions = nullptr; },
        [](tconfd_registration &r) { r.register_data_cbs = nullptr; },
        [](tconfd_registration &r) { r.event_base = nullptr; },
        [](tconfd_registration &r) { r.timer_mgr = nullptr; },
    };
    for (const auto &remove : missing) {
        expect_assertion(
            [&] {
                log_echo(true);
                tconfd_registration less = reg;
                remove(less);
                tconfd_ctx *out = nullptr;
                (void)tconfd_module_init(&less, nullptr, &out);
            },
            "Invalid tconfd registration: NULL Parameters");
    }
    expect_assertion(
        [&] {
            log_echo(true);
            (void)tconfd_module_init(nullptr, nullptr, nullptr);
        },
        "NULL tconfd context pointer");
}

TEST_F(tconfd_connection, a_row_with_deletes_of_its_own_cannot_be_bulk)
{
    lay_out({ { "a", 1, 0x23, 0 } });
    tconfd_bulk_list bulk[1]{};
    rows[0].bulk_lists = bulk;
    reg.subs = rows.data();
    expect_assertion(
        [&] {
            log_echo(true);
            (void)tconfd_module_init(&reg, nullptr, &module);
            run_until([] { return false; });
        },
        "Delete priority for bulk read not yet supported");
}

TEST_F(tconfd_connection, messages_to_people_are_cut_by_one_when_they_are_long)
{
    tconfd_prio_message(&ctx, "%s %d", "short", 7);
    std::string text(1500, 'a');
    text += "the-end.";
    tconfd_prio_message(&ctx, "%s", text.c_str());
    tconfd_prio_message(&ctx, "%s", std::string(1023, 'b').c_str());
    tconfd_prio_message_str(&ctx, nullptr);
    tconfd_prio_message(nullptr, "%d", 1);
    EXPECT_EQ(agent().calls_of("maapi_prio_message"),
              (names_t{ "maapi_prio_message all 7 ...short 7", "maapi_prio_message all 1507 ...athe-end",
                        "maapi_prio_message all 1023 ...bbbbbbbb" }));
}

TEST_F(tconfd_env, traces_print_until_a_module_is_there_and_then_only_on_demand)
{
    tconfd_debug_disable();
    deliver({});
    EXPECT_TRUE(log_lines().empty());
    tconfd_debug_enable(2);
    deliver({});
    EXPECT_FALSE(log_lines().empty());
    tconfd_debug_disable();
    log_clear();
    tconfd_module_id_set(0);
    deliver({});
    EXPECT_FALSE(log_lines().empty());
}

TEST_F(tconfd_env, daemons_log_to_local7_but_for_the_named_ones)
{
    const std::map<std::string, int> others = { { "unknown", LOG_USER },
                                                { "igmpd", LOG_USER },
                                                { "ospfd", LOG_USER },
                                                { "bgpd", LOG_USER },
                                                { "cflowd", LOG_KERN } };
    for (uint8_t id = 0; id < 32; id++) {
        tconfd_module_id_set(id);
        auto other = others.find(daemon_id_to_name(id));
        EXPECT_EQ(tconfd_facility(), other != others.end() ? other->second : LOG_LOCAL7) << daemon_id_to_name(id);
    }
}

} // namespace
