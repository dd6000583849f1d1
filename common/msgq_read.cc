// Reading: a header, then the rest of the message straight into its own buffer, then the application's rx; again and
// again while there is something to read.
//
// Both framings are read alike and differ in the header: where it comes from, where the size stands in it, and
// whether the application sees it. What came in of a message is counted in bytes_read, so that reading resumes at any
// byte.
#include "common/msgq_internal.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/socket.h>

namespace
{

// One wake-up serves messages for about this long, then the other events of the loop have their turn.
constexpr time_t READ_BUDGET_S = 1;

time_t monotonic_seconds()
{
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

bool is_transient(ssize_t received)
{
    return received < 0 && (errno == EAGAIN || errno == EINTR);
}

// received is what recv(2) gave in the place of wanted bytes, 0 or -1.
void read_failed(msgq_t *msgq_p, size_t wanted, ssize_t received)
{
    if (is_transient(received))
        return;
    if (msgq_p->in_tmp_list) {
        msgq_drop_temporary(msgq_p);
        return;
    }
    int error = received < 0 ? errno : 0;
    int wanted_bytes = static_cast<int>(wanted), read_bytes = static_cast<int>(received);
    if (msgq_p->use_app_header && msgq_p->msg_p == nullptr)
        msgq_err("Failed to peek %d bytes, errno: %d, read_bytes: %d", wanted_bytes, error, read_bytes);
    else if (msgq_p->use_app_header)
        msgq_err("Failed to read %d bytes, errno: %d, read_bytes: %d", wanted_bytes, error, read_bytes);
    ++msgq_p->counters.rx_fail;
    msgq_close(msgq_p, msgq_after_close_t::RECONNECT);
}

// Receives into buf until the message has `until` bytes. False when they are not there: nothing more can be read now,
// or the connection is closed. A blocking handle waits for them; a signal must not part it from its answer.
bool receive(msgq_t *msgq_p, uint8_t *buf, uint16_t until)
{
    int flags = msgq_p->blocking ? MSG_WAITALL : MSG_DONTWAIT;
    while (msgq_p->bytes_read < until) {
        size_t wanted = until - msgq_p->bytes_read;
        ssize_t received = recv(msgq_p->sock_fd, buf + msgq_p->bytes_read, wanted, flags);
        if (received < 0 && errno == EINTR && msgq_p->blocking)
            continue;
        if (received < 1) {
            read_failed(msgq_p, wanted, received);
            return false;
        }
        msgq_p->bytes_read = static_cast<uint16_t>(msgq_p->bytes_read + received);
        if (!msgq_p->blocking && msgq_p->bytes_read < until)
            return false;
    }
    return true;
}

uint16_t header_length(const msgq_t *msgq_p)
{
    return msgq_p->use_app_header ? msgq_p->app_hdrlen : sizeof(msgq_hdr_t);
}

uint16_t checked_app_size(const msgq_t *msgq_p)
{
    const uint8_t *at = msgq_p->hdr_buf + msgq_p->app_size_offset;
    uint16_t msg_size = static_cast<uint16_t>(at[0] << 8 | at[1]);
    uint16_t app_hdrlen = msgq_p->app_hdrlen;
    tip_assert(msg_size > app_hdrlen);
    return msg_size;
}

uint16_t checked_size(const msgq_hdr_t *hdr_p)
{
    uint16_t msg_size = hdr_p->size;
    uint16_t hdrlen = sizeof *hdr_p;
    tip_assert(msg_size > hdrlen);
    return msg_size;
}

// Takes the buffer of the message whose header is complete. A message is never dropped for want of memory.
void begin_message(msgq_t *msgq_p, uint16_t msg_size)
{
    uint16_t hdrlen = header_length(msgq_p);
    auto *buf = static_cast<uint8_t *>(msgq_p->cbs.alloc(msg_size));
    if (buf == nullptr)
        ++msgq_p->counters.alloc_failed;
    tip_assert(buf != nullptr);
    memcpy(buf, msgq_p->hdr_buf, hdrlen);
    memset(msgq_p->hdr_buf, 0, hdrlen);
    msgq_p->msg_p = buf;
    msgq_p->msg_size = msg_size;
    ++msgq_p->counters.msg_allocs;
}

// False when there is no message to go on with.
bool read_header(msgq_t *msgq_p)
{
    if (!receive(msgq_p, msgq_p->hdr_buf, header_length(msgq_p)))
        return false;
    if (msgq_p->use_app_header) {
        begin_message(msgq_p, checked_app_size(msgq_p));
        return true;
    }
    msgq_hdr_t hdr;
    memcpy(&hdr, msgq_p->hdr_buf, sizeof hdr);
    if (msgq_p->in_tmp_list || hdr.type == MSGQ_HDR_REGISTER) {
        msgq_handle_register_msg(msgq_p, &hdr);
        return false;
    }
    begin_message(msgq_p, checked_size(&hdr));
    return true;
}

void deliver(msgq_t *msgq_p)
{
    uint16_t overhead = msgq_overhead(msgq_p);
    uint8_t *msg = std::exchange(msgq_p->msg_p, nullptr) + overhead;
    uint16_t length = static_cast<uint16_t>(std::exchange(msgq_p->msg_size, 0) - overhead);
    msgq_p->bytes_read = 0;
    ++msgq_p->counters.rx_msg;
    msgq_p->cbs.rx(msgq_p, msg, length, msgq_p->user_arg);
}

bool read_message(msgq_t *msgq_p)
{
    if (msgq_p->msg_p == nullptr && !read_header(msgq_p))
        return false;
    if (!receive(msgq_p, msgq_p->msg_p, msgq_p->msg_size))
        return false;
    deliver(msgq_p);
    return true;
}

} // namespace

void msgq_read(msgq_t *msgq_p)
{
    msgq_hold hold(msgq_p);
    time_t start = monotonic_seconds();
    while (read_message(msgq_p)) {
        // A blocking handle reads the one answer to what it sent. rx may have closed or freed the handle.
        if (msgq_p->blocking || msgq_p->sock_fd < 0 || monotonic_seconds() - start > READ_BUDGET_S)
            break;
    }
    // The read event of a handle that waits for its register message is not persistent.
    if (msgq_p->in_tmp_list)
        (void)event_add(msgq_p->read_event.get(), nullptr);
}
