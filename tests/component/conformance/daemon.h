// A daemon of the tests: a context of the client library with a control and worker connections, and threads that serve
// them as a daemon's event loop does.
//
// One thread serves the control connection and the first worker, one each further worker. Callbacks run on those
// threads; the daemon's MAAPI socket belongs to the first. Points are told before start(); what a callback does is a
// function of the test's, which finds its way back by the user pointer of the context.
#ifndef TESTS_COMPONENT_CONFORMANCE_DAEMON_H
#define TESTS_COMPONENT_CONFORMANCE_DAEMON_H

#include "agent/client/confd_dp.h"
#include "tests/component/agentd_clients.h"
#include "tests/component/conformance/points.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

using validate_fn_t = std::function<int(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *value)>;

// Callbacks that are not set are not registered.
struct data_handlers_t {
    std::function<int(confd_trans_ctx *tctx, confd_hkeypath_t *kp)> exists_optional, get_elem, create, remove,
        get_object;
    std::function<int(confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)> get_next, get_next_object;
    std::function<int(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *value)> set_elem;
    std::function<int(confd_trans_ctx *tctx, confd_hkeypath_t *kp, int type, confd_value_t *keys, int n)>
        find_next_object;
};

struct action_handlers_t {
    std::function<int(confd_user_info *uinfo)> abort;
    std::function<int(confd_user_info *uinfo, xml_tag *name, confd_hkeypath_t *kp, confd_tag_value_t *params, int n)>
        action;
    std::function<int(confd_user_info *uinfo, char *path, int argc, char **argv)> command;
    std::function<int(confd_user_info *uinfo, char *token, int character, confd_hkeypath_t *kp)> completion;
};

// A gate that callbacks wait at until the test opens it, or the time of a lost test has passed.
class gate
{
public:
    void open();
    // Tells that somebody has come, and waits for the opening.
    void pass();
    // False when nobody has come within ten seconds.
    bool wait_for_visitor();

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool is_open_ = false;
    int visitors_ = 0;
};

class test_daemon
{
public:
    static constexpr size_t SLOTS = 12; // of each kind of point

    explicit test_daemon(const agentd_process &agent, const char *name = "conform", int workers = 1);
    test_daemon(const test_daemon &) = delete;
    test_daemon &operator=(const test_daemon &) = delete;
    ~test_daemon(); // closes the connections, lets the threads end

    // ---- before start()
    void validate(const char *point, validate_fn_t function);
    void data(const char *callpoint, data_handlers_t handlers);
    void action(const char *point, action_handlers_t handlers);
    // Ends the registrations and serves.
    void start();

    // ---- what happened
    void note(const std::string &event);
    names_t events();
    // Those since the last call.
    names_t take_events();
    bool wait_for(const std::string &event);

    // Ends all connections at once, as the kernel does for a process that dies; from any thread.
    void break_off();
    // Ends one worker connection.
    void break_worker(size_t worker);
    // Has the agent ended the control connection, within ten seconds?
    bool is_disconnected();

    confd_daemon_ctx *ctx() const { return ctx_; }
    int control_fd() const { return control_->fd(); }
    int worker_fd(size_t worker = 0) const { return workers_[worker]->fd(); }
    int maapi_fd() const { return maapi_->fd(); } // the first thread's

    // Which worker serves a transaction or an action; the first when not set. A negative result fails the init.
    std::function<int(const confd_user_info *uinfo)> choose_worker;
    // The init of a transaction, in place of the choice of a worker.
    std::function<int(confd_trans_ctx *tctx)> trans_init, validate_init;

    validate_fn_t validate_slots[SLOTS];
    data_handlers_t data_slots[SLOTS];
    action_handlers_t action_slots[SLOTS];

private:
    void serve(std::vector<int> fds);

    const agentd_process &agent_;
    confd_daemon_ctx *ctx_ = nullptr;
    std::unique_ptr<client_socket> control_, maapi_;
    std::vector<std::unique_ptr<client_socket>> workers_;
    std::vector<std::thread> threads_;
    size_t validations_ = 0, datas_ = 0, actions_ = 0;
    std::mutex mutex_;
    std::condition_variable changed_;
    names_t events_;
    size_t taken_ = 0;
    bool is_stopping_ = false;
    bool has_control_ended_ = false;
};

test_daemon &daemon_of(const confd_trans_ctx *tctx);
test_daemon &daemon_of(const confd_user_info *uinfo);

// "/conform:hook/user{ann}"
std::string text_of(const confd_hkeypath_t *kp);
// As people read it; "-" for no value.
std::string text_of(const confd_value_t *value);
std::string text_of(const confd_value_t &value);

// Attaches the daemon's MAAPI socket to a callback's transaction for the length of a block.
class attachment
{
public:
    explicit attachment(confd_trans_ctx *tctx);
    attachment(const attachment &) = delete;
    attachment &operator=(const attachment &) = delete;
    ~attachment();
    int fd() const { return fd_; }
    int th() const { return tctx_->thandle; }
    // A leaf of the transaction as text, "-" without a value.
    std::string get(const std::string &path) const;
    int set(const std::string &path, const std::string &text) const;

private:
    confd_trans_ctx *tctx_;
    int fd_;
};

#endif
