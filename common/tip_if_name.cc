#include "common/tip_if_name.h"

#include "common/tip_text.h"

#include <cstdio>
#include <cstdlib>

namespace
{

bool starts_with(const char *text, const char *prefix)
{
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

// Reads a decimal number at *text, which must begin with mark, and moves *text behind it.
bool number_after(const char **text, const char *mark, int *number)
{
    if (!starts_with(*text, mark))
        return false;
    const char *digits = *text + strlen(mark);
    char *end;
    *number = static_cast<int>(strtol(digits, &end, 10));
    *text = end;
    return end != digits;
}

} // namespace

char *sim_name_from_ge(const char *name, char *out, size_t size)
{
    int slot;
    int port;
    int tag;
    bool has_tag = strchr(name, '.') != nullptr;
    if (!number_after(&name, "ge", &slot) || !number_after(&name, "_", &port))
        return nullptr;
    if (has_tag && !number_after(&name, ".", &tag))
        return nullptr;
    char text[64];
    int length = has_tag ? snprintf(text, sizeof text, "sim%d_%d.%d", slot, port, tag)
                         : snprintf(text, sizeof text, "sim%d_%d", slot, port);
    if (static_cast<size_t>(length) >= size)
        return nullptr;
    (void)strlcpy(out, text, size);
    return out;
}

bool if_name_is_phys(const char *name)
{
    return strchr(name, '.') == nullptr && !if_name_is_system(name) && !starts_with(name, "system");
}

bool if_name_is_system(const char *name)
{
    return starts_with(name, "loopback") || starts_with(name, "natpool");
}

bool if_name_is_loop(const char *name)
{
    return strstr(name, "loop") != nullptr && strstr(name, "loopback") == nullptr;
}
