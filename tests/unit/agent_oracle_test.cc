// Random edits against libyang's own validation of a copy: same verdict, same tree, exact undo, a net change that leads
// from the old content to the new.
#include "agent_env.h"

#include <random>

namespace
{
struct tree_copy_t {
    lyd_node *first = nullptr;
    explicit tree_copy_t(const lyd_node *from)
    {
        if (from)
            (void)lyd_dup_siblings(from, nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS, &first);
    }
    ~tree_copy_t() { lyd_free_all(first); }
    tree_copy_t(const tree_copy_t &) = delete;
};

// What differs between two trees, defaults included; empty when nothing does.
std::string difference(const lyd_node *a, const lyd_node *b)
{
    lyd_node *diff = nullptr;
    if (lyd_diff_siblings(a, b, LYD_DIFF_DEFAULTS, &diff) != LY_SUCCESS)
        return "no diff";
    char *text = nullptr;
    lyd_print_mem(&text, diff, LYD_XML, LYD_PRINT_WITHSIBLINGS | LYD_PRINT_WD_ALL);
    std::string all = text ? text : "";
    free(text);
    lyd_free_all(diff);
    return all;
}

// "/vpn/vpn-instance{5}/mtu" in the words of XPath.
std::string xpath_of(const path_t &path)
{
    std::string text;
    for (const path_step_t &step : path.steps) {
        text += "/" + std::string(step.node->parent ? "" : "test-net:") + step.node->name();
        for (size_t i = 0; i < step.keys.size(); i++) {
            bool is_list = step.node->is(WIRE_NODE_LIST);
            text += "[" + std::string(is_list ? step.node->keys[i]->name() : ".") + "='" +
                    std::string(value_text(step.keys[i])) + "']";
        }
    }
    return text;
}

void drop(tree_copy_t &tree, const std::string &xpath)
{
    ly_set *found = nullptr;
    if (!tree.first || lyd_find_xpath(tree.first, xpath.c_str(), &found) != LY_SUCCESS)
        return;
    for (uint32_t i = 0; i < found->count; i++) {
        if (found->dnodes[i] == tree.first)
            tree.first = tree.first->next;
        lyd_free_tree(found->dnodes[i]);
    }
    ly_set_free(found, nullptr);
}

// The same edit with libyang's means. A choice's other case goes by hand: in one validation libyang would see both.
void edit_copy(tree_copy_t &tree, const datastore_ptr &store, const std::string &line)
{
    size_t value_at = line.rfind(' ');
    bool is_set = line.starts_with("set ");
    std::string text = line.substr(line.find(' ') + 1);
    std::string value = is_set ? line.substr(value_at + 1) : "";
    if (is_set)
        text = text.substr(0, text.rfind(' '));
    path_t path = parse(store, text);
    std::string xpath = xpath_of(path);
    if (line.starts_with("delete ")) {
        drop(tree, xpath);
        return;
    }
    std::string name = path.node()->name();
    std::string parent = xpath.substr(0, xpath.rfind('/'));
    if (name == "duplex") {
        drop(tree, parent + "/channel");
        drop(tree, parent + "/power");
    } else if (name == "channel" || name == "power") {
        drop(tree, parent + "/duplex");
    }
    bool is_leaf_list = path.node()->is(WIRE_NODE_LEAF_LIST);
    std::string full = is_leaf_list ? xpath + "[.='" + value + "']" : xpath;
    lyd_node *made = nullptr;
    (void)lyd_new_path(tree.first, store->schema->ctx.get(), full.c_str(), is_leaf_list ? nullptr : value.c_str(),
                       LYD_NEW_PATH_UPDATE, &made);
    if (!tree.first)
        for (tree.first = made; made && tree.first->parent; tree.first = tree_parent(tree.first))
            ;
    if (tree.first)
        tree.first = lyd_first_sibling(tree.first);
}

struct random_t {
    std::mt19937 engine;
    size_t below(size_t limit) { return engine() % limit; }
    std::string one_of(const std::vector<std::string> &choices) { return choices[below(choices.size())]; }
};

std::string random_edit(random_t &random)
{
    std::string entry = "/vpn/vpn-instance{" + random.one_of({ "1", "2", "10" }) + "}";
    std::string port = entry + "/interface{" + random.one_of({ "a", "b" }) + "}";
    switch (random.below(30)) {
    case 0:
        return "create " + entry;
    case 1:
        return "delete " + entry;
    case 2:
        return "delete " + port;
    case 3:
        return "set " + port + "/mtu " + random.one_of({ "900", "1400", "1500" });
    case 4:
        return "delete " + port + "/" +
               random.one_of({ "mtu", "mode", "speed", "duplex", "channel", "power", "ip", "nat" });
    case 5:
        return "set " + port + "/mode " + random.one_of({ "slow", "fast" });
    case 6:
        return "set " + port + "/speed " + random.one_of({ "10", "20" });
    case 7:
        return "set " + port + "/ip/dhcp " + random.one_of({ "true", "false" });
    case 8:
        return "set " + port + "/duplex " + random.one_of({ "half", "full" });
    case 9:
        return "set " + port + "/channel 3";
    case 10:
        return "set " + port + "/power " + random.one_of({ "5", "6" });
    case 11:
        return "create " + port + "/nat";
    case 12:
        return "set " + port + "/nat/pool p";
    case 13:
        return "set " + port + "/port " + random.one_of({ "1", "2", "3", "4" });
    case 14:
        return "delete " + port + "/port{" + random.one_of({ "1", "2", "3" }) + "}";
    case 15:
        return "set " + port + "/tag " + random.one_of({ "x", "y" });
    case 16:
        return "set " + entry + "/route{10.0.0.0/8 " + random.one_of({ "a", "b" }) + "}/metric 1";
    case 17:
        return "delete " + entry + "/route";
    case 18:
        return "set /vpn/main " + random.one_of({ "1", "2", "10" });
    case 19:
        return "delete /vpn/main";
    case 20:
        return "set " + port + "/number " + random.one_of({ "1", "2" });
    case 21:
        return "set /quota/share{" + random.one_of({ "a", "b", "c" }) + "}/part " + random.one_of({ "1", "3", "7" });
    case 22:
        return "delete /quota" + random.one_of({ "", "/share", "/share{a}", "/rest" });
    case 23:
        return "set /quota/rest/slack 1";
    case 24:
        return "delete /vpn";
    case 25:
        return "set /pool/range{" + random.one_of({ "0", "3", "5", "7" }) + "}/last " + random.one_of({ "4", "9" });
    case 26:
        return "delete /pool" + random.one_of({ "", "/range", "/range{3}", "/note", "/fallback" });
    case 27:
        return "set /pool/note x";
    case 28:
        return "create /pool/fallback";
    default:
        return "set " + port + "/ip/address 1.1.1." + random.one_of({ "1", "2" });
    }
}

// Carries out a net change on a flat content.
void follow(std::map<std::string, std::string> &content, const diff_t &diff)
{
    for (const diff_line_t &line : diff_lines(diff)) {
        if (line.op == WIRE_MOP_DELETED) {
            EXPECT_TRUE(content.contains(line.path)) << line.path;
            std::erase_if(content, [&](const auto &row) {
                return row.first == line.path || row.first.starts_with(line.path + "/");
            });
        } else {
            EXPECT_EQ(content.contains(line.path) ? content[line.path] : "", line.old_text) << line.path;
            EXPECT_TRUE(line.op == WIRE_MOP_CREATED || line.old_text != line.new_text) << line.path;
            content[line.path] = line.new_text;
        }
    }
}

class agent_oracle : public testing::TestWithParam<unsigned>
{
};

TEST_P(agent_oracle, random_transactions_are_judged_applied_and_undone_as_a_full_validation_says)
{
    random_t random = { std::mt19937(GetParam()) };
    datastore_ptr store = open_store();
    size_t refused = 0;
    for (int round = 0; round < 300; round++) {
        auto before = contents(store);
        tree_copy_t old(store->running.first);
        tree_copy_t model(store->running.first);
        trans_ptr trans = trans_begin(*store, true, 1);
        std::string script;
        for (size_t left = 1 + random.below(5); left > 0; left--) {
            std::string line = random_edit(random);
            if (edit(*trans, line) != 0)
                continue;
            script += line + "\n";
            edit_copy(model, store, line);
            if (random.below(3) == 0) {
                EXPECT_EQ(contents(store), before); // takes the transaction out and in again
            }
        }
        SCOPED_TRACE("round " + std::to_string(round) + "\n" + script);
        bool is_good =
            lyd_validate_all(&model.first, store->schema->ctx.get(), LYD_VALIDATE_NO_STATE, nullptr) == LY_SUCCESS;
        const ly_err_item *item = ly_err_last(store->schema->ctx.get());
        std::string theirs = !is_good && item && item->msg ? item->msg : "good";
        diff_ptr diff;
        ds_error_t error;
        ASSERT_EQ(trans_prepare(*trans, diff, error), is_good) << error.text << " | " << theirs;
        if (!is_good || random.below(4) == 0) {
            refused += is_good ? 0 : 1;
            trans.reset();
            EXPECT_EQ(contents(store), before);
            ASSERT_EQ(difference(store->running.first, old.first), "");
            continue;
        }
        ASSERT_TRUE(trans_commit(*trans, error)) << error.text;
        ASSERT_EQ(difference(store->running.first, model.first), "");
        follow(before, *diff);
        ASSERT_EQ(before, contents(store));
        (void)text_at(store, { VIEW_OLD }, "/vpn/main");
        ASSERT_EQ(difference(store->running.first, old.first), "");
        (void)text_at(store, {}, "/vpn/main");
        ASSERT_EQ(difference(store->running.first, model.first), "");
    }
    EXPECT_GT(refused, 10u);
}

INSTANTIATE_TEST_SUITE_P(seeds, agent_oracle, testing::Range(1u, 9u));
} // namespace
