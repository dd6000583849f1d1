// Which interfaces may be configured in which VPN, by their names.

#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_if_kind.h"
#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_validate.h"
#include "cfgmgr/network/cfgmgr_validate_common.h"
#include "common/tip_log.h"
#include "common/vpn_id.h"

#include <charconv>
#include <cstring>

namespace
{

constexpr int IRB_MAX = 63;
constexpr char EDGE_MANAGEMENT_IF[] = "eth0";

// A new interface of a VPN.
struct name_question_t {
    validate_t v;
    const confd_hkeypath_t *kp;
    const confd_value_t *key;
    uint64_t vpn_id;
    char name[VALIDATE_NAME_SIZE]; // the operator's
    char base[VALIDATE_NAME_SIZE]; // without a tag
    char kernel_name[VALIDATE_NAME_SIZE];
};

bool has_prefix(const char *name, const char *prefix)
{
    return strncmp(name, prefix, strlen(prefix)) == 0;
}

bool has_text(const char *name, const char *text)
{
    return strstr(name, text) != nullptr;
}

bool is_irb(const name_question_t &q)
{
    return has_prefix(q.name, "irb");
}

bool is_loopback_or_modem(const name_question_t &q)
{
    return has_prefix(q.name, "loopback") || has_prefix(q.name, "cellular");
}

int refuse_name(const name_question_t &q)
{
    return validate_refuse(q.v, "Invalid interface %s specified", q.name);
}

// ---- any device

// The device's own system interface begins in this way, with or without a number. A slash is in the names of ports only:
// no device of the kernel can have one.
int check_conversion(const name_question_t &q)
{
    char ignored[VALIDATE_NAME_SIZE];
    bool is_own = has_prefix(q.name, "system");
    bool is_known = cfgmgr_if_cli_to_kernel_name(q.name, ignored, sizeof ignored, nullptr) != nullptr;
    bool has_slash = has_text(q.name, "/") && !has_text(q.name, "ge");
    return is_own || !is_known || has_slash ? refuse_name(q) : 0;
}

int check_loopback(const name_question_t &q)
{
    bool is_loopback = has_prefix(q.name, "loopback") || has_prefix(q.name, "natpool");
    return is_loopback && has_text(q.name, ".") ? validate_refuse(q.v, "Invalid loopback interface name - %s", q.name)
                                                : 0;
}

bool is_pool(const name_question_t &q)
{
    return has_prefix(q.name, "natpool");
}

bool is_gre(const name_question_t &q)
{
    return (cfgmgr_if_kind_of(q.base).flags & IF_GRE) != 0;
}

bool is_ppp(const name_question_t &q)
{
    return has_prefix(q.name, "ppp");
}

struct numbered_row_t {
    bool (*is_kind)(const name_question_t &q);
    const char *kind; // for the operator
    const char *prefix;
    int max;
};

constexpr numbered_row_t numbered_rows[] = {
    { is_pool, "natpool", "natpool", 31 },
    { is_gre, "GRE interface", "gre", 255 },
    { is_ppp, "PPP interface", "ppp", 31 },
};

// The prefix, a number of 1 to max, and nothing else.
bool is_numbered(const char *name, const char *prefix, int max)
{
    if (!has_prefix(name, prefix))
        return false;
    int number = 0;
    const char *digits = name + strlen(prefix);
    auto [end, error] = std::from_chars(digits, digits + strlen(digits), number);
    return error == std::errc() && *end == '\0' && number >= 1 && number <= max;
}

int check_number(const name_question_t &q)
{
    for (const numbered_row_t &row : numbered_rows) {
        if (row.is_kind(q) && !is_numbered(q.name, row.prefix, row.max))
            return validate_refuse(q.v, "Valid %s names: %s<1..%d>", row.kind, row.prefix, row.max);
    }
    return 0;
}

int check_vpn(const name_question_t &q)
{
    if (q.vpn_id == VPN_ID_TRANSPORT)
        return 0;
    if (has_prefix(q.name, "cellular") || has_prefix(q.name, "vap"))
        return validate_refuse(q.v, "Interface %s cannot be configured in this vpn", q.name);
    return is_ppp(q) ? validate_refuse(q.v, "PPP interface only allowed on VPN 0") : 0;
}

// ---- by personality

// A controller, a management system or a container host has the ports that the host's kernel has.
int check_host(const name_question_t &q)
{
    bool is_allowed = has_text(q.name, "eth") || is_loopback_or_modem(q);
    bool is_there = is_allowed && cfgmgr_if_is_provisioned(q.kernel_name, q.v.cfgmgrd_p->personality, nullptr);
    return is_there ? 0 : refuse_name(q);
}

int check_port(const name_question_t &q)
{
    bool is_tagged = cfgmgr_if_is_tagged(q.name);
    bool is_free_to_share =
        !is_tagged && q.vpn_id == VPN_ID_TRANSPORT && cfgmgr_validate_leaf_is_default(q.v.tctx, q.kp, q.key) != 0;
    if (is_free_to_share && !has_text(q.name, "/")) // elsewhere the rule about bridges tells it
        return validate_refuse(q.v, "Port doesn't exist.");
    int result = is_free_to_share ? 0 : cfgmgr_validate_if_bridge_conflict(q.v.tctx, q.name);
    if (result == 0 && is_tagged && validate_exists(q.v, "/vpn/vpn-instance{0}/interface{%s}/dot1x", q.base))
        return validate_refuse(q.v, "Cannot configure sub-interface when main interface is 802.1x enabled");
    return result;
}

// What begins like the management interface is that or nothing.
int check_no_port(const name_question_t &q)
{
    bool is_management = strcmp(q.name, EDGE_MANAGEMENT_IF) == 0 && q.vpn_id == VPN_ID_MANAGEMENT;
    bool is_good = has_prefix(q.name, EDGE_MANAGEMENT_IF) ? is_management : cfgmgr_if_is_in_port_table(q.name);
    return is_good || is_loopback_or_modem(q) ? 0 : refuse_name(q);
}

// An edge router or a hub has the ports of its chassis.
int check_chassis(const name_question_t &q)
{
    if (is_irb(q))
        return 0;
    int result = has_text(q.name, "ge") ? check_port(q) : check_no_port(q);
    if (result != 0 || cfgmgr_if_is_provisioned(q.kernel_name, q.v.cfgmgrd_p->personality, nullptr) ||
        cfgmgr_if_is_in_port_table(q.name))
        return result;
    tip_log("Invalid interface for tarn or krest: %s", q.name);
    return refuse_name(q);
}

struct personality_row_t {
    uint32_t personality;
    int (*check)(const name_question_t &q);
};

constexpr personality_row_t personality_rows[] = {
    { PERSONALITY_KREST, check_chassis }, { PERSONALITY_TARN, check_chassis }, { PERSONALITY_LODEST, check_host },
    { PERSONALITY_QUORVIX, check_host },  { PERSONALITY_PENDRY, check_host },
};

int check_personality(const name_question_t &q)
{
    for (const personality_row_t &row : personality_rows) {
        if (row.personality == q.v.cfgmgrd_p->personality)
            return row.check(q);
    }
    return 0;
}

// ---- what is left

// The number has one way to be written: two names of one interface would be two configurations of it.
int check_irb(const name_question_t &q)
{
    if (!is_irb(q))
        return 0;
    int number = cfgmgr_if_irb_bridge(q.kernel_name);
    bool is_plain = q.name[strlen("irb")] != '0';
    if (number < 1 || number > IRB_MAX || !is_plain)
        return validate_refuse(q.v, "Invalid IRB interface name.  The name should be irb<bridge_id:1-63>!");
    return q.vpn_id == VPN_ID_TRANSPORT ? validate_refuse(q.v, "IRB interfaces are not allowed in VPN 0!") : 0;
}

struct server_row_t {
    const char *list;
    int num_keys;
};

constexpr server_row_t server_rows[] = {
    { "/system/radius/server", 1 },  { "/system/tacacs/server", 1 }, { "/snmp/trap/target", 3 },
    { "/system/logging/server", 1 }, { "/system/ntp/server", 1 },
};

// No server sends from the interface of a bridge.
int check_servers(const name_question_t &q)
{
    for (const server_row_t &row : server_rows) {
        int result = is_irb(q) ? 0 : cfgmgr_validate_ext_auth_src_intf(q.v.tctx, row.list, row.num_keys);
        if (result != 0)
            return result;
    }
    return 0;
}

constexpr int (*checks[])(const name_question_t &q) = {
    check_conversion, check_loopback, check_number, check_vpn, check_personality, check_irb, check_servers,
};

} // namespace

int cfgmgr_validate_vpn_if(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return 0;
    name_question_t q{ validate_of(tctx), kp, newval, validate_vpn_key(kp), {}, {}, {} };
    validate_if_key(kp, q.name);
    (void)cfgmgr_if_base_name(q.name, q.base, sizeof q.base);                                 // no longer than the name
    (void)cfgmgr_if_cli_to_kernel_name(q.name, q.kernel_name, sizeof q.kernel_name, nullptr); // or the name itself
    int result = cfgmgr_validate_if_name_len(q.v, q.name);
    for (auto check : checks) {
        if (result == 0)
            result = check(q);
    }
    return result;
}
