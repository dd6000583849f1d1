// Rules of BGP: texts with AS paths, which bgpd judges or the daemon itself, and the addresses of neighbours.

#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_validate.h"
#include "cfgmgr/network/cfgmgr_validate_common.h"
#include "cfgmgr/routing/cfgmgr_as_number.h"
#include "cfgmgr/routing/cfgmgr_quagga_fill.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "common/vpn_id.h"
#include "proto/policy.pb-c.h"

#include <cinttypes>

namespace
{

bool is_equal(const ip_addr_t &a, const ip_addr_t &b)
{
    return a.family == b.family && ip_addr_compare(a, b) == 0;
}

// Refuses the address of a neighbour when the interface has it.
int check_interface(const validate_t &v, uint64_t vpn_id, const char *name, const ip_addr_t &neighbor)
{
    validate_value_t value;
    if (!validate_get(v, &value, "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}/ip/address", vpn_id, name))
        return validate_has_failed() ? validate_refuse_agent(v, "Failed to get address element  ") : CONFD_OK;
    ip_prefix_t prefix = cfgmgr_config_prefix(value.v);
    if (!is_equal(prefix.ip, neighbor))
        return CONFD_OK;
    char prefix_text[IP_PREFIX_TEXT];
    char neighbor_text[IP_ADDR_TEXT];
    return validate_refuse(v, "Interface %s with address %s & BGP neighbor address %s cannot be same", name,
                           ip_prefix_to_str(prefix, prefix_text, sizeof prefix_text),
                           ip_addr_to_str(neighbor, neighbor_text, sizeof neighbor_text));
}

} // namespace

// Any bgpd can tell, and VPN 0 is always there.
int cfgmgr_validate_aspath(confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return CONFD_OK;
    validate_t v = validate_of(tctx);
    cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_find(v.cfgmgrd_p, VPN_ID_TRANSPORT, nullptr);
    if (vpn_p == nullptr)
        return validate_refuse(v, "Default bgp context not present");
    quagga_fill_t fields;
    MBgpAsPathList message = M_BGP_AS_PATH_LIST__INIT;
    message.regex = fields.text(cfgmgr_quagga_text_key(newval));
    return cfgmgr_quagga_pb_validate(tctx, vpn_p, &message, DAEMON_ID_BGPD, BGP_AS_PATH_VALIDATE);
}

int cfgmgr_validate_aspath_list(confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return CONFD_OK;
    std::string text(cfgmgr_quagga_text_key(newval));
    char list[AS_LIST_SIZE];
    if (cfgmgr_convert_as_prepend_str(text.c_str(), list, sizeof list))
        return CONFD_OK;
    return validate_refuse(validate_of(tctx), "Invalid as-path string: %s", text.c_str());
}

int cfgmgr_validate_bgp_neighbor(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return CONFD_OK;
    validate_t v = validate_of(tctx);
    uint64_t vpn_id = validate_vpn_key(kp);
    ip_addr_t neighbor = cfgmgr_quagga_address_key(newval);
    validate_list_t interfaces(v, "/vpn/vpn-instance{%" PRIu64 "}/interface", vpn_id);
    while (interfaces.next()) {
        char name[VALIDATE_NAME_SIZE];
        cfgmgr_config_text(interfaces.cursor.keys[0], name, sizeof name);
        int result = check_interface(v, vpn_id, name, neighbor);
        if (result != CONFD_OK)
            return result;
    }
    return interfaces.is_open ? CONFD_OK : validate_refuse_agent(v, "Failed to initialise maapi cursor  ");
}
