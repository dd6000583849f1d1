// What the files of the client library share: errors, the connection behind a socket, requests, paths and texts.
//
// A socket belongs to the user, who may close and reuse its number at any time; what the library knows of it lies in a
// table by number and is cleared when the number is connected anew or closed by the library. A mutex guards the table;
// one thread uses a socket at a time, so an entry itself needs no lock. The exception are worker sockets, on which any
// thread may send notifications: frames go out whole, one after the other, under a mutex of the entry. Entries stay
// where they are for good: there are no more of them than the process ever had descriptors at once.
#ifndef AGENT_CLIENT_CONFD_INTERNAL_H
#define AGENT_CLIENT_CONFD_INTERNAL_H

#include "agent/client/confd_dp.h"
#include "agent/client/confd_lib.h"
#include "agent/wire/wire.h"

#include <cstdarg>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// ---- errors

// Sets confd_errno and the thread's text; always CONFD_ERR.
int confd_fail(int code, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// As above for a reply that does not hold what its operation says.
int confd_fail_malformed(wire_op_t op);
// One line to the stream of confd_init_vsn_sz when its level is at least this.
void confd_debug(confd_debug_level level, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// The name given to confd_init_vsn_sz; empty before.
std::string confd_client_name();

// ---- connections

struct push_t {
    wire_header_t header;
    std::string payload;
};

struct client_socket_t {
    wire_kind_t kind = WIRE_KIND_COUNT;
    uint64_t serial = 0;   // of the connection, unique in the process
    uint32_t hello_id = 0; // that the agent has given: the daemon's (control), the worker's (worker)
    uint32_t next_id = 1;
    std::deque<push_t> pushes;                  // that came while a reply was awaited
    std::string position;                       // of cdb_cd: an absolute path, empty for the root
    std::vector<uint32_t> iterations;           // nodes whose callbacks are running, innermost last
    int user_session = 0;                       // MAAPI: the id of the open one, 0 for none
    std::map<int, std::string> trans_positions; // of maapi_cd, by transaction; as `position`
};

// Connects the socket and sends the hello; its answer goes to *daemon_id when that is not null. The number's old entry
// is cleared, and stays so on failure.
int confd_io_connect(int sock, wire_kind_t kind, uint32_t hello_daemon_id, const sockaddr *srv, int srv_sz,
                     uint32_t *daemon_id);
// Makes the entry of a socket whose hello is done.
void confd_io_adopt(int sock, wire_kind_t kind);
// Null, with the error set, when the socket is not connected for that.
client_socket_t *confd_io_find(int sock, wire_kind_t kind);
// Clears the entry; the descriptor stays open.
void confd_io_forget(int sock);
// As above, unless the number has been connected anew since.
void confd_io_forget_connection(int sock, uint64_t serial);
// Sends one frame that is no request, from any thread. CONFD_EOF when the agent has gone, or when serial is not 0 and
// the number has been connected anew since.
int confd_io_send(int sock, wire_kind_t kind, uint64_t serial, std::string_view frame);
// The agent does not keep to the protocol: shuts the socket down; always CONFD_ERR.
int confd_io_fail_protocol(int sock, const char *what);
// Sends a request and waits for its reply, whose payload goes to *reply (which may be null). CONFD_ERR with the agent's
// number and text when it refuses. A peer that does not keep to the protocol is shut out: the socket is at its end.
int confd_io_request(int sock, wire_kind_t kind, wire_op_t op, const wire_writer_t &request, std::string *reply);
// Waits for the next push.
int confd_io_next_push(int sock, wire_kind_t kind, push_t *push);

// Requests whose replies are all alike; all give CONFD_OK, CONFD_ERR or CONFD_EOF.
int confd_ask_nothing(int sock, wire_kind_t kind, wire_op_t op, const wire_writer_t &request);
int confd_ask_u32(int sock, wire_kind_t kind, wire_op_t op, const wire_writer_t &request, uint32_t *out);
int confd_ask_value(int sock, wire_kind_t kind, wire_op_t op, const wire_writer_t &request, confd_value_t *out);
// 1 or 0 in place of CONFD_OK.
int confd_ask_bool(int sock, wire_kind_t kind, wire_op_t op, const wire_writer_t &request);
// The number in place of CONFD_OK.
int confd_ask_count(int sock, wire_kind_t kind, wire_op_t op, const wire_writer_t &request);

// ---- paths

struct path_step_t {
    std::string_view prefix; // empty without one
    std::string_view name;
    std::string_view text; // the whole step with its keys
    std::vector<std::string> keys;
    int64_t position = -1; // "name[position]": an entry by its place in key order, 0 the first; -1 for none
};

struct parsed_path_t {
    std::vector<path_step_t> steps; // point into the text
    bool is_absolute = false;
    bool is_in_keys = false; // the text ends between the braces of the last step, behind its complete keys
};

// False when the text is no path.
bool confd_parse_path(std::string_view text, parsed_path_t *path);

// Formats a text that is a path or the rest of one that begins with base. False with the error set.
bool confd_format(std::string_view base, const char *fmt, va_list args, std::string *out);
// Formats an absolute path; a relative one is continued from base, and steps of ".." are resolved.
bool confd_format_path(std::string_view base, const char *fmt, va_list args, std::string *out);
// Asks the agent for the keys of a list's entry by its position: CONFD_OK with 1 to MAXKEYLEN keys, which are freed by
// the caller, CONFD_ERR or CONFD_EOF.
struct list_indexer_t {
    virtual int find(const std::string &list, uint32_t position, std::vector<confd_value_t> *keys) = 0;

protected:
    ~list_indexer_t() = default;
};
// Puts keys in the place of positions. CONFD_OK, or what the indexer gives.
int confd_resolve_positions(std::string *path, list_indexer_t &indexer);

// ---- schema and texts

using confd_names_t = std::vector<std::pair<int64_t, std::string>>;

// The node of a path's steps from start (null: the top); null when there is none.
const confd_cs_node *confd_schema_find(const confd_cs_node *start, const parsed_path_t &path);
// The node of a list's key by its position; null when there is none.
const confd_cs_node *confd_schema_key(const confd_cs_node *list, size_t position);
// The hash of the namespace with this prefix, 0 when there is none.
uint32_t confd_schema_prefix(std::string_view prefix);

// Text of a value as people read it; node may be null.
std::string confd_value_text(const confd_cs_node *node, const confd_value_t &value);
// Null when there is no label for the value.
const char *confd_value_label(const confd_cs_node *node, const confd_value_t &value);
std::string confd_keypath_text(const confd_hkeypath_t &path);
// As snprintf.
int confd_copy_text(char *buf, int bufsiz, std::string_view text);

// ---- values in frames

// Tagged values with their number, as children of the node (null: not known). A namespace of 0 becomes that of the
// schema's node where there is one; else it stays, which the agent takes for the parent's.
void confd_put_tag_values(wire_writer_t &out, const confd_cs_node *node, const confd_tag_value_t *values, int count);
// Keys in a frame: u8 count, values.
void confd_put_keys(wire_writer_t &out, const confd_value_t *keys, int count);
// Hands over the values of a leaf-list; anything else is freed and refused. path is for the text.
int confd_take_list(confd_value_t *value, const char *path, confd_value_t **values, int *nvalues);
// The agent's number of a datastore: false with the error set when it has none.
bool confd_put_db(wire_writer_t *request, enum confd_dbname db);
// CONFD_NO_DB when the agent's number is not known.
enum confd_dbname confd_db_of_wire(uint8_t db);

// ---- transactions of callbacks

// Frees what the library keeps with the context.
void confd_trans_release(confd_trans_ctx *tctx);

#endif
