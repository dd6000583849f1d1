// Completions of interface names. See cfgmgr_complete.h.
#include "cfgmgr/network/cfgmgr_complete.h"

#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "common/tip_text.h"
#include "common/vpn_id.h"
#include "tconfd/tconfd_util.h"
#include "yang/corvane-vpn.h"

#include <algorithm>
#include <cstring>

namespace
{

#define COMPLETE_TEXT_OF(number) #number
#define COMPLETE_LINE(number)    COMPLETE_TEXT_OF(number)

#define complete_trace(fmt, ...) (cfgmgr_events_level > 0 ? tip_log(fmt __VA_OPT__(, ) __VA_ARGS__) : (void)0)

// What is offered; the names are their owners'.
struct choices_t {
    confd_completion_value values[COMPLETE_MAX];
    int count = 0;

    [[nodiscard]] bool is_full() const { return count == COMPLETE_MAX; }
    void add(char *name) { values[count++] = { CONFD_COMPLETION, name, nullptr }; }
};

bool begins(const char *name, const char *prefix)
{
    return strncmp(name, prefix, strlen(prefix)) == 0;
}

// ---- ports of the candidate configuration

// A session of the daemon's own on the candidate. Each step that fails is logged and told to the operator.
struct candidate_t {
    unique_fd sock;
    int th = -1;
    bool has_session = false;

    candidate_t() = default;
    candidate_t(const candidate_t &) = delete;
    candidate_t &operator=(const candidate_t &) = delete;
    ~candidate_t()
    {
        if (th >= 0)
            (void)maapi_finish_trans(sock.get(), th); // nothing was changed, and the connection goes away
        if (has_session)
            (void)maapi_end_user_session(sock.get());
    }
    [[nodiscard]] bool connect(confd_user_info *uinfo);
    [[nodiscard]] bool start(confd_user_info *uinfo);
};

bool candidate_t::connect(confd_user_info *uinfo)
{
    sock = tconfd_agent_socket();
    if (!sock.is_open()) {
        tip_log("Failed to open maapi socket");
        confd_action_seterr(uinfo, "Failed to open maapi socket");
        return false;
    }
    const sockaddr_in &address = tconfd_agent_address();
    if (maapi_connect(sock.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != CONFD_OK) {
        tip_log("Failed to do maapi_connect");
        confd_action_seterr(uinfo, "Failed to do maapi_connect");
        return false;
    }
    return true;
}

bool candidate_t::start(confd_user_info *uinfo)
{
    // Names the session to who looks for its owner.
    constexpr const char *label = __FILE_NAME__ ":" COMPLETE_LINE(__LINE__);
    if (maapi_start_user_session3(sock.get(), "system", label, nullptr, 0, nullptr, 0, CONFD_PROTO_TCP, nullptr,
                                  nullptr, nullptr, label) != CONFD_OK) {
        tip_log("Failed to start a user sessionconfd_str %s (%d) %s", confd_strerror(confd_errno), confd_errno,
                confd_lasterr());
        confd_action_seterr(uinfo, "Failed to start a user session");
        return false;
    }
    has_session = true;
    th =
        maapi_start_trans_flags2(sock.get(), CONFD_CANDIDATE, CONFD_READ_WRITE, 0, 0, nullptr, nullptr, nullptr, label);
    if (th < 0) {
        tip_log("Failed to start a transactionconfd_str %s (%d) %s", confd_strerror(confd_errno), confd_errno,
                confd_lasterr());
        confd_action_seterr(uinfo, "Failed to start a transaction");
        return false;
    }
    return true;
}

// Names of interfaces, copied: the walk's own go with its next step.
struct port_names_t {
    char names[COMPLETE_MAX][IF_NAME_SIZE];
    int count = 0;

    // "ge" anywhere, so that "ge0/0" and "10ge0/0" are taken alike. Each name once.
    void take(const confd_value_t &key)
    {
        char(&name)[IF_NAME_SIZE] = names[count];
        size_t size = std::min<size_t>(CONFD_GET_BUFSIZE(&key), sizeof name - 1);
        memcpy(name, CONFD_GET_BUFPTR(&key), size);
        name[size] = '\0';
        bool is_known = std::any_of(names, names + count, [&](const char *other) { return strcmp(other, name) == 0; });
        if (strstr(name, "ge") != nullptr && !is_known)
            count++;
    }
};

// False when the interfaces of the VPN cannot be walked.
bool walk_ports(int sock, int th, long vpn_id, port_names_t &ports)
{
    maapi_cursor if_mc{};
    if (maapi_init_cursor(sock, th, &if_mc, "/vpn/vpn-instance{%ld}/interface", vpn_id) != CONFD_OK)
        return false;
    while (ports.count < COMPLETE_MAX && maapi_get_next(&if_mc) == CONFD_OK && if_mc.n > 0) {
        tip_assert((&if_mc.keys[0])->type == C_BUF);
        ports.take(if_mc.keys[0]);
    }
    maapi_destroy_cursor(&if_mc);
    return true;
}

// Where the agent's command line keeps what an operator has typed in a transaction of his own, it is not in the
// candidate. What cannot be read there is left out.
void walk_typed_ports(int sock, confd_user_info *uinfo, long vpn_id, port_names_t &ports)
{
    confd_trans_ctx typed{};
    typed.thandle = uinfo->actx_thandle;
    typed.uinfo = uinfo;
    if (typed.thandle <= 0 || maapi_attach(sock, 0, &typed) != CONFD_OK)
        return;
    (void)walk_ports(sock, typed.thandle, vpn_id, ports);
    (void)maapi_detach(sock, &typed); // the connection goes away
}

bool read_port_names(const candidate_t &candidate, confd_user_info *uinfo, uint64_t vpn_id, port_names_t &ports)
{
    auto vpn = static_cast<long>(vpn_id);
    if (!walk_ports(candidate.sock.get(), candidate.th, vpn, ports)) {
        tip_log("Failed to initialize maapi cursor for /vpn/vpn-instance{%ld}/interface", vpn);
        confd_action_seterr(uinfo, "Failed to initialize maapi cursor  confd_str %s (%d) %s",
                            confd_strerror(confd_errno), confd_errno, confd_lasterr());
        return false;
    }
    walk_typed_ports(candidate.sock.get(), uinfo, vpn, ports);
    return true;
}

uint64_t vpn_of(const confd_hkeypath_t *kp)
{
    confd_value_t value{};
    (void)tconfd_keypath_get_keys(kp, &value, 1, vpn_vpn_instance); // of a path without a VPN the value has no type
    tip_assert((&value)->type == C_UINT64);
    return CONFD_GET_UINT64(&value);
}

// The session has ended when this returns.
bool collect_port_names(confd_user_info *uinfo, const confd_hkeypath_t *kp, port_names_t &ports)
{
    candidate_t candidate;
    if (!candidate.connect(uinfo) || !candidate.start(uinfo))
        return false;
    if (cfgmgr_context() == nullptr) {
        tip_log("CFGMGR daemon not UP");
        confd_action_seterr(uinfo, "CFGMGR daemon not UP");
        return false;
    }
    return read_port_names(candidate, uinfo, vpn_of(kp), ports);
}

// ---- interfaces of the transport VPN

// What the texts of the two callbacks speak of.
constexpr char SERVICE[] = "service-interface";
constexpr char EXIT[] = "slx interface";

// Null, logged and told to the operator, when the table is not there.
cfgmgr_vpn_t *transport_vpn(confd_user_info *uinfo, const char *subject)
{
    cfgmgrd_t *cfgmgrd_p = cfgmgr_context();
    cfgmgr_vpn_t *vpn_p = cfgmgrd_p != nullptr ? cfgmgr_vpn_find(cfgmgrd_p, VPN_ID_TRANSPORT, nullptr) : nullptr;
    if (cfgmgrd_p == nullptr) {
        tip_log("Request for %s completion but daemon not up", subject);
        confd_action_seterr(uinfo, "Request for %s completion but daemon not up", subject);
    } else if (vpn_p == nullptr) {
        tip_log("Request for %s completion : vpn 0 not found", subject);
        confd_action_seterr(uinfo, "Request for %s completion : vpn 0 not found", subject);
    }
    return vpn_p;
}

int reply(confd_user_info *uinfo, const choices_t &choices, const char *subject)
{
    if (choices.count == 0) {
        complete_trace("Request for %s completion : no such interface", subject);
        return -1;
    }
    complete_trace("Request for %s completion - returned with %d entries", subject, choices.count);
    if (confd_action_reply_completion(uinfo, choices.values, choices.count) != CONFD_OK) {
        tip_log("Failed to reply to confd for %s completion", subject);
        confd_fatal("Failed to reply to confd for %s completion\n", subject);
    }
    return 0;
}

// What the names of tunnels have to begin with to go on with the word; null when no tunnel's does.
const char *tunnel_prefix(const char *token)
{
    if (begins("gre", token))
        return "gre";
    return begins(token, "gre") ? token : nullptr;
}

void add_tunnels(const cfgmgr_vpn_t &vpn, const char *prefix, choices_t &choices)
{
    cfgmgr_if_t key{};
    strlcpy(key.name, prefix, sizeof key.name);
    auto *if_p = static_cast<cfgmgr_if_t *>(avl_find_or_next(&vpn.if_db, &key, nullptr));
    for (; if_p != nullptr && begins(if_p->name, prefix) && !choices.is_full();
         if_p = static_cast<cfgmgr_if_t *>(avl_walk(&vpn.if_db, if_p, AVL_AFTER)))
        choices.add(if_p->name);
}

bool is_exit(const cfgmgr_if_t &interface, bool needs_nat)
{
    if (begins(interface.name, "gre"))
        return true;
    bool is_port = begins(interface.name, "ge") || begins(interface.name, "10g");
    return is_port && (!needs_nat || (interface.flags & IF_NAT) != 0);
}

} // namespace

int cfgmgr_tunnel_if_bind_ifs_complete(confd_user_info *uinfo, int, char *, int, confd_hkeypath_t *kp, char *, char *,
                                       confd_qname *, char *)
{
    cfgmgr_timer_keepalive();
    port_names_t ports;
    if (!collect_port_names(uinfo, kp, ports))
        return -1;
    choices_t choices;
    for (int i = 0; i < ports.count; i++)
        choices.add(ports.names[i]);
    if (confd_action_reply_completion(uinfo, choices.values, choices.count) != CONFD_OK) {
        tip_log("Failed to reply completion values to confd");
        confd_action_seterr(uinfo, "Failed to reply completion values to confd");
        return -1;
    }
    return 0;
}

int cfgmgr_config_vpn_service_interface_complete(confd_user_info *uinfo, int cli_style, char *token,
                                                 int completion_char, confd_hkeypath_t *, char *cmdpath,
                                                 char *cmdparam_id, confd_qname *, char *extra)
{
    if (cfgmgr_events_level > CFGMGR_DETAILED)
        tip_log("Request for service-interface completion, %d %s %d %s %s %s", cli_style, token, completion_char,
                cmdpath, cmdparam_id, extra);
    const cfgmgr_vpn_t *vpn_p = transport_vpn(uinfo, SERVICE);
    if (vpn_p == nullptr)
        return -1;
    choices_t choices;
    if (const char *prefix = tunnel_prefix(token); prefix != nullptr)
        add_tunnels(*vpn_p, prefix, choices);
    return reply(uinfo, choices, SERVICE);
}

int cfgmgr_config_slx_interface_complete(confd_user_info *uinfo, int cli_style, char *token, int completion_char,
                                         confd_hkeypath_t *, char *cmdpath, char *cmdparam_id, confd_qname *,
                                         char *extra)
{
    complete_trace("Request for slx interface completion, %d %s %d %s %s %s", cli_style, token, completion_char,
                   cmdpath, cmdparam_id, extra);
    std::replace(token, token + strnlen(token, IF_NAME_SIZE), '/', '_');
    const cfgmgr_vpn_t *vpn_p = transport_vpn(uinfo, EXIT);
    if (vpn_p == nullptr)
        return -1;
    bool needs_nat = completion_char == '?' && token[0] == '\0';
    choices_t choices;
    for (cfgmgr_if_t &interface : avl_range<cfgmgr_if_t>(&vpn_p->if_db)) {
        if (choices.is_full())
            break;
        if (is_exit(interface, needs_nat))
            choices.add(interface.cli_name);
    }
    return reply(uinfo, choices, EXIT);
}
