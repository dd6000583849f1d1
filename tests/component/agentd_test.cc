// agentd through the client library: phases, sessions, transactions, locks, persistence.
#include "tests/component/agentd_clients.h"

static bool mentions(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

// ---- phases

TEST(agentd_phases, the_init_transaction_is_written_in_phase_1_and_seen_in_phase_2)
{
    agentd_process agent("");
    user_client init(agent, nullptr);
    ASSERT_EQ(maapi_attach_init(init.fd(), &init.th), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(init.set("/net/banner", "first boot"), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(maapi_exists(init.fd(), init.th, "/net/banner"), 1);
    EXPECT_EQ(read_leaf(agent, "/net/banner"), "-") << "not committed yet";
    EXPECT_EQ(init.apply(), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADSTATE) << "the agent commits it, not the client";

    std::string output;
    EXPECT_EQ(agent.command({ "start-phase2" }, &output), 0) << output;
    EXPECT_EQ(output, "2\n");
    EXPECT_EQ(read_leaf(agent, "/net/banner"), "first boot");
    EXPECT_EQ(maapi_attach_init(init.fd(), &init.th), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADSTATE);
    EXPECT_EQ(agent.command({ "start-phase2" }), 0) << "again is harmless";
}

TEST(agentd_phases, user_sessions_write_from_phase_2_on_and_read_before)
{
    agentd_process agent("");
    user_client user(agent);
    EXPECT_EQ(user.begin(), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADSTATE);
    EXPECT_TRUE(mentions(confd_lasterr(), "phase 1")) << confd_lasterr();
    EXPECT_EQ(maapi_lock(user.fd(), CONFD_RUNNING), CONFD_ERR) << "it would keep the agent from phase 2";
    EXPECT_EQ(confd_errno, CONFD_ERR_BADSTATE);
    EXPECT_GT(maapi_start_trans(user.fd(), CONFD_RUNNING, CONFD_READ), 0) << confd_lasterr();
    EXPECT_EQ(agent.command({ "start-phase2" }), 0);
    EXPECT_GT(user.begin(), 0) << confd_lasterr();
}

TEST(agentd_phases, an_init_transaction_against_the_rules_keeps_phase_1)
{
    agentd_process agent("");
    user_client init(agent, nullptr);
    ASSERT_EQ(maapi_attach_init(init.fd(), &init.th), CONFD_OK);
    EXPECT_EQ(init.create("/net/domain{a}"), CONFD_OK) << confd_lasterr();
    std::string output;
    EXPECT_EQ(agent.command({ "start-phase2" }, &output), 1);
    EXPECT_TRUE(mentions(output, "owner")) << output;
    EXPECT_EQ(agent.command({ "phase" }, &output), 0);
    EXPECT_EQ(output, "1\n");
    EXPECT_EQ(init.set("/net/domain{a}/owner", "me"), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(agent.command({ "start-phase2" }, &output), 0) << output;
    EXPECT_EQ(read_leaf(agent, "/net/domain{a}/owner"), "me");
}

TEST(agentd_phases, the_start_has_come_for_whoever_waits_for_it)
{
    agentd_process agent("");
    data_client data(agent);
    EXPECT_EQ(cdb_wait_start(data.fd()), CONFD_OK);
    cdb_phase phase{};
    EXPECT_EQ(cdb_get_phase(data.fd(), &phase), CONFD_OK);
    EXPECT_EQ(phase.phase, 1);
}

// ---- transactions

TEST(agentd_transactions, a_commit_is_read_by_others_and_an_open_edit_only_by_its_own)
{
    agentd_process agent;
    user_client user(agent);
    ASSERT_GT(user.begin(), 0);
    EXPECT_EQ(user.set("/net/vpn{5}/name", "blue"), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(maapi_exists(user.fd(), user.th, "/net/vpn{5}"), 1);
    data_client data(agent, CDB_RUNNING);
    EXPECT_EQ(cdb_exists(data.fd(), "/net/vpn{5}"), 0);
    EXPECT_EQ(user.apply(), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(cdb_exists(data.fd(), "/net/vpn{5}"), 1);
    EXPECT_EQ(cdb_num_instances(data.fd(), "/net/vpn"), 1);
    EXPECT_EQ(data.get("/net/vpn{5}/name"), "blue");
    EXPECT_EQ(data.get("/net/vpn{5}/mtu"), "1500") << "a default is given as a value";
}

struct refusal_t {
    edit_t edit;
    int error;
    const char *text; // the answer names it
};

TEST(agentd_transactions, wrong_edits_are_refused_with_path_and_value)
{
    static const refusal_t rows[] = {
        { { "/net/vpn{1}/mtu", "20" }, CONFD_ERR_BADTYPE, "20" },
        { { "/net/vpn{70000}/name", "x" }, CONFD_ERR_BADTYPE, "70000" },
        { { "/net/vpn{1}/port{p}/color", "blue" }, CONFD_ERR_BADTYPE, "blue" },
        { { "/net/wpn{1}/name", "x" }, CONFD_ERR_BADPATH, "wpn" },
        { { "/net/vpn{1 2}/name", "x" }, CONFD_ERR_BADPATH, "vpn" },
        { { "/state/counter", "1" }, CONFD_ERR_NOT_WRITABLE, "counter" },
        { { "/net/vpn{9}", "-" }, CONFD_ERR_NOEXISTS, "9" },
    };
    agentd_process agent;
    user_client user(agent);
    ASSERT_GT(user.begin(), 0);
    for (const refusal_t &row : rows) {
        SCOPED_TRACE(row.edit.path);
        EXPECT_EQ(row.edit.text == "-" ? user.remove(row.edit.path) : user.set(row.edit.path, row.edit.text),
                  CONFD_ERR);
        EXPECT_EQ(confd_errno, row.error) << confd_lasterr();
        EXPECT_TRUE(mentions(confd_lasterr(), row.text)) << confd_lasterr();
    }
    EXPECT_EQ(maapi_exists(user.fd(), user.th, "/net/vpn{1}"), 0) << "a refused edit leaves nothing behind";
}

TEST(agentd_transactions, the_rules_of_the_model_refuse_a_commit_and_leave_the_transaction_open)
{
    agentd_process agent;
    user_client user(agent);
    ASSERT_GT(user.begin(), 0);
    apply_edit(user, { "/net/vpn{5}/name", "forbidden" });
    EXPECT_EQ(user.apply(), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_VALIDATION);
    EXPECT_TRUE(mentions(confd_lasterr(), "this name is not allowed")) << confd_lasterr();
    EXPECT_EQ(maapi_validate_trans(user.fd(), user.th, 0, 0), CONFD_ERR);
    apply_edit(user, { "/net/vpn{5}/name", "allowed" });
    EXPECT_EQ(maapi_validate_trans(user.fd(), user.th, 0, 0), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(read_leaf(agent, "/net/vpn{5}/name"), "-") << "validated, not committed";
    EXPECT_EQ(user.apply(), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(read_leaf(agent, "/net/vpn{5}/name"), "allowed");
}

TEST(agentd_transactions, one_that_is_not_kept_open_can_only_be_finished)
{
    agentd_process agent;
    user_client user(agent);
    ASSERT_GT(user.begin(), 0);
    apply_edit(user, { "/net/banner", "x" });
    EXPECT_EQ(maapi_apply_trans(user.fd(), user.th, 0), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(user.set("/net/banner", "y"), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADSTATE);
    EXPECT_EQ(maapi_finish_trans(user.fd(), user.th), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(maapi_finish_trans(user.fd(), user.th), CONFD_ERR);
}

TEST(agentd_transactions, a_cursor_walks_a_list_in_key_order)
{
    agentd_process agent;
    for (int id : { 30, 4, 200 })
        EXPECT_EQ(commit(agent, { { "/net/vpn{" + std::to_string(id) + "}", "+" } }).result, CONFD_OK);
    user_client user(agent);
    ASSERT_GT(user.begin(), 0);
    maapi_cursor cursor{};
    ASSERT_EQ(maapi_init_cursor(user.fd(), user.th, &cursor, "/net/vpn"), CONFD_OK);
    std::vector<uint64_t> ids;
    while (maapi_get_next(&cursor) == CONFD_OK && cursor.n > 0)
        ids.push_back(CONFD_GET_UINT64(&cursor.keys[0]));
    maapi_destroy_cursor(&cursor);
    EXPECT_EQ(ids, (std::vector<uint64_t>{ 4, 30, 200 }));
}

TEST(agentd_transactions, commits_of_many_sessions_are_all_there_afterwards)
{
    agentd_process agent;
    std::vector<std::future<commit_result_t>> commits;
    for (int i = 1; i <= 20; i++)
        commits.push_back(commit_beside(agent, { { "/net/vpn{" + std::to_string(i) + "}/name", "n" } }));
    for (auto &one : commits)
        EXPECT_EQ(one.get().result, CONFD_OK);
    data_client data(agent, CDB_RUNNING);
    EXPECT_EQ(cdb_num_instances(data.fd(), "/net/vpn"), 20);
}

TEST(agentd_transactions, a_commit_is_told_to_those_who_ask_for_commits)
{
    agentd_process agent;
    client_socket events;
    sockaddr_in addr = agent.address();
    ASSERT_EQ(confd_notifications_connect2(events.fd(), reinterpret_cast<sockaddr *>(&addr), sizeof addr,
                                           CONFD_NOTIF_COMMIT_SIMPLE, nullptr),
              CONFD_OK);
    EXPECT_EQ(commit(agent, { { "/net/banner", "x" } }).result, CONFD_OK);
    ASSERT_TRUE(events.is_readable(10000));
    confd_notification event{};
    ASSERT_EQ(confd_read_notification(events.fd(), &event), CONFD_OK);
    EXPECT_EQ(event.type, CONFD_NOTIF_COMMIT_SIMPLE);
    EXPECT_EQ(event.n.commit.database, CONFD_RUNNING);
    EXPECT_STREQ(event.n.commit.uinfo.username, "admin");
    EXPECT_STREQ(event.n.commit.uinfo.context, "cli");
    confd_free_notification(&event);
    EXPECT_EQ(commit(agent, { { "/net/banner", "x" } }).result, CONFD_OK);
    EXPECT_FALSE(events.is_readable(100)) << "a commit that changes nothing is not told";
}

// ---- operational data

TEST(agentd_operational, written_data_is_read_back_and_not_persisted)
{
    agentd_process agent;
    EXPECT_EQ(commit(agent, { { "/net/vpn{5}", "+" } }).result, CONFD_OK);
    data_client data(agent, CDB_OPERATIONAL);
    EXPECT_EQ(data.set_u32("/net/vpn{5}/label", 77), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(data.get("/net/vpn{5}/label"), "77");
    EXPECT_EQ(data.set_u32("/net/vpn{6}/label", 77), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_NOEXISTS) << "the configured entry above is not there";
    EXPECT_EQ(cdb_create(data.fd(), "/state/session{1}"), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(cdb_create(data.fd(), "/state/session{1}"), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_ALREADY_EXISTS);
    EXPECT_EQ(cdb_delete(data.fd(), "/state/session{2}"), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_NOEXISTS);
    agent.kill_it(SIGTERM);
    agent.start();
    EXPECT_EQ(read_leaf(agent, "/net/vpn{5}/label", CDB_OPERATIONAL), "-");
}

TEST(agentd_operational, configuration_is_not_written_by_data_sessions)
{
    agentd_process agent;
    data_client operational(agent, CDB_OPERATIONAL);
    EXPECT_EQ(operational.set_u32("/net/vpn{5}/port{a}/speed", 1), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_NOT_WRITABLE);
    data_client running(agent, CDB_RUNNING);
    EXPECT_EQ(running.set_u32("/state/counter", 1), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_NOT_WRITABLE);
    data_client none(agent);
    EXPECT_EQ(none.get("/net/banner").substr(0, 6), "error:");
    EXPECT_EQ(confd_errno, CONFD_ERR_NOSESSION);
}

// ---- locks

TEST(agentd_locks, a_session_lock_is_refused_waited_for_and_released_by_death)
{
    agentd_process agent;
    auto holder = std::make_unique<data_client>(agent);
    ASSERT_EQ(cdb_start_session2(holder->fd(), CDB_OPERATIONAL, CDB_LOCK_REQUEST), CONFD_OK);
    data_client refused(agent);
    EXPECT_EQ(cdb_start_session2(refused.fd(), CDB_OPERATIONAL, CDB_LOCK_REQUEST), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_LOCKED);
    EXPECT_TRUE(mentions(confd_lasterr(), "component-test (pid " + std::to_string(getpid()))) << confd_lasterr();
    EXPECT_EQ(cdb_start_session2(refused.fd(), CDB_OPERATIONAL, 0), CONFD_OK) << "without a lock there is no wait";
    EXPECT_EQ(refused.set_u32("/state/counter", 1), CONFD_OK) << "nor for a write";

    auto waiting = std::async(std::launch::async, [&agent] {
        data_client data(agent);
        return cdb_start_session2(data.fd(), CDB_OPERATIONAL, CDB_LOCK_REQUEST | CDB_LOCK_WAIT);
    });
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(150)), std::future_status::timeout);
    holder.reset();
    EXPECT_EQ(waiting.get(), CONFD_OK);
    data_client last(agent);
    EXPECT_EQ(cdb_start_session2(last.fd(), CDB_OPERATIONAL, CDB_LOCK_REQUEST | CDB_LOCK_WAIT), CONFD_OK);
    EXPECT_EQ(cdb_end_session(last.fd()), CONFD_OK);
}

TEST(agentd_locks, a_locked_datastore_refuses_the_commits_of_others)
{
    agentd_process agent;
    user_client holder(agent, "ann");
    ASSERT_GT(holder.begin(), 0);
    ASSERT_EQ(maapi_lock(holder.fd(), CONFD_RUNNING), CONFD_OK) << confd_lasterr();
    commit_result_t other = commit(agent, { { "/net/banner", "x" } });
    EXPECT_EQ(other.error, CONFD_ERR_LOCKED);
    EXPECT_TRUE(mentions(other.text, "ann")) << other.text;
    apply_edit(holder, { "/net/banner", "mine" });
    EXPECT_EQ(holder.apply(), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(maapi_unlock(holder.fd(), CONFD_RUNNING), CONFD_OK);
    EXPECT_EQ(commit(agent, { { "/net/banner", "x" } }).result, CONFD_OK);
    ASSERT_EQ(maapi_lock(holder.fd(), CONFD_RUNNING), CONFD_OK);
    holder.end();
    commit_result_t after = commit(agent, { { "/net/banner", "y" } });
    for (int i = 0; i < 100 && after.error == CONFD_ERR_LOCKED; i++)
        after = commit(agent, { { "/net/banner", "y" } });
    EXPECT_EQ(after.result, CONFD_OK) << "the lock went with its holder: " << after.text;
}

// ---- persistence

TEST(agentd_restart, acknowledged_commits_survive_being_killed)
{
    agentd_process agent;
    for (int round = 1; round <= 8; round++) {
        std::string name = "r" + std::to_string(round);
        ASSERT_EQ(commit(agent, { { "/net/vpn{" + std::to_string(round) + "}/name", name } }).result, CONFD_OK);
        ASSERT_EQ(commit(agent, { { "/net/banner", name } }).result, CONFD_OK);
        agent.kill_it(SIGKILL);
        agent.start();
        ASSERT_NE(agent.port(), 0) << agent.log();
        data_client data(agent, CDB_RUNNING);
        ASSERT_EQ(data.get("/net/banner"), name);
        ASSERT_EQ(cdb_num_instances(data.fd(), "/net/vpn"), round);
    }
}

TEST(agentd_restart, a_commit_in_the_middle_of_a_kill_is_there_whole_or_not_at_all)
{
    agentd_process agent;
    for (int round = 1; round <= 6; round++) {
        std::vector<edit_t> edits;
        for (int i = 0; i < 50; i++)
            edits.push_back({ "/net/vpn{" + std::to_string(i) + "}/name", "r" + std::to_string(round) });
        user_client user(agent);
        ASSERT_GT(user.begin(), 0);
        auto racing = std::async(std::launch::async, [&] {
            for (const edit_t &edit : edits)
                (void)user.set(edit.path, edit.text); // may be cut off by the kill
            (void)user.apply();
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(5 * round));
        agent.kill_it(SIGKILL);
        racing.wait();
        agent.start();
        ASSERT_NE(agent.port(), 0) << agent.log();
        data_client data(agent, CDB_RUNNING);
        std::string first = data.get("/net/vpn{0}/name");
        for (int i = 1; i < 50; i++)
            ASSERT_EQ(data.get("/net/vpn{" + std::to_string(i) + "}/name"), first);
    }
}
