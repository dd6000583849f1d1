// oper_set PATH true|false: writes a boolean of the operational data, as the daemon that owns it does.
//
// Who watches the leaf has been told of it when the program ends. Exit status: 0 done; 1 the agent cannot be reached or
// has refused; 2 the command line is wrong.
#include "common/tip_handle.h"

#include <confd_cdb.h>
#include <confd_lib.h>

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>

namespace
{

bool write_leaf(int sock, const char *path, bool is_true)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(CONFD_PORT);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    confd_value_t value;
    CONFD_SET_BOOL(&value, is_true ? 1 : 0);
    return cdb_connect(sock, CDB_DATA_SOCKET, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == CONFD_OK &&
           cdb_start_session2(sock, CDB_OPERATIONAL, CDB_LOCK_REQUEST | CDB_LOCK_WAIT) == CONFD_OK &&
           cdb_set_elem(sock, &value, "%s", path) == CONFD_OK && cdb_end_session(sock) == CONFD_OK;
}

} // namespace

int main(int argc, char **argv)
{
    bool is_true = argc == 3 && strcmp(argv[2], "true") == 0;
    if (!is_true && (argc != 3 || strcmp(argv[2], "false") != 0)) {
        fprintf(stderr, "usage: oper_set PATH true|false\n");
        return 2;
    }
    confd_init("oper_set", stderr, CONFD_SILENT);
    unique_fd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (write_leaf(sock.get(), argv[1], is_true))
        return 0;
    fprintf(stderr, "oper_set: %s: %s (%d) %s\n", argv[1], confd_strerror(confd_errno), confd_errno, confd_lasterr());
    return 1;
}
