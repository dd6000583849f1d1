// What is the same for every connection, whoever began it: the lists that say what state a handle is in, the events
// of its socket, going up and closing.
#include "common/msgq_internal.h"

#include <sys/socket.h>
#include <utility>

namespace
{

bool open_pair(msgq_t *msgq_p, msgq_event_pair_t *pair_p, int fd, short what, event_callback_fn callback)
{
    for (event_ptr &event : pair_p->events) {
        event.reset(event_new(msgq_p->inst_p->base, fd, what, callback, msgq_p));
        if (event == nullptr)
            return false;
    }
    return true;
}

void close_pair(msgq_event_pair_t *pair_p)
{
    for (event_ptr &event : pair_p->events)
        event.reset();
    pair_p->is_scheduled[0] = pair_p->is_scheduled[1] = false;
}

void begin_turn(msgq_event_pair_t *pair_p)
{
    pair_p->is_scheduled[pair_p->index] = false;
    pair_p->index ^= 1;
}

void on_readable(evutil_socket_t, short, void *arg)
{
    msgq_read(static_cast<msgq_t *>(arg));
}

void on_writable(evutil_socket_t, short, void *arg)
{
    auto *msgq_p = static_cast<msgq_t *>(arg);
    begin_turn(&msgq_p->write);
    ++msgq_p->counters.tx_write_cb;
    if (msgq_p->down_pending)
        msgq_close(msgq_p, msgq_after_close_t::RECONNECT);
    else
        msgq_flush(msgq_p);
}

void on_read_helper(evutil_socket_t, short, void *arg)
{
    auto *msgq_p = static_cast<msgq_t *>(arg);
    begin_turn(&msgq_p->read_helper);
    ++msgq_p->counters.rx_read_helper_cb;
    if (!msgq_p->down_pending)
        msgq_read(msgq_p);
}

// Applications learn of a connection by conn_up, so what is unsent or half read means nothing to the next one.
void drop_half_read(msgq_t *msgq_p)
{
    if (msgq_p->msg_p != nullptr)
        msgq_buffer_free(msgq_p, msgq_p->msg_p);
    msgq_p->msg_p = nullptr;
    msgq_p->msg_size = 0;
    msgq_p->bytes_read = 0;
}

void close_events(msgq_t *msgq_p)
{
    msgq_p->read_event.reset();
    close_pair(&msgq_p->write);
    close_pair(&msgq_p->read_helper);
}

void close_socket(msgq_t *msgq_p)
{
    unique_fd closing(std::exchange(msgq_p->sock_fd, -1));
    if (closing.is_open())
        (void)shutdown(closing.get(), SHUT_RDWR); // the peer may be gone already
}

msgq_t *link_owner(dll_node_t *node_p)
{
    return node_p != nullptr ? reinterpret_cast<msgq_link_t *>(node_p)->owner_p : nullptr;
}

} // namespace

void msgq_list_leave(msgq_t *msgq_p)
{
    const bool is_member[MSGQ_LISTS] = { msgq_p->in_reg_list, msgq_p->in_unreg_list, msgq_p->in_tmp_list };
    for (unsigned list = 0; list < MSGQ_LISTS; ++list)
        if (is_member[list])
            dll_remove(&msgq_p->inst_p->lists[list], &msgq_p->links[list].node);
    msgq_p->in_reg_list = msgq_p->in_unreg_list = msgq_p->in_tmp_list = false;
}

void msgq_list_move(msgq_t *msgq_p, msgq_list_id_t list)
{
    msgq_list_leave(msgq_p);
    dll_add_tail(&msgq_p->inst_p->lists[list], &msgq_p->links[list].node);
    msgq_p->in_reg_list = list == MSGQ_LIST_REG;
    msgq_p->in_unreg_list = list == MSGQ_LIST_UNREG;
    msgq_p->in_tmp_list = list == MSGQ_LIST_TMP;
}

msgq_t *msgq_list_first(const msgq_inst_t *inst_p, msgq_list_id_t list)
{
    return link_owner(inst_p->lists[list].p_head);
}

msgq_t *msgq_list_next(const msgq_t *msgq_p, msgq_list_id_t list)
{
    return link_owner(msgq_p->links[list].node.p_next);
}

bool msgq_open_events(msgq_t *msgq_p)
{
    if (!open_pair(msgq_p, &msgq_p->write, msgq_p->sock_fd, EV_WRITE, on_writable)) {
        msgq_err("Failed to create write events");
        return false;
    }
    if (!open_pair(msgq_p, &msgq_p->read_helper, -1, 0, on_read_helper)) {
        msgq_err("Failed to create read helper events");
        return false;
    }
    return msgq_p->blocking || msgq_open_read_event(msgq_p, EV_READ | EV_PERSIST);
}

bool msgq_open_read_event(msgq_t *msgq_p, short what)
{
    msgq_p->read_event.reset(event_new(msgq_p->inst_p->base, msgq_p->sock_fd, what, on_readable, msgq_p));
    if (msgq_p->read_event != nullptr && event_add(msgq_p->read_event.get(), nullptr) == 0)
        return true;
    msgq_err("Failed to create read event");
    return false;
}

void msgq_schedule_write(msgq_t *msgq_p)
{
    msgq_event_pair_t *pair_p = &msgq_p->write;
    if (!pair_p->is_scheduled[pair_p->index])
        pair_p->is_scheduled[pair_p->index] = event_add(pair_p->events[pair_p->index].get(), nullptr) == 0;
}

void msgq_schedule_read(msgq_t *msgq_p)
{
    msgq_event_pair_t *pair_p = &msgq_p->read_helper;
    if (msgq_p->sock_fd < 0 || pair_p->is_scheduled[pair_p->index])
        return;
    pair_p->is_scheduled[pair_p->index] = true;
    ++msgq_p->counters.rx_read_helper_scheduled;
    event_active(pair_p->events[pair_p->index].get(), EV_READ, 0);
}

void msgq_go_up(msgq_t *msgq_p)
{
    msgq_hold hold(msgq_p);
    msgq_list_move(msgq_p, MSGQ_LIST_REG);
    ++msgq_p->counters.conn_up;
    if (msgq_p->cbs.conn_up != nullptr)
        msgq_p->cbs.conn_up(msgq_p, msgq_p->user_arg);
}

void msgq_close(msgq_t *msgq_p, msgq_after_close_t after)
{
    msgq_hold hold(msgq_p);
    ++msgq_p->counters.conn_close;
    msgq_p->down_pending = false;
    close_events(msgq_p);
    msgq_drop_queue(msgq_p);
    drop_half_read(msgq_p);
    close_socket(msgq_p);

    if (msgq_p->in_reg_list) {
        msgq_list_move(msgq_p, MSGQ_LIST_UNREG);
        ++msgq_p->counters.conn_down;
        if (msgq_p->cbs.conn_down != nullptr)
            msgq_p->cbs.conn_down(msgq_p, msgq_p->user_arg);
    }
    // conn_down may have freed the handle, and its timer with it.
    if (msgq_p->timer_p != nullptr && after == msgq_after_close_t::RECONNECT)
        timer_enable(msgq_p->timer_p);
}

void msgq_drop_temporary(msgq_t *tmp_p)
{
    msgq_hold hold(tmp_p);
    close_events(tmp_p);
    close_socket(tmp_p);
    msgq_list_leave(tmp_p);
    tmp_p->inst_p = nullptr;
    tmp_p->is_released = true;
}

void msgq_buffer_free(msgq_t *msgq_p, void *buf)
{
    ++msgq_p->counters.msg_frees;
    msgq_p->cbs.free(buf);
}
