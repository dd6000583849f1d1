// Writes of configuration into a transaction of the agent.

#include "cfgmgr/daemon/cfgmgr_confd_write.h"

#include "common/tip_log.h"

#include <cstdarg>
#include <cstdio>

namespace
{

constexpr size_t PATH_SIZE = 512;

} // namespace

int cfgmgr_confd_write_text(const confd_write_t &to, const confd_text_row_t &row)
{
    int result = maapi_set_elem2(to.sock, to.th, row.value, "%s", row.path);
    if (result != CONFD_OK)
        cfgmgr_confd_log_failure(result, "Failed to set %s", row.path);
    return result;
}

int cfgmgr_confd_write_create(const confd_write_t &to, const char *fmt, ...)
{
    char path[PATH_SIZE];
    va_list args;
    va_start(args, fmt);
    (void)vsnprintf(path, sizeof path, fmt, args); // a path that is cut is none, and the agent says so
    va_end(args);
    int result = maapi_create(to.sock, to.th, "%s", path);
    if (result == CONFD_OK || confd_errno == CONFD_ERR_ALREADY_EXISTS)
        return CONFD_OK;
    cfgmgr_confd_log_failure(result, "Failed to create %s", path);
    return result;
}
