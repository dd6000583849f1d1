// Objects that providers have told in one transaction, for as long as they allow, by the path of their instance.
//
// Bounded: the oldest go first. What is found here is fresh.
#ifndef AGENT_SERVER_PROVIDER_CACHE_H
#define AGENT_SERVER_PROVIDER_CACHE_H

#include "agent/server/provider_object.h"

#include <cstddef>
#include <list>
#include <string>
#include <unordered_map>

inline constexpr size_t PROVIDER_CACHE_OBJECTS = 4096;
inline constexpr size_t PROVIDER_CACHE_BYTES = 8u << 20;

struct provider_cache_row_t {
    std::string path;
    provider_object_ref object;
};

struct provider_cache_t {
    std::list<provider_cache_row_t> rows;                                                    // oldest first
    std::unordered_map<std::string_view, std::list<provider_cache_row_t>::iterator> by_path; // views into the rows
    size_t bytes = 0;
};

// Null when there is none, or it is past its time.
[[nodiscard]] provider_object_ref provider_cache_find(provider_cache_t &cache, const std::string &path, double now_ms);

// In place of what was there.
void provider_cache_put(provider_cache_t &cache, std::string path, provider_object_ref object);

#endif
