// Events of the agent itself, for the connections that have asked for them.
#ifndef AGENT_SERVER_NOTIF_H
#define AGENT_SERVER_NOTIF_H

#include <cstdint>
#include <string>

struct server_t;

// Who did something, as events tell it.
struct session_identity_t {
    uint32_t id = 0;
    std::string user;
    std::string context;
    std::string source; // address
};

// A commit to running, by whom.
void notif_send_commit(server_t &server, const session_identity_t &who);

#endif
