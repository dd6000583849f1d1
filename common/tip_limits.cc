#include "common/tip_limits.h"

#include "common/tip_assert.h"
#include "common/tip_handle.h"
#include "common/tip_root.h"

namespace
{

int set_both(__rlimit_resource_t resource, rlim_t value)
{
    rlimit limit;
    if (getrlimit(resource, &limit) != 0)
        return -1;
    limit.rlim_cur = value;
    limit.rlim_max = value;
    return setrlimit(resource, &limit);
}

} // namespace

int rlimit_set_nofile(rlim_t value)
{
    return set_both(RLIMIT_NOFILE, value);
}

int rlimit_set_core(rlim_t value)
{
    return set_both(RLIMIT_CORE, value);
}

int rlimit_unlimited_nofile()
{
    return rlimit_set_nofile(RLIM_INFINITY);
}

int rlimit_unlimited_core()
{
    return rlimit_set_core(RLIM_INFINITY);
}

void core_filter_set()
{
    file_ptr file(fopen(tip_path("%s", TIP_COREDUMP_FILTER).text, "we"));
    tip_assert_text(file != nullptr, "file != NULL");
    (void)fputs("0x7F\n", file.get()); // a kernel without this filter dumps by its default
}
