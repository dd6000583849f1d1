// MAAPI sockets: the data of a transaction, and cursors over lists.
#include "agent/client/confd_internal.h"
#include "agent/client/confd_maapi.h"

#include <cstdlib>

static constexpr wire_kind_t MAAPI = WIRE_KIND_MAAPI;
static constexpr uint32_t CURSOR_BATCH = 100; // entries fetched at once

// ---- paths

// Finds a list's entry by walking there: transactions are asked for positions seldom.
struct trans_indexer_t final : list_indexer_t {
    int sock;
    int th;

    trans_indexer_t(int of_sock, int of_th) : sock(of_sock), th(of_th) {}
    int find(const std::string &list, uint32_t position, std::vector<confd_value_t> *keys) override;
};

static int format_here(int sock, int th, const char *fmt, va_list args, std::string *path)
{
    client_socket_t *state = confd_io_find(sock, MAAPI);
    if (state == nullptr)
        return CONFD_ERR;
    auto position = state->trans_positions.find(th);
    bool is_moved = position != state->trans_positions.end();
    if (!confd_format_path(is_moved ? std::string_view(position->second) : std::string_view(), fmt, args, path))
        return CONFD_ERR;
    trans_indexer_t indexer(sock, th);
    return confd_resolve_positions(path, indexer);
}

// A request that begins with a handle and a path. CONFD_OK, CONFD_ERR or CONFD_EOF.
static int start_request(int sock, int th, const char *fmt, va_list args, wire_writer_t *request)
{
    std::string path;
    if (int result = format_here(sock, th, fmt, args, &path); result != CONFD_OK)
        return result;
    request->u32(static_cast<uint32_t>(th));
    request->text(path);
    return CONFD_OK;
}

int maapi_cd(int sock, int th, const char *fmt, ...)
{
    std::string path;
    va_list args;
    va_start(args, fmt);
    int result = format_here(sock, th, fmt, args, &path);
    va_end(args);
    client_socket_t *state = result == CONFD_OK ? confd_io_find(sock, MAAPI) : nullptr;
    if (state == nullptr)
        return result;
    if (path == "/")
        state->trans_positions.erase(th);
    else
        state->trans_positions[th] = std::move(path);
    return CONFD_OK;
}

// ---- data

int maapi_vget_elem(int sock, int th, confd_value_t *v, const char *fmt, va_list args)
{
    wire_writer_t request;
    int result = start_request(sock, th, fmt, args, &request);
    return result == CONFD_OK ? confd_ask_value(sock, MAAPI, WIRE_MAAPI_GET, request, v) : result;
}

int maapi_get_elem(int sock, int th, confd_value_t *v, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int result = maapi_vget_elem(sock, th, v, fmt, args);
    va_end(args);
    return result;
}

int maapi_exists(int sock, int th, const char *fmt, ...)
{
    wire_writer_t request;
    va_list args;
    va_start(args, fmt);
    int result = start_request(sock, th, fmt, args, &request);
    va_end(args);
    return result == CONFD_OK ? confd_ask_bool(sock, MAAPI, WIRE_MAAPI_EXISTS, request) : result;
}

int maapi_num_instances(int sock, int th, const char *fmt, ...)
{
    wire_writer_t request;
    va_list args;
    va_start(args, fmt);
    int result = start_request(sock, th, fmt, args, &request);
    va_end(args);
    return result == CONFD_OK ? confd_ask_count(sock, MAAPI, WIRE_MAAPI_NUM_INSTANCES, request) : result;
}

int maapi_set_elem(int sock, int th, const confd_value_t *v, const char *fmt, ...)
{
    wire_writer_t request;
    va_list args;
    va_start(args, fmt);
    int result = start_request(sock, th, fmt, args, &request);
    va_end(args);
    if (result != CONFD_OK)
        return result;
    wire_put_value(request, *v);
    return confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_SET, request);
}

int maapi_set_elem2(int sock, int th, const char *strval, const char *fmt, ...)
{
    wire_writer_t request;
    va_list args;
    va_start(args, fmt);
    int result = start_request(sock, th, fmt, args, &request);
    va_end(args);
    if (result != CONFD_OK)
        return result;
    request.text(strval);
    return confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_SET_TEXT, request);
}

int maapi_create(int sock, int th, const char *fmt, ...)
{
    wire_writer_t request;
    va_list args;
    va_start(args, fmt);
    int result = start_request(sock, th, fmt, args, &request);
    va_end(args);
    return result == CONFD_OK ? confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_CREATE, request) : result;
}

int maapi_delete(int sock, int th, const char *fmt, ...)
{
    wire_writer_t request;
    va_list args;
    va_start(args, fmt);
    int result = start_request(sock, th, fmt, args, &request);
    va_end(args);
    return result == CONFD_OK ? confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_DELETE, request) : result;
}

int maapi_get_list_elem(int sock, int th, confd_value_t **values, int *nvalues, const char *fmt, ...)
{
    confd_value_t value;
    va_list args;
    va_start(args, fmt);
    int result = maapi_vget_elem(sock, th, &value, fmt, args);
    va_end(args);
    return result == CONFD_OK ? confd_take_list(&value, fmt, values, nvalues) : result;
}

int maapi_move_ordered(int sock, int th, enum maapi_move_where where, const confd_value_t *tokey, int num_keys,
                       const char *fmt, ...)
{
    static_assert(int{ MAAPI_MOVE_FIRST } == WIRE_MOVE_FIRST && int{ MAAPI_MOVE_LAST } == WIRE_MOVE_LAST);
    bool has_other = where == MAAPI_MOVE_BEFORE || where == MAAPI_MOVE_AFTER;
    if (has_other && (tokey == nullptr || num_keys < 1 || num_keys > MAXKEYLEN))
        return confd_fail(CONFD_ERR_PROTOUSAGE, "%d keys of the entry to move to", num_keys);
    wire_writer_t request;
    va_list args;
    va_start(args, fmt);
    int result = start_request(sock, th, fmt, args, &request);
    va_end(args);
    if (result != CONFD_OK)
        return result;
    request.u8(static_cast<uint8_t>(where));
    confd_put_keys(request, tokey, has_other ? num_keys : 0);
    return confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_MOVE, request);
}

// ---- cursors

// Keys that the cursor holds, the fetched ones as rows of MAXKEYLEN.
static void free_keys(confd_value_t *keys, int rows)
{
    for (int i = 0; i < rows * MAXKEYLEN; i++)
        wire_free_value(keys[i]);
}

static void drop_ahead(maapi_cursor *mc)
{
    if (mc->ahead != nullptr)
        free_keys(mc->ahead + mc->next_ahead * MAXKEYLEN, mc->num_ahead - mc->next_ahead);
    free(mc->ahead);
    mc->ahead = nullptr;
    mc->num_ahead = mc->next_ahead = 0;
}

int maapi_init_cursor(int sock, int th, struct maapi_cursor *mc, const char *fmt, ...)
{
    *mc = {};
    std::string path;
    va_list args;
    va_start(args, fmt);
    int result = format_here(sock, th, fmt, args, &path);
    va_end(args);
    if (result != CONFD_OK)
        return result;
    mc->sock = sock;
    mc->th = th;
    mc->path = strdup(path.c_str());
    return mc->path != nullptr ? CONFD_OK : confd_fail(CONFD_ERR_MALLOC, "a cursor's path");
}

static bool read_row(wire_reader_t &in, confd_value_t *keys)
{
    uint8_t n = in.u8();
    if (!in.ok || n == 0 || n > MAXKEYLEN)
        return false;
    for (uint8_t i = 0; i < n; i++)
        keys[i] = wire_get_value(in);
    return in.ok;
}

static bool read_rows(wire_reader_t &in, maapi_cursor *mc)
{
    uint32_t n = in.count(2);
    if (!in.ok || n > CURSOR_BATCH)
        return false;
    mc->ahead = static_cast<confd_value_t *>(calloc(size_t{ n } * MAXKEYLEN + 1, sizeof(confd_value_t)));
    if (mc->ahead == nullptr)
        return false;
    mc->num_ahead = static_cast<int>(n);
    for (uint32_t i = 0; i < n; i++)
        if (!read_row(in, mc->ahead + i * MAXKEYLEN))
            return false;
    return in.finished();
}

// Gets the entries behind the one that the cursor has given last.
static int fetch_ahead(maapi_cursor *mc)
{
    drop_ahead(mc);
    wire_writer_t request;
    request.u32(static_cast<uint32_t>(mc->th));
    request.text(mc->path);
    confd_put_keys(request, mc->keys, mc->n);
    request.u32(CURSOR_BATCH);
    std::string reply;
    if (int result = confd_io_request(mc->sock, MAAPI, WIRE_MAAPI_NEXT, request, &reply); result != CONFD_OK)
        return result;
    wire_reader_t in(reply);
    if (!read_rows(in, mc)) {
        drop_ahead(mc);
        return confd_fail_malformed(WIRE_MAAPI_NEXT);
    }
    mc->at_end = mc->num_ahead < static_cast<int>(CURSOR_BATCH);
    return CONFD_OK;
}

static void give_row(maapi_cursor *mc)
{
    free_keys(mc->keys, 1);
    mc->n = 0;
    if (mc->next_ahead == mc->num_ahead)
        return;
    confd_value_t *row = mc->ahead + mc->next_ahead++ * MAXKEYLEN;
    memcpy(mc->keys, row, sizeof mc->keys);
    while (mc->n < MAXKEYLEN && mc->keys[mc->n].type >= C_NOEXISTS)
        mc->n++;
}

int maapi_get_next(struct maapi_cursor *mc)
{
    if (mc->next_ahead == mc->num_ahead && !mc->at_end)
        if (int result = fetch_ahead(mc); result != CONFD_OK)
            return result;
    give_row(mc);
    return CONFD_OK;
}

void maapi_destroy_cursor(struct maapi_cursor *mc)
{
    drop_ahead(mc);
    free_keys(mc->keys, 1);
    free(mc->path);
    *mc = {};
}

int trans_indexer_t::find(const std::string &list, uint32_t position, std::vector<confd_value_t> *keys)
{
    maapi_cursor cursor;
    int result = maapi_init_cursor(sock, th, &cursor, "%s", list.c_str());
    for (uint64_t given = 0; result == CONFD_OK && given <= position; given++) {
        result = maapi_get_next(&cursor);
        if (result == CONFD_OK && cursor.n == 0)
            result = confd_fail(CONFD_ERR_NOEXISTS, "%s has no entry %u", list.c_str(), position);
    }
    for (int i = 0; result == CONFD_OK && i < cursor.n; i++)
        keys->push_back(std::exchange(cursor.keys[i], {}));
    maapi_destroy_cursor(&cursor);
    return result;
}
