#include "agent/server/phase.h"

#include "agent/server/log.h"
#include "agent/server/server.h"

void phase_enter_1(server_t &server)
{
    server.init_trans = trans_begin(*server.store, true, 0);
    server.init_th = server.next_transaction++;
    server.init_daemons = callback_trans_make(server.init_th, WIRE_DB_RUNNING, true, { 0, "system", "system", "" });
    const schema_t &schema = datastore_schema(*server.store);
    server.points = { point_table_make(schema, "transaction-hook"), point_table_make(schema, "validate") };
    server.phase = 1;
    agent_log(LOG_NOTICE, "phase 1: the init transaction is open");
    for (const request_ref_t &ref : std::exchange(server.waiting_for_start, {}))
        server_answer(server, ref, {}, {});
    if (server.config.auto_phase2)
        phase_request_2(server, {});
}

void phase_request_2(server_t &server, const request_ref_t &ref)
{
    auto job = std::make_unique<job_t>();
    job->kind = JOB_PHASE_2;
    job->reply_to = ref;
    commit_queue_add(server, std::move(job));
}

void phase_enter_2(server_t &server)
{
    server.phase = 2;
    agent_log(LOG_NOTICE, "phase 2: the init transaction is committed, user sessions may write");
    for (auto &job : std::exchange(server.triggers_for_phase_2, {}))
        commit_queue_add(server, std::move(job));
}
