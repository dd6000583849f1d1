// MAAPI connections: actions, completions, output for the operator's command line.
#include "agent/server/maapi.h"
#include "agent/server/server.h"

std::span<const op_row_t> maapi_action_ops()
{
    return {};
}
