// Which points a change concerns, and the ways in which data comes to be delivered without a commit.
#ifndef AGENT_SERVER_SUBSCRIPTION_H
#define AGENT_SERVER_SUBSCRIPTION_H

#include "agent/server/datastore.h"
#include "agent/server/dispatch.h"

#include <cstdint>
#include <vector>

struct server_t;

// Kinds of points as a set: 1 << wire_sub_kind_t.
inline constexpr unsigned POINTS_CONFIG = 1u << WIRE_SUB_CONFIG | 1u << WIRE_SUB_CONFIG_TWO_PHASE;
inline constexpr unsigned POINTS_TWO_PHASE = 1u << WIRE_SUB_CONFIG_TWO_PHASE;
inline constexpr unsigned POINTS_OPERATIONAL = 1u << WIRE_SUB_OPERATIONAL;

// "config", "two-phase" or "operational".
[[nodiscard]] const char *subscription_kind_name(uint8_t kind);

// The live points of these kinds that the changes concern. Where `among` names points (a trigger's), all of those
// instead, data or not: only a triggered delivery tells a client that a point has been read.
[[nodiscard]] std::vector<int32_t> subscription_touched(const server_t &server, const diff_t &changes, unsigned kinds,
                                                        const std::vector<int32_t> &among);

// Queues the notification of an operational write, when somebody subscribes to it.
void subscription_notify_oper(server_t &server, diff_ptr changes);

// Queues the delivery of all existing data, of none too, to points of the caller's process; none named: all. Deferred,
// unless a point is not the process's.
[[nodiscard]] answer_t subscription_trigger(call_t &call, bool is_operational, std::vector<int32_t> ids);

#endif
