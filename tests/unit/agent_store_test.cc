// Operational data, and running on disk.
#include "agent_env.h"
#include "tests/harness/temp_dir.h"

#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace
{
const std::string IF = "/vpn/vpn-instance{5}/interface{ge0/1}";

int oper(const datastore_ptr &store, const std::string &op, const std::string &path, const std::string &value,
         std::string *changes = nullptr)
{
    diff_ptr diff;
    ds_error_t error;
    path_t at = parse(store, path);
    bool is_good = op == "set"      ? oper_set_text(*store, at, value, diff, error)
                   : op == "create" ? oper_create(*store, at, diff, error)
                                    : oper_delete(*store, at, diff, error);
    if (changes)
        *changes = is_good ? diff_text(*diff) : error.text;
    return error.code;
}

TEST(agent_oper, writes_stand_on_configured_entries_and_give_their_own_diff)
{
    datastore_ptr store = open_store();
    std::string told;
    EXPECT_EQ(oper(store, "set", IF + "/state", "up", &told), CONFD_ERR_NOEXISTS);
    EXPECT_NE(told.find(IF + " is not configured"), std::string::npos) << told;
    commit(store, { "create " + IF });
    EXPECT_EQ(oper(store, "set", IF + "/state", "up", &told), 0);
    EXPECT_EQ(told, "=" + IF + "/state up");
    EXPECT_EQ(oper(store, "set", IF + "/state", "up", &told), 0);
    EXPECT_EQ(told, "");
    EXPECT_EQ(oper(store, "set", IF + "/state", "sideways"), CONFD_ERR_BADTYPE);
    EXPECT_EQ(oper(store, "set", IF + "/mtu", "1400"), CONFD_ERR_NOT_WRITABLE);
    EXPECT_EQ(oper(store, "set", "/ready", "one ten", &told), 0);
    EXPECT_EQ(told, "=/ready one ten");
    EXPECT_EQ(text_at(store, {}, "/ready"), "one ten");
    EXPECT_EQ(text_at(store, {}, IF + "/state"), "up");
    EXPECT_EQ(text_at(store, {}, IF + "/mtu"), "1500");
}

TEST(agent_oper, entries_are_created_once_and_deleted_once)
{
    datastore_ptr store = open_store();
    commit(store, { "create " + IF });
    std::string told;
    EXPECT_EQ(oper(store, "create", IF + "/counter{rx}", "", &told), 0);
    EXPECT_EQ(told, "+" + IF + "/counter{rx}");
    EXPECT_EQ(oper(store, "create", IF + "/counter{rx}", ""), CONFD_ERR_ALREADY_EXISTS);
    EXPECT_EQ(oper(store, "set", IF + "/counter{tx}/value", "7", &told), 0);
    EXPECT_EQ(told, "+" + IF + "/counter{tx}\n=" + IF + "/counter{tx}/value 7");
    EXPECT_EQ(read_count(*store, {}, parse(store, IF + "/counter", PATH_LIST)), 2u);
    EXPECT_EQ(oper(store, "delete", IF + "/counter{rx}", "", &told), 0);
    EXPECT_EQ(told, "-" + IF + "/counter{rx}");
    EXPECT_EQ(oper(store, "delete", IF + "/counter{rx}", ""), CONFD_ERR_NOEXISTS);
}

TEST(agent_oper, data_goes_with_the_configuration_that_it_stands_on)
{
    datastore_ptr store = open_store();
    commit(store, { "create " + IF, "create /vpn/vpn-instance{6}" });
    oper(store, "set", IF + "/state", "up");
    oper(store, "set", "/vpn/vpn-instance{6}/label", "3");
    trans_ptr trans = trans_begin(*store, true, 1);
    edit(*trans, "delete " + IF);
    ds_error_t error;
    diff_ptr gone;
    ASSERT_TRUE(apply(*trans, error, &gone)) << error.text;
    ASSERT_TRUE(gone);
    EXPECT_EQ(diff_text(*gone), "-" + IF);
    EXPECT_EQ(text_at(store, {}, IF + "/state"), "none");
    EXPECT_EQ(text_at(store, {}, "/vpn/vpn-instance{6}/label"), "3");
}

TEST(agent_oper, data_of_a_deleted_entry_stays_until_it_is_pruned_and_beyond_if_the_entry_is_back)
{
    datastore_ptr store = open_store();
    commit(store, { "create " + IF, "create /vpn/vpn-instance{6}" });
    oper(store, "set", IF + "/state", "up");
    oper(store, "set", "/vpn/vpn-instance{6}/label", "3");
    trans_ptr trans = trans_begin(*store, true, 1);
    edit(*trans, "delete " + IF);
    edit(*trans, "delete /vpn/vpn-instance{6}");
    ds_error_t error;
    diff_ptr deleted;
    ASSERT_TRUE(trans_prepare(*trans, deleted, error) && trans_commit(*trans, error)) << error.text;
    EXPECT_EQ(text_at(store, {}, IF + "/state"), "up");
    EXPECT_EQ(oper(store, "set", IF + "/state", "down"), CONFD_ERR_NOEXISTS);
    commit(store, { "create " + IF });
    trans_ptr other = trans_begin(*store, true, 2);
    edit(*other, "delete " + IF); // an open transaction's view is not running
    diff_ptr gone = oper_prune(*store, *deleted);
    ASSERT_TRUE(gone);
    EXPECT_EQ(diff_text(*gone), "-/vpn/vpn-instance{6}");
    EXPECT_EQ(text_at(store, {}, IF + "/state"), "up");
    EXPECT_FALSE(oper_prune(*store, *deleted));
}

// ---- on disk

std::string journal_of(const temp_dir &dir)
{
    for (const auto &entry : std::filesystem::directory_iterator(dir.path("state")))
        if (entry.path().filename().string().starts_with("journal.") && entry.path().extension() != ".damaged")
            return "state/" + entry.path().filename().string();
    return "";
}

std::string snapshot_of(const temp_dir &dir)
{
    for (const auto &entry : std::filesystem::directory_iterator(dir.path("state")))
        if (entry.path().extension() == ".json")
            return "state/" + entry.path().filename().string();
    return "";
}

std::string bytes_of(const temp_dir &dir, const std::string &name)
{
    std::ifstream file(dir.path(name), std::ios::binary);
    return { std::istreambuf_iterator<char>(file), {} };
}

TEST(agent_journal, a_restart_finds_what_was_committed_before_and_after_a_snapshot)
{
    temp_dir dir;
    std::map<std::string, std::string> before;
    {
        datastore_ptr store = open_store(dir.path("state"));
        commit(store, { "set " + IF + "/mtu 1400", "set " + IF + "/tag z", "set " + IF + "/tag a",
                        "create /vpn/vpn-instance{5}/rule{z}", "create /vpn/vpn-instance{5}/rule{a}" });
        commit(store, { "set " + IF + "/channel 3", "set " + IF + "/mode fast", "create " + IF + "/quiet" });
        ds_error_t error;
        ASSERT_TRUE(datastore_snapshot(*store, true, error)) << error.text;
        commit(store,
               { "set " + IF + "/duplex half", "delete " + IF + "/mtu", "set /vpn/main 5", "set " + IF + "/number 8" });
        commit(store, { "delete " + IF + "/tag{z}", "delete " + IF + "/number" });
        before = contents(store);
        EXPECT_EQ(datastore_stats(*store).generation, 4u);
    }
    std::vector<std::string> reports;
    datastore_ptr store = open_store(dir.path("state"), &reports);
    ASSERT_TRUE(store);
    EXPECT_TRUE(reports.empty());
    EXPECT_EQ(contents(store), before);
    EXPECT_EQ(text_at(store, {}, IF + "/mtu"), "1500");
    EXPECT_EQ(text_at(store, {}, IF + "/speed"), "10");
    EXPECT_EQ(datastore_stats(*store).generation, 4u);
    std::string all = show(store);
    EXPECT_LT(all.find("\"z\""), all.rfind("\"a\"")); // the user's order
}

TEST(agent_journal, a_record_torn_at_any_byte_leaves_the_state_before_it)
{
    temp_dir dir;
    std::string whole;
    size_t first = 0;
    {
        datastore_ptr store = open_store(dir.path("state"));
        commit(store, { "set /vpn/vpn-instance{5}/name one" });
        first = bytes_of(dir, journal_of(dir)).size();
        commit(store, { "set /vpn/vpn-instance{5}/name two" });
        whole = bytes_of(dir, journal_of(dir));
    }
    std::string name = journal_of(dir);
    for (size_t size = first; size <= whole.size(); size++) {
        dir.write(name, whole.substr(0, size));
        std::vector<std::string> reports;
        datastore_ptr store = open_store(dir.path("state"), &reports);
        ASSERT_TRUE(store) << size;
        EXPECT_EQ(text_at(store, {}, "/vpn/vpn-instance{5}/name"), size == whole.size() ? "two" : "one");
        EXPECT_EQ(reports.empty(), size == first || size == whole.size()) << size;
        commit(store, { "set /vpn/vpn-instance{5}/name three" });
        store.reset();
        EXPECT_EQ(text_at(open_store(dir.path("state")), {}, "/vpn/vpn-instance{5}/name"), "three");
    }
}

TEST(agent_journal, damage_before_the_end_is_never_passed_over)
{
    temp_dir dir;
    size_t last = 0;
    {
        datastore_ptr store = open_store(dir.path("state"));
        commit(store, { "set /vpn/vpn-instance{5}/name one" });
        commit(store, { "set /vpn/vpn-instance{5}/name two" });
        last = bytes_of(dir, journal_of(dir)).size();
        commit(store, { "set /vpn/vpn-instance{5}/name three" });
    }
    std::string name = journal_of(dir);
    std::string whole = bytes_of(dir, name);
    for (size_t at = 0; at < last; at++) {
        std::string bad = whole;
        bad[at] = static_cast<char>(bad[at] ^ 0x20);
        dir.write(name, bad);
        ds_error_t error;
        datastore_ptr store = open_store(dir.path("state"), nullptr, &error);
        if (store) // a byte that nothing depends on
            EXPECT_EQ(text_at(store, {}, "/vpn/vpn-instance{5}/name"), "three") << at;
        else
            EXPECT_NE(error.text.find(name.substr(6)), std::string::npos) << error.text;
        EXPECT_EQ(bytes_of(dir, name), bad) << at;
    }
    EXPECT_TRUE(std::filesystem::exists(dir.path(name + ".damaged")));
}

TEST(agent_journal, a_damaged_or_missing_file_refuses_the_start_again_and_again)
{
    temp_dir dir;
    {
        datastore_ptr store = open_store(dir.path("state"));
        commit(store, { "set /vpn/vpn-instance{5}/name one" });
        ds_error_t error;
        ASSERT_TRUE(datastore_snapshot(*store, true, error));
    }
    std::string snapshot = snapshot_of(dir);
    std::string good = bytes_of(dir, snapshot);
    std::string changed = good;
    changed[changed.find("one")] = 'O';
    for (const std::string &bad : { changed, good.substr(0, good.size() / 2), std::string(), "[" + good }) {
        dir.write(snapshot, bad);
        for (int start = 0; start < 2; start++) {
            ds_error_t error;
            EXPECT_FALSE(open_store(dir.path("state"), nullptr, &error));
            EXPECT_NE(error.text.find("snapshot.2.json"), std::string::npos) << error.text;
        }
    }
    dir.write(snapshot, good);
    EXPECT_EQ(text_at(open_store(dir.path("state")), {}, "/vpn/vpn-instance{5}/name"), "one");
    for (const std::string &name : { journal_of(dir), snapshot }) {
        std::filesystem::rename(dir.path(name), dir.path("aside"));
        ds_error_t error;
        EXPECT_FALSE(open_store(dir.path("state"), nullptr, &error));
        EXPECT_NE(error.text.find("missing"), std::string::npos) << error.text;
        std::filesystem::rename(dir.path("aside"), dir.path(name));
    }
}

TEST(agent_journal, one_agent_at_a_time_uses_a_directory)
{
    temp_dir dir;
    datastore_ptr store = open_store(dir.path("state"));
    ds_error_t error;
    EXPECT_FALSE(open_store(dir.path("state"), nullptr, &error));
    EXPECT_EQ(error.code, CONFD_ERR_INUSE);
}

TEST(agent_journal, a_commit_that_cannot_be_written_is_not_made)
{
    temp_dir dir;
    datastore_ptr store = open_store(dir.path("state"));
    commit(store, { "set /vpn/vpn-instance{5}/name one" });
    int good = store->journal.fd;
    store->journal.fd = open("/dev/full", O_RDWR);
    trans_ptr trans = trans_begin(*store, true, 1);
    edit(*trans, "set /vpn/vpn-instance{5}/name two");
    ds_error_t error;
    EXPECT_FALSE(apply(*trans, error));
    EXPECT_EQ(error.code, CONFD_ERR_OS);
    EXPECT_EQ(text_at(store, {}, "/vpn/vpn-instance{5}/name"), "one");
    close(store->journal.fd);
    store->journal.fd = good;
    EXPECT_FALSE(trans_commit(*trans, error)); // what the disk holds is not known
    ASSERT_TRUE(datastore_snapshot(*store, false, error)) << error.text;
    EXPECT_TRUE(trans_commit(*trans, error)) << error.text;
    EXPECT_EQ(text_at(store, {}, "/vpn/vpn-instance{5}/name"), "two");
}
} // namespace
