// CDB data sockets: sessions, reads and operational writes.
#include "agent/client/confd_cdb.h"

#include "agent/client/confd_internal.h"

#include <unistd.h>

static constexpr wire_kind_t DATA = WIRE_KIND_CDB_DATA;

int cdb_connect(int sock, enum cdb_sock_type type, const struct sockaddr *srv, int srv_sz)
{
    wire_kind_t kind = type == CDB_SUBSCRIPTION_SOCKET ? WIRE_KIND_CDB_SUB : DATA;
    return confd_io_connect(sock, kind, 0, srv, srv_sz, nullptr);
}

int cdb_close(int sock)
{
    confd_io_forget(sock);
    (void)shutdown(sock, SHUT_RDWR); // it may never have been connected
    (void)close(sock);               // nothing is left to be written
    return CONFD_OK;
}

int cdb_get_phase(int sock, struct cdb_phase *phase)
{
    std::string reply;
    if (int result = confd_io_request(sock, DATA, WIRE_CDB_GET_PHASE, {}, &reply); result != CONFD_OK)
        return result;
    wire_reader_t in(reply);
    cdb_phase got = {};
    got.phase = static_cast<int>(in.u32());
    got.flags = static_cast<int>(in.u32());
    if (!in.finished())
        return confd_fail_malformed(WIRE_CDB_GET_PHASE);
    *phase = got;
    return CONFD_OK;
}

int cdb_wait_start(int sock)
{
    return confd_ask_nothing(sock, DATA, WIRE_CDB_WAIT_START, {});
}

// ---- sessions

static int set_position(int sock, std::string position)
{
    client_socket_t *state = confd_io_find(sock, DATA);
    if (state == nullptr)
        return CONFD_ERR;
    state->position = std::move(position);
    return CONFD_OK;
}

int cdb_start_session(int sock, enum cdb_db_type db)
{
    return cdb_start_session2(sock, db, 0);
}

int cdb_start_session2(int sock, enum cdb_db_type db, int flags)
{
    wire_writer_t request;
    request.u8(static_cast<uint8_t>(db));
    request.u32(static_cast<uint32_t>(flags));
    int result = confd_ask_nothing(sock, DATA, WIRE_CDB_START_SESSION, request);
    return result == CONFD_OK ? set_position(sock, {}) : result;
}

int cdb_end_session(int sock)
{
    int result = confd_ask_nothing(sock, DATA, WIRE_CDB_END_SESSION, {});
    return result == CONFD_OK ? set_position(sock, {}) : result;
}

// ---- paths

struct session_indexer_t final : list_indexer_t {
    int sock;

    explicit session_indexer_t(int of_sock) : sock(of_sock) {}
    int find(const std::string &list, uint32_t position, std::vector<confd_value_t> *keys) override;
};

static bool read_keys(wire_reader_t &in, std::vector<confd_value_t> *keys)
{
    uint8_t n = in.u8();
    for (uint8_t i = 0; i < n && in.ok; i++)
        keys->push_back(wire_get_value(in));
    return in.finished() && n > 0 && n <= MAXKEYLEN;
}

int session_indexer_t::find(const std::string &list, uint32_t position, std::vector<confd_value_t> *keys)
{
    wire_writer_t request;
    request.text(list);
    request.u32(position);
    std::string reply;
    if (int result = confd_io_request(sock, DATA, WIRE_CDB_INDEX, request, &reply); result != CONFD_OK)
        return result;
    wire_reader_t in(reply);
    if (read_keys(in, keys))
        return CONFD_OK;
    for (confd_value_t &key : *keys)
        wire_free_value(key);
    return confd_fail_malformed(WIRE_CDB_INDEX);
}

static int format_here(int sock, const char *fmt, va_list args, std::string *path)
{
    client_socket_t *state = confd_io_find(sock, DATA);
    if (state == nullptr || !confd_format_path(state->position, fmt, args, path))
        return CONFD_ERR;
    session_indexer_t indexer(sock);
    return confd_resolve_positions(path, indexer);
}

// A request that begins with a path. CONFD_OK, CONFD_ERR or CONFD_EOF.
static int start_request(int sock, const char *fmt, va_list args, wire_writer_t *request)
{
    std::string path;
    int result = format_here(sock, fmt, args, &path);
    if (result == CONFD_OK)
        request->text(path);
    return result;
}

int cdb_cd(int sock, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    std::string path;
    int result = format_here(sock, fmt, args, &path);
    va_end(args);
    return result == CONFD_OK ? set_position(sock, path == "/" ? std::string() : path) : result;
}

// ---- reads

int cdb_vget(int sock, confd_value_t *v, const char *fmt, va_list args)
{
    wire_writer_t request;
    int result = start_request(sock, fmt, args, &request);
    return result == CONFD_OK ? confd_ask_value(sock, DATA, WIRE_CDB_GET, request, v) : result;
}

int cdb_get(int sock, confd_value_t *v, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int result = cdb_vget(sock, v, fmt, args);
    va_end(args);
    return result;
}

// Reads a value that has to be of a type; the caller frees it.
static int get_typed(int sock, confd_vtype type, confd_value_t *value, const char *fmt, va_list args)
{
    int result = cdb_vget(sock, value, fmt, args);
    if (result != CONFD_OK || value->type == type)
        return result;
    int got = value->type;
    wire_free_value(*value);
    return confd_fail(CONFD_ERR_BADTYPE, "the value at %s has type %d, not %d", fmt, got, type);
}

int cdb_get_int32(int sock, int32_t *out, const char *fmt, ...)
{
    confd_value_t value;
    va_list args;
    va_start(args, fmt);
    int result = get_typed(sock, C_INT32, &value, fmt, args);
    va_end(args);
    if (result == CONFD_OK)
        *out = value.val.i32;
    return result;
}

int cdb_get_uint16(int sock, uint16_t *out, const char *fmt, ...)
{
    confd_value_t value;
    va_list args;
    va_start(args, fmt);
    int result = get_typed(sock, C_UINT16, &value, fmt, args);
    va_end(args);
    if (result == CONFD_OK)
        *out = value.val.u16;
    return result;
}

int cdb_get_uint32(int sock, uint32_t *out, const char *fmt, ...)
{
    confd_value_t value;
    va_list args;
    va_start(args, fmt);
    int result = get_typed(sock, C_UINT32, &value, fmt, args);
    va_end(args);
    if (result == CONFD_OK)
        *out = value.val.u32;
    return result;
}

int cdb_get_bool(int sock, int *out, const char *fmt, ...)
{
    confd_value_t value;
    va_list args;
    va_start(args, fmt);
    int result = get_typed(sock, C_BOOL, &value, fmt, args);
    va_end(args);
    if (result == CONFD_OK)
        *out = value.val.boolean;
    return result;
}

int cdb_get_str(int sock, char *out, size_t n, const char *fmt, ...)
{
    confd_value_t value;
    va_list args;
    va_start(args, fmt);
    int result = get_typed(sock, C_BUF, &value, fmt, args);
    va_end(args);
    if (result != CONFD_OK)
        return result;
    unsigned size = value.val.buf.size;
    if (size < n)
        memcpy(out, value.val.buf.ptr, size + size_t{ 1 });
    wire_free_value(value);
    return size < n ? CONFD_OK : confd_fail(CONFD_ERR_TOOBIG, "%u bytes do not fit into %zu", size, n);
}

int cdb_get_ipv4(int sock, struct in_addr *out, const char *fmt, ...)
{
    confd_value_t value;
    va_list args;
    va_start(args, fmt);
    int result = get_typed(sock, C_IPV4, &value, fmt, args);
    va_end(args);
    if (result == CONFD_OK)
        *out = value.val.ip;
    return result;
}

int cdb_get_ipv4prefix(int sock, struct confd_ipv4_prefix *out, const char *fmt, ...)
{
    confd_value_t value;
    va_list args;
    va_start(args, fmt);
    int result = get_typed(sock, C_IPV4PREFIX, &value, fmt, args);
    va_end(args);
    if (result == CONFD_OK)
        *out = value.val.ipv4prefix;
    return result;
}

int cdb_get_list(int sock, confd_value_t **values, int *nvalues, const char *fmt, ...)
{
    confd_value_t value;
    va_list args;
    va_start(args, fmt);
    int result = cdb_vget(sock, &value, fmt, args);
    va_end(args);
    return result == CONFD_OK ? confd_take_list(&value, fmt, values, nvalues) : result;
}

int cdb_exists(int sock, const char *fmt, ...)
{
    wire_writer_t request;
    va_list args;
    va_start(args, fmt);
    int result = start_request(sock, fmt, args, &request);
    va_end(args);
    return result == CONFD_OK ? confd_ask_bool(sock, DATA, WIRE_CDB_EXISTS, request) : result;
}

int cdb_num_instances(int sock, const char *fmt, ...)
{
    wire_writer_t request;
    va_list args;
    va_start(args, fmt);
    int result = start_request(sock, fmt, args, &request);
    va_end(args);
    return result == CONFD_OK ? confd_ask_count(sock, DATA, WIRE_CDB_NUM_INSTANCES, request) : result;
}

// ---- operational writes

int cdb_vset_elem(int sock, const confd_value_t *v, const char *fmt, va_list args)
{
    wire_writer_t request;
    if (int result = start_request(sock, fmt, args, &request); result != CONFD_OK)
        return result;
    wire_put_value(request, *v);
    return confd_ask_nothing(sock, DATA, WIRE_CDB_SET_ELEM, request);
}

int cdb_set_elem(int sock, const confd_value_t *v, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int result = cdb_vset_elem(sock, v, fmt, args);
    va_end(args);
    return result;
}

// The schema's node of a path; null when it is not known.
static const confd_cs_node *node_of(const std::string &path)
{
    parsed_path_t parsed;
    return confd_parse_path(path, &parsed) ? confd_schema_find(nullptr, parsed) : nullptr;
}

int cdb_set_values(int sock, const confd_tag_value_t values[], int nvalues, const char *fmt, ...)
{
    if (nvalues < 0 || (nvalues > 0 && values == nullptr))
        return confd_fail(CONFD_ERR_PROTOUSAGE, "%d values", nvalues);
    std::string path;
    va_list args;
    va_start(args, fmt);
    int result = format_here(sock, fmt, args, &path);
    va_end(args);
    if (result != CONFD_OK)
        return result;
    wire_writer_t request;
    request.text(path);
    confd_put_tag_values(request, node_of(path), values, nvalues);
    return confd_ask_nothing(sock, DATA, WIRE_CDB_SET_VALUES, request);
}

int cdb_vcreate(int sock, const char *fmt, va_list args)
{
    wire_writer_t request;
    int result = start_request(sock, fmt, args, &request);
    return result == CONFD_OK ? confd_ask_nothing(sock, DATA, WIRE_CDB_CREATE, request) : result;
}

int cdb_create(int sock, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int result = cdb_vcreate(sock, fmt, args);
    va_end(args);
    return result;
}

int cdb_vdelete(int sock, const char *fmt, va_list args)
{
    wire_writer_t request;
    int result = start_request(sock, fmt, args, &request);
    return result == CONFD_OK ? confd_ask_nothing(sock, DATA, WIRE_CDB_DELETE, request) : result;
}

int cdb_delete(int sock, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int result = cdb_vdelete(sock, fmt, args);
    va_end(args);
    return result;
}

// ---- triggers

static int trigger(int sock, bool is_oper, int flags, const int *points, int len)
{
    wire_writer_t request;
    request.u8(is_oper);
    request.u32(static_cast<uint32_t>(flags));
    request.u32(static_cast<uint32_t>(len));
    for (int i = 0; i < len; i++)
        request.i32(points[i]);
    return confd_ask_nothing(sock, DATA, WIRE_CDB_TRIGGER, request);
}

int cdb_trigger_subscriptions(int sock, int sub_points[], int len)
{
    return trigger(sock, false, 0, sub_points, len);
}

int cdb_trigger_oper_subscriptions(int sock, int sub_points[], int len, int flags)
{
    return trigger(sock, true, flags, sub_points, len);
}
