// The data model in the process: fetched once, then read without locks by any thread, and never freed.
#include "agent/client/confd_internal.h"

#include <atomic>
#include <cerrno>
#include <deque>
#include <mutex>
#include <unistd.h>
#include <unordered_map>

struct module_t {
    std::string name;
    std::string prefix;
    uint32_t ns;
    confd_cs_node *first = nullptr; // top-level nodes, by next
};

// A node with the memory that it points to.
struct schema_entry_t {
    confd_cs_node node = {};
    std::vector<uint32_t> keys; // ended by 0
    confd_names_t names;
    confd_cs_node *last_child = nullptr;
};

struct client_schema_t {
    std::vector<module_t> modules;
    std::deque<schema_entry_t> nodes; // grows without moving
    std::unordered_map<uint32_t, std::string> hashes;
};

static std::atomic<const client_schema_t *> loaded = nullptr;

// ---- loading

static bool read_modules(wire_reader_t &in, client_schema_t *schema)
{
    constexpr size_t MIN_MODULE = 4 * sizeof(uint32_t);
    for (uint32_t n = in.count(MIN_MODULE); n > 0 && in.ok; n--) {
        module_t module;
        module.name = in.text();
        module.prefix = in.text();
        std::string_view uri = in.text();
        module.ns = in.u32();
        schema->hashes.emplace(module.ns, uri);
        schema->modules.push_back(std::move(module));
    }
    return in.ok;
}

struct flag_row_t {
    wire_node_flag_t wire;
    int cs;
};

static constexpr flag_row_t flag_rows[] = {
    { WIRE_NODE_LIST, CS_NODE_IS_LIST },           { WIRE_NODE_CONTAINER, CS_NODE_IS_CONTAINER },
    { WIRE_NODE_PRESENCE, CS_NODE_IS_PRESENCE },   { WIRE_NODE_LEAF, CS_NODE_IS_LEAF },
    { WIRE_NODE_LEAF_LIST, CS_NODE_IS_LEAF_LIST }, { WIRE_NODE_KEY, CS_NODE_IS_KEY },
    { WIRE_NODE_CONFIG, CS_NODE_IS_WRITE },        { WIRE_NODE_ACTION, CS_NODE_IS_ACTION },
    { WIRE_NODE_PARAM, CS_NODE_IS_PARAM },         { WIRE_NODE_NOTIF, CS_NODE_IS_NOTIF },
};

static int flags_of(uint16_t wire_flags)
{
    int flags = 0;
    for (const flag_row_t &row : flag_rows)
        if ((wire_flags & row.wire) != 0)
            flags |= row.cs;
    return flags;
}

static module_t *find_module(client_schema_t *schema, uint32_t ns)
{
    for (module_t &module : schema->modules)
        if (module.ns == ns)
            return &module;
    return nullptr;
}

// Hangs a new top-level node behind those of its module.
static bool link_top(client_schema_t *schema, confd_cs_node *node)
{
    module_t *module = find_module(schema, node->ns);
    if (module == nullptr)
        return false;
    confd_cs_node **end = &module->first;
    while (*end != nullptr)
        end = &(*end)->next;
    *end = node;
    return true;
}

static void link_child(schema_entry_t *parent, confd_cs_node *node)
{
    node->parent = &parent->node;
    if (parent->last_child != nullptr)
        parent->last_child->next = node;
    else
        parent->node.children = node;
    parent->last_child = node;
}

static bool add_node(client_schema_t *schema, wire_schema_node_t &&from)
{
    if (from.parent > schema->nodes.size())
        return false;
    schema_entry_t *parent = from.parent > 0 ? &schema->nodes[from.parent - 1] : nullptr;
    schema->hashes.emplace(from.tag, from.name);
    schema_entry_t &entry = schema->nodes.emplace_back();
    confd_cs_node &node = entry.node;
    node.tag = from.tag;
    node.ns = from.ns;
    node.info.flags = flags_of(from.flags);
    node.info.shallow_type = static_cast<confd_vtype>(from.type);
    entry.names = std::move(from.names);
    node.info.names = !entry.names.empty() ? &entry.names : nullptr;
    entry.keys = std::move(from.keys);
    if (!entry.keys.empty()) {
        entry.keys.push_back(0);
        node.info.keys = entry.keys.data();
    }
    if (from.type == C_IDENTITYREF)
        for (const auto &[hash, name] : entry.names)
            schema->hashes.emplace(static_cast<uint32_t>(hash), name);
    if (parent == nullptr)
        return link_top(schema, &node);
    link_child(parent, &node);
    return true;
}

static bool read_schema(wire_reader_t &in, client_schema_t *schema)
{
    constexpr size_t MIN_NODE = 24; // an empty name, no keys and no labels
    if (!read_modules(in, schema))
        return false;
    for (uint32_t n = in.count(MIN_NODE); n > 0 && in.ok; n--) {
        wire_schema_node_t node;
        if (!wire_get_schema_node(in, node) || !add_node(schema, std::move(node)))
            return false;
    }
    return in.finished();
}

static int fetch(int sock, const sockaddr *srv, int srv_sz, std::string *reply)
{
    int result = confd_io_connect(sock, WIRE_KIND_SCHEMA, 0, srv, srv_sz, nullptr);
    if (result == CONFD_OK)
        result = confd_io_request(sock, WIRE_KIND_SCHEMA, WIRE_SCHEMA, {}, reply);
    confd_io_forget(sock);
    return result;
}

int confd_load_schemas(const struct sockaddr *srv, int srv_sz)
{
    static std::mutex mutex;
    std::lock_guard guard(mutex);
    if (loaded != nullptr)
        return CONFD_OK;
    int sock = socket(srv->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sock < 0)
        return confd_fail(CONFD_ERR_OS, "cannot make a socket: %s", strerror(errno));
    std::string reply;
    int result = fetch(sock, srv, srv_sz, &reply);
    (void)close(sock); // nothing is left to be said on it
    if (result != CONFD_OK)
        return result;

    auto schema = std::make_unique<client_schema_t>();
    wire_reader_t in(reply);
    if (!read_schema(in, schema.get()))
        return confd_fail_malformed(WIRE_SCHEMA);
    loaded = schema.release();
    return CONFD_OK;
}

// ---- looking up

static const client_schema_t &current()
{
    static const client_schema_t &empty = *new client_schema_t;
    const client_schema_t *schema = loaded;
    return schema != nullptr ? *schema : empty;
}

struct confd_cs_node *confd_find_cs_root(uint32_t ns)
{
    for (const module_t &module : current().modules)
        if (module.ns == ns)
            return module.first;
    return nullptr;
}

// Among siblings; ns 0 stands for any.
static confd_cs_node *find_among(confd_cs_node *first, uint32_t tag, uint32_t ns)
{
    for (confd_cs_node *node = first; node != nullptr; node = node->next)
        if (node->tag == tag && (ns == 0 || node->ns == ns))
            return node;
    return nullptr;
}

static confd_cs_node *find_top(uint32_t tag, uint32_t ns)
{
    for (const module_t &module : current().modules)
        if (confd_cs_node *node = find_among(module.first, tag, ns))
            return node;
    return nullptr;
}

static confd_cs_node *find_below(const confd_cs_node *parent, uint32_t tag, uint32_t ns)
{
    return parent != nullptr ? find_among(parent->children, tag, ns) : find_top(tag, ns);
}

struct confd_cs_node *confd_find_cs_node_child(const struct confd_cs_node *parent, struct xml_tag tag)
{
    return find_below(parent, tag.tag, tag.ns);
}

uint32_t confd_schema_prefix(std::string_view prefix)
{
    for (const module_t &module : current().modules)
        if (module.prefix == prefix || module.name == prefix)
            return module.ns;
    return 0;
}

const confd_cs_node *confd_schema_find(const confd_cs_node *start, const parsed_path_t &path)
{
    const confd_cs_node *node = path.is_absolute ? nullptr : start;
    for (const path_step_t &step : path.steps) {
        if (step.name == ".." && node != nullptr) {
            node = node->parent;
            continue;
        }
        uint32_t ns = confd_schema_prefix(step.prefix);
        if (ns == 0 && !step.prefix.empty())
            return nullptr;
        node = find_below(node, wire_hash(step.name), ns);
        if (node == nullptr)
            return nullptr;
    }
    return node;
}

const confd_cs_node *confd_schema_key(const confd_cs_node *list, size_t position)
{
    if (list == nullptr || list->info.keys == nullptr)
        return nullptr;
    for (size_t i = 0; i < position; i++)
        if (list->info.keys[i] == 0)
            return nullptr;
    return list->info.keys[position] != 0 ? find_among(list->children, list->info.keys[position], 0) : nullptr;
}

struct confd_cs_node *confd_cs_node_cd(const struct confd_cs_node *start, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    std::string text;
    bool ok = confd_format({}, fmt, args, &text);
    va_end(args);
    if (!ok)
        return nullptr;
    parsed_path_t path;
    const confd_cs_node *node = confd_parse_path(text, &path) ? confd_schema_find(start, path) : nullptr;
    if (node == nullptr)
        (void)confd_fail(CONFD_ERR_BADPATH, "no node %s in the data model", text.c_str());
    return const_cast<confd_cs_node *>(node); // nodes are the library's own, their opaque member is the user's
}

struct confd_cs_node *confd_find_cs_node(const confd_hkeypath_t *path, int len)
{
    confd_cs_node *node = nullptr;
    for (int i = 0; i < len && i < path->len; i++) {
        const confd_value_t &element = path->v[path->len - 1 - i][0];
        if (element.type != C_XMLTAG)
            continue;
        node = find_below(node, element.val.xmltag.tag, element.val.xmltag.ns);
        if (node == nullptr)
            return nullptr;
    }
    return node;
}

const char *confd_hash2str(uint32_t hash)
{
    auto found = current().hashes.find(hash);
    return found != current().hashes.end() ? found->second.c_str() : nullptr;
}

uint32_t confd_str2hash(const char *name)
{
    return wire_hash(name);
}

const char *confd_ns2prefix(uint32_t ns)
{
    for (const module_t &module : current().modules)
        if (module.ns == ns)
            return module.prefix.c_str();
    return nullptr;
}
