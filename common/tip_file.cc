// Whole files and directories, read, written, compared and removed.
#include "common/tip_file.h"

#include "common/tip_handle.h"
#include "common/tip_log.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>

namespace
{

constexpr size_t NUMBER_FILE_SIZE = 64;

// At most size - 1 bytes of the file, terminated; the count, or -1 with errno.
ssize_t read_text(const char *path, char *text, size_t size)
{
    unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.is_open())
        return -1;
    ssize_t got = read(fd.get(), text, size - 1);
    if (got >= 0)
        text[got] = '\0';
    return got;
}

bool is_dot_name(const char *name)
{
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

const char *outcome(int result)
{
    return result == 0 ? "ok" : strerror(errno);
}

int remove_logged(const char *path)
{
    int result = remove(path);
    tip_log("remove(%s) : %s\n", path, outcome(result));
    return result;
}

int remove_entry(const char *path)
{
    struct stat info;
    int result = stat(path, &info);
    if (result == 0 && S_ISDIR(info.st_mode))
        result = nukedir(path);
    return result == 0 ? remove_logged(path) : result;
}

} // namespace

int file_write_all(const char *path, const void *buffer, size_t length)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0755);
    if (fd < 0)
        return fd;
    unique_fd owner(fd);
    ssize_t written = write(fd, buffer, length);
    int error = errno;
    owner.reset();
    errno = error;
    if (written < 0)
        return static_cast<int>(written);
    return static_cast<size_t>(written) == length ? FILE_OK : FILE_SHORT_WRITE;
}

int file_read_number(const char *path, int base, long *out)
{
    char text[NUMBER_FILE_SIZE];
    if (read_text(path, text, sizeof text) < 0)
        return -1;
    char *end;
    long number = strtol(text, &end, base);
    if (end == text)
        return -2;
    *out = number;
    return 0;
}

int file_read_line(const char *path, char *line, size_t size)
{
    if (read_text(path, line, size) < 0)
        return -1;
    line[strcspn(line, "\n")] = '\0';
    return 0;
}

int file_compare(const char *path1, const char *path2)
{
    file_ptr file1(fopen(path1, "re"));
    file_ptr file2(fopen(path2, "re"));
    if (file1 == nullptr || file2 == nullptr)
        return file1 == nullptr && file2 == nullptr ? 0 : -1;
    for (;;) {
        int byte1 = getc(file1.get());
        int byte2 = getc(file2.get());
        if (byte1 != byte2)
            return -1;
        if (byte1 == EOF)
            return 0;
    }
}

int nukedir(const char *path)
{
    dir_ptr dir(opendir(path));
    tip_log("opendir(%s) : %s", path, outcome(dir != nullptr ? 0 : -1));
    if (dir == nullptr)
        return -1;
    int result = 0;
    for (dirent *entry; result == 0 && (entry = readdir(dir.get())) != nullptr;)
        if (!is_dot_name(entry->d_name))
            result = remove_entry((std::string(path) + "/" + entry->d_name).c_str());
    tip_log("closedir(%s)", path);
    return result;
}

int dir_clear(const char *path, int remove_top)
{
    int result = nukedir(path);
    return result == 0 && remove_top == 1 ? remove(path) : result;
}

int dir_is_empty(const char *path)
{
    dir_ptr dir(opendir(path));
    if (dir == nullptr)
        return 0;
    int entries = 0;
    while (entries < 3 && readdir(dir.get()) != nullptr)
        entries++;
    return entries < 3 ? 1 : 0;
}
