// A device with ports and VPN 5, and changes of its interfaces as the agent delivers them.
#ifndef TESTS_UNIT_CFGMGR_CONFIG_IF_ENV_H
#define TESTS_UNIT_CFGMGR_CONFIG_IF_ENV_H

#include "cfgmgr/network/cfgmgr_bridge.h"
#include "cfgmgr/network/cfgmgr_config_vpn_if.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "common/vpn_id.h"
#include "tests/unit/cfgmgr_env.h"
#include "yang/corvane-vpn.h"

#include <arpa/inet.h>
#include <set>

using effects_t = std::vector<std::string>;
using changes_t = std::vector<confd_tag_value_t>;

inline confd_tag_value_t set(uint32_t tag, const confd_value_t &value)
{
    return { { tag, vpn__ns }, value };
}
inline confd_tag_value_t gone(uint32_t tag)
{
    return set(tag, nothing());
}
inline confd_tag_value_t mark(uint32_t tag, confd_vtype type)
{
    confd_value_t value{};
    value.type = type;
    return set(tag, value);
}
inline changes_t inside(uint32_t tag, const changes_t &changes, confd_vtype type = C_XMLBEGIN)
{
    changes_t all = { mark(tag, type) };
    all.insert(all.end(), changes.begin(), changes.end());
    all.push_back(mark(tag, C_XMLEND));
    return all;
}
inline changes_t operator+(changes_t one, const changes_t &other)
{
    one.insert(one.end(), other.begin(), other.end());
    return one;
}

inline confd_value_t boolean(bool value)
{
    confd_value_t v{};
    CONFD_SET_BOOL(&v, value);
    return v;
}
inline confd_value_t number16(uint16_t value)
{
    confd_value_t v{};
    CONFD_SET_UINT16(&v, value);
    return v;
}
inline confd_value_t signed32(int32_t value)
{
    confd_value_t v{};
    CONFD_SET_INT32(&v, value);
    return v;
}
inline confd_value_t choice(int32_t value)
{
    confd_value_t v{};
    CONFD_SET_ENUM_VALUE(&v, value);
    return v;
}
inline confd_value_t ipv4(const char *text)
{
    confd_value_t v{};
    v.type = C_IPV4;
    inet_pton(AF_INET, text, &v.val.ip);
    return v;
}
inline confd_value_t ipv4_network(const char *text, uint8_t len)
{
    confd_value_t v{};
    v.type = C_IPV4PREFIX;
    inet_pton(AF_INET, text, &v.val.ipv4prefix.ip);
    v.val.ipv4prefix.len = len;
    return v;
}

// Effects as a reader wants them: a command that runs in a VPN's namespace says so, and the switches themselves go.
// What ioctls change is told by their socket, not by the thread.
inline effects_t placed(const effects_t &effects)
{
    effects_t result;
    std::string place;
    for (const std::string &effect : effects) {
        static const std::set<std::string> ioctls = { "flags", "mac", "mtu", "link", "pause", "arp", "tun" };
        if (effect.starts_with("enter "))
            place = effect == "enter 0" ? "" : "in " + effect.substr(6) + ": ";
        else if (effect.starts_with("leave "))
            place.clear();
        else
            result.push_back(ioctls.count(effect.substr(0, effect.find(' '))) != 0 ? effect : place + effect);
    }
    EXPECT_EQ(place, "") << "the thread is back in the first namespace";
    return result;
}

class config_if_env : public cfgmgr_env
{
protected:
    explicit config_if_env(const char *chassis = "krest-V1")
    {
        device_chassis_set(chassis);
        daemon.timer_mgr_p = timer_mgr_create(TIMER_RES_10MS, nullptr, nullptr, nullptr, TIMER_MASK_ALL);
        EXPECT_EQ(cfgmgr_vpn_init(&daemon), 0);
        EXPECT_EQ(cfgmgr_bridge_init(&daemon), 0);
        EXPECT_EQ(cfgmgr_if_init(&daemon), 0);
        EXPECT_EQ(cfgmgr_vpn_find_or_create(&daemon, 5, 1), 0);
        ctx.reg.app_ctx = &daemon;
        row.ctx = &ctx;
        forget();
    }
    ~config_if_env() override
    {
        cfgmgr_bridge_deinit(&daemon);
        cfgmgr_vpn_deinit(&daemon);
        cfgmgr_if_deinit(&daemon);
        timer_mgr_delete(daemon.timer_mgr_p);
    }

    void forget()
    {
        device().take_effects();
        log_clear();
    }
    effects_t effects() { return placed(device().take_effects()); }

    int32_t configure(tconfd_handler_t handler, int op, uint64_t vpn_id, const char *name,
                      std::vector<confd_value_t> more_keys = {}, changes_t changes = {})
    {
        std::vector<confd_value_t> keys = { u64(vpn_id), buf(name) };
        keys.insert(keys.end(), more_keys.begin(), more_keys.end());
        return handler(&row, op, static_cast<uint8_t>(keys.size()), keys.data(), static_cast<uint16_t>(changes.size()),
                       op == MOP_DELETED ? nullptr : changes.data());
    }
    int32_t configure(int op, const char *name, const changes_t &changes = {}, uint64_t vpn_id = 5)
    {
        return configure(cfgmgr_config_vpn_if, op, vpn_id, name, {}, changes);
    }
    cfgmgr_if_t *find(const char *name) { return cfgmgr_if_find(&daemon, name, nullptr, nullptr); }
    // A configured interface, with what its creation did forgotten.
    cfgmgr_if_t *make(const char *cli_name, const char *name, const changes_t &changes = {}, uint64_t vpn_id = 5)
    {
        EXPECT_EQ(configure(MOP_CREATED, cli_name, changes, vpn_id), 0);
        forget();
        return find(name);
    }
    effects_t change(const char *name, const changes_t &changes, uint64_t vpn_id = 5)
    {
        EXPECT_EQ(configure(MOP_MODIFIED, name, changes, vpn_id), 0);
        return effects();
    }

    tconfd_ctx ctx{};
    tconfd_sub row{};
};

#endif
