// What the sources of the layer share with each other.
#ifndef TCONFD_TCONFD_INTERNAL_H
#define TCONFD_TCONFD_INTERNAL_H

#include "common/daemon_names.h"
#include "common/tip_handle.h"
#include "common/tip_log.h"
#include "tconfd/tconfd_api.h"

#include <atomic>
#include <vector>

// ---- process-wide state (tconfd_log.cc)

uint8_t tconfd_module_id(); // 0 until the first module init
void tconfd_module_id_set(uint8_t id);
int tconfd_facility();
bool tconfd_trace_is_on();
const char *tconfd_name(); // the daemon's name

#define tconfd_log(fmt, ...) tip_log_to(tconfd_facility(), fmt __VA_OPT__(, ) __VA_ARGS__)
// With a function's name given: for steps that log in the name of the operation they belong to.
#define tconfd_log_as(function, fmt, ...)                                                                              \
    syslog(tconfd_facility() | LOG_DEBUG, "%s[%d]: " fmt, function, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
#define tconfd_trace(fmt, ...)                                                                                         \
    (tconfd_trace_is_on() ? tip_log_to(tconfd_facility(), fmt __VA_OPT__(, ) __VA_ARGS__) : (void)0)

// The namespace that holds the leaf of the initial read.
inline constexpr char TCONFD_SYSTEM_NAMESPACE[] = "urn:corvane:yang:system";

// Starts a detached thread. 0 or the error of pthread_create.
[[nodiscard]] int tconfd_thread_start(void *(*body)(void *), void *arg);
// Blocks every signal in the calling thread, so that the main thread serves them and a pipe without a reader is an
// error instead of a signal. First thing of every thread of the layer.
void tconfd_block_signals();

// A socket connected as a CDB data socket, with a session on the operational datastore for as long as it lives.
class oper_session
{
public:
    // flags: CDB_LOCK_*. is_open tells whether all steps went well; after a failure `step` says where it ended.
    explicit oper_session(int flags);
    ~oper_session();
    oper_session(const oper_session &) = delete;
    oper_session &operator=(const oper_session &) = delete;

    enum step_t {
        STEP_SOCKET,
        STEP_CONNECT,
        STEP_SESSION,
        STEP_OPEN
    };
    [[nodiscard]] bool is_open() const { return step == STEP_OPEN; }
    [[nodiscard]] int fd() const { return sock.get(); }
    step_t step = STEP_SOCKET;

private:
    unique_fd sock;
};

// ---- registration thread (tconfd_subscribe.cc)

// Bytes on the pipe from threads to the loop.
inline constexpr char TCONFD_PIPE_FAILED = '1';     // reconnect
inline constexpr char TCONFD_PIPE_SUBSCRIBED = '2'; // subscription ids are ready in the thread's record

// Shared by the registration thread and the loop. While the thread runs it is the only user of subscr_fd; whoever
// leaves last (by `over`) frees the record, and a thread that was left behind closes subscr_fd.
struct tconfd_sub_thread {
    tconfd_sub *subs = nullptr; // the application's rows; the thread knows nothing else of the context
    unique_fd pipe;             // write end
    int subscr_fd = -1;
    uint32_t initial_read_subid = 0;
    struct ids_t {
        uint32_t add = 0, del = 0;
    };
    std::vector<ids_t> ids;           // in table order
    std::atomic<bool> ready{ false }; // ids and initial_read_subid stand; set before the byte is sent
    std::atomic<bool> over{ false };  // one side has left
};

// Starts the thread for the connection. 0 or the errno of pthread_create.
int tconfd_subscribe_start(tconfd_ctx *ctx);
// Takes over what the thread has prepared: ids into the rows, the subscription event into the loop, first read.
void tconfd_subscribe_finish(tconfd_ctx *ctx);
// Leaves a running thread behind: it no longer touches the context. Closes subscr_fd when the thread has ended.
void tconfd_subscribe_abandon(tconfd_ctx *ctx);
// Thread body.
void *tconfd_thread_register_subscriptions(void *record);

// The layer's own rows, walked behind the application's; they end with an empty path too.
extern tconfd_sub tconfd_own_subs[];

// Rows of the application's table, then of the layer's own.
class tconfd_rows
{
public:
    explicit tconfd_rows(tconfd_sub *subs) : subs_(subs) {}
    class iterator
    {
    public:
        iterator(tconfd_sub *row, tconfd_sub *other) : row_(row), other_(other) { skip_end(); }
        tconfd_sub &operator*() const { return *row_; }
        iterator &operator++()
        {
            row_++;
            skip_end();
            return *this;
        }
        bool operator!=(const iterator &end) const { return row_ != end.row_; }

    private:
        void skip_end()
        {
            while (row_ != nullptr && row_->path[0] == '\0') {
                row_ = other_;
                other_ = nullptr;
            }
        }
        tconfd_sub *row_;
        tconfd_sub *other_;
    };
    [[nodiscard]] iterator begin() const;
    [[nodiscard]] iterator end() const { return { nullptr, nullptr }; }

private:
    tconfd_sub *subs_;
};

// ---- deliveries

// Callback of the subscription socket.
void tconfd_sub_cb(evutil_socket_t fd, short events, void *ctx);

// One delivery of one row.
struct tconfd_delivery {
    tconfd_sub *row;
    int point; // the subscription point that matched: add_subid or del_subid
    [[nodiscard]] bool is_delete_pass() const { return static_cast<uint32_t>(point) != row->add_subid; }
    [[nodiscard]] bool has_passes() const { return row->priority >= 16; }
};

// Iterated delivery: for cdb_diff_iterate, with a tconfd_delivery as state.
cdb_iter_ret tconfd_sub_diff_iter(confd_hkeypath_t *kp, cdb_iter_op op, confd_value_t *oldv, confd_value_t *newv,
                                  void *state);
// 0, or -1 when the agent failed; a failed handler shows in the row's flags.
int tconfd_sub_diff_no_keys(tconfd_delivery *delivery);
int tconfd_sub_diff_bulk_read(tconfd_delivery *delivery);

// Copies the entries that apply in this pass (shallow) and gives their count, 0 when nothing applies.
int tconfd_filter_modifications(const confd_tag_value_t *src, confd_tag_value_t *dst, int n, bool delete_pass);
// Frees what cdb_get_modifications gave. Null is a no-op.
void tconfd_free_modifications(int n, confd_tag_value_t *values);

#endif
