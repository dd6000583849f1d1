#include "tests/component/conformance/points.h"

#include "tests/harness/temp_dir.h"

#include <algorithm>

namespace
{

constexpr const char *const validation_points[] = {
    "sysIfAddr",
    "bridgeValidate",
    "bridgeVlanValidate",
    "bridgeIfValidate",
    "bridgeIfMtuValidate",
    "bridgeIfNativeVlanValidate",
    "aaa-secret-key",
    "vpnValidate",
    "vpnServiceIfValidate",
    "vpnIf",
    "vpnIfMacValidate",
    "vpnIfMtuValidate",
    "vpnIfTcpMssValidate",
    "vpnIfAddrValidate",
    "vpnIfAddrListValidate",
    "vpnIfBind",
    "vpnIfWpntExt",
    "vpnIfWpntLR",
    "vpnIfShapingRate",
    "vpnIfAclPolicerRate",
    "vpnIfPolicerRate",
    "aspath",
    "aspathprepend",
    "aspathexclude",
    "bgpNeighborValidate",
    "ospfInstanceValidate",
    "vpnArpIpValidate",
    "vpnArpMacValidate",
    "validate_vpn_id",
    "validate_vpn_id",
    "validate_source_interface",
    "validate_auth_order",
    "aaa_user_validate",
    "radiusValidate",
    "vpnIfBridgeExclusionValidate",
    "vpnIfBridgeExclusionValidateDefaults",
    "vpnTunnelSourceDestinationValidate",
    "vpnIfDot1xExclusionValidate",
    "validateSrcIpNatpoolIP",
    "validateNatpoolOverloadDirection",
    "slxExitIfValidate",
    "vpnIfDhcpRapidCommitValidate",
    "wwanIfSimProfileValidate",
    "wwanIfTechnologyValidate",
    "wwanIfPreferenceValidate",
};

constexpr const char *const actions[] = {
    "cfgmgr_clear_notification",
    "cfgmgr_clear_bgp_all",
    "cfgmgr_clear_bgp_neighbor",
    "cfgmgr_clear_ospf_all",
    "cfgmgr_clear_ospf_database",
    "cfgmgr_debug_bgp_event",
    "cfgmgr_debug_bgp_disable_event",
    "cfgmgr_debug_bgp_ipc",
    "cfgmgr_debug_bgp_disable_ipc",
    "cfgmgr_debug_bgp_fsm",
    "cfgmgr_debug_bgp_disable_fsm",
    "cfgmgr_debug_bgp_packet",
    "cfgmgr_debug_bgp_disable_packet",
    "cfgmgr_debug_bgp_disable_all",
    "cfgmgr_debug_rtm_event",
    "cfgmgr_debug_rtm_disable_event",
    "cfgmgr_debug_rtm_ipc",
    "cfgmgr_debug_rtm_disable_ipc",
    "cfgmgr_debug_rtm_nht",
    "cfgmgr_debug_rtm_disable_nht",
    "cfgmgr_debug_rtm_rib",
    "cfgmgr_debug_rtm_disable_rib",
    "cfgmgr_debug_rtm_packet",
    "cfgmgr_debug_rtm_disable_packet",
    "cfgmgr_debug_rtm_disable_all",
    "cfgmgr_debug_ospf_event",
    "cfgmgr_debug_ospf_disable_event",
    "cfgmgr_debug_ospf_ism",
    "cfgmgr_debug_ospf_disable_ism",
    "cfgmgr_debug_ospf_nsm",
    "cfgmgr_debug_ospf_disable_nsm",
    "cfgmgr_debug_ospf_ipc",
    "cfgmgr_debug_ospf_disable_ipc",
    "cfgmgr_debug_ospf_nssa",
    "cfgmgr_debug_ospf_disable_nssa",
    "cfgmgr_debug_ospf_lsa",
    "cfgmgr_debug_ospf_disable_lsa",
    "cfgmgr_debug_ospf_packet",
    "cfgmgr_debug_ospf_disable_packet",
    "cfgmgr_debug_ospf_disable_all",
    "cfgmgr_debug_event",
    "cfgmgr_debug_disable_event",
    "cfgmgr_debug_pppoe",
    "cfgmgr_debug_disable_pppoe",
    "cfgmgr_debug_radvd",
    "cfgmgr_debug_disable_radvd",
    "cfgmgr_debug_disable_all",
    "cfgmgr_debug_netconf_enable_trace",
    "cfgmgr_debug_netconf_disable_trace",
    "cfgmgr_debug_confd_enable_trace",
    "cfgmgr_debug_confd_disable_trace",
    "cfgmgr_debug_confd_disable_all",
    "cfgmgr_debug_snmp_enable_trace",
    "cfgmgr_debug_snmp_disable_trace",
    "cfgmgr_debug_set_promiscuous",
    "cfgmgr_debug_login_disable",
    "cfgmgr_debug_radius",
    "cfgmgr_debug_radius_disable",
    "cfgmgr_debug_tacacs",
    "cfgmgr_debug_tacacs_disable",
    "cfgmgr_tdebug_no_ramdisk",
    "clear_arp",
    "clear_ifstats",
    "clear_nd6",
};

constexpr const char *const commands[] = {
    "cfgmgr_dump_all", "cfgmgr_dump_vpn", "cfgmgr_dump_if", "cfgmgr_dump_aaa", "cfgmgr_if_reset",
};

constexpr const char *const completions[] = {
    "bind_if_complete",
    "service-interface-complete",
    "gre-route-interface-complete",
    "slx-exit-interface-complete",
};

constexpr const char *const shows[] = {
    "ospf-process",
    "ospf-area",
    "ospf-neighbor",
    "ospf-interface",
    "ospf-lsa-db",
    "ospf-lsa-ext-db",
    "ospf-router-link",
    "ospf-network-link",
    "ospf-route",
    "ospf-route-info",
    "ospf-database-summary",
    "rtm-if",
    "if-mib-interface-stats",
    "rtm-if-addr",
    "rtm-if-addrv6",
    "rtm-route",
    "rtm-longer-route",
    "rtm-best-route",
    "rtm-route-summary",
    "bgp-neighbor",
    "bgp-summary",
    "bgp-neighbor-summary",
    "bgp-routes",
    "bgp-best-route",
    "bgp-routes-adv-peer",
    "bgp-best-routes-adv-peer",
    "bgp-routes-info",
    "bgp-best-routes-info",
    "bgp-neighbor-afi",
    "if-mib-interfaces",
    "crash-list",
    "ntp-peer",
    "ntp-associations",
    "logging-info",
    "arp-table",
    "nd6-table",
    "pppoe-session-information",
    "ppp-interface-information",
    "queue-stats",
};

constexpr const char *const wwan[] = {
    "wwan-radio", "wwan-modem", "wwan-network", "wwan-sessions", "wwan-status", "wwan-profiles",
};

constexpr const char *const wlan[] = {
    "wlan-clients",
    "wlan-interfaces",
    "wlan-radios",
    "wlan-radius",
};

constexpr const char *const general[] = {
    "hw-table",
    "hw-alarms",
    "hw-environment",
    "temperature-thresholds",
    "control-connection-info",
    "orchestrator-connections",
    "orchestrator-history",
    "orchestrator-statistics",
    "orchestrator-local-properties",
    "orchestrator-valid-lodests",
    "orchestrator-valid-krests",
    "orchestrator-summary-info",
    "orchestrator-valid-quorvix-uuid",
    "tunnel-local-sa",
    "tunnel-inbound-connections",
    "tunnel-outbound-connections",
    "tunnel-forwarding-statistics",
    "tunnel-gre-keepalives",
    "security-info",
    "list-ztp-entries",
    "control-affinity-config",
    "control-affinity-status",
    "bfd-sessions",
    "bfd-history",
    "bfd-summary",
    "wpnt-summary",
    "data-policy-filters",
    "data-policy-vpnlist",
    "data-policy-counters",
    "data-policy-policers",
    "app-route-policy-filters",
    "app-route-policy-vpnlist",
    "app-route-policy-counters",
    "access-list-names",
    "access-list-counters",
    "access-policy-counter-list",
    "policer-policy-name",
    "access-policy-policer-list",
    "qos-scheduler-info",
    "qos-scheduler-map-association",
    "qos-map-info",
    "qos-map-interface-associations",
    "access-policy-list-for-interface",
    "access-policy-interface-list",
    "rewrite-interface-info",
    "rewrite-interface-list",
    "show-policers",
    "app-route-stats",
    "app-route-window-stats",
    "app-route-sla-class",
    "system-statistics",
    "system-statistics-diff",
    "queue-stats",
    "cflowd-flow",
    "cflowd-collector",
    "cflowd-statistics",
    "cflowd-policy-v4",
    "cflowd-flow-count",
    "log-flow",
    "log-flow-count",
    "tcpopt-active-flows",
    "tcpopt-expired-flows",
    "dhcp-server-entry",
    "dhcp-server-bindings",
    "mcast-fib-summary",
    "mcast-oil-db",
    "mcast-oil-list",
    "mcast-stats",
    "fib-route",
    "nat-interface",
    "nat-ifstats",
    "nat-filter",
    "vrrp-vpn",
    "vrrp-if",
    "vrrp-group",
    "pppoe-session-information",
    "pppoe-statistics",
    "ppp-interface-information",
    "hw-sfp-detail",
    "hw-sfp-diagnostic",
    "hw-sfp-diagnostic-measurement-alarm",
    "hw-sfp-diagnostic-measurement-value",
    "hw-sfp-raw-a0",
    "hw-sfp-raw-a2",
    "dpi-apps",
    "dpi-flows",
    "dpi-summary",
    "ospf-show",
    "ospf-neighbor",
    "ospf-interface",
    "ospf-lsa-db",
    "ospf-router-link",
    "ospf-network-link",
    "ospf-lsa-ext-db",
    "ospf-route",
    "ospf-route-info",
    "ospf-database-summary",
    "ospf-process",
    "ospf-area",
    "bgp-summary",
    "bgp-neighbor-summary",
    "bgp-routes",
    "bgp-routes-adv-peer",
    "bgp-routes-info",
    "bgp-best-route",
    "bgp-best-routes-adv-peer",
    "bgp-best-routes-info",
    "bgp-neighbor",
    "bgp-neighbor-afi",
    "multicast-rpf",
    "multicast-rpf-nexthops",
    "multicast-topo",
    "multicast-topology-oil",
    "multicast-replicator",
    "multicast-tunnel",
    "pim-interface",
    "pim-rp-mapping",
    "pim-neighbor",
    "pim-statistics",
    "igmp-summary",
    "igmp-interface",
    "igmp-groups",
    "igmp-statistics",
    "bridge-table",
    "bridge-interface-table",
    "bridge-mac-table",
    "slx-apps",
    "slx-local-exits",
    "slx-gateway-exits",
    "dot1x-interfaces",
    "dot1x-clients",
    "dot1x-radius",
};

constexpr const char *const overlay[] = {
    "ovc-show-summary",
    "ovc-show-peer",
    "ovc-show-routes-family",
    "ovc-show-routes-entries",
    "ovc-show-routes-rib-ins",
    "ovc-show-routes-rib-in-attributes",
    "ovc-show-routes-rib-outs",
    "ovc-show-routes-rib-out-paths",
    "ovc-show-routes-rib-out-attributes",
    "ovc-show-best-route-family",
    "ovc-show-best-route-entries",
    "ovc-show-best-route-rib-ins",
    "ovc-show-best-route-rib-in-attributes",
    "ovc-show-best-route-rib-outs",
    "ovc-show-best-route-rib-out-paths",
    "ovc-show-best-route-rib-out-attributes",
    "wpt-show-wpnts",
    "wpt-show-paths",
    "wpt-show-paths-links",
    "ovc-show-wpnts-family",
    "ovc-show-wpnts-entries",
    "ovc-show-wpnts-rib-ins",
    "ovc-show-wpnts-rib-in-attributes",
    "ovc-show-wpnts-rib-outs",
    "ovc-show-wpnts-rib-out-attributes",
    "ovc-show-service-entries",
    "ovc-show-service-rib-ins",
    "ovc-show-service-rib-outs",
    "ovc-show-multicast-ad-family",
    "ovc-show-multicast-ad-entries",
    "ovc-show-multicast-ad-rib-ins",
    "ovc-show-multicast-ad-rib-outs",
    "ovc-show-multicast-routes-family",
    "ovc-show-multicast-routes-entries",
    "ovc-show-multicast-routes-rib-ins",
    "ovc-show-multicast-routes-rib-outs",
    "ovc-show-skylane-entries",
    "ovc-show-skylane-rib-ins",
    "ovc-show-skylane-rib-outs",
};

constexpr hook_point_t hooks[] = {
    { "post-login-message", HOOK_SET | HOOK_REMOVE },
    { "system-host-name", HOOK_SET },
    { "set-dhcp-rapid-commit", HOOK_SET },
    { "system-logs-audit", HOOK_SET },
    { "system-logs-netconf", HOOK_SET },
    { "manage-user-groups", HOOK_CREATE | HOOK_REMOVE },
    { "manage-group-tasks", HOOK_SET | HOOK_CREATE | HOOK_REMOVE },
    { "manage-users", HOOK_SET | HOOK_REMOVE },
    { "snmp-shutdown", HOOK_SET },
    { "manage-snmp-view", HOOK_REMOVE },
    { "manage-snmp-view-oid", HOOK_CREATE | HOOK_REMOVE },
    { "manage-snmp-view-oid-type", HOOK_CREATE | HOOK_REMOVE },
    { "manage-snmp-target", HOOK_SET | HOOK_CREATE | HOOK_REMOVE },
    { "manage-snmp-trap-group", HOOK_SET | HOOK_CREATE | HOOK_REMOVE },
    { "manage-snmp-community", HOOK_SET | HOOK_CREATE | HOOK_REMOVE },
    { "manage-snmp-group", HOOK_SET | HOOK_CREATE | HOOK_REMOVE },
    { "manage-snmp-user", HOOK_SET | HOOK_CREATE | HOOK_REMOVE },
    { "snmp-contact", HOOK_SET | HOOK_REMOVE },
    { "snmp-name", HOOK_SET | HOOK_REMOVE },
    { "snmp-location", HOOK_SET | HOOK_REMOVE },
};

// ---- the model

std::string numbered_leaf(const char *prefix, size_t number, const char *statement, const std::string &name)
{
    return std::string("leaf ") + prefix + std::to_string(number) + " { type string; cx:" + statement + " \"" + name +
           "\"; }\n";
}

std::string list_of(const std::string &name, const char *key_type, const char *leaf, const char *statement)
{
    const std::string key = leaf == std::string("text") ? "id" : "name";
    return "list " + name + " { key " + key + "; cx:" + statement + " \"" + name + "\"; leaf " + key + " { type " +
           key_type + "; } leaf " + leaf + " { type string; } }\n";
}

std::string hook_node(const hook_point_t &hook)
{
    if (hook.ops & HOOK_CREATE || hook.ops == HOOK_REMOVE)
        return list_of(hook.name, "string", "value", "transaction-hook");
    return std::string("leaf ") + hook.name + " { type string; cx:transaction-hook \"" + hook.name + "\"; }\n";
}

std::string rpc_of(const std::string &name)
{
    return "rpc " + name + " { cx:actionpoint \"" + name +
           "\"; input { leaf word { type string; } } output { leaf answer { type string; } } }\n";
}

std::string rpcs_of(std::span<const char *const> names)
{
    std::string text;
    for (const char *name : names)
        text += rpc_of(name);
    return text;
}

} // namespace

const std::span<const char *const> VALIDATION_POINTS = validation_points;
const std::span<const char *const> ACTION_POINTS = actions;
const std::span<const char *const> COMMAND_POINTS = commands;
const std::span<const char *const> COMPLETION_POINTS = completions;
const std::span<const hook_point_t> HOOK_POINTS = hooks;

names_t show_points()
{
    names_t names;
    for (std::span<const char *const> table :
         { std::span<const char *const>(shows), std::span<const char *const>(wwan), std::span<const char *const>(wlan),
           std::span<const char *const>(general), std::span<const char *const>(overlay) })
        names.insert(names.end(), table.begin(), table.end());
    return names;
}

names_t distinct(names_t names)
{
    names_t seen;
    for (std::string &name : names)
        if (std::find(seen.begin(), seen.end(), name) == seen.end())
            seen.push_back(std::move(name));
    return seen;
}

std::string points_module()
{
    std::string text = "module conform-points {\nyang-version 1.1;\nnamespace \"urn:test:conform-points\";\n"
                       "prefix points;\nimport corvane-extension { prefix cx; }\ncontainer points {\n";
    for (size_t i = 0; i < VALIDATION_POINTS.size(); i++)
        text += numbered_leaf("valid-", i, "validate", VALIDATION_POINTS[i]);
    for (size_t i = 0; i < COMPLETION_POINTS.size(); i++)
        text += numbered_leaf("complete-", i, "completion", COMPLETION_POINTS[i]);
    text += "container hooks {\n";
    for (const hook_point_t &hook : HOOK_POINTS)
        text += hook_node(hook);
    text += "}\ncontainer shows {\nconfig false;\n";
    for (const std::string &name : distinct(show_points()))
        text += list_of(name, "uint32", "text", "callpoint");
    return text + "}\n}\n" + rpcs_of(ACTION_POINTS) + rpcs_of(COMMAND_POINTS) + "}\n";
}

const std::string &model_dir()
{
    static const temp_dir dir;
    static const std::string path = [] {
        for (const auto &file : std::filesystem::directory_iterator(TEST_YANG_DIR))
            std::filesystem::copy_file(file.path(), dir.path(file.path().filename().string()));
        std::filesystem::copy_file(EXTENSION_YANG, dir.path("corvane-extension.yang"));
        dir.write("conform-points.yang", points_module());
        return dir.path();
    }();
    return path;
}
