// Writes of configuration into a transaction of the agent, as the steps of a start need them.
#ifndef CFGMGR_DAEMON_CFGMGR_CONFD_WRITE_H
#define CFGMGR_DAEMON_CFGMGR_CONFD_WRITE_H

#include <confd_maapi.h>

// Where a step writes: the socket of the maapi connection and the handle of the transaction.
struct confd_write_t {
    int sock;
    int th;
};

inline constexpr int CFGMGR_CONFD_FAILED = 16; // result of a step whose failure is logged

// A leaf, or the values of a leaf-list, as text.
struct confd_text_row_t {
    const char *path;
    const char *value;
};

// Sets the leaf. CONFD_OK, or the agent's result after a log line that names the path.
int cfgmgr_confd_write_text(const confd_write_t &to, const confd_text_row_t &row);

// Creates what the path names; what exists already is no failure. Results as above.
[[gnu::format(printf, 2, 3)]] int cfgmgr_confd_write_create(const confd_write_t &to, const char *fmt, ...);

// A line with what the agent has said behind it: "TEXT (result) error (number) : last error".
#define cfgmgr_confd_log_failure(result, fmt, ...)                                                                     \
    tip_log(fmt " (%u) %s (%d) : %s" __VA_OPT__(, ) __VA_ARGS__, static_cast<unsigned>(result),                        \
            confd_strerror(confd_errno), confd_errno, confd_lasterr())

// The same without the result: "TEXT - error (number) : last error".
#define cfgmgr_confd_log_error(fmt, ...)                                                                               \
    tip_log(fmt " - %s (%d) : %s" __VA_OPT__(, ) __VA_ARGS__, confd_strerror(confd_errno), confd_errno, confd_lasterr())

#endif
