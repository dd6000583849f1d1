// The instance: its settings, what it takes from other protocols, when it asks to be spared, and the policies of its
// routes. Containers of the instance have no row of their own: their leaves come with those of the VPN.

#include "cfgmgr/routing/cfgmgr_config_vpn_ospf.h"

#include "cfgmgr/routing/cfgmgr_quagga_change.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "common/tip_log.h"
#include "proto/ospf.pb-c.h"
#include "proto/zebra.pb-c.h"
#include "yang/corvane-vpn.h"

#include <algorithm>
#include <span>

namespace
{

// A leaf of the instance: other protocols of the VPN have leaves of the same names.
constexpr quagga_leaf_t instance_leaf(uint32_t tag, quagga_field_t field, quagga_form_t *form)
{
    return { .tag = tag, .field = field, .form = form, .inside = vpn_ospf };
}

// One whose removal has a boolean of its own.
constexpr quagga_leaf_t flagged_leaf(uint32_t tag, quagga_field_t field, quagga_form_t *form, quagga_field_t deleted)
{
    return {
        .tag = tag, .field = field, .form = form, .removal = QUAGGA_REMOVED_FLAG, .deleted = deleted, .inside = vpn_ospf
    };
}

#define INSTANCE_FIELD(field) QUAGGA_SCALAR(MOspfInstance, field)

constexpr quagga_leaf_t instance_leaves[] = {
    instance_leaf(vpn_compatible_rfc1583, INSTANCE_FIELD(compatible_rfc1583), cfgmgr_quagga_fill_bool),
    instance_leaf(vpn_originate, INSTANCE_FIELD(default_originate), cfgmgr_quagga_fill_exists),
    instance_leaf(vpn_always, INSTANCE_FIELD(default_originate_always), cfgmgr_quagga_fill_exists),
    { .tag = vpn_metric_type,
      .field = INSTANCE_FIELD(default_originate_metric_type),
      .form = cfgmgr_quagga_fill_enum,
      .removal = QUAGGA_REMOVED_FLAG,
      .deleted = INSTANCE_FIELD(default_originate_metric_type_is_deleted),
      .map = cfgmgr_config_ospf_metric_type_to_quagga_pb,
      .inside = vpn_ospf },
    instance_leaf(vpn_metric, INSTANCE_FIELD(default_originate_metric), cfgmgr_quagga_fill_uint32),
    instance_leaf(vpn_external, INSTANCE_FIELD(distance_external), cfgmgr_quagga_fill_uint8),
    instance_leaf(vpn_inter_area, INSTANCE_FIELD(distance_inter_area), cfgmgr_quagga_fill_uint8),
    instance_leaf(vpn_intra_area, INSTANCE_FIELD(distance_intra_area), cfgmgr_quagga_fill_uint8),
    instance_leaf(vpn_delay, INSTANCE_FIELD(timers_spf_delay), cfgmgr_quagga_fill_uint32),
    instance_leaf(vpn_initial_hold, INSTANCE_FIELD(timers_spf_initial_hold), cfgmgr_quagga_fill_uint32),
    instance_leaf(vpn_max_hold, INSTANCE_FIELD(timers_spf_max_hold), cfgmgr_quagga_fill_uint32),
    instance_leaf(vpn_reference_bandwidth, INSTANCE_FIELD(reference_bandwidth), cfgmgr_quagga_fill_uint32),
    flagged_leaf(vpn_originate_policy, QUAGGA_POINTER(MOspfInstance, route_map), cfgmgr_quagga_fill_text,
                 INSTANCE_FIELD(route_map_is_deleted)),
    flagged_leaf(vpn_router_id, QUAGGA_POINTER(MOspfInstance, router_id), cfgmgr_quagga_fill_address,
                 INSTANCE_FIELD(router_id_is_deleted)),
    instance_leaf(vpn_ignore_bad_lsreq, INSTANCE_FIELD(ignore_bad_lsreq), cfgmgr_quagga_fill_bool),
};

constexpr quagga_leaf_t redistribute_leaves[] = {
    { vpn_route_policy, QUAGGA_POINTER(MOspfRedistribute, route_map), cfgmgr_quagga_fill_text, QUAGGA_REMOVED_FLAG,
      QUAGGA_SCALAR(MOspfRedistribute, route_map_is_deleted) },
};

constexpr quagga_leaf_t max_metric_leaves[] = {
    { vpn_time, QUAGGA_SCALAR(MOspfMaxMetric, time), cfgmgr_quagga_fill_uint32 },
};

constexpr quagga_leaf_t route_policy_leaves[] = {
    { vpn_pol_name, QUAGGA_POINTER(MRtmRouteMapOspf, route_policy), cfgmgr_quagga_fill_text, QUAGGA_REMOVED_IGNORED },
};

// The container of a VPN that stays is taken away among the VPN's changes.
bool removes_instance(uint16_t num_tv, const confd_tag_value_t *tv)
{
    return std::ranges::any_of(std::span(tv, num_tv), [](const confd_tag_value_t &changed) {
        return changed.tag.tag == vpn_ospf && cfgmgr_config_is_deleted(changed.v);
    });
}

// ---- enumerations

uint32_t mapped(std::span<const uint8_t> map, uint32_t value, const char *unknown)
{
    if (value < map.size())
        return map[value];
    tip_log("%s %u", unknown, value);
    return 0;
}

} // namespace

// Nothing goes out for changes of the VPN that are none of OSPF's, nor for an instance without any setting.
int32_t cfgmgr_config_vpn_ospf(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                               confd_tag_value_t *tv)
{
    quagga_change_t change("OSPF", { row, op, num_keys, keys, num_tv, tv }, OSPF_BEHIND_KEYS);
    MOspfInstance message = M_OSPF_INSTANCE__INIT;
    size_t recognised = change.fill(&message, instance_leaves);
    bool is_gone = change.is_deleted() || removes_instance(num_tv, tv);
    change.vpn()->ospf_configured = is_gone ? 0 : 1;
    message.has_entry_is_deleted = message.entry_is_deleted = is_gone ? 1 : 0;
    if (is_gone || recognised != 0)
        (void)change.send(&message, DAEMON_ID_OSPFD, OSPF_INSTANCE); // gives 0
    if (is_gone)
        cfgmgr_ospf_clear_if_marks(change.daemon(), change.vpn()->vpn_id);
    return 0;
}

int32_t cfgmgr_config_vpn_ospf_redistribute(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys,
                                            uint16_t num_tv, confd_tag_value_t *tv)
{
    quagga_change_t change("OSPF redistribute", { row, op, num_keys, keys, num_tv, tv }, OSPF_BEHIND_KEYS);
    MOspfRedistribute message = M_OSPF_REDISTRIBUTE__INIT;
    message.protocol = cfgmgr_config_ospf_protocol_to_quagga_pb(change.enum_key("protocol"));
    change.fill(&message, redistribute_leaves);
    return change.send(&message, DAEMON_ID_OSPFD, OSPF_REDISTRIBUTE);
}

int32_t cfgmgr_config_vpn_ospf_max_metric(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys,
                                          uint16_t num_tv, confd_tag_value_t *tv)
{
    quagga_change_t change("OSPF max-metric", { row, op, num_keys, keys, num_tv, tv }, OSPF_BEHIND_KEYS);
    MOspfMaxMetric message = M_OSPF_MAX_METRIC__INIT;
    message.advertise = cfgmgr_config_ospf_advertise_to_quagga_pb(change.enum_key("advertise"));
    change.fill(&message, max_metric_leaves);
    return change.send(&message, DAEMON_ID_OSPFD, OSPF_MAX_METRIC);
}

// Routes of OSPF pass their policy on the way into the routing table, so it is zebra that has to know.
int32_t cfgmgr_config_vpn_ospf_route_policy(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys,
                                            uint16_t num_tv, confd_tag_value_t *tv)
{
    quagga_change_t change("OSPF route-policy", { row, op, num_keys, keys, num_tv, tv }, OSPF_BEHIND_KEYS);
    MRtmRouteMapOspf message = M_RTM_ROUTE_MAP_OSPF__INIT;
    message.direction = change.enum_key("direction");
    change.fill(&message, route_policy_leaves);
    return change.send(&message, DAEMON_ID_ZEBRA, ZEBRA_ROUTE_MAP_OSPF);
}

int cfgmgr_vpn_ospf_ignore_down_bit_update(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    MOspfInstance message = M_OSPF_INSTANCE__INIT;
    message.has_ignore_down_bit = 1;
    message.ignore_down_bit = cfgmgrd_p->ovc_up == 0;
    (void)cfgmgr_quagga_pb_send_message(cfgmgr_vpn_get(cfgmgrd_p, vpn_id), &message, DAEMON_ID_OSPFD, OSPF_INSTANCE);
    return 0;
}

// ---- enumerations: by the model's number

uint32_t cfgmgr_config_ospf_metric_type_to_quagga_pb(uint32_t type)
{
    static constexpr uint8_t types[] = { 0, 1 };
    return mapped(types, type, "Unknown metric type");
}

uint32_t cfgmgr_config_ospf_protocol_to_quagga_pb(uint32_t protocol)
{
    static constexpr uint8_t protocols[] = { 4, 3, 10, 14, 16, 21 };
    return mapped(protocols, protocol, "Unknown protocol type");
}

// The daemon's 1 is of no use here.
uint32_t cfgmgr_config_ospf_advertise_to_quagga_pb(uint32_t advertise)
{
    static constexpr uint8_t times[] = { 0, 2 };
    return mapped(times, advertise, "Unknown advertise value");
}

// Two of the model's words mean the same, deliberately.
uint32_t cfgmgr_config_ospf_translate_to_quagga_pb(uint32_t translate)
{
    static constexpr uint8_t roles[] = { 1, 2, 1 };
    return mapped(roles, translate, "Unknown translate value");
}

uint32_t cfgmgr_config_ospf_network_to_quagga_pb(uint32_t network)
{
    static constexpr uint8_t kinds[] = { 0, 1 };
    return mapped(kinds, network, "Unknown network type");
}

uint32_t cfgmgr_config_ospf_authtype_to_quagga_pb(uint32_t type)
{
    static constexpr uint8_t types[] = { 1, 2 };
    return mapped(types, type, "Unknown authtype");
}
