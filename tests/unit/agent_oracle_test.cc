// Random edits, made in transactions, through the candidate and with ways back, against libyang's own validation of a copy:
// same verdict, same tree, exact undo, a net change that leads from the old content to the new, a journal that leads there
// too. AGENT_ORACLE_ROUNDS makes it longer.
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

lyd_node *find_node(const tree_copy_t &tree, const std::string &xpath)
{
    lyd_node *found = nullptr;
    return tree.first && lyd_find_path(tree.first, xpath.c_str(), 0, &found) == LY_SUCCESS ? found : nullptr;
}

// Puts a node of the copy behind another one of its list, or as the first.
void put_behind(tree_copy_t &tree, lyd_node *node, lyd_node *before)
{
    lyd_node *first = lyd_first_sibling(node);
    while (first->schema != node->schema)
        first = first->next;
    if (before == node || (!before && first == node))
        return;
    if (tree.first == node)
        tree.first = node->next;
    lyd_unlink_tree(node);
    before ? lyd_insert_after(before, node) : lyd_insert_before(first, node);
    tree.first = lyd_first_sibling(tree.first);
}

void move_copy(tree_copy_t &tree, const std::string &xpath, const std::string &to)
{
    lyd_node *node = find_node(tree, xpath);
    ASSERT_TRUE(node) << xpath;
    std::string key = to.find(' ') == std::string::npos ? "" : to.substr(to.find(' ') + 1);
    std::string name = node->schema->nodetype == LYS_LEAFLIST ? "." : "name";
    lyd_node *other =
        key.empty() ? nullptr : find_node(tree, xpath.substr(0, xpath.rfind('[')) + "[" + name + "='" + key + "']");
    ASSERT_TRUE(key.empty() || other) << to;
    lyd_node *before = nullptr;
    if (to.starts_with("after"))
        before = other;
    else if (to.starts_with("before"))
        before = other->prev->next && other->prev->schema == node->schema ? other->prev : nullptr;
    else if (to == "last")
        for (before = node; before->next && before->next->schema == node->schema; before = before->next)
            ;
    put_behind(tree, node, before);
}

// The same edit with libyang's means. A choice's other case goes by hand: in one validation libyang would see both.
void edit_copy(tree_copy_t &tree, const datastore_ptr &store, const std::string &line)
{
    size_t value_at = line.rfind(' ');
    bool is_set = line.starts_with("set ");
    if (line.starts_with("move ")) {
        size_t to = line.find(' ', 5);
        move_copy(tree, xpath_of(parse(store, line.substr(5, to - 5))), line.substr(to + 1));
        return;
    }
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
    std::string rule = entry + "/rule{" + random.one_of({ "a", "b", "c", "d" }) + "}";
    std::string to = random.one_of(
        { "first", "last", "before a", "before b", "after b", "after c", "before d", "after x", "before y" });
    switch (random.below(44)) {
    case 42:
        return "set " + entry + "/secret " + random.one_of({ "p", "q" });
    case 43:
        return "delete " + entry + "/secret";
    case 30:
    case 31:
        return "create " + rule;
    case 32:
        return "delete " + rule;
    case 33:
    case 34:
    case 35:
        return "move " + rule + " " + to;
    case 36:
        return "set " + rule + "/action " + random.one_of({ "go", "end" });
    case 37:
        return random.one_of({ "create ", "delete " }) + rule + "/term{" + random.one_of({ "a", "b" }) + "}";
    case 38:
        return "move " + rule + "/term{" + random.one_of({ "a", "b" }) + "} " + to;
    case 39:
        return "move " + port + "/tag{" + random.one_of({ "x", "y" }) + "} " + to;
    case 40:
        return random.one_of({ "create", "delete" }) + " /step{" + random.one_of({ "a", "b", "c" }) + "}";
    case 41:
        return "move /step{" + random.one_of({ "a", "b", "c" }) + "} " + to;
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
        if (line.op == WIRE_MOP_MOVED_AFTER) {
            EXPECT_TRUE(content.contains(line.path)) << line.path;
        } else if (line.op == WIRE_MOP_DELETED) {
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

// Running as a restart would make it of the journal's records.
struct replayed_t {
    const schema_t &schema;
    tree_t tree;

    explicit replayed_t(const schema_t &of) : schema(of) {}
    replayed_t(const replayed_t &) = delete;
    ~replayed_t() { tree_free(tree); }

    void add(const diff_t &diff)
    {
        edit_log_t log(&tree);
        ds_error_t error;
        EXPECT_TRUE(wishes_replay(log, schema, wishes_record(wishes_of(diff)), error)) << error.text;
    }

    // What it lacks against the real one, once completed with the defaults of whens.
    std::string lack(const lyd_node *running) const
    {
        tree_copy_t copy(tree.first);
        EXPECT_EQ(lyd_validate_all(&copy.first, schema.ctx.get(), LYD_VALIDATE_NO_STATE, nullptr), LY_SUCCESS);
        return difference(copy.first, running);
    }
};

// Edits that are taken back again.
void digress(trans_t &trans, random_t &random)
{
    size_t mark = trans_mark(trans);
    for (size_t left = random.below(4); left > 0; left--)
        (void)edit(trans, random_edit(random));
    trans_rewind(trans, mark);
}

// Makes random edits, on the copy too. Others look at running in between, which takes the transaction out and in again.
std::string make_edits(trans_t &trans, const datastore_ptr &store, random_t &random, tree_copy_t &model)
{
    std::string script;
    for (size_t left = 1 + random.below(5); left > 0; left--) {
        std::string line = random_edit(random);
        if (random.below(8) == 0)
            digress(trans, random);
        if (random.below(8) == 0)
            trans.switched = 1u << 30; // it gets a tree of its own
        if (edit(trans, line) != 0)
            continue;
        script += line + "\n";
        if (size_t at = line.find("/secret "); at != std::string::npos) { // what is stored is of the store's choice
            std::string leaf = line.substr(4, at + 3);
            line = "set " + leaf + " " + text_at(store, { VIEW_TRANS, &trans }, leaf);
        }
        edit_copy(model, store, line);
        if (random.below(3) == 0)
            (void)text_at(store, {}, "/vpn/main");
    }
    return script;
}

// The transaction of a round: on running, or taken from the candidate that two others have made.
trans_ptr random_trans(const datastore_ptr &store, random_t &random, tree_copy_t &model, std::string &script)
{
    if (random.below(3) > 0) {
        trans_ptr trans = trans_begin(*store, true, 1);
        script = make_edits(*trans, store, random, model);
        return trans;
    }
    trans_ptr first = candidate_begin(*store, true, 1);
    trans_ptr second = candidate_begin(*store, true, 2);
    digress(*second, random);
    ds_error_t error;
    for (trans_t *trans : { first.get(), second.get(), first.get() }) {
        script += make_edits(*trans, store, random, model);
        EXPECT_TRUE(candidate_merge(*trans, error)) << error.text;
    }
    if (random.below(2) == 0)
        candidate_give_back(*store, candidate_take(*store, 3));
    return candidate_take(*store, 3);
}

size_t moves_in(const std::string &text, const std::string &how)
{
    size_t count = 0;
    for (size_t at = text.find(how); at != std::string::npos; at = text.find(how, at + 1))
        count += at == 0 || text[at - 1] == '\n';
    return count;
}

int rounds()
{
    const char *text = getenv("AGENT_ORACLE_ROUNDS");
    return text ? atoi(text) : 300;
}

class agent_oracle : public testing::TestWithParam<unsigned>
{
};

TEST_P(agent_oracle, random_transactions_are_judged_applied_and_undone_as_a_full_validation_says)
{
    random_t random = { std::mt19937(GetParam()) };
    datastore_ptr store = open_store();
    replayed_t replayed(datastore_schema(*store));
    size_t refused = 0;
    for (int round = 0; round < rounds(); round++) {
        auto before = contents(store);
        tree_copy_t old(store->running.first);
        tree_copy_t model(store->running.first);
        std::string script;
        trans_ptr trans = random_trans(store, random, model, script);
        SCOPED_TRACE("round " + std::to_string(round) + "\n" + script);
        EXPECT_EQ(contents(store), before);
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
        replayed.add(*diff);
        ASSERT_EQ(replayed.lack(store->running.first), "") << diff_text(*diff);
        EXPECT_LE(moves_in(diff_text(*diff), "^"),
                  moves_in(script, "move ") + moves_in(script, "create ") + moves_in(script, "set "));
        (void)text_at(store, { VIEW_OLD }, "/vpn/main");
        ASSERT_EQ(difference(store->running.first, old.first), "");
        (void)text_at(store, {}, "/vpn/main");
        ASSERT_EQ(difference(store->running.first, model.first), "");
    }
    EXPECT_GT(refused, 10u);
}

INSTANTIATE_TEST_SUITE_P(seeds, agent_oracle, testing::Range(1u, 9u));
} // namespace
