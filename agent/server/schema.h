// The data model: all modules of a folder, compiled once and never changed, with what the agent needs to know of each
// node hung on the node itself (priv of lysc_node).
//
// Choices and cases are transparent: a node's parent and children here are data nodes, rpcs, actions and notifications
// only. A node's tag is the hash of its name alone, a namespace's hash that of its URI; two names (or two namespaces)
// with one hash refuse the load.
#ifndef AGENT_SERVER_SCHEMA_H
#define AGENT_SERVER_SCHEMA_H

#include "agent/server/ds_error.h"
#include "agent/wire/wire.h"

#include <cstdint>
#include <deque>
#include <libyang/libyang.h>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

// An extension statement below a node, such as a callpoint. Extensions are known by their name alone.
struct schema_statement_t {
    std::string name;
    std::string argument;
};

// A must, when or leafref that looks at a node: what has to be checked again when the node changes.
struct schema_dependent_t {
    enum kind_t : uint8_t {
        MUST,
        WHEN,
        LEAFREF
    } kind;
    const struct schema_info_t *owner; // the node that carries the rule
    const struct schema_info_t *top; // no instance outside the same instance of top is concerned; null: the whole tree
};

struct schema_info_t {
    const lysc_node *node = nullptr;
    const schema_info_t *parent = nullptr; // null for a top-level node
    uint32_t index = 0;                    // 1-based, parents before children; the wire's numbering
    uint32_t order = 0;                    // position among all nodes of the schema in the order of the model
    uint32_t tag = 0;
    uint32_t ns = 0;
    uint16_t flags = 0; // wire_node_flag_t
    uint8_t type = 0;   // as in wire_schema_node_t
    uint8_t depth = 0;  // 1 for a top-level node
    std::vector<const schema_info_t *> keys;
    std::vector<const schema_info_t *> children; // in the order of the model, augmented ones behind
    std::vector<schema_statement_t> statements;
    std::vector<schema_dependent_t> dependents;
    bool is_user_ordered = false;
    const std::string *callpoint = nullptr; // whose callbacks serve this operational node; null: it is no provider's
    bool has_operational = false;           // it, or something below it, is operational data
    bool has_provided = false;              // likewise, of a provider

    [[nodiscard]] const char *name() const { return node->name; }
    [[nodiscard]] bool is(uint16_t any_of) const { return (flags & any_of) != 0; }
};

struct schema_module_t {
    const lys_module *module = nullptr;
    uint32_t ns = 0;
    std::vector<const schema_info_t *> tops;
};

struct ly_ctx_deleter {
    void operator()(ly_ctx *ctx) const { ly_ctx_destroy(ctx); }
};

struct schema_t {
    std::unique_ptr<ly_ctx, ly_ctx_deleter> ctx;
    std::deque<schema_info_t> nodes;                 // by index - 1
    std::vector<schema_module_t> modules;            // implemented ones
    std::unordered_map<uint32_t, std::string> names; // of all tags, namespaces' URIs and identities by hash
    std::unordered_map<std::string_view, const schema_info_t *> mib_leaves; // by mib-name, the first of each
};

// Loads and compiles every .yang file of the folder with all features; imports are also looked for in search_dirs.
// Null, with the reason, when a module has an error or two names have one hash.
[[nodiscard]] std::unique_ptr<schema_t> schema_load(const std::string &dir, const std::vector<std::string> &search_dirs,
                                                    ds_error_t &error);

// Null for a node that is not ours to know (of an extension, of a module that is only imported).
[[nodiscard]] inline const schema_info_t *schema_info(const lysc_node *node)
{
    return node ? static_cast<const schema_info_t *>(node->priv) : nullptr;
}

// A child by name; parent null: a top-level node of any module. A prefix (or module name) that is not empty has to be
// that of the child's module, an ns that is not 0 its namespace's hash. Null when there is none.
[[nodiscard]] const schema_info_t *schema_find(const schema_t &schema, const schema_info_t *parent,
                                               std::string_view name, std::string_view prefix = {}, uint32_t ns = 0);
// As above, by tag.
[[nodiscard]] const schema_info_t *schema_find_tag(const schema_t &schema, const schema_info_t *parent, uint32_t tag,
                                                   uint32_t ns = 0);

// The name, URI or identity with this hash; null when none has it.
[[nodiscard]] const std::string *schema_hash_name(const schema_t &schema, uint32_t hash);

// The argument of the node's own statement of this name; null when it has none.
[[nodiscard]] const std::string *schema_statement(const schema_info_t &node, std::string_view name);

// The leaf whose values the variable of this mib-name carries; null when the model does not say.
[[nodiscard]] const schema_info_t *schema_find_mib_leaf(const schema_t &schema, std::string_view name);

// True when a statement of this name with this argument stands at any node or module: what a registration is for.
[[nodiscard]] bool schema_has_statement(const schema_t &schema, std::string_view name, std::string_view argument);

// "/vpn/vpn-instance/interface", without prefixes and keys.
[[nodiscard]] std::string schema_path(const schema_info_t &node);

// The reply to WIRE_SCHEMA.
void schema_put_listing(const schema_t &schema, wire_writer_t &out);

#endif
