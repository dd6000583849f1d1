#include "common/tip_root.h"

#include "common/tip_text.h"

#include <cstdarg>
#include <cstdio>

namespace
{

char root_dir[PATH_MAX];

} // namespace

int tip_root_set(const char *root)
{
    if (strlcpy(root_dir, root, sizeof root_dir) < sizeof root_dir)
        return 0;
    root_dir[0] = '\0';
    return -1;
}

tip_path_t tip_path(const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    tip_path_t path;
    size_t used = strlcpy(path.text, root_dir, sizeof path.text);
    int written = vsnprintf(path.text + used, sizeof path.text - used, fmt, args);
    va_end(args);
    if (written < 0 || used + static_cast<size_t>(written) >= sizeof path.text)
        path.text[0] = '\0';
    return path;
}
