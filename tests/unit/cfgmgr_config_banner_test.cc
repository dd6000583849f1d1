// The file of the banner, and the two handlers of the overlay.
#include "cfgmgr/network/cfgmgr_config_banner.h"
#include "cfgmgr/network/cfgmgr_config_ovc.h"
#include "tests/unit/cfgmgr_env.h"
#include "yang/corvane-ovc.h"
#include "yang/corvane-system.h"

#include <sys/stat.h>

namespace
{

class banner : public cfgmgr_env
{
protected:
    banner()
    {
        root.make_dir("etc");
        ctx.reg.app_ctx = &daemon;
        row.ctx = &ctx;
    }
    int configure(decltype(cfgmgr_config_banner) *handler, uint32_t ns, uint32_t tag, const confd_value_t &value)
    {
        confd_tag_value_t changes[] = { { { tag, ns }, value } };
        return handler(&row, MOP_MODIFIED, 0, nullptr, 1, changes);
    }
    void configure_banner(uint32_t tag, const confd_value_t &value)
    {
        EXPECT_EQ(configure(cfgmgr_config_banner, system__ns, tag, value), 0);
    }
    std::string path(const char *name) { return root.path() + "/etc/" + name; }

    tconfd_ctx ctx{};
    tconfd_sub row{};
};

TEST_F(banner, is_in_its_file_with_an_end_of_line)
{
    configure_banner(system_login, buf("first\nsecond"));
    EXPECT_EQ(root.read("etc/issue"), "first\nsecond\n");
    std::string longest(2048, 'x');
    configure_banner(system_login, buf(longest.c_str()));
    EXPECT_EQ(root.read("etc/issue"), longest + "\n");
    configure_banner(system_login, nothing());
    EXPECT_EQ(root.read("etc/issue"), "\n");
    struct stat info;
    EXPECT_NE(stat(path("issue.new").c_str(), &info), 0);
}

TEST_F(banner, a_doubled_percent_sign_is_one)
{
    configure_banner(system_login, buf("100%% of 5 %%d"));
    EXPECT_EQ(root.read("etc/issue"), "100% of 5 %d\n");
}

TEST_F(banner, of_later_does_not_touch_the_file)
{
    configure_banner(system_motd, buf("hello"));
    struct stat info;
    EXPECT_NE(stat(path("issue").c_str(), &info), 0);
}

TEST_F(banner, a_step_that_fails_is_told)
{
    ASSERT_EQ(mkdir(path("issue").c_str(), 0755), 0);
    configure_banner(system_login, buf("x"));
    EXPECT_TRUE(log_has("Failed to remove /etc/issue file: Is a directory"));
    ASSERT_EQ(unlink(path("issue.new").c_str()), 0);
    ASSERT_EQ(symlink("/dev/full", path("issue.new").c_str()), 0);
    configure_banner(system_login, buf("x"));
    EXPECT_TRUE(log_has("Failed to close new /etc/issue file: No space left on device"));
    ASSERT_EQ(unlink(path("issue.new").c_str()), 0);
    ASSERT_EQ(mkdir(path("issue.new").c_str(), 0755), 0);
    configure_banner(system_login, buf("x"));
    EXPECT_TRUE(log_has("Failed to create new /etc/issue file: Is a directory"));
}

// ---- overlay

class overlay : public banner
{
};

TEST_F(overlay, its_as_number_is_one_number_or_two_halves)
{
    const std::pair<confd_value_t, uint32_t> cases[] = {
        { u32(4294967295), 4294967295 }, { buf("0.1"), 1 },       { buf("65535.65535"), 4294967295 },
        { buf("1.2"), 65538 },           { buf("64512"), 64512 }, { nothing(), 0 }
    };
    for (const auto &[value, number] : cases) {
        EXPECT_EQ(configure(cfgmgr_config_ovc_overlay_as, ovc__ns, ovc_overlay_as, value), 0);
        EXPECT_EQ(daemon.overlay_as, number);
        EXPECT_EQ(configure(cfgmgr_config_ovc_overlay_as, ovc__ns, ovc_tip_adv_static_conn_version, nothing()), 0);
        EXPECT_EQ(daemon.overlay_as, number) << "another leaf changes nothing";
    }
}

TEST_F(overlay, it_is_up_while_there_are_controllers)
{
    for (int up : { 1, 0 }) {
        confd_value_t v{};
        CONFD_SET_BOOL(&v, up);
        agent().leaves["/ovc/lodest-peers"] = v;
        EXPECT_EQ(configure(cfgmgr_config_ovc_lodest_peers, ovc__ns, ovc_lodest_peers, v), 0);
        EXPECT_EQ(daemon.ovc_up, up);
    }
}

TEST_F(overlay, without_a_word_about_controllers_the_delivery_fails)
{
    daemon.ovc_up = 1;
    EXPECT_EQ(configure(cfgmgr_config_ovc_lodest_peers, ovc__ns, ovc_lodest_peers, nothing()), 1);
    EXPECT_TRUE(log_has("Failed to read lodest-peers "));
    EXPECT_EQ(daemon.ovc_up, 1);
}

} // namespace
