// Arbitrary bytes, in arbitrary pieces and over any number of connections, into the two kinds of message-queue servers.
//
// The first byte of an input picks the framing, the rest are steps:
//   1..200    send that many of the bytes that follow
//   201..250  send (n - 200) * 1300 bytes of filler, so that long messages come to an end
//   251       have the server write a message
//   252       hang up
//   253       connect anew while the old connection stands
//   other     let the loop run
//
// A model follows the stream. It cuts it before a header that is fatal by contract (a size that leaves no body, a
// second register message), and it knows which messages must have come out: what the server delivered must equal it,
// and every buffer must have been given back.
#include "common/event_handle.h"
#include "common/msgq_internal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace
{

constexpr uint8_t SERVER_ID = 7, PEER_ID = 5;
constexpr size_t APP_HDRLEN = 6, APP_SIZE_OFFSET = 1;

void expect(bool is_so, const char *what)
{
    if (is_so)
        return;
    fprintf(stderr, "fuzz_msgq: %s\n", what);
    __builtin_trap();
}

// Messages, told apart by number, length and content.
struct digest_t {
    uint64_t messages = 0;
    uint64_t hash = 1469598103934665603ULL;

    void add(const uint8_t *bytes, size_t size)
    {
        ++messages;
        hash = (hash ^ size) * 1099511628211ULL;
        for (size_t i = 0; i < size; ++i)
            hash = (hash ^ bytes[i]) * 1099511628211ULL;
    }
    bool operator==(const digest_t &) const = default;
};

struct server_t {
    bool use_app_header;
    char path[MSGQ_PATH_SIZE];
    msgq_t *handle;
    digest_t delivered;
};

void ignore(msgq_t *, void *)
{
}

void on_rx(msgq_t *msgq_p, void *msg, uint16_t length, void *arg)
{
    static_cast<server_t *>(arg)->delivered.add(static_cast<const uint8_t *>(msg), length);
    msgq_msg_free(msgq_p, msg);
}

// Both servers stand for the whole run of the process.
struct arena_t {
    char dir[32] = "/tmp/fuzz-msgq-XXXXXX";
    event_base_ptr base{ event_base_new() };
    server_t servers[2] = {};

    arena_t()
    {
        expect(mkdtemp(dir) != nullptr, "no temporary folder");
        for (bool use_app_header : { false, true }) {
            server_t &server = servers[use_app_header];
            server.use_app_header = use_app_header;
            msgq_cfg_t cfg = {};
            cfg.event_base = base.get();
            cfg.sock_type = MSGQ_SOCK_UNIX;
            cfg.facility = LOG_LOCAL7;
            cfg.use_app_header = use_app_header;
            cfg.app_hdrlen = APP_HDRLEN;
            cfg.app_size_offset = APP_SIZE_OFFSET;
            const std::string path = std::string(dir) + (use_app_header ? "/1" : "/0");
            (void)snprintf(server.path, sizeof server.path, "%s", path.c_str());
            memcpy(cfg.path, server.path, sizeof cfg.path);
            static const msgq_cbs_t cbs = { ignore, ignore, ignore, on_rx, malloc, free };
            server.handle = msgq_init(SERVER_ID, PEER_ID, MSGQ_HANDLE_TYPE_SERVER, &cfg, &cbs, &server);
            expect(server.handle != nullptr, "no server");
        }
    }
    ~arena_t()
    {
        msgq_free_all();
        for (const server_t &server : servers)
            (void)unlink(server.path);
        (void)rmdir(dir);
    }
    // Long enough for an accept, a register message and what follows it.
    void settle() const
    {
        for (int i = 0; i < 4; ++i)
            (void)event_base_loop(base.get(), EVLOOP_NONBLOCK);
    }
};

// One connection as the server must see it.
struct model_t {
    bool use_app_header = false;
    digest_t *delivered = nullptr;
    bool is_registered = use_app_header;
    bool is_refused = false;
    std::vector<uint8_t> message = {}; // so far
    size_t message_size = 0;           // known once its header is complete

    // The header that is complete with what message holds. False when it is fatal by contract.
    bool take_header()
    {
        if (use_app_header) {
            message_size = static_cast<size_t>(message[APP_SIZE_OFFSET] << 8 | message[APP_SIZE_OFFSET + 1]);
            return message_size > APP_HDRLEN;
        }
        msgq_hdr_t hdr;
        memcpy(&hdr, message.data(), sizeof hdr);
        message_size = hdr.size;
        if (is_registered)
            return hdr.type != MSGQ_HDR_REGISTER && hdr.size > sizeof hdr;
        is_registered = hdr.magic1 == MAGIC1 && hdr.magic2 == MAGIC2 && hdr.type == MSGQ_HDR_REGISTER &&
                        hdr.src == PEER_ID && hdr.tgt == SERVER_ID;
        is_refused = !is_registered;
        message.clear();
        return true;
    }
    // False when byte would complete a fatal header.
    bool take(uint8_t byte)
    {
        size_t hdrlen = use_app_header ? APP_HDRLEN : sizeof(msgq_hdr_t);
        message.push_back(byte);
        if (message.size() == hdrlen && !take_header())
            return false;
        if (message.size() > hdrlen && message.size() == message_size) {
            size_t skipped = use_app_header ? 0 : hdrlen;
            delivered->add(message.data() + skipped, message.size() - skipped);
            message.clear();
        }
        return true;
    }
};

class session_t
{
public:
    session_t(const arena_t &arena, server_t &server) : arena_(arena), server_(server)
    {
        server_.delivered = {};
        connect_anew();
    }

    ~session_t()
    {
        hang_up();
        const msgq_counters_t &counters = server_.handle->counters;
        expect(msgq_is_up(server_.handle) == 0, "up without a peer");
        expect(counters.msg_allocs == counters.msg_frees, "a message leaked");
    }

    void hang_up()
    {
        old_.reset();
        fd_.reset();
        arena_.settle();
        expect(expected_ == server_.delivered, "delivered something else than was sent");
    }
    void connect_anew()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, server_.path, sizeof server_.path);
        old_ = std::move(fd_);
        fd_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        expect(connect(fd_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0, "cannot connect");
        model_ = { .use_app_header = server_.use_app_header, .delivered = &expected_ };
        arena_.settle();
    }
    // False when the input must end here.
    bool send(const uint8_t *bytes, size_t size)
    {
        size_t good = 0;
        while (good < size && !model_.is_refused && model_.take(bytes[good]))
            ++good;
        ssize_t sent = ::send(fd_.get(), bytes, good, MSG_NOSIGNAL);
        expect(model_.is_refused || sent == static_cast<ssize_t>(good), "the server does not read");
        arena_.settle();
        expect(expected_ == server_.delivered, "delivered something else than was sent");
        return good == size && !model_.is_refused;
    }
    void write_from_server() const
    {
        void *msg = msgq_msg_alloc(server_.handle, 20);
        memset(msg, 0, 20);
        if (msgq_write(server_.handle, msg, 20) != MSGQ_OK)
            msgq_msg_free(server_.handle, msg);
    }
    void settle() const { arena_.settle(); }
    bool is_connected() const { return fd_.is_open(); }

private:
    const arena_t &arena_;
    server_t &server_;
    unique_fd fd_, old_;
    digest_t expected_;
    model_t model_;
};

// Takes one step off data; false at the end of the input.
bool step(session_t &session, const uint8_t *&data, const uint8_t *end)
{
    static const std::vector<uint8_t> filler(50 * 1300, 'f');
    if (data == end)
        return false;
    uint8_t op = *data++;
    if (!session.is_connected())
        session.connect_anew();
    if (op >= 1 && op <= 200) {
        size_t left = static_cast<size_t>(end - data);
        size_t size = op < left ? op : left;
        data += size;
        return session.send(data - size, size);
    }
    if (op > 200 && op <= 250)
        return session.send(filler.data(), (op - 200U) * 1300U);
    if (op == 251)
        session.write_from_server();
    else if (op == 252)
        session.hang_up();
    else if (op == 253)
        session.connect_anew();
    session.settle();
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static arena_t arena;
    if (size < 2)
        return 0;
    server_t &server = arena.servers[data[0] & 1];
    const uint8_t *end = data + size;
    session_t session(arena, server);
    for (++data; step(session, data, end);) {
    }
    return 0;
}
