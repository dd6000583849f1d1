// Address families of a BGP instance: how many paths they use, what they announce, and what they take from other protocols.

#include "cfgmgr/daemon/cfgmgr_cdb.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "cfgmgr/routing/cfgmgr_config_vpn_bgp.h"
#include "cfgmgr/routing/cfgmgr_quagga_change.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "proto/bgp.pb-c.h"
#include "yang/corvane-vpn.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <iterator>

namespace
{

// One number for the paths of other systems and for those of the own.
constexpr quagga_leaf_t family_leaves[] = {
    { .tag = vpn_maximum_paths,
      .field = QUAGGA_SCALAR(MBgpAddressFamily, maxpath_bgp),
      .form = cfgmgr_quagga_fill_uint8,
      .removal = QUAGGA_REMOVED_FLAG,
      .deleted = QUAGGA_SCALAR(MBgpAddressFamily, maxpath_bgp_is_deleted) },
    { .tag = vpn_maximum_paths,
      .field = QUAGGA_SCALAR(MBgpAddressFamily, maxpath_ibgp),
      .form = cfgmgr_quagga_fill_uint8,
      .removal = QUAGGA_REMOVED_FLAG,
      .deleted = QUAGGA_SCALAR(MBgpAddressFamily, maxpath_ibgp_is_deleted) },
};

constexpr quagga_leaf_t aggregate_leaves[] = {
    { .tag = vpn_as_set,
      .field = QUAGGA_SCALAR(MBgpAddressFamilyAggregateAddress, aggregate_option_1),
      .form = cfgmgr_quagga_fill_exists },
    { .tag = vpn_summary_only,
      .field = QUAGGA_SCALAR(MBgpAddressFamilyAggregateAddress, aggregate_option_2),
      .form = cfgmgr_quagga_fill_exists },
};

constexpr quagga_leaf_t redistribute_leaves[] = {
    { .tag = vpn_route_policy,
      .field = QUAGGA_POINTER(MBgpAddressFamilyRedistribute, route_map),
      .form = cfgmgr_quagga_fill_text,
      .removal = QUAGGA_REMOVED_FLAG,
      .deleted = QUAGGA_SCALAR(MBgpAddressFamilyRedistribute, route_map_is_deleted) },
};

constexpr const char *family_names[] = { "ipv4-unicast" };

// Route types of bgpd, by the number of the protocol in the model.
constexpr uint32_t route_types[] = { 4, 3, 7, 14, 16, 21 };

// ---- aggregates that go with their family

constexpr size_t PATH_SIZE = 192;
constexpr size_t AS_TEXT_SIZE = 16;

void log_no_session(const cdb_session &session)
{
    const char *text = confd_strerror(confd_errno);
    switch (session.step()) {
    case cdb_step_t::SOCKET:
        tip_log("Failed to allocate socket, errno: %d", errno);
        return;
    case cdb_step_t::CONNECT:
        tip_log("Cannot connect to CDB (%d) %s (%d) : %s", session.result(), text, confd_errno, confd_lasterr());
        return;
    default:
        tip_log("Failed to start cdb session %s (%d) : %s", text, confd_errno, confd_lasterr());
    }
}

// As the key stands in paths: a number of two parts is not found by its value.
void as_text(const confd_value_t *as_key_p, char (&out)[AS_TEXT_SIZE])
{
    if (as_key_p->type == C_BUF)
        cfgmgr_config_text(*as_key_p, out, sizeof out);
    else
        (void)snprintf(out, sizeof out, "%u", cfgmgr_quagga_as_key(as_key_p)); // ten digits at most
}

void send_aggregate_gone(cfgmgr_vpn_t *vpn_p, uint32_t as_num, uint32_t afi, const confd_ipv4_prefix &gone)
{
    quagga_fill_t fields;
    ip_prefix_t prefix{};
    ip_addr_set_v4(&prefix.ip, ntohl(gone.ip.s_addr));
    prefix.len = gone.len;
    MBgpAddressFamilyAggregateAddress message = M_BGP_ADDRESS_FAMILY_AGGREGATE_ADDRESS__INIT;
    message.as_num = as_num;
    message.address_family = cfgmgr_config_bgp_afi_to_quagga_pb(afi);
    message.ipv4_prefix = fields.prefix(prefix);
    message.has_entry_is_deleted = 1;
    message.entry_is_deleted = 1;
    // A loss is logged there.
    (void)cfgmgr_quagga_pb_send_message(vpn_p, &message, DAEMON_ID_BGPD, BGP_AGGREGATE_ADDRESS);
}

} // namespace

// ---- enumerations

uint32_t cfgmgr_config_bgp_afi_to_quagga_pb(uint32_t afi)
{
    if (afi != vpn_family_type_ipv4_unicast)
        tip_log("Unknown address family type %u", afi);
    return 0;
}

const char *cfgmgr_config_bgp_afi_to_str(uint32_t afi)
{
    if (afi >= std::size(family_names))
        tip_log("Unknown address family type %u", afi);
    tip_assert(afi < std::size(family_names));
    return family_names[afi];
}

uint32_t cfgmgr_config_bgp_route_to_quagga_pb(uint32_t protocol)
{
    if (protocol < std::size(route_types))
        return route_types[protocol];
    tip_log("Unknown redistribute protocol %u", protocol);
    return 0;
}

// ---- handlers

int cfgmgr_config_vpn_bgp_delete_all_aggregate_address(cfgmgr_vpn_t *vpn_p, const confd_value_t *as_key_p, uint32_t afi)
{
    cdb_session session(CDB_PRE_COMMIT_RUNNING);
    if (!session.is_open()) {
        log_no_session(session);
        return 1;
    }
    char as[AS_TEXT_SIZE];
    as_text(as_key_p, as);
    char path[PATH_SIZE];
    (void)snprintf(path, sizeof path, "/vpn/vpn-instance{%lu}/router/bgp{%s}/address-family{%s}/aggregate-address",
                   vpn_p->vpn_id, as, cfgmgr_config_bgp_afi_to_str(afi)); // fits
    int count = cdb_num_instances(session.fd(), "%s", path);
    if (count < 0) {
        tip_log("Failed to get num instances of aggregate address %s (%d) : %s", confd_strerror(confd_errno),
                confd_errno, confd_lasterr());
        return 1;
    }
    for (int i = 0; i < count; i++) {
        confd_ipv4_prefix prefix{};
        if (cdb_get_ipv4prefix(session.fd(), &prefix, "%s[%d]/prefix", path, i) != CONFD_OK) {
            tip_log("Failed to get aggregate address %s (%d) : %s", confd_strerror(confd_errno), confd_errno,
                    confd_lasterr());
            break;
        }
        send_aggregate_gone(vpn_p, cfgmgr_quagga_as_key(as_key_p), afi, prefix);
    }
    return 0;
}

int32_t cfgmgr_config_vpn_bgp_address_family(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys,
                                             uint16_t num_tv, confd_tag_value_t *tv)
{
    quagga_change_t change("BGP address family", { row, op, num_keys, keys, num_tv, tv });
    MBgpAddressFamily message = M_BGP_ADDRESS_FAMILY__INIT;
    message.as_num = change.as_key();
    uint32_t afi = change.enum_key("AF");
    message.address_family = cfgmgr_config_bgp_afi_to_quagga_pb(afi);
    change.fill(&message, family_leaves);
    // Logged, and the family goes in any case.
    if (change.is_deleted())
        (void)cfgmgr_config_vpn_bgp_delete_all_aggregate_address(change.vpn(), &keys[1], afi);
    return change.send(&message, DAEMON_ID_BGPD, BGP_ADDRESS_FAMILY);
}

int32_t cfgmgr_config_vpn_bgp_address_family_aggregate_address(tconfd_sub *row, int32_t op, uint8_t num_keys,
                                                               confd_value_t *keys, uint16_t num_tv,
                                                               confd_tag_value_t *tv)
{
    quagga_change_t change("BGP aggregate address", { row, op, num_keys, keys, num_tv, tv });
    MBgpAddressFamilyAggregateAddress message = M_BGP_ADDRESS_FAMILY_AGGREGATE_ADDRESS__INIT;
    message.as_num = change.as_key();
    message.address_family = cfgmgr_config_bgp_afi_to_quagga_pb(change.enum_key("AF"));
    message.ipv4_prefix = change.prefix_key();
    change.fill(&message, aggregate_leaves);
    return change.send(&message, DAEMON_ID_BGPD, BGP_AGGREGATE_ADDRESS);
}

int32_t cfgmgr_config_vpn_bgp_address_family_network(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys,
                                                     uint16_t num_tv, confd_tag_value_t *tv)
{
    quagga_change_t change("BGP network", { row, op, num_keys, keys, num_tv, tv });
    MBgpAddressFamilyNetwork message = M_BGP_ADDRESS_FAMILY_NETWORK__INIT;
    message.as_num = change.as_key();
    message.address_family = cfgmgr_config_bgp_afi_to_quagga_pb(change.enum_key("AF"));
    message.ipv4_prefix = change.prefix_key();
    change.fill(&message, {});
    return change.send(&message, DAEMON_ID_BGPD, BGP_NETWORK);
}

int32_t cfgmgr_config_vpn_bgp_address_family_redistribute(tconfd_sub *row, int32_t op, uint8_t num_keys,
                                                          confd_value_t *keys, uint16_t num_tv, confd_tag_value_t *tv)
{
    quagga_change_t change("BGP redistribute", { row, op, num_keys, keys, num_tv, tv });
    MBgpAddressFamilyRedistribute message = M_BGP_ADDRESS_FAMILY_REDISTRIBUTE__INIT;
    message.as_num = change.as_key();
    message.address_family = cfgmgr_config_bgp_afi_to_quagga_pb(change.enum_key("AF"));
    message.protocol = cfgmgr_config_bgp_route_to_quagga_pb(change.enum_key("protocol"));
    change.fill(&message, redistribute_leaves);
    return change.send(&message, DAEMON_ID_BGPD, BGP_REDISTRIBUTE);
}
