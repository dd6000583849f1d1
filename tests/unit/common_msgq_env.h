// What the message queue's tests share: a loop with timers, handles that write down what happens to them, memory slots
// that know every block, and a peer made of a bare socket.
#ifndef TESTS_UNIT_COMMON_MSGQ_ENV_H
#define TESTS_UNIT_COMMON_MSGQ_ENV_H

#include "common/event_handle.h"
#include "common/msgq_internal.h"
#include "common/timer.h"
#include "tests/harness/temp_dir.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

// The memory slots. A block that is freed twice, or anywhere but at its start, is reported.
struct memory_t {
    static memory_t &get()
    {
        static memory_t memory;
        return memory;
    }
    static void *alloc(size_t size)
    {
        memory_t &memory = get();
        if (memory.fail_after == 0)
            return nullptr;
        memory.fail_after -= memory.fail_after > 0;
        void *block = malloc(size);
        memory.blocks.insert(block);
        return block;
    }
    static void free_block(void *block)
    {
        EXPECT_EQ(get().blocks.erase(block), 1u) << "freed what was not allocated";
        free(block);
    }
    std::set<void *> blocks;
    int fail_after = -1; // allocations that still succeed; -1: all
};

struct framing_t {
    const char *name;
    bool use_app_header;
    size_t header_size;
};
inline constexpr framing_t LIBRARY = { "library", false, 8 };
inline constexpr framing_t APPLICATION = { "application", true, 6 };

inline std::string lib_header(uint16_t size, uint8_t src, uint8_t tgt, uint8_t type)
{
    msgq_hdr_t hdr = { .magic1 = MAGIC1, .size = size, .src = src, .tgt = tgt, .type = type, .magic2 = MAGIC2 };
    return std::string(reinterpret_cast<const char *>(&hdr), sizeof hdr);
}

inline std::string app_header(uint16_t size)
{
    return { static_cast<char>(size >> 8), static_cast<char>(size), 'h', 'e', 'a', 'd' };
}

// body as it crosses the wire from the client 5 to the server 7.
inline std::string frame(const framing_t &framing, const std::string &body)
{
    auto size = static_cast<uint16_t>(framing.header_size + body.size());
    return (framing.use_app_header ? app_header(size) : lib_header(size, 5, 7, MSGQ_HDR_DATA)) + body;
}

// A handle and its story. The hooks run inside the callbacks of their names.
struct end_t {
    msgq_t *handle = nullptr;
    int ups = 0;
    int downs = 0;
    std::vector<std::string> bodies;
    std::function<void(end_t &)> on_up, on_down, on_rx;

    const msgq_counters_t &counters() const { return handle->counters; }

    int write(const std::string &body)
    {
        std::string text = (handle->use_app_header ? app_header(static_cast<uint16_t>(body.size() + 6)) : "") + body;
        void *msg = msgq_msg_alloc(handle, static_cast<uint32_t>(text.size()));
        memcpy(msg, text.data(), text.size());
        int result = msgq_write(handle, msg, static_cast<uint32_t>(text.size()));
        if (result != MSGQ_OK)
            msgq_msg_free(handle, msg);
        return result;
    }

    static void up(msgq_t *msgq_p, void *arg)
    {
        auto *end = static_cast<end_t *>(arg);
        end->handle = msgq_p;
        ++end->ups;
        if (end->on_up)
            end->on_up(*end);
    }
    static void down(msgq_t *, void *arg)
    {
        auto *end = static_cast<end_t *>(arg);
        ++end->downs;
        if (end->on_down)
            end->on_down(*end);
    }
    static void error(msgq_t *, void *) { ADD_FAILURE() << "the third slot was called"; }
    static void rx(msgq_t *msgq_p, void *msg, uint16_t length, void *arg)
    {
        auto *end = static_cast<end_t *>(arg);
        const char *text = static_cast<const char *>(msg);
        size_t skipped = msgq_p->use_app_header ? 6 : 0;
        end->bodies.emplace_back(text + skipped, length - skipped);
        if (end->on_rx)
            end->on_rx(*end);
        msgq_msg_free(msgq_p, msg);
    }
};

inline const msgq_cbs_t end_callbacks = { end_t::up, end_t::down,     end_t::error,
                                          end_t::rx, memory_t::alloc, memory_t::free_block };

// A loop with a timer manager, whose clock moves by a tick with each turn. All handles are freed with it.
struct loop_t {
    event_base_ptr base{ event_base_new() };
    timer_mgr_t *timers;
    static inline timespec now = { 1, 0 };

    loop_t()
    {
        timer_clock_set([](timespec *time) { *time = now; });
        timers = timer_mgr_create(TIMER_RES_10MS, nullptr, nullptr, nullptr, TIMER_MASK_NORMAL);
    }
    ~loop_t()
    {
        msgq_free_all();
        timer_mgr_delete(timers);
        timer_clock_set(nullptr);
        EXPECT_TRUE(memory_t::get().blocks.empty());
    }

    msgq_cfg_t config(const framing_t &framing, const std::string &path) const
    {
        msgq_cfg_t cfg = {};
        cfg.event_base = base.get();
        cfg.timer_mgr = timers;
        cfg.use_app_header = framing.use_app_header;
        cfg.app_hdrlen = 6;
        cfg.facility = LOG_LOCAL7;
        cfg.sock_type = MSGQ_SOCK_UNIX;
        strncpy(cfg.path, path.c_str(), sizeof cfg.path - 1);
        return cfg;
    }
    void server(end_t &end, const framing_t &framing, const std::string &path, uint32_t tgt = 5) const
    {
        msgq_cfg_t cfg = config(framing, path);
        end.handle = msgq_init(7, tgt, MSGQ_HANDLE_TYPE_SERVER, &cfg, &end_callbacks, &end);
    }
    void client(end_t &end, const framing_t &framing, const std::string &path) const
    {
        msgq_cfg_t cfg = config(framing, path);
        end.handle = msgq_init(5, 7, MSGQ_HANDLE_TYPE_CLIENT, &cfg, &end_callbacks, &end);
    }

    void turn() const
    {
        event_base_loop(base.get(), EVLOOP_NONBLOCK);
        now.tv_nsec += 10000000;
        now.tv_sec += now.tv_nsec / 1000000000;
        now.tv_nsec %= 1000000000;
        timer_run(timers, TIMER_MASK_ALL, 1000);
    }
    // False when done does not come true within ten seconds.
    bool run_until(const std::function<bool()> &done) const
    {
        auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        for (; !done(); turn()) {
            if (std::chrono::steady_clock::now() > limit)
                return false;
            usleep(200);
        }
        return true;
    }
    void settle() const
    {
        for (int i = 0; i < 20; ++i)
            turn();
    }
};

// The other end, by hand.
struct raw_peer_t {
    explicit raw_peer_t(const std::string &path) : fd(socket(AF_UNIX, SOCK_STREAM, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }
    void send(const std::string &bytes) const
    {
        EXPECT_EQ(::send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    void enter(const framing_t &framing) const
    {
        if (!framing.use_app_header)
            send(lib_header(8, 5, 7, MSGQ_HDR_REGISTER));
    }
    // What has arrived, at most size bytes.
    std::string receive(size_t size = 1 << 20) const
    {
        std::string bytes(size, '\0');
        ssize_t n = recv(fd.get(), bytes.data(), size, MSG_DONTWAIT);
        bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return bytes;
    }
    bool is_closed() const
    {
        char byte;
        return recv(fd.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
    }
    unique_fd fd;
};

#endif
