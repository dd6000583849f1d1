// The files below /var/run by which a platform program makes itself known, and how its other files are written. Below
// the root of common/tip_root.h.
#ifndef PLATFORM_RUN_FILES_H
#define PLATFORM_RUN_FILES_H

#include <string>
#include <string_view>
#include <sys/types.h>

// True when pid is a live process whose name (comm of proc(5), 15 characters) is that of the program, given as a path
// or a plain name.
[[nodiscard]] bool process_is(pid_t pid, std::string_view program);

// The process, other than the caller, that the pid file of daemon `name` stands for, as far as it lives and runs
// program; else 0.
[[nodiscard]] pid_t pid_file_live(const char *name, std::string_view program);

// Writes the pid file anew, whatever was there. False, logged, when it cannot be written.
bool pid_file_write(const char *name, pid_t pid);

// Puts text in the place of a file: readers see the old or the new one, never a part. False, logged.
bool file_replace(const std::string &path, std::string_view text);

// Whole text of a small file, at most max bytes; empty when it cannot be read or is larger.
[[nodiscard]] std::string file_text(const std::string &path, size_t max);

#endif
