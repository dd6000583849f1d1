// The listening side. A listening path serves any number of handles with the library's framing, told apart by the
// register message that a peer sends first, or one single handle with the application's framing.
//
// A peer that comes back before its old socket is seen to close gets its handle at once: the new connection always
// wins. A peer that nobody waits for is refused in silence.
#include "common/msgq_internal.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <utility>

namespace
{

constexpr mode_t PATH_MODE = 0777;

msgq_server_t *find_server(msgq_inst_t *inst_p, const char *path)
{
    for (dll_node_t *node_p = inst_p->servers.p_head; node_p != nullptr; node_p = node_p->p_next) {
        auto *server_p = reinterpret_cast<msgq_server_t *>(node_p);
        if (strcmp(server_p->path, path) == 0)
            return server_p;
    }
    return nullptr;
}

msgq_server_t *new_server(const msgq_t *msgq_p)
{
    auto *server_p = new (std::nothrow) msgq_server_t{};
    if (server_p == nullptr)
        return nullptr;
    server_p->src = msgq_p->src;
    memcpy(server_p->path, msgq_p->path, sizeof server_p->path);
    server_p->listener_apphdr = msgq_p->use_app_header;
    dll_add_tail(&msgq_p->inst_p->servers, &server_p->node);
    return server_p;
}

bool is_for(const msgq_t *msgq_p, const msgq_server_t *server_p, const msgq_hdr_t *hdr_p)
{
    return msgq_p->server_p == server_p && msgq_p->src == hdr_p->tgt && msgq_p->tgt == hdr_p->src;
}

msgq_t *find_handle(const msgq_t *tmp_p, msgq_list_id_t list, const msgq_hdr_t *hdr_p)
{
    msgq_t *msgq_p = msgq_list_first(tmp_p->inst_p, list);
    while (msgq_p != nullptr && !is_for(msgq_p, tmp_p->server_p, hdr_p))
        msgq_p = msgq_list_next(msgq_p, list);
    return msgq_p;
}

// The handle that the peer behind tmp_p belongs to, free to take its socket; null when there is none.
msgq_t *claim_handle(const msgq_t *tmp_p, const msgq_hdr_t *hdr_p)
{
    msgq_t *msgq_p = find_handle(tmp_p, MSGQ_LIST_UNREG, hdr_p);
    if (msgq_p != nullptr)
        return msgq_p;
    msgq_p = find_handle(tmp_p, MSGQ_LIST_REG, hdr_p);
    if (msgq_p == nullptr)
        return nullptr;
    ++msgq_p->counters.conn_exist;
    msgq_close(msgq_p, msgq_after_close_t::RECONNECT);
    // conn_down may have freed anything, the listening path included.
    return tmp_p->is_released ? nullptr : find_handle(tmp_p, MSGQ_LIST_UNREG, hdr_p);
}

void attach(msgq_t *msgq_p, unique_fd fd)
{
    msgq_p->sock_fd = fd.release();
    if (msgq_open_events(msgq_p))
        msgq_go_up(msgq_p);
    else
        msgq_close(msgq_p, msgq_after_close_t::RECONNECT);
}

void msgq_handle_msghdr_accept(msgq_server_t *server_p, unique_fd fd)
{
    msgq_t *tmp_p = msgq_new_handle(msgq_instance(), MSGQ_HANDLE_TYPE_SERVER);
    if (tmp_p == nullptr)
        return;
    tmp_p->server_p = server_p;
    tmp_p->sock_type = MSGQ_SOCK_UNIX;
    tmp_p->sock_fd = fd.release();
    msgq_list_move(tmp_p, MSGQ_LIST_TMP);
    if (!msgq_open_read_event(tmp_p, EV_READ))
        msgq_drop_temporary(tmp_p);
}

void msgq_handle_apphdr_accept(msgq_server_t *server_p, unique_fd fd)
{
    msgq_t *msgq_p = server_p->apphead_msgq_handle_p;
    msgq_hold hold(msgq_p);
    if (msgq_p->sock_fd >= 0) {
        ++msgq_p->counters.conn_exist;
        msgq_close(msgq_p, msgq_after_close_t::RECONNECT);
    }
    if (!msgq_p->is_released)
        attach(msgq_p, std::move(fd));
}

void on_accept(evconnlistener *, evutil_socket_t fd, sockaddr *, int, void *arg)
{
    auto *server_p = static_cast<msgq_server_t *>(arg);
    if (server_p->listener_apphdr)
        msgq_handle_apphdr_accept(server_p, unique_fd(fd));
    else
        msgq_handle_msghdr_accept(server_p, unique_fd(fd));
}

bool start_listener(msgq_server_t *server_p, event_base *base)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, server_p->path, sizeof server_p->path);
    constexpr unsigned options = LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC | LEV_OPT_REUSEABLE;
    constexpr int default_backlog = -1;
    server_p->listener.reset(evconnlistener_new_bind(base, on_accept, server_p, options, default_backlog,
                                                     reinterpret_cast<sockaddr *>(&address), sizeof address));
    if (server_p->listener == nullptr) {
        msgq_err("Failed to start listener for %s", server_p->path);
        return false;
    }
    if (chmod(server_p->path, PATH_MODE) != 0)
        msgq_err("Failed to change the mode of %s, errno: %d", server_p->path, errno);
    return true;
}

void share_server(msgq_t *msgq_p, msgq_server_t *server_p)
{
    tip_assert((msgq_p->use_app_header && server_p->listener_apphdr) ||
               (!msgq_p->use_app_header && !server_p->listener_apphdr));
    if (msgq_p->use_app_header) {
        tip_assert(server_p->apphead_msgq_handle_p == nullptr);
        server_p->apphead_msgq_handle_p = msgq_p;
    }
    ++server_p->refs;
    msgq_p->server_p = server_p;
}

void drop_temporaries(msgq_inst_t *inst_p, const msgq_server_t *server_p)
{
    msgq_t *next_p;
    for (msgq_t *tmp_p = msgq_list_first(inst_p, MSGQ_LIST_TMP); tmp_p != nullptr; tmp_p = next_p) {
        next_p = msgq_list_next(tmp_p, MSGQ_LIST_TMP);
        if (tmp_p->server_p == server_p)
            msgq_drop_temporary(tmp_p);
    }
}

} // namespace

int msgq_init_start_server(msgq_t *msgq_p)
{
    msgq_server_t *server_p = find_server(msgq_p->inst_p, msgq_p->path);
    if (server_p == nullptr)
        server_p = new_server(msgq_p);
    if (server_p == nullptr)
        return MSGQ_NO_RESOURCES;
    share_server(msgq_p, server_p);
    if (server_p->listener != nullptr)
        return MSGQ_SERVER_RUNNING;
    if (remove(server_p->path) != 0 && errno != ENOENT) {
        msgq_err("Path %s exists, failed to remove", server_p->path);
        return MSGQ_SERVER_RUNNING;
    }
    return start_listener(server_p, msgq_p->inst_p->base) ? MSGQ_OK : MSGQ_FAILED;
}

void msgq_server_put(msgq_t *msgq_p)
{
    msgq_server_t *server_p = std::exchange(msgq_p->server_p, nullptr);
    if (server_p->apphead_msgq_handle_p == msgq_p)
        server_p->apphead_msgq_handle_p = nullptr;
    if (--server_p->refs != 0)
        return;
    drop_temporaries(msgq_p->inst_p, server_p);
    dll_remove(&msgq_p->inst_p->servers, &server_p->node);
    delete server_p;
}

void msgq_handle_register_msg(msgq_t *tmp_p, const msgq_hdr_t *hdr_p)
{
    tip_assert(tmp_p->in_tmp_list);
    bool is_register = hdr_p->type == MSGQ_HDR_REGISTER && hdr_p->magic1 == MAGIC1 && hdr_p->magic2 == MAGIC2;
    ++tmp_p->counters.rx_register;
    msgq_t *msgq_p = is_register ? claim_handle(tmp_p, hdr_p) : nullptr;
    if (tmp_p->is_released)
        return;
    unique_fd fd;
    if (msgq_p != nullptr) {
        msgq_p->counters.rx_register += tmp_p->counters.rx_register;
        fd.reset(std::exchange(tmp_p->sock_fd, -1));
    }
    // The read event of the temporary handle goes before the same descriptor gets its new one.
    msgq_drop_temporary(tmp_p);
    if (msgq_p != nullptr)
        attach(msgq_p, std::move(fd));
}
