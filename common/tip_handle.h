// Owners of what C libraries hand out. Raw close and free calls appear nowhere else.
#ifndef COMMON_TIP_HANDLE_H
#define COMMON_TIP_HANDLE_H

#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <utility>

// A file descriptor; -1 means none.
class unique_fd
{
public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
    unique_fd &operator=(unique_fd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    ~unique_fd() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool is_open() const { return fd_ >= 0; }
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

struct file_closer {
    void operator()(FILE *file) const { fclose(file); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

struct dir_closer {
    void operator()(DIR *dir) const { closedir(dir); }
};
using dir_ptr = std::unique_ptr<DIR, dir_closer>;

struct malloc_freer {
    void operator()(void *memory) const { free(memory); }
};
template <typename T> using malloc_ptr = std::unique_ptr<T, malloc_freer>;

#endif
