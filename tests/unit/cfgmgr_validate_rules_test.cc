// What validators of bridges, VPNs, packet sizes and the system say to what a commit of an operator seldom brings: a
// daemon whose tables differ from the transaction, an agent that does not answer, and each of the settings of a port.
#include "cfgmgr/network/cfgmgr_validate.h"
#include "cfgmgr/network/cfgmgr_validate_common.h"
#include "tests/unit/cfgmgr_config_if_env.h"

#include <deque>

namespace
{

constexpr int REFUSED = -1;
constexpr char CURSOR[] = "Failed to initialise maapi cursor  confd_str scripted (18) as scripted";

class cfgmgr_validate_rules : public config_if_env
{
protected:
    cfgmgr_validate_rules()
    {
        dx.d_opaque = &ctx;
        tctx.dx = &dx;
        tctx.uinfo = &uinfo;
        strcpy(uinfo.context, "cli");
        daemon.tconfd_ctx_p = &ctx;
        exists("/vpn/vpn-instance{0}");
        exists("/vpn/vpn-instance{512}");
        exists("/vpn/vpn-instance{512}/interface{eth0}");
        agent().entries["/vpn/vpn-instance"] = { { u64(0) }, { u64(512) } };
    }

    confd_value_t text(const std::string &value) { return buf(texts.emplace_back(value).c_str()); }
    void exists(const std::string &path) { agent().leaves[path] = nothing(); }
    void add_member(uint32_t bridge_id, const std::string &name, uint16_t vlan)
    {
        std::string bridge = "/bridge/bridge-instance{" + std::to_string(bridge_id) + "}";
        agent().entries["/bridge/bridge-instance"].push_back({ u32(bridge_id) });
        agent().entries[bridge + "/interface"].push_back({ text(name) });
        exists(bridge + "/interface{" + name + "}");
        exists("/vpn/vpn-instance{0}/interface{" + name + "}");
        if (vlan != 0)
            agent().leaves[bridge + "/vlan"] = number16(vlan);
    }
    int ask(cfgmgr_validator_t *validate, const std::vector<fake_step_t> &steps, confd_value_t value)
    {
        confd_hkeypath_t path = keypath(steps);
        agent().calls.clear();
        return validate(&tctx, &path, &value);
    }
    int ask_vlan(uint32_t bridge_id)
    {
        return ask(cfgmgr_validate_bridge_vlan,
                   { "bridge", "bridge-instance", fake_step_t({ u32(bridge_id) }), "vlan" }, number16(12));
    }
    int ask_member(uint32_t bridge_id, const char *name)
    {
        return ask(cfgmgr_validate_bridge_if,
                   { "bridge", "bridge-instance", fake_step_t({ u32(bridge_id) }), "interface",
                     fake_step_t({ text(name) }), "if-name" },
                   text(name));
    }
    int ask_mtu(uint64_t vpn_id, const char *name, const confd_value_t &mtu)
    {
        return ask(
            cfgmgr_validate_vpn_if_mtu,
            { "vpn", "vpn-instance", fake_step_t({ u64(vpn_id) }), "interface", fake_step_t({ text(name) }), "mtu" },
            mtu);
    }
    int ask_vpn() { return ask(cfgmgr_validate_vpn, { "vpn", "vpn-instance", fake_step_t({ u64(0) }) }, nothing()); }
    // What the operator is told, "" for nothing.
    std::string refusal()
    {
        std::vector<std::string> calls = agent().calls_of("confd_trans_seterr");
        return calls.empty() ? "" : calls.front().substr(strlen("confd_trans_seterr "));
    }

    confd_daemon_ctx dx{};
    confd_user_info uinfo{};
    confd_trans_ctx tctx{};
    std::deque<std::string> texts; // of values
};

// ---- the daemon's tables

TEST_F(cfgmgr_validate_rules, a_vlan_may_change_while_the_daemon_or_the_transaction_has_no_member)
{
    ASSERT_EQ(cfgmgr_bridge_find_or_create(&daemon, 7), 0);
    add_member(7, "ge0/1", 5);
    EXPECT_EQ(ask_vlan(7), 0); // a member without a record, such as one of a module that is not plugged in
    EXPECT_EQ(ask_vlan(8), 0); // no such bridge yet
    cfgmgr_if_t *if_p = nullptr;
    ASSERT_EQ(cfgmgr_if_find_or_create(&daemon, 7, "ge0_1", &if_p, IF_TYPE_BRIDGE_PORT), 0);
    EXPECT_EQ(ask_vlan(7), REFUSED);
    EXPECT_EQ(refusal(), "Cannot change the vlan id of bridge 7 when there are interfaces present.");
    agent().entries.clear();
    EXPECT_EQ(ask_vlan(7), 0); // its members go with the same commit
}

// ---- settings of a port

TEST_F(cfgmgr_validate_rules, each_setting_of_a_port_keeps_it_out_of_a_bridge_unless_it_is_the_default)
{
    static constexpr struct {
        const char *path;
        const char *word;
    } rows[] = {
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
    add_member(1, "ge0/1", 0);
    for (const auto &row : rows) {
        std::string path = std::string("/vpn/vpn-instance{0}/interface{ge0/1}/") + row.path;
        agent().leaves[path] = boolean(true); // whatever its value
        EXPECT_EQ(ask_member(1, "ge0/1"), REFUSED) << row.path;
        EXPECT_EQ(refusal(), std::string("Interface is configured with ") + row.word + " in VPN 0");
        agent().defaults.insert(path);
        EXPECT_EQ(ask_member(1, "ge0/1"), 0) << row.path << " by default: " << refusal();
        agent().leaves.erase(path);
    }
    EXPECT_EQ(agent().trans_flags, 0); // defaults are seen again
}

// ---- an agent that does not answer

TEST_F(cfgmgr_validate_rules, a_transaction_that_cannot_be_read_is_refused)
{
    struct row_t {
        const char *failing; // as the scripted agent names it
        cfgmgr_validator_t *validate;
        const char *refusal;
    };
    static constexpr row_t rows[] = {
        { "walk /bridge/bridge-instance", cfgmgr_validate_bridge, CURSOR },
        { "walk /bridge/bridge-instance", cfgmgr_validate_bridge_if, CURSOR },
        { "get /bridge/bridge-instance{1}/vlan", cfgmgr_validate_bridge_if,
          "Unable to get bridge 1: vlan_id to validate bridge interface ge0/1" },
        { "get /bridge/bridge-instance{2}/vlan", cfgmgr_validate_bridge_if,
          "Unable to get vlan id from bridge 2 to validate interface ge0/1" },
        { "get /bridge/bridge-instance{1}/vlan", cfgmgr_validate_bridge_if_native_vlan,
          "Unable to get bridge 1: vlan_id to validate native vlan configuration on ge0/1" },
        { "walk /vpn/vpn-instance", cfgmgr_validate_bridge_if, CURSOR },
    };
    add_member(1, "ge0/1", 0);
    add_member(2, "ge0/1", 9);
    for (const row_t &row : rows) {
        agent().results[row.failing] = CONFD_ERR;
        EXPECT_EQ(ask(row.validate,
                      { "bridge", "bridge-instance", fake_step_t({ u32(1) }), "interface",
                        fake_step_t({ text("ge0/1") }), "native-vlan" },
                      boolean(true)),
                  REFUSED)
            << row.failing;
        EXPECT_EQ(refusal(), row.refusal);
        agent().results.clear();
    }
}

TEST_F(cfgmgr_validate_rules, vpns_that_cannot_be_read_are_refused)
{
    EXPECT_EQ(ask_vpn(), 0) << refusal();
    for (const char *list : { "/vpn/vpn-instance", "/vpn/vpn-instance{0}/interface", "/bridge/bridge-instance" }) {
        agent().results[std::string("walk ") + list] = CONFD_ERR;
        EXPECT_EQ(ask_vpn(), REFUSED) << list;
        EXPECT_EQ(refusal(), CURSOR);
        agent().results.clear();
    }
    agent().results["walk /system/radius/server"] = CONFD_ERR;
    EXPECT_EQ(ask_vpn(), REFUSED);
    EXPECT_EQ(refusal(), "Unable to validate source interface config for /system/radius/server");
    agent().error = CONFD_ERR_BADPATH; // a model without the list
    EXPECT_EQ(ask_vpn(), 0);
}

TEST_F(cfgmgr_validate_rules, sizes_that_cannot_be_read_are_refused)
{
    agent().leaves["/vpn/vpn-instance{0}/interface{ge0/1}/mtu"] = number16(1600);
    agent().entries["/vpn/vpn-instance{512}/interface"] = { { text("ge0/1.7") } };
    EXPECT_EQ(ask_mtu(0, "ge0/1", number16(1600)), REFUSED);
    EXPECT_EQ(refusal(), "Cannot get sub interface mtu confd_str scripted (1) as scripted");
    agent().results["walk /vpn/vpn-instance{0}/interface"] = CONFD_ERR;
    EXPECT_EQ(ask_mtu(0, "ge0/1", number16(1600)), REFUSED);
    EXPECT_EQ(refusal(), "Failed to initialise maapi cursor for interface confd_str scripted (18) as scripted");
}

TEST_F(cfgmgr_validate_rules, an_order_of_logins_that_cannot_be_read_is_refused)
{
    std::vector<fake_step_t> path = { "system", "aaa", "auth-order" };
    EXPECT_EQ(ask(cfgmgr_validate_auth_order, path, nothing()), REFUSED);
    EXPECT_EQ(refusal(), "Cannot delete auth-type");
    agent().results["get /system/aaa/auth-order"] = CONFD_ERR;
    EXPECT_EQ(ask(cfgmgr_validate_auth_order, path, nothing()), REFUSED);
    EXPECT_EQ(refusal(), "Failed to get auth-type  confd_str scripted (18) as scripted");
}

TEST_F(cfgmgr_validate_rules, only_people_are_kept_from_a_server_that_is_in_use)
{
    std::vector<fake_step_t> path = { "system", "radius", "server", fake_step_t({ ipv4("10.1.1.1") }) };
    std::string tag = "/corvane-system:system/radius/server{10.1.1.1}/tag";
    std::string access_point = "/wlan/wlan-instance{5GHz}/interface{vap0}";
    confd_value_t item = text("guests");
    confd_value_t tags{};
    CONFD_SET_LIST(&tags, &item, 1);
    agent().leaves[tag] = item;
    agent().entries["/wlan/wlan-instance"] = { { choice(0) } };
    agent().entries["/wlan/wlan-instance{5GHz}/interface"] = { { text("vap0") } };
    agent().leaves[access_point + "/shutdown"] = boolean(false);
    agent().leaves[access_point + "/radius-servers"] = tags;
    confd_value_t changed{};
    CONFD_SET_XMLTAG(&changed, 0, 0);
    EXPECT_EQ(ask(cfgmgr_validate_radius, path, changed), REFUSED);
    EXPECT_EQ(refusal(), "WLAN 5GHz interface vap0 is enabled with the current radius configuration");
    agent().results["get " + tag] = CONFD_ERR;
    EXPECT_EQ(ask(cfgmgr_validate_radius, path, changed), REFUSED);
    EXPECT_EQ(refusal(), "Failed to get tag confd_str scripted (18) as scripted");
    agent().results.clear();
    strcpy(uinfo.context, "netconf");
    EXPECT_EQ(ask(cfgmgr_validate_radius, path, changed), 0);
}

// ---- personalities

TEST_F(cfgmgr_validate_rules, what_a_device_may_have_depends_on_what_it_is)
{
    agent().entries["/vpn/vpn-instance"].push_back({ u64(7) });
    for (uint32_t personality = PERSONALITY_KREST; personality <= PERSONALITY_PENDRY; personality++) {
        daemon.personality = personality;
        bool is_edge = personality == PERSONALITY_KREST;
        EXPECT_EQ(ask_vpn(), is_edge ? 0 : REFUSED) << personality;
        EXPECT_EQ(refusal(), is_edge ? "" : "Only vpn 0 or 512 can be configured");
    }
    agent().leaves.erase("/vpn/vpn-instance{512}/interface{eth0}");
    agent().entries["/vpn/vpn-instance"].pop_back();
    struct row_t {
        uint32_t personality;
        uint8_t mgmt_vpn;
        const char *refusal;
    };
    static constexpr char GONE[] = "Cannot delete eth0 interface from management vpn (512)";
    static constexpr row_t rows[] = {
        { PERSONALITY_KREST, 1, GONE }, { PERSONALITY_TARN, 1, GONE }, { PERSONALITY_KREST, 0, "" },
        { PERSONALITY_TARN, 0, "" },    { PERSONALITY_LODEST, 1, "" },
    };
    for (const row_t &row : rows) {
        daemon.personality = row.personality;
        daemon.mgmt_vpn = row.mgmt_vpn;
        (void)ask_vpn();
        EXPECT_EQ(refusal(), row.refusal) << row.personality;
    }
}

TEST_F(cfgmgr_validate_rules, bridges_have_any_number_where_there_are_no_ports_to_join)
{
    add_member(64, "ge0/1", 0);
    for (uint32_t personality = PERSONALITY_KREST; personality <= PERSONALITY_PENDRY; personality++) {
        daemon.personality = personality;
        bool has_ports = personality <= PERSONALITY_TARN;
        EXPECT_EQ(ask(cfgmgr_validate_bridge, { "bridge", "bridge-instance", fake_step_t({ u32(64) }) }, nothing()),
                  has_ports ? REFUSED : 0)
            << personality;
    }
}

} // namespace
