// libconfd: the daemon context, its registrations and the callbacks that the agent makes through them.
#ifndef AGENT_CLIENT_CONFD_DP_H
#define AGENT_CLIENT_CONFD_DP_H

#include "agent/client/confd_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

enum confd_sock_type {
    CONTROL_SOCKET = 0,
    WORKER_SOCKET = 1
};

struct confd_daemon_ctx {
    void *d_opaque; // the user's
    char *name;
    int ctrl_fd; // -1 until connected
    uint32_t daemon_id;
    void *internal; // the library's
};

struct confd_user_info {
    int usid;
    char username[64];
    char context[32];
    char src_addr[64];
    struct confd_daemon_ctx *dx;
    void *u_opaque;   // the user's
    int actx_thandle; // of the transaction that an action runs in, 0 for none
    int worker_fd;
    void *cb_opaque; // of the row whose callback runs
    void *internal;
};

struct confd_trans_ctx {
    int thandle;
    enum confd_dbname dbname;
    struct confd_user_info *uinfo;
    struct confd_daemon_ctx *dx;
    void *t_opaque; // the user's
    int worker_fd;
    void *cb_opaque; // of the row whose callback runs; null in init, finish and stop
    void *internal;
};

// init is called before the first data callback (validation: before the first validator) in a transaction and chooses
// the worker socket by confd_trans_set_fd; without it, and when it sets none, the daemon's only worker is taken. Both
// kinds get the same context in one transaction, which lives until both have ended.
struct confd_trans_cbs {
    int (*init)(struct confd_trans_ctx *tctx);
    int (*finish)(struct confd_trans_ctx *tctx);
};

struct confd_trans_validate_cbs {
    int (*init)(struct confd_trans_ctx *tctx);
    int (*stop)(struct confd_trans_ctx *tctx);
};

// One row of a table of validation points, ended by an empty name. newval has type C_NOEXISTS for what is deleted. Any
// result but CONFD_OK refuses.
struct confd_valpoint_cb {
    char valpoint[MAX_CALLPOINT_LEN + 1];
    int (*validate)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval);
    void *cb_opaque;
};

struct confd_qname {
    struct confd_buf prefix;
    struct confd_buf name;
};

// One row of a table of actions, ended by an empty name. A negative result is a failure. Pointers are never null; what
// there is not is an empty text. abort is called while another thread serves the worker of the running callback.
struct confd_action_cbs {
    char actionpoint[MAX_CALLPOINT_LEN + 1];
    int (*init)(struct confd_user_info *uinfo);
    int (*abort)(struct confd_user_info *uinfo);
    int (*action)(struct confd_user_info *uinfo, struct xml_tag *name, confd_hkeypath_t *kp, confd_tag_value_t *params,
                  int nparams);
    int (*command)(struct confd_user_info *uinfo, char *path, int argc, char **argv);
    int (*completion)(struct confd_user_info *uinfo, int cli_style, char *token, int completion_char,
                      confd_hkeypath_t *kp, char *cmdpath, char *cmdparam_id, struct confd_qname *simple_type,
                      char *extra);
    void *cb_opaque;
};

struct confd_data_cbs {
    char callpoint[MAX_CALLPOINT_LEN + 1];
    int (*exists_optional)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);
    int (*get_elem)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);
    int (*get_next)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next);
    int (*set_elem)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval);
    int (*create)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);
    int (*remove)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);
    int (*get_object)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);
    int (*get_next_object)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next);
    int (*find_next_object)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, int type, confd_value_t *inkeys,
                            int n_inkeys);
    void *cb_opaque;
};

#ifdef __cplusplus
static_assert(sizeof(struct confd_valpoint_cb) == 272 && sizeof(struct confd_action_cbs) == 304,
              "row sizes are part of the library's interface");
#endif

// An object of confd_data_reply_next_object_tag_value_arrays. tv null with n 0 and next -1 is the end of the list.
struct confd_tag_next_object {
    confd_tag_value_t *tv;
    int n;
    long next;
};

enum confd_find_next_type {
    CONFD_FIND_NEXT = 0,         // the first entry behind the keys
    CONFD_FIND_SAME_OR_NEXT = 1, // the entry with the keys, or the first behind
};

enum confd_completion_type {
    CONFD_COMPLETION = 0,      // value may be typed; extra says more of it, or is null
    CONFD_COMPLETION_INFO = 1, // value is shown, extra is unused
    CONFD_COMPLETION_DESC = 2,
};
struct confd_completion_value {
    enum confd_completion_type type;
    char *value;
    char *extra;
};

enum confd_snmp_var_type {
    CONFD_SNMP_VARIABLE = 1, // by its name
};
struct confd_snmp_varbind {
    enum confd_snmp_var_type type;
    char name[128];
    confd_value_t val;
};

struct confd_notification_ctx; // a registered stream

struct confd_notification_stream_cbs {
    char streamname[MAX_CALLPOINT_LEN + 1];
    int fd; // the worker socket
    int (*get_log_times)(struct confd_notification_ctx *nctx);
    int (*replay)(struct confd_notification_ctx *nctx, struct confd_datetime *start, struct confd_datetime *stop);
    void *cb_opaque;
};

struct confd_daemon_ctx *confd_init_daemon(const char *name);
// Frees the context and its registrations, notification contexts too; sockets are the caller's to close. A callback may
// do this, and returns into the library then.
void confd_release_daemon(struct confd_daemon_ctx *dx);
int confd_connect(struct confd_daemon_ctx *dx, int sock, enum confd_sock_type type, const struct sockaddr *srv,
                  int addrsz);
// Reads and serves one request on a readable control or worker socket. CONFD_EOF when the agent has gone; CONFD_ERR
// with CONFD_ERR_EXTERNAL when a callback has failed, which the agent has been told.
int confd_fd_ready(struct confd_daemon_ctx *dx, int fd);

int confd_register_trans_cb(struct confd_daemon_ctx *dx, const struct confd_trans_cbs *cbs);
int confd_register_trans_validate_cb(struct confd_daemon_ctx *dx, const struct confd_trans_validate_cbs *cbs);
int confd_register_data_cb(struct confd_daemon_ctx *dx, const struct confd_data_cbs *cbs);
int confd_register_valpoint_cb(struct confd_daemon_ctx *dx, const struct confd_valpoint_cb *cb);
int confd_register_action_cbs(struct confd_daemon_ctx *dx, const struct confd_action_cbs *cbs);
int confd_register_notification_stream(struct confd_daemon_ctx *dx, const struct confd_notification_stream_cbs *cbs,
                                       struct confd_notification_ctx **nctx);
int confd_register_snmp_notification(struct confd_daemon_ctx *dx, int fd, const char *notify_name, const char *ctx_name,
                                     struct confd_notification_ctx **nctx);
// Ends the registrations; only now the agent uses them.
int confd_register_done(struct confd_daemon_ctx *dx);

void confd_trans_set_fd(struct confd_trans_ctx *tctx, int sock);
void confd_action_set_fd(struct confd_user_info *uinfo, int sock);
// In data callbacks: the answer, given before the callback returns CONFD_OK. A write needs none, and fails with any
// result but CONFD_OK; a read fails with a negative result or without an answer. CONFD_ERR with CONFD_ERR_PROTOUSAGE
// when the callback asks for an answer of another kind.
int confd_data_reply_value(struct confd_trans_ctx *tctx, const confd_value_t *v);
int confd_data_reply_found(struct confd_trans_ctx *tctx);
int confd_data_reply_not_found(struct confd_trans_ctx *tctx);
// The key of the next entry, and what get_next is called with for the one behind it; num_vals 0 (v null) is the end.
int confd_data_reply_next_key(struct confd_trans_ctx *tctx, const confd_value_t *v, int num_vals, long next);
// An entry's leaves (get_object).
int confd_data_reply_tag_value_array(struct confd_trans_ctx *tctx, const confd_tag_value_t *tvs, int n);
// One entry of a list, or the end: tvs null. next -1: the agent goes on with find_next_object and the entry's keys.
int confd_data_reply_next_object_tag_value_array(struct confd_trans_ctx *tctx, const confd_tag_value_t *tvs, int n,
                                                 long next);
// Several entries at once, which the agent may use for timeout_millisecs (0 or less: as its configuration says). tobj
// null or nobj at most 0: the end of the list. An end record as the last object says that there are no more.
int confd_data_reply_next_object_tag_value_arrays(struct confd_trans_ctx *tctx,
                                                  const struct confd_tag_next_object *tobj, int nobj,
                                                  int timeout_millisecs);

// In action callbacks.
int confd_action_reply_values(struct confd_user_info *uinfo, const confd_tag_value_t *values, int nvalues);
int confd_action_reply_completion(struct confd_user_info *uinfo, const struct confd_completion_value *values,
                                  int nvalues);
// The reason for the operator, of a callback that fails. Not in abort, which may run beside the callback that it ends:
// the agent asks one thing at a time in a transaction or action, and only abort breaks that rule.
void confd_action_seterr(struct confd_user_info *uinfo, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Notifications. Any thread, also while another one serves the worker socket; the agent does not answer, so a result
// other than CONFD_OK speaks of the connection or of arguments alone. values: from the notification's C_XMLBEGIN to its
// C_XMLEND; a namespace of 0 is the notification's.
int confd_notification_send(struct confd_notification_ctx *nctx, const struct confd_datetime *time,
                            const confd_tag_value_t *values, int nvalues);
// The SNMP notify name of the following sends, in place of the registered one.
int confd_notification_set_snmp_notify_name(struct confd_notification_ctx *nctx, const char *notify_name);
int confd_notification_send_snmp(struct confd_notification_ctx *nctx, const char *notification,
                                 const struct confd_snmp_varbind *varbinds, int num_vars);

// Refuses with a text for the operator.
void confd_trans_seterr(struct confd_trans_ctx *tctx, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// With maapi: makes the transaction of a callback readable and writable through a maapi socket.
int maapi_attach(int sock, int hashed_ns, struct confd_trans_ctx *tctx);
int maapi_detach(int sock, struct confd_trans_ctx *tctx);

#ifdef __cplusplus
}
#endif

#endif
