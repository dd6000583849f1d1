// Ends of GRE tunnels: the kernel takes two tunnels of a VPN with the same ends for one.

#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_if_kind.h"
#include "cfgmgr/network/cfgmgr_validate.h"
#include "cfgmgr/network/cfgmgr_validate_common.h"

#include <cinttypes>
#include <cstring>

namespace
{

// The tunnel whose destination is asked about. It starts at an address or at an interface.
struct tunnel_question_t {
    validate_t v;
    uint64_t vpn_id;
    char name[VALIDATE_NAME_SIZE];
    ip_addr_t destination;
    ip_addr_t source;                   // family 0: none
    char source_if[VALIDATE_NAME_SIZE]; // "": none
};

bool is_gre(const char *name)
{
    return (cfgmgr_if_kind_of(name).flags & IF_GRE) != 0;
}

bool is_from_address(const tunnel_question_t &q)
{
    return q.source.family != 0;
}

// A leaf of an interface of the tunnel's VPN.
bool get_leaf(const tunnel_question_t &q, const char *name, const char *leaf, validate_value_t *out)
{
    return validate_get(q.v, out, "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}/%s", q.vpn_id, name, leaf);
}

bool has_address(const tunnel_question_t &q, const char *name, const char *leaf, const ip_addr_t &address)
{
    validate_value_t value;
    return get_leaf(q, name, leaf, &value) && ip_addr_compare(cfgmgr_config_address(value.v), address) == 0;
}

bool has_main_address(const tunnel_question_t &q, const char *name, const ip_addr_t &address)
{
    validate_value_t value;
    return get_leaf(q, name, "ip/address", &value) && ip_addr_compare(cfgmgr_config_prefix(value.v).ip, address) == 0;
}

bool has_source_if(const tunnel_question_t &q, const char *name)
{
    validate_value_t value;
    char source_if[VALIDATE_NAME_SIZE];
    if (!get_leaf(q, name, "tunnel-source-interface", &value))
        return false;
    cfgmgr_config_text(value.v, source_if, sizeof source_if);
    return strcmp(source_if, q.source_if) == 0;
}

int read_source(tunnel_question_t &q)
{
    validate_value_t value;
    if (get_leaf(q, q.name, "tunnel-source", &value)) {
        q.source = cfgmgr_config_address(value.v);
        return 0;
    }
    if (!get_leaf(q, q.name, "tunnel-source-interface", &value))
        return validate_refuse_agent(q.v, "Failed to get string element  ");
    cfgmgr_config_text(value.v, q.source_if, sizeof q.source_if);
    if (validate_exists(q.v, "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}", q.vpn_id, q.source_if))
        return 0;
    return validate_refuse(q.v, "Tunnel Source Interface %s needs to be configured first ", q.source_if);
}

int check_other_tunnel(const tunnel_question_t &q, const char *other)
{
    if (!is_gre(other) || !has_address(q, other, "tunnel-destination", q.destination))
        return 0;
    if (is_from_address(q) && has_address(q, other, "tunnel-source", q.source))
        return validate_refuse(
            q.v, "GRE interface %s and %s have the same tunnel source and destination. Not allowed !", q.name, other);
    if (!is_from_address(q) && has_source_if(q, other))
        return validate_refuse(
            q.v, "GRE interface %s and %s have the same tunnel source interface and destination. Not allowed !", q.name,
            other);
    return 0;
}

int check_others(const tunnel_question_t &q)
{
    bool has_source = !is_from_address(q);
    validate_list_t interfaces(q.v, "/vpn/vpn-instance{%" PRIu64 "}/interface", q.vpn_id);
    while (interfaces.next()) {
        char other[VALIDATE_NAME_SIZE];
        cfgmgr_config_text(interfaces.cursor.keys[0], other, sizeof other);
        if (strcmp(other, q.name) == 0)
            continue;
        if (int result = check_other_tunnel(q, other); result != 0)
            return result;
        has_source = has_source || (strstr(other, "ge") != nullptr && has_main_address(q, other, q.source));
    }
    if (!interfaces.is_open)
        return validate_refuse_agent(q.v, "Failed to initialise if maapi cursor  ");
    return has_source ? 0
                      : validate_refuse(q.v, "Tunnel source IP address for Interface %s not present in vpn %" PRIu64,
                                        q.name, q.vpn_id);
}

} // namespace

int cfgmgr_validate_vpn_if_tunnel_source_destination(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return 0;
    tunnel_question_t q{ validate_of(tctx), validate_vpn_key(kp), {}, cfgmgr_config_address(*newval), {}, {} };
    validate_if_key(kp, q.name);
    if (!ip_addr_is_valid_host(q.destination)) {
        char text[IP_ADDR_TEXT];
        return validate_refuse(q.v, "Tunnel Destination IP-Address %s must be a valid unicast IP address",
                               ip_addr_to_str(q.destination, text, sizeof text));
    }
    int result = read_source(q);
    return result != 0 ? result : check_others(q);
}
