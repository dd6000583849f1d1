// The program that makes tag headers, run on small models.
#include "agent/wire/wire.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

namespace
{

struct run_t {
    int status = -1;
    std::string said;   // standard error
    std::string folder; // of models and headers
};

std::string read_file(const std::string &name)
{
    std::string text;
    if (FILE *file = fopen(name.c_str(), "r")) {
        for (int c; (c = fgetc(file)) != EOF;)
            text += static_cast<char>(c);
        fclose(file);
    }
    return text;
}

// A module's body by its name; its prefix is its name.
using models_t = std::map<std::string, std::string>;

class tag_headers : public testing::Test
{
protected:
    void SetUp() override { ASSERT_NE(mkdtemp(folder_), nullptr); }
    void TearDown() override
    {
        std::string command = "rm -r " + std::string(folder_);
        EXPECT_EQ(system(command.c_str()), 0);
    }
    run_t run(const models_t &models)
    {
        run_t result;
        result.folder = folder_;
        std::string command = std::string(TAG_HEADERS) + " --out " + folder_ + " --search " + folder_;
        for (const auto &[name, body] : models) {
            FILE *file = fopen((result.folder + "/" + name + ".yang").c_str(), "w");
            fprintf(file, "module %s { yang-version 1.1; namespace \"urn:%s\"; prefix %s; %s }", name.c_str(),
                    name.c_str(), name.c_str(), body.c_str());
            fclose(file);
            command += " " + name;
        }
        int status = system((command + " 2> " + folder_ + "/said").c_str());
        result.status = WEXITSTATUS(status);
        result.said = read_file(result.folder + "/said");
        return result;
    }
    std::string header(const std::string &name) { return read_file(std::string(folder_) + "/" + name + ".h"); }

private:
    char folder_[32] = "/tmp/tag_headers_XXXXXX";
};

std::string define(const std::string &identifier, uint32_t value)
{
    char text[128];
    snprintf(text, sizeof text, "#define %s 0x%08xu\n", identifier.c_str(), value);
    return text;
}

TEST_F(tag_headers, every_kind_of_named_node_has_a_tag_in_the_module_that_defines_it)
{
    run_t result = run({
        { "a", "import b { prefix b; } identity colour-base;"
               "augment /b:box { leaf added { type string; } }" },
        { "b", "container box { choice way { case one { leaf left { type empty; } } }"
               "  list row-of { key k; leaf k { type string; } } action open { input { leaf how { type string; } } } }"
               "rpc do-it { output { leaf done { type string; } } } notification gone { leaf why { type string; } }" },
    });
    ASSERT_EQ(result.status, 0) << result.said;
    EXPECT_NE(header("a").find(define("a__ns", wire_hash("urn:a"))), std::string::npos);
    EXPECT_NE(header("a").find("#define a__nsid \"urn:a\"\n"), std::string::npos);
    EXPECT_NE(header("a").find(define("a_added", wire_hash("added"))), std::string::npos);
    EXPECT_NE(header("a").find(define("a_colour_base", wire_hash("colour-base"))), std::string::npos);
    for (const char *name : { "box", "left", "row-of", "k", "open", "how", "do-it", "done", "gone", "why" }) {
        std::string identifier = std::string("b_") + name;
        std::replace(identifier.begin(), identifier.end(), '-', '_');
        EXPECT_NE(header("b").find(define(identifier, wire_hash(name))), std::string::npos) << name;
    }
    for (const char *absent : { "b_added", "b_way", "b_one", "b_input", "b_output" })
        EXPECT_EQ(header("b").find(std::string("#define ") + absent + " "), std::string::npos) << absent;
}

TEST_F(tag_headers, labels_carry_their_values_and_ambiguous_ones_are_left_out)
{
    run_t result = run({ { "m", "leaf e { type enumeration { enum one-a { value 4; } enum two { value -1; } } }"
                                "leaf f { type bits { bit x { position 3; } bit far { position 40; } } }"
                                "leaf f-x { type string; }"
                                "container c { leaf e { type enumeration { enum two { value 9; } } } }" } });
    ASSERT_EQ(result.status, 0) << result.said;
    EXPECT_NE(header("m").find("#define m_e_one_a 4\n"), std::string::npos) << header("m");
    EXPECT_EQ(header("m").find("m_e_two"), std::string::npos);
    EXPECT_EQ(header("m").find("m_f_far"), std::string::npos);
    EXPECT_EQ(header("m").find("#define m_f_x 8\n"), std::string::npos) << "the node's tag has that name";
    EXPECT_NE(header("m").find(define("m_f_x", wire_hash("f-x"))), std::string::npos);
}

TEST_F(tag_headers, two_names_with_one_hash_are_refused)
{
    ASSERT_EQ(wire_hash("costarring"), wire_hash("liquid"));
    run_t result = run({ { "m", "leaf costarring { type string; }" }, { "n", "leaf liquid { type string; }" } });
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.said.find("costarring"), std::string::npos) << result.said;
    EXPECT_NE(result.said.find("liquid"), std::string::npos) << result.said;
    EXPECT_EQ(header("m"), "");
}

TEST_F(tag_headers, two_names_that_become_one_identifier_are_refused)
{
    const models_t cases[] = {
        { { "m", "leaf a-b { type string; } leaf a_b { type string; }" } },
        { { "m", "leaf a-b { type string; }" }, { "m-a", "leaf b { type string; }" } },
    };
    for (const models_t &models : cases) {
        run_t result = run(models);
        EXPECT_EQ(result.status, 1);
        EXPECT_NE(result.said.find("m_a_b"), std::string::npos) << result.said;
    }
}

TEST_F(tag_headers, a_broken_or_missing_module_is_refused)
{
    EXPECT_EQ(run({ { "m", "leaf x { type nosuch; }" } }).status, 1);
    EXPECT_EQ(system((std::string(TAG_HEADERS) + " --out /tmp absent 2> /dev/null").c_str()) >> 8, 1);
    EXPECT_EQ(system((std::string(TAG_HEADERS) + " --out 2> /dev/null").c_str()) >> 8, 2);
}

} // namespace
