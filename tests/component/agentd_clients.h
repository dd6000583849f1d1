// Clients of the agent through the client library, for component tests: one object a connection.
#ifndef TESTS_COMPONENT_AGENTD_CLIENTS_H
#define TESTS_COMPONENT_AGENTD_CLIENTS_H

#include "agent/client/confd_cdb.h"
#include "agent/client/confd_events.h"
#include "agent/client/confd_lib.h"
#include "agent/client/confd_maapi.h"
#include "tests/component/agentd_process.h"

#include <future>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <vector>

// A socket that is connected by the library and closed with the object.
class client_socket
{
public:
    client_socket() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        confd_init("component-test", stderr, CONFD_SILENT);
    }
    client_socket(const client_socket &) = delete;
    client_socket &operator=(const client_socket &) = delete;
    ~client_socket() { end(); }
    void end()
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }
    int fd() const { return fd_; }
    bool is_readable(int wait_ms) const
    {
        pollfd item{ fd_, POLLIN, 0 };
        return poll(&item, 1, wait_ms) > 0;
    }

private:
    int fd_;
};

struct data_client : client_socket {
    explicit data_client(const agentd_process &agent)
    {
        sockaddr_in addr = agent.address();
        EXPECT_EQ(cdb_connect(fd(), CDB_DATA_SOCKET, reinterpret_cast<sockaddr *>(&addr), sizeof addr), CONFD_OK)
            << confd_lasterr();
    }
    data_client(const agentd_process &agent, cdb_db_type db) : data_client(agent)
    {
        EXPECT_EQ(cdb_start_session(fd(), db), CONFD_OK) << confd_lasterr();
    }

    // A leaf as text, "-" when it has no value.
    std::string get(const std::string &path)
    {
        confd_value_t value{};
        if (cdb_get(fd(), &value, "%s", path.c_str()) != CONFD_OK)
            return confd_errno == CONFD_ERR_NOEXISTS ? "-" : std::string("error: ") + confd_lasterr();
        char text[256];
        confd_pp_value(text, sizeof text, &value);
        confd_free_value(&value);
        return text;
    }
    int set_u32(const std::string &path, uint32_t number)
    {
        confd_value_t value{};
        CONFD_SET_UINT32(&value, number);
        return cdb_set_elem(fd(), &value, "%s", path.c_str());
    }
};

// What the running (or other) datastore says now.
inline std::string read_leaf(const agentd_process &agent, const std::string &path, cdb_db_type db = CDB_RUNNING)
{
    return data_client(agent, db).get(path);
}

struct user_client : client_socket {
    explicit user_client(const agentd_process &agent, const char *user = "admin")
    {
        sockaddr_in addr = agent.address();
        confd_ip source{};
        source.af = AF_INET;
        source.ip.v4.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(maapi_connect(fd(), reinterpret_cast<sockaddr *>(&addr), sizeof addr), CONFD_OK) << confd_lasterr();
        if (user) {
            EXPECT_EQ(maapi_start_user_session(fd(), user, "cli", nullptr, 0, &source, CONFD_PROTO_TCP), CONFD_OK)
                << confd_lasterr();
        }
    }
    int begin()
    {
        th = maapi_start_trans(fd(), CONFD_RUNNING, CONFD_READ_WRITE);
        return th;
    }
    int set(const std::string &path, const std::string &text)
    {
        return maapi_set_elem2(fd(), th, text.c_str(), "%s", path.c_str());
    }
    int create(const std::string &path) { return maapi_create(fd(), th, "%s", path.c_str()); }
    int remove(const std::string &path) { return maapi_delete(fd(), th, "%s", path.c_str()); }
    int apply() { return maapi_apply_trans(fd(), th, 1); }

    int th = -1;
};

// One edit as a row: set PATH TEXT, create PATH (text "+"), delete PATH (text "-").
struct edit_t {
    std::string path;
    std::string text;
};
inline void apply_edit(user_client &user, const edit_t &edit)
{
    int result = edit.text == "+"   ? user.create(edit.path)
                 : edit.text == "-" ? user.remove(edit.path)
                                    : user.set(edit.path, edit.text);
    EXPECT_EQ(result, CONFD_OK) << edit.path << " " << edit.text << ": " << confd_lasterr();
}
struct commit_result_t {
    int result = CONFD_ERR;
    int error = 0;
    std::string text;
};
// A commit by a session of its own; safe on any thread.
inline commit_result_t commit(const agentd_process &agent, const std::vector<edit_t> &edits)
{
    user_client user(agent);
    EXPECT_GT(user.begin(), 0) << confd_lasterr();
    for (const edit_t &edit : edits)
        apply_edit(user, edit);
    commit_result_t result;
    result.result = user.apply();
    result.error = result.result == CONFD_OK ? 0 : confd_errno;
    result.text = result.result == CONFD_OK ? "" : confd_lasterr();
    return result;
}
// The same while the caller serves subscriptions.
inline std::future<commit_result_t> commit_beside(const agentd_process &agent, std::vector<edit_t> edits)
{
    return std::async(std::launch::async, [&agent, edits = std::move(edits)] { return commit(agent, edits); });
}

struct delivery_event_t {
    int result = CONFD_ERR;
    cdb_sub_notification type{};
    int flags = 0;
    std::vector<int> points;
};

struct subscription_client : client_socket {
    explicit subscription_client(const agentd_process &agent) : agent_(agent)
    {
        sockaddr_in addr = agent.address();
        EXPECT_EQ(cdb_connect(fd(), CDB_SUBSCRIPTION_SOCKET, reinterpret_cast<sockaddr *>(&addr), sizeof addr),
                  CONFD_OK)
            << confd_lasterr();
    }
    int subscribe(int priority, const std::string &path, cdb_sub_type type = CDB_SUB_RUNNING)
    {
        int point = -1;
        EXPECT_EQ(cdb_subscribe2(fd(), type, 0, priority, &point, 0, "%s", path.c_str()), CONFD_OK) << confd_lasterr();
        return point;
    }
    void done() { EXPECT_EQ(cdb_subscribe_done(fd()), CONFD_OK) << confd_lasterr(); }
    // Within ten seconds.
    delivery_event_t read()
    {
        delivery_event_t event;
        int *points = nullptr, len = 0;
        if (!is_readable(10000))
            return event;
        event.result = cdb_read_subscription_socket2(fd(), &event.type, &event.flags, &points, &len);
        if (event.result == CONFD_OK)
            event.points.assign(points, points + len);
        free(points);
        return event;
    }
    int sync() { return cdb_sync_subscription_socket(fd(), CDB_DONE_PRIORITY); }
    bool is_quiet() const { return !is_readable(150); }
    // The changes at a point as one text: operation, path and modifications of each node.
    std::string changes(int point);

private:
    const agentd_process &agent_;
};

inline std::string print_modifications(const confd_tag_value_t *values, int n)
{
    std::string text;
    for (int i = 0; i < n; i++) {
        const char *name = confd_hash2str(values[i].tag.tag);
        std::string tag = name ? name : "?";
        char value[128];
        switch (values[i].v.type) {
        case C_XMLBEGIN:
            text += " " + tag + "(";
            break;
        case C_XMLEND:
            text += " )";
            break;
        case C_NOEXISTS:
            text += " -" + tag;
            break;
        default:
            confd_pp_value(value, sizeof value, &values[i].v);
            text += " " + tag + "=" + value;
        }
    }
    return text;
}

struct change_printer_t {
    int fd;
    std::string text;
};

inline cdb_iter_ret print_change(confd_hkeypath_t *kp, cdb_iter_op op, confd_value_t *, confd_value_t *, void *state)
{
    static constexpr const char *names[] = { "?", "created", "deleted", "modified", "set", "moved", "attr" };
    auto &printer = *static_cast<change_printer_t *>(state);
    char path[256];
    confd_pp_kpath(path, sizeof path, kp);
    printer.text += std::string(printer.text.empty() ? "" : "; ") + names[op] + " " + path;
    if (op == MOP_DELETED)
        return ITER_CONTINUE;
    confd_tag_value_t *values = nullptr;
    int n = 0;
    if (cdb_get_modifications_iter(printer.fd, 0, &values, &n) != CONFD_OK) {
        printer.text += std::string(" error: ") + confd_lasterr();
        return ITER_STOP;
    }
    printer.text += ":" + print_modifications(values, n);
    for (int i = 0; i < n; i++)
        confd_free_value(&values[i].v);
    free(values);
    return ITER_CONTINUE;
}

inline std::string subscription_client::changes(int point)
{
    sockaddr_in addr = agent_.address();
    EXPECT_EQ(confd_load_schemas(reinterpret_cast<sockaddr *>(&addr), sizeof addr), CONFD_OK) << confd_lasterr();
    change_printer_t printer{ fd(), {} };
    if (cdb_diff_iterate(fd(), point, print_change, 0, &printer) != CONFD_OK)
        return "error " + std::to_string(confd_errno);
    return printer.text;
}

#endif
