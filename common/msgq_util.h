// The message queue: how the platform's daemons talk to each other.
//
// A handle is one connection, named by the pair (source id, target id) of peer ids. It outlives its sockets: a client
// reconnects by itself, a server gives a returning peer back to the same handle, and the application hears of it by
// its up and down callbacks. Messages are length-framed records over a stream socket, with one of two framings: the
// library's own 8-byte header, or (application-header mode) a header that the peers bring along.
//
// Delivery is at most once. Nothing is queued while a connection is down and what was queued is lost with it; the
// application's own resynchronisation in conn_up repairs that.
//
// Everything runs in the thread of the event loop. A handle with the blocking flag stalls that loop: while it
// connects, in its send, and while it reads the answer. Callbacks may call any function of this header, for any
// handle, msgq_free of the handle in hand included.
#ifndef COMMON_MSGQ_UTIL_H
#define COMMON_MSGQ_UTIL_H

#include <cstddef>
#include <cstdint>

struct event_base;
struct timer_mgr_t;
struct msgq_t;

enum msgq_handle_type_t {
    MSGQ_HANDLE_TYPE_SERVER = 1,
    MSGQ_HANDLE_TYPE_CLIENT = 2,
};

// The numbers are those of the socket families of the same name.
enum msgq_sock_type_t {
    MSGQ_SOCK_UNIX = 1,
    MSGQ_SOCK_TCP = 2,
};

enum msgq_result_t {
    MSGQ_OK = 0,
    MSGQ_FAILED = 1,
    MSGQ_SERVER_RUNNING = 6,
    MSGQ_BAD_ARGUMENT = 10,
    MSGQ_NO_RESOURCES = 11,
    MSGQ_NOT_CONNECTED = 14,
};

inline constexpr size_t MSGQ_IP_SIZE = 128;
inline constexpr size_t MSGQ_PATH_SIZE = 64;
inline constexpr size_t MSGQ_APP_HDRLEN_MAX = 64;

// What msgq_init needs to know of a connection; copied.
struct msgq_cfg_t {
    struct event_base *event_base; // required; all handles of a process share the first one's
    timer_mgr_t *timer_mgr;        // required for a client; shared in the same way
    uint32_t no_register;          // 0 or 1: do not send a register message after connect
    uint32_t use_app_header;       // 0 or 1: the application's header frames the messages; implies no_register
    uint32_t app_hdrlen;           // bytes of that header, 1 to MSGQ_APP_HDRLEN_MAX
    uint32_t app_size_offset;      // where in it the big-endian 16-bit size of the whole message stands
    int32_t facility;              // syslog facility of the library's lines; the first msgq_init sets it
    uint32_t sock_type;            // msgq_sock_type_t of a client; servers listen on a Unix path
    uint32_t port;                 // TCP, host byte order
    char ip[MSGQ_IP_SIZE];         // TCP, dotted text
    char path[MSGQ_PATH_SIZE];     // Unix path; empty: "/var/run/.NAME" with the name of the server's daemon
    uint8_t blocking;              // bit 0, clients only: connect, send and read block
};

// conn_up and conn_down may be null, the rest is required. user_arg is the handle's (msgq_init, msgq_set_user_arg).
struct msgq_cbs_t {
    // The connection stands and can be written to.
    void (*conn_up)(msgq_t *msgq_p, void *user_arg);
    // It is closed; the handle waits for the next one.
    void (*conn_down)(msgq_t *msgq_p, void *user_arg);
    // Never called.
    void (*conn_error)(msgq_t *msgq_p, void *user_arg);
    // A complete message, owned by the application from here on, which gives it back with msgq_msg_free. With the
    // library's header msg points behind it and length does not count it; in application-header mode both are of the
    // whole record.
    void (*rx)(msgq_t *msgq_p, void *msg, uint16_t length, void *user_arg);
    // Buffers and queue nodes. Memory must be aligned as malloc's is; free gets what alloc gave.
    void *(*alloc)(size_t size);
    void (*free)(void *memory);
};

// Makes a handle between the peers src (this daemon) and tgt, both 1 to DAEMON_ID_MAX, and starts to listen or to
// connect; it copies cfg and cbs. Null for an id out of range, for want of memory, and when a server cannot listen.
// Incomplete parameters and a second handle of the same ids, type and path fail an assertion. A blocking client
// connects in here, again and again without a pause, until it stands.
[[nodiscard]] msgq_t *msgq_init(uint32_t src, uint32_t tgt, uint32_t type, const msgq_cfg_t *cfg, const msgq_cbs_t *cbs,
                                void *user_arg);

// Closes (conn_down is called if the connection stood) and gives the handle up. Null is fine.
void msgq_free(msgq_t *msgq_p);

// Frees every handle of the process and what they share.
void msgq_free_all();

// A message for size bytes of the application, null for want of memory or when the whole would exceed 65535 bytes.
[[nodiscard]] void *msgq_msg_alloc(msgq_t *msgq_p, uint32_t size);
void msgq_msg_free(msgq_t *msgq_p, void *msg);

// Sends size bytes of a message of msgq_msg_alloc. On MSGQ_OK, and only then, the message belongs to the library;
// after MSGQ_BAD_ARGUMENT, MSGQ_NOT_CONNECTED or MSGQ_NO_RESOURCES it is still the caller's. In application-header
// mode the caller has filled in the header, size included. A blocking handle reads the answer in here: rx runs before
// this returns.
[[nodiscard]] int msgq_write(msgq_t *msgq_p, void *msg, uint32_t size);

// 1 when the handle exists and can be written to, else 0.
[[nodiscard]] int msgq_is_up(const msgq_t *msgq_p);

void msgq_set_user_arg(msgq_t *msgq_p, void *user_arg);

// The mode of the socket itself. MSGQ_NOT_CONNECTED without one, MSGQ_FAILED when fcntl(2) refuses.
int msgq_set_fd_blocking(msgq_t *msgq_p, bool is_blocking);

// Whether writes and reads of the handle take the blocking way. The socket's mode is not touched.
[[nodiscard]] bool msgq_get_blocking(const msgq_t *msgq_p);
void msgq_set_blocking(msgq_t *msgq_p, bool is_blocking);

// Has the loop run the handle's reading once, as if its socket had become readable.
void msgq_schedule_read(msgq_t *msgq_p);

// Process-wide: 1 turns the library's "[MSG]" lines on.
void msgq_debug_set(uint32_t flag);

// Gives a report of every handle and its counters to print, one piece of text at a time. detail other than 0 adds
// what is being read and queued.
using msgq_print_fn_t = void (*)(void *print_arg, const char *text);
void msgq_dump_all(msgq_print_fn_t print, void *print_arg, uint32_t detail);

#endif
