// What the callbacks of data providers answer, read from the bytes of their frames and checked against the model.
//
// An object is what a provider tells of one list entry or container at once: leaves, leaf-lists and the containers
// between them, but no entries of lists below, which are asked for by themselves. Nothing here trusts a provider.
#ifndef AGENT_SERVER_PROVIDER_OBJECT_H
#define AGENT_SERVER_PROVIDER_OBJECT_H

#include "agent/server/datastore.h"
#include "agent/server/schema.h"
#include "agent/server/value.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

inline constexpr size_t PROVIDER_MAX_OBJECTS = 65536; // in one answer

struct provider_item_t {
    const schema_info_t *node;
    std::vector<value_t> values; // of a leaf one, of a leaf-list its own; a container with presence has none
};

struct provider_object_t {
    entry_keys_t keys; // of a list entry
    std::vector<provider_item_t> items;
    bool is_whole = true;                      // false: only the keys are known
    bool is_last = false;                      // no entry follows
    int64_t next = -1;                         // where the provider goes on behind it; -1: by its keys
    double expires_ms = 0;                     // monotonic
    size_t bytes = 0;                          // of memory, about
    std::weak_ptr<provider_object_t> follower; // the entry behind it, while somebody keeps that
};
using provider_object_ref = std::shared_ptr<provider_object_t>;

// The item of a node; null when the object has none.
[[nodiscard]] const provider_item_t *provider_find_item(const provider_object_t &object, const schema_info_t &node);

// What is wrong with an answer.
struct provider_fault_t {
    std::string text;
    bool is_unreadable = false; // the frame itself: nothing of that client can be trusted any more
};

struct provider_objects_t {
    uint32_t timeout_ms = 0; // 0: the agent's
    bool at_end = false;
    std::vector<provider_object_ref> objects;
};

// Objects of a list's entries or (one) of a container; an object without values is the end of the list. asked: the keys
// of the one entry that was asked for; its object may leave them out.
[[nodiscard]] bool provider_parse_objects(const schema_t &schema, const schema_info_t &node,
                                          std::span<const value_t> asked, std::string_view payload,
                                          provider_objects_t &answer, provider_fault_t &fault);

// Values of a leaf or leaf-list; none: not found.
[[nodiscard]] bool provider_parse_value(const schema_t &schema, const schema_info_t &node, std::string_view payload,
                                        std::vector<value_t> &values, provider_fault_t &fault);

[[nodiscard]] bool provider_parse_found(std::string_view payload, bool &is_found, provider_fault_t &fault);

// The keys of a list's next entry, as an object that is not whole; null at the end of the list.
[[nodiscard]] bool provider_parse_next(const schema_t &schema, const schema_info_t &list, std::string_view payload,
                                       provider_object_ref &object, provider_fault_t &fault);

[[nodiscard]] bool provider_equal_keys(std::span<const value_t> a, std::span<const value_t> b);

// "{5 ge0/1}"
[[nodiscard]] std::string provider_keys_text(std::span<const value_t> keys);

#endif
