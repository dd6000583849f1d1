// Validators of the device's own settings: its address, who may log in, servers and where they are asked from.

#include "cfgmgr/daemon/cfgmgr_cdb.h"
#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_validate.h"
#include "cfgmgr/network/cfgmgr_validate_common.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "yang/corvane-snmp.h"
#include "yang/corvane-system.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

namespace
{

constexpr int SECRET_MAX = 128; // characters in clear
constexpr size_t PATH_SIZE = 512;
constexpr uint32_t TARGET_KEYS = 3; // VPN, address and port of a trap target

std::string_view text_of(const confd_value_t &value)
{
    tip_assert(value.type == C_BUF);
    return { CONFD_GET_CBUFPTR(&value), CONFD_GET_BUFSIZE(&value) };
}

std::span<const confd_value_t> items_of(const confd_value_t &list)
{
    tip_assert(list.type == C_LIST);
    return { CONFD_GET_LIST(&list), CONFD_GET_LISTSIZE(&list) };
}

// ---- the system address

int check_system_unicast(const validate_t &v, const ip_addr_t &address, const char *text)
{
    if (!ip_addr_is_v4(address))
        return validate_refuse(v, "System ip address: %s is invalid. It should be ipv4 unicast address", text);
    if (!ip_addr_first_octet_ok(address))
        return validate_refuse(v, "System ip address: %s is invalid. It should be unicast address", text);
    if (ip_addr_is_zero(address))
        return validate_refuse(v, "System ip should be non-zero: %s", text);
    return 0;
}

int check_system_unique(const validate_t &v, const ip_addr_t &address, const char *text)
{
    validate_list_t interfaces(v, "/vpn/vpn-instance{0}/interface");
    while (interfaces.next()) {
        char name[VALIDATE_NAME_SIZE];
        cfgmgr_config_text(interfaces.cursor.keys[0], name, sizeof name);
        validate_value_t value;
        if (!validate_get(v, &value, "/vpn/vpn-instance{0}/interface{%s}/ip/address", name))
            continue;
        ip_prefix_t prefix = cfgmgr_config_prefix(value.v);
        if (ip_addr_compare(prefix.ip, address) != 0)
            continue;
        char prefix_text[IP_PREFIX_TEXT];
        return validate_refuse(v, "Interface %s with address %s & System Ip %s cannot be same", name,
                               ip_prefix_to_str(prefix, prefix_text, sizeof prefix_text), text);
    }
    return interfaces.is_open ? 0 : validate_refuse_agent(v, "Failed to initialise maapi cursor  ");
}

} // namespace

int cfgmgr_validate_system_address(confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return 0;
    validate_t v = validate_of(tctx);
    ip_addr_t address = cfgmgr_config_address(*newval);
    char text[IP_ADDR_TEXT];
    (void)ip_addr_to_str(address, text, sizeof text);
    int result = check_system_unicast(v, address, text);
    return result != 0 ? result : check_system_unique(v, address, text);
}

// ---- secrets

// What cannot be decrypted has no length to judge; its consumer finds out when it wants the clear text.
int cfgmgr_validate_aaa_secret_key(confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return 0;
    std::string_view secret = text_of(*newval);
    std::string clear(secret.size() + 1, '\0');
    int length = confd_decrypt(secret.data(), static_cast<int>(secret.size()), clear.data());
    explicit_bzero(clear.data(), clear.size());
    if (length <= SECRET_MAX)
        return 0;
    return validate_refuse(validate_of(tctx), "secret-key cannot be more than 128 characters");
}

// ---- VPNs and interfaces that others name

int cfgmgr_validate_vpn_exists(confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return 0;
    validate_t v = validate_of(tctx);
    auto vpn_id = static_cast<uint64_t>(cfgmgr_config_number(*newval));
    if (validate_exists(v, "/vpn/vpn-instance{%lu}", vpn_id))
        return 0;
    return validate_refuse(v, "VPN %lu does not exist", vpn_id);
}

int cfgmgr_validate_snmp_source_interface(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return 0;
    validate_t v = validate_of(tctx);
    confd_value_t keys[TARGET_KEYS];
    tip_assert(tconfd_keypath_get_keys(kp, keys, TARGET_KEYS, snmp_target) != nullptr);
    auto vpn_id = static_cast<uint32_t>(cfgmgr_config_number(keys[0]));
    char name[VALIDATE_NAME_SIZE];
    cfgmgr_config_text(*newval, name, sizeof name);
    bool has_address = validate_exists(v, "/vpn/vpn-instance{%u}/interface{%s}", vpn_id, name) &&
                       (validate_exists(v, "/vpn/vpn-instance{%u}/interface{%s}/ip/address", vpn_id, name) ||
                        validate_exists(v, "/vpn/vpn-instance{%u}/interface{%s}/ip/dhcp-oper-addr", vpn_id, name));
    if (has_address)
        return 0;
    return validate_refuse(v, "IP address does not exist for interface %s vpn %u", name, vpn_id);
}

// ---- logging in

int cfgmgr_validate_auth_order(confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *)
{
    validate_t v = validate_of(tctx);
    validate_value_t order;
    if (!validate_get(v, &order, "/system/aaa/auth-order")) {
        return validate_has_failed() ? validate_refuse_agent(v, "Failed to get auth-type  ")
                                     : validate_refuse(v, "Cannot delete auth-type");
    }
    bool has_local = false;
    std::string numbers;
    for (const confd_value_t &method : items_of(order.v)) {
        int64_t number = cfgmgr_config_number(method);
        numbers.append(numbers.empty() ? "" : " ").append(std::to_string(number));
        has_local = has_local || number == system_auth_order_local;
    }
    tip_log("auth-order validation: %s", numbers.c_str());
    return has_local ? 0 : validate_refuse(v, "\"local\" should be present in authentication order");
}

int cfgmgr_validate_aaa_user(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return 0;
    validate_t v = validate_of(tctx);
    char user[PATH_SIZE];
    (void)confd_pp_kpath(user, sizeof user, kp); // names of users are short
    return validate_exists(v, "%s/group", user) ? 0 : validate_refuse(v, "Group not configured for user");
}

// ---- RADIUS servers that access points use

namespace
{

constexpr int NOT_IN_USE = -2;
constexpr size_t REFUSAL_SIZE = 256;

// Whether the access point is on and asks the servers of that tag.
bool uses_tag(const validate_t &v, const char *radio, const char *name, std::string_view tag)
{
    validate_value_t tags;
    if (validate_get_bool(v, true, "/wlan/wlan-instance{%s}/interface{%s}/shutdown", radio, name) ||
        !validate_get(v, &tags, "/wlan/wlan-instance{%s}/interface{%s}/radius-servers", radio, name))
        return false;
    return std::ranges::any_of(items_of(tags.v), [&](const confd_value_t &item) { return text_of(item) == tag; });
}

int refuse_used(const validate_t &v, const char *radio, const char *name)
{
    char text[REFUSAL_SIZE];
    (void)snprintf(text, sizeof text, "WLAN %s interface %s is enabled with the current radius configuration", radio,
                   name); // names are short
    tip_log("%s", text);
    return validate_refuse(v, "%s", text);
}

// -1, refused, when an access point that is on uses the tag; NOT_IN_USE.
int cfgmgr_wlan_vap_interface_validate(const validate_t &v, std::string_view tag)
{
    validate_list_t radios(v, "/wlan/wlan-instance");
    while (radios.next()) {
        const char *radio = CONFD_GET_ENUM_VALUE(&radios.cursor.keys[0]) == 0 ? "5GHz" : "2.4GHz";
        validate_list_t interfaces(v, "/wlan/wlan-instance{%s}/interface", radio);
        while (interfaces.next()) {
            char name[VALIDATE_NAME_SIZE];
            cfgmgr_config_text(interfaces.cursor.keys[0], name, sizeof name);
            if (uses_tag(v, radio, name, tag))
                return refuse_used(v, radio, name);
        }
    }
    return NOT_IN_USE;
}

constexpr char TAG[] = "/corvane-system:system/radius/server{%s}/tag";

using get_tag_t = int(const validate_t &v, const char *server, validate_value_t *tag);

int get_wanted_tag(const validate_t &v, const char *server, validate_value_t *tag)
{
    return maapi_get_elem(v.sock, v.th, &tag->v, TAG, server);
}

int get_present_tag(const validate_t &, const char *server, validate_value_t *tag)
{
    cdb_session running(CDB_RUNNING);
    return running.is_open() ? cdb_get(running.fd(), &tag->v, TAG, server) : running.result();
}

int check_tag(const validate_t &v, const char *server, get_tag_t *get)
{
    validate_value_t tag;
    if (get(v, server, &tag) != CONFD_OK)
        return validate_has_failed() ? validate_refuse_agent(v, "Failed to get tag ") : 0;
    return cfgmgr_wlan_vap_interface_validate(v, text_of(tag.v)) == CONFD_ERR ? CONFD_ERR : 0;
}

} // namespace

// Any change of a server that is in use is refused, the end of it or of its tag included: the access points are to be shut
// down first. Only to people: what loads a whole configuration knows what it does.
int cfgmgr_validate_radius(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *)
{
    confd_value_t key;
    tip_assert(tconfd_keypath_get_keys(kp, &key, 1, system_server) != nullptr);
    ip_addr_t address = cfgmgr_config_address(key);
    if (strcmp(tctx->uinfo->context, "cli") != 0 || !ip_addr_is_v4(address))
        return 0;
    validate_t v = validate_of(tctx);
    char server[IP_ADDR_TEXT];
    (void)ip_addr_to_str(address, server, sizeof server);
    int result = check_tag(v, server, get_wanted_tag);
    return result != 0 ? result : check_tag(v, server, get_present_tag);
}
