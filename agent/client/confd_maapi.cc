// MAAPI sockets: user sessions, transactions, locks, and the transactions of callbacks.
#include "agent/client/confd_maapi.h"

#include "agent/client/confd_internal.h"

#include <arpa/inet.h>
#include <unistd.h>

static constexpr wire_kind_t MAAPI = WIRE_KIND_MAAPI;

int maapi_connect(int sock, const struct sockaddr *srv, int srv_sz)
{
    return confd_io_connect(sock, MAAPI, 0, srv, srv_sz, nullptr);
}

int maapi_close(int sock)
{
    confd_io_forget(sock);
    (void)shutdown(sock, SHUT_RDWR); // it may never have been connected
    (void)close(sock);               // nothing is left to be written
    return CONFD_OK;
}

// ---- user sessions

static std::string address_text(const confd_ip *address)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (address != nullptr)
        (void)inet_ntop(address->af, &address->ip, text, sizeof text); // an unknown family has no text
    return text;
}

int maapi_start_user_session(int sock, const char *username, const char *context, const char **groups, int numgroups,
                             const struct confd_ip *src_addr, enum confd_proto prot)
{
    return maapi_start_user_session3(sock, username, context, groups, numgroups, src_addr, 0, prot, nullptr, nullptr,
                                     nullptr, nullptr);
}

// The agent takes a user's groups from its own configuration and does not keep the names of products.
int maapi_start_user_session3(int sock, const char *username, const char *context, const char **, int,
                              const struct confd_ip *src_addr, int src_port, enum confd_proto, const char *,
                              const char *, const char *, const char *)
{
    client_socket_t *state = confd_io_find(sock, MAAPI);
    if (state == nullptr)
        return CONFD_ERR;
    wire_writer_t request;
    request.text(username);
    request.text(context);
    request.text(address_text(src_addr));
    request.u16(static_cast<uint16_t>(src_port));
    uint32_t id = 0;
    int result = confd_ask_u32(sock, MAAPI, WIRE_MAAPI_START_SESSION, request, &id);
    if (result == CONFD_OK)
        state->user_session = static_cast<int>(id);
    return result;
}

int maapi_end_user_session(int sock)
{
    client_socket_t *state = confd_io_find(sock, MAAPI);
    if (state == nullptr)
        return CONFD_ERR;
    int result = confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_END_SESSION, {});
    if (result == CONFD_OK)
        state->user_session = 0;
    return result;
}

// ---- transactions

static wire_writer_t request_of(int th)
{
    wire_writer_t request;
    request.u32(static_cast<uint32_t>(th));
    return request;
}

// A handle in place of CONFD_OK.
int maapi_start_trans(int sock, enum confd_dbname db, enum confd_trans_mode mode)
{
    return maapi_start_trans_flags2(sock, db, mode, 0, 0, nullptr, nullptr, nullptr, nullptr);
}

int maapi_start_trans_flags2(int sock, enum confd_dbname db, enum confd_trans_mode mode, int usid, int flags,
                             const char *, const char *, const char *, const char *)
{
    client_socket_t *state = confd_io_find(sock, MAAPI);
    if (state == nullptr)
        return CONFD_ERR;
    if (usid != 0 && usid != state->user_session)
        return confd_fail(CONFD_ERR_NOSESSION, "session %d is not the socket's own", usid);
    wire_writer_t request;
    if (!confd_put_db(&request, db))
        return CONFD_ERR;
    request.u8(mode == CONFD_READ_WRITE);
    request.u32(static_cast<uint32_t>(flags));
    return confd_ask_count(sock, MAAPI, WIRE_MAAPI_START_TRANS, request);
}

// A handle that may come again is at the root then.
static void forget_position(int sock, int th)
{
    if (client_socket_t *state = confd_io_find(sock, MAAPI))
        state->trans_positions.erase(th);
}

int maapi_finish_trans(int sock, int th)
{
    forget_position(sock, th);
    return confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_FINISH_TRANS, request_of(th));
}

// The agent always validates in full and holds no lock between this and the commit.
int maapi_validate_trans(int sock, int th, int, int)
{
    return confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_VALIDATE_TRANS, request_of(th));
}

int maapi_apply_trans(int sock, int th, int keepopen)
{
    wire_writer_t request = request_of(th);
    request.u8(keepopen != 0);
    return confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_APPLY_TRANS, request);
}

int maapi_attach_init(int sock, int *th)
{
    int handle = confd_ask_count(sock, MAAPI, WIRE_MAAPI_ATTACH_INIT, {});
    if (handle < 0)
        return handle;
    *th = handle;
    return CONFD_OK;
}

int maapi_set_flags(int sock, int th, int flags)
{
    wire_writer_t request = request_of(th);
    request.u32(static_cast<uint32_t>(flags));
    return confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_SET_FLAGS, request);
}

int maapi_candidate_commit(int sock)
{
    return confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_CANDIDATE_COMMIT, {});
}

// The namespace only ever chose the top of relative paths, which the library has at the root.
int maapi_attach(int sock, int, struct confd_trans_ctx *tctx)
{
    return confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_ATTACH, request_of(tctx->thandle));
}

int maapi_detach(int sock, struct confd_trans_ctx *tctx)
{
    forget_position(sock, tctx->thandle);
    return confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_DETACH, request_of(tctx->thandle));
}

int maapi_lock(int sock, enum confd_dbname db)
{
    wire_writer_t request;
    return confd_put_db(&request, db) ? confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_LOCK, request) : CONFD_ERR;
}

int maapi_unlock(int sock, enum confd_dbname db)
{
    wire_writer_t request;
    return confd_put_db(&request, db) ? confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_UNLOCK, request) : CONFD_ERR;
}
