// An agent that plays a script: one function per connection, in the order in which they are made, on a thread.
#ifndef TESTS_UNIT_CONFD_FAKE_AGENT_H
#define TESTS_UNIT_CONFD_FAKE_AGENT_H

#include "agent/wire/wire.h"

#include <arpa/inet.h>
#include <functional>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

struct fake_request_t {
    wire_header_t header = {};
    std::string payload;
};

// The agent's end of a connection.
class fake_peer
{
public:
    explicit fake_peer(int fd) : fd_(fd)
    {
        int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    fake_peer(const fake_peer &) = delete;
    fake_peer &operator=(const fake_peer &) = delete;
    ~fake_peer() { close(fd_); }

    // op 0 when the client has gone.
    fake_request_t read()
    {
        fake_request_t request;
        char bytes[WIRE_HEADER_SIZE];
        if (!receive(bytes, sizeof bytes))
            return request;
        request.header = wire_parse_header(bytes);
        request.payload.resize(request.header.length);
        if (!receive(request.payload.data(), request.payload.size()))
            request.header.op = 0;
        return request;
    }
    fake_request_t greet(uint32_t daemon_id = 0)
    {
        fake_request_t hello = read();
        wire_writer_t out;
        out.u32(daemon_id);
        reply(hello, out.bytes);
        return hello;
    }
    static std::string reply_frame(const fake_request_t &to, std::string_view payload, uint16_t status = 0)
    {
        return wire_frame(static_cast<uint16_t>(to.header.op | WIRE_REPLY), status, to.header.id, payload);
    }
    void reply(const fake_request_t &to, std::string_view payload = {}, uint16_t status = 0)
    {
        send(reply_frame(to, payload, status));
    }
    void refuse(const fake_request_t &to, uint16_t status, std::string_view text)
    {
        wire_writer_t out;
        out.text(text);
        reply(to, out.bytes, status);
    }
    void push(wire_op_t op, std::string_view payload) { send(wire_frame(op, 0, 0, payload)); }
    void send(std::string_view bytes)
    {
        while (!bytes.empty()) {
            ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (n <= 0)
                return;
            bytes.remove_prefix(static_cast<size_t>(n));
        }
    }
    void send_bytewise(std::string_view bytes)
    {
        for (char c : bytes) {
            send({ &c, 1 });
            std::this_thread::yield();
        }
    }

private:
    bool receive(char *to, size_t size)
    {
        while (size > 0) {
            ssize_t n = recv(fd_, to, size, 0);
            if (n <= 0)
                return false;
            to += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }

    int fd_;
};

class fake_agent
{
public:
    using script_t = std::function<void(fake_peer &)>;

    explicit fake_agent(std::vector<script_t> scripts)
    {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        (void)bind(listener_, address(), address_size());
        (void)listen(listener_, 8);
        socklen_t size = sizeof address_;
        getsockname(listener_, reinterpret_cast<sockaddr *>(&address_), &size);
        thread_ = std::thread([this, scripts = std::move(scripts)] {
            for (const script_t &script : scripts) {
                int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
                if (fd < 0)
                    return;
                fake_peer peer(fd);
                script(peer);
            }
        });
    }
    fake_agent(const fake_agent &) = delete;
    fake_agent &operator=(const fake_agent &) = delete;
    ~fake_agent()
    {
        shutdown(listener_, SHUT_RDWR); // a script whose client never came
        thread_.join();
        close(listener_);
    }

    const sockaddr *address() const { return reinterpret_cast<const sockaddr *>(&address_); }
    static constexpr int address_size() { return sizeof(sockaddr_in); }

private:
    int listener_ = -1;
    sockaddr_in address_ = {};
    std::thread thread_;
};

// A client's socket, closed with the object.
struct client_fd {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);

    client_fd() = default;
    client_fd(const client_fd &) = delete;
    client_fd &operator=(const client_fd &) = delete;
    ~client_fd() { close(fd); }
};

#endif
