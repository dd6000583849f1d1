// Addresses of interfaces in areas, and the mark that an interface carries while it is in one.
//
// The mark is set by the row of the area's interface, and taken away with that row, the area, the instance, or when the
// interface leaves its VPN. An interface that comes after its row has none, deliberately: its address is told when the
// row comes again.

#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/routing/cfgmgr_config_vpn_ospf.h"
#include "cfgmgr/routing/cfgmgr_quagga_fill.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "common/tip_log.h"
#include "proto/ospf.pb-c.h"

namespace
{

void clear_mark(cfgmgr_if_t *if_p)
{
    if_p->flags &= ~uint32_t{ IF_OSPF };
    if_p->ospf_area = 0;
}

void move_mark(cfgmgr_if_t *if_p, uint32_t area, bool is_deleted)
{
    if (!is_deleted) {
        if_p->flags |= IF_OSPF;
        if_p->ospf_area = area;
    } else if (if_p->ospf_area == area) {
        clear_mark(if_p);
    }
}

} // namespace

void cfgmgr_config_vpn_ospf_send_network(cfgmgrd_t *, cfgmgr_vpn_t *vpn_p, uint32_t area, const char *if_name,
                                         const ip_prefix_t &address, bool is_deleted)
{
    if (address.ip.family == 0) {
        if (cfgmgr_events_level > 0)
            tip_log("Interface %s address not set", if_name);
        return;
    }
    quagga_fill_t fields;
    MOspfAreaInterfaceAddress message = M_OSPF_AREA_INTERFACE_ADDRESS__INIT;
    message.area = area;
    message.interface = fields.text(if_name);
    message.prefix = fields.prefix(address);
    message.has_entry_is_deleted = message.entry_is_deleted = is_deleted ? 1 : 0;
    (void)cfgmgr_quagga_pb_send_message(vpn_p, &message, DAEMON_ID_OSPFD, OSPF_AREA_INTERFACE_ADDRESS); // logged
}

void cfgmgr_config_vpn_ospf_send_if_address(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p, uint32_t area,
                                            const char *if_name, bool is_deleted, bool update_mark)
{
    int error;
    cfgmgr_if_t *if_p = cfgmgr_if_find(cfgmgrd_p, if_name, nullptr, &error);
    if (if_p == nullptr || if_p->vpn_p != vpn_p) {
        if (error != CFGMGR_IF_NOT_PROVISIONED)
            tip_log("Interface %s not found", if_name);
        return;
    }
    if (update_mark)
        move_mark(if_p, area, is_deleted);
    cfgmgr_config_vpn_ospf_send_network(cfgmgrd_p, vpn_p, area, if_name, if_p->ipv4_addr, is_deleted);
}

void cfgmgr_ospf_if_addr_update(const cfgmgr_if_t &interface, const ip_prefix_t &address, bool is_delete)
{
    if ((interface.flags & IF_OSPF) == 0 || interface.vpn_p == nullptr || !ip_addr_is_v4(address.ip))
        return;
    cfgmgrd_t *cfgmgrd_p = interface.vpn_p->cfgmgr_p;
    cfgmgr_config_vpn_ospf_send_network(cfgmgrd_p, interface.vpn_p, interface.ospf_area, interface.name,
                                        interface.ipv4_addr, true);
    if (!is_delete)
        cfgmgr_config_vpn_ospf_send_network(cfgmgrd_p, interface.vpn_p, interface.ospf_area, interface.name, address,
                                            false);
}

void cfgmgr_ospf_clear_if_marks(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    for (cfgmgr_if_t *if_p = cfgmgr_if_first_in_vpn(cfgmgrd_p, vpn_id); if_p != nullptr;
         if_p = cfgmgr_if_next_in_vpn(cfgmgrd_p, if_p))
        clear_mark(if_p);
}
