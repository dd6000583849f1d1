// Pid files: paths and their one reader.
#include "common/tip_pid.h"

#include "common/tip_assert.h"
#include "common/tip_file.h"
#include "common/tip_handle.h"
#include "common/tip_root.h"
#include "common/tip_text.h"

#include <cerrno>
#include <fcntl.h>

namespace
{

tip_path_t daemon_pid_path(const char *name, uint64_t id)
{
    return tip_path("%s/%s.%lu.pid", TIP_RUN_DIR, name, id);
}

tip_path_t quagga_path(const char *name, uint64_t vpn_id)
{
    if (vpn_id == 0)
        return tip_path("%s/%s.pid", TIP_QUAGGA_RUN_DIR, name);
    return tip_path("%s/%s.pid.%lu", TIP_QUAGGA_RUN_DIR, name, vpn_id);
}

} // namespace

int daemon_pid_file_create(const char *name, uint64_t id, pid_t pid)
{
    tip_path_t path = daemon_pid_path(name, id);
    if (unique_fd(open(path.text, O_RDONLY | O_CLOEXEC)).is_open())
        return DAEMON_PID_EXISTS;
    unique_fd fd(open(path.text, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd.is_open())
        return DAEMON_PID_FAILED;
    return dprintf(fd.get(), "%d\n", pid) > 0 ? DAEMON_PID_OK : DAEMON_PID_FAILED;
}

void daemon_pid_file_remove(const char *name, uint64_t id)
{
    (void)unlink(daemon_pid_path(name, id).text); // a file that is gone already is what the caller wants
}

pid_t daemon_pid_read(const char *name, uint64_t id, int *error)
{
    long pid = 0;
    if (file_read_number(daemon_pid_path(name, id).text, 10, &pid) != -1)
        return static_cast<pid_t>(pid);
    if (error != nullptr)
        *error = errno;
    return -1;
}

const char *quagga_pid_path(const char *name, uint64_t vpn_id, char *buffer, size_t size)
{
    (void)strlcpy(buffer, quagga_path(name, vpn_id).text, size);
    return buffer;
}

pid_t quagga_pid_read(const char *name, uint64_t vpn_id)
{
    long pid = 0;
    int result = file_read_number(quagga_path(name, vpn_id).text, 10, &pid);
    tip_assert_text(result != -1, "0");
    return static_cast<pid_t>(pid);
}

int quagga_pid_remove(const char *name, uint64_t vpn_id)
{
    return remove(quagga_path(name, vpn_id).text);
}
