// Requests with paths, files, values and texts of the user: what goes out for each call.
#include "agent/client/confd_cdb.h"
#include "agent/client/confd_maapi.h"
#include "agent/wire/crypto.h"
#include "tests/harness/temp_dir.h"
#include "tests/unit/confd_fake_agent.h"

#include <gtest/gtest.h>

namespace
{

struct request_t {
    int op;
    std::string payload;
    friend bool operator==(const request_t &, const request_t &) = default;
};

std::string th_path(uint32_t th, std::string_view path, std::string_view more = {})
{
    wire_writer_t out;
    out.u32(th);
    out.text(path);
    return out.bytes + std::string(more);
}

std::string path_of(std::string_view path)
{
    wire_writer_t out;
    out.text(path);
    return out.bytes;
}

confd_value_t text_value(const char *text)
{
    confd_value_t value = {};
    CONFD_SET_STR(&value, text);
    return value;
}

// Entries "k0", "k1", ... of any list: three of them.
constexpr uint32_t ENTRIES = 3;

std::string entries()
{
    wire_writer_t out;
    out.u32(ENTRIES);
    for (const char *key : { "k0", "k1", "k 2" }) {
        out.u8(1);
        wire_put_value(out, text_value(key));
    }
    return out.bytes;
}

// Answers reads of positions and lists, all else with nothing.
void serve(fake_peer &peer, std::vector<request_t> *requests)
{
    peer.greet();
    for (fake_request_t request = peer.read(); request.header.op != 0; request = peer.read()) {
        wire_writer_t out;
        wire_reader_t in(request.payload);
        switch (request.header.op) {
        case WIRE_MAAPI_NEXT:
            out.bytes = entries();
            break;
        case WIRE_CDB_INDEX:
            (void)in.text();
            out.u8(1);
            wire_put_value(out, text_value(("k" + std::to_string(in.u32())).c_str()));
            break;
        case WIRE_MAAPI_INSTALL_CRYPTO_KEYS:
            out.text("0123456789abcdef0123456789abcdef");
            break;
        default:
            requests->push_back({ request.header.op, request.payload });
        }
        peer.reply(request, out.bytes);
    }
}

class confd_paths : public ::testing::Test
{
protected:
    confd_paths()
        : agent({ [this](fake_peer &peer) {
              serve(peer, &requests);
          } })
    {
    }
    ~confd_paths() override { shutdown(client.fd, SHUT_RDWR); }

    // The requests so far; no more come.
    std::vector<request_t> end()
    {
        shutdown(client.fd, SHUT_WR);
        char byte;
        (void)recv(client.fd, &byte, 1, 0);
        return requests;
    }

    std::vector<request_t> requests;
    fake_agent agent;
    client_fd client;
};

TEST_F(confd_paths, a_transaction_has_a_position_of_its_own_and_list_entries_by_number)
{
    ASSERT_EQ(maapi_connect(client.fd, agent.address(), agent.address_size()), CONFD_OK);
    EXPECT_EQ(maapi_create(client.fd, 1, "a"), CONFD_OK);
    EXPECT_EQ(maapi_cd(client.fd, 1, "/list[%d]/c", 2), CONFD_OK);
    EXPECT_EQ(maapi_create(client.fd, 1, "x"), CONFD_OK);
    EXPECT_EQ(maapi_create(client.fd, 1, "../y[1]/z"), CONFD_OK);
    EXPECT_EQ(maapi_create(client.fd, 2, "x"), CONFD_OK); // another transaction
    EXPECT_EQ(maapi_create(client.fd, 1, "/p:list[3]"), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_NOEXISTS);
    EXPECT_EQ(maapi_cd(client.fd, 1, "/"), CONFD_OK);
    EXPECT_EQ(maapi_delete(client.fd, 1, "p:list{[0]}/x"), CONFD_OK); // a key
    EXPECT_EQ(end(), (std::vector<request_t>{ { WIRE_MAAPI_CREATE, th_path(1, "/a") },
                                              { WIRE_MAAPI_CREATE, th_path(1, "/list{\"k 2\"}/c/x") },
                                              { WIRE_MAAPI_CREATE, th_path(1, "/list{\"k 2\"}/y{k1}/z") },
                                              { WIRE_MAAPI_CREATE, th_path(2, "/x") },
                                              { WIRE_MAAPI_DELETE, th_path(1, "/p:list{[0]}/x") } }));
}

TEST_F(confd_paths, a_session_finds_entries_by_number_and_writes_leaves_together)
{
    ASSERT_EQ(cdb_connect(client.fd, CDB_DATA_SOCKET, agent.address(), agent.address_size()), CONFD_OK);
    EXPECT_EQ(cdb_cd(client.fd, "/usergroup[%d]", 2), CONFD_OK);
    EXPECT_EQ(cdb_create(client.fd, "task[%u]", 0u), CONFD_OK);
    confd_tag_value_t values[2] = {};
    CONFD_SET_TAG_UINT32(&values[0], 1, 10);
    CONFD_SET_TAG_STR(&values[1], 2, "text");
    EXPECT_EQ(cdb_set_values(client.fd, values, 2, ""), CONFD_OK);
    EXPECT_EQ(cdb_set_values(client.fd, nullptr, 1, "/a"), CONFD_ERR);
    wire_writer_t written;
    written.text("/usergroup{k2}");
    wire_put_tag_values(written, values, 2);
    EXPECT_EQ(end(), (std::vector<request_t>{ { WIRE_CDB_CREATE, path_of("/usergroup{k2}/task{k0}") },
                                              { WIRE_CDB_SET_VALUES, written.bytes } }));
}

TEST_F(confd_paths, small_calls_of_a_transaction_go_out_as_the_agent_has_them)
{
    ASSERT_EQ(maapi_connect(client.fd, agent.address(), agent.address_size()), CONFD_OK);
    confd_value_t key = text_value("b");
    EXPECT_EQ(maapi_set_flags(client.fd, 1, MAAPI_FLAG_NO_DEFAULTS), CONFD_OK);
    EXPECT_EQ(maapi_move_ordered(client.fd, 1, MAAPI_MOVE_AFTER, &key, 1, "/l{a}"), CONFD_OK);
    EXPECT_EQ(maapi_move_ordered(client.fd, 1, MAAPI_MOVE_FIRST, nullptr, 0, "/l{a}"), CONFD_OK);
    EXPECT_EQ(maapi_move_ordered(client.fd, 1, MAAPI_MOVE_BEFORE, nullptr, 0, "/l{a}"), CONFD_ERR);
    EXPECT_EQ(maapi_candidate_commit(client.fd), CONFD_OK);
    std::string long_text(100000, 'x');
    EXPECT_EQ(maapi_cli_printf(client.fd, 12, "%s\n", long_text.c_str()), CONFD_OK);
    wire_writer_t flags, moved;
    flags.u32(1);
    flags.u32(WIRE_TRANS_NO_DEFAULTS);
    moved.u8(WIRE_MOVE_AFTER);
    moved.u8(1);
    wire_put_value(moved, key);
    EXPECT_EQ(end(), (std::vector<request_t>{
                         { WIRE_MAAPI_SET_FLAGS, flags.bytes },
                         { WIRE_MAAPI_MOVE, th_path(1, "/l{a}", moved.bytes) },
                         { WIRE_MAAPI_MOVE, th_path(1, "/l{a}", std::string("\x01\x00", 2)) },
                         { WIRE_MAAPI_CANDIDATE_COMMIT, "" },
                         { WIRE_MAAPI_CLI_WRITE, th_path(12, long_text + "\n") },
                     }));
}

TEST_F(confd_paths, a_file_is_loaded_whole_and_a_missing_one_is_named)
{
    temp_dir dir;
    std::string text(70000, '<');
    dir.write("config.xml", text);
    ASSERT_EQ(maapi_connect(client.fd, agent.address(), agent.address_size()), CONFD_OK);
    EXPECT_EQ(maapi_load_config(client.fd, 1, MAAPI_CONFIG_XML, dir.path("none.xml").c_str()), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_OS);
    EXPECT_NE(strstr(confd_lasterr(), "none.xml"), nullptr);
    EXPECT_EQ(maapi_load_config(client.fd, 1, 0, dir.path("config.xml").c_str()), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    EXPECT_EQ(maapi_load_config(client.fd, 1, MAAPI_CONFIG_XML | MAAPI_CONFIG_MERGE, dir.path("config.xml").c_str()),
              CONFD_OK);
    wire_writer_t load;
    load.u32(1);
    load.u8(1);
    load.text(text);
    EXPECT_EQ(end(), (std::vector<request_t>{ { WIRE_MAAPI_LOAD, load.bytes } }));
}

TEST_F(confd_paths, texts_are_decrypted_with_the_agents_keys)
{
    char clear[100];
    ASSERT_EQ(maapi_connect(client.fd, agent.address(), agent.address_size()), CONFD_OK);
    ASSERT_EQ(maapi_install_crypto_keys(client.fd), CONFD_OK);
    std::string mine, others;
    ASSERT_TRUE(wire_encrypt("0123456789abcdef0123456789abcdef", "secret", mine));
    ASSERT_TRUE(wire_encrypt("fedcba9876543210fedcba9876543210", "secret", others));
    EXPECT_EQ(confd_decrypt(mine.data(), static_cast<int>(mine.size()), clear), 6);
    EXPECT_STREQ(clear, "secret");
    EXPECT_EQ(confd_decrypt(others.data(), static_cast<int>(others.size()), clear), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADTYPE);
    EXPECT_EQ(confd_decrypt("plain", 5, clear), CONFD_ERR);
    EXPECT_EQ(confd_decrypt("plain", -1, clear), CONFD_ERR);
}

TEST(confd_reads, lists_and_addresses_are_given_or_refused_by_their_type)
{
    confd_value_t words[2] = { text_value("a"), text_value("b") }, list = {}, address = {}, prefix = {};
    CONFD_SET_LIST(&list, words, 2);
    in_addr ip = {};
    inet_aton("10.1.2.3", &ip);
    CONFD_SET_IPV4(&address, ip);
    prefix.type = C_IPV4PREFIX;
    prefix.val.ipv4prefix = { ip, 24 };
    fake_agent agent({ [&](fake_peer &peer) {
        peer.greet();
        for (const confd_value_t &value : { list, address, address, prefix, list }) {
            wire_writer_t out;
            wire_put_value(out, value);
            peer.reply(peer.read(), out.bytes);
        }
    } });
    client_fd client;
    ASSERT_EQ(cdb_connect(client.fd, CDB_DATA_SOCKET, agent.address(), agent.address_size()), CONFD_OK);
    confd_value_t *values = nullptr;
    int n = 0;
    ASSERT_EQ(cdb_get_list(client.fd, &values, &n, "/l"), CONFD_OK);
    ASSERT_EQ(n, 2);
    EXPECT_STREQ(CONFD_GET_CBUFPTR(&values[1]), "b");
    for (int i = 0; i < n; i++)
        confd_free_value(&values[i]);
    free(values);
    EXPECT_EQ(cdb_get_list(client.fd, &values, &n, "/l"), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADTYPE);
    in_addr got = {};
    EXPECT_EQ(cdb_get_ipv4(client.fd, &got, "/a"), CONFD_OK);
    EXPECT_EQ(got.s_addr, ip.s_addr);
    confd_ipv4_prefix got_prefix = {};
    EXPECT_EQ(cdb_get_ipv4prefix(client.fd, &got_prefix, "/p"), CONFD_OK);
    EXPECT_EQ(got_prefix.len, 24);
    EXPECT_EQ(cdb_get_ipv4prefix(client.fd, &got_prefix, "/p"), CONFD_ERR);
}

} // namespace
