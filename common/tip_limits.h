// Limits of the process, and what its core dumps hold.
#ifndef COMMON_TIP_LIMITS_H
#define COMMON_TIP_LIMITS_H

#include <sys/resource.h>

// Set both the soft and the hard limit. 0, or -1 with errno (EPERM: raising a hard limit needs privilege).
int rlimit_set_nofile(rlim_t value);
int rlimit_set_core(rlim_t value);
int rlimit_unlimited_nofile();
int rlimit_unlimited_core();

// Makes core dumps hold all kinds of memory (0x7F in core(5)'s filter); a filter that cannot be opened is an assertion.
void core_filter_set();

#endif
