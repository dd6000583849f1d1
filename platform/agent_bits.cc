// agent_bits: sets bits of the agent's operational leaf "/tconfd-initial-read-priority" and prints all that are set then,
// as one decimal number. The system manager's helper, a process of its own because the agent's calls block.
//
//   agent_bits [--port N] MASK
//
// Bits that are set stay set; a mask of 0 only looks. Exit status: 0 done; 1 the agent cannot be reached or has refused;
// 2 the command line is wrong.
#include "common/tip_handle.h"

#include <confd_cdb.h>
#include <confd_lib.h>

#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace
{

constexpr char LEAF[] = "/tconfd-initial-read-priority";

enum exit_status_t {
    EXIT_DONE = 0,
    EXIT_REFUSED = 1,
    EXIT_USAGE = 2,
};

bool parse_number(const char *text, uint32_t *number)
{
    const char *end = text + strlen(text);
    auto result = std::from_chars(text, end, *number);
    return result.ec == std::errc() && result.ptr == end;
}

bool complain(const char *what)
{
    fprintf(stderr, "agent_bits: %s: %s (%d) %s\n", what, confd_strerror(confd_errno), confd_errno, confd_lasterr());
    return false;
}

bool connect_agent(int sock, uint32_t port)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int result = cdb_connect(sock, CDB_DATA_SOCKET, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    return result == CONFD_OK || complain("cannot connect to the agent");
}

// A leaf that nobody has written counts as 0.
bool read_bits(int sock, uint32_t *bits)
{
    confd_value_t value{};
    if (cdb_get(sock, &value, LEAF) != CONFD_OK)
        return confd_errno == CONFD_ERR_NOEXISTS || complain("cannot read the bits");
    bool is_bits = value.type == C_BIT32;
    *bits = is_bits ? CONFD_GET_BIT32(&value) : 0;
    confd_free_value(&value);
    return is_bits || complain("the leaf does not hold bits");
}

// Read and write are one session with the lock, so that nobody else's bit is lost between them.
bool or_bits(int sock, uint32_t mask, uint32_t *bits)
{
    if (cdb_start_session2(sock, CDB_OPERATIONAL, CDB_LOCK_REQUEST | CDB_LOCK_WAIT) != CONFD_OK)
        return complain("cannot start a session");
    if (!read_bits(sock, bits))
        return false;
    if ((*bits & mask) != mask) {
        *bits |= mask;
        confd_value_t value;
        CONFD_SET_BIT32(&value, *bits);
        if (cdb_set_elem(sock, &value, LEAF) != CONFD_OK)
            return complain("cannot write the bits");
    }
    return cdb_end_session(sock) == CONFD_OK || complain("cannot end the session");
}

bool options_read(int argc, char **argv, uint32_t *port, uint32_t *mask)
{
    bool has_port = argc == 4 && strcmp(argv[1], "--port") == 0;
    if (argc != 2 && !has_port)
        return false;
    if (has_port && (!parse_number(argv[2], port) || *port == 0 || *port > UINT16_MAX))
        return false;
    return parse_number(argv[argc - 1], mask);
}

} // namespace

int main(int argc, char **argv)
{
    uint32_t port = CONFD_PORT, mask = 0, bits = 0;
    if (!options_read(argc, argv, &port, &mask)) {
        fprintf(stderr, "usage: agent_bits [--port N] MASK\n");
        return EXIT_USAGE;
    }
    confd_init("agent_bits", stderr, CONFD_SILENT);
    unique_fd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!connect_agent(sock.get(), port) || !or_bits(sock.get(), mask, &bits))
        return EXIT_REFUSED;
    printf("%u\n", bits);
    return EXIT_DONE;
}
