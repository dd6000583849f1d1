// Notification streams.
#include "agent/server/dispatch.h"

std::span<const op_row_t> stream_ops()
{
    return {};
}

std::span<const op_row_t> worker_ops()
{
    return {};
}
