// Data as the operator sees it.
#include "agent/cli/render.h"
#include "tests/unit/cli_model.h"

#include <sstream>

namespace
{

constexpr char DOCUMENT[] = R"({"shop:shop":{
  "shelf":[{"number":7,"item":[{"maker":"big co","code":2,"price":"1.50"}],"label":["b","a c"]},{"number":9}],
  "open":[null],"club":{},"title":"my shop"}})";

std::string rendered(format_t format)
{
    lyd_ptr tree;
    cli_error_t error;
    EXPECT_TRUE(render_read(shop_schema(), DOCUMENT, tree, error)) << error.text;
    return render(tree.get(), format);
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
                                        "      price 1.5\n"
                                        "  shelf 9\n");
}

TEST(cli_render, set_commands_make_the_configuration_and_can_be_typed)
{
    EXPECT_EQ(rendered(format_t::SET), "set shop title \"my shop\"\n"
                                       "set shop open\n"
                                       "set shop club\n"
                                       "set shop shelf 7 label b \"a c\"\n"
                                       "set shop shelf 7 item \"big co\" 2 price 1.5\n"
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
}

TEST(cli_render, json_and_xml_are_documents_of_the_same_data)
{
    lyd_ptr tree;
    cli_error_t error;
    ASSERT_TRUE(render_read(shop_schema(), rendered(format_t::JSON), tree, error)) << error.text;
    EXPECT_EQ(render(tree.get(), format_t::SET), rendered(format_t::SET));
    EXPECT_NE(rendered(format_t::XML).find("<maker>big co</maker>"), std::string::npos);
}

TEST(cli_render, an_empty_document_is_nothing_and_a_foreign_one_is_refused)
{
    lyd_ptr tree;
    cli_error_t error;
    EXPECT_TRUE(render_read(shop_schema(), " \n", tree, error));
    EXPECT_EQ(render(tree.get(), format_t::TREE), "");
    EXPECT_TRUE(render_read(shop_schema(), "{}", tree, error));
    EXPECT_EQ(render(tree.get(), format_t::JSON), "{}\n");
    EXPECT_FALSE(render_read(shop_schema(), "{\"shop:shop\":{\"limit\":999}}", tree, error));
    EXPECT_NE(error.text.find("do not fit"), std::string::npos);
}

} // namespace
