// Where the models name the programs that serve them: each point that the configuration manager has stands at one node,
// and each node of the top is found by its bare name.
#include "agent/cli/schema.h"
#include "cfgmgr/daemon/cfgmgr_callpoint_names.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <string>
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

// The paths at which each name of an extension's statement stands.
using places_t = std::map<std::string, std::vector<std::string>>;

void note_places(const lysc_node *node, const std::string &path, const char *statement, places_t &places)
{
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(node->exts, i)
    if (strcmp(node->exts[i].def->name, statement) == 0)
        places[node->exts[i].argument].push_back(path);
}

void collect_places(const lysc_node *parent, const std::string &above, const char *statement, places_t &places)
{
    std::vector<const lysc_node *> nodes = schema_children(models(), parent);
    for (const lysc_node *action : schema_actions(models(), parent))
        note_places(action, above + "/" + action->name, statement, places);
    for (const lysc_node *node : nodes) {
        std::string path = above + "/" + node->name;
        note_places(node, path, statement, places);
        if (!schema_is_leaf(node) && !schema_is_leaf_list(node))
            collect_places(node, path, statement, places);
    }
}

places_t places_of(const char *statement)
{
    places_t places;
    collect_places(nullptr, "", statement, places);
    return places;
}

constexpr const char *actions[] = {
    "cfgmgr_dump_all",
    "cfgmgr_dump_vpn",
    "cfgmgr_dump_if",
    "cfgmgr_dump_aaa",
    "cfgmgr_if_reset",
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
static_assert(std::size(actions) == 69);

// Where a name stands, by the first word in it: the rights of a group of users are given by these paths.
constexpr struct {
    const char *word;
    const char *above;
} verbs[] = {
    { "disable", "/no/debug/" }, { "_debug_", "/debug/" }, { "_tdebug_", "/debug/" },
    { "clear_", "/clear/" },     { "_dump_", "/debugs/" }, { "_reset", "/request/" },
};

bool stands_right(const char *name, const std::string &path)
{
    for (const auto &verb : verbs)
        if (strstr(name, verb.word))
            return path.starts_with(verb.above);
    return false;
}

TEST(models, every_action_of_the_configuration_manager_stands_at_one_place_and_no_other_stands_anywhere)
{
    places_t places = places_of("actionpoint");
    for (const char *name : actions) {
        ASSERT_EQ(places[name].size(), 1u) << name;
        EXPECT_TRUE(stands_right(name, places[name].front())) << name << " at " << places[name].front();
        places.erase(name);
    }
    EXPECT_TRUE(places.empty()) << places.begin()->first << " at " << places.begin()->second.front();
}

void expect_help(const lysc_node *parent, const std::string &above)
{
    for (const lysc_node *node : schema_children(models(), parent)) {
        EXPECT_FALSE(schema_help(node).empty()) << above << " " << node->name;
        EXPECT_LT(schema_help(node).size(), 110u) << above << " " << node->name;
        if (!schema_is_leaf(node) && !schema_is_leaf_list(node))
            expect_help(node, above + "/" + node->name);
    }
    for (const lysc_node *action : schema_actions(models(), parent)) {
        EXPECT_FALSE(schema_help(action).empty()) << above << " " << action->name;
        expect_help(schema_input(action), above + "/" + action->name);
    }
}

TEST(models, every_action_and_parameter_tells_the_operator_what_it_is)
{
    expect_help(nullptr, "");
}

LY_DATA_TYPE base_type(const lysc_node *leaf)
{
    return reinterpret_cast<const lysc_node_leaf *>(leaf)->type->basetype;
}

// Who runs an action takes its parameters in these forms and in no other.
constexpr struct {
    const char *name;
    LY_DATA_TYPE type;
} parameters[] = {
    { "vpn", LY_TYPE_UINT32 },       { "vpn-id", LY_TYPE_UINT32 }, { "address", LY_TYPE_UNION },
    { "soft", LY_TYPE_ENUM },        { "level", LY_TYPE_ENUM },    { "direction", LY_TYPE_ENUM },
    { "mode", LY_TYPE_ENUM },        { "type", LY_TYPE_BITS },     { "ism-type", LY_TYPE_BITS },
    { "nsm-type", LY_TYPE_BITS },    { "lsa-type", LY_TYPE_BITS }, { "days", LY_TYPE_UINT8 },
    { "interface", LY_TYPE_STRING }, { "ip", LY_TYPE_STRING },
};

void expect_parameter_types(const lysc_node *parent, size_t &checked)
{
    for (const lysc_node *action : schema_actions(models(), parent))
        for (const lysc_node *leaf : schema_children(models(), schema_input(action))) {
            auto row = std::find_if(std::begin(parameters), std::end(parameters),
                                    [&](const auto &known) { return strcmp(known.name, leaf->name) == 0; });
            ASSERT_NE(row, std::end(parameters)) << action->name << " " << leaf->name;
            EXPECT_EQ(base_type(leaf), row->type) << action->name << " " << leaf->name;
            checked++;
        }
    for (const lysc_node *node : schema_children(models(), parent))
        if (!schema_is_leaf(node) && !schema_is_leaf_list(node))
            expect_parameter_types(node, checked);
}

TEST(models, parameters_of_clear_and_debug_have_the_forms_that_those_who_run_them_take)
{
    size_t checked = 0;
    for (const char *top : { "clear", "debug", "no" })
        expect_parameter_types(schema_find_child(models(), nullptr, top), checked);
    EXPECT_GT(checked, 50u);
}

// The daemons of a VPN answer for it alone; a walk goes from one VPN to the next by this key.
TEST(models, tables_of_the_routing_daemons_begin_with_the_vpn)
{
    for (const char *top : { "bgp", "ospf" })
        for (const lysc_node *list : schema_children(models(), schema_find_child(models(), nullptr, top))) {
            std::vector<const lysc_node *> keys = schema_keys(list);
            ASSERT_FALSE(keys.empty()) << list->name;
            EXPECT_STREQ(keys.front()->name, "vpn-id") << list->name;
            EXPECT_EQ(base_type(keys.front()), LY_TYPE_UINT32) << list->name;
        }
}

TEST(models, every_callpoint_that_may_be_without_its_program_stands_at_one_place)
{
    places_t places = places_of("callpoint");
    for (int group = 0; group < CALLPOINT_GROUPS; group++)
        for (const char *name : cfgmgr_callpoint_names(static_cast<callpoint_group_t>(group)))
            EXPECT_EQ(places[name].size(), 1u) << name;
}

TEST(models, no_callpoint_stands_twice)
{
    for (const auto &[name, paths] : places_of("callpoint"))
        EXPECT_EQ(paths.size(), 1u) << name << " at " << paths[0] << " and " << paths.back();
}

// Both the agent and the command line look for a node of the top by its name alone.
TEST(models, no_two_nodes_of_the_top_have_one_name)
{
    std::map<std::string, const char *> modules;
    for (const lysc_node *root : models().roots)
        EXPECT_TRUE(modules.emplace(root->name, root->module->name).second)
            << root->name << " of " << modules[root->name] << " and " << root->module->name;
}

} // namespace
