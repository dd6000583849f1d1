// The real routing peer in a folder and a network namespace of the test's own, talked to as cfgmgr does.
#include "platform/routing/interface_table.h"
#include "platform/routing/message_json.h"
#include "platform/routing/message_table.h"
#include "proto/bgp.pb-c.h"
#include "proto/routing_common.pb-c.h"
#include "proto/zebra.pb-c.h"
#include "tests/harness/temp_dir.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

// A process that holds a namespace of its own, for others to enter.
class namespace_t
{
public:
    namespace_t()
    {
        int ends[2];
        char byte = 0;
        if (pipe(ends) != 0)
            return;
        pid_ = fork();
        if (pid_ == 0) {
            close(ends[0]);
            bool is_made = unshare(CLONE_NEWNET) == 0;
            if (is_made && write(ends[1], "", 1) == 1)
                for (;;)
                    pause();
            _exit(1);
        }
        close(ends[1]);
        is_made_ = read(ends[0], &byte, 1) == 1;
        close(ends[0]);
    }
    namespace_t(const namespace_t &) = delete;
    namespace_t &operator=(const namespace_t &) = delete;
    ~namespace_t()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    bool is_made() const { return is_made_; }
    std::string path() const { return "/proc/" + std::to_string(pid_) + "/ns/net"; }
    int ip(const std::string &words) const { return system(("nsenter --net=" + path() + " ip " + words).c_str()); }

private:
    pid_t pid_ = -1;
    bool is_made_ = false;
};

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    EXPECT_LT(path.size(), sizeof address.sun_path);
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

void limit_reads(int fd)
{
    timeval limit = { .tv_sec = 10, .tv_usec = 0 };
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

// A connection, from either side.
class link_t
{
public:
    explicit link_t(int fd = -1) : fd_(fd) { limit_reads(fd); }
    link_t(const link_t &) = delete;
    link_t &operator=(const link_t &) = delete;
    ~link_t() { close(fd_); }

    // As the blocking client does it: again and again, without a pause.
    bool connect_to(const std::string &path)
    {
        sockaddr_un address = address_of(path);
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        limit_reads(fd_);
        auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
            if (std::chrono::steady_clock::now() > limit)
                return false;
        }
        return true;
    }
    void send_bytes(const std::string &bytes) const
    {
        EXPECT_EQ(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    void send_message(uint8_t module, uint8_t type, const ProtobufCMessage &message) const
    {
        send_bytes(frame_bytes({ module, type, type, message_pack(message) }));
    }
    // The next frame; false at the end of the connection, or when none comes.
    bool receive(frame_t *frame) const
    {
        std::string bytes(FRAME_HEADER_SIZE, '\0');
        size_t size = 0;
        if (recv(fd_, bytes.data(), bytes.size(), MSG_WAITALL) != static_cast<ssize_t>(bytes.size()))
            return false;
        size_t length = static_cast<size_t>(static_cast<uint8_t>(bytes[0]) << 8 | static_cast<uint8_t>(bytes[1]));
        bytes.resize(length);
        size_t rest = length - FRAME_HEADER_SIZE;
        return recv(fd_, bytes.data() + FRAME_HEADER_SIZE, rest, MSG_WAITALL) == static_cast<ssize_t>(rest) &&
               frame_read(bytes, frame, &size) == FRAME_WHOLE;
    }
    // "TYPE MESSAGE" of the next frame.
    std::string receive_text(const ProtobufCMessageDescriptor &descriptor) const
    {
        frame_t frame;
        if (!receive(&frame))
            return "nothing";
        message_row_t row = { frame.module, frame.type, 0, MESSAGE_CONFIG, &descriptor };
        message_ptr message = message_unpack(row, frame.body);
        return std::to_string(frame.type) + " " + (message ? message_json(*message) : "no message");
    }
    bool is_silent() const
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        char byte;
        return recv(fd_, &byte, 1, MSG_DONTWAIT | MSG_PEEK) < 0 && errno == EAGAIN;
    }

private:
    int fd_;
};

class RoutingPeer : public ::testing::Test
{
protected:
    RoutingPeer() { dir.make_dir("var/run/netns"); }
    ~RoutingPeer() override
    {
        if (pid > 0)
            end(SIGKILL);
    }

    void start(const std::string &daemon, const std::string &vpn)
    {
        std::string root = dir.path();
        if (!vpn_space.is_made())
            return;
        std::error_code ignored; // there already
        std::filesystem::create_symlink(vpn_space.path(), dir.path("var/run/netns/5"), ignored);
        pid = fork();
        if (pid == 0) {
            execl(PEER_PROGRAM, PEER_PROGRAM, daemon.c_str(), "--vpn", vpn.c_str(), "--root", root.c_str(), nullptr);
            _exit(127);
        }
    }
    int end(int number)
    {
        if (number != 0)
            kill(pid, number);
        int status = -1;
        waitpid(pid, &status, 0);
        pid = -1;
        return status;
    }
    std::string run(const std::string &name) const { return dir.path("var/run/quagga/" + name); }
    void control(const std::string &name, const std::string &lines) const
    {
        dir.write("var/run/quagga/control.new", lines);
        std::filesystem::rename(run("control.new"), run(name));
    }
    // The messages in a log, without their times.
    std::string log(const std::string &name) const
    {
        std::stringstream text(dir.read("var/log/quagga/" + name));
        std::string out;
        for (std::string line; std::getline(text, line);)
            out += line.substr(line.find(",\"vpn\"") + 1) + "\n";
        return out;
    }
    template <typename Condition>::testing::AssertionResult soon(Condition condition) const
    {
        for (int i = 0; i < 1000; i++) {
            if (condition())
                return ::testing::AssertionSuccess();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return ::testing::AssertionFailure() << "not within 10 s";
    }
    static std::string code_of(const link_t &link) { return link.receive_text(m_msg_response__descriptor); }

    temp_dir dir;
    namespace_t vpn_space;
    pid_t pid = -1;
};

#define NEEDS_NAMESPACE()                                                                                              \
    if (!vpn_space.is_made())                                                                                          \
    GTEST_SKIP() << "no right to make a network namespace"

TEST_F(RoutingPeer, pid_file_is_there_before_the_sockets_and_gone_after)
{
    NEEDS_NAMESPACE();
    dir.write("var/run/quagga/bgpd.control.5", "late 700\n");
    dir.write("var/run/quagga/bgpd_protobuf_mgmt.api.5", "left by another");
    start("bgpd", "5");
    ASSERT_TRUE(soon([&] { return dir.has("var/run/quagga/bgpd.pid.5"); }));
    EXPECT_EQ(dir.read("var/run/quagga/bgpd.pid.5"), std::to_string(pid) + "\n");
    EXPECT_TRUE(std::filesystem::is_regular_file(run("bgpd_protobuf_mgmt.api.5"))); // not opened yet
    link_t link;
    ASSERT_TRUE(link.connect_to(run("bgpd_protobuf_mgmt.api.5")));
    EXPECT_FALSE(dir.has("var/run/quagga/zebra_protobuf_ctrl.api.5"));
    int status = end(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_FALSE(dir.has("var/run/quagga/bgpd.pid.5"));
    EXPECT_FALSE(dir.has("var/run/quagga/bgpd_protobuf_mgmt.api.5"));
}

TEST_F(RoutingPeer, files_of_the_transport_vpn_have_no_number)
{
    NEEDS_NAMESPACE();
    start("zebra", "0");
    link_t mgmt, ctrl;
    ASSERT_TRUE(mgmt.connect_to(run("zebra_protobuf_mgmt.api")));
    ASSERT_TRUE(ctrl.connect_to(run("zebra_protobuf_ctrl.api")));
    EXPECT_TRUE(dir.has("var/run/quagga/zebra.pid"));
    EXPECT_TRUE(dir.has("var/log/quagga/zebra.log"));
}

TEST_F(RoutingPeer, does_not_start_without_its_namespace)
{
    NEEDS_NAMESPACE();
    start("zebra", "7");
    int status = end(0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
    EXPECT_FALSE(dir.has("var/run/quagga/zebra.pid.7"));
}

TEST_F(RoutingPeer, each_message_gets_one_answer_and_one_line)
{
    NEEDS_NAMESPACE();
    start("bgpd", "5");
    link_t link;
    ASSERT_TRUE(link.connect_to(run("bgpd_protobuf_mgmt.api.5")));
    char text[] = "10.0.0.1";
    MIpAddress address = M_IP_ADDRESS__INIT;
    address.is_ipv4 = 1;
    address.address = text;
    MBgpNeighbor neighbor = M_BGP_NEIGHBOR__INIT;
    neighbor.neighbor = &address;
    neighbor.as_num = 65001;
    MBgpClear clear = M_BGP_CLEAR__INIT;
    link.send_message(1, 5, neighbor.base); // both are under way before an answer is read
    link.send_message(1, 14, neighbor.base);
    EXPECT_EQ(code_of(link), "13 {\"code\":0}");
    EXPECT_EQ(code_of(link), "16 {\"code\":0}");
    std::string bytes = frame_bytes({ 1, 18, 18, message_pack(clear.base) });
    link.send_bytes(bytes.substr(0, 3));
    EXPECT_TRUE(link.is_silent());
    link.send_bytes(bytes.substr(3));
    EXPECT_EQ(link.receive_text(m_bgp_clear__descriptor), "18 {\"code\":0,\"clear_type\":0}");
    EXPECT_TRUE(link.is_silent());
    const std::string head = "\"vpn\":5,\"daemon\":\"bgpd\",\"type\":";
    const std::string shown = "{\"as_num\":65001,\"neighbor\":{\"is_ipv4\":true,\"address\":\"10.0.0.1\"}}}\n";
    EXPECT_EQ(log("bgpd.log.5"), head + "\"start\",\"number\":0,\"message\":{}}\n" + head +
                                     "\"m_bgp_neighbor\",\"number\":5,\"message\":" + shown + head +
                                     "\"m_bgp_neighbor\",\"number\":14,\"message\":" + shown + head +
                                     "\"m_bgp_clear\",\"number\":18,\"message\":{\"clear_type\":0}}\n");
}

TEST_F(RoutingPeer, what_is_no_message_closes_the_connection)
{
    NEEDS_NAMESPACE();
    start("bgpd", "5");
    MSystemRouterid router_id = M_SYSTEM_ROUTERID__INIT;
    for (const std::string &bytes : {
             frame_bytes({ 0, 1, 1, message_pack(router_id.base) }), // zebra's
             frame_bytes({ 1, 13, 13, "" }),                         // an answer
             frame_bytes({ 1, 5, 5, "" }),                           // without the keys
             frame_bytes({ 1, 5, 5, "\xff\xff\xff" }),
             std::string("\0\5\1\5\5\0", 6), // a length without room for the header
         }) {
        link_t link;
        frame_t frame;
        ASSERT_TRUE(link.connect_to(run("bgpd_protobuf_mgmt.api.5")));
        link.send_bytes(bytes);
        EXPECT_FALSE(link.receive(&frame));
        EXPECT_FALSE(link.is_silent()); // the end, not a time without a frame
    }
}

TEST_F(RoutingPeer, control_file_is_read_before_each_answer)
{
    NEEDS_NAMESPACE();
    start("zebra", "5");
    link_t link;
    frame_t frame;
    ASSERT_TRUE(link.connect_to(run("zebra_protobuf_mgmt.api.5")));
    MSystemRouterid router_id = M_SYSTEM_ROUTERID__INIT;
    router_id.has_router_id_is_deleted = 1;
    auto ask = [&] {
        link.send_message(0, 1, router_id.base);
        return code_of(link);
    };
    EXPECT_EQ(ask(), "5 {\"code\":0}");
    control("zebra.control.5", "refuse 22 not this one\n");
    EXPECT_EQ(ask(), "5 {\"code\":22,\"message\":\"not this one\"}");
    control("zebra.control.5", "stall 0.6\n");
    auto before = std::chrono::steady_clock::now();
    link.send_message(0, 1, router_id.base); // waits behind the one that is asked
    EXPECT_EQ(ask(), "5 {\"code\":0}");
    // The event loop's clock is a coarse one: it may run ahead by a tick.
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(590));
    std::filesystem::remove(run("zebra.control.5"));
    EXPECT_EQ(code_of(link), "5 {\"code\":0}");
    EXPECT_EQ(ask(), "5 {\"code\":0}");
    control("zebra.control.5", "close\n");
    link.send_message(0, 1, router_id.base);
    EXPECT_FALSE(link.receive(&frame));
}

TEST_F(RoutingPeer, stalled_for_ever_it_still_ends_in_order)
{
    NEEDS_NAMESPACE();
    control("zebra.control.5", "stall forever\n");
    start("zebra", "5");
    link_t link;
    ASSERT_TRUE(link.connect_to(run("zebra_protobuf_mgmt.api.5")));
    link.send_message(0, 1, MSystemRouterid(M_SYSTEM_ROUTERID__INIT).base);
    EXPECT_TRUE(link.is_silent());
    int status = end(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_FALSE(dir.has("var/run/quagga/zebra.pid.5"));
}

TEST_F(RoutingPeer, death_leaves_its_files)
{
    NEEDS_NAMESPACE();
    control("zebra.control.5", "die\n");
    start("zebra", "5");
    link_t link;
    ASSERT_TRUE(link.connect_to(run("zebra_protobuf_mgmt.api.5")));
    link.send_message(0, 1, MSystemRouterid(M_SYSTEM_ROUTERID__INIT).base);
    int status = end(0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
    EXPECT_TRUE(dir.has("var/run/quagga/zebra.pid.5"));
    std::filesystem::remove(run("zebra.control.5"));
    start("zebra", "5"); // its successor takes their places
    link_t again;
    ASSERT_TRUE(again.connect_to(run("zebra_protobuf_mgmt.api.5")));
    EXPECT_EQ(dir.read("var/run/quagga/zebra.pid.5"), std::to_string(pid) + "\n");
}

// ---- interface events

class RoutingPeerRtm : public RoutingPeer
{
protected:
    void registered(link_t *link)
    {
        char name[] = "";
        MRtmControlInterface interface = M_RTM_CONTROL_INTERFACE__INIT;
        MRtmControlHello hello_body = M_RTM_CONTROL_HELLO__INIT;
        MRtmControl hello = M_RTM_CONTROL__INIT, wish = M_RTM_CONTROL__INIT;
        interface.name = name;
        hello.control_type = 3;
        hello.hello = &hello_body;
        wish.control_type = 4;
        wish.interface = &interface;
        ASSERT_TRUE(link->connect_to(run("zebra_protobuf_ctrl.api.5")));
        link->send_message(0, 7, hello.base);
        EXPECT_TRUE(link->is_silent()); // nobody is told before the registration
        link->send_message(0, 7, wish.base);
    }
    // Operation, name and address of the next event.
    static std::string event(const link_t &link)
    {
        frame_t frame;
        if (!link.receive(&frame))
            return "nothing";
        message_ptr message = message_unpack(*message_row_find(0, 7), frame.body);
        if (frame.module != 0 || frame.type != 7 || frame.seq != 0 || !message)
            return "no event";
        const MRtmControlInterface &interface = *reinterpret_cast<MRtmControl *>(message.get())->interface;
        std::string text = std::to_string(interface.op) + " " + interface.name;
        if (interface.address != nullptr)
            text += std::string(" ") + interface.address->address + "/" + std::to_string(interface.prefix_length);
        return text + (interface.has_flags && (interface.flags & 64) != 0 ? " running" : "");
    }
};

TEST_F(RoutingPeerRtm, registration_replays_and_changes_follow)
{
    NEEDS_NAMESPACE();
    vpn_space.ip("link set lo up");
    vpn_space.ip("address add 127.1.0.1/32 dev lo");
    start("zebra", "5");
    link_t link;
    registered(&link);
    std::set<std::string> replayed;
    for (std::string text = event(link); replayed.insert(text).second && text != "4 lo ::1/128"; text = event(link)) {
    }
    for (const char *text : { "0 lo running", "4 lo 127.0.0.1/8", "4 lo 127.1.0.1/32", "4 lo ::1/128" })
        EXPECT_TRUE(replayed.contains(text)) << text;
    EXPECT_TRUE(link.is_silent());

    vpn_space.ip("address add 127.1.0.2/32 dev lo");
    EXPECT_EQ(event(link), "4 lo 127.1.0.2/32");
    vpn_space.ip("address delete 127.1.0.2/32 dev lo");
    EXPECT_EQ(event(link), "5 lo 127.1.0.2/32");
    vpn_space.ip("link set lo down");
    std::set<std::string> down = { event(link), event(link) }; // the kernel drops the IPv6 address with it
    EXPECT_EQ(down, (std::set<std::string>{ "2 lo", "5 lo ::1/128" }));

    link_t second; // a restart of the client: all is told again, without what is gone
    registered(&second);
    EXPECT_EQ(event(second), "0 lo");
    EXPECT_EQ(event(second), "4 lo 127.0.0.1/8");
    EXPECT_EQ(event(second), "4 lo 127.1.0.1/32");
    EXPECT_TRUE(second.is_silent());
}

TEST_F(RoutingPeerRtm, interface_that_comes_and_goes_is_told)
{
    NEEDS_NAMESPACE();
    start("zebra", "5");
    link_t link;
    registered(&link);
    EXPECT_EQ(event(link), "0 lo");
    if (vpn_space.ip("link add name b0 type bridge 2>/dev/null") != 0)
        GTEST_SKIP() << "a kernel without bridges";
    EXPECT_EQ(event(link), "0 b0");
    vpn_space.ip("link set b0 name b1");
    EXPECT_EQ(event(link), "1 b0");
    EXPECT_EQ(event(link), "0 b1");
    vpn_space.ip("link delete b1");
    EXPECT_EQ(event(link), "1 b1");
}

// ---- notifications

TEST_F(RoutingPeerRtm, notifications_reach_a_listener_that_comes_later_and_comes_back)
{
    NEEDS_NAMESPACE();
    start("zebra", "5");
    link_t link;
    registered(&link);
    EXPECT_EQ(event(link), "0 lo");
    sockaddr_un address = address_of(run("zebra_protobuf_notify.api.5"));
    const char *wanted[] = { "link set lo up", "link set lo down" };
    const char *state[] = { "1", "0" };
    for (int i = 0; i < 2; i++) {
        std::filesystem::remove(run("zebra_protobuf_notify.api.5"));
        int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        limit_reads(listener);
        ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        ASSERT_EQ(listen(listener, 1), 0);
        link_t notify(accept(listener, nullptr, nullptr));
        ASSERT_TRUE(soon([&] {
            std::string text = log("zebra.log.5");
            size_t first = text.find("notification-socket-up");
            return first != std::string::npos &&
                   (i == 0 || text.find("notification-socket-up", first + 1) != std::string::npos);
        }));
        vpn_space.ip(wanted[i]);
        EXPECT_EQ(
            notify.receive_text(m_rtm_notify__descriptor),
            std::string("9 {\"notify_type\":0,\"interface_state\":{\"vpn_id\":5,\"interface\":\"lo\",\"new_state\":") +
                state[i] + "}}");
        if (i == 1) {
            control("zebra.control.5", "notify 0803\nnotify 0804\n");
            kill(pid, SIGUSR1);
            EXPECT_EQ(notify.receive_text(m_rtm_notify__descriptor), "9 {\"notify_type\":3}");
            EXPECT_EQ(notify.receive_text(m_rtm_notify__descriptor), "9 {\"notify_type\":4}");
        }
        close(listener);
    }
}

} // namespace
