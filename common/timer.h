// Timers on tick-driven wheels.
//
// The library owns no clock event: the application calls timer_run once per tick from its loop, and the manager works
// out from the monotonic clock how many ticks have passed. A manager has up to two wheels; the timers of the high one
// are always served first. Enabling, disabling and firing take constant time, but a timer that is due more than
// TIMER_NUM_BUCKETS ticks ahead is looked at once in each turn of the wheel.
//
// Everything belongs to the thread of the event loop; there are no locks. A callback may create, enable, disable and
// delete any timer, its own included, and may run the manager again, any wheel of it: the inner run carries on where
// the outer one stands, and no callback is entered again while it runs (a timer that falls due meanwhile is served at
// the first tick after). Bookkeeping that does not add up ends the process.
#ifndef COMMON_TIMER_H
#define COMMON_TIMER_H

#include "common/dll.h"
#include "common/tip_assert.h"

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <sys/time.h>
#include <time.h>

inline constexpr uint32_t TIMER_NUM_BUCKETS = 2048;
inline constexpr uint16_t TIMER_BUCKET_NULL = 65535; // in no bucket
inline constexpr size_t TIMER_NAME_SIZE = 16;

// Index of the length of a tick; see timer_resolutions.
enum timer_resolution_t : uint32_t {
    TIMER_RES_10MS,
    TIMER_RES_50MS,
    TIMER_RES_100MS,
    TIMER_RES_500MS,
    TIMER_RES_1SEC,
    TIMER_RES_1MIN,
};

enum timer_priority_t : uint8_t {
    TIMER_PRIO_NORMAL,
    TIMER_PRIO_HIGH,
    TIMER_NUM_PRIOS,
};

// Sets of wheels, for timer_mgr_create and timer_run.
inline constexpr uint32_t TIMER_MASK_NORMAL = 1U << TIMER_PRIO_NORMAL;
inline constexpr uint32_t TIMER_MASK_HIGH = 1U << TIMER_PRIO_HIGH;
inline constexpr uint32_t TIMER_MASK_ALL = TIMER_MASK_NORMAL | TIMER_MASK_HIGH;

enum timer_type_t : uint8_t {
    TIMER_ONE_SHOT,
    TIMER_CYCLIC,
};

enum timer_state_t : uint8_t {
    TIMER_DISABLED,
    TIMER_ENABLED,
    TIMER_DELETED,
};

// Result of timer_run.
enum {
    TIMER_OK = 0,
    TIMER_BUDGET_SPENT = 11,
};

struct timer_mgr_t;
struct timer_util_t;

// The arguments are those given at creation.
using timer_cb_t = void (*)(timer_util_t *timer, void *arg1, void *arg2, void *arg3, void *arg4);
using timer_flush_cb_t = void (*)(void *arg1, void *arg2, void *arg3, void *arg4);
using timer_malloc_fn_t = void *(*)(size_t size);
using timer_free_fn_t = void (*)(void *memory);
using timer_clock_fn_t = void (*)(timespec *now);

// What enabling and disabling touch stands first and together.
struct timer_util_t {
    dll_node_t bucket_node; // first, so that the node is the timer
    timer_mgr_t *p_mgr;     // owner
    uint8_t type;           // timer_type_t
    uint8_t state;          // timer_state_t
    uint8_t priority;       // the wheel it really runs on
    uint8_t walked : 1;     // this visit of its bucket has already looked at it
    uint16_t bucket;        // index, or TIMER_BUCKET_NULL
    uint32_t interval_ticks;
    uint64_t expire_ticks; // absolute
    timer_cb_t cb;
    void *arg1;
    void *arg2;
    void *arg3;
    void *arg4;
    char name[TIMER_NAME_SIZE];
    dll_node_t create_node; // on the manager's all_timers
};

// A callback in progress, on the stack of the run that made the call.
struct timer_call_t {
    const timer_util_t *timer; // null once the timer has been deleted
    timer_call_t *outer;       // the call from within which this run was made
};

struct timer_wheel_t {
    uint64_t next_bucket_ticks; // the next tick to be processed
    timer_call_t *calls;        // innermost first, null outside of callbacks
    dll_t buckets[TIMER_NUM_BUCKETS];
};

// One allocation together with its wheels.
struct timer_mgr_t {
    uint32_t resolution; // timer_resolution_t
    timer_malloc_fn_t malloc_fn;
    timer_free_fn_t free_fn;
    void *user_ctx; // the application's, not used here
    uint64_t base_sec;
    uint64_t base_nsec;                    // with base_sec the monotonic time of cur_ticks; may stand above one second
    uint64_t cur_ticks;                    // since creation
    timer_wheel_t *wheel[TIMER_NUM_PRIOS]; // null where not asked for
    dll_t all_timers;
    uint32_t ncreated;
    uint32_t ndeleted;
    uint32_t nactive;
    uint32_t nfired;
};

struct timer_resolution_row_t {
    const char *label;
    uint32_t tick_ms;
};

inline constexpr timer_resolution_row_t timer_resolutions[] = {
    { "10ms", 10 }, { "50ms", 50 }, { "100ms", 100 }, { "500ms", 500 }, { "1sec", 1000 }, { "1min", 60000 },
};

// The row of a resolution index; an index outside the table is fatal.
inline const timer_resolution_row_t &timer_resolution_get(uint32_t resolution)
{
    tip_assert(resolution < std::size(timer_resolutions));
    return timer_resolutions[resolution];
}

// Whole ticks in ms, or the nearest number of ticks. 32-bit arithmetic: up to half a tick below UINT32_MAX ms.
inline uint32_t timer_ms_to_ticks(uint32_t resolution, uint32_t ms, bool round)
{
    uint32_t tick_ms = timer_resolution_get(resolution).tick_ms;
    return (ms + (round ? tick_ms / 2 : 0)) / tick_ms;
}

inline uint32_t timer_ticks_to_ms(uint32_t resolution, uint32_t ticks)
{
    return ticks * timer_resolution_get(resolution).tick_ms;
}

// Creates a manager with the wheels of priority_mask; null without memory. Unless both allocator functions are given,
// malloc(3) and free(3) serve. The manager stands at tick 0 now.
[[nodiscard]] timer_mgr_t *timer_mgr_create(uint32_t resolution, timer_malloc_fn_t malloc_fn, timer_free_fn_t free_fn,
                                            void *user_ctx, uint32_t priority_mask);

// Frees a manager. A timer that has not been deleted is fatal: all timers are dumped first.
void timer_mgr_delete(timer_mgr_t *mgr);

// Writes the length of a tick, unless tick is null, and returns the resolution index.
uint32_t timer_mgr_tick(const timer_mgr_t *mgr, timeval *tick);

// Creates a disabled timer. interval_ms is rounded to the nearest tick; 0 means one tick. A priority whose wheel the
// manager lacks falls back to the next lower one. name is cut to 15 characters. Null without memory or wheel.
[[nodiscard]] timer_util_t *timer_util_create(timer_mgr_t *mgr, uint8_t priority, uint8_t type, uint32_t interval_ms,
                                              timer_cb_t cb, void *arg1, void *arg2, void *arg3, void *arg4,
                                              const char *name);

// Disables and frees the timer.
void timer_util_delete(timer_util_t *timer);

// Starts a timer, which falls due one interval from now. A running timer is left as it is, neither restarted nor
// extended.
void timer_enable(timer_util_t *timer);

// Stops a timer; a stopped one is left as it is.
void timer_disable(timer_util_t *timer);

// Sets the interval and starts the timer anew.
void timer_restart(timer_util_t *timer, uint32_t interval_ms);

// Sets the interval; a running timer starts anew.
void timer_set_interval(timer_util_t *timer, uint32_t interval_ms);

// Enabled and in a bucket; a null timer is not.
[[nodiscard]] bool timer_is_running(const timer_util_t *timer);

// Ticks until the timer is due, as of the last run or enabling; -1 when it is not running.
[[nodiscard]] int64_t timer_remaining_ticks(const timer_util_t *timer);

// The interval; -1 for a null timer.
[[nodiscard]] int64_t timer_interval_ticks(const timer_util_t *timer);
[[nodiscard]] int64_t timer_interval_ms(const timer_util_t *timer);

// Writes the four arguments, each where its pointer is not null.
void timer_get_args(const timer_util_t *timer, void **arg1, void **arg2, void **arg3, void **arg4);

// Serves all timers that are due on the wheels of priority_mask, high before normal. A tick that has begun is finished,
// but when more than budget_ms and a grace of 50 ms have gone by, the rest waits for the next run: then the result is
// TIMER_BUDGET_SPENT, else TIMER_OK.
int timer_run(timer_mgr_t *mgr, uint32_t priority_mask, uint32_t budget_ms);

// Calls cb for, and then deletes, every timer in the next bucket of each wheel, in whatever turn it is due. cb must not
// delete the timer that it is called for.
void timer_flush_current_bucket(timer_mgr_t *mgr, timer_flush_cb_t cb);

// Milliseconds, 1 to period_ms, until the clock is a multiple of period_ms, which is above 0.
[[nodiscard]] uint32_t timer_ms_to_next_multiple(uint32_t period_ms);

// The process-wide switch of the debug lines of creation, enabling, disabling, deletion and service.
void timer_debug_set(bool on);

// Logs one line about a timer.
void timer_dump(const timer_util_t *timer);

// Logs the manager, all created timers, and the timers in the buckets up to span before and after each wheel's next.
void timer_mgr_dump(const timer_mgr_t *mgr, uint32_t span);

// Puts another monotonic clock, process-wide, in the place of the system's; null gives back the system's, which moves
// in steps of the kernel's tick.
void timer_clock_set(timer_clock_fn_t clock_fn);
[[nodiscard]] timespec timer_clock_now();

#endif
