// Walks as MAAPI connections ask for them: begun, gone on with, stopped. See walk.h.
#include "agent/server/walk.h"

#include "agent/server/maapi.h"
#include "agent/server/server.h"

#include <algorithm>

static constexpr size_t MAX_WALKS = 16; // of one session
static constexpr uint32_t MAX_ITEMS = 10000;
static constexpr uint32_t WALK_DEFAULTS = 1; // of WIRE_MAAPI_WALK

static answer_t check_begin(const call_t &call, uint32_t th)
{
    answer_t answer;
    if (call.conn.maapi.who.id == 0)
        return maapi_no_session();
    if (call.conn.maapi.walks.size() >= MAX_WALKS)
        return refused(CONFD_ERR_TOOBIG,
                       "a session has at most " + std::to_string(MAX_WALKS) + " walks at once; end one first");
    if (th != 0)
        (void)maapi_find_trans(call, th, &answer); // the answer says it all
    return answer;
}

static answer_t begin(call_t &call)
{
    uint32_t th = call.in.u32();
    std::string_view text = call.in.text();
    bool with_defaults = call.in.u32() & WALK_DEFAULTS;
    if (!call.in.finished())
        return malformed(call);
    answer_t answer = check_begin(call, th);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    auto walk = std::make_shared<walk_t>();
    ds_error_t error;
    if (!path_parse(datastore_schema(*call.server.store), text, PATH_SUBTREE, walk->target, error))
        return refused(error.code, error.text);
    walk->id = ++call.conn.maapi.last_walk;
    walk->connection = call.conn.serial;
    walk->th = th;
    walk->with_defaults = with_defaults;
    walk->daemons = provider_begin_reading(call.server, call.conn.maapi.who);
    walk_begin(*walk, datastore_schema(*call.server.store));
    call.conn.maapi.walks.emplace(walk->id, walk);
    call.out.u32(walk->id);
    return {};
}

// ---- pages

static bool is_at_end(const walk_t &walk)
{
    return walk.frames.empty() && walk.items.empty() && walk.failure.code == CONFD_ERR_OK;
}

static void put_page(walk_t &walk, wire_writer_t &out)
{
    auto n = static_cast<uint32_t>(std::min<size_t>(walk.items.size(), walk.most));
    wire_writer_t items;
    for (uint32_t i = 0; i < n; i++) {
        items.bytes += walk.items.front().bytes;
        walk.items.pop_front();
    }
    walk.bytes = 0; // what is left is less than one frame's depth
    out.u8(is_at_end(walk));
    out.u32(n);
    out.bytes += items.bytes;
}

static void end_walk(server_t &server, maapi_session_t &session, uint32_t id)
{
    auto found = session.walks.find(id);
    if (found == session.walks.end())
        return;
    callback_trans_finish(server, found->second->daemons);
    session.walks.erase(found);
}

// The page that the walk has come to; when there is none, why. A walk that is over goes.
static answer_t take_page(server_t &server, connection_t &conn, walk_t &walk, wire_writer_t &out)
{
    answer_t answer;
    if (walk.items.empty())
        answer = walk.failure;
    if (answer.code == CONFD_ERR_OK)
        put_page(walk, out);
    if (answer.code != CONFD_ERR_OK || is_at_end(walk))
        end_walk(server, conn.maapi, walk.id);
    return answer;
}

static answer_t find_view(const call_t &call, const walk_t &walk, view_t *view)
{
    answer_t answer;
    if (walk.th == 0)
        return answer;
    *view = { VIEW_TRANS, maapi_find_trans(call, walk.th, &answer) };
    return answer;
}

static answer_t next(call_t &call)
{
    uint32_t id = call.in.u32();
    uint32_t most = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    auto found = call.conn.maapi.walks.find(id);
    if (found == call.conn.maapi.walks.end())
        return refused(CONFD_ERR_NOEXISTS, "there is no walk " + std::to_string(id));
    walk_ref walk = found->second;
    view_t view;
    answer_t answer = find_view(call, *walk, &view);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    walk->most = std::clamp(most, 1u, MAX_ITEMS);
    walk->ref = call.ref;
    walk_run(call.server, *walk, view);
    walk->is_deferred = walk->is_waiting && walk->items.empty();
    return walk->is_deferred ? deferred() : take_page(call.server, call.conn, *walk, call.out);
}

void walk_resume(server_t &server, walk_t &walk)
{
    connection_t *conn = server_find(server, walk.connection);
    if (!conn || !walk.is_deferred)
        return;
    walk_run(server, walk, {});
    if (walk.is_waiting && walk.items.empty())
        return;
    walk.is_deferred = false;
    request_ref_t ref = walk.ref;
    wire_writer_t out;
    answer_t answer = take_page(server, *conn, walk, out);
    server_answer(server, ref, answer, out.bytes);
}

bool walk_interrupt(server_t &server, uint64_t connection)
{
    connection_t *conn = server_find(server, connection);
    if (!conn)
        return false;
    auto found = std::ranges::find_if(conn->maapi.walks, [](const auto &row) { return row.second->is_deferred; });
    if (found == conn->maapi.walks.end())
        return false;
    walk_ref walk = found->second;
    walk->is_deferred = false;
    end_walk(server, conn->maapi, walk->id);
    server_answer(server, walk->ref, refused(CONFD_ERR_ABORTED, "interrupted"), {});
    return true;
}

static answer_t stop(call_t &call)
{
    uint32_t id = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    if (id == 0 || id > call.conn.maapi.last_walk)
        return refused(CONFD_ERR_NOEXISTS, "there is no walk " + std::to_string(id));
    end_walk(call.server, call.conn.maapi, id); // one that has come to its end is gone already
    return {};
}

void walk_end_all(server_t &server, maapi_session_t &session)
{
    while (!session.walks.empty())
        end_walk(server, session, session.walks.begin()->first);
}

static constexpr op_row_t rows_of_ops[] = {
    { WIRE_MAAPI_WALK, begin },
    { WIRE_MAAPI_WALK_NEXT, next },
    { WIRE_MAAPI_WALK_STOP, stop },
};

std::span<const op_row_t> maapi_walk_ops()
{
    return rows_of_ops;
}
