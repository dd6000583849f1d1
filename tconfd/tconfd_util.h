// Value helpers and writers of operational data.
//
// The synchronous writer opens a connection of its own each time and may be used on any thread. The asynchronous one
// is for subscription handlers: the agent waits for the handler, so the write goes to a short-lived thread, and each
// of these threads waits for the one before it, which keeps the writes in the order of the calls.
#ifndef TCONFD_TCONFD_UTIL_H
#define TCONFD_TCONFD_UTIL_H

#include "common/ip_util.h"
#include "tconfd/tconfd_api.h"

// ---- values

// The keys of the list that the tag names, outermost list with that name first. out has room for count values, or is
// null: then the array is malloc'ed and the caller's to free. The values are shallow copies. Null when count is 0,
// without memory, or when the list has another number of keys.
confd_value_t *tconfd_keypath_get_keys(const confd_hkeypath_t *kp, confd_value_t *out, uint32_t count, uint32_t tag);

// Frees each value's memory, then the array. Null is a no-op.
void tconfd_free_values(confd_value_t *values, uint32_t count);

// A copy that is independent of the caller's text or buffer. 0 or TCONFD_NO_MEMORY. Free with tconfd_free_value_copy.
int tconfd_copy_confd_value(confd_value_t *to, const confd_value_t *value);
void tconfd_free_value_copy(confd_value_t *value);

// ---- addresses. Texts: "10.1.1.1/24"; without a "/" the length is that of a host.

void tconfd_str_to_ipv4_prefix(const char *text, ip_prefix_t *out);
void tconfd_str_to_ipv6_prefix(const char *text, ip_prefix_t *out);
// Either family; a text that does not parse and has no "/" gets length 0.
void tconfd_str_to_ip_prefix(const char *text, ip_prefix_t *out);
void tconfd_str_to_ip(const char *text, ip_addr_t *out);

// Read an address leaf; results are the agent's. A leaf of another type leaves out alone.
int tconfd_maapi_get_ip(int sock, int th, ip_addr_t *out, const char *fmt, ...);
int tconfd_cdb_get_ip(int sock, ip_addr_t *out, const char *fmt, ...);
// Reads a text leaf and parses it.
int tconfd_cdb_get_ip_prefix_from_str(int sock, ip_prefix_t *out, const char *fmt, ...);

// "%s.%u.%u": the address, then the high and low byte of the port, which is in network byte order.
void tconfd_addr_port_str(const ip_addr_t *ip, uint16_t port, char *out, size_t size);

// ---- enumerations of the models

uint32_t tconfd_color_to_level(uint32_t value); // 1, 2, 3, 4 give 1, 3, 5, 7, others 0
uint32_t tconfd_enum_identity(uint32_t value);  // 1 to 11 and 13 give themselves, others 12

// ---- operational data

enum tconfd_oper_op_t {
    TCONFD_OPER_CREATE = 1,
    TCONFD_OPER_SET = 2,
    TCONFD_OPER_DELETE = 3,
};

// Writes at once. wait 1 takes the datastore's lock and waits for it. The status is 0 or the agent's error number: a
// create or set of what is there gives CONFD_ERR_ALREADY_EXISTS, a delete of what is not CONFD_ERR_NOEXISTS, and
// neither is logged.
int tconfd_vset_cdb_oper_value(tconfd_ctx *ctx, const confd_value_t *value, int op, int wait, const char *fmt, ...);
// Writes later, in the order of the calls. 0; 1 when the thread could not be started; TCONFD_NO_MEMORY. path is taken
// as it is, at most 99 bytes. Main thread only.
int tconfd_set_cdb_oper_value(tconfd_ctx *ctx, const confd_value_t *value, const char *path, int op, int wait);

// Reads through the context's data socket: main thread only. 0 or 1.
int tconfd_get_cdb_int32_value(tconfd_ctx *ctx, int32_t *out, const char *path, int wait);

// Labels of a VPN and of its services, as operational leaves. The setters give 0 or -1, the getters the label or -1.
int tconfd_set_vpn_label(tconfd_ctx *ctx, uint64_t vpn_id, uint32_t label);
int tconfd_get_vpn_label(tconfd_ctx *ctx, uint64_t vpn_id);
int tconfd_set_service_label(tconfd_ctx *ctx, uint64_t vpn_id, const char *service, uint32_t label);
int tconfd_get_service_label(tconfd_ctx *ctx, uint64_t vpn_id, const char *service);

#endif
