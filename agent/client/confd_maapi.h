// libconfd: user sessions and transactions.
#ifndef AGENT_CLIENT_CONFD_MAAPI_H
#define AGENT_CLIENT_CONFD_MAAPI_H

#include "agent/client/confd_lib.h"

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

enum confd_proto {
    CONFD_PROTO_UNKNOWN = 0,
    CONFD_PROTO_TCP = 1,
    CONFD_PROTO_CONSOLE = 2,
    CONFD_PROTO_SYSTEM = 3
};
enum confd_trans_mode {
    CONFD_READ = 1,
    CONFD_READ_WRITE = 2
};

#define MAAPI_ATTACH_UNKNOWN_SESSION (-1)

struct confd_ip {
    int af; // AF_INET or AF_INET6
    union {
        struct in_addr v4;
        struct in6_addr v6;
    } ip;
};

int maapi_connect(int sock, const struct sockaddr *srv, int srv_sz);
int maapi_close(int sock);

int maapi_start_user_session(int sock, const char *username, const char *context, const char **groups, int numgroups,
                             const struct confd_ip *src_addr, enum confd_proto prot);
// The long form: label names the session in the agent's messages.
int maapi_start_user_session3(int sock, const char *username, const char *context, const char **groups, int numgroups,
                              const struct confd_ip *src_addr, int src_port, enum confd_proto prot, const char *vendor,
                              const char *product, const char *version, const char *client_id);
int maapi_end_user_session(int sock);

int maapi_start_trans(int sock, enum confd_dbname db, enum confd_trans_mode mode);
// usid 0: the socket's own session.
int maapi_start_trans_flags2(int sock, enum confd_dbname db, enum confd_trans_mode mode, int usid, int flags,
                             const char *vendor, const char *product, const char *version, const char *client_id);
int maapi_finish_trans(int sock, int th);
int maapi_validate_trans(int sock, int th, int unlock, int forcevalidation);
// Commits; with keepopen the transaction stays usable, empty.
int maapi_apply_trans(int sock, int th, int keepopen);
// The handle of the agent's init transaction; CONFD_ERR_BADSTATE outside phase 1.
int maapi_attach_init(int sock, int *th);

#define MAAPI_FLAG_NO_DEFAULTS (1 << 1) // a leaf that has only its default reads as C_DEFAULT and does not exist
// The flags of the transaction for all later calls of this socket. CONFD_OK or an error.
int maapi_set_flags(int sock, int th, int flags);

// The candidate's changes become running.
int maapi_candidate_commit(int sock);
// Sets the socket's position in the transaction for relative paths.
int maapi_cd(int sock, int th, const char *fmt, ...);

int maapi_lock(int sock, enum confd_dbname db);
int maapi_unlock(int sock, enum confd_dbname db);

// The caller frees the value with confd_free_value.
int maapi_get_elem(int sock, int th, confd_value_t *v, const char *fmt, ...);
int maapi_vget_elem(int sock, int th, confd_value_t *v, const char *fmt, va_list args);
// A leaf-list. values is malloc'ed: free each with confd_free_value, then the array.
int maapi_get_list_elem(int sock, int th, confd_value_t **values, int *nvalues, const char *fmt, ...);
// 1, 0 or CONFD_ERR.
int maapi_exists(int sock, int th, const char *fmt, ...);
int maapi_num_instances(int sock, int th, const char *fmt, ...);
int maapi_set_elem(int sock, int th, const confd_value_t *v, const char *fmt, ...);
// The value as text, read by the node's type; of a leaf-list all values, with blanks between them.
int maapi_set_elem2(int sock, int th, const char *strval, const char *fmt, ...);
int maapi_create(int sock, int th, const char *fmt, ...);
int maapi_delete(int sock, int th, const char *fmt, ...);

enum maapi_move_where {
    MAAPI_MOVE_FIRST = 1,
    MAAPI_MOVE_BEFORE = 2,
    MAAPI_MOVE_AFTER = 3,
    MAAPI_MOVE_LAST = 4
};
// Moves an entry of a user-ordered list; tokey (num_keys values) names the other entry for before and after.
int maapi_move_ordered(int sock, int th, enum maapi_move_where where, const confd_value_t *tokey, int num_keys,
                       const char *fmt, ...);

#define MAAPI_CONFIG_XML   (1 << 0)  // the only format
#define MAAPI_CONFIG_MERGE (1 << 10) // into what is there, which is what is done without the flag too
// Merges a configuration file, a NETCONF config element or its content, into the transaction; all or nothing.
int maapi_load_config(int sock, int th, int flags, const char *filename);

// Walks a list in key order. After maapi_get_next n is the count of keys of the entry, or 0 at the end.
struct maapi_cursor {
    int n;
    confd_value_t keys[MAXKEYLEN];
    int sock; // the rest is the library's
    int th;
    char *path;
    confd_value_t *ahead; // entries fetched and not yet given, MAXKEYLEN values each
    int num_ahead, next_ahead, at_end;
};
int maapi_init_cursor(int sock, int th, struct maapi_cursor *mc, const char *fmt, ...);
int maapi_get_next(struct maapi_cursor *mc);
void maapi_destroy_cursor(struct maapi_cursor *mc);

// Prints to the command line of a user's session, from an action or command that runs for it.
int maapi_cli_printf(int sock, int usid, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

// to: a user name or "all".
int maapi_prio_message(int sock, const char *to, const char *message);
// Fetches the keys of the encrypted types into the process.
int maapi_install_crypto_keys(int sock);

#ifdef __cplusplus
}
#endif

#endif
