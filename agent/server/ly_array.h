// libyang's sized arrays: how many items, without its macros, which cast const away.
#ifndef AGENT_SERVER_LY_ARRAY_H
#define AGENT_SERVER_LY_ARRAY_H

#include <cstddef>
#include <libyang/libyang.h>

// The count stands in front of the first item; null is an empty array.
template <typename T> [[nodiscard]] size_t ly_count(const T *items)
{
    return items ? static_cast<size_t>(*(reinterpret_cast<const LY_ARRAY_COUNT_TYPE *>(items) - 1)) : 0;
}

#endif
