// The system's assertion: what should not happen ends the process at the place where it is noticed.
//
// A failed assertion prints one line to standard output, stores through a null pointer and, should the store not
// fault, calls exit(0). The system manager restarts the daemon, and its full read of the configuration is the
// recovery. Sanitizer builds leave the store out, so that the tool's own report is not replaced by a crash.
#ifndef COMMON_TIP_ASSERT_H
#define COMMON_TIP_ASSERT_H

// Prints "SOURCE:LINE: failed assertion `CONDITION'" and ends the process. source may end in ".cc", which is not
// printed.
[[noreturn]] void tip_assert_fail(const char *source, unsigned line, const char *condition) noexcept;

// Prints "SOURCE:LINE: failed aborted " and ends the process in the same way. The process-wide abort() does this.
[[noreturn]] void tip_abort_fail(const char *source, unsigned line) noexcept;

#define tip_assert(cond) (__builtin_expect(!!(cond), 1) ? (void)0 : tip_assert_fail(__FILE_NAME__, __LINE__, #cond))

// As tip_assert, with a condition text that is fixed whatever the expression looks like.
#define tip_assert_text(cond, text)                                                                                    \
    (__builtin_expect(!!(cond), 1) ? (void)0 : tip_assert_fail(__FILE_NAME__, __LINE__, text))

// As tip_assert, where the printed source name and line are fixed.
#define tip_assert_at(source, line, cond)                                                                              \
    (__builtin_expect(!!(cond), 1) ? (void)0 : tip_assert_fail(source, line, #cond))

#define tip_assert_text_at(source, line, cond, text)                                                                   \
    (__builtin_expect(!!(cond), 1) ? (void)0 : tip_assert_fail(source, line, text))

#endif
