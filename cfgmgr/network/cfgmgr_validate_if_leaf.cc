// Single settings of an interface: addresses of hardware and neighbours, what it is to the overlay, 802.1X, modems.

#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/network/cfgmgr_validate.h"
#include "cfgmgr/network/cfgmgr_validate_common.h"
#include "common/tip_if_name.h"
#include "common/tip_text.h"
#include "common/vpn_id.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>

namespace
{

constexpr uint8_t MAC_GROUP_BIT = 1; // of the first byte
constexpr size_t MAC_SIZE = 18;

// The interface whose setting is asked about.
struct if_question_t {
    validate_t v;
    uint64_t vpn_id;
    char name[VALIDATE_NAME_SIZE];
};

if_question_t question_of(confd_trans_ctx *tctx, const confd_hkeypath_t *kp)
{
    if_question_t q{ validate_of(tctx), validate_vpn_key(kp), {} };
    validate_if_key(kp, q.name);
    return q;
}

int refuse_absent(const if_question_t &q, const char *name)
{
    return validate_refuse(q.v, "Interface %s not present in vpn %" PRIu64, name, q.vpn_id);
}

bool is_in_vpn(const if_question_t &q, const char *name)
{
    return validate_exists(q.v, "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}", q.vpn_id, name);
}

int check_transport(const if_question_t &q)
{
    return q.vpn_id == VPN_ID_TRANSPORT ? 0 : validate_refuse(q.v, "Can configure this command only in transport vpn");
}

// A port of the chassis, or of the host where that has none of its own.
bool is_hardware_port(const if_question_t &q, const char *name)
{
    if (!if_name_is_phys(name))
        return false;
    char kernel_name[VALIDATE_NAME_SIZE];
    chmgr_port_t *port = nullptr;
    (void)cfgmgr_if_cli_to_kernel_name(name, kernel_name, sizeof kernel_name, &port); // no port then
    uint32_t personality = q.v.cfgmgrd_p->personality;
    bool is_on_chassis = personality == PERSONALITY_KREST || personality == PERSONALITY_TARN;
    return port != nullptr || (!is_on_chassis && strncmp(name, "eth", strlen("eth")) == 0);
}

// A presence container or leaf; below a list entry that is gone nobody asks.
int check_mac(confd_trans_ctx *tctx, const confd_value_t &value)
{
    if (cfgmgr_config_is_deleted(value))
        return 0;
    char text[MAC_SIZE];
    cfgmgr_config_text(value, text, sizeof text);
    uint8_t mac[MAC_BYTES] = {};
    bool is_zero = mac_from_str(text, mac) == nullptr || std::ranges::all_of(mac, [](uint8_t b) { return b == 0; });
    if (!is_zero && (mac[0] & MAC_GROUP_BIT) == 0)
        return 0;
    return validate_refuse(validate_of(tctx), "MAC-Address %s must be a valid unicast MAC address", text);
}

} // namespace

// ---- addresses of hardware and neighbours

int cfgmgr_validate_vpn_if_mac(confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *newval)
{
    return check_mac(tctx, *newval);
}

int cfgmgr_validate_vpn_arp_mac(confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *newval)
{
    return check_mac(tctx, *newval);
}

int cfgmgr_validate_vpn_arp_ip(confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return 0;
    ip_addr_t address = cfgmgr_config_address(*newval);
    if (ip_addr_is_valid_host(address))
        return 0;
    char text[IP_ADDR_TEXT];
    return validate_refuse(validate_of(tctx), "ARP IP-Address %s must be a valid unicast IP address",
                           ip_addr_to_str(address, text, sizeof text));
}

// ---- the overlay

int cfgmgr_validate_vpn_if_tunnel_bind(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return 0;
    if_question_t q = question_of(tctx, kp);
    char bound[VALIDATE_NAME_SIZE];
    cfgmgr_config_text(*newval, bound, sizeof bound);
    if (!is_in_vpn(q, bound))
        return refuse_absent(q, bound);
    if (!is_hardware_port(q, bound))
        return validate_refuse(q.v, "The bind interface %s must be a valid physical interface", bound);
    return strcmp(bound, q.name) == 0 ? validate_refuse(q.v, "Cannot bind tunnel-interface %s to itself", bound) : 0;
}

int cfgmgr_validate_vpn_if_wpnt_extension(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return 0;
    if_question_t q = question_of(tctx, kp);
    if (int result = check_transport(q); result != 0)
        return result;
    char extended[VALIDATE_NAME_SIZE];
    cfgmgr_config_text(*newval, extended, sizeof extended);
    if (!is_in_vpn(q, extended))
        return refuse_absent(q, extended);
    if (!validate_exists(q.v, "/vpn/vpn-instance{0}/interface{%s}/tunnel-interface", q.name))
        return 0;
    return validate_refuse(q.v, "Cannot configure both wpnt-extension and tunnel-interface on the same interface %s",
                           q.name);
}

int cfgmgr_validate_vpn_if_wpnt_last_resort(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval) || !cfgmgr_config_bool(*newval))
        return 0;
    if_question_t q = question_of(tctx, kp);
    if (int result = check_transport(q); result != 0)
        return result;
    validate_list_t interfaces(q.v, "/vpn/vpn-instance{0}/interface");
    while (interfaces.next()) {
        char other[VALIDATE_NAME_SIZE];
        cfgmgr_config_text(interfaces.cursor.keys[0], other, sizeof other);
        bool is_taken =
            strcmp(other, q.name) != 0 &&
            validate_get_bool(q.v, false, "/vpn/vpn-instance{0}/interface{%s}/tunnel-interface/last-resort-circuit",
                              other);
        if (is_taken)
            return validate_refuse(q.v,
                                   "Cannot configure %s as last resort. Already interface %s is configured as last "
                                   "resort. \nOnly one last resort can be configured\n",
                                   q.name, other);
    }
    return interfaces.is_open ? 0 : validate_refuse_agent(q.v, "Failed to initialise if maapi cursor  ");
}

// ---- 802.1X, modems

int cfgmgr_dot1x_if_exclusion_validate(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return 0;
    if_question_t q = question_of(tctx, kp);
    if (!validate_exists(q.v, "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}/dot1x", q.vpn_id, q.name))
        return 0;
    return validate_refuse(q.v, "Please remove 802.1x configuration from interface %s first", q.name);
}

int cfgmgr_validate_wwan_if(confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *)
{
    return 0;
}
