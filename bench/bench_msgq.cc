// The message queue against a bare Unix socket. Both ends are in one process and on one event loop in either case, with
// the same 8-byte header in front of each message; the bare side reads into fixed buffers and does no bookkeeping.
//
// round_trip: one message there and one back. one_way: bursts in one direction. The argument is the body's size.
// Aim: the message queue within 1.5 times the bare socket's time.
#include "common/event_handle.h"
#include "common/msgq_internal.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>

namespace
{

constexpr int BURST = 64;

void require(bool is_so, const char *what)
{
    if (is_so)
        return;
    fprintf(stderr, "bench_msgq: %s\n", what);
    exit(1);
}

// A connected pair of ends; each counts what it receives, and the second sends it back when echo is set.
class msgq_pair_t
{
public:
    explicit msgq_pair_t(size_t size) : size_(static_cast<uint32_t>(size))
    {
        require(mkdtemp(dir_) != nullptr, "no temporary folder");
        timers_ = timer_mgr_create(TIMER_RES_10MS, nullptr, nullptr, nullptr, TIMER_MASK_NORMAL);
        msgq_cfg_t cfg = {};
        cfg.event_base = base.get();
        cfg.timer_mgr = timers_;
        cfg.facility = LOG_LOCAL7;
        cfg.sock_type = MSGQ_SOCK_UNIX;
        (void)snprintf(cfg.path, sizeof cfg.path, "%s/queue", dir_);
        const msgq_cbs_t cbs = { ignore, ignore, ignore, on_rx, malloc, free };
        server_ = msgq_init(7, 5, MSGQ_HANDLE_TYPE_SERVER, &cfg, &cbs, this);
        client_ = msgq_init(5, 7, MSGQ_HANDLE_TYPE_CLIENT, &cfg, &cbs, this);
        while (msgq_is_up(server_) == 0 || msgq_is_up(client_) == 0) {
            event_base_loop(base.get(), EVLOOP_NONBLOCK);
            timer_run(timers_, TIMER_MASK_ALL, 1000);
        }
    }
    ~msgq_pair_t()
    {
        msgq_free_all();
        timer_mgr_delete(timers_);
        (void)remove((std::string(dir_) + "/queue").c_str());
        (void)remove(dir_);
    }
    void send() { send_from(client_); }

    event_base_ptr base{ event_base_new() };
    bool echo = false;
    int received_here = 0;
    int received_there = 0;

private:
    void send_from(msgq_t *msgq_p) const
    {
        void *msg = msgq_msg_alloc(msgq_p, size_);
        memset(msg, 1, size_);
        require(msgq_write(msgq_p, msg, size_) == MSGQ_OK, "msgq_write failed");
    }
    static void ignore(msgq_t *, void *) {}
    static void on_rx(msgq_t *msgq_p, void *msg, uint16_t, void *arg)
    {
        auto *self = static_cast<msgq_pair_t *>(arg);
        bool is_there = msgq_p == self->server_;
        ++(is_there ? self->received_there : self->received_here);
        msgq_msg_free(msgq_p, msg);
        if (is_there && self->echo)
            self->send_from(msgq_p);
    }

    char dir_[32] = "/tmp/bench-msgq-XXXXXX";
    timer_mgr_t *timers_;
    uint32_t size_;
    msgq_t *server_;
    msgq_t *client_;
};

class bare_pair_t
{
public:
    explicit bare_pair_t(size_t size) : size_(size)
    {
        int fds[2];
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds) == 0, "no socket pair");
        for (int i = 0; i < 2; ++i) {
            ends_[i].fd.reset(fds[i]);
            ends_[i].pair_p = this;
            ends_[i].event.reset(event_new(base.get(), fds[i], EV_READ | EV_PERSIST, on_readable, &ends_[i]));
            event_add(ends_[i].event.get(), nullptr);
        }
    }
    void send() { send_from(ends_[0]); }

    event_base_ptr base{ event_base_new() };
    bool echo = false;
    int received_here = 0;
    int received_there = 0;

private:
    struct end_t {
        bare_pair_t *pair_p;
        unique_fd fd;
        event_ptr event;
    };

    void send_from(const end_t &end)
    {
        msgq_hdr_t hdr = { MAGIC1, static_cast<uint16_t>(size_ + sizeof hdr), 5, 7, MSGQ_HDR_DATA, MAGIC2 };
        memcpy(out_, &hdr, sizeof hdr);
        memset(out_ + sizeof hdr, 1, size_);
        auto whole = static_cast<ssize_t>(size_ + sizeof hdr);
        require(::send(end.fd.get(), out_, whole, MSG_NOSIGNAL) == whole, "the socket is full");
    }
    static void on_readable(evutil_socket_t fd, short, void *arg)
    {
        auto *end = static_cast<end_t *>(arg);
        bare_pair_t *self = end->pair_p;
        bool is_there = end == &self->ends_[1];
        msgq_hdr_t hdr;
        while (recv(fd, &hdr, sizeof hdr, MSG_DONTWAIT) == static_cast<ssize_t>(sizeof hdr)) {
            auto body = static_cast<ssize_t>(hdr.size - sizeof hdr);
            require(recv(fd, self->in_, body, MSG_DONTWAIT) == body, "half a message");
            ++(is_there ? self->received_there : self->received_here);
            if (is_there && self->echo)
                self->send_from(*end);
        }
    }

    size_t size_;
    end_t ends_[2];
    char in_[65536];
    char out_[65536];
};

template <typename pair_t> void round_trip(benchmark::State &state)
{
    pair_t pair(static_cast<size_t>(state.range(0)));
    pair.echo = true;
    int expected = 0;
    for (auto _ : state) {
        pair.send();
        for (++expected; pair.received_here != expected;)
            event_base_loop(pair.base.get(), EVLOOP_ONCE);
    }
    state.SetItemsProcessed(state.iterations());
}

template <typename pair_t> void one_way(benchmark::State &state)
{
    pair_t pair(static_cast<size_t>(state.range(0)));
    int expected = 0;
    for (auto _ : state) {
        for (int i = 0; i < BURST; ++i)
            pair.send();
        for (expected += BURST; pair.received_there != expected;)
            event_base_loop(pair.base.get(), EVLOOP_ONCE);
    }
    state.SetItemsProcessed(state.iterations() * BURST);
}

BENCHMARK(round_trip<bare_pair_t>)->Arg(32)->Arg(1024)->Arg(16384);
BENCHMARK(round_trip<msgq_pair_t>)->Arg(32)->Arg(1024)->Arg(16384);
BENCHMARK(one_way<bare_pair_t>)->Arg(32)->Arg(1024);
BENCHMARK(one_way<msgq_pair_t>)->Arg(32)->Arg(1024);

} // namespace
