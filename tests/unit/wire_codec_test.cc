// The codec of the agent's protocol: what is written is read back, and what is cut, forged or too deep is refused with
// nothing left to free (the sanitizer build watches that).
#include "agent/wire/wire.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>

namespace
{

using random_t = std::mt19937;

uint32_t below(random_t &random, uint32_t limit)
{
    return static_cast<uint32_t>(random() % limit);
}

confd_value_t text_value(confd_vtype type, const std::string &text)
{
    confd_value_t view = {};
    view.type = type;
    view.val.buf = { reinterpret_cast<unsigned char *>(const_cast<char *>(text.data())),
                     static_cast<unsigned>(text.size()) };
    return wire_copy_value(view);
}

confd_value_t random_value(random_t &random, int depth);

void fill_random_keypath(random_t &random, confd_hkeypath_t &path, int depth)
{
    path = {};
    path.len = static_cast<int>(below(random, MAXDEPTH + 1));
    for (int i = path.len - 1; i >= 0; i--) {
        bool is_tag = i == path.len - 1 || below(random, 2) == 0;
        if (is_tag) {
            path.v[i][0].type = C_XMLTAG;
            path.v[i][0].val.xmltag = { static_cast<uint32_t>(random()), static_cast<uint32_t>(random()) };
            continue;
        }
        uint32_t n = 1 + below(random, MAXKEYLEN);
        for (uint32_t k = 0; k < n; k++) {
            do {
                wire_free_value(path.v[i][k]);
                path.v[i][k] = random_value(random, depth);
            } while (path.v[i][k].type == C_NOEXISTS || path.v[i][k].type == C_XMLTAG);
        }
        if (n < MAXKEYLEN)
            path.v[i][n].type = C_NOEXISTS;
    }
}

confd_value_t random_list(random_t &random, int depth)
{
    confd_value_t value = {};
    value.type = C_LIST;
    uint32_t n = below(random, 4);
    value.val.list.ptr = static_cast<confd_value_t *>(calloc(n + 1, sizeof(confd_value_t)));
    while (value.val.list.size < n)
        value.val.list.ptr[value.val.list.size++] = random_value(random, depth - 1);
    return value;
}

confd_value_t random_oid(random_t &random)
{
    confd_value_t value = {};
    value.type = C_OID;
    value.val.oidp = static_cast<confd_oid *>(malloc(sizeof(confd_oid)));
    int n = static_cast<int>(1 + below(random, 20));
    value.val.oidp->len = n;
    value.val.oidp->oid = static_cast<uint32_t *>(malloc(n * sizeof(uint32_t)));
    for (int i = 0; i < n; i++)
        value.val.oidp->oid[i] = random();
    return value;
}

// Any type; lists and object references at most `depth` deep.
confd_value_t random_value(random_t &random, int depth)
{
    static constexpr confd_vtype types[] = {
        C_NOEXISTS,   C_XMLTAG,   C_STR,    C_BUF,       C_UINT8,       C_UINT16,      C_UINT32,
        C_UINT64,     C_INT8,     C_INT16,  C_INT32,     C_INT64,       C_DOUBLE,      C_IPV4,
        C_IPV6,       C_BOOL,     C_QNAME,  C_DATETIME,  C_ENUM_VALUE,  C_BIT32,       C_BIT64,
        C_LIST,       C_XMLBEGIN, C_XMLEND, C_DECIMAL64, C_OBJECTREF,   C_IDENTITYREF, C_IPV4PREFIX,
        C_IPV6PREFIX, C_OID,      C_BINARY, C_DEFAULT,   C_XMLBEGINDEL,
    };
    confd_value_t value = {};
    value.type = types[below(random, std::size(types))];
    for (uint64_t &word : value.val.room)
        word = static_cast<uint64_t>(random()) << 32 | random();
    switch (value.type) {
    case C_STR:
        value.val.s = strdup(std::string(below(random, 20), 'x').c_str());
        return value;
    case C_BUF:
    case C_BINARY:
    case C_QNAME: {
        std::string bytes(below(random, 20), 0);
        for (char &c : bytes)
            c = static_cast<char>(random());
        return text_value(value.type, bytes);
    }
    case C_DOUBLE:
        value.val.d = static_cast<double>(random()) / 7;
        return value;
    case C_IPV4PREFIX:
        value.val.ipv4prefix.len = static_cast<uint8_t>(below(random, 33));
        return value;
    case C_IPV6PREFIX:
        value.val.ipv6prefix.len = static_cast<uint8_t>(below(random, 129));
        return value;
    case C_OID:
        return random_oid(random);
    case C_LIST:
    case C_OBJECTREF:
        if (depth == 0) {
            value.type = C_UINT32;
            return value;
        }
        if (value.type == C_LIST)
            return random_list(random, depth);
        value.val.hkp = static_cast<confd_hkeypath_t *>(malloc(sizeof(confd_hkeypath_t)));
        fill_random_keypath(random, *value.val.hkp, 0);
        return value;
    default:
        return value;
    }
}

std::string encode(const confd_value_t &value)
{
    wire_writer_t out;
    wire_put_value(out, value);
    return out.bytes;
}

// True when the payload holds exactly one value.
bool can_decode(std::string_view payload)
{
    wire_reader_t in(payload);
    confd_value_t value = wire_get_value(in);
    bool ok = in.finished();
    if (!in.ok) {
        EXPECT_EQ(value.type, C_NOEXISTS);
    }
    wire_free_value(value);
    return ok;
}

std::string nested_list(int depth)
{
    wire_writer_t out;
    for (int i = 0; i < depth; i++) {
        out.u8(C_LIST);
        out.u32(1);
    }
    out.u8(C_BOOL);
    out.u8(1);
    return out.bytes;
}

TEST(wire_value, what_is_written_is_read_back)
{
    random_t random(4711);
    for (int i = 0; i < 20000; i++) {
        confd_value_t value = random_value(random, 3);
        std::string bytes = encode(value);
        wire_reader_t in(bytes);
        confd_value_t got = wire_get_value(in);
        ASSERT_TRUE(in.finished()) << "type " << value.type;
        EXPECT_TRUE(wire_equal_values(value, got)) << "type " << value.type;
        confd_value_t copy = wire_copy_value(got);
        wire_free_value(got);
        EXPECT_TRUE(wire_equal_values(value, copy)) << "type " << value.type;
        wire_free_value(copy);
        wire_free_value(value);
    }
}

TEST(wire_value, every_truncation_is_refused)
{
    random_t random(42);
    for (int i = 0; i < 2000; i++) {
        confd_value_t value = random_value(random, 3);
        std::string bytes = encode(value);
        for (size_t size = 0; size < bytes.size(); size++)
            EXPECT_FALSE(can_decode(std::string_view(bytes).substr(0, size))) << "type " << value.type;
        wire_free_value(value);
    }
}

TEST(wire_value, text_arrives_as_a_buffer_with_a_nul_behind_it)
{
    confd_value_t value = {};
    value.type = C_STR;
    value.val.s = "ge0/1";
    std::string bytes = encode(value);
    wire_reader_t in(bytes);
    confd_value_t got = wire_get_value(in);
    ASSERT_EQ(got.type, C_BUF);
    EXPECT_EQ(got.val.buf.size, 5u);
    EXPECT_STREQ(reinterpret_cast<char *>(got.val.buf.ptr), "ge0/1");
    EXPECT_TRUE(wire_equal_values(value, got));
    got.type = C_BINARY; // the same bytes, but no text
    EXPECT_FALSE(wire_equal_values(value, got));
    wire_free_value(got);
}

TEST(wire_value, lists_nest_four_deep_and_no_deeper)
{
    EXPECT_TRUE(can_decode(nested_list(4)));
    EXPECT_FALSE(can_decode(nested_list(5)));
    EXPECT_FALSE(can_decode(nested_list(100000)));
}

TEST(wire_value, forged_content_is_refused)
{
    auto bytes = [](auto... parts) {
        return std::string{ static_cast<char>(parts)... };
    };
    const std::string rows[] = {
        "",
        bytes(0),                                     // no type
        bytes(3),                                     // a gap in the numbers
        bytes(46, 0, 0, 0, 0),                        // behind the last
        bytes(255, 0, 0, 0, 0),                       //
        bytes(C_BUF, 255, 255, 255, 255, 'a'),        // longer than the payload
        bytes(C_LIST, 255, 255, 255, 255, C_BOOL, 1), //
        bytes(C_OBJECTREF, 21, 0, 0, 0) + std::string(200, 0),
        bytes(C_OBJECTREF, 1, 0, 0, 0, 2, 0), // neither tag nor keys
        bytes(C_OBJECTREF, 1, 0, 0, 0, 1, 10) + std::string(200, C_BOOL),
        bytes(C_OBJECTREF, 1, 0, 0, 0, 1, 1, C_NOEXISTS), // a key that ends the row
        bytes(C_OID, 129, 0, 0, 0) + std::string(129 * 4, 1),
        bytes(C_IPV4PREFIX, 10, 0, 0, 0, 33),
        bytes(C_IPV6PREFIX) + std::string(16, 0) + bytes(129),
    };
    for (const std::string &row : rows)
        EXPECT_FALSE(can_decode(row)) << testing::PrintToString(row);
}

TEST(wire_value, many_object_references_in_few_bytes_are_refused)
{
    auto payload = [](uint32_t n) {
        wire_writer_t out;
        out.u8(C_LIST);
        out.u32(n);
        for (uint32_t i = 0; i < n; i++) {
            out.u8(C_OBJECTREF);
            out.u32(0);
        }
        return out.bytes;
    };
    EXPECT_TRUE(can_decode(payload(512)));
    EXPECT_FALSE(can_decode(payload(513)));
}

TEST(wire_value, what_nests_too_deep_is_sent_as_no_value)
{
    confd_value_t levels[6] = {};
    levels[5].type = C_BOOL;
    for (int i = 4; i >= 0; i--) {
        levels[i].type = C_LIST;
        levels[i].val.list = { &levels[i + 1], 1 };
    }
    std::string bytes = encode(levels[0]);
    EXPECT_TRUE(can_decode(bytes));
    EXPECT_EQ(bytes.back(), C_NOEXISTS);
}

TEST(wire_keypath, what_is_written_is_read_back_and_every_truncation_is_refused)
{
    random_t random(7);
    for (int i = 0; i < 300; i++) {
        confd_hkeypath_t path;
        fill_random_keypath(random, path, 2);
        wire_writer_t out;
        wire_put_keypath(out, path);

        confd_value_t sent = {}, got = {};
        sent.type = got.type = C_OBJECTREF;
        confd_hkeypath_t read_back;
        wire_reader_t in(out.bytes);
        ASSERT_TRUE(wire_get_keypath(in, read_back));
        EXPECT_TRUE(in.finished());
        sent.val.hkp = &path;
        got.val.hkp = &read_back;
        EXPECT_TRUE(wire_equal_values(sent, got));
        wire_free_keypath(read_back);

        for (size_t size = 0; size < out.bytes.size(); size++) {
            wire_reader_t cut(std::string_view(out.bytes).substr(0, size));
            EXPECT_FALSE(wire_get_keypath(cut, read_back));
            EXPECT_FALSE(cut.ok);
        }
        wire_free_keypath(path);
    }
}

TEST(wire_schema, what_is_written_is_read_back_and_every_truncation_is_refused)
{
    wire_schema_node_t node;
    node.name = "vpn-instance";
    node.tag = wire_hash(node.name);
    node.ns = 77;
    node.parent = 1;
    node.flags = WIRE_NODE_LIST | WIRE_NODE_CONFIG;
    node.type = C_XMLTAG;
    node.keys = { 5, 6 };
    node.names = { { -3, "low" }, { 9, "" } };
    wire_writer_t out;
    wire_put_schema_node(out, node);

    wire_schema_node_t got;
    wire_reader_t in(out.bytes);
    ASSERT_TRUE(wire_get_schema_node(in, got) && in.finished());
    EXPECT_EQ(std::tie(got.name, got.tag, got.ns, got.parent, got.flags, got.type, got.keys, got.names),
              std::tie(node.name, node.tag, node.ns, node.parent, node.flags, node.type, node.keys, node.names));
    for (size_t size = 0; size < out.bytes.size(); size++) {
        wire_reader_t cut(std::string_view(out.bytes).substr(0, size));
        EXPECT_FALSE(wire_get_schema_node(cut, got));
    }
}

TEST(wire_reader, after_a_failed_read_all_reads_fail)
{
    wire_reader_t in(std::string_view("\x01\x02\x03\x04\x05", 5));
    EXPECT_EQ(in.u64(), 0u);
    EXPECT_FALSE(in.ok);
    EXPECT_EQ(in.u8(), 0);
    EXPECT_EQ(in.text(), "");
    EXPECT_FALSE(in.finished());
}

TEST(wire_hash, is_fnv_1a_and_never_zero)
{
    EXPECT_EQ(wire_hash(""), 0x811c9dc5u);
    EXPECT_EQ(wire_hash("a"), 0xe40c292cu);
    EXPECT_EQ(wire_hash("foobar"), 0xbf9cf968u);
    EXPECT_EQ(wire_hash(std::string_view("\xcc\x24\x31\xc4", 4)), 1u); // whose hash is zero
}

TEST(wire_path, keys_are_quoted_where_they_have_to_be)
{
    const struct {
        const char *key;
        const char *text;
    } rows[] = {
        { "5", "5" },
        { "ge0/1", "ge0/1" },
        { "fe80::1%2", "fe80::1%2" },
        { "", "\"\"" },
        { "two words", "\"two words\"" },
        { "a\tb", "\"a\tb\"" },
        { "{x}", "\"{x}\"" },
        { "say \"x\"", "\"say \\\"x\\\"\"" },
        { "back\\", "\"back\\\\\"" },
        { "it's", "\"it's\"" },
        { "z\xc3\xbcrich", "z\xc3\xbcrich" },
    };
    for (const auto &row : rows)
        EXPECT_EQ(wire_quote_key(row.key), row.text);
}

} // namespace
