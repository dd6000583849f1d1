// Lists and leaf-lists that users put in order.
#include "agent/server/diff_order.h"
#include "agent_env.h"

#include <algorithm>
#include <filesystem>
#include <random>

namespace
{
const std::string V1 = "/vpn/vpn-instance{1}";

std::vector<std::string> order_at(const datastore_ptr &store, const std::string &list, view_t view = {})
{
    std::vector<entry_keys_t> entries;
    ds_error_t error;
    EXPECT_TRUE(read_next(*store, view, parse(store, list, PATH_LIST), {}, 100, entries, error)) << error.text;
    std::vector<std::string> names;
    for (const entry_keys_t &keys : entries)
        names.emplace_back(value_text(keys[0]));
    return names;
}

using names_t = std::vector<std::string>;

std::vector<std::string> ground(const names_t &rules)
{
    std::vector<std::string> lines;
    for (const std::string &name : rules)
        lines.push_back("create " + V1 + "/rule{" + name + "}");
    return lines;
}

struct row_t {
    std::vector<std::string> lines;
    names_t order;
    std::string diff;
};

TEST(agent_order, what_is_told_is_the_least_that_leads_to_the_new_order)
{
    const std::string R = "/vpn/vpn-instance{1}/rule";
    const row_t rows[] = {
        { { "move " + R + "{a} last" }, { "b", "c", "d", "a" }, "^" + R + "{a} after d" },
        { { "move " + R + "{d} first" }, { "d", "a", "b", "c" }, "^" + R + "{d} first" },
        { { "move " + R + "{c} before b" }, { "a", "c", "b", "d" }, "^" + R + "{c} after a" },
        { { "move " + R + "{b} after c" }, { "a", "c", "b", "d" }, "^" + R + "{b} after c" },
        { { "move " + R + "{b} after a", "move " + R + "{d} last" }, { "a", "b", "c", "d" }, "" },
        { { "move " + R + "{a} last", "move " + R + "{a} first" }, { "a", "b", "c", "d" }, "" },
        { { "move " + R + "{d} first", "set " + R + "{d}/action x", "set " + R + "{a}/action y" },
          { "d", "a", "b", "c" },
          "^" + R + "{d} first\n=" + R + "{d}/action x\n=" + R + "{a}/action y" },
        { { "create " + R + "{e}", "create " + R + "{f}", "move " + R + "{f} before e" },
          { "a", "b", "c", "d", "f", "e" },
          "+" + R + "{f}\n+" + R + "{e}" },
        { { "create " + R + "{e}", "move " + R + "{e} after a", "delete " + R + "{c}" },
          { "a", "e", "b", "d" },
          "-" + R + "{c}\n+" + R + "{e}" },
        { { "delete " + R + "{b}", "create " + R + "{b}" }, { "a", "c", "d", "b" }, "^" + R + "{b} after d" },
        { { "set " + R + "{c}/action x", "set " + R + "{b}/action x" },
          { "a", "b", "c", "d" },
          "=" + R + "{b}/action x\n=" + R + "{c}/action x" },
    };
    for (const row_t &row : rows) {
        SCOPED_TRACE(row.lines.front());
        datastore_ptr store = open_store();
        (void)commit(store, ground({ "a", "b", "c", "d" }));
        diff_ptr diff = commit(store, row.lines);
        EXPECT_EQ(diff_text(*diff), row.diff);
        EXPECT_EQ(order_at(store, R), row.order);
        EXPECT_EQ(order_at(store, R, { VIEW_OLD }), (names_t{ "a", "b", "c", "d" }));
    }
}

TEST(agent_order, clients_get_the_keys_of_the_entry_before_as_the_new_value)
{
    datastore_ptr store = open_store();
    (void)commit(store, ground({ "a", "b" }));
    diff_ptr diff = commit(store, { "move " + V1 + "/rule{b} first", "create " + V1 + "/rule{c}" });
    const std::map<std::string, std::string> before = { { "b", "" }, { "c", "a" } };
    for (const auto &[name, expected] : before) {
        const diff_node_t *node = diff_find(*diff, parse(store, V1 + "/rule{" + name + "}"));
        ASSERT_TRUE(node);
        wire_writer_t out;
        diff_put_values(out, *node);
        wire_reader_t in(out.bytes);
        EXPECT_EQ(in.u8(), C_NOEXISTS);
        confd_value_t value = wire_get_value(in);
        ASSERT_TRUE(in.finished());
        EXPECT_EQ(value.type, expected.empty() ? C_NOEXISTS : C_LIST);
        if (value.type == C_LIST) {
            ASSERT_EQ(value.val.list.size, 1u);
            confd_value_t wanted = buf(expected);
            EXPECT_TRUE(wire_equal_values(value.val.list.ptr[0], wanted));
        }
        wire_free_value(value);
    }
}

TEST(agent_order, what_cannot_be_moved_is_refused_with_a_reason)
{
    datastore_ptr store = open_store();
    (void)commit(store, ground({ "a", "b" }));
    (void)commit(store, { "create " + V1 + "/interface{i}", "set " + V1 + "/interface{i}/tag x" });
    const std::tuple<std::string, int, std::string> rows[] = {
        { "move " + V1 + "/rule{z} first", CONFD_ERR_NOEXISTS, "rule{z} does not exist" },
        { "move " + V1 + "/rule{a} after z", CONFD_ERR_NOEXISTS, "rule{z} does not exist" },
        { "move " + V1 + "/rule{a} before a", CONFD_ERR_BADTYPE, "before or behind itself" },
        { "move " + V1 + "/rule{a} after", CONFD_ERR_BADTYPE, "takes 1 keys, not 0" },
        { "move " + V1 + "/rule first", CONFD_ERR_BADPATH, "no entry of a list" },
        { "move " + V1 + "/interface{i} first", CONFD_ERR_BADPATH, "no entry of a list" },
        { "move " + V1 + "/interface{i}/tag{y} first", CONFD_ERR_NOEXISTS, "tag{y} does not exist" },
        { "move /vpn/vpn-instance{2}/rule{a} first", CONFD_ERR_NOEXISTS, "does not exist" },
        { "move " + V1 + "/name first", CONFD_ERR_BADPATH, "no entry of a list" },
    };
    trans_ptr trans = trans_begin(*store, true, 1);
    for (const auto &[line, code, words] : rows) {
        std::string why;
        EXPECT_EQ(edit(*trans, line, &why), code) << line;
        EXPECT_NE(why.find(words), std::string::npos) << why;
    }
    EXPECT_FALSE(trans_is_dirty(*trans));
}

TEST(agent_order, values_of_a_leaf_list_move_and_are_told_as_its_new_value)
{
    datastore_ptr store = open_store();
    const std::string tag = V1 + "/interface{i}/tag";
    (void)commit(store, { "set " + tag + " x", "set " + tag + " y", "set " + tag + " z" });
    diff_ptr diff = commit(store, { "move " + tag + "{z} first", "move " + tag + "{x} last" });
    EXPECT_EQ(diff_text(*diff), "=" + tag + " x y z -> z y x");
    EXPECT_EQ(order_at(store, tag), (names_t{ "z", "y", "x" }));
}

TEST(agent_order, a_move_is_made_again_on_a_running_that_has_moved)
{
    datastore_ptr store = open_store();
    (void)commit(store, ground({ "a", "b", "c" }));
    trans_ptr trans = trans_begin(*store, true, 1);
    ASSERT_EQ(edit(*trans, "move " + V1 + "/rule{c} before b"), 0);
    (void)commit(store, { "move " + V1 + "/rule{b} first" });
    view_t view = { VIEW_TRANS, trans.get() };
    EXPECT_EQ(order_at(store, V1 + "/rule", view), (names_t{ "c", "b", "a" }));
    (void)commit(store, { "delete " + V1 + "/rule{b}" });
    ds_error_t error;
    EXPECT_FALSE(trans_check(*trans, error));
    EXPECT_EQ(error.code, CONFD_ERR_CONFLICT);
    EXPECT_NE(error.text.find("rule{b} does not exist"), std::string::npos) << error.text;
}

TEST(agent_order, the_order_outlives_restarts_by_journal_and_by_snapshot)
{
    std::string dir = testing::TempDir() + "agent_order." + std::to_string(getpid());
    const names_t order = { "d", "b", "n", "a", "m" };
    for (bool has_snapshot : { false, true }) {
        SCOPED_TRACE(has_snapshot);
        std::filesystem::remove_all(dir);
        {
            datastore_ptr store = open_store(dir);
            (void)commit(store, ground({ "a", "b", "c", "d" }));
            (void)commit(store, { "move " + V1 + "/rule{d} first", "create " + V1 + "/rule{n}",
                                  "move " + V1 + "/rule{n} before a", "move " + V1 + "/rule{b} after d",
                                  "delete " + V1 + "/rule{c}", "create " + V1 + "/rule{m}" });
            (void)commit(store, { "create /step{x}", "create /step{y}", "move /step{y} first" });
            ASSERT_EQ(order_at(store, V1 + "/rule"), order);
            ds_error_t error;
            ASSERT_TRUE(!has_snapshot || datastore_snapshot(*store, true, error));
        }
        datastore_ptr store = open_store(dir);
        EXPECT_EQ(order_at(store, V1 + "/rule"), order);
        EXPECT_EQ(order_at(store, "/step"), (names_t{ "y", "x" }));
    }
    std::filesystem::remove_all(dir);
}

// ---- which entries are moved

size_t longest_row(const std::vector<order_item_t> &items)
{
    size_t best = 0;
    for (unsigned set = 0; set < 1u << items.size(); set++) {
        size_t last = 0, count = 0;
        bool is_row = true;
        for (size_t i = 0; i < items.size(); i++) {
            if (!(set >> i & 1))
                continue;
            is_row = is_row && items[i].old_place != NO_PLACE && (count == 0 || items[i].old_place > last);
            last = items[i].old_place;
            count++;
        }
        best = is_row ? std::max(best, count) : best;
    }
    return best;
}

TEST(agent_order, any_change_of_order_is_followed_with_the_fewest_moves)
{
    std::mt19937 engine(1);
    for (int round = 0; round < 300; round++) {
        size_t count = engine() % 8;
        std::vector<size_t> old(count);
        for (size_t i = 0; i < count; i++)
            old[i] = i;
        std::ranges::shuffle(old, engine);
        std::vector<order_item_t> items;
        for (size_t place : old)
            items.push_back({ engine() % 4 == 0 ? NO_PLACE : place, true });
        diff_find_moves(items);
        // Positions in items stand for the entries: the old ones in their order, then the new ones.
        std::vector<size_t> entries;
        size_t moved = 0, kept = 0;
        for (size_t i = 0; i < items.size(); i++) {
            entries.push_back(i);
            moved += items[i].is_placed && items[i].old_place != NO_PLACE;
            kept += items[i].old_place != NO_PLACE;
        }
        std::ranges::stable_sort(entries, [&](size_t a, size_t b) { return items[a].old_place < items[b].old_place; });
        for (size_t i = 0; i < items.size(); i++) {
            if (!items[i].is_placed)
                continue;
            std::erase(entries, i);
            auto before = i == 0 ? entries.begin() : std::ranges::find(entries, i - 1) + 1;
            entries.insert(before, i);
        }
        EXPECT_TRUE(std::ranges::is_sorted(entries));
        EXPECT_EQ(moved, kept - longest_row(items));
    }
}
} // namespace
