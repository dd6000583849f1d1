#include "common/timer.h"

#include "common/tip_log.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace
{

constexpr uint64_t BUCKET_MASK = TIMER_NUM_BUCKETS - 1;
constexpr int64_t NSEC_PER_MSEC = 1000000;
constexpr int64_t NSEC_PER_SEC = 1000000000;
constexpr int64_t BUDGET_GRACE_MS = 50;
constexpr int64_t LONG_CALLBACK_MS = 5000;

// One timer_run over its wheels. Times are nanoseconds of the monotonic clock.
struct run_t {
    int64_t start_ns;
    int64_t limit_ns;                // from here on the budget is spent
    char last_name[TIMER_NAME_SIZE]; // of the timer served last, which may be gone by now
};

// The part of a run that serves one wheel.
struct pass_t {
    run_t *run;
    int64_t checked_ns; // when the clock was last looked at
    bool stop;          // the budget is spent
};

timer_clock_fn_t replaced_clock = nullptr; // null: the system's
bool is_debugging = false;

void *plain_malloc(size_t size)
{
    return malloc(size);
}

void plain_free(void *memory)
{
    free(memory);
}

int64_t now_ns()
{
    timespec now = timer_clock_now();
    return now.tv_sec * NSEC_PER_SEC + now.tv_nsec;
}

// Moves cur_ticks up to the clock. Only one second is carried over from base_nsec: after a long gap base_nsec stays
// above a second, which is right too, for the elapsed time is linear in both fields.
void catch_up(timer_mgr_t *mgr)
{
    int64_t tick_ms = timer_resolutions[mgr->resolution].tick_ms;
    int64_t base_ns = static_cast<int64_t>(mgr->base_sec) * NSEC_PER_SEC + static_cast<int64_t>(mgr->base_nsec);
    int64_t elapsed_ns = now_ns() - base_ns;
    if (elapsed_ns < tick_ms * NSEC_PER_MSEC)
        return;
    auto ticks = static_cast<uint64_t>(elapsed_ns / NSEC_PER_MSEC / tick_ms);
    mgr->cur_ticks += ticks;
    mgr->base_nsec += ticks * static_cast<uint64_t>(tick_ms * NSEC_PER_MSEC);
    if (mgr->base_nsec > NSEC_PER_SEC) {
        mgr->base_sec++;
        mgr->base_nsec -= NSEC_PER_SEC;
    }
}

timer_wheel_t *wheel_of(const timer_util_t *timer)
{
    return timer->p_mgr->wheel[timer->priority];
}

timer_util_t *timer_of(dll_node_t *bucket_node)
{
    static_assert(offsetof(timer_util_t, bucket_node) == 0);
    return reinterpret_cast<timer_util_t *>(bucket_node);
}

void bucket_insert(timer_util_t *timer)
{
    timer->bucket = static_cast<uint16_t>(timer->expire_ticks & BUCKET_MASK);
    dll_add_tail(&wheel_of(timer)->buckets[timer->bucket], &timer->bucket_node);
}

void bucket_remove(timer_util_t *timer)
{
    dll_remove(&wheel_of(timer)->buckets[timer->bucket], &timer->bucket_node);
    timer->bucket = TIMER_BUCKET_NULL;
}

void set_interval(timer_util_t *timer, uint32_t interval_ms)
{
    timer->interval_ticks = timer_ms_to_ticks(timer->p_mgr->resolution, interval_ms, true);
}

// Looks at the clock before a timer is served. A spent budget takes effect at the next bucket.
void check_budget(pass_t *pass)
{
    int64_t previous_ns = pass->checked_ns;
    pass->checked_ns = now_ns();
    if (pass->checked_ns < pass->run->limit_ns)
        return;
    pass->stop = true;
    if (int64_t took_ms = (pass->checked_ns - previous_ns) / NSEC_PER_MSEC; took_ms > LONG_CALLBACK_MS)
        tip_log("%s timer took %u msecs!", pass->run->last_name, static_cast<unsigned>(took_ms));
}

void timer_check_if_stale(const timer_util_t *timer, uint64_t tick)
{
    int64_t late_ticks = static_cast<int64_t>(tick - timer->expire_ticks);
    if (late_ticks < 1)
        return;
    tip_log("timer %s (%p) stale by %d ticks", timer->name, static_cast<const void *>(timer),
            static_cast<int>(late_ticks));
    tip_assert_at("timer", 538, late_ticks < 1);
}

// Puts a timer that is due in a later turn behind the others of its bucket.
void skip_turn(timer_util_t *timer, uint64_t tick)
{
    timer_check_if_stale(timer, tick);
    bucket_insert(timer);
    timer->walked = 1;
    if (is_debugging)
        tip_log("p_timer %p %s needs to be skipped. cur_bucket %x expire_ticks %lx cur_ticks %lx walked %d\n",
                static_cast<void *>(timer), timer->name, timer->bucket, timer->expire_ticks, timer->p_mgr->cur_ticks,
                timer->walked);
}

bool is_being_called(const timer_wheel_t *wheel, const timer_util_t *timer)
{
    for (const timer_call_t *call = wheel->calls; call != nullptr; call = call->outer) {
        if (call->timer == timer)
            return true;
    }
    return false;
}

// A cyclic timer is armed again before its callback and counts from the tick processed, not from the clock: when late,
// it fires as often as it should have, and does not drift.
void fire(timer_util_t *timer, timer_wheel_t *wheel, run_t *run)
{
    timer_mgr_t *mgr = timer->p_mgr;
    mgr->nfired++;
    if (timer->type == TIMER_CYCLIC) {
        timer->expire_ticks = wheel->next_bucket_ticks + timer->interval_ticks;
        bucket_insert(timer);
    } else {
        timer->state = TIMER_DISABLED;
        mgr->nactive--;
    }
    if (is_debugging)
        tip_log("exec timer %s (%p) cur_bucket %#x next_bucket %#x", timer->name, static_cast<void *>(timer),
                static_cast<unsigned>(mgr->cur_ticks & BUCKET_MASK),
                static_cast<unsigned>(wheel->next_bucket_ticks & BUCKET_MASK));
    memcpy(run->last_name, timer->name, sizeof run->last_name);

    timer_call_t call = { timer, wheel->calls };
    wheel->calls = &call;
    timer->cb(timer, timer->arg1, timer->arg2, timer->arg3, timer->arg4);
    wheel->calls = call.outer;
}

// Takes a timer out of the bucket of tick and puts it where it belongs.
void serve_timer(timer_util_t *timer, timer_wheel_t *wheel, uint64_t tick, run_t *run)
{
    tip_assert(timer->bucket == (tick & BUCKET_MASK));
    bucket_remove(timer);
    if (timer->expire_ticks != tick) {
        skip_turn(timer, tick);
    } else if (is_being_called(wheel, timer)) {
        timer->expire_ticks = tick + 1;
        bucket_insert(timer);
    } else {
        fire(timer, wheel, run);
    }
}

void clear_walked(const dll_t *bucket)
{
    for (dll_node_t *node = bucket->p_head; node != nullptr; node = node->p_next) {
        timer_util_t *p_timer = timer_of(node);
        if (is_debugging && p_timer->walked)
            tip_log("timer %s %p walked = 0 bucket %x", p_timer->name, static_cast<void *>(p_timer), p_timer->bucket);
        p_timer->walked = 0;
    }
    for (dll_node_t *node = bucket->p_head; node != nullptr; node = node->p_next) {
        const timer_util_t *p_timer = timer_of(node);
        tip_assert_at("timer", 657, p_timer->walked == 0);
    }
}

// Serves the next tick. Each timer is read from the head of the bucket afresh, for a callback may take away any of
// them. When a callback has run this wheel itself, the bucket is done and the wheel has moved on.
void serve_bucket(timer_wheel_t *wheel, pass_t *pass)
{
    uint64_t tick = wheel->next_bucket_ticks;
    const dll_t *bucket = &wheel->buckets[tick & BUCKET_MASK];
    while (bucket->p_head != nullptr && !timer_of(bucket->p_head)->walked) {
        check_budget(pass);
        serve_timer(timer_of(bucket->p_head), wheel, tick, pass->run);
        if (wheel->next_bucket_ticks != tick)
            return;
    }
    clear_walked(bucket);
    wheel->next_bucket_ticks++;
}

int timer_exec_pri(const timer_mgr_t *mgr, timer_wheel_t *wheel, run_t *run)
{
    pass_t pass = { run, run->start_ns, false };
    while (wheel->next_bucket_ticks <= mgr->cur_ticks) {
        if (pass.stop)
            return TIMER_BUDGET_SPENT;
        serve_bucket(wheel, &pass);
    }
    return TIMER_OK;
}

} // namespace

timer_mgr_t *timer_mgr_create(uint32_t resolution, timer_malloc_fn_t malloc_fn, timer_free_fn_t free_fn, void *user_ctx,
                              uint32_t priority_mask)
{
    (void)timer_resolution_get(resolution); // fatal here rather than at the first tick
    bool is_plain = malloc_fn == nullptr || free_fn == nullptr;
    timer_malloc_fn_t allocate = is_plain ? plain_malloc : malloc_fn;
    auto num_wheels = static_cast<size_t>(__builtin_popcount(priority_mask & TIMER_MASK_ALL));
    void *memory = allocate(sizeof(timer_mgr_t) + num_wheels * sizeof(timer_wheel_t));
    if (memory == nullptr)
        return nullptr;

    auto *mgr = new (memory) timer_mgr_t{};
    mgr->resolution = resolution;
    mgr->malloc_fn = allocate;
    mgr->free_fn = is_plain ? plain_free : free_fn;
    mgr->user_ctx = user_ctx;
    timespec now = timer_clock_now();
    mgr->base_sec = static_cast<uint64_t>(now.tv_sec);
    mgr->base_nsec = static_cast<uint64_t>(now.tv_nsec);
    static_assert(sizeof(timer_mgr_t) % alignof(timer_wheel_t) == 0);
    auto *place = reinterpret_cast<timer_wheel_t *>(mgr + 1);
    for (unsigned priority = 0; priority < TIMER_NUM_PRIOS; priority++) {
        if (priority_mask & 1U << priority)
            mgr->wheel[priority] = new (place++) timer_wheel_t{};
    }
    return mgr;
}

void timer_mgr_delete(timer_mgr_t *mgr)
{
    if (mgr->ncreated != mgr->ndeleted || mgr->nactive != 0)
        timer_mgr_dump(mgr, TIMER_NUM_BUCKETS / 2);
    tip_assert_at("timer", 232, mgr->ncreated == mgr->ndeleted && mgr->nactive == 0);
    mgr->free_fn(mgr);
}

uint32_t timer_mgr_tick(const timer_mgr_t *mgr, timeval *tick)
{
    uint32_t tick_ms = timer_resolution_get(mgr->resolution).tick_ms;
    if (tick != nullptr)
        *tick = { tick_ms / 1000, tick_ms % 1000 * 1000 };
    return mgr->resolution;
}

timer_util_t *timer_util_create(timer_mgr_t *mgr, uint8_t priority, uint8_t type, uint32_t interval_ms, timer_cb_t cb,
                                void *arg1, void *arg2, void *arg3, void *arg4, const char *name)
{
    uint8_t actual = priority < TIMER_NUM_PRIOS ? priority : TIMER_NUM_PRIOS - 1;
    while (mgr->wheel[actual] == nullptr) {
        if (actual == 0)
            return nullptr;
        actual--;
    }
    void *memory = mgr->malloc_fn(sizeof(timer_util_t));
    if (memory == nullptr)
        return nullptr;

    auto *timer = new (memory) timer_util_t{};
    timer->p_mgr = mgr;
    timer->type = type;
    timer->state = TIMER_DISABLED;
    timer->priority = actual;
    timer->bucket = TIMER_BUCKET_NULL;
    set_interval(timer, interval_ms);
    (void)snprintf(timer->name, sizeof timer->name, "%s", name); // long names are cut
    timer->cb = cb;
    timer->arg1 = arg1;
    timer->arg2 = arg2;
    timer->arg3 = arg3;
    timer->arg4 = arg4;
    dll_add_tail(&mgr->all_timers, &timer->create_node);
    mgr->ncreated++;
    if (is_debugging)
        tip_log("name %s, priority %d (actual %d), type %d, interval %u msecs (%u ticks)", timer->name, priority,
                actual, type, interval_ms, timer->interval_ticks);
    return timer;
}

void timer_util_delete(timer_util_t *timer)
{
    timer_mgr_t *mgr = timer->p_mgr;
    if (is_debugging)
        tip_log("name %s, priority %d, type %d, interval %u msecs (%u ticks)", timer->name, timer->priority,
                timer->type, timer_ticks_to_ms(mgr->resolution, timer->interval_ticks), timer->interval_ticks);
    timer_disable(timer);
    for (timer_call_t *call = wheel_of(timer)->calls; call != nullptr; call = call->outer) {
        if (call->timer == timer)
            call->timer = nullptr;
    }
    dll_remove(&mgr->all_timers, &timer->create_node);
    timer->p_mgr = nullptr;
    mgr->free_fn(timer);
    mgr->ndeleted++;
}

void timer_enable(timer_util_t *p_timer)
{
    if (p_timer->state == TIMER_ENABLED)
        return;
    tip_assert(p_timer->bucket == TIMER_BUCKET_NULL);
    timer_mgr_t *mgr = p_timer->p_mgr;
    const timer_wheel_t *wheel = wheel_of(p_timer);
    catch_up(mgr);
    if (p_timer->interval_ticks == 0)
        p_timer->interval_ticks = 1;
    p_timer->expire_ticks = mgr->cur_ticks + p_timer->interval_ticks;
    if (p_timer->expire_ticks < wheel->next_bucket_ticks)
        p_timer->expire_ticks = wheel->next_bucket_ticks + 1;
    bucket_insert(p_timer);
    p_timer->state = TIMER_ENABLED;
    p_timer->walked = 0;
    mgr->nactive++;
    if (is_debugging) {
        tip_log("p_timer %p %s cur_ticks %#lx next_bucket_ticks %#lx expire_ticks: %#lx", static_cast<void *>(p_timer),
                p_timer->name, mgr->cur_ticks, wheel->next_bucket_ticks, p_timer->expire_ticks);
        timer_dump(p_timer);
    }
}

void timer_disable(timer_util_t *timer)
{
    if (timer->state != TIMER_ENABLED)
        return;
    timer->state = TIMER_DISABLED;
    if (timer->bucket != TIMER_BUCKET_NULL) {
        bucket_remove(timer);
        timer->p_mgr->nactive--;
    }
    if (is_debugging) {
        tip_log("p_timer %p %s cur_ticks %#lx next_bucket_ticks %#lx", static_cast<void *>(timer), timer->name,
                timer->p_mgr->cur_ticks, wheel_of(timer)->next_bucket_ticks);
        timer_dump(timer);
    }
}

void timer_restart(timer_util_t *timer, uint32_t interval_ms)
{
    set_interval(timer, interval_ms);
    timer_disable(timer);
    timer_enable(timer);
}

void timer_set_interval(timer_util_t *timer, uint32_t interval_ms)
{
    if (timer_is_running(timer))
        timer_restart(timer, interval_ms);
    else
        set_interval(timer, interval_ms);
}

bool timer_is_running(const timer_util_t *timer)
{
    return timer != nullptr && timer->state == TIMER_ENABLED && timer->bucket != TIMER_BUCKET_NULL;
}

int64_t timer_remaining_ticks(const timer_util_t *timer)
{
    if (!timer_is_running(timer))
        return -1;
    return static_cast<int64_t>(timer->expire_ticks - timer->p_mgr->cur_ticks);
}

int64_t timer_interval_ticks(const timer_util_t *timer)
{
    return timer != nullptr ? timer->interval_ticks : -1;
}

int64_t timer_interval_ms(const timer_util_t *timer)
{
    if (timer == nullptr)
        return -1;
    return timer_ticks_to_ms(timer->p_mgr->resolution, timer->interval_ticks);
}

void timer_get_args(const timer_util_t *timer, void **arg1, void **arg2, void **arg3, void **arg4)
{
    if (arg1 != nullptr)
        *arg1 = timer->arg1;
    if (arg2 != nullptr)
        *arg2 = timer->arg2;
    if (arg3 != nullptr)
        *arg3 = timer->arg3;
    if (arg4 != nullptr)
        *arg4 = timer->arg4;
}

int timer_run(timer_mgr_t *mgr, uint32_t priority_mask, uint32_t budget_ms)
{
    catch_up(mgr);
    int64_t start_ns = now_ns();
    run_t run = { start_ns, start_ns + (int64_t{ budget_ms } + BUDGET_GRACE_MS + 1) * NSEC_PER_MSEC, {} };
    for (unsigned priority = TIMER_NUM_PRIOS; priority-- > 0;) {
        if ((priority_mask & 1U << priority) == 0 || mgr->wheel[priority] == nullptr)
            continue;
        if (int result = timer_exec_pri(mgr, mgr->wheel[priority], &run); result != TIMER_OK)
            return result;
    }
    return TIMER_OK;
}

void timer_flush_current_bucket(timer_mgr_t *mgr, timer_flush_cb_t cb)
{
    for (const timer_wheel_t *wheel : mgr->wheel) {
        if (wheel == nullptr)
            continue;
        const dll_t *bucket = &wheel->buckets[wheel->next_bucket_ticks & BUCKET_MASK];
        for (int32_t left = bucket->count; left > 0 && bucket->p_head != nullptr; left--) {
            timer_util_t *timer = timer_of(bucket->p_head);
            cb(timer->arg1, timer->arg2, timer->arg3, timer->arg4);
            timer_util_delete(timer);
        }
    }
}

uint32_t timer_ms_to_next_multiple(uint32_t period_ms)
{
    return period_ms - static_cast<uint32_t>(now_ns() / NSEC_PER_MSEC % period_ms);
}

void timer_debug_set(bool on)
{
    is_debugging = on;
}

void timer_clock_set(timer_clock_fn_t clock_fn)
{
    replaced_clock = clock_fn;
}

// The coarse clock is the one that libevent arms its time-outs by: a tick that libevent has waited for has always
// passed here too. It also costs a fraction of the precise one, and is read for every timer served.
timespec timer_clock_now()
{
    timespec now;
    if (__builtin_expect(replaced_clock != nullptr, 0))
        replaced_clock(&now);
    else
        clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now;
}
