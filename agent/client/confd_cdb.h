// libconfd: reading CDB, writing operational data, subscriptions.
#ifndef AGENT_CLIENT_CONFD_CDB_H
#define AGENT_CLIENT_CONFD_CDB_H

#include "agent/client/confd_lib.h"

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

enum cdb_sock_type {
    CDB_READ_SOCKET = 2,
    CDB_SUBSCRIPTION_SOCKET = 1,
    CDB_DATA_SOCKET = 2
};
enum cdb_db_type {
    CDB_RUNNING = 1,
    CDB_STARTUP = 2,
    CDB_OPERATIONAL = 3,
    CDB_PRE_COMMIT_RUNNING = 4
};

#define CDB_LOCK_REQUEST (1 << 0) // take the session's lock
#define CDB_LOCK_WAIT    (1 << 2) // wait for it instead of failing with CONFD_ERR_LOCKED

struct cdb_phase {
    int phase; // 0 schema loaded, 1 init transaction open, 2 serving
    int flags;
    char reserved[24];
};

// Connects the socket and says what it is for.
int cdb_connect(int sock, enum cdb_sock_type type, const struct sockaddr *srv, int srv_sz);
// Says goodbye and closes the socket.
int cdb_close(int sock);
int cdb_get_phase(int sock, struct cdb_phase *phase);
// Blocks until the agent is in phase 1 or later.
int cdb_wait_start(int sock);

// ---- sessions: all reads and writes below need one
int cdb_start_session(int sock, enum cdb_db_type db);
int cdb_start_session2(int sock, enum cdb_db_type db, int flags);
int cdb_end_session(int sock);

// Sets the socket's position for relative paths. A list step may be a position in key order: "list[2]".
int cdb_cd(int sock, const char *fmt, ...);

// The caller frees the value with confd_free_value.
int cdb_get(int sock, confd_value_t *v, const char *fmt, ...);
int cdb_vget(int sock, confd_value_t *v, const char *fmt, va_list args);
int cdb_get_int32(int sock, int32_t *out, const char *fmt, ...);
int cdb_get_uint16(int sock, uint16_t *out, const char *fmt, ...);
int cdb_get_uint32(int sock, uint32_t *out, const char *fmt, ...);
int cdb_get_bool(int sock, int *out, const char *fmt, ...);
// At most n bytes with the NUL; CONFD_ERR_TOOBIG when the text does not fit.
int cdb_get_str(int sock, char *out, size_t n, const char *fmt, ...);
// A leaf-list. values is malloc'ed: free each with confd_free_value, then the array.
int cdb_get_list(int sock, confd_value_t **values, int *nvalues, const char *fmt, ...);
int cdb_get_ipv4(int sock, struct in_addr *out, const char *fmt, ...);
int cdb_get_ipv4prefix(int sock, struct confd_ipv4_prefix *out, const char *fmt, ...);
// 1, 0 or CONFD_ERR.
int cdb_exists(int sock, const char *fmt, ...);
// The count of a list's entries, or CONFD_ERR.
int cdb_num_instances(int sock, const char *fmt, ...);

// Operational data. A set creates the list entries above that are operational themselves; a configured list entry
// above must exist.
int cdb_set_elem(int sock, const confd_value_t *v, const char *fmt, ...);
int cdb_vset_elem(int sock, const confd_value_t *v, const char *fmt, va_list args);
// Several leaves below a container or list entry in one change: leaves, leaf-lists, containers between C_XMLBEGIN and
// C_XMLEND; C_NOEXISTS deletes a leaf.
int cdb_set_values(int sock, const confd_tag_value_t values[], int nvalues, const char *fmt, ...);
int cdb_create(int sock, const char *fmt, ...);
int cdb_vcreate(int sock, const char *fmt, va_list args);
int cdb_delete(int sock, const char *fmt, ...);
int cdb_vdelete(int sock, const char *fmt, va_list args);

// ---- subscriptions

enum cdb_sub_type {
    CDB_SUB_RUNNING = 1,
    CDB_SUB_RUNNING_TWOPHASE = 2,
    CDB_SUB_OPERATIONAL = 3
};
enum cdb_sub_notification {
    CDB_SUB_PREPARE = 1,
    CDB_SUB_COMMIT = 2,
    CDB_SUB_ABORT = 3,
    CDB_SUB_OPER = 4,
};
#define CDB_SUB_FLAG_TRIGGER (1 << 1)

enum cdb_subscription_sync_type {
    CDB_DONE_PRIORITY = 1
};

enum cdb_iter_op {
    MOP_CREATED = 1,
    MOP_DELETED = 2,
    MOP_MODIFIED = 3,
    MOP_VALUE_SET = 4,
    MOP_MOVED_AFTER = 5,
    MOP_ATTR_SET = 6,
};
enum cdb_iter_ret {
    ITER_STOP = 1,
    ITER_RECURSE = 2,
    ITER_CONTINUE = 3
};

#define CDB_GET_MODS_INCLUDE_LISTS 1

// priority ascending is the order of delivery. The path is absolute, with or without a leading slash; its list steps
// may lack keys, which stands for all entries.
int cdb_subscribe(int sock, int priority, uint32_t nspace, int *spoint, const char *fmt, ...);
int cdb_subscribe2(int sock, enum cdb_sub_type type, int flags, int priority, int *spoint, uint32_t nspace,
                   const char *fmt, ...);
int cdb_oper_subscribe(int sock, uint32_t nspace, int *spoint, const char *fmt, ...);
int cdb_subscribe_done(int sock);

// Blocks for the next delivery. points is malloc'ed, the caller frees it.
int cdb_read_subscription_socket2(int sock, enum cdb_sub_notification *type, int *flags, int *points[], int *len);
int cdb_sync_subscription_socket(int sock, enum cdb_subscription_sync_type type);
// Refuses the transaction in a prepare.
int cdb_sub_abort_trans(int sock, enum confd_errcode code, uint32_t apptag_ns, uint32_t apptag_tag, const char *fmt,
                        ...) __attribute__((format(printf, 5, 6)));

// The calls below work between a delivery and its sync, for the delivered points.
typedef enum cdb_iter_ret (*cdb_iter_fn)(confd_hkeypath_t *kp, enum cdb_iter_op op, confd_value_t *oldv,
                                         confd_value_t *newv, void *state);
// Calls iter for each changed node at the point's level, and below those where it answers ITER_RECURSE. oldv and newv
// are null where there is none.
int cdb_diff_iterate(int sock, int subid, cdb_iter_fn iter, int flags, void *initstate);
// All changes below the point, or below the path when one is given (fmt may be null). values is malloc'ed: free each
// entry's value with confd_free_value, then the array.
int cdb_get_modifications(int sock, int subid, int flags, confd_tag_value_t **values, int *nvalues, const char *fmt,
                          ...);
// The changes below the node that the iteration stands at; only inside its callback.
int cdb_get_modifications_iter(int sock, int flags, confd_tag_value_t **values, int *nvalues);

// Delivers all data of the points as if it were new, by priority; returns when all is synced. n 0: all points of the
// process's subscriptions.
int cdb_trigger_subscriptions(int sock, int sub_points[], int len);
int cdb_trigger_oper_subscriptions(int sock, int sub_points[], int len, int flags);

#ifdef __cplusplus
}
#endif

#endif
