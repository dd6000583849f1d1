#include "tests/unit/fake_agent.h"

#include <arpa/inet.h>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fcntl.h>
#include <unistd.h>

__thread int confd_errno;

namespace
{

// Used while tables of tests are set up.
std::map<uint32_t, std::string> &names()
{
    static auto *the_names = new std::map<uint32_t, std::string>;
    return *the_names;
}
// Never destroyed, as the names: threads outlive main.
std::deque<confd_cs_node> &nodes = *new std::deque<confd_cs_node>;
std::deque<std::vector<uint32_t>> &node_keys = *new std::deque<std::vector<uint32_t>>;
confd_cs_node *top_node;
const fake_change_t *iterated; // the change that an iteration stands at

using guard_t = std::lock_guard<std::recursive_mutex>;

std::string vtext(const char *format, va_list arguments)
{
    char text[512];
    vsnprintf(text, sizeof text, format, arguments);
    return text;
}

void write_down(const char *format, ...) __attribute__((format(printf, 1, 2)));
void write_down(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::string text = vtext(format, arguments);
    va_end(arguments);
    guard_t guard(agent().lock);
    agent().calls.push_back(text);
}

int fail(int error)
{
    confd_errno = error;
    return CONFD_ERR;
}

// The scripted result of a function.
int outcome(const char *function)
{
    guard_t guard(agent().lock);
    auto found = agent().results.find(function);
    if (found == agent().results.end())
        return CONFD_OK;
    confd_errno = agent().error;
    return found->second;
}

// Puts one end of a pair on the client's descriptor, so that it is quiet until the agent says or ends something.
int take_connection(const char *function, int sock, const sockaddr *srv, int type)
{
    const auto *address = reinterpret_cast<const sockaddr_in *>(srv);
    write_down("%s %d %s:%d", function, type, inet_ntoa(address->sin_addr), ntohs(address->sin_port));
    if (int result = outcome(function); result != CONFD_OK)
        return result;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return fail(CONFD_ERR_OS);
    dup3(ends[0], sock, (fcntl(sock, F_GETFD) & FD_CLOEXEC) != 0 ? O_CLOEXEC : 0);
    close(ends[0]);
    guard_t guard(agent().lock);
    int &peer = agent().peers[sock];
    if (peer > 0)
        close(peer);
    peer = ends[1];
    return CONFD_OK;
}

confd_tag_value_t *hand_over(const std::vector<confd_tag_value_t> &values)
{
    auto *copy = static_cast<confd_tag_value_t *>(malloc((values.size() + 1) * sizeof(confd_tag_value_t)));
    for (size_t i = 0; i < values.size(); i++) {
        copy[i] = values[i];
        if (values[i].v.type == C_BUF) {
            unsigned size = values[i].v.val.buf.size;
            copy[i].v.val.buf.ptr = static_cast<unsigned char *>(malloc(size + 1));
            memcpy(copy[i].v.val.buf.ptr, values[i].v.val.buf.ptr, size);
        }
    }
    return copy;
}

int write_leaf(const char *function, const std::string &path, const confd_value_t *value, int missing, int present)
{
    std::function<void(const std::string &)> on_write;
    {
        guard_t guard(agent().lock);
        on_write = agent().on_write;
    }
    if (on_write)
        on_write(path);
    guard_t guard(agent().lock);
    std::string text;
    if (value != nullptr && value->type == C_BUF)
        text.assign(" ").append(reinterpret_cast<char *>(value->val.buf.ptr), value->val.buf.size);
    write_down("%s %s%s", function, path.c_str(), text.c_str());
    if (int result = outcome(function); result != CONFD_OK)
        return result;
    bool is_there = agent().leaves.count(path) > 0;
    if (is_there && present != 0)
        return fail(present);
    if (!is_there && missing != 0)
        return fail(missing);
    if (value == nullptr)
        agent().leaves.erase(path);
    else
        agent().leaves[path] = *value;
    return CONFD_OK;
}

int subscribe(const std::string &call, const char *function, int *point)
{
    guard_t guard(agent().lock);
    write_down("%s", call.c_str());
    *point = agent().next_point++;
    return outcome(function);
}

confd_cs_node *build_nodes(const std::vector<fake_node_t> &of, confd_cs_node *parent)
{
    confd_cs_node *first = nullptr;
    confd_cs_node **place = &first;
    for (const fake_node_t &wanted : of) {
        confd_cs_node &node = nodes.emplace_back();
        node = {};
        node.tag = tag_of(wanted.name);
        node.parent = parent;
        node.info.flags = CS_NODE_IS_CONTAINER;
        if (!wanted.keys.empty()) {
            std::vector<uint32_t> &keys = node_keys.emplace_back();
            for (const std::string &key : wanted.keys)
                keys.push_back(tag_of(key));
            keys.push_back(0);
            node.info.keys = keys.data();
            node.info.flags = CS_NODE_IS_LIST;
        }
        node.children = build_nodes(wanted.children, &node);
        *place = &node;
        place = &node.next;
    }
    return first;
}

confd_cs_node *find_among(confd_cs_node *first, uint32_t tag)
{
    while (first != nullptr && first->tag != tag)
        first = first->next;
    return first;
}

} // namespace

std::vector<std::string> fake_agent_t::calls_of(const std::string &function)
{
    guard_t guard(lock);
    std::vector<std::string> found;
    for (const std::string &call : calls) {
        if (call == function || call.rfind(function + " ", 0) == 0)
            found.push_back(call);
    }
    return found;
}

int fake_agent_t::count(const std::string &call)
{
    return static_cast<int>(calls_of(call).size());
}

int fake_agent_t::open_connections()
{
    guard_t guard(lock);
    int count = 0;
    for (auto &[fd, peer] : peers) {
        char byte;
        count += recv(peer, &byte, 1, MSG_PEEK | MSG_DONTWAIT) != 0;
    }
    return count;
}

fake_agent_t &agent()
{
    static fake_agent_t *the_agent = new fake_agent_t;
    return *the_agent;
}

void fake_agent_reset()
{
    guard_t guard(agent().lock);
    for (auto &[fd, peer] : agent().peers)
        close(peer);
    agent().peers.clear();
    agent().calls.clear();
    agent().results.clear();
    agent().error = CONFD_ERR_INTERNAL;
    agent().type = CDB_SUB_COMMIT;
    agent().flags = 0;
    agent().points.clear();
    agent().changes.clear();
    agent().gives_null_array = false;
    agent().leaves.clear();
    agent().instances.clear();
    agent().entries.clear();
    agent().defaults.clear();
    agent().trans_flags = 0;
    agent().position.clear();
    agent().on_write = nullptr;
    agent().on_wait_start = nullptr;
    agent().data_cbs.clear();
    agent().next_point = 1;
    agent().notification_type = 0;
}

void fake_schema_set(const std::vector<fake_node_t> &top)
{
    nodes.clear();
    node_keys.clear();
    top_node = build_nodes(top, nullptr);
}

confd_value_t u64(uint64_t value)
{
    confd_value_t v{};
    CONFD_SET_UINT64(&v, value);
    return v;
}

confd_value_t u32(uint32_t value)
{
    confd_value_t v{};
    CONFD_SET_UINT32(&v, value);
    return v;
}

confd_value_t buf(const char *text)
{
    confd_value_t v{};
    CONFD_SET_BUF(&v, const_cast<char *>(text), strlen(text));
    return v;
}

confd_value_t nothing()
{
    confd_value_t v{};
    v.type = C_NOEXISTS;
    return v;
}

confd_tag_value_t entry(const std::string &name, const confd_value_t &value)
{
    return { { tag_of(name), 0 }, value };
}

confd_tag_value_t begin(const std::string &name, confd_vtype type)
{
    confd_tag_value_t tv{};
    CONFD_SET_TAG_XMLBEGIN(&tv, tag_of(name), 0);
    tv.v.type = type;
    return tv;
}

confd_tag_value_t end(const std::string &name)
{
    confd_tag_value_t tv{};
    CONFD_SET_TAG_XMLEND(&tv, tag_of(name), 0);
    return tv;
}

confd_hkeypath_t keypath(const std::vector<fake_step_t> &steps)
{
    confd_hkeypath_t path{};
    path.len = static_cast<int>(steps.size());
    for (size_t i = 0; i < steps.size(); i++) {
        confd_value_t *element = path.v[steps.size() - 1 - i];
        if (!steps[i].name.empty()) {
            CONFD_SET_XMLTAG(&element[0], tag_of(steps[i].name), 0);
            continue;
        }
        for (size_t key = 0; key < steps[i].keys.size(); key++)
            element[key] = steps[i].keys[key];
        if (steps[i].keys.size() < MAXKEYLEN)
            element[steps[i].keys.size()] = nothing();
    }
    return path;
}

#define TEXT_OF(text, last)                                                                                            \
    va_list arguments_;                                                                                                \
    va_start(arguments_, last);                                                                                        \
    std::string text = vtext(last, arguments_);                                                                        \
    va_end(arguments_)

extern "C" {

void confd_init_vsn_sz(const char *name, FILE *, enum confd_debug_level level, int vsn, int depth, int keys)
{
    write_down("confd_init_vsn_sz %s %d %#x %d %d", name, level, vsn, depth, keys);
}
const char *confd_strerror(int)
{
    return "scripted";
}
const char *confd_lasterr(void)
{
    return "as scripted";
}

// ---- values and schema

void confd_free_value(confd_value_t *v)
{
    if (v->type == C_BUF || v->type == C_BINARY)
        free(v->val.buf.ptr);
    else if (v->type == C_LIST)
        free(v->val.list.ptr);
}
int confd_pp_kpath(char *out, int size, const confd_hkeypath_t *path)
{
    std::string text;
    for (int level = path->len - 1; level >= 0; level--) {
        const confd_value_t *element = path->v[level];
        if (element[0].type == C_XMLTAG) {
            text += "/" + names()[element[0].val.xmltag.tag];
            continue;
        }
        text += "{" + fake_value_text(element[0]);
        for (int key = 1; key < MAXKEYLEN && element[key].type > C_NOEXISTS; key++)
            text += " " + fake_value_text(element[key]);
        text += "}";
    }
    return snprintf(out, static_cast<size_t>(size), "%s", text.c_str());
}
uint32_t confd_str2hash(const char *name)
{
    uint32_t hash = 2166136261U;
    for (const char *c = name; *c != '\0'; c++)
        hash = (hash ^ static_cast<unsigned char>(*c)) * 16777619U;
    guard_t guard(agent().lock);
    names()[hash] = name;
    return hash;
}
const char *confd_hash2str(uint32_t hash)
{
    auto found = names().find(hash);
    return found != names().end() ? found->second.c_str() : nullptr;
}
struct confd_cs_node *confd_find_cs_node_child(const struct confd_cs_node *parent, struct xml_tag tag)
{
    return find_among(parent->children, tag.tag);
}
struct confd_cs_node *confd_cs_node_cd(const struct confd_cs_node *, const char *fmt, ...)
{
    TEXT_OF(path, fmt);
    confd_cs_node *first = top_node;
    confd_cs_node *node = nullptr;
    for (size_t at = 1, slash; at <= path.size(); at = slash + 1) {
        slash = std::min(path.find('/', at), path.size());
        node = find_among(first, tag_of(path.substr(at, slash - at)));
        if (node == nullptr)
            return nullptr;
        first = node->children;
    }
    return node;
}
int confd_load_schemas(const struct sockaddr *, int)
{
    write_down("confd_load_schemas");
    return outcome("confd_load_schemas");
}

// ---- daemon context

struct confd_daemon_ctx *confd_init_daemon(const char *name)
{
    write_down("confd_init_daemon %s", name);
    return outcome("confd_init_daemon") == CONFD_OK ? new confd_daemon_ctx{} : nullptr;
}
void confd_release_daemon(struct confd_daemon_ctx *dx)
{
    write_down("confd_release_daemon");
    delete dx;
}
int confd_connect(struct confd_daemon_ctx *, int sock, enum confd_sock_type type, const struct sockaddr *srv, int)
{
    return take_connection(type == CONTROL_SOCKET ? "confd_connect" : "confd_connect_worker", sock, srv, type);
}
int confd_fd_ready(struct confd_daemon_ctx *, int fd)
{
    write_down("confd_fd_ready");
    char byte;
    return read(fd, &byte, 1) <= 0 ? CONFD_EOF : outcome("confd_fd_ready");
}
int confd_register_trans_cb(struct confd_daemon_ctx *, const struct confd_trans_cbs *)
{
    write_down("confd_register_trans_cb");
    return outcome("confd_register_trans_cb");
}
int confd_register_trans_validate_cb(struct confd_daemon_ctx *, const struct confd_trans_validate_cbs *)
{
    write_down("confd_register_trans_validate_cb");
    return outcome("confd_register_trans_validate_cb");
}
int confd_register_valpoint_cb(struct confd_daemon_ctx *, const struct confd_valpoint_cb *cb)
{
    write_down("confd_register_valpoint_cb %s", cb->valpoint);
    return outcome("confd_register_valpoint_cb");
}
int confd_register_action_cbs(struct confd_daemon_ctx *, const struct confd_action_cbs *cb)
{
    write_down("confd_register_action_cbs %s%s", cb->actionpoint, cb->init != nullptr ? " init" : "");
    return outcome("confd_register_action_cbs");
}
int confd_register_notification_stream(struct confd_daemon_ctx *, const struct confd_notification_stream_cbs *cbs,
                                       struct confd_notification_ctx **)
{
    write_down("confd_register_notification_stream %s", cbs->streamname);
    return outcome("confd_register_notification_stream");
}
int confd_register_snmp_notification(struct confd_daemon_ctx *, int, const char *notify, const char *context,
                                     struct confd_notification_ctx **)
{
    write_down("confd_register_snmp_notification %s '%s'", notify, context);
    return outcome("confd_register_snmp_notification");
}
int confd_register_done(struct confd_daemon_ctx *)
{
    write_down("confd_register_done");
    return outcome("confd_register_done");
}
void confd_trans_set_fd(struct confd_trans_ctx *, int)
{
}
void confd_action_set_fd(struct confd_user_info *, int)
{
}

// ---- maapi and events

int maapi_connect(int sock, const struct sockaddr *srv, int)
{
    return take_connection("maapi_connect", sock, srv, 0);
}
int maapi_attach(int, int, struct confd_trans_ctx *)
{
    write_down("maapi_attach");
    return outcome("maapi_attach");
}
int maapi_detach(int, struct confd_trans_ctx *)
{
    write_down("maapi_detach");
    return outcome("maapi_detach");
}
int maapi_cli_printf(int sock, int usid, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    char *text = nullptr;
    int length = vasprintf(&text, fmt, args);
    va_end(args);
    if (length < 0)
        return CONFD_ERR;
    agent().printed[usid].emplace_back(text);
    free(text);
    return sock >= 0 ? outcome("maapi_cli_printf") : CONFD_ERR;
}
int maapi_prio_message(int, const char *to, const char *message)
{
    std::string text = message;
    write_down("maapi_prio_message %s %zu ...%s", to, text.size(),
               text.substr(text.size() > 8 ? text.size() - 8 : 0).c_str());
    return CONFD_OK;
}
int maapi_install_crypto_keys(int)
{
    write_down("maapi_install_crypto_keys");
    return outcome("maapi_install_crypto_keys");
}
int confd_notifications_connect2(int sock, const struct sockaddr *srv, int, int mask,
                                 const struct confd_notifications_data *data)
{
    write_down("interval %d", data != nullptr ? data->interval_ms : -1);
    return take_connection("confd_notifications_connect2", sock, srv, mask);
}
int confd_read_notification(int sock, struct confd_notification *n)
{
    char byte;
    n->type = agent().notification_type;
    return read(sock, &byte, 1) <= 0 ? CONFD_EOF : outcome("confd_read_notification");
}
void confd_free_notification(struct confd_notification *)
{
    write_down("confd_free_notification");
}

// ---- cdb

int cdb_connect(int sock, enum cdb_sock_type type, const struct sockaddr *srv, int)
{
    return take_connection(type == CDB_SUBSCRIPTION_SOCKET ? "cdb_connect_sub" : "cdb_connect", sock, srv, type);
}
int cdb_close(int sock)
{
    {
        guard_t guard(agent().lock);
        if (agent().peers.count(sock) > 0) {
            close(agent().peers[sock]);
            agent().peers.erase(sock);
        }
    }
    close(sock);
    return CONFD_OK;
}
int cdb_wait_start(int)
{
    write_down("cdb_wait_start");
    std::function<void()> on_wait_start;
    {
        guard_t guard(agent().lock);
        on_wait_start = agent().on_wait_start;
    }
    if (on_wait_start)
        on_wait_start();
    return outcome("cdb_wait_start");
}
int cdb_start_session2(int, enum cdb_db_type db, int flags)
{
    write_down("cdb_start_session2 %d %d", db, flags);
    return outcome("cdb_start_session2");
}
int cdb_end_session(int)
{
    write_down("cdb_end_session");
    return CONFD_OK;
}
// A path is known when a list with a count stands below it.
int cdb_cd(int, const char *fmt, ...)
{
    TEXT_OF(path, fmt);
    write_down("cdb_cd %s", path.c_str());
    guard_t guard(agent().lock);
    auto below = agent().instances.lower_bound(path + "/");
    if (below == agent().instances.end() || below->first.rfind(path + "/", 0) != 0)
        return fail(CONFD_ERR_BADPATH);
    agent().position = path + "/";
    return outcome("cdb_cd");
}
int cdb_num_instances(int, const char *fmt, ...)
{
    TEXT_OF(path, fmt);
    guard_t guard(agent().lock);
    auto found = agent().instances.find(agent().position + path);
    return found != agent().instances.end() ? found->second : fail(CONFD_ERR_BADPATH);
}
int cdb_vget(int, confd_value_t *v, const char *fmt, va_list arguments)
{
    std::string path = vtext(fmt, arguments);
    guard_t guard(agent().lock);
    auto found = agent().leaves.find(path);
    if (found == agent().leaves.end())
        return fail(CONFD_ERR_NOEXISTS);
    *v = found->second;
    if (v->type == C_BUF) {
        v->val.buf.ptr = static_cast<unsigned char *>(malloc(v->val.buf.size + 1));
        memcpy(v->val.buf.ptr, found->second.val.buf.ptr, v->val.buf.size);
    } else if (v->type == C_LIST) {
        size_t size = v->val.list.size * sizeof(confd_value_t);
        v->val.list.ptr = static_cast<confd_value_t *>(memcpy(malloc(size), found->second.val.list.ptr, size));
    }
    return CONFD_OK;
}
int cdb_get(int sock, confd_value_t *v, const char *fmt, ...)
{
    va_list arguments;
    va_start(arguments, fmt);
    int result = cdb_vget(sock, v, fmt, arguments);
    va_end(arguments);
    return result;
}
int cdb_get_int32(int sock, int32_t *out, const char *fmt, ...)
{
    TEXT_OF(path, fmt);
    confd_value_t v;
    int result = cdb_get(sock, &v, "%s", path.c_str());
    if (result == CONFD_OK)
        *out = v.val.i32;
    return result;
}
int cdb_get_uint32(int sock, uint32_t *out, const char *fmt, ...)
{
    TEXT_OF(path, fmt);
    confd_value_t v;
    int result = cdb_get(sock, &v, "%s", path.c_str());
    if (result == CONFD_OK)
        *out = v.val.u32;
    return result;
}
int cdb_get_ipv4prefix(int sock, struct confd_ipv4_prefix *out, const char *fmt, ...)
{
    TEXT_OF(path, fmt);
    confd_value_t v;
    int result = cdb_get(sock, &v, "%s", path.c_str());
    if (result == CONFD_OK)
        *out = v.val.ipv4prefix;
    return result;
}
int cdb_set_elem(int, const confd_value_t *v, const char *fmt, ...)
{
    TEXT_OF(path, fmt);
    return write_leaf("cdb_set_elem", path, v, 0, 0);
}
int cdb_vset_elem(int, const confd_value_t *v, const char *fmt, va_list arguments)
{
    return write_leaf("cdb_set_elem", vtext(fmt, arguments), v, 0, 0);
}
int cdb_vcreate(int, const char *fmt, va_list arguments)
{
    confd_value_t there = nothing();
    return write_leaf("cdb_create", vtext(fmt, arguments), &there, 0, CONFD_ERR_ALREADY_EXISTS);
}
int cdb_vdelete(int, const char *fmt, va_list arguments)
{
    return write_leaf("cdb_delete", vtext(fmt, arguments), nullptr, CONFD_ERR_NOEXISTS, 0);
}

// ---- subscriptions

int cdb_subscribe(int, int priority, uint32_t, int *spoint, const char *fmt, ...)
{
    TEXT_OF(path, fmt);
    return subscribe("cdb_subscribe " + std::to_string(priority) + " " + path, "cdb_subscribe", spoint);
}
int cdb_subscribe2(int, enum cdb_sub_type type, int flags, int priority, int *spoint, uint32_t, const char *fmt, ...)
{
    TEXT_OF(path, fmt);
    return subscribe("cdb_subscribe2 " + std::to_string(type) + " " + std::to_string(flags) + " " +
                         std::to_string(priority) + " " + path,
                     "cdb_subscribe2", spoint);
}
int cdb_oper_subscribe(int, uint32_t, int *spoint, const char *fmt, ...)
{
    TEXT_OF(path, fmt);
    return subscribe("cdb_oper_subscribe " + path, "cdb_oper_subscribe", spoint);
}
int cdb_subscribe_done(int)
{
    write_down("cdb_subscribe_done");
    return outcome("cdb_subscribe_done");
}
int cdb_read_subscription_socket2(int, enum cdb_sub_notification *type, int *flags, int *points[], int *len)
{
    if (int result = outcome("cdb_read_subscription_socket2"); result != CONFD_OK)
        return result;
    guard_t guard(agent().lock);
    *type = agent().type;
    *flags = agent().flags;
    *len = static_cast<int>(agent().points.size());
    *points = static_cast<int *>(malloc((agent().points.size() + 1) * sizeof(int)));
    for (size_t i = 0; i < agent().points.size(); i++)
        (*points)[i] = agent().points[i];
    return CONFD_OK;
}
int cdb_sync_subscription_socket(int, enum cdb_subscription_sync_type type)
{
    write_down("cdb_sync_subscription_socket %d", type);
    return outcome("cdb_sync_subscription_socket");
}
int cdb_sub_abort_trans(int, enum confd_errcode code, uint32_t ns, uint32_t tag, const char *fmt, ...)
{
    TEXT_OF(text, fmt);
    write_down("cdb_sub_abort_trans %d %u %u %s", code, ns, tag, text.c_str());
    return CONFD_OK;
}
int cdb_diff_iterate(int, int subid, cdb_iter_fn iter, int, void *state)
{
    write_down("cdb_diff_iterate %d", subid);
    for (fake_change_t &change : agent().changes[subid]) {
        iterated = &change;
        if (iter(&change.path, change.op, nullptr, nullptr, state) == ITER_STOP)
            break;
    }
    return outcome("cdb_diff_iterate");
}
int cdb_get_modifications_iter(int, int flags, confd_tag_value_t **values, int *n)
{
    write_down("cdb_get_modifications_iter %d", flags);
    if (int result = outcome("cdb_get_modifications_iter"); result != CONFD_OK)
        return result;
    *values = agent().gives_null_array ? nullptr : hand_over(iterated->values);
    *n = static_cast<int>(iterated->values.size());
    return CONFD_OK;
}
int cdb_get_modifications(int, int subid, int flags, confd_tag_value_t **values, int *n, const char *, ...)
{
    write_down("cdb_get_modifications %d %d", subid, flags);
    if (int result = outcome("cdb_get_modifications"); result != CONFD_OK)
        return result;
    std::vector<confd_tag_value_t> all;
    for (const fake_change_t &change : agent().changes[subid])
        all.insert(all.end(), change.values.begin(), change.values.end());
    *values = hand_over(all);
    *n = static_cast<int>(all.size());
    return CONFD_OK;
}

void confd_trans_seterr(confd_trans_ctx *, const char *fmt, ...)
{
    va_list arguments;
    va_start(arguments, fmt);
    write_down("confd_trans_seterr %s", vtext(fmt, arguments).c_str());
    va_end(arguments);
}

static int triggered(const char *function, const int *points, int n)
{
    std::string text;
    for (int i = 0; i < n; i++)
        text += " " + std::to_string(points[i]);
    write_down("%s%s", function, text.c_str());
    return outcome(function);
}
int cdb_trigger_subscriptions(int, int points[], int n)
{
    return triggered("cdb_trigger_subscriptions", points, n);
}
int cdb_trigger_oper_subscriptions(int, int points[], int n, int flags)
{
    write_down("oper trigger flags %d", flags);
    return triggered("cdb_trigger_oper_subscriptions", points, n);
}

} // extern "C"
