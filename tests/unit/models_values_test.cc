// The data models' promise that no configured value can break out of a command line or a generated file, checked on
// every text leaf of every model, and the values that the shared types take.
#include "agent/cli/schema.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace
{

const schema_t &models()
{
    static schema_t schema;
    cli_error_t error;
    if (!schema.ctx) {
        EXPECT_TRUE(schema_load(MODELS_DIR, MODELS_LIBRARY_DIR, schema, error)) << error.text;
    }
    return schema;
}

// One value of each shape that text leaves take. A leaf that takes none of them needs a row of its own here.
constexpr const char *SAMPLES[] = {
    "abc",          "a1",        "ge0/0", "192.0.2.1",         "192.0.2.1/24", "2001:db8::1",  "2001:db8::1/64",
    "host.example", "0",         "true",  "00:11:22:33:44:55", "ppp1",         "192.0.2.0/24", "64086.59904",
    "65000:1",      "rt 65000:1"
};

constexpr std::string_view DANGEROUS = "`$;|&<>()'\"\\*?[]{}!#~^\n\r\t";

struct leaf_t {
    std::string name;
    const lysc_node *node;
};

void collect_leaves(const lysc_node *parent, const std::string &above, std::vector<leaf_t> &leaves)
{
    for (const lysc_node *node : schema_children(models(), parent)) {
        std::string name = above + "/" + node->name;
        if (schema_is_leaf(node) || schema_is_leaf_list(node))
            leaves.push_back({ name, node });
        else
            collect_leaves(node, name, leaves);
    }
}

// Numbers, enumerations and the like are bounded by their type.
bool takes_text(const lysc_node *leaf)
{
    LY_DATA_TYPE type = reinterpret_cast<const lysc_node_leaf *>(leaf)->type->basetype;
    return type == LY_TYPE_STRING || type == LY_TYPE_UNION || type == LY_TYPE_LEAFREF;
}

// Settings of the agent itself, which runs no commands, and texts that are only ever shown.
bool is_only_shown(const leaf_t &leaf)
{
    return std::string_view(leaf.node->module->name) == "confd_dyncfg" || leaf.name.starts_with("/banner/");
}

// A hash keeps the form of crypt(5), whose dollars a single-quoted word keeps too.
bool is_hash(const leaf_t &leaf)
{
    return leaf.name == "/system/aaa/user/password";
}

// A regular expression, which no program but the routing daemon sees.
bool is_expression(const leaf_t &leaf)
{
    return leaf.name == "/policy/lists/as-path-list/as-path/as-path";
}

bool takes(const lysc_node *leaf, const std::string &value)
{
    std::string rule;
    return schema_check_value(leaf, value, rule);
}

void expect_safe(const leaf_t &leaf, const std::string &sample)
{
    for (char c : DANGEROUS)
        for (size_t at = 0; at <= sample.size(); at++) {
            std::string value = sample.substr(0, at) + c + sample.substr(at);
            EXPECT_FALSE(takes(leaf.node, value)) << leaf.name << " takes '" << value << "'";
        }
    EXPECT_FALSE(takes(leaf.node, "-" + sample)) << leaf.name << " takes a leading hyphen";
    EXPECT_FALSE(takes(leaf.node, " " + sample)) << leaf.name << " takes a leading blank";
    EXPECT_FALSE(takes(leaf.node, sample + " ")) << leaf.name << " takes a blank at the end";
}

TEST(models, no_configured_text_takes_a_character_that_a_shell_knows)
{
    std::vector<leaf_t> leaves;
    collect_leaves(nullptr, "", leaves);
    size_t checked = 0;
    for (const leaf_t &leaf : leaves) {
        if (!schema_is_config(leaf.node) || !takes_text(leaf.node) || is_only_shown(leaf) || is_hash(leaf) ||
            is_expression(leaf))
            continue;
        size_t taken = 0;
        for (const char *sample : SAMPLES)
            if (takes(leaf.node, sample)) {
                taken++;
                expect_safe(leaf, sample);
            }
        EXPECT_GT(taken, 0u) << leaf.name << " takes none of the samples";
        EXPECT_FALSE(takes(leaf.node, "")) << leaf.name << " takes an empty text";
        checked++;
    }
    EXPECT_GT(checked, 5u);
}

TEST(models, every_node_tells_the_operator_what_it_is)
{
    std::vector<leaf_t> leaves;
    collect_leaves(nullptr, "", leaves);
    for (const leaf_t &leaf : leaves) {
        EXPECT_FALSE(schema_help(leaf.node).empty()) << leaf.name;
        EXPECT_LT(schema_help(leaf.node).size(), 110u) << leaf.name;
        for (const lysc_node *node = leaf.node->parent; node; node = node->parent)
            EXPECT_FALSE(schema_help(node).empty() && !(node->nodetype & (LYS_CHOICE | LYS_CASE))) << node->name;
    }
}

// The library finds the entries of a list by hash only below a container.
TEST(models, no_list_stands_at_the_top)
{
    EXPECT_GT(models().roots.size(), 1u);
    for (const lysc_node *root : models().roots)
        EXPECT_FALSE(schema_is_list(root)) << root->name;
}

struct value_case_t {
    const char *path; // of a leaf
    const char *good; // values, separated by blanks
    const char *bad;
};

std::vector<std::string> split(std::string_view text)
{
    std::vector<std::string> words;
    line_t line = cli_read_line(text);
    for (const word_t &word : line.commands.front())
        words.push_back(word.text);
    return words;
}

const lysc_node *leaf_at(const char *path)
{
    const lysc_node *node = nullptr;
    for (const std::string &name : split(path)) {
        node = schema_find_child(models(), node, name);
        if (!node)
            return nullptr;
    }
    return node;
}

TEST(models, types_take_what_the_device_knows_and_nothing_else)
{
    static const value_case_t cases[] = {
        { "vpn vpn-instance vpn-id", "0 1 512 65529", "65530 65535 -1 x" },
        { "vpn vpn-instance interface if-name",
          "ge0/0 ge2/15.100 10ge0/1 eth0 eth1.5 irb5 loopback1.5 natpool31 natpool1x gre255 ppp1 vap0 cellular0 system",
          "ge ge0_0 irb irb.5 lo ge0/0.x ge0/0. systemx eth0/ "
          "ge0/0.123456789012345678901234567890" },
        { "vpn vpn-instance interface mtu", "576 1500 1996 2000", "575 2001" },
        { "vpn vpn-instance interface ip address", "10.1.5.1/24 0.0.0.0/0 255.255.255.255/32",
          "10.1.5.1 10.1.5/24 10.1.5.1/33 256.1.1.1/8 10.1.5.01/24 2001:db8::1/64" },
        { "vpn vpn-instance interface ipv6 address", "2001:db8::1/64 ::/0 fe80::1/128 ::ffff:1.2.3.4/96",
          "2001:db8::1 2001:db8::1/129 2001::db8::1/64 1:2:3:4:5:6:7:8:9/64 10.1.5.1/24" },
        { "vpn vpn-instance interface mac-address", "00:11:22:33:44:55 aA:bB:cC:dD:eE:fF 00:00:00:00:00:00",
          "00:11:22:33:44 00:11:22:33:44:55:66 00-11-22-33-44-55 0:11:22:33:44:55 00:11:22:33:44:5g" },
        { "vpn vpn-instance interface speed", "10 100 1000", "-1 0 1001 10000" },
        { "vpn vpn-instance interface duplex", "full half", "auto 0" },
        { "vpn vpn-instance interface flow-control", "ingress egress autoneg both none", "rx 0" },
        { "vpn vpn-instance interface arp-timeout", "1 1200 2678400", "0 2678401 4294967295" },
        { "vpn vpn-instance interface arp address", "10.1.5.9", "10.1.5.9/24 2001:db8::1" },
        { "vpn vpn-instance interface arp mac", "00:11:22:33:44:55", "001122334455 broadcast" },
        { "vpn vpn-instance interface tunnel-source", "10.1.5.1", "10.1.5.1/24 ge0/0 2001:db8::1 10.1.5.1%eth0" },
        { "vpn vpn-instance interface tunnel-source-interface", "ge0/0 ge0/1.100 loopback1", "10.1.5.1 ge0_0 any" },
        { "vpn vpn-instance interface tunnel-destination", "203.0.113.9", "host.example 203.0.113" },
        { "vpn vpn-instance interface tunnel-interface bind", "ge0/0 eth1", "ge0_0 x" },
        { "vpn vpn-instance interface wpnt-extension", "ge0/0", "ge0_0" },
        { "vpn vpn-instance interface pppoe-client ppp-interface", "ppp1 ppp31", "ppp ppp0 ppp32 ppp1x ge0/0 ppp1.5" },
        { "vpn vpn-instance interface pppoe-client ac-name", "bras1.example isp:7", "/bin/sh a/%n" },
        { "vpn vpn-instance interface ppp authentication method", "chap pap", "eap 0" },
        { "vpn vpn-instance interface ppp authentication chap-name", "user@isp.example", "@file /etc/passwd" },
        { "vpn vpn-instance interface ppp authentication password",
          "pass/word= $8$AAECAwQFBgcICQ==", "@file /etc/passwd $8$ $9$AA== $8$`id`" },
        { "vpn vpn-instance interface ip secondary-address address", "10.1.5.2/24", "10.1.5.2" },
        { "vpn vpn-instance interface ip address-list address", "10.1.5.2/24", "10.1.5.2 default" },
        { "vpn vpn-instance interface ip static-route prefix", "0.0.0.0/0 10.0.0.0/8 10.1.5.1/32",
          "default 10.0.0.0 10.0.0.0/33 ::/0" },
        { "vpn vpn-instance interface ip static-route next-hop address", "10.1.5.254", "10.1.5.254/24 ge0/0" },
        { "vpn vpn-instance interface nat static source-ip", "10.1.5.7", "10.1.5.7/32" },
        { "vpn vpn-instance interface qos-map", "gold", "a/%s" },
        { "vpn vpn-instance service service-type", "FW IDS IDP netsvc1 netsvc4 TE", "fw netsvc5 1" },
        { "vpn vpn-instance service interface", "gre1 ge0/0", "gre ge0_0" },
        { "bridge bridge-instance bridge-id", "0 5 63 65535", "65536 -1 x" },
        { "bridge bridge-instance vlan", "1 4095", "0 4096" },
        { "bridge bridge-instance interface if-name", "ge0/0 vap3 10ge0/1", "ge lo 5" },
        { "bridge bridge-instance interface mtu", "576 2000", "575 2001" },
        { "vpn vpn-instance dns address", "10.0.0.53 2001:db8::53", "10.0.0 host fe80::1%eth0" },
        { "vpn vpn-instance dns role", "primary secondary", "third 0" },
        { "vpn vpn-instance host hostname", "a intranet.a.example _ldap._tcp x-1",
          "-a a..b .a a. a- 0123456789012345678901234567890123456789012345678901234567890123" },
        { "system host-name", "krest r1.example", "a_very_long_name_of_a_device_over_32" },
        { "system site-id", "1 4294967295", "0 4294967296" },
        { "system system-ip", "10.255.0.1", "10.255.0.1/32 10.255.0" },
        { "system quorvix-system-ip", "10.255.0.2", "10.255.0.2/32 2001:db8::1" },
        { "system aaa user name", "admin _x a-b", "-a Admin a.b 1a" },
        { "system aaa user password", "$6$salt$hash/.A1", "secret $6$a'b $6$ 6$a$b" },
        { "system radius server secret-key", "s3cret/= $8$AAECAwQFBgcICQ==", "$8$ $9$AA== a'b" },
        { "system orbel remote", "orbel.example 192.0.2.1", "a..b -a" },
        { "ovc overlay-as", "65000 1.10 4294967295", "1.2.3 x 1. 12345678901" },
        { "policy access-list sequence match source-port", "80 8000-8080", "http 1- 1,2" },
        { "banner motd", "100%%", "100% %s %%%" },
        { "system simulation device-count", "0 1 99", "-1 100" },
        { "system simulation wan-address", "198.51.100.1", "198.51.100.1/24 2001:db8::1" },
        { "system archive path", "/home/admin/a.cfg scp://u@h:/d/a.cfg a", "//a -a a%b ~u/a" },
        { "system archive interval", "5 10080 71582", "0 4 71583" },
        { "system archive vpn", "0 512", "65530 65535" },
        { "system archive ssh-id-file", "/etc/keys/id_rsa", "-i" },
    };
    for (const value_case_t &c : cases) {
        const lysc_node *leaf = leaf_at(c.path);
        ASSERT_NE(leaf, nullptr) << c.path;
        for (const std::string &value : split(c.good))
            EXPECT_TRUE(takes(leaf, value)) << c.path << " refuses " << value;
        for (const std::string &value : split(c.bad))
            EXPECT_FALSE(takes(leaf, value)) << c.path << " takes " << value;
    }
}

} // namespace
