#include "platform/run_files.h"

#include "common/tip_file.h"
#include "common/tip_handle.h"
#include "common/tip_log.h"
#include "common/tip_pid.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace
{

constexpr size_t COMM_MAX = 15; // characters that the kernel keeps

} // namespace

bool process_is(pid_t pid, std::string_view program)
{
    char comm[COMM_MAX + 2];
    std::string path = "/proc/" + std::to_string(pid) + "/comm";
    if (pid <= 0 || file_read_line(path.c_str(), comm, sizeof comm) != 0)
        return false;
    std::string_view name = program.substr(program.rfind('/') + 1); // npos + 1 is 0: the whole
    return name.substr(0, COMM_MAX) == comm;
}

pid_t pid_file_live(const char *name, std::string_view program)
{
    pid_t pid = daemon_pid_read(name, 0, nullptr);
    return pid != getpid() && process_is(pid, program) ? pid : 0; // an old file may hold the number that is now ours
}

bool pid_file_write(const char *name, pid_t pid)
{
    daemon_pid_file_remove(name, 0);
    if (daemon_pid_file_create(name, 0, pid) == DAEMON_PID_OK)
        return true;
    tip_log("Cannot write the pid file of %s: %s; is /var/run there, writable and not full?", name, strerror(errno));
    return false;
}

bool file_replace(const std::string &path, std::string_view text)
{
    std::string fresh = path + ".new";
    (void)unlink(fresh.c_str()); // what an interrupted write has left
    if (file_write_all(fresh.c_str(), text.data(), text.size()) == FILE_OK && chmod(fresh.c_str(), 0644) == 0 &&
        rename(fresh.c_str(), path.c_str()) == 0)
        return true;
    tip_log("Cannot write %s: %s; is its folder there, writable and not full?", path.c_str(), strerror(errno));
    return false;
}

std::string file_text(const std::string &path, size_t max)
{
    unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text(max + 1, '\0');
    size_t size = 0;
    ssize_t got = 0;
    while (fd.is_open() && size < text.size() && (got = read(fd.get(), &text[size], text.size() - size)) > 0)
        size += static_cast<size_t>(got);
    text.resize(size > max ? 0 : size);
    return text;
}
