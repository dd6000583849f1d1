// Writing. A message is queued and the queue flushed at once; what the socket does not take waits for a write event.
// A blocking handle sends past the queue and reads the answer in the same call.
//
// An error that is noticed here never closes the handle under the feet of the application that is just calling: it
// sets down_pending, and the write event closes from the loop.
#include "common/msgq_internal.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <sys/socket.h>

namespace
{

// As send(2), without its signals: SIGPIPE would end the process, EINTR means nothing here.
ssize_t send_part(const msgq_t *msgq_p, const void *buf, size_t size)
{
    ssize_t sent;
    do
        sent = send(msgq_p->sock_fd, buf, size, MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    return sent;
}

// False with errno as send(2) left it.
bool send_whole(const msgq_t *msgq_p, const uint8_t *buf, size_t size)
{
    while (size > 0) {
        ssize_t sent = send_part(msgq_p, buf, size);
        if (sent < 0)
            return false;
        buf += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

void send_failed(msgq_t *msgq_p, int error, uint16_t msg_size)
{
    if (msgq_p->sock_type == MSGQ_SOCK_TCP)
        msgq_err("Error in sending message to %d, err %d, msg_size is %d", static_cast<int>(msgq_p->tgt), error,
                 msg_size);
    if (error == EPIPE)
        msgq_err("BROKEN PIPE");
    tip_assert(!(msgq_p->blocking && error == EAGAIN));
    ++msgq_p->counters.tx_fail;
    msgq_p->down_pending = true;
    msgq_schedule_write(msgq_p);
}

int msgq_send_blocking(msgq_t *msgq_p, uint8_t *buf, uint16_t size)
{
    // Left over from before the handle was set to blocking; nothing may overtake it.
    msgq_flush(msgq_p);
    if (msgq_p->tx_head_p != nullptr)
        return MSGQ_NO_RESOURCES;
    if (!send_whole(msgq_p, buf, size)) {
        send_failed(msgq_p, errno, size);
        return MSGQ_NO_RESOURCES;
    }
    ++msgq_p->counters.tx_msg;
    msgq_buffer_free(msgq_p, buf);
    msgq_read(msgq_p);
    return MSGQ_OK;
}

int send_queued(msgq_t *msgq_p, uint8_t *buf, uint16_t size)
{
    void *memory = msgq_p->cbs.alloc(sizeof(msgq_tx_node_t));
    if (memory == nullptr) {
        ++msgq_p->counters.tx_queue_failed;
        return MSGQ_NO_RESOURCES;
    }
    auto *node_p = new (memory) msgq_tx_node_t{ .next = nullptr, .offset = 0, .size = size, .buf_p = buf };
    if (msgq_p->tx_tail_p != nullptr)
        msgq_p->tx_tail_p->next = node_p;
    else
        msgq_p->tx_head_p = node_p;
    msgq_p->tx_tail_p = node_p;
    ++msgq_p->counters.tx_queued;
    msgq_flush(msgq_p);
    return MSGQ_OK;
}

// Frees the head of the queue with its message, at the start of the message even when that went out in parts.
void drop_head(msgq_t *msgq_p)
{
    msgq_tx_node_t *node_p = msgq_p->tx_head_p;
    msgq_p->tx_head_p = node_p->next;
    if (msgq_p->tx_head_p == nullptr)
        msgq_p->tx_tail_p = nullptr;
    msgq_buffer_free(msgq_p, node_p->buf_p);
    msgq_p->cbs.free(node_p);
}

// True when the head of the queue went out whole.
bool send_head(msgq_t *msgq_p)
{
    msgq_tx_node_t *node_p = msgq_p->tx_head_p;
    size_t left = static_cast<size_t>(node_p->size - node_p->offset);
    ssize_t sent = send_part(msgq_p, node_p->buf_p + node_p->offset, left);
    if (sent == static_cast<ssize_t>(left))
        return true;
    if (sent < 0 && errno != EAGAIN) {
        send_failed(msgq_p, errno, node_p->size);
        return false;
    }
    node_p->offset = static_cast<uint16_t>(node_p->offset + (sent > 0 ? sent : 0));
    ++msgq_p->counters.tx_resched;
    return false;
}

uint16_t msgq_size_msg_to_app(const msgq_t *msgq_p, uint16_t size)
{
    return static_cast<uint16_t>(size - msgq_overhead(msgq_p));
}

void fill_header(const msgq_t *msgq_p, msgq_hdr_t *hdr_p, msgq_hdr_type_t type, uint16_t size)
{
    *hdr_p = { .magic1 = MAGIC1,
               .size = size,
               .src = static_cast<uint8_t>(msgq_p->src),
               .tgt = static_cast<uint8_t>(msgq_p->tgt),
               .type = type,
               .magic2 = MAGIC2 };
}

// Completes the library's header in front of a message of msgq_msg_alloc.
void seal_message(const msgq_t *msgq_p, uint8_t *buf, uint32_t app_size)
{
    auto *hdr_p = reinterpret_cast<msgq_hdr_t *>(buf);
    tip_assert(app_size <= msgq_size_msg_to_app(msgq_p, hdr_p->size));
    tip_assert((hdr_p->magic1 == MAGIC1) && (hdr_p->magic2 == MAGIC2));
    fill_header(msgq_p, hdr_p, MSGQ_HDR_DATA, static_cast<uint16_t>(app_size + sizeof *hdr_p));
}

} // namespace

int msgq_write(msgq_t *msgq_p, void *msg, uint32_t size)
{
    if (msgq_p == nullptr || msg == nullptr || size == 0 || size > UINT16_MAX)
        return MSGQ_BAD_ARGUMENT;
    msgq_hold hold(msgq_p);
    uint8_t *buf = static_cast<uint8_t *>(msg) - msgq_overhead(msgq_p);
    if (!msgq_p->use_app_header)
        seal_message(msgq_p, buf, size);
    if (msgq_is_up(msgq_p) == 0)
        return MSGQ_NOT_CONNECTED;
    uint16_t whole = static_cast<uint16_t>(size + msgq_overhead(msgq_p));
    return msgq_p->blocking ? msgq_send_blocking(msgq_p, buf, whole) : send_queued(msgq_p, buf, whole);
}

void msgq_flush(msgq_t *msgq_p)
{
    while (msgq_p->tx_head_p != nullptr && send_head(msgq_p)) {
        ++msgq_p->counters.tx_msg;
        ++msgq_p->counters.tx_dequeued;
        drop_head(msgq_p);
    }
    if (msgq_p->tx_head_p != nullptr)
        msgq_schedule_write(msgq_p);
}

void msgq_drop_queue(msgq_t *msgq_p)
{
    while (msgq_p->tx_head_p != nullptr)
        drop_head(msgq_p);
    msgq_p->counters.tx_dequeued = 0;
    msgq_p->counters.tx_queued = 0;
}

bool msgq_send_register(msgq_t *msgq_p)
{
    msgq_hdr_t hdr;
    fill_header(msgq_p, &hdr, MSGQ_HDR_REGISTER, sizeof hdr);
    if (send_part(msgq_p, &hdr, sizeof hdr) != static_cast<ssize_t>(sizeof hdr)) {
        msgq_err("Failed to send the register message to %s, errno: %d", daemon_id_to_name(msgq_p->tgt), errno);
        return false;
    }
    ++msgq_p->counters.tx_register;
    return true;
}
