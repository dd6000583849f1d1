// Splitting and quoting of command lines.
#include "agent/cli/words.h"

#include <gtest/gtest.h>
#include <random>

namespace
{

// The commands of a line as "a|b;c": words joined by |, commands by ;.
std::string flat(const line_t &line)
{
    std::string text;
    for (const auto &command : line.commands) {
        text += text.empty() ? "" : ";";
        for (size_t i = 0; i < command.size(); i++)
            text += (i ? "|" : "") + command[i].text;
    }
    return text;
}

struct split_case_t {
    const char *line;
    const char *flat;
};

TEST(cli_words, a_line_splits_into_commands_and_words)
{
    static const split_case_t cases[] = {
        { "", "" },
        { "  \t ", "" },
        { "set a  b", "set|a|b" },
        { "a;b ; c", "a;b;c" },
        { ";; a ;;", "a" },
        { "set name \"two words\"", "set|name|two words" },
        { "x\"y z\"w", "xy zw" },
        { "\"a\\\"b\\\\c\"", "a\"b\\c" },
        { "\"a;b#c\"", "a;b#c" },
        { "# all comment", "" },
        { "set a # comment ; exit", "set|a" },
        { "set a#b", "set|a#b" },
        { "a \"\" b", "a||b" },
        { "tab\tand\r\n", "tab|and" },
    };
    for (const split_case_t &c : cases) {
        line_t line;
        cli_error_t error;
        ASSERT_TRUE(cli_split_line(c.line, line, error)) << c.line;
        EXPECT_EQ(flat(line), c.flat) << c.line;
    }
}

TEST(cli_words, an_open_quote_is_refused_where_its_word_begins)
{
    line_t line;
    cli_error_t error;
    EXPECT_FALSE(cli_split_line("set name \"half", line, error));
    EXPECT_EQ(error.column, 9u);
    EXPECT_TRUE(line.commands.empty());
}

TEST(cli_words, the_end_of_a_line_is_known_to_completion)
{
    struct {
        const char *line;
        bool in_word, in_quotes, at_command;
    } cases[] = {
        { "", false, false, true },        { "se", true, false, false },     { "set ", false, false, false },
        { "set \"a", true, true, false },  { "set a;", false, false, true }, { "set a; ", false, false, true },
        { "set a;b", true, false, false },
    };
    for (const auto &c : cases) {
        line_t line = cli_read_line(c.line);
        EXPECT_EQ(line.is_in_word, c.in_word) << c.line;
        EXPECT_EQ(line.is_in_quotes, c.in_quotes) << c.line;
        EXPECT_EQ(line.is_at_command, c.at_command) << c.line;
    }
}

TEST(cli_words, any_quoted_word_reads_back_as_itself)
{
    static constexpr char letters[] = "ab \"\\;#|\t{}'";
    std::mt19937 random(7);
    for (int i = 0; i < 3000; i++) {
        std::string word;
        for (size_t n = random() % 6; n > 0; n--)
            word += letters[random() % (sizeof letters - 1)];
        line_t line;
        cli_error_t error;
        ASSERT_TRUE(cli_split_line("x " + cli_quote_word(word) + " y", line, error)) << word;
        ASSERT_EQ(line.commands.size(), 1u) << word;
        ASSERT_EQ(line.commands[0].size(), 3u) << word;
        EXPECT_EQ(line.commands[0][1].text, word);
        if (word == "|") {
            EXPECT_TRUE(line.commands[0][1].is_quoted);
        }
    }
}

TEST(cli_words, the_width_of_a_text_is_in_columns)
{
    static const std::pair<const char *, size_t> texts[] = {
        { "", 0 },
        { "ab", 2 },
        { "\xc3\xa9t\xc3\xa9", 3 },
        { "e\xcc\x81", 1 },
        { "\xe6\x9d\xb1\xe4\xba\xac", 4 },
        { "\xff\xe6", 2 },
    };
    for (const auto &[text, columns] : texts)
        EXPECT_EQ(cli_width(text), columns) << text;
}

TEST(cli_words, near_names_are_offered_and_far_ones_are_not)
{
    const std::vector<std::string> names = { "vpn-instance", "vpn", "interface", "name", "mtu" };
    EXPECT_EQ(cli_did_you_mean("vpn-instace", names), "; did you mean 'vpn-instance'?");
    EXPECT_EQ(cli_did_you_mean("inter", names), "; did you mean 'interface'?");
    EXPECT_EQ(cli_did_you_mean("nane", names), "; did you mean 'name'?");
    EXPECT_EQ(cli_did_you_mean("intfc", names), "; did you mean 'interface'?");
    EXPECT_EQ(cli_did_you_mean("ae", names), "");
    EXPECT_EQ(cli_did_you_mean("shutdown", names), "");
    EXPECT_EQ(cli_did_you_mean("", names), "");
    EXPECT_EQ(cli_did_you_mean(std::string(10000, 'x'), names), "");
}

} // namespace
