// The functions that the program's wrap options send here.
#include "tests/unit/cfgmgr_env.h"

#include "cfgmgr/daemon/cfgmgr_sysmgr.h"
#include "platform/chassis_model.h"

#include <cerrno>
#include <mutex>
#include <unistd.h>

fake_device_t &device()
{
    static auto *the_device = new fake_device_t;
    return *the_device;
}

// Commands may come from threads of the daemon.
static std::mutex commands_lock;

void wait_for_log(const std::string &text, int count)
{
    for (int i = 0; i < 5000 && log_count(text) < count; i++)
        usleep(1000);
    EXPECT_GE(log_count(text), count) << text;
}

void device_chassis_set(const char *model)
{
    const chassis_model_t &found = *chassis_model_find(model);
    device().chassis_type = static_cast<int>(found.chassis_type);
    device().chassis = std::make_unique<chmgr_block_t>();
    chassis_fill(found, 0, device().chassis.get());
    device().chassis->chassis_type = found.chassis_type;
}

extern "C" {

int __wrap__Z10tip_systemPKc(const char *command)
{
    std::lock_guard guard(commands_lock);
    device().effects.push_back(command);
    auto found = device().statuses.find(command);
    errno = ENOENT;
    if (const std::string &program = device().failing_program;
        !program.empty() && std::string(command).starts_with(program))
        return EXIT_1;
    return found != device().statuses.end() ? found->second : 0;
}

int __wrap__Z11netns_enterm(uint64_t vpn_id)
{
    device().effects.push_back("enter " + std::to_string(vpn_id));
    if (vpn_id != 0)
        device().kernel.current_ns = vpn_id;
    return 0;
}

int __wrap__Z11netns_leavem(uint64_t vpn_id)
{
    device().effects.push_back("leave " + std::to_string(vpn_id));
    if (vpn_id != 0)
        device().kernel.current_ns = 0;
    return 0;
}

chmgr_block_t *__wrap__Z11chmgr_blockv()
{
    return device().chassis.get();
}

int __wrap__Z18chmgr_chassis_typev()
{
    return device().chassis_type;
}

int __wrap__Z19chmgr_has_mgmt_portv()
{
    return device().has_mgmt_port;
}

void __real__Z19app_sysmgr_send_vpnP12app_sysmgr_t17sysmgr_msg_type_tm(app_sysmgr_t *client, sysmgr_msg_type_t type,
                                                                       uint64_t vpn_id);
void __wrap__Z19app_sysmgr_send_vpnP12app_sysmgr_t17sysmgr_msg_type_tm(app_sysmgr_t *client, sysmgr_msg_type_t type,
                                                                       uint64_t vpn_id)
{
    device().effects.push_back("tell " + std::to_string(type) + " " + std::to_string(vpn_id));
    __real__Z19app_sysmgr_send_vpnP12app_sysmgr_t17sysmgr_msg_type_tm(client, type, vpn_id);
}

} // extern "C"
