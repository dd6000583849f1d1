// The connecting side. A client that does not block tries every CONNECT_RETRY_MS, for ever and at the same pace; a
// blocking one tries without a pause until its server is there, and once its connection is lost it stays down.
#include "common/msgq_internal.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace
{

constexpr uint32_t CONNECT_RETRY_MS = 500;
constexpr int CONNECT_WAIT_MS = 5000;

struct address_t {
    union {
        sockaddr any;
        sockaddr_un local;
        sockaddr_in inet;
    };
    socklen_t length;
};

// False when the address text is none; errno says so.
bool build_address(const msgq_t *msgq_p, address_t *address)
{
    memset(address, 0, sizeof *address);
    if (msgq_p->sock_type == MSGQ_SOCK_UNIX) {
        address->local.sun_family = AF_UNIX;
        static_assert(sizeof address->local.sun_path >= MSGQ_PATH_SIZE);
        memcpy(address->local.sun_path, msgq_p->path, MSGQ_PATH_SIZE);
        address->length = sizeof address->local;
        return true;
    }
    address->inet.sin_family = AF_INET;
    address->inet.sin_port = htons(static_cast<uint16_t>(msgq_p->port));
    address->length = sizeof address->inet;
    errno = EINVAL;
    return inet_pton(AF_INET, msgq_p->ip, &address->inet.sin_addr) == 1;
}

// Waits for a connection in progress. poll(2), because a process with many descriptors has some that select cannot.
bool wait_connected(int fd)
{
    pollfd waited = { .fd = fd, .events = POLLOUT, .revents = 0 };
    if (poll(&waited, 1, CONNECT_WAIT_MS) <= 0) {
        msgq_err("Timeout in select");
        return false;
    }
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
        error = errno;
    if (error != 0)
        msgq_err("ERROR in getsockopt: %d - %s", error, strerror(error));
    return error == 0;
}

bool connect_socket(msgq_t *msgq_p, int fd, const address_t *address)
{
    if (connect(fd, &address->any, address->length) == 0)
        return true;
    if (msgq_p->sock_type == MSGQ_SOCK_TCP && errno == EINPROGRESS)
        return wait_connected(fd);
    // A blocking client tries so often that it tells of the same error once only.
    int error = errno;
    if (!msgq_p->blocking || error != msgq_p->connect_errno)
        msgq_err("Failed to connect for fd: %d, error: %d", fd, error);
    msgq_p->connect_errno = error;
    return false;
}

unique_fd open_connection(msgq_t *msgq_p)
{
    address_t address;
    if (!build_address(msgq_p, &address)) {
        msgq_err("Failed to connect for fd: %d, error: %d", -1, errno);
        return {};
    }
    int mode = SOCK_CLOEXEC | (msgq_p->blocking ? 0 : SOCK_NONBLOCK);
    unique_fd fd(socket(static_cast<int>(msgq_p->sock_type), SOCK_STREAM | mode, 0));
    if (!fd.is_open()) {
        msgq_err("Socket init failed %d", errno);
        return {};
    }
    if (!connect_socket(msgq_p, fd.get(), &address))
        return {};
    return fd;
}

// One attempt.
void msgq_connect_timer(msgq_t *msgq_p)
{
    tip_assert(msgq_p->sock_fd == -1);
    unique_fd fd = open_connection(msgq_p);
    if (msgq_p->timer_p != nullptr)
        timer_disable(msgq_p->timer_p);
    if (!fd.is_open()) {
        if (msgq_p->timer_p != nullptr)
            timer_enable(msgq_p->timer_p);
        return;
    }
    msgq_p->sock_fd = fd.release();
    if (!msgq_open_events(msgq_p) || (!msgq_p->no_register && !msgq_send_register(msgq_p))) {
        msgq_close(msgq_p, msgq_after_close_t::RECONNECT);
        return;
    }
    msgq_go_up(msgq_p);
}

void on_connect_timer(timer_util_t *, void *arg1, void *, void *, void *)
{
    msgq_connect_timer(static_cast<msgq_t *>(arg1));
}

} // namespace

static_assert(MSGQ_SOCK_UNIX == AF_UNIX && MSGQ_SOCK_TCP == AF_INET);

bool msgq_init_start_client(msgq_t *msgq_p)
{
    if (msgq_p->blocking) {
        msgq_connect_timer(msgq_p);
        while (msgq_p->sock_fd == -1 && !msgq_p->is_released) {
            sched_yield(); // on a single processor the server could not come up otherwise
            msgq_connect_timer(msgq_p);
        }
        return true;
    }
    msgq_p->timer_p =
        timer_util_create(msgq_p->inst_p->timer_mgr_p, TIMER_PRIO_NORMAL, TIMER_ONE_SHOT, CONNECT_RETRY_MS,
                          on_connect_timer, msgq_p, nullptr, nullptr, nullptr, "msgq-timer");
    if (msgq_p->timer_p == nullptr) {
        msgq_err("Failed to init connect timer for %p", static_cast<void *>(msgq_p));
        return false;
    }
    timer_enable(msgq_p->timer_p);
    return true;
}
