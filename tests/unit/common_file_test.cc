// Files and directories, supervised services, pid files, limits.
#include "common/tip_file.h"
#include "common/tip_limits.h"
#include "common/tip_pid.h"
#include "common/tip_root.h"
#include "common/tip_sv.h"
#include "tests/harness/death.h"
#include "tests/harness/temp_dir.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace
{

class tip_file : public testing::Test
{
protected:
    tip_file() { tip_root_set(dir.path().c_str()); }
    ~tip_file() override { tip_root_set(""); }

    std::string path(const std::string &relative) const { return dir.path(relative); }

    temp_dir dir;
};

TEST_F(tip_file, a_root_that_does_not_fit_is_refused_and_a_path_that_does_not_fit_is_empty)
{
    EXPECT_EQ(tip_root_set(std::string(PATH_MAX, 'x').c_str()), -1);
    EXPECT_STREQ(tip_path("%s", "/proc/x").text, "/proc/x");
    EXPECT_EQ(tip_root_set("/root"), 0);
    EXPECT_STREQ(tip_path("%s/%d", "/proc", 5).text, "/root/proc/5");
    EXPECT_STREQ(tip_path("%s", std::string(PATH_MAX - 5, 'x').c_str()).text, "");
}

TEST_F(tip_file, writing_makes_a_runnable_file_and_tells_why_it_could_not)
{
    mode_t mask = umask(022);
    EXPECT_EQ(file_write_all(path("f").c_str(), "hello", 5), FILE_OK);
    umask(mask);
    struct stat info;
    ASSERT_EQ(stat(path("f").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0755U);
    EXPECT_EQ(file_write_all(path("f").c_str(), "JJ", 2), FILE_OK);
    EXPECT_EQ(dir.read("f"), "JJllo") << "a file that is there is not shortened";

    EXPECT_EQ(file_write_all(path("none/f").c_str(), "x", 1), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(file_write_all("/dev/full", "x", 1), -1);
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(tip_file, a_number_is_read_from_the_start_of_a_file)
{
    struct row_t {
        const char *content;
        int base, result;
        long number;
    };
    const row_t rows[] = {
        { "0x1199\n", 16, 0, 0x1199 }, { " 3c", 16, 0, 0x3c }, { "-7 8", 10, 0, -7 }, { "", 10, -2, 99 },
        { "zz", 16, -2, 99 },
    };
    for (const row_t &row : rows) {
        dir.write("n", row.content);
        long number = 99;
        EXPECT_EQ(file_read_number(path("n").c_str(), row.base, &number), row.result) << row.content;
        EXPECT_EQ(number, row.number) << row.content;
    }
    long number;
    EXPECT_EQ(file_read_number(path("none").c_str(), 10, &number), -1);
    dir.write("n", "first\nsecond\n");
    char line[16];
    EXPECT_EQ(file_read_line(path("n").c_str(), line, sizeof line), 0);
    EXPECT_STREQ(line, "first");
    EXPECT_EQ(file_read_line(path("n").c_str(), line, 3), 0);
    EXPECT_STREQ(line, "fi");
}

TEST_F(tip_file, comparison_takes_two_missing_files_for_equal)
{
    dir.write("a", std::string("same\0text", 9));
    dir.write("b", std::string("same\0text", 9));
    dir.write("longer", std::string("same\0text+", 10));
    dir.write("other", std::string("same\0tex!", 9));
    dir.write("empty", "");
    const std::tuple<const char *, const char *, int> rows[] = {
        { "a", "b", 0 },     { "a", "longer", -1 }, { "longer", "a", -1 },   { "a", "other", -1 }, { "a", "none", -1 },
        { "none", "a", -1 }, { "none", "gone", 0 }, { "empty", "none", -1 }, { "empty", "a", -1 },
    };
    for (auto [a, b, result] : rows)
        EXPECT_EQ(file_compare(path(a).c_str(), path(b).c_str()), result) << a << " " << b;
}

TEST_F(tip_file, nukedir_empties_a_tree_and_keeps_the_top)
{
    dir.write("top/a/b/c/file", "x");
    dir.write("top/a/other", "x");
    dir.write("top/.hidden", "x");
    dir.make_dir("top/empty");
    EXPECT_EQ(dir_is_empty(path("top").c_str()), 0);
    EXPECT_EQ(nukedir(path("top").c_str()), 0);
    EXPECT_EQ(dir_is_empty(path("top").c_str()), 1);
    EXPECT_NE(nukedir(path("none").c_str()), 0);
    EXPECT_EQ(dir_is_empty(path("none").c_str()), 0);
}

TEST_F(tip_file, nukedir_stops_at_the_first_failure)
{
    dir.make_dir("top");
    ASSERT_EQ(symlink("nowhere", path("top/link").c_str()), 0);
    EXPECT_NE(nukedir(path("top").c_str()), 0);
    EXPECT_TRUE(dir.has("top/link"));
    EXPECT_NE(dir_clear(path("top").c_str(), 1), 0);
    EXPECT_TRUE(dir.has("top"));
}

TEST_F(tip_file, clearing_removes_the_top_only_when_asked)
{
    dir.write("top/a/file", "x");
    EXPECT_EQ(dir_clear(path("top").c_str(), 0), 0);
    EXPECT_TRUE(dir.has("top"));
    dir.write("top/a/file", "x");
    EXPECT_EQ(dir_clear(path("top").c_str(), 1), 0);
    EXPECT_FALSE(dir.has("top"));
}

TEST_F(tip_file, a_service_directory_has_its_scripts)
{
    std::string service = path("svc");
    EXPECT_EQ(sv_dir_create(service.c_str(), nullptr, "x"), SV_NO_RUN_TEXT);
    EXPECT_FALSE(dir.has("svc"));
    EXPECT_EQ(sv_dir_create(service.c_str(), "#!/bin/sh\n", nullptr), 0);
    EXPECT_EQ(dir.read("svc/run"), "#!/bin/sh\n");
    EXPECT_FALSE(dir.has("svc/finish"));
    EXPECT_EQ(sv_dir_create(service.c_str(), "#!/bin/sh\n", "end\n"), 0) << "the directory may exist";
    EXPECT_EQ(dir.read("svc/finish"), "end\n");
    EXPECT_LT(sv_dir_create(path("none/svc").c_str(), "x", nullptr), 0);
    dir.write("file", "");
    EXPECT_LT(sv_dir_create(path("file").c_str(), "x", nullptr), 0);
}

TEST_F(tip_file, a_service_command_reaches_the_supervisor_or_fails_at_once)
{
    std::string service = path("svc");
    EXPECT_LT(sv_control(service.c_str(), SV_UP), 0);
    EXPECT_EQ(errno, ENOENT);
    dir.make_dir("svc/supervise");
    ASSERT_EQ(mkfifo(path("svc/supervise/control").c_str(), 0600), 0);
    EXPECT_LT(sv_control(service.c_str(), SV_UP), 0);
    EXPECT_EQ(errno, ENXIO);
    int supervisor = open(path("svc/supervise/control").c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(supervisor, 0);
    EXPECT_EQ(sv_control(service.c_str(), SV_UP), 1);
    EXPECT_EQ(sv_control(service.c_str(), SV_DOWN), 1);
    char got[4] = {};
    EXPECT_EQ(read(supervisor, got, sizeof got), 2);
    EXPECT_STREQ(got, "ud");
    close(supervisor);
}

TEST_F(tip_file, a_second_pid_file_of_an_instance_is_refused)
{
    EXPECT_EQ(daemon_pid_file_create("fp", 0, 4711), DAEMON_PID_FAILED) << "no directory";
    dir.make_dir("var/run");
    EXPECT_EQ(daemon_pid_file_create("fp", 0, 4711), DAEMON_PID_OK);
    EXPECT_EQ(dir.read("var/run/fp.0.pid"), "4711\n");
    EXPECT_EQ(daemon_pid_read("fp", 0, nullptr), 4711);
    EXPECT_EQ(daemon_pid_file_create("fp", 0, 4712), DAEMON_PID_EXISTS);
    EXPECT_EQ(daemon_pid_file_create("fp", 12, 4712), DAEMON_PID_OK);
    EXPECT_EQ(daemon_pid_read("fp", 12, nullptr), 4712);
    daemon_pid_file_remove("fp", 0);
    int error = 0;
    EXPECT_EQ(daemon_pid_read("fp", 0, &error), -1);
    EXPECT_EQ(error, ENOENT);
}

TEST_F(tip_file, an_empty_pid_file_counts_as_a_running_instance)
{
    dir.write("var/run/cfgmgr.0.pid", "");
    EXPECT_EQ(daemon_pid_read("cfgmgr", 0, nullptr), 0);
    EXPECT_EQ(daemon_pid_file_create("cfgmgr", 0, 1), DAEMON_PID_EXISTS);
}

TEST_F(tip_file, a_routing_daemon_has_a_pid_file_for_each_vpn)
{
    char text[PATH_MAX];
    EXPECT_EQ(quagga_pid_path("ospfd", 0, text, sizeof text), path("var/run/quagga/ospfd.pid"));
    EXPECT_EQ(quagga_pid_path("ospfd", 65530, text, sizeof text), path("var/run/quagga/ospfd.pid.65530"));
    dir.write("var/run/quagga/ospfd.pid.5", "77\n");
    dir.write("var/run/quagga/ospfd.pid", "");
    EXPECT_EQ(quagga_pid_read("ospfd", 5), 77);
    EXPECT_EQ(quagga_pid_read("ospfd", 0), 0);
    EXPECT_EQ(quagga_pid_remove("ospfd", 5), 0);
    EXPECT_EQ(quagga_pid_remove("ospfd", 5), -1);
    expect_assertion([] { (void)quagga_pid_read("ospfd", 5); }, "failed assertion `0'");
}

TEST_F(tip_file, limits_are_set_hard_and_soft)
{
    child_result_t result = run_in_child([] {
        rlimit limit;
        rlimit_set_nofile(64);
        getrlimit(RLIMIT_NOFILE, &limit);
        printf("%d %d ", static_cast<int>(limit.rlim_cur), static_cast<int>(limit.rlim_max));
        rlimit_set_core(0);
        getrlimit(RLIMIT_CORE, &limit);
        printf("%d %d", static_cast<int>(limit.rlim_cur), static_cast<int>(limit.rlim_max));
    });
    EXPECT_EQ(result.output, "64 64 0 0");
}

TEST_F(tip_file, core_dumps_hold_all_memory)
{
    expect_assertion([] { core_filter_set(); }, "failed assertion `file != NULL'");
    dir.make_dir("proc/self");
    core_filter_set();
    EXPECT_EQ(dir.read("proc/self/coredump_filter"), "0x7F\n");
}

} // namespace
