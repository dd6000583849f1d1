// The message queue's connections: who gets which handle, coming back, and handles that go in the midst of things.
#include "common/daemon_names.h"
#include "tests/harness/death.h"
#include "tests/unit/common_msgq_env.h"

#include <sys/stat.h>

namespace
{

class msgq_connection : public testing::TestWithParam<framing_t>
{
protected:
    temp_dir dir;
    std::string path = dir.path("queue");
    end_t server, client;
    loop_t loop;
};
INSTANTIATE_TEST_SUITE_P(framings, msgq_connection, testing::Values(LIBRARY, APPLICATION),
                         [](const auto &info) { return info.param.name; });

TEST_P(msgq_connection, a_peer_that_comes_back_replaces_its_old_socket)
{
    loop.server(server, GetParam(), path);
    raw_peer_t old_peer(path);
    old_peer.enter(GetParam());
    old_peer.send(frame(GetParam(), "half").substr(0, GetParam().header_size + 1));
    loop.settle();
    raw_peer_t new_peer(path);
    new_peer.enter(GetParam());
    new_peer.send(frame(GetParam(), "whole"));
    loop.settle();
    EXPECT_TRUE(old_peer.is_closed());
    EXPECT_EQ(server.ups, 2);
    EXPECT_EQ(server.downs, 1);
    EXPECT_EQ(server.counters().conn_exist, 1u);
    EXPECT_EQ(server.bodies, std::vector<std::string>{ "whole" });
    EXPECT_EQ(server.write("answer"), MSGQ_OK);
    EXPECT_EQ(new_peer.receive().substr(GetParam().header_size), "answer");
}

TEST_P(msgq_connection, a_client_finds_a_restarted_server_again)
{
    loop.server(server, GetParam(), path);
    loop.client(client, GetParam(), path);
    ASSERT_TRUE(loop.run_until([&] { return client.ups == 1 && server.ups == 1; }));
    msgq_free(server.handle);
    EXPECT_EQ(server.downs, 1);
    ASSERT_TRUE(loop.run_until([&] { return client.downs == 1; }));
    EXPECT_EQ(client.write("nobody there"), MSGQ_NOT_CONNECTED);
    loop.server(server, GetParam(), path);
    ASSERT_TRUE(loop.run_until([&] { return client.ups == 2 && server.ups == 2; }));
    EXPECT_EQ(client.write("back"), MSGQ_OK);
    ASSERT_TRUE(loop.run_until([&] { return server.bodies.size() == 1; }));
    EXPECT_EQ(client.counters().conn_close, 1u);
}

TEST_P(msgq_connection, a_client_may_be_started_before_its_server)
{
    loop.client(client, GetParam(), path);
    for (int i = 0; i < 120; ++i)
        loop.turn();
    EXPECT_EQ(client.ups, 0);
    loop.server(server, GetParam(), path);
    EXPECT_TRUE(loop.run_until([&] { return client.ups == 1 && server.ups == 1; }));
}

TEST_P(msgq_connection, a_handle_may_be_freed_inside_any_of_its_callbacks)
{
    using hook_t = std::function<void(end_t &)> end_t::*;
    for (bool is_all : { false, true }) {
        for (hook_t hook : { &end_t::on_up, &end_t::on_down, &end_t::on_rx }) {
            for (bool is_server : { true, false }) {
                end_t near, far;
                end_t &dying = is_server ? near : far, &other = is_server ? far : near;
                bool is_gone = false;
                other.on_up = [](end_t &end) {
                    EXPECT_EQ(end.write("one"), MSGQ_OK);
                };
                other.on_rx = [](end_t &end) {
                    msgq_free(end.handle);
                };
                dying.on_up = [&](end_t &end) {
                    EXPECT_EQ(end.write("two"), MSGQ_OK);
                };
                dying.*hook = [&](end_t &end) {
                    is_gone = true;
                    is_all ? msgq_free_all() : msgq_free(end.handle);
                };
                if (hook == &end_t::on_rx)
                    other.on_rx = nullptr;
                loop.server(near, GetParam(), path);
                loop.client(far, GetParam(), path);
                ASSERT_TRUE(loop.run_until([&] { return is_gone; }));
                loop.settle();
                EXPECT_LE(dying.downs, 1);
                msgq_free_all();
            }
        }
    }
}

TEST_P(msgq_connection, conn_down_may_complete_the_free_that_it_is_called_from)
{
    loop.server(server, GetParam(), path);
    raw_peer_t peer(path);
    peer.enter(GetParam());
    ASSERT_TRUE(loop.run_until([&] { return server.ups == 1; }));
    server.on_down = [](end_t &end) {
        msgq_free(end.handle);
    };
    msgq_free(server.handle);
    EXPECT_EQ(server.downs, 1);
    EXPECT_EQ(msgq_instance(), nullptr);
}

TEST_P(msgq_connection, freeing_everything_while_a_peer_comes_back_refuses_it)
{
    loop.server(server, GetParam(), path);
    server.on_down = [](end_t &) {
        msgq_free_all();
    };
    raw_peer_t old_peer(path);
    old_peer.enter(GetParam());
    ASSERT_TRUE(loop.run_until([&] { return server.ups == 1; }));
    raw_peer_t new_peer(path);
    new_peer.enter(GetParam());
    EXPECT_TRUE(loop.run_until([&] { return old_peer.is_closed() && new_peer.is_closed(); }));
    EXPECT_EQ(server.ups, 1);
}

TEST(msgq, peers_that_share_a_path_are_told_apart_and_strangers_are_refused)
{
    temp_dir dir;
    std::string path = dir.path("queue");
    loop_t loop;
    end_t five, six;
    loop.server(five, LIBRARY, path, 5);
    loop.server(six, LIBRARY, path, 6);
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0777u);

    std::string bad_magic = lib_header(8, 5, 7, MSGQ_HDR_REGISTER);
    bad_magic[0] = 0;
    const std::string strangers[] = {
        lib_header(8, 4, 7, MSGQ_HDR_REGISTER), // a source that nobody waits for
        lib_header(8, 5, 6, MSGQ_HDR_REGISTER), // a target that is somebody else
        lib_header(20, 5, 7, MSGQ_HDR_DATA),    // no register message
        bad_magic,
        "abc", // and then nothing more
    };
    for (const std::string &bytes : strangers) {
        raw_peer_t stranger(path);
        stranger.send(bytes);
        shutdown(stranger.fd.get(), SHUT_WR);
        EXPECT_TRUE(loop.run_until([&] { return stranger.is_closed(); }));
    }
    EXPECT_EQ(five.ups + six.ups, 0);

    raw_peer_t six_peer(path), silent(path);
    six_peer.send(lib_header(8, 6, 7, MSGQ_HDR_REGISTER));
    loop.settle();
    EXPECT_EQ(five.ups, 0);
    EXPECT_EQ(six.ups, 1);
    msgq_free(five.handle);
    raw_peer_t late(path); // the listener stays with the handle that is left
    loop.settle();
    EXPECT_FALSE(late.is_closed() || silent.is_closed());
    msgq_free(six.handle); // and takes those along who have not said who they are
    EXPECT_TRUE(late.is_closed() && silent.is_closed());
}

TEST(msgq, wrong_use_of_init_is_fatal_or_refused)
{
    temp_dir dir;
    std::string path = dir.path("queue");
    using change_t = void (*)(msgq_cfg_t & cfg, msgq_cbs_t & cbs);
    auto client_with = [&](change_t change) {
        loop_t loop;
        msgq_cfg_t cfg = loop.config(APPLICATION, path);
        msgq_cbs_t cbs = end_callbacks;
        change(cfg, cbs);
        (void)msgq_init(5, 7, MSGQ_HANDLE_TYPE_CLIENT, &cfg, &cbs, nullptr);
    };
    const change_t changes[] = {
        [](msgq_cfg_t &cfg, msgq_cbs_t &) { cfg.event_base = nullptr; },
        [](msgq_cfg_t &cfg, msgq_cbs_t &) { cfg.timer_mgr = nullptr; },
        [](msgq_cfg_t &cfg, msgq_cbs_t &) { cfg.app_hdrlen = 0; },
        [](msgq_cfg_t &cfg, msgq_cbs_t &) { cfg.app_hdrlen = 65; },
        [](msgq_cfg_t &cfg, msgq_cbs_t &) { cfg.app_size_offset = 5; },
        [](msgq_cfg_t &cfg, msgq_cbs_t &) { cfg.app_size_offset = UINT32_MAX; },
        [](msgq_cfg_t &cfg, msgq_cbs_t &) { cfg.sock_type = 3; },
        [](msgq_cfg_t &, msgq_cbs_t &cbs) { cbs.rx = nullptr; },
        [](msgq_cfg_t &, msgq_cbs_t &cbs) { cbs.conn_error = nullptr; },
    };
    for (change_t change : changes)
        expect_assertion([&] { client_with(change); }, "msgq_util:");

    auto two_servers = [&](const framing_t &first, const framing_t &second, uint32_t second_tgt) {
        loop_t loop;
        end_t one, two;
        loop.server(one, first, path);
        loop.server(two, second, path, second_tgt);
    };
    expect_assertion([&] { two_servers(LIBRARY, LIBRARY, 5); }, "!is_duplicate");
    expect_assertion([&] { two_servers(APPLICATION, APPLICATION, 6); }, "apphead_msgq_handle_p");
    expect_assertion([&] { two_servers(LIBRARY, APPLICATION, 6); }, "server_p->listener_apphdr) || ");

    loop_t loop;
    end_t end;
    msgq_cfg_t cfg = loop.config(LIBRARY, path);
    const std::pair<uint32_t, uint32_t> bad_ids[] = { { 0, 7 }, { 5, 0 }, { 161, 7 }, { 5, 161 } };
    for (auto [src, tgt] : bad_ids)
        EXPECT_EQ(msgq_init(src, tgt, MSGQ_HANDLE_TYPE_SERVER, &cfg, &end_callbacks, &end), nullptr);
    for (const char *unusable : { "directory", "absent/queue" }) {
        mkdir(dir.path("directory").c_str(), 0700);
        mkdir(dir.path("directory/full").c_str(), 0700);
        loop.server(end, LIBRARY, dir.path(unusable));
        EXPECT_EQ(end.handle, nullptr) << unusable;
    }
}

TEST(msgq, the_dump_tells_of_every_handle)
{
    std::string text;
    auto collect = [](void *arg, const char *piece) {
        *static_cast<std::string *>(arg) += piece;
    };
    msgq_dump_all(collect, &text, 0);
    EXPECT_EQ(text.rfind("\n   =============\n   DUMPING MSGQs", 0), 0u);
    EXPECT_EQ(text.find("SERVER"), std::string::npos);

    temp_dir dir;
    loop_t loop;
    end_t server, client, away;
    loop.server(server, LIBRARY, dir.path("queue"));
    loop.client(client, LIBRARY, dir.path("queue"));
    loop.client(away, LIBRARY, ""); // not tried before the loop runs
    msgq_dump_all(collect, &text, 1);
    for (const char *part : { "SERVER", "CLIENT", "src cfgmgr tgt sysmgrd", "src sysmgrd tgt cfgmgr",
                              "path /var/run/.sysmgrd", "tx_msg: 0", "rx_read_helper_scheduled: 0" })
        EXPECT_NE(text.find(part), std::string::npos) << part;
}

TEST(daemon_names, ids_and_names_map_to_each_other)
{
    struct row_t {
        uint32_t id;
        const char *name;
    };
    const row_t rows[] = {
        { 0, "unknown" },    { 1, "ovcd" },        { 5, "CfgMgr" },
        { 7, "sysmgrd" },    { 11, "tdhcpcd" },    { 21, "wland" },
        { 22, "wwand" },     { 29, "zebra" },      { 32, "tdaemon_internal_max" },
        { 33, "tdaemon_0" }, { 43, "tdaemon_10" }, { 96, "tdaemon_63" },
        { 97, "orbel_0" },   { 160, "orbel_63" },
    };
    for (const row_t &row : rows) {
        EXPECT_STRCASEEQ(daemon_id_to_name(row.id), row.name);
        EXPECT_EQ(daemon_name_to_id(row.name), row.id);
    }
    for (uint32_t id = 0; id <= DAEMON_ID_MAX; ++id)
        EXPECT_EQ(daemon_name_to_id(daemon_id_to_name(id)), id);
    EXPECT_EQ(daemon_name_to_id("orbel_64"), DAEMON_ID_UNKNOWN);
    expect_assertion([] { (void)daemon_id_to_name(161); }, "tip_util:428: failed assertion `");
}

} // namespace
