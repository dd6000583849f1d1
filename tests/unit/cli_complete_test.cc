// What Tab and ? offer.
#include "agent/cli/complete.h"
#include "agent/cli/shell.h"
#include "tests/unit/cli_model.h"

namespace
{

std::vector<choice_t> some_words(void *, const std::string &leaf, std::string_view typed, char key)
{
    if (key == '?')
        return { { "", "towns near " + leaf, true } };
    return { { "Ashby", "small", false }, { std::string(typed) + "ton", "", false } };
}

std::vector<std::vector<std::string>> some_entries(void *, const path_t &list)
{
    if (list.text == "/shop/shelf")
        return { { "7" }, { "70" } };
    if (list.text == "/shop/shelf{7}/item")
        return { { "acme", "1" }, { "big co", "2" }, { "acme", "3" } };
    return {};
}

std::string offered(uint8_t mode, const path_t &place, const std::string &line, char key = '\t')
{
    complete_source_t source = { nullptr, some_entries, some_words };
    std::string text;
    for (const choice_t &choice : cli_complete(shop_schema(), mode, place, source, line, key).choices)
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
        { MODE_OPERATIONAL, "s", "show shop" },
        { MODE_OPERATIONAL, "a", "audit" },
        { MODE_OPERATIONAL, "show ", "configuration notifications sessions agent shop |" },
        { MODE_OPERATIONAL, "show notifications ", "stream" },
        { MODE_OPERATIONAL, "show notifications stream x ", "last |" },
        { MODE_OPERATIONAL, "show conf", "configuration" },
        { MODE_OPERATIONAL, "show shop v", "visitors" },
        { MODE_OPERATIONAL, "show configuration shop v", "" },
        { MODE_OPERATIONAL, "show shop | ", "display include exclude count no-more" },
        { MODE_OPERATIONAL, "show configuration | c", "compare count" },
        { MODE_OPERATIONAL, "show shop | display ", "tree table set json xml" },
        { MODE_OPERATIONAL, "show shop | display j", "json" },
        { MODE_OPERATIONAL, "show shop | display json ", "|" },
        { MODE_OPERATIONAL, "show shop | display json | in", "include" },
        { MODE_OPERATIONAL, "show shop | include ", "<TEXT>" },
        { MODE_OPERATIONAL, "", "show monitor configure exit help audit shop" },
        { MODE_OPERATIONAL, "shop ", "shelf bell |" },
        { MODE_OPERATIONAL, "shop bell ", "ring |" },
        { MODE_OPERATIONAL, "show shop b", "" },
        { MODE_OPERATIONAL, "shop shelf 7 item acme 1 ", "sell |" },
        { MODE_OPERATIONAL, "shop shelf 7 item acme 1 sell ", "count gift coupon buyer pin card |" },
        { MODE_OPERATIONAL, "shop shelf 7 item acme 1 sell count ", "<0..65535> |" },
        { MODE_OPERATIONAL, "shop shelf 7 item acme 1 sell gift coupon x c", "count coupon card" },
        { MODE_OPERATIONAL, "shop shelf 7 item acme 1 sell card ", "text |" },
        { MODE_OPERATIONAL, "audit ", "shelf |" },
        { MODE_OPERATIONAL, "audit shelf ", "7 70 <0..255> |" },
        { MODE_OPERATIONAL, "set ", "" },
        { MODE_CONFIGURATION, "commit ", "check" },
        { MODE_CONFIGURATION, "set shop ", "title open mood limit link either kind pin town club shelf sign" },
        { MODE_CONFIGURATION, "set shop mood ", "good bad" },
        { MODE_CONFIGURATION, "set shop mood good ", "" },
        { MODE_CONFIGURATION, "set shop open ", "" },
        { MODE_CONFIGURATION, "set shop limit ", "<1..5, 10..20 people>" },
        { MODE_CONFIGURATION, "set shop link ", "7 70 <0..255>" },
        { MODE_CONFIGURATION, "set shop kind ", "fruit tools" },
        { MODE_CONFIGURATION, "set shop town A", "Ashby Aton" },
        { MODE_CONFIGURATION, "delete shop mood ", "" },
        { MODE_CONFIGURATION, "move shop sign a ", "first last before after" },
        { MODE_CONFIGURATION, "move shop shelf 7 label x ", "first last before after" },
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

TEST(cli_complete, help_tells_rules_defaults_and_what_a_program_of_the_device_says)
{
    auto help = [](const std::string &line) {
        complete_source_t source = { nullptr, nullptr, some_words };
        std::string text;
        for (const choice_t &choice : cli_complete(shop_schema(), MODE_CONFIGURATION, {}, source, line, '?').choices)
            text += choice.text + ": " + choice.help + "; ";
        return text;
    };
    EXPECT_EQ(help("set shop limit "), "<1..5, 10..20 people>: How many; ");
    EXPECT_EQ(help("set shop mood "), "good: All is well; bad: ; ");
    EXPECT_EQ(help("set shop kind "), "fruit: Fresh every day; tools: [default]; ");
    EXPECT_EQ(help("set shop town "), ": towns near /shop/town; ");
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
    EXPECT_EQ(cli_complete(shop_schema(), MODE_CONFIGURATION, {}, {}, "set shop mo", '\t').typed, 2u);
    EXPECT_EQ(cli_complete(shop_schema(), MODE_CONFIGURATION, {}, {}, "set shop ", '\t').typed, 0u);
    EXPECT_EQ(cli_common_prefix({ { "limit", "", false }, { "link", "", false }, { "<text>", "", true } }), "li");
    EXPECT_EQ(cli_common_prefix({ { "<text>", "", true } }), "");
}

} // namespace
