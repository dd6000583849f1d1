// The client library on bad and good connections: frames in pieces, pushes at awkward moments, ends, forgeries.
#include "agent/client/confd_cdb.h"
#include "agent/client/confd_dp.h"
#include "agent/client/confd_events.h"
#include "agent/client/confd_maapi.h"
#include "tests/harness/temp_dir.h"
#include "tests/unit/confd_fake_agent.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

namespace
{

std::string u32_payload(uint32_t number)
{
    wire_writer_t out;
    out.u32(number);
    return out.bytes;
}

std::string event_payload(uint8_t type, std::initializer_list<int32_t> points)
{
    wire_writer_t out;
    out.u8(type);
    out.u32(WIRE_SUB_FLAG_TRIGGERED);
    out.u32(static_cast<uint32_t>(points.size()));
    for (int32_t point : points)
        out.i32(point);
    return out.bytes;
}

int connect_data(const client_fd &client, const fake_agent &agent)
{
    return cdb_connect(client.fd, CDB_DATA_SOCKET, agent.address(), agent.address_size());
}

int connect_subscriber(const client_fd &client, const fake_agent &agent)
{
    return cdb_connect(client.fd, CDB_SUBSCRIPTION_SOCKET, agent.address(), agent.address_size());
}

TEST(confd_io, the_hello_tells_who_connects_with_what_secret)
{
    temp_dir dir;
    dir.write("secret", "  open sesame \n");
    setenv("CONFD_IPC_ACCESS_FILE", dir.path("secret").c_str(), 1);
    confd_init("tester", stderr, CONFD_SILENT);
    fake_request_t hello;
    {
        fake_agent agent({ [&](fake_peer &peer) {
            hello = peer.greet();
        } });
        client_fd client;
        EXPECT_EQ(connect_data(client, agent), CONFD_OK);
    }
    unsetenv("CONFD_IPC_ACCESS_FILE");
    wire_reader_t in(hello.payload);
    EXPECT_EQ(hello.header.op, WIRE_HELLO);
    EXPECT_EQ(in.u16(), WIRE_VERSION);
    EXPECT_EQ(in.u8(), WIRE_KIND_CDB_DATA);
    EXPECT_EQ(in.text(), "tester");
    EXPECT_EQ(in.u32(), static_cast<uint32_t>(getpid()));
    EXPECT_EQ(in.text(), "open sesame");
    EXPECT_EQ(in.u32(), 0u);
    EXPECT_TRUE(in.finished());
}

TEST(confd_io, a_refused_hello_fails_with_the_agents_words)
{
    fake_agent agent({ [](fake_peer &peer) {
        peer.refuse(peer.read(), CONFD_ERR_ACCESS_DENIED, "wrong secret");
    } });
    client_fd client;
    EXPECT_EQ(connect_data(client, agent), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_ACCESS_DENIED);
    EXPECT_STREQ(confd_lasterr(), "wrong secret");
    EXPECT_EQ(cdb_wait_start(client.fd), CONFD_ERR); // not connected
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
}

TEST(confd_io, an_agent_that_is_not_there_is_a_system_error)
{
    sockaddr_in nowhere = {};
    nowhere.sin_family = AF_INET;
    nowhere.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    nowhere.sin_port = htons(1);
    client_fd client;
    EXPECT_EQ(cdb_connect(client.fd, CDB_DATA_SOCKET, reinterpret_cast<sockaddr *>(&nowhere), sizeof nowhere),
              CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_OS);
}

TEST(confd_io, a_reply_may_come_byte_by_byte)
{
    fake_agent agent({ [](fake_peer &peer) {
        peer.greet();
        peer.send_bytewise(peer.reply_frame(peer.read(), u32_payload(1234567)));
    } });
    client_fd client;
    ASSERT_EQ(connect_data(client, agent), CONFD_OK);
    EXPECT_EQ(cdb_num_instances(client.fd, "/vpn/vpn-instance"), 1234567);
}

TEST(confd_io, a_delivery_before_the_reply_is_kept_for_its_reader)
{
    fake_agent agent({ [](fake_peer &peer) {
        peer.greet();
        fake_request_t request = peer.read();
        std::string burst = wire_frame(WIRE_SUB_EVENT, 0, 0, event_payload(2, { 4, 9 }));
        burst += peer.reply_frame(request, {});
        burst += wire_frame(WIRE_SUB_EVENT, 0, 0, event_payload(4, {}));
        peer.send_bytewise(burst);
        peer.read();
    } });
    client_fd client;
    ASSERT_EQ(connect_subscriber(client, agent), CONFD_OK);
    ASSERT_EQ(cdb_subscribe_done(client.fd), CONFD_OK);

    cdb_sub_notification type;
    int flags = 0, n = 0;
    int *points = nullptr;
    ASSERT_EQ(cdb_read_subscription_socket2(client.fd, &type, &flags, &points, &n), CONFD_OK);
    EXPECT_EQ(type, CDB_SUB_COMMIT);
    EXPECT_EQ(flags, CDB_SUB_FLAG_TRIGGER);
    EXPECT_EQ(std::vector<int>(points, points + n), (std::vector<int>{ 4, 9 }));
    free(points);
    ASSERT_EQ(cdb_read_subscription_socket2(client.fd, &type, &flags, &points, &n), CONFD_OK);
    EXPECT_EQ(type, CDB_SUB_OPER);
    EXPECT_EQ(n, 0);
    EXPECT_NE(points, nullptr);
    free(points);
}

TEST(confd_io, the_end_in_the_middle_of_a_reply_is_the_end)
{
    // Everything but the last byte, for each length down to nothing.
    for (size_t missing : { 1, 4, 5, 15, 16 }) {
        fake_agent agent({ [missing](fake_peer &peer) {
            peer.greet();
            std::string frame = peer.reply_frame(peer.read(), u32_payload(1));
            peer.send(frame.substr(0, frame.size() - missing));
        } });
        client_fd client;
        ASSERT_EQ(connect_data(client, agent), CONFD_OK);
        EXPECT_EQ(cdb_num_instances(client.fd, "/a"), CONFD_EOF) << missing;
        EXPECT_EQ(cdb_num_instances(client.fd, "/a"), CONFD_EOF) << missing; // and stays it
    }
}

TEST(confd_io, a_peer_that_breaks_the_protocol_is_shut_out)
{
    using forge_t = std::string (*)(fake_request_t);
    static constexpr forge_t forgeries[] = {
        [](fake_request_t r) { // another id
            r.header.id++;
            return fake_peer::reply_frame(r, u32_payload(1));
        },
        [](fake_request_t r) { // another operation
            r.header.op = WIRE_CDB_GET;
            return fake_peer::reply_frame(r, u32_payload(1));
        },
        [](fake_request_t r) { // no reply
            return wire_frame(r.header.op, 0, r.header.id, u32_payload(1));
        },
        [](fake_request_t r) { // longer than a frame may be
            wire_header_t header = { WIRE_MAX_FRAME + 1, static_cast<uint16_t>(r.header.op | WIRE_REPLY), 0,
                                     r.header.id };
            return std::string(reinterpret_cast<char *>(&header), sizeof header);
        },
    };
    for (forge_t forge : forgeries) {
        fake_agent agent({ [forge](fake_peer &peer) {
            peer.greet();
            peer.send(forge(peer.read()));
            EXPECT_EQ(peer.read().header.op, 0); // the client's end comes
        } });
        client_fd client;
        ASSERT_EQ(connect_data(client, agent), CONFD_OK);
        EXPECT_EQ(cdb_num_instances(client.fd, "/a"), CONFD_ERR);
        EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
        EXPECT_EQ(cdb_num_instances(client.fd, "/a"), CONFD_EOF);
    }
}

TEST(confd_io, a_malformed_payload_fails_the_call_and_not_the_connection)
{
    fake_agent agent({ [](fake_peer &peer) {
        peer.greet();
        peer.reply(peer.read(), u32_payload(1) + "x");
        peer.reply(peer.read(), "");
        peer.reply(peer.read(), std::string("\x05\xff\xff\xff\xff", 5));
        peer.reply(peer.read(), u32_payload(3));
    } });
    client_fd client;
    ASSERT_EQ(connect_data(client, agent), CONFD_OK);
    EXPECT_EQ(cdb_num_instances(client.fd, "/a"), CONFD_ERR);
    EXPECT_EQ(cdb_exists(client.fd, "/a"), CONFD_ERR);
    confd_value_t value;
    EXPECT_EQ(cdb_get(client.fd, &value, "/a"), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    EXPECT_EQ(cdb_num_instances(client.fd, "/a"), 3);
}

// The first number from 100 on, which the threads of a played agent do not take.
void move_up(client_fd &client)
{
    int moved = fcntl(client.fd, F_DUPFD_CLOEXEC, 100);
    close(client.fd);
    client.fd = moved;
}

TEST(confd_io, a_number_connected_anew_forgets_what_it_was)
{
    auto script = [](fake_peer &peer) {
        peer.greet();
        fake_request_t request = peer.read();
        wire_reader_t in(request.payload);
        EXPECT_EQ(in.text(), "/leaf");
        peer.reply(request, std::string(1, 1));
    };
    fake_agent agent({ [](fake_peer &peer) { peer.greet(); }, script });
    int number = -1;
    {
        client_fd client;
        move_up(client);
        number = client.fd;
        ASSERT_EQ(connect_data(client, agent), CONFD_OK);
        ASSERT_EQ(cdb_cd(client.fd, "/vpn/vpn-instance{5}"), CONFD_OK);
    }
    client_fd client;
    move_up(client);
    ASSERT_EQ(client.fd, number);
    ASSERT_EQ(connect_data(client, agent), CONFD_OK);
    EXPECT_EQ(cdb_exists(client.fd, "leaf"), 1);
    EXPECT_EQ(cdb_subscribe_done(client.fd), CONFD_ERR); // and it is no subscription socket
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
}

TEST(confd_io, a_daemon_sees_the_agent_go_and_its_worker_carries_its_id)
{
    uint32_t worker_id = 0;
    confd_daemon_ctx *dx = confd_init_daemon("tester");
    {
        fake_agent agent({ [](fake_peer &peer) {
                              peer.greet(77);
                              peer.refuse(peer.read(), CONFD_ERR_ALREADY_EXISTS, "taken");
                              fake_request_t request = peer.read();
                              EXPECT_EQ(request.header.op, WIRE_REG_NOTIF_STREAM);
                              peer.reply(request, u32_payload(5));
                              peer.push(WIRE_MAAPI_MESSAGE, "");
                          },
                           [&](fake_peer &peer) {
                               fake_request_t hello = peer.greet();
                               wire_reader_t in(hello.payload);
                               in.u16(), in.u8(), in.text(), in.u32(), in.text();
                               worker_id = in.u32();
                           } });
        client_fd control, worker;
        EXPECT_EQ(confd_connect(dx, worker.fd, WORKER_SOCKET, agent.address(), agent.address_size()), CONFD_ERR);
        EXPECT_EQ(confd_errno, CONFD_ERR_BADSTATE);
        ASSERT_EQ(confd_connect(dx, control.fd, CONTROL_SOCKET, agent.address(), agent.address_size()), CONFD_OK);

        confd_valpoint_cb valpoint = {};
        strcpy(valpoint.valpoint, "check");
        EXPECT_EQ(confd_register_valpoint_cb(dx, &valpoint), CONFD_ERR);
        EXPECT_STREQ(confd_lasterr(), "taken");
        confd_notification_stream_cbs stream = {};
        strcpy(stream.streamname, "events");
        confd_notification_ctx *nctx = nullptr;
        EXPECT_EQ(confd_register_notification_stream(dx, &stream, &nctx), CONFD_OK);
        EXPECT_NE(nctx, nullptr);

        EXPECT_EQ(confd_fd_ready(dx, control.fd), CONFD_ERR);
        EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
        EXPECT_EQ(confd_fd_ready(dx, control.fd), CONFD_EOF);
        ASSERT_EQ(confd_connect(dx, worker.fd, WORKER_SOCKET, agent.address(), agent.address_size()), CONFD_OK);
        EXPECT_EQ(confd_fd_ready(dx, worker.fd), CONFD_EOF);
    }
    EXPECT_EQ(worker_id, 77u);
    confd_release_daemon(dx);
}

TEST(confd_io, a_commit_event_fills_its_record_and_cuts_long_names)
{
    fake_agent agent({ [](fake_peer &peer) {
        peer.greet();
        fake_request_t request = peer.read();
        wire_writer_t event;
        event.u32(WIRE_NOTIF_COMMIT_SIMPLE);
        event.u8(WIRE_CONFD_RUNNING);
        event.u32(12);
        event.text(std::string(200, 'u'));
        event.text("cli");
        event.text("10.0.0.1");
        peer.push(WIRE_NOTIF_EVENT, event.bytes);
        peer.reply(request);
        peer.push(WIRE_NOTIF_EVENT, event.bytes.substr(0, 20));
    } });
    client_fd client;
    ASSERT_EQ(confd_notifications_connect2(client.fd, agent.address(), agent.address_size(), CONFD_NOTIF_COMMIT_SIMPLE,
                                           nullptr),
              CONFD_OK);
    confd_notification event;
    ASSERT_EQ(confd_read_notification(client.fd, &event), CONFD_OK);
    EXPECT_EQ(event.n.commit.database, CONFD_RUNNING);
    EXPECT_EQ(event.n.commit.uinfo.usid, 12);
    EXPECT_EQ(std::string(event.n.commit.uinfo.username), std::string(63, 'u'));
    EXPECT_STREQ(event.n.commit.uinfo.src_addr, "10.0.0.1");
    confd_free_notification(&event);
    EXPECT_EQ(confd_read_notification(client.fd, &event), CONFD_ERR);
    EXPECT_EQ(event.type, 0);
    EXPECT_EQ(confd_read_notification(client.fd, &event), CONFD_EOF);
}

} // namespace
