// The link to the system manager.

#include "cfgmgr/daemon/cfgmgr_sysmgr.h"

#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "common/daemon_names.h"
#include "common/msgq_util.h"
#include "common/tip_log.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

struct app_sysmgr_t {
    msgq_t *msgq_p;
    timer_util_t *hello_timer;
    uint32_t pid;
    void *user_arg;
    app_sysmgr_rx_t rx_cb; // may be null
};

namespace
{

constexpr uint32_t HELLO_MS = 1000;
time_t last_hello;

void *app_malloc(size_t size)
{
    return malloc(size);
}

void app_free(void *memory)
{
    free(memory);
}

// A message that the queue refuses is forgotten.
void send_message(app_sysmgr_t *client, sysmgr_msg_type_t type, uint64_t value)
{
    void *memory = msgq_msg_alloc(client->msgq_p, sizeof(sysmgr_msg_t));
    if (memory == nullptr)
        return;
    sysmgr_msg_t msg{};
    msg.version = SYSMGR_MSG_VERSION;
    msg.type = type;
    msg.size = sizeof msg;
    msg.pid = client->pid;
    msg.value = value;
    memcpy(memory, &msg, sizeof msg);
    if (msgq_write(client->msgq_p, memory, sizeof msg) != MSGQ_OK)
        msgq_msg_free(client->msgq_p, memory);
}

void send_hello(app_sysmgr_t *client)
{
    send_message(client, SYSMGR_MSG_HELLO, 0);
    last_hello = time(nullptr);
}

void hello_timer_cb(timer_util_t *, void *client, void *, void *, void *)
{
    send_hello(static_cast<app_sysmgr_t *>(client));
}

void conn_up(msgq_t *, void *arg)
{
    auto *client = static_cast<app_sysmgr_t *>(arg);
    send_hello(client);
    timer_enable(client->hello_timer);
}

void conn_down(msgq_t *, void *arg)
{
    timer_disable(static_cast<app_sysmgr_t *>(arg)->hello_timer);
}

void conn_error(msgq_t *, void *)
{
} // the queue calls it never, but wants it

void receive(msgq_t *msgq_p, void *memory, uint16_t length, void *arg)
{
    auto *client = static_cast<app_sysmgr_t *>(arg);
    const auto *msg = static_cast<const sysmgr_msg_t *>(memory);
    bool has_type = length > offsetof(sysmgr_msg_t, type);
    if (has_type && msg->type == SYSMGR_MSG_FROM_MANAGER && client->rx_cb != nullptr)
        client->rx_cb(client->user_arg, msg, length);
    msgq_msg_free(msgq_p, memory);
}

} // namespace

app_sysmgr_t *app_sysmgr_connect(event_base *base, timer_mgr_t *timer_mgr, app_sysmgr_rx_t rx_cb, uint32_t module_id,
                                 void *user_arg, void *)
{
    msgq_cfg_t cfg{};
    cfg.event_base = base;
    cfg.timer_mgr = timer_mgr;
    cfg.sock_type = MSGQ_SOCK_UNIX;
    cfg.facility = LOG_LOCAL7;
    const msgq_cbs_t callbacks = { conn_up, conn_down, conn_error, receive, app_malloc, app_free };
    auto *client = static_cast<app_sysmgr_t *>(app_malloc(sizeof(app_sysmgr_t)));
    if (client == nullptr)
        return nullptr;
    *client = {};
    client->pid = static_cast<uint32_t>(getpid());
    client->user_arg = user_arg;
    client->rx_cb = rx_cb;
    client->hello_timer = timer_util_create(timer_mgr, TIMER_PRIO_HIGH, TIMER_CYCLIC, HELLO_MS, hello_timer_cb, client,
                                            nullptr, nullptr, nullptr, "sysmgr-hello");
    if (client->hello_timer != nullptr)
        client->msgq_p = msgq_init(module_id, DAEMON_ID_SYSMGRD, MSGQ_HANDLE_TYPE_CLIENT, &cfg, &callbacks, client);
    if (client->msgq_p == nullptr) {
        tip_log("Module %s .. msgq_init FAILED", daemon_id_to_name(module_id));
        app_sysmgr_free(client);
        return nullptr;
    }
    return client;
}

void app_sysmgr_free(app_sysmgr_t *client)
{
    msgq_free(client->msgq_p);
    if (client->hello_timer != nullptr)
        timer_util_delete(client->hello_timer);
    app_free(client);
}

bool app_sysmgr_is_up(const app_sysmgr_t *client)
{
    return msgq_is_up(client->msgq_p) == 1;
}

void app_sysmgr_last_hello_text(char *out, size_t size)
{
    char text[26] = "";
    if (last_hello != 0 && ctime_r(&last_hello, text) == nullptr)
        text[0] = '\0';
    (void)snprintf(out, size, "%.24s", text);
}

void app_sysmgr_send_vpn(app_sysmgr_t *client, sysmgr_msg_type_t type, uint64_t vpn_id)
{
    bool spared = type == SYSMGR_MSG_VPN_DEL && cfgmgr_is_terminating();
    if (client != nullptr && !spared)
        send_message(client, type, vpn_id);
}

void app_sysmgr_send_agent_ready(app_sysmgr_t *client)
{
    if (client != nullptr)
        send_message(client, SYSMGR_MSG_AGENT_READY, 0);
}

int cfgmgr_init_sysmgr_conn(cfgmgrd_t *cfgmgrd_p)
{
    cfgmgrd_p->sysmgr_handle_p = app_sysmgr_connect(cfgmgrd_p->event_base, cfgmgrd_p->timer_mgr_p, nullptr,
                                                    DAEMON_ID_CFGMGR, cfgmgrd_p, nullptr);
    if (cfgmgrd_p->sysmgr_handle_p == nullptr)
        return 1;
    if (app_sysmgr_is_up(cfgmgrd_p->sysmgr_handle_p)) {
        tip_log("Connection to sysmgr is up");
        return cfgmgr_main(cfgmgrd_p);
    }
    tip_log("Waiting for connection to sysmgr to come up");
    timer_enable(cfgmgrd_p->sysmgr_timer_p);
    return 0;
}

void cfgmgr_init_sysmgr_timer_cb(timer_util_t *timer, void *arg, void *, void *, void *)
{
    auto *cfgmgrd_p = static_cast<cfgmgrd_t *>(arg);
    if (cfgmgr_events_level > 0)
        tip_log("Sysmgr Timer callback");
    if (!app_sysmgr_is_up(cfgmgrd_p->sysmgr_handle_p)) {
        timer_enable(timer);
        return;
    }
    timer_disable(timer);         // before the tables start: they are started once
    (void)cfgmgr_main(cfgmgrd_p); // ends the process when it fails
}
