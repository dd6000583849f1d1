// An agent whose part the test itself plays, once a daemon context is connected and registered: it puts a callback into
// a connection, lets the library serve it, and looks at the answer.
#ifndef TESTS_UNIT_CONFD_PLAYED_AGENT_H
#define TESTS_UNIT_CONFD_PLAYED_AGENT_H

#include "agent/client/confd_dp.h"
#include "tests/unit/confd_fake_agent.h"

#include <gtest/gtest.h>
#include <memory>

inline constexpr uint32_t PLAYED_DAEMON_ID = 7;
inline constexpr uint32_t PLAYED_WORKER_ID = 70; // of the first worker, others count on
inline constexpr uint32_t PLAYED_HANDLE = 55;    // of every notification

class played_agent
{
public:
    explicit played_agent(int num_workers = 1) : dx(confd_init_daemon("played")), workers_fds_(num_workers)
    {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        (void)bind(listener_, reinterpret_cast<sockaddr *>(&address_), sizeof address_);
        (void)listen(listener_, 8);
        socklen_t size = sizeof address_;
        getsockname(listener_, reinterpret_cast<sockaddr *>(&address_), &size);

        connect(&control_fd_, CONTROL_SOCKET, &control, PLAYED_DAEMON_ID);
        for (size_t i = 0; i < workers_fds_.size(); i++)
            connect(&workers_fds_[i], WORKER_SOCKET, &workers.emplace_back(),
                    PLAYED_WORKER_ID + static_cast<uint32_t>(i));
    }
    played_agent(const played_agent &) = delete;
    played_agent &operator=(const played_agent &) = delete;
    ~played_agent()
    {
        confd_release_daemon(dx);
        close(listener_);
    }

    int control_fd() const { return control_fd_.fd; }
    int worker_fd(size_t i = 0) const { return workers_fds_[i].fd; }

    // Runs a registration, which the agent accepts; what it sends before that is a callback's frame, or nothing.
    template <typename Function> int accept(const Function &function, const std::string &before = {})
    {
        std::thread agent([&] {
            fake_request_t request = control->read();
            wire_writer_t out;
            if (request.header.op == WIRE_REG_NOTIF_STREAM || request.header.op == WIRE_REG_SNMP_NOTIF)
                out.u32(PLAYED_HANDLE);
            control->send(before + fake_peer::reply_frame(request, out.bytes));
        });
        int result = function();
        agent.join();
        return result;
    }

    // The answer to a callback, and what confd_fd_ready has given in *result.
    fake_request_t ask_control(wire_op_t op, std::string_view payload, int *result = nullptr)
    {
        return ask(*control, control_fd(), op, payload, result);
    }
    fake_request_t ask_worker(wire_op_t op, std::string_view payload, int *result = nullptr)
    {
        return ask(*workers[0], worker_fd(), op, payload, result);
    }

    confd_daemon_ctx *dx;
    std::unique_ptr<fake_peer> control;
    std::vector<std::unique_ptr<fake_peer>> workers;

private:
    void connect(client_fd *client, confd_sock_type type, std::unique_ptr<fake_peer> *peer, uint32_t id)
    {
        std::thread agent([&] {
            *peer = std::make_unique<fake_peer>(::accept(listener_, nullptr, nullptr));
            (*peer)->greet(id);
        });
        EXPECT_EQ(confd_connect(dx, client->fd, type, reinterpret_cast<sockaddr *>(&address_), sizeof address_),
                  CONFD_OK);
        agent.join();
    }
    fake_request_t ask(fake_peer &peer, int fd, wire_op_t op, std::string_view payload, int *result)
    {
        constexpr uint32_t ID = 4711;
        peer.send(wire_frame(op, 0, ID, payload));
        int got = confd_fd_ready(dx, fd);
        if (result != nullptr)
            *result = got;
        fake_request_t answer = peer.read();
        EXPECT_EQ(answer.header.op, op | WIRE_REPLY);
        EXPECT_EQ(answer.header.id, ID);
        return answer;
    }

    int listener_ = -1;
    sockaddr_in address_ = {};
    client_fd control_fd_;
    std::vector<client_fd> workers_fds_;
};

// ---- payloads

inline std::string refusal_text(const fake_request_t &answer)
{
    wire_reader_t in(answer.payload);
    return std::string(in.text());
}

inline confd_value_t number_value(uint32_t number)
{
    confd_value_t value = {};
    CONFD_SET_UINT32(&value, number);
    return value;
}

inline confd_value_t text_value(const char *text)
{
    confd_value_t value = {};
    CONFD_SET_STR(&value, text);
    return value;
}

// /list{7}
inline confd_hkeypath_t entry_path()
{
    confd_hkeypath_t path = {};
    path.len = 2;
    path.v[1][0].type = C_XMLTAG;
    path.v[1][0].val.xmltag = { wire_hash("list"), 9 };
    path.v[0][0] = number_value(7);
    path.v[0][1].type = C_NOEXISTS;
    return path;
}

inline void put_session(wire_writer_t &out)
{
    out.u32(12);
    out.text("admin");
    out.text("cli");
    out.text("10.1.1.1");
}

inline std::string init_payload(uint32_t th, uint8_t db = WIRE_DB_RUNNING)
{
    wire_writer_t out;
    out.u32(th);
    out.u8(db);
    out.u8(1);
    put_session(out);
    return out.bytes;
}

inline std::string number_payload(uint32_t number)
{
    wire_writer_t out;
    out.u32(number);
    return out.bytes;
}

// u32 id, text point, keypath /list{7}.
inline wire_writer_t point_payload(uint32_t id, std::string_view point)
{
    wire_writer_t out;
    out.u32(id);
    out.text(point);
    wire_put_keypath(out, entry_path());
    return out;
}

#endif
