// Addresses of interfaces: which an interface may have by itself, beside the other settings of the device, and beside
// the addresses of the other interfaces of its VPN, configured or learnt from DHCP.

#include "cfgmgr/daemon/cfgmgr_cdb.h"
#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_config_vpn_if.h"
#include "cfgmgr/network/cfgmgr_validate.h"
#include "cfgmgr/network/cfgmgr_validate_common.h"
#include "common/tip_log.h"
#include "common/vpn_id.h"
#include "yang/corvane-vpn.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>

namespace
{

constexpr int NO_SESSION = 2; // deliberately neither of the two usual answers
constexpr uint8_t POOL_MIN_LEN = 24;
constexpr int IPV6_MIN_MTU = 1280; // bytes; RFC 8200, section 5

// A new address of an interface.
struct addr_question_t {
    validate_t v;
    uint64_t vpn_id;
    char name[VALIDATE_NAME_SIZE]; // of the interface
    char text[IP_PREFIX_TEXT];     // of the prefix
    ip_prefix_t prefix;
    bool is_secondary;
};

addr_question_t question_of(confd_trans_ctx *tctx, const confd_hkeypath_t *kp, const confd_value_t &value)
{
    addr_question_t q{ validate_of(tctx), validate_vpn_key(kp), {}, {}, cfgmgr_config_prefix(value), false };
    validate_if_key(kp, q.name);
    cfgmgr_config_text(value, q.text, sizeof q.text);
    for (int level = 0; level < kp->len; level++) {
        const confd_value_t &element = kp->v[level][0];
        q.is_secondary |= element.type == C_XMLTAG && CONFD_GET_XMLTAG(&element) == vpn_secondary_address;
    }
    return q;
}

bool is_equal(const ip_addr_t &a, const ip_addr_t &b)
{
    return a.family == b.family && ip_addr_compare(a, b) == 0;
}

// Read by the shorter of the two lengths. An IPv4 prefix of length 0 contains its own address only, see ip_masklen_v4.
bool have_overlap(const ip_prefix_t &a, const ip_prefix_t &b)
{
    if (a.ip.family != b.ip.family)
        return false;
    ip_addr_t mask;
    ip_addr_clear(&mask, a.ip.family);
    ip_mask_from_len(std::min(a.len, b.len), &mask);
    ip_addr_t a_network = a.ip;
    ip_addr_t b_network = b.ip;
    ip_addr_and(&a_network, mask);
    ip_addr_and(&b_network, mask);
    return is_equal(a_network, b_network);
}

// ---- the address by itself

int check_pool(const addr_question_t &q)
{
    if (ip_addr_is_v6(q.prefix.ip))
        return validate_refuse(q.v, "Invalid Prefix: %s - Natpool interface cannot have an ipv6 address.", q.text);
    if (!ip_prefix_is_subnet(q.prefix))
        return validate_refuse(q.v, "Invalid Prefix: %s - Natpool interface should be on subnet boundaries.", q.text);
    if (q.prefix.len < POOL_MIN_LEN)
        return validate_refuse(q.v,
                               "Invalid Prefix Length - Number of IP addresses in a natpool cannot be more than 256.");
    if (q.v.cfgmgrd_p->tconfd_ctx_p->initial_read_done == 0)
        return 0;
    validate_list_t entries(q.v, "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}/nat/static", q.vpn_id, q.name);
    if (entries.next())
        return validate_refuse(q.v, "Cannot configure ip address when there are static NAT mappings are configured on "
                                    "the interface");
    return entries.is_open ? 0 : validate_refuse_agent(q.v, "Failed to initialize maapi cursor  ");
}

int check_host_part(const addr_question_t &q)
{
    if (cfgmgr_config_if_is_pool_name(q.name))
        return check_pool(q);
    return ip_prefix_is_host(q.prefix) ? 0 : validate_refuse(q.v, "Invalid Prefix: %s", q.text);
}

int check_kind(const addr_question_t &q)
{
    const ip_addr_t &ip = q.prefix.ip;
    if (ip_addr_is_link_local(ip))
        return validate_refuse(q.v, "Configured IPv6 address %s is a link local address", q.text);
    if (ip_addr_is_multicast(ip))
        return validate_refuse(q.v, "Configured IP address %s is a multicast address", q.text);
    if (ip_addr_is_zero(ip))
        return validate_refuse(q.v, "Configured IP address %s cannot be all zeros", q.text);
    // The last octet says nothing here: what the host part may be depends on the length.
    if (!ip_addr_first_octet_ok(ip))
        return validate_refuse(q.v, "Configured IP address %s must be a valid unicast ip address", q.text);
    return 0;
}

// ---- beside other settings

int check_system_ip(const addr_question_t &q)
{
    validate_value_t value;
    if (q.vpn_id != VPN_ID_TRANSPORT || !validate_get(q.v, &value, "/system/system-ip"))
        return 0;
    ip_addr_t system_ip = cfgmgr_config_address(value.v);
    if (!is_equal(system_ip, q.prefix.ip))
        return 0;
    char text[IP_ADDR_TEXT];
    return validate_refuse(q.v, "Interface %s with address %s & System IP %s cannot be same in vpn 0", q.name, q.text,
                           ip_addr_to_str(system_ip, text, sizeof text));
}

int check_mtu(const addr_question_t &q)
{
    validate_value_t mtu;
    if (!ip_addr_is_v6(q.prefix.ip) ||
        !validate_get(q.v, &mtu, "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}/mtu", q.vpn_id, q.name))
        return 0;
    return cfgmgr_config_number(mtu.v) < IPV6_MIN_MTU
               ? validate_refuse(q.v, "MTU cannot be less than 1280 for ipv6 interface")
               : 0;
}

int check_vrrp_group(const addr_question_t &q, uint8_t group)
{
    validate_list_t shared(q.v, "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}/vrrp{%d}/ipv4", q.vpn_id, q.name, group);
    while (shared.next()) {
        ip_addr_t address = cfgmgr_config_address(shared.cursor.keys[0]);
        if (is_equal(address, q.prefix.ip))
            return validate_refuse(q.v, "VRRP address cannot be the same as interface address");
        if (!ip_prefix_contains(address, q.prefix))
            return validate_refuse(q.v, "VRRP group %x ip address must be in same subnet as interface ip address",
                                   group);
    }
    return shared.is_open ? 0 : validate_refuse_agent(q.v, "Failed to initialize maapi cursor  ");
}

int check_vrrp(const addr_question_t &q)
{
    if (!ip_addr_is_v4(q.prefix.ip) || q.is_secondary || q.vpn_id == VPN_ID_TRANSPORT)
        return 0;
    validate_list_t groups(q.v, "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}/vrrp", q.vpn_id, q.name);
    while (groups.next()) {
        int result = check_vrrp_group(q, CONFD_GET_UINT8(&groups.cursor.keys[0]));
        if (result != 0)
            return result;
    }
    return groups.is_open ? 0 : validate_refuse_agent(q.v, "Failed to initialize maapi cursor  ");
}

// ---- beside other interfaces

struct other_t {
    char name[VALIDATE_NAME_SIZE];
    bool is_own; // the interface of the question itself
};

other_t other_of(const addr_question_t &q, const validate_list_t &at)
{
    other_t other{};
    cfgmgr_config_text(at.cursor.keys[0], other.name, sizeof other.name);
    other.is_own = strcmp(other.name, q.name) == 0;
    return other;
}

int compare(const addr_question_t &q, const other_t &other, const char *kind, const ip_prefix_t &prefix)
{
    if (ip_addr_is_zero(prefix.ip) || !have_overlap(q.prefix, prefix))
        return 0;
    char text[IP_PREFIX_TEXT];
    return validate_refuse(q.v,
                           "Interface %s with %s %s & interface %s with %saddress %s cannot have overlapping "
                           "subnets",
                           other.name, kind, ip_prefix_to_str(prefix, text, sizeof text), q.name,
                           q.is_secondary ? "secondary-" : "", q.text);
}

// DHCP's address counts where none is configured.
int compare_main(const addr_question_t &q, const other_t &other, const cdb_session &session)
{
    const char *family = ip_addr_is_v6(q.prefix.ip) ? "ipv6" : "ip";
    validate_value_t value;
    if (validate_get(q.v, &value, "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}/%s/address", q.vpn_id, other.name,
                     family))
        return compare(q, other, "address", cfgmgr_config_prefix(value.v));
    if (validate_has_failed())
        return validate_refuse_agent(q.v, "Failed to get address element  ");
    ip_prefix_t learnt{};
    if (tconfd_cdb_get_ip_prefix_from_str(session.fd(), &learnt,
                                          "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}/%s/dhcp-oper-addr", q.vpn_id,
                                          other.name, family) != CONFD_OK)
        return 0;
    return compare(q, other, "dhcp-address", learnt);
}

int compare_secondaries(const addr_question_t &q, const other_t &other)
{
    if (!ip_addr_is_v4(q.prefix.ip))
        return 0;
    validate_list_t entries(q.v, "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}/ip/secondary-address", q.vpn_id,
                            other.name);
    while (entries.next()) {
        char text[IP_PREFIX_TEXT];
        cfgmgr_config_text(entries.cursor.keys[0], text, sizeof text);
        bool is_itself = q.is_secondary && other.is_own && strcmp(text, q.text) == 0;
        int result =
            is_itself ? 0 : compare(q, other, "secondary-address", cfgmgr_config_prefix(entries.cursor.keys[0]));
        if (result != 0)
            return result;
    }
    return entries.is_open ? 0 : validate_refuse_agent(q.v, "Failed to initialise maapi cursor  ");
}

int cfgmgr_validate_if_addr_overlap(const addr_question_t &q)
{
    cdb_session session(CDB_OPERATIONAL);
    if (!session.is_open()) {
        validate_log_no_session(session.result());
        return NO_SESSION;
    }
    validate_list_t interfaces(q.v, "/vpn/vpn-instance{%" PRIu64 "}/interface", q.vpn_id);
    while (interfaces.next()) {
        other_t other = other_of(q, interfaces);
        int result = other.is_own && !q.is_secondary ? 0 : compare_main(q, other, session);
        if (result == 0)
            result = compare_secondaries(q, other);
        if (result != 0)
            return result;
    }
    return interfaces.is_open ? 0 : validate_refuse_agent(q.v, "Failed to initialise if maapi cursor  ");
}

constexpr int (*checks[])(const addr_question_t &q) = {
    check_host_part, check_kind, check_system_ip, check_mtu, check_vrrp, cfgmgr_validate_if_addr_overlap,
};

// ---- address lists

int refuse_shared(const addr_question_t &q, const other_t &other, const ip_prefix_t &prefix)
{
    if (ip_addr_is_zero(prefix.ip) || !have_overlap(q.prefix, prefix))
        return 0;
    const ip_prefix_t &wider = prefix.len < q.prefix.len ? prefix : q.prefix;
    ip_prefix_t subnet;
    ip_prefix_mask_apply(wider, &subnet, 0);
    char prefix_text[IP_PREFIX_TEXT];
    char subnet_text[IP_PREFIX_TEXT];
    return validate_refuse(q.v,
                           "Interface %s with address %s & Interface %s with address %s cannot have same subnet %s",
                           other.name, ip_prefix_to_str(prefix, prefix_text, sizeof prefix_text), q.name, q.text,
                           ip_prefix_to_str(subnet, subnet_text, sizeof subnet_text));
}

int refuse_foreign(const addr_question_t &q, const ip_prefix_t &prefix)
{
    if (prefix.len == q.prefix.len && have_overlap(q.prefix, prefix))
        return 0;
    char text[IP_PREFIX_TEXT];
    return validate_refuse(q.v, "Interface %s with addresses %s & %s cannot have different subnets", q.name,
                           ip_prefix_to_str(prefix, text, sizeof text), q.text);
}

// What DHCP gave is read through the transaction: no session whose failure would have to be told.
constexpr const char *main_leaves[] = { "address", "dhcp-oper-addr" };

int compare_mains(const addr_question_t &q, const other_t &other)
{
    for (const char *leaf : main_leaves) {
        validate_value_t value;
        if (!validate_get(q.v, &value, "/vpn/vpn-instance{0}/interface{%s}/ip/%s", other.name, leaf))
            continue;
        int result = refuse_shared(q, other, cfgmgr_config_prefix(value.v));
        if (result != 0)
            return result;
    }
    return 0;
}

int compare_list(const addr_question_t &q, const other_t &other)
{
    validate_list_t entries(q.v, "/vpn/vpn-instance{0}/interface{%s}/ip/address-list", other.name);
    while (entries.next()) {
        ip_prefix_t prefix = cfgmgr_config_prefix(entries.cursor.keys[0]);
        int result = other.is_own ? refuse_foreign(q, prefix) : refuse_shared(q, other, prefix);
        if (result != 0)
            return result;
    }
    return entries.is_open ? 0 : validate_refuse_agent(q.v, "Failed to initialise maapi cursor  ");
}

} // namespace

int cfgmgr_validate_vpn_if_ip_address(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return 0;
    addr_question_t q = question_of(tctx, kp, *newval);
    for (auto check : checks) {
        if (int result = check(q); result != 0)
            return result;
    }
    return 0;
}

int cfgmgr_validate_vpn_if_addr_list(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval) || validate_of(tctx).cfgmgrd_p->personality != PERSONALITY_PENDRY)
        return 0;
    addr_question_t q = question_of(tctx, kp, *newval);
    if (int result = check_host_part(q); result != 0)
        return result;
    validate_list_t interfaces(q.v, "/vpn/vpn-instance{0}/interface");
    while (interfaces.next()) {
        other_t other = other_of(q, interfaces);
        other.is_own = strncmp(other.name, q.name, strlen(q.name)) == 0; // deliberately: eth1 stands for eth1.5 too
        int result = other.is_own ? 0 : compare_mains(q, other);
        if (result == 0)
            result = compare_list(q, other);
        if (result != 0)
            return result;
    }
    return interfaces.is_open ? 0 : validate_refuse_agent(q.v, "Failed to initialise if maapi cursor  ");
}
