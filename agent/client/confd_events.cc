// Events of the agent itself.
#include "agent/client/confd_events.h"

#include "agent/client/confd_internal.h"

static constexpr wire_kind_t NOTIF = WIRE_KIND_NOTIF;

int confd_notifications_connect2(int sock, const struct sockaddr *srv, int srv_sz, int mask,
                                 const struct confd_notifications_data *data)
{
    if (int result = confd_io_connect(sock, NOTIF, 0, srv, srv_sz, nullptr); result != CONFD_OK)
        return result;
    wire_writer_t request;
    request.u32(static_cast<uint32_t>(mask));
    request.u32(data != nullptr ? static_cast<uint32_t>(data->interval_ms) : 0);
    return confd_ask_nothing(sock, NOTIF, WIRE_NOTIF_SUBSCRIBE, request);
}

// Names are for people: what is longer than its field is cut.
template <size_t N> static void copy_field(char (&field)[N], std::string_view text)
{
    (void)confd_copy_text(field, N, text);
}

static bool read_commit(wire_reader_t &in, confd_commit_notification *commit)
{
    commit->database = static_cast<confd_dbname>(in.u8());
    commit->uinfo.usid = static_cast<int>(in.u32());
    copy_field(commit->uinfo.username, in.text());
    copy_field(commit->uinfo.context, in.text());
    copy_field(commit->uinfo.src_addr, in.text());
    return in.finished();
}

int confd_read_notification(int sock, struct confd_notification *n)
{
    *n = {}; // callers look at it after a failure as well
    push_t push;
    if (int result = confd_io_next_push(sock, NOTIF, &push); result != CONFD_OK)
        return result;
    wire_reader_t in(push.payload);
    uint32_t type = in.u32();
    if (push.header.op != WIRE_NOTIF_EVENT || type != CONFD_NOTIF_COMMIT_SIMPLE)
        return confd_fail_malformed(WIRE_NOTIF_EVENT);
    confd_commit_notification commit = {};
    if (!read_commit(in, &commit))
        return confd_fail_malformed(WIRE_NOTIF_EVENT);
    n->type = CONFD_NOTIF_COMMIT_SIMPLE;
    n->n.commit = commit;
    return CONFD_OK;
}

// Nothing of a commit event lies outside of its record; a second call does no harm.
void confd_free_notification(struct confd_notification *n)
{
    *n = {};
}
