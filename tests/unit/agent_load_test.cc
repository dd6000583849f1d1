// XML documents: NETCONF's envelope and operations, and what refuses a document.
#include "agent_env.h"

namespace
{
const std::string V1 = "/vpn/vpn-instance{1}";
const std::string NC = "xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\"";

std::string in_config(const std::string &content)
{
    return "<config " + NC + "><vpn xmlns=\"urn:test:net\"><vpn-instance><id>1</id>" + content +
           "</vpn-instance></vpn></config>";
}

struct row_t {
    std::string document;
    int code;
    std::string told; // the diff, or what the error names
};

const row_t rows[] = {
    { in_config("<name>m</name>"), 0, "=" + V1 + "/name n -> m" },
    { in_config("<name nc:operation=\"delete\">n</name>"), 0, "-" + V1 + "/name" },
    { in_config("<interface><name>a</name><mtu nc:operation=\"delete\"/></interface>"), 0,
      "-" + V1 + "/interface{a}/mtu" },
    { in_config("<interface nc:operation=\"delete\"><name>a</name></interface>"), 0, "-" + V1 + "/interface{a}" },
    { in_config("<interface nc:operation=\"remove\"><name>z</name></interface>"), 0, "" },
    { in_config("<interface nc:operation=\"delete\"><name>z</name></interface>"), CONFD_ERR_NOEXISTS, "interface{z}" },
    { in_config("<interface nc:operation=\"create\"><name>a</name></interface>"), CONFD_ERR_ALREADY_EXISTS,
      "interface{a}" },
    { in_config("<interface nc:operation=\"create\"><name>z</name><mtu>900</mtu></interface>"), 0,
      "+" + V1 + "/interface{z}\n=" + V1 + "/interface{z}/mtu 900" },
    { in_config("<interface nc:operation=\"none\"><name>z</name><mtu>900</mtu></interface>"), CONFD_ERR_NOEXISTS,
      "interface{z}" },
    { in_config("<interface nc:operation=\"none\"><name>a</name><mtu>900</mtu>"
                "<number nc:operation=\"merge\">7</number></interface>"),
      0, "=" + V1 + "/interface{a}/number 7" },
    { in_config("<interface nc:operation=\"replace\"><name>a</name><number>7</number></interface>"), 0,
      "-" + V1 + "/interface{a}/mtu\n=" + V1 + "/interface{a}/number 7\n-" + V1 + "/interface{a}/tag" },
    { in_config("<interface nc:operation=\"replace\"><name>a</name><mtu>900</mtu><tag>x</tag><tag>y</tag></interface>"),
      0, "" },
    { in_config("<rule nc:operation=\"replace\"><name>r</name><action>go</action></rule>"), 0,
      "=" + V1 + "/rule{r}/action go" },
    { in_config("<interface><name>a</name><tag>z</tag><tag>x</tag></interface>"), 0,
      "=" + V1 + "/interface{a}/tag x y -> x y z" },
    { in_config("<interface><name>a</name><tag nc:operation=\"delete\">x</tag></interface>"), 0,
      "=" + V1 + "/interface{a}/tag x y -> y" },
    { "<vpn xmlns=\"urn:test:net\" " + NC + " nc:operation=\"delete\"/>", 0, "-" + V1 },
    { in_config("<name nc:operation=\"drop\">n</name>"), CONFD_ERR_BADTYPE, V1 + "/name: there is no operation" },
    { in_config("<interface nc:operation=\"delete\"/>"), CONFD_ERR_BADTYPE, "interface" },
    // the envelope's namespaces
    { "<nc:config " + NC + " xmlns:p='urn:test:net'><p:vpn><p:main>1</p:main></p:vpn></nc:config>", 0, "=/vpn/main 1" },
    { "<data xmlns=\"urn:test:net\"><!-- <x> --><vpn><main>1</main></vpn><?pi <y?></data>", 0, "=/vpn/main 1" },
    { "<config xmlns:p=\"urn:none\"><p:vpn xmlns:p=\"urn:test:net\"><p:main>1</p:main></p:vpn></config>", 0,
      "=/vpn/main 1" },
    { "<config/>", 0, "" },
    { " <?xml version=\"1.0\"?><config " + NC + "></config>", 0, "" },
    // faults, with path, value, rule and line
    { in_config("\n<interface><name>a</name>\n<mtu>9</mtu></interface>"), CONFD_ERR_BADTYPE,
      V1 + "/interface{a}/mtu: \"9\" is refused: has to be a number of 576..2000 (line 3)" },
    { in_config("\n<what/>"), CONFD_ERR_BADTYPE, "line number 2" },
    { in_config("<label>4</label>"), CONFD_ERR_NOT_WRITABLE, V1 + "/label is not configuration" },
    { in_config("<name>m"), CONFD_ERR_BADTYPE, "the document is refused" },
    { "<config><vpn", CONFD_ERR_BADTYPE, "the document is refused" },
    { "<config a=", CONFD_ERR_BADTYPE, "the document is refused" },
    { "<!DOCTYPE config [<!ENTITY e \"1\">]><vpn xmlns=\"urn:test:net\"><main>&e;</main></vpn>", CONFD_ERR_BADTYPE,
      "the document is refused" },
};

TEST(agent_load, documents_do_what_their_operations_say_or_nothing)
{
    for (const row_t &row : rows) {
        SCOPED_TRACE(row.document);
        datastore_ptr store = open_store();
        (void)commit(store, { "set " + V1 + "/name n", "set " + V1 + "/interface{a}/mtu 900",
                              "set " + V1 + "/interface{a}/tag x", "set " + V1 + "/interface{a}/tag y",
                              "create " + V1 + "/rule{r}", "create " + V1 + "/rule{s}" });
        trans_ptr trans = trans_begin(*store, true, 1);
        ds_error_t error;
        bool is_good = trans_load(*trans, DOC_XML, row.document, error);
        ASSERT_EQ(is_good ? 0 : error.code, row.code) << error.text;
        diff_ptr diff;
        ds_error_t why;
        ASSERT_TRUE(trans_diff(*trans, diff, why));
        EXPECT_EQ(diff_text(*diff), is_good ? row.told : "");
        EXPECT_TRUE(is_good || error.text.find(row.told) != std::string::npos) << error.text;
    }
}

TEST(agent_load, documents_nested_deeper_than_any_model_are_refused)
{
    datastore_ptr store = open_store();
    std::string open, json;
    for (int i = 0; i < 200000; i++) {
        open += "<a xmlns=\"urn:x\">";
        json += "{\"a\":[";
    }
    const std::pair<doc_format_t, std::string> documents[] = {
        { DOC_XML, open }, { DOC_XML, "<config>" + open }, { DOC_JSON, json }, { DOC_JSON, std::string(200000, '[') }
    };
    for (const auto &[format, text] : documents) {
        trans_ptr trans = trans_begin(*store, true, 1);
        ds_error_t error;
        EXPECT_FALSE(trans_load(*trans, format, text, error));
        EXPECT_FALSE(error.text.empty());
    }
}

// Whatever stands in the place of a byte, nothing but a verdict comes of it.
TEST(agent_load, damaged_documents_are_loaded_or_refused)
{
    datastore_ptr store = open_store();
    for (const row_t &row : rows)
        for (size_t i = 0; i < row.document.size(); i++)
            for (char c : { '<', '>', '"', '/', '=', ' ', '\xff' }) {
                std::string document = row.document;
                document[i] = c;
                trans_ptr trans = trans_begin(*store, true, 1);
                ds_error_t error;
                bool is_good = trans_load(*trans, DOC_XML, document, error);
                ASSERT_EQ(is_good, error.code == 0) << document << error.text;
                ASSERT_TRUE(is_good || !trans_is_dirty(*trans)) << document;
            }
}
} // namespace
