// A device with the ports of a chassis, VPN 5 and VPN 6, for tests of the interface table over the real kernel layer.
#ifndef TESTS_UNIT_CFGMGR_IF_ENV_H
#define TESTS_UNIT_CFGMGR_IF_ENV_H

#include "cfgmgr/network/cfgmgr_bridge.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "common/tip_text.h"
#include "common/vpn_id.h"
#include "tests/unit/cfgmgr_env.h"

using if_effects_t = std::vector<std::string>;

inline ip_addr_t address_of(const char *text)
{
    ip_addr_t address;
    EXPECT_EQ(ip_addr_parse(text, &address), 1) << text;
    return address;
}

inline ip_prefix_t prefix_of(const char *text, uint8_t len)
{
    ip_prefix_t prefix{};
    prefix.ip = address_of(text);
    prefix.len = len;
    return prefix;
}

// What is done to the kernel, in order. A command in the namespace of a VPN is marked "5# "; the switches go. Changes by
// ioctl stand as they are.
inline if_effects_t in_namespaces(const if_effects_t &effects)
{
    if_effects_t result;
    std::string place;
    for (const std::string &effect : effects) {
        bool is_change = effect.starts_with("flags ") || effect.starts_with("mac ") || effect.starts_with("link ") ||
                         effect.starts_with("pause ") || effect.starts_with("tun ") || effect.starts_with("message ");
        if (effect.starts_with("enter "))
            place = effect == "enter 0" ? "" : effect.substr(6) + "# ";
        else if (effect.starts_with("leave "))
            place.clear();
        else
            result.push_back(is_change ? effect : place + effect);
    }
    EXPECT_EQ(place, "") << "the thread is back in the first namespace";
    return result;
}

class if_env : public cfgmgr_env
{
protected:
    explicit if_env(const char *chassis = "krest-V1")
    {
        device_chassis_set(chassis);
        device().chassis_type = 0; // no internal VPN
        clock = {};
        timer_clock_set([](timespec *now) { *now = clock; });
        daemon.timer_mgr_p = timer_mgr_create(TIMER_RES_1SEC, nullptr, nullptr, nullptr, TIMER_MASK_ALL);
    }
    ~if_env() override
    {
        cfgmgr_bridge_deinit(&daemon);
        cfgmgr_vpn_deinit(&daemon);
        cfgmgr_if_deinit(&daemon);
        timer_mgr_delete(daemon.timer_mgr_p); // fatal when a record has left its timer behind
        timer_clock_set(nullptr);
    }

    // The tables, as at the start of the daemon.
    int start()
    {
        EXPECT_EQ(cfgmgr_vpn_init(&daemon), 0);
        EXPECT_EQ(cfgmgr_bridge_init(&daemon), 0);
        forget();
        return cfgmgr_if_init(&daemon);
    }
    void start_with_vpns()
    {
        EXPECT_EQ(start(), 0);
        EXPECT_EQ(cfgmgr_vpn_find_or_create(&daemon, 5, 1), 0);
        EXPECT_EQ(cfgmgr_vpn_find_or_create(&daemon, 6, 2), 0);
        forget();
    }

    void forget()
    {
        device().take_effects();
        log_clear();
    }
    if_effects_t effects() { return in_namespaces(device().take_effects()); }
    cfgmgr_if_t *find(const char *name) { return cfgmgr_if_find(&daemon, name, nullptr, nullptr); }
    cfgmgr_if_t *create(const char *name, uint32_t id = 5, cfgmgr_if_type_t type = IF_TYPE_PLAIN)
    {
        cfgmgr_if_t *if_p = nullptr;
        EXPECT_EQ(cfgmgr_if_find_or_create(&daemon, id, name, &if_p, type), 0) << name;
        return if_p;
    }
    // One with what its creation did forgotten.
    cfgmgr_if_t *make(const char *name, uint32_t id = 5, cfgmgr_if_type_t type = IF_TYPE_PLAIN)
    {
        cfgmgr_if_t *if_p = create(name, id, type);
        forget();
        return if_p;
    }
    std::vector<std::string> names_in(uint64_t vpn_id)
    {
        std::vector<std::string> names;
        cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_find(&daemon, vpn_id, nullptr);
        for (const cfgmgr_if_t &interface : avl_range<cfgmgr_if_t>(&vpn_p->if_db))
            names.push_back(interface.name);
        return names;
    }
    void pass_seconds(int seconds)
    {
        clock.tv_sec += seconds;
        EXPECT_EQ(timer_run(daemon.timer_mgr_p, TIMER_MASK_ALL, 100), TIMER_OK);
    }

    static inline timespec clock;
};

#endif
