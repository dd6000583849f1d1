#include "agent/server/provider_cache.h"

static size_t size_of(const provider_cache_row_t &row)
{
    return row.path.size() + row.object->bytes;
}

static void drop(provider_cache_t &cache, std::list<provider_cache_row_t>::iterator row)
{
    cache.bytes -= size_of(*row);
    cache.by_path.erase(row->path);
    cache.rows.erase(row);
}

provider_object_ref provider_cache_find(provider_cache_t &cache, const std::string &path, double now_ms)
{
    auto found = cache.by_path.find(path);
    if (found == cache.by_path.end())
        return nullptr;
    provider_object_ref object = found->second->object;
    if (object->expires_ms > now_ms)
        return object;
    drop(cache, found->second);
    return nullptr;
}

void provider_cache_put(provider_cache_t &cache, std::string path, provider_object_ref object)
{
    auto found = cache.by_path.find(path);
    if (found != cache.by_path.end())
        drop(cache, found->second);
    cache.rows.push_back({ std::move(path), std::move(object) });
    auto row = std::prev(cache.rows.end());
    cache.by_path.emplace(row->path, row);
    cache.bytes += size_of(*row);
    while (cache.rows.size() > PROVIDER_CACHE_OBJECTS || cache.bytes > PROVIDER_CACHE_BYTES)
        drop(cache, cache.rows.begin());
}
