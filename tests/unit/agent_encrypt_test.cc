// Leaves whose values are stored encrypted.
#include "agent/wire/crypto.h"
#include "agent_env.h"

#include <filesystem>

namespace
{
const std::string SECRET = "/vpn/vpn-instance{1}/secret";

std::string clear_of(const std::string &text)
{
    std::string clear;
    return wire_decrypt(TEST_KEYS, text, clear) ? clear : "not encrypted: " + text;
}

TEST(agent_encrypt, whatever_sets_a_clear_text_it_is_stored_encrypted)
{
    using set_t = bool (*)(trans_t &, const path_t &, ds_error_t &);
    static constexpr set_t ways[] = {
        [](trans_t &trans, const path_t &path, ds_error_t &error) {
            return trans_set_text(trans, path, "pass", error);
        },
        [](trans_t &trans, const path_t &path, ds_error_t &error) {
            return trans_set(trans, path, buf("pass"), error);
        },
        [](trans_t &trans, const path_t &, ds_error_t &error) {
            return trans_load(
                trans, DOC_XML,
                "<vpn xmlns=\"urn:test:net\"><vpn-instance><id>1</id><secret>pass</secret></vpn-instance></vpn>",
                error);
        },
        [](trans_t &trans, const path_t &, ds_error_t &error) {
            return trans_load(trans, DOC_JSON, R"({"test-net:vpn":{"vpn-instance":[{"id":"1","secret":"pass"}]}})",
                              error);
        },
    };
    for (set_t set : ways) {
        datastore_ptr store = open_store();
        trans_ptr trans = trans_begin(*store, true, 1);
        ds_error_t error;
        ASSERT_TRUE(set(*trans, parse(store, SECRET), error)) << error.text;
        ASSERT_TRUE(apply(*trans, error)) << error.text;
        std::string text = text_at(store, {}, SECRET);
        EXPECT_EQ(clear_of(text), "pass");
        EXPECT_EQ(show(store).find("pass"), std::string::npos);
    }
}

TEST(agent_encrypt, the_same_clear_text_keeps_what_is_stored)
{
    datastore_ptr store = open_store();
    (void)commit(store, { "set " + SECRET + " one" });
    std::string text = text_at(store, {}, SECRET);
    const std::vector<std::string> scripts[] = {
        { "set " + SECRET + " one" },
        { "set " + SECRET + " " + text },
        { "set " + SECRET + " two", "set " + SECRET + " one" },
        { "delete " + SECRET, "set " + SECRET + " one" },
        { "delete /vpn/vpn-instance{1}", "set " + SECRET + " one" },
        { "delete /vpn/vpn-instance", "set " + SECRET + " one" },
        { "set " + SECRET + " two", "delete /vpn/vpn-instance{1}", "set " + SECRET + " one" },
        { "delete " + SECRET, "delete /vpn/vpn-instance{1}", "set " + SECRET + " one" },
        { "delete /vpn/vpn-instance{1}", "set " + SECRET + " two", "set " + SECRET + " one" },
    };
    for (const auto &script : scripts) {
        EXPECT_EQ(diff_text(*commit(store, script)), "") << script.front();
        EXPECT_EQ(text_at(store, {}, SECRET), text);
    }
    EXPECT_EQ(diff_lines(*commit(store, { "set " + SECRET + " two" })).size(), 1u);
    EXPECT_EQ(clear_of(text_at(store, {}, SECRET)), "two");
}

TEST(agent_encrypt, texts_of_other_keys_and_those_that_break_the_type_are_refused)
{
    datastore_ptr store = open_store();
    std::string foreign;
    ASSERT_TRUE(wire_encrypt("fedcba9876543210", "pass", foreign));
    const std::pair<std::string, std::string> rows[] = {
        { foreign, "not encrypted with the keys of this agent" },
        { "$8$", "not encrypted with the keys of this agent" },
        { "a b", "pattern" },
        { std::string(101, 'x'), "length 1..100" },
        { std::string(60, 'x'), "length 1..100" }, // as it would be stored
    };
    trans_ptr trans = trans_begin(*store, true, 1);
    for (const auto &[text, words] : rows) {
        std::string why;
        EXPECT_EQ(edit(*trans, "set " + SECRET + " " + text, &why), CONFD_ERR_BADTYPE) << text;
        EXPECT_NE(why.find(words), std::string::npos) << why;
        EXPECT_NE(why.find(SECRET), std::string::npos) << why;
    }
    EXPECT_FALSE(trans_is_dirty(*trans));
}

TEST(agent_encrypt, a_restart_reads_what_was_stored_and_the_disk_has_no_clear_text)
{
    std::string dir = testing::TempDir() + "agent_encrypt." + std::to_string(getpid());
    std::filesystem::remove_all(dir);
    std::string text;
    {
        datastore_ptr store = open_store(dir);
        (void)commit(store, { "set " + SECRET + " telltale" });
        text = text_at(store, {}, SECRET);
    }
    datastore_ptr store = open_store(dir);
    EXPECT_EQ(text_at(store, {}, SECRET), text);
    EXPECT_EQ(clear_of(text), "telltale");
    for (const auto &file : std::filesystem::directory_iterator(dir)) {
        std::string command = "grep -qa telltale " + file.path().string();
        EXPECT_NE(system(command.c_str()), 0) << file.path();
    }
    std::filesystem::remove_all(dir);
}
} // namespace
