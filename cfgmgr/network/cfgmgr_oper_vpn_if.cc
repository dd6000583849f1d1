// The DHCP client writes the address it has been given (or a zero one when it has lost it) into the leaf of the family.
// The client itself sets it on the interface; here the daemon's tables follow.

#include "cfgmgr/network/cfgmgr_oper_vpn_if.h"

#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_config_vpn_if.h"
#include "cfgmgr/network/cfgmgr_gre.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "common/tip_log.h"
#include "yang/corvane-vpn.h"

namespace
{

void learn_ipv4(const vpn_if_key_t &key, cfgmgr_if_t *if_p, const ip_prefix_t &address, const char *text)
{
    bool is_lost = ip_addr_is_zero(address.ip);
    (void)cfgmgr_if_arp_update(if_p, is_lost ? if_p->dhcp_addr : address, is_lost);
    if_p->dhcp_addr = address;
    tip_log("DHCP oper config vpn: %lu, if: %s, ip: %s", key.vpn_id, if_p->name, text);
    cfgmgr_if_gre_update_bound(key.cfgmgrd_p, if_p);
}

void learn_ipv6(const vpn_if_key_t &key, cfgmgr_if_t *if_p, const ip_prefix_t &address, const char *text)
{
    if_p->dhcp6_addr = address;
    tip_log("DHCP V6 oper config vpn: %lu, if: %s, ip: %s", key.vpn_id, if_p->name, text);
}

// A deleted leaf, and one that is no address, is a zero address of the family of its container.
void learn(const vpn_if_key_t &key, cfgmgr_if_t *if_p, uint32_t family, const confd_value_t &value)
{
    ip_prefix_t address{};
    if (!cfgmgr_config_is_deleted(value))
        address = cfgmgr_config_prefix(value);
    if (ip_addr_is_zero(address.ip)) {
        address = {};
        ip_addr_clear(&address.ip, family);
    }
    char text[IP_PREFIX_TEXT];
    ip_prefix_to_str(address, text, sizeof text);
    if (ip_addr_is_v6(address.ip))
        learn_ipv6(key, if_p, address, text);
    else
        learn_ipv4(key, if_p, address, text);
}

// The family of the container that an entry begins; 0 for an entry that begins none of them.
uint32_t family_of(const confd_tag_value_t &entry)
{
    if (entry.v.type != C_XMLBEGIN)
        return 0;
    if (CONFD_GET_TAG_TAG(&entry) == vpn_ip)
        return AF_INET;
    return CONFD_GET_TAG_TAG(&entry) == vpn_ipv6 ? AF_INET6 : 0;
}

} // namespace

int32_t cfgmgr_oper_vpn_if(tconfd_sub *row, int32_t, uint8_t, confd_value_t *keys, uint16_t num_tv,
                           confd_tag_value_t *tv)
{
    cfgmgr_timer_keepalive();
    vpn_if_key_t key = cfgmgr_config_if_key(*row, keys);
    if (cfgmgr_config_if_is_pool_name(key.name))
        return 0;
    tip_log("IP Oper Callback vpn: %lu, if: %s", key.vpn_id, key.name);
    cfgmgr_if_t *if_p = cfgmgr_config_if_find(key, nullptr);
    if (if_p == nullptr)
        return 0;
    uint32_t family = AF_INET;
    for (uint16_t i = 0; i < num_tv; i++) {
        if (CONFD_GET_TAG_TAG(&tv[i]) == vpn_dhcp_oper_addr)
            learn(key, if_p, family, *CONFD_GET_TAG_VALUE(&tv[i]));
        else if (uint32_t begun = family_of(tv[i]); begun != 0)
            family = begun;
    }
    return 0;
}
