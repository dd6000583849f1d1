#include "agent/server/notif.h"

#include "agent/server/dispatch.h"
#include "agent/server/server.h"

// The interval is that of periodic events, of which the agent has none; it is read and has no effect.
static answer_t subscribe(call_t &call)
{
    uint32_t mask = call.in.u32();
    (void)call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    call.conn.notif_mask = mask;
    return {};
}

void notif_send_commit(server_t &server, const session_identity_t &who)
{
    wire_writer_t event;
    event.u32(WIRE_NOTIF_COMMIT_SIMPLE);
    event.u8(WIRE_CONFD_RUNNING);
    event.u32(who.id);
    event.text(who.user);
    event.text(who.context);
    event.text(who.source);
    for (auto &[serial, conn] : server.connections)
        if (conn->notif_mask & WIRE_NOTIF_COMMIT_SIMPLE)
            connection_send(*conn, WIRE_NOTIF_EVENT, 0, 0, event.bytes);
}

static constexpr op_row_t rows_of_ops[] = {
    { WIRE_NOTIF_SUBSCRIBE, subscribe },
};

std::span<const op_row_t> notif_ops()
{
    return rows_of_ops;
}
