// Handlers of a VPN's resolvers and static hosts: they keep the records, the kernel layer writes the files.

#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_config_vpn.h"
#include "cfgmgr/network/cfgmgr_kernel_files.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "yang/corvane-vpn.h"

#include <algorithm>

namespace
{

// ---- resolvers

// An address that another of the same role has overwritten belongs to nothing any more.
void remove_resolver(cfgmgr_vpn_t *vpn_p, const ip_addr_t &address)
{
    for (ip_addr_t *resolver : { &vpn_p->dns_primary, &vpn_p->dns_secondary }) {
        if (resolver->family == address.family && ip_addr_compare(*resolver, address) == 0) {
            *resolver = {};
            return;
        }
    }
}

void apply_role(cfgmgr_vpn_t *vpn_p, const ip_addr_t &address, const confd_value_t &value)
{
    tip_assert(!cfgmgr_config_is_deleted(value));
    bool is_primary = cfgmgr_config_number(value) == vpn_role_primary;
    (is_primary ? vpn_p->dns_primary : vpn_p->dns_secondary) = address;
}

// ---- static hosts

// The record of the key, or a new one that is in no table yet; null without memory.
cfgmgr_static_host_t *find_or_make_host(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, const char *name, bool *is_new)
{
    cfgmgr_static_host_t *host = cfgmgr_static_host_find(cfgmgrd_p, vpn_id, name);
    *is_new = host == nullptr;
    if (host != nullptr)
        return host;
    host = static_cast<cfgmgr_static_host_t *>(calloc(1, sizeof(cfgmgr_static_host_t)));
    if (host == nullptr)
        return nullptr;
    host->vpn_id = vpn_id;
    (void)snprintf(host->host_name, sizeof host->host_name, "%s", name);
    return host;
}

void apply_addresses(cfgmgr_static_host_t *host, const confd_value_t &value)
{
    tip_assert(!cfgmgr_config_is_deleted(value));
    tip_assert(value.type == C_LIST);
    host->addr_count = std::min(CONFD_GET_LISTSIZE(&value), STATIC_HOST_ADDR_MAX);
    for (uint32_t i = 0; i < host->addr_count; i++) {
        char text[IP_ADDR_TEXT];
        host->addrs[i] = cfgmgr_config_address(CONFD_GET_LIST(&value)[i]);
        tip_log("Static dns entry: %s %s", host->host_name, ip_addr_to_str(host->addrs[i], text, sizeof text));
    }
}

void remove_host(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, const char *name)
{
    cfgmgr_static_host_t *host = cfgmgr_static_host_find(cfgmgrd_p, vpn_id, name);
    if (host == nullptr)
        return;
    avl_remove(cfgmgrd_p->static_dns, host);
    free(host);
}

// False without memory.
bool update_host(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, const char *name, uint16_t num_tv, const confd_tag_value_t *tv)
{
    bool is_new = false;
    cfgmgr_static_host_t *host = find_or_make_host(cfgmgrd_p, vpn_id, name, &is_new);
    if (host == nullptr)
        return false;
    for (const confd_tag_value_t *leaf = tv; leaf != tv + num_tv; leaf++) {
        if (leaf->tag.tag == vpn_ip)
            apply_addresses(host, leaf->v);
        else
            tip_log("Unhandled host operation %d", static_cast<int>(leaf->tag.tag));
    }
    if (is_new)
        avl_add(cfgmgrd_p->static_dns, host);
    return true;
}

} // namespace

int32_t cfgmgr_config_dns(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t num_tv,
                          confd_tag_value_t *tv)
{
    cfgmgr_timer_keepalive();
    cfgmgr_vpn_t *vpn_p = cfgmgr_config_vpn_get(row, &keys[0]);
    ip_addr_t address = cfgmgr_config_address(keys[1]);
    if (op == MOP_DELETED)
        remove_resolver(vpn_p, address);
    for (const confd_tag_value_t *leaf = tv; op != MOP_DELETED && leaf != tv + num_tv; leaf++) {
        if (leaf->tag.tag == vpn_role)
            apply_role(vpn_p, address, leaf->v);
        else
            tip_log("Unhandled dns operation %d", static_cast<int>(leaf->tag.tag));
    }
    (void)cfgmgr_kernel_update_dns(vpn_p->cfgmgr_p); // logged there; the records stand as configured
    return 0;
}

int32_t cfgmgr_config_host(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t num_tv,
                           confd_tag_value_t *tv)
{
    cfgmgr_timer_keepalive();
    cfgmgr_vpn_t *vpn_p = cfgmgr_config_vpn_get(row, &keys[0]);
    char name[STATIC_HOST_NAME_SIZE];
    cfgmgr_config_text(keys[1], name, sizeof name);
    if (op == MOP_DELETED)
        remove_host(vpn_p->cfgmgr_p, vpn_p->vpn_id, name);
    else if (!update_host(vpn_p->cfgmgr_p, vpn_p->vpn_id, name, num_tv, tv))
        return 0;
    (void)cfgmgr_kernel_update_host(vpn_p->cfgmgr_p, vpn_p->vpn_id); // as above
    return 0;
}
