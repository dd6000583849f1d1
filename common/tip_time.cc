// Local times and durations as text. Formats are spelled out at each call, so that the compiler checks them.
#include "common/tip_time.h"

#include "common/tip_text.h"

#include <cstdio>

namespace
{

constexpr int64_t MINUTE = 60;
constexpr int64_t HOUR = 60 * MINUTE;
constexpr int64_t DAY = 24 * HOUR;
constexpr int64_t YEAR = 365 * DAY;

int failed(char *buffer, size_t size, int result)
{
    if (size > 0)
        buffer[0] = '\0';
    return result;
}

// Judges what strftime gave; a buffer that it refused holds anything.
int formatted(char *buffer, size_t size, size_t length)
{
    return length > 0 ? TIME_ISO_OK : failed(buffer, size, TIME_ISO_NO_ROOM);
}

} // namespace

char *time_now_short(char *buffer, size_t size)
{
    tm local;
    time_t now = time(nullptr);
    if (now == 0 || localtime_r(&now, &local) == nullptr)
        (void)failed(buffer, size, TIME_ISO_NO_LOCALTIME);
    else
        (void)formatted(buffer, size, strftime(buffer, size, "%b %d %T", &local));
    return buffer;
}

const char *time_now_str()
{
    static char text[TIME_TEXT_SIZE];
    return time_to_str(time(nullptr), text);
}

char *time_to_str(time_t seconds, char *buffer)
{
    tm local;
    if (localtime_r(&seconds, &local) == nullptr)
        (void)failed(buffer, TIME_TEXT_SIZE, TIME_ISO_NO_LOCALTIME);
    else
        (void)formatted(buffer, TIME_TEXT_SIZE, strftime(buffer, TIME_TEXT_SIZE, "%a %b %d %H:%M:%S %Z %G", &local));
    return buffer;
}

char *time_uptime_str(time_t start, char *buffer)
{
    return time_duration_str(time(nullptr) - start, buffer);
}

char *time_duration_str(int64_t seconds, char *buffer)
{
    int years = static_cast<int>(seconds / YEAR);
    int days = static_cast<int>(seconds % YEAR / DAY);
    int hours = static_cast<int>(seconds % DAY / HOUR);
    int minutes = static_cast<int>(seconds % HOUR / MINUTE);
    int rest = static_cast<int>(seconds % MINUTE);
    if (years != 0)
        (void)snprintf(buffer, TIME_DURATION_SIZE, "%dy %d:%02d:%02d:%02d", years, days, hours, minutes, rest);
    else
        (void)snprintf(buffer, TIME_DURATION_SIZE, "%d:%02d:%02d:%02d", days, hours, minutes, rest);
    return buffer;
}

char *time_ctime_str(time_t seconds, char *buffer)
{
    char text[TIME_CTIME_SIZE];
    if (ctime_r(&seconds, text) == nullptr)
        text[0] = '\0';
    text[strcspn(text, "\n")] = '\0';
    (void)strlcpy(buffer, text, TIME_CTIME_SIZE);
    return buffer;
}

int time_iso_str(char *buffer, size_t size, time_t seconds)
{
    tm local;
    tzset();
    if (localtime_r(&seconds, &local) == nullptr)
        return failed(buffer, size, TIME_ISO_NO_LOCALTIME);
    return formatted(buffer, size, strftime(buffer, size, "%FT%T", &local));
}

int time_iso_zone_str(char *buffer, size_t size, time_t seconds)
{
    tm local;
    tzset();
    if (localtime_r(&seconds, &local) == nullptr)
        return failed(buffer, size, TIME_ISO_NO_LOCALTIME);
    return formatted(buffer, size, strftime(buffer, size, "%FT%T%z", &local));
}

uint64_t msecs_to_next_boundary(uint64_t period_ms)
{
    if (period_ms == 0)
        return 0;
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock
    auto now_ms = static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
    return period_ms - now_ms % period_ms;
}
