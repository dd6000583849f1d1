// Route policies: the policy itself, with what happens to routes that no clause is for, and its clauses.
//
// Every daemon gets the whole clause and takes from it what its protocol knows.

#include "cfgmgr/routing/cfgmgr_config_policy.h"

#include "cfgmgr/routing/cfgmgr_quagga_fill.h"
#include "common/tip_log.h"
#include "proto/policy.pb-c.h"
#include "yang/corvane-policy.h"

namespace
{

// What happens to a route, in the model's number and the daemons'.
constexpr uint32_t ACTION_ACCEPT = 0;
constexpr uint32_t ACTION_REJECT = 1;

// The model counts as the daemons do, as far as both go.
uint32_t same_number(uint32_t value, uint32_t last, const char *what)
{
    if (value <= last)
        return value;
    tip_log("Unknown %s %u", what, value);
    return 0;
}

// ---- a clause

constexpr quagga_leaf_t clause(uint32_t tag, quagga_form_t *form, quagga_field_t field, quagga_field_t deleted,
                               uint32_t (*map)(uint32_t) = nullptr)
{
    return { .tag = tag, .field = field, .form = form, .removal = QUAGGA_REMOVED_FLAG, .deleted = deleted, .map = map };
}

// Some leaves stand twice, under one tag: among what a route must match, and in the container of what is set on it.
constexpr quagga_leaf_t outside_set(quagga_leaf_t row)
{
    row.outside = policy_set;
    return row;
}

constexpr quagga_leaf_t inside_set(quagga_leaf_t row)
{
    row.inside = policy_set;
    return row;
}

#define NUMBER(name)  QUAGGA_SCALAR(MRouteMap, name)
#define FLAG(name)    QUAGGA_SCALAR(MRouteMap, name)
#define TEXT(name)    QUAGGA_POINTER(MRouteMap, name)
#define ADDRESS(name) QUAGGA_POINTER(MRouteMap, name)

constexpr quagga_leaf_t sequence_leaves[] = {
    outside_set(clause(policy_metric, cfgmgr_quagga_fill_uint32, NUMBER(metric), FLAG(metric_is_deleted))),
    inside_set(clause(policy_metric, cfgmgr_quagga_fill_uint32, NUMBER(set_metric), FLAG(set_metric_is_deleted))),
    outside_set(clause(policy_origin, cfgmgr_quagga_fill_enum, NUMBER(origin), FLAG(origin_is_deleted),
                       cfgmgr_config_pol_bgp_origin_to_quagga_pb)),
    inside_set(clause(policy_origin, cfgmgr_quagga_fill_enum, NUMBER(set_origin), FLAG(set_origin_is_deleted),
                      cfgmgr_config_pol_bgp_origin_to_quagga_pb)),
    outside_set(clause(policy_next_hop, cfgmgr_quagga_fill_text, TEXT(next_hop), FLAG(next_hop_is_deleted))),
    inside_set(
        clause(policy_next_hop, cfgmgr_quagga_fill_address, ADDRESS(set_next_hop), FLAG(set_next_hop_is_deleted))),
    outside_set(clause(policy_community, cfgmgr_quagga_fill_text, TEXT(community), FLAG(community_is_deleted))),
    inside_set(
        clause(policy_community, cfgmgr_quagga_fill_joined, TEXT(set_community), FLAG(set_community_is_deleted))),
    outside_set(clause(policy_local_preference, cfgmgr_quagga_fill_uint32, NUMBER(local_preference),
                       FLAG(local_preference_is_deleted))),
    inside_set(clause(policy_local_preference, cfgmgr_quagga_fill_uint32, NUMBER(set_local_preference),
                      FLAG(set_local_pref_is_deleted))),
    outside_set(clause(policy_ovc_tag, cfgmgr_quagga_fill_uint32, NUMBER(ovc_tag), FLAG(ovc_tag_is_deleted))),
    inside_set(clause(policy_ovc_tag, cfgmgr_quagga_fill_uint32, NUMBER(set_ovc_tag), FLAG(set_ovc_tag_is_deleted))),
    outside_set(clause(policy_ospf_tag, cfgmgr_quagga_fill_uint32, NUMBER(ospf_tag), FLAG(ospf_tag_is_deleted))),
    inside_set(clause(policy_ospf_tag, cfgmgr_quagga_fill_uint32, NUMBER(set_ospf_tag), FLAG(set_ospf_tag_is_deleted))),
    outside_set(clause(policy_as_path, cfgmgr_quagga_fill_text, TEXT(as_path), FLAG(as_path_is_deleted))),
    // These have one meaning wherever they stand.
    clause(policy_ext_community, cfgmgr_quagga_fill_text, TEXT(ext_community), FLAG(ext_community_is_deleted)),
    clause(policy_address, cfgmgr_quagga_fill_text, TEXT(address), FLAG(address_is_deleted)),
    clause(policy_peer, cfgmgr_quagga_fill_address, ADDRESS(peer), FLAG(peer_is_deleted)),
    { .tag = policy_base_action,
      .field = NUMBER(action_type),
      .form = cfgmgr_quagga_fill_enum,
      .removal = QUAGGA_REMOVED_IGNORED, // a clause has one for as long as it lives
      .map = cfgmgr_config_pol_action_to_quagga_pb },
    // Its removal needs no field of its own: it is false.
    { .tag = policy_atomic_aggregate, .field = FLAG(set_atomic_aggregate), .form = cfgmgr_quagga_fill_bool },
    clause(policy_metric_type, cfgmgr_quagga_fill_enum, NUMBER(set_metric_type), FLAG(set_metric_type_is_deleted),
           cfgmgr_config_pol_metric_to_quagga_pb),
    clause(policy_weight, cfgmgr_quagga_fill_uint32, NUMBER(set_weight), FLAG(set_weight_is_deleted)),
    clause(policy_originator, cfgmgr_quagga_fill_address, ADDRESS(set_originator_id),
           FLAG(set_originator_id_is_deleted)),
    // One aggregator of two leaves: it is gone when either is.
    clause(policy_aggregator_as, cfgmgr_quagga_fill_uint32, NUMBER(set_aggr_as_num), FLAG(set_aggregator_is_deleted)),
    clause(policy_aggregator_address, cfgmgr_quagga_fill_address, ADDRESS(set_aggr_ip_addr),
           FLAG(set_aggregator_is_deleted)),
    clause(policy_as_path_prepend, cfgmgr_quagga_fill_prepend, TEXT(set_as_path_prepend),
           FLAG(set_as_prepend_is_deleted)),
    clause(policy_as_path_exclude, cfgmgr_quagga_fill_exclude, TEXT(set_as_path_exclude),
           FLAG(set_as_exclude_is_deleted)),
};

// ---- the default action

// A last clause, without conditions, that accepts. To reject is what a map does by itself, without any.
constexpr uint32_t DEFAULT_SEQUENCE = 65535;

constexpr quagga_leaf_t default_leaves[] = {
    { .tag = policy_default_action,
      .field = NUMBER(action_type),
      .form = cfgmgr_quagga_fill_enum,
      .removal = QUAGGA_REMOVED_FALLBACK,
      .map = cfgmgr_config_pol_action_to_quagga_pb },
};

#undef NUMBER
#undef FLAG
#undef TEXT
#undef ADDRESS

void fill_default_action(MRouteMap *message, uint32_t action)
{
    message->has_sequence = 1;
    message->sequence = DEFAULT_SEQUENCE;
    message->has_action_type = 1;
    message->action_type = ACTION_ACCEPT;
    if (action == ACTION_REJECT)
        message->has_seq_is_deleted = message->seq_is_deleted = 1;
}

void fill_policy(quagga_fill_t *fill, MRouteMap *message, int32_t op, uint16_t num_tv, const confd_tag_value_t *tv)
{
    fill->fallback = ACTION_REJECT;
    MRouteMap changed = M_ROUTE_MAP__INIT;
    (void)cfgmgr_quagga_fill(fill, &changed, default_leaves, num_tv, tv);
    if (changed.has_action_type == 0 || (changed.action_type == ACTION_REJECT && op == MOP_CREATED))
        return;
    fill_default_action(message, changed.action_type);
}

} // namespace

int32_t cfgmgr_config_route_map(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t num_tv,
                                confd_tag_value_t *tv)
{
    quagga_fill_t fill;
    MRouteMap message = M_ROUTE_MAP__INIT;
    message.name = fill.text(cfgmgr_quagga_text_key(&keys[0]));
    if (op == MOP_DELETED)
        message.has_route_map_is_deleted = message.route_map_is_deleted = 1;
    else
        fill_policy(&fill, &message, op, num_tv, tv);
    return cfgmgr_policy_send(row, message.base);
}

int32_t cfgmgr_config_route_map_seq(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t num_tv,
                                    confd_tag_value_t *tv)
{
    quagga_fill_t fill;
    MRouteMap message = M_ROUTE_MAP__INIT;
    message.name = fill.text(cfgmgr_quagga_text_key(&keys[0]));
    message.has_sequence = 1;
    message.sequence = cfgmgr_quagga_short_key(&keys[1]);
    if (op == MOP_DELETED)
        message.has_seq_is_deleted = message.seq_is_deleted = 1;
    else
        (void)cfgmgr_quagga_fill(&fill, &message, sequence_leaves, num_tv, tv);
    return cfgmgr_policy_send(row, message.base);
}

// ---- enumerations

uint32_t cfgmgr_config_pol_action_to_quagga_pb(uint32_t action)
{
    return same_number(action, ACTION_REJECT, "action");
}

uint32_t cfgmgr_config_pol_bgp_origin_to_quagga_pb(uint32_t origin)
{
    return same_number(origin, policy_origin_incomplete, "origin");
}

uint32_t cfgmgr_config_pol_metric_to_quagga_pb(uint32_t type)
{
    return same_number(type, policy_metric_type_type2, "metric type");
}
