// Small whole-file and whole-directory operations.
#ifndef COMMON_TIP_FILE_H
#define COMMON_TIP_FILE_H

#include <cstddef>

enum file_result_t {
    FILE_OK = 0,
    FILE_SHORT_WRITE = -5,
};

// Opens path for writing (created with mode 0755) and writes length bytes with one write(2). A longer file that is there
// already keeps its tail: generated files are written under a new name and renamed. Gives 0, the negative result of
// open or write with errno of that call, or FILE_SHORT_WRITE.
[[nodiscard]] int file_write_all(const char *path, const void *buffer, size_t length);

// Reads the first number of a small text file in the given base (as strtol(3)). 0; -1 when the file cannot be read, with
// errno; -2 when it does not begin with a number.
[[nodiscard]] int file_read_number(const char *path, int base, long *out);

// Reads the first line of a file, without its newline, cut to size. 0, or -1 when the file cannot be read.
[[nodiscard]] int file_read_line(const char *path, char *line, size_t size);

// 0 when both files hold the same bytes or both are missing; -1 when they differ or one is missing.
[[nodiscard]] int file_compare(const char *path1, const char *path2);

// Removes all that path holds, recursively, and logs each step; the directory itself stays. An entry is judged by
// stat(2): a link to a directory counts as that directory, whose contents go as well, and a link to nothing is a
// failure. Stops at the first failure. 0, or the negative result of the call that failed; the log tells its error.
[[nodiscard]] int nukedir(const char *path);

// nukedir, and then the removal of path itself when remove_top is 1.
[[nodiscard]] int dir_clear(const char *path, int remove_top);

// 1 when path holds nothing; 0 when it holds something or cannot be opened.
[[nodiscard]] int dir_is_empty(const char *path);

#endif
