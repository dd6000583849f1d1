// The names of everything that the configuration daemon registers with the agent, and a data model that uses each.
//
// The tables are the daemon's own lists under its names, so that a client with all of them registered is the daemon as
// the agent sees it.
#ifndef TESTS_COMPONENT_CONFORMANCE_POINTS_H
#define TESTS_COMPONENT_CONFORMANCE_POINTS_H

#include <span>
#include <string>
#include <vector>

using names_t = std::vector<std::string>;

enum hook_op_t : uint8_t { // what a hook's callback record has
    HOOK_SET = 1,
    HOOK_CREATE = 2,
    HOOK_REMOVE = 4,
};
struct hook_point_t {
    const char *name;
    uint8_t ops; // hook_op_t
};

extern const std::span<const char *const> VALIDATION_POINTS; // a name may stand in more than one place
extern const std::span<const char *const> ACTION_POINTS;
extern const std::span<const char *const> COMMAND_POINTS;
extern const std::span<const char *const> COMPLETION_POINTS;
extern const std::span<const hook_point_t> HOOK_POINTS;
// Callpoints of operational data, in the order of registration; some come twice, the later for an empty table.
names_t show_points();
// Without repetition.
names_t distinct(names_t names);

// The module "conform-points": container "points" with a leaf "valid-N" for the Nth validation point, a container
// "hooks" with a list of the name of each hook point that has create or remove (key "name", leaf "value"), else a leaf,
// "shows" with an operational list of each name (key "id", leaf "text"), leaves "complete-N"; an rpc for each action and
// command.
std::string points_module();

// A folder with the models of the conformance tests, made once.
const std::string &model_dir();

#endif
