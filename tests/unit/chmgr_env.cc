// The functions that the program's wrap options send here.
#include "tests/unit/chmgr_env.h"

#include <cerrno>
#include <cstdarg>
#include <linux/sockios.h>
#include <net/if.h>

fake_chassis_t &chassis()
{
    static auto *the_chassis = new fake_chassis_t;
    return *the_chassis;
}

extern "C" {

int __wrap__Z10tip_systemPKc(const char *command)
{
    chassis().effects.push_back(command);
    return chassis().failing_command == static_cast<int>(chassis().effects.size()) - 1 ? 1 << 8 : 0;
}

int __wrap__Z11netns_enterm(uint64_t vpn_id)
{
    chassis().effects.push_back("enter " + std::to_string(vpn_id));
    return 0;
}

int __wrap__Z11netns_leavem(uint64_t vpn_id)
{
    chassis().effects.push_back("leave " + std::to_string(vpn_id));
    return 0;
}

chmgr_block_t *__wrap__Z11chmgr_blockv()
{
    return chassis().block.get();
}

int __wrap__Z18chmgr_chassis_typev()
{
    return chassis().block != nullptr ? static_cast<int>(chassis().block->chassis_type) : 0;
}

int __wrap_ioctl(int, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    auto *device = va_arg(arguments, ifreq *);
    va_end(arguments);
    EXPECT_EQ(request, static_cast<unsigned long>(SIOCETHTOOL));
    auto *link = reinterpret_cast<ethtool_cmd *>(device->ifr_data);
    bool is_get = link->cmd == ETHTOOL_GSET;
    chassis().effects.push_back((is_get ? "get " : "set ") + std::string(device->ifr_name));
    errno = EOPNOTSUPP;
    if (is_get ? chassis().is_get_failing : chassis().is_set_failing)
        return -1;
    (is_get ? *link : chassis().link) = is_get ? chassis().link : *link;
    return 0;
}

} // extern "C"
