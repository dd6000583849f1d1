// What the agent is asked for once cfgmgr has reported its startup transaction: first to serve (phase 2), then to note in
// "/tconfd-initial-read-priority" that the wireless daemon, which this device lacks, has read its configuration. Daemons
// read when the bits of those before them are set.
//
// The agent's calls block, so each is a helper process that is watched from the loop and killed when it takes too long:
// agent_cmd for the phase, agent_bits for the bits. A step that fails is tried again until it succeeds. Afterwards the
// bits are looked at until all supervised daemons have set theirs: an agent that is started anew has lost them, daemons
// do not repeat their first read, and so they are set again from what was last seen.
#ifndef PLATFORM_AGENT_SIDE_H
#define PLATFORM_AGENT_SIDE_H

#include "platform/sysmgrd.h"

// Positions are those of the leaf's bits.
enum agent_bit_t : uint32_t {
    AGENT_BIT_WLAND = 1U << 0,
    AGENT_BIT_CFGMGR = 1U << 1,
};

// Goes through the steps from the first, whatever was in progress.
void agent_side_begin(sysmgrd_t *sysmgrd);
// Ends what is in progress; nothing is asked any more.
void agent_side_cancel(sysmgrd_t *sysmgrd);

[[nodiscard]] const char *agent_step_name(agent_step_t step);

#endif
