// tconfd: the layer between a daemon and the management agent.
//
// A daemon fills one registration record and gets a module context. The layer keeps the connections to the agent,
// registers the daemon's validation points, actions and data callbacks, subscribes the rows of its table, does the
// initial read when it is the daemon's turn, and hands every committed change to the handler of its row. When any
// connection to the agent closes, all of them are torn down and rebuilt by a timer; the daemon's own tables survive.
//
// Everything runs in the daemon's main loop but for the short-lived threads that block in the agent, which share with
// the loop only what their records list (tconfd_internal.h).
#ifndef TCONFD_TCONFD_API_H
#define TCONFD_TCONFD_API_H

#include "common/timer.h"
#include "common/tip_handle.h"

#include <confd_cdb.h>
#include <confd_dp.h>
#include <confd_events.h>
#include <confd_lib.h>
#include <confd_maapi.h>
#include <cstdarg>
#include <cstdint>
#include <ctime>
#include <event2/event.h>
#include <netinet/in.h>
#include <pthread.h>

struct tconfd_ctx;
struct tconfd_sub;

// Results of the layer; agent results are passed through where a function says so.
enum tconfd_result_t {
    TCONFD_OK = 0,
    TCONFD_FAILED = 1,
    TCONFD_NO_MEMORY = 2,
    TCONFD_RETRY = 3, // not connected yet: a retry is scheduled, which is a normal start
};

// A configuration handler: called once per changed instance of its row. keys are the list keys, outermost first; tv
// holds all that changed below the instance and is null when op is MOP_DELETED. Both live for the call only. Anything
// but 0 ends the process once the transaction is committed: refuse at validation, not here.
using tconfd_handler_t = int32_t (*)(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys,
                                     uint16_t num_tv, confd_tag_value_t *tv);

// Rows of a bulk table: handler gets 1 in the place of op for a deleted instance, else 0.
struct tconfd_bulk_list {
    char path[128]; // of the list, below the row's path, as a path from the top
    tconfd_handler_t handler;
};

enum tconfd_sub_flag_t : uint8_t {
    TCONFD_SUB_BULK_COUNT = 0x0f, // how many bulk lists
    TCONFD_SUB_OPER = 16,         // operational data
    TCONFD_SUB_TWO_PHASE = 32,
    TCONFD_SUB_READ_DONE = 64, // set by the first triggered delivery, for good
    TCONFD_SUB_FAILED = 128,   // the last delivery failed
};

inline constexpr uint8_t TCONFD_SUB_IN_PROGRESS = 1;

// One row of a subscription table; the table ends with an empty path. The fields from add_subid on change at run time,
// save num_keys and priority.
struct tconfd_sub {
    tconfd_ctx *ctx; // owner, stored when subscribing
    char path[128];  // below the namespace, no leading slash
    tconfd_handler_t handler;
    tconfd_bulk_list *bulk_lists; // null for none
    uint32_t ns;                  // namespace hash of the module
    uint32_t add_subid;
    uint32_t del_subid;
    uint8_t num_keys;  // keys expected on a change; 0 selects the delivery without keys
    uint8_t priority;  // low nibble: of adds; high nibble: of deletes, 0 for none. Lower numbers are served first
    uint8_t flags;     // tconfd_sub_flag_t
    uint8_t state;     // TCONFD_SUB_IN_PROGRESS
    time_t last_start; // wall clock of the last delivery
    time_t last_end;   // wall clock of the last success
};

// Which agent events the daemon wants.
struct tconfd_notif_reg {
    uint32_t mask;     // CONFD_NOTIF_*
    uint32_t interval; // ms, of periodic events; 0 for none
    // Called for every readable event, also after an error or a close: the event may hold anything.
    void (*callback)(tconfd_ctx *ctx, confd_notification *event);
};

struct tconfd_registration {
    void *app_ctx;                // the application's state; required
    tconfd_sub *subs;             // required; of static life, since threads that were left behind may still read it
    confd_valpoint_cb *valpoints; // ended by an empty name; required
    confd_action_cbs *actions;    // ended by an empty name; required
    confd_notification_ctx *notif_ctx;               // out: the notification stream
    tconfd_notif_reg *notif_reg;                     // null: no notification socket
    confd_notification_ctx *snmp_notif_ctx;          // out: the SNMP notifications
    int (*register_data_cbs)(tconfd_ctx *ctx);       // non-zero is failure; required
    // At the end of each delivery; may be null. triggered: not 0 behind a read that has come to its end.
    void (*sync_cb)(tconfd_ctx *ctx, int triggered);
    void (*post_init_cb)(tconfd_ctx *ctx);           // at the end of each successful connection; may be null
    struct event_base *event_base;                   // required
    timer_mgr_t *timer_mgr;                          // required
    uint8_t module_id;                               // the daemon's peer id
};

struct tconfd_sub_thread;

// The module context. Owned by the layer from tconfd_module_init to tconfd_module_free.
struct tconfd_ctx {
    tconfd_registration reg; // first, so that the first field of a context is the application's
    uint32_t initial_read_subid;
    confd_daemon_ctx *daemon_ctx;
    tconfd_ctx *primary_ctx;   // set in a secondary context only: its owner
    tconfd_ctx *secondary_ctx; // owned; null for none
    event *ctrl_event, *work_event, *subscr_event, *notif_event, *pipe_event;
    timer_util_t *retry_timer;                                        // only while reconnecting
    int32_t pipe_fd[2];                                               // threads tell the loop: see tconfd_pipe_cb
    int32_t ctrl_fd, subscr_fd, work_fd, data_fd, maapi_fd, notif_fd; // -1 when closed; notif_fd 0 when unused
    uint32_t initial_read_done;                                       // 1 after the initial read of this process
    pthread_t oper_thread;         // the last thread of tconfd_set_cdb_oper_value, 0 when none has run
    tconfd_sub_thread *sub_thread; // the registration thread of this connection; shared with it
    uint32_t live_threads;         // threads that still use the context
    uint32_t initial_reads;        // that run; another one would deliver everything a second time
    uint32_t validations;          // begun: what a validator has found holds until the next one begins
};

// ---- module (tconfd_api.cc)

// First call: reg and out given, ctx null. Retry: only ctx given. TCONFD_OK, TCONFD_NO_MEMORY or TCONFD_RETRY.
int tconfd_module_init(const tconfd_registration *reg, tconfd_ctx *ctx, tconfd_ctx **out);
void tconfd_module_free(tconfd_ctx *ctx);
// Tears all connections down and arms the retry timer, if it is not armed yet.
void tconfd_retry_connect(tconfd_ctx *ctx);
// A second daemon context for actions and data callbacks, on sockets of its own. TCONFD_OK, TCONFD_FAILED,
// TCONFD_NO_MEMORY, TCONFD_RETRY.
int tconfd_module_secondary_context_register(const tconfd_registration *reg, tconfd_ctx *ctx);

// A message to all users of the CLI. A null context or text does nothing.
void tconfd_prio_message(tconfd_ctx *ctx, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void tconfd_prio_message_str(tconfd_ctx *ctx, const char *text);

// Trace messages of the layer are off until enabled (they print also before the first module init).
void tconfd_debug_enable(uint32_t level);
void tconfd_debug_disable();

// ---- sessions of the daemon's own, beside those of the context (tconfd_log.cc). Any thread.

[[nodiscard]] const sockaddr_in &tconfd_agent_address();
[[nodiscard]] unique_fd tconfd_agent_socket(); // not connected; -1 with errno

// ---- initial read (tconfd_sub.cc)

// 1 when all daemons before this one have finished their initial read and this one has not read yet, else 0.
int tconfd_can_read_initial_config(tconfd_ctx *ctx);
// Sets this daemon's bit in the operational leaf. 0 or 1.
int tconfd_set_initial_config_read_done(tconfd_ctx *ctx);
// Starts a read of all rows. 0 or TCONFD_NO_MEMORY.
int tconfd_read_sub_config_all(tconfd_ctx *ctx);
// Starts a read of the rows whose add_subid values are given. 0 or TCONFD_NO_MEMORY; count 0 does nothing.
int tconfd_read_sub_config(tconfd_ctx *ctx, const uint32_t *add_subids, uint32_t count);

#endif
