// A connection of its own to the agent's datastore, with a session on one of its stores for as long as it lives.
//
// For what runs while the agent waits for a handler: the subscription socket cannot be used then, and the context's
// data socket is the datastore client's. Blocks until the agent has answered.
#ifndef CFGMGR_DAEMON_CFGMGR_CDB_H
#define CFGMGR_DAEMON_CFGMGR_CDB_H

#include "common/tip_handle.h"

#include <confd_cdb.h>

// How far the opening of a session has come.
enum class cdb_step_t {
    SOCKET,
    CONNECT,
    SESSION,
    OPEN
};

class cdb_session
{
public:
    explicit cdb_session(cdb_db_type db);
    ~cdb_session();
    cdb_session(const cdb_session &) = delete;
    cdb_session &operator=(const cdb_session &) = delete;

    [[nodiscard]] bool is_open() const { return step_ == cdb_step_t::OPEN; }
    [[nodiscard]] cdb_step_t step() const { return step_; } // OPEN, or what failed: SOCKET with errno, else the agent's
    [[nodiscard]] int result() const { return result_; }    // the agent's, of the step that failed
    [[nodiscard]] int fd() const { return sock_.get(); }

private:
    cdb_step_t open(cdb_db_type db);

    unique_fd sock_;
    int result_ = CONFD_ERR;
    cdb_step_t step_;
};

#endif
