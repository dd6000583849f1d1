// What the daemon's tests share: a context without a process around it, and the doors to the world replaced. Commands,
// namespace switches and messages to the system manager are written down in one order; the chassis is as the test says.
#ifndef TESTS_UNIT_CFGMGR_ENV_H
#define TESTS_UNIT_CFGMGR_ENV_H

#include "cfgmgr/daemon/cfgmgr_context.h"
#include "cfgmgr/network/cfgmgr_if_idx.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "chmgr/chmgr_layout.h"
#include "common/tip_root.h"
#include "tests/harness/temp_dir.h"
#include "tests/unit/cfgmgr_env_ioctl.h"
#include "tests/unit/fake_agent.h"
#include "tests/unit/log_capture.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>

struct fake_device_t {
    std::vector<std::string> effects;    // commands as they are; "tell TYPE VPN", "enter VPN", "leave VPN"
    std::vector<std::string> messages;   // to routing daemons: "DAEMON TYPE VPN {FIELDS}"
    std::map<std::string, int> statuses; // wait statuses of commands; others succeed
    std::string failing_program;         // commands that begin so fail as well
    int chassis_type = 0;
    std::unique_ptr<chmgr_block_t> chassis; // null: no block can be mapped
    int has_mgmt_port = 1;
    bool has_eth0 = false;    // short for an interface "eth0" in VPN 0
    fake_kernel_t kernel;     // what ioctls see
    bool has_routing = false; // true: the real doors to the routing daemons (cfgmgr_env_routing.cc)

    // The effects since the last call.
    std::vector<std::string> take_effects()
    {
        std::vector<std::string> taken;
        taken.swap(effects);
        return taken;
    }
};
inline constexpr int EXIT_1 = 1 << 8;

fake_device_t &device();
// Waits for a line that another thread of the daemon logs; a test has failed when there are not so many after 5 s.
void wait_for_log(const std::string &text, int count = 1);
// Gives the device the chassis block of a model ("krest-V1").
void device_chassis_set(const char *model);

class cfgmgr_env : public testing::Test
{
protected:
    cfgmgr_env()
    {
        device() = {};
        fake_agent_reset();
        log_clear();
        daemon.reserved_bitmap_p = cfgmgr_bitmap_alloc();
        EXPECT_EQ(cfgmgr_if_idx_init(&daemon), 0);
        daemon.personality = PERSONALITY_KREST;
        tip_root_set(root.path().c_str());
        cfgmgr_context_publish(&daemon);
    }
    ~cfgmgr_env() override
    {
        cfgmgr_vpn_deinit(&daemon);
        cfgmgr_if_idx_deinit(&daemon);
        free(daemon.reserved_bitmap_p);
        cfgmgr_context_publish(nullptr);
        tip_root_set("");
    }
    cfgmgr_env(const cfgmgr_env &) = delete;
    cfgmgr_env &operator=(const cfgmgr_env &) = delete;

    std::vector<uint64_t> vpns()
    {
        std::vector<uint64_t> ids;
        for (const cfgmgr_vpn_t &vpn : avl_range<cfgmgr_vpn_t>(&daemon.vpn_table))
            ids.push_back(vpn.vpn_id);
        return ids;
    }

    temp_dir root; // where the daemon finds and leaves its files
    cfgmgrd_t daemon{};
};

#endif
