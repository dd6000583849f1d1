#include "tests/component/conformance/daemon.h"

#include <array>
#include <utility>

static constexpr auto PATIENCE = std::chrono::seconds(10);

// ---- gates

void gate::open()
{
    std::lock_guard guard(mutex_);
    is_open_ = true;
    changed_.notify_all();
}

void gate::pass()
{
    std::unique_lock lock(mutex_);
    visitors_++;
    changed_.notify_all();
    (void)changed_.wait_for(lock, PATIENCE, [this] { return is_open_; }); // a test that is lost goes on and fails
}

bool gate::wait_for_visitor()
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, PATIENCE, [this] { return visitors_ > 0; });
}

// ---- callbacks: one set of plain functions for each slot

test_daemon &daemon_of(const confd_trans_ctx *tctx)
{
    return *static_cast<test_daemon *>(tctx->dx->d_opaque);
}

test_daemon &daemon_of(const confd_user_info *uinfo)
{
    return *static_cast<test_daemon *>(uinfo->dx->d_opaque);
}

static int pick_worker(test_daemon &daemon, const confd_user_info *uinfo)
{
    int worker = daemon.choose_worker ? daemon.choose_worker(uinfo) : 0;
    return worker < 0 ? -1 : daemon.worker_fd(static_cast<size_t>(worker));
}

static int init_trans(confd_trans_ctx *tctx)
{
    test_daemon &daemon = daemon_of(tctx);
    if (daemon.trans_init)
        return daemon.trans_init(tctx);
    int fd = pick_worker(daemon, tctx->uinfo);
    confd_trans_set_fd(tctx, fd);
    return fd < 0 ? CONFD_ERR : CONFD_OK;
}

static int init_validation(confd_trans_ctx *tctx)
{
    test_daemon &daemon = daemon_of(tctx);
    if (daemon.validate_init)
        return daemon.validate_init(tctx);
    confd_trans_set_fd(tctx, daemon.worker_fd());
    return maapi_attach(daemon.maapi_fd(), 0, tctx);
}

static int stop_validation(confd_trans_ctx *tctx)
{
    return maapi_detach(daemon_of(tctx).maapi_fd(), tctx);
}

static int init_action(confd_user_info *uinfo)
{
    int fd = pick_worker(daemon_of(uinfo), uinfo);
    confd_action_set_fd(uinfo, fd);
    return fd < 0 ? CONFD_ERR : CONFD_OK;
}

template <size_t N> struct slot_t {
    static data_handlers_t &of(confd_trans_ctx *t) { return daemon_of(t).data_slots[N]; }
    static action_handlers_t &of(confd_user_info *u) { return daemon_of(u).action_slots[N]; }

    static int validate(confd_trans_ctx *t, confd_hkeypath_t *kp, confd_value_t *v)
    {
        return daemon_of(t).validate_slots[N](t, kp, v);
    }
    static int exists_optional(confd_trans_ctx *t, confd_hkeypath_t *kp) { return of(t).exists_optional(t, kp); }
    static int get_elem(confd_trans_ctx *t, confd_hkeypath_t *kp) { return of(t).get_elem(t, kp); }
    static int get_next(confd_trans_ctx *t, confd_hkeypath_t *kp, long next) { return of(t).get_next(t, kp, next); }
    static int set_elem(confd_trans_ctx *t, confd_hkeypath_t *kp, confd_value_t *v) { return of(t).set_elem(t, kp, v); }
    static int create(confd_trans_ctx *t, confd_hkeypath_t *kp) { return of(t).create(t, kp); }
    static int remove(confd_trans_ctx *t, confd_hkeypath_t *kp) { return of(t).remove(t, kp); }
    static int get_object(confd_trans_ctx *t, confd_hkeypath_t *kp) { return of(t).get_object(t, kp); }
    static int get_next_object(confd_trans_ctx *t, confd_hkeypath_t *kp, long next)
    {
        return of(t).get_next_object(t, kp, next);
    }
    static int find_next_object(confd_trans_ctx *t, confd_hkeypath_t *kp, int type, confd_value_t *keys, int n)
    {
        return of(t).find_next_object(t, kp, type, keys, n);
    }
    static int abort(confd_user_info *u) { return of(u).abort(u); }
    static int action(confd_user_info *u, xml_tag *name, confd_hkeypath_t *kp, confd_tag_value_t *params, int n)
    {
        return of(u).action(u, name, kp, params, n);
    }
    static int command(confd_user_info *u, char *path, int argc, char **argv)
    {
        return of(u).command(u, path, argc, argv);
    }
    static int completion(confd_user_info *u, int, char *token, int character, confd_hkeypath_t *kp, char *, char *,
                          confd_qname *, char *)
    {
        return of(u).completion(u, token, character, kp);
    }

    static constexpr confd_data_cbs data = { "",     exists_optional, get_elem,   get_next,        set_elem,
                                             create, remove,          get_object, get_next_object, find_next_object,
                                             nullptr };
    static constexpr confd_action_cbs actions = { "", init_action, abort, action, command, completion, nullptr };
};

struct slot_row_t {
    decltype(confd_valpoint_cb::validate) validate;
    const confd_data_cbs *data;
    const confd_action_cbs *actions;
};

template <size_t... N> static constexpr std::array<slot_row_t, sizeof...(N)> make_slots(std::index_sequence<N...>)
{
    return { slot_row_t{ slot_t<N>::validate, &slot_t<N>::data, &slot_t<N>::actions }... };
}
static constexpr auto slots = make_slots(std::make_index_sequence<test_daemon::SLOTS>());

// ---- the daemon

static int connected(const agentd_process &agent, confd_daemon_ctx *ctx, int fd, confd_sock_type type)
{
    sockaddr_in addr = agent.address();
    return confd_connect(ctx, fd, type, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
}

test_daemon::test_daemon(const agentd_process &agent, const char *name, int workers) : agent_(agent)
{
    control_ = std::make_unique<client_socket>(); // initialises the library
    sockaddr_in addr = agent.address();
    EXPECT_EQ(confd_load_schemas(reinterpret_cast<sockaddr *>(&addr), sizeof addr), CONFD_OK) << confd_lasterr();
    ctx_ = confd_init_daemon(name);
    ctx_->d_opaque = this;
    EXPECT_EQ(connected(agent, ctx_, control_->fd(), CONTROL_SOCKET), CONFD_OK) << confd_lasterr();
    for (int i = 0; i < workers; i++) {
        workers_.push_back(std::make_unique<client_socket>());
        EXPECT_EQ(connected(agent, ctx_, workers_.back()->fd(), WORKER_SOCKET), CONFD_OK) << confd_lasterr();
    }
    maapi_ = std::make_unique<client_socket>();
    EXPECT_EQ(maapi_connect(maapi_->fd(), reinterpret_cast<sockaddr *>(&addr), sizeof addr), CONFD_OK)
        << confd_lasterr();
    confd_trans_cbs trans = { init_trans, nullptr };
    EXPECT_EQ(confd_register_trans_cb(ctx_, &trans), CONFD_OK) << confd_lasterr();
    confd_trans_validate_cbs validation = { init_validation, stop_validation };
    EXPECT_EQ(confd_register_trans_validate_cb(ctx_, &validation), CONFD_OK) << confd_lasterr();
}

test_daemon::~test_daemon()
{
    {
        std::lock_guard guard(mutex_);
        is_stopping_ = true;
    }
    break_off();
    for (std::thread &thread : threads_)
        thread.join();
    confd_release_daemon(ctx_);
}

static void set_name(char (&to)[MAX_CALLPOINT_LEN + 1], const char *name)
{
    snprintf(to, sizeof to, "%s", name);
}

void test_daemon::validate(const char *point, validate_fn_t function)
{
    ASSERT_LT(validations_, SLOTS);
    confd_valpoint_cb row = { "", slots[validations_].validate, nullptr };
    set_name(row.valpoint, point);
    validate_slots[validations_++] = std::move(function);
    EXPECT_EQ(confd_register_valpoint_cb(ctx_, &row), CONFD_OK) << confd_lasterr();
}

void test_daemon::data(const char *callpoint, data_handlers_t handlers)
{
    ASSERT_LT(datas_, SLOTS);
    const confd_data_cbs &all = *slots[datas_].data;
    confd_data_cbs row{};
    set_name(row.callpoint, callpoint);
    row.exists_optional = handlers.exists_optional ? all.exists_optional : nullptr;
    row.get_elem = handlers.get_elem ? all.get_elem : nullptr;
    row.get_next = handlers.get_next ? all.get_next : nullptr;
    row.set_elem = handlers.set_elem ? all.set_elem : nullptr;
    row.create = handlers.create ? all.create : nullptr;
    row.remove = handlers.remove ? all.remove : nullptr;
    row.get_object = handlers.get_object ? all.get_object : nullptr;
    row.get_next_object = handlers.get_next_object ? all.get_next_object : nullptr;
    row.find_next_object = handlers.find_next_object ? all.find_next_object : nullptr;
    data_slots[datas_++] = std::move(handlers);
    EXPECT_EQ(confd_register_data_cb(ctx_, &row), CONFD_OK) << confd_lasterr();
}

void test_daemon::action(const char *point, action_handlers_t handlers)
{
    ASSERT_LT(actions_, SLOTS);
    const confd_action_cbs &all = *slots[actions_].actions;
    confd_action_cbs row{};
    set_name(row.actionpoint, point);
    row.init = all.init;
    row.abort = handlers.abort ? all.abort : nullptr;
    row.action = handlers.action ? all.action : nullptr;
    row.command = handlers.command ? all.command : nullptr;
    row.completion = handlers.completion ? all.completion : nullptr;
    action_slots[actions_++] = std::move(handlers);
    EXPECT_EQ(confd_register_action_cbs(ctx_, &row), CONFD_OK) << confd_lasterr();
}

void test_daemon::start()
{
    EXPECT_EQ(confd_register_done(ctx_), CONFD_OK) << confd_lasterr();
    for (size_t i = 0; i < workers_.size(); i++)
        threads_.emplace_back([this, i] {
            serve(i == 0 ? std::vector<int>{ control_fd(), worker_fd(0) } : std::vector<int>{ worker_fd(i) });
        });
}

// Until the connections have ended.
void test_daemon::serve(std::vector<int> fds)
{
    while (!fds.empty()) {
        std::vector<pollfd> items;
        for (int fd : fds)
            items.push_back({ fd, POLLIN, 0 });
        (void)poll(items.data(), items.size(), -1); // a failed poll is tried again
        for (const pollfd &item : items) {
            if (item.revents == 0)
                continue;
            int result = confd_fd_ready(ctx_, item.fd);
            if (result != CONFD_EOF && (result == CONFD_OK || confd_errno == CONFD_ERR_EXTERNAL))
                continue;
            std::erase(fds, item.fd);
            std::lock_guard guard(mutex_);
            if (item.fd == control_fd())
                has_control_ended_ = true;
            if (result != CONFD_EOF && !is_stopping_)
                events_.push_back(std::string("error: ") + confd_lasterr());
            changed_.notify_all();
        }
    }
}

void test_daemon::note(const std::string &event)
{
    std::lock_guard guard(mutex_);
    events_.push_back(event);
    changed_.notify_all();
}

names_t test_daemon::events()
{
    std::lock_guard guard(mutex_);
    return events_;
}

names_t test_daemon::take_events()
{
    std::lock_guard guard(mutex_);
    names_t taken(events_.begin() + static_cast<ptrdiff_t>(taken_), events_.end());
    taken_ = events_.size();
    return taken;
}

bool test_daemon::wait_for(const std::string &event)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, PATIENCE,
                             [&] { return std::find(events_.begin(), events_.end(), event) != events_.end(); });
}

bool test_daemon::is_disconnected()
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, PATIENCE, [this] { return has_control_ended_; });
}

void test_daemon::break_off()
{
    for (const auto &worker : workers_)
        (void)shutdown(worker->fd(), SHUT_RDWR); // whatever still lives of it
    (void)shutdown(maapi_->fd(), SHUT_RDWR);
    (void)shutdown(control_->fd(), SHUT_RDWR);
}

void test_daemon::break_worker(size_t worker)
{
    (void)shutdown(worker_fd(worker), SHUT_RDWR);
}

// ---- texts

std::string text_of(const confd_hkeypath_t *kp)
{
    char text[512];
    confd_pp_kpath(text, sizeof text, kp);
    return text;
}

std::string text_of(const confd_value_t *value)
{
    if (!value || value->type == C_NOEXISTS)
        return "-";
    char text[512];
    confd_pp_value(text, sizeof text, value);
    return text;
}

std::string text_of(const confd_value_t &value)
{
    return text_of(&value);
}

// ---- attachments

attachment::attachment(confd_trans_ctx *tctx) : tctx_(tctx), fd_(daemon_of(tctx).maapi_fd())
{
    EXPECT_EQ(maapi_attach(fd_, 0, tctx), CONFD_OK) << confd_lasterr();
}

attachment::~attachment()
{
    EXPECT_EQ(maapi_detach(fd_, tctx_), CONFD_OK) << confd_lasterr();
}

std::string attachment::get(const std::string &path) const
{
    confd_value_t value{};
    if (maapi_get_elem(fd_, th(), &value, "%s", path.c_str()) != CONFD_OK)
        return confd_errno == CONFD_ERR_NOEXISTS ? "-" : std::string("error: ") + confd_lasterr();
    std::string text = text_of(value);
    confd_free_value(&value);
    return text;
}

int attachment::set(const std::string &path, const std::string &text) const
{
    return maapi_set_elem2(fd_, th(), text.c_str(), "%s", path.c_str());
}
