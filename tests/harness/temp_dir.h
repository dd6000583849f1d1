// A directory of a test's own, gone with the test; files in it are written by path relative to it.
#ifndef TESTS_HARNESS_TEMP_DIR_H
#define TESTS_HARNESS_TEMP_DIR_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

class temp_dir
{
public:
    temp_dir()
    {
        char name[] = "/tmp/cfgmgr_test.XXXXXX";
        path_ = mkdtemp(name);
    }
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;
    ~temp_dir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    std::string path(const std::string &relative = "") const
    {
        return relative.empty() ? path_ : path_ + "/" + relative;
    }

    // Makes the directories above the file as well.
    void write(const std::string &relative, const std::string &content) const
    {
        std::filesystem::create_directories(std::filesystem::path(path(relative)).parent_path());
        std::ofstream(path(relative), std::ios::binary) << content;
    }
    void make_dir(const std::string &relative) const { std::filesystem::create_directories(path(relative)); }
    bool has(const std::string &relative) const
    {
        return std::filesystem::symlink_status(path(relative)).type() != std::filesystem::file_type::not_found;
    }
    std::string read(const std::string &relative) const
    {
        std::stringstream content;
        content << std::ifstream(path(relative), std::ios::binary).rdbuf();
        return content.str();
    }

private:
    std::string path_;
};

#endif
