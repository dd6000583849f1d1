// Times and durations as text, and the distance to the next multiple of a period.
//
// Times are seconds since the epoch, shown in local time. Writers give the buffer back; one that cannot format leaves
// it empty.
#ifndef COMMON_TIP_TIME_H
#define COMMON_TIP_TIME_H

#include <cstddef>
#include <cstdint>
#include <ctime>

// Sizes of the buffers whose size is not handed in.
inline constexpr size_t TIME_TEXT_SIZE = 32;
inline constexpr size_t TIME_CTIME_SIZE = 64;
inline constexpr size_t TIME_DURATION_SIZE = 128;

enum time_iso_result_t {
    TIME_ISO_OK = 0,
    TIME_ISO_NO_LOCALTIME = 1,
    TIME_ISO_NO_ROOM = 2,
};

// Now as "%b %d %T"; empty when time(2) gives 0.
char *time_now_short(char *buffer, size_t size);
// Now as "%a %b %d %H:%M:%S %Z %G", in one static buffer that each call overwrites: one thread only.
const char *time_now_str();
// The same form into TIME_TEXT_SIZE bytes.
char *time_to_str(time_t seconds, char *buffer);
// The duration from start, seconds since the epoch, to now, into TIME_DURATION_SIZE bytes.
char *time_uptime_str(time_t start, char *buffer);
// "D:HH:MM:SS", from a year of 365 days on "Yy D:HH:MM:SS", into TIME_DURATION_SIZE bytes.
char *time_duration_str(int64_t seconds, char *buffer);
// ctime(3) without its newline, into TIME_CTIME_SIZE bytes.
char *time_ctime_str(time_t seconds, char *buffer);
// "%FT%T", and with the zone's offset "%FT%T%z"; the result is one of TIME_ISO_*.
int time_iso_str(char *buffer, size_t size, time_t seconds);
int time_iso_zone_str(char *buffer, size_t size, time_t seconds);

// Milliseconds, 1..period, until monotonic time reaches a multiple of period_ms; 0 for a period of 0.
uint64_t msecs_to_next_boundary(uint64_t period_ms);

#endif
