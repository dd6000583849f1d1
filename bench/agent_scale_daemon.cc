#include "bench/agent_scale_daemon.h"

#include "agent/client/confd_cdb.h"
#include "agent/client/confd_dp.h"
#include "bench/agent_scale_data.h"

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <netinet/in.h>
#include <new>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

struct scale_daemon::shared_t { // between the benchmark and the daemon
    std::atomic<bool> is_ready = false;
    std::atomic<uint64_t> validations = 0;
    std::atomic<uint64_t> deliveries = 0;
};

namespace
{

constexpr int PRIORITIES[] = { 10, 20 };
constexpr int ROWS_AT_ONCE = 100;
constexpr int MAX_MTU = 9000;

std::atomic<uint64_t> *num_validated;
std::atomic<uint64_t> *num_delivered;
int worker;

void require(int result, const char *what)
{
    if (result == CONFD_OK)
        return;
    fprintf(stderr, "agent_scale: the daemon: %s: %s\n", what, confd_lasterr());
    _exit(1);
}

int new_socket()
{
    return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

// ---- callbacks

int choose_worker(confd_trans_ctx *trans)
{
    confd_trans_set_fd(trans, worker);
    return CONFD_OK;
}

int let_go(confd_trans_ctx *)
{
    return CONFD_OK;
}

int judge_mtu(confd_trans_ctx *trans, confd_hkeypath_t *, confd_value_t *mtu)
{
    ++*num_validated;
    if (mtu->type == C_NOEXISTS || CONFD_GET_UINT16(mtu) <= MAX_MTU)
        return CONFD_OK;
    confd_trans_seterr(trans, "too large");
    return CONFD_ERR;
}

// The leaves of one route, which point into themselves.
struct route_t {
    char prefix[32], next_hop[32];
    confd_tag_value_t values[6];

    explicit route_t(uint32_t id)
    {
        static const uint32_t tags[] = { confd_str2hash("id"),       confd_str2hash("prefix"),
                                         confd_str2hash("next-hop"), confd_str2hash("interface"),
                                         confd_str2hash("metric"),   confd_str2hash("age") };
        (void)snprintf(prefix, sizeof prefix, "10.%u.%u.0/24", id >> 8 & 255, id & 255);
        (void)snprintf(next_hop, sizeof next_hop, "10.255.%u.1", id & 255);
        CONFD_SET_TAG_UINT32(&values[0], tags[0], id);
        CONFD_SET_TAG_STR(&values[1], tags[1], prefix);
        CONFD_SET_TAG_STR(&values[2], tags[2], next_hop);
        CONFD_SET_TAG_STR(&values[3], tags[3], "ge0/1");
        CONFD_SET_TAG_UINT32(&values[4], tags[4], id % 100);
        CONFD_SET_TAG_UINT32(&values[5], tags[5], id % 3600);
    }
    route_t(const route_t &) = delete;
    route_t &operator=(const route_t &) = delete;
};

// Routes from this one on, some at once. The agent asks again with the last one's "next".
int reply_routes(confd_trans_ctx *trans, uint32_t id)
{
    std::vector<confd_tag_next_object> objects;
    std::vector<std::unique_ptr<route_t>> routes;
    for (; id < ROUTES && objects.size() < ROWS_AT_ONCE; id++) {
        routes.push_back(std::make_unique<route_t>(id));
        objects.push_back({ routes.back()->values, 6, id + 1 });
    }
    if (id == ROUTES)
        objects.push_back({ nullptr, 0, -1 });
    return confd_data_reply_next_object_tag_value_arrays(trans, objects.data(), static_cast<int>(objects.size()), 0);
}

int next_routes(confd_trans_ctx *trans, confd_hkeypath_t *, long next)
{
    return reply_routes(trans, next < 0 ? 0 : static_cast<uint32_t>(next));
}

int find_routes(confd_trans_ctx *trans, confd_hkeypath_t *, int type, confd_value_t *keys, int count)
{
    if (count == 0)
        return reply_routes(trans, 0);
    return reply_routes(trans, CONFD_GET_UINT32(&keys[0]) + (type == CONFD_FIND_NEXT));
}

int get_route(confd_trans_ctx *trans, confd_hkeypath_t *path)
{
    uint32_t id = CONFD_GET_UINT32(&path->v[0][0]);
    if (id >= ROUTES)
        return confd_data_reply_not_found(trans);
    route_t route(id);
    return confd_data_reply_tag_value_array(trans, route.values, 6);
}

// ---- subscriptions

void serve_delivery(int subscriber)
{
    cdb_sub_notification type{};
    int flags = 0, count = 0, *points = nullptr;
    require(cdb_read_subscription_socket2(subscriber, &type, &flags, &points, &count), "read a delivery");
    for (int i = 0; i < count; i++) {
        confd_tag_value_t *values = nullptr;
        int n = 0;
        require(cdb_get_modifications(subscriber, points[i], CDB_GET_MODS_INCLUDE_LISTS, &values, &n, nullptr),
                "read the modifications");
        for (int v = 0; v < n; v++)
            confd_free_value(&values[v].v);
        free(values);
        ++*num_delivered;
    }
    free(points);
    require(cdb_sync_subscription_socket(subscriber, CDB_DONE_PRIORITY), "sync");
}

int subscribe(const sockaddr_in &agent)
{
    int subscriber = new_socket();
    require(cdb_connect(subscriber, CDB_SUBSCRIPTION_SOCKET, reinterpret_cast<const sockaddr *>(&agent), sizeof agent),
            "connect the subscription socket");
    for (int priority : PRIORITIES) {
        int point = 0;
        require(cdb_subscribe(subscriber, priority, 0, &point, "/net/vpn/interface"), "subscribe");
    }
    require(cdb_subscribe_done(subscriber), "end the subscriptions");
    return subscriber;
}

// ---- the process

confd_daemon_ctx *register_callbacks(const sockaddr_in &agent)
{
    static const confd_trans_cbs trans = { choose_worker, let_go };
    static const confd_trans_validate_cbs validate = { choose_worker, let_go };
    static const confd_valpoint_cb mtu = { "bench-mtu", judge_mtu, nullptr };
    confd_data_cbs routes{};
    (void)snprintf(routes.callpoint, sizeof routes.callpoint, "bench-routes");
    routes.get_object = get_route;
    routes.get_next_object = next_routes;
    routes.find_next_object = find_routes;

    confd_daemon_ctx *context = confd_init_daemon("bench-daemon");
    auto *address = reinterpret_cast<const sockaddr *>(&agent);
    require(confd_load_schemas(address, sizeof agent), "load the schemas");
    require(confd_connect(context, new_socket(), CONTROL_SOCKET, address, sizeof agent), "connect the control socket");
    worker = new_socket();
    require(confd_connect(context, worker, WORKER_SOCKET, address, sizeof agent), "connect the worker socket");
    require(confd_register_trans_cb(context, &trans), "register for transactions");
    require(confd_register_trans_validate_cb(context, &validate), "register for validation");
    require(confd_register_valpoint_cb(context, &mtu), "register the validation point");
    require(confd_register_data_cb(context, &routes), "register the provider");
    require(confd_register_done(context), "end the registrations");
    return context;
}

[[noreturn]] void serve(uint16_t port, std::atomic<bool> &is_ready)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    confd_init("bench-daemon", stderr, CONFD_SILENT);
    sockaddr_in agent{};
    agent.sin_family = AF_INET;
    agent.sin_port = htons(port);
    agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    confd_daemon_ctx *context = register_callbacks(agent);
    int subscriber = subscribe(agent);
    is_ready = true;
    pollfd items[] = { { context->ctrl_fd, POLLIN, 0 }, { worker, POLLIN, 0 }, { subscriber, POLLIN, 0 } };
    while (poll(items, 3, -1) > 0) {
        for (int i = 0; i < 2; i++)
            if (items[i].revents && confd_fd_ready(context, items[i].fd) == CONFD_EOF)
                _exit(0);
        if (items[2].revents)
            serve_delivery(subscriber);
    }
    _exit(1);
}

} // namespace

scale_daemon::scale_daemon(uint16_t port)
{
    void *memory = mmap(nullptr, sizeof(shared_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    shared_ = new (memory) shared_t;
    num_validated = &shared_->validations;
    num_delivered = &shared_->deliveries;
    pid_ = fork();
    if (pid_ == 0)
        serve(port, shared_->is_ready);
    for (int i = 0; i < 5000 && !shared_->is_ready; i++)
        usleep(1000);
    if (!shared_->is_ready) {
        fprintf(stderr, "agent_scale: the daemon does not come up\n");
        kill(pid_, SIGKILL);
        exit(1);
    }
}

scale_daemon::~scale_daemon()
{
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    munmap(shared_, sizeof(shared_t));
}

uint64_t scale_daemon::validations() const
{
    return shared_->validations;
}

uint64_t scale_daemon::deliveries() const
{
    return shared_->deliveries;
}
