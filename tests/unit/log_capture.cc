#include "tests/unit/log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace
{

// Never destroyed: a thread that a test has left behind may log while the process ends.
std::mutex &lock = *new std::mutex;
std::vector<std::string> &lines = *new std::vector<std::string>;
bool is_echoed;

void keep(const char *format, va_list arguments)
{
    char text[4096];
    vsnprintf(text, sizeof text, format, arguments);
    std::lock_guard guard(lock);
    lines.push_back(text);
    if (is_echoed)
        printf("%s\n", text);
}

} // namespace

extern "C" {

void syslog(int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    keep(format, arguments);
    va_end(arguments);
}

// What syslog becomes in a build with _FORTIFY_SOURCE.
void __syslog_chk(int, int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    keep(format, arguments);
    va_end(arguments);
}

} // extern "C"

std::vector<std::string> log_lines()
{
    std::lock_guard guard(lock);
    return lines;
}

void log_clear()
{
    std::lock_guard guard(lock);
    lines.clear();
}

int log_count(const std::string &text)
{
    int count = 0;
    for (const std::string &line : log_lines())
        count += line.find(text) != std::string::npos;
    return count;
}

void log_echo(bool on)
{
    is_echoed = on;
}
