// Writers of operational data, synchronous and chained.

#include "tconfd/tconfd_internal.h"
#include "tconfd/tconfd_util.h"

#include "common/tip_text.h"

#include <cerrno>
#include <cstdio>
#include <memory>

namespace
{

constexpr int LOCK_AND_WAIT = CDB_LOCK_REQUEST | CDB_LOCK_WAIT;
constexpr size_t PATH_SIZE = 100;

int session_flags(int wait)
{
    return wait == 1 ? LOCK_AND_WAIT : 0;
}

const char *op_name(int op)
{
    constexpr const char *names[] = { "?", "create", "set", "delete" };
    return op >= TCONFD_OPER_CREATE && op <= TCONFD_OPER_DELETE ? names[op] : names[0];
}

// A create or set of what is there already, and a delete of what is not, are normal.
bool is_normal(int op, int status)
{
    if (op == TCONFD_OPER_DELETE)
        return status == CONFD_ERR_NOEXISTS;
    return status == CONFD_ERR_ALREADY_EXISTS;
}

int write_elem(int fd, const confd_value_t *value, int op, const char *fmt, va_list args)
{
    switch (op) {
    case TCONFD_OPER_CREATE:
        return cdb_vcreate(fd, fmt, args);
    case TCONFD_OPER_SET:
        return cdb_vset_elem(fd, value, fmt, args);
    case TCONFD_OPER_DELETE:
        return cdb_vdelete(fd, fmt, args);
    default:
        return CONFD_OK;
    }
}

void log_write_failure(int op)
{
    tconfd_log("Failed to %s elem %s (%d) : %s", op_name(op), confd_strerror(confd_errno), confd_errno,
               confd_lasterr());
}

int vset(const confd_value_t *value, int op, int wait, const char *fmt, va_list args)
{
    oper_session session(session_flags(wait));
    if (session.step == oper_session::STEP_SOCKET) {
        tconfd_log("Cannot allocate socket (errno: %d)", errno);
        return TCONFD_FAILED;
    }
    if (!session.is_open()) {
        tconfd_log("Cannot connect to CDB (%d)%s (%d) : %s", CONFD_ERR, confd_strerror(confd_errno), confd_errno,
                   confd_lasterr());
        return confd_errno != 0 ? confd_errno : TCONFD_FAILED;
    }
    int status = write_elem(session.fd(), value, op, fmt, args) == CONFD_OK ? 0 : confd_errno;
    if (status != 0 && !is_normal(op, status))
        log_write_failure(op); // the agent's text names the path
    return status;
}

// One asynchronous write.
struct oper_request_t {
    tconfd_ctx *ctx;
    confd_value_t value; // C_NOEXISTS for none; owned
    char path[PATH_SIZE];
    int op;
    int wait;
    pthread_t previous; // 0 for none
};

void free_request(oper_request_t *req)
{
    tconfd_free_value_copy(&req->value);
    delete req;
}

// Waits for the writer before this one. Each is joined by the next, and the last stays joinable until a next one
// comes or the module is freed, so that no thread is joined that has detached itself.
void wait_for_previous(pthread_t previous)
{
    if (previous == 0)
        return;
    tconfd_trace("\n%s Waiting for previous thread: %lu to exit", __func__, static_cast<unsigned long>(previous));
    void *ret_val = nullptr;
    int result = pthread_join(previous, &ret_val);
    tconfd_trace("\n%s: Previous thread: %lu exited, ret_val: %d", __func__, static_cast<unsigned long>(previous),
                 result);
}

void *tconfd_thread_set_cdb_oper_value(void *arg)
{
    tconfd_block_signals();
    auto *req = static_cast<oper_request_t *>(arg);
    if (req == nullptr) {
        tconfd_log("argument is NULL");
        return nullptr;
    }
    wait_for_previous(req->previous);
    int status = tconfd_vset_cdb_oper_value(req->ctx, &req->value, req->op, req->wait, "%s", req->path);
    if (status != 0 && !is_normal(req->op, status))
        tconfd_log("Failed to do operation %d for %s with type %d", req->op, req->path, req->value.type);
    free_request(req);
    return nullptr;
}

int set_label(tconfd_ctx *ctx, uint32_t label, const char *path)
{
    confd_value_t value{};
    CONFD_SET_UINT32(&value, label);
    if (tconfd_vset_cdb_oper_value(ctx, &value, TCONFD_OPER_SET, 0, "%s", path) == 0)
        return 0;
    tconfd_log("Failed to set VPN label value in CDB");
    return -1;
}

int get_label(const char *path)
{
    oper_session session(0);
    uint32_t label;
    if (!session.is_open() || cdb_get_uint32(session.fd(), &label, "%s", path) != CONFD_OK)
        return -1;
    return static_cast<int>(label);
}

struct label_path {
    char text[PATH_SIZE];
    explicit label_path(uint64_t vpn_id) { (void)snprintf(text, sizeof text, "/vpn/vpn-instance{%lu}/label", vpn_id); }
    label_path(uint64_t vpn_id, const char *service)
    {
        (void)snprintf(text, sizeof text, "/vpn/vpn-instance{%lu}/service{%s}/label", vpn_id, service);
    }
};

} // namespace

int tconfd_vset_cdb_oper_value(tconfd_ctx *, const confd_value_t *value, int op, int wait, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int status = vset(value, op, wait, fmt, args);
    va_end(args);
    return status;
}

int tconfd_set_cdb_oper_value(tconfd_ctx *ctx, const confd_value_t *value, const char *path, int op, int wait)
{
    auto *req = new (std::nothrow) oper_request_t{};
    if (req == nullptr)
        return TCONFD_NO_MEMORY;
    req->ctx = ctx;
    CONFD_SET_NOEXISTS(&req->value);
    if (value != nullptr && tconfd_copy_confd_value(&req->value, value) != TCONFD_OK) {
        free_request(req);
        return TCONFD_NO_MEMORY;
    }
    strlcpy(req->path, path, sizeof req->path);
    req->op = op;
    req->wait = wait;
    req->previous = ctx->oper_thread;
    pthread_t thread;
    int error = pthread_create(&thread, nullptr, tconfd_thread_set_cdb_oper_value, req);
    if (error != 0) {
        tconfd_log("Failed to create tconfd thread (error %d, errno %d))", error, errno);
        free_request(req);
        return TCONFD_FAILED;
    }
    ctx->oper_thread = thread;
    return TCONFD_OK;
}

int tconfd_get_cdb_int32_value(tconfd_ctx *ctx, int32_t *out, const char *path, int wait)
{
    int result = cdb_start_session2(ctx->data_fd, CDB_OPERATIONAL, session_flags(wait));
    bool has_session = result == CONFD_OK;
    if (has_session)
        result = cdb_get_int32(ctx->data_fd, out, "%s", path);
    if (result != CONFD_OK)
        tconfd_log("Failed to get operational value for element %s : %s (%d) : %s", path, confd_strerror(confd_errno),
                   confd_errno, confd_lasterr());
    if (has_session)
        (void)cdb_end_session(ctx->data_fd); // the value is had or the failure told
    return result == CONFD_OK ? 0 : 1;
}

int tconfd_set_vpn_label(tconfd_ctx *ctx, uint64_t vpn_id, uint32_t label)
{
    return set_label(ctx, label, label_path(vpn_id).text);
}

int tconfd_get_vpn_label(tconfd_ctx *, uint64_t vpn_id)
{
    return get_label(label_path(vpn_id).text);
}

int tconfd_set_service_label(tconfd_ctx *ctx, uint64_t vpn_id, const char *service, uint32_t label)
{
    return set_label(ctx, label, label_path(vpn_id, service).text);
}

int tconfd_get_service_label(tconfd_ctx *, uint64_t vpn_id, const char *service)
{
    return get_label(label_path(vpn_id, service).text);
}
