#include "common/tip_assert.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TIP_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TIP_SANITIZED 1
#endif
#endif

namespace
{

// Without ".cc": a source is known by its stem, a header by its whole name.
int stem_length(const char *source)
{
    const char *dot = strrchr(source, '.');
    bool is_source = dot != nullptr && strcmp(dot, ".cc") == 0;
    return static_cast<int>(is_source ? dot - source : static_cast<ptrdiff_t>(strlen(source)));
}

[[noreturn]] void die()
{
    fflush(stdout);
#ifndef TIP_SANITIZED
    volatile int *volatile nowhere = nullptr; // the store too: a compiler may drop a plain one before exit()
    *nowhere = 0;
#endif
    exit(0);
}

} // namespace

void tip_assert_fail(const char *source, unsigned line, const char *condition) noexcept
{
    printf("%.*s:%u: failed assertion `%s'\n", stem_length(source), source, line, condition);
    die();
}

void tip_abort_fail(const char *source, unsigned line) noexcept
{
    printf("%.*s:%u: failed aborted \n", stem_length(source), source, line);
    die();
}

#ifndef TIP_SANITIZED
// Faults that a library detects leave their core at the same kind of place as an assertion.
extern "C" void abort() noexcept
{
    tip_abort_fail(__FILE_NAME__, __LINE__);
}
#endif
