// What the library's calls make of the agent's answers: iteration, modifications, cursors, typed reads.
#include "agent/client/confd_cdb.h"
#include "agent/client/confd_maapi.h"
#include "tests/unit/confd_fake_agent.h"

#include <gtest/gtest.h>
#include <map>

namespace
{

constexpr uint32_t NS = 9;

struct change_t {
    uint32_t node;
    std::string name;
    uint8_t op;
};

// Answers requests for changes from a table of levels until the client has gone.
void serve_changes(fake_peer &peer, const std::map<uint32_t, std::vector<change_t>> &levels)
{
    peer.greet();
    for (fake_request_t request = peer.read(); request.header.op != 0; request = peer.read()) {
        wire_reader_t in(request.payload);
        wire_writer_t out;
        if (request.header.op == WIRE_SUB_MODIFICATIONS_AT) {
            uint32_t node = in.u32();
            out.u32(1);
            out.u32(node);
            out.u32(NS);
            confd_value_t value = {};
            value.type = C_STR;
            value.val.s = "text to be freed";
            wire_put_value(out, value);
            peer.reply(request, out.bytes);
            continue;
        }
        in.i32();
        auto level = levels.find(in.u32());
        if (level == levels.end()) {
            peer.refuse(request, CONFD_ERR_NOEXISTS, "no such node");
            continue;
        }
        out.u32(static_cast<uint32_t>(level->second.size()));
        for (const change_t &change : level->second) {
            confd_hkeypath_t path = {};
            path.len = 1;
            path.v[0][0].type = C_XMLTAG;
            path.v[0][0].val.xmltag = { wire_hash(change.name), NS };
            confd_value_t none = {}, number = {};
            none.type = C_NOEXISTS;
            number.type = C_UINT32;
            number.val.u32 = change.node;
            out.u32(change.node);
            out.u8(change.op);
            wire_put_keypath(out, path);
            wire_put_value(out, none);
            wire_put_value(out, change.op == MOP_DELETED ? none : number);
        }
        peer.reply(request, out.bytes);
    }
}

struct seen_t {
    int sock;
    std::vector<uint32_t> nodes;
    std::map<uint32_t, cdb_iter_ret> verdicts; // others: continue
};

// Notes the node of each change, which its modifications tell.
cdb_iter_ret note(confd_hkeypath_t *kp, cdb_iter_op op, confd_value_t *oldv, confd_value_t *newv, void *state)
{
    auto &seen = *static_cast<seen_t *>(state);
    EXPECT_EQ(kp->len, 1);
    EXPECT_EQ(oldv, nullptr);
    EXPECT_EQ(newv == nullptr, op == MOP_DELETED);
    confd_tag_value_t *values = nullptr;
    int n = 0;
    EXPECT_EQ(cdb_get_modifications_iter(seen.sock, 0, &values, &n), CONFD_OK);
    EXPECT_EQ(n, 1);
    uint32_t node = values[0].tag.tag;
    seen.nodes.push_back(node);
    confd_free_value(&values[0].v);
    free(values);
    return seen.verdicts.contains(node) ? seen.verdicts[node] : ITER_CONTINUE;
}

std::vector<uint32_t> iterate(const std::map<uint32_t, cdb_iter_ret> &verdicts, int expected)
{
    fake_agent agent({ [](fake_peer &peer) {
        serve_changes(peer, {
                                { 0, { { 1, "a", MOP_MODIFIED }, { 2, "b", MOP_DELETED }, { 3, "c", MOP_CREATED } } },
                                { 1, { { 11, "d", MOP_MODIFIED }, { 12, "e", MOP_VALUE_SET } } },
                                { 11, { { 111, "f", MOP_VALUE_SET } } },
                                { 12, { { 0, "g", 9 } } },
                            });
    } });
    client_fd client;
    seen_t seen = { client.fd, {}, verdicts };
    EXPECT_EQ(cdb_connect(client.fd, CDB_SUBSCRIPTION_SOCKET, agent.address(), agent.address_size()), CONFD_OK);
    EXPECT_EQ(cdb_diff_iterate(client.fd, 4, note, 0, &seen), expected);
    confd_tag_value_t *values = nullptr;
    int n = 0;
    EXPECT_EQ(cdb_get_modifications_iter(client.fd, 0, &values, &n), CONFD_ERR); // no iteration is running
    EXPECT_EQ(confd_errno, CONFD_ERR_BADSTATE);
    shutdown(client.fd, SHUT_RDWR);
    return seen.nodes;
}

using nodes_t = std::vector<uint32_t>;

TEST(confd_iterate, gives_the_changes_of_the_level_in_order)
{
    EXPECT_EQ(iterate({}, CONFD_OK), (nodes_t{ 1, 2, 3 }));
}

TEST(confd_iterate, goes_below_a_node_where_it_is_asked_to)
{
    EXPECT_EQ(iterate({ { 1, ITER_RECURSE }, { 11, ITER_RECURSE } }, CONFD_OK), (nodes_t{ 1, 11, 111, 12, 2, 3 }));
}

TEST(confd_iterate, a_stop_deep_below_ends_all)
{
    EXPECT_EQ(iterate({ { 1, ITER_RECURSE }, { 11, ITER_RECURSE }, { 111, ITER_STOP } }, CONFD_OK),
              (nodes_t{ 1, 11, 111 }));
}

TEST(confd_iterate, a_refused_or_forged_level_ends_with_an_error)
{
    EXPECT_EQ(iterate({ { 2, ITER_RECURSE } }, CONFD_ERR), (nodes_t{ 1, 2 }));
    EXPECT_EQ(iterate({ { 1, ITER_RECURSE }, { 12, ITER_RECURSE } }, CONFD_ERR), (nodes_t{ 1, 11, 12 }));
}

TEST(confd_modifications, no_changes_are_an_array_and_a_cut_reply_is_an_error)
{
    fake_agent agent({ [](fake_peer &peer) {
        peer.greet();
        peer.reply(peer.read(), std::string(4, 0));
        wire_writer_t out;
        out.u32(2);
        for (int i = 0; i < 2; i++) {
            out.u32(1);
            out.u32(NS);
            out.u8(C_BUF);
            out.text("text to be freed");
        }
        peer.reply(peer.read(), std::string_view(out.bytes).substr(0, out.bytes.size() - 1));
    } });
    client_fd client;
    ASSERT_EQ(cdb_connect(client.fd, CDB_SUBSCRIPTION_SOCKET, agent.address(), agent.address_size()), CONFD_OK);
    confd_tag_value_t *values = nullptr;
    int n = -1;
    EXPECT_EQ(cdb_get_modifications(client.fd, 1, 0, &values, &n, nullptr), CONFD_OK);
    EXPECT_EQ(n, 0);
    EXPECT_NE(values, nullptr);
    free(values);
    EXPECT_EQ(cdb_get_modifications(client.fd, 1, 0, &values, &n, nullptr), CONFD_ERR);
}

// A list of `size` entries with text keys "0", "1", ... in two columns.
void serve_list(fake_peer &peer, int size)
{
    peer.greet();
    for (fake_request_t request = peer.read(); request.header.op != 0; request = peer.read()) {
        wire_reader_t in(request.payload);
        in.u32();
        EXPECT_EQ(in.text(), "/list");
        int from = 0;
        if (in.u8() > 0) {
            confd_value_t first = wire_get_value(in), second = wire_get_value(in);
            from = std::stoi(reinterpret_cast<char *>(second.val.buf.ptr)) + 1;
            wire_free_value(first);
            wire_free_value(second);
        }
        int n = std::min(static_cast<int>(in.u32()), size - from);
        EXPECT_TRUE(in.finished());
        wire_writer_t out;
        out.u32(static_cast<uint32_t>(n));
        for (int i = from; i < from + n; i++) {
            out.u8(2);
            out.u8(C_BUF);
            out.text("same");
            out.u8(C_BUF);
            out.text(std::to_string(i));
        }
        peer.reply(request, out.bytes);
    }
}

TEST(confd_cursor, gives_every_entry_once_across_batches)
{
    for (int size : { 0, 1, 99, 100, 101, 250 }) {
        fake_agent agent({ [size](fake_peer &peer) {
            serve_list(peer, size);
        } });
        client_fd client;
        ASSERT_EQ(maapi_connect(client.fd, agent.address(), agent.address_size()), CONFD_OK);
        maapi_cursor cursor;
        ASSERT_EQ(maapi_init_cursor(client.fd, 1, &cursor, "/list"), CONFD_OK);
        int count = 0;
        for (; maapi_get_next(&cursor) == CONFD_OK && cursor.n != 0; count++) {
            ASSERT_EQ(cursor.n, 2);
            ASSERT_EQ(std::string(CONFD_GET_CBUFPTR(&cursor.keys[1])), std::to_string(count));
        }
        EXPECT_EQ(count, size);
        EXPECT_EQ(maapi_get_next(&cursor), CONFD_OK); // the end stays the end
        EXPECT_EQ(cursor.n, 0);
        maapi_destroy_cursor(&cursor);
        shutdown(client.fd, SHUT_RDWR);
    }
}

TEST(confd_cursor, one_given_up_in_the_middle_frees_what_it_holds)
{
    fake_agent agent({ [](fake_peer &peer) {
        serve_list(peer, 50);
    } });
    client_fd client;
    ASSERT_EQ(maapi_connect(client.fd, agent.address(), agent.address_size()), CONFD_OK);
    maapi_cursor cursor;
    ASSERT_EQ(maapi_init_cursor(client.fd, 1, &cursor, "/list"), CONFD_OK);
    ASSERT_EQ(maapi_get_next(&cursor), CONFD_OK);
    maapi_destroy_cursor(&cursor);
    shutdown(client.fd, SHUT_RDWR);
}

TEST(confd_cdb, a_value_of_another_type_is_refused_and_a_text_fits_or_is_too_big)
{
    fake_agent agent({ [](fake_peer &peer) {
        peer.greet();
        for (int i = 0; i < 3; i++) {
            fake_request_t request = peer.read();
            wire_writer_t out;
            out.u8(C_BUF);
            out.text("12345");
            peer.reply(request, out.bytes);
        }
    } });
    client_fd client;
    ASSERT_EQ(cdb_connect(client.fd, CDB_DATA_SOCKET, agent.address(), agent.address_size()), CONFD_OK);
    uint32_t number = 7;
    EXPECT_EQ(cdb_get_uint32(client.fd, &number, "/a"), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADTYPE);
    EXPECT_EQ(number, 7u);
    char text[6] = "";
    EXPECT_EQ(cdb_get_str(client.fd, text, 5, "/a"), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_TOOBIG);
    EXPECT_EQ(cdb_get_str(client.fd, text, 6, "/a"), CONFD_OK);
    EXPECT_STREQ(text, "12345");
}

TEST(confd_maapi, datastores_go_out_by_the_agents_numbers_and_a_missing_one_is_refused)
{
    std::vector<std::string> payloads;
    {
        fake_agent agent({ [&](fake_peer &peer) {
            peer.greet();
            for (int i = 0; i < 2; i++) {
                fake_request_t request = peer.read();
                payloads.push_back(request.payload);
                peer.reply(request, std::string("\x03\0\0\0", 4));
            }
        } });
        client_fd client;
        ASSERT_EQ(maapi_connect(client.fd, agent.address(), agent.address_size()), CONFD_OK);
        EXPECT_EQ(maapi_start_trans(client.fd, CONFD_NO_DB, CONFD_READ), CONFD_ERR);
        EXPECT_EQ(confd_errno, CONFD_ERR_NOEXISTS);
        EXPECT_EQ(maapi_start_trans(client.fd, CONFD_RUNNING, CONFD_READ_WRITE), 3);
        EXPECT_EQ(maapi_start_trans(client.fd, CONFD_CANDIDATE, CONFD_READ), 3);
    }
    ASSERT_EQ(payloads.size(), 2u);
    EXPECT_EQ(payloads[0], std::string("\x01\x01\0\0\0\0", 6));
    EXPECT_EQ(payloads[1], std::string("\x05\x00\0\0\0\0", 6));
}

} // namespace
