// Arbitrary frames of the routing daemons into the daemon's side of the routing channel, over real sockets, and of
// zebra into the table of interface indexes.
//
// An input is a row of steps: one byte that picks the way (way_t), a frame of six bytes of header and as much body as
// its length field asks for and the input has; the length that is sent is the frame's own. The input ends before a
// frame that is fatal by contract: what answers what, and which codes may come, is written down here once more.
#include "agent/client/confd_internal.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_if_idx.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "cfgmgr/routing/cfgmgr_rtm.h"
#include "common/event_handle.h"
#include "common/msgq_internal.h"
#include "common/tip_root.h"
#include "proto/bgp.pb-c.h"
#include "proto/bgp_show.pb-c.h"
#include "proto/ospf.pb-c.h"
#include "proto/ospf_show.pb-c.h"
#include "proto/routing_common.pb-c.h"
#include "proto/zebra.pb-c.h"

#include <confd_dp.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace
{

enum way_t : uint8_t {
    CONFIGURATION = 0, // the answer to a configuration message
    TRANSACTION = 1,   // the answer to a request of a transaction
    NOTIFICATION = 2,
    EVENT = 3, // of zebra, in VPN 5
    EVENT_IN_TRANSPORT = 4,
    WAYS = 5,
};

constexpr size_t FRAME_MAX = 32768; // fits into the buffer of a socket

void expect(bool is_so, const char *what)
{
    if (is_so)
        return;
    fprintf(stderr, "fuzz_quagga: %s\n", what);
    __builtin_trap();
}

struct answer_t {
    uint8_t module, type;
    bool is_for_transaction;
    const ProtobufCMessageDescriptor *descriptor;
};
const answer_t answers[] = {
    { 0, 5, false, &m_msg_response__descriptor },  { 0, 6, true, &m_rtm_show__descriptor },
    { 0, 9, false, &m_rtm_notify__descriptor },    { 0, 10, false, &m_rtm_debug__descriptor },
    { 1, 13, false, &m_msg_response__descriptor }, { 1, 16, true, &m_msg_response__descriptor },
    { 1, 17, true, &m_bgp_show__descriptor },      { 1, 18, false, &m_bgp_clear__descriptor },
    { 1, 19, false, &m_bgp_debug__descriptor },    { 1, 21, false, &m_bgp_notify__descriptor },
    { 2, 10, false, &m_msg_response__descriptor }, { 2, 11, true, &m_msg_response__descriptor },
    { 2, 12, true, &m_ospf_show__descriptor },     { 2, 13, false, &m_ospf_clear__descriptor },
    { 2, 14, false, &m_ospf_debug__descriptor },   { 2, 16, false, &m_ospf_notify__descriptor },
};

// What the slot of a transaction must hold afterwards.
enum slot_t {
    FATAL, // the process ends
    UNTOUCHED,
    PASSED,
    REFUSED,
};

slot_t judge(const answer_t &answer, const ProtobufCMessage *message)
{
    if (answer.descriptor != &m_msg_response__descriptor)
        return UNTOUCHED;
    uint32_t code = reinterpret_cast<const MMsgResponse *>(message)->code;
    if (answer.is_for_transaction)
        return code != 0 ? REFUSED : PASSED;
    return code != 0 ? FATAL : UNTOUCHED;
}

slot_t expected_of(way_t way, const std::string &frame)
{
    for (const answer_t &answer : answers) {
        if (answer.module != static_cast<uint8_t>(frame[2]) || answer.type != static_cast<uint8_t>(frame[3]))
            continue;
        if (answer.is_for_transaction && way != TRANSACTION)
            return FATAL;
        const auto *body = reinterpret_cast<const uint8_t *>(frame.data()) + QUAGGA_HEADER_SIZE;
        ProtobufCMessage *message =
            protobuf_c_message_unpack(answer.descriptor, nullptr, frame.size() - QUAGGA_HEADER_SIZE, body);
        if (message == nullptr)
            return FATAL;
        slot_t slot = judge(answer, message);
        protobuf_c_message_free_unpacked(message, nullptr);
        return slot;
    }
    return FATAL;
}

// The daemon's tables and its connections to a bgpd, which is this program too. All stand for the whole run.
struct arena_t {
    char dir[16] = "/tmp/qXXXXXX";
    event_base_ptr base{ event_base_new() };
    timer_mgr_t *timers = timer_mgr_create(TIMER_RES_10MS, nullptr, nullptr, nullptr, TIMER_MASK_NORMAL);
    cfgmgrd_t daemon{};
    cfgmgr_vpn_t vpn{}, transport{};
    cfgmgr_if_t port{};
    unique_fd listener, mgmt, notify;

    arena_t()
    {
        expect(mkdtemp(dir) != nullptr, "no temporary folder");
        for (const char *below : { "/var", "/var/run", "/var/run/quagga" })
            expect(mkdir((std::string(dir) + below).c_str(), 0700) == 0, "no folder for sockets");
        tip_root_set(dir);
        daemon.event_base = base.get();
        daemon.timer_mgr_p = timers;
        expect(cfgmgr_if_idx_init(&daemon) == 0, "no table");
        vpn.vpn_id = 5;
        vpn.cfgmgr_p = transport.cfgmgr_p = &daemon;
        strcpy(port.name, "ge0_0");
        port.vpn_p = &vpn;
        (void)ip_addr_parse("2001:db8::1", &port.ipv6_addr.ip);
        port.ipv6_addr.len = 64;
        open_daemon();
        cfgmgr_context_publish(&daemon);
    }

    void open_daemon()
    {
        sockaddr_un address = address_of("bgpd_protobuf_mgmt.api.5");
        listener.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        expect(bind(listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0, "cannot bind");
        expect(listen(listener.get(), 1) == 0, "cannot listen");
        expect(cfgmgr_vpn_add_quagga_daemon(DAEMON_ID_BGPD, &vpn) == QUAGGA_OK, "no connections");
        mgmt.reset(accept(listener.get(), nullptr, nullptr));
        address = address_of("bgpd_protobuf_notify.api.5");
        notify.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        expect(connect(notify.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0, "cannot connect");
        turn();
        expect(msgq_is_up(notify_handle()) == 1, "the listener has not taken its peer");
    }
    // Everything goes, with the process.
    ~arena_t()
    {
        cfgmgr_vpn_del_quagga_daemon(DAEMON_ID_BGPD, &vpn);
        cfgmgr_if_idx_deinit(&daemon);
        timer_mgr_delete(timers);
        for (const char *name : { "bgpd_protobuf_mgmt.api.5", "bgpd_protobuf_notify.api.5" })
            (void)unlink(address_of(name).sun_path);
        for (const char *below : { "/var/run/quagga", "/var/run", "/var", "" })
            (void)rmdir((std::string(dir) + below).c_str());
    }

    sockaddr_un address_of(const char *name) const
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        (void)snprintf(address.sun_path, sizeof address.sun_path, "%s/var/run/quagga/%s", dir, name);
        return address;
    }
    void turn() const
    {
        for (int i = 0; i < 3; ++i)
            (void)event_base_loop(base.get(), EVLOOP_NONBLOCK);
    }
    msgq_t *mgmt_handle() const { return vpn.q_daemon_p[DAEMON_ID_BGPD]->mgmt_handle; }
    msgq_t *notify_handle() const { return vpn.q_daemon_p[DAEMON_ID_BGPD]->notify_handle; }
};

arena_t &arena()
{
    static arena_t the_arena;
    return the_arena;
}

void send_frame(const unique_fd &fd, const std::string &frame)
{
    ssize_t sent = send(fd.get(), frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    expect(sent == static_cast<ssize_t>(frame.size()), "the daemon does not read");
}

void drain(const unique_fd &fd)
{
    char bytes[256];
    while (recv(fd.get(), bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
    }
}

// The answer is there before the request goes out.
void answer_configuration(const std::string &frame)
{
    send_frame(arena().mgmt, frame);
    MBgpInstance message = M_BGP_INSTANCE__INIT;
    expect(cfgmgr_quagga_pb_send_message(&arena().vpn, &message, DAEMON_ID_BGPD, BGP_INSTANCE) == QUAGGA_OK,
           "not sent");
    drain(arena().mgmt);
}

void answer_transaction(const std::string &frame, slot_t expected)
{
    send_frame(arena().mgmt, frame);
    confd_trans_ctx tctx{};
    MBgpShow message = M_BGP_SHOW__INIT;
    (void)cfgmgr_quagga_pb_send_show_message(&tctx, &arena().vpn, &message, DAEMON_ID_BGPD, BGP_SHOW);
    const void *slot = expected == REFUSED ? reinterpret_cast<void *>(-1) : expected == PASSED ? nullptr : &arena().vpn;
    expect(tctx.t_opaque == slot, "the slot of the transaction is wrong");
    confd_trans_release(&tctx);
    drain(arena().mgmt);
}

void notify(const std::string &frame)
{
    send_frame(arena().notify, frame);
    arena().turn();
}

void take_event(cfgmgr_vpn_t *vpn_p, const std::string &frame)
{
    void *memory = msgq_msg_alloc(arena().notify_handle(), static_cast<uint32_t>(frame.size()));
    memcpy(memory, frame.data(), frame.size());
    cfgmgr_rtm_read_cb(arena().notify_handle(), memory, static_cast<uint16_t>(frame.size()), vpn_p);
}

// False when the frame must not be sent.
bool deliver(way_t way, const std::string &frame)
{
    if (way == EVENT || way == EVENT_IN_TRANSPORT) {
        take_event(way == EVENT ? &arena().vpn : &arena().transport, frame);
        return true;
    }
    slot_t expected = expected_of(way, frame);
    if (expected == FATAL)
        return false;
    if (way == CONFIGURATION)
        answer_configuration(frame);
    else if (way == TRANSACTION)
        answer_transaction(frame, expected);
    else
        notify(frame);
    return true;
}

// The next frame of the input, "" at its end.
std::string take_frame(const uint8_t *&data, const uint8_t *end)
{
    auto left = static_cast<size_t>(end - data);
    if (left <= QUAGGA_HEADER_SIZE)
        return "";
    size_t length = static_cast<size_t>(data[0] << 8 | data[1]);
    length = length <= QUAGGA_HEADER_SIZE ? QUAGGA_HEADER_SIZE + 1 : length;
    length = length > left ? left : length;
    length = length > FRAME_MAX ? FRAME_MAX : length;
    std::string frame(reinterpret_cast<const char *>(data), length);
    frame[0] = static_cast<char>(length >> 8);
    frame[1] = static_cast<char>(length);
    data += length;
    return frame;
}

void check_memory(const msgq_t *msgq_p)
{
    expect(msgq_p->counters.msg_allocs == msgq_p->counters.msg_frees, "a frame leaked");
}

// A lost connection empties the VPN; what is left was entered by the wrong hand.
void check_tables()
{
    cfgmgr_if_idx_remove_vpn(&arena().daemon, arena().vpn.vpn_id);
    cfgmgr_if_idx_remove_vpn(&arena().daemon, arena().transport.vpn_id);
    expect(cfgmgr_if_idx_lookup_by_vpn(&arena().daemon, 0, 0, IF_IDX_FIRST) == nullptr, "an index was left behind");
    arena().port.ipv6_linklocal = {};
}

} // namespace

// ---- what the channel asks of the rest of the daemon

cfgmgr_if_t *cfgmgr_if_find(cfgmgrd_t *, const char *name, avl_index_t *, int *)
{
    return strcmp(name, arena().port.name) == 0 ? &arena().port : nullptr;
}

int cfgmgr_kernel_ifaddr_set(cfgmgr_if_t *if_p, const ip_prefix_t &prefix, bool is_delete)
{
    expect(if_p == &arena().port && ip_addr_is_v6(prefix.ip) && !is_delete, "a wrong address goes to the kernel");
    return CFGMGR_KERNEL_OK;
}

void cfgmgr_timer_keepalive();
void cfgmgr_timer_keepalive()
{
}

bool cfgmgr_is_terminating()
{
    return false;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const uint8_t *end = data + size;
    while (data < end) {
        auto way = static_cast<way_t>(*data++ % WAYS);
        std::string frame = take_frame(data, end);
        if (frame.empty() || !deliver(way, frame))
            break;
    }
    check_memory(arena().mgmt_handle());
    check_memory(arena().notify_handle());
    check_tables();
    return 0;
}
