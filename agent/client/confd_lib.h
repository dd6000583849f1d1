// libconfd: the client library of the management agent. Types, schema, values and errors.
//
// All calls block until the agent has answered. Functions return CONFD_OK, CONFD_ERR with confd_errno and
// confd_lasterr() set (both belong to the calling thread), or CONFD_EOF when the agent has closed the connection.
// A socket belongs to one thread at a time; different sockets may be used by different threads at once. The exception:
// any thread may send notifications on a worker socket, whoever serves it.
//
// Paths are printf-like: %d %u %ld %lu %x %s and their like, where %x takes a confd_value_t pointer and prints it as a
// path holds it, and %s is put in as it stands.
#ifndef AGENT_CLIENT_CONFD_LIB_H
#define AGENT_CLIENT_CONFD_LIB_H

#include "agent/wire/confd_value.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CONFD_LIB_VSN 0x6030100
#define CONFD_PORT    4565

#define CONFD_OK  0
#define CONFD_ERR (-1)
#define CONFD_EOF (-2)

#define MAX_CALLPOINT_LEN 255

enum confd_debug_level {
    CONFD_SILENT = 0,
    CONFD_DEBUG = 1,
    CONFD_TRACE = 2,
    CONFD_PROTO_TRACE = 3
};

extern __thread int confd_errno;

enum confd_dbname {
    CONFD_NO_DB = 0,
    CONFD_CANDIDATE = 1,
    CONFD_RUNNING = 2,
    CONFD_STARTUP = 3,
    CONFD_OPERATIONAL = 4,
    CONFD_PRE_COMMIT_RUNNING = 5,
};

enum confd_errcode {
    CONFD_ERRCODE_IN_USE = 0,
    CONFD_ERRCODE_RESOURCE_DENIED = 1,
    CONFD_ERRCODE_INCONSISTENT_VALUE = 2,
    CONFD_ERRCODE_ACCESS_DENIED = 3,
    CONFD_ERRCODE_APPLICATION = 4,
    CONFD_ERRCODE_APPLICATION_INTERNAL = 5,
};

// To be called once before anything else, again is harmless. name appears in the agent's messages; vsn must be
// CONFD_LIB_VSN, maxdepth and maxkeylen MAXDEPTH and MAXKEYLEN. Messages of level and below go to estream.
void confd_init_vsn_sz(const char *name, FILE *estream, enum confd_debug_level level, int vsn, int maxdepth,
                       int maxkeylen);
#define confd_init(name, estream, level) confd_init_vsn_sz(name, estream, level, CONFD_LIB_VSN, MAXDEPTH, MAXKEYLEN)

const char *confd_strerror(int code);
// What the last failed call of this thread said.
const char *confd_lasterr(void);
// Prints and ends the process.
void confd_fatal(const char *fmt, ...) __attribute__((format(printf, 1, 2), noreturn));

// ---- values

// Frees what the value points to, not the value. For values that the library has handed over.
void confd_free_value(confd_value_t *v);
// Zero on failure. The copy owns its memory.
confd_value_t *confd_value_dup_to(const confd_value_t *v, confd_value_t *out);
// 1 when equal; C_STR and C_BUF with the same text are.
int confd_val_eq(const confd_value_t *a, const confd_value_t *b);
// Text of a value as people read it; enumeration values by number when the schema does not tell. Result as snprintf.
int confd_pp_value(char *buf, int bufsiz, const confd_value_t *v);
// Text in the form /vpn:vpn/vpn-instance{5}/name. Result as snprintf.
int confd_pp_kpath(char *buf, int bufsiz, const confd_hkeypath_t *path);

// Clear text of a value of an encrypted type, once maapi_install_crypto_keys has fetched the keys. output has room for
// len bytes and the NUL. The length of the clear text, or CONFD_ERR: CONFD_ERR_NOEXISTS without keys,
// CONFD_ERR_BADTYPE for a text that is not of this form or was encrypted with other keys.
int confd_decrypt(const char *ciphertext, int len, char *output);

// ---- schema (after confd_load_schemas)

#define CS_NODE_IS_LIST      (1 << 0)
#define CS_NODE_IS_CONTAINER (1 << 1)
#define CS_NODE_IS_PRESENCE  (1 << 2)
#define CS_NODE_IS_LEAF      (1 << 3)
#define CS_NODE_IS_LEAF_LIST (1 << 4)
#define CS_NODE_IS_KEY       (1 << 5)
#define CS_NODE_IS_WRITE     (1 << 6) // configuration
#define CS_NODE_IS_ACTION    (1 << 7)
#define CS_NODE_IS_PARAM     (1 << 8)
#define CS_NODE_IS_NOTIF     (1 << 9)

struct confd_cs_node_info {
    uint32_t *keys; // tags of the list's keys, ended by 0; null for others
    int flags;      // CS_NODE_IS_*
    enum confd_vtype shallow_type;
    const void *names; // labels of an enumeration, of bits or of identities; the library's own
};

struct confd_cs_node {
    uint32_t tag;
    uint32_t ns;
    struct confd_cs_node_info info;
    struct confd_cs_node *parent;
    struct confd_cs_node *children; // first child
    struct confd_cs_node *next;     // next sibling
    void *opaque;                   // the user's
};

// Fetches the data model once per process; later calls give CONFD_OK at once. Any thread.
int confd_load_schemas(const struct sockaddr *srv, int srv_sz);

struct confd_cs_node *confd_find_cs_root(uint32_t ns);
// The child with the tag; ns 0 stands for any. Null when there is none.
struct confd_cs_node *confd_find_cs_node_child(const struct confd_cs_node *parent, struct xml_tag tag);
// The node of a path, from start or, for an absolute path, from the top. Keys in the path are skipped.
struct confd_cs_node *confd_cs_node_cd(const struct confd_cs_node *start, const char *fmt, ...);
struct confd_cs_node *confd_find_cs_node(const confd_hkeypath_t *path, int len);

const char *confd_hash2str(uint32_t hash);
uint32_t confd_str2hash(const char *name);
const char *confd_ns2prefix(uint32_t ns);

// Text of a value of the node: labels for enumerations and bits. Result as snprintf; confd_val2str_ptr points to the
// label itself, CONFD_ERR when the value has none.
int confd_val2str(const struct confd_cs_node *node, const confd_value_t *v, char *buf, int bufsiz);
int confd_val2str_ptr(const struct confd_cs_node *node, const confd_value_t *v, const char **out);
// The value that the text names; the caller frees it with confd_free_value.
int confd_str2val(const struct confd_cs_node *node, const char *text, confd_value_t *out);

// ---- setting and getting

#define CONFD_GET_TAG_TAG(tv)   ((tv)->tag.tag)
#define CONFD_GET_TAG_NS(tv)    ((tv)->tag.ns)
#define CONFD_GET_TAG_VALUE(tv) (&(tv)->v)

#define CONFD_GET_NOEXISTS(v)    ((v)->type == C_NOEXISTS)
#define CONFD_GET_XMLTAG(v)      ((v)->val.xmltag.tag)
#define CONFD_GET_XMLTAG_NS(v)   ((v)->val.xmltag.ns)
#define CONFD_GET_CBUFPTR(v)     ((char *)(v)->val.buf.ptr)
#define CONFD_GET_BUFPTR(v)      ((v)->val.buf.ptr)
#define CONFD_GET_BUFSIZE(v)     ((v)->val.buf.size)
#define CONFD_GET_STR(v)         ((v)->val.s)
#define CONFD_GET_INT8(v)        ((v)->val.i8)
#define CONFD_GET_INT16(v)       ((v)->val.i16)
#define CONFD_GET_INT32(v)       ((v)->val.i32)
#define CONFD_GET_INT64(v)       ((v)->val.i64)
#define CONFD_GET_UINT8(v)       ((v)->val.u8)
#define CONFD_GET_UINT16(v)      ((v)->val.u16)
#define CONFD_GET_UINT32(v)      ((v)->val.u32)
#define CONFD_GET_UINT64(v)      ((v)->val.u64)
#define CONFD_GET_DOUBLE(v)      ((v)->val.d)
#define CONFD_GET_IPV4(v)        ((v)->val.ip)
#define CONFD_GET_IPV6(v)        ((v)->val.ip6)
#define CONFD_GET_BOOL(v)        ((v)->val.boolean)
#define CONFD_GET_DATETIME(v)    ((v)->val.datetime)
#define CONFD_GET_ENUM_VALUE(v)  ((v)->val.enumvalue)
#define CONFD_GET_BIT32(v)       ((v)->val.b32)
#define CONFD_GET_BIT64(v)       ((v)->val.b64)
#define CONFD_GET_DECIMAL64(v)   ((v)->val.d64)
#define CONFD_GET_IDENTITYREF(v) ((v)->val.idref)
#define CONFD_GET_IPV4PREFIX(v)  ((v)->val.ipv4prefix)
#define CONFD_GET_IPV6PREFIX(v)  ((v)->val.ipv6prefix)
#define CONFD_GET_LIST(v)        ((v)->val.list.ptr)
#define CONFD_GET_LISTSIZE(v)    ((v)->val.list.size)
#define CONFD_GET_OBJECTREF(v)   ((v)->val.hkp)
#define CONFD_GET_OID(v)         ((v)->val.oidp)
#define CONFD_GET_BINARY_PTR(v)  ((v)->val.buf.ptr)
#define CONFD_GET_BINARY_SIZE(v) ((v)->val.buf.size)

#define CONFD_SET_(v, kind, member, value) ((v)->type = (kind), (v)->val.member = (value))
#define CONFD_SET_NOEXISTS(v)              ((v)->type = C_NOEXISTS)
#define CONFD_SET_STR(v, x)                CONFD_SET_(v, C_STR, s, x)
#define CONFD_SET_INT8(v, x)               CONFD_SET_(v, C_INT8, i8, x)
#define CONFD_SET_INT16(v, x)              CONFD_SET_(v, C_INT16, i16, x)
#define CONFD_SET_INT32(v, x)              CONFD_SET_(v, C_INT32, i32, x)
#define CONFD_SET_INT64(v, x)              CONFD_SET_(v, C_INT64, i64, x)
#define CONFD_SET_UINT8(v, x)              CONFD_SET_(v, C_UINT8, u8, x)
#define CONFD_SET_UINT16(v, x)             CONFD_SET_(v, C_UINT16, u16, x)
#define CONFD_SET_UINT32(v, x)             CONFD_SET_(v, C_UINT32, u32, x)
#define CONFD_SET_UINT64(v, x)             CONFD_SET_(v, C_UINT64, u64, x)
#define CONFD_SET_DOUBLE(v, x)             CONFD_SET_(v, C_DOUBLE, d, x)
#define CONFD_SET_IPV4(v, x)               CONFD_SET_(v, C_IPV4, ip, x)
#define CONFD_SET_IPV6(v, x)               CONFD_SET_(v, C_IPV6, ip6, x)
#define CONFD_SET_BOOL(v, x)               CONFD_SET_(v, C_BOOL, boolean, x)
#define CONFD_SET_DATETIME(v, x)           CONFD_SET_(v, C_DATETIME, datetime, x)
#define CONFD_SET_ENUM_VALUE(v, x)         CONFD_SET_(v, C_ENUM_VALUE, enumvalue, x)
#define CONFD_SET_BIT32(v, x)              CONFD_SET_(v, C_BIT32, b32, x)
#define CONFD_SET_BIT64(v, x)              CONFD_SET_(v, C_BIT64, b64, x)
#define CONFD_SET_BUF(v, p, n)                                                                                         \
    ((v)->type = C_BUF, (v)->val.buf.ptr = (unsigned char *)(p), (v)->val.buf.size = (unsigned int)(n))
#define CONFD_SET_CBUF(v, p, n)   CONFD_SET_BUF(v, p, n)
#define CONFD_SET_LIST(v, p, n)   ((v)->type = C_LIST, (v)->val.list.ptr = (p), (v)->val.list.size = (unsigned int)(n))
#define CONFD_SET_OID(v, x)       CONFD_SET_(v, C_OID, oidp, x)
#define CONFD_SET_XMLTAG(v, t, n) ((v)->type = C_XMLTAG, (v)->val.xmltag.tag = (t), (v)->val.xmltag.ns = (n))

#define CONFD_SET_TAG_TAG_NS(tv, t, n) ((tv)->tag.tag = (t), (tv)->tag.ns = (n))
#define CONFD_SET_TAG_XMLBEGIN(tv, t, n)                                                                               \
    (CONFD_SET_TAG_TAG_NS(tv, t, n), (tv)->v.type = C_XMLBEGIN, (tv)->v.val.xmltag.tag = (t),                          \
     (tv)->v.val.xmltag.ns = (n))
#define CONFD_SET_TAG_XMLEND(tv, t, n)                                                                                 \
    (CONFD_SET_TAG_TAG_NS(tv, t, n), (tv)->v.type = C_XMLEND, (tv)->v.val.xmltag.tag = (t), (tv)->v.val.xmltag.ns = (n))
#define CONFD_SET_TAG_STR(tv, t, x)        (CONFD_SET_TAG_TAG_NS(tv, t, 0), CONFD_SET_STR(&(tv)->v, x))
#define CONFD_SET_TAG_UINT8(tv, t, x)      (CONFD_SET_TAG_TAG_NS(tv, t, 0), CONFD_SET_UINT8(&(tv)->v, x))
#define CONFD_SET_TAG_UINT16(tv, t, x)     (CONFD_SET_TAG_TAG_NS(tv, t, 0), CONFD_SET_UINT16(&(tv)->v, x))
#define CONFD_SET_TAG_UINT32(tv, t, x)     (CONFD_SET_TAG_TAG_NS(tv, t, 0), CONFD_SET_UINT32(&(tv)->v, x))
#define CONFD_SET_TAG_UINT64(tv, t, x)     (CONFD_SET_TAG_TAG_NS(tv, t, 0), CONFD_SET_UINT64(&(tv)->v, x))
#define CONFD_SET_TAG_INT32(tv, t, x)      (CONFD_SET_TAG_TAG_NS(tv, t, 0), CONFD_SET_INT32(&(tv)->v, x))
#define CONFD_SET_TAG_BOOL(tv, t, x)       (CONFD_SET_TAG_TAG_NS(tv, t, 0), CONFD_SET_BOOL(&(tv)->v, x))
#define CONFD_SET_TAG_IPV4(tv, t, x)       (CONFD_SET_TAG_TAG_NS(tv, t, 0), CONFD_SET_IPV4(&(tv)->v, x))
#define CONFD_SET_TAG_IPV6(tv, t, x)       (CONFD_SET_TAG_TAG_NS(tv, t, 0), CONFD_SET_IPV6(&(tv)->v, x))
#define CONFD_SET_TAG_ENUM_VALUE(tv, t, x) (CONFD_SET_TAG_TAG_NS(tv, t, 0), CONFD_SET_ENUM_VALUE(&(tv)->v, x))

#ifdef __cplusplus
}
#endif

#endif
