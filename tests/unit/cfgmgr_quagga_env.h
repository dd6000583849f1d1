// What the tests of the routing channel share: a root short enough for the names of sockets, a loop, VPN records that
// are in no table, and routing daemons that are threads behind real sockets.
#ifndef TESTS_UNIT_CFGMGR_QUAGGA_ENV_H
#define TESTS_UNIT_CFGMGR_QUAGGA_ENV_H

#include "cfgmgr/routing/cfgmgr_quagga_daemon.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_msg.h"
#include "proto/routing_common.pb-c.h"
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_env.h"
#include "tests/unit/common_msgq_env.h"

#include <atomic>
#include <filesystem>
#include <mutex>
#include <protobuf-c/protobuf-c.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>

// A frame as it crosses the wire; seq is the last but one byte of the header.
inline std::string quagga_frame(uint8_t module, uint32_t type, const std::string &body, uint8_t seq = 0)
{
    size_t length = QUAGGA_HEADER_SIZE + body.size();
    return std::string{ static_cast<char>(length >> 8), static_cast<char>(length), static_cast<char>(module),
                        static_cast<char>(type),        static_cast<char>(seq),    '\0' } +
           body;
}

template <typename MESSAGE> std::string packed(const MESSAGE &message)
{
    std::string bytes(protobuf_c_message_get_packed_size(&message.base), '\0');
    protobuf_c_message_pack(&message.base, reinterpret_cast<uint8_t *>(bytes.data()));
    return bytes;
}

inline std::string response(uint32_t code, const char *text = nullptr)
{
    MMsgResponse message = M_MSG_RESPONSE__INIT;
    message.code = code;
    message.message = const_cast<char *>(text);
    return packed(message);
}

// A Unix socket that listens, takes one connection after the other, keeps every frame and sends what the script says.
class scripted_daemon_t
{
public:
    // The bytes to answer a frame with; "" for none.
    using script_t = std::function<std::string(const std::string &frame)>;

    explicit scripted_daemon_t(
        const std::string &path, script_t script = [](const std::string &) { return ""; })
        : script_(std::move(script)), listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << path;
        EXPECT_EQ(listen(listener_.get(), 4), 0);
        // A test may fork next: then the thread must hold none of the locks that its start takes.
        thread_ = std::thread([this] {
            is_started_ = true;
            is_started_.notify_one();
            serve();
        });
        is_started_.wait(false);
    }
    scripted_daemon_t(const scripted_daemon_t &) = delete;
    scripted_daemon_t &operator=(const scripted_daemon_t &) = delete;
    ~scripted_daemon_t()
    {
        shutdown(listener_.get(), SHUT_RDWR);
        hang_up();
        thread_.join();
    }

    void hang_up()
    {
        std::lock_guard guard(lock_);
        if (connection_.is_open())
            shutdown(connection_.get(), SHUT_RDWR);
    }
    void send(const std::string &bytes)
    {
        std::lock_guard guard(lock_);
        EXPECT_EQ(::send(connection_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    std::vector<std::string> frames()
    {
        std::lock_guard guard(lock_);
        return frames_;
    }
    int connections()
    {
        std::lock_guard guard(lock_);
        return connections_;
    }

private:
    void serve()
    {
        for (int fd; (fd = accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            {
                std::lock_guard guard(lock_);
                connection_.reset(fd);
                ++connections_;
            }
            while (take_frame(fd)) {
            }
        }
    }
    bool take_frame(int fd)
    {
        std::string frame(QUAGGA_HEADER_SIZE, '\0');
        if (recv(fd, frame.data(), frame.size(), MSG_WAITALL) != static_cast<ssize_t>(frame.size()))
            return false;
        size_t length = static_cast<size_t>(static_cast<uint8_t>(frame[0]) << 8 | static_cast<uint8_t>(frame[1]));
        std::string body(length - frame.size(), '\0');
        if (recv(fd, body.data(), body.size(), MSG_WAITALL) != static_cast<ssize_t>(body.size()))
            return false;
        frame += body;
        {
            std::lock_guard guard(lock_);
            frames_.push_back(frame);
        }
        std::string answer = script_(frame);
        (void)::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL); // the other end may be gone
        return true;
    }

    std::mutex lock_;
    script_t script_;
    unique_fd listener_, connection_;
    std::vector<std::string> frames_;
    int connections_ = 0;
    std::atomic<bool> is_started_ = false;
    std::thread thread_;
};

class cfgmgr_quagga_env : public cfgmgr_env
{
protected:
    cfgmgr_quagga_env()
    {
        char name[] = "/tmp/qXXXXXX";
        root_ = mkdtemp(name);
        std::filesystem::create_directories(run_path(""));
        tip_root_set(root_.c_str());
        daemon.event_base = loop.base.get();
        daemon.timer_mgr_p = loop.timers;
        device().has_routing = true;
    }
    ~cfgmgr_quagga_env() override
    {
        cfgmgr_vpn_deinit(&daemon);
        std::filesystem::remove_all(root_);
    }

    std::string run_path(const std::string &name) const { return root_ + "/var/run/quagga/" + name; }
    void write_pid(const std::string &name, const std::string &text) const { std::ofstream(run_path(name)) << text; }

    loop_t loop;

private:
    std::string root_;
};

// A VPN of a test's own, in no table.
struct quagga_vpn_t {
    cfgmgr_vpn_t record{};

    quagga_vpn_t(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
    {
        record.cfgmgr_p = cfgmgrd_p;
        record.vpn_id = vpn_id;
    }
    quagga_vpn_t(const quagga_vpn_t &) = delete;
    quagga_vpn_t &operator=(const quagga_vpn_t &) = delete;
    ~quagga_vpn_t()
    {
        for (uint32_t peer_id = QUAGGA_PEER_FIRST; peer_id <= QUAGGA_PEER_LAST; peer_id++)
            if (record.q_daemon_p[peer_id] != nullptr)
                cfgmgr_vpn_del_quagga_daemon(peer_id, &record);
    }
};

#endif
