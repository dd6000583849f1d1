// What Tab and ? offer.
#include "agent/cli/complete.h"
#include "agent/cli/shell.h"
#include "tests/unit/cli_model.h"

namespace
{

std::vector<std::vector<std::string>> some_entries(void *, const path_t &list)
{
    if (list.text == "/shop/shelf")
        return { { "7" }, { "70" } };
    if (list.text == "/shop/shelf{7}/item")
        return { { "acme", "1" }, { "big co", "2" }, { "acme", "3" } };
    return {};
}

std::string offered(uint8_t mode, const path_t &place, const std::string &line)
{
    complete_source_t source = { nullptr, some_entries };
    std::string text;
    for (const choice_t &choice : cli_complete(shop_schema(), mode, place, source, line).choices)
        text += (text.empty() ? "" : " ") + choice.text;
    return text;
}

struct complete_case_t {
    uint8_t mode;
    const char *line;
    const char *offered;
};

TEST(cli_complete, the_words_that_may_stand_at_the_cursor_are_offered)
{
    static const complete_case_t cases[] = {
        { MODE_OPERATIONAL, "s", "show" },
        { MODE_OPERATIONAL, "show ", "configuration shop |" },
        { MODE_OPERATIONAL, "show conf", "configuration" },
        { MODE_OPERATIONAL, "show shop v", "visitors" },
        { MODE_OPERATIONAL, "show configuration shop v", "" },
        { MODE_OPERATIONAL, "show shop | display ", "tree set json xml" },
        { MODE_OPERATIONAL, "show shop | display j", "json" },
        { MODE_OPERATIONAL, "set ", "" },
        { MODE_CONFIGURATION, "commit ", "check" },
        { MODE_CONFIGURATION, "set shop ", "title open mood limit link club shelf" },
        { MODE_CONFIGURATION, "set shop mood ", "good bad" },
        { MODE_CONFIGURATION, "set shop mood good ", "" },
        { MODE_CONFIGURATION, "set shop open ", "" },
        { MODE_CONFIGURATION, "set shop limit ", "<1..5, 10..20 people>" },
        { MODE_CONFIGURATION, "set shop shelf ", "7 70 <0..255>" },
        { MODE_CONFIGURATION, "set shop shelf 7 item ", "acme \"big co\" <text>" },
        { MODE_CONFIGURATION, "set shop shelf 7 item acme ", "1 3 <0..65535>" },
        { MODE_CONFIGURATION, "set shop shelf 7 item acme 1 ", "price" },
        { MODE_CONFIGURATION, "set nosuch ", "" },
        { MODE_CONFIGURATION, "set shop mood good; set shop l", "limit link" },
        { MODE_CONFIGURATION, "set shop mood good; rev", "revert" },
        { MODE_CONFIGURATION, "load ", "<FILE>" },
    };
    for (const complete_case_t &c : cases)
        EXPECT_EQ(offered(c.mode, {}, c.line), c.offered) << c.line;
}

TEST(cli_complete, paths_start_where_the_operator_stands)
{
    path_t place;
    cli_error_t error;
    ASSERT_TRUE(path_resolve(shop_schema(), words_of("shop shelf 7"), place, error));
    EXPECT_EQ(offered(MODE_CONFIGURATION, place, "set "), "label item");
    EXPECT_EQ(offered(MODE_CONFIGURATION, place, "delete it"), "item");
}

TEST(cli_complete, a_choice_replaces_what_was_typed_of_its_word)
{
    EXPECT_EQ(cli_complete(shop_schema(), MODE_CONFIGURATION, {}, {}, "set shop mo").typed, 2u);
    EXPECT_EQ(cli_complete(shop_schema(), MODE_CONFIGURATION, {}, {}, "set shop ").typed, 0u);
    EXPECT_EQ(cli_common_prefix({ { "limit", "", false }, { "link", "", false }, { "<text>", "", true } }), "li");
    EXPECT_EQ(cli_common_prefix({ { "<text>", "", true } }), "");
}

} // namespace
