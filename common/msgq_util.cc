// Handles and the instance that they share: made by the first msgq_init, gone with the last handle.
#include "common/msgq_util.h"

#include "common/msgq_internal.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>

namespace
{

msgq_inst_t *instance_p;
int facility = LOG_LOCAL7;
uint32_t debug_flag;

bool is_peer_id(uint32_t id)
{
    return id != DAEMON_ID_UNKNOWN && id <= DAEMON_ID_MAX;
}

msgq_inst_t *get_instance(const msgq_cfg_t *cfg)
{
    if (instance_p == nullptr) {
        instance_p = new (std::nothrow) msgq_inst_t{};
        if (instance_p == nullptr)
            return nullptr;
        instance_p->base = cfg->event_base;
        facility = cfg->facility;
    }
    // The first handles may be servers, which need no timers.
    if (instance_p->timer_mgr_p == nullptr)
        instance_p->timer_mgr_p = cfg->timer_mgr;
    return instance_p;
}

void put_idle_instance()
{
    if (instance_p->lists[MSGQ_LIST_REG].count != 0 || instance_p->lists[MSGQ_LIST_UNREG].count != 0)
        return;
    delete instance_p;
    instance_p = nullptr;
}

// A size field that reached past the header would be read from bytes that are not there yet.
bool is_app_header_valid(const msgq_cfg_t *cfg)
{
    return cfg->app_hdrlen >= 1 && cfg->app_hdrlen <= MSGQ_APP_HDRLEN_MAX &&
           cfg->app_size_offset < MSGQ_APP_HDRLEN_MAX && cfg->app_size_offset + sizeof(uint16_t) <= cfg->app_hdrlen;
}

bool are_parameters_valid(uint32_t type, const msgq_cfg_t *cfg, const msgq_cbs_t *cbs)
{
    if (type != MSGQ_HANDLE_TYPE_SERVER && type != MSGQ_HANDLE_TYPE_CLIENT)
        return false;
    if (cfg->event_base == nullptr || (type == MSGQ_HANDLE_TYPE_CLIENT && cfg->timer_mgr == nullptr))
        return false;
    if (cbs->rx == nullptr || cbs->conn_error == nullptr || cbs->alloc == nullptr || cbs->free == nullptr)
        return false;
    return cfg->use_app_header == 0 || is_app_header_valid(cfg);
}

void check_parameters(uint32_t type, const msgq_cfg_t *cfg, const msgq_cbs_t *cbs)
{
    bool is_valid = are_parameters_valid(type, cfg, cbs);
    if (!is_valid)
        msgq_err("Validation of parameters failed");
    tip_assert(is_valid);

    bool is_supported = cfg->sock_type == MSGQ_SOCK_UNIX || cfg->sock_type == MSGQ_SOCK_TCP;
    if (!is_supported)
        msgq_err("Unsupported socket type");
    tip_assert(is_supported);
}

bool is_in_list(const msgq_inst_t *inst_p, msgq_list_id_t list, const msgq_t *other_p)
{
    for (msgq_t *msgq_p = msgq_list_first(inst_p, list); msgq_p != nullptr; msgq_p = msgq_list_next(msgq_p, list))
        if (msgq_p->src == other_p->src && msgq_p->tgt == other_p->tgt && msgq_p->type == other_p->type &&
            strcmp(msgq_p->path, other_p->path) == 0)
            return true;
    return false;
}

void check_duplicate(const msgq_inst_t *inst_p, const msgq_t *msgq_p)
{
    bool is_duplicate = is_in_list(inst_p, MSGQ_LIST_REG, msgq_p) || is_in_list(inst_p, MSGQ_LIST_UNREG, msgq_p) ||
                        is_in_list(inst_p, MSGQ_LIST_TMP, msgq_p);
    if (is_duplicate)
        msgq_err("Duplicate msgq_handle found");
    tip_assert(!is_duplicate);
}

void set_path(msgq_t *msgq_p, const msgq_cfg_t *cfg)
{
    if (cfg->path[0] != '\0') {
        (void)snprintf(msgq_p->path, sizeof msgq_p->path, "%.*s", static_cast<int>(sizeof cfg->path), cfg->path);
        return;
    }
    uint32_t server_id = msgq_p->type == MSGQ_HANDLE_TYPE_SERVER ? msgq_p->src : msgq_p->tgt;
    (void)snprintf(msgq_p->path, sizeof msgq_p->path, "/var/run/.%s", daemon_id_to_name(server_id));
}

void set_options(msgq_t *msgq_p, const msgq_cfg_t *cfg)
{
    msgq_p->use_app_header = cfg->use_app_header != 0;
    msgq_p->no_register = cfg->no_register != 0 || msgq_p->use_app_header;
    msgq_p->blocking = msgq_p->type == MSGQ_HANDLE_TYPE_CLIENT && (cfg->blocking & 1) != 0;
    if (msgq_p->use_app_header) {
        msgq_p->app_size_offset = static_cast<uint8_t>(cfg->app_size_offset);
        msgq_p->app_hdrlen = static_cast<uint8_t>(cfg->app_hdrlen);
    }
    msgq_p->sock_type = cfg->sock_type;
    msgq_p->port = cfg->port;
    (void)snprintf(msgq_p->ip, sizeof msgq_p->ip, "%.*s", static_cast<int>(sizeof cfg->ip), cfg->ip);
}

bool start(msgq_t *msgq_p)
{
    if (msgq_p->type == MSGQ_HANDLE_TYPE_CLIENT)
        return msgq_init_start_client(msgq_p);
    (void)msgq_init_start_server(msgq_p); // a server that is running already is as good as a new one
    return msgq_p->server_p != nullptr && msgq_p->server_p->listener != nullptr;
}

} // namespace

int msgq_facility()
{
    return facility;
}

bool msgq_debug_is_on()
{
    return debug_flag == 1;
}

void msgq_debug_set(uint32_t flag)
{
    debug_flag = flag;
}

msgq_inst_t *msgq_instance()
{
    return instance_p;
}

msgq_t *msgq_new_handle(msgq_inst_t *inst_p, uint32_t type)
{
    msgq_t *msgq_p = new (std::nothrow) msgq_t{};
    if (msgq_p == nullptr)
        return nullptr;
    msgq_p->type = type;
    msgq_p->sock_fd = -1;
    msgq_p->inst_p = inst_p;
    for (msgq_link_t &link : msgq_p->links)
        link.owner_p = msgq_p;
    return msgq_p;
}

msgq_t *msgq_init(uint32_t src, uint32_t tgt, uint32_t type, const msgq_cfg_t *cfg, const msgq_cbs_t *cbs,
                  void *user_arg)
{
    if (!is_peer_id(src) || !is_peer_id(tgt))
        return nullptr;
    msgq_inst_t *inst_p = get_instance(cfg);
    if (inst_p == nullptr)
        return nullptr;
    msgq_debug("Msg init with src: %s, tgt: %s, type: %d", daemon_id_to_name(src), daemon_id_to_name(tgt),
               static_cast<int>(type));
    check_parameters(type, cfg, cbs);

    msgq_t *msgq_p = msgq_new_handle(inst_p, type);
    if (msgq_p == nullptr) {
        put_idle_instance();
        return nullptr;
    }
    msgq_hold hold(msgq_p);
    msgq_p->src = src;
    msgq_p->tgt = tgt;
    msgq_p->cbs = *cbs;
    msgq_p->user_arg = user_arg;
    set_path(msgq_p, cfg);
    set_options(msgq_p, cfg);
    check_duplicate(inst_p, msgq_p);

    msgq_list_move(msgq_p, MSGQ_LIST_UNREG);
    if (!start(msgq_p) && !msgq_p->is_released)
        msgq_release(msgq_p);
    return msgq_p->is_released ? nullptr : msgq_p;
}

void msgq_release(msgq_t *msgq_p)
{
    msgq_list_leave(msgq_p);
    if (msgq_p->timer_p != nullptr)
        timer_util_delete(std::exchange(msgq_p->timer_p, nullptr));
    if (msgq_p->server_p != nullptr)
        msgq_server_put(msgq_p);
    msgq_p->inst_p = nullptr;
    msgq_p->is_released = true;
    put_idle_instance();
}

void msgq_free(msgq_t *msgq_p)
{
    if (msgq_p == nullptr)
        return;
    msgq_hold hold(msgq_p);
    msgq_close(msgq_p, msgq_after_close_t::STAY_DOWN);
    if (msgq_p->is_released) // conn_down gave it up
        return;
    tip_assert(msgq_p->in_unreg_list);
    msgq_release(msgq_p);
}

// The temporary handles go with the servers that accepted them, the instance with the last handle.
void msgq_free_all()
{
    while (instance_p != nullptr) {
        msgq_t *msgq_p = msgq_list_first(instance_p, MSGQ_LIST_REG);
        msgq_free(msgq_p != nullptr ? msgq_p : msgq_list_first(instance_p, MSGQ_LIST_UNREG));
    }
}

void *msgq_msg_alloc(msgq_t *msgq_p, uint32_t size)
{
    uint32_t whole = size + msgq_overhead(msgq_p);
    void *buf = size <= UINT16_MAX && whole <= UINT16_MAX ? msgq_p->cbs.alloc(whole) : nullptr;
    if (buf == nullptr) {
        ++msgq_p->counters.alloc_failed;
        return nullptr;
    }
    ++msgq_p->counters.msg_allocs;
    if (msgq_p->use_app_header)
        return buf;
    auto *hdr_p = new (buf) msgq_hdr_t{};
    hdr_p->magic1 = MAGIC1;
    hdr_p->magic2 = MAGIC2;
    hdr_p->size = static_cast<uint16_t>(whole);
    return hdr_p + 1;
}

void msgq_msg_free(msgq_t *msgq_p, void *msg)
{
    if (msg != nullptr)
        msgq_buffer_free(msgq_p, static_cast<uint8_t *>(msg) - msgq_overhead(msgq_p));
}

int msgq_is_up(const msgq_t *msgq_p)
{
    return msgq_p != nullptr && msgq_p->sock_fd >= 0 && !msgq_p->down_pending;
}

void msgq_set_user_arg(msgq_t *msgq_p, void *user_arg)
{
    msgq_p->user_arg = user_arg;
}

int msgq_set_fd_blocking(msgq_t *msgq_p, bool is_blocking)
{
    if (msgq_p->sock_fd < 0)
        return MSGQ_NOT_CONNECTED;
    int flags = fcntl(msgq_p->sock_fd, F_GETFL);
    if (flags < 0)
        return MSGQ_FAILED;
    int wanted = is_blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK;
    return fcntl(msgq_p->sock_fd, F_SETFL, wanted) == 0 ? MSGQ_OK : MSGQ_FAILED;
}

bool msgq_get_blocking(const msgq_t *msgq_p)
{
    return msgq_p->blocking;
}

void msgq_set_blocking(msgq_t *msgq_p, bool is_blocking)
{
    msgq_p->blocking = is_blocking;
}
