// GRE interfaces and the interfaces that they take their source address from.

#include "cfgmgr/network/cfgmgr_gre.h"

#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/tip_log.h"

#include <cstring>

namespace
{

void wait_for_underlay(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *gre_p)
{
    if (gre_p->gre_unbound == 0)
        avl_add(&cfgmgrd_p->gre_table, gre_p);
    gre_p->gre_unbound = 1;
}

bool is_bound_to(const cfgmgr_if_t &underlay, const cfgmgr_if_t &gre)
{
    return avl_find(&underlay.gre_bound, &gre, nullptr) == &gre;
}

void take_address(cfgmgr_if_t *gre_p, const cfgmgr_if_t &underlay)
{
    bool is_configured = !ip_addr_is_zero(underlay.ipv4_addr.ip);
    gre_p->tunnel_src = is_configured ? underlay.ipv4_addr.ip : underlay.dhcp_addr.ip;
}

bool has_both_ends(const cfgmgr_if_t &gre)
{
    return !ip_addr_is_zero(gre.tunnel_dst) && !ip_addr_is_zero(gre.tunnel_src);
}

void reprogram_in_own_vpn(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *gre_p)
{
    if (gre_p->vpn_p != nullptr)
        cfgmgr_if_gre_reprogram(cfgmgrd_p, gre_p->vpn_p->vpn_id, gre_p);
}

} // namespace

int cfgmgr_find_and_bind_gre_if(cfgmgrd_t *cfgmgrd_p, uint64_t, cfgmgr_if_t *gre_p)
{
    cfgmgr_if_t *underlay_p = cfgmgr_if_find(cfgmgrd_p, gre_p->tunnel_src_if, nullptr, nullptr);
    if (underlay_p == nullptr) {
        tip_log("Appending interface %s to unbound interface db \n", gre_p->name);
        wait_for_underlay(cfgmgrd_p, gre_p);
        return 0;
    }
    cfgmgr_gre_stop_waiting(cfgmgrd_p, gre_p);
    if (!is_bound_to(*underlay_p, *gre_p))
        avl_add(&underlay_p->gre_bound, gre_p);
    take_address(gre_p, *underlay_p);
    char address[IP_ADDR_TEXT];
    tip_log("Bound IP %s of underlay interface %s to interface %s \n",
            ip_addr_to_str(gre_p->tunnel_src, address, sizeof address), underlay_p->name, gre_p->name);
    return 1;
}

int cfgmgr_find_and_unbind_gre_if(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *gre_p, bool re_append)
{
    if (gre_p->tunnel_src_kind != TUNNEL_SRC_INTERFACE || gre_p->gre_unbound != 0)
        return 0;
    cfgmgr_if_t *underlay_p = cfgmgr_if_find(cfgmgrd_p, gre_p->tunnel_src_if, nullptr, nullptr);
    if (underlay_p == nullptr) {
        tip_log("Can't find underlay transport interface %s of interface %s \n", gre_p->tunnel_src_if, gre_p->name);
        return 0;
    }
    tip_log("Unbinding underlay interface %s from interface %s \n", underlay_p->name, gre_p->name);
    if (is_bound_to(*underlay_p, *gre_p))
        avl_remove(&underlay_p->gre_bound, gre_p);
    if (re_append)
        wait_for_underlay(cfgmgrd_p, gre_p);
    return 1;
}

void cfgmgr_find_and_bind_gre_if_all(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *new_if_p)
{
    for (cfgmgr_if_t &gre : avl_range<cfgmgr_if_t>(&cfgmgrd_p->gre_table)) {
        if (strcmp(gre.tunnel_src_if, new_if_p->name) != 0)
            continue;
        (void)cfgmgr_find_and_bind_gre_if(cfgmgrd_p, 0, &gre); // the new interface is there
        reprogram_in_own_vpn(cfgmgrd_p, &gre);
        tip_log("Delayed bind of interface %s to interface %s \n", gre.name, new_if_p->name);
    }
}

void cfgmgr_gre_release_bound(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *underlay_p)
{
    for (cfgmgr_if_t &gre : avl_range<cfgmgr_if_t>(&underlay_p->gre_bound)) {
        avl_remove(&underlay_p->gre_bound, &gre);
        wait_for_underlay(cfgmgrd_p, &gre);
    }
}

void cfgmgr_gre_stop_waiting(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *gre_p)
{
    if (gre_p->gre_unbound != 0)
        avl_remove(&cfgmgrd_p->gre_table, gre_p);
    gre_p->gre_unbound = 0;
}

void cfgmgr_if_gre_reprogram(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, cfgmgr_if_t *gre_p)
{
    char source[IP_ADDR_TEXT];
    char destination[IP_ADDR_TEXT];
    tip_log("Attempting to reprogram %s with source %s destination %s \n", gre_p->name,
            ip_addr_to_str(gre_p->tunnel_src, source, sizeof source),
            ip_addr_to_str(gre_p->tunnel_dst, destination, sizeof destination));
    (void)cfgmgr_kernel_if_gre_delete(vpn_id, gre_p); // logged, as below
    (void)cfgmgr_kernel_if_gre_add(vpn_id, gre_p);
    if (has_both_ends(*gre_p) && gre_p->mtu != IF_MTU_DEFAULT && gre_p->vpn_p != nullptr) // the new device has its own
        (void)cfgmgr_kernel_if_set_mtu(gre_p->vpn_p->kernel_sock, vpn_id, gre_p->name, gre_p->mtu);
    if (!ip_addr_is_zero(gre_p->ipv4_addr.ip) && has_both_ends(*gre_p))
        (void)cfgmgr_if_addr_update(cfgmgrd_p, gre_p->name, gre_p->ipv4_addr, false); // the record is there
}

void cfgmgr_if_gre_update_bound(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *underlay_p)
{
    for (cfgmgr_if_t &gre : avl_range<cfgmgr_if_t>(&underlay_p->gre_bound)) {
        take_address(&gre, *underlay_p);
        reprogram_in_own_vpn(cfgmgrd_p, &gre);
    }
}
