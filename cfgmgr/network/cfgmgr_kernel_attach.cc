// What a device needs when it enters or leaves a VPN, by its kind, and the twin that a sub-interface has in the
// forwarding plane.

#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_kernel_command.h"
#include "cfgmgr/network/cfgmgr_kernel_files.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "chmgr/chmgr_sim.h"
#include "common/tip_text.h"

namespace
{

constexpr char LINK_DOWN[] = "ip link set %s down";
constexpr char TWIN_ADD[] = "ip link add link %s name %s type vlan id %d";
constexpr char TWIN_DELETE[] = "ip link delete %s type vlan";

// ---- entering

// Made down: it comes up with its bridge.
int add_irb_vlan(cfgmgr_if_t *if_p)
{
    auto tag = static_cast<uint32_t>(cfgmgr_if_irb_bridge(if_p->name));
    int result = cfgmgr_kernel_subif_add(KERNEL_PARENT_IRB, tag, if_p);
    if (result != CFGMGR_KERNEL_OK)
        return result;
    if (cfgmgr_kernel_run(cfgmgr_kernel_format(LINK_DOWN, if_p->name)))
        return CFGMGR_KERNEL_OK;
    (void)cfgmgr_kernel_subif_delete(VPN_ID_TRANSPORT, if_p); // logged; the first failure counts
    return CFGMGR_KERNEL_IF_FAILED;
}

int attach_irb(uint64_t vpn_id, cfgmgr_if_t *if_p)
{
    int result = add_irb_vlan(if_p);
    if (result == CFGMGR_KERNEL_OK)
        result = cfgmgr_kernel_if_move(VPN_ID_TRANSPORT, vpn_id, if_p);
    if (result == CFGMGR_KERNEL_OK)
        cfgmgr_update_default_if_mac(if_p, vpn_id);
    return result;
}

int attach_cellular(uint64_t vpn_id, cfgmgr_if_t *if_p)
{
    int result = cfgmgr_kernel_cellular_add(vpn_id, if_p);
    cfgmgr_update_default_if_mac(if_p, vpn_id);
    return result;
}

int attach_subif(uint64_t vpn_id, cfgmgr_if_t *if_p)
{
    char parent[IF_NAME_SIZE];
    cfgmgr_if_base_name(if_p->name, parent, sizeof parent);
    int result = cfgmgr_kernel_subif_add(parent, if_p->vlan_id, if_p);
    return result == CFGMGR_KERNEL_OK ? cfgmgr_kernel_if_move(VPN_ID_TRANSPORT, vpn_id, if_p) : result;
}

struct kind_row_t {
    uint32_t flag;
    int (*change)(uint64_t vpn_id, cfgmgr_if_t *if_p);
};

// The first row that applies counts.
constexpr kind_row_t attach_rows[] = {
    { IF_LOOPBACK, cfgmgr_kernel_loopback_add },
    { IF_IRB, attach_irb },
    { IF_GRE, cfgmgr_kernel_if_gre_add },
    { IF_INTERNAL, cfgmgr_kernel_internal_if_add },
    { IF_CELLULAR, attach_cellular },
    { IF_SUBIF, attach_subif },
};

int attach(uint64_t vpn_id, cfgmgr_if_t *if_p)
{
    for (const kind_row_t &row : attach_rows) {
        if ((if_p->flags & row.flag) != 0)
            return row.change(vpn_id, if_p);
    }
    return cfgmgr_if_is_physical(*if_p) ? cfgmgr_kernel_if_move(VPN_ID_TRANSPORT, vpn_id, if_p) : CFGMGR_KERNEL_OK;
}

// ---- leaving

// Every row that applies is run, and the last result counts.
constexpr kind_row_t detach_rows[] = {
    { IF_IRB, cfgmgr_kernel_subif_delete },         { IF_INTERNAL, cfgmgr_kernel_internal_if_delete },
    { IF_CELLULAR, cfgmgr_kernel_cellular_delete }, { IF_SUBIF, cfgmgr_kernel_subif_delete },
    { IF_LOOPBACK, cfgmgr_kernel_loopback_delete }, { IF_GRE, cfgmgr_kernel_if_gre_delete },
};

// What DHCP gave belonged to the VPN that the interface leaves.
void forget_dhcp(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *if_p)
{
    if ((if_p->flags & IF_DHCP4) != 0) {
        if_p->dhcp_addr = {};
        ip_addr_clear(&if_p->dhcp_addr.ip, AF_INET);
        if_p->dhcp_dns_count = 0;
        for (uint32_t &server : if_p->dhcp_dns)
            server = 0;
        (void)cfgmgr_kernel_update_dns(cfgmgrd_p); // logged
    }
    if ((if_p->flags & IF_DHCP6) != 0) {
        if_p->dhcp6_addr = {};
        ip_addr_clear(&if_p->dhcp6_addr.ip, AF_INET6);
        if_p->dhcp6_dns_count = 0;
        for (ip_addr_t &server : if_p->dhcp6_dns)
            server = {};
        (void)cfgmgr_kernel_update_dns(cfgmgrd_p); // logged
    }
}

// ---- twins

// The twin of a sub-interface and its parent; false where the port has no twin.
struct twin_t {
    char parent[IF_NAME_SIZE];
    char name[IF_NAME_SIZE];
};

bool find_twin(cfgmgrd_t *cfgmgrd_p, const cfgmgr_if_t &interface, twin_t *out)
{
    if (cfgmgr_if_sim_name(interface.name, out->name, sizeof out->name) == nullptr)
        return false;
    cfgmgr_if_base_name(out->name, out->parent, sizeof out->parent);
    return cfgmgr_kernel_if_exists(cfgmgrd_p, VPN_ID_TRANSPORT, out->parent);
}

} // namespace

int cfgmgr_kernel_if_vpn_add(cfgmgrd_t *, uint64_t vpn_id, cfgmgr_if_t *if_p)
{
    int result = attach(vpn_id, if_p);
    if (result == CFGMGR_KERNEL_OK)
        cfgmgr_kernel_if_set_tso_off(vpn_id, if_p);
    return result;
}

int cfgmgr_kernel_if_vpn_del(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, cfgmgr_if_t *if_p)
{
    forget_dhcp(cfgmgrd_p, if_p);
    int result = CFGMGR_KERNEL_OK;
    if (cfgmgr_if_is_physical(*if_p)) {
        (void)cfgmgr_if_enable(if_p, false); // gives 0
        // A management port keeps its addresses across a stop of the daemon only where it is.
        if ((if_p->flags & IF_MGMT) == 0 || !cfgmgr_is_terminating())
            result = cfgmgr_kernel_if_move(vpn_id, VPN_ID_TRANSPORT, if_p);
    }
    for (const kind_row_t &row : detach_rows) {
        if ((if_p->flags & row.flag) != 0)
            result = row.change(vpn_id, if_p);
    }
    return result;
}

void cfgmgr_subif_add_sim(cfgmgr_if_t *if_p)
{
    cfgmgrd_t *cfgmgrd_p = cfgmgr_context();
    twin_t twin;
    // Both the VPN and the bridge of an interface ask for its twin: the second one finds it.
    if (!find_twin(cfgmgrd_p, *if_p, &twin) || cfgmgr_kernel_if_exists(cfgmgrd_p, VPN_ID_TRANSPORT, twin.name))
        return;
    if (!cfgmgr_kernel_run(cfgmgr_kernel_format(TWIN_ADD, twin.parent, twin.name, static_cast<int>(if_p->vlan_id))))
        return;
    (void)chmgr_sim_if_init(twin.name); // logged; the twin comes up with what has worked
    cfgmgr_if_t record{};
    strlcpy(record.name, twin.name, sizeof record.name);
    record.vpn_p = cfgmgr_vpn_find(cfgmgrd_p, VPN_ID_TRANSPORT, nullptr);
    (void)cfgmgr_kernel_ifflags_set(&record, true); // logged
}

void cfgmgr_subif_del_sim(cfgmgr_if_t *if_p)
{
    cfgmgrd_t *cfgmgrd_p = cfgmgr_context();
    twin_t twin;
    if (find_twin(cfgmgrd_p, *if_p, &twin) && cfgmgr_kernel_if_exists(cfgmgrd_p, VPN_ID_TRANSPORT, twin.name))
        (void)cfgmgr_kernel_run(cfgmgr_kernel_format(TWIN_DELETE, twin.name)); // logged
}

void cfgmgr_kernel_twin_update(cfgmgrd_t *cfgmgrd_p, const cfgmgr_if_t &interface, uint64_t mac, uint32_t mtu)
{
    char twin[IF_NAME_SIZE];
    const cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_find(cfgmgrd_p, VPN_ID_TRANSPORT, nullptr);
    if (vpn_p == nullptr || (mac == 0 && mtu == 0) ||
        cfgmgr_if_sim_name(interface.name, twin, sizeof twin) == nullptr ||
        !cfgmgr_kernel_if_exists(cfgmgrd_p, VPN_ID_TRANSPORT, twin))
        return;
    if (mac != 0)
        (void)cfgmgr_kernel_if_set_mac(vpn_p->kernel_sock, VPN_ID_TRANSPORT, twin, mac); // logged, as below
    if (mtu != 0)
        (void)cfgmgr_kernel_if_set_mtu(vpn_p->kernel_sock, VPN_ID_TRANSPORT, twin, mtu);
}
