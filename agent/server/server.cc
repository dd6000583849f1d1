#include "agent/server/server.h"

#include "agent/server/log.h"
#include "agent/server/phase.h"
#include "agent/server/settings.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <netinet/tcp.h>

static constexpr timeval ACCEPT_PAUSE = { 1, 0 }; // after accept(2) has failed for want of something
static constexpr int BACKLOG = 128;

connection_t *server_find(server_t &server, uint64_t serial)
{
    auto found = server.connections.find(serial);
    if (found == server.connections.end() || !found->second->failure.empty())
        return nullptr;
    return found->second.get();
}

void server_drop(server_t &server, uint64_t serial, const std::string &reason)
{
    auto node = server.connections.extract(serial);
    if (node.empty())
        return;
    connection_t &conn = *node.mapped();
    bool is_fault = !reason.empty();
    agent_log(is_fault ? LOG_WARNING : LOG_DEBUG, "%s disconnected%s%s", connection_title(conn).c_str(),
              is_fault ? ": " : "", reason.c_str());
    for (lock_t &lock : server.cdb_locks)
        lock_release(server, lock, serial);
    registry_forget_connection(server.registry, serial);
    std::erase_if(server.waiting_for_start, [&](const request_ref_t &ref) { return ref.connection == serial; });
    callback_forget(server, conn);
    action_forget(server, serial);
    stream_forget(server, serial);
    commit_queue_forget(server, serial);
    delivery_forget(server, conn);
    maapi_session_end(server, conn.maapi);
}

void server_adopt(server_t &server, int fd)
{
    auto conn = std::make_unique<connection_t>();
    conn->server = &server;
    conn->serial = server.next_serial++;
    conn->fd = owned_fd(fd);
    if (server.connections.size() >= server.config.max_connections) {
        agent_log(LOG_WARNING, "a connection is refused: there are %zu already", server.connections.size());
        return;
    }
    int one = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one); // not a TCP socket in tests: no delay there
    if (!connection_start(*conn)) {
        agent_log(LOG_ERR, "a connection is refused: no memory for its events");
        return;
    }
    server.connections.emplace(conn->serial, std::move(conn));
}

// ---- listening

static void on_accept(evconnlistener *, evutil_socket_t fd, sockaddr *, int, void *arg) noexcept
{
    server_adopt(*static_cast<server_t *>(arg), fd);
}

static void on_accept_error(evconnlistener *listener, void *arg) noexcept
{
    auto &server = *static_cast<server_t *>(arg);
    agent_log(LOG_ERR, "accept: %s; trying again in a second", strerror(errno));
    evconnlistener_disable(listener);
    evtimer_add(server.accept_pause.get(), &ACCEPT_PAUSE);
}

static void on_accept_again(evutil_socket_t, short, void *arg) noexcept
{
    evconnlistener_enable(static_cast<server_t *>(arg)->listener.get());
}

static void on_stop_signal(evutil_socket_t number, short, void *arg) noexcept
{
    agent_log(LOG_NOTICE, "stopping on signal %d", static_cast<int>(number));
    event_base_loopbreak(static_cast<server_t *>(arg)->base.get());
}

static uint16_t port_in_use(const server_t &server)
{
    sockaddr_in addr{};
    socklen_t size = sizeof addr;
    if (getsockname(evconnlistener_get_fd(server.listener.get()), reinterpret_cast<sockaddr *>(&addr), &size) != 0)
        return 0;
    return ntohs(addr.sin_port);
}

// Who waits for the file sees it whole or not at all.
static bool write_port_file(const std::string &path, uint16_t port, std::string *error)
{
    if (path.empty())
        return true;
    std::string text = std::to_string(port) + "\n";
    std::string fresh = path + ".new";
    ssize_t n = -1;
    {
        owned_fd fd(open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (fd.is_open())
            n = write(fd.get(), text.data(), text.size());
    }
    if (n == static_cast<ssize_t>(text.size()) && rename(fresh.c_str(), path.c_str()) == 0)
        return true;
    *error = "cannot write the port file " + path + ": " + strerror(errno);
    return false;
}

static bool start_listening(server_t &server, std::string *error)
{
    const agent_config_t &config = server.config;
    std::string place = config.listen_address + ":" + std::to_string(config.port);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(config.port));
    if (inet_pton(AF_INET, config.listen_address.c_str(), &addr.sin_addr) != 1) {
        *error = "listen-address " + config.listen_address + " is not an IPv4 address";
        return false;
    }
    constexpr unsigned flags = LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC | LEV_OPT_REUSEABLE;
    server.listener.reset(evconnlistener_new_bind(server.base.get(), on_accept, &server, flags, BACKLOG,
                                                  reinterpret_cast<sockaddr *>(&addr), sizeof addr));
    if (!server.listener) {
        *error = "cannot listen at " + place + ": " + strerror(errno) + "; is another agentd running?";
        return false;
    }
    evconnlistener_set_error_cb(server.listener.get(), on_accept_error);
    uint16_t port = port_in_use(server);
    agent_log(LOG_NOTICE, "listening at %s:%u", config.listen_address.c_str(), port);
    return write_port_file(config.port_file, port, error);
}

static bool watch_signals(server_t &server)
{
    constexpr int numbers[] = { SIGTERM, SIGINT };
    for (size_t i = 0; i < std::size(numbers); i++) {
        server.stop_signals[i].reset(evsignal_new(server.base.get(), numbers[i], on_stop_signal, &server));
        if (!server.stop_signals[i] || event_add(server.stop_signals[i].get(), nullptr) != 0)
            return false;
    }
    return true;
}

bool server_prepare(server_t &server, std::string *error)
{
    server.started = time(nullptr);
    server.base.reset(event_base_new());
    if (server.base)
        server.accept_pause.reset(evtimer_new(server.base.get(), on_accept_again, &server));
    if (server.accept_pause && watch_signals(server) && commit_queue_init(server) && delivery_init(server))
        return true;
    *error = "cannot make the event loop: no memory or no descriptors";
    return false;
}

bool server_run(server_t &server, std::string *error)
{
    if (!start_listening(server, error))
        return false;
    streams_start(server);
    settings_follow(server);
    phase_enter_1(server);
    if (event_base_dispatch(server.base.get()) < 0) {
        *error = "the event loop has failed";
        return false;
    }
    return true;
}

void server_stop_soon(server_t &server)
{
    static constexpr timeval soon = { 0, 100000 };
    (void)event_base_loopexit(server.base.get(), &soon); // fails for want of memory alone; a signal is left then
}

void server_close(server_t &server)
{
    server.listener.reset();
    while (!server.connections.empty())
        server_drop(server, server.connections.begin()->first, "");
}
