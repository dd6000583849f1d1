// What subscription points see of a commit.
#include "agent_env.h"

namespace
{
const std::string V5 = "/vpn/vpn-instance{5}";
const std::string IF = V5 + "/interface{ge0/1}";

std::string value_name(const confd_value_t &value)
{
    switch (value.type) {
    case C_NOEXISTS:
        return "gone";
    case C_BUF:
        return std::string(reinterpret_cast<const char *>(value.val.buf.ptr), value.val.buf.size);
    case C_UINT64:
        return std::to_string(value.val.u64);
    case C_UINT32:
        return std::to_string(value.val.u32);
    case C_UINT16:
        return std::to_string(value.val.u16);
    case C_BOOL:
        return value.val.boolean ? "true" : "false";
    case C_ENUM_VALUE:
        return "enum " + std::to_string(value.val.enumvalue);
    case C_XMLTAG:
        return "empty";
    case C_LIST: {
        std::string text;
        for (unsigned i = 0; i < value.val.list.size; i++)
            text += (i ? "," : "[") + value_name(value.val.list.ptr[i]);
        return text + "]";
    }
    default:
        return "type " + std::to_string(value.type);
    }
}

// "name=value", "name(" and "name)" of containers and entries, "name-(" of deleted entries.
std::string mods_text(const datastore_ptr &store, const std::string &bytes, uint32_t count)
{
    wire_reader_t in(bytes);
    std::string text;
    for (uint32_t i = 0; i < count; i++) {
        uint32_t tag = in.u32();
        EXPECT_EQ(in.u32(), wire_hash("urn:test:net"));
        confd_value_t value = wire_get_value(in);
        const std::string *name = schema_hash_name(datastore_schema(*store), tag);
        text += (text.empty() ? "" : " ") + (name ? *name : "?");
        text += value.type == C_XMLBEGIN      ? "("
                : value.type == C_XMLEND      ? ")"
                : value.type == C_XMLBEGINDEL ? "-("
                                              : "=" + value_name(value);
        wire_free_value(value);
    }
    EXPECT_TRUE(in.finished());
    return text;
}

// One line an instance: the operation, the path, the modifications.
std::string seen(const datastore_ptr &store, const diff_t &diff, const std::string &point, uint32_t flags = 0)
{
    static const char *ops[] = { "?", "created", "deleted", "modified", "set", "moved" };
    path_t path = parse(store, point, PATH_POINT);
    std::string text;
    for (const diff_node_t *node : diff_instances(diff, path)) {
        wire_writer_t out;
        uint32_t count = diff_put_modifications(out, *node, flags);
        text += (text.empty() ? "" : "\n") + std::string(ops[node->op]) + " " + path_text(diff_path(*node)) + ": " +
                mods_text(store, out.bytes, count);
    }
    EXPECT_EQ(diff_touches(diff, path), !text.empty());
    return text;
}

struct row_t {
    std::vector<std::string> ground;
    std::vector<std::string> lines;
    std::string point;
    std::string seen;
};

TEST(agent_diff, each_point_sees_what_changed_at_its_level)
{
    const row_t rows[] = {
        // A created entry, at its own level, above and below.
        { {},
          { "set " + IF + "/mtu 1400", "set " + V5 + "/name n" },
          "vpn/vpn-instance",
          "created " + V5 + ": id=5 name=n" },
        { {}, { "set " + IF + "/mtu 1400" }, "vpn/vpn-instance/interface", "created " + IF + ": name=ge0/1 mtu=1400" },
        { {}, { "set " + IF + "/mtu 1400" }, "vpn", "modified /vpn: " },
        { {}, { "set " + IF + "/mtu 1400" }, "vpn/vpn-instance/interface/mtu", "set " + IF + "/mtu: mtu=1400" },
        { {}, { "create " + V5 }, "vpn/vpn-instance/interface", "" },
        // A deleted entry, once.
        { { "set " + IF + "/mtu 1400" }, { "delete " + V5 }, "vpn/vpn-instance", "deleted " + V5 + ": " },
        { { "set " + IF + "/mtu 1400" }, { "delete " + V5 }, "vpn/vpn-instance/interface", "" },
        { { "set " + IF + "/mtu 1400" }, { "delete " + IF }, "vpn/vpn-instance/interface", "deleted " + IF + ": " },
        { { "set " + IF + "/mtu 1400" }, { "delete " + IF }, "vpn/vpn-instance", "modified " + V5 + ": " },
        // Leaves in the order of the model; back to the default is gone; defaults are not told.
        { { "set " + IF + "/mtu 1400", "set " + IF + "/number 2" },
          { "set " + IF + "/ip/dhcp true", "create " + IF + "/quiet", "set " + IF + "/mode fast",
            "delete " + IF + "/mtu" },
          "vpn/vpn-instance/interface",
          "modified " + IF + ": mtu=gone mode=enum 7 quiet=empty ip( dhcp=true ip)" },
        { { "set " + IF + "/ip/dhcp true" },
          { "delete " + IF + "/ip" },
          "vpn/vpn-instance/interface",
          "modified " + IF + ": ip( dhcp=gone ip)" },
        { { "create " + IF },
          { "set " + IF + "/mtu 1500" },
          "vpn/vpn-instance/interface",
          "modified " + IF + ": mtu=1500" },
        // Presence containers.
        { { "create " + IF },
          { "set " + IF + "/nat/pool p" },
          "vpn/vpn-instance/interface",
          "modified " + IF + ": nat( pool=p nat)" },
        { { "set " + IF + "/nat/pool p" },
          { "delete " + IF + "/nat" },
          "vpn/vpn-instance/interface",
          "modified " + IF + ": nat=gone" },
        { { "set " + IF + "/nat/pool p" },
          { "delete " + IF + "/nat" },
          "vpn/vpn-instance/interface/nat",
          "deleted " + IF + "/nat: nat=gone" },
        { { "set " + IF + "/nat/pool p" }, { "delete " + IF + "/nat" }, "vpn/vpn-instance/interface/nat/pool", "" },
        // Leaf-lists as a whole.
        { { "set " + IF + "/port 9" },
          { "set " + IF + "/port 10", "set " + IF + "/tag b", "set " + IF + "/tag a" },
          "vpn/vpn-instance/interface",
          "modified " + IF + ": tag=[b,a] port=[9,10]" },
        { { "set " + IF + "/port 9" },
          { "delete " + IF + "/port{9}" },
          "vpn/vpn-instance/interface",
          "modified " + IF + ": port=gone" },
        // Choices.
        { { "set " + IF + "/channel 3" },
          { "set " + IF + "/duplex half" },
          "vpn/vpn-instance/interface",
          "modified " + IF + ": duplex=half channel=gone" },
        // Keys in the point, key order.
        { {},
          { "create " + V5, "create /vpn/vpn-instance{40}", "create /vpn/vpn-instance{10}" },
          "vpn/vpn-instance",
          "created " + V5 + ": id=5\ncreated /vpn/vpn-instance{10}: id=10\ncreated /vpn/vpn-instance{40}: id=40" },
        { {},
          { "create " + V5, "create /vpn/vpn-instance{10}" },
          "vpn/vpn-instance{10}",
          "created /vpn/vpn-instance{10}: id=10" },
        { { "create " + IF }, { "delete " + IF, "create " + IF }, "vpn/vpn-instance/interface", "" },
        // The last one puts a new entry in the old one's place.
        { { "set " + IF + "/number 2", "set " + IF + "/ip/dhcp true" },
          { "delete " + IF, "set " + IF + "/number 3" },
          "vpn/vpn-instance/interface",
          "modified " + IF + ": number=3 ip( dhcp=gone ip)" },
    };
    for (const row_t &row : rows) {
        datastore_ptr store = open_store();
        if (!row.ground.empty())
            commit(store, row.ground);
        diff_ptr diff = commit(store, row.lines);
        EXPECT_EQ(seen(store, *diff, row.point), row.seen) << row.lines.back() << " at " << row.point;
    }
}

TEST(agent_diff, list_entries_are_told_when_asked_for)
{
    datastore_ptr store = open_store();
    commit(store, { "create " + IF, "create " + V5 + "/interface{b}", "create " + V5 + "/interface{c}" });
    diff_ptr diff = commit(store, { "delete " + V5 + "/interface{b}", "set " + IF + "/mtu 1400",
                                    "set " + V5 + "/interface{d}/ip/dhcp true" });
    EXPECT_EQ(seen(store, *diff, "vpn/vpn-instance", WIRE_MODS_LISTS),
              "modified " + V5 +
                  ": interface-( name=b interface) interface( name=d ip( dhcp=true ip) interface) "
                  "interface( name=ge0/1 mtu=1400 interface)");
    wire_writer_t out;
    path_t point = parse(store, "vpn/vpn-instance", PATH_POINT);
    uint32_t count = diff_put_point_modifications(out, *diff, point, WIRE_MODS_LISTS);
    std::string all = mods_text(store, out.bytes, count);
    EXPECT_TRUE(all.starts_with("vpn-instance( id=5 interface-( name=b") && all.ends_with("vpn-instance)")) << all;
    wire_writer_t none;
    EXPECT_EQ(diff_put_point_modifications(none, *diff, point, 0), 0u);
}

TEST(agent_diff, everything_that_exists_can_be_told_as_created)
{
    datastore_ptr store = open_store();
    commit(store, { "set " + IF + "/mtu 1400", "create " + V5 + "/rule{z}", "create " + V5 + "/rule{a}" });
    diff_ptr all = read_all_as_diff(*store, SHOW_CONFIG);
    EXPECT_EQ(seen(store, *all, "vpn/vpn-instance/interface"), "created " + IF + ": name=ge0/1 mtu=1400");
    EXPECT_EQ(seen(store, *all, "vpn/vpn-instance/rule"),
              "created " + V5 + "/rule{z}: name=z\ncreated " + V5 + "/rule{a}: name=a");
    EXPECT_EQ(diff_find(*all, parse(store, V5 + "/interface{x}")), nullptr);
    EXPECT_NE(diff_find(*all, parse(store, IF)), nullptr);
}

TEST(agent_diff, old_and_new_values_and_the_keypath_go_with_a_change)
{
    datastore_ptr store = open_store();
    commit(store, { "set " + IF + "/mtu 1400" });
    diff_ptr diff = commit(store, { "set " + IF + "/mtu 1300" });
    const diff_node_t *leaf = diff_find(*diff, parse(store, IF + "/mtu"));
    ASSERT_TRUE(leaf);
    wire_writer_t out;
    diff_put_keypath(out, *leaf);
    diff_put_values(out, *leaf);
    wire_reader_t in(out.bytes);
    confd_hkeypath_t keypath{};
    ASSERT_TRUE(wire_get_keypath(in, keypath));
    path_t path;
    ds_error_t error;
    ASSERT_TRUE(path_from_keypath(datastore_schema(*store), keypath, PATH_INSTANCE, path, error)) << error.text;
    EXPECT_EQ(path_text(path), IF + "/mtu");
    wire_free_keypath(keypath);
    confd_value_t old = wire_get_value(in);
    confd_value_t now = wire_get_value(in);
    EXPECT_EQ(value_name(old) + " " + value_name(now), "1400 1300");
    EXPECT_TRUE(in.finished());
}
} // namespace
