// Data as the operator sees it: items into text.
#include "agent/cli/json_read.h"
#include "agent/cli/pager.h"
#include "agent/cli/render.h"
#include "tests/unit/cli_model.h"

#include <sstream>

namespace
{

// Items as an agent's walk gives them. A line: what is indented is inside the line before with less indent; names are as
// in JSON, '{' follows a list's name before its keys, '=' a leaf's before its value, and a leaf-list's has '*'.
constexpr char SHOP[] = "shop:shop\n"
                        " title = my shop\n"
                        " open =\n"
                        " club\n"
                        " shelf { 7\n"
                        "  label * b,a c\n"
                        "  item { big co,2\n"
                        "   price = 1.50\n"
                        " shelf { 9\n";

std::vector<std::string> split(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);)
        parts.push_back(part);
    return parts;
}

item_t item_of(const std::string &line)
{
    std::istringstream in(line);
    item_t item;
    std::string sign;
    std::string rest;
    in >> item.name >> sign;
    std::getline(in >> std::ws, rest);
    item.kind = sign == "{"   ? WIRE_WALK_ENTRY
                : sign == "=" ? WIRE_WALK_LEAF
                : sign == "*" ? WIRE_WALK_LEAF_LIST
                              : WIRE_WALK_CONTAINER;
    if (item.kind != WIRE_WALK_CONTAINER)
        item.values = item.kind == WIRE_WALK_LEAF ? std::vector<std::string>{ rest } : split(rest, ',');
    return item;
}

std::vector<item_t> items_of(const std::string &text, const lysc_node *place = nullptr)
{
    std::vector<item_t> items;
    item_tracker_t tracker(shop_schema(), place);
    size_t open = 0;
    auto close_to = [&](size_t level) {
        for (; open > level; open--) {
            items.push_back({});
            tracker.take(items.back());
        }
    };
    for (const std::string &line : split(text, '\n')) {
        close_to(line.find_first_not_of(' '));
        item_t item = item_of(line);
        open += item.kind == WIRE_WALK_CONTAINER || item.kind == WIRE_WALK_ENTRY;
        tracker.take(item);
        items.push_back(item);
    }
    close_to(0);
    return items;
}

std::string rendered(const std::vector<item_t> &items, const render_options_t &options)
{
    std::vector<std::string> lines;
    output_t output(lines);
    renderer_t renderer = render_make(shop_schema(), output, options);
    for (const item_t &item : items)
        EXPECT_TRUE(renderer.take(item));
    EXPECT_TRUE(renderer.end());
    output.end();
    std::string text;
    for (const std::string &line : lines)
        text += line;
    return text;
}

std::string rendered(format_t format)
{
    return rendered(items_of(SHOP), { format });
}

const lysc_node *shop_node()
{
    return schema_find_child(shop_schema(), nullptr, "shop");
}

TEST(cli_render, a_tree_is_indented_in_schema_order_with_keys_beside_their_list)
{
    EXPECT_EQ(rendered(format_t::TREE), "shop\n"
                                        "  title \"my shop\"\n"
                                        "  open\n"
                                        "  club\n"
                                        "  shelf 7\n"
                                        "    label b \"a c\"\n"
                                        "    item \"big co\" 2\n"
                                        "      price 1.50\n"
                                        "  shelf 9\n");
    EXPECT_EQ(rendered(items_of("shop:shop\n"), { format_t::TREE }), "") << "a container that holds nothing";
}

TEST(cli_render, set_commands_make_the_configuration_and_can_be_typed)
{
    EXPECT_EQ(rendered(format_t::SET), "set shop title \"my shop\"\n"
                                       "set shop open\n"
                                       "set shop club\n"
                                       "set shop shelf 7 label b \"a c\"\n"
                                       "set shop shelf 7 item \"big co\" 2 price 1.50\n"
                                       "set shop shelf 9\n");
    std::istringstream lines(rendered(format_t::SET));
    for (std::string line; std::getline(lines, line);) {
        std::vector<word_t> words = words_of(line);
        path_t path;
        size_t used = 0;
        cli_error_t error;
        ASSERT_TRUE(path_walk(shop_schema(), words_view(words).subspan(1), path, used, error)) << error.text;
        for (size_t i = used + 1; i < words.size(); i++)
            EXPECT_TRUE(schema_check_value(path.node, words[i].text, error.text)) << line;
    }
    EXPECT_EQ(rendered(items_of("shop:shop\n visitors = 3\n limit = 2\n"), { format_t::SET }), "set shop limit 2\n");
}

struct free_items {
    void operator()(lyd_node *tree) const { lyd_free_all(tree); }
};

// The document as libyang reads and prints it.
std::string reprinted(const std::string &document, LYD_FORMAT from, LYD_FORMAT to)
{
    lyd_node *raw = nullptr;
    const ly_ctx *ctx = shop_schema().ctx.get();
    EXPECT_EQ(lyd_parse_data_mem(ctx, document.c_str(), from, LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0, &raw), LY_SUCCESS)
        << document;
    std::unique_ptr<lyd_node, free_items> tree(raw);
    char *text = nullptr;
    EXPECT_EQ(lyd_print_mem(&text, raw, to, LYD_PRINT_WITHSIBLINGS), LY_SUCCESS);
    std::string out = text ? text : "";
    free(text);
    return out;
}

TEST(cli_render, json_and_xml_are_documents_of_the_same_data)
{
    std::string from_json = reprinted(rendered(format_t::JSON), LYD_JSON, LYD_XML);
    EXPECT_EQ(from_json, reprinted(rendered(format_t::XML), LYD_XML, LYD_XML));
    EXPECT_NE(from_json.find("<maker>big co</maker>"), std::string::npos) << from_json;
    EXPECT_EQ(rendered({}, { format_t::JSON }), "{}\n");
    EXPECT_EQ(rendered({}, { format_t::XML }), "");
}

struct value_case_t {
    const char *item;
    const char *json;
    const char *xml;
};

TEST(cli_render, values_stand_in_documents_as_their_types_want_it)
{
    static const value_case_t cases[] = {
        { "limit = 3", "\"limit\": 3", "<limit>3</limit>" },
        { "title = a<b\"&", "\"title\": \"a<b\\\"&\"", "<title>a&lt;b&quot;&amp;</title>" },
        { "open =", "\"open\": [null]", "<open/>" },
        { "mood = good", "\"mood\": \"good\"", "<mood>good</mood>" },
        { "either = 12", "\"either\": 12", "<either>12</either>" },
        { "either = many", "\"either\": \"many\"", "<either>many</either>" },
        { "kind = shop:fruit", "\"kind\": \"shop:fruit\"", "<kind xmlns:shop=\"urn:test:shop\">shop:fruit</kind>" },
        { "nosuch = 3", "\"nosuch\": \"3\"", "<nosuch>3</nosuch>" },
    };
    for (const value_case_t &c : cases) {
        std::vector<item_t> items = items_of(c.item, shop_node());
        EXPECT_EQ(rendered(items, { format_t::JSON }), std::string("{\n  ") + c.json + "\n}\n");
        EXPECT_EQ(rendered(items, { format_t::XML }), std::string(c.xml) + "\n");
    }
}

TEST(cli_render, a_list_is_a_table_and_what_has_no_column_stands_below_its_row)
{
    EXPECT_EQ(rendered(items_of("shelf { 7\n label * b,a c\n item { big co,2\n  price = 1.50\nshelf { 9\n"
                                "shelf { 123\n label * x\n",
                                shop_node()),
                       { format_t::TABLE }),
              "number  label\n"
              "     7  b a c\n"
              "  item \"big co\" 2\n"
              "    price 1.50\n"
              "     9\n"
              "   123  x\n");
}

TEST(cli_render, a_longer_cell_moves_only_its_own_row_and_a_narrow_window_leaves_the_keys)
{
    std::string longest(60, 'm');
    std::vector<item_t> items = items_of("item { " + longest + ",1\n price = 2.00\nitem { b,20\n price = 13.00\n",
                                         schema_find_child(shop_schema(), shop_node(), "shelf"));
    EXPECT_EQ(rendered(items, { format_t::TABLE }), "maker" + std::string(51, ' ') + "  code  price\n" + longest +
                                                        "  1  2.00\n" + "b" + std::string(55, ' ') + "    20  13.00\n");
    EXPECT_EQ(rendered(items, { format_t::TABLE, 20 }), "maker" + std::string(51, ' ') + "  code\n" + longest +
                                                            "  1\n  price 2.00\n" + "b" + std::string(55, ' ') +
                                                            "    20\n  price 13.00\n");
}

TEST(cli_render, columns_are_those_of_the_first_page_and_later_rows_come_at_once)
{
    std::vector<std::string> lines;
    output_t output(lines);
    renderer_t renderer = render_make(shop_schema(), output, { format_t::TABLE });
    std::string text;
    for (int i = 0; i < 100; i++)
        text += "shelf { " + std::to_string(i) + "\n";
    for (const item_t &item : items_of(text, shop_node()))
        EXPECT_TRUE(renderer.take(item));
    EXPECT_EQ(lines.size(), 101u) << "header and one page, before the end";
    for (const item_t &item : items_of("shelf { 200\n label * late\n", shop_node()))
        EXPECT_TRUE(renderer.take(item));
    ASSERT_EQ(lines.size(), 103u);
    EXPECT_EQ(lines[101], "   200\n");
    EXPECT_EQ(lines[102], "  label late\n");
}

TEST(cli_render, an_entry_that_holds_very_much_is_written_before_its_end)
{
    std::vector<std::string> lines;
    output_t output(lines);
    renderer_t renderer = render_make(shop_schema(), output, { format_t::TABLE });
    std::string text = "shelf { 1\n";
    for (int i = 0; i < 12000; i++)
        text += " item { a," + std::to_string(i) + "\n";
    std::vector<item_t> items = items_of(text, shop_node());
    items.pop_back(); // the entry has not ended
    for (const item_t &item : items)
        EXPECT_TRUE(renderer.take(item));
    EXPECT_GE(lines.size(), 10000u);
    EXPECT_EQ(lines[1], "     1\n");
    EXPECT_EQ(lines[2], "  item a 0\n");
}

TEST(cli_render, inside_a_tree_only_lists_are_tables)
{
    EXPECT_EQ(rendered(items_of("shop:shop\n title = x\n shelf { 7\n shelf { 9\n"), { format_t::TABLE, 0, 1 }),
              "shop\n"
              "  title x\n"
              "  shelf\n"
              "    number\n"
              "         7\n"
              "         9\n");
}

TEST(cli_render, a_secret_in_clear_text_is_covered_and_its_stored_text_is_not)
{
    EXPECT_EQ(rendered(items_of("pin = 1234\n", shop_node()), { format_t::TREE }), "pin ********\n");
    EXPECT_EQ(rendered(items_of("pin = $8$abc\n", shop_node()), { format_t::TREE }), "pin $8$abc\n");
}

struct json_case_t {
    const char *document;
    const char *tree; // null: refused
};

TEST(cli_json, documents_become_items_whatever_the_order_of_their_members)
{
    std::string deep = std::string(100, '[') + std::string(100, ']');
    std::string deep_document = "{\"a\":" + deep + "}";
    const json_case_t cases[] = {
        { "", "" },
        { " {} ", "" },
        { R"({"shop:shop":{"shelf":[{"label":["x"],"number":7}],"open":[null],"limit":3}})",
          "shop\n  shelf 7\n    label x\n  open\n  limit 3\n" },
        { R"({"t":"a\"\\\n\u00e9\ud83d\ude00"})", "t \"a\\\"\\\\\\n\xc3\xa9\xf0\x9f\x98\x80\"\n" },
        { R"({"clients":[{"name":"x","pid":7}],"up":true})", "clients x\n  pid 7\nup true\n" },
        { "[]", nullptr },
        { "{\"a\":}", nullptr },
        { "{\"a\":1", nullptr },
        { "{\"a\":1} x", nullptr },
        { "{\"a\":\"\\u12\"}", nullptr },
        { "{\"a\":\"\\ud800\\u0041\"}", nullptr },
        { deep_document.c_str(), nullptr },
    };
    for (const json_case_t &c : cases) {
        std::vector<item_t> items;
        cli_error_t error;
        bool ok = json_read_items({ &shop_schema(), shop_schema().roots }, c.document, items, error);
        EXPECT_EQ(ok, c.tree != nullptr) << c.document << ": " << error.text;
        if (c.tree) {
            EXPECT_EQ(rendered(items, { format_t::TREE }), c.tree);
        }
    }
}

// A terminal of 4 lines and 10 columns, on which the operator presses the keys.
struct screen_fixture_t {
    std::string keys;
    FILE *out = tmpfile();
    pager_t pager{ screen_t{ this, out,
                             [](void *, size_t &rows, size_t &columns) {
                                 rows = 4;
                                 columns = 10;
                             },
                             [](void *data) -> int {
                                 std::string &left = static_cast<screen_fixture_t *>(data)->keys;
                                 if (left.empty())
                                     return -1;
                                 char key = left.front();
                                 left.erase(0, 1);
                                 return key;
                             } } };
    explicit screen_fixture_t(std::string pressed) : keys(std::move(pressed)) {}
    ~screen_fixture_t() { fclose(out); }
    // How many of the lines were shown, and how often it stopped.
    std::pair<size_t, size_t> show(const std::vector<std::string> &lines)
    {
        size_t shown = 0;
        while (shown < lines.size() && pager.put(lines[shown]))
            shown++;
        std::string text(static_cast<size_t>(ftell(out)), '\0');
        rewind(out);
        EXPECT_EQ(fread(text.data(), 1, text.size(), out), text.size());
        size_t stops = 0;
        for (size_t at = 0; (at = text.find("--More--", at)) != text.npos; at++)
            stops++;
        return { shown, stops };
    }
};

TEST(cli_pager, it_stops_at_each_full_window_until_the_operator_has_seen_enough)
{
    std::vector<std::string> ten(10, "line");
    using counts_t = std::pair<size_t, size_t>;
    EXPECT_EQ(screen_fixture_t("").show({ 3, "line" }), counts_t(3, 0));
    EXPECT_EQ(screen_fixture_t("q").show(ten), counts_t(3, 1));
    EXPECT_EQ(screen_fixture_t(" q").show(ten), counts_t(6, 2));
    EXPECT_EQ(screen_fixture_t("\r\nq").show(ten), counts_t(5, 3));
    EXPECT_EQ(screen_fixture_t("G").show(ten), counts_t(10, 1));
    EXPECT_EQ(screen_fixture_t("x\x03").show(ten), counts_t(3, 1)) << "another key is no answer, ^C is";
    EXPECT_EQ(screen_fixture_t("q").show({ "0123456789abcdef", "line", "line" }), counts_t(2, 1))
        << "a long line takes two";
}

TEST(cli_pager, what_a_terminal_takes_for_a_command_is_replaced)
{
    EXPECT_EQ(pager_safe_text("a\033[2Jb\tc\x7f\xc3\xa9"), "a?[2Jb\tc?\xc3\xa9");
    EXPECT_EQ(pager_safe_text("a\xc2\x9b[b\x9b[\xe2\x80\xae[\xe0\x80\x9b[\xc3"), "a?[b?[?[?[?")
        << "also in longer codes, and as bytes that are no text";
}

struct filter_case_t {
    std::vector<line_filter_t> filters;
    bool counts;
    const char *text;
};

TEST(cli_output, lines_pass_every_filter_and_are_counted_behind_them)
{
    static const filter_case_t cases[] = {
        { {}, false, "one\ntwo\nthree\n" },
        { { { true, "o" } }, false, "one\ntwo\n" },
        { { { true, "o" }, { false, "w" } }, false, "one\n" },
        { { { true, "e" } }, true, "Count: 2 lines\n" },
        { { { true, "x" } }, true, "Count: 0 lines\n" },
    };
    for (const filter_case_t &c : cases) {
        std::vector<std::string> lines;
        output_t output(lines);
        for (const line_filter_t &filter : c.filters)
            output.add_filter(filter);
        if (c.counts)
            output.count_only();
        EXPECT_TRUE(output.write("one\ntw"));
        EXPECT_TRUE(output.write("o\nthree"));
        output.end();
        std::string text;
        for (const std::string &line : lines)
            text += line;
        EXPECT_EQ(text, c.text);
    }
}

} // namespace
