// Connections to the agent's datastore for one purpose.

#include "cfgmgr/daemon/cfgmgr_cdb.h"

#include <netinet/in.h>
#include <sys/socket.h>

cdb_session::cdb_session(cdb_db_type db) : sock_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), step_(open(db))
{
}

cdb_step_t cdb_session::open(cdb_db_type db)
{
    if (!sock_.is_open()) {
        confd_errno = CONFD_ERR_OS;
        return cdb_step_t::SOCKET;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(CONFD_PORT);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    result_ = cdb_connect(sock_.get(), CDB_DATA_SOCKET, reinterpret_cast<sockaddr *>(&address), sizeof address);
    if (result_ != CONFD_OK)
        return cdb_step_t::CONNECT;
    result_ = cdb_start_session2(sock_.get(), db, 0);
    return result_ == CONFD_OK ? cdb_step_t::OPEN : cdb_step_t::SESSION;
}

cdb_session::~cdb_session()
{
    if (sock_.is_open())
        (void)cdb_close(sock_.release()); // ends the session too
}
