// Paths, keypaths and values as text, with a small data model that a fake agent gives out.
#include "agent/client/confd_internal.h"
#include "tests/unit/confd_fake_agent.h"

#include <gtest/gtest.h>

namespace
{

constexpr const char *VPN_URI = "urn:test:vpn";
uint32_t vpn_ns()
{
    return wire_hash(VPN_URI);
}

struct model_row_t {
    const char *name;
    uint32_t parent; // 1-based row, 0 for the top
    uint16_t flags;
    uint8_t type;
    std::vector<const char *> keys;
    std::vector<std::pair<int64_t, std::string>> names;
};

const std::vector<model_row_t> model = {
    { "vpn", 0, WIRE_NODE_CONTAINER, C_XMLTAG, {}, {} },
    { "vpn-instance", 1, WIRE_NODE_LIST, C_XMLTAG, { "id" }, {} },
    { "id", 2, WIRE_NODE_LEAF | WIRE_NODE_KEY, C_UINT32, {}, {} },
    { "interface", 2, WIRE_NODE_LIST, C_XMLTAG, { "kind", "no" }, {} },
    { "kind", 4, WIRE_NODE_LEAF | WIRE_NODE_KEY, C_ENUM_VALUE, {}, { { 1, "ge" }, { 7, "two words" } } },
    { "no", 4, WIRE_NODE_LEAF | WIRE_NODE_KEY, C_BUF, {}, {} },
    { "modes", 4, WIRE_NODE_LEAF, C_BIT32, {}, { { 0, "up" }, { 2, "fast" } } },
    { "speed", 4, WIRE_NODE_LEAF, C_DECIMAL64, {}, {} },
    { "server", 4, WIRE_NODE_LEAF_LIST, C_IPV4, {}, {} },
    { "since", 4, WIRE_NODE_LEAF, C_DATETIME, {}, {} },
    { "enabled", 4, WIRE_NODE_LEAF, C_BOOL, {}, {} },
    { "net6", 4, WIRE_NODE_LEAF, C_IPV6PREFIX, {}, {} },
    { "level", 4, WIRE_NODE_LEAF, C_INT8, {}, {} },
    { "blob", 4, WIRE_NODE_LEAF, C_BINARY, {}, {} },
    { "object", 4, WIRE_NODE_LEAF, C_OID, {}, {} },
    { "at", 4, WIRE_NODE_LEAF, C_OBJECTREF, {}, {} },
    { "proto", 4, WIRE_NODE_LEAF, C_IDENTITYREF, {}, { { 4242, "bgp" } } },
    { "flag", 4, WIRE_NODE_LEAF, C_XMLTAG, {}, {} },
    { "any", 4, WIRE_NODE_LEAF, C_NOEXISTS, {}, {} },
};

std::string schema_payload()
{
    wire_writer_t out;
    out.u32(1);
    out.text("test-vpn");
    out.text("vpn");
    out.text(VPN_URI);
    out.u32(vpn_ns());
    out.u32(static_cast<uint32_t>(model.size()));
    for (const model_row_t &row : model) {
        wire_schema_node_t node;
        node.name = row.name;
        node.tag = wire_hash(row.name);
        node.ns = vpn_ns();
        node.parent = row.parent;
        node.flags = row.flags;
        node.type = row.type;
        for (const char *key : row.keys)
            node.keys.push_back(wire_hash(key));
        node.names = row.names;
        wire_put_schema_node(out, node);
    }
    return out.bytes;
}

int load_schema_from(const std::string &payload)
{
    fake_agent agent({ [&](fake_peer &peer) {
        peer.greet();
        peer.reply(peer.read(), payload);
    } });
    return confd_load_schemas(agent.address(), agent.address_size());
}

class confd_text : public testing::Test
{
protected:
    static void SetUpTestSuite() { ASSERT_EQ(load_schema_from(schema_payload()), CONFD_OK); }
};

std::string format_from(const char *base, const char *fmt, ...)
{
    std::string path;
    va_list args;
    va_start(args, fmt);
    bool ok = confd_format_path(base, fmt, args, &path);
    va_end(args);
    return ok ? path : "error";
}
#define format(...) format_from("", __VA_ARGS__)

confd_value_t number(uint32_t n)
{
    confd_value_t value = {};
    CONFD_SET_UINT32(&value, n);
    return value;
}

confd_value_t text(const char *s)
{
    confd_value_t value = {};
    CONFD_SET_STR(&value, s);
    return value;
}

confd_value_t enumerated(int n)
{
    confd_value_t value = {};
    CONFD_SET_ENUM_VALUE(&value, n);
    return value;
}

const confd_cs_node *leaf(const char *name)
{
    return confd_cs_node_cd(nullptr, "/vpn/vpn-instance/interface/%s", name);
}

TEST_F(confd_text, a_path_is_formatted_as_printf_does)
{
    EXPECT_EQ(format("/a{%d}/b{%u}/c", -5, 4000000000u), "/a{-5}/b{4000000000}/c");
    EXPECT_EQ(format("/a{%lu %ld}", 1ul << 40, -(1l << 40)), "/a{1099511627776 -1099511627776}");
    EXPECT_EQ(format("/a{%llu %hu %hhd %zu}", ~0ull, 70000, 200, size_t{ 3 }), "/a{18446744073709551615 4464 -56 3}");
    EXPECT_EQ(format("/%s/%.*s/%c%%", "x", 2, "yzzz", 'k'), "/x/yz/k%");
    EXPECT_EQ(format("/a{ge%02d-%-3d|%+i|%5u|%.3d}", 7, 1, 2, 3u, -4), "/a{ge07-1  |+2|    3|-004}");
    EXPECT_EQ(format("a/b"), "/a/b");
}

TEST_F(confd_text, a_path_with_a_conversion_that_is_not_known_is_refused)
{
    for (const char *fmt : { "/a%n", "/a%f", "/a%p", "/a%", "/a%l" }) {
        EXPECT_EQ(format_from("", fmt, nullptr), "error") << fmt;
        EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    }
}

TEST_F(confd_text, a_path_that_is_too_long_is_refused)
{
    std::string big(20000, 'x');
    EXPECT_EQ(format("/a{%s}", big.c_str()), "error");
    EXPECT_EQ(confd_errno, CONFD_ERR_TOOBIG);
    EXPECT_EQ(format("/a{%99999999999d}", 1), "error");
    EXPECT_EQ(format("/a{%.99999999999d}", 1), "error");
}

TEST_F(confd_text, keys_are_printed_as_a_path_holds_them)
{
    confd_value_t id = number(5), ge = enumerated(1), wide = enumerated(7), name = text("a {b} \"c\""),
                  unknown = enumerated(3);
    EXPECT_EQ(format("/vpn/vpn-instance{%x}", &id), "/vpn/vpn-instance{5}");
    EXPECT_EQ(format("/vpn:vpn/vpn-instance{%x}/interface{%x %x}/speed", &id, &ge, &name),
              "/vpn:vpn/vpn-instance{5}/interface{ge \"a {b} \\\"c\\\"\"}/speed");
    EXPECT_EQ(format("/vpn/vpn-instance{\"}\"}/interface{%x %x}", &wide, &wide),
              "/vpn/vpn-instance{\"}\"}/interface{\"two words\" 7}"); // the second key is no enumeration
    EXPECT_EQ(format("/vpn/vpn-instance{5}/interface{%x x}", &unknown), "/vpn/vpn-instance{5}/interface{3 x}");
    EXPECT_EQ(format("/nowhere{%x}", &ge), "/nowhere{1}");
    EXPECT_EQ(format_from("/vpn/vpn-instance{5}", "interface{%x %s}", &ge, "0"),
              "/vpn/vpn-instance{5}/interface{ge 0}");
}

TEST_F(confd_text, a_relative_path_goes_on_from_the_position)
{
    EXPECT_EQ(format_from("/a/b{x/y \"..\"}", "c"), "/a/b{x/y \"..\"}/c");
    EXPECT_EQ(format_from("/a/b{x/y \"..\"}", "../c"), "/a/c");
    EXPECT_EQ(format_from("/a/b", "/c"), "/c");
    EXPECT_EQ(format_from("/a/b", ".."), "/a");
    EXPECT_EQ(format_from("/a", ".."), "/");
    EXPECT_EQ(format_from("/a", "../.."), "error");
    EXPECT_EQ(confd_errno, CONFD_ERR_BADPATH);
}

TEST_F(confd_text, a_path_is_taken_apart)
{
    parsed_path_t path;
    ASSERT_TRUE(confd_parse_path("/vpn:a/b{ x/1  \"q \\\" }\" \"\"}/c", &path));
    ASSERT_EQ(path.steps.size(), 3u);
    EXPECT_EQ(path.steps[0].prefix, "vpn");
    EXPECT_EQ(path.steps[1].name, "b");
    EXPECT_EQ(path.steps[1].keys, (std::vector<std::string>{ "x/1", "q \" }", "" }));
    for (const char *bad : { "//", "/a/", "/a//b", "/{x}", "/a{x}b", "/a{\"x}", "/:", "/p:" })
        EXPECT_FALSE(confd_parse_path(bad, &path)) << bad;
}

confd_hkeypath_t keypath_of(std::initializer_list<std::vector<confd_value_t>> outermost_first)
{
    confd_hkeypath_t path = {};
    path.len = static_cast<int>(outermost_first.size());
    int i = path.len;
    for (const auto &element : outermost_first) {
        i--;
        for (size_t k = 0; k < element.size(); k++)
            path.v[i][k] = element[k];
        if (element.size() < MAXKEYLEN)
            path.v[i][element.size()].type = C_NOEXISTS;
    }
    return path;
}

confd_value_t tag(const char *name)
{
    confd_value_t value = {};
    CONFD_SET_XMLTAG(&value, wire_hash(name), vpn_ns());
    return value;
}

TEST_F(confd_text, a_keypath_is_printed_with_the_prefix_on_its_first_element)
{
    const struct {
        confd_hkeypath_t path;
        const char *text;
    } rows[] = {
        { keypath_of({}), "/" },
        { keypath_of({ { tag("vpn") } }), "/vpn:vpn" },
        { keypath_of({ { tag("vpn") }, { tag("vpn-instance") } }), "/vpn:vpn/vpn-instance" },
        { keypath_of({ { tag("vpn") }, { tag("vpn-instance") }, { number(5) }, { tag("id") } }),
          "/vpn:vpn/vpn-instance{5}/id" },
        { keypath_of({ { tag("vpn") },
                       { tag("vpn-instance") },
                       { number(5) },
                       { tag("interface") },
                       { enumerated(7), text("ge0/1") } }),
          "/vpn:vpn/vpn-instance{5}/interface{\"two words\" ge0/1}" },
    };
    char out[200];
    for (const auto &row : rows) {
        EXPECT_EQ(confd_pp_kpath(out, sizeof out, &row.path), static_cast<int>(strlen(row.text)));
        EXPECT_STREQ(out, row.text);
    }
    EXPECT_EQ(confd_pp_kpath(out, 5, &rows[1].path), 8); // cut as snprintf does
    EXPECT_STREQ(out, "/vpn");
    EXPECT_EQ(confd_find_cs_node(&rows[4].path, 4), confd_cs_node_cd(nullptr, "/vpn/vpn-instance/interface"));
    EXPECT_EQ(confd_find_cs_node(&rows[4].path, 3), confd_cs_node_cd(nullptr, "/vpn/vpn-instance"));
}

TEST_F(confd_text, a_value_and_its_text_turn_into_each_other)
{
    const struct {
        const char *leaf;
        const char *text;
        confd_vtype type;
    } rows[] = {
        { "kind", "two words", C_ENUM_VALUE },
        { "no", "", C_BUF },
        { "modes", "up fast", C_BIT32 },
        { "modes", "", C_BIT32 },
        { "speed", "-0.05", C_DECIMAL64 },
        { "speed", "12.50", C_DECIMAL64 },
        { "server", "10.1.5.1", C_IPV4 },
        { "since", "2024-02-29T23:59:60.000250-09:30", C_DATETIME },
        { "since", "2024-02-29T00:00:00-00:00", C_DATETIME },
        { "since", "0999-12-01T00:00:00+00:00", C_DATETIME },
        { "enabled", "true", C_BOOL },
        { "net6", "fd00::/64", C_IPV6PREFIX },
        { "level", "-128", C_INT8 },
        { "blob", "AP8=", C_BINARY },
        { "blob", "Zm9v", C_BINARY },
        { "blob", "Zg==", C_BINARY },
        { "object", "1.3.6.1.4.1", C_OID },
        { "at", "/vpn:vpn/vpn-instance{5}/interface{ge \"a b\"}/level", C_OBJECTREF },
        { "proto", "bgp", C_IDENTITYREF },
        { "any", "what you like", C_BUF },
    };
    for (const auto &row : rows) {
        confd_value_t value;
        ASSERT_EQ(confd_str2val(leaf(row.leaf), row.text, &value), CONFD_OK) << row.text;
        EXPECT_EQ(value.type, row.type);
        char out[200];
        EXPECT_EQ(confd_val2str(leaf(row.leaf), &value, out, sizeof out), static_cast<int>(strlen(row.text)));
        EXPECT_STREQ(out, row.text);
        confd_value_t copy;
        ASSERT_NE(confd_value_dup_to(&value, &copy), nullptr);
        confd_free_value(&value);
        EXPECT_EQ(confd_val_eq(&copy, &copy), 1);
        confd_free_value(&copy);
    }
}

TEST_F(confd_text, a_text_that_is_no_value_of_the_node_is_refused)
{
    const struct {
        const char *leaf;
        const char *text;
    } rows[] = {
        { "kind", "slow" },
        { "modes", "up slow" },
        { "speed", "1." },
        { "speed", "1.0000000000000000001" },
        { "speed", ".-5" },
        { "speed", "-.5" },
        { "speed", "1.-5" },
        { "server", "10.1.5" },
        { "since", "2024-13-01T00:00:00Z" },
        { "since", "2024-01-01T00:00:00" },
        { "since", "2024-01-01T00:00:00.Z" },
        { "since", "2024-01-01T00:00:00+0:000" },
        { "enabled", "yes" },
        { "net6", "fd00::/129" },
        { "net6", "fd00::" },
        { "level", "128" },
        { "level", "1 " },
        { "level", "" },
        { "blob", "A" },
        { "blob", "A*==" },
        { "object", "1..3" },
        { "object", "" },
        { "at", "vpn" },
        { "at", "/vpn/vpn-instance{x}" },
        { "at", "/vpn/vpn-instance{5 6}" },
        { "at", "/vpn/nothing" },
        { "at", "/vpn/vpn-instance{5}/interface{ge x}/level/deep" },
        { "proto", "ospf" },
        { "flag", "x" },
    };
    for (const auto &row : rows) {
        confd_value_t value = {};
        EXPECT_EQ(confd_str2val(leaf(row.leaf), row.text, &value), CONFD_ERR) << row.leaf << " " << row.text;
        EXPECT_EQ(confd_errno, CONFD_ERR_BADTYPE);
    }
    confd_value_t value = {};
    EXPECT_EQ(confd_str2val(confd_cs_node_cd(nullptr, "/vpn"), "", &value), CONFD_ERR);
}

TEST_F(confd_text, the_schema_is_a_tree_of_tags)
{
    confd_cs_node *top = confd_find_cs_root(vpn_ns());
    ASSERT_NE(top, nullptr);
    EXPECT_EQ(top->tag, wire_hash("vpn"));
    EXPECT_EQ(confd_find_cs_root(1), nullptr);
    const confd_cs_node *interface = confd_cs_node_cd(top, "vpn-instance{7}/interface");
    ASSERT_NE(interface, nullptr);
    EXPECT_NE(interface->info.flags & CS_NODE_IS_LIST, 0);
    EXPECT_EQ(interface->info.keys[0], wire_hash("kind"));
    EXPECT_EQ(interface->info.keys[2], 0u);
    EXPECT_EQ(confd_cs_node_cd(interface, "../../vpn-instance"), interface->parent);
    EXPECT_EQ(confd_cs_node_cd(interface, "/vpn"), top);
    EXPECT_EQ(confd_cs_node_cd(interface, "nothing"), nullptr);
    EXPECT_EQ(confd_cs_node_cd(nullptr, "/other:vpn"), nullptr);
    EXPECT_EQ(confd_find_cs_node_child(interface, { wire_hash("no"), 0 })->parent, interface);
    EXPECT_EQ(confd_find_cs_node_child(interface, { wire_hash("no"), 1 }), nullptr);
    for (const model_row_t &row : model)
        EXPECT_STREQ(confd_hash2str(confd_str2hash(row.name)), row.name);
    EXPECT_STREQ(confd_hash2str(vpn_ns()), VPN_URI);
    EXPECT_STREQ(confd_ns2prefix(vpn_ns()), "vpn");
    EXPECT_EQ(confd_hash2str(12345), nullptr);
}

TEST_F(confd_text, a_label_is_given_by_pointer_where_there_is_one)
{
    const char *label = nullptr;
    confd_value_t ge = enumerated(1), other = enumerated(2);
    EXPECT_EQ(confd_val2str_ptr(leaf("kind"), &ge, &label), CONFD_OK);
    EXPECT_STREQ(label, "ge");
    EXPECT_EQ(confd_val2str_ptr(leaf("kind"), &other, &label), CONFD_ERR);
    EXPECT_EQ(confd_val2str_ptr(nullptr, &ge, &label), CONFD_ERR);
}

// In a process of its own, as the schema is loaded once.
TEST(confd_text_DeathTest, a_forged_schema_is_refused_and_a_good_one_taken_afterwards)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            std::string good = schema_payload();
            wire_schema_node_t orphan;
            orphan.parent = 9999;
            wire_writer_t forged;
            forged.u32(0);
            forged.u32(1);
            wire_put_schema_node(forged, orphan);
            bool ok = load_schema_from(good.substr(0, good.size() / 2)) == CONFD_ERR &&
                      load_schema_from(forged.bytes) == CONFD_ERR && load_schema_from(good) == CONFD_OK &&
                      load_schema_from("") == CONFD_OK;
            _exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace
