// Interfaces of a VPN: the entry into its tree and its namespace, and the way out.

#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "cfgmgr/routing/cfgmgr_config_vpn_ospf.h"

namespace
{

// Tagged interfaces have a twin in the forwarding plane; that of a bridge is made otherwise.
bool has_twin(const cfgmgr_if_t &interface)
{
    return interface.vlan_id != 0 && (interface.flags & IF_IRB) == 0;
}

} // namespace

void cfgmgr_vpn_if_add(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, cfgmgr_if_t *if_p)
{
    cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_find(cfgmgrd_p, vpn_id, nullptr);
    avl_index_t where;
    if (vpn_p == nullptr || avl_find(&vpn_p->if_db, if_p, &where) != nullptr)
        return;
    avl_insert(&vpn_p->if_db, if_p, where);
    if_p->vpn_p = vpn_p;
    (void)cfgmgr_kernel_if_vpn_add(cfgmgrd_p, vpn_id, if_p); // logged; the record states what is configured
    if (has_twin(*if_p))
        cfgmgr_subif_add_sim(if_p);
}

void cfgmgr_vpn_if_del(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p, bool remove_from_tree)
{
    if (if_p->vpn_p == nullptr)
        return;
    if (has_twin(*if_p))
        cfgmgr_subif_del_sim(if_p);
    if (if_p->type != IF_TYPE_BRIDGE_PORT && (if_p->flags & IF_OSPF) != 0)
        cfgmgr_config_vpn_ospf_send_if_address(cfgmgrd_p, if_p->vpn_p, if_p->ospf_area, if_p->name, true, true);
    if (remove_from_tree)
        avl_remove(&if_p->vpn_p->if_db, if_p);
    (void)cfgmgr_kernel_if_vpn_del(cfgmgrd_p, if_p->vpn_p->vpn_id, if_p); // logged
    if_p->vpn_p = nullptr;
}
