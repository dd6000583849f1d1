#include "common/tip_sv.h"

#include "common/tip_file.h"
#include "common/tip_handle.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>

int sv_dir_create(const char *directory, const char *run, const char *finish)
{
    if (run == nullptr)
        return SV_NO_RUN_TEXT;
    if (mkdir(directory, 0755) != 0 && errno != EEXIST)
        return -1;
    std::string base(directory);
    int result = file_write_all((base + "/run").c_str(), run, strlen(run));
    if (result != FILE_OK || finish == nullptr)
        return result;
    return file_write_all((base + "/finish").c_str(), finish, strlen(finish));
}

int sv_control(const char *directory, char command)
{
    int fd = open((std::string(directory) + "/supervise/control").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return fd;
    unique_fd owner(fd);
    ssize_t written = write(fd, &command, 1);
    int error = errno;
    owner.reset();
    errno = error;
    return written == 1 ? 1 : FILE_SHORT_WRITE;
}
