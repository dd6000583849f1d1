// The message queue's traffic: both framings, whole and in parts, and what happens when a socket takes no more.
#include "tests/harness/death.h"
#include "tests/unit/common_msgq_env.h"

#include <arpa/inet.h>
#include <csignal>
#include <random>
#include <thread>

namespace
{

class msgq_traffic : public testing::TestWithParam<framing_t>
{
protected:
    // A server handle and a bare peer, connected.
    void enter()
    {
        loop.server(server, GetParam(), path);
        peer = std::make_unique<raw_peer_t>(path);
        peer->enter(GetParam());
        ASSERT_TRUE(loop.run_until([&] { return server.ups == 1; }));
    }

    temp_dir dir;
    std::string path = dir.path("queue");
    end_t server, client;
    loop_t loop;
    std::unique_ptr<raw_peer_t> peer;
};
INSTANTIATE_TEST_SUITE_P(framings, msgq_traffic, testing::Values(LIBRARY, APPLICATION),
                         [](const auto &info) { return info.param.name; });

TEST_P(msgq_traffic, messages_go_both_ways_and_are_answered_from_within_the_callbacks)
{
    client.on_up = [](end_t &end) {
        EXPECT_EQ(end.write("hello"), MSGQ_OK);
    };
    server.on_rx = [](end_t &end) {
        EXPECT_EQ(end.write("re: " + end.bodies.back()), MSGQ_OK);
    };
    loop.server(server, GetParam(), path);
    loop.client(client, GetParam(), path);
    EXPECT_EQ(client.write("too early"), MSGQ_NOT_CONNECTED);
    ASSERT_TRUE(loop.run_until([&] { return client.bodies.size() == 1; }));
    EXPECT_EQ(server.bodies, std::vector<std::string>{ "hello" });
    EXPECT_EQ(client.bodies, std::vector<std::string>{ "re: hello" });
    EXPECT_EQ(client.counters().tx_register, GetParam().use_app_header ? 0u : 1u);
    EXPECT_EQ(server.counters().rx_register, GetParam().use_app_header ? 0u : 1u);
    EXPECT_EQ(client.counters().msg_allocs, client.counters().msg_frees);
    EXPECT_EQ(server.counters().msg_allocs, server.counters().msg_frees);
}

TEST_P(msgq_traffic, a_message_may_arrive_byte_by_byte)
{
    loop.server(server, GetParam(), path);
    raw_peer_t slow(path);
    std::string bytes = GetParam().use_app_header ? "" : lib_header(8, 5, 7, MSGQ_HDR_REGISTER);
    bytes += frame(GetParam(), "first") + frame(GetParam(), "x");
    for (char byte : bytes) {
        slow.send(std::string(1, byte));
        loop.turn();
        loop.turn();
    }
    loop.settle();
    EXPECT_EQ(server.bodies, (std::vector<std::string>{ "first", "x" }));
    slow.send(frame(GetParam(), "a") + frame(GetParam(), "b") +
              frame(GetParam(), "c").substr(0, GetParam().header_size));
    loop.settle();
    EXPECT_EQ(server.bodies.size(), 4u);
    slow.send("c");
    loop.settle();
    EXPECT_EQ(server.bodies, (std::vector<std::string>{ "first", "x", "a", "b", "c" }));
}

TEST_P(msgq_traffic, a_full_socket_delays_messages_and_loses_none)
{
    enter();
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(server.write(std::string(60000, 'l')), MSGQ_OK);
    peer->fd.reset(); // what waits for this peer is lost, and does not hold up the next one
    ASSERT_TRUE(loop.run_until([&] { return server.downs == 1; }));
    EXPECT_EQ(server.counters().msg_allocs, server.counters().msg_frees);
    uint32_t sent_before = server.counters().tx_msg;
    peer = std::make_unique<raw_peer_t>(path);
    peer->enter(GetParam());
    ASSERT_TRUE(loop.run_until([&] { return server.ups == 2; }));

    std::mt19937 random(1);
    std::string expected, received;
    for (int i = 0; i < 200; ++i) {
        std::string body(1 + random() % 60000, static_cast<char>('a' + i % 26));
        ASSERT_EQ(server.write(body), MSGQ_OK);
        std::string sent = frame(GetParam(), body);
        if (!GetParam().use_app_header)
            std::swap(sent[4], sent[5]);
        expected += sent;
    }
    EXPECT_GT(server.counters().tx_resched, 0u);
    EXPECT_GT(server.counters().msg_allocs, server.counters().msg_frees);
    ASSERT_TRUE(loop.run_until([&] {
        received += peer->receive(1 + random() % 200000);
        return received.size() >= expected.size();
    }));
    EXPECT_TRUE(received == expected);
    EXPECT_GT(server.counters().tx_write_cb, 0u);
    EXPECT_EQ(server.counters().tx_msg - sent_before, 200u);
    EXPECT_EQ(server.counters().tx_queued, server.counters().tx_dequeued);
    EXPECT_EQ(server.counters().msg_allocs, server.counters().msg_frees);
}

TEST_P(msgq_traffic, the_largest_message_passes_and_a_larger_one_cannot_be_made)
{
    enter();
    uint32_t most = GetParam().use_app_header ? 65535 : 65527;
    EXPECT_EQ(msgq_msg_alloc(server.handle, most + 1), nullptr);
    EXPECT_EQ(msgq_msg_alloc(server.handle, UINT32_MAX), nullptr);
    EXPECT_EQ(server.counters().alloc_failed, 2u);
    std::string body(65535 - GetParam().header_size, 'z');
    peer->send(frame(GetParam(), body));
    loop.settle();
    ASSERT_EQ(server.bodies.size(), 1u);
    EXPECT_TRUE(server.bodies[0] == body);
    EXPECT_EQ(server.write(body), MSGQ_OK);
}

TEST_P(msgq_traffic, a_peer_that_dies_in_the_middle_of_a_message_takes_it_along)
{
    for (size_t sent : { size_t{ 3 }, GetParam().header_size, GetParam().header_size + 2 }) {
        SCOPED_TRACE(sent);
        end_t end;
        loop.server(end, GetParam(), path);
        raw_peer_t dying(path);
        dying.enter(GetParam());
        dying.send(frame(GetParam(), "unfinished").substr(0, sent));
        loop.settle();
        dying.fd.reset();
        ASSERT_TRUE(loop.run_until([&] { return end.downs == 1; }));
        EXPECT_EQ(end.counters().rx_fail, 1u);
        EXPECT_EQ(end.counters().msg_allocs, end.counters().msg_frees);

        raw_peer_t next(path);
        next.enter(GetParam());
        next.send(frame(GetParam(), "whole"));
        loop.settle();
        EXPECT_EQ(end.bodies, std::vector<std::string>{ "whole" });
        msgq_free(end.handle);
    }
}

TEST_P(msgq_traffic, a_write_to_a_dead_peer_closes_from_the_loop_and_not_before)
{
    enter();
    peer->fd.reset();
    EXPECT_EQ(server.write("taken, and lost"), MSGQ_OK);
    EXPECT_EQ(msgq_is_up(server.handle), 0);
    EXPECT_EQ(server.downs, 0);
    EXPECT_EQ(server.write("refused"), MSGQ_NOT_CONNECTED);
    ASSERT_TRUE(loop.run_until([&] { return server.downs == 1; }));
    EXPECT_EQ(server.counters().tx_fail, 1u);
    EXPECT_EQ(server.counters().msg_allocs, server.counters().msg_frees);
    EXPECT_EQ(server.counters().tx_queued, 0u);
}

TEST_P(msgq_traffic, a_refused_write_leaves_the_message_with_the_caller)
{
    enter();
    void *msg = msgq_msg_alloc(server.handle, 20);
    EXPECT_EQ(msgq_write(nullptr, msg, 20), MSGQ_BAD_ARGUMENT);
    EXPECT_EQ(msgq_write(server.handle, nullptr, 20), MSGQ_BAD_ARGUMENT);
    EXPECT_EQ(msgq_write(server.handle, msg, 0), MSGQ_BAD_ARGUMENT);
    memory_t::get().fail_after = 0;
    EXPECT_EQ(msgq_write(server.handle, msg, 20), MSGQ_NO_RESOURCES);
    memory_t::get().fail_after = -1;
    EXPECT_EQ(server.counters().tx_queue_failed, 1u);
    EXPECT_EQ(memory_t::get().blocks.size(), 1u);
    msgq_msg_free(server.handle, msg);
}

TEST_P(msgq_traffic, a_scheduled_read_runs_once_from_the_loop)
{
    enter();
    msgq_schedule_read(server.handle);
    msgq_schedule_read(server.handle);
    EXPECT_EQ(server.counters().rx_read_helper_scheduled, 1u);
    EXPECT_EQ(server.counters().rx_read_helper_cb, 0u);
    loop.settle();
    EXPECT_EQ(server.counters().rx_read_helper_cb, 1u);
    msgq_schedule_read(server.handle);
    loop.settle();
    EXPECT_EQ(server.counters().rx_read_helper_cb, 2u);
}

// A listener that answers each of `answers` messages by the same bytes in capitals, in parts, and then hangs up.
class responder_t
{
public:
    responder_t(int family, const framing_t &framing, const std::string &path, int answers)
        : listener_(socket(family, SOCK_STREAM, 0))
    {
        if (family == AF_UNIX) {
            sockaddr_un address = {};
            address.sun_family = AF_UNIX;
            strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
            EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        }
        EXPECT_EQ(listen(listener_.get(), 1), 0); // TCP: any free port of any address
        thread_ = std::thread([=, this] { serve(framing, answers); });
    }
    ~responder_t() { thread_.join(); }

    uint16_t port() const
    {
        sockaddr_in address = {};
        socklen_t length = sizeof address;
        getsockname(listener_.get(), reinterpret_cast<sockaddr *>(&address), &length);
        return ntohs(address.sin_port);
    }

private:
    void serve(const framing_t &framing, int answers) const
    {
        unique_fd fd(accept(listener_.get(), nullptr, nullptr));
        char bytes[4096];
        if (!framing.use_app_header) {
            EXPECT_EQ(recv(fd.get(), bytes, 8, MSG_WAITALL), 8);
        }
        for (int i = 0; i < answers; ++i) {
            auto header = static_cast<ssize_t>(framing.header_size);
            ASSERT_EQ(recv(fd.get(), bytes, header, MSG_WAITALL), header);
            ssize_t size = framing.use_app_header ? bytes[1] : bytes[2];
            ASSERT_EQ(recv(fd.get(), bytes + header, size - header, MSG_WAITALL), size - header);
            for (ssize_t at = 0; at < size; ++at) {
                char byte = at < header ? bytes[at] : static_cast<char>(toupper(bytes[at]));
                send(fd.get(), &byte, 1, MSG_NOSIGNAL);
                if (at == 2 || at == header)
                    usleep(2000);
            }
        }
    }
    unique_fd listener_;
    std::thread thread_;
};

TEST_P(msgq_traffic, a_blocking_client_has_the_answer_when_write_returns)
{
    for (int family : { AF_UNIX, AF_INET }) {
        SCOPED_TRACE(family);
        end_t end;
        responder_t responder(family, GetParam(), path, 2);
        msgq_cfg_t cfg = loop.config(GetParam(), path);
        cfg.blocking = 1;
        cfg.sock_type = static_cast<uint32_t>(family);
        cfg.port = family == AF_INET ? responder.port() : 0;
        strcpy(cfg.ip, "127.0.0.1");
        end.handle = msgq_init(5, 7, MSGQ_HANDLE_TYPE_CLIENT, &cfg, &end_callbacks, &end);
        EXPECT_EQ(end.ups, 1);
        EXPECT_TRUE(msgq_get_blocking(end.handle));

        end.on_rx = [](end_t &self) {
            if (self.bodies.size() == 1) {
                EXPECT_EQ(self.write("again"), MSGQ_OK);
            }
        };
        EXPECT_EQ(end.write("ask"), MSGQ_OK);
        EXPECT_EQ(end.bodies, (std::vector<std::string>{ "ASK", "AGAIN" }));
        EXPECT_EQ(msgq_is_up(end.handle), 1) << "waited for more than the answer";

        // The responder has hung up: sending fails at once, or the answer does not come.
        (void)end.write("nobody there");
        loop.settle();
        EXPECT_EQ(end.downs, 1);
        EXPECT_EQ(end.write("down"), MSGQ_NOT_CONNECTED);
        EXPECT_EQ(end.counters().msg_allocs, end.counters().msg_frees);
        msgq_free(end.handle);
    }
}

TEST_P(msgq_traffic, a_client_that_does_not_block_works_over_tcp)
{
    responder_t responder(AF_INET, GetParam(), path, 1);
    msgq_cfg_t cfg = loop.config(GetParam(), path);
    cfg.sock_type = MSGQ_SOCK_TCP;
    cfg.port = responder.port();
    strcpy(cfg.ip, "127.0.0.1");
    client.on_up = [](end_t &end) {
        EXPECT_EQ(end.write("ask"), MSGQ_OK);
    };
    client.handle = msgq_init(5, 7, MSGQ_HANDLE_TYPE_CLIENT, &cfg, &end_callbacks, &client);
    ASSERT_TRUE(loop.run_until([&] { return client.downs == 1; }));
    EXPECT_EQ(client.bodies, std::vector<std::string>{ "ASK" });
}

TEST(msgq, a_stream_that_breaks_the_framing_ends_the_process)
{
    struct row_t {
        const framing_t &framing;
        std::string bytes;
        const char *condition;
    };
    const row_t rows[] = {
        { LIBRARY, lib_header(8, 5, 7, MSGQ_HDR_DATA), "msg_size > hdrlen" },
        { LIBRARY, lib_header(0, 5, 7, MSGQ_HDR_DATA), "msg_size > hdrlen" },
        { LIBRARY, lib_header(8, 5, 7, MSGQ_HDR_REGISTER), "in_tmp_list" },
        { APPLICATION, app_header(6), "msg_size > app_hdrlen" },
        { APPLICATION, app_header(0), "msg_size > app_hdrlen" },
    };
    temp_dir dir;
    for (const row_t &row : rows) {
        auto code = [&] {
            loop_t loop;
            end_t server;
            loop.server(server, row.framing, dir.path("queue"));
            raw_peer_t peer(dir.path("queue"));
            peer.enter(row.framing);
            peer.send(row.bytes);
            loop.run_until([] { return false; });
        };
        expect_assertion(code, row.condition);
    }
}

TEST(msgq, a_message_is_never_dropped_for_want_of_memory)
{
    temp_dir dir;
    auto code = [&] {
        loop_t loop;
        end_t server;
        loop.server(server, LIBRARY, dir.path("queue"));
        raw_peer_t peer(dir.path("queue"));
        peer.enter(LIBRARY);
        peer.send(frame(LIBRARY, "body"));
        memory_t::get().fail_after = 0;
        loop.run_until([] { return false; });
    };
    expect_assertion(code, "msgq_read:");
}

TEST(msgq, a_message_longer_than_its_buffer_or_not_made_by_alloc_is_fatal)
{
    temp_dir dir;
    auto write_after = [&](void (*spoil)(char *msg), uint32_t size) {
        loop_t loop;
        end_t server;
        loop.server(server, LIBRARY, dir.path("queue"));
        auto *msg = static_cast<char *>(msgq_msg_alloc(server.handle, 10));
        spoil(msg);
        (void)msgq_write(server.handle, msg, size);
    };
    expect_assertion([&] { write_after([](char *) {}, 11); }, "app_size <= msgq_size_msg_to_app(msgq_p, hdr_p->size)");
    expect_assertion([&] { write_after([](char *msg) { msg[-1] = 0; }, 10); },
                     "(hdr_p->magic1 == MAGIC1) && (hdr_p->magic2 == MAGIC2)");
}

} // namespace
