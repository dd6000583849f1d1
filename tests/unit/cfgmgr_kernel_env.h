// What the kernel layer's tests share: VPN 0 and VPN 5, and interfaces in them that are in no table.
#ifndef TESTS_UNIT_CFGMGR_KERNEL_ENV_H
#define TESTS_UNIT_CFGMGR_KERNEL_ENV_H

#include "cfgmgr/network/cfgmgr_kernel.h"
#include "common/tip_text.h"
#include "tests/unit/cfgmgr_env.h"

#include <functional>

using effects_t = std::vector<std::string>;

class cfgmgr_kernel_env : public cfgmgr_env
{
protected:
    cfgmgr_kernel_env()
    {
        EXPECT_EQ(cfgmgr_vpn_init(&daemon), 0);
        EXPECT_EQ(cfgmgr_vpn_find_or_create(&daemon, 5, 0), 0);
        forget();
    }
    void forget()
    {
        device().take_effects();
        log_clear();
    }
    cfgmgr_vpn_t *vpn(uint64_t vpn_id) { return cfgmgr_vpn_find(&daemon, vpn_id, nullptr); }
    cfgmgr_if_t make_if(const char *name, uint32_t flags = 0, uint64_t vpn_id = 5, uint32_t vlan_id = 0)
    {
        cfgmgr_if_t interface {
        };
        strlcpy(interface.name, name, sizeof interface.name);
        interface.flags = flags;
        interface.vlan_id = vlan_id;
        interface.vpn_p = vpn(vpn_id);
        return interface;
    }
};

inline bool is_command(const std::string &effect)
{
    for (const char *other : { "enter ", "leave ", "tell ", "flags ", "mac ", "mtu ", "tun ", "daemon ", "rtm " }) {
        if (effect.starts_with(other))
            return false;
    }
    return true;
}

// The effects up to and with a command, and the return to the first namespace when the command was run in another.
inline effects_t effects_until(const effects_t &effects, size_t last)
{
    effects_t seen(effects.begin(), effects.begin() + static_cast<ptrdiff_t>(last) + 1);
    for (auto it = seen.rbegin(); it != seen.rend() && !it->starts_with("leave "); ++it) {
        if (it->starts_with("enter ")) {
            seen.push_back("leave " + it->substr(6));
            break;
        }
    }
    return seen;
}

inline ip_prefix_t prefix_of(const char *address, uint8_t len)
{
    ip_prefix_t prefix{};
    EXPECT_EQ(ip_addr_parse(address, &prefix.ip), 1);
    prefix.len = len;
    return prefix;
}

#endif
