#include "platform/sysmgr_link.h"

#include "common/daemon_names.h"
#include "common/msgq_util.h"
#include "common/sysmgr_msg.h"
#include "common/tip_log.h"
#include "common/tip_root.h"
#include "platform/agent_side.h"
#include "platform/supervisor.h"

#include <cstdlib>
#include <cstring>
#include <limits>

namespace
{

// text is what follows the fixed part, as far as the message has a text.
using take_t = void (*)(sysmgrd_t *sysmgrd, const sysmgr_msg_t &msg, const std::string &text);

void take_hello(sysmgrd_t *sysmgrd, const sysmgr_msg_t &msg, const std::string &)
{
    if (msg.pid <= static_cast<uint32_t>(std::numeric_limits<pid_t>::max()))
        supervisor_hello(sysmgrd, DAEMON_ID_CFGMGR, static_cast<pid_t>(msg.pid));
}

void take_text(sysmgrd_t *, const sysmgr_msg_t &, const std::string &text)
{
    tip_log("cfgmgr says: %s", text.c_str());
}

void take_vpn_add(sysmgrd_t *sysmgrd, const sysmgr_msg_t &msg, const std::string &)
{
    if (!sysmgrd->memory.vpns.insert(msg.value).second)
        return;
    tip_log("VPN %lu is being added", msg.value);
    memory_save(sysmgrd->memory);
    routing_vpn_add(sysmgrd, msg.value);
    sysmgrd_changed(sysmgrd);
}

void take_vpn_del(sysmgrd_t *sysmgrd, const sysmgr_msg_t &msg, const std::string &)
{
    if (sysmgrd->memory.vpns.erase(msg.value) == 0)
        return;
    tip_log("VPN %lu is being removed", msg.value);
    memory_save(sysmgrd->memory);
    routing_vpn_del(sysmgrd, msg.value);
    sysmgrd_changed(sysmgrd);
}

void take_agent_ready(sysmgrd_t *sysmgrd, const sysmgr_msg_t &msg, const std::string &)
{
    pid_t cfgmgr = sysmgrd->processes[PROCESS_CFGMGR].watch.pid;
    if (sysmgrd->is_stopping || cfgmgr == 0 || static_cast<uint32_t>(cfgmgr) != msg.pid)
        return;
    tip_log("cfgmgr (pid %d) reports that the startup transaction is done", cfgmgr);
    sysmgrd->memory.ready_pid = cfgmgr;
    memory_save(sysmgrd->memory);
    if (sysmgrd->processes[PROCESS_AGENTD].watch.pid != 0)
        agent_side_begin(sysmgrd);
}

struct message_row_t {
    sysmgr_msg_type_t type;
    take_t take;
};
constexpr message_row_t message_rows[] = {
    { SYSMGR_MSG_HELLO, take_hello },     { SYSMGR_MSG_TEXT, take_text },
    { SYSMGR_MSG_TEXT_2, take_text },     { SYSMGR_MSG_VPN_ADD, take_vpn_add },
    { SYSMGR_MSG_VPN_DEL, take_vpn_del }, { SYSMGR_MSG_AGENT_READY, take_agent_ready },
};

void take_message(sysmgrd_t *sysmgrd, const char *bytes, size_t length)
{
    sysmgr_msg_t msg;
    if (length < sizeof msg)
        return;
    memcpy(&msg, bytes, sizeof msg);
    std::string text(bytes + sizeof msg, strnlen(bytes + sizeof msg, length - sizeof msg));
    if (msg.version != SYSMGR_MSG_VERSION)
        return;
    for (const message_row_t &row : message_rows) {
        if (row.type == msg.type)
            row.take(sysmgrd, msg, text);
    }
}

void receive(msgq_t *link, void *memory, uint16_t length, void *arg)
{
    take_message(static_cast<sysmgrd_t *>(arg), static_cast<const char *>(memory), length);
    msgq_msg_free(link, memory);
}

void link_changed(msgq_t *, void *arg)
{
    sysmgrd_changed(static_cast<sysmgrd_t *>(arg));
}

void never(msgq_t *, void *)
{
} // has to be there

void *plain_alloc(size_t size)
{
    return malloc(size);
}

void plain_free(void *memory)
{
    free(memory);
}

} // namespace

bool sysmgr_link_init(sysmgrd_t *sysmgrd)
{
    msgq_cfg_t cfg{};
    cfg.event_base = sysmgrd->base.get();
    cfg.facility = LOG_LOCAL7;
    cfg.sock_type = MSGQ_SOCK_UNIX;
    tip_path_t path = tip_path("%s/.%s", TIP_RUN_DIR, daemon_id_to_name(DAEMON_ID_SYSMGRD));
    bool fits = snprintf(cfg.path, sizeof cfg.path, "%s", path.text) < static_cast<int>(sizeof cfg.path);
    const msgq_cbs_t callbacks = { link_changed, link_changed, never, receive, plain_alloc, plain_free };
    if (fits)
        sysmgrd->cfgmgr_link =
            msgq_init(DAEMON_ID_SYSMGRD, DAEMON_ID_CFGMGR, MSGQ_HANDLE_TYPE_SERVER, &cfg, &callbacks, sysmgrd);
    if (sysmgrd->cfgmgr_link == nullptr)
        tip_log("Cannot listen on %s; is its folder there and writable, and the path shorter than %zu?", path.text,
                sizeof cfg.path);
    return sysmgrd->cfgmgr_link != nullptr;
}

void sysmgr_link_deinit(sysmgrd_t *sysmgrd)
{
    msgq_free(sysmgrd->cfgmgr_link);
    sysmgrd->cfgmgr_link = nullptr;
}
