// Paths to nodes of the data model and to their instances: "/vpn/vpn-instance{5}/interface{ge0/1}/mtu".
//
// Prefixes are optional ("/vpn:vpn/..."); without one the first node may be of any module. Keys are quoted as
// wire_quote_key does. A leaf-list's value may stand in braces behind its name.
#ifndef AGENT_SERVER_PATH_H
#define AGENT_SERVER_PATH_H

#include "agent/server/ds_error.h"
#include "agent/server/schema.h"
#include "agent/server/value.h"
#include "agent/wire/wire.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

struct path_step_t {
    const schema_info_t *node = nullptr;
    std::vector<value_t> keys; // of a list entry, in the order of the model; of a leaf-list: its value. Empty: all
};

// No steps: the root.
struct path_t {
    std::vector<path_step_t> steps;

    [[nodiscard]] const schema_info_t *node() const { return steps.empty() ? nullptr : steps.back().node; }
};

enum path_form_t {
    PATH_INSTANCE, // every list has its keys
    PATH_LIST,     // as above, but the last step is a list (or leaf-list) without keys
    PATH_POINT,    // lists may go without keys anywhere: a subscription point
    PATH_SUBTREE,  // as PATH_INSTANCE, the last list may go without keys, and "/" or nothing is the root
};

// The leading slash may be left out. An ns that is not 0 is the hash of the first node's namespace. Errors are
// CONFD_ERR_BADPATH for a step that the model does not have or a wrong number of keys, CONFD_ERR_BADTYPE for a key that
// its type refuses; the text names the path and the step.
[[nodiscard]] bool path_parse(const schema_t &schema, std::string_view text, path_form_t form, path_t &path,
                              ds_error_t &error, uint32_t ns = 0);

// From a client's keypath; same errors.
[[nodiscard]] bool path_from_keypath(const schema_t &schema, const confd_hkeypath_t &keypath, path_form_t form,
                                     path_t &path, ds_error_t &error);

// The keys of an entry of the list (or a leaf-list's value) from a client; whatever keys the path's last step has do
// not matter. CONFD_ERR_BADTYPE for a wrong number of them or a value that the type refuses.
[[nodiscard]] bool path_keys(const schema_t &schema, const path_t &list, std::span<const confd_value_t> from,
                             std::vector<value_t> &keys, ds_error_t &error);

[[nodiscard]] std::string path_text(const path_t &path);

// As keypath.
void path_put(wire_writer_t &out, const path_t &path);

#endif
