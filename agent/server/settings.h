// The agent's own settings: those of its dynamic configuration (model confd_dyncfg) that the agent follows itself.
//
// They are ordinary configuration: committed, persisted and read like any other. Without the model, or unset, the
// defaults hold: no developer log, replay stores on.
#ifndef AGENT_SERVER_SETTINGS_H
#define AGENT_SERVER_SETTINGS_H

#include "agent/server/diff.h"

struct server_t;

// Follows running as it is now.
void settings_follow(server_t &server);

// Behind a commit: follows running if the changes are about the agent's settings.
void settings_follow_commit(server_t &server, const diff_t &changes);

#endif
