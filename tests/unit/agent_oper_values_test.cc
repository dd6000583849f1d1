// Several operational values in one change.
#include "agent_env.h"

namespace
{
const std::string IF = "/vpn/vpn-instance{1}/interface{a}";

confd_tag_value_t item(const std::string &name, confd_value_t value)
{
    return { { wire_hash(name), wire_hash("urn:test:net") }, value };
}

confd_tag_value_t mark(const std::string &name, confd_vtype type)
{
    confd_value_t value{};
    value.type = type;
    return item(name, value);
}

confd_tag_value_t number(const std::string &name, uint64_t n)
{
    confd_value_t value{};
    value.type = C_UINT64;
    value.val.u64 = n;
    return item(name, value);
}

confd_tag_value_t up()
{
    confd_value_t value{};
    value.type = C_ENUM_VALUE;
    value.val.enumvalue = 1;
    return item("state", value);
}

const std::string k1 = "k1", k2 = "k2", other = "b", same = "a";

struct row_t {
    std::string path;
    std::vector<confd_tag_value_t> values;
    int code;
    std::string told; // the diff, or what the error names
};

TEST(agent_oper_values, they_are_one_change_or_none)
{
    const row_t rows[] = {
        { IF, { item("name", buf(same)), up() }, 0, "=" + IF + "/state down -> up" },
        { IF,
          { up(), mark("counter", C_XMLBEGIN), item("kind", buf(k2)), number("value", 7), mark("counter", C_XMLEND),
            mark("counter", C_XMLBEGIN), item("kind", buf(k1)), mark("value", C_NOEXISTS), mark("counter", C_XMLEND) },
          0,
          "=" + IF + "/state down -> up\n-" + IF + "/counter{k1}/value\n+" + IF + "/counter{k2}\n=" + IF +
              "/counter{k2}/value 7" },
        { "/vpn",
          { mark("vpn-instance", C_XMLBEGIN), number("id", 1), mark("interface", C_XMLBEGIN), item("name", buf(same)),
            mark("state", C_NOEXISTS), mark("interface", C_XMLEND), mark("vpn-instance", C_XMLEND) },
          0,
          "-" + IF + "/state" },
        { IF, { mark("state", C_NOEXISTS), mark("state", C_NOEXISTS) }, 0, "-" + IF + "/state" },
        { IF, {}, 0, "" },
        { IF, { up(), number("mtu", 1) }, CONFD_ERR_NOT_WRITABLE, IF + "/mtu" },
        { IF, { up(), item("name", buf(other)) }, CONFD_ERR_NOT_WRITABLE, "key name" },
        { IF, { up(), number("state", 1) }, CONFD_ERR_BADTYPE, IF + "/state" },
        { IF, { up(), number("label", 1) }, CONFD_ERR_BADPATH, "label" },
        { IF, { up(), mark("counter", C_XMLBEGIN), number("value", 7) }, CONFD_ERR_BADTYPE, "kind is missing" },
        { IF, { up(), mark("counter", C_XMLBEGIN) }, CONFD_ERR_BADTYPE, "kind is missing" },
        { IF, { up(), mark("ip", C_XMLBEGIN) }, CONFD_ERR_BADTYPE, "does not end" },
        { IF, { up(), mark("interface", C_XMLEND) }, CONFD_ERR_BADTYPE, "nothing has begun" },
        { IF, { up(), mark("ip", C_XMLBEGIN), mark("nat", C_XMLEND) }, CONFD_ERR_BADTYPE, "nothing has begun" },
        { IF, { up(), mark("mtu", C_XMLBEGIN) }, CONFD_ERR_BADTYPE, "no container" },
        { "/vpn/vpn-instance{1}/interface{z}", { up() }, CONFD_ERR_NOEXISTS, "not configured" },
    };
    for (const row_t &row : rows) {
        SCOPED_TRACE(row.path + " -> " + row.told);
        datastore_ptr store = open_store();
        (void)commit(store, { "create " + IF });
        diff_ptr diff;
        ds_error_t error;
        ASSERT_TRUE(oper_set_text(*store, parse(store, IF + "/state"), "down", diff, error));
        ASSERT_TRUE(oper_set_text(*store, parse(store, IF + "/counter{k1}/value"), "3", diff, error));
        auto before = contents(store, SHOW_OPERATIONAL);
        diff = nullptr;
        bool is_good = oper_set_values(*store, parse(store, row.path), row.values, diff, error);
        ASSERT_EQ(is_good ? 0 : error.code, row.code) << error.text;
        if (is_good) {
            EXPECT_EQ(diff_text(*diff), row.told);
        } else {
            EXPECT_NE(error.text.find(row.told), std::string::npos) << error.text;
            EXPECT_EQ(contents(store, SHOW_OPERATIONAL), before);
            EXPECT_FALSE(diff);
        }
    }
}
} // namespace
