// The configuration file of agentd: lines of "key = value", '#' begins a comment.
//
//   listen-address = 127.0.0.1      port = 4565 (0: any free one)      port-file = FILE (gets the port in use)
//   yang-dir = DIR                  state-dir = DIR                    ipc-access-file = FILE (the shared secret)
//   durable = yes|no                log = stderr|syslog                auto-phase2 = yes|no
//   replay-dir = DIR (notifications; default netconf_replay in state-dir)
//   sync-timeout-ms, callback-timeout-ms, action-timeout-ms, hello-timeout-ms: numbers
//   outbound-limit (bytes queued to one client), max-connections: numbers
//   journal-limit (bytes of journal after which a snapshot takes its place): a number
#ifndef AGENT_SERVER_CONFIG_H
#define AGENT_SERVER_CONFIG_H

#include "agent/server/log.h"
#include "agent/wire/wire.h"

#include <cstdint>
#include <string>

struct agent_config_t {
    std::string listen_address = "127.0.0.1";
    uint64_t port = WIRE_PORT;
    std::string port_file;
    std::string yang_dir;
    std::string state_dir;
    std::string ipc_access_file;
    std::string replay_dir; // empty: netconf_replay in state_dir
    bool durable = true;    // a commit is on disk before it is acknowledged
    bool auto_phase2 = false;
    log_target_t log = LOG_TARGET_STDERR;
    uint64_t sync_timeout_ms = 120000;     // a subscriber that takes longer over one level is disconnected
    uint64_t callback_timeout_ms = 120000; // a daemon that takes longer over one callback is disconnected
    uint64_t action_timeout_ms = 240000;   // over one action
    uint64_t object_cache_ms = 5000;       // how long a provider's objects are used when it does not say
    uint64_t hello_timeout_ms = 30000;     // a connection that has not said what it is for is closed
    uint64_t outbound_limit = 16u << 20;   // bytes queued to a client; the frame that goes past it is the last
    uint64_t journal_limit = 4u << 20;     // bytes of journal after which a snapshot takes its place
    uint64_t max_connections = 1000;
};

// Reads the file. On failure *error is one text that names file, line and remedy.
[[nodiscard]] bool agent_config_read(const std::string &path, agent_config_t *config, std::string *error);

// The secret in the access file, without the line end. An empty path gives an empty secret: none is asked for.
[[nodiscard]] bool agent_secret_read(const std::string &path, std::string *secret, std::string *error);

#endif
