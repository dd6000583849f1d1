// Records of the message queue and what its sources need of each other. Applications include msgq_util.h.
//
// msgq_util.cc holds the instance, init and free; msgq_conn.cc what is the same for every connection: its events, going
// up, closing; msgq_client.cc and msgq_server.cc how a connection comes about; msgq_read.cc and msgq_write.cc the
// traffic; msgq_dump.cc the report.
//
// A handle may be freed by any callback that runs below a function of the library. Whoever calls back, or calls what
// may call back, keeps a msgq_hold: it keeps the memory, and is_released tells that the handle is no longer anyone's.
#ifndef COMMON_MSGQ_INTERNAL_H
#define COMMON_MSGQ_INTERNAL_H

#include "common/daemon_names.h"
#include "common/dll.h"
#include "common/event_handle.h"
#include "common/msgq_util.h"
#include "common/timer.h"
#include "common/tip_assert.h"
#include "common/tip_handle.h"

#include <cstdint>
#include <syslog.h>

inline constexpr uint16_t MAGIC1 = 0xBEAF;
inline constexpr uint8_t MAGIC2 = 0x0C;

enum msgq_hdr_type_t : uint8_t {
    MSGQ_HDR_REGISTER = 1,
    MSGQ_HDR_DATA = 2,
};

// The library's header as it stands on the wire, in host byte order: both ends are on one machine.
struct msgq_hdr_t {
    uint16_t magic1;
    uint16_t size; // of the whole message; above 8 for data, 8 for a register message
    uint8_t src;
    uint8_t tgt;
    uint8_t type; // msgq_hdr_type_t
    uint8_t magic2;
};
static_assert(sizeof(msgq_hdr_t) == 8);

// A message that waits to be sent.
struct msgq_tx_node_t {
    msgq_tx_node_t *next;
    uint16_t offset; // bytes that went out already
    uint16_t size;
    uint8_t *buf_p; // start of the message, whatever went out of it
};

enum msgq_list_id_t : unsigned {
    MSGQ_LIST_REG,   // connected
    MSGQ_LIST_UNREG, // not connected
    MSGQ_LIST_TMP,   // accepted, and not known yet which peer it is
    MSGQ_LISTS,
};

struct msgq_link_t {
    dll_node_t node; // first, so that a node is its link
    msgq_t *owner_p;
};

// Two events of the same purpose, used in turns: the callback of one may schedule the other while it runs.
struct msgq_event_pair_t {
    event_ptr events[2];
    bool is_scheduled[2];
    uint8_t index; // the one to schedule next
};

struct msgq_counters_t {
    uint32_t tx_msg;
    uint32_t tx_fail;
    uint32_t rx_msg;
    uint32_t rx_fail;
    uint32_t tx_resched;
    uint32_t tx_write_cb;
    uint32_t rx_register;
    uint32_t tx_register;
    uint32_t conn_up;
    uint32_t conn_down;
    uint32_t conn_close;
    uint32_t conn_exist;
    uint32_t msg_allocs;
    uint32_t msg_frees;
    uint32_t alloc_failed;
    uint32_t tx_queued;
    uint32_t tx_dequeued;
    uint32_t tx_queue_failed;
    uint32_t rx_read_helper_cb;
    uint32_t rx_read_helper_scheduled;
};

// One listening path.
struct msgq_server_t {
    dll_node_t node; // first: membership of the instance's list
    uint32_t refs;   // handles that share it
    uint32_t src;
    char path[MSGQ_PATH_SIZE];
    listener_ptr listener;
    bool listener_apphdr;
    msgq_t *apphead_msgq_handle_p; // the one handle of an application-header server
};

struct msgq_inst_t {
    dll_t lists[MSGQ_LISTS];
    dll_t servers;
    event_base *base;         // not owned
    timer_mgr_t *timer_mgr_p; // not owned; null while there are only servers
};

struct msgq_t {
    uint32_t src;
    uint32_t tgt;
    uint32_t type;
    int32_t sock_fd; // -1: not connected
    msgq_inst_t *inst_p;
    msgq_server_t *server_p; // null for a client
    msgq_link_t links[MSGQ_LISTS];
    timer_util_t *timer_p; // the connect timer of a non-blocking client
    int connect_errno;     // of the last attempt that failed
    msgq_cbs_t cbs;
    bool no_register : 1;
    bool in_reg_list : 1;
    bool in_unreg_list : 1;
    bool in_tmp_list : 1;
    bool use_app_header : 1;
    bool blocking : 1;
    bool down_pending : 1; // a write failed: the connection is closed from the loop
    uint8_t app_size_offset;
    uint8_t app_hdrlen;
    event_ptr read_event;
    alignas(msgq_hdr_t) uint8_t hdr_buf[MSGQ_APP_HDRLEN_MAX];
    uint16_t bytes_read; // of the message being read, header included
    uint16_t msg_size;
    uint8_t *msg_p; // null until its header is complete
    msgq_event_pair_t write;
    msgq_event_pair_t read_helper;
    void *user_arg;
    uint32_t sock_type;
    uint32_t port;
    msgq_tx_node_t *tx_head_p;
    msgq_tx_node_t *tx_tail_p;
    char ip[MSGQ_IP_SIZE];
    char path[MSGQ_PATH_SIZE];
    msgq_counters_t counters;
    uint32_t holds;   // msgq_hold objects
    bool is_released; // off all lists; the last hold deletes it
};

// Keeps a handle's memory while callbacks run.
class msgq_hold
{
public:
    explicit msgq_hold(msgq_t *msgq_p) : msgq_p_(msgq_p) { ++msgq_p->holds; }
    ~msgq_hold()
    {
        if (--msgq_p_->holds == 0 && msgq_p_->is_released)
            delete msgq_p_;
    }
    msgq_hold(const msgq_hold &) = delete;
    msgq_hold &operator=(const msgq_hold &) = delete;

private:
    msgq_t *msgq_p_;
};

[[nodiscard]] int msgq_facility();
[[nodiscard]] bool msgq_debug_is_on();

#define msgq_err(fmt, ...)                                                                                             \
    syslog(msgq_facility() | LOG_DEBUG, "[MSG-ERR] %s[%d]: " fmt, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define msgq_debug(fmt, ...)                                                                                           \
    (msgq_debug_is_on() ? syslog(msgq_facility() | LOG_DEBUG, "[MSG] " fmt __VA_OPT__(, ) __VA_ARGS__) : (void)0)

// Bytes of the library's own header in front of the application's part.
inline uint16_t msgq_overhead(const msgq_t *msgq_p)
{
    return msgq_p->use_app_header ? 0 : sizeof(msgq_hdr_t);
}

// msgq_util.cc
[[nodiscard]] msgq_inst_t *msgq_instance(); // null before the first msgq_init
// A zeroed handle without a socket, on no list. Null for want of memory.
[[nodiscard]] msgq_t *msgq_new_handle(msgq_inst_t *inst_p, uint32_t type);
// Takes a closed handle off its list, gives up its timer and its share of the server, and the instance with the last.
void msgq_release(msgq_t *msgq_p);

// msgq_conn.cc
void msgq_list_leave(msgq_t *msgq_p);
void msgq_list_move(msgq_t *msgq_p, msgq_list_id_t list);
[[nodiscard]] msgq_t *msgq_list_first(const msgq_inst_t *inst_p, msgq_list_id_t list);
[[nodiscard]] msgq_t *msgq_list_next(const msgq_t *msgq_p, msgq_list_id_t list);
// The events of a handle that has just been given its socket. On false the caller closes.
[[nodiscard]] bool msgq_open_events(msgq_t *msgq_p);
[[nodiscard]] bool msgq_open_read_event(msgq_t *msgq_p, short what);
void msgq_schedule_write(msgq_t *msgq_p);
// Connected: moves the handle to its list and calls conn_up.
void msgq_go_up(msgq_t *msgq_p);
enum class msgq_after_close_t : uint8_t {
    RECONNECT, // clients that do not block
    STAY_DOWN,
};
void msgq_close(msgq_t *msgq_p, msgq_after_close_t after);
void msgq_drop_temporary(msgq_t *tmp_p);
void msgq_buffer_free(msgq_t *msgq_p, void *buf);

// msgq_client.cc
[[nodiscard]] bool msgq_init_start_client(msgq_t *msgq_p);

// msgq_server.cc
[[nodiscard]] int msgq_init_start_server(msgq_t *msgq_p);
// Gives up a handle's share of its server; the last one closes the listener and the temporary handles behind it.
void msgq_server_put(msgq_t *msgq_p);
// The first header on a temporary handle. tmp_p may be gone afterwards.
void msgq_handle_register_msg(msgq_t *tmp_p, const msgq_hdr_t *hdr_p);

// msgq_read.cc
void msgq_read(msgq_t *msgq_p);

// msgq_write.cc
void msgq_flush(msgq_t *msgq_p);
void msgq_drop_queue(msgq_t *msgq_p);
[[nodiscard]] bool msgq_send_register(msgq_t *msgq_p);

#endif
