// The protocol between the agent and everything that talks to it, on 127.0.0.1 port 4565.
//
// A connection is a stream of frames in both directions: a header of 12 bytes in host byte order (both ends are on one
// machine), then a payload. The first frame of a connection is WIRE_HELLO, which says what the connection is for. A
// request is answered by one frame with the same op and id and WIRE_REPLY set; its status is 0 or one of
// confd_errcode_num, and the payload of a failed reply is one text. Requests of one connection are answered in order.
// The agent also sends frames of its own: pushes (id 0), which are not answered, and callbacks (an id of the agent's,
// never 0), which the client answers like a request: same op and id with WIRE_REPLY. On one connection the agent waits
// for the answer to one callback before it makes the next.
//
// Payload items: u8, u16, u32, u64, i32 as they are; text = u32 length and bytes (no NUL); value = u8 type and the
// type's items; keypath = u32 count and, outermost first, elements: u8 0 and tag, ns (u32 each), or u8 1, u8 count and
// key values. A path is text in the form "/vpn/vpn-instance{5}/name", keys in braces separated by blanks, a key that
// holds blanks, braces or quotes in double quotes with backslash as escape.
//
// Everything read from a frame is bounded: wire_reader_t never reads behind the payload, and a failed read makes all
// later ones fail, so one test of `ok` at the end is enough.
#ifndef AGENT_WIRE_WIRE_H
#define AGENT_WIRE_WIRE_H

#include "agent/wire/confd_value.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

inline constexpr uint16_t WIRE_PORT = 4565;
inline constexpr uint16_t WIRE_VERSION = 1;
inline constexpr uint32_t WIRE_MAX_FRAME = 64u << 20; // payload bytes
inline constexpr uint32_t WIRE_MAX_HELLO = 4096;      // payload bytes of a first frame
inline constexpr size_t WIRE_HEADER_SIZE = 12;
inline constexpr uint16_t WIRE_REPLY = 0x8000; // or'ed to the op of a reply

struct wire_header_t {
    uint32_t length; // payload bytes
    uint16_t op;     // wire_op, WIRE_REPLY or'ed in replies
    uint16_t status; // replies: 0 or an error number; otherwise 0
    uint32_t id;     // chosen by the requester, copied to the reply; 0 in pushes
};
static_assert(sizeof(wire_header_t) == WIRE_HEADER_SIZE);

// What a connection is for; the second item of WIRE_HELLO.
enum wire_kind_t : uint8_t {
    WIRE_KIND_CONTROL = 0, // of a daemon context: registrations, new transactions and actions
    WIRE_KIND_WORKER = 1,  // of a daemon context: callbacks
    WIRE_KIND_CDB_SUB = 2, // subscriptions
    WIRE_KIND_CDB_DATA = 3,
    WIRE_KIND_MAAPI = 4, // user sessions and transactions; the operator's CLI is one
    WIRE_KIND_NOTIF = 5, // agent events
    WIRE_KIND_SCHEMA = 6,
    WIRE_KIND_ADMIN = 7, // agent_cmd, the system manager
    WIRE_KIND_COUNT
};

enum wire_db_t : uint8_t { // CDB_* of the client library
    WIRE_DB_RUNNING = 1,
    WIRE_DB_STARTUP = 2,
    WIRE_DB_OPERATIONAL = 3,
    WIRE_DB_PRE_COMMIT_RUNNING = 4,
    WIRE_DB_CANDIDATE = 5, // transactions only
};

enum wire_op_t : uint16_t {
    // Any connection.
    WIRE_HELLO = 1, // u16 version, u8 kind, text client name, u32 pid, text secret, u32 daemon id (worker: the one that
                    // its control connection was given; else 0) -> u32 daemon id (control), u32 worker id (worker: what
                    // callbacks that choose a worker answer), else 0

    // Schema connection.
    WIRE_SCHEMA = 10, // - -> u32 n, n * (text module name, text prefix, text namespace, u32 ns hash),
                      //      u32 n, n * schema node: see wire_schema_node_t, parents before children

    // CDB data connection.
    WIRE_CDB_GET_PHASE = 20,     // - -> u32 phase, u32 flags
    WIRE_CDB_WAIT_START = 21,    // - -> - ; answered when the agent is in phase 1 or later
    WIRE_CDB_START_SESSION = 22, // u8 db, u32 flags (1 lock, 4 wait for the lock) -> -
    WIRE_CDB_END_SESSION = 23,   // - -> -
    WIRE_CDB_GET = 24,           // text path -> value (C_DEFAULT never: defaults are given as values)
    WIRE_CDB_EXISTS = 25,        // text path -> u8
    WIRE_CDB_NUM_INSTANCES = 26, // text path of a list -> u32
    WIRE_CDB_SET_ELEM = 27,      // text path, value -> - ; operational only, creates the list entries above
    WIRE_CDB_CREATE = 28,        // text path -> -
    WIRE_CDB_DELETE = 29,        // text path -> -
    WIRE_CDB_TRIGGER = 30,       // u8 operational, u32 flags, u32 n, n * i32 subscription ids -> - ; when all synced
    WIRE_CDB_INDEX = 31,         // text path of a list, u32 position in key order -> u8 keys, values
    WIRE_CDB_SET_VALUES = 32, // text path, u32 n, n * (u32 tag, u32 ns, value) -> - ; operational, one change: leaves,
                              // containers between C_XMLBEGIN and C_XMLEND, C_NOEXISTS deletes

    // CDB subscription connection.
    WIRE_SUB_SUBSCRIBE = 40,     // u8 kind (wire_sub_kind_t), u32 flags, i32 priority, u32 ns, text path -> i32 id
    WIRE_SUB_DONE = 41,          // - -> -
    WIRE_SUB_EVENT = 42,         // push: u8 type (1 prepare 2 commit 3 abort 4 operational), u32 flags, u32 n, n * i32.
                                 //   Never while a request of the connection is unanswered: a client that polls the
                                 //   socket would not see a delivery that came before the reply to its sync
    WIRE_SUB_DIFF = 43,          // i32 id, u32 node (0: the changes at the point itself, else below that node) ->
                                 //   u32 n, n * (u32 node, u8 op, keypath, value old, value new)
    WIRE_SUB_MODIFICATIONS = 44, // i32 id, u32 flags, text path or empty -> u32 n, n * (u32 tag, u32 ns, value)
    WIRE_SUB_MODIFICATIONS_AT = 45, // u32 node (of WIRE_SUB_DIFF), u32 flags -> as above
    WIRE_SUB_SYNC = 46,             // u8 type (1: priority level done) -> -
    WIRE_SUB_ABORT = 47,            // i32 error, u32 ns, u32 tag, text -> - ; in a prepare

    // MAAPI connection.
    WIRE_MAAPI_START_SESSION = 60, // text user, text context, text source address, u16 port -> u32 session id
    WIRE_MAAPI_END_SESSION = 61,   // - -> -
    WIRE_MAAPI_START_TRANS = 62,   // u8 db, u8 writable, u32 flags -> u32 th ; a change of the candidate is seen by all
                                   // once applied
    WIRE_MAAPI_FINISH_TRANS = 63,  // u32 th -> -
    WIRE_MAAPI_VALIDATE_TRANS = 64, // u32 th -> -
    WIRE_MAAPI_APPLY_TRANS = 65,    // u32 th, u8 keep open -> - ; on success the transaction is open and empty if kept
    WIRE_MAAPI_ATTACH_INIT = 66,    // - -> u32 th ; the init transaction, phase 1 only
    WIRE_MAAPI_GET = 67,            // u32 th, text path -> value
    WIRE_MAAPI_EXISTS = 68,         // u32 th, text path -> u8
    WIRE_MAAPI_SET = 69,            // u32 th, text path, value -> -
    WIRE_MAAPI_SET_TEXT = 70,       // u32 th, text path, text value -> -
    WIRE_MAAPI_CREATE = 71,         // u32 th, text path -> -
    WIRE_MAAPI_DELETE = 72,         // u32 th, text path -> -
    WIRE_MAAPI_NUM_INSTANCES = 73,  // u32 th, text path -> u32
    WIRE_MAAPI_NEXT = 74,   // u32 th, text path of a list, u8 keys, values of the entry before or none, u32 most ->
                            //   u32 n, n * (u8 keys, values); fewer than most: the list ends here
    WIRE_MAAPI_LOCK = 75,   // u8 db -> -
    WIRE_MAAPI_UNLOCK = 76, // u8 db -> -
    WIRE_MAAPI_PRIO_MESSAGE = 77,        // text user or "all", text message -> -
    WIRE_MAAPI_MESSAGE = 78,             // push to the addressed user's sessions: text
    WIRE_MAAPI_INSTALL_CRYPTO_KEYS = 79, // - -> binary keys (text item)
    WIRE_MAAPI_SHOW = 80,      // u32 th (0: the operational data), text path ("/" all), u8 format (0 JSON 1 XML),
                               //   u32 flags (1: with defaults) -> text
    WIRE_MAAPI_COMPARE = 81,   // u32 th -> u32 n, n * (u8 op, text path, text old, text new): what apply would change
    WIRE_MAAPI_LOAD = 82,      // u32 th, u8 format, text document (merged into the transaction) -> -
    WIRE_MAAPI_PROGRESS = 83,  // push while a transaction is applied: text (who is being served)
    WIRE_MAAPI_ATTACH = 84,    // u32 th -> - ; makes the transaction of a callback usable from this connection too
    WIRE_MAAPI_DETACH = 85,    // u32 th -> - ; the connection lets go of it, the transaction stays open
    WIRE_MAAPI_ACTION = 86,    // u32 th (0: none), text path of an action or rpc, text input (JSON object of its
                               //   parameters, empty: none) -> text output (JSON object, empty: none)
    WIRE_MAAPI_INTERRUPT = 87, // - , no reply: what this connection waits for should end early; served at once, also
                               //   while another request of the connection is unanswered
    WIRE_MAAPI_COMPLETE =
        88, // u32 th (0: none), text path of a leaf that is to be set, text token, u8 character (9 tab,
            //   63 '?') -> u32 n, n * (u8 kind, text value, text extra)
    WIRE_MAAPI_CLI_WRITE = 89, // u32 session id, text -> - ; becomes WIRE_MAAPI_OUTPUT there, before this reply
    WIRE_MAAPI_OUTPUT = 90,    // push to a session whose action or command prints: text
    WIRE_MAAPI_WALK = 91,      // u32 th (0: the operational data), text path ("/" all), u32 flags (1: with defaults)
                               //   -> u32 walk ; of a session, at most 16 open at once
    WIRE_MAAPI_WALK_NEXT = 92, // u32 walk, u32 most (items) -> u8 at end, u32 n, n * item (wire_walk_item_t)
    WIRE_MAAPI_WALK_STOP = 93, // u32 walk -> -
    WIRE_MAAPI_SET_FLAGS = 94, // u32 th, u32 flags (wire_trans_flag_t) -> - ; until set anew
    WIRE_MAAPI_MOVE = 95,      // u32 th, text path of an entry of a user-ordered list, u8 where (wire_move_t), u8 keys,
                               //   values of the entry before or behind which it goes (else none) -> -
    WIRE_MAAPI_CANDIDATE_COMMIT = 96,  // - -> - ; the candidate's changes become running
    WIRE_MAAPI_CANDIDATE_DISCARD = 97, // - -> - ; the candidate is as running

    // Control connection.
    WIRE_REG_TRANS_CB = 100,     // - -> -
    WIRE_REG_VALIDATE_CB = 101,  // - -> -
    WIRE_REG_DATA_CB = 102,      // text callpoint, u32 bits of the callbacks set -> -
    WIRE_REG_VALPOINT = 103,     // text validation point -> -
    WIRE_REG_ACTION = 104,       // text action point, u32 bits of the callbacks set -> -
    WIRE_REG_NOTIF_STREAM = 105, // text stream name, u8 replay callbacks -> u32 handle
    WIRE_REG_SNMP_NOTIF = 106,   // text notify name, text context name -> u32 handle
    WIRE_REG_DONE = 107,         // - -> -

    // Worker connection, from the client; no replies, as another thread may be serving a callback.
    WIRE_NOTIFY_SEND = 110, // u32 handle of the stream, datetime value, u32 n, n * (u32 tag, u32 ns, value): the
                            //   notification from its C_XMLBEGIN to its C_XMLEND
    WIRE_NOTIFY_SNMP = 111, // u32 handle, text notify name (empty: the registered one), text notification, u32 n,
                            //   n * (text variable, value)

    // Notification connection.
    WIRE_NOTIF_SUBSCRIBE = 120, // u32 mask, u32 interval in ms -> -
    WIRE_NOTIF_EVENT = 121,     // push: u32 type (a bit of the mask), then for WIRE_NOTIF_COMMIT_SIMPLE:
                                //   u8 db, u32 session id, text user, text context, text source address
    WIRE_STREAM_SUBSCRIBE =
        122,                 // text stream, value start (C_DATETIME: replay from there; C_NOEXISTS: none), value stop
                             //   (C_DATETIME or C_NOEXISTS) -> -
    WIRE_STREAM_EVENT = 123, // push: u8 kind (wire_stream_event_t), datetime value, text JSON document of the
                             //   notification (kind 0)

    // Admin connection.
    WIRE_ADMIN_PHASE = 140,  // u32 phase wanted (2) -> u32 phase; goes there, or says where it is (0 wanted)
    WIRE_ADMIN_STATUS = 141, // - -> text: JSON object for people and scripts
    WIRE_ADMIN_DUMP = 142,   // u8 db, u8 format (0 JSON 1 XML) -> text
    WIRE_ADMIN_STOP = 143,   // - -> -

    // Callbacks. "session" stands for: u32 id, text user, text context, text source address.
    // On control connections: the client chooses the worker that will serve.
    WIRE_CB_TRANS_INIT = 160,    // u32 th, u8 db, u8 writable, session -> u32 worker id
    WIRE_CB_VALIDATE_INIT = 161, // as above
    WIRE_CB_ACTION_INIT = 162,   // u32 invocation, u32 th (0: none), text action point, session -> u32 worker id
    WIRE_CB_ACTION_ABORT = 163,  // u32 invocation -> -
    // On worker connections, for a transaction.
    WIRE_CB_TRANS_FINISH = 170,     // u32 th -> -
    WIRE_CB_VALIDATE_STOP = 171,    // u32 th -> -
    WIRE_CB_VALIDATE = 172,         // u32 th, text validation point, keypath, value (C_NOEXISTS: deleted) -> -
    WIRE_CB_EXISTS = 173,           // u32 th, text callpoint, keypath -> u8
    WIRE_CB_GET_ELEM = 174,         // u32 th, text callpoint, keypath -> value (C_NOEXISTS: not found)
    WIRE_CB_GET_NEXT = 175,         // u32 th, text callpoint, keypath of the list, i64 next (-1: first) ->
                                    //   i64 next, u8 keys, values (no keys: the end)
    WIRE_CB_SET_ELEM = 176,         // u32 th, text callpoint, keypath, value -> -
    WIRE_CB_CREATE = 177,           // u32 th, text callpoint, keypath -> -
    WIRE_CB_REMOVE = 178,           // u32 th, text callpoint, keypath -> -
    WIRE_CB_GET_OBJECT = 179,       // u32 th, text callpoint, keypath -> objects: none or one
    WIRE_CB_GET_NEXT_OBJECT = 180,  // u32 th, text callpoint, keypath of the list, i64 next -> objects
    WIRE_CB_FIND_NEXT_OBJECT = 181, // u32 th, text callpoint, keypath of the list, u8 type (wire_find_t), u8 keys,
                                    //   values (none: from the start) -> objects
                                    // objects: u32 time-out in ms (0: the agent's), u8 at end, u32 n,
                                    //   n * (i64 next, u32 m, m * (u32 tag, u32 ns, value))
    // On worker connections, for an action.
    WIRE_CB_ACTION = 190,  // u32 invocation, text action point, u32 tag, u32 ns, keypath of the action, u32 n,
                           //   n * (tag, ns, value) -> u32 n, n * (tag, ns, value)
    WIRE_CB_COMMAND = 191, // u32 invocation, text action point, text path, u32 n, n * text (argv, its name first) -> -
    WIRE_CB_COMPLETION =
        192, // u32 invocation, text action point, u8 CLI style, text token, u8 character, keypath of the
             //   leaf, text command path, text parameter, text type prefix, text type name, text extra
             //   -> u32 n, n * (u8 kind, text value, text extra)
};

enum wire_sub_kind_t : uint8_t {
    WIRE_SUB_CONFIG = 1,
    WIRE_SUB_CONFIG_TWO_PHASE = 2,
    WIRE_SUB_OPERATIONAL = 3,
};

enum wire_iter_op_t : uint8_t { // MOP_* of the client library
    WIRE_MOP_CREATED = 1,
    WIRE_MOP_DELETED = 2,
    WIRE_MOP_MODIFIED = 3,
    WIRE_MOP_VALUE_SET = 4,
    WIRE_MOP_MOVED_AFTER = 5,
    WIRE_MOP_ATTR_SET = 6,
};

// The order of entries of a user-ordered list (RFC 7950, section 7.7.8); MAAPI_MOVE_* of the client library.
enum wire_move_t : uint8_t {
    WIRE_MOVE_FIRST = 1,
    WIRE_MOVE_BEFORE = 2,
    WIRE_MOVE_AFTER = 3,
    WIRE_MOVE_LAST = 4,
};

enum wire_trans_flag_t : uint32_t {
    WIRE_TRANS_NO_DEFAULTS = 2, // a leaf that has only its default reads as C_DEFAULT, and does not exist
};

enum wire_find_t : uint8_t {
    WIRE_FIND_NEXT = 0,         // the first entry behind the keys
    WIRE_FIND_SAME_OR_NEXT = 1, // the entry with the keys, or the first behind
};

enum wire_stream_event_t : uint8_t {
    WIRE_STREAM_NOTIFICATION = 0,
    WIRE_STREAM_REPLAY_COMPLETE = 1,
    WIRE_STREAM_COMPLETE = 2, // the stop time has come
};

// What a walk meets, in the order of the model, list entries in key order.
enum wire_walk_item_t : uint8_t { // item: u8 this, then
    WIRE_WALK_CONTAINER = 1,      // text name ; an end follows
    WIRE_WALK_ENTRY = 2,          // text name, u8 n, n * text key in the order of the model ; an end follows
    WIRE_WALK_LEAF = 3,           // text name, text canonical value ; keys are told with their entry only
    WIRE_WALK_LEAF_LIST = 4,      // text name, u32 n, n * text
    WIRE_WALK_END = 5,            // -
    WIRE_WALK_NOTE = 6,           // text: what below here could not be read, and why
};                                // names are as in JSON (RFC 7951): "module:name" where the module is not the parent's

inline constexpr uint32_t WIRE_LOCK_SESSION = 1;
inline constexpr uint32_t WIRE_LOCK_WAIT = 4;
inline constexpr uint32_t WIRE_SUB_FLAG_TRIGGERED = 2; // of WIRE_SUB_EVENT: not a commit, but a read that was asked for
inline constexpr uint32_t WIRE_MODS_LISTS = 1;         // modifications with list entries
inline constexpr uint32_t WIRE_NOTIF_COMMIT_SIMPLE = 8;
inline constexpr uint8_t WIRE_CONFD_RUNNING = 2; // running, as commit notifications number it

enum wire_node_flag_t : uint16_t {
    WIRE_NODE_LIST = 1,
    WIRE_NODE_CONTAINER = 2,
    WIRE_NODE_PRESENCE = 4,
    WIRE_NODE_LEAF = 8,
    WIRE_NODE_LEAF_LIST = 16,
    WIRE_NODE_KEY = 32,
    WIRE_NODE_CONFIG = 64,
    WIRE_NODE_ACTION = 128, // the action or rpc itself
    WIRE_NODE_PARAM = 256,  // below one
    WIRE_NODE_NOTIF = 512,  // a notification or below one
};

struct wire_schema_node_t { // each item in this order
    std::string name;
    uint32_t tag = 0;
    uint32_t ns = 0;
    uint32_t parent = 0;        // 1-based index of the parent in the sequence, 0 for a top-level node
    uint16_t flags = 0;         // wire_node_flag_t
    uint8_t type = 0;           // confd_vtype of a leaf's values, C_XMLTAG for others; a union: C_NOEXISTS
    std::vector<uint32_t> keys; // u8 n, n * tag: a list's keys in order
    std::vector<std::pair<int64_t, std::string>> names; // u32 n, n * (u64 number, text): labels of an enumeration or
                                                        // of bits (number is the position), names of identities (hash)
};

// Growing payload.
struct wire_writer_t {
    std::string bytes;

    void u8(uint8_t v) { put(&v, sizeof v); }
    void u16(uint16_t v) { put(&v, sizeof v); }
    void u32(uint32_t v) { put(&v, sizeof v); }
    void u64(uint64_t v) { put(&v, sizeof v); }
    void i64(int64_t v) { put(&v, sizeof v); }
    void i32(int32_t v) { put(&v, sizeof v); }
    void text(std::string_view v)
    {
        u32(static_cast<uint32_t>(v.size()));
        bytes.append(v);
    }
    void put(const void *data, size_t size) { bytes.append(static_cast<const char *>(data), size); }
};

// Reads a payload without ever leaving it. After a failed read `ok` is false and all further reads give 0 or nothing.
struct wire_reader_t {
    const char *next = nullptr;
    size_t left = 0;
    bool ok = true;

    explicit wire_reader_t(std::string_view payload) : next(payload.data()), left(payload.size()) {}

    uint8_t u8() { return get<uint8_t>(); }
    uint16_t u16() { return get<uint16_t>(); }
    uint32_t u32() { return get<uint32_t>(); }
    uint64_t u64() { return get<uint64_t>(); }
    int32_t i32() { return get<int32_t>(); }
    int64_t i64() { return get<int64_t>(); }
    // Points into the payload.
    std::string_view text() { return raw(u32()); }
    std::string_view raw(size_t size);
    // A count of items of at least item_size bytes each: 0 and !ok when the payload cannot hold as many.
    uint32_t count(size_t item_size);
    // True when all was read and nothing failed.
    [[nodiscard]] bool finished() const { return ok && left == 0; }

private:
    template <typename T> T get()
    {
        T v{};
        std::string_view bytes = raw(sizeof v);
        if (bytes.size() == sizeof v)
            __builtin_memcpy(&v, bytes.data(), sizeof v);
        return v;
    }
};

// One frame, ready to send.
[[nodiscard]] std::string wire_frame(uint16_t op, uint16_t status, uint32_t id, std::string_view payload);
// Takes the header at the start of bytes, of which there are at least WIRE_HEADER_SIZE.
[[nodiscard]] wire_header_t wire_parse_header(const char *bytes);

// Values. What wire_get_value gives owns malloc'ed memory (text gets a NUL behind it): free with wire_free_value. On
// failure the reader is not ok and the value is C_NOEXISTS. Lists and object references nest at most 4 deep. Text is
// always read as C_BUF, whether it was put as C_STR or C_BUF.
void wire_put_value(wire_writer_t &out, const confd_value_t &value);
[[nodiscard]] confd_value_t wire_get_value(wire_reader_t &in);
// The value is C_NOEXISTS afterwards.
void wire_free_value(confd_value_t &value);
// A copy that owns its memory.
[[nodiscard]] confd_value_t wire_copy_value(const confd_value_t &value);
// Same type and same content; C_STR and C_BUF of the same text are the same.
[[nodiscard]] bool wire_equal_values(const confd_value_t &a, const confd_value_t &b);

void wire_put_keypath(wire_writer_t &out, const confd_hkeypath_t &path);
// False, with nothing to free, when the payload holds no keypath within MAXDEPTH and MAXKEYLEN.
[[nodiscard]] bool wire_get_keypath(wire_reader_t &in, confd_hkeypath_t &path);
void wire_free_keypath(confd_hkeypath_t &path);

// Tagged values, as they stand in frames: u32 tag, u32 ns, value. What wire_get_tag_values gives is freed with
// wire_free_tag_values; on failure the reader is not ok and nothing is left to free.
void wire_put_tag_values(wire_writer_t &out, const confd_tag_value_t *values, size_t count); // with their number before
[[nodiscard]] std::vector<confd_tag_value_t> wire_get_tag_values(wire_reader_t &in);
void wire_free_tag_values(std::vector<confd_tag_value_t> &values);

void wire_put_schema_node(wire_writer_t &out, const wire_schema_node_t &node);
[[nodiscard]] bool wire_get_schema_node(wire_reader_t &in, wire_schema_node_t &node);

// Hash of a node name (tag) or of a namespace URI, never 0: 32-bit FNV-1a. One name has one tag in all modules.
[[nodiscard]] uint32_t wire_hash(std::string_view name);

// A key as it stands between the braces of a path: quoted when it has to be.
[[nodiscard]] std::string wire_quote_key(std::string_view key);

#endif
