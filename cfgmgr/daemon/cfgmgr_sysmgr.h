// The link to the system manager: a message-queue client that proves with a hello each second that the daemon lives.
//
// Sending is fire and forget. A lost link only stops the hellos until the queue has reconnected.
#ifndef CFGMGR_DAEMON_CFGMGR_SYSMGR_H
#define CFGMGR_DAEMON_CFGMGR_SYSMGR_H

#include "cfgmgr/daemon/cfgmgr_context.h"
#include "common/sysmgr_msg.h"

struct msgq_t;
struct app_sysmgr_t;

// Called for a message of type SYSMGR_MSG_FROM_MANAGER. The length bytes of the message, which may be fewer or more than
// the record has, live for the call.
using app_sysmgr_rx_t = void (*)(void *user_arg, const sysmgr_msg_t *msg, uint16_t length);

// Starts to connect as module_id. rx_cb may be null and gets user_arg; rx_arg is not used. Null, logged, on failure.
[[nodiscard]] app_sysmgr_t *app_sysmgr_connect(event_base *base, timer_mgr_t *timer_mgr, app_sysmgr_rx_t rx_cb,
                                               uint32_t module_id, void *user_arg, void *rx_arg);
void app_sysmgr_free(app_sysmgr_t *client);
[[nodiscard]] bool app_sysmgr_is_up(const app_sysmgr_t *client);
// The time of the last hello as ctime(3) prints it, without the newline; empty when none went out.
void app_sysmgr_last_hello_text(char *out, size_t size);

// Tell the manager of a VPN that is being added or removed (this starts and stops its routing daemons), and that the
// agent's startup transaction is done. A removal is not told while the daemon is being stopped. A null client or a
// link that is down: nothing is sent.
void app_sysmgr_send_vpn(app_sysmgr_t *client, sysmgr_msg_type_t type, uint64_t vpn_id);
void app_sysmgr_send_agent_ready(app_sysmgr_t *client);

// Connects the daemon; when the link is up already its tables are started at once, otherwise a timer waits for it.
[[nodiscard]] int cfgmgr_init_sysmgr_conn(cfgmgrd_t *cfgmgrd_p);
void cfgmgr_init_sysmgr_timer_cb(timer_util_t *timer, void *cfgmgrd_p, void *, void *, void *);

#endif
