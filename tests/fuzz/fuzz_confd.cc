// Whatever an agent may answer or ask: the decoders of values, keypaths and schema nodes, paths as text, whole replies
// as the client library reads them from a socket, and callbacks as a daemon with all of them serves them.
//
// The first byte of the input picks the reader, so that one corpus file exercises one of them. For replies the rest is
// the payload of each frame that the agent sends on the connection; for callbacks it is a row, a byte that says whether
// the id and the point of something that is open stand before the rest, and the rest of the payload.
#include "agent/client/confd_cdb.h"
#include "agent/client/confd_daemon.h"
#include "agent/client/confd_events.h"
#include "agent/client/confd_internal.h"
#include "agent/client/confd_maapi.h"

#include <cstdlib>
#include <sys/un.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace
{

void require(bool condition)
{
    if (!condition)
        __builtin_trap();
}

// What is taken for a value must come back from its own bytes.
void read_value(std::string_view bytes)
{
    wire_reader_t in(bytes);
    confd_value_t value = wire_get_value(in);
    require(in.ok || value.type == C_NOEXISTS);
    wire_writer_t out;
    wire_put_value(out, value);
    wire_reader_t again(out.bytes);
    confd_value_t copy = wire_get_value(again);
    bool is_nan = value.type == C_DOUBLE || value.type == C_LIST || value.type == C_OBJECTREF; // or may hold one
    require(again.finished() && (is_nan || wire_equal_values(value, copy)));
    (void)confd_value_text(nullptr, copy);
    wire_free_value(copy);
    wire_free_value(value);
}

void read_keypath(std::string_view bytes)
{
    wire_reader_t in(bytes);
    confd_hkeypath_t path;
    if (!wire_get_keypath(in, path))
        return;
    wire_writer_t out;
    wire_put_keypath(out, path);
    confd_hkeypath_t copy;
    wire_reader_t again(out.bytes);
    require(wire_get_keypath(again, copy) && again.finished() && copy.len == path.len);
    parsed_path_t parsed;
    std::string text = confd_keypath_text(path);
    (void)confd_parse_path(text, &parsed);
    wire_free_keypath(copy);
    wire_free_keypath(path);
}

void read_schema_nodes(std::string_view bytes)
{
    wire_reader_t in(bytes);
    wire_schema_node_t node;
    while (in.left > 0 && wire_get_schema_node(in, node))
        require(node.keys.size() <= MAXKEYLEN);
}

void read_path(std::string_view bytes)
{
    parsed_path_t path;
    if (!confd_parse_path(bytes, &path))
        return;
    // Its steps lie in the text, one behind the other, and their keys survive quoting.
    const char *end = bytes.data();
    for (const path_step_t &step : path.steps) {
        require(step.text.data() >= end);
        end = step.text.data() + step.text.size();
        std::string quoted = "/x{";
        for (const std::string &key : step.keys)
            quoted += wire_quote_key(key) + " ";
        parsed_path_t again;
        require(confd_parse_path(quoted + "}", &again) && again.steps[0].keys == step.keys);
    }
}

// ---- replies

int listener = -1;
sockaddr_un address = {};

void listen_once()
{
    if (listener >= 0)
        return;
    address.sun_family = AF_UNIX; // an abstract name, which the kernel picks
    listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    socklen_t size = sizeof address;
    require(bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address.sun_family) == 0);
    require(listen(listener, 4) == 0);
    require(getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size) == 0);
}

void send_all(int fd, std::string_view bytes)
{
    require(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size()));
}

// The client's end of a connection whose other end has sent all that it ever will: pushes, then the replies to two
// requests. The library's own entry is made by hand, since nobody is there to shake hands.
struct played_t {
    int client;
    int agent;
};

played_t play(uint16_t op, std::string_view payload)
{
    listen_once();
    played_t ends = { socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), -1 };
    require(connect(ends.client, reinterpret_cast<sockaddr *>(&address), sizeof address.sun_family + 6) == 0);
    ends.agent = accept(listener, nullptr, nullptr);
    if ((op & WIRE_REPLY) == 0)
        send_all(ends.agent, wire_frame(op, 0, 0, payload));
    else
        for (uint32_t id = 1; id <= 2; id++)
            send_all(ends.agent, wire_frame(op, 0, id, payload));
    shutdown(ends.agent, SHUT_WR);
    return ends;
}

void end_play(played_t ends)
{
    confd_io_forget(ends.client);
    close(ends.client);
    close(ends.agent);
}

cdb_iter_ret recurse(confd_hkeypath_t *kp, cdb_iter_op, confd_value_t *, confd_value_t *, void *)
{
    (void)confd_keypath_text(*kp);
    return ITER_RECURSE;
}

void ask_diff(int sock)
{
    (void)cdb_diff_iterate(sock, 1, recurse, 0, nullptr);
}

void ask_modifications(int sock)
{
    confd_tag_value_t *values = nullptr;
    int n = 0;
    if (cdb_get_modifications(sock, 1, 0, &values, &n, nullptr) != CONFD_OK)
        return;
    for (int i = 0; i < n; i++)
        confd_free_value(&values[i].v);
    free(values);
}

void ask_delivery(int sock)
{
    cdb_sub_notification type;
    int flags = 0, n = 0, *points = nullptr;
    if (cdb_read_subscription_socket2(sock, &type, &flags, &points, &n) == CONFD_OK)
        free(points);
}

void ask_value(int sock)
{
    confd_value_t value;
    if (cdb_get(sock, &value, "/a") == CONFD_OK)
        confd_free_value(&value);
}

void ask_entries(int sock)
{
    maapi_cursor cursor;
    require(maapi_init_cursor(sock, 1, &cursor, "/a") == CONFD_OK);
    while (maapi_get_next(&cursor) == CONFD_OK && cursor.n != 0)
        require(cursor.n <= MAXKEYLEN);
    maapi_destroy_cursor(&cursor);
}

void ask_event(int sock)
{
    confd_notification event;
    (void)confd_read_notification(sock, &event);
    confd_free_notification(&event);
}

struct reply_row_t {
    wire_kind_t kind;
    int op;
    void (*ask)(int sock);
};

constexpr reply_row_t reply_rows[] = {
    { WIRE_KIND_CDB_SUB, WIRE_SUB_DIFF | WIRE_REPLY, ask_diff },
    { WIRE_KIND_CDB_SUB, WIRE_SUB_MODIFICATIONS | WIRE_REPLY, ask_modifications },
    { WIRE_KIND_CDB_SUB, WIRE_SUB_EVENT, ask_delivery },
    { WIRE_KIND_CDB_DATA, WIRE_CDB_GET | WIRE_REPLY, ask_value },
    { WIRE_KIND_MAAPI, WIRE_MAAPI_NEXT | WIRE_REPLY, ask_entries },
    { WIRE_KIND_NOTIF, WIRE_NOTIF_EVENT, ask_event },
};

void read_reply(std::string_view bytes)
{
    constexpr size_t MOST = 32 << 10; // what the socket takes without a reader
    if (bytes.empty() || bytes.size() > MOST)
        return;
    const reply_row_t &row = reply_rows[static_cast<uint8_t>(bytes[0]) % std::size(reply_rows)];
    played_t ends = play(static_cast<uint16_t>(row.op), bytes.substr(1));
    confd_io_adopt(ends.client, row.kind);
    row.ask(ends.client);
    end_play(ends);
}

// ---- callbacks

constexpr uint32_t OPEN_ID = 3; // of the transaction and of the invocation that have begun
constexpr char POINT[] = "point";

int look(const confd_hkeypath_t *kp, int result)
{
    (void)confd_keypath_text(*kp);
    return result;
}

int answer_key(confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    confd_value_t *keys = kp->v[0]; // any number of any values
    int n = 0;
    while (n < MAXKEYLEN && keys[n].type > C_NOEXISTS)
        n++;
    return look(kp, confd_data_reply_next_key(tctx, keys, n, next));
}

int answer_object(confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    confd_tag_value_t value = { { 1, 0 }, kp->v[0][0] };
    return look(kp, confd_data_reply_next_object_tag_value_array(tctx, &value, kp->len > 0, next));
}

int answer_found(confd_trans_ctx *tctx, confd_hkeypath_t *kp, int, confd_value_t *keys, int n)
{
    for (int i = 0; i < n; i++)
        (void)confd_value_text(nullptr, keys[i]);
    return answer_object(tctx, kp, -1);
}

confd_data_cbs data_callbacks()
{
    confd_data_cbs cbs = {};
    strcpy(cbs.callpoint, POINT);
    cbs.exists_optional = [](confd_trans_ctx *t, confd_hkeypath_t *kp) {
        return look(kp, confd_data_reply_found(t));
    };
    cbs.get_elem = [](confd_trans_ctx *t, confd_hkeypath_t *kp) {
        return look(kp, confd_data_reply_value(t, &kp->v[0][0]));
    };
    cbs.get_next = answer_key;
    cbs.set_elem = [](confd_trans_ctx *t, confd_hkeypath_t *kp, confd_value_t *value) {
        confd_trans_seterr(t, "%s", confd_value_text(nullptr, *value).c_str());
        return look(kp, CONFD_ERR);
    };
    cbs.create = [](confd_trans_ctx *, confd_hkeypath_t *kp) {
        return look(kp, CONFD_OK);
    };
    cbs.remove = cbs.create;
    cbs.get_object = [](confd_trans_ctx *t, confd_hkeypath_t *kp) {
        confd_tag_value_t value = { { 1, 0 }, kp->v[0][0] };
        return look(kp, confd_data_reply_tag_value_array(t, &value, kp->len > 0));
    };
    cbs.get_next_object = answer_object;
    cbs.find_next_object = answer_found;
    return cbs;
}

confd_action_cbs action_callbacks()
{
    confd_action_cbs cbs = {};
    strcpy(cbs.actionpoint, POINT);
    cbs.abort = [](confd_user_info *) {
        return CONFD_OK;
    };
    cbs.action = [](confd_user_info *u, xml_tag *, confd_hkeypath_t *kp, confd_tag_value_t *params, int n) {
        return look(kp, confd_action_reply_values(u, params, n));
    };
    cbs.command = [](confd_user_info *u, char *path, int argc, char **argv) {
        for (int i = 0; i < argc; i++)
            confd_action_seterr(u, "%s %s", path, argv[i]);
        return argc > 1 ? CONFD_ERR : CONFD_OK;
    };
    cbs.completion = [](confd_user_info *u, int, char *token, int, confd_hkeypath_t *kp, char *path, char *,
                        confd_qname *type, char *extra) {
        require(type->name.ptr[type->name.size] == 0);
        confd_completion_value values[] = { { CONFD_COMPLETION, token, extra },
                                            { CONFD_COMPLETION_INFO, path, nullptr } };
        return look(kp, confd_action_reply_completion(u, values, 2));
    };
    return cbs;
}

confd_daemon_ctx *make_daemon()
{
    confd_daemon_ctx *dx = confd_init_daemon("fuzz");
    daemon_t &daemon = confd_daemon_of(dx);
    confd_valpoint_cb check = {};
    strcpy(check.valpoint, POINT);
    check.validate = [](confd_trans_ctx *, confd_hkeypath_t *kp, confd_value_t *value) {
        return look(kp, value->type == C_NOEXISTS ? CONFD_OK : 2);
    };
    daemon.data.push_back({ data_callbacks(), ~0u });
    daemon.actions.push_back(action_callbacks());
    daemon.valpoints.push_back(check);
    return dx;
}

struct callback_row_t {
    wire_op_t op;
    bool is_control;
};

constexpr callback_row_t callback_rows[] = {
    { WIRE_CB_TRANS_INIT, true },        { WIRE_CB_VALIDATE_INIT, true }, { WIRE_CB_ACTION_INIT, true },
    { WIRE_CB_ACTION_ABORT, true },      { WIRE_CB_TRANS_FINISH, false }, { WIRE_CB_VALIDATE_STOP, false },
    { WIRE_CB_VALIDATE, false },         { WIRE_CB_EXISTS, false },       { WIRE_CB_GET_ELEM, false },
    { WIRE_CB_GET_NEXT, false },         { WIRE_CB_SET_ELEM, false },     { WIRE_CB_CREATE, false },
    { WIRE_CB_REMOVE, false },           { WIRE_CB_GET_OBJECT, false },   { WIRE_CB_GET_NEXT_OBJECT, false },
    { WIRE_CB_FIND_NEXT_OBJECT, false }, { WIRE_CB_ACTION, false },       { WIRE_CB_COMMAND, false },
    { WIRE_CB_COMPLETION, false },
};

std::string init_payload(bool is_action)
{
    wire_writer_t out;
    out.u32(OPEN_ID);
    if (is_action) {
        out.u32(0);
        out.text(POINT);
    } else {
        out.u8(WIRE_DB_RUNNING);
        out.u8(1);
    }
    out.u32(12);
    for (const char *text : { "admin", "cli", "10.1.1.1" })
        out.text(text);
    return out.bytes;
}

// The frame must be answered once, or the connection must be at its end.
void ask(confd_daemon_ctx *dx, const int (&ends)[2], uint16_t op, std::string_view payload)
{
    send_all(ends[1], wire_frame(op, 0, 1, payload));
    int result = confd_fd_ready(dx, ends[0]);
    char bytes[WIRE_HEADER_SIZE];
    ssize_t n = recv(ends[1], bytes, sizeof bytes, MSG_DONTWAIT);
    require(n == 0 || n == WIRE_HEADER_SIZE);
    if (n == 0)
        return require(result == CONFD_ERR && confd_errno == CONFD_ERR_PROTOUSAGE);
    wire_header_t header = wire_parse_header(bytes);
    require(header.op == (op | WIRE_REPLY) && header.id == 1 && (header.status == 0) == (result == CONFD_OK));
    std::string rest(header.length + 1, 0);
    ssize_t expected = header.length > 0 ? static_cast<ssize_t>(header.length) : -1; // nothing more
    require(recv(ends[1], rest.data(), rest.size(), MSG_DONTWAIT) == expected);
}

void read_callback(std::string_view bytes)
{
    constexpr size_t MOST = 16 << 10; // answered in no more than the socket takes without a reader
    if (bytes.size() < 2 || bytes.size() > MOST)
        return;
    static confd_daemon_ctx *dx = make_daemon();
    daemon_t &daemon = confd_daemon_of(dx);
    int control[2], worker[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, control) == 0);
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, worker) == 0);
    confd_io_adopt(control[0], WIRE_KIND_CONTROL);
    confd_io_adopt(worker[0], WIRE_KIND_WORKER);
    dx->ctrl_fd = control[0];
    daemon.workers = { { worker[0], 0 } };
    ask(dx, control, WIRE_CB_TRANS_INIT, init_payload(false));
    ask(dx, control, WIRE_CB_ACTION_INIT, init_payload(true));

    const callback_row_t &row = callback_rows[static_cast<uint8_t>(bytes[0]) % std::size(callback_rows)];
    wire_writer_t payload;
    if ((bytes[1] & 1) != 0) {
        payload.u32(OPEN_ID);
        payload.text(POINT);
    }
    ask(dx, row.is_control ? control : worker, row.op, payload.bytes + std::string(bytes.substr(2)));

    daemon.transactions.clear();
    daemon.invocations.clear();
    for (int fd : { control[0], worker[0] })
        confd_io_forget(fd);
    for (int fd : { control[0], control[1], worker[0], worker[1] })
        close(fd);
}

constexpr void (*readers[])(std::string_view bytes) = { read_value, read_keypath, read_schema_nodes,
                                                        read_path,  read_reply,   read_callback };

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    std::string bytes(reinterpret_cast<const char *>(data) + 1, size - 1);
    readers[data[0] % std::size(readers)](bytes);
    return 0;
}
