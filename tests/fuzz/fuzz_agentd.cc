// Bytes of a client to agentd's dispatcher, through a socket pair: nothing that a client sends may do more harm than to
// end its own connection.
//
// The first byte of an input says what kind of connection a valid hello opens (8: none), the rest is what follows on the
// wire, sent in two pieces. One server serves all inputs, in memory; after each nothing of the client may be left there.
#include "tests/fuzz/agent_in_memory.h"

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
    static server_t *server = make_server(TEST_YANG_DIR, nullptr);
    if (size == 0)
        return 0;
    int client = connect_client(*server);
    uint8_t kind = data[0] % (WIRE_KIND_COUNT + 1);
    std::string bytes = kind < WIRE_KIND_COUNT ? hello_frame(kind, 0) : std::string();
    bytes.append(reinterpret_cast<const char *>(data + 1), size - 1);
    send_piece(*server, client, std::string_view(bytes).substr(0, bytes.size() / 2));
    send_piece(*server, client, std::string_view(bytes).substr(bytes.size() / 2));
    close(client);
    check_nothing_is_left(*server);
    empty_stores(*server);
    return 0;
}
