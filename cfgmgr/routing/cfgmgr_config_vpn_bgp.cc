// The BGP instance of a VPN, and what changes for all instances of the device at once.

#include "cfgmgr/routing/cfgmgr_config_vpn_bgp.h"

#include "cfgmgr/network/cfgmgr_vpn.h"
#include "cfgmgr/routing/cfgmgr_quagga_change.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "proto/bgp.pb-c.h"
#include "yang/corvane-vpn.h"

namespace
{

constexpr quagga_leaf_t instance_leaves[] = {
    { .tag = vpn_shutdown, .field = QUAGGA_SCALAR(MBgpInstance, shutdown), .form = cfgmgr_quagga_fill_bool },
    { .tag = vpn_router_id,
      .field = QUAGGA_POINTER(MBgpInstance, router_id),
      .form = cfgmgr_quagga_fill_address,
      .removal = QUAGGA_REMOVED_FLAG,
      .deleted = QUAGGA_SCALAR(MBgpInstance, router_id_is_deleted) },
    { .tag = vpn_keepalive, .field = QUAGGA_SCALAR(MBgpInstance, keepalive), .form = cfgmgr_quagga_fill_uint16 },
    { .tag = vpn_holdtime, .field = QUAGGA_SCALAR(MBgpInstance, holdtime), .form = cfgmgr_quagga_fill_uint16 },
    { .tag = vpn_always_compare,
      .field = QUAGGA_SCALAR(MBgpInstance, med_always_compare),
      .form = cfgmgr_quagga_fill_bool },
    { .tag = vpn_deterministic,
      .field = QUAGGA_SCALAR(MBgpInstance, med_deterministic),
      .form = cfgmgr_quagga_fill_bool },
    { .tag = vpn_missing_as_worst,
      .field = QUAGGA_SCALAR(MBgpInstance, med_missing_as_worst),
      .form = cfgmgr_quagga_fill_bool },
    { .tag = vpn_compare_router_id,
      .field = QUAGGA_SCALAR(MBgpInstance, compare_router_id),
      .form = cfgmgr_quagga_fill_bool },
    { .tag = vpn_multipath_relax,
      .field = QUAGGA_SCALAR(MBgpInstance, as_path_multipath_relax),
      .form = cfgmgr_quagga_fill_bool },
    { .tag = vpn_external, .field = QUAGGA_SCALAR(MBgpInstance, distance_external), .form = cfgmgr_quagga_fill_uint8 },
    { .tag = vpn_internal, .field = QUAGGA_SCALAR(MBgpInstance, distance_internal), .form = cfgmgr_quagga_fill_uint8 },
    { .tag = vpn_local, .field = QUAGGA_SCALAR(MBgpInstance, distance_local), .form = cfgmgr_quagga_fill_uint8 },
    { .tag = vpn_graceful_shutdown, .field = QUAGGA_SCALAR(MBgpInstance, extra_flag), .form = cfgmgr_quagga_fill_bool },
};

void send_to_bgpd(cfgmgr_vpn_t *vpn_p, const MBgpInstance &message)
{
    (void)cfgmgr_quagga_pb_send_message(vpn_p, &message, DAEMON_ID_BGPD, BGP_INSTANCE); // a loss is logged there
}

// A VPN has one instance. One that comes while another is there takes its place in this commit, which brings both in the
// order of their numbers; bgpd hears of the old one's end first.
void send_end(cfgmgr_vpn_t *vpn_p)
{
    MBgpInstance message = M_BGP_INSTANCE__INIT;
    message.as_num = vpn_p->bgp_as;
    message.has_entry_is_deleted = message.entry_is_deleted = 1;
    send_to_bgpd(vpn_p, message);
}

// What the device has, and a bgpd that knows of its instance only now has missed.
void fill_identity(const quagga_change_t &change, MBgpInstance *message)
{
    const cfgmgrd_t *cfgmgrd_p = change.daemon();
    if (cfgmgrd_p->site_id != 0) {
        message->has_site_id = 1;
        message->site_id = cfgmgrd_p->site_id;
    }
    if (cfgmgrd_p->overlay_as != 0 && change.is_created()) {
        message->has_overlay_as_num = 1;
        message->overlay_as_num = cfgmgrd_p->overlay_as;
    }
}

} // namespace

int32_t cfgmgr_config_vpn_bgp(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                              confd_tag_value_t *tv)
{
    quagga_change_t change("BGP", { row, op, num_keys, keys, num_tv, tv });
    MBgpInstance message = M_BGP_INSTANCE__INIT;
    message.as_num = change.as_key();
    uint32_t *bgp_as = &change.vpn()->bgp_as;
    if (*bgp_as != 0 && *bgp_as != message.as_num) {
        if (change.is_deleted())
            return 0; // told when the other took its place
        send_end(change.vpn());
    }
    if (!change.is_deleted())
        *bgp_as = message.as_num;
    change.fill(&message, instance_leaves);
    if (!change.is_deleted())
        fill_identity(change, &message);
    (void)change.send(&message, DAEMON_ID_BGPD, BGP_INSTANCE); // gives 0
    if (change.is_deleted())
        *bgp_as = 0;
    return 0;
}

// ---- what changes for the device

int cfgmgr_config_vpn_bgp_ignore_soo_update(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_get(cfgmgrd_p, vpn_id);
    if (vpn_p->bgp_as == 0)
        return 0;
    MBgpInstance message = M_BGP_INSTANCE__INIT;
    message.as_num = vpn_p->bgp_as;
    message.has_ignore_soo = 1;
    message.ignore_soo = cfgmgrd_p->ovc_up != 0 ? 0 : 1;
    send_to_bgpd(vpn_p, message);
    return 0;
}

void cfgmgr_config_vpn_bgp_overlay_as_update(cfgmgrd_t *cfgmgrd_p)
{
    for (cfgmgr_vpn_t &vpn : avl_range<cfgmgr_vpn_t>(&cfgmgrd_p->vpn_table)) {
        if (vpn.bgp_as == 0)
            continue;
        MBgpInstance message = M_BGP_INSTANCE__INIT;
        message.as_num = vpn.bgp_as;
        message.has_overlay_as_num = 1;
        message.overlay_as_num = cfgmgrd_p->overlay_as;
        send_to_bgpd(&vpn, message);
    }
}
