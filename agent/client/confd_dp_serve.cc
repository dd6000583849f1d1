// Serving what the agent asks: one frame in, the user's callback, one frame out.
//
// A frame that cannot be read ends the connection, since nobody could tell what it wanted to be answered. A callback
// that fails is answered with the user's text and told to the caller as CONFD_ERR_EXTERNAL, after which all goes on.
#include "agent/client/confd_daemon.h"

using serve_t = bool (*)(served_call_t &call);

struct callback_row_t {
    wire_op_t op;
    wire_kind_t kind; // of the connection
    serve_t serve;
};

template <trans_party_t party> static bool serve_init(served_call_t &call)
{
    return confd_serve_trans_init(call, party);
}

template <trans_party_t party> static bool serve_end(served_call_t &call)
{
    return confd_serve_trans_end(call, party);
}

template <wire_op_t op> static bool serve_data(served_call_t &call)
{
    return confd_serve_data(call, op);
}

static constexpr callback_row_t callback_rows[] = {
    { WIRE_CB_TRANS_INIT, WIRE_KIND_CONTROL, serve_init<PARTY_DATA> },
    { WIRE_CB_VALIDATE_INIT, WIRE_KIND_CONTROL, serve_init<PARTY_VALIDATION> },
    { WIRE_CB_ACTION_INIT, WIRE_KIND_CONTROL, confd_serve_action_init },
    { WIRE_CB_ACTION_ABORT, WIRE_KIND_CONTROL, confd_serve_action_abort },
    { WIRE_CB_TRANS_FINISH, WIRE_KIND_WORKER, serve_end<PARTY_DATA> },
    { WIRE_CB_VALIDATE_STOP, WIRE_KIND_WORKER, serve_end<PARTY_VALIDATION> },
    { WIRE_CB_VALIDATE, WIRE_KIND_WORKER, confd_serve_validate },
    { WIRE_CB_EXISTS, WIRE_KIND_WORKER, serve_data<WIRE_CB_EXISTS> },
    { WIRE_CB_GET_ELEM, WIRE_KIND_WORKER, serve_data<WIRE_CB_GET_ELEM> },
    { WIRE_CB_GET_NEXT, WIRE_KIND_WORKER, serve_data<WIRE_CB_GET_NEXT> },
    { WIRE_CB_SET_ELEM, WIRE_KIND_WORKER, serve_data<WIRE_CB_SET_ELEM> },
    { WIRE_CB_CREATE, WIRE_KIND_WORKER, serve_data<WIRE_CB_CREATE> },
    { WIRE_CB_REMOVE, WIRE_KIND_WORKER, serve_data<WIRE_CB_REMOVE> },
    { WIRE_CB_GET_OBJECT, WIRE_KIND_WORKER, serve_data<WIRE_CB_GET_OBJECT> },
    { WIRE_CB_GET_NEXT_OBJECT, WIRE_KIND_WORKER, serve_data<WIRE_CB_GET_NEXT_OBJECT> },
    { WIRE_CB_FIND_NEXT_OBJECT, WIRE_KIND_WORKER, serve_data<WIRE_CB_FIND_NEXT_OBJECT> },
    { WIRE_CB_ACTION, WIRE_KIND_WORKER, confd_serve_action },
    { WIRE_CB_COMMAND, WIRE_KIND_WORKER, confd_serve_command },
    { WIRE_CB_COMPLETION, WIRE_KIND_WORKER, confd_serve_completion },
};

static serve_t find_serve(wire_kind_t kind, uint16_t op)
{
    for (const callback_row_t &row : callback_rows)
        if (row.op == op && row.kind == kind)
            return row.serve;
    return nullptr;
}

static std::string frame_of(const wire_header_t &header, const served_call_t &call)
{
    auto op = static_cast<uint16_t>(header.op | WIRE_REPLY);
    if (call.refusal == 0)
        return wire_frame(op, 0, header.id, call.answer.bytes);
    wire_writer_t text;
    text.text(call.reason);
    return wire_frame(op, static_cast<uint16_t>(call.refusal), header.id, text.bytes);
}

static int serve_frame(confd_daemon_ctx *dx, int fd, wire_kind_t kind, const push_t &frame)
{
    const client_socket_t *state = confd_io_find(fd, kind);
    if (state == nullptr)
        return CONFD_ERR;
    uint64_t serial = state->serial;
    std::shared_ptr<daemon_t> daemon = confd_share_daemon(dx);
    served_call_t call = { *daemon, dx, fd, wire_reader_t(frame.payload) };
    serve_t serve = find_serve(kind, frame.header.op);
    if (serve == nullptr || frame.header.id == 0)
        return confd_io_fail_protocol(fd, "the agent asks for an operation that is not known");
    if (!serve(call))
        return confd_io_fail_protocol(fd, "the agent asks with a malformed payload");

    if (int result = confd_io_send(fd, kind, serial, frame_of(frame.header, call)); result != CONFD_OK)
        return result;
    if (call.refusal == 0)
        return CONFD_OK;
    return confd_fail(call.refusal, "%s", call.reason.empty() ? "the callback has failed" : call.reason.c_str());
}

static int next_frame(confd_daemon_ctx *dx, int fd, wire_kind_t kind)
{
    push_t frame;
    int result = confd_io_next_push(fd, kind, &frame);
    return result == CONFD_OK ? serve_frame(dx, fd, kind, frame) : result;
}

static bool has_kept(int fd, wire_kind_t kind)
{
    const client_socket_t *state = confd_io_find(fd, kind);
    return state != nullptr && !state->pushes.empty();
}

int confd_fd_ready(struct confd_daemon_ctx *dx, int fd)
{
    return next_frame(dx, fd, fd == dx->ctrl_fd ? WIRE_KIND_CONTROL : WIRE_KIND_WORKER);
}

// The registration's own result and error are what its caller is told; these are in the debug output.
void confd_serve_kept(confd_daemon_ctx *dx)
{
    int fd = dx->ctrl_fd;
    if (!has_kept(fd, WIRE_KIND_CONTROL))
        return;
    int code = confd_errno;
    std::string text = confd_lasterr();
    std::shared_ptr<daemon_t> daemon = confd_share_daemon(dx);
    while (has_kept(fd, WIRE_KIND_CONTROL) && next_frame(dx, fd, WIRE_KIND_CONTROL) != CONFD_EOF)
        continue;
    (void)confd_fail(code, "%s", text.c_str());
}

// ---- what all callbacks share

callback_state_t &confd_callback_state(void **internal)
{
    if (*internal == nullptr)
        *internal = new callback_state_t;
    return *static_cast<callback_state_t *>(*internal);
}

void confd_set_error(callback_state_t &state, const char *fmt, va_list args)
{
    char text[1024];
    (void)vsnprintf(text, sizeof text, fmt, args); // a longer text is cut
    state.error = text;
}

template <size_t N> static void copy_field(char (&field)[N], std::string_view text)
{
    (void)confd_copy_text(field, N, text);
}

void confd_read_session(wire_reader_t &in, confd_daemon_ctx *dx, confd_user_info *uinfo)
{
    uinfo->usid = static_cast<int>(in.u32());
    copy_field(uinfo->username, in.text());
    copy_field(uinfo->context, in.text());
    copy_field(uinfo->src_addr, in.text());
    uinfo->dx = dx;
    uinfo->worker_fd = -1;
}

int confd_give_answer(served_call_t *call, wire_writer_t &&answer)
{
    if (answer.bytes.size() > WIRE_MAX_FRAME)
        return confd_fail(CONFD_ERR_TOOBIG, "an answer of %zu bytes", answer.bytes.size());
    call->answer = std::move(answer);
    call->is_answered = true;
    return CONFD_OK;
}

static int only_worker(daemon_t &daemon)
{
    std::lock_guard guard(daemon.mutex);
    return daemon.workers.size() == 1 ? daemon.workers.front().fd : -1;
}

void confd_answer_worker(served_call_t &call, int chosen)
{
    int fd = chosen >= 0 ? chosen : only_worker(call.daemon);
    const client_socket_t *worker = fd >= 0 ? confd_io_find(fd, WIRE_KIND_WORKER) : nullptr;
    if (worker == nullptr)
        return call.refuse(CONFD_ERR_UNAVAILABLE, "the daemon's init callback has chosen no worker socket");
    call.answer.u32(worker->hello_id);
}
