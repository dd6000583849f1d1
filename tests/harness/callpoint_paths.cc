// Prints where the callpoints stand that a device may be without the program of, a line each: group, name, and the path
// as an operator shows it, with a key of the right type for each list around it.
#include "agent/cli/schema.h"
#include "cfgmgr/daemon/cfgmgr_callpoint_names.h"

#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>

namespace
{

constexpr const char *group_names[] = { "wwan", "wlan", "general", "overlay" };
static_assert(std::size(group_names) == CALLPOINT_GROUPS);

// What a key may be, tried in this order.
constexpr const char *sample_keys[] = {
    "1", "ge0/1", "10.0.0.1", "10.0.0.0/24", "2001:db8::1", "00:11:22:33:44:55", "00:00:00:00:00:00:00:00",
};

std::string sample_key(const lysc_node *key)
{
    std::string rule;
    for (const char *sample : sample_keys)
        if (schema_check_value(key, sample, rule))
            return sample;
    for (const choice_t &choice : schema_values(key))
        if (!choice.is_placeholder)
            return choice.text;
    return "?";
}

const char *callpoint_of(const lysc_node *node)
{
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(node->exts, i)
    if (strcmp(node->exts[i].def->name, "callpoint") == 0)
        return node->exts[i].argument;
    return nullptr;
}

void collect(const schema_t &schema, const lysc_node *parent, const std::string &above,
             std::map<std::string, std::string> &paths)
{
    for (const lysc_node *node : schema_children(schema, parent)) {
        std::string path = above + " " + node->name;
        if (const char *callpoint = callpoint_of(node))
            paths.emplace(callpoint, path);
        if (schema_is_list(node))
            for (const lysc_node *key : schema_keys(node))
                path += " " + sample_key(key);
        if (!schema_is_leaf(node) && !schema_is_leaf_list(node))
            collect(schema, node, path, paths);
    }
}

} // namespace

int main()
{
    schema_t schema;
    cli_error_t error;
    if (!schema_load(MODELS_DIR, MODELS_LIBRARY_DIR, schema, error)) {
        fprintf(stderr, "%s\n", error.text.c_str());
        return 1;
    }
    std::map<std::string, std::string> paths;
    collect(schema, nullptr, "", paths);
    for (int group = 0; group < CALLPOINT_GROUPS; group++)
        for (const char *name : cfgmgr_callpoint_names(static_cast<callpoint_group_t>(group)))
            printf("%s %s%s\n", group_names[group], name, paths[name].c_str());
    return 0;
}
