// One copy of the configuration, and the timer that makes the next.
#include "cfgmgr/network/cfgmgr_config_backup.h"
#include "cfgmgr/network/cfgmgr_config_system.h"
#include "tests/unit/cfgmgr_env.h"

#include <ctime>

namespace
{

constexpr char SCRIPT[] = "/usr/bin/tconfd_script_backup.sh -operation save -user admin path ";

timespec fake_now;

class archive : public cfgmgr_env
{
protected:
    archive()
    {
        fake_now = { 1000, 0 };
        timer_clock_set([](timespec *now) { *now = fake_now; });
        daemon.timer_mgr_p = timer_mgr_create(TIMER_RES_1SEC, nullptr, nullptr, nullptr, TIMER_MASK_ALL);
        daemon.backup_timer_p = timer_util_create(daemon.timer_mgr_p, TIMER_PRIO_NORMAL, TIMER_CYCLIC, 1000,
                                                  cfgmgr_config_backup_cb, &daemon, nullptr, nullptr, nullptr, "a");
        cfgmgr_config_system_init(&daemon);
        snprintf(daemon.backup.archive_path, sizeof daemon.backup.archive_path, "/tmp/copy");
    }
    ~archive() override
    {
        timer_util_delete(daemon.backup_timer_p);
        timer_mgr_delete(daemon.timer_mgr_p);
        timer_clock_set(nullptr);
    }
    // From here on copies fail, which their threads say at their very end.
    void copies_fail() { device().failing_program = SCRIPT; }
    void wait_for_copies(int count)
    {
        wait_for_log("Failed to do a periodic archive of config", count);
        EXPECT_EQ(device().effects.size(), static_cast<size_t>(count));
    }
    void let_pass(int seconds)
    {
        fake_now.tv_sec += seconds;
        while (timer_run(daemon.timer_mgr_p, TIMER_MASK_ALL, 1000) == TIMER_BUDGET_SPENT) {
        }
    }
};

TEST_F(archive, a_copy_is_named_after_its_time_which_is_kept_when_it_is_made)
{
    time_t before = time(nullptr);
    EXPECT_EQ(cfgmgr_config_backup_thread(&daemon), nullptr);
    ASSERT_EQ(device().effects.size(), 1u);
    tm made{};
    std::string command = device().effects[0];
    const char *rest = strptime(command.c_str(), (SCRIPT + std::string("/tmp/copy_%Y-%m-%d_%H-%M-%S")).c_str(), &made);
    ASSERT_NE(rest, nullptr) << command;
    EXPECT_STREQ(rest, "  -ssh-id-file /etc/corvane/.ssh/archive_id_rsa");
    made.tm_isdst = -1;
    time_t at = mktime(&made);
    EXPECT_TRUE(at >= before && at <= time(nullptr)) << command;
    char text[64];
    (void)strftime(text, sizeof text, "%a %b %d %T %Z %Y", &made);
    EXPECT_STREQ(daemon.backup.archive_last_time, text);
}

TEST_F(archive, a_copy_that_fails_is_told_and_does_not_count)
{
    copies_fail();
    cfgmgr_config_backup_thread(&daemon);
    EXPECT_TRUE(log_has("Failed to do a periodic archive of config"));
    EXPECT_STREQ(daemon.backup.archive_last_time, "Disabled");
}

TEST_F(archive, a_copy_that_begins_after_the_archive_was_deleted_is_not_made)
{
    cfgmgr_config_backup_reset(&daemon.backup);
    EXPECT_EQ(cfgmgr_config_backup_thread(&daemon), nullptr);
    EXPECT_EQ(device().effects, std::vector<std::string>{});
}

TEST_F(archive, the_longest_settings_fit_in_one_command)
{
    std::string path(252, 'p'), key(252, 'k');
    snprintf(daemon.backup.archive_path, sizeof daemon.backup.archive_path, "%s", path.c_str());
    snprintf(daemon.backup.archive_ssh_id_file, sizeof daemon.backup.archive_ssh_id_file, "%s", key.c_str());
    daemon.backup.archive_vpn = 65529;
    cfgmgr_config_backup_thread(&daemon);
    EXPECT_TRUE(device().effects[0].starts_with(SCRIPT + path + "_2"));
    EXPECT_TRUE(device().effects[0].ends_with("  external-vpn 65529 -ssh-id-file " + key));
}

TEST_F(archive, copies_follow_in_the_interval_until_it_is_disabled)
{
    copies_fail();
    daemon.backup.archive_interval_ms = 300000;
    cfgmgr_config_backup(true, &daemon);
    wait_for_copies(1);
    let_pass(299);
    wait_for_copies(1);
    let_pass(1);
    wait_for_copies(2);
    let_pass(300);
    wait_for_copies(3);
    snprintf(daemon.backup.archive_last_time, sizeof daemon.backup.archive_last_time, "a time");
    cfgmgr_config_backup(false, &daemon);
    EXPECT_FALSE(timer_is_running(daemon.backup_timer_p));
    EXPECT_STREQ(daemon.backup.archive_last_time, "Disabled");
}

TEST_F(archive, enabling_it_again_copies_and_begins_the_interval_anew)
{
    copies_fail();
    daemon.backup.archive_interval_ms = 300000;
    cfgmgr_config_backup(true, &daemon);
    let_pass(200);
    daemon.backup.archive_interval_ms = 600000;
    cfgmgr_config_backup(true, &daemon);
    EXPECT_EQ(timer_remaining_ticks(daemon.backup_timer_p), 600);
    wait_for_copies(2);
}

TEST_F(archive, without_a_daemon_nothing_is_done)
{
    cfgmgr_config_backup(true, nullptr);
    EXPECT_TRUE(log_has("Cfgmgr daemon is uninitialized don't do anything"));
    EXPECT_EQ(device().effects, std::vector<std::string>{});
}

} // namespace
