// A small data model for the command line's tests: each kind of node and of type once.
#ifndef TESTS_UNIT_CLI_MODEL_H
#define TESTS_UNIT_CLI_MODEL_H

#include "agent/cli/path.h"
#include "agent/cli/schema.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

inline constexpr char CLI_TEST_MODEL[] = R"(module shop {
  yang-version 1.1;
  namespace "urn:test:shop";
  prefix shop;
  extension info { argument text; }
  extension encrypted { argument algorithm; }
  extension completion { argument name; }
  identity goods;
  identity fruit { base goods; description "Fresh every day. Or not."; }
  identity tools { base goods; }
  container shop {
    description "The shop. And more about it.";
    leaf title { type string { length "1..10"; pattern '[a-z ]+' { error-message "small letters"; } } }
    leaf open { type empty; description "Doors are open."; }
    leaf mood { type enumeration { enum good { description "All is well."; } enum bad; } }
    leaf visitors { type uint32; config false; }
    leaf limit { type uint16 { range "1..5 | 10..20"; } units "people"; shop:info "How many"; }
    leaf link { type leafref { path "../shelf/number"; } }
    leaf either { type union { type uint8; type enumeration { enum many; } } }
    leaf kind { type identityref { base goods; } default tools; }
    leaf pin { type string { length "1..16"; } shop:encrypted "aes"; }
    leaf town { type string; shop:completion "towns"; mandatory true; }
    container club { presence "there is a club"; leaf fee { type int8; } }
    list shelf {
      key "number";
      leaf number { type uint8; }
      leaf-list label { type string; ordered-by user; }
      list item {
        key "maker code";
        leaf maker { type string; }
        leaf code { type uint16; }
        leaf price { type decimal64 { fraction-digits 2; } }
        action sell {
          description "Sell some.";
          input {
            leaf count { type uint16; mandatory true; }
            leaf gift { type empty; }
            leaf-list coupon { type string; }
            leaf buyer { type string; }
            leaf pin { type string { length "1..16"; } shop:encrypted "aes"; }
            container card { leaf text { type string; } }
          }
          output { leaf receipt { type uint32; } }
        }
      }
    }
    list sign {
      key "text";
      ordered-by user;
      leaf text { type string; }
    }
    container bell { config false; action ring; }
  }
  rpc audit { input { leaf shelf { type leafref { path "/shop/shelf/number"; } } } }
  notification visit { leaf visitors { type uint32; } container from { leaf town { type string; } } }
}
)";

// A folder that goes away with the object, holding one file.
class one_file_folder
{
public:
    one_file_folder(const std::string &name, const std::string &text)
    {
        EXPECT_NE(mkdtemp(folder_), nullptr);
        file_ = std::string(folder_) + "/" + name;
        FILE *file = fopen(file_.c_str(), "w");
        EXPECT_NE(file, nullptr);
        fputs(text.c_str(), file);
        fclose(file);
    }
    ~one_file_folder()
    {
        remove(file_.c_str());
        remove(folder_);
    }
    std::string name() const { return folder_; }
    std::string file() const { return file_; }

private:
    char folder_[32] = "/tmp/cli_test_XXXXXX";
    std::string file_;
};

// The model loaded, once for all tests.
inline const schema_t &shop_schema()
{
    static schema_t schema;
    if (!schema.ctx) {
        one_file_folder folder("shop.yang", CLI_TEST_MODEL);
        cli_error_t error;
        EXPECT_TRUE(schema_load(folder.name(), "/nonexistent", schema, error)) << error.text;
    }
    return schema;
}

inline std::vector<word_t> words_of(const std::string &line)
{
    line_t read = cli_read_line(line);
    return read.commands.empty() ? std::vector<word_t>{} : read.commands.front();
}

#endif
