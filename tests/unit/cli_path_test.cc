// Paths as typed, resolved against a data model.
#include "agent/cli/path.h"
#include "tests/unit/cli_model.h"

namespace
{

struct path_case_t {
    const char *typed;
    const char *text;  // for the agent
    const char *error; // its whole text; null: none
    size_t column;     // of the error
};

constexpr size_t NONE = CLI_NO_COLUMN;

TEST(cli_path, typed_words_become_the_agents_path_or_an_error_that_names_the_word)
{
    static const path_case_t cases[] = {
        { "", "", nullptr, NONE },
        { "shop", "/shop", nullptr, NONE },
        { "shop:shop title", "/shop:shop/title", nullptr, NONE },
        { "shop shelf 7", "/shop/shelf{7}", nullptr, NONE },
        { "shop shelf", "/shop/shelf", nullptr, NONE },
        { "shop shelf 7 item \"big co\" 12 price", "/shop/shelf{7}/item{\"big co\" 12}/price", nullptr, NONE },
        { "shop shlf 7", "", "unknown element 'shlf' below 'shop'; did you mean 'shelf'?", 5 },
        { "sop", "", "unknown element 'sop' at the top; did you mean 'shop'?", 0 },
        { "shop shelf 300", "", "bad value '300' for 'number' of 'shelf': 0..255", 11 },
        { "shop shelf 7 item acme", "", "'code' of 'item' is missing: 0..65535", NONE },
        { "shop title x", "", "unexpected 'x' behind 'title'", 11 },
        { "other:shop", "", "unknown element 'other:shop' at the top", 0 },
    };
    for (const path_case_t &c : cases) {
        path_t path;
        cli_error_t error;
        bool ok = path_resolve(shop_schema(), words_of(c.typed), path, error);
        EXPECT_EQ(ok, c.error == nullptr) << c.typed << ": " << error.text;
        if (c.error) {
            EXPECT_EQ(error.text, c.error) << c.typed;
            EXPECT_EQ(error.column, c.column) << c.typed;
        } else {
            EXPECT_EQ(path.text, c.text) << c.typed;
        }
    }
}

TEST(cli_path, a_path_starts_where_the_operator_stands)
{
    path_t path;
    cli_error_t error;
    ASSERT_TRUE(path_resolve(shop_schema(), words_of("shop shelf 7"), path, error));
    ASSERT_TRUE(path_resolve(shop_schema(), words_of("item a 1"), path, error));
    EXPECT_EQ(path.text, "/shop/shelf{7}/item{a 1}");
    EXPECT_EQ(path_place(path), "'shop shelf 7 item a 1'");
    EXPECT_EQ(path.entries, (std::vector<std::string>{ "/shop/shelf{7}", "/shop/shelf{7}/item{a 1}" }));
}

TEST(cli_path, what_follows_a_leaf_is_left_to_the_caller)
{
    path_t path;
    cli_error_t error;
    size_t used = 0;
    std::vector<word_t> words = words_of("shop shelf 7 label a b");
    ASSERT_TRUE(path_walk(shop_schema(), words, path, used, error));
    EXPECT_EQ(used, 4u);
    EXPECT_EQ(path_of_value(path, "a b"), "/shop/shelf{7}/label{\"a b\"}");
}

TEST(cli_path, an_agents_path_reads_back_as_it_is_typed)
{
    static const char *const typed[] = {
        "shop",
        "shop shelf 7 label",
        "shop shelf 7 item \"big \\\"co\\\" {x}\" 12 price",
        "shop shelf 7 item a/b 3",
    };
    for (const char *line : typed) {
        path_t path;
        cli_error_t error;
        ASSERT_TRUE(path_resolve(shop_schema(), words_of(line), path, error)) << error.text;
        EXPECT_EQ(path_words_of(path.text), line);
    }
    EXPECT_EQ(path_words_of("no path"), "no path");
    EXPECT_EQ(path_words_of("/a{\"open"), "a open");
}

TEST(cli_path, a_path_at_the_start_of_the_agents_words_is_told_as_it_is_typed)
{
    static const std::pair<const char *, const char *> texts[] = {
        { "/shop/shelf{7}/item{\"big co\" 1}/price has to be set",
          "'shop shelf 7 item \"big co\" 1 price' has to be set" },
        { "/shop:shop/mood: bad value", "'shop:shop mood': bad value" },
        { "/shop", "'shop'" },
        { "no /shop", "no /shop" },
        { "/ is all", "/ is all" },
        { "", "" },
    };
    for (const auto &[text, told] : texts)
        EXPECT_EQ(path_words_in(text), told);
}

struct rule_case_t {
    const char *leaf;
    const char *value;
    const char *rule; // null: the value is good
};

TEST(cli_schema, a_bad_value_is_refused_with_the_types_rule)
{
    static const rule_case_t cases[] = {
        { "title", "ab c", nullptr },
        { "title", "ABC", "1..10 characters; small letters" },
        { "mood", "good", nullptr },
        { "mood", "goood", "good, bad" },
        { "limit", "12", nullptr },
        { "limit", "7", "1..5, 10..20 people" },
        { "limit", "99999999999999999999999", "1..5, 10..20 people" },
        { "link", "7", nullptr }, // whether it exists is the agent's to say
        { "link", "x", "0..255" },
    };
    const lysc_node *shop = schema_find_child(shop_schema(), nullptr, "shop");
    for (const rule_case_t &c : cases) {
        const lysc_node *leaf = schema_find_child(shop_schema(), shop, c.leaf);
        ASSERT_NE(leaf, nullptr) << c.leaf;
        std::string rule;
        EXPECT_EQ(schema_check_value(leaf, c.value, rule), c.rule == nullptr) << c.leaf << " " << c.value;
        EXPECT_EQ(rule, c.rule ? c.rule : "") << c.leaf;
    }
}

TEST(cli_schema, help_is_the_info_statement_or_the_first_sentence)
{
    const lysc_node *shop = schema_find_child(shop_schema(), nullptr, "shop");
    EXPECT_EQ(schema_help(shop), "The shop");
    EXPECT_EQ(schema_help(schema_find_child(shop_schema(), shop, "limit")), "How many");
    EXPECT_EQ(schema_help(schema_find_child(shop_schema(), shop, "title")), "");
}

TEST(cli_schema, a_broken_model_is_refused_with_its_name)
{
    one_file_folder folder("bad.yang", "module bad { namespace \"urn:bad\"; prefix b; leaf x { type nosuch; } }");
    schema_t schema;
    cli_error_t error;
    EXPECT_FALSE(schema_load(folder.name(), "/nonexistent", schema, error));
    EXPECT_NE(error.text.find("nosuch"), std::string::npos) << error.text;
}

} // namespace
