// Bytes of a client to agentd's dispatcher, through a socket pair: nothing that a client sends may do more harm than to
// end its own connection.
//
// The first byte of an input says what kind of connection a valid hello opens (8: none), the rest is what follows on the
// wire, sent in two pieces. One server serves all inputs, in memory.
#include "agent/server/phase.h"
#include "agent/server/server.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/socket.h>

static server_t *make_server()
{
    auto *server = new server_t; // lives as long as the process
    datastore_options_t options;
    options.yang_dir = TEST_YANG_DIR;
    std::vector<std::string> reports;
    ds_error_t error;
    server->store = datastore_open(options, reports, error);
    std::string failure;
    if (!server->store || !server_prepare(*server, &failure)) {
        fprintf(stderr, "cannot set up: %s%s\n", error.text.c_str(), failure.c_str());
        exit(1);
    }
    agent_log_open(LOG_TARGET_SYSLOG); // where there is none in a test, and nowhere else
    server->config.auto_phase2 = true;
    server->config.outbound_limit = 1 << 20;
    server->config.sync_timeout_ms = 10;
    phase_enter_1(*server);
    return server;
}

static void turn(server_t &server, int rounds)
{
    for (int i = 0; i < rounds; i++)
        event_base_loop(server.base.get(), EVLOOP_NONBLOCK);
}

static std::string hello(uint8_t kind)
{
    wire_writer_t payload;
    payload.u16(WIRE_VERSION);
    payload.u8(kind);
    payload.text("fuzz");
    payload.u32(1);
    payload.text("");
    payload.u32(0);
    return wire_frame(WIRE_HELLO, 0, 1, payload.bytes);
}

static void discard_answers(int fd)
{
    static char bytes[1 << 16];
    while (recv(fd, bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
    }
}

static void send_piece(server_t &server, int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        ssize_t n = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0)
            break;
        bytes.remove_prefix(static_cast<size_t>(n));
        turn(server, 1);
    }
    turn(server, 3);
    discard_answers(fd);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static server_t *server = make_server();
    int ends[2];
    if (size == 0 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return 0;
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    server_adopt(*server, ends[1]);
    uint8_t kind = data[0] % (WIRE_KIND_COUNT + 1);
    std::string bytes = kind < WIRE_KIND_COUNT ? hello(kind) : std::string();
    bytes.append(reinterpret_cast<const char *>(data + 1), size - 1);
    send_piece(*server, ends[0], std::string_view(bytes).substr(0, bytes.size() / 2));
    send_piece(*server, ends[0], std::string_view(bytes).substr(bytes.size() / 2));
    close(ends[0]);
    turn(*server, 3);
    return 0;
}
