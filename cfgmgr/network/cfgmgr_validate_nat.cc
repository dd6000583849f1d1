// Address translation: entries of an address pool and what they may translate to.

#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_validate.h"
#include "cfgmgr/network/cfgmgr_validate_common.h"
#include "common/tip_assert.h"
#include "yang/corvane-vpn.h"

#include <algorithm>
#include <cinttypes>

namespace
{

constexpr uint32_t STATIC_KEYS = 2;
constexpr int64_t DIRECTION_OUTSIDE = 1;
constexpr uint32_t LAST_OCTET = 0xff;

// An entry that always translates one address to another.
struct static_question_t {
    validate_t v;
    uint64_t vpn_id;
    char name[VALIDATE_NAME_SIZE]; // of the interface
    int64_t direction;
    ip_addr_t source;
    ip_addr_t translated;
};

static_question_t question_of(confd_trans_ctx *tctx, const confd_hkeypath_t *kp, const confd_value_t &direction)
{
    confd_value_t keys[STATIC_KEYS];
    tip_assert(tconfd_keypath_get_keys(kp, keys, STATIC_KEYS, vpn_static) != nullptr);
    static_question_t q{ validate_of(tctx),
                         validate_vpn_key(kp),
                         {},
                         cfgmgr_config_number(direction),
                         cfgmgr_config_address(keys[0]),
                         cfgmgr_config_address(keys[1]) };
    validate_if_key(kp, q.name);
    return q;
}

// Both are IPv4.
bool is_same_address(const ip_addr_t &a, const ip_addr_t &b)
{
    return a.family == b.family && ip_addr_compare(a, b) == 0;
}

// ---- an address of the interface's own prefix

int check_last_octet(const static_question_t &q, const ip_addr_t &address)
{
    uint32_t octet = address.addr.v4 & LAST_OCTET;
    if (octet != 0 && octet != LAST_OCTET)
        return 0;
    char text[IP_ADDR_TEXT];
    return validate_refuse(q.v, "source-ip or translate-ip %s cannot be a .0  or a .255 address.",
                           ip_addr_to_str(address, text, sizeof text));
}

// Whether wanted is among count addresses, the first of which is at and each other the ip_addr_next_v4 of the one
// before. Goes from one ".254" to the next: a short prefix has too many addresses to look at each.
bool is_among(ip_addr_t at, uint64_t count, const ip_addr_t &wanted)
{
    while (count > 0) {
        uint32_t octet = at.addr.v4 & LAST_OCTET;
        uint64_t span = std::min<uint64_t>(count, octet < LAST_OCTET ? LAST_OCTET - octet : 1);
        if (wanted.addr.v4 - at.addr.v4 < span)
            return true;
        count -= span;
        at.addr.v4 += static_cast<uint32_t>(span - 1);
        ip_addr_next_v4(&at);
    }
    return false;
}

int check_pool(const static_question_t &q)
{
    validate_value_t value;
    if (!validate_get(q.v, &value, "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}/ip/address", q.vpn_id, q.name))
        return validate_refuse(q.v, "natpool interface ip address is not set");
    for (const ip_addr_t *address : { &q.translated, &q.source }) {
        if (int result = check_last_octet(q, *address); result != 0)
            return result;
    }
    ip_prefix_t prefix = cfgmgr_config_prefix(value.v);
    ip_prefix_mask_apply(prefix, &prefix, 0); // the interface need not have the first address of its network
    if (is_among(prefix.ip, uint64_t{ 1 } << (32 - prefix.len), q.translated))
        return 0;
    char text[IP_ADDR_TEXT];
    return validate_refuse(q.v, "Source address %s is not in the range of the interface ip prefix.",
                           ip_addr_to_str(q.translated, text, sizeof text));
}

// ---- an address of the other side

int check_interfaces(const static_question_t &q)
{
    validate_list_t interfaces(q.v, "/vpn/vpn-instance{%" PRIu64 "}/interface", q.vpn_id);
    while (interfaces.next()) {
        char other[VALIDATE_NAME_SIZE];
        cfgmgr_config_text(interfaces.cursor.keys[0], other, sizeof other);
        validate_value_t value;
        if (!validate_get(q.v, &value, "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}/ip/address", q.vpn_id, other))
            continue;
        ip_prefix_t prefix = cfgmgr_config_prefix(value.v);
        char prefix_text[IP_PREFIX_TEXT];
        char text[IP_ADDR_TEXT];
        if (is_same_address(prefix.ip, q.translated))
            return validate_refuse(q.v, "Interface %s with address %s & translate-ip %s cannot be same", other,
                                   ip_prefix_to_str(prefix, prefix_text, sizeof prefix_text),
                                   ip_addr_to_str(q.translated, text, sizeof text));
    }
    return interfaces.is_open ? 0 : validate_refuse_agent(q.v, "Failed to initialise if maapi cursor  ");
}

} // namespace

int cfgmgr_validate_vpn_if_static_nat_src_natpool_ip(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return 0;
    static_question_t q = question_of(tctx, kp, *newval);
    if (!ip_addr_is_valid_host(q.translated)) {
        char text[IP_ADDR_TEXT];
        return validate_refuse(q.v, "Translated ip-address %s must be a valid unicast IP address",
                               ip_addr_to_str(q.translated, text, sizeof text));
    }
    validate_value_t direction;
    if (!validate_get(q.v, &direction, "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}/nat/direction", q.vpn_id, q.name))
        return validate_refuse_agent(q.v, "Failed to get direction for the nat ");
    return cfgmgr_config_number(direction.v) == q.direction ? check_pool(q) : check_interfaces(q);
}

int cfgmgr_validate_vpn_if_natpool_overload_direction(confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                                                      confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval) || !cfgmgr_config_bool(*newval))
        return 0;
    validate_t v = validate_of(tctx);
    char name[VALIDATE_NAME_SIZE];
    validate_if_key(kp, name);
    validate_value_t direction;
    bool is_outside = validate_get(v, &direction, "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}/nat/direction",
                                   validate_vpn_key(kp), name) &&
                      cfgmgr_config_number(direction.v) == DIRECTION_OUTSIDE;
    return is_outside ? validate_refuse(v, "NAT Overload cannot exist on an outside natpool interface.") : 0;
}
