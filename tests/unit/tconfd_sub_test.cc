// Whose turn it is to read, and what one delivery of the agent sets off.
#include "tests/harness/death.h"
#include "tests/unit/tconfd_env.h"

namespace
{

using names_t = std::vector<std::string>;

const confd_hkeypath_t vpn_5 = keypath({ "vpn", "vpn-instance", { { u64(5) } } });
const fake_change_t vpn_5_changed{ MOP_MODIFIED, vpn_5, { entry("mtu", u32(1)) } };

// ---- whose turn it is

struct order_case_t {
    uint8_t module_id;
    uint32_t needs; // bits of the daemons before
    uint32_t own;   // 0 for none
};

class tconfd_turn : public tconfd_env, public testing::WithParamInterface<order_case_t>
{
};
INSTANTIATE_TEST_SUITE_P(daemons, tconfd_turn,
                         testing::Values(order_case_t{ 21, 0, 1 }, order_case_t{ 5, 1, 2 }, order_case_t{ 3, 3, 4 },
                                         order_case_t{ 30, 7, 0 }, order_case_t{ 1, 7, 0 }),
                         [](const auto &info) { return std::to_string(info.param.module_id); });

TEST_P(tconfd_turn, comes_when_all_before_have_read)
{
    tconfd_module_id_set(GetParam().module_id);
    for (uint32_t bits = 0; bits < 16; bits++) {
        set_read_bits(bits);
        EXPECT_EQ(tconfd_can_read_initial_config(&ctx), (bits & GetParam().needs) == GetParam().needs) << bits;
    }
    EXPECT_TRUE(agent().has_called("cdb_start_session2 3 5"));
    EXPECT_EQ(agent().count("cdb_start_session2"), agent().count("cdb_end_session"));
    EXPECT_EQ(agent().open_connections(), 0);
}

TEST_P(tconfd_turn, is_over_after_the_own_read)
{
    tconfd_module_id_set(GetParam().module_id);
    set_read_bits(0xff);
    ctx.initial_read_done = 1;
    EXPECT_EQ(tconfd_can_read_initial_config(&ctx), 0);
    EXPECT_TRUE(agent().calls.empty());
}

TEST_P(tconfd_turn, is_passed_on_by_adding_the_own_bit)
{
    tconfd_module_id_set(GetParam().module_id);
    for (uint32_t bits = 0; bits < 16; bits++) {
        set_read_bits(bits);
        EXPECT_EQ(tconfd_set_initial_config_read_done(&ctx), 0);
        EXPECT_EQ(CONFD_GET_BIT32(&agent().leaves["/tconfd-initial-read-priority"]), bits | GetParam().own);
    }
    EXPECT_EQ(agent().count("cdb_set_elem"), GetParam().own != 0 ? 16 : 0) << "the last daemons never write";
}

struct step_case_t {
    const char *function;
    const char *text;
};
constexpr step_case_t session_steps[] = {
    { "cdb_connect", "Failed to connect data socket to confd scripted (18) : as scripted" },
    { "cdb_start_session2", "Failed to start cdb session scripted (18) : as scripted" },
};

TEST_F(tconfd_env, a_turn_that_cannot_be_asked_for_has_not_come)
{
    for (const step_case_t &step : session_steps) {
        agent().results = { { step.function, CONFD_ERR } };
        EXPECT_EQ(tconfd_can_read_initial_config(&ctx), 0);
        EXPECT_EQ(tconfd_set_initial_config_read_done(&ctx), 1);
        EXPECT_EQ(log_count(step.text), 2) << step.text;
    }
    agent().results.clear();
    EXPECT_EQ(tconfd_can_read_initial_config(&ctx), 0);
    EXPECT_TRUE(log_has("Failed to get tconfd-initial-read-priority scripted (1) : as scripted"));
    set_read_bits(1);
    agent().results = { { "cdb_set_elem", CONFD_ERR } };
    EXPECT_EQ(tconfd_set_initial_config_read_done(&ctx), 1);
    EXPECT_TRUE(log_has("Failed to set tconfd-initial-read-priority scripted (18) : as scripted"));
}

TEST_F(tconfd_env, a_leaf_of_another_type_is_fatal)
{
    agent().leaves["/tconfd-initial-read-priority"] = u32(7);
    expect_assertion([&] { (void)tconfd_can_read_initial_config(&ctx); }, "failed assertion `(&val)->type == C_BIT32'");
    expect_assertion([&] { (void)tconfd_set_initial_config_read_done(&ctx); },
                     "failed assertion `(&curr_val)->type == C_BIT32'");
}

// ---- reads

TEST_F(tconfd_env, a_full_read_triggers_all_adds_config_before_operational_and_then_passes_the_turn)
{
    lay_out({ { "a", 1, 0x23 }, { "b", 1, 6, TCONFD_SUB_OPER }, { "c", 0, 3 }, { "d", 0, 6, TCONFD_SUB_OPER } });
    set_read_bits(1);
    EXPECT_EQ(tconfd_read_sub_config_all(&ctx), 0);
    wait_for_reads();
    EXPECT_EQ(agent().calls_of("cdb_trigger_subscriptions"), names_t{ "cdb_trigger_subscriptions 2 5" });
    EXPECT_EQ(agent().calls_of("cdb_trigger_oper_subscriptions"), names_t{ "cdb_trigger_oper_subscriptions 4 6" });
    EXPECT_TRUE(agent().has_called("oper trigger flags 1"));
    EXPECT_EQ(ctx.initial_read_done, 1u);
    EXPECT_EQ(CONFD_GET_BIT32(&agent().leaves["/tconfd-initial-read-priority"]), 3u);
    EXPECT_EQ(agent().open_connections(), 0);
}

TEST_F(tconfd_env, while_a_full_read_runs_none_is_begun)
{
    set_read_bits(1);
    EXPECT_EQ(tconfd_can_read_initial_config(&ctx), 1);
    ctx.initial_reads = 1;
    EXPECT_EQ(tconfd_can_read_initial_config(&ctx), 0);
}

TEST_F(tconfd_env, a_read_whose_trigger_fails_counts_as_done)
{
    lay_out({ { "a", 1, 3 } });
    set_read_bits(1);
    agent().results["cdb_trigger_subscriptions"] = CONFD_ERR;
    EXPECT_EQ(tconfd_read_sub_config_all(&ctx), 0);
    wait_for_reads();
    EXPECT_TRUE(log_has("Failed to trigger config subscription (cfgmgr - -1)scripted (18) : as scripted"));
    EXPECT_EQ(ctx.initial_read_done, 1u);
}

TEST_F(tconfd_env, a_read_that_cannot_connect_ends_quietly_and_is_not_done)
{
    lay_out({ { "a", 1, 3 } });
    agent().results["cdb_connect"] = CONFD_ERR;
    EXPECT_EQ(tconfd_read_sub_config_all(&ctx), 0);
    wait_for_reads();
    EXPECT_TRUE(log_has("Failed to connect init data socket to confd (cfgmgr - -1)"));
    EXPECT_EQ(ctx.initial_read_done, 0u);
}

TEST_F(tconfd_env, single_rows_can_be_read_again_in_the_order_asked_for)
{
    lay_out({ { "a", 1, 0x23 }, { "b", 1, 6, TCONFD_SUB_OPER }, { "c", 0, 3 } });
    ctx.initial_read_done = 1;
    const uint32_t ids[] = { rows[2].add_subid, rows[1].add_subid, rows[0].add_subid };
    EXPECT_EQ(tconfd_read_sub_config(&ctx, ids, 3), 0);
    wait_for_reads();
    EXPECT_EQ(agent().calls_of("cdb_trigger_subscriptions"), names_t{ "cdb_trigger_subscriptions 5 2" });
    EXPECT_EQ(agent().calls_of("cdb_trigger_oper_subscriptions"), names_t{ "cdb_trigger_oper_subscriptions 4" });
    EXPECT_EQ(agent().count("cdb_set_elem"), 0);
    EXPECT_EQ(tconfd_read_sub_config(&ctx, ids, 0), 0);
    EXPECT_EQ(ctx.live_threads, 0u);
}

// ---- deliveries

int synced_with;
int sync_calls;
int syncs_before_sync_cb;

class tconfd_delivery_test : public tconfd_env
{
protected:
    tconfd_delivery_test()
    {
        ctx.reg.sync_cb = [](tconfd_ctx *, int triggered) {
            synced_with = triggered;
            sync_calls++;
            syncs_before_sync_cb = agent().count("cdb_sync_subscription_socket");
        };
        sync_calls = 0;
    }
    int synced() { return agent().count("cdb_sync_subscription_socket 1"); }
};

TEST_F(tconfd_delivery_test, a_commit_before_the_first_read_is_dropped_and_synced)
{
    lay_out({ { "a", 1, 3, 0 }, { "b", 1, 3, 0 } });
    agent().changes[2] = { vpn_5_changed };
    deliver({ 2, 3 });
    EXPECT_TRUE(handler_calls.empty());
    EXPECT_EQ(agent().count("cdb_diff_iterate"), 0);
    EXPECT_EQ(rows[0].last_start, 0);
    EXPECT_EQ(synced(), 1);
    EXPECT_EQ(sync_calls, 1);
}

TEST_F(tconfd_delivery_test, a_triggered_delivery_opens_its_rows_for_commits)
{
    lay_out({ { "a", 1, 3, 0 }, { "b", 1, 3, 0 } });
    agent().changes[2] = { { MOP_CREATED, vpn_5, { entry("mtu", u32(1)) } } };
    deliver({ 2 }, CDB_SUB_COMMIT, TRIGGERED);
    EXPECT_EQ(synced_with, TRIGGERED);
    EXPECT_EQ(rows[0].flags & TCONFD_SUB_READ_DONE, TCONFD_SUB_READ_DONE);
    EXPECT_EQ(rows[0].state & TCONFD_SUB_IN_PROGRESS, 0);
    EXPECT_NE(rows[0].last_end, 0);
    agent().changes[2] = agent().changes[3] = { vpn_5_changed };
    deliver({ 2, 3 });
    EXPECT_EQ(synced_with, 0);
    EXPECT_EQ(handler_calls, (std::vector<handler_call_t>{ { "a", MOP_CREATED, { 5 }, { "mtu" } },
                                                           { "a", MOP_MODIFIED, { 5 }, { "mtu" } } }));
    EXPECT_EQ(synced(), 2);
    EXPECT_EQ(syncs_before_sync_cb, 1) << "deferred work comes before the sync";
}

TEST_F(tconfd_delivery_test, a_row_is_in_progress_while_its_read_is_served)
{
    lay_out({ { "a", 1, 3, 0 } });
    agent().changes[2] = { vpn_5_changed };
    int states = 0;
    handler_verdict = [&](const handler_call_t &) {
        return states = states * 10 + 1 + rows[0].state, 0;
    };
    deliver({ 2 }, CDB_SUB_COMMIT, TRIGGERED);
    deliver({ 2 });
    EXPECT_EQ(states, 21) << "commits do not set it";
}

TEST_F(tconfd_delivery_test, rows_are_served_in_table_order_whatever_the_order_of_the_points)
{
    lay_out({ { "a", 1, 3 }, { "b", 0, 3 }, { "c", 1, 0x23 } });
    agent().changes[2] = agent().changes[3] = agent().changes[5] = { vpn_5_changed };
    agent().changes[5][0].op = MOP_DELETED;
    deliver({ 5, 3, 2 });
    EXPECT_EQ(handler_calls, (std::vector<handler_call_t>{ { "a", MOP_MODIFIED, { 5 }, { "mtu" } },
                                                           { "b", MOP_MODIFIED, {}, { "mtu" } },
                                                           { "c", MOP_DELETED, { 5 }, {} } }));
    EXPECT_TRUE(log_has("Received ADD subscription a"));
    EXPECT_TRUE(log_has("Received DEL subscription c"));
    EXPECT_TRUE(log_has("Success DEL subscription c"));
    EXPECT_EQ(sync_calls, 1);
    EXPECT_EQ(synced(), 1);
}

TEST_F(tconfd_delivery_test, an_operational_point_is_served_like_any_other)
{
    lay_out({ { "ovc", 0, 6, TCONFD_SUB_OPER | TCONFD_SUB_READ_DONE } });
    agent().changes[2] = { vpn_5_changed };
    deliver({ 2 }, CDB_SUB_OPER);
    EXPECT_EQ(handler_calls.size(), 1u);
    EXPECT_EQ(synced(), 1);
}

TEST_F(tconfd_delivery_test, a_row_without_a_handler_is_counted)
{
    lay_out({ { "a", 1, 3 } });
    rows[0].handler = nullptr;
    deliver({ 2 });
    EXPECT_EQ(agent().count("cdb_diff_iterate"), 0);
    EXPECT_EQ(synced(), 1);
}

TEST_F(tconfd_delivery_test, without_points_nothing_is_synced)
{
    lay_out({ { "a", 1, 3 } });
    deliver({});
    EXPECT_EQ(synced(), 0);
    EXPECT_EQ(sync_calls, 0);
    EXPECT_TRUE(log_has("Sync subscription from cfgmgr succeeded"));
}

TEST_F(tconfd_delivery_test, what_cannot_be_read_is_not_synced)
{
    lay_out({ { "a", 1, 3 } });
    agent().results["cdb_read_subscription_socket2"] = CONFD_ERR;
    deliver({ 2 });
    EXPECT_TRUE(log_has("Failed to read ConfD subscription (cfgmgr - -1)scripted (18) : as scripted"));
    EXPECT_EQ(synced(), 0);
}

TEST_F(tconfd_delivery_test, the_signal_of_another_daemon_starts_the_read_when_it_is_the_turn)
{
    lay_out({ { "a", 1, 3, 0 } });
    set_read_bits(0);
    deliver({ 1 }, CDB_SUB_OPER);
    wait_for_reads();
    EXPECT_EQ(agent().count("cdb_trigger_subscriptions"), 0);
    set_read_bits(1);
    deliver({ 1 }, CDB_SUB_OPER);
    wait_for_reads();
    EXPECT_EQ(agent().calls_of("cdb_trigger_subscriptions"), names_t{ "cdb_trigger_subscriptions 2" });
    deliver({ 1 }, CDB_SUB_OPER); // its own bit comes back as a signal
    wait_for_reads();
    EXPECT_EQ(agent().count("cdb_trigger_subscriptions"), 1);
    EXPECT_EQ(synced(), 3);
    EXPECT_EQ(sync_calls, 0) << "no deferred work belongs to the signal";
}

TEST_F(tconfd_delivery_test, a_failing_handler_of_a_commit_ends_the_process)
{
    lay_out({ { "a", 1, 3 }, { "b", 0, 3 } });
    agent().changes[2] = agent().changes[3] = { vpn_5_changed };
    for (int point : { 2, 3 }) {
        child_result_t result;
        handler_verdict = [](const handler_call_t &) {
            return 16;
        };
        expect_assertion(
            [&] {
                log_echo(true);
                deliver({ point });
            },
            "Error iterating subscription (cfgmgr - 0)\n");
        result = run_in_child([&] {
            log_echo(true);
            deliver({ point });
        });
        EXPECT_NE(result.output.find("Config callback failed (cfgmgr - 16)"), std::string::npos);
        EXPECT_NE(result.output.find("failed assertion"), std::string::npos);
    }
}

TEST_F(tconfd_delivery_test, a_failing_handler_of_a_prepare_refuses_the_transaction)
{
    lay_out({ { "a", 1, 3, TCONFD_SUB_TWO_PHASE | TCONFD_SUB_READ_DONE }, { "b", 1, 3 } });
    agent().changes[2] = agent().changes[3] = { vpn_5_changed };
    handler_verdict = [](const handler_call_t &) {
        return 1;
    };
    deliver({ 2, 3 }, CDB_SUB_PREPARE);
    EXPECT_TRUE(agent().has_called("cdb_sub_abort_trans 5 0 0 Unable to apply changes"));
    EXPECT_TRUE(log_has("Aborting transaction"));
    EXPECT_EQ(handler_calls.size(), 1u);
    EXPECT_EQ(synced(), 0);
    EXPECT_EQ(sync_calls, 0);
}

TEST_F(tconfd_delivery_test, a_two_phase_row_is_served_at_prepare_and_left_alone_after)
{
    lay_out({ { "a", 1, 3, TCONFD_SUB_TWO_PHASE | TCONFD_SUB_READ_DONE }, { "b", 1, 3 } });
    agent().changes[2] = { vpn_5_changed };
    deliver({ 2 }, CDB_SUB_PREPARE);
    EXPECT_EQ(handler_calls.size(), 1u);
    EXPECT_EQ(synced(), 1);
    for (cdb_sub_notification type : { CDB_SUB_COMMIT, CDB_SUB_ABORT }) {
        // Deliberately not counted as served, which the check of the points then finds.
        expect_assertion(
            [&] {
                log_echo(true);
                deliver({ 2 }, type);
            },
            "Not all subscription points (1) read");
    }
    expect_assertion(
        [&] {
            log_echo(true);
            deliver({ 2 }, CDB_SUB_OPER);
        },
        "Two phase sub for Oper data");
}

TEST_F(tconfd_delivery_test, a_point_of_no_row_is_fatal)
{
    lay_out({ { "a", 1, 3 } });
    expect_assertion(
        [&] {
            log_echo(true);
            deliver({ 2, 77 });
        },
        "Not all subscription points (1) read");
}

TEST_F(tconfd_delivery_test, an_agent_that_goes_away_within_is_survived_and_any_other_failure_is_not)
{
    lay_out({ { "a", 1, 3 } });
    agent().results["cdb_diff_iterate"] = CONFD_EOF;
    agent().results["cdb_sync_subscription_socket"] = CONFD_EOF;
    deliver({ 2 }, CDB_SUB_COMMIT, TRIGGERED);
    EXPECT_EQ(synced_with, 0) << "a read that was cut short has not brought everything";
    EXPECT_TRUE(log_has("Error iterating subscription (cfgmgr: -2). Unexpected type 2"));
    EXPECT_TRUE(log_has("Failed to sync subscription (cfgmgr - -2)"));
    agent().results["cdb_diff_iterate"] = CONFD_ERR;
    expect_assertion(
        [&] {
            log_echo(true);
            deliver({ 2 });
        },
        "Error iterating subscription (cfgmgr: -1). Unexpected type 2");
}

} // namespace
