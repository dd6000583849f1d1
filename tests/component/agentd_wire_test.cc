// agentd as the wire sees it: hellos, frames that are wrong, order, slow and silent clients, registrations, admin.
#include "tests/component/agentd_process.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

static std::string path_payload(const std::string &path)
{
    wire_writer_t payload;
    payload.text(path);
    return payload.bytes;
}

static std::string session_payload(wire_db_t db, uint32_t flags = 0)
{
    wire_writer_t payload;
    payload.u8(db);
    payload.u32(flags);
    return payload.bytes;
}

static std::string hello_payload(uint16_t version, uint8_t kind, const std::string &name = "raw")
{
    wire_writer_t hello;
    hello.u16(version);
    hello.u8(kind);
    hello.text(name);
    hello.u32(1000);
    hello.text("");
    hello.u32(0);
    return hello.bytes;
}

static std::string user_payload(const std::string &user)
{
    wire_writer_t payload;
    payload.text(user);
    payload.text("cli");
    payload.text("127.0.0.1");
    payload.u16(0);
    return payload.bytes;
}

struct bad_frame_t {
    const char *what;
    wire_kind_t kind; // WIRE_KIND_COUNT: no hello before
    std::string bytes;
    int status; // of the reply; -1: the connection just ends
};

static std::vector<bad_frame_t> bad_frames()
{
    std::string path = path_payload("/net/banner");
    std::string huge_hello = wire_frame(WIRE_HELLO, 0, 1, "");
    uint32_t length = WIRE_MAX_HELLO + 1;
    memcpy(huge_hello.data(), &length, sizeof length);
    std::string huge_frame = wire_frame(WIRE_CDB_GET, 0, 1, "");
    length = WIRE_MAX_FRAME + 1;
    memcpy(huge_frame.data(), &length, sizeof length);
    return {
        { "garbage", WIRE_KIND_COUNT, "GET / HTTP/1.0\r\n\r\n", CONFD_ERR_TOOBIG },
        { "an oversize hello", WIRE_KIND_COUNT, huge_hello, CONFD_ERR_TOOBIG },
        { "an operation before the hello", WIRE_KIND_COUNT, wire_frame(WIRE_CDB_GET, 0, 1, path),
          CONFD_ERR_PROTOUSAGE },
        { "another version", WIRE_KIND_COUNT, wire_frame(WIRE_HELLO, 0, 1, hello_payload(99, 3)),
          CONFD_ERR_PROTOUSAGE },
        { "an unknown kind", WIRE_KIND_COUNT, wire_frame(WIRE_HELLO, 0, 1, hello_payload(1, 99)),
          CONFD_ERR_PROTOUSAGE },
        { "a truncated hello", WIRE_KIND_COUNT, wire_frame(WIRE_HELLO, 0, 1, "\1"), CONFD_ERR_PROTOUSAGE },
        { "a name too long", WIRE_KIND_COUNT, wire_frame(WIRE_HELLO, 0, 1, hello_payload(1, 3, std::string(1000, 'x'))),
          CONFD_ERR_TOOBIG },
        { "a second hello", WIRE_KIND_CDB_DATA, wire_frame(WIRE_HELLO, 0, 1, hello_payload(1, 3)),
          CONFD_ERR_PROTOUSAGE },
        { "an unknown operation", WIRE_KIND_CDB_DATA, wire_frame(9999, 0, 1, path), CONFD_ERR_PROTOUSAGE },
        { "an operation of another kind", WIRE_KIND_CDB_DATA, wire_frame(WIRE_ADMIN_STOP, 0, 1, ""),
          CONFD_ERR_PROTOUSAGE },
        { "a reply", WIRE_KIND_WORKER, wire_frame(WIRE_CDB_GET | WIRE_REPLY, 0, 1, ""), CONFD_ERR_PROTOUSAGE },
        { "an oversize frame", WIRE_KIND_CDB_DATA, huge_frame, CONFD_ERR_TOOBIG },
        { "a text longer than its payload", WIRE_KIND_CDB_DATA, wire_frame(WIRE_CDB_GET, 0, 1, "\xff\xff\xff\x7f"),
          CONFD_ERR_PROTOUSAGE },
        { "bytes behind the payload", WIRE_KIND_CDB_DATA, wire_frame(WIRE_CDB_GET, 0, 1, path + "x"),
          CONFD_ERR_PROTOUSAGE },
        { "a count that the payload cannot hold", WIRE_KIND_CDB_DATA,
          wire_frame(WIRE_CDB_TRIGGER, 0, 1, std::string("\0\0\0\0\0\xff\xff\xff\xff", 9)), CONFD_ERR_PROTOUSAGE },
    };
}

TEST(agentd_wire, wrong_frames_end_their_connection_with_a_reason_and_disturb_nobody)
{
    agentd_process agent;
    raw_client bystander(agent, WIRE_KIND_CDB_DATA);
    for (const bad_frame_t &frame : bad_frames()) {
        SCOPED_TRACE(frame.what);
        auto client = frame.kind == WIRE_KIND_COUNT ? std::make_unique<raw_client>(agent)
                                                    : std::make_unique<raw_client>(agent, frame.kind);
        client->send_bytes(frame.bytes);
        raw_client::frame_t reply = client->read_frame();
        EXPECT_EQ(reply.status, frame.status);
        EXPECT_FALSE(reply.text().empty());
        EXPECT_TRUE(client->is_at_end());
        EXPECT_EQ(bystander.ask(WIRE_CDB_GET_PHASE).status, 0);
    }
    EXPECT_NE(agent.log().find("no operation 9999 on a data connection"), std::string::npos);
}

TEST(agentd_wire, a_connection_without_a_hello_is_closed_in_time)
{
    agentd_process agent("hello-timeout-ms = 100\n");
    raw_client silent(agent);
    EXPECT_TRUE(silent.is_at_end());
    raw_client half(agent);
    half.send_bytes(wire_frame(WIRE_HELLO, 0, 1, hello_payload(1, 3)).substr(0, 15));
    EXPECT_TRUE(half.is_at_end());
}

TEST(agentd_wire, the_secret_is_asked_for_where_one_is_configured)
{
    temp_dir secrets;
    secrets.write("secret", "open sesame\n");
    agentd_process agent("ipc-access-file = " + secrets.path("secret") + "\n");
    for (const char *wrong : { "", "open", "open sesame!", "Open sesame" })
        EXPECT_EQ(raw_client(agent, WIRE_KIND_ADMIN, 1, wrong).hello_status, CONFD_ERR_ACCESS_DENIED) << wrong;
    EXPECT_EQ(raw_client(agent, WIRE_KIND_ADMIN, 1, "open sesame").hello_status, 0);
}

TEST(agentd_wire, requests_sent_at_once_are_answered_in_order)
{
    agentd_process agent;
    raw_client client(agent, WIRE_KIND_CDB_DATA);
    std::string all = wire_frame(WIRE_CDB_START_SESSION, 0, 1, session_payload(WIRE_DB_OPERATIONAL));
    for (uint32_t id = 2; id <= 500; id++)
        all += wire_frame(WIRE_CDB_EXISTS, 0, id, path_payload("/state/counter"));
    ASSERT_TRUE(client.send_bytes(all));
    for (uint32_t id = 1; id <= 500; id++) {
        raw_client::frame_t reply = client.read_frame();
        ASSERT_EQ(reply.status, 0);
        ASSERT_EQ(reply.id, id);
    }
}

TEST(agentd_wire, a_request_byte_by_byte_is_served)
{
    agentd_process agent;
    raw_client client(agent, WIRE_KIND_CDB_DATA);
    int one = 1;
    setsockopt(client.fd(), IPPROTO_TCP, 1 /* TCP_NODELAY */, &one, sizeof one);
    for (char byte : wire_frame(WIRE_CDB_GET_PHASE, 0, 9, ""))
        client.send_bytes({ &byte, 1 });
    EXPECT_EQ(client.read_frame().id, 9u);
}

TEST(agentd_wire, a_client_that_does_not_read_its_answers_blocks_nobody)
{
    agentd_process agent;
    raw_client greedy(agent, WIRE_KIND_SCHEMA);
    timeval limit = { 0, 200000 };
    setsockopt(greedy.fd(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    std::string requests;
    for (int i = 0; i < 1000; i++)
        requests += wire_frame(WIRE_SCHEMA, 0, 1, "");
    for (int i = 0; i < 400 && greedy.send_bytes(requests); i++) {
    }
    raw_client other(agent, WIRE_KIND_CDB_DATA);
    EXPECT_EQ(other.ask(WIRE_CDB_GET_PHASE).status, 0);
    std::string kilobytes;
    std::ifstream proc("/proc/" + std::to_string(agent.pid()) + "/status");
    for (std::string word; proc >> word;)
        if (word == "VmRSS:")
            proc >> kilobytes;
    EXPECT_LT(std::stol(kilobytes), 400000) << "answers must not pile up for a client that does not read";
    EXPECT_EQ(greedy.read_frame().status, 0);
}

TEST(agentd_wire, the_newer_owner_of_a_callpoint_wins_and_the_older_is_logged)
{
    agentd_process agent;
    raw_client older(agent, WIRE_KIND_CONTROL, 11);
    raw_client newer(agent, WIRE_KIND_CONTROL, 12);
    wire_writer_t row;
    row.text("labels");
    row.u32(3);
    for (raw_client *client : { &older, &newer }) {
        EXPECT_EQ(client->ask(WIRE_REG_DATA_CB, row.bytes).status, 0);
        EXPECT_EQ(client->ask(WIRE_REG_VALIDATE_CB).status, 0);
        EXPECT_EQ(client->ask(WIRE_REG_DONE).status, 0);
    }
    EXPECT_NE(agent.log().find("raw (pid 11) loses data \"labels\" to raw (pid 12)"), std::string::npos);
    EXPECT_NE(agent.log().find("which the data model does not name"), std::string::npos);
    std::string status;
    EXPECT_EQ(agent.command({ "status", "--json" }, &status), 0);
    EXPECT_NE(status.find("\"data\":1"), std::string::npos) << status;
    EXPECT_NE(status.find("\"validate\":2"), std::string::npos) << status;
}

TEST(agentd_wire, a_newer_registration_takes_the_point_over_only_when_it_is_done)
{
    agentd_process agent;
    wire_writer_t row;
    row.text("labels");
    row.u32(3);
    auto count = [&] {
        std::string status;
        EXPECT_EQ(agent.command({ "status", "--json" }, &status), 0);
        return status;
    };
    raw_client older(agent, WIRE_KIND_CONTROL, 11);
    EXPECT_EQ(older.ask(WIRE_REG_DATA_CB, row.bytes).status, 0);
    EXPECT_NE(count().find("\"data\":0"), std::string::npos) << "before it is done";
    EXPECT_EQ(older.ask(WIRE_REG_DONE).status, 0);
    {
        raw_client dying(agent, WIRE_KIND_CONTROL, 12);
        EXPECT_EQ(dying.ask(WIRE_REG_DATA_CB, row.bytes).status, 0);
        EXPECT_NE(count().find("\"data\":1"), std::string::npos) << "the older one serves it meanwhile";
    }
    raw_client newer(agent, WIRE_KIND_CONTROL, 13);
    EXPECT_EQ(newer.ask(WIRE_REG_DATA_CB, row.bytes).status, 0);
    EXPECT_EQ(agent.log().find("loses data"), std::string::npos) << "nobody has been done with it";
    EXPECT_EQ(newer.ask(WIRE_REG_DONE).status, 0);
    EXPECT_NE(agent.log().find("raw (pid 11) loses data \"labels\" to raw (pid 13)"), std::string::npos);
    EXPECT_NE(count().find("\"data\":1"), std::string::npos);
}

TEST(agentd_wire, registrations_go_with_their_connection)
{
    agentd_process agent;
    {
        raw_client daemon(agent, WIRE_KIND_CONTROL);
        wire_writer_t row;
        row.text("corvane");
        row.u8(0);
        raw_client::frame_t reply = daemon.ask(WIRE_REG_NOTIF_STREAM, row.bytes);
        EXPECT_EQ(reply.status, 0);
        EXPECT_NE(wire_reader_t(reply.payload).u32(), 0u);
        EXPECT_EQ(daemon.ask(WIRE_REG_DONE).status, 0);
    }
    std::string status;
    for (int i = 0; i < 100 && (status.empty() || status.find("\"stream\":1") != std::string::npos); i++)
        agent.command({ "status", "--json" }, &status);
    EXPECT_NE(status.find("\"stream\":0"), std::string::npos) << status;
}

TEST(agentd_wire, messages_reach_the_sessions_of_the_user_they_are_for)
{
    agentd_process agent;
    raw_client ann(agent, WIRE_KIND_MAAPI), bob(agent, WIRE_KIND_MAAPI), daemon(agent, WIRE_KIND_MAAPI);
    EXPECT_EQ(ann.ask(WIRE_MAAPI_START_SESSION, user_payload("ann")).status, 0);
    EXPECT_EQ(bob.ask(WIRE_MAAPI_START_SESSION, user_payload("bob")).status, 0);
    auto send_message = [&](const char *to, const char *text) {
        wire_writer_t payload;
        payload.text(to);
        payload.text(text);
        return daemon.ask(WIRE_MAAPI_PRIO_MESSAGE, payload.bytes).status;
    };
    EXPECT_EQ(send_message("bob", "for bob"), 0);
    EXPECT_EQ(send_message("all", "for all"), 0);
    EXPECT_EQ(send_message("cid", "for nobody"), CONFD_ERR_NOEXISTS);
    EXPECT_EQ(bob.read_frame().text(), "for bob");
    raw_client::frame_t to_all = bob.read_frame();
    EXPECT_EQ(to_all.op, WIRE_MAAPI_MESSAGE);
    EXPECT_EQ(to_all.id, 0u);
    EXPECT_EQ(ann.read_frame().text(), "for all") << "ann must not have got bob's";
}

TEST(agentd_wire, the_crypto_key_is_made_once_and_is_nobody_elses_to_read)
{
    agentd_process agent;
    auto key = [&] {
        return raw_client(agent, WIRE_KIND_MAAPI).ask(WIRE_MAAPI_INSTALL_CRYPTO_KEYS).text();
    };
    std::string first = key();
    EXPECT_EQ(first.size(), 32u);
    struct stat file {
    };
    ASSERT_EQ(stat(agent.dir().path("state/crypto.key").c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0600u);
    agent.kill_it(SIGTERM);
    agent.start();
    EXPECT_EQ(key(), first);
    agent.kill_it(SIGTERM);
    agent.dir().write("state/crypto.key", "short");
    agent.start();
    EXPECT_EQ(agent.port(), 0) << "a damaged key must not be replaced: what it has encrypted would be lost";
}

// ---- the program and its tool

TEST(agentd_program, a_wrong_configuration_is_refused_with_file_line_and_remedy)
{
    struct row_t {
        const char *text;
        const char *complaint;
    };
    static constexpr row_t rows[] = {
        { "port = 4565\nprot = 1\n", "agentd.conf:2: unknown key \"prot\"; the keys are listen-address, port" },
        { "port = 70000\n", "agentd.conf:1: port takes a number from 0 to 65535" },
        { "port = 12x\n", "agentd.conf:1: port takes a number" },
        { "# c\n\ndurable = si\n", "agentd.conf:3: durable takes yes or no" },
        { "durable\n", "agentd.conf:1: no '=' in \"durable\"" },
        { "yang-dir = /x\n", "state-dir is not set" },
    };
    agentd_process agent;
    for (const row_t &row : rows) {
        temp_dir dir;
        dir.write("agentd.conf", row.text);
        std::string output;
        EXPECT_EQ(agent.run({ AGENTD_PROGRAM, "-f", dir.path("agentd.conf") }, &output), 1);
        EXPECT_NE(output.find(row.complaint), std::string::npos) << output;
    }
    std::string output;
    EXPECT_EQ(agent.run({ AGENTD_PROGRAM, "-f", "/nonexistent" }, &output), 1);
    EXPECT_NE(output.find("/nonexistent: No such file"), std::string::npos) << output;
    EXPECT_EQ(agent.run({ AGENTD_PROGRAM, "--help-me" }, &output), 2);
}

TEST(agentd_program, the_tool_tells_phase_and_status_and_stops_the_agent)
{
    agentd_process agent;
    std::string output;
    EXPECT_EQ(agent.command({ "phase" }, &output), 0);
    EXPECT_EQ(output, "2\n");
    raw_client client(agent, WIRE_KIND_CDB_DATA, 4711);
    EXPECT_EQ(agent.command({ "status" }, &output), 0);
    EXPECT_NE(output.find("phase: 2"), std::string::npos) << output;
    EXPECT_NE(output.find("pid: 4711"), std::string::npos) << output;
    EXPECT_EQ(agent.command({ "dump", "operational", "xml" }, &output), 0);
    EXPECT_EQ(agent.command({ "dump", "candidate" }, &output), 2);
    EXPECT_EQ(agent.command({ "nonsense" }, &output), 2);
    EXPECT_NE(output.find("usage:"), std::string::npos);
    EXPECT_EQ(agent.command({ "stop" }, &output), 0);
    EXPECT_TRUE(client.is_at_end());
    EXPECT_EQ(agent.wait_for_end(), 0);
    EXPECT_EQ(agent.command({ "phase" }, &output), 1);
    EXPECT_NE(output.find("cannot connect to the agent at 127.0.0.1:" + std::to_string(agent.port()) +
                          ": Connection refused; is agentd running?"),
              std::string::npos)
        << output;
}

TEST(agentd_program, a_second_agent_on_the_same_port_says_so)
{
    agentd_process agent;
    temp_dir dir;
    dir.make_dir("state");
    dir.write("agentd.conf", "port = " + std::to_string(agent.port()) + "\nyang-dir = " + agent.dir().path("yang") +
                                 "\nstate-dir = " + dir.path("state") + "\n");
    std::string output;
    EXPECT_EQ(agent.run({ AGENTD_PROGRAM, "-f", dir.path("agentd.conf") }, &output), 1);
    EXPECT_NE(output.find("is another agentd running?"), std::string::npos) << output;
}
