// What the tests of the chassis library share: a block without a chassis manager, a root for files, and the doors to the
// kernel replaced.
#ifndef TESTS_UNIT_CHMGR_ENV_H
#define TESTS_UNIT_CHMGR_ENV_H

#include "chmgr/chmgr_layout.h"
#include "common/tip_root.h"
#include "tests/unit/log_capture.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <linux/ethtool.h>
#include <memory>
#include <sstream>

struct fake_chassis_t {
    std::unique_ptr<chmgr_block_t> block; // null: none can be mapped
    std::vector<std::string> effects;     // commands; "enter VPN", "leave VPN", "get NAME", "set NAME"
    int failing_command = -1;             // its number, from 0
    ethtool_cmd link{};
    bool is_get_failing = false;
    bool is_set_failing = false;
};
fake_chassis_t &chassis();

class chmgr_env : public testing::Test
{
protected:
    chmgr_env()
    {
        chassis() = {};
        log_clear();
    }
    void chassis_set(uint32_t type)
    {
        chassis().block = std::make_unique<chmgr_block_t>();
        chassis().block->chassis_type = type;
    }
};

// With a directory in the place of the device's root.
class chmgr_files_env : public chmgr_env
{
protected:
    chmgr_files_env()
    {
        char name[] = "/tmp/chmgr-test.XXXXXX";
        root = mkdtemp(name);
        EXPECT_EQ(tip_root_set(root.c_str()), 0);
    }
    ~chmgr_files_env() override
    {
        EXPECT_EQ(tip_root_set(""), 0);
        std::filesystem::remove_all(root);
    }
    chmgr_files_env(const chmgr_files_env &) = delete;
    chmgr_files_env &operator=(const chmgr_files_env &) = delete;

    void put(const std::string &path, const std::string &text)
    {
        std::filesystem::create_directories((root + path).substr(0, (root + path).rfind('/')));
        std::ofstream(root + path) << text;
    }
    std::string content(const std::string &path)
    {
        std::ostringstream text;
        text << std::ifstream(root + path).rdbuf();
        return text.str();
    }

    std::string root;
};

#endif
