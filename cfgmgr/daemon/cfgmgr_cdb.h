// A connection of its own to the agent's datastore, with a session on one of its stores for as long as it lives.
//
// For what runs while the agent waits for a handler: the subscription socket cannot be used then, and the context's
// data socket is the datastore client's. Blocks until the agent has answered.
#ifndef CFGMGR_DAEMON_CFGMGR_CDB_H
#define CFGMGR_DAEMON_CFGMGR_CDB_H

#include "common/tip_handle.h"

#include <confd_cdb.h>

class cdb_session
{
public:
    explicit cdb_session(cdb_db_type db);
    ~cdb_session();
    cdb_session(const cdb_session &) = delete;
    cdb_session &operator=(const cdb_session &) = delete;

    [[nodiscard]] bool is_open() const { return result_ == CONFD_OK; }
    [[nodiscard]] int result() const { return result_; } // the agent's, of the step that failed
    [[nodiscard]] int fd() const { return sock_.get(); }

private:
    unique_fd sock_;
    int result_;
};

#endif
