// Which routing daemons a VPN has, the connections to them, the waits for their start and end.
#include "tests/unit/cfgmgr_quagga_env.h"

#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "common/vpn_id.h"

#include <csignal>

namespace
{

class cfgmgr_quagga_daemon : public cfgmgr_quagga_env
{
};

TEST_F(cfgmgr_quagga_daemon, numbers_on_the_wire_are_in_another_order_than_peer_ids)
{
    struct row_t {
        uint32_t peer_id;
        uint8_t module;
        const char *process, *module_name;
    };
    for (const row_t &row :
         { row_t{ 29, 0, "zebra", "zebra" }, row_t{ 30, 2, "ospfd", "ospf" }, row_t{ 31, 1, "bgpd", "bgp" } }) {
        const quagga_peer_t *peer = cfgmgr_quagga_peer(row.peer_id);
        ASSERT_NE(peer, nullptr);
        EXPECT_EQ(peer, cfgmgr_quagga_peer_by_module(row.module));
        EXPECT_STREQ(peer->process, row.process);
        EXPECT_STREQ(peer->module_name, row.module_name);
        std::string stem = "/var/run/quagga/" + std::string(row.process);
        EXPECT_EQ(peer->mgmt_path, stem + "_protobuf_mgmt.api");
        EXPECT_EQ(peer->notify_path, stem + "_protobuf_notify.api");
    }
    EXPECT_EQ(cfgmgr_quagga_peer(28), nullptr);
    EXPECT_EQ(cfgmgr_quagga_peer(32), nullptr);
    EXPECT_EQ(cfgmgr_quagga_peer_by_module(3), nullptr);
}

TEST_F(cfgmgr_quagga_daemon, zebra_is_everywhere_the_others_where_traffic_is_routed)
{
    struct row_t {
        uint32_t personality;
        uint64_t vpn_id;
        bool has_all;
    };
    const row_t rows[] = {
        { PERSONALITY_KREST, 0, true },
        { PERSONALITY_KREST, 5, true },
        { PERSONALITY_KREST, VPN_ID_MANAGEMENT, false },
        { PERSONALITY_KREST, VPN_ID_INTERNAL, true },
        { PERSONALITY_TARN, 0, true },
        { PERSONALITY_ORBEL, 0, true },
        { PERSONALITY_ZTP, 0, true },
        { PERSONALITY_LODEST, 0, false },
        { PERSONALITY_QUORVIX, 0, false },
        { PERSONALITY_PENDRY, 5, false },
    };
    for (const row_t &row : rows) {
        daemon.personality = row.personality;
        EXPECT_TRUE(cfgmgr_vpn_has_quagga_daemon(daemon, row.vpn_id, DAEMON_ID_ZEBRA));
        for (uint32_t peer_id : { DAEMON_ID_OSPFD, DAEMON_ID_BGPD })
            EXPECT_EQ(cfgmgr_vpn_has_quagga_daemon(daemon, row.vpn_id, peer_id), row.has_all)
                << row.personality << " " << row.vpn_id;
        EXPECT_FALSE(cfgmgr_vpn_has_quagga_daemon(daemon, row.vpn_id, DAEMON_ID_CFGMGR));
    }
}

TEST_F(cfgmgr_quagga_daemon, sockets_bear_the_number_of_their_vpn_but_in_vpn_0)
{
    for (uint64_t vpn_id : { 0UL, 17UL, 65530UL }) {
        std::string suffix = vpn_id == 0 ? "" : "." + std::to_string(vpn_id);
        scripted_daemon_t bgpd(run_path("bgpd_protobuf_mgmt.api" + suffix));
        quagga_vpn_t vpn(&daemon, vpn_id);
        ASSERT_EQ(cfgmgr_vpn_add_quagga_daemon(DAEMON_ID_BGPD, &vpn.record), QUAGGA_OK);
        const q_daemon_t *q_daemon_p = vpn.record.q_daemon_p[DAEMON_ID_BGPD];
        EXPECT_EQ(q_daemon_p->daemon_id, DAEMON_ID_BGPD);
        EXPECT_EQ(q_daemon_p->vpn_p, &vpn.record);
        EXPECT_EQ(q_daemon_p->pid, 0);
        EXPECT_EQ(msgq_is_up(q_daemon_p->mgmt_handle), 1);
        EXPECT_TRUE(msgq_get_blocking(q_daemon_p->mgmt_handle));
        EXPECT_FALSE(msgq_get_blocking(q_daemon_p->notify_handle));
        EXPECT_TRUE(log_has("Init connection to bgp (vpn-" + std::to_string(vpn_id) + ") PB"));

        raw_peer_t notifier(run_path("bgpd_protobuf_notify.api" + suffix));
        EXPECT_TRUE(loop.run_until([&] { return msgq_is_up(q_daemon_p->notify_handle) == 1; }));
        cfgmgr_vpn_del_quagga_daemon(DAEMON_ID_BGPD, &vpn.record);
        EXPECT_TRUE(loop.run_until([&] { return notifier.is_closed(); }));
        EXPECT_EQ(vpn.record.q_daemon_p[DAEMON_ID_BGPD], nullptr);
    }
}

TEST_F(cfgmgr_quagga_daemon, adding_waits_for_the_daemons_socket)
{
    std::unique_ptr<scripted_daemon_t> zebra;
    std::thread late([&] {
        usleep(50000);
        zebra = std::make_unique<scripted_daemon_t>(run_path("zebra_protobuf_mgmt.api"));
    });
    quagga_vpn_t vpn(&daemon, 0);
    EXPECT_EQ(cfgmgr_vpn_add_quagga_daemon(DAEMON_ID_ZEBRA, &vpn.record), QUAGGA_OK);
    late.join();
    EXPECT_EQ(msgq_is_up(vpn.record.q_daemon_p[DAEMON_ID_ZEBRA]->mgmt_handle), 1);
}

TEST_F(cfgmgr_quagga_daemon, a_name_that_does_not_fit_makes_no_connection)
{
    tip_root_set(root.path().c_str()); // too long by far, with a number behind it
    quagga_vpn_t vpn(&daemon, 65530);
    EXPECT_EQ(cfgmgr_vpn_add_quagga_daemon(DAEMON_ID_OSPFD, &vpn.record), QUAGGA_FAILED);
    EXPECT_TRUE(log_has("Failed to init mgmt msgq for quagga daemon: ospf (VPN:65530)"));
}

TEST_F(cfgmgr_quagga_daemon, a_listener_that_cannot_be_made_is_told_of)
{
    scripted_daemon_t ospfd(run_path("ospfd_protobuf_mgmt.api"));
    std::filesystem::create_directories(run_path("ospfd_protobuf_notify.api/in the way"));
    quagga_vpn_t vpn(&daemon, 0);
    EXPECT_EQ(cfgmgr_vpn_add_quagga_daemon(DAEMON_ID_OSPFD, &vpn.record), QUAGGA_FAILED);
    EXPECT_TRUE(log_has("Failed to init notify msgq for quagga daemon: ospf (VPN:0)"));
}

TEST_F(cfgmgr_quagga_daemon, a_second_record_and_a_missing_one_are_fatal)
{
    scripted_daemon_t zebra(run_path("zebra_protobuf_mgmt.api"));
    quagga_vpn_t vpn(&daemon, 0);
    expect_assertion([&] { cfgmgr_vpn_del_quagga_daemon(DAEMON_ID_ZEBRA, &vpn.record); },
                     "failed assertion `q_daemon_p != ((void *)0)'");
    ASSERT_EQ(cfgmgr_vpn_add_quagga_daemon(DAEMON_ID_ZEBRA, &vpn.record), QUAGGA_OK);
    expect_assertion([&] { (void)cfgmgr_vpn_add_quagga_daemon(DAEMON_ID_ZEBRA, &vpn.record); },
                     "failed assertion `q_daemon_p == ((void *)0)'");
}

// ---- start and end

TEST_F(cfgmgr_quagga_daemon, starting_takes_the_pid_from_the_daemons_file)
{
    scripted_daemon_t ospfd(run_path("ospfd_protobuf_mgmt.api.17"));
    write_pid("ospfd.pid.17", "4711\n");
    quagga_vpn_t vpn(&daemon, 17);
    ASSERT_EQ(cfgmgr_vpn_start_quagga_daemon(DAEMON_ID_OSPFD, &vpn.record), QUAGGA_OK);
    EXPECT_EQ(vpn.record.q_daemon_p[DAEMON_ID_OSPFD]->pid, 4711);
    EXPECT_TRUE(log_has("Process started on time: ospfd [17] iter: 0"));
}

TEST_F(cfgmgr_quagga_daemon, in_vpn_0_no_pid_file_is_waited_for)
{
    scripted_daemon_t ospfd(run_path("ospfd_protobuf_mgmt.api"));
    write_pid("ospfd.pid", "4711\n");
    quagga_vpn_t vpn(&daemon, 0);
    ASSERT_EQ(cfgmgr_vpn_start_quagga_daemon(DAEMON_ID_OSPFD, &vpn.record), QUAGGA_OK);
    EXPECT_EQ(vpn.record.q_daemon_p[DAEMON_ID_OSPFD]->pid, 0);
    EXPECT_FALSE(log_has("Process started"));
    ASSERT_EQ(cfgmgr_vpn_stop_quagga_daemon(DAEMON_ID_OSPFD, &vpn.record), QUAGGA_OK);
    EXPECT_FALSE(log_has("Process stop"));
}

TEST_F(cfgmgr_quagga_daemon, a_daemon_without_a_pid_is_fatal)
{
    for (const char *text : { "", "zebra\n", "0\n" }) {
        scripted_daemon_t zebra(run_path("zebra_protobuf_mgmt.api.17"));
        if (*text != '\0')
            write_pid("zebra.pid.17", text);
        quagga_vpn_t vpn(&daemon, 17);
        expect_assertion([&] { (void)cfgmgr_vpn_start_quagga_daemon(DAEMON_ID_ZEBRA, &vpn.record); },
                         "failed assertion");
        std::filesystem::remove(run_path("zebra_protobuf_mgmt.api.17"));
        std::filesystem::remove(run_path("zebra_protobuf_notify.api.17"));
    }
}

TEST_F(cfgmgr_quagga_daemon, a_file_that_appears_in_time_ends_the_wait)
{
    std::thread late([&] {
        usleep(20000);
        write_pid("bgpd.pid.3", "1\n");
    });
    EXPECT_EQ(cfgmgr_wait_quagga_start("bgpd", 3), QUAGGA_OK);
    late.join();
    EXPECT_TRUE(log_has("Process started on time: bgpd [3] iter: "));
    EXPECT_FALSE(log_has("iter: 0"));
}

TEST_F(cfgmgr_quagga_daemon, the_wait_for_a_start_is_longer_than_that_for_an_end)
{
    using clock = std::chrono::steady_clock;
    auto start = clock::now();
    EXPECT_EQ(cfgmgr_wait_quagga_start("bgpd", 0), QUAGGA_TIMEOUT);
    EXPECT_GE(clock::now() - start, std::chrono::milliseconds(100));
    EXPECT_TRUE(log_has("Process timeout error: bgpd [0]"));
    write_pid("bgpd.pid", "1\n");
    start = clock::now();
    EXPECT_EQ(cfgmgr_wait_quagga_stop("bgpd", 0), QUAGGA_TIMEOUT);
    EXPECT_GE(clock::now() - start, std::chrono::milliseconds(10));
    EXPECT_TRUE(log_has("Process stop timeout error: bgpd [0]"));
    std::filesystem::remove(run_path("bgpd.pid"));
    EXPECT_EQ(cfgmgr_wait_quagga_stop("bgpd", 0), QUAGGA_OK);
    EXPECT_TRUE(log_has("Process stopped on time: bgpd [0] iter: 0"));
}

TEST_F(cfgmgr_quagga_daemon, urgent_timers_run_during_a_wait)
{
    timer_clock_set(nullptr);
    timer_mgr_t *timers = timer_mgr_create(TIMER_RES_10MS, nullptr, nullptr, nullptr, TIMER_MASK_ALL);
    int runs = 0;
    timer_util_t *timer = timer_util_create(
        timers, TIMER_PRIO_HIGH, TIMER_CYCLIC, 10,
        [](timer_util_t *, void *arg, void *, void *, void *) { ++*static_cast<int *>(arg); }, &runs, nullptr, nullptr,
        nullptr, "hello");
    timer_enable(timer);
    daemon.timer_mgr_p = timers;
    EXPECT_EQ(cfgmgr_wait_quagga_start("bgpd", 0), QUAGGA_TIMEOUT);
    EXPECT_GE(runs, 3);
    daemon.timer_mgr_p = loop.timers;
    timer_util_delete(timer);
    timer_mgr_delete(timers);
}

TEST_F(cfgmgr_quagga_daemon, stopping_gives_a_daemon_up_that_lingers)
{
    scripted_daemon_t zebra(run_path("zebra_protobuf_mgmt.api.17"));
    write_pid("zebra.pid.17", "4711");
    quagga_vpn_t vpn(&daemon, 17);
    ASSERT_EQ(cfgmgr_vpn_start_quagga_daemon(DAEMON_ID_ZEBRA, &vpn.record), QUAGGA_OK);
    EXPECT_EQ(cfgmgr_vpn_stop_quagga_daemon(DAEMON_ID_ZEBRA, &vpn.record), QUAGGA_OK);
    EXPECT_TRUE(log_has("Process stop timeout error: zebra [17]"));
    EXPECT_EQ(vpn.record.q_daemon_p[DAEMON_ID_ZEBRA], nullptr);
    EXPECT_EQ(cfgmgr_vpn_stop_quagga_daemon(DAEMON_ID_ZEBRA, &vpn.record), QUAGGA_OK);
    EXPECT_TRUE(log_has("Quagga daemon does not exist: zebra (vpn:17)"));
}

TEST_F(cfgmgr_quagga_daemon, a_process_that_is_being_stopped_waits_for_nobody_and_sends_nothing)
{
    scripted_daemon_t zebra(run_path("zebra_protobuf_mgmt.api.17"));
    write_pid("zebra.pid.17", "4711");
    quagga_vpn_t vpn(&daemon, 17);
    ASSERT_EQ(cfgmgr_vpn_start_quagga_daemon(DAEMON_ID_ZEBRA, &vpn.record), QUAGGA_OK);
    log_clear();
    child_result_t result = run_in_child([&] {
        log_echo(true);
        (void)cfgmgr_init_abort_signals();
        raise(SIGUSR2);
        confd_trans_ctx tctx{};
        printf("sent %d shown %d touched %d\n",
               cfgmgr_quagga_pb_send_message(&vpn.record, nullptr, DAEMON_ID_ZEBRA, ZEBRA_SYSTEM_ROUTERID),
               cfgmgr_quagga_pb_send_show_message(&tctx, &vpn.record, nullptr, DAEMON_ID_ZEBRA, ZEBRA_SHOW),
               tctx.t_opaque != nullptr);
        printf("stopped %d\n", cfgmgr_vpn_stop_quagga_daemon(DAEMON_ID_ZEBRA, &vpn.record));
    });
    EXPECT_NE(result.output.find("sent 15 shown 15 touched 0\n"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("Quagga daemon - zebra link is down (vpn:17), skipping"), std::string::npos);
    EXPECT_NE(result.output.find("Quagga daemon does not exist: zebra (vpn:17)"), std::string::npos);
    EXPECT_NE(result.output.find("stopped 0\n"), std::string::npos);
    EXPECT_EQ(result.output.find("Process stop"), std::string::npos);
}

} // namespace
