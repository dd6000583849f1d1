// agentd without its process, for fuzz targets: a server in memory on a model of the tests, its event loop turned by hand,
// and clients at the other ends of socket pairs. What is wrong ends the process, as a finding.
#ifndef TESTS_FUZZ_AGENT_IN_MEMORY_H
#define TESTS_FUZZ_AGENT_IN_MEMORY_H

#include "agent/server/phase.h"
#include "agent/server/server.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

inline void require(bool condition, const char *what)
{
    if (condition)
        return;
    fprintf(stderr, "finding: %s\n", what);
    abort();
}

inline void turn(server_t &server, int rounds)
{
    for (int i = 0; i < rounds; i++)
        event_base_loop(server.base.get(), EVLOOP_NONBLOCK);
}

// In phase 2; lives as long as the process.
inline server_t *make_server(const char *yang_dir, const char *search_dir)
{
    auto *server = new server_t;
    datastore_options_t options;
    options.yang_dir = yang_dir;
    if (search_dir)
        options.search_dirs.push_back(search_dir);
    std::vector<std::string> reports;
    ds_error_t error;
    server->store = datastore_open(options, reports, error);
    std::string failure;
    if (!server->store || !server_prepare(*server, &failure)) {
        fprintf(stderr, "cannot set up: %s%s\n", error.text.c_str(), failure.c_str());
        exit(1);
    }
    agent_log_open(LOG_TARGET_SYSLOG); // where there is none in a test, and nowhere else
    server->config.auto_phase2 = true;
    server->config.outbound_limit = 1 << 20;
    server->config.sync_timeout_ms = 10;
    server->config.callback_timeout_ms = 10;
    server->config.action_timeout_ms = 10;
    phase_enter_1(*server);
    turn(*server, 20);
    require(server->phase == 2, "phase 2 is not reached");
    return server;
}

inline std::string hello_frame(uint8_t kind, uint32_t daemon_id)
{
    wire_writer_t payload;
    payload.u16(WIRE_VERSION);
    payload.u8(kind);
    payload.text("fuzz");
    payload.u32(1);
    payload.text("");
    payload.u32(daemon_id);
    return wire_frame(WIRE_HELLO, 0, 1, payload.bytes);
}

// A new connection; the client's end, which does not block.
inline int connect_client(server_t &server)
{
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0, "no socket");
    server_adopt(server, ends[1]);
    return ends[0];
}

// All clients have closed their ends: nothing of theirs may be left, and running can be changed.
inline void check_nothing_is_left(server_t &server)
{
    for (int i = 0; i < 5000 && (!server.connections.empty() || !server.queue.jobs.empty()); i++)
        turn(server, 1);
    require(server.connections.empty(), "a connection outlives its client");
    require(server.queue.jobs.empty(), "a job outlives its client");
    require(server.actions.runs.empty(), "an action outlives its client");
    require(server.streams.subscribers.empty(), "a subscriber of a stream outlives its client");
    require(server.candidate_holder == 0, "a lock of the candidate outlives its session");
    for (const lock_t &lock : server.cdb_locks)
        require(lock.holder == 0 && lock.waiting.empty(), "a lock outlives its session");
    for (const auto &rows : server.registry.rows)
        require(rows.empty(), "a registration outlives its daemon");
    ds_error_t error;
    require(datastore_lock(*server.store, 1, "fuzz", error), "a lock of running outlives its session");
    datastore_release(*server.store, 1);
    trans_ptr trans = trans_begin(*server.store, true, 1);
    diff_ptr diff;
    require(trans_prepare(*trans, diff, error), "a prepared transaction outlives its session");
    trans_unprepare(*trans);
}

// Running, the candidate and operational data are empty again and numbers begin anew, so that inputs do not depend on each
// other.
inline void empty_stores(server_t &server)
{
    server.next_transaction = server.init_th + 1;
    server.next_session_id = 1;
    server.registry.next_handle = 1;
    server.registry.next_daemon_id = 1;
    candidate_discard(*server.store);
    ds_error_t error;
    trans_ptr trans = trans_begin(*server.store, true, 1);
    const schema_t &schema = datastore_schema(*server.store);
    for (const schema_info_t &node : schema.nodes) {
        if (node.parent || !node.is(WIRE_NODE_CONTAINER | WIRE_NODE_LEAF | WIRE_NODE_LIST))
            continue;
        path_t path;
        path.steps.push_back({ &node, {} });
        diff_ptr diff;
        if (node.is(WIRE_NODE_CONFIG))
            (void)trans_delete(*trans, path, error); // there may be nothing
        else
            (void)oper_delete(*server.store, path, diff, error);
    }
    diff_ptr diff;
    require(trans_prepare(*trans, diff, error) && trans_commit(*trans, error), "running cannot be emptied");
    (void)oper_prune(*server.store, *diff);
    datastore_drop_old(*server.store);
}

#endif
