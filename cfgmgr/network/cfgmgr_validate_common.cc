// Refusing, reading the transaction, and the rules that several validation points use.

#include "cfgmgr/network/cfgmgr_validate_common.h"

#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_if_name.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "yang/corvane-bridge.h"
#include "yang/corvane-vpn.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace
{

constexpr size_t PATH_SIZE = 512;
constexpr size_t REFUSAL_SIZE = 512;

struct path_text_t {
    char text[PATH_SIZE];
    path_text_t(const char *fmt, va_list args) { (void)vsnprintf(text, sizeof text, fmt, args); } // names are short
};

int vget(const validate_t &v, confd_value_t *out, const char *fmt, va_list args)
{
    confd_free_value(out);
    *out = {};
    int result = maapi_vget_elem(v.sock, v.th, out, fmt, args);
    if (result != CONFD_OK)
        *out = {};
    return result;
}

// The one key of the outermost list of that name.
confd_value_t key_of(const confd_hkeypath_t *kp, uint32_t tag, confd_vtype type)
{
    confd_value_t key{};
    tip_assert(tconfd_keypath_get_keys(kp, &key, 1, tag) != nullptr);
    tip_assert(key.type == type);
    return key;
}

} // namespace

validate_t validate_of(confd_trans_ctx *tctx)
{
    const auto *ctx = static_cast<const tconfd_ctx *>(tctx->dx->d_opaque);
    return { tctx, ctx->maapi_fd, tctx->thandle, static_cast<cfgmgrd_t *>(ctx->reg.app_ctx) };
}

int validate_refuse(const validate_t &v, const char *fmt, ...)
{
    char text[REFUSAL_SIZE];
    va_list args;
    va_start(args, fmt);
    (void)vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    confd_trans_seterr(v.tctx, "%s", text);
    return CONFD_ERR;
}

int validate_refuse_agent(const validate_t &v, const char *what)
{
    return validate_refuse(v, "%sconfd_str %s (%d) %s", what, confd_strerror(confd_errno), confd_errno,
                           confd_lasterr());
}

void validate_log_no_session(int result)
{
    tip_log("Cannot start session with CDB (%d)%s (%d) : %s", result, confd_strerror(confd_errno), confd_errno,
            confd_lasterr());
}

// ---- keys

uint64_t validate_vpn_key(const confd_hkeypath_t *kp)
{
    confd_value_t key = key_of(kp, vpn_vpn_instance, C_UINT64);
    return CONFD_GET_UINT64(&key);
}

void validate_if_key(const confd_hkeypath_t *kp, char (&out)[VALIDATE_NAME_SIZE])
{
    cfgmgr_config_text(key_of(kp, vpn_interface, C_BUF), out, sizeof out);
}

uint32_t validate_bridge_key(const confd_hkeypath_t *kp)
{
    confd_value_t key = key_of(kp, bridge_bridge_instance, C_UINT32);
    return CONFD_GET_UINT32(&key);
}

// ---- reading

bool validate_get(const validate_t &v, validate_value_t *out, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int result = vget(v, &out->v, fmt, args);
    va_end(args);
    return result == CONFD_OK;
}

bool validate_exists(const validate_t &v, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    path_text_t path(fmt, args);
    va_end(args);
    return maapi_exists(v.sock, v.th, "%s", path.text) == 1;
}

bool validate_get_bool(const validate_t &v, bool otherwise, const char *fmt, ...)
{
    validate_value_t value;
    va_list args;
    va_start(args, fmt);
    int result = vget(v, &value.v, fmt, args);
    va_end(args);
    return result == CONFD_OK ? cfgmgr_config_bool(value.v) : otherwise;
}

bool validate_has_failed()
{
    return confd_errno != CONFD_ERR_NOEXISTS;
}

bool validate_bridge_vlan(const validate_t &v, uint32_t bridge_id, uint32_t *out)
{
    validate_value_t vlan;
    *out = 0;
    if (!validate_get(v, &vlan, "/bridge/bridge-instance{%u}/vlan", bridge_id))
        return !validate_has_failed();
    *out = static_cast<uint32_t>(cfgmgr_config_number(vlan.v));
    return true;
}

// What follows reads as it would without: a transaction that cannot be read at all is told of by the reading.
validate_no_defaults_t::validate_no_defaults_t(const validate_t &of) : v(of)
{
    (void)maapi_set_flags(v.sock, v.th, MAAPI_FLAG_NO_DEFAULTS);
}

validate_no_defaults_t::~validate_no_defaults_t()
{
    int error = confd_errno; // of the reading, which a refusal may tell
    (void)maapi_set_flags(v.sock, v.th, 0);
    confd_errno = error;
}

validate_list_t::validate_list_t(const validate_t &v, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    path_text_t path(fmt, args);
    va_end(args);
    is_open = maapi_init_cursor(v.sock, v.th, &cursor, "%s", path.text) == CONFD_OK;
}

validate_list_t::~validate_list_t()
{
    maapi_destroy_cursor(&cursor);
}

bool validate_list_t::next()
{
    cfgmgr_timer_keepalive();
    is_open = is_open && maapi_get_next(&cursor) == CONFD_OK;
    return is_open && cursor.n > 0;
}

// ---- names and leaves

namespace
{

// With defaults hidden.
bool has_own_value(const validate_t &v, const char *path)
{
    validate_value_t value;
    return validate_get(v, &value, "%s", path) && value.v.type != C_DEFAULT;
}

} // namespace

int cfgmgr_validate_if_name_len(const validate_t &v, const char *name)
{
    if (strlen(name) < VALIDATE_NAME_LEN)
        return 0;
    return validate_refuse(v, "Interface %s name len exceeds max allowed - %d", name, VALIDATE_NAME_LEN);
}

int cfgmgr_validate_leaf_set(confd_trans_ctx *tctx, const char *path)
{
    validate_t v = validate_of(tctx);
    validate_no_defaults_t no_defaults(v);
    return has_own_value(v, path) ? 1 : 0;
}

// A key is never configured by itself.
int cfgmgr_validate_leaf_is_default(confd_trans_ctx *tctx, const confd_hkeypath_t *kp, const confd_value_t *)
{
    char path[PATH_SIZE];
    (void)confd_pp_kpath(path, sizeof path, kp); // names are short
    return strstr(path, "if-name") != nullptr || cfgmgr_validate_leaf_set(tctx, path) == 0 ? 1 : 0;
}

int cfgmgr_validate_is_routing_leaf(confd_trans_ctx *tctx, const confd_hkeypath_t *kp, const confd_value_t *)
{
    if (kp->v[0][0].type == C_XMLTAG && CONFD_GET_XMLTAG(&kp->v[0][0]) == vpn_ipv6)
        return 0;
    char path[PATH_SIZE];
    (void)confd_pp_kpath(path, sizeof path, kp);
    return validate_exists(validate_of(tctx), "%s", path) ? 1 : 0;
}

// ---- an interface and the bridges

namespace
{

bool has_port(const char *base)
{
    char kernel_name[VALIDATE_NAME_SIZE];
    chmgr_port_t *port;
    return cfgmgr_if_is_in_port_table(base) ||
           (cfgmgr_if_cli_to_kernel_name(base, kernel_name, sizeof kernel_name, &port) != nullptr && port != nullptr);
}

// An interface of a port that is a member of the bridge.
int refuse_member(const validate_t &v, uint32_t bridge_id, uint32_t vlan, const char *base, uint32_t tag)
{
    if (vlan == tag)
        return validate_refuse(v, "Interface is part of bridge %u", bridge_id);
    bool is_native = tag == 0 && validate_get_bool(v, false, "/bridge/bridge-instance{%u}/interface{%s}/native-vlan",
                                                   bridge_id, base);
    return is_native ? validate_refuse(v, "Interface is part of bridge %u as native-vlan", bridge_id) : 0;
}

int check_bridge(const validate_t &v, uint32_t bridge_id, const char *base, uint32_t tag, const char *cli_name)
{
    uint32_t vlan;
    if (!validate_bridge_vlan(v, bridge_id, &vlan))
        return validate_refuse(v, "Unable to get vlan id from bridge %u to validate interface %s", bridge_id, cli_name);
    if (!validate_exists(v, "/bridge/bridge-instance{%u}/interface{%s}", bridge_id, base))
        return 0;
    return refuse_member(v, bridge_id, vlan, base, tag);
}

} // namespace

int cfgmgr_validate_if_bridge_conflict(confd_trans_ctx *tctx, const char *cli_name)
{
    validate_t v = validate_of(tctx);
    uint32_t tag;
    char base[VALIDATE_NAME_SIZE];
    if (cfgmgr_if_sub_tag(cli_name, &tag) != 0)
        return 0;
    (void)cfgmgr_if_base_name(cli_name, base, sizeof base); // no longer than the name
    if (!has_port(base))
        return validate_refuse(v, "Port doesn't exist.");
    validate_list_t bridges(v, "/bridge/bridge-instance");
    while (bridges.next()) {
        int result = check_bridge(v, CONFD_GET_UINT32(&bridges.cursor.keys[0]), base, tag, cli_name);
        if (result != 0)
            return result;
    }
    return bridges.is_open ? 0 : validate_refuse_agent(v, "Failed to initialise maapi cursor  ");
}

// ---- an interface that shall be no more than a member

namespace
{

struct setting_row_t {
    const char *path;
    const char *word; // for the operator
};

constexpr setting_row_t settings[] = {
    { "ip/address", "address" },
    { "ip/dhcp-client", "dhcp-client" },
    { "ip/dhcp-distance", "dhcp-distance" },
    { "dhcp-helper", "dhcp-helper" },
    { "keepalive/interval", "interval" },
    { "keepalive/retries", "retries" },
    { "tunnel-source", "tunnel-source" },
    { "tunnel-source-interface", "tunnel-source-interface" },
    { "tunnel-destination", "tunnel-destination" },
    { "pppoe-client/ppp-interface", "ppp-interface" },
    { "ppp", "ppp" },
    { "nat", "map-type" },
    { "tunnel-interface", "tunnel-interface" },
    { "flow-control", "flow-control" },
    { "clear-dont-fragment", "clear-dont-fragment" },
    { "pmtu", "pmtu" },
    { "mtu", "mtu" },
    { "static-ingress-qos", "static-ingress-qos" },
    { "tcp-mss-adjust", "tcp-mss-adjust" },
    { "wpnt-extension", "wpnt-extension" },
    { "mac-address", "mac-address" },
    { "speed", "speed" },
    { "duplex", "duplex" },
    { "profile", "profile" },
    { "preference", "preference" },
    { "autonegotiate", "autonegotiate" },
    { "arp-timeout", "arp-timeout" },
    { "shaping-rate", "shaping-rate" },
    { "qos-map", "qos-map" },
    { "rewrite-rule/rule-name", "rewrite-rule" },
    { "ipv6/address", "ipv6 address" },
    { "ipv6/dhcp-client", "ipv6 dhcp-client" },
    { "ipv6/dhcp-distance", "ipv6 dhcp-distance" },
    { "ipv6/dhcp-rapid-commit", "ipv6 dhcp-rapid-commit" },
};

} // namespace

int cfgmgr_validate_if_not_configured(confd_trans_ctx *tctx, const char *cli_name, uint64_t vpn_id)
{
    validate_t v = validate_of(tctx);
    validate_no_defaults_t no_defaults(v);
    for (const setting_row_t &row : settings) {
        char path[PATH_SIZE];
        (void)snprintf(path, sizeof path, "/vpn/vpn-instance{%" PRIu64 "}/interface{%s}/%s", vpn_id, cli_name,
                       row.path); // names are short
        if (has_own_value(v, path))
            return validate_refuse(v, "Interface is configured with %s in VPN %" PRIu64, row.word, vpn_id);
    }
    return 0;
}

// ---- source interfaces of servers

namespace
{

constexpr int TARGET_KEYS = 3; // of a trap target

// Reads a leaf of the entry that a walk stands at.
int get_of_entry(const validate_t &v, const validate_list_t &at, const char *list, int num_keys, const char *leaf,
                 validate_value_t *out)
{
    const confd_value_t *keys = at.cursor.keys;
    if (num_keys == TARGET_KEYS)
        return maapi_get_elem(v.sock, v.th, &out->v, "%s{%x %x %x}/%s", list, &keys[0], &keys[1], &keys[2], leaf);
    return maapi_get_elem(v.sock, v.th, &out->v, "%s{%x}/%s", list, &keys[0], leaf);
}

int check_server(const validate_t &v, const validate_list_t &at, const char *list, int num_keys)
{
    validate_value_t vpn;
    validate_value_t source;
    if (get_of_entry(v, at, list, num_keys, num_keys == TARGET_KEYS ? "vpn-id" : "vpn", &vpn) != CONFD_OK)
        return validate_refuse(v, "Unable to validate source interface config for %s", list);
    if (get_of_entry(v, at, list, num_keys, "source-interface", &source) != CONFD_OK)
        return !validate_has_failed() ? 0
                                      : validate_refuse(v, "Unable to validate source interface config for %s", list);
    char name[VALIDATE_NAME_SIZE];
    cfgmgr_config_text(source.v, name, sizeof name);
    int64_t vpn_id = cfgmgr_config_number(vpn.v);
    if (name[0] == '\0' || validate_exists(v, "/vpn/vpn-instance{%" PRId64 "}/interface{%s}", vpn_id, name))
        return 0;
    return validate_refuse(v, "Invalid source interface %s config for %s for vpn %" PRId64, name, list, vpn_id);
}

} // namespace

int cfgmgr_validate_ext_auth_src_intf(confd_trans_ctx *tctx, const char *list, int num_keys)
{
    validate_t v = validate_of(tctx);
    validate_list_t servers(v, "%s", list);
    while (servers.next()) {
        int result = check_server(v, servers, list, num_keys);
        if (result != 0)
            return result;
    }
    bool is_absent = confd_errno == CONFD_ERR_BADPATH || confd_errno == CONFD_ERR_NOEXISTS; // from the model
    if (servers.is_open || is_absent)
        return 0;
    return validate_refuse(v, "Unable to validate source interface config for %s", list);
}
