// Whatever an agent may answer: the decoders of values, keypaths and schema nodes, paths as text, and whole replies as
// the client library reads them from a socket.
//
// The first byte of the input picks the reader, so that one corpus file exercises one of them. For replies the rest is
// the payload of each frame that the agent sends on the connection.
#include "agent/client/confd_cdb.h"
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

constexpr void (*readers[])(std::string_view bytes) = { read_value, read_keypath, read_schema_nodes, read_path,
                                                        read_reply };

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    std::string bytes(reinterpret_cast<const char *>(data) + 1, size - 1);
    readers[data[0] % std::size(readers)](bytes);
    return 0;
}
