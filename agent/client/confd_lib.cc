// The library itself: its start, error numbers and texts, messages for people.
#include "agent/client/confd_internal.h"

#include <atomic>
#include <cstdlib>
#include <iterator>
#include <mutex>

__thread int confd_errno = CONFD_ERR_OK;

static thread_local char last_error[1024];

struct process_t {
    std::mutex mutex;
    std::string name;
    FILE *stream = nullptr;
    std::atomic<int> level = CONFD_SILENT;
};

// Never destroyed: threads of the user may still be here when the process ends.
static process_t &process()
{
    static process_t &only = *new process_t;
    return only;
}

void confd_init_vsn_sz(const char *name, FILE *estream, enum confd_debug_level level, int vsn, int maxdepth,
                       int maxkeylen)
{
    if (vsn != CONFD_LIB_VSN || maxdepth != MAXDEPTH || maxkeylen != MAXKEYLEN)
        confd_fatal("%s: built for version %x, depth %d, keys %d of the library; this is %x, %d, %d\n", name, vsn,
                    maxdepth, maxkeylen, CONFD_LIB_VSN, MAXDEPTH, MAXKEYLEN);
    std::lock_guard guard(process().mutex);
    process().name = name;
    process().stream = estream;
    process().level = level;
}

std::string confd_client_name()
{
    std::lock_guard guard(process().mutex);
    return process().name;
}

struct error_row_t {
    confd_errcode_num code;
    const char *text;
};

static constexpr error_row_t error_rows[] = {
    { CONFD_ERR_OK, "ok" },
    { CONFD_ERR_NOEXISTS, "item does not exist" },
    { CONFD_ERR_ALREADY_EXISTS, "item exists already" },
    { CONFD_ERR_ACCESS_DENIED, "access denied" },
    { CONFD_ERR_NOT_WRITABLE, "not writable" },
    { CONFD_ERR_BADTYPE, "wrong type of value" },
    { CONFD_ERR_NOTCREATABLE, "cannot be created" },
    { CONFD_ERR_NOTDELETABLE, "cannot be deleted" },
    { CONFD_ERR_BADPATH, "bad path" },
    { CONFD_ERR_NOSTACK, "no position to go back to" },
    { CONFD_ERR_LOCKED, "locked by somebody else" },
    { CONFD_ERR_INUSE, "in use" },
    { CONFD_ERR_NOTSET, "mandatory item not set" },
    { CONFD_ERR_NOSESSION, "no session" },
    { CONFD_ERR_TOOMANYTRANS, "too many transactions" },
    { CONFD_ERR_OS, "system call failed" },
    { CONFD_ERR_BADSTATE, "call does not fit the state" },
    { CONFD_ERR_PROTOUSAGE, "wrong use of the protocol" },
    { CONFD_ERR_INTERNAL, "internal error" },
    { CONFD_ERR_EXTERNAL, "callback failed" },
    { CONFD_ERR_MALLOC, "out of memory" },
    { CONFD_ERR_UNAVAILABLE, "not available" },
    { CONFD_ERR_ABORTED, "transaction aborted" },
    { CONFD_ERR_VALIDATION, "validation failed" },
    { CONFD_ERR_CONFLICT, "running has changed" },
    { CONFD_ERR_TOOBIG, "too big" },
};
static_assert(std::size(error_rows) == CONFD_ERR_TOOBIG + 1);

const char *confd_strerror(int code)
{
    for (const error_row_t &row : error_rows)
        if (row.code == code)
            return row.text;
    return "unknown error";
}

const char *confd_lasterr(void)
{
    return last_error;
}

int confd_fail(int code, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    (void)vsnprintf(last_error, sizeof last_error, fmt, args); // a longer text is cut
    va_end(args);
    confd_errno = code;
    confd_debug(CONFD_DEBUG, "%s: %s", confd_strerror(code), last_error);
    return CONFD_ERR;
}

int confd_fail_malformed(wire_op_t op)
{
    return confd_fail(CONFD_ERR_PROTOUSAGE, "malformed payload from the agent (operation %d)", op);
}

void confd_debug(confd_debug_level level, const char *fmt, ...)
{
    process_t &self = process();
    if (self.level < level)
        return;
    std::lock_guard guard(self.mutex);
    if (self.stream == nullptr)
        return;
    va_list args;
    va_start(args, fmt);
    (void)fprintf(self.stream, "%s: ", self.name.c_str());
    (void)vfprintf(self.stream, fmt, args);
    (void)fputc('\n', self.stream);
    va_end(args);
}

void confd_fatal(const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    (void)vfprintf(stderr, fmt, args);
    va_end(args);
    exit(1);
}
