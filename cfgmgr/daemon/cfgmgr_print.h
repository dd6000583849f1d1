// Where the operator's dumps go: a session of the agent's CLI, or a test.
#ifndef CFGMGR_DAEMON_CFGMGR_PRINT_H
#define CFGMGR_DAEMON_CFGMGR_PRINT_H

#include <cstdarg>
#include <cstdio>

struct cfgmgr_printer_t {
    void (*write)(void *arg, const char *text);
    void *arg;

    // One piece of text, cut at 511 characters.
    __attribute__((format(printf, 2, 3))) void print(const char *format, ...) const
    {
        char text[512];
        va_list values;
        va_start(values, format);
        (void)vsnprintf(text, sizeof text, format, values);
        va_end(values);
        write(arg, text);
    }
};

#endif
