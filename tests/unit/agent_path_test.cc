// Paths, values and the schema's listing.
#include "agent_env.h"

namespace
{
TEST(agent_path, good_paths_are_read_and_written_back)
{
    struct row_t {
        const char *text;
        path_form_t form;
        const char *canonical;
    };
    const row_t rows[] = {
        { "/vpn/vpn-instance{5}/interface{ge0/1}/mtu", PATH_INSTANCE, nullptr },
        { "vpn/vpn-instance{005}", PATH_INSTANCE, "/vpn/vpn-instance{5}" },
        { "/net:vpn/net:vpn-instance{5}", PATH_INSTANCE, "/vpn/vpn-instance{5}" },
        { "/test-net:vpn", PATH_INSTANCE, "/vpn" },
        { "/vpn/vpn-instance{5}/interface{\"a {b}\\\" \\\\\"}", PATH_INSTANCE, nullptr },
        { "/vpn/vpn-instance{5}/interface{\"\"}", PATH_INSTANCE, nullptr },
        { "/vpn/vpn-instance{5}/route{10.1.2.3/8  ge0/1 }", PATH_INSTANCE,
          "/vpn/vpn-instance{5}/route{10.0.0.0/8 ge0/1}" },
        { "/vpn/vpn-instance{5}/interface{a}/tag{x}", PATH_INSTANCE, nullptr },
        { "/vpn/vpn-instance", PATH_LIST, nullptr },
        { "/vpn/vpn-instance/interface{b}/mtu", PATH_POINT, nullptr },
        { "/", PATH_SUBTREE, nullptr },
        { "", PATH_SUBTREE, "/" },
    };
    datastore_ptr store = open_store();
    for (const row_t &row : rows)
        EXPECT_EQ(path_text(parse(store, row.text, row.form)), row.canonical ? row.canonical : row.text);
}

TEST(agent_path, bad_paths_are_refused_with_the_path_and_the_step)
{
    struct row_t {
        const char *text;
        path_form_t form;
        int code;
        const char *words;
    };
    const row_t rows[] = {
        { "/nothing", PATH_INSTANCE, CONFD_ERR_BADPATH, "unknown element 'nothing' at the top" },
        { "/vpn/vpn-instance{5}/foo", PATH_INSTANCE, CONFD_ERR_BADPATH,
          "unknown element 'foo' below /vpn/vpn-instance" },
        { "/m:vpn", PATH_INSTANCE, CONFD_ERR_BADPATH, "'m:vpn'" },
        { "/vpn/vpn-instance", PATH_INSTANCE, CONFD_ERR_BADPATH, "needs its keys" },
        { "/vpn/vpn-instance/interface{a}", PATH_SUBTREE, CONFD_ERR_BADPATH, "needs its keys" },
        { "/vpn/vpn-instance{1 2}", PATH_INSTANCE, CONFD_ERR_BADPATH, "takes 1 keys, not 2" },
        { "/vpn/vpn-instance{}", PATH_INSTANCE, CONFD_ERR_BADPATH, "takes 1 keys, not 0" },
        { "/vpn/vpn-instance{70000}", PATH_INSTANCE, CONFD_ERR_BADTYPE, "0..65529" },
        { "/vpn/vpn-instance{five}", PATH_INSTANCE, CONFD_ERR_BADTYPE, "\"five\"" },
        { "/vpn/vpn-instance{5", PATH_INSTANCE, CONFD_ERR_BADPATH, "not well formed" },
        { "/vpn/vpn-instance{\"5}", PATH_INSTANCE, CONFD_ERR_BADPATH, "not well formed" },
        { "/vpn/vpn-instance{\"5\"x}", PATH_INSTANCE, CONFD_ERR_BADPATH, "not well formed" },
        { "/vpn/vpn-instance{\"5\\", PATH_INSTANCE, CONFD_ERR_BADPATH, "not well formed" },
        { "/vpn/vpn-instance{5}x", PATH_INSTANCE, CONFD_ERR_BADPATH, "goes on with" },
        { "/vpn{5}", PATH_INSTANCE, CONFD_ERR_BADPATH, "takes 0 keys" },
        { "/vpn/", PATH_INSTANCE, CONFD_ERR_BADPATH, "goes on with" },
        { "//vpn", PATH_INSTANCE, CONFD_ERR_BADPATH, "empty element" },
        { "/", PATH_INSTANCE, CONFD_ERR_BADPATH, "no node" },
        { "/vpn", PATH_LIST, CONFD_ERR_BADPATH, "list without keys" },
    };
    datastore_ptr store = open_store();
    for (const row_t &row : rows) {
        path_t path;
        ds_error_t error;
        EXPECT_FALSE(path_parse(datastore_schema(*store), row.text, row.form, path, error)) << row.text;
        EXPECT_EQ(error.code, row.code) << error.text;
        EXPECT_NE(error.text.find(row.words), std::string::npos) << error.text;
        EXPECT_NE(error.text.find(row.text), std::string::npos) << error.text;
        EXPECT_TRUE(path.steps.empty());
    }
}

TEST(agent_value, every_type_goes_to_the_client_and_back)
{
    struct row_t {
        const char *path;
        const char *text;
        confd_vtype type;
        const char *canonical;
    };
    const row_t rows[] = {
        { "/all/i8", "-128", C_INT8, nullptr },
        { "/all/i16", "-5", C_INT16, nullptr },
        { "/all/i32", "+7", C_INT32, "7" },
        { "/all/i64", "-9223372036854775808", C_INT64, nullptr },
        { "/all/u8", "255", C_UINT8, nullptr },
        { "/all/dec", "-0.50", C_DECIMAL64, "-0.5" },
        { "/all/dec", "12", C_DECIMAL64, "12.0" },
        { "/all/word", "abc", C_BUF, nullptr },
        { "/all/bits", "z a", C_BIT64, "a z" },
        { "/ready", "ten one", C_BIT32, "one ten" },
        { "/all/shape", "test-net:round", C_IDENTITYREF, nullptr },
        { "/all/either", "12", C_UINT8, nullptr },
        { "/all/either", "none", C_ENUM_VALUE, nullptr },
        { "/all/either", "1.2.3.4", C_IPV4, nullptr },
        { "/all/either", "2001:DB8::0:1", C_IPV6, "2001:db8::1" },
        { "/all/v6", "::1", C_IPV6, nullptr },
        { "/all/p6", "2001:db8::1/32", C_IPV6PREFIX, "2001:db8::/32" },
        { "/all/bin", "AQID/w==", C_BINARY, nullptr },
        { "/all/time", "2026-11-21T08:00:00.25+02:00", C_DATETIME, nullptr },
        { "/all/ref", "9", C_UINT8, nullptr },
        { "/vpn/vpn-instance{5}/interface{a}/mode", "fast", C_ENUM_VALUE, nullptr },
        { "/vpn/vpn-instance{5}/interface{a}/quiet", "", C_XMLTAG, nullptr },
        { "/vpn/vpn-instance{5}/interface{a}/ip/dhcp", "true", C_BOOL, nullptr },
        { "/vpn/vpn-instance{5}/interface{a}/ip/address", "10.0.0.1", C_IPV4, nullptr },
    };
    datastore_ptr store = open_store();
    const schema_t &schema = datastore_schema(*store);
    for (const row_t &row : rows) {
        path_t path = parse(store, row.path);
        const schema_info_t &node = *path.node();
        value_t value;
        ds_error_t error;
        ASSERT_TRUE(value_from_text(node, row.text, row.path, value, error)) << error.text;
        std::string canonical(value_text(value));
        if (row.type != C_DATETIME) {
            EXPECT_EQ(canonical, row.canonical ? row.canonical : row.text);
        }
        confd_value_t form = value_to_confd(value);
        EXPECT_EQ(form.type, row.type) << row.path;
        EXPECT_TRUE(node.type == form.type || node.type == C_NOEXISTS) << row.path;
        value_t back;
        ASSERT_TRUE(value_from_confd(schema, node, form, row.path, back, error)) << error.text;
        EXPECT_TRUE(value_compare(value.ctx, value.raw, back.raw) == 0 || row.type == C_DATETIME)
            << row.path << " " << value_text(back);
        wire_writer_t out;
        wire_put_value(out, form);
        wire_reader_t in(out.bytes);
        confd_value_t read = wire_get_value(in);
        EXPECT_TRUE(wire_equal_values(read, form)) << row.path;
        wire_free_value(read);
    }
}

TEST(agent_value, a_clients_value_of_another_type_or_without_a_name_is_refused)
{
    datastore_ptr store = open_store();
    confd_value_t number{};
    number.type = C_INT32;
    number.val.i32 = 5;
    confd_value_t label{};
    label.type = C_ENUM_VALUE;
    label.val.enumvalue = 4;
    std::string control("a\x01", 2);
    std::string broken = "\xc3(";
    std::string with_nul("a\0b", 3);
    std::string digits = "5";
    const std::pair<const char *, confd_value_t> rows[] = {
        { "/all/u8", number },
        { "/all/u8", buf(digits) },
        { "/vpn/vpn-instance{5}/interface{a}/mode", label },
        { "/all/either", label },
        { "/vpn/vpn-instance{5}/name", buf(control) },
        { "/vpn/vpn-instance{5}/name", buf(broken) },
        { "/vpn/vpn-instance{5}/name", buf(with_nul) },
        { "/all", buf(digits) },
    };
    trans_ptr trans = trans_begin(*store, true, 1);
    for (const auto &[text, value] : rows) {
        ds_error_t error;
        EXPECT_FALSE(trans_set(*trans, parse(store, text), value, error)) << text;
        EXPECT_EQ(error.code, CONFD_ERR_BADTYPE) << error.text;
        EXPECT_NE(error.text.find(text), std::string::npos) << error.text;
    }
}

TEST(agent_schema, the_listing_tells_kinds_keys_types_and_labels)
{
    datastore_ptr store = open_store();
    wire_writer_t out;
    schema_put_listing(datastore_schema(*store), out);
    wire_reader_t in(out.bytes);
    uint32_t modules = in.count(16);
    for (uint32_t i = 0; i < modules; i++) {
        std::string_view name = in.text();
        (void)in.text();
        std::string_view uri = in.text();
        EXPECT_EQ(in.u32(), wire_hash(uri)) << name;
    }
    std::map<std::string, wire_schema_node_t> nodes;
    uint32_t count = in.count(10);
    for (uint32_t i = 0; i < count; i++) {
        wire_schema_node_t node;
        ASSERT_TRUE(wire_get_schema_node(in, node));
        EXPECT_LE(node.parent, i);
        nodes[node.name] = node;
    }
    EXPECT_TRUE(in.finished());
    EXPECT_EQ(nodes["route"].keys, (std::vector<uint32_t>{ wire_hash("prefix"), wire_hash("via") }));
    EXPECT_EQ(nodes["nat"].flags, WIRE_NODE_CONTAINER | WIRE_NODE_PRESENCE | WIRE_NODE_CONFIG);
    EXPECT_EQ(nodes["id"].flags, WIRE_NODE_LEAF | WIRE_NODE_KEY | WIRE_NODE_CONFIG);
    EXPECT_EQ(nodes["state"].flags, WIRE_NODE_LEAF);
    EXPECT_EQ(nodes["clear"].flags, WIRE_NODE_ACTION);
    EXPECT_EQ(nodes["what"].flags, WIRE_NODE_LEAF | WIRE_NODE_PARAM);
    EXPECT_EQ(nodes["main"].type, C_UINT64);
    EXPECT_EQ(nodes["mode"].names, (std::vector<std::pair<int64_t, std::string>>{ { 3, "slow" }, { 7, "fast" } }));
    EXPECT_EQ(nodes["ready"].names[2], (std::pair<int64_t, std::string>{ 10, "ten" }));
    EXPECT_TRUE(schema_has_statement(datastore_schema(*store), "hook", "vpn-hook"));
    EXPECT_EQ(*schema_statement(*parse(store, "/vpn/vpn-instance", PATH_LIST).node(), "hook"), "vpn-hook");
}
} // namespace
